"""What becomes of a flow reaches the controller that asked for it."""

import re
import unittest

import e2e
import openflow


class Results(e2e.Test):
    def add_all(self, client, numbers):
        """Adds the flows in one burst; each request by its number."""
        requests = {}
        for number in numbers:
            match, instructions = openflow.tcp_flow(number)
            requests[number] = client.frame(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, match, instructions))
        client.socket.sendall(b"".join(requests.values()))
        return requests

    def assert_nothing_left(self, running):
        """No record, no cached flow, no outstanding request."""
        for kind in ("flow", "flow_sta", "flow_counter"):
            self.assertEqual(self.stored(running, kind), [], kind)
        self.assertEqual(running.command("dump_ssc_all_flow_info").strip(), "")
        self.assertIn("msg queue is empty", running.command("dump_ssc_sdn_msg_queue"))

    def test_a_flow_that_fails_later_gives_one_error_to_its_controller_and_leaves_nothing(self):
        running = self.daemon(programmer_script="fail=@1;delay=@1:120")
        other, client = self.client(running), self.client(running)
        request = self.add_all(client, [7])[7]
        errors = [e2e.error_of(error) for error in client.barrier()]
        self.assertEqual(errors, [(5, 0, client.xid - 1, request[:64])])
        self.assert_nothing_left(running)
        self.assertEqual(client.barrier() + other.barrier(), [])

    def test_a_burst_with_failures_at_random(self):
        running = self.daemon(programmer_script="fail=20%;delay=30%:15", programmer_seed=4)
        client = self.client(running)
        requests = self.add_all(client, range(1, 501))
        failed = {message.xid for message in client.barrier()}
        self.assertTrue(0 < len(failed) < 250, len(failed))
        self.assertLess(failed, {openflow.HEADER.unpack_from(request)[3] for request in requests.values()})
        self.assertEqual(len(self.stored(running, "flow")), len(requests) - len(failed))
        self.add_all(client, range(501, 1001))
        first = client.send(openflow.BARRIER_REQUEST)
        client.delete_all()
        self.assertIn(first, [message.xid for message in client.barrier()])
        self.assert_nothing_left(running)

    def test_statistics_of_six_hundred_flows_come_whole_in_one_sequence(self):
        running = self.daemon(programmer_counter_interval_ms=100, programmer_counter_rate=1000)
        client = self.client(running)
        self.add_all(client, range(1, 601))
        self.assertEqual(client.barrier(), [])
        self.await_that(lambda: len(self.stored(running, "flow_counter")) == 600, "600 counter records")
        entries = client.flow_statistics()
        self.assertEqual(len(entries), 600)
        self.assertTrue(all(packets > 0 and octets == 100 * packets for packets, octets in entries))

    def test_flows_of_another_client_come_back_as_they_were_sent(self):
        flows = [
            "priority=10,in_port=1 actions=output:2",
            "priority=20,ip,nw_dst=10.1.0.0/16 actions=output:3",
            "priority=30,tcp6,ipv6_dst=2001:db8::/32,tp_dst=443 actions=CONTROLLER:65535",
            "priority=40,dl_vlan=7 actions=set_field:4104->vlan_vid,output:4",
            "priority=50,icmp,icmp_type=8 actions=drop",
        ]
        running = self.daemon()
        added = e2e.ofctl(running.port, "add-flows", "-", stdin="".join(flow.replace(" ", ",") + "\n" for flow in flows))
        self.assertEqual((added.returncode, added.stderr), (0, ""))
        self.assertEqual(sorted(re.findall("priority=.*", e2e.ofctl(running.port, "dump-flows").stdout)), flows)


if __name__ == "__main__":
    unittest.main(verbosity=2)
