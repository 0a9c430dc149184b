"""Redis, the daemon and the programming service as three processes: killed, frozen and restarted, they still agree afterwards."""

import random
import re
import signal
import subprocess
import unittest

import e2e
import load
import openflow

# The flows that the target refuses, by index: the answer stays the same after a restart, and every start meets some of them.
REFUSED = "fail=" + ",".join(f"@{index}-{index + 9}" for index in range(40, 40_000, 200))


class Processes(load.Test):
    def test_each_process_killed_while_flows_come_and_go(self):
        system = self.system(
            programmer_script=REFUSED, programmer_counter_rate=1000, programmer_counter_interval_ms=50,
            openflow_decide_timeout_ms=e2e.LIMIT * 1000,
        )
        asked, chance = (), random.Random(1)
        for victims in (("ssc_kelim",), ("kelim-programmer",), ("redis-server", "ssc_kelim")):  # the daemon ends with its database
            with self.subTest(victim=victims[0]):
                flows = load.Load(system, chance, asked, checks_barriers=True)
                self.await_that(lambda: flows.batches > 5 and flows.refused or flows.problem, "flows under way, some of them refused")
                flows.forgetful = victims[0] == "redis-server"
                self.kill(system, *victims)
                before = flows.batches
                self.await_that(lambda: flows.batches > before + 5 or flows.problem, "flows afterwards")
                asked = flows.stop()
                self.assert_of_one_mind(system, asked)
        self.assertEqual(e2e.ofctl(system.port, "del-flows").returncode, 0)
        self.assert_of_one_mind(system, ())

    def test_a_failover_by_the_sentinels_under_load(self):
        servers = e2e.Sentinels()
        self.addCleanup(servers.close)
        system = self.system(mom_url=servers.url, mom_dead_after_ms=1000, openflow_decide_timeout_ms=e2e.LIMIT * 1000)
        system.socket = servers.sockets[1]  # the replica's, which becomes the master
        flows = load.Load(system, random.Random(1))
        self.await_that(lambda: flows.batches > 5, "flows under way")
        servers.servers[0].kill()
        self.await_that(lambda: "role:master" in servers.ask(1, "INFO", "replication"), "the replica as master")
        asked = flows.stop()
        self.assert_of_one_mind(system, asked)
        client = self.client(system)
        taken = lambda: client.add(2000) and not client.barrier()  # refused until the daemon has found the new master
        self.await_that(taken, "a flow that is taken")
        self.assert_of_one_mind(system, asked | {2000})
        self.assertEqual(len(system.pids("ssc_kelim")), 1, "the daemon goes on with a replica that holds what the master held")

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


if __name__ == "__main__":
    unittest.main(verbosity=2)
