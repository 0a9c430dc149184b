"""Redis, the daemon and the programming service as three processes: killed, frozen, restarted, and still of one mind."""

import re
import signal
import subprocess
import threading
import time
import unittest

import daemon
import e2e
import records

FLOWS = 600
CLIENTS = 20  # ovs-ofctl waits for a barrier behind every flow, so it takes several to keep the daemon busy
REFUSED = "fail=@40-49,@640-649,@1240-1249,@1840-1849"  # by flow index, so that the answer is the same after a restart
INSTALLED = 2
LIMIT = 30  # seconds for anything to come about; sanitizer builds on a busy machine are slow


def address(number):
    return f"10.0.{number >> 8}.{number & 0xFF}"


class Clients:
    """Several ovs-ofctl that program flows; what was asked and what came of it, by the flows' numbers."""

    def __init__(self, port, numbers):
        self.port = port
        self.accepted, self.refused = set(), set()
        self.cut_off = False  # whether the daemon went away in the middle
        numbers = list(numbers)
        self.threads = [threading.Thread(target=self._add, args=(numbers[first::CLIENTS],)) for first in range(CLIENTS)]
        for thread in self.threads:
            thread.start()

    def wait(self):
        for thread in self.threads:
            thread.join()
        return self

    def _add(self, numbers):
        while numbers:
            flows = "".join(f"cookie={n},tcp,nw_dst={address(n)},tp_dst=80,actions=output:2\n" for n in numbers)
            result = ofctl(self.port, "add-flows", "-", stdin=flows)
            if result.returncode == 0:
                self.accepted.update(numbers)
                return
            # It ends at the first error, whose data begin with the request: eight bytes of header, then the cookie.
            refused = re.search(r"^00000000 (?:[ -][0-9a-f]{2}){8}-((?:[0-9a-f]{2} ){8})", result.stderr, re.MULTILINE)
            if not refused:
                self.cut_off = True
                return
            at = numbers.index(int(refused[1].replace(" ", ""), 16))
            self.accepted.update(numbers[:at])
            self.refused.add(numbers[at])
            numbers = numbers[at + 1 :]


def ofctl(port, command, *arguments, stdin=None):
    return subprocess.run(
        ["ovs-ofctl", "-O", "OpenFlow13", command, f"tcp:127.0.0.1:{port}", *arguments],
        input=stdin, capture_output=True, text=True, timeout=60,
    )


class BarrierClient(threading.Thread):
    """Adds a flow and a barrier at once, again and again; looks into the database at every reply. Outlives the daemon."""

    NUMBER = 1000  # of its flow, above those of others

    def __init__(self, system):
        super().__init__()
        self.system = system
        self.answered, self.closed, self.problems = 0, 0, []
        self.enough = threading.Event()
        self.start()

    def run(self):
        while not self.enough.is_set():
            try:
                with self.system.client() as client:
                    self._work(client)
            except (OSError, EOFError) as end:
                if isinstance(end, TimeoutError):
                    self.problems.append("a barrier was neither answered nor its connection closed")
                self.closed += 1
                self.enough.wait(0.05)

    def _work(self, client):
        while not self.enough.is_set():
            client.add(self.NUMBER)
            errors = client.barrier()
            self.answered += 1
            if not errors and not self._is_decided():
                self.problems.append("the barrier behind a flow was answered before the flow")
            client.delete(self.NUMBER)

    def _is_decided(self):
        """Whether the database has the answer to the flow; true when the database has just gone."""
        try:
            with self.system.database() as database:
                flows, answers = database.all("flow"), database.all("flow_sta")
        except (OSError, EOFError, ValueError):
            return True
        ours = [key for key, record in flows.items() if records.destination(record) == address(self.NUMBER)]
        return not flows or any(key in answers and records.fields(answers[key])[6] == INSTALLED for key in ours)

    def stop(self):
        """Leaves no flow behind."""
        self.enough.set()
        self.join()
        with self.system.client() as client:
            client.delete(self.NUMBER)
            client.barrier()


class System(daemon.System):
    def database(self, number=8):
        return records.Redis(self.socket, number)


class Processes(e2e.Test):
    def system(self, **settings):
        running = System(e2e.BIN, **settings)
        running.__enter__()
        self.addCleanup(running.__exit__)
        self.addCleanup(self._end_cleanly, running)
        return running

    def differences(self, system, accepted):
        """What keeps the three views from being equal: the client's, the database's, the target's. None when they are."""
        with system.database() as database:
            flows, answers = database.all("flow"), database.all("flow_sta")
            counters = database.all("flow_counter")
        target = set(system.programmer("flows").split())
        asked = {address(number) for number in accepted}
        stored = {records.destination(record) for record in flows.values()}
        unanswered = {
            key for key, record in flows.items()
            if key not in answers or (records.fields(answers[key])[6], records.fields(answers[key])[7])
            != (INSTALLED, records.fields(record)[12])
        }
        found = {
            "asked, not stored": asked - stored,
            "stored, not asked": stored - asked,
            "stored twice": set(flows) if len(stored) != len(flows) else set(),
            "stored, not in the target": set(flows) - target,
            "in the target, not stored": target - set(flows),
            "stored, not answered": unanswered,
            "answers to nothing": set(answers) - set(flows),
            "counters of nothing": set(counters) - set(flows),
        }
        return {what: sorted(which)[:5] for what, which in found.items() if which}

    def assert_of_one_mind(self, system, accepted):
        end = time.monotonic() + LIMIT
        while self.differences(system, accepted):
            self.assertLess(time.monotonic(), end, self.differences(system, accepted))
            time.sleep(0.05)

    def kill_while_programming(self, system, victim):
        """Kills that process when a third of the flows are stored, and waits until it runs again."""
        clients = Clients(system.port, range(FLOWS))
        with system.database() as database:
            daemon.wait_until(lambda: len(database.all("flow")) >= FLOWS // 3, LIMIT, "a third of the flows")
        daemons, others = system.pids("ssc_kelim"), system.pids(victim)
        system.signal(victim, signal.SIGKILL)
        daemon.wait_until(lambda: len(system.pids(victim)) > len(others), LIMIT, f"another {victim}")
        clients.wait()
        if clients.cut_off:
            daemon.wait_until(lambda: len(system.pids("ssc_kelim")) > len(daemons), LIMIT, "another daemon")
            daemon.wait_until(system.ready, LIMIT, "a daemon that serves its port")
            clients = Clients(system.port, range(FLOWS)).wait()
        self.assertFalse(clients.cut_off)
        self.assertEqual(len(clients.accepted | clients.refused), FLOWS)
        return clients

    def test_each_process_killed_while_flows_are_added(self):
        system = self.system(
            programmer_script=REFUSED, programmer_counter_rate=1000, programmer_counter_interval_ms=50,
            openflow_capacity=2 * FLOWS, openflow_decide_timeout_ms=LIMIT * 1000,
        )
        for victim in ("ssc_kelim", "kelim-programmer", "redis-server"):
            with self.subTest(victim=victim):
                barriers = BarrierClient(system)
                try:
                    clients = self.kill_while_programming(system, victim)
                finally:
                    barriers.stop()
                self.assertEqual(barriers.problems, [])
                self.assertGreater(barriers.answered, 10)
                self.assertTrue(0 < len(clients.refused) < FLOWS // 4, len(clients.refused))
                self.assert_of_one_mind(system, clients.accepted)
                self.assertEqual(ofctl(system.port, "del-flows").returncode, 0)
                self.assert_of_one_mind(system, ())


if __name__ == "__main__":
    unittest.main(verbosity=2)
