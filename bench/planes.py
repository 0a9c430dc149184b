#!/usr/bin/env python3
"""Sends the same packets through this system's Linux data plane, Open vSwitch's user-space (netdev) data path and a Linux bridge, each
between veth pairs of its own in one private network namespace, in turn. The measure is packets that arrived a second of processor time,
spent by the generator, the switch and the kernel's ksoftirqd together. A ratio is the median of the ratios of neighbouring runs; the
target stands beside it. A packet lost by the plane or the bridge, an error or a table with the wrong flows ends it with status 1.

usage: planes.py BIN_DIR [--only forward,latency,road,barrier,memory] [--quick]     as root; BIN_DIR is build/release/bin
       planes.py BIN_DIR --only forward --flows 1000 --masks 10,100 --microflows 50000     only these cases of the section
--distinct adds a flow that matches on what tells the microflows of a flow apart, so that no result counts for several of them.
"""
import argparse
import itertools
import json
import re
import resource
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from switches import OFCTL, OVS, Switch, check_alike, daemon, start_ours, start_ovs

import network
import openflow

PLANE, BRIDGE = "data plane", "Linux bridge"
TABLES = ((1, 1), (1000, 1), (1000, 10), (1000, 100), (100_000, 1), (100_000, 10), (100_000, 100))  # flows, masks
MICROFLOWS = (1, 1000, 50_000)
AIMS = {BRIDGE: {1000: 1.0}, OVS: {1000: 3.0, 50_000: 2.0}}  # by the other side and the number of microflows
ROOM = 200_000
MEMORY_AIM = 250e6
ROAD, ROAD_AIM = 100_000, 0.8
PORT_FLOW = "priority=100,in_port=1,udp,tp_src=65535,actions=drop\n"


