"""Starts the daemon privately (own run directory, free TCP port, embedded store, simulated programming service) and talks to it."""

import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import openflow

PORTS = 8  # of the simulated switch, numbered from 1
START_LIMIT = 60  # seconds; sanitizer builds on a busy machine are slow


class Failed(Exception):
    """Raised when an expectation is not met; the text is for the user."""


class Port:
    """A TCP port of 127.0.0.1 that the system assigns to no other process while this object lives.

    It is bound but does not listen: a server that sets SO_REUSEADDR, as they all do, can use it any number of times.
    """

    def __init__(self):
        self.socket = socket.socket()
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.bind(("127.0.0.1", 0))
        self.number = self.socket.getsockname()[1]

    def close(self):
        self.socket.close()


def wait_until(condition, limit, what):
    """Waits until the condition returns something true, and returns that."""
    end = time.monotonic() + limit
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise Failed(f"after {limit} s there is still no sign of: {what}")
        time.sleep(0.01)


class Daemon:
    """`settings` are host-platform settings, section_key=value: programmer_size=3 becomes KELIM_PROGRAMMER_SIZE."""

    def __init__(self, bin_dir, run_dir=None, port=None, **settings):
        self.bin = pathlib.Path(bin_dir)
        self.command_line = [self.bin / "ssc_kelim"]
        self.own_run_dir = run_dir is None
        self.run_dir = pathlib.Path(run_dir or tempfile.mkdtemp(prefix="kelim-"))
        self.own_port = None if port else Port()
        self.port = port or self.own_port.number
        self.log = self.run_dir / "output"
        chosen = {
            "run_dir": self.run_dir,
            "mom_url": "embedded:",
            "openflow_listen": f"ptcp:127.0.0.1:{self.port}",
            "programmer_embedded": "true",
            "openflow_prompt": os.environ.get("KELIM_OPENFLOW_PROMPT", "true"),  # so that every test can be run both ways
            "ports": ",".join(f"{n}:eth{n}:{100 + n}:1" for n in range(1, PORTS + 1)),
            **settings,
        }
        self.environment = {k: v for k, v in os.environ.items() if not k.startswith("KELIM_")}
        self.environment |= {f"KELIM_{key.upper()}": str(value) for key, value in chosen.items()}
        self.environment["KELIM_CONF"] = "/dev/null"
        self.process = None

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.__exit__()
            raise

    def __exit__(self, *_):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.own_port:
            self.own_port.close()
        if self.own_run_dir:
            shutil.rmtree(self.run_dir, ignore_errors=True)

    def spawn(self):
        """Starts another process of the daemon with the same settings; its output goes to a pipe."""
        return subprocess.Popen(
            self.command_line, env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
        )

    def start(self):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command_line, env=self.environment, stdout=log, stderr=log)
        try:
            wait_until(self.ready, START_LIMIT, "the daemon answering on its OpenFlow port")
        except Failed as late:
            raise Failed(f"{late}\n{self.output()[-2000:]}{self.kelimctl('controllers').stdout}") from None
        return self

    def ready(self):
        """True once the daemon serves its port and has finished the first synchronisation, which the first connection starts."""
        if self.process.poll() is not None:
            raise Failed(f"the daemon ended with status {self.process.returncode}:\n{self.output()[-2000:]}")
        try:
            with openflow.Client(self.port) as client:
                client.handshake()
        except (OSError, EOFError):
            return False
        counted = self.kelimctl("cmd", "ssc_kelim_proxy", "show-cnt").stdout
        return re.search(r"DS +[1-9]\d* +[1-9]", counted)

    def stop(self, how=signal.SIGTERM, limit=20):
        """Ends the daemon and returns its exit status."""
        self.process.send_signal(how)
        return self.process.wait(limit)

    def output(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def client(self):
        return openflow.Client(self.port).handshake()

    def kelimctl(self, *arguments):
        return subprocess.run(
            [self.bin / "kelimctl", "--run-dir", self.run_dir, *map(str, arguments)],
            env=self.environment, capture_output=True, text=True, timeout=120,
        )

    def ask(self, *arguments):
        """Returns kelimctl's output; raises Failed if it fails."""
        result = self.kelimctl(*arguments)
        if result.returncode != 0:
            raise Failed(f"kelimctl {' '.join(map(str, arguments))} ended with {result.returncode}: {result.stderr.strip()}")
        return result.stdout

    def ask_json(self, *arguments):
        return json.loads(self.ask(*arguments, "--json"))

    def command(self, name, *arguments, module="ssc_kelim"):
        return self.ask("cmd", module, name, *arguments)

    def resident_kib(self):
        for line in pathlib.Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
        raise Failed("the daemon has no memory figure")


class System(Daemon):
    """Redis, kelim-programmer and the daemon as separate processes, kept running by tools/demo/supervise, which is `process`."""

    NAMES = ("redis-server", "kelim-programmer", "ssc_kelim")

    def __init__(self, bin_dir, **settings):
        run_dir = tempfile.mkdtemp(prefix="kelim-")
        self.socket = f"{run_dir}/redis.sock"
        super().__init__(bin_dir, run_dir, **{"mom_url": f"redis+unix:{self.socket}", **settings})
        del self.environment["KELIM_PROGRAMMER_EMBEDDED"]
        self.own_run_dir = True
        self.command_line = [pathlib.Path(__file__).parents[2] / "tools" / "demo" / "supervise", bin_dir]

    def ready(self):
        """True once both the daemon and the programming service are ready; the service may take longer to find its database."""
        return super().ready() and self.kelimctl("--process", "kelim-programmer", "cmd", "programmer", "flows").returncode == 0

    def pids(self, name):
        """Returns the process ids that the named service has had since the start, the current one last."""
        return [int(pid) for pid in re.findall(rf"{name} is started \(pid (\d+)\)", self.output())]

    def signal(self, name, how):
        os.kill(self.pids(name)[-1], how)

    def programmer(self, command):
        return self.ask("--process", "kelim-programmer", "cmd", "programmer", command)
