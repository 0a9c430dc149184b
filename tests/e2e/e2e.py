"""What the end-to-end tests share."""

import os
import unittest

import daemon
import openflow

BIN = os.environ["KELIM_BIN"]
EMPTY_QUEUE = "msg queue is empty"


class Test(unittest.TestCase):
    def daemon(self, **settings):
        """A daemon of this test's own, ended with the test. Its end must be clean: sanitizers report leaks by the exit status."""
        running = daemon.Daemon(BIN, **settings)
        running.__enter__()
        self.addCleanup(running.__exit__)
        self.addCleanup(self._end_cleanly, running)
        return running

    def _end_cleanly(self, running):
        if running.process.poll() is None:
            self.assertEqual(running.stop(), 0, running.output()[-3000:])

    def client(self, running):
        client = running.client()
        self.addCleanup(client.close)
        return client

    def assert_error(self, message, kind, code, request):
        self.assertEqual(message.type, openflow.ERROR)
        got_kind, got_code, data = openflow.error_of(message)
        self.assertEqual((got_kind, got_code), (kind, code))
        self.assertEqual(data[:64], request[:64])
        self.assertEqual(message.xid, openflow.HEADER.unpack_from(request)[3])

    def stored(self, running, kind):
        """The keys of the stored records of that kind."""
        listed = running.ask_json("mom", "ls", kind, "--limit", 100000)
        return [found["key"] for found in listed["objects"]]

    def assert_nothing_left(self, running):
        """No record, no cached flow, no outstanding request."""
        for kind in ("flow", "flow_sta", "flow_counter"):
            self.assertEqual(self.stored(running, kind), [], kind)
        self.assertEqual(running.command("dump_ssc_all_flow_info").strip(), "")
        self.assertIn(EMPTY_QUEUE, running.command("dump_ssc_sdn_msg_queue"))
