#!/usr/bin/env python3
"""Programs the same flows with the same client into this daemon, with its embedded database and with Redis, and into Open vSwitch's
user-space switch, in turn; and has the same Redis server, without this system, process as many requests and answers of
that size. A ratio is the median of the ratios of neighbouring runs, so that a change of the machine's speed affects both sides; p25 to p75
show how much the runs differ. The target stands beside each figure. A run that meets an error, a late or missing answer, or
a table with the wrong flows ends the comparison with status 1; earlier results are shown.

usage: compare.py BIN_DIR [--only SECTION,...] [--quick] [--json]     BIN_DIR is build/release/bin
"""
import argparse
import contextlib
import json
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from switches import OFCTL, OURS, OVS, REDIS, Switches, daemon, start_ours

BARE = "bare Redis"
SIDES = (OURS, REDIS)
FLOW_CHANNEL = "8:s_policy_kelim.flow"
TABLE = 600  # flows in the table of churn
OPENS = (800, 20000)
FLOODS = ("nothing", "churn", "barriers", "bytes", "crowd")
PROBE_LIMIT = 3600  # seconds
SETTLE = 0.2  # seconds; work left after the last answer belongs to the load

# Targets, embedded and with Redis.
RATIO_AIMS = {
    "burst of 600, flows/s": (">= 1.3", ">= 0.9"),
    "burst of 10,000, flows/s": (">= 1.2", ">= 0.85"),
    "burst of 100,000, flows/s": (">= 1.3", ">= 0.85"),
    "CPU a flow added": ("<= 0.9", "<= 1.8"),
    "churn, 800 mods open, mods/s": (">= 2.5", ">= 1.0"),
    "churn, 20,000 mods open, mods/s": (">= 2.5", ">= 1.0"),
    "CPU a mod, 800 open": ("<= 0.5", "<= 1.5"),
    "CPU a mod, 20,000 open": ("<= 0.5", "<= 1.5"),
    "add + barrier p50, random gaps": ("<= 1.0", "<= 2.0"),
    "add + barrier p50, back to back": ("<= 0.7", "<= 2.5"),
    "dump of 600": ("<= 0.7", "<= 0.9"),
    "ovs-ofctl add-flows of 600": ("<= 1.3", "<= 3"),
    "ovs-ofctl add-flows of 5,000": ("<= 1.3", "<= 3"),
}
PAUSE_AIMS = {"burst of 100,000": "<= 50", "churn": "<= 60", "delete-all of 100,000": "<= 100", "1,000,000": "<= 100"}
QUIET_ADD_AIMS = {OURS: "<= 5", REDIS: "<= 20"}
QUIET_ECHO_AIM = "<= 5"
QUIET_PAUSE_AIM = "<= 100"


def is_met(aim, value):
    relation, limit = aim.split()
    return value <= float(limit) if relation == "<=" else value >= float(limit)


def quartiles(values):
    if len(values) < 2:
        return values * 3
    return statistics.quantiles(values, n=4, method="inclusive")


def flow_file(path, n):
    path.write_text("".join(
        f"priority=100,in_port=1,tcp,nw_dst=10.{i >> 16}.{i >> 8 & 255}.{i & 255},tp_dst=80,actions=output:2\n" for i in range(n)
    ))
    return str(path)


