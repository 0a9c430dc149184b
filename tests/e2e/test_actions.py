"""Action lists of the data plane: several outputs, tags pushed and popped, time to live, addresses and ports, with real packets."""

import ctypes
import fcntl
import itertools
import signal
import socket
import struct
import subprocess
import sys
import unittest

import e2e
import network
from interfaces import OnInterfaces, checksum

TCP, UDP, ICMPV6 = 6, 17, 58
CHECKSUM_AT = {TCP: 16, UDP: 6, ICMPV6: 2}
HEADS = {
    TCP: lambda ports, length: struct.pack("!HHIIBBHHH", *ports, 1, 0, 0x50, 0x10, 1000, 0, 0),
    UDP: lambda ports, length: struct.pack("!HHHH", *ports, 8 + length, 0),
    ICMPV6: lambda ports, length: struct.pack("!BBHI", 128, 0, 0, 1),
}


def padded(data):
    return data + b"\0" * (len(data) % 2)


def packet(proto, source="10.0.0.1", destination="10.0.0.2", ports=(1000, 53), ttl=64, tags=(), summed=True, data=b"data", dscp=0, fragment=0):
    """A frame with right checksums; without one of the transport if not `summed`."""
    family, v6 = (socket.AF_INET6, True) if ":" in source else (socket.AF_INET, False)
    addresses = socket.inet_pton(family, source) + socket.inet_pton(family, destination)
    body = HEADS[proto](ports, len(data)) + data
    if summed:
        at = CHECKSUM_AT[proto]
        total = checksum(padded(addresses + struct.pack("!II", len(body), proto) + body))
        body = body[:at] + struct.pack("!H", total) + body[at + 2:]
    if v6:
        head = struct.pack("!IHBB", 6 << 28 | dscp << 22, len(body), proto, ttl) + addresses
    else:
        head = struct.pack("!BBHHHBBH", 0x45, dscp << 2, 20 + len(body), 7, fragment, ttl, proto, 0) + addresses
        head = head[:10] + struct.pack("!H", checksum(head)) + head[12:]
    macs = bytes.fromhex((network.mac(2) + network.mac(1)).replace(":", ""))
    stack = b"".join(struct.pack("!HH", kind, tag) for kind, tag in tags)
    return macs + stack + struct.pack("!H", 0x86DD if v6 else 0x0800) + head + body


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

SERVE = """
import socket
server = socket.create_server(("10.0.0.2", 8080))
print(flush=True)
peer, _ = server.accept()
data = peer.makefile("rb").read()
print(len(data), sum(data), flush=True)
"""
SEND = """
import socket
socket.create_connection(("10.0.0.9", 80), 10).sendall(bytes(range(250)) * 4000)
"""


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
        return list(itertools.takewhile(lambda frame: frame != END, iter(lambda: network.receive(frames), None)))

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
                for frame in (sent, END):
                    done = e2e.ofctl(self.switch.port, "packet-out", f"in_port=1,packet={frame.hex()},actions=table")
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
        self.add("tcp,in_port=1,nw_dst=10.0.0.9,tp_dst=80,actions=set_field:10.0.0.2->ip_dst,set_field:8080->tcp_dst,dec_ttl,output:2",
                 "tcp,in_port=2,tp_src=8080,actions=set_field:10.0.0.9->ip_src,set_field:80->tcp_src,output:1")
        words = self.two.words(sys.executable, "-c", SERVE)
        server = subprocess.Popen([str(word) for word in words], stdout=subprocess.PIPE, text=True)
        self.addCleanup(server.stdout.close)
        self.addCleanup(server.kill)
        server.stdout.readline()
        self.one.run(sys.executable, "-c", SEND)
        self.assertEqual(server.stdout.readline(), f"{250 * 4000} {sum(range(250)) * 4000}\n")
        server.wait()

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
        for frame in (packet(UDP), END):
            here.send(frame)
        self.assertEqual([self.received_before_the_end(each) for each in (there, third)], [[packet(UDP, ttl=63)]] * 2)

    def group(self, command, text):
        done = e2e.ofctl(self.switch.port, command, text)
        self.assertEqual((done.returncode, done.stderr), (0, ""), text)

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
                self.group("add-group", f"group_id=1,{group}")
                self.add(f"{flow},actions=group:1")
                here.send(sent)
                here.send(END)
                self.assertEqual([self.received_before_the_end(each) for each in (there, third)], expected)
                self.group("del-groups", "group_id=1")
                self.assertNotIn("group:1", e2e.ofctl(self.switch.port, "dump-flows").stdout)

    def test_a_group_that_changes_under_traffic_loses_and_doubles_no_packet(self):
        here, there, _ = self.sockets()
        self.group("add-group", "group_id=1,type=indirect,bucket=output:2")
        self.add("in_port=1,udp,actions=group:1")

        def change(n):
            self.group("mod-group", "group_id=1,type=all,bucket=output:2" + (",bucket=dec_ttl,output:3" if n % 2 else ""))

        self.expect_every_packet(here, there, lambda data: packet(UDP, data=data), change)

    def test_what_cannot_be_carried_out_is_refused(self):
        cases = (
            ("udp,actions=normal,output:2", "OFPBAC_UNSUPPORTED_ORDER"),
            ("table=1,udp,actions=output:2,output:3", "OFPBAC_TOO_MANY"),
        )
        for flow, error in cases:
            with self.subTest(flow=flow):
                self.assertIn(error, e2e.ofctl(self.switch.port, "add-flow", flow).stderr)


class Simulated(e2e.Test):
    def test_a_target_that_reads_entries_gets_no_lists(self):
        switch = self.daemon()
        for flow, error in (
            ("udp,actions=output:2,output:3", "OFPBAC_TOO_MANY"),
            ("udp,actions=output:2,set_queue:1", "OFPBAC_UNSUPPORTED_ORDER"),
            ("udp,actions=dec_ttl,output:2", "OFPBAC_BAD_TYPE"),
            ("udp,actions=push_vlan:0x8100,output:2", "OFPBAC_BAD_TYPE"),
            ("udp,actions=set_field:54->udp_dst,output:2", "OFPBAC_BAD_SET_TYPE"),
        ):
            with self.subTest(flow=flow):
                self.assertIn(error, e2e.ofctl(switch.port, "add-flow", flow).stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
