"""Garbage on the OpenFlow port harms nobody but its sender."""

import random
import socket
import unittest

import e2e
import openflow

HELLO = openflow.HEADER.pack(4, openflow.HELLO, 8, 1)


def random_bytes(chance):
    return (chance.randbytes(chance.randrange(1, 4000)) for _ in range(200))


def random_bodies_under_good_headers(chance):
    for kind in range(31):
        bodies = (chance.randbytes(chance.randrange(0, 300)) for _ in range(20))
        yield HELLO + b"".join(openflow.HEADER.pack(4, kind, 8 + len(body), 2) + body for body in bodies)


def every_truncation_of_a_flow_mod(_):
    match, instructions = openflow.tcp_flow(9)
    body = openflow.flow_mod(openflow.ADD, match, instructions)
    for length in set(range(len(body))) - {len(body) - len(instructions)}:  # whole without instructions, which drops
        too_short = openflow.HEADER.pack(4, openflow.FLOW_MOD, 8 + length, 6) + body[:length]
        yield HELLO + too_short + openflow.HEADER.pack(4, openflow.FLOW_MOD, 8 + len(body), 5) + body[:length]


def lengths_below_the_header(_):
    return (HELLO + openflow.HEADER.pack(4, openflow.ECHO_REQUEST, length, 9) for length in (0, 4, 7))


def nothing(_):
    return (b"" for _ in range(5000))


class Garbage(e2e.Test):
    def send_and_drop(self, running, data):
        """What a stranger sends before it goes away; that the daemon closes first is fine."""
        with socket.create_connection(("127.0.0.1", running.port), timeout=10) as stranger:
            try:
                stranger.sendall(data)
                stranger.shutdown(socket.SHUT_WR)
                while data and stranger.recv(65536):
                    pass
            except (BrokenPipeError, ConnectionResetError):
                pass

    def test_others_are_served_and_memory_stays_bounded(self):
        running = self.daemon()
        good = self.client(running)
        resident = []
        # As many connections at once as there will be, too.
        for kind in (random_bytes, random_bodies_under_good_headers, every_truncation_of_a_flow_mod, lengths_below_the_header,
                     nothing, nothing):
            with self.subTest(kind=kind.__name__):
                for data in kind(random.Random(1)):
                    self.send_and_drop(running, data)
                if kind is random_bodies_under_good_headers:
                    good.delete_all()
                good.add(1)
                self.assertEqual(good.barrier(), [])
                self.assertEqual(len(self.stored(running, "flow")), 1)
                resident.append(running.resident_kib())
        self.assertLess(resident[-1] - resident[-2], 8192)


if __name__ == "__main__":
    unittest.main(verbosity=2)
