"""Common ground of tests on real interfaces: a switch and three hosts in network namespaces, and packets built byte by byte."""

import socket
import struct
import unittest

import e2e
import network

UDP = 17


def checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def ipv4(payload=b"", dscp=0, proto=UDP, fragment=0, destination="10.0.0.2"):
    head = struct.pack("!BBHHHBBH", 0x45, dscp << 2 | 1, 20 + len(payload), 7, fragment, 64, proto, 0)
    head += socket.inet_aton("10.0.0.1") + socket.inet_aton(destination)
    return head[:10] + struct.pack("!H", checksum(head)) + head[12:] + payload


def ipv6(payload=b"", dscp=0, proto=UDP):
    head = struct.pack("!IHBB", 6 << 28 | dscp << 22 | 1 << 20 | 5, len(payload), proto, 64)
    return head + socket.inet_pton(socket.AF_INET6, "fd00::1") + socket.inet_pton(socket.AF_INET6, "fd00::2") + payload


def udp(to, data=b"data"):
    return struct.pack("!HHHH", 1000, to, 8 + len(data), 0) + data


def frame(payload, eth_type=0x0800, tag=None, source=network.mac(1), destination=network.mac(2)):
    addresses = bytes.fromhex((destination + source).replace(":", ""))
    tagged = b"" if tag is None else struct.pack("!HH", 0x8100, tag)
    return addresses + tagged + struct.pack("!H", eth_type) + payload


class OnInterfaces(e2e.Test):
    @classmethod
    def setUpClass(cls):
        if lacking := network.missing():
            raise unittest.SkipTest(f"programs cannot be put on interfaces: this process lacks {lacking}")
        cls.network = network.Network(3)
        cls.addClassCleanup(cls.network.close)

    def add(self, *flows, command="add-flow"):
        for flow in flows:
            done = e2e.ofctl(self.switch.port, command, flow, options=("--strict",) if command == "del-flows" else ())
            self.assertEqual((done.returncode, done.stderr), (0, ""), flow)
