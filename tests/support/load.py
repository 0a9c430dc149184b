"""Flows that come and go in the three processes, and what clients, database and target must agree on afterwards."""

import re
import signal
import subprocess
import threading
import time

import daemon
import e2e

FLOWS = 300


def number_of(flow):
    """The number of a stored flow, from its IPv4 destination: in flow_data an OXM header and 10.0.x.y, both little-endian."""
    return int.from_bytes(re.search(rb"\x04\x18\x00\x80(..)\x00\x0a", flow, re.DOTALL)[1], "little")


def is_installed(flow, answer):
    """True if the flow_sta says installed (field 6 is 2) and answers this form of the flow (field 7 is the flow's field 12)."""
    found = re.search(rb"\x30\x02\x38([\x80-\xff]+[\x00-\x7f])", answer)
    return bool(found) and b"\x60" + found[1] in flow


class Load(threading.Thread):
    """Adds and deletes flows in batches, each followed by a barrier; `asked` holds the flows that exist according to the switch."""

    def __init__(self, system, chance, asked=(), chain=(), checks_barriers=False):
        """`chain` holds the numbers of service-chain flows. Barriers can be checked unless the database loses flows meanwhile."""
        super().__init__()
        self.system, self.chance, self.chain, self.checks_barriers = system, chance, chain, checks_barriers
        self.asked, self.doubtful = set(asked), set()
        self.batches, self.refused = 0, 0
        self.problem = None
        self.forgetful = False  # True: the next daemon starts without flows
        self.enough = threading.Event()
        self.start()

    def run(self):
        try:
            while not self.enough.is_set() or self.doubtful:
                try:
                    with self.system.client() as client:
                        self._work(client)
                except TimeoutError:  # a barrier without an answer
                    raise
                except (OSError, EOFError):  # the daemon ended in the middle of a batch
                    if self.forgetful:
                        self.asked.clear()
                    self.enough.wait(0.05)
        except Exception as problem:  # reported by the test
            self.problem = problem

    def _work(self, client):
        self._batch(client, self.doubtful, adds=False)
        while not self.enough.is_set():
            numbers = {self.chance.randrange(FLOWS) for _ in range(20)}
            self._batch(client, numbers, adds=self.chance.random() < 0.6)

    def _batch(self, client, numbers, adds):
        self.doubtful = set(numbers)
        act = client.add if adds else client.delete
        sent = {act(number, table=int(number in self.chain)): number for number in sorted(numbers)}
        failed = {sent.get(message.xid) for message in client.barrier()}
        if adds and self.checks_barriers and not self._are_decided(self.doubtful - failed):
            raise AssertionError("the barrier behind flows was answered before the flows")
        self.asked = (self.asked - self.doubtful) | ((self.doubtful - failed) if adds else set())
        self.doubtful = set()
        self.batches += 1
        self.refused += len(failed)

    def _are_decided(self, numbers):
        """True if the database holds the answers for the flows, or has just gone away."""
        try:
            flows, answers = (e2e.records(self.system.socket, kind) for kind in ("flow", "flow_sta"))
        except subprocess.CalledProcessError:
            return True
        # A synchronisation may just have rewritten a flow, so the answer to its previous form counts too.
        decided = {number_of(flow) for key, flow in flows.items() if b"\x30\x02\x38" in answers.get(key, b"")}
        return not flows or numbers <= decided

    def stop(self):
        """Ends the thread and returns the numbers of the flows that exist."""
        self.enough.set()
        self.join()
        if self.problem:
            raise self.problem
        return self.asked


class Test(e2e.Test):
    def kill(self, system, *names):
        """Kills the process of the first name, and waits until all named, which end with it, run again."""
        before = [len(system.pids(name)) for name in names]
        system.signal(names[0], signal.SIGKILL)
        again = lambda: all(len(system.pids(name)) > count for name, count in zip(names, before))
        self.await_that(lambda: again() and system.ready(), f"another {names}")

    def differences(self, system, asked):
        """Returns the differences between the views of clients, database and target; empty if they agree."""
        try:
            flows, answers, counters = (e2e.records(system.socket, kind) for kind in ("flow", "flow_sta", "flow_counter"))
            target = set(system.programmer("flows").split())
        except (subprocess.CalledProcessError, daemon.Failed) as still_starting:
            return {"not there": str(still_starting)}
        asked, stored = set(asked), {number_of(flow) for flow in flows.values()}
        found = {
            "asked, not stored": asked - stored,
            "stored, not asked": stored - asked,
            "stored twice": set(flows) if len(stored) != len(flows) else set(),
            "stored, not in the target": set(flows) - target,
            "in the target, not stored": target - set(flows),
            "stored, not answered": {key for key, flow in flows.items() if not is_installed(flow, answers.get(key, b""))},
            "answers to nothing": set(answers) - set(flows),
            "counters of nothing": set(counters) - set(flows),
        }
        return {what: sorted(which)[:5] for what, which in found.items() if which}

    def assert_of_one_mind(self, system, asked, after=""):
        end = time.monotonic() + e2e.LIMIT
        while found := self.differences(system, asked):
            self.assertLess(time.monotonic(), end, (after, found))
            time.sleep(0.1)
