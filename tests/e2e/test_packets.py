"""Packets between the data plane and controllers, with real traffic of hosts in network namespaces."""

import os
import signal
import struct
import subprocess
import time
import unittest

import e2e
import network
import openflow
from interfaces import OnInterfaces, checksum, frame, ipv4, udp
from traffic import PUSH, PUSHED

TCP = 6


def is_right(packet):
    """True if the IPv4 header's and the TCP or UDP checksum are correct."""
    header = (packet[14] & 15) * 4
    segment = packet[14 + header : 14 + struct.unpack_from("!H", packet, 16)[0]]
    pseudo = packet[26:34] + struct.pack("!HH", packet[23], len(segment))
    return checksum(packet[14 : 14 + header]) == 0 and checksum(pseudo + segment + bytes(len(segment) % 2)) == 0


def transport(packets, proto):
    return [p.frame for p in packets if p.frame[12:14] == b"\x08\x00" and p.frame[23] == proto]


class Packets(OnInterfaces):
    start = OnInterfaces.daemon

    def setUp(self):
        self.hosts = self.network.hosts
        self.switch = self.start(**self.network.settings)
        self.await_that(lambda: self.packets()["data_plane"], "the data plane at the agent's socket")

    def packets(self):
        return self.switch.ask_json("packets")

    def port(self, number):
        return next((port for port in self.packets()["ports"] if port["port"] == number), {})

    def next_packet(self, client):
        while (message := client.receive()).type != openflow.PACKET_IN:
            pass
        return openflow.packet_in_of(message)

    def test_a_packet_in_says_what_the_packet_was_and_why_it_comes(self):
        packet, long, short = frame(ipv4(udp(53))), frame(ipv4(udp(54, bytes(1458)))), frame(bytes(46), 0x88B5)
        tagged = frame(ipv4(udp(55)), tag=0x6007)
        cases = (  # flow, sent, reason, cookie, received
            ("priority=0,actions=controller", short, openflow.NO_MATCH, 0, short),
            ("cookie=0x17,priority=0,in_port=1,actions=controller", packet, openflow.ACTION, 0x17, packet),
            ("cookie=0x18,priority=3,udp,actions=controller:20", long, openflow.ACTION, 0x18, long),
            ("cookie=0xfedcba9876543210,priority=9,dl_vlan=7,actions=set_field:4104->vlan_vid,controller", tagged, openflow.ACTION,
             0xFEDCBA9876543210, frame(ipv4(udp(55)), tag=0x6008)),
        )
        here = self.sockets()[0]
        client = self.client(self.switch)
        for flow, sent, reason, cookie, received in cases:
            with self.subTest(flow=flow):
                self.add(flow)
                here.send(sent)
                self.assertEqual(self.next_packet(client), openflow.PacketIn(len(received), reason, 0, cookie, 1, received))

    # The kernel hands over unsegmented packets; the controller gets the segments that a wire would carry.
    def test_a_long_stream_comes_in_whole_segments(self):
        self.serve(self.hosts[1], "tcp")
        self.add("priority=9,in_port=2,actions=output:1", "priority=5,in_port=1,actions=controller")
        client = self.client(self.switch)
        self.spawn(*self.hosts[0].words("python3", "-c", PUSH, self.hosts[1].address, 7), stdout=subprocess.DEVNULL)
        data, first = {}, None
        while len(data) < 30:
            packet = self.next_packet(client)
            if transport([packet], TCP):
                self.assertTrue(is_right(packet.frame))
                self.assertLessEqual(len(packet.frame), 1514)
                sequence, header = struct.unpack_from("!I", packet.frame, 38)[0], (packet.frame[46] >> 4) * 4
                first = sequence if first is None else first
                if payload := packet.frame[34 + header : 14 + struct.unpack_from("!H", packet.frame, 16)[0]]:
                    data[(sequence - first - 1) % (1 << 32)] = payload
            client.send(openflow.PACKET_OUT, openflow.packet_out(packet.frame, openflow.output(2), in_port=1))
        for at, payload in data.items():
            self.assertEqual(payload, PUSHED[at : at + len(payload)])
        self.assertGreater(max(len(payload) for payload in data.values()), 1400)

    def test_a_packet_out_goes_where_its_actions_say(self):
        nobody = "10.0.0.99"  # no host has this address, so none answers
        payload = ipv4(udp(53), destination=nobody)
        packet, tagged, retagged = frame(payload), frame(payload, tag=0x6007), frame(payload, tag=0xA008)
        redirected = frame(payload, destination="02:00:00:00:00:77")
        changed = frame(ipv4(udp(53), dscp=46, destination=nobody), source="02:00:00:00:00:66", destination="02:00:00:00:00:77")
        out, field = openflow.output, openflow.set_field
        addresses = field(3, bytes.fromhex("020000000077")), field(4, bytes.fromhex("020000000066"))
        self.add("priority=5,in_port=2,udp,actions=set_field:02:00:00:00:00:77->eth_dst,output:3",
                 "priority=5,in_port=3,udp,actions=drop", "cookie=0x5,priority=0,actions=controller")
        cases = (  # in_port, sent, actions, received by host 1, 2, 3 and the controller
            (openflow.CONTROLLER, packet, (out(2),), ([], [packet], [], [])),
            (1, packet, (out(openflow.IN_PORT),), ([packet], [], [], [])),
            (1, packet, (out(openflow.ALL),), ([], [packet], [packet], [])),
            (openflow.ANY, packet, (out(openflow.FLOOD),), ([packet], [packet], [packet], [])),
            (openflow.CONTROLLER, packet, (out(1), *addresses, field(8, b"\x2e"), out(2)), ([packet], [changed], [], [])),
            (openflow.CONTROLLER, tagged, (field(6, b"\x10\x08"), field(7, b"\x05"), out(3)),
             ([], [], [retagged], [])),
            (2, packet, (out(openflow.TABLE),), ([], [], [redirected], [])),
            (3, packet, (out(openflow.TABLE),), ([], [], [], [])),
            (1, packet, (out(openflow.TABLE),), ([], [], [], [(openflow.NO_MATCH, 5, 1, packet)])),
            (1, packet, (out(openflow.CONTROLLER),), ([], [], [], [(openflow.ACTION, 2**64 - 1, 1, packet)])),
            (1, packet, (out(1),), ([], [], [], [])),
            (1, packet, (field(6, b"\x10\x08"), out(2)), ([], [], [], [])),
            (1, packet, (), ([], [], [], [])),
        )
        frames, client = self.sockets(), self.client(self.switch)
        end = frame(bytes(46), 0x88B5)
        for in_port, sent, actions, received in cases:
            with self.subTest(in_port=in_port, actions=[a.hex() for a in actions]):
                client.send(openflow.PACKET_OUT, openflow.packet_out(sent, *actions, in_port=in_port))
                client.send(openflow.PACKET_OUT, openflow.packet_out(end, out(openflow.ALL), out(openflow.CONTROLLER)))
                for host, expected in zip(frames, received):
                    self.assertEqual([network.receive(host) for _ in range(len(expected) + 1)], [*expected, end])
                came = [self.next_packet(client) for _ in range(len(received[3]) + 1)]
                self.assertEqual([(p.reason, p.cookie, p.in_port, p.frame) for p in came[:-1]], received[3])
                self.assertEqual(came[-1].frame, end)
        self.await_that(lambda: self.port(1).get("in") == 2 and self.port(None)["out_nowhere"] == 2, "the counts of the ports")
        self.assertEqual(self.port(None)["out_refused"], 2)

    def test_a_client_that_nobody_here_wrote_sends_and_sees_packets(self):
        here, there, _ = self.sockets()
        packet = frame(ipv4(udp(53)))
        monitor = self.spawn("ovs-ofctl", "-O", "OpenFlow13", "monitor", f"tcp:127.0.0.1:{self.switch.port}", "128",
                             env={**os.environ, "OVS_RUNDIR": str(self.switch.run_dir)}, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        os.set_blocking(monitor.stderr.fileno(), False)
        self.add("cookie=0x9,priority=0,actions=controller")
        told = ""

        # While this client waits for answers to requests of its own, it throws packets away.
        def seen():
            nonlocal told
            here.send(packet)
            told += (monitor.stderr.read() or b"").decode()
            return "udp" in told

        self.await_that(seen, "a packet at the monitor")
        self.assertRegex(told, r"OFPT_PACKET_IN.*cookie=0x9 total_len=46 in_port=1 \(via no_match\)")
        self.assertNotIn("bad csum", told)
        sent = e2e.ofctl(self.switch.port, "packet-out", f"in_port=controller packet={packet.hex()} actions=output:2")
        self.assertEqual((sent.returncode, sent.stderr), (0, ""))
        self.assertEqual(network.receive(there), packet)

    # A controller that does not read loses packets itself; nobody else loses anything.
    def test_a_flood_of_packets_is_limited_and_a_deaf_controller_is_not_in_the_way(self):
        deaf, client = self.client(self.switch), self.client(self.switch)
        self.add("priority=0,actions=controller")
        here = self.sockets()[0]
        begun, sent, packet = time.monotonic(), 0, frame(ipv4(udp(1, bytes(1400))))
        while (deaf_now := self.of(deaf)["in_dropped"]) == 0 or sent < 20_000:
            for _ in range(1000):
                here.send(packet)
            sent += 1000
            client.barrier()
        spent = time.monotonic() - begun
        self.await_that(lambda: sum(self.port(1).get(name, 0) for name in ("in", "in_limited", "in_full")) == sent, "every packet's fate")
        port = self.port(1)
        self.assertLessEqual(port["in"] + port["in_full"], 101 + 1000 * (spent + 1))
        self.assertGreater(port["in"], 100)
        self.assertLess(self.of(deaf)["unsent_bytes"], 256 << 10)
        self.assertEqual(self.of(client)["in_dropped"], 0)
        self.assertGreater(deaf_now, 0)

    def of(self, client):
        peer = "tcp:%s:%d" % client.socket.getsockname()
        return next(one for one in self.packets()["controllers"] if one["peer"] == peer)

    def test_a_flood_of_packet_outs_is_bounded_and_accounted_for(self):
        client = self.client(self.switch)
        request = openflow.packet_out(frame(ipv4(udp(1, bytes(1400)))), openflow.output(openflow.ALL))
        for _ in range(20):
            client.socket.sendall(b"".join(client.frame(openflow.PACKET_OUT, request) for _ in range(500)))
            client.barrier()
        told = self.packets()
        self.assertEqual(told["out"] + told["out_full"], 10_000)
        self.assertGreater(told["out"], 0)
        fates = lambda: [sum(self.port(n).get(name, 0) for name in ("out", "out_full")) for n in (1, 2, 3)]
        self.await_that(lambda: fates() == [told["out"]] * 3, f"{told['out']} packets out of each port, {fates()}")

    def test_packets_stop_where_nobody_wants_them_and_flow_again(self):
        here = self.sockets()[0]
        client = self.client(self.switch)
        self.add("priority=0,actions=controller")
        packet = frame(ipv4(udp(1)))
        here.send(packet)
        self.assertEqual(self.next_packet(client).frame, packet)
        self.switch.command("pkt_end", module="of_ss")
        self.await_that(lambda: here.send(packet) and self.port(1).get("in_unwanted", 0) > 0, "packets that nobody wants")
        self.switch.command("pkt_by_role", module="of_ss")
        client.socket.settimeout(0.05)
        self.await_that(lambda: here.send(packet) and self.comes(client), "packets again")

    def comes(self, client):
        try:
            return client.receive().type == openflow.PACKET_IN
        except TimeoutError:
            return False


class ServiceOfItsOwn(Packets):
    """The same with the programming service as a separate process, and packets while it is away."""

    start = OnInterfaces.system

    def test_packets_go_on_when_the_service_has_come_back(self):
        client = self.client(self.switch)
        packet = frame(ipv4(udp(53)))
        here, there, _ = self.sockets()
        self.add("priority=0,actions=controller")
        self.switch.process.send_signal(signal.SIGSTOP)  # the supervisor, which would restart the service at once
        self.switch.signal("kelim-programmer", signal.SIGKILL)
        request = openflow.packet_out(packet, openflow.output(2))
        self.await_that(lambda: not self.packets()["data_plane"], "the end of the service")
        client.send(openflow.PACKET_OUT, request)
        self.assertEqual(openflow.error_of(client.receive())[0], "OFPBRC_EPERM")
        self.switch.process.send_signal(signal.SIGCONT)
        self.await_that(lambda: self.packets()["data_plane"], "another service")
        client.send(openflow.PACKET_OUT, request)
        self.assertEqual(network.receive(there), packet)
        client.socket.settimeout(0.05)
        self.await_that(lambda: here.send(packet) and self.comes(client), "a packet from the new service")


if __name__ == "__main__":
    unittest.main(verbosity=2)
