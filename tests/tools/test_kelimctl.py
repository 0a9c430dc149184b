"""The operator's command line against a running daemon, and without one."""

import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import unittest

import daemon
import e2e
import openflow


class Kelimctl(e2e.Test):
    def test_debug_commands_run_in_the_daemon_and_wrong_ones_are_explained(self):
        running = self.daemon()
        shown = running.command("kelim_set_dbg", "dbg_val=0x4a")
        self.assertIn("VER: Off, ERROR: On", shown)
        client = self.client(running)
        client.add(1)
        client.barrier()
        for line in (shown.strip(), "[SDN][BARRIER]"):
            self.await_that(lambda: line in running.output(), f"{line} on the daemon's standard output while it runs")
        wrong = (
            ("", "Usage"), ("nonsense", "nonsense"), ("cmd ssc_kelin kelim_set_dbg", "ssc_kelim_proxy"),
            ("cmd ssc_kelim kelim_set_dbg 1", "ARG=VALUE"), ("cmd ssc_kelim kelim_set_dbg dbg_val=1 dbg_val=2", "twice"),
            ("flws --json", 'mean "flows"'), ("mom gte flow 1:0", 'mean "get"'), ("log levle", 'mean "level"'),
            ("log level loud", "debug, info, warning, error or off"), ("flows --cookie 0xg", "0x17/0xff"),
            ("flows --state gone", "installed"), ("status -o long", "wide"), ("flows --watch --interval 0", "0.1"),
            ("trace", "one number"), ("trace 0xg", "hexadecimal behind 0x"), ("trace 1 --xid 1", "excludes"),
            ("mom ls flaw", "s_policy_kelim.flow_sta"), ("mom get flow 1", "no key"), ("mom --url radish: ls", "radish:"),
        )
        for arguments, explained in wrong:
            with self.subTest(arguments=arguments):
                result = running.kelimctl(*arguments.split())
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn(explained, result.stderr)

    def test_what_the_daemon_cannot_do_now_is_no_wrong_usage(self):
        running = self.daemon()
        clients = [socket.socket(socket.AF_UNIX) for _ in range(32)]
        for client in clients:
            client.connect(f"{running.run_dir}/ssc_kelim.ctl")
        result = running.kelimctl("flows")
        self.assertEqual((result.returncode, result.stderr), (1, "kelimctl: more than 32 clients\n"))
        for client in clients:
            client.close()
        self.assertEqual(running.ask("flows"), "No flows.\n")
        self.assertEqual(running.kelimctl("mom", "get", "flow", "1:0").returncode, 1)

    def test_without_a_daemon_it_says_how_to_start_one(self):
        nobody = daemon.Daemon(e2e.BIN)
        self.addCleanup(nobody.__exit__)
        for arguments in (("flows",), ("cmd", "ssc_kelim", "dump_ssc_ds_status"), ("mom", "stats")):
            result = nobody.kelimctl(*arguments)
            self.assertEqual(result.returncode, 3)
            self.assertIn("make run", result.stderr)
        self.assertIn("KELIM_OPENFLOW_LISTEN", nobody.ask("config"))

    @unittest.skipUnless(os.geteuid() == 0, "needs other users")
    def test_members_of_the_control_group_see_views_and_others_are_told_who_may(self):
        for group, seen in (("nogroup", (0, "No flows.\n")), ("", (1, ""))):
            with self.subTest(group=group):
                running = self.daemon(control_group=group)
                running.run_dir.chmod(0o755)
                kelimctl = shutil.copy(running.bin / "kelimctl", running.run_dir)
                ask = lambda *arguments: subprocess.run(
                    [kelimctl, "--run-dir", running.run_dir, *arguments], env=running.environment, capture_output=True, text=True,
                    user="nobody", group="nogroup", extra_groups=[])
                result = ask("flows")
                self.assertEqual((result.returncode, result.stdout), seen, result.stderr)
                result = ask("cmd", "ssc_kelim", "kelim_set_dbg", "dbg_val=0x0")
                self.assertEqual(result.returncode, 1)
                self.assertIn("control.group" if group else "user root and root may ask it", result.stderr)
                self.assertNotIn("make run", result.stderr)
                self.assertEqual(ask("log", "level", "off").returncode, 1)
                self.assertEqual(running.kelimctl("cmd", "ssc_kelim", "kelim_set_dbg", "dbg_val=0x0").returncode, 0)

    def test_views_join_what_all_sides_know(self):
        running = self.daemon(programmer_counter_interval_ms=50, programmer_counter_rate=200, programmer_script="fail=@2")
        client = self.client(running)
        client.add(1, priority=7, cookie=0xABC)
        client.add(2)
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, openflow.match(openflow.oxm(11, bytes(4)))))
        self.assertEqual(len(client.barrier()), 2)
        (flow,) = self.await_that(lambda: [f for f in running.ask_json("flows")["flows"] if f["packets"] > 0], "counters")
        self.assertEqual(len(running.ask_json("flows")["flows"]), 1)
        self.assertEqual((flow["priority"], flow["stored"], flow["answer"], flow["state"]), (7, True, "INSTALLED", "installed"))
        self.assertEqual(flow["bytes"], 100 * flow["packets"])
        self.assertIn("ipv4_dst=10.0.0.1", flow["match"])
        (refusal,) = running.ask_json("refusals")["refusals"]
        self.assertEqual((refusal["xid"], refusal["field"], refusal["flow"]),
                         (client.xid - 1, "ipv4_src", "add table=0,priority=100,ipv4_src=0.0.0.0 actions=drop"))
        self.assertEqual(len(running.ask_json("controllers")["controllers"]), 1)
        status = running.ask_json("status")
        self.assertTrue(status["process"]["ready"])
        self.assertEqual({key: status["openflow"][key] for key in ("flows", "refused", "failed", "undecided", "controllers")},
                         {"flows": 1, "refused": 1, "failed": 1, "undecided": 0, "controllers": {"equal": 1}})
        self.assertIn("flow 2 (", running.ask("status"))
        (adding,) = [one for one in running.ask_json("timings") if one["name"] == "SDN_ADD_FLOW"]
        self.assertEqual((adding["count"], round(adding["total_us"])), (2, round(2 * adding["avg_us"])))
        self.assertTrue(0 < adding["last_us"] <= adding["max_us"] < adding["total_us"], adding)

    def test_a_trace_tells_of_flows_and_requests_from_the_wire_to_the_answer(self):
        running = self.daemon(openflow_capacity=10000, programmer_size=10000, programmer_script="fail=@3")
        client = self.client(running)
        client.xid = 100
        together = client.frame(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, *openflow.tcp_flow(1), cookie=0x66))
        together += client.frame(openflow.BARRIER_REQUEST)  # before the flow is answered
        client.socket.sendall(together)
        added, barrier = client.xid - 1, client.xid
        client.add(2, cookie=0x66, hard=1)
        failing = client.add(3)
        refused = client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, openflow.match(openflow.oxm(11, bytes(4)))))
        client.barrier()
        changed = client.send(openflow.FLOW_MOD, openflow.flow_mod(
            openflow.MODIFY, openflow.tcp_flow(1)[0], openflow.apply_actions(openflow.output(3))))
        client.barrier()
        stories = lambda *asked: running.ask_json("trace", *asked)["stories"]
        steps = lambda *asked: [" ".join(event["step"] for event in story["events"]) for story in stories(*asked)]
        in_force, gone = "received handed_over written answered installed", "erased answer_erased"
        timed = f"{in_force} removed {gone}"
        self.await_that(lambda: steps("--index", 2) == [timed], "the end of the hard timeout, told")
        # What both threads make of a failure comes in any order.
        failed = sorted(f"received handed_over written answered {gone} result error_sent failed".split())
        for asked in (("--index", 3), ("--xid", failing)):
            self.assertEqual([sorted(told.split()) for told in steps(*asked)], [failed])
        for asked, told in (
            (("--index", 1), [f"{in_force} replaced {gone}"]), (("--xid", added), [f"{in_force} replaced {gone}"]),
            (("--xid", changed), [in_force]), (("--xid", barrier), ["received barrier_handed barrier_answered"]),
            (("--xid", refused), ["received refused"]),
            (("--cookie", "0x66"), [f"{in_force} replaced {gone}", timed]),
        ):
            with self.subTest(asked=asked):
                self.assertEqual(steps(*asked), told)
        self.assertEqual(set(steps(2)), {timed, "received carried_out"})
        text = running.ask("trace", 2)
        for part in ("flow 2: FLOW_MOD add of 127.0.0.1, xid", "cookie 0x66, at ", "(hard timeout)", "\nxid 2: FEATURES_REQUEST"):
            self.assertIn(part, text)
        shown = running.ask("trace", "--xid", refused)
        self.assertRegex(shown, r"AT us +STEP us +EVENT\n +0 +0 +FLOW_MOD add received .*\n.*OFPBMC_BAD_PREREQ")
        self.assertIn("OFPFMFC_UNKNOWN", running.ask("trace", "--index", 3))
        for number in range(10, 9010):  # more than is remembered
            client.add(number)
        client.barrier()
        self.assertRegex(running.ask("trace", "--index", 2000), r"It began before the trace, which goes back to [0-9:.]+; what is older")
        for asked in (1, 99999):
            result = running.kelimctl("trace", "--index", asked)
            self.assertEqual((result.returncode, "older is forgotten" in result.stdout), (1, True))

    def test_refused_flows_are_shown_whatever_they_hold(self):
        running = self.daemon()
        refused = (
            ("tcp,nw_dst=10.0.0.0/24,actions=push_vlan:0x8100,set_field:4196->vlan_vid,output:2",
             "eth_type=0x0800,ipv4_dst=10.0.0.0/24,ip_proto=6 actions=push_vlan:0x8100,set_field:100->vlan_vid,output:2"),
            ("vlan_tci=0/0x1fff,actions=controller", "vlan_vid=none actions=output:CONTROLLER"),
            ("arp,arp_spa=1.1.1.1,actions=group:7,flood", "eth_type=0x0806,arp_spa=1.1.1.1 actions=group:7,output:FLOOD"),
        )
        for flow, _ in refused:
            self.assertIn("OFPT_ERROR", e2e.ofctl(running.port, "add-flow", flow).stderr)
        e2e.ofctl(running.port, "add-flow", refused[-1][0], options=("--bundle",))
        shown = [refusal["flow"] for refusal in running.ask_json("refusals")["refusals"]]
        head = "add table=0,priority=32768,"
        # Of the bundle what was added to it, and then its commit.
        self.assertEqual(shown[:4], [head + text for _, text in refused + refused[-1:]])

    def test_the_page_for_controllers_is_what_the_agent_tells(self):
        running = self.daemon()
        page = (pathlib.Path(__file__).parents[2] / "docs" / "openflow.md").read_text()
        self.assertEqual(page.partition("<!-- kelimctl capabilities --markdown -->\n\n")[2], running.ask("capabilities", "--markdown"))
        refused = e2e.ofctl(running.port, "add-flow", "udp,actions=output:2,output:3")
        self.assertIn("OFPBAC_TOO_MANY", refused.stderr, "this target reads entries, not lists")
        told = running.ask_json("capabilities")
        features = e2e.ofctl(running.port, "dump-table-features").stdout
        for kind in ("instructions", "actions"):
            shown = re.search(rf"^ +{kind}: (.*)$", features, re.MULTILINE)[1]
            self.assertEqual({one["name"] for one in told[kind] if one["supported"]}, set(shown.split()))

    def test_flows_are_chosen_as_ovs_ofctl_spells_them(self):
        running = self.daemon(openflow_decide_timeout_ms=600000, programmer_script="silent=@4")
        client = self.client(running, "127.0.0.9")
        for number in range(1, 4):
            client.add(number, cookie=number)
        client.barrier()
        chosen = lambda *choice: sorted(flow["index"] for flow in running.ask_json("flows", *choice)["flows"])
        for choice, indexes in (
            ("--cookie 0x2", [2]), ("--cookie 2/2", [2, 3]), ("--match tcp,nw_dst=10.0.0.3", [3]), ("--match tp_dst=2", [1]),
            ("--match dl_type=2048,nw_dst", [1, 2, 3]), ("--match udp", []),
            ("--controller 127.0.0.9", [1, 2, 3]), ("--controller 127.0.0.1", []), ("--state sent", []), ("--state installed --limit 2", [1, 2]),
        ):
            with self.subTest(choice=choice):
                self.assertEqual(chosen(*choice.split()), indexes)
        wide = running.ask("flows", "-o", "wide").splitlines()
        self.assertIn("COOKIE", wide[0])
        self.assertEqual((len(wide), {len(line) > 100 for line in wide}), (4, {True}))
        watching = self.spawn(running.bin / "kelimctl", "--run-dir", running.run_dir, "flows", "--watch", "--interval", "0.1", "--json",
                              env=running.environment, stdout=subprocess.PIPE, text=True)
        self.assertEqual([len(json.loads(watching.stdout.readline())["flows"]) for _ in range(3)], [3] * 3)
        watching.send_signal(signal.SIGINT)
        self.assertEqual(watching.wait(e2e.LIMIT), 0)
        self.assertEqual(running.kelimctl("audit").returncode, 0)
        client.add(4)  # which is never answered
        self.await_that(lambda: chosen("--state", "sent") == [4], "the flow")
        self.assertEqual(running.kelimctl("audit").returncode, 4)

    def test_the_values_in_force_and_a_reload(self):
        running = daemon.Daemon(e2e.BIN, mom_password="geheim", mom_scan_batch=7)
        running.environment["KELIM_CONF"] = f"{running.run_dir}/host.toml"
        configure = lambda text: (running.run_dir / "host.toml").write_text(text)
        configure("[log]\nlevel = 'debug'\n[programmer]\ndelay_ms = 1\n")
        self.run_until_the_end(running)
        def values():
            keys = running.ask_json("config", "--effective")["keys"]
            return {key["key"]: (key["value"], key["from"].replace(str(running.run_dir), "")) for key in keys}
        in_force = {
            "mom.password": ("***", "environment variable KELIM_MOM_PASSWORD"),
            "mom.scan_batch": ("7", "environment variable KELIM_MOM_SCAN_BATCH"), "mom.sync_timeout_ms": ("1000", "default"),
            "log.level": ("debug", "/host.toml:2"), "programmer.delay_ms": ("1", "/host.toml:4")}
        self.assertEqual({key: values()[key] for key in in_force}, in_force)
        self.assertNotIn("geheim", running.ask("config", "--effective"))

        self.assertEqual((running.ask("log", "level"), running.ask("log", "level", "warning")), ("debug\n", "warning\n"))
        self.assertEqual(values()["log.level"], ("warning", "kelimctl"))
        port = self.free_port()
        configure(f"\n[log]\nlevel = 'info'\n[programmer]\ndelay_ms = 2\n[metrics]\nlisten = '{port}'\n")
        self.assertEqual(running.command("reload", module="of_ss").splitlines(), [
            "the log level is info", f"metrics: 127.0.0.1:{port}", f"controllers: ptcp:127.0.0.1:{running.port}",
            "changed, but in force only after a restart: programmer.delay_ms"])
        in_force |= {"log.level": ("info", "/host.toml:3")}
        self.assertEqual({key: values()[key] for key in in_force}, in_force)
        self.assertEqual(running.stop(), 0)
        self.assertIn("would have", running.kelimctl("config", "--effective").stderr)

    def test_a_cut_list_is_joined_with_what_belongs_to_it_and_fits_a_hundred_columns(self):
        running = self.daemon()
        client = self.client(running)
        # The agent lists what came later in the places of what has gone; the database lists by index.
        for number in range(1, 201):
            client.add(number, priority=60000, cookie=2**64 - 1)
        client.barrier()
        for number in range(1, 101):
            client.delete(number, priority=60000)
        client.barrier()
        fields = [openflow.oxm(5, b"\x86\xdd"), openflow.oxm(10, b"\x06")]
        mask = b"\xff" * 15 + b"\xf0"
        fields += [openflow.oxm(field, bytes(range(n, n + 15)) + b"\xf0", mask) for field, n in ((26, 0), (27, 64))]
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, openflow.match(*fields)))
        for number in range(201, 250):
            client.add(number)
        for meter in range(1, 6):
            client.send(openflow.METER_MOD, openflow.meter_mod(meter, rate=1000))
        self.assertEqual(client.barrier(), [])
        client.send(openflow.FLOW_MOD, b"")
        for limit, shown in ((120, 120), (150, 150), (1000, 150)):
            with self.subTest(limit=limit):
                rows = running.ask_json("flows", "--limit", limit)["flows"]
                states = {(row["state"], row["stored"], row["answer"]) for row in rows}
                self.assertEqual(states, {("installed", True, "INSTALLED")})
                self.assertEqual(len({row["index"] for row in rows}), shown)
                text = running.ask("flows", "--limit", limit)
                self.assertEqual("120 of 150 shown" in text, limit == 120)
                self.assertEqual("the lists are cut" in text, limit == 120)
        answers = lambda: [meter["answer"] for meter in running.ask_json("meters", "--limit", 2)["meters"]]
        self.await_that(lambda: answers() == ["INSTALLED"] * 5, "every meter's answer")
        views = ("status", "flows", "meters", "groups", "controllers", "refusals", "audit", "timings", "congestion", "capabilities",
                 "trace 201")
        for view in (*views, "mom stats", "mom ls", "mom ls flow", "mom get flow 201:0"):
            with self.subTest(view=view):
                lines = running.ask(*view.split()).splitlines()
                self.assertLessEqual(max(map(len, lines)), 100, "\n".join(lines))
                running.ask_json(*view.split())


if __name__ == "__main__":
    unittest.main(verbosity=2)
