"""A controller that requests more than the daemon can do delays neither the daemon's loop nor other controllers until it ends."""

import threading
import unittest

import daemon
import e2e
import openflow

PASS = 500  # flows that each pass of churn adds and then deletes; the table holds 600


class Flood(threading.Thread):
    """Sends the same bytes over and over on its own connection until it is told to stop, and reads the answers."""

    def __init__(self, client, unit):
        super().__init__(daemon=True)
        self.client, self.unit, self.ends = client, unit, threading.Event()
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.answers, self.errors = 0, []

    def run(self):
        self.reader.start()
        sent = 0
        while not self.ends.is_set():
            self.client.socket.sendall(self.unit)
            sent += 1
        self.client.send(openflow.BARRIER_REQUEST, xid=0xFFFF)
        self.reader.join()

    def read(self):
        while True:
            message = self.client.receive()
            self.answers += message.type == openflow.BARRIER_REPLY
            if message.type == openflow.ERROR:
                self.errors.append(openflow.error_of(message)[0])
            if message.xid == 0xFFFF:
                return

    def finish(self):
        self.ends.set()
        self.join(e2e.LIMIT)


class Pace(e2e.Test):
    def churn(self, running):
        """Starts adding and deleting the same flows as fast as the daemon accepts them, with a barrier after each pass."""
        client = self.client(running)
        client.socket.settimeout(60)
        made = [
            client.frame(openflow.FLOW_MOD, openflow.flow_mod(command, openflow.tcp_flow(n)[0], openflow.tcp_flow(n)[1] if add else b""))
            for command, add in ((openflow.ADD, True), (openflow.DELETE_STRICT, False))
            for n in range(PASS)
        ]
        flood = Flood(client, b"".join(made) + client.frame(openflow.BARRIER_REQUEST, xid=7))
        flood.start()
        self.addCleanup(flood.finish)
        self.await_that(lambda: flood.answers > 3, "churn under way")
        return flood

    def check_churn(self, running):
        flood = self.churn(running)
        quiet = self.client(running)
        for number in range(5):
            before = flood.answers
            self.assertIn("controllers", running.ask_json("controllers"))  # answered by the loop, between the churn's messages
            quiet.add(100_000 + number)
            self.assertEqual(quiet.barrier(), [])
            self.await_that(lambda: flood.answers > before, "the churn going on")
        flood.finish()
        self.assertEqual(flood.errors, [])
        quiet.delete_all()
        self.assertEqual(quiet.barrier(), [])
        self.await_that(lambda: self.stored(running, "flow") == self.stored(running, "flow_sta") == [], "an empty table")

    def test_the_loop_turns_and_others_are_served_under_churn(self):
        self.check_churn(self.daemon())

    def test_so_it_is_over_redis(self):
        self.check_churn(self.system())

    def test_a_service_that_never_answers_is_waited_for_in_bounds(self):
        running = self.daemon(programmer_embedded="false", openflow_capacity=10_000, openflow_decide_timeout_ms=300)
        client = self.client(running)
        added = [client.add(number) for number in range(5000)]
        newcomer = self.client(running)  # completes its handshake while flows wait
        before = client.barrier()
        self.assertEqual(sorted(m.xid for m in before), added)
        self.assertEqual({openflow.error_of(m)[0] for m in before}, {"OFPFMFC_UNKNOWN"})
        newcomer.add(9000)
        self.assertEqual([m.type for m in newcomer.barrier()], [openflow.ERROR])
        self.assertEqual(self.stored(running, "flow"), [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
