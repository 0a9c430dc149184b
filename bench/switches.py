"""The switches that compare.py and planes.py measure: this daemon with its embedded database and with Redis, and Open vSwitch's user-space
switch. All listen for OpenFlow on loopback only and run from temporary directories."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "support"))
import daemon  # noqa: E402

ROOM = 4_000_000  # flows that every part of this system accepts
OURS, REDIS, OVS = "embedded", "with Redis", "Open vSwitch"
OFCTL = ["ovs-ofctl", "-O", "OpenFlow13"]


class Switch:
    """One switch under measurement: its OpenFlow port and its processes. `pids` is a function, because processes may be restarted."""

    def __init__(self, name, port, pids, stop, running=None):
        self.name, self.port, self.pids, self.stop, self.running = name, port, pids, stop, running

    @property
    def address(self):
        return f"tcp:127.0.0.1:{self.port}"

    @property
    def control(self):
        """The daemon's control socket; Open vSwitch has none that can be queried often."""
        return self.running and self.running.run_dir / "ssc_kelim.ctl"

    def memory(self):
        """Resident memory in bytes."""
        statuses = [Path(f"/proc/{pid}/status").read_text() for pid in self.pids()]
        return sum(int(line.split()[1]) * 1024 for text in statuses for line in text.splitlines() if line.startswith("VmRSS:"))

    def threads(self):
        return [thread for pid in self.pids() for thread in Path(f"/proc/{pid}/task").iterdir()]

    def cpu(self):
        """Processor time in seconds by thread, from a source in nanoseconds: the 10 ms of /proc/PID/stat are too coarse."""
        return {thread: int((thread / "schedstat").read_text().split()[0]) / 1e9 for thread in self.threads()}

    def cpu_since(self, before):
        now = self.cpu()
        if before.keys() - now.keys():
            raise daemon.Failed(f"{self.name}: a thread ended while its processor time was measured")
        return sum(seconds - before.get(thread, 0) for thread, seconds in now.items())

    def loop_waited(self):
        """Seconds for which the daemon's main thread has waited for a processor."""
        return int(Path(f"/proc/{self.pids()[-1]}/schedstat").read_text().split()[1]) / 1e9

    def flows(self):
        """The number of its flows, according to a client that shares no code with the one that measures."""
        told = subprocess.run([*OFCTL, "dump-aggregate", self.address], capture_output=True, text=True, timeout=60)
        found = re.search(r"flow_count=(\d+)", told.stdout)
        return int(found[1]) if found else None

    def expect(self, flows):
        if (found := self.flows()) != flows:
            raise daemon.Failed(f"{self.name} holds {found} flows instead of {flows}")

    def empty(self):
        subprocess.run([*OFCTL, "del-flows", self.address], check=True, timeout=120)
        self.expect(0)


def check_alike(switches):
    """Checks that all processes have the same scheduling policy, priority and processors."""

    def rules(thread):
        tid = int(thread.name)
        return os.sched_getscheduler(tid), os.getpriority(os.PRIO_PROCESS, tid), frozenset(os.sched_getaffinity(tid))

    found = {rules(thread) for switch in switches for thread in switch.threads()} | {rules(Path(str(os.getpid())))}
    if len(found) != 1:
        raise daemon.Failed(f"the processes differ in policy, priority or processors: {found}")


def start_ours(bin_dir, **settings):
    chosen = {"openflow_capacity": ROOM, "programmer_size": ROOM, "log_level": "error", **settings}
    running = daemon.Daemon(bin_dir, **chosen).__enter__()
    return Switch(OURS, running.port, lambda: [running.process.pid], running.__exit__, running)


def start_with_redis(bin_dir):
    running = daemon.System(
        bin_dir, openflow_capacity=ROOM, programmer_size=ROOM, openflow_decide_timeout_ms=60000, log_level="error"
    ).__enter__()

    def stop():
        running.stop()
        running.__exit__()

    return Switch(REDIS, running.port, lambda: [running.pids(name)[-1] for name in running.NAMES], stop, running)


def start_ovs(_, datapath="dummy", interfaces=()):
    """With the data path "netdev" it forwards packets; port N is the N-th interface."""
    tmp = Path(tempfile.mkdtemp(prefix="kelim-compare-"))
    reserved = daemon.Port()
    port = reserved.number
    db, sock, schema = tmp / "conf.db", tmp / "db.sock", "/usr/share/openvswitch/vswitch.ovsschema"
    env = dict(os.environ, OVS_RUNDIR=str(tmp), OVS_LOGDIR=str(tmp), OVS_DBDIR=str(tmp), OVS_SYSCONFDIR=str(tmp),
               PATH=os.environ["PATH"] + ":/usr/sbin:/sbin:/usr/share/openvswitch/scripts")
    subprocess.run(["ovsdb-tool", "create", db, schema], env=env, check=True)
    log = open(tmp / "ovs.log", "w")
    started = []

    def start(*command):
        started.append(subprocess.Popen([*map(str, command)], env=env, stdout=log, stderr=log))
        return started[-1]

    def stop():
        for process in reversed(started):
            process.terminate()
            process.wait(10)
        reserved.close()
        shutil.rmtree(tmp, ignore_errors=True)

    def ready():
        return subprocess.run([*OFCTL, "probe", f"tcp:127.0.0.1:{port}"], capture_output=True).returncode == 0

    try:
        start("ovsdb-server", db, f"--remote=punix:{sock}", f"--unixctl={tmp}/ovsdb.ctl")
        vsctl = ["ovs-vsctl", f"--db=unix:{sock}", "--no-wait", "--retry", "--timeout=15"]
        subprocess.run([*vsctl, "init"], env=env, check=True)
        subprocess.run([*vsctl, "add-br", "br0", "--", "set", "bridge", "br0", f"datapath_type={datapath}", "protocols=OpenFlow13",
                        "fail_mode=secure", "--", "set-controller", "br0", f"ptcp:{port}:127.0.0.1"], env=env, check=True)
        for number, name in enumerate(interfaces, 1):
            added = [*vsctl, "add-port", "br0", name, "--", "set", "interface", name, f"ofport_request={number}"]
            subprocess.run(added, env=env, check=True)
        dummy = ["--enable-dummy=override"] if datapath == "dummy" else []
        switch = start("ovs-vswitchd", f"unix:{sock}", *dummy, "--disable-system", "-vconsole:off", f"--unixctl={tmp}/vswitchd.ctl")
        daemon.wait_until(ready, 15, "Open vSwitch answering")
    except BaseException:
        stop()
        raise
    return Switch(OVS, port, lambda: [switch.pid], stop)


class Switches:
    """All switches, started together and stopped at the end of a with block."""

    def __init__(self, bin_dir):
        self.bin_dir, self.all = bin_dir, []

    def __enter__(self):
        try:
            for start in (start_ours, start_with_redis, start_ovs):
                self.all.append(start(self.bin_dir))
            check_alike(self.all)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for switch in self.all:
            switch.stop()
        self.all = []

    def __getitem__(self, name):
        return next(switch for switch in self.all if switch.name == name)
