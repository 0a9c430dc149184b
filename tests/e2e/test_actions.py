"""Action lists of the data plane: several outputs, tags pushed and popped, time to live, addresses and ports, with real packets."""

import ctypes
import fcntl
import itertools
import signal
import socket
import struct
import sys
import unittest

import e2e
import network
from interfaces import OnInterfaces, checksum, frame, ipv4, ipv6
from traffic import PUSH, PUSHED

TCP, UDP, ICMPV6 = 6, 17, 58
CHECKSUM_AT = {TCP: 16, UDP: 6, ICMPV6: 2}
HEADS = {
    TCP: lambda ports, length: struct.pack("!HHIIBBHHH", *ports, 1, 0, 0x50, 0x10, 1000, 0, 0),
    UDP: lambda ports, length: struct.pack("!HHHH", *ports, 8 + length, 0),
    ICMPV6: lambda ports, length: struct.pack("!BBHI", 128, 0, 0, 1),
}


def padded(data):
    return data + b"\0" * (len(data) % 2)


def packet(proto, source="10.0.0.1", destination="10.0.0.2", ports=(1000, 53), tags=(), summed=True, data=b"data", ttl=64, dscp=0,
           fragment=0):
    """A frame with right checksums; without one of the transport if not `summed`."""
    family, eth_type = (socket.AF_INET6, 0x86DD) if ":" in source else (socket.AF_INET, 0x0800)
    body = HEADS[proto](ports, len(data)) + data
    if summed:
        at = CHECKSUM_AT[proto]
        addresses = socket.inet_pton(family, source) + socket.inet_pton(family, destination)
        total = checksum(padded(addresses + struct.pack("!II", len(body), proto) + body))
        body = body[:at] + struct.pack("!H", total) + body[at + 2:]
    if family == socket.AF_INET6:
        payload = ipv6(body, dscp, proto, ttl, (source, destination))
    else:
        payload = ipv4(body, dscp, proto, fragment, destination, ttl, source)
    stack = b"".join(struct.pack("!HH", kind, tag) for kind, tag in tags)
    return frame(b"")[:12] + stack + struct.pack("!H", eth_type) + payload


END = packet(UDP, ports=(9, 9))
V6 = {"source": "fd00::1", "destination": "fd00::2"}
Q, AD = 0x8100, 0x88A8

CASES = (  # match, actions, sent, received by the second host and by the third
    ("udp", "output:2,output:3", packet(UDP), [packet(UDP)], [packet(UDP)]),
    ("udp", "output:2,set_field:02:00:00:00:00:02->eth_dst,dec_ttl,output:3,dec_ttl,output:2", packet(UDP),
     [packet(UDP), packet(UDP, ttl=62)], [packet(UDP, ttl=63)]),
    ("udp", "dec_ttl,output:2", packet(UDP, ttl=1), [], []),
    ("udp", "output:3,dec_ttl,output:2", packet(UDP, ttl=1), [], [packet(UDP, ttl=1)]),
    ("udp6", "dec_ttl,output:2", packet(UDP, **V6), [packet(UDP, ttl=63, **V6)], []),
    ("udp", "mod_nw_ttl:9,output:2", packet(UDP), [packet(UDP, ttl=9)], []),
    ("udp", "push_vlan:0x8100,set_field:4103->vlan_vid,output:2", packet(UDP), [packet(UDP, tags=[(Q, 7)])], []),
    ("udp", "push_vlan:0x88a8,set_field:4103->vlan_vid,set_field:5->vlan_pcp,output:3,pop_vlan,output:2", packet(UDP),
     [packet(UDP)], [packet(UDP, tags=[(AD, 0xA007)])]),
    ("dl_vlan=7", "pop_vlan,output:2", packet(UDP, tags=[(Q, 7)]), [packet(UDP)], []),
    ("dl_vlan=7", "pop_vlan,output:2", packet(UDP, tags=[(AD, 7), (Q, 8)]), [packet(UDP, tags=[(Q, 8)])], []),
    ("udp,dl_vlan=7", "push_vlan:0x88a8,dec_ttl,output:2", packet(UDP, tags=[(Q, 0x6007)]),
     [packet(UDP, ttl=63, tags=[(AD, 0x6007), (Q, 0x6007)])], []),
    ("udp,dl_vlan=7", "pop_vlan,dec_ttl,set_field:54->udp_dst,output:2", packet(UDP, tags=[(AD, 7), (Q, 8)]),
     [packet(UDP, ttl=63, ports=(1000, 54), tags=[(Q, 8)])], []),
    ("udp", "set_field:10.9.8.7->ip_src,set_field:10.0.0.77->ip_dst,output:2", packet(UDP),
     [packet(UDP, source="10.9.8.7", destination="10.0.0.77")], []),
    ("udp", "set_field:10.9.8.7->ip_src,set_field:99->udp_dst,output:2", packet(UDP, summed=False),
     [packet(UDP, source="10.9.8.7", ports=(1000, 99), summed=False)], []),
    ("udp", "set_field:10.9.8.7->ip_src,output:2", packet(UDP, data=b"odd"), [packet(UDP, source="10.9.8.7", data=b"odd")], []),
    ("tcp", "set_field:10.9.8.7->ip_src,set_field:4000->tcp_src,set_field:8080->tcp_dst,output:2", packet(TCP),
     [packet(TCP, source="10.9.8.7", ports=(4000, 8080))], []),
    ("tcp6", "set_field:fd00::99->ipv6_src,set_field:fd00:1::2->ipv6_dst,set_field:8080->tcp_dst,output:2", packet(TCP, **V6),
     [packet(TCP, source="fd00::99", destination="fd00:1::2", ports=(1000, 8080))], []),
    ("icmp6", "set_field:fd00::99->ipv6_dst,output:2", packet(ICMPV6, **V6), [packet(ICMPV6, source="fd00::1", destination="fd00::99")],
     []),
    ("udp", "set_field:54->udp_dst,output:2", packet(UDP, fragment=8), [packet(UDP, fragment=8)], []),
    ("udp", "set_field:46->ip_dscp,set_queue:3,output:2,output:3", packet(UDP), [packet(UDP, dscp=46)], [packet(UDP, dscp=46)]),
)

