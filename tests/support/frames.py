"""Packets built byte by byte."""

import socket
import struct

import network

UDP = 17


def checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def ipv4(payload=b"", dscp=0, proto=UDP, fragment=0, destination="10.0.0.2", ttl=64, source="10.0.0.1"):
    head = struct.pack("!BBHHHBBH", 0x45, dscp << 2 | 1, 20 + len(payload), 7, fragment, ttl, proto, 0)
    head += socket.inet_aton(source) + socket.inet_aton(destination)
    return head[:10] + struct.pack("!H", checksum(head)) + head[12:] + payload


def ipv6(payload=b"", dscp=0, proto=UDP, hops=64, addresses=("fd00::1", "fd00::2")):
    head = struct.pack("!IHBB", 6 << 28 | dscp << 22 | 1 << 20 | 5, len(payload), proto, hops)
    return head + b"".join(socket.inet_pton(socket.AF_INET6, address) for address in addresses) + payload


def udp(to, data=b"data"):
    return struct.pack("!HHHH", 1000, to, 8 + len(data), 0) + data


def frame(payload, eth_type=0x0800, tag=None, source=network.mac(1), destination=network.mac(2)):
    addresses = bytes.fromhex((destination + source).replace(":", ""))
    tagged = b"" if tag is None else struct.pack("!HH", 0x8100, tag)
    return addresses + tagged + struct.pack("!H", eth_type) + payload
