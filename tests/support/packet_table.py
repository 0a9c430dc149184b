"""What each match field and each action does to packets, as one table: a test runs it, and docs/dataplane.md shows it.

usage: packet_table.py     prints the table for the document
"""

import socket
import struct

import network
from frames import UDP, checksum, frame, ipv4, ipv6, udp

ICMP, TCP, ICMPV6, NO_NEXT, HOP, FRAGMENT = 1, 6, 58, 59, 0, 44
IPV6 = 0x86DD
WHOLE, FIRST, LATER = 0, 0x2000, 8  # fragments


def tcp(to, source=1000):
    """A segment from 10.0.0.1 to 10.0.0.2, to which its checksum belongs."""
    head = struct.pack("!HHIIHH", source, to, 1, 0, 0x5002, 1024)
    pseudo = socket.inet_aton("10.0.0.1") + socket.inet_aton("10.0.0.2") + struct.pack("!HH", TCP, 20)
    return head + struct.pack("!HH", checksum(pseudo + head), 0)


def icmp(kind, code=0):
    return struct.pack("!BBHI", kind, code, 0, 1)


def other_source(packet, address):
    """The same IPv4 packet, with a checksum that is right again, because the addresses' sum is the same."""
    swap = socket.inet_aton(address)
    return packet[:12] + packet[16:20] + swap + packet[20:]


def fragment6(offset, payload):
    return ipv6(struct.pack("!BBHI", UDP, 0, offset << 3 | (offset == 0), 7) + payload, proto=FRAGMENT)


LONG = ipv4(udp(53))
PACKETS = {
    "UDP 1000 > 53": frame(LONG),
    "UDP 1000 > 54": frame(ipv4(udp(54))),
    "UDP 1001 > 53": frame(ipv4(struct.pack("!HHHH", 1001, 53, 12, 0) + b"data")),
    "TCP 1000 > 80": frame(ipv4(tcp(80), proto=TCP)),
    "TCP 1000 > 81": frame(ipv4(tcp(81), proto=TCP)),
    "TCP 1001 > 80": frame(ipv4(tcp(80, 1001), proto=TCP)),
    "echo request": frame(ipv4(icmp(8), proto=ICMP)),
    "echo reply": frame(ipv4(icmp(0), proto=ICMP)),
    "port unreachable": frame(ipv4(icmp(3, 3), proto=ICMP)),
    "host unreachable": frame(ipv4(icmp(3, 1), proto=ICMP)),
    "to 10.0.0.5": frame(ipv4(udp(53), destination="10.0.0.5")),
    "from 10.0.0.2": frame(other_source(LONG, "10.0.0.1")),
    "DSCP 10": frame(ipv4(udp(53), dscp=10)),
    "DSCP 46": frame(ipv4(udp(53), dscp=46)),
    "TTL 63": frame(ipv4(udp(53), ttl=63)),
    "TTL 9": frame(ipv4(udp(53), ttl=9)),
    "first fragment": frame(ipv4(udp(53), fragment=FIRST)),
    "later fragment": frame(ipv4(udp(53), fragment=LATER)),
    "UDP cut before its ports": frame(LONG[:20]),
    "UDP cut within its ports": frame(LONG[:22]),
    "IPv4 cut": frame(LONG[:19]),
    "ports beyond the IP length": frame(LONG[:2] + struct.pack("!H", 20) + LONG[4:]),
    "IPv6 UDP > 53": frame(ipv6(udp(53)), IPV6),
    "IPv6 UDP > 54": frame(ipv6(udp(54)), IPV6),
    "IPv6 TCP > 80": frame(ipv6(tcp(80), proto=TCP), IPV6),
    "IPv6 DSCP 46": frame(ipv6(udp(53), dscp=46), IPV6),
    "IPv6 hop limit 63": frame(ipv6(udp(53), hops=63), IPV6),
    "IPv6 from fd00::9 to fd00::8": frame(ipv6(udp(53), addresses=("fd00::9", "fd00::8")), IPV6),
    "IPv6 echo request": frame(ipv6(icmp(128), proto=ICMPV6), IPV6),
    "IPv6 port unreachable": frame(ipv6(icmp(1, 4), proto=ICMPV6), IPV6),
    "hop-by-hop, UDP > 53": frame(ipv6(struct.pack("!BB6x", UDP, 0) + udp(53), proto=HOP), IPV6),
    "IPv6 first fragment": frame(fragment6(0, udp(53)), IPV6),
    "IPv6 later fragment": frame(fragment6(1, udp(53)), IPV6),
    "no next header": frame(ipv6(proto=NO_NEXT), IPV6),
    "IPv6 cut": frame(ipv6(udp(53))[:39], IPV6),
    "ARP": frame(struct.pack("!HHBBH", 1, 0x0800, 6, 4, 1) + bytes(20), 0x0806),
    "802.3": frame(b"\x42\x42\x03" + bytes(43), 46),
    "from another MAC": frame(LONG, source=network.mac(9)),
    "to another MAC": frame(LONG, destination=network.mac(9)),
    "to ...:77 from ...:66": frame(LONG, destination=network.mac(0x77), source=network.mac(0x66)),
    "VLAN 7, priority 0": frame(LONG, tag=7),
    "VLAN 7, priority 3": frame(LONG, tag=0x6007),
    "VLAN 7, priority 5": frame(LONG, tag=0xA007),
    "VLAN 8, priority 3": frame(LONG, tag=0x6008),
    "VLAN 7 around VLAN 8": frame(struct.pack("!HH", 8, 0x0800) + LONG, 0x8100, tag=0x6007),
    "priority tag 3": frame(LONG, tag=0x6000),
}