SIOCETHTOOL, ETHTOOL_STXCSUM = 0x8946, 0x17


def leave_no_checksums_to(port):
    """Has the kernel complete the checksums of what leaves by that interface, so that the receiver verifies them."""
    off = ctypes.create_string_buffer(struct.pack("=II", ETHTOOL_STXCSUM, 0))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asking:
        fcntl.ioctl(asking, SIOCETHTOOL, struct.pack("16sP16x", port.encode(), ctypes.addressof(off)))


class Actions(OnInterfaces):
    def setUp(self):
        self.one, self.two, self.three = self.network.hosts
        self.switch = self.daemon(**self.network.settings)

    def received_before_the_end(self, frames):
        return list(itertools.takewhile(lambda got: got != END, iter(lambda: network.receive(frames), None)))

    def test_a_list_is_carried_out_in_its_order(self):
        here, there, third = self.sockets()
        self.add("priority=9,in_port=1,udp,tp_src=9,actions=output:2,output:3")
        for match, actions, sent, *expected in CASES:
            with self.subTest(match=match, actions=actions):
                flow = f"priority=5,in_port=1,{match}"
                self.add(f"{flow},actions={actions}")
                here.send(sent)
                here.send(END)
                self.assertEqual([self.received_before_the_end(each) for each in (there, third)], expected)
                self.add(flow, command="del-flows")

    def test_a_packet_out_carries_out_the_same_lists(self):
        _, there, third = self.sockets()
        self.await_that(lambda: self.switch.ask_json("packets")["data_plane"], "the data plane to take packets")
        self.add("priority=9,in_port=1,udp,tp_src=9,actions=output:2,output:3")
        for match, actions, sent, *expected in CASES:
            with self.subTest(actions=actions):
                self.add(f"priority=5,in_port=1,{match},actions={actions}")
                for each in (sent, END):
                    done = e2e.ofctl(self.switch.port, "packet-out", f"in_port=1,packet={each.hex()},actions=table")
                    self.assertEqual(done.stderr, "")
                self.assertEqual([self.received_before_the_end(each) for each in (there, third)], expected)
                self.add(f"priority=5,in_port=1,{match}", command="del-flows")

    def test_the_controller_sees_the_list_as_written(self):
        actions = "output:3,push_vlan:0x8100,set_field:4103->vlan_vid,dec_ttl,set_field:10.9.8.7->ip_src,mod_nw_ttl:9,output:2"
        self.add(f"udp,actions={actions}")
        self.assertIn(f"actions={actions}", e2e.ofctl(self.switch.port, "dump-flows").stdout)
        self.assertIn("udp", e2e.ofctl(self.switch.port, "dump-flows", "out_port=2").stdout)
        self.add("out_port=3", command="del-flows")

    # The kernel's own packets come unsplit and with half a checksum.
    def test_a_connection_to_another_address_and_port_is_translated(self):
        for port in ("p1", "p2"):
            leave_no_checksums_to(port)
        self.one.run("ip", "neighbour", "replace", "10.0.0.9", "lladdr", self.two.mac, "dev", "eth0", "nud", "permanent")
        self.add("tcp,in_port=1,nw_dst=10.0.0.9,tp_dst=80,actions=set_field:10.0.0.2->ip_dst,set_field:7->tcp_dst,dec_ttl,output:2",
                 "tcp,in_port=2,tp_src=7,actions=set_field:10.0.0.9->ip_src,set_field:80->tcp_src,output:1")
        self.serve(self.two, "tcp")
        answer = self.one.run(sys.executable, "-c", PUSH, "10.0.0.9", 80).stdout
        self.assertEqual(answer, f"{len(PUSHED)} {sum(PUSHED)}\n")

    def test_lists_survive_the_service_as_they_are(self):
        if not self.network.pinned:
            self.skipTest("no BPF file system")
        self.assertEqual(self.switch.stop(), 0)
        self.switch = self.system(**self.network.settings)
        self.add("priority=9,in_port=1,udp,tp_src=9,actions=output:2,output:3", "priority=5,in_port=1,udp,actions=dec_ttl,output:2,output:3",
                 "in_port=3,udp,actions=dec_ttl,output:2,output:3")
        self.switch.signal("kelim-programmer", signal.SIGKILL)
        plane = lambda: self.switch.kelimctl("--process", "kelim-programmer", "plane").stdout
        self.await_that(lambda: "Flows: 3 taken over as they were, 0 written" in plane(), "another service with the same plane")
        here, there, third = self.sockets()
        for each in (packet(UDP), END):
            here.send(each)
        self.assertEqual([self.received_before_the_end(each) for each in (there, third)], [[packet(UDP, ttl=63)]] * 2)

    def test_a_group_sends_every_bucket_its_own_packet(self):
        here, there, third = self.sockets()
        self.add("priority=9,in_port=1,udp,tp_src=9,actions=output:2,output:3")
        tagged = packet(UDP, tags=[(Q, 7)])
        cases = (  # match, group, sent, received by the second host and by the third
            ("udp", "type=all,bucket=output:2,bucket=output:3", packet(UDP), [packet(UDP)], [packet(UDP)]),
            ("udp", "type=indirect,bucket=dec_ttl,output:3", packet(UDP), [], [packet(UDP, ttl=63)]),
            ("udp", "type=all,bucket=dec_ttl,output:2,bucket=output:3", packet(UDP), [packet(UDP, ttl=63)], [packet(UDP)]),
            ("udp", "type=all,bucket=push_vlan:0x8100,set_field:4103->vlan_vid,output:2,bucket=dec_ttl,output:3", packet(UDP), [tagged],
             [packet(UDP, ttl=63)]),
            ("dl_vlan=7", "type=all,bucket=pop_vlan,output:2,bucket=output:3", tagged, [packet(UDP)], [tagged]),
            ("udp", "type=all,bucket=set_field:10.9.8.7->ip_dst,output:2,bucket=set_field:10.9.8.6->ip_dst,output:3", packet(UDP),
             [packet(UDP, destination="10.9.8.7")], [packet(UDP, destination="10.9.8.6")]),
        )
        for match, group, sent, *expected in cases:
            with self.subTest(group=group):
                flow = f"priority=5,in_port=1,{match}"
                self.add(f"group_id=1,{group}", command="add-group")
                self.add(f"{flow},actions=group:1")
                here.send(sent)
                here.send(END)
                self.assertEqual([self.received_before_the_end(each) for each in (there, third)], expected)
                self.add("group_id=1", command="del-groups")
                self.assertNotIn("group:1", e2e.ofctl(self.switch.port, "dump-flows").stdout)

    def test_a_group_that_changes_under_traffic_loses_and_doubles_no_packet(self):
        here, there, _ = self.sockets()
        self.add("group_id=1,type=indirect,bucket=output:2", command="add-group")
        self.add("in_port=1,udp,actions=group:1")

        def change(n):
            self.add("group_id=1,type=all,bucket=output:2" + (",bucket=dec_ttl,output:3" if n % 2 else ""), command="mod-group")

        self.expect_every_packet(here, there, lambda data: packet(UDP, data=data), change)

if __name__ == "__main__":
    unittest.main(verbosity=2)
