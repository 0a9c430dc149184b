"""A controller that requests more than the daemon can do delays neither the daemon's loop nor other controllers until it ends."""

import threading
import unittest

import e2e
import openflow

PASS = 500  # flows that each pass of churn adds and then deletes; the table holds 600
END = 0xFFFF


class Pace(e2e.Test):
    def check_churn(self, running):
        """Adds and deletes the same flows as fast as the daemon accepts them, with a barrier after each pass."""
        churn, quiet = self.client(running), self.client(running)
        made = [churn.frame(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, *openflow.tcp_flow(n))) for n in range(PASS)]
        made += [churn.frame(openflow.FLOW_MOD, openflow.flow_mod(openflow.DELETE_STRICT, openflow.tcp_flow(n)[0])) for n in range(PASS)]
        unit = b"".join(made) + churn.frame(openflow.BARRIER_REQUEST, xid=7)
        over, answers = threading.Event(), []

        def send():
            while not over.is_set():
                churn.socket.sendall(unit)
            churn.send(openflow.BARRIER_REQUEST, xid=END)

        def read():
            while (message := churn.receive()).xid != END:
                answers.append(message.type)

        threads = [threading.Thread(target=each, daemon=True) for each in (send, read)]
        for thread in threads:
            thread.start()
        self.addCleanup(over.set)
        self.await_that(lambda: len(answers) > 3, "churn under way")
        for number in range(5):
            before = len(answers)
            self.assertIn("controllers", running.ask_json("controllers"))  # answered by the loop, between the churn's messages
            quiet.add(100_000 + number)
            self.assertEqual(quiet.barrier(), [])
            self.await_that(lambda: len(answers) > before, "the churn going on")
        over.set()
        for thread in threads:
            thread.join(e2e.LIMIT)
        self.assertEqual(set(answers), {openflow.BARRIER_REPLY}, "no error")
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
