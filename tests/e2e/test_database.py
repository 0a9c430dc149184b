"""kelimctl's view of the object database, through the daemon's socket and in the Redis server itself."""

import functools
import json
import os
import signal
import subprocess
import unittest

import daemon
import e2e


class Database(e2e.Test):
    """The embedded store, through the daemon."""

    start = e2e.Test.daemon

    def cut_subscriptions(self):
        """Cuts the connections by which the daemon hears of changes, and waits until it has them again."""

    def setUp(self):
        self.running = self.start()
        self.controller = self.client(self.running)

    def add(self, number):
        """Adds a flow and returns its key."""
        before = self.stored(self.running, "flow")
        self.controller.add(number)
        self.assertEqual(self.controller.barrier(), [])
        (name,) = set(self.stored(self.running, "flow")) - set(before)
        return name.removeprefix("s_policy_kelim.flow:")

    def watch(self, *arguments):
        """Starts `kelimctl mom watch`."""
        watch = self.spawn(self.running.bin / "kelimctl", "--run-dir", self.running.run_dir, "mom", "watch", *arguments,
                           env=self.running.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertIn("Watching", watch.stderr.readline())
        return watch

    def test_records_are_shown_as_people_write_them(self):
        flow = "tcp6,dl_dst=00:1b:21:0a:0b:ff,ipv6_src=2001:db8::1,actions=output:2"
        self.assertEqual(e2e.ofctl(self.running.port, "add-flow", flow).stderr, "")
        shown = self.running.ask_json("mom", "get", "flow", "1:0")["objects"][0]["record"]
        self.assertEqual(list(shown)[:2], ["index", "status"])
        self.assertRegex(shown["flow_data"], "^0a000400[0-9a-f]+$")
        self.assertIn("OXM_SS_OF_ETH_DST", shown["flow_field"]["flow_field_bitmap"])
        self.assertEqual((shown["flow_field"]["dst_mac"], shown["flow_field"]["ipv6_src"]), ("00:1b:21:0a:0b:ff", "2001:db8::1"))
        self.assertEqual((shown["ace"][0]["sn"], shown["ace"][0]["acl_app_type"]), (2**64 - 1, "sdn_app"))
        (key,) = self.await_that(lambda: self.stored(self.running, "onc_ip"), "the controller's address")
        address = self.running.ask_json("mom", "get", *key.removeprefix("s_policy_kelim.").split(":", 1))["objects"][0]["record"]
        self.assertEqual(address["index"]["ip"], "127.0.0.1")

    def test_changes_are_shown_as_they_happen(self):
        everything, text = self.watch("--json"), self.watch("flow")
        key = self.add(1)
        self.cut_subscriptions()
        self.running.command("pkt_end", module="of_ss")
        self.controller.delete_all()
        self.controller.barrier()
        seen = []
        while not seen or (seen[-1]["key"], seen[-1]["change"]) != (f"s_policy_kelim.flow:{key}", "deleted"):
            seen.append(json.loads(everything.stdout.readline()))
        written = next(change for change in seen if change["key"] == seen[-1]["key"])
        self.assertEqual((written["db"], written["change"]), (8, "written"))
        self.assertEqual(written["record"]["flow_field"]["dst_ipv4"], "10.0.0.1")
        self.assertIn("STATUS_INSTALLED", [change["record"].get("status") for change in seen])
        signals = [change["record"] for change in seen if (change["change"], change["key"]) == ("published", "s_policy_kelim.pkt_sig")]
        self.assertIn({"is_pkt_start": 0}, signals)
        self.assertRegex(text.stdout.readline(), rf"^\d\d:\d\d:\d\d\.\d\d\d written   s_policy_kelim.flow:{key} \(database 8\)$")
        self.assertEqual(text.stdout.readline(), "  index:\n")
        for watch in (everything, text):
            watch.send_signal(signal.SIGINT)
            self.assertEqual(watch.wait(e2e.LIMIT), 0)


class DatabaseInRedis(Database):
    """The same with a Redis server, which kelimctl also reads without the daemon."""

    start = functools.partialmethod(e2e.Test.system, mom_scan_batch=7)

    def cut_subscriptions(self):
        e2e.kill_clients(self.running.socket, "name=ssc_kelim/8/listen")
        self.await_that(lambda: "reconnect db:8 type:2" in self.running.output(), "the daemon's connections")

    def test_a_flow_that_is_only_stored_shows_as_such(self):
        key = self.add(1)
        self.assertIn("what was asked for", self.running.ask("audit"))
        e2e.redis(self.running.socket, "COPY", f"s_policy_kelim.flow:{key}", "s_policy_kelim.flow:999:0")
        e2e.redis(self.running.socket, "SADD", "s_policy_kelim.flow", "999:0")
        shown = {f"{row['index']}:0": row["state"] for row in self.running.ask_json("flows")["flows"]}
        self.assertEqual(shown, {key: "installed", "999:0": "not asked"})
        self.assertIn("the lists are cut", self.running.ask("flows", "--limit", 1))
        e2e.redis(self.running.socket, "DEL", f"s_policy_kelim.flow:{key}", "s_policy_kelim.flow:999:0")
        audit = self.running.kelimctl("audit", "--json")
        difference = {"kind": "flow", "number": int(key.split(":")[0]), "what": "is not stored"}
        self.assertEqual((audit.returncode, json.loads(audit.stdout)["differences"]), (1, [difference]))

    def left(self):
        """Returns the numbers of flow-related records by kind, in both databases, and of flows in the target."""
        kinds = [(kind, 8) for kind in ("flow", "flow_sta", "flow_counter")]
        kinds += [(kind, 4) for kind in ("parse_flow", "flow_to_ace", "flow_to_ace_sta")]
        stored = [len(e2e.records(self.running.socket, kind, database)) for kind, database in kinds]
        return stored, len(self.running.programmer("flows").split())

    def test_service_chain_flows_that_go_while_their_database_is_away_leave_nothing(self):
        for number in range(20):
            self.controller.add(number, table=1)
        self.assertEqual(self.controller.barrier(), [])
        self.await_that(lambda: self.left() == ([20, 20, 0, 20, 20, 20], 20), "the flows")
        away = self.running.socket + "-away"
        os.rename(self.running.socket, away)
        e2e.kill_clients(away, "/4/")
        self.await_that(lambda: "reconnect db:4 type:0" in self.running.output(), "the loss of database 4")
        self.controller.delete_all()
        self.controller.barrier()
        os.rename(away, self.running.socket)
        self.await_that(lambda: self.left() == ([0] * 6, 0), "no trace of them")

    def test_what_the_database_has_lost_is_replayed_or_leaves_the_target(self):
        for number in range(200):
            self.controller.add(number)
        self.assertEqual(self.controller.barrier(), [])
        e2e.redis(self.running.socket, "FLUSHALL")
        self.await_that(lambda: self.left() == ([200, 200, 0, 0, 0, 0], 200), "the flows again")
        lost = sorted(e2e.records(self.running.socket, "flow"))[::2]
        e2e.redis(self.running.socket, "DEL", *(f"s_policy_kelim.flow:{key}" for key in lost))
        found = json.loads(self.running.kelimctl("audit", "--json").stdout)["differences"]
        self.assertEqual(sorted(f"{difference['number']}:0" for difference in found), lost)
        e2e.redis(self.running.socket, "FLUSHALL")
        self.controller.delete_all()
        self.controller.barrier()
        self.await_that(lambda: self.left() == ([0] * 6, 0), "an empty target")

    def test_a_second_daemon_says_so_and_waits_until_the_first_has_gone(self):
        second = daemon.Daemon(e2e.BIN, mom_url=f"redis+unix:{self.running.socket}", programmer_embedded="false")
        self.addCleanup(second.__exit__)
        with open(second.log, "wb") as log:
            second.process = subprocess.Popen(second.command_line, env=second.environment, stdout=log, stderr=log)
        self.await_that(lambda: "another ssc_kelim works on this database" in second.output(), "a word of the first")
        self.add(1)
        self.assertNotEqual(second.kelimctl("controllers").returncode, 0, second.output()[-1000:])
        self.running.signal("ssc_kelim", signal.SIGKILL)
        serves = lambda: next((one for one in (second, self.running) if one.kelimctl("controllers").returncode == 0), None)
        client = self.client(self.await_that(serves, "one of both in its place"))
        client.add(2)
        self.assertEqual(client.barrier(), [])
        self.await_that(lambda: self.left() == ([2, 2, 0, 0, 0, 0], 2), "both flows")
        second.process.kill()
        self.await_that(self.running.ready, "the first one again, whichever has worked")

    def test_a_value_of_another_type_hides_no_other(self):
        keys = [self.add(1), self.add(2), self.add(3)]
        for kind, key in (("flow", keys[0]), ("flow_sta", keys[1])):
            e2e.redis(self.running.socket, "DEL", f"s_policy_kelim.{kind}:{key}")
            e2e.redis(self.running.socket, "RPUSH", f"s_policy_kelim.{kind}:{key}", "x")
        shown = self.running.ask_json("flows")
        rows = {f"{row['index']}:0": (row["stored"], row["answer"]) for row in shown["flows"]}
        self.assertEqual(rows, dict(zip(keys, ((False, "INSTALLED"), (True, None), (True, "INSTALLED")))))
        self.assertEqual(shown["skipped"], 2)
        self.assertIn("2 stored values are none of ours", self.running.ask("flows"))

    def test_the_server_is_asked_itself(self):
        key = self.add(1)
        own = self.running.ask_json("mom", "get", "flow", key)
        self.assertEqual(self.running.ask_json("mom", "--url", "embedded:", "get", "flow", key), own)
        self.assertEqual(self.running.ask_json("--process", "nobody", "mom", "get", "flow", key), own)
        self.assertIsNone(self.running.ask_json("--process", "nobody", "mom", "stats")["client"])
        nobody = self.running.kelimctl("mom", "--url", "redis+unix:/nowhere", "ls", "flow")
        self.assertEqual(nobody.returncode, 3)
        self.assertEqual(nobody.stderr, "kelimctl: mom.url redis+unix:/nowhere: No such file or directory\n")
        self.assertEqual(self.running.kelimctl("mom", "ls", "flaw").returncode, 2)


if __name__ == "__main__":
    unittest.main(verbosity=2)
