"""The operator's command line against a running daemon, and without one."""

import json
import socket
import subprocess
import unittest

import daemon
import e2e
import openflow

VIEWS = ("flows", "meters", "controllers", "refusals", "audit", "timings", "congestion")


class Kelimctl(e2e.Test):
    def refused(self, running, *arguments):
        """What kelimctl says to a wrong use; its status must be 2."""
        result = running.kelimctl(*arguments)
        self.assertEqual((result.returncode, result.stdout), (2, ""), result.stderr)
        return result.stderr

    def test_debug_commands_run_in_the_daemon_and_wrong_ones_are_explained(self):
        running = self.daemon()
        shown = running.command("kelim_set_dbg", "dbg_val=0x42")
        self.assertIn("VER: Off, ERROR: On", shown)
        self.assertIn("assert: On", shown)
        daemon.wait_until(lambda: shown.strip() in running.output(), 5, "the command's output on the daemon's standard output")
        self.assertIn("ssc_kelim_proxy", self.refused(running, "cmd", "ssc_kelin", "kelim_set_dbg"))
        self.assertIn("dump_ssc_ds_status", self.refused(running, "cmd", "ssc_kelim", "dump"))
        for wrong in ((), ("dbg_val=ver",), ("dbg_val=1", "sw=1"), ("val=1",), ("1",), ("dbg_val=1", "dbg_val=2")):
            with self.subTest(arguments=wrong):
                self.refused(running, "cmd", "ssc_kelim", "kelim_set_dbg", *wrong)
        self.refused(running, "nonsense")
        self.refused(running)
        self.assertIn("s_policy_kelim.flow_sta", self.refused(running, "mom", "ls", "flaw"))
        # Nothing of all that was carried out.
        self.assertIn("assert: On", running.command("kelim_set_dbg", "dbg_val=0x42"))

    def test_what_the_daemon_cannot_do_now_is_no_wrong_usage(self):
        running = self.daemon()
        clients = [socket.socket(socket.AF_UNIX) for _ in range(32)]
        for client in clients:
            self.addCleanup(client.close)
            client.connect(f"{running.run_dir}/ssc_kelim.ctl")
        result = running.kelimctl("flows")
        self.assertEqual((result.returncode, result.stderr), (1, "kelimctl: more than 32 clients\n"))

    def test_without_a_daemon_it_says_how_to_start_one(self):
        nobody = daemon.Daemon(e2e.BIN)
        self.addCleanup(nobody.__exit__)
        for arguments in (("flows",), ("cmd", "ssc_kelim", "dump_ssc_ds_status"), ("mom", "stats")):
            result = nobody.kelimctl(*arguments)
            self.assertEqual(result.returncode, 3)
            self.assertIn("make run", result.stderr)

    def test_views_join_what_all_sides_know(self):
        running = self.daemon(programmer_counter_interval_ms=50, programmer_counter_rate=200, programmer_script="fail=@2")
        client = self.client(running)
        client.add(1, priority=7, cookie=0xABC)
        client.add(2)
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, openflow.match(openflow.oxm(11, bytes(4)))))
        self.assertEqual(len(client.barrier()), 2)
        flow = daemon.wait_until(
            lambda: next((f for f in running.ask_json("flows")["flows"] if f["packets"] > 0), None), 5, "counters"
        )
        self.assertEqual(len(running.ask_json("flows")["flows"]), 1)
        self.assertEqual((flow["priority"], flow["stored"], flow["answer"], flow["state"]), (7, True, "INSTALLED", "installed"))
        self.assertEqual(flow["bytes"], 100 * flow["packets"])
        self.assertIn("ipv4_dst=10.0.0.1", flow["match"])
        self.assertEqual(len(running.ask_json("refusals")["refusals"]), 1)
        self.assertEqual(len(running.ask_json("controllers")["controllers"]), 1)
        add = next(row for row in running.ask_json("timings") if row["name"] == "SDN_ADD_FLOW")
        self.assertGreaterEqual(add["count"], 2)
        record = running.ask_json("mom", "get", "flow", f"{flow['index']}:0")["objects"][0]["record"]
        self.assertEqual(record["flow_field"]["dst_ipv4"], "10.0.0.1")
        self.assertIn("OXM_SS_OF_IPV4_DST", record["flow_field"]["flow_field_bitmap"])
        self.assertEqual(running.kelimctl("mom", "get", "flow", "999999:0").returncode, 1)

    def test_a_cut_list_is_joined_with_what_belongs_to_it(self):
        running = self.daemon()
        client = self.client(running)
        # The agent lists what came later in the places of what has gone; the database lists by index.
        for number in range(1, 201):
            client.add(number)
        client.barrier()
        for number in range(1, 101):
            client.delete(number)
        client.barrier()
        for number in range(201, 251):
            client.add(number)
        for meter in range(1, 6):
            client.send(openflow.METER_MOD, openflow.meter_mod(meter, rate=1000))
        self.assertEqual(client.barrier(), [])
        for limit, shown in ((120, 120), (150, 150), (1000, 150)):
            with self.subTest(limit=limit):
                rows = running.ask_json("flows", "--limit", limit)["flows"]
                self.assertEqual({(row["state"], row["stored"], row["answer"]) for row in rows}, {("installed", True, "INSTALLED")})
                self.assertEqual(len({row["index"] for row in rows}), shown)
                text = running.ask("flows", "--limit", limit)
                self.assertEqual("120 of 150 shown" in text, limit == 120)
                self.assertEqual("the lists are cut" in text, limit == 120)
        answers = lambda: [meter["answer"] for meter in running.ask_json("meters", "--limit", 2)["meters"]]
        daemon.wait_until(lambda: answers() == ["INSTALLED"] * 5, 5, "every meter's answer")

    def test_tables_fit_a_hundred_columns(self):
        running = self.daemon()
        client = self.client(running)
        fields = [openflow.oxm(5, b"\x86\xdd"), openflow.oxm(10, b"\x06")]
        fields += [openflow.oxm(field, bytes(range(n, n + 15)) + b"\xf0", b"\xff" * 15 + b"\xf0") for field, n in ((26, 0), (27, 64))]
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, openflow.match(*fields), cookie=2**64 - 1))
        for number in range(1, 30):
            client.add(number, priority=60000)
        client.barrier()
        client.send(openflow.FLOW_MOD, b"")
        for view in (*VIEWS, "mom stats", "mom ls", "mom ls flow", "mom get flow 1:0"):
            with self.subTest(view=view):
                lines = running.ask(*view.split()).splitlines()
                self.assertLessEqual(max(map(len, lines)), 100, "\n".join(lines))
                json.loads(running.ask(*view.split(), "--json"))
        self.assertIn("5 of 30 shown", running.ask("flows", "--limit", "5"))

    def test_help_needs_no_daemon(self):
        for arguments in (["--help"], ["cmd", "--help"], ["mom", "--help"]):
            result = subprocess.run([f"{e2e.BIN}/kelimctl", *arguments], capture_output=True, text=True, timeout=10)
            self.assertEqual((result.returncode, result.stderr), (0, ""))
            self.assertIn("Usage", result.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
