"""Garbage on the OpenFlow port harms nobody but its sender."""

import random
import socket
import struct
import unittest

import e2e
import openflow


class Garbage(e2e.Test):
    def setUp(self):
        self.running = self.daemon()
        self.good = self.client(self.running)
        self.flows = 0

    def send_and_drop(self, data):
        """What a stranger sends before it goes away; that the daemon closes first is fine."""
        with socket.create_connection(("127.0.0.1", self.running.port), timeout=10) as stranger:
            try:
                stranger.sendall(data)
                stranger.shutdown(socket.SHUT_WR)
                while stranger.recv(65536):
                    pass
            except (BrokenPipeError, ConnectionResetError):
                pass

    def assert_serving(self):
        self.flows += 1
        self.good.add(self.flows)
        self.assertEqual(self.good.barrier(), [])

    def test_random_bytes(self):
        chance = random.Random(1)
        for _ in range(200):
            self.send_and_drop(chance.randbytes(chance.randrange(1, 4000)))
        self.assert_serving()

    def test_random_bodies_under_good_headers(self):
        chance = random.Random(2)
        hello = openflow.HEADER.pack(4, openflow.HELLO, 8, 1)
        for kind in range(31):
            bodies = (chance.randbytes(chance.randrange(0, 300)) for _ in range(20))
            messages = (openflow.HEADER.pack(4, kind, 8 + len(body), 2) + body for body in bodies)
            self.send_and_drop(hello + b"".join(messages))
        self.good.delete_all()
        self.good.barrier()
        self.assert_serving()

    def test_every_truncation_of_a_flow_mod(self):
        hello = openflow.HEADER.pack(4, openflow.HELLO, 8, 1)
        match, instructions = openflow.tcp_flow(9)
        body = openflow.flow_mod(openflow.ADD, match, instructions)
        whole_without_instructions = len(body) - len(instructions)  # a good flow, which drops
        for length in set(range(len(body))) - {whole_without_instructions}:
            cut_off = openflow.HEADER.pack(4, openflow.FLOW_MOD, 8 + len(body), 5) + body[:length]
            too_short = openflow.HEADER.pack(4, openflow.FLOW_MOD, 8 + length, 6) + body[:length]
            self.send_and_drop(hello + too_short + cut_off)
        self.assert_serving()  # its barrier comes behind whatever was taken
        self.assertEqual(len(self.stored(self.running, "flow")), 1)

    def test_a_length_below_the_header_ends_that_connection_only(self):
        for length in (0, 4, 7):
            with self.subTest(length=length):
                bad = self.running.client()
                bad.socket.sendall(struct.pack("!BBHI", 4, openflow.ECHO_REQUEST, length, 9))
                with self.assertRaises((EOFError, ConnectionResetError)):
                    while True:
                        bad.receive()
                bad.close()
                self.assert_serving()

    def test_ten_thousand_connects(self):
        def knock(times):
            for _ in range(times):
                socket.create_connection(("127.0.0.1", self.running.port), timeout=10).close()

        knock(5000)  # as many at once as there will be, too
        self.assert_serving()
        before = self.running.resident_kib()
        knock(5000)
        self.assert_serving()
        self.assertLess(self.running.resident_kib() - before, 8192)


if __name__ == "__main__":
    unittest.main(verbosity=2)
