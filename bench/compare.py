#!/usr/bin/env python3
"""Programs the same flows with the same client into this daemon, with its embedded database and with Redis, and into Open vSwitch's
user-space switch; and asks the same Redis server, without any of us, for as many requests and answers of that size. All run privately
from a temporary directory on loopback, one after the other in turn, and are stopped at the end. A ratio is the median of the ratios of
neighbouring runs, so that a change of the machine's speed meets both sides.

usage: compare.py BIN_DIR [--quick] [--json]     BIN_DIR is build/release/bin
"""
import argparse
import json
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools" / "demo"))
import daemon  # noqa: E402

ROOM = 4_000_000  # flows that every part of ours takes
OURS, REDIS, OVS, BARE = "ssc_kelim", "with Redis", "Open vSwitch", "bare Redis"
FLOW_CHANNEL = "8:s_policy_kelim.flow"


class Switch:
    """One switch under measurement: its OpenFlow port and its processes."""

    def __init__(self, name, port, pids, stop):
        self.name, self.port, self.pids, self.stop = name, port, pids, stop

    def memory(self):
        """Resident bytes."""
        statuses = [Path(f"/proc/{pid}/status").read_text() for pid in self.pids]
        return sum(int(line.split()[1]) * 1024 for text in statuses for line in text.splitlines() if line.startswith("VmRSS:"))

    def cpu(self):
        """Seconds on a processor; in nanoseconds' steps, because the 10 ms of /proc/PID/stat are a whole percent of a second."""
        threads = [thread for pid in self.pids for thread in Path(f"/proc/{pid}/task").glob("*/schedstat")]
        return sum(int(thread.read_text().split()[0]) for thread in threads) / 1e9


def start_ours(bin_dir):
    running = daemon.Daemon(bin_dir, openflow_capacity=ROOM, programmer_size=ROOM, log_level="error").__enter__()
    return Switch(OURS, running.port, [running.process.pid], running.__exit__)


def start_with_redis(bin_dir):
    running = daemon.System(
        bin_dir, openflow_capacity=ROOM, programmer_size=ROOM, openflow_decide_timeout_ms=60000, log_level="error"
    ).__enter__()

    def stop():
        running.stop()
        running.__exit__()

    switch = Switch(REDIS, running.port, [running.pids(name)[-1] for name in running.NAMES], stop)
    switch.socket = running.socket
    return switch


def start_ovs(tmp):
    reserved = daemon.Port()
    port = reserved.number
    db, sock, schema = tmp / "conf.db", tmp / "db.sock", "/usr/share/openvswitch/vswitch.ovsschema"
    env = dict(os.environ, OVS_RUNDIR=str(tmp), OVS_LOGDIR=str(tmp), OVS_DBDIR=str(tmp), OVS_SYSCONFDIR=str(tmp),
               PATH=os.environ["PATH"] + ":/usr/sbin:/sbin:/usr/share/openvswitch/scripts")
    subprocess.run(["ovsdb-tool", "create", db, schema], env=env, check=True)
    log = open(tmp / "ovs.log", "w")
    server = subprocess.Popen(["ovsdb-server", str(db), f"--remote=punix:{sock}", "--unixctl=" + str(tmp / "ovsdb.ctl")], env=env,
                              stdout=log, stderr=log)
    vsctl = ["ovs-vsctl", f"--db=unix:{sock}", "--no-wait", "--retry", "--timeout=15"]
    subprocess.run([*vsctl, "init"], env=env, check=True)
    subprocess.run([*vsctl, "add-br", "br0", "--", "set", "bridge", "br0", "datapath_type=dummy", "protocols=OpenFlow13",
                    "fail_mode=secure", "--", "set-controller", "br0", f"ptcp:{port}:127.0.0.1"], env=env, check=True)
    switch = subprocess.Popen(["ovs-vswitchd", f"unix:{sock}", "--enable-dummy=override", "--disable-system", "-vconsole:off",
                               "--unixctl=" + str(tmp / "vswitchd.ctl")], env=env, stdout=log, stderr=log)

    def stop():
        for process in (switch, server):
            process.terminate()
            process.wait(10)

    def ready():
        return subprocess.run(["ovs-ofctl", "-O", "OpenFlow13", "probe", f"tcp:127.0.0.1:{port}"], capture_output=True).returncode == 0

    daemon.wait_until(ready, 15, "Open vSwitch answering")
    return Switch(OVS, port, [switch.pid], stop)