def flow(number, masks):
    """Flow `number` with the one of `masks` masks that is its turn; its packets match no other flow."""
    at = number % masks
    eth = 0xFFFFFFFFFFFF & ~((1 << at // 20) - 1)
    eth_mask = ":".join(f"{eth >> shift & 255:02x}" for shift in range(40, -1, -8))
    source = f"10.0.0.0/{8 + at % 20}"
    address = f"20.{number >> 16}.{number >> 8 & 255}.{number & 255}"
    sender = 0x020000000101 & eth
    eth_src = ":".join(f"{sender >> shift & 255:02x}" for shift in range(40, -1, -8))
    return f"priority=100,in_port=1,dl_src={eth_src}/{eth_mask},ip,nw_src={source},nw_dst={address},actions=output:2\n"


def received(interface):
    """Packets, from the counters of the calling process's namespace."""
    return int(re.search(rf"^\s*{interface}:\s*\d+\s+(\d+)", Path("/proc/net/dev").read_text(), re.M)[1])


def ksoftirqd():
    names = {path: path.joinpath("comm") for path in Path("/proc").iterdir() if path.name.isdigit()}
    return [path for path, comm in names.items() if comm.exists() and comm.read_text().startswith("ksoftirqd/")]


def nanoseconds(threads):
    return sum(int((thread / "schedstat").read_text().split()[0]) for thread in threads)


class Side:
    """A switch between two veth pairs: packets go into `here` and come out of `there`."""

    def __init__(self, name, letter):
        self.name, self.here, self.there, self.switch = name, f"{letter}in", f"{letter}out", None
        self.ports = [f"{letter}1", f"{letter}2"]
        for port, end in zip(self.ports, (self.here, self.there)):
            network.run("ip", "link", "add", port, "type", "veth", "peer", "name", end)
            for interface in (port, end):
                network.run("ip", "link", "set", interface, "up")

    def threads(self):
        return self.switch.threads() if self.switch else []

    def add_flows(self, flows):
        with tempfile.NamedTemporaryFile("w") as file:
            file.writelines(flows)
            file.flush()
            subprocess.run([*OFCTL, "add-flows", self.switch.address, file.name], check=True, timeout=600)
        self.switch.expect(len(flows))


class Planes:
    def __init__(self, bin_dir, quick, tables, microflows, distinct):
        self.bin, self.quick, self.missed, self.sides, self.begun = bin_dir, quick, [], [], time.monotonic()
        self.tables, self.microflows, self.distinct = tables, microflows, distinct
        self.pins = None

    def progress(self, text):
        print(f"  {time.monotonic() - self.begun:4.0f} s  {text} ...", file=sys.stderr, flush=True)

    def say(self, what, value, aim=None, unit="", least=True):
        met = "" if aim is None else "met" if (value >= aim if least else value <= aim) else "NOT MET"
        print(f"{what:58} {value:10.2f} {unit:8} {'' if aim is None else ('>= ' if least else '<= ') + f'{aim:g}':8} {met}", flush=True)
        if met == "NOT MET":
            self.missed.append(what)

    def tool(self, *words):
        done = subprocess.run([str(self.bin / "packet_load"), *map(str, words)], capture_output=True, text=True, timeout=120)
        if done.returncode != 0:
            raise daemon.Failed(f"packet_load {words}: {done.stderr.strip()}")
        return json.loads(done.stdout)

    # ---- the switches

    def start_plane(self, ports, **settings):
        return start_ours(self.bin, **{"ports": ",".join(f"{n}:{name}" for n, name in enumerate(ports, 1)), "programmer_target": "linux",
                                       "programmer_size": ROOM, "programmer_pin_dir": "none", **settings})

    def start(self):
        plane, ovs, bridge = (Side(name, letter) for name, letter in ((PLANE, "k"), (OVS, "o"), (BRIDGE, "b")))
        self.sides = [plane, ovs, bridge]
        plane.switch = self.start_plane(plane.ports)
        ovs.switch = start_ovs(None, "netdev", ovs.ports)
        network.run("ip", "link", "add", "bridge", "type", "bridge", "mcast_snooping", 0)
        for port in bridge.ports:
            network.run("ip", "link", "set", port, "master", "bridge")
        network.run("ip", "link", "set", "bridge", "up")
        network.run("bridge", "fdb", "replace", "02:00:00:00:01:02", "dev", bridge.ports[1], "master", "static")
        check_alike([plane.switch, ovs.switch])

    def stop(self):
        for side in self.sides:
            if side.switch:
                side.switch.stop()

    # ---- sections

    def rate(self, side, flows, microflows):
        """Arrived packets a second of processor time."""
        threads = side.threads() + ksoftirqd()
        before, spent = received(side.there), nanoseconds(threads)
        children = resource.getrusage(resource.RUSAGE_CHILDREN)
        sent = self.tool("send", side.here, 0.5 if self.quick else 1, microflows, flows)["sent"]
        arrived = received(side.there) - before
        while arrived < sent and (now := daemon_settled(side.there, before)) != arrived:
            arrived = now
        used = resource.getrusage(resource.RUSAGE_CHILDREN)
        spent = (nanoseconds(threads) - spent) / 1e9 + used.ru_utime + used.ru_stime - children.ru_utime - children.ru_stime
        if side.name != OVS and arrived != sent:
            raise daemon.Failed(f"{side.name}: {arrived} of {sent} packets arrived")
        if arrived == 0:
            raise daemon.Failed(f"{side.name} forwards nothing")
        return arrived / spent

    def forward(self):
        for flows, masks in self.tables:
            self.progress(f"{flows:,} flows under {masks} masks")
            table = [flow(number, masks) for number in range(flows)] + [PORT_FLOW] * self.distinct
            for side in self.sides[:2]:
                side.switch.empty()
                side.add_flows(table)
            for microflows in self.microflows:
                found = {side.name: [] for side in self.sides}
                for _ in range(3 if self.quick else 5):
                    for side in self.sides:
                        found[side.name].append(self.rate(side, flows, microflows))
                what = f"{flows:,} flows, {masks} masks, {microflows:,} microflows"
                for side in self.sides:
                    self.say(f"{what}: {side.name}", statistics.median(found[side.name]) / 1000, unit="kpkt/s")
                for other in (BRIDGE, OVS):
                    ratio = statistics.median(a / b for a, b in zip(found[PLANE], found[other]))
                    self.say(f"  to {other}", ratio, AIMS[other].get(microflows), "x")

    def latency(self):
        for side in self.sides[:2]:
            side.switch.empty()
            side.add_flows([flow(number, 10) for number in range(1000)] + ["priority=99,in_port=2,actions=output:1\n"])
        network.run("bridge", "fdb", "delete", "02:00:00:00:01:02", "dev", self.sides[2].ports[1], "master")  # now it floods
        network.run("bridge", "link", "set", "dev", self.sides[2].ports[0], "learning", "off")
        network.run("bridge", "link", "set", "dev", self.sides[2].ports[1], "learning", "off")
        found = {side.name: [] for side in self.sides}
        for _ in range(3 if self.quick else 9):
            for side in self.sides:
                found[side.name].append(self.tool("rtt", side.here, side.there, 2000))
        for quantile in ("p50_us", "p99_us"):
            for name, runs in found.items():
                self.say(f"round trip, {quantile[:3]}: {name}", statistics.median(run[quantile] for run in runs), unit="us")

    def road(self):
        """Flow-mods to the barrier reply, with this target and with the simulated one."""
        side = Side("road", "r")
        switches = (self.start_plane(side.ports), start_ours(self.bin, programmer_size=ROOM))
        try:
            rates = ([], [])
            for _ in range(5 if self.quick else 11):
                for switch, found in zip(switches, rates):
                    told = subprocess.run([str(self.bin / "of_load"), str(switch.port), "burst", str(ROAD)], capture_output=True, text=True)
                    if told.returncode != 0:
                        raise daemon.Failed(f"of_load: {told.stderr.strip()}")
                    found.append(ROAD / json.loads(told.stdout)["seconds"])
                    switch.empty()
        finally:
            for switch in switches:
                switch.stop()
        for name, found in zip(("linux", "sim"), rates):
            self.say(f"{ROAD:,} flow-mods to the barrier, target {name}", statistics.median(found) / 1000, unit="k/s")
        self.say("  linux to sim", statistics.median(a / b for a, b in zip(*rates)), ROAD_AIM, "x")

    def barrier(self):
        """A packet that is sent as soon as the barrier reply is there must meet the flow."""
        side, rounds = self.sides[0], 200 if self.quick else 2000
        side.switch.empty()
        side.add_flows([flow(number, 10) for number in range(10_000)])
        here, there = (socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3)) for _ in range(2))
        for frames, interface in ((here, side.here), (there, side.there)):
            frames.bind((interface, 0))
            frames.settimeout(1)
        missed = 0
        with openflow.Client(side.switch.port) as client:
            client.handshake()
            for number in range(rounds):
                kind = struct.pack("!H", 0x9000 + number)
                fields = openflow.match(openflow.oxm(0, struct.pack("!I", 1)), openflow.oxm(5, kind))
                client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, fields, openflow.apply_actions(openflow.output(2))))
                client.barrier()
                packet = bytes.fromhex("020000000102020000000101") + kind + bytes(50)
                here.send(packet)
                try:
                    missed += there.recv(100) != packet
                except TimeoutError:
                    missed += 1
        here.close(), there.close()
        self.say(f"first packets after {rounds:,} barrier replies that were lost", missed, 0, least=False)

    def memory(self):
        side = Side("memory", "m")
        switch = self.start_plane(side.ports, programmer_size=1_000_000)
        try:
            self.progress("a million flows")
            subprocess.run([str(self.bin / "of_load"), str(switch.port), "fill", "1000000", "20000"], check=True, capture_output=True)
            switch.expect(1_000_000)
            maps = {}
            for info in Path(f"/proc/{switch.pids()[0]}/fdinfo").iterdir():
                text = info.read_text()
                if found := re.search(r"^map_id:\s*(\d+)", text, re.M):
                    maps[found[1]] = int(re.search(r"^memlock:\s*(\d+)", text, re.M)[1])
            self.say("the plane with a million flows", sum(maps.values()) / 1e6, MEMORY_AIM / 1e6, "MB", least=False)
        finally:
            switch.stop()


