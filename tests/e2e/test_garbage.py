"""Garbage on the OpenFlow port harms nobody but its sender."""

import random
import socket
import unittest

import e2e
import openflow


def header(kind, length):
    return openflow.HEADER.pack(4, kind, length, 2)


def garbage(chance):
    """Yields the garbage by kind; each item is sent on a new connection."""
    hello = header(openflow.HELLO, 8)
    yield "random bytes", [chance.randbytes(chance.randrange(1, 4000)) for _ in range(200)]
    bodies = [(kind, chance.randbytes(chance.randrange(300))) for kind in range(31) for _ in range(20)]
    yield "random bodies", [hello + header(kind, 8 + len(body)) + body for kind, body in bodies]
    yield "lengths below the header", [hello + header(openflow.ECHO_REQUEST, length) for length in (0, 4, 7)]
    yield "connections", [b""] * 5000
    yield "as many again", [b""] * 5000
    yield "and again", [b""] * 5000


class Garbage(e2e.Test):
    def send_and_drop(self, running, data):
        """Sends the data on a new connection and closes it; the daemon may close it first."""
        with socket.create_connection(("127.0.0.1", running.port), timeout=e2e.LIMIT) as stranger:
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
        for kind, sent in garbage(random.Random(1)):
            with self.subTest(kind=kind):
                for data in sent:
                    self.send_and_drop(running, data)
                if kind == "random bodies":
                    good.delete_all()
                good.add(1)
                self.assertEqual(good.barrier(), [])
                self.assertEqual(len(self.stored(running, "flow")), 1)
                resident.append(running.resident_kib())
        # A leak would show in every round of connections; a sanitizer's own bookkeeping may still grow for a while.
        self.assertLess(min(resident[-1] - resident[-2], resident[-2] - resident[-3]), 4096, resident)


if __name__ == "__main__":
    unittest.main(verbosity=2)
