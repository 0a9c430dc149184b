"""Statistics and timeouts on real packets: what the controller reads equals what was sent."""

import json
import re
import struct
import time
import unittest

import e2e
import network
import openflow
from interfaces import OnInterfaces, frame, ipv4, udp

IDLE_TIMEOUT, SEND_FLOW_REMOVED = 0, 1


class Statistics(OnInterfaces):
    def setUp(self):
        self.switch = self.daemon(**self.network.settings)
        self.here, self.there, _ = [self.socket(host) for host in self.network.hosts]

    def socket(self, host):
        frames = host.socket()
        self.addCleanup(frames.close)
        return frames

    def test_an_idle_flow_goes_within_a_second_of_its_timeout_with_its_final_counters(self):
        client = self.client(self.switch)
        wanted = openflow.match(openflow.oxm(0, struct.pack("!I", 1)))
        actions = openflow.apply_actions(openflow.output(2))
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, wanted, actions, idle=3, flags=SEND_FLOW_REMOVED))
        client.barrier()
        packet = frame(ipv4(udp(1)))
        for _ in range(33):  # more than the timeout, so that the last one counts
            self.here.send(packet)
            last = time.monotonic()
            self.assertEqual(client.quiet(0.1), [])
        removed = client.receive()
        spent = time.monotonic() - last
        reason, packets, octets = struct.unpack_from("!10xB13xQQ", removed.raw, openflow.HEADER.size)
        self.assertEqual((removed.type, reason, packets, octets), (openflow.FLOW_REMOVED, IDLE_TIMEOUT, 33, 33 * len(packet)))
        self.assertGreaterEqual(spent, 3)
        self.assertLess(spent, 4)

    def values(self, command, *arguments):
        """Returns the numbers that ovs-ofctl shows, by name."""
        shown = e2e.ofctl(self.switch.port, command, *map(str, arguments))
        self.assertEqual(shown.returncode, 0, shown.stderr)
        return re.findall(r"(\w+)[=:](\d+)", shown.stdout)

    def test_a_meter_and_its_bands_count_what_they_see_and_drop(self):
        self.add("meter=7,pktps,stats,burst,bands=type=drop,rate=1,burst_size=5", command="add-meter")
        self.add("priority=5,in_port=1,ip,nw_proto=17,actions=meter:7,output:2", "priority=9,in_port=1,ip,nw_proto=99,actions=output:2")
        packet, end = frame(ipv4(udp(1))), frame(ipv4(b"end", proto=99))
        for sent in [packet] * 50 + [end]:
            self.here.send(sent)
        passed = 0
        while network.receive(self.there) == packet:
            passed += 1
        self.assertLess(passed, 50)
        wanted = {("packet_in_count", "50"), ("byte_in_count", str(50 * len(packet))), ("flow_count", "1")}
        dropped = {("packet_count", str(50 - passed)), ("byte_count", str((50 - passed) * len(packet)))}
        self.await_that(lambda: set(self.values("meter-stats", "meter=7")) >= wanted | dropped, f"{wanted} and {dropped}")
        self.add("meter=7", command="del-meters")
        self.add("meter=7,pktps,stats,bands=type=drop,rate=9", command="add-meter")
        self.await_that(lambda: ("packet_in_count", "0") in self.values("meter-stats", "meter=7"), "a new meter to begin with nothing")

    def test_tables_count_what_is_looked_up_and_matches_and_ports_as_the_kernel_does(self):
        self.add("priority=5,in_port=1,udp,actions=output:2")
        packet = frame(ipv4(udp(1)))
        for sent in [packet] * 7 + [frame(ipv4(b"", proto=99))] * 4:
            self.here.send(sent)
        for _ in range(7):
            self.assertEqual(network.receive(self.there), packet)
        told = self.await_that(lambda: (now := self.values("dump-tables")) and ("matched", "7") in now and now, "7 matching packets")
        looked_up = [int(number) for name, number in told if name == "lookup"]
        self.assertGreaterEqual(looked_up[0], 11)  # the kernel may add packets of its own
        self.assertEqual([number for name, number in told if name == "matched"], ["7", "0"])
        for port, counter, name in ((1, "rx", 0), (2, "tx", 1)):
            shown = network.run("ip", "-json", "-statistics", "link", "show", "dev", f"p{port}").stdout
            kernel = json.loads(shown)[0]["stats64"][counter]["packets"]
            self.assertGreaterEqual(kernel, 7)
            self.await_that(lambda: self.values_of_port(port)[name] == kernel, f"{kernel} packets {counter} of port {port}")

    def values_of_port(self, port):
        shown = e2e.ofctl(self.switch.port, "dump-ports", str(port)).stdout
        return [int(number) for number in re.findall(r"pkts=(\d+)", shown)]

    def test_a_queue_counts_what_it_sends(self):
        self.addCleanup(network.run, "tc", "qdisc", "delete", "dev", "p2", "root")
        network.run("tc", "qdisc", "add", "dev", "p2", "root", "handle", "1:", "htb", "default", 1)
        for number in (1, 3):
            network.run("tc", "class", "add", "dev", "p2", "parent", "1:", "classid", f"1:{number}", "htb", "rate", "100mbit")
        self.add("priority=5,in_port=1,udp,actions=set_queue:3,output:2")
        packet = frame(ipv4(udp(1)))
        for _ in range(6):
            self.here.send(packet)
            network.receive(self.there)
        wanted = {("bytes", str(6 * len(packet))), ("pkts", "6")}
        self.await_that(lambda: wanted <= set(self.values("queue-stats", 2, 3)), "6 packets of queue 3")
        queues = lambda *words: re.findall(r"queue (\d+)", e2e.ofctl(self.switch.port, "queue-stats", *words).stdout)
        self.assertEqual((queues("2"), queues("1")), (["1", "3"], []))
        refused = e2e.ofctl(self.switch.port, "queue-stats", "2", "9")
        self.assertIn("OFPQOFC_BAD_QUEUE", refused.stdout + refused.stderr)
        network.run("tc", "class", "delete", "dev", "p2", "classid", "1:3")
        self.await_that(lambda: queues("2") == ["1"], "queue 3 to go")


if __name__ == "__main__":
    unittest.main()
