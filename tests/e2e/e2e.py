"""What the end-to-end tests share."""

import ast
import os
import subprocess
import unittest

import daemon
import openflow

BIN = os.environ["KELIM_BIN"]
LIMIT = 30  # seconds for anything to come about; sanitizer builds on a busy machine are slow


def ofctl(port, command, *arguments, stdin=None):
    """Runs ovs-ofctl, a client that nobody here wrote."""
    return subprocess.run(
        ["ovs-ofctl", "-O", "OpenFlow13", command, f"tcp:127.0.0.1:{port}", *arguments],
        input=stdin, capture_output=True, text=True, timeout=60,
    )


def redis(socket, *words, database=8):
    """The list that the Redis server on that unix socket answers with; None for what is no text."""
    command = ["redis-cli", "-s", socket, "-n", str(database), "--no-raw", *words]
    lines = subprocess.run(command, capture_output=True, check=True, text=True, timeout=60).stdout.splitlines()
    return [ast.literal_eval("b" + line.partition(") ")[2]) if line.endswith('"') else None for line in lines]


def records(socket, kind, database=8):
    """The packed records of that kind by their key, such as "17:0", read without any code of the programs under test."""
    prefix = f"s_policy_kelim.{kind}:"
    names = [name.decode() for name in redis(socket, "KEYS", prefix + "*", database=database) if name]
    values = redis(socket, "MGET", *names, database=database) if names else []
    return {name.removeprefix(prefix): value[8:] for name, value in zip(names, values) if value}


class Test(unittest.TestCase):
    def daemon(self, **settings):
        """A daemon of this test's own, ended with the test. Its end must be clean: sanitizers report leaks by the exit status."""
        return self.run_until_the_end(daemon.Daemon(BIN, **settings))

    def system(self, **settings):
        """The same as three processes: Redis, the programming service and the daemon."""
        return self.run_until_the_end(daemon.System(BIN, **settings))

    def run_until_the_end(self, running):
        running.__enter__()
        self.addCleanup(running.__exit__)
        self.addCleanup(self._end_cleanly, running)
        return running

    def _end_cleanly(self, running):
        if running.process.poll() is None:
            self.assertEqual(running.stop(), 0, running.output()[-3000:])

    def client(self, running, address=""):
        """A controller on this machine, which may come from another address of it."""
        client = openflow.Client(running.port, source=address)
        self.addCleanup(client.close)
        return client.handshake()

    def await_that(self, condition, what):
        return daemon.wait_until(condition, LIMIT, what)

    def stored(self, running, kind):
        """The keys of the stored records of that kind."""
        listed = running.ask_json("mom", "ls", kind, "--limit", 100000)
        return [found["key"] for found in listed["objects"]]