A_MAC = "02:00:00:00:00"
MATCHES = (  # field, flow, packets that match, packets that do not
    ("in_port", "in_port=1", ["UDP 1000 > 53", "ARP"], []),
    ("in_port", "in_port=2", [], ["UDP 1000 > 53"]),
    ("eth_dst", f"dl_dst={A_MAC}:02", ["UDP 1000 > 53", "ARP"], ["to another MAC"]),
    ("eth_dst, masked", f"dl_dst={A_MAC}:00/ff:ff:ff:ff:ff:f8", ["UDP 1000 > 53"], ["to another MAC"]),
    ("eth_src", f"dl_src={A_MAC}:01", ["UDP 1000 > 53", "to another MAC"], ["from another MAC"]),
    ("eth_src, masked", f"dl_src={A_MAC}:08/ff:ff:ff:ff:ff:08", ["from another MAC"], ["UDP 1000 > 53"]),
    ("eth_type", "dl_type=0x0806", ["ARP"], ["UDP 1000 > 53", "802.3"]),
    ("eth_type", "dl_type=0x05ff", ["802.3"], ["ARP"]),
    ("eth_type", "ip", ["UDP 1000 > 53", "VLAN 7, priority 3", "VLAN 7 around VLAN 8", "IPv4 cut"], ["IPv6 UDP > 53", "ARP"]),
    ("vlan_vid, none", "vlan_tci=0", ["UDP 1000 > 53", "ARP"], ["VLAN 7, priority 3", "priority tag 3"]),
    ("vlan_vid, any", "vlan_vid=0x1000/0x1000", ["VLAN 7, priority 3", "priority tag 3"], ["UDP 1000 > 53", "ARP"]),
    ("vlan_vid, masked", "vlan_vid=0x1006/0x1006", ["VLAN 7, priority 3"], ["VLAN 8, priority 3", "priority tag 3", "UDP 1000 > 53"]),
    ("vlan_vid", "dl_vlan=7", ["VLAN 7, priority 3", "VLAN 7 around VLAN 8"], ["VLAN 8, priority 3", "priority tag 3", "UDP 1000 > 53"]),
    ("vlan_pcp", "dl_vlan=7,dl_vlan_pcp=3", ["VLAN 7, priority 3"], ["VLAN 7, priority 5", "VLAN 8, priority 3"]),
    ("ip_dscp", "ip,ip_dscp=46", ["DSCP 46"], ["DSCP 10", "IPv6 DSCP 46"]),
    ("ip_dscp", "ipv6,ip_dscp=46", ["IPv6 DSCP 46"], ["IPv6 UDP > 53", "DSCP 46"]),
    ("ip_proto", "ip,nw_proto=6", ["TCP 1000 > 80"], ["UDP 1000 > 53", "IPv6 TCP > 80", "IPv4 cut"]),
    ("ip_proto", "ipv6,nw_proto=17", ["IPv6 UDP > 53", "hop-by-hop, UDP > 53", "IPv6 later fragment"], ["IPv6 TCP > 80", "IPv6 cut"]),
    ("ipv4_src", "ip,nw_src=10.0.0.1", ["UDP 1000 > 53", "later fragment"], ["from 10.0.0.2", "IPv4 cut"]),
    ("ipv4_src, masked", "ip,nw_src=10.0.0.2/255.0.0.3", ["from 10.0.0.2"], ["UDP 1000 > 53"]),
    ("ipv4_dst", "ip,nw_dst=10.0.0.2", ["UDP 1000 > 53", "later fragment"], ["to 10.0.0.5"]),
    ("ipv4_dst, masked", "ip,nw_dst=10.0.0.0/30", ["UDP 1000 > 53"], ["to 10.0.0.5"]),
    ("tcp_src", "tcp,tp_src=1000", ["TCP 1000 > 80", "TCP 1000 > 81"], ["TCP 1001 > 80", "UDP 1000 > 53"]),
    ("tcp_dst", "tcp,tp_dst=80", ["TCP 1000 > 80", "TCP 1001 > 80"], ["TCP 1000 > 81"]),
    ("udp_src", "udp,tp_src=1000", ["UDP 1000 > 53", "UDP 1000 > 54"], ["UDP 1001 > 53", "TCP 1000 > 80"]),
    ("udp_dst", "udp,tp_dst=53", ["UDP 1000 > 53", "first fragment"],
     ["UDP 1000 > 54", "later fragment", "UDP cut before its ports", "UDP cut within its ports", "ports beyond the IP length"]),
    ("udp_dst", "udp6,tp_dst=53", ["IPv6 UDP > 53", "hop-by-hop, UDP > 53", "IPv6 first fragment"],
     ["IPv6 UDP > 54", "IPv6 later fragment"]),
    ("icmpv4_type", "icmp,icmp_type=8", ["echo request"], ["echo reply", "port unreachable"]),
    ("icmpv4_code", "icmp,icmp_type=3,icmp_code=3", ["port unreachable"], ["host unreachable"]),
    ("ipv6_src", "ipv6,ipv6_src=fd00::1", ["IPv6 UDP > 53"], ["UDP 1000 > 53", "IPv6 cut"]),
    ("ipv6_src, masked", "ipv6,ipv6_src=fd00::2/127", [], ["IPv6 UDP > 53"]),
    ("ipv6_dst", "ipv6,ipv6_dst=fd00::2", ["IPv6 UDP > 53", "IPv6 later fragment"], []),
    ("ipv6_dst, masked", "ipv6,ipv6_dst=fd00::/64", ["IPv6 UDP > 53"], ["IPv6 cut"]),
    ("icmpv6_type", "icmp6,icmp_type=128", ["IPv6 echo request"], ["IPv6 port unreachable", "echo request"]),
    ("icmpv6_code", "icmp6,icmp_type=1,icmp_code=4", ["IPv6 port unreachable"], ["IPv6 echo request"]),
)
# The table of the document calls this field by its own name; ovs-ofctl has none for it.
EXT_HEADERS = 39
EXT_MATCHES = (  # flow: bits, mask; packets that match, packets that do not
    (64, 64, ["hop-by-hop, UDP > 53"], ["IPv6 UDP > 53", "UDP 1000 > 53"]),
    (16, 0x1FF, ["IPv6 first fragment", "IPv6 later fragment"], ["hop-by-hop, UDP > 53"]),
    (1, 1, ["no next header"], ["IPv6 UDP > 53"]),
    (0, 0x1FF, ["IPv6 UDP > 53"], ["hop-by-hop, UDP > 53", "no next header"]),
)
P2, P3, BACK, CONTROLLER = "port 2", "port 3", "port 1", "controller"
A_GROUP = "group_id=1,type=all,bucket=output:2,bucket=set_field:54->udp_dst,output:3"
ACTIONS = (  # action, actions, sent, received where, whether a packet-out with these actions does the same
    ("output", "output:2", "UDP 1000 > 53", {P2: "UDP 1000 > 53"}, True),
    ("output IN_PORT", "in_port", "UDP 1000 > 53", {BACK: "UDP 1000 > 53"}, True),
    ("output ALL", "all", "UDP 1000 > 53", {P2: "UDP 1000 > 53", P3: "UDP 1000 > 53"}, True),
    ("output NORMAL", "normal", "UDP 1000 > 53", {P2: "UDP 1000 > 53", P3: "UDP 1000 > 53"}, False),
    ("output CONTROLLER", "controller", "UDP 1000 > 53", {CONTROLLER: "UDP 1000 > 53"}, True),
    ("output to the port it came from", "output:1", "UDP 1000 > 53", {}, True),
    ("several outputs", "output:2,set_field:54->udp_dst,output:3", "UDP 1000 > 53", {P2: "UDP 1000 > 53", P3: "UDP 1000 > 54"}, True),
    ("group", "group:1", "UDP 1000 > 53", {P2: "UDP 1000 > 53", P3: "UDP 1000 > 54"}, True),
    ("none", "drop", "UDP 1000 > 53", {}, True),
    ("set_queue", "set_queue:3,output:2", "UDP 1000 > 53", {P2: "UDP 1000 > 53"}, True),
    ("push_vlan", "push_vlan:0x8100,set_field:4103->vlan_vid,output:2", "UDP 1000 > 53", {P2: "VLAN 7, priority 0"}, True),
    ("pop_vlan", "pop_vlan,output:2", "VLAN 7, priority 3", {P2: "UDP 1000 > 53"}, True),
    ("set_nw_ttl", "mod_nw_ttl:9,output:2", "UDP 1000 > 53", {P2: "TTL 9"}, True),
    ("dec_nw_ttl", "dec_ttl,output:2", "UDP 1000 > 53", {P2: "TTL 63"}, True),
    ("dec_nw_ttl", "dec_ttl,output:2", "IPv6 UDP > 53", {P2: "IPv6 hop limit 63"}, True),
    ("set_field eth_dst, eth_src", f"set_field:{A_MAC}:77->eth_dst,set_field:{A_MAC}:66->eth_src,output:2", "UDP 1000 > 53",
     {P2: "to ...:77 from ...:66"}, True),
    ("set_field vlan_vid", "set_field:4104->vlan_vid,output:2", "VLAN 7, priority 3", {P2: "VLAN 8, priority 3"}, True),
    ("set_field vlan_pcp", "set_field:5->vlan_pcp,output:2", "VLAN 7, priority 3", {P2: "VLAN 7, priority 5"}, True),
    ("set_field ip_dscp", "set_field:46->ip_dscp,output:2", "DSCP 10", {P2: "DSCP 46"}, True),
    ("set_field ip_dscp", "set_field:46->ip_dscp,output:2", "IPv6 UDP > 53", {P2: "IPv6 DSCP 46"}, True),
    ("set_field ipv4_src, ipv4_dst", "set_field:10.0.0.2->ip_src,set_field:10.0.0.1->ip_dst,output:2", "UDP 1000 > 53",
     {P2: "from 10.0.0.2"}, True),
    ("set_field ipv6_src, ipv6_dst", "set_field:fd00::9->ipv6_src,set_field:fd00::8->ipv6_dst,output:2", "IPv6 UDP > 53",
     {P2: "IPv6 from fd00::9 to fd00::8"}, True),
    ("set_field tcp_src", "set_field:1001->tcp_src,output:2", "TCP 1000 > 80", {P2: "TCP 1001 > 80"}, True),
    ("set_field tcp_dst", "set_field:81->tcp_dst,output:2", "TCP 1000 > 80", {P2: "TCP 1000 > 81"}, True),
    ("set_field udp_src", "set_field:1001->udp_src,output:2", "UDP 1000 > 53", {P2: "UDP 1001 > 53"}, True),
    ("set_field udp_dst", "set_field:54->udp_dst,output:2", "UDP 1000 > 53", {P2: "UDP 1000 > 54"}, True),
)


