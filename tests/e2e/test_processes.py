"""Redis, the daemon and the programming service as three processes: killed, frozen and restarted, they still agree afterwards."""

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

FLOWS = 600
CLIENTS = 20  # several, because ovs-ofctl waits for a barrier after each flow, and one would not keep the daemon busy
# The flows that the target refuses, by index: the answer stays the same after a restart, and every start meets some of them.
REFUSED = "fail=" + ",".join(f"@{index}-{index + 9}" for index in range(40, 4000, 200))


def number_of(flow):
    """The number of a stored flow, from its IPv4 destination: in flow_data an OXM header and 10.0.x.y, both little-endian."""
    return int.from_bytes(re.search(rb"\x04\x18\x00\x80(..)\x00\x0a", flow, re.DOTALL)[1], "little")


def is_installed(flow, answer):
    """True if the flow_sta says installed (field 6 is 2) and answers this form of the flow (field 7 is the flow's field 12)."""
    found = re.search(rb"\x30\x02\x38([\x80-\xff]+[\x00-\x7f])", answer)
    return bool(found) and b"\x60" + found[1] in flow


class Clients:
    """Several ovs-ofctl that program flows; keeps the numbers of the accepted and the refused ones."""

    def __init__(self, port, refused_before=frozenset()):
        self.port = port
        self.accepted, self.refused = set(), set()
        self.refused_before = refused_before  # refused during an earlier run of the daemon
        self.cut_off = False  # True if the daemon ended in the middle
        self.threads = [threading.Thread(target=self._add, args=(range(FLOWS)[first::CLIENTS],)) for first in range(CLIENTS)]
        for thread in self.threads:
            thread.start()

    def wait(self):
        for thread in self.threads:
            thread.join()
        return self

    def _add(self, numbers):
        while numbers:
            flows = "".join(f"cookie={n},tcp,nw_dst=10.0.{n >> 8}.{n & 255},tp_dst=80,actions=output:2\n" for n in numbers)
            result = e2e.ofctl(self.port, "add-flows", "-", stdin=flows)
            if result.returncode == 0:
                self.accepted.update(numbers)
                return
            # ovs-ofctl ends at the first error, whose data begin with the request: eight bytes of header, then the cookie.
            refused = re.search(r"^00000000 (?:[ -][0-9a-f]{2}){8}-((?:[0-9a-f]{2} ){8})", result.stderr, re.MULTILINE)
            if not refused:
                self.cut_off = True
                return
            at = numbers.index(int(refused[1].replace(" ", ""), 16))
            self.accepted.update(numbers[:at])
            self.refused.add(numbers[at])
            numbers = numbers[at + 1 :]


class BarrierClient(threading.Thread):
    """Repeatedly sends a flow and a barrier together, and checks the database at each reply. Reconnects to a restarted daemon."""

    NUMBER = 1000  # of its flow, above those of other clients

    def __init__(self, system):
        super().__init__()
        self.system = system
        self.answered, self.problems = 0, []
        self.enough = threading.Event()
        self.start()

    def run(self):
        while not self.enough.is_set():
            try:
                with self.system.client() as client:
                    self._work(client)
            except TimeoutError:
                self.problems.append("a barrier was neither answered nor its connection closed")
            except (OSError, EOFError):
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
        """True if the database holds the answer for the flow, or has just gone away."""
        try:
            flows, answers = (e2e.records(self.system.socket, kind) for kind in ("flow", "flow_sta"))
        except subprocess.CalledProcessError:
            return True
        ours = [key for key, flow in flows.items() if number_of(flow) == self.NUMBER]
        # A synchronisation may just have rewritten the flow, so the answer to its previous form counts too.
        return not flows or any(b"\x30\x02\x38" in answers.get(key, b"") for key in ours)

    def stop(self):
        """Ends the thread and deletes its flow."""
        self.enough.set()
        self.join()
        with self.system.client() as client:
            client.delete(self.NUMBER)
            client.barrier()


