"""Redis, the daemon and the programming service as three processes: killed, frozen, restarted, and still of one mind."""

import json
import os
import re
import signal
import subprocess
import threading
import time
import unittest

import daemon
import e2e
import openflow
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
        """What keeps the three views from being equal: the client's, the database's, the target's. Nothing when they are."""
        try:
            with system.database() as database:
                flows, answers, counters = (database.all(kind) for kind in ("flow", "flow_sta", "flow_counter"))
            target = set(system.programmer("flows").split())
        except (OSError, EOFError, daemon.Failed) as still_starting:
            return {"not there": str(still_starting)}
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
        for victim in reversed(system.NAMES):
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

    def test_a_service_chain_flow_goes_through_both_processes(self):
        system = self.system()
        added = ofctl(system.port, "add-flow", "table=1,tcp,nw_dst=10.0.0.1,tp_dst=80,actions=output:2")
        self.assertEqual(added.returncode, 0, added.stderr)
        with system.database(4) as chain:
            asked, answered = chain.all("parse_flow"), chain.all("flow_to_ace")
            self.assertEqual((list(asked), list(answered)), (["3:1:0"], ["3:1:0"]))
            self.assertEqual(records.fields(answered["3:1:0"])[7], records.fields(asked["3:1:0"])[8])
            # The programming service is asked for the application's entries, not for one of the daemon's own.
            stored = json.loads(system.ask("mom", "get", "flow", "1:0", "--json"))["objects"][0]["record"]
            self.assertEqual([entry["acl_app_type"] for entry in stored["ace"]], ["service_chain"] * 2)
            self.assert_of_one_mind(system, (1,))
            self.assertEqual(ofctl(system.port, "del-flows").returncode, 0)
            daemon.wait_until(lambda: not chain.all("parse_flow") and not chain.all("flow_to_ace"), LIMIT, "no chain record")
        self.assert_of_one_mind(system, ())

    def test_a_frozen_database_stops_neither_the_daemon_nor_what_follows(self):
        bound = 0.3  # of a synchronous call
        in_time = 2  # the server stays frozen until the barrier is answered: who waited for it would not answer at all
        system = self.system(mom_sync_timeout_ms=int(1000 * bound), openflow_decide_timeout_ms=600)
        client = self.client(system)
        system.signal("redis-server", signal.SIGSTOP)
        self.addCleanup(system.signal, "redis-server", signal.SIGCONT)
        begun = time.monotonic()
        adds = {client.add(number) for number in range(20)}
        barrier = client.send(openflow.BARRIER_REQUEST)
        replies = []
        while barrier not in [reply.xid for reply in replies]:
            asked = time.monotonic()
            echo = client.send(openflow.ECHO_REQUEST)
            while not replies or replies[-1].xid != echo:
                replies.append(client.receive())
            self.assertLess(time.monotonic() - asked, in_time, "the answer to an echo")
            asked = time.monotonic()
            system.command("dump_ssc_sdn_msg_queue")
            self.assertLess(time.monotonic() - asked, in_time, "the answer to a debug command")
        self.assertGreater(time.monotonic() - begun, 2 * bound)
        self.assertEqual({reply.xid for reply in replies if reply.type == openflow.ERROR}, adds)  # nobody decided
        system.signal("redis-server", signal.SIGCONT)
        self.assert_of_one_mind(system, ())
        client.add(7)
        self.assertEqual(client.barrier(), [])
        self.assert_of_one_mind(system, (7,))
        self.assertEqual(len(system.pids("ssc_kelim")), 1)

    def test_the_programming_service_catches_up_with_what_it_missed(self):
        system = self.system(programmer_counter_rate=1000, programmer_counter_interval_ms=50, openflow_decide_timeout_ms=LIMIT * 1000)
        client = self.client(system)
        for number in range(20):
            client.add(number)
        self.assertEqual(client.barrier(), [])
        with system.database() as database:
            daemon.wait_until(lambda: len(database.all("flow_counter")) == 20, LIMIT, "twenty counter records")
            system.signal("kelim-programmer", signal.SIGSTOP)
            for number in range(5):
                client.delete(number)
            for number in range(20, 30):
                client.add(number)
            meter = openflow.meter_mod(7, rate=1000)
            client.send(openflow.METER_MOD, meter)
            barrier = client.send(openflow.BARRIER_REQUEST)
            daemon.wait_until(lambda: len(database.all("flow")) == 25 and database.all("meter"), LIMIT, "its records")
            counted = database.all("flow_counter")["6:0"]
            system.signal("kelim-programmer", signal.SIGKILL)
            self.assertEqual(client.receive()[:2], (openflow.BARRIER_REPLY, barrier))
            self.assert_of_one_mind(system, range(5, 30))
            daemon.wait_until(
                lambda: records.fields(database.all("meter")["7:0"])[6] == INSTALLED, LIMIT, "an installed meter"
            )
            # Counters go on from where they were.
            daemon.wait_until(lambda: database.all("flow_counter")["6:0"] != counted, LIMIT, "a counter that moves on")
            self.assertGreater(*(records.fields(record)[9] for record in (database.all("flow_counter")["6:0"], counted)))

    def test_settings_that_will_not_do_end_them_all(self):
        system = System(e2e.BIN, programmer_script="explode=1")
        self.addCleanup(system.__exit__)
        process = system.spawn()
        output, _ = process.communicate(timeout=LIMIT)
        self.assertEqual(process.returncode, 1)
        self.assertRegex(output, "(?s)explode=1.*kelim-programmer ended with status 1")
        for pid in re.findall(r"is started \(pid (\d+)\)", output):
            with self.assertRaises(ProcessLookupError):
                os.kill(int(pid), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
