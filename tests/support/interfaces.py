"""Common ground of tests on real interfaces: a switch and three hosts in network namespaces."""

import itertools
import struct
import subprocess
import threading
import time
import unittest

import e2e
import network
from frames import UDP, checksum, frame, ipv4, ipv6, udp  # noqa: F401
from traffic import ECHO_SERVER


class Traffic:
    """Sends numbered packets in bursts from one host to the other until the end of the `with` block; `got` are those that arrived."""

    AT_ONCE = 20

    def __init__(self, here, there, packet_of=lambda data: frame(ipv4(udp(1, data))), tick=0):
        """`packet_of` makes a frame of data; `tick` is the time from one burst to the next, in seconds."""
        self.here, self.there, self.packet_of, self.tick, self.got = here, there, packet_of, tick, []
        self.over = threading.Event()
        self.threads = [threading.Thread(target=each) for each in (self.read, self.send)]

    def __enter__(self):
        self.begun = time.monotonic()
        for thread in self.threads:
            thread.start()
        return self

    def send(self):
        for burst in itertools.count():
            last = self.over.is_set()
            for number in range(burst * self.AT_ONCE, (burst + 1) * self.AT_ONCE):
                self.here.send(self.packet_of(struct.pack("!I?", number, last and number % self.AT_ONCE == self.AT_ONCE - 1)))
            if last:
                return
            time.sleep(max(0, self.begun + burst * self.tick - time.monotonic()))

    def read(self):
        last = False
        while not last:
            number, last = struct.unpack("!I?", network.receive(self.there)[42:])
            self.got.append(number)

    def __exit__(self, *_):
        self.over.set()
        for thread in self.threads:
            thread.join()
        self.rate = len(self.got) / (time.monotonic() - self.begun)


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

    def sockets(self):
        """Returns a socket for frames of each host."""
        frames = [host.socket() for host in self.network.hosts]
        for each in frames:
            self.addCleanup(each.close)
        return frames

    def serve(self, host, kind):
        """Starts the host's echo server for "tcp" or "udp"."""
        self.spawn(*host.words("python3", "-c", ECHO_SERVER, kind), stdout=subprocess.PIPE).stdout.readline()

    def expect_every_packet(self, here, there, packet_of, change):
        """Sends numbered packets without a pause during 20 calls of change(n); each of them arrives once, and in order."""
        with Traffic(here, there, packet_of) as traffic:
            for n in range(20):
                change(n)
        self.assert_none_lost_or_doubled(traffic, 1000)

    def assert_none_lost_or_doubled(self, traffic, at_least):
        got = traffic.got
        self.assertEqual((sorted(set(range(got[-1] + 1)) - set(got))[:9], len(got) - len(set(got))), ([], 0), "lost, and doubled")
        self.assertEqual(got, sorted(got))
        self.assertGreater(len(got), at_least)
