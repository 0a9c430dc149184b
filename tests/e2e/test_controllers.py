"""What the daemon hears of its controllers: their configuration changed while it runs, the packet path, meters that fail."""

import json
import os
import re
import socket
import struct
import subprocess
import unittest

import daemon
import e2e
import openflow
import records
import test_database


def meter_mod(command, number, rate=1000):
    band = struct.pack("!HHII4x", 1, 16, rate, 0)
    return struct.pack("!HHI", command, 1, number) + band


class Controllers(e2e.Test):
    def configured(self, *endpoints):
        """A daemon whose controllers come from a file, which configure() changes."""
        running = daemon.Daemon(e2e.BIN)
        running.conf = running.run_dir / "host.toml"
        running.environment["KELIM_CONF"] = str(running.conf)
        del running.environment["KELIM_OPENFLOW_LISTEN"]
        self.configure(running, f"ptcp:127.0.0.1:{running.port}", *endpoints)
        running.__enter__()
        self.addCleanup(running.__exit__)
        self.addCleanup(self._end_cleanly, running)
        return running

    def configure(self, running, *endpoints):
        running.conf.write_text(f"[openflow]\nlisten = {list(endpoints)}\n")

    def counted(self, running, label):
        """The daemon's counters of that kind of southbound call."""
        shown = running.command("show-cnt", module="ssc_kelim_proxy")
        return tuple(map(int, re.search(rf"\b{label} +([\d ]+)", shown).group(1).split()))

    def assert_served(self, port):
        client = openflow.Client(port)
        self.addCleanup(client.close)
        self.assertEqual(client.handshake().barrier(), [])
        return client

    def test_endpoints_come_and_go_while_it_runs_and_with_the_last_all_that_was_asked_for(self):
        running = self.configured()
        client = self.client(running)
        client.send(openflow.METER_MOD, meter_mod(0, 5))
        for number in range(50):
            client.add(number)
        self.assertEqual(client.barrier(), [])

        reserved = daemon.Port()
        self.addCleanup(reserved.close)
        other = reserved.number
        self.configure(running, f"ptcp:127.0.0.1:{running.port}", f"ptcp:127.0.0.1:{other}")
        self.assertIn(str(other), running.command("reload", module="of_ss"))
        self.assertEqual(client.barrier(), [], "the first connection goes on")
        second = self.assert_served(other)

        self.configure(running, "ptcp:nowhere")
        refused = running.kelimctl("cmd", "of_ss", "reload")
        self.assertEqual(refused.returncode, 1)
        self.assertIn("openflow.listen", refused.stdout)
        self.assertEqual(client.barrier(), [])

        self.configure(running, f"ptcp:127.0.0.1:{other}")
        running.command("reload", module="of_ss")
        with self.assertRaises((EOFError, ConnectionResetError)):
            client.barrier()
        self.assertEqual(second.barrier(), [])
        self.assertEqual((len(self.stored(running, "flow")), len(self.stored(running, "meter"))), (50, 1))

        self.configure(running)
        running.command("reload", module="of_ss")
        daemon.wait_until(lambda: not self.stored(running, "flow") + self.stored(running, "meter"), 10, "an empty database")
        self.assertEqual(running.ask_json("flows")["flows"] + running.ask_json("meters")["meters"], [])
        self.assertEqual(running.ask_json("controllers")["endpoints"], [])
        self.assertEqual(self.counted(running, "DEL_ALL")[0], 1)

        self.configure(running, f"ptcp:127.0.0.1:{running.port}")
        running.command("reload", module="of_ss")
        again = self.assert_served(running.port)
        again.add(1)
        self.assertEqual(again.barrier(), [])
        self.assertEqual(len(self.stored(running, "flow")), 1)

    def test_the_packet_path_follows_the_roles_or_the_operator(self):
        running = self.daemon()
        before = self.counted(running, "PKT")

        def await_packets(start, end):
            wanted = (before[0] + start, before[1] + end)
            daemon.wait_until(lambda: self.counted(running, "PKT") == wanted, 10, f"packet signals {wanted}")

        client = self.client(running)
        await_packets(1, 0)
        running.command("pkt_end", module="of_ss")
        await_packets(1, 1)
        running.command("pkt_by_role", module="of_ss")
        await_packets(2, 1)
        running.command("pkt_start", module="of_ss")
        client.close()
        self.client(running).close()
        running.command("pkt_by_role", module="of_ss")
        await_packets(2, 2)

    def test_a_meter_that_fails_leaves_no_record(self):
        running = self.daemon(programmer_script="meter-fail=6")
        client = self.client(running)
        client.send(openflow.METER_MOD, meter_mod(0, 5))
        request = client.frame(openflow.METER_MOD, meter_mod(0, 6))
        client.socket.sendall(request)
        self.assert_error(client.receive(), 12, 0, request)
        daemon.wait_until(lambda: len(self.stored(running, "meter")) == 1, 10, "one meter record")
        self.assertEqual([meter["meter"] for meter in running.ask_json("meters")["meters"]], [5])

    def fill(self, running):
        client = self.client(running)
        client.send(openflow.METER_MOD, meter_mod(0, 5))
        for number in range(20):
            client.add(number)
        chained = openflow.match(openflow.oxm(0, struct.pack("!I", 1)), openflow.oxm(3, bytes.fromhex("020000000001")))
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, chained, openflow.tcp_flow(1)[1], table=1))
        self.assertEqual(client.barrier(), [])
        return client

    def test_a_flow_that_waits_for_the_service_chain_goes_with_all_others(self):
        running = self.daemon(programmer_service_chain="false", openflow_decide_timeout_ms=60000)
        client = self.client(running)
        chained = openflow.match(openflow.oxm(0, struct.pack("!I", 1)))
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, chained, openflow.tcp_flow(1)[1], table=1))
        daemon.wait_until(lambda: self.stored(running, "parse_flow"), 10, "the request to the service chain")
        client.delete_all()
        daemon.wait_until(lambda: not self.stored(running, "parse_flow"), 10, "its end")
        self.assertNotIn("flow_index", running.command("dump_ssc_all_flow_info"))

    def test_standard_output_is_seen_while_the_daemon_runs(self):
        running = self.daemon()
        running.command("kelim_set_dbg", "dbg_val=8")
        client = self.client(running)
        client.add(1)
        client.barrier()
        daemon.wait_until(lambda: "[SDN][BARRIER]" in running.output(), 10, "the line of a barrier")

    def controller_at(self, running, address):
        """A controller on this machine that comes from another address of it."""
        client = openflow.Client(running.port, source=address)
        self.addCleanup(client.close)
        return client.handshake()

    def await_addresses(self, running, *addresses):
        """Keys name an address by its number, whose first octet is the least significant."""
        wanted = {f"s_policy_kelim.onc_ip:0:{struct.unpack('<I', socket.inet_aton(address))[0]}" for address in addresses}
        daemon.wait_until(lambda: set(self.stored(running, "onc_ip")) == wanted, 20, f"the addresses {addresses}")

    def test_what_the_database_has_missed_it_learns_when_it_is_back(self):
        server = test_database.RedisServer()
        self.addCleanup(server.stop)
        running = self.daemon(mom_url=server.url, openflow_audit_interval_s=1, openflow_audit_repair="true")
        stays, goes = self.client(running), self.controller_at(running, "127.0.0.2")
        for number in (5, 6):
            stays.send(openflow.METER_MOD, meter_mod(0, number))
        self.assertEqual(stays.barrier(), [])
        self.await_addresses(running, "127.0.0.1", "127.0.0.2")

        with records.Redis(server.socket, 8) as database:
            stored = database.all("onc_ip").keys()
            os.rename(server.socket, server.socket + "-away")
            for kind in ("normal", "pubsub"):
                database.ask("CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")
            daemon.wait_until(lambda: f"database 8: {server.url}: " in running.output(), 20, "the loss")
            goes.close()
            comes = self.controller_at(running, "127.0.0.3")
            comes.send(openflow.METER_MOD, meter_mod(2, 6))
            self.assertEqual(comes.barrier(), [])
            daemon.wait_until(lambda: len(running.ask_json("controllers")["controllers"]) == 2, 20, "one to come, one to go")
            self.assertEqual((database.all("onc_ip").keys(), len(database.all("meter"))), (stored, 2))
            os.rename(server.socket + "-away", server.socket)
        self.await_addresses(running, "127.0.0.1", "127.0.0.3")
        daemon.wait_until(lambda: self.stored(running, "meter") == ["s_policy_kelim.meter:5:0"], 20, "the end of meter 6")

        self.assertEqual(running.stop(), 0)
        comes.close()
        running.start()
        self.controller_at(running, "127.0.0.4")
        self.await_addresses(running, "127.0.0.4")

    def test_the_audit_sees_what_was_lost_and_repairs_it_where_that_is_configured(self):
        server = test_database.RedisServer()
        self.addCleanup(server.stop)
        for repair in ("false", "true"):
            settings = {"openflow_audit_interval_s": 1, "openflow_audit_repair": repair}
            running = self.daemon(mom_url=server.url, **settings)
            client = self.fill(running)
            self.assertIn("what was asked for", running.ask("audit"))
            lost = sorted(self.stored(running, "flow"))[0]
            subprocess.run(["redis-cli", "-s", server.socket, "-n", "8", "DEL", lost], check=True, capture_output=True)
            index = int(lost.split(":")[1])
            if repair == "false":
                result = running.kelimctl("audit", "--json")
                self.assertEqual(result.returncode, 1)
                difference = {"kind": "flow", "number": index, "what": "is not stored"}
                self.assertEqual(json.loads(result.stdout)["differences"], [difference])
                self.assertIn(lost.split(":")[1], running.kelimctl("audit").stdout)
            else:
                daemon.wait_until(lambda: lost in self.stored(running, "flow"), 20, "the repair of what was lost")
                daemon.wait_until(lambda: running.kelimctl("audit").returncode == 0, 20, "an audit without differences")
                self.assertEqual(running.ask_json("audit")["repairs"], 1)
            client.delete_all()
            client.send(openflow.METER_MOD, meter_mod(2, 5))
            self.assertEqual(client.barrier(), [])
            self.assertEqual(running.stop(), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