def daemon_settled(interface, before):
    """The packets received by now, at the end of a while in which a switch that is behind would have gone on."""
    time.sleep(0.05)
    return received(interface) - before


def numbers(text):
    return [int(number) for number in text.split(",")]


def main():
    sections = ("forward", "latency", "road", "barrier", "memory")
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("bin_dir", type=lambda text: Path(text).resolve())
    parser.add_argument("--only", type=lambda text: text.split(","), default=sections)
    parser.add_argument("--quick", action="store_true")
    for limit, place in (("flows", 0), ("masks", 1)):
        parser.add_argument(f"--{limit}", type=numbers, default={table[place] for table in TABLES})
    parser.add_argument("--microflows", type=numbers, default=MICROFLOWS)
    parser.add_argument("--distinct", action="store_true")
    given = parser.parse_args()
    tables = [table for table in TABLES if table[0] in given.flows and table[1] in given.masks]
    if not tables:
        parser.error(f"no table with these flows and masks, there are (flows, masks): {', '.join(map(str, TABLES))}")
    if lacking := network.missing():
        print(f"This puts programs on network interfaces, for which it lacks {lacking}: run it as root.", file=sys.stderr)
        return 1
    network.private()
    planes = Planes(given.bin_dir, given.quick, tables, given.microflows, given.distinct)
    try:
        planes.start()
        for section in sections:
            if section in given.only:
                planes.progress(section)
                getattr(planes, section)()
    except (daemon.Failed, subprocess.SubprocessError, OSError) as problem:
        print(f"planes.py: {problem}", file=sys.stderr)
        return 1
    finally:
        planes.stop()
    if planes.missed:
        print("\nNOT MET: " + "; ".join(planes.missed))
    return 0


if __name__ == "__main__":
    sys.exit(main())