class Comparison:
    def __init__(self, bin_dir, switches, quick):
        self.bin, self.switches, self.quick = bin_dir, switches, quick
        self.redis = next(switch for switch in switches if switch.name == REDIS)
        self.rows, self.ratios = [], []

    def run_load(self, program, *args):
        run = subprocess.run([str(self.bin / program), *map(str, args)], stdout=subprocess.PIPE, text=True)
        if run.returncode != 0:
            sys.exit(f"{program} {' '.join(map(str, args))} failed: {run.stdout}")
        return json.loads(run.stdout)

    def progress(self, text):
        print(f"  {text} ...", file=sys.stderr, flush=True)

    def row(self, what, values, unit, better, digits=0):
        self.rows.append({"what": what, "unit": unit, **{k: round(v, digits) for k, v in values.items()}, "better": better})

    def ratio(self, what, numerators, denominators, aim):
        found = statistics.median(n / d for n, d in zip(numerators, denominators))
        self.ratios.append({"what": what, "ratio": round(found, 2), "aim": aim})

    def in_turn(self, rounds, mode, n, bare=False):
        """The same load on every switch in turn, `rounds` times; the seconds each took, by name."""
        seconds = {}
        for _ in range(rounds):
            for switch in self.switches:
                seconds.setdefault(switch.name, []).append(self.run_load("of_load", switch.port, mode, n, 1)["median_s"])
            if bare:
                seconds.setdefault(BARE, []).append(self.run_load("redis_load", self.redis.socket, mode, n, 1)["median_s"])
        return seconds

    def memory(self):
        n = 20000 if self.quick else 100000
        self.progress(f"memory of {n:,} flows")
        found = {}
        for switch in self.switches:
            before = switch.memory()
            self.run_load("of_load", switch.port, "fill", n)
            time.sleep(2)  # what only the burst needed is given back within a second or so
            found[switch.name] = (switch.memory() - before) / n
        self.row(f"bytes held a flow ({n:,} flows)", found, "B", "lower")

    def bursts(self):
        medians = {}
        # Our time holds a wait of 0 to 50 ms for the daemon's tick: the shorter the burst, the more rounds until its median stands still.
        plan = ((600, 9), (10000, 9), (30000, 7), (100000, 3)) if self.quick else ((600, 41), (10000, 41), (30000, 15), (100000, 7))
        for n, rounds in plan:
            self.progress(f"burst of {n:,}")
            rates = {name: [n / s for s in seconds] for name, seconds in self.in_turn(rounds, "burst", n, bare=True).items()}
            medians[n] = {name: statistics.median(values) for name, values in rates.items()}
            self.row(f"burst of {n:,} adds + barrier", medians[n], "adds/s", "higher")
            aimed = n >= 10000
            self.ratio(f"burst of {n:,}: embedded / Open vSwitch", rates[OURS], rates[OVS], "")
            self.ratio(f"burst of {n:,}: Redis / Open vSwitch", rates[REDIS], rates[OVS], ">= 0.55" if aimed else "")
            self.ratio(f"burst of {n:,}: Redis / bare Redis", rates[REDIS], rates[BARE], ">= 0.80" if aimed else "")
        few, many = 10000, 100000
        self.row(f"time of {many:,} / time of {few:,}", {k: many / v / (few / medians[few][k]) for k, v in medians[many].items()},
                 "x", "lower", 2)

    def churn(self):
        self.progress("churn")
        rates = {name: [10000 / s for s in seconds] for name, seconds in self.in_turn(5, "churn", 5000).items()}
        self.row("churn: 5,000 x add + delete", {k: statistics.median(v) for k, v in rates.items()}, "mods/s", "higher")

    def latency(self):
        self.progress("latency")
        samples = 60 if self.quick else 300
        found = {s.name: self.run_load("of_load", s.port, "latency", samples) for s in self.switches}
        self.row("add + barrier, p50", {k: 1000 * v["median_s"] for k, v in found.items()}, "ms", "lower", 2)
        self.row("add + barrier, p99", {k: 1000 * v["p99_s"] for k, v in found.items()}, "ms", "lower", 2)
        ours, bare = [], []
        for _ in range(9):
            beyond = self.run_load("of_load", self.redis.port, "latency", samples // 6, self.redis.socket, FLOW_CHANNEL)
            ours.append(1e6 * beyond["median_s"])
            bare.append(1e6 * self.run_load("redis_load", self.redis.socket, "latency", 300)["median_s"])
        self.row("record to barrier reply, p50", {REDIS: statistics.median(ours), BARE: statistics.median(bare)}, "us", "lower")
        self.ratio("record to barrier reply / bare round trip", ours, bare, "<= 3")

    def idle(self):
        self.progress("idle")
        seconds = 3 if self.quick else 10
        found = {}
        for switch in self.switches:
            before, start = switch.cpu(), time.monotonic()
            time.sleep(seconds)
            found[switch.name] = 100 * (switch.cpu() - before) / (time.monotonic() - start)
        self.row("idle CPU", found, "%", "lower", 2)

    def run(self):
        self.memory()  # first, on fresh processes
        self.bursts()
        self.churn()
        self.latency()
        self.idle()
        return self


def print_table(found):
    names = (OURS, REDIS, OVS, BARE)
    print(f"{'':34}" + "".join(f"{name:>14}" for name in names) + f"{'unit':>8}  better")
    for row in found.rows:
        values = "".join(f"{row[name]:>14,}" if name in row else f"{'-':>14}" for name in names)
        print(f"{row['what']:34}{values}{row['unit']:>8}  {row['better']}")
    print(f"\n{'Ratios of neighbouring runs':50}{'median':>8}  aim")
    for ratio in found.ratios:
        print(f"{ratio['what']:50}{ratio['ratio']:>8.2f}  {ratio['aim']}".rstrip())


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin_dir", type=Path)
    parser.add_argument("--quick", action="store_true", help="fewer rounds")
    parser.add_argument("--json", action="store_true", help="one JSON object instead of the tables")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    tmp = Path(tempfile.mkdtemp(prefix="kelim-compare-"))
    switches = []
    try:
        switches.append(start_ours(args.bin_dir))
        switches.append(start_with_redis(args.bin_dir))
        switches.append(start_ovs(tmp))
        found = Comparison(args.bin_dir, switches, args.quick).run()
    finally:
        for switch in switches:
            switch.stop()
        shutil.rmtree(tmp, ignore_errors=True)
    if args.json:
        print(json.dumps({"rows": found.rows, "ratios": found.ratios}, indent=1))
    else:
        print_table(found)


if __name__ == "__main__":
    main()
