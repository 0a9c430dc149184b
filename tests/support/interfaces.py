"""Common ground of tests on real interfaces: a switch and three hosts in network namespaces."""

import unittest

import e2e
import network
from frames import UDP, checksum, frame, ipv4, ipv6, udp  # noqa: F401


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
