#!/usr/bin/env python3
"""Programs the same flows with the same client into this daemon and into Open vSwitch's user-space switch, in turn, and prints
both with their ratio. Both run privately from a temporary directory on loopback and are stopped at the end.

usage: compare.py BIN_DIR [--quick] [--json]     BIN_DIR is build/release/bin
"""
import argparse
import json
import os
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, process, limit=15.0):
    end = time.monotonic() + limit
    while time.monotonic() < end:
        if process.poll() is not None:
            sys.exit(f"{process.args[0]} ended with status {process.returncode}")
        try:
            socket.create_connection(("127.0.0.1", port), 0.2).close()
            return
        except OSError:
            time.sleep(0.05)
    sys.exit(f"{process.args[0]} does not listen on port {port}")


class Switch:
    """One switch under measurement: its process and its OpenFlow port."""

    def __init__(self, name, process, port, helpers=()):
        self.name, self.process, self.port, self.helpers = name, process, port, helpers
        wait_for_port(port, process)

    def memory(self):
        """Private and shared resident bytes."""
        for line in Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
        return 0

    def cpu(self):
        """Seconds on a processor; in nanoseconds' steps, because the 10 ms of /proc/PID/stat are a whole percent of a second."""
        threads = Path(f"/proc/{self.process.pid}/task").glob("*/schedstat")
        return sum(int(thread.read_text().split()[0]) for thread in threads) / 1e9

    def stop(self):
        for process in (self.process, *self.helpers):
            process.terminate()
        for process in (self.process, *self.helpers):
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()


def start_daemon(bin_dir, tmp):
    port = free_port()
    env = dict(os.environ, KELIM_RUN_DIR=str(tmp / "kelim"), KELIM_OPENFLOW_LISTEN=f"ptcp:127.0.0.1:{port}",
               KELIM_OPENFLOW_CAPACITY="4000000", KELIM_PROGRAMMER_SIZE="4000000", KELIM_PORTS="1:p1:101:1,2:p2:102:1")
    log = open(tmp / "kelim.log", "w")
    return Switch("ssc_kelim", subprocess.Popen([str(bin_dir / "ssc_kelim")], env=env, stdout=log, stderr=log), port)


def start_ovs(tmp):
    port = free_port()
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
    vswitchd = subprocess.Popen(["ovs-vswitchd", f"unix:{sock}", "--enable-dummy=override", "--disable-system", "-vconsole:off",
                                 "--unixctl=" + str(tmp / "vswitchd.ctl")], env=env, stdout=log, stderr=log)
    return Switch("Open vSwitch", vswitchd, port, (server,))


def load(bin_dir, switch, *args):
    run = subprocess.run([str(bin_dir / "of_load"), str(switch.port), *map(str, args)], stdout=subprocess.PIPE, text=True)
    if run.returncode != 0:
        sys.exit(f"{switch.name}: of_load {' '.join(map(str, args))} failed: {run.stdout}")
    return json.loads(run.stdout)


def in_turn(bin_dir, switches, rounds, *args):
    """Runs the same load on both switches in turn, so that a change of the machine's speed meets both."""
    results = {s.name: [] for s in switches}
    for _ in range(rounds):
        for switch in switches:
            results[switch.name].append(load(bin_dir, switch, *args, 1))
    return {name: statistics.median(r["median_s"] for r in runs) for name, runs in results.items()}


def bytes_per_flow(bin_dir, switch, n):
    before = switch.memory()
    load(bin_dir, switch, "fill", n)
    return (switch.memory() - before) / n


def idle_cpu(switch, seconds):
    before, start = switch.cpu(), time.monotonic()
    time.sleep(seconds)
    return 100 * (switch.cpu() - before) / (time.monotonic() - start)


def measure(bin_dir, switches, quick):
    ours, theirs = (s.name for s in switches)
    rows = []

    def add(what, values, unit, better, digits=0):
        rows.append({"what": what, "unit": unit, ours: round(values[ours], digits), theirs: round(values[theirs], digits),
                     "ratio": round(values[ours] / values[theirs], 3) if values[theirs] else None, "better": better})

    # Memory first, on fresh processes.
    n = 20000 if quick else 100000
    print(f"  memory of {n} flows ...", file=sys.stderr)
    add(f"bytes a flow ({n} flows)", {s.name: bytes_per_flow(bin_dir, s, n) for s in switches}, "B", "lower")
    for n, rounds in ((600, 9), (10000, 7), (100000, 3 if quick else 5)):
        print(f"  burst of {n} ...", file=sys.stderr)
        times = in_turn(bin_dir, switches, rounds, "burst", n)
        add(f"burst of {n} adds + barrier", {k: n / t for k, t in times.items()}, "adds/s", "higher")
        if n == 10000:
            ten = times
    add("time of 100,000 / time of 10,000", {k: times[k] / ten[k] for k in times}, "x", "lower", 2)
    print("  churn ...", file=sys.stderr)
    times = in_turn(bin_dir, switches, 5, "churn", 5000)
    add("churn: 5,000 x add + delete", {k: 10000 / t for k, t in times.items()}, "mods/s", "higher")
    print("  latency ...", file=sys.stderr)
    found = {s.name: load(bin_dir, s, "latency", 60 if quick else 300) for s in switches}
    add("add + barrier, p50", {k: 1000 * v["median_s"] for k, v in found.items()}, "ms", "lower", 2)
    add("add + barrier, p99", {k: 1000 * v["p99_s"] for k, v in found.items()}, "ms", "lower", 2)
    print("  idle ...", file=sys.stderr)
    add("idle CPU", {s.name: idle_cpu(s, 3 if quick else 10) for s in switches}, "%", "lower", 2)
    return rows


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin_dir", type=Path)
    parser.add_argument("--quick", action="store_true", help="fewer rounds")
    parser.add_argument("--json", action="store_true", help="one JSON array instead of the table")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    tmp = Path(tempfile.mkdtemp(prefix="kelim-compare-"))
    (tmp / "kelim").mkdir()
    switches = []
    try:
        switches.append(start_daemon(args.bin_dir, tmp))
        switches.append(start_ovs(tmp))
        rows = measure(args.bin_dir, switches, args.quick)
    finally:
        for switch in switches:
            switch.stop()
        shutil.rmtree(tmp, ignore_errors=True)
    if args.json:
        print(json.dumps(rows, indent=1))
        return
    ours, theirs = (s.name for s in switches)
    print(f"{'':38} {ours:>14} {theirs:>14} {'unit':>8} {'ratio':>8}  better")
    for row in rows:
        print(f"{row['what']:38} {row[ours]:>14,} {row[theirs]:>14,} {row['unit']:>8} {row['ratio'] or '-':>8}  {row['better']}")


if __name__ == "__main__":
    main()
