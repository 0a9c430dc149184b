"""Statistics and timeouts on real packets: what the controller reads equals what was sent."""

import struct
import time
import unittest

import e2e
import openflow
from interfaces import OnInterfaces, frame, ipv4, udp

IDLE_TIMEOUT, SEND_FLOW_REMOVED = 0, 1


class Statistics(OnInterfaces):
    def setUp(self):
        self.switch = self.daemon(**self.network.settings)
        self.here, self.there, _ = [self.socket(host) for host in self.network.hosts]

    def socket(self, host):
        frames = host.socket()
        self.addCleanup(frames.close)
        return frames

    def test_an_idle_flow_goes_within_a_second_of_its_timeout_with_its_final_counters(self):
        client = self.client(self.switch)
        wanted = openflow.match(openflow.oxm(0, struct.pack("!I", 1)))
        actions = openflow.apply_actions(openflow.output(2))
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, wanted, actions, idle=3, flags=SEND_FLOW_REMOVED))
        client.barrier()
        packet = frame(ipv4(udp(1)))
        for _ in range(33):  # more than the timeout, so that the last one counts
            self.here.send(packet)
            last = time.monotonic()
            self.assertEqual(client.quiet(0.1), [])
        removed = client.receive()
        spent = time.monotonic() - last
        reason, packets, octets = struct.unpack_from("!10xB13xQQ", removed.raw, openflow.HEADER.size)
        self.assertEqual((removed.type, reason, packets, octets), (openflow.FLOW_REMOVED, IDLE_TIMEOUT, 33, 33 * len(packet)))
        self.assertGreaterEqual(spent, 3)
        self.assertLess(spent, 4)


if __name__ == "__main__":
    unittest.main()
