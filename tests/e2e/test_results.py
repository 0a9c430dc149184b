"""What becomes of a flow reaches the controller that asked for it, and barriers keep their promise."""

import subprocess
import time
import unittest

import daemon
import e2e
import openflow
import test_database


class Results(e2e.Test):
    def add_all(self, client, *numbers):
        """Adds the flows in one burst; the bytes of each request by its number."""
        requests = {}
        for number in numbers:
            match, instructions = openflow.tcp_flow(number)
            requests[number] = client.frame(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, match, instructions))
        client.socket.sendall(b"".join(requests.values()))
        return requests

    def test_a_flow_that_fails_later_gives_one_error_and_leaves_nothing(self):
        running = self.daemon(programmer_script="fail=@1;delay=@1:120")
        client = self.client(running)
        requests = self.add_all(client, 7)
        before = client.barrier()
        self.assertEqual(len(before), 1, before)
        self.assert_error(before[0], 5, 0, requests[7])
        self.assertEqual(client.quiet(0.3), [])
        self.assert_nothing_left(running)

    def test_no_room_is_table_full(self):
        running = self.daemon(programmer_size=2)
        client = self.client(running)
        requests = self.add_all(client, 1, 2, 3)
        before = client.barrier()
        self.assertEqual(len(before), 1, before)
        self.assert_error(before[0], 5, 1, requests[3])
        self.assertEqual(len(self.stored(running, "flow")), 2)

    def test_barriers_wait_for_every_flow_before_them_and_leave_in_order(self):
        delay = 0.4
        running = self.daemon(programmer_script=f"delay=@1:{int(delay * 1000)}")
        client = self.client(running)
        begun = time.monotonic()
        self.add_all(client, 1, 2)
        first = client.send(openflow.BARRIER_REQUEST)
        second = client.send(openflow.BARRIER_REQUEST)
        replies = [client.receive(), client.receive()]
        self.assertGreaterEqual(time.monotonic() - begun, delay)
        self.assertEqual([(r.type, r.xid) for r in replies], [(openflow.BARRIER_REPLY, first), (openflow.BARRIER_REPLY, second)])
        self.assertEqual(len(self.stored(running, "flow_sta")), 2)

    def test_one_controllers_errors_do_not_reach_another(self):
        running = self.daemon(programmer_script="fail=@2")
        one, other = self.client(running), self.client(running)
        self.add_all(one, 1)
        self.assertEqual(one.barrier(), [])
        requests = self.add_all(other, 2)
        before = other.barrier()
        self.assertEqual(len(before), 1)
        self.assert_error(before[0], 5, 0, requests[2])
        self.assertEqual(one.barrier(), [])

    def test_deleting_everything_while_flows_are_outstanding_answers_every_barrier(self):
        running = self.daemon(programmer_delay_ms=300)
        client = self.client(running)
        self.add_all(client, *range(1, 301))
        first = client.send(openflow.BARRIER_REQUEST)
        self.add_all(client, *range(301, 601))
        client.delete_all()
        second = client.send(openflow.BARRIER_REQUEST)
        replies = [client.receive(), client.receive()]
        self.assertEqual([(r.type, r.xid) for r in replies], [(openflow.BARRIER_REPLY, first), (openflow.BARRIER_REPLY, second)])
        self.assert_nothing_left(running)

    def test_flows_that_do_not_fit_any_more_are_tried_again_and_then_reported(self):
        server = test_database.RedisServer()
        self.addCleanup(server.stop)
        running = self.daemon(mom_url=server.url, programmer_embedded="false")
        service = self.programming_service(running, size=10)
        client = self.client(running)
        self.add_all(client, *range(1, 11))
        self.assertEqual(client.barrier(), [])
        service.kill()
        service.wait()
        self.programming_service(running, size=7)
        gone = [client.receive() for _ in range(3)]
        self.assertEqual([message.type for message in gone], [openflow.FLOW_REMOVED] * 3)
        self.assertEqual(len(self.stored(running, "flow")), 7)
        self.assertEqual(len(running.ask_json("flows")["flows"]), 7)
        self.assertEqual(client.barrier(), [])

    def test_the_service_runs_once_in_a_process_of_its_own(self):
        server = test_database.RedisServer()
        self.addCleanup(server.stop)
        running = self.daemon(mom_url=server.url, programmer_embedded="false")
        client = self.client(running)
        # As one host.toml for both says it.
        service = self.programming_service(running, size=1, embedded="true")
        client.add(1)
        self.assertEqual(client.barrier(), [])
        self.assertEqual(running.ask_json("flows")["flows"][0]["answer"], "INSTALLED")
        client.add(2)
        self.assertEqual([openflow.error_of(error)[:2] for error in client.barrier()], [(5, 1)])  # the table is full
        self.assertIsNone(service.poll())
        environment = running.environment | {"KELIM_MOM_URL": "embedded:", "KELIM_RUN_DIR": server.directory}
        alone = subprocess.run(
            [running.bin / "kelim-programmer"], env=environment, capture_output=True, text=True, timeout=20
        )
        self.assertEqual(alone.returncode, 1)
        self.assertIn("mom.url (KELIM_MOM_URL) is embedded:", alone.stderr)

    def programming_service(self, running, size, embedded="false"):
        environment = running.environment | {"KELIM_PROGRAMMER_SIZE": str(size), "KELIM_PROGRAMMER_EMBEDDED": embedded}
        service = subprocess.Popen([running.bin / "kelim-programmer"], env=environment, stderr=subprocess.DEVNULL)
        self.addCleanup(service.wait)
        self.addCleanup(service.kill)
        return service

    def test_statistics_of_six_hundred_flows_come_whole_in_one_sequence(self):
        running = self.daemon(programmer_counter_interval_ms=100, programmer_counter_rate=1000)
        client = self.client(running)
        self.add_all(client, *range(1, 601))
        self.assertEqual(client.barrier(), [])
        daemon.wait_until(lambda: len(self.stored(running, "flow_counter")) == 600, 10, "600 counter records")
        entries = client.flow_statistics()
        self.assertEqual(len(entries), 600)
        self.assertTrue(all(packets > 0 and octets == 100 * packets for packets, octets in entries))

    def test_a_burst_with_failures_at_random(self):
        running = self.daemon(programmer_script="fail=20%;delay=30%:15", programmer_seed=4)
        client = self.client(running)
        requests = self.add_all(client, *range(1, 501))
        failed = {message.xid for message in client.barrier()}
        self.assertTrue(0 < len(failed) < 250, len(failed))
        xids = {openflow.HEADER.unpack_from(request)[3] for request in requests.values()}
        self.assertLess(failed, xids)
        self.assertEqual(len(self.stored(running, "flow")), len(requests) - len(failed))
        client.delete_all()
        self.assertEqual(client.barrier(), [])
        self.assert_nothing_left(running)


if __name__ == "__main__":
    unittest.main(verbosity=2)