class Comparison:
    def __init__(self, bin_dir, tmp, quick):
        self.bin, self.tmp, self.quick = bin_dir, tmp, quick
        self.switches = None
        self.rows, self.judged = [], []
        self.section = ""

    # ---- running

    def progress(self, text):
        print(f"  {time.strftime('%H:%M:%S')} {self.section}: {text} ...", file=sys.stderr, flush=True)

    def command(self, name, command, limit=600):
        """Runs a command and returns its output; an error names the command."""
        command = [*map(str, command)]
        try:
            run = subprocess.run(command, capture_output=True, text=True, timeout=limit)
        except subprocess.TimeoutExpired:
            raise daemon.Failed(f"{name}: {' '.join(command)} took more than {limit} s") from None
        if run.returncode != 0:
            raise daemon.Failed(f"{name}: {' '.join(command)} ended with {run.returncode}: {run.stderr.strip()}")
        return run.stdout

    def load(self, switch, *args):
        return json.loads(self.command(switch.name, [self.bin / "of_load", switch.port, *args]))

    def bare(self, *args):
        return json.loads(self.command(BARE, [self.bin / "redis_load", self.switches[REDIS].running.socket, *args]))

    def in_turn(self, what, rounds, run, names=(OURS, REDIS, OVS)):
        """The results of `run` for every switch in turn, by name; `rounds` are the number of rounds, normally and with --quick."""
        rounds = rounds[self.quick]
        found = {name: [] for name in names}
        for round_ in range(rounds):
            if round_ * 4 // rounds != (round_ - 1) * 4 // rounds:
                self.progress(f"{what}, round {round_ + 1} of {rounds}")
            for name in names:
                found[name].append(run(self.switches[name]))
        return found

    @contextlib.contextmanager
    def probed(self, switch):
        """Yields a dictionary that holds the loop's pauses after the block."""
        pauses = {}
        command = [self.bin / "loop_probe", switch.control, PROBE_LIMIT]
        probe = subprocess.Popen([*map(str, command)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            yield pauses
        finally:
            probe.terminate()
            out, err = probe.communicate()
        if probe.returncode != 0:
            raise daemon.Failed(f"{switch.name}: probing the loop: {err.strip()}")
        pauses.update(json.loads(out))

    def empty(self):
        for switch in self.switches.all:
            switch.empty()

    # ---- results

    def row(self, what, found, unit, better, digits=0):
        """Adds a row with medians and quartiles of the values found, by name."""
        spread = {name: [round(v, digits or None) for v in quartiles(values)] for name, values in found.items()}
        self.rows.append({"what": what, "unit": unit, "better": better, "runs": len(next(iter(found.values()))), **spread})

    def judge(self, what, side, values, unit, aim, worst=False):
        """Compares the median, or the worst value, with the target."""
        low, median, high = quartiles(values)
        value = max(values) if worst else median
        shown = {"value": round(value, 3), "p25": round(low, 3), "p75": round(high, 3), "runs": len(values), "unit": unit}
        self.judged.append({"what": what, "side": side, **shown, "aim": aim, "met": is_met(aim, value) if aim else None})

    def ratio(self, what, found):
        """Adds the ratios of both sides to Open vSwitch."""
        for side, aim in zip(SIDES, RATIO_AIMS.get(what, ("", ""))):
            self.judge(what, side, [ours / theirs for ours, theirs in zip(found[side], found[OVS])], "x", aim)

    # ---- sections

    def refusals(self):
        """Checks the yardstick itself: on a table with room for 50 flows, every load must fail and say why."""
        loads = (("burst", 600), ("fill", 600, 100), ("churn", 600, 800, 1), ("latency", 60, 0), ("dump", 600, 1), ("delete-all", 600),
                 *(("quiet", flood, 4) for flood in FLOODS))
        switch = start_ours(self.bin, openflow_capacity=50)
        try:
            for load in loads:
                self.progress(" ".join(map(str, load)))
                switch.empty()
                run = subprocess.run([*map(str, (self.bin / "of_load", switch.port, *load))], capture_output=True, text=True)
                if run.returncode != 1 or not any(why in run.stderr for why in ("TABLE_FULL", "flows instead of")):
                    raise daemon.Failed(f"of_load {load} does not fail as it should on a table that is too small: {run}")
        finally:
            switch.stop()

    def memory(self):
        n = 20000 if self.quick else 100000
        found = {}
        with Switches(self.bin) as fresh:
            for switch in fresh.all:
                self.progress(f"{n:,} flows, {switch.name}")
                before = switch.memory()
                self.load(switch, "burst", n)
                time.sleep(2)  # what only the burst needed is given back within a second or so
                found[switch.name] = [(switch.memory() - before) / n]
        self.row(f"bytes held a flow ({n:,} flows)", found, "B", "lower")

    def burst(self):
        for n, rounds in ((600, (60, 15)), (10000, (40, 9)), (100000, (15, 3))):

            def run(switch):
                before = switch.cpu()
                seconds = self.load(switch, "burst", n)["seconds"]
                time.sleep(SETTLE if n >= 100000 else 0)
                cpu = switch.cpu_since(before)
                return n / seconds, 1e6 * cpu / n, self.load(switch, "delete-all", n)["seconds"]

            found = self.in_turn(f"{n:,} adds", rounds, run)
            rates, cpus, deletes = ({name: [run[i] for run in runs] for name, runs in found.items()} for i in range(3))
            self.row(f"burst of {n:,} adds + barrier", rates, "adds/s", "higher")
            self.ratio(f"burst of {n:,}, flows/s", rates)
            self.row(f"delete-all of {n:,}", {k: [1e3 * v for v in vs] for k, vs in deletes.items()}, "ms", "lower", 1)
            if n >= 100000:
                self.row("CPU a flow added", cpus, "us", "lower", 2)
                self.ratio("CPU a flow added", cpus)

    def churn(self):
        for opened in OPENS:

            def run(switch):
                before = switch.cpu()
                found = self.load(switch, "churn", TABLE, opened, 3)
                time.sleep(SETTLE)
                return found["mods"] / found["seconds"], 1e6 * switch.cpu_since(before) / found["mods"], found["longest_wait_s"]

            found = self.in_turn(f"{opened:,} mods open", (15, 3), run)
            rates, cpus, waits = ({name: [run[i] for run in runs] for name, runs in found.items()} for i in range(3))
            self.row(f"churn of {TABLE}, {opened:,} open", rates, "mods/s", "higher")
            self.row(f"CPU a mod, {opened:,} open", cpus, "us", "lower", 2)
            self.row(f"longest barrier, {opened:,} open", {k: [1e3 * v for v in vs] for k, vs in waits.items()}, "ms", "lower", 1)
            self.ratio(f"churn, {opened:,} mods open, mods/s", rates)
            self.ratio(f"CPU a mod, {opened:,} open", cpus)

    def latency(self):
        for what, samples, gap in (("random gaps", 60, 60), ("back to back", 300, 0)):
            found = self.in_turn(what, (15, 3), lambda switch: self.load(switch, "latency", samples, gap))
            for quantile in ("p50", "p99"):
                times = {name: [1e3 * run[f"add_{quantile}_s"] for run in runs] for name, runs in found.items()}
                self.row(f"add + barrier, {what}, {quantile}", times, "ms", "lower", 3)
                self.ratio(f"add + barrier {quantile}, {what}", times)

    def dump(self):
        for switch in self.switches.all:
            self.load(switch, "burst", 600)
        found = self.in_turn("600 flows", (30, 9), lambda switch: 1e3 * self.load(switch, "dump", 600, 5)["dump_p50_s"])
        self.row("dump of 600", found, "ms", "lower", 3)
        self.ratio("dump of 600", found)

    def ofctl(self):
        for n, rounds in ((600, (30, 5)), (5000, (15, 3))):
            path = flow_file(self.tmp / f"flows{n}", n)

            def run(switch):
                switch.expect(0)
                start = time.monotonic()
                self.command(switch.name, [*OFCTL, "add-flows", switch.address, path])
                added = time.monotonic()
                shown = self.command(switch.name, [*OFCTL, "dump-flows", switch.address]).count("actions=")
                dumped = time.monotonic()
                if shown != n:
                    raise daemon.Failed(f"{switch.name}: dump-flows shows {shown} flows instead of {n}")
                switch.empty()
                return 1e3 * (added - start), 1e3 * (dumped - added)

            found = self.in_turn(f"{n:,} flows", rounds, run)
            for i, what in enumerate(("add-flows", "dump-flows")):
                times = {name: [run[i] for run in runs] for name, runs in found.items()}
                self.row(f"ovs-ofctl {what} of {n:,}", times, "ms", "lower", 1)
                self.ratio(f"ovs-ofctl {what} of {n:,}", times)

    def probe(self, switch, run):
        """The longest pause of the loop during `run`, in ms; and, as signs of a busy machine, the longest lateness of the probe, in ms,
        and the percentage of time that the loop's thread waited for a processor."""
        waited, start = switch.loop_waited(), time.monotonic()
        with self.probed(switch) as pauses:
            run()
        share = (switch.loop_waited() - waited) / (time.monotonic() - start)
        return 1e3 * pauses["max_s"], 1e3 * pauses["late_max_s"], 100 * share

    def judge_pauses(self, what, found, aim):
        for side in found:
            pauses, lates, shares = zip(*found[side])
            self.judge(f"longest pause: {what}", side, pauses, "ms", aim, worst=True)
            self.judge("  the probe came late by up to", side, lates, "ms", "", worst=True)
            self.judge("  the loop waited for a processor", side, shares, "%", "")

    def pause(self):
        idle = self.in_turn("idle", (3, 1), lambda switch: self.probe(switch, lambda: time.sleep(5)), SIDES)
        self.judge_pauses("idle for 5 s", idle, "")
        n = 100000

        def fill_and_delete(switch):
            return [self.probe(switch, lambda: self.load(switch, *load)) for load in (("burst", n), ("delete-all", n))]

        found = self.in_turn(f"{n:,} flows", (15, 3), fill_and_delete, SIDES)
        for i, what in enumerate((f"burst of {n:,}", f"delete-all of {n:,}")):
            self.judge_pauses(what, {side: [run[i] for run in runs] for side, runs in found.items()}, PAUSE_AIMS[what])
        seconds = 10 if self.quick else 60
        for opened, length in ((OPENS[0], TABLE), (OPENS[1], TABLE), (OPENS[1], 1)):
            load = ("churn", TABLE, opened, seconds, length)
            what = f"{seconds} s of churn, {opened:,} open, passes of {length}"
            found = self.in_turn(what, (3, 1), lambda switch: self.probe(switch, lambda: self.load(switch, *load)), SIDES)
            self.judge_pauses(what, found, PAUSE_AIMS["churn"])

    def quiet(self):
        for flood in FLOODS:

            def run(switch):
                told = {}
                flooded = lambda: told.update(self.load(switch, "quiet", flood, 5))  # noqa: E731
                pause = self.probe(switch, flooded) if switch.control else flooded()
                return told, pause

            found = self.in_turn(flood, (15, 2), run)
            for kind in ("add", "echo"):
                for quantile in ("p50", "p99", "max"):
                    times = {name: [1e3 * run[f"{kind}_{quantile}_s"] for run, _ in runs] for name, runs in found.items()}
                    self.row(f"quiet beside {flood}: {kind} {quantile}", times, "ms", "lower", 3)
                    for side in SIDES if quantile == "p50" else ():
                        aim = QUIET_ADD_AIMS[side] if kind == "add" else QUIET_ECHO_AIM
                        self.judge(f"quiet {kind} p50 beside {flood}", side, times[side], "ms", aim)
            if flood != "nothing":
                self.row(f"what the flood of {flood} got through", {k: [r["flood"] / 5 for r, _ in v] for k, v in found.items()}, "1/s", "-")
            self.judge_pauses(f"a quiet one beside {flood}", {side: [p for _, p in found[side]] for side in SIDES}, QUIET_PAUSE_AIM)

    def bare_redis(self):
        redis = self.switches[REDIS]
        for n, rounds in ((10000, (30, 5)), (100000, (15, 3))):
            ours, bare = [], []
            self.progress(f"{n:,} records")
            for _ in range(rounds[self.quick]):
                ours.append(n / self.load(redis, "burst", n)["seconds"])
                bare.append(n / self.bare("burst", n, 1)["median_s"])
                redis.empty()
            self.row(f"{n:,} flows or round trips", {REDIS: ours, BARE: bare}, "1/s", "higher")
            self.judge(f"{n:,} flows / round trips of bare Redis", REDIS, [o / b for o, b in zip(ours, bare)], "x", ">= 0.80")
        ours, bare = [], []
        self.progress("one record")
        for _ in range((15, 5)[self.quick]):
            ours.append(1e6 * self.load(redis, "latency", 50, 100, redis.running.socket, FLOW_CHANNEL)["add_p50_s"])
            bare.append(1e6 * self.bare("latency", 300)["median_s"])
        self.row("record to barrier reply, p50", {REDIS: ours, BARE: bare}, "us", "lower")
        self.judge("record to barrier reply / bare round trip", REDIS, [o / b for o, b in zip(ours, bare)], "x", "<= 3")

    def idle(self):
        seconds = 3 if self.quick else 10

        def run(switch):
            before, start = switch.cpu(), time.monotonic()
            time.sleep(seconds)
            return 100 * switch.cpu_since(before) / (time.monotonic() - start)

        self.row("idle CPU", self.in_turn(f"{seconds} s", (3, 1), run), "%", "lower", 2)

    def million(self):
        n = 100_000 if self.quick else 1_000_000
        found, pauses = {}, {}
        try:
            for round_ in range(1 if self.quick else 3):
                with Switches(self.bin) as fresh:
                    for switch in fresh.all:
                        self.progress(f"{n:,} flows, {switch.name}, round {round_ + 1}")
                        self.one_million(switch, n, found, pauses)
        finally:
            for (what, unit, digits), values in found.items():
                self.row(f"{n:,}: {what}", values, unit, "lower", digits)
            for what, values in pauses.items():
                self.judge_pauses(f"{n:,} flows, {what}", values, PAUSE_AIMS["1,000,000"])

    def one_million(self, switch, n, found, pauses):
        def note(what, unit, digits, value):
            found.setdefault((what, unit, digits), {}).setdefault(switch.name, []).append(value)

        def run(what, *load):
            told = {}
            if switch.control:
                pause = self.probe(switch, lambda: told.update(self.load(switch, *load)))
                pauses.setdefault(what, {}).setdefault(switch.name, []).append(pause)
            return told or self.load(switch, *load)

        memory, cpu = switch.memory(), switch.cpu()
        filled = run("adds", "fill", n, 8000)
        note("adds", "s", 2, filled["seconds"])
        note("longest wait for one of 8 barriers per 8,000 adds", "ms", 1, 1e3 * filled["longest_wait_s"])
        time.sleep(2)  # what only the adds needed is given back within a second or so
        note("CPU a flow added", "us", 2, 1e6 * switch.cpu_since(cpu) / n)
        note("memory", "MB", 0, (switch.memory() - memory) / 1e6)
        note("dump", "s", 2, run("dump", "dump", n, 1)["dump_p50_s"])
        note("delete-all", "s", 2, run("delete-all", "delete-all", n)["seconds"])
        if switch.name != REDIS:
            return  # the embedded database ends with the daemon, and so do the flows of Open vSwitch
        self.load(switch, "fill", n, 8000)
        shown, answered = self.restart(switch, n)
        note("restart until they are shown", "s", 2, shown)
        note("restart until an add is answered", "s", 2, answered)
        note("delete-all behind the restart", "s", 2, run("delete-all behind the restart", "delete-all", n)["seconds"])

    def restart(self, switch, n):
        """Kills the daemon; returns the seconds until a controller sees all flows again and until an add and its barrier are answered
        after the replay. The supervisor restarts it after half a second, as systemd would."""
        before = switch.running.pids("ssc_kelim")[-1]
        switch.running.signal("ssc_kelim", signal.SIGKILL)
        start = time.monotonic()
        daemon.wait_until(lambda: switch.running.pids("ssc_kelim")[-1] != before and switch.flows() == n, 300, f"{n} flows again")
        shown = time.monotonic() - start
        self.load(switch, "latency", 1, 0)
        answered = time.monotonic() - start
        switch.expect(n)
        return shown, answered

    SECTIONS = ("refusals", "memory", "burst", "churn", "latency", "dump", "ofctl", "pause", "quiet", "bare_redis", "idle", "million")

    def run(self, sections):
        """Runs the sections; returns why it ended early, or None."""
        try:
            with Switches(self.bin) as self.switches:
                for self.section in sections:
                    self.empty()
                    getattr(self, self.section)()
        except (daemon.Failed, subprocess.SubprocessError) as failed:
            return f"compare: {self.section}: {failed}"
        return None


def text_of(row, name):
    low, median, high = row[name]
    return f"{median:,} ({low:,}-{high:,})" if row["runs"] > 1 else f"{median:,}"


def print_tables(found):
    names = (OURS, REDIS, OVS, BARE)
    print(f"{'median (p25-p75)':52}" + "".join(f"{name:>34}" for name in names) + f"{'unit':>6} {'runs':>5}  better")
    for row in found.rows:
        values = "".join(f"{text_of(row, name) if name in row else '-':>34}" for name in names)
        print(f"{row['what']:52}{values}{row['unit']:>6} {row['runs']:>5}  {row['better']}")
    print(f"\n{'ratios to Open vSwitch (x) and absolute aims':62}{'side':12}{'found':>9}{'p25-p75':>20} unit {'runs':>5}  aim")
    for j in found.judged:
        verdict = "" if j["met"] is None else "met" if j["met"] else "NOT MET"
        between = f"{j['p25']:.2f}-{j['p75']:.2f}"
        line = f"{j['what']:62}{j['side']:12}{j['value']:>9.2f}{between:>20} {j['unit']:4} {j['runs']:>5}  {j['aim']:8} {verdict}"
        print(line.rstrip())


def sections(text):
    chosen = text.split(",")
    if wrong := [name for name in chosen if name not in Comparison.SECTIONS]:
        raise argparse.ArgumentTypeError(f"{', '.join(wrong)}: the sections are {', '.join(Comparison.SECTIONS)}")
    return chosen


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin_dir", type=Path)
    parser.add_argument("--only", type=sections, default=Comparison.SECTIONS, help=f"of {','.join(Comparison.SECTIONS)}")
    parser.add_argument("--quick", action="store_true", help="fewer and shorter rounds")
    parser.add_argument("--json", action="store_true", help="one JSON object instead of the tables")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    with tempfile.TemporaryDirectory(prefix="kelim-compare-") as tmp:
        found = Comparison(args.bin_dir, Path(tmp), args.quick)
        failed = found.run(args.only)
    if args.json:
        print(json.dumps({"failed": failed, "rows": found.rows, "judged": found.judged}, indent=1))
    else:
        print_tables(found)
    sys.exit(failed)


if __name__ == "__main__":
    main()