class Processes(e2e.Test):
    def differences(self, system, accepted):
        """Returns the differences between the views of clients, database and target; empty if they agree."""
        try:
            flows, answers, counters = (e2e.records(system.socket, kind) for kind in ("flow", "flow_sta", "flow_counter"))
            target = set(system.programmer("flows").split())
        except (subprocess.CalledProcessError, daemon.Failed) as still_starting:
            return {"not there": str(still_starting)}
        asked, stored = set(accepted), {number_of(flow) for flow in flows.values()}
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

    def assert_of_one_mind(self, system, accepted):
        end = time.monotonic() + e2e.LIMIT
        while found := self.differences(system, accepted):
            self.assertLess(time.monotonic(), end, found)

    def kill_while_programming(self, system, victim):
        """Kills the process when a third of the flows are stored, and waits until it runs again."""
        clients = Clients(system.port)
        stored = lambda: len(e2e.redis(system.socket, "KEYS", "s_policy_kelim.flow:*"))
        self.await_that(lambda: stored() >= FLOWS // 3, "a third of the flows")
        daemons, others = system.pids("ssc_kelim"), system.pids(victim)
        system.signal(victim, signal.SIGKILL)
        self.await_that(lambda: len(system.pids(victim)) > len(others), f"another {victim}")
        clients.wait()
        if victim != "kelim-programmer":  # the daemon ends with its database
            self.await_that(lambda: len(system.pids("ssc_kelim")) > len(daemons), "another daemon")
            self.await_that(system.ready, "a daemon that serves its port")
            clients = Clients(system.port, clients.refused).wait()
        self.assertFalse(clients.cut_off)
        self.assertEqual(len(clients.accepted | clients.refused), FLOWS)
        return clients

    def test_each_process_killed_while_flows_are_added(self):
        system = self.system(
            programmer_script=REFUSED, programmer_counter_rate=1000, programmer_counter_interval_ms=50,
            openflow_capacity=2 * FLOWS, openflow_decide_timeout_ms=e2e.LIMIT * 1000,
        )
        for victim in reversed(system.NAMES):
            with self.subTest(victim=victim):
                barriers = BarrierClient(system)
                try:
                    clients = self.kill_while_programming(system, victim)
                    self.await_that(lambda: barriers.answered > 10, "answers to barriers")
                finally:
                    barriers.stop()
                self.assertEqual(barriers.problems, [])
                self.assertTrue(clients.refused or clients.refused_before)  # a fast daemon may meet them all before the kill
                self.assertLess(len(clients.refused), FLOWS // 4)
                self.assert_of_one_mind(system, clients.accepted)
                self.assertEqual(e2e.ofctl(system.port, "del-flows").returncode, 0)
                self.assert_of_one_mind(system, ())

    def test_a_failover_by_the_sentinels_under_load(self):
        servers = e2e.Sentinels()
        self.addCleanup(servers.close)
        system = self.system(
            mom_url=servers.url, mom_dead_after_ms=1000, openflow_capacity=2 * FLOWS, openflow_decide_timeout_ms=e2e.LIMIT * 1000,
        )
        system.socket = servers.sockets[1]  # the replica's, which becomes the master
        clients = Clients(system.port)
        stored = lambda: len(e2e.redis(system.socket, "KEYS", "s_policy_kelim.flow:*"))
        self.await_that(lambda: stored() >= FLOWS // 3, "a third of the flows")
        servers.servers[0].kill()
        clients.wait()
        self.assertFalse(clients.cut_off, "the daemon goes on with a replica that holds what the master held")
        self.assertEqual(len(clients.accepted | clients.refused), FLOWS)
        self.await_that(lambda: "role:master" in servers.ask(1, "INFO", "replication"), "the replica as master")
        self.assert_of_one_mind(system, clients.accepted)
        client = self.client(system)
        taken = lambda: client.add(2000) and not client.barrier()  # refused until the daemon has found the new master
        self.await_that(taken, "a flow that is taken")
        self.assert_of_one_mind(system, clients.accepted | {2000})

    def test_a_replica_that_lags_is_another_database(self):
        servers = e2e.Sentinels()
        self.addCleanup(servers.close)
        system = self.system(mom_url=servers.url, mom_dead_after_ms=1000)
        system.socket = servers.sockets[1]
        client = self.client(system)
        client.add(1)
        self.assertEqual(client.barrier(), [])
        self.await_that(lambda: e2e.records(system.socket, "flow_sta"), "the replica to have it all")
        servers.servers[1].send_signal(signal.SIGSTOP)
        servers.ask(0, "CLIENT", "KILL", "TYPE", "replica")
        client.add(2)
        self.assertEqual(client.barrier(), [])
        looked = lambda: re.search(r"name=ssc_kelim/8/write .* cmd=info ", servers.ask(0, "CLIENT", "LIST"))
        self.await_that(looked, "a look at how far the master has come")
        servers.servers[0].kill()
        servers.servers[1].send_signal(signal.SIGCONT)
        self.await_that(lambda: len(system.pids("ssc_kelim")) > 1 and system.ready(), "another daemon")
        self.assert_of_one_mind(system, (1,))

    def test_a_service_chain_flow_goes_through_both_processes(self):
        system = self.system()
        flow = "table=1,dl_dst=02:00:00:00:00:01,tcp,nw_dst=10.0.0.1,tp_dst=80,actions=output:2"
        self.assertEqual(e2e.ofctl(system.port, "add-flow", flow).stderr, "")
        # The record requests the application's entries from the programming service, not the daemon's own entry.
        stored = system.ask_json("mom", "get", "flow", "1:0")["objects"][0]["record"]
        self.assertEqual([entry["acl_app_type"] for entry in stored["ace"]], ["service_chain"] * 2)
        self.assert_of_one_mind(system, [1])
        self.assertEqual(e2e.ofctl(system.port, "del-flows").stderr, "")
        self.await_that(lambda: not e2e.records(system.socket, "parse_flow", database=4), "the end of the application's record")
        self.assert_of_one_mind(system, ())

    def test_a_translation_that_died_with_the_daemon_is_withdrawn(self):
        system = self.system(programmer_service_chain="false")
        translations = lambda: e2e.records(system.socket, "parse_flow", database=4)
        self.client(system).add(1, table=1)
        self.await_that(translations, "what the application is asked for")
        system.signal("ssc_kelim", signal.SIGKILL)
        self.await_that(lambda: len(system.pids("ssc_kelim")) > 1 and system.ready(), "another daemon")
        self.assertEqual(translations(), {})
        client = self.client(system)
        client.add(2)
        self.assertEqual(client.barrier(), [])
        self.assertEqual(list(e2e.records(system.socket, "flow")), ["2:0"], "the first index is not given again")

    def test_an_answer_that_overtakes_a_deletion_brings_nothing_back(self):
        system = self.system()
        client = self.client(system)
        redis = lambda *words: subprocess.check_output(["redis-cli", "-s", system.socket, *words], text=True)
        waiting = lambda: int(re.search(r"blocked_clients:(\d+)", redis("INFO", "clients"))[1])
        system.signal("kelim-programmer", signal.SIGSTOP)
        client.send(openflow.METER_MOD, openflow.meter_mod(1, 1000))
        self.await_that(lambda: self.stored(system, "meter"), "the meter")
        redis("CLIENT", "PAUSE", "60000", "WRITE")
        client.send(openflow.METER_MOD, openflow.meter_mod(1, 1000, command=2))
        self.await_that(lambda: waiting() == 1, "the deletion")
        system.signal("kelim-programmer", signal.SIGCONT)
        self.await_that(lambda: waiting() == 2, "the answer behind it")
        redis("CLIENT", "UNPAUSE")
        self.await_that(lambda: waiting() == 0, "both to be written")
        self.await_that(lambda: not e2e.records(system.socket, "meter"), "the end of the meter")

    def test_a_frozen_database_stops_neither_the_daemon_nor_what_follows(self):
        system = self.system(mom_sync_timeout_ms=300, openflow_decide_timeout_ms=600)
        client = self.client(system)
        system.signal("redis-server", signal.SIGSTOP)
        self.addCleanup(system.signal, "redis-server", signal.SIGCONT)
        # The server stays frozen until everything here is answered: anything that waited for it would never answer.
        adds = {client.add(number) for number in range(20)}
        system.command("dump_ssc_sdn_msg_queue")
        self.assertEqual(system.kelimctl("mom", "--url", "embedded:", "get", "flow", "1:0").returncode, 1)
        errors = client.barrier()
        self.assertEqual({error.xid for error in errors}, adds, "nobody decided")
        system.signal("redis-server", signal.SIGCONT)
        self.assert_of_one_mind(system, ())
        # On a slow machine the first flows may still be given up.
        self.await_that(lambda: client.add(7) and client.barrier() == [], "a flow that is decided in time")
        self.assert_of_one_mind(system, (7,))
        self.assertEqual(len(system.pids("ssc_kelim")), 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
