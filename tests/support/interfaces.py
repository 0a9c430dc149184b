"""Common ground of tests on real interfaces: a switch and three hosts in network namespaces."""

import itertools
import struct
import subprocess
import threading
import unittest

import e2e
import network
from frames import UDP, checksum, frame, ipv4, ipv6, udp  # noqa: F401
from traffic import ECHO_SERVER


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
        server = subprocess.Popen([str(w) for w in host.words("python3", "-c", ECHO_SERVER, kind)], stdout=subprocess.PIPE)
        self.addCleanup(server.stdout.close)
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        server.stdout.readline()

    def expect_every_packet(self, here, there, packet_of, change):
        """Sends numbered packets without a pause during 20 calls of change(n); each of them arrives once, and in order."""
        done, got = threading.Event(), []

        def send():
            for number in itertools.count():
                last = done.is_set()
                here.send(packet_of(struct.pack("!I?", number, last)))
                if last:
                    return

        def read():
            while not got or not got[-1][1]:
                got.append(struct.unpack("!I?", network.receive(there)[42:]))

        threads = [threading.Thread(target=each) for each in (read, send)]
        for thread in threads:
            thread.start()
        for n in range(20):
            change(n)
        done.set()
        for thread in threads:
            thread.join()
        self.assertEqual([number for number, _ in got], list(range(len(got))))
        self.assertGreater(len(got), 1000)
