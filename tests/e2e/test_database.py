"""kelimctl's look into the object database: through the daemon's socket, and in the Redis server itself."""

import json
import shutil
import signal
import subprocess
import tempfile
import unittest

import daemon
import e2e
import records


class RedisServer:
    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="kelim-redis-")
        self.socket = f"{self.directory}/redis.sock"
        self.url = f"redis+unix:{self.socket}"
        options = {"port": 0, "unixsocket": self.socket, "dir": self.directory, "save": "", "hz": 100}
        command = ["redis-server", *(word for key, value in options.items() for word in (f"--{key}", str(value)))]
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        daemon.wait_until(self.answers, 20, "redis-server's answer")

    def answers(self):
        try:
            with records.Redis(self.socket, 0):
                return True
        except OSError:
            return False

    def stop(self):
        self.process.kill()
        self.process.wait()
        shutil.rmtree(self.directory)


class Watch:
    """A running `kelimctl mom watch`; its lines as they come."""

    def __init__(self, running, *arguments):
        self.process = subprocess.Popen(
            [running.bin / "kelimctl", "--run-dir", running.run_dir, "mom", "watch", *arguments],
            env=running.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        )
        assert self.process.stderr.readline().startswith("Watching"), self.process.communicate()

    def line(self):
        return self.process.stdout.readline()

    def until(self, key, change):
        """The first record that changed so."""
        while line := self.line():
            seen = json.loads(line)
            if (seen["key"], seen["change"]) == (key, change):
                return seen
        raise daemon.Failed(f"the watch ended without {change} {key}")

    def interrupt(self):
        self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=20)
        return self.process.returncode


class Database(e2e.Test):
    """The embedded store, through the daemon."""

    def settings(self):
        return {}

    def setUp(self):
        self.running = self.daemon(**self.settings())

    def watch(self, *arguments):
        watch = Watch(self.running, *arguments)
        self.addCleanup(watch.process.communicate)
        self.addCleanup(watch.process.kill)
        return watch

    def test_records_are_listed_and_decoded(self):
        client = self.client(self.running)
        for number in range(1, 6):
            client.add(number)
        client.barrier()
        keys = self.stored(self.running, "flow")
        self.assertEqual(len(keys), 5)
        self.assertEqual(self.running.ask("mom", "ls", "flow").split(), keys)
        kind, key = keys[0].split(":", 1)
        found = self.running.ask_json("mom", "get", "flow", key)["objects"]
        self.assertEqual(len(found), 1)
        record = found[0]["record"]
        self.assertEqual(list(record)[:2], ["index", "status"])
        self.assertEqual(record["flow_field"]["dst_ipv4"], "10.0.0.1")
        self.assertIn("OXM_SS_OF_IPV4_DST", record["flow_field"]["flow_field_bitmap"])
        rows = {(row["type"], row["db"]): row for row in self.running.ask_json("mom", "stats")["types"]}
        self.assertEqual(self.running.ask_json("mom", "stats")["client"]["connected"], [4, 8])
        flows = rows[kind, 8]
        self.assertEqual(flows["objects"], 5)
        self.assertTrue(5 * 150 < flows["bytes"] < 5 * 5000, flows)
        for view in (("stats",), ("ls",), ("ls", "flow"), ("get", "flow", key)):
            self.assertLessEqual(max(map(len, self.running.ask("mom", *view).splitlines())), 100)
        self.assertEqual(self.running.kelimctl("mom", "get", "flow", "999:0").returncode, 1)
        self.assertEqual(self.running.kelimctl("mom", "get", "flow", "1").returncode, 2)
        self.assertEqual(self.running.kelimctl("mom", "ls", "flaw").returncode, 2)
        self.assertEqual(self.running.kelimctl("mom", "--url", "radish:", "ls").returncode, 2)

    def test_changes_are_shown_as_they_happen(self):
        everything, results, text = self.watch("--json"), self.watch("flow_sta", "--json"), self.watch("flow")
        client = self.client(self.running)
        client.add(1)
        client.barrier()
        key = self.stored(self.running, "flow")[0].split(":", 1)[1]
        written = everything.until(f"s_policy_kelim.flow:{key}", "written")
        self.assertEqual((written["db"], written["record"]["flow_field"]["dst_ipv4"]), (8, "10.0.0.1"))
        self.assertRegex(written["at"], r"^\d\d:\d\d:\d\d\.\d\d\d$")
        self.assertEqual(json.loads(results.line())["record"]["status"], "STATUS_INSTALLED")
        client.delete_all()
        client.barrier()
        everything.until(f"s_policy_kelim.flow:{key}", "deleted")
        self.assertRegex(text.line(), rf"^\S+ written   s_policy_kelim.flow:{key} \(database 8\)$")
        self.assertEqual(text.line(), "  index:\n")
        for watch in (everything, results, text):
            self.assertEqual(watch.interrupt(), 0)


class DatabaseInRedis(Database):
    """The same in a Redis server: kelimctl needs no daemon for it."""

    def settings(self):
        self.server = RedisServer()
        self.addCleanup(self.server.stop)
        return {"mom_url": self.server.url}

    def test_a_server_that_does_not_answer_is_no_wrong_usage(self):
        self.server.process.send_signal(signal.SIGSTOP)
        result = self.running.kelimctl("mom", "--url", "embedded:", "get", "flow", "1:0")
        self.server.process.send_signal(signal.SIGCONT)
        self.assertEqual(result.returncode, 1)
        self.assertIn("does not answer", result.stderr)

    def test_a_flow_that_is_only_stored_shows_as_such(self):
        client = self.client(self.running)
        for number in (1, 2):
            client.add(number)
        client.barrier()
        shown = lambda *limit: {str(row["index"]): row["state"] for row in self.running.ask_json("flows", *limit)["flows"]}
        asked = shown()
        with records.Redis(self.server.socket, 8) as server:
            server.ask("COPY", f"s_policy_kelim.flow:{min(asked)}:0", "s_policy_kelim.flow:999:0")
            server.ask("SADD", "s_policy_kelim.flow", "999:0")
        self.assertEqual(shown(), asked | {"999": "not asked"})
        self.assertEqual(shown("--limit", 2), asked)
        self.assertIn("the lists are cut", self.running.ask("flows", "--limit", 2))

    def test_the_server_is_asked_itself(self):
        client = self.client(self.running)
        client.add(1)
        client.barrier()
        key = self.stored(self.running, "flow")[0].split(":", 1)[1]
        own = self.running.ask_json("mom", "get", "flow", key)
        self.assertEqual(self.running.ask_json("mom", "--url", "embedded:", "get", "flow", key), own)
        self.running.stop()
        self.assertEqual(self.running.ask_json("mom", "get", "flow", key), own)
        self.assertIsNone(self.running.ask_json("mom", "stats")["client"])
        self.assertEqual(self.running.kelimctl("mom", "--url", "embedded:", "get", "flow", key).returncode, 3)
        nobody = self.running.kelimctl("mom", "--url", "redis+unix:/nowhere", "ls", "flow")
        self.assertEqual((nobody.returncode, nobody.stderr), (3, "kelimctl: mom.url redis+unix:/nowhere: No such file or directory\n"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