def needed(sent):
    """What a flow matches on, so that it gets the packet and may have the actions of its row."""
    return next((match for kind, match in (("VLAN", "dl_vlan=7"), ("IPv6", "udp6"), ("TCP", "tcp")) if sent.startswith(kind)), "udp")


def row(*cells):
    return "| " + " | ".join(cells) + " |"


def markdown():
    """The document's lines; a case that does not hold would have failed the test."""
    names = lambda packets: "; ".join(packets) or "-"
    lines = [row("MATCH", "FLOW", "MATCHING", "NOT MATCHING", "RESULT"), "|---|---|---|---|---|"]
    lines += [row(field, f"`{flow}`", names(yes), names(no), "as stated") for field, flow, yes, no in MATCHES]
    lines += [row("ipv6_exthdr", f"`{bits:#x}/{mask:#x}`", names(yes), names(no), "as stated") for bits, mask, yes, no in EXT_MATCHES]
    lines += ["", row("ACTION", "ACTIONS", "SENT", "RECEIVED", "PACKET-OUT", "RESULT"), "|---|---|---|---|---|---|"]
    for action, actions, sent, received, also in ACTIONS:
        shown = names(f"{where}: {what}" for where, what in received.items())
        lines.append(row(action, f"`{actions}`", sent, shown, "the same" if also else "not possible", "as stated"))
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    print(markdown(), end="")
