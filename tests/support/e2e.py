"""Common ground of the end-to-end tests: programs started for a test, other clients, and a look into the database."""

import ast
import os
import pathlib
import subprocess
import tempfile
import unittest

import daemon
import openflow

BIN = os.environ["KELIM_BIN"]
LIMIT = 60  # seconds to wait for any condition; sanitizer builds on a busy machine are slow


def ofctl(port, command, *arguments, options=(), stdin=None):
    """Runs ovs-ofctl, a client independent of this project."""
    return subprocess.run(
        ["ovs-ofctl", "-O", "OpenFlow13", *options, command, f"tcp:127.0.0.1:{port}", *arguments],
        input=stdin, capture_output=True, text=True, timeout=2 * LIMIT,
    )


def redis(socket, *words, database=8):
    """Runs a command in the Redis server on that unix socket and returns the list that it answers; None for items without text."""
    command = ["redis-cli", "-s", socket, "-n", str(database), "--no-raw", *words]
    lines = subprocess.run(command, capture_output=True, check=True, text=True, timeout=2 * LIMIT).stdout.splitlines()
    return [ast.literal_eval("b" + line.partition(") ")[2]) if line.endswith('"') else None for line in lines]


def kill_clients(socket, name):
    """Ends the connections of the server's clients whose entry in CLIENT LIST contains `name`."""
    command = ["redis-cli", "-s", socket, "CLIENT", "LIST"]
    for client in subprocess.run(command, capture_output=True, check=True, text=True, timeout=60).stdout.splitlines():
        if name in client:
            subprocess.run([*command[:3], "CLIENT", "KILL", "ID", client.split()[0][len("id="):]], check=True, capture_output=True)


def records(socket, kind, database=8):
    """Returns the packed records of that kind by key, such as "17:0", without using any code of the programs under test."""
    prefix = f"s_policy_kelim.{kind}:"
    names = [name.decode() for name in redis(socket, "KEYS", prefix + "*", database=database) if name]
    values = redis(socket, "MGET", *names, database=database) if names else []
    return {name.removeprefix(prefix): value[8:] for name, value in zip(names, values) if value}


class Sentinels:
    """A Redis master, its replica and three sentinels that monitor both."""

    def __init__(self):
        self.dir = tempfile.TemporaryDirectory(prefix="kelim-")
        self.ports = [daemon.Port() for _ in range(5)]
        numbers = [port.number for port in self.ports]
        self.url = "redis+sentinel://" + ",".join(f"127.0.0.1:{number}" for number in numbers[2:]) + "/kelim"
        self.sockets = [f"{self.dir.name}/{number}.sock" for number in numbers[:2]]
        self.servers = [
            self._start("--port", number, "--unixsocket", socket, "--save", "", "--hz", "100", "--repl-diskless-sync-delay", "0")
            for number, socket in zip(numbers, self.sockets)
        ]
        daemon.wait_until(lambda: all(map(os.path.exists, self.sockets)), LIMIT, "the Redis servers")
        self.ask(1, "REPLICAOF", "127.0.0.1", str(numbers[0]))
        daemon.wait_until(lambda: "master_link_status:up" in self.ask(1, "INFO", "replication"), LIMIT, "the replica")
        self.sentinels = [self._start_sentinel(number, numbers[0]) for number in numbers[2:]]
        known = lambda number: subprocess.run(
            ["redis-cli", "-p", str(number), "SENTINEL", "CKQUORUM", "kelim"], capture_output=True, text=True
        ).stdout.startswith("OK 3") and "name" in subprocess.run(
            ["redis-cli", "-p", str(number), "SENTINEL", "REPLICAS", "kelim"], capture_output=True, text=True
        ).stdout
        daemon.wait_until(lambda: all(map(known, numbers[2:])), LIMIT, "the sentinels to find each other and the replica")

    def _start(self, *arguments):
        command = ["redis-server", *map(str, arguments), "--bind", "127.0.0.1", "--dir", self.dir.name]
        return subprocess.Popen(command, stdout=subprocess.DEVNULL)

    def _start_sentinel(self, number, master):
        path = pathlib.Path(self.dir.name, f"{number}.conf")
        path.write_text(
            f"port {number}\nsentinel monitor kelim 127.0.0.1 {master} 2\nsentinel down-after-milliseconds kelim 1000\n"
            "sentinel failover-timeout kelim 5000\n"
        )
        return self._start(path, "--sentinel")

    def ask(self, server, *words):
        return subprocess.run(["redis-cli", "-s", self.sockets[server], *words], capture_output=True, text=True, timeout=60).stdout

    def close(self):
        for process in self.servers + self.sentinels:
            process.kill()
            process.wait()
        for port in self.ports:
            port.close()
        self.dir.cleanup()


class Test(unittest.TestCase):
    def daemon(self, **settings):
        """Starts a daemon that ends with the test. Its end must be clean: sanitizers report leaks by the exit status."""
        return self.run_until_the_end(daemon.Daemon(BIN, **settings))

    def system(self, **settings):
        """Starts Redis, the programming service and the daemon as three processes, which end with the test."""
        return self.run_until_the_end(daemon.System(BIN, **settings))

    def run_until_the_end(self, running):
        running.__enter__()
        self.addCleanup(running.__exit__)
        self.addCleanup(self._end_cleanly, running)
        return running

    def _end_cleanly(self, running):
        if running.process.poll() is None:
            self.assertEqual(running.stop(), 0, running.output()[-3000:])

    def spawn(self, *words, **how):
        """Starts another program, which is killed at the end of the test."""
        process = subprocess.Popen([str(word) for word in words], **how)
        self.addCleanup(process.__exit__, None, None, None)
        self.addCleanup(process.kill)
        return process

    def free_port(self):
        """Reserves a TCP port of 127.0.0.1 until the end of the test, and returns its number."""
        reserved = daemon.Port()
        self.addCleanup(reserved.close)
        return reserved.number

    def client(self, running, address=""):
        """Connects a controller on this machine, from another local address if one is given."""
        client = openflow.Client(running.port, source=address)
        self.addCleanup(client.close)
        return client.handshake()

    def await_that(self, condition, what):
        return daemon.wait_until(condition, LIMIT, what)

    def stored(self, running, kind):
        """Returns the keys of the stored records of that kind."""
        listed = running.ask_json("mom", "ls", kind, "--limit", 100000)
        return [found["key"] for found in listed["objects"]]
