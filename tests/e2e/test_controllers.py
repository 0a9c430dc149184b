"""What the daemon hears of its controllers: their configuration changed while it runs, the packet path, who is there."""

import os
import re
import signal
import socket
import struct
import unittest

import daemon
import e2e
import openflow


class Controllers(e2e.Test):
    def listen(self, running, *ports):
        """Changes the file that names the ports for controllers, and has it read; what the daemon says."""
        (running.run_dir / "host.toml").write_text(f"[openflow]\nlisten = {[f'ptcp:127.0.0.1:{port}' for port in ports]}\n")
        return running.kelimctl("cmd", "of_ss", "reload")

    def counted(self, running, label):
        """The daemon's counters of that kind of southbound call."""
        shown = running.command("show-cnt", module="ssc_kelim_proxy")
        return tuple(map(int, re.search(rf"\b{label} +([\d ]+)", shown).group(1).split()))

    def test_endpoints_come_and_go_while_it_runs_and_what_was_asked_for_stays_without_any(self):
        running = daemon.Daemon(e2e.BIN)
        running.environment["KELIM_CONF"] = f"{running.run_dir}/host.toml"
        del running.environment["KELIM_OPENFLOW_LISTEN"]
        self.listen(running, running.port)
        client = self.client(self.run_until_the_end(running))
        client.send(openflow.METER_MOD, openflow.meter_mod(5, rate=1000))
        for number in range(50):
            client.add(number)
        self.assertEqual(client.barrier(), [])
        left = lambda: (len(self.stored(running, "flow")), len(self.stored(running, "meter")))

        reserved = daemon.Port()
        self.addCleanup(reserved.close)
        self.assertIn(str(reserved.number), self.listen(running, running.port, reserved.number).stdout)
        with openflow.Client(reserved.number) as second:
            self.assertEqual(second.handshake().barrier(), [])
            refused = self.listen(running, "nowhere")
            self.assertEqual(refused.returncode, 1)
            self.assertIn("openflow.listen", refused.stdout)
            self.assertEqual(client.barrier(), [], "the first connection goes on")
            self.listen(running, reserved.number)
            with self.assertRaises((EOFError, ConnectionResetError)):
                client.barrier()
            self.assertEqual(second.barrier(), [])
            self.assertEqual(left(), (50, 1))
            self.assertIn("flows and meters stay", self.listen(running).stdout)
        self.assertEqual(running.ask_json("controllers")["endpoints"], [])
        self.assertEqual((left(), len(running.ask_json("flows")["flows"])), ((50, 1), 50))
        self.listen(running, running.port)
        self.assertEqual(self.client(running).barrier(), [])
        self.assertEqual(left(), (50, 1))
        running.command("forget_everything", module="of_ss")
        self.await_that(lambda: left() == (0, 0), "an empty database")
        self.assertEqual((running.ask_json("flows")["flows"], self.counted(running, "DEL_ALL")[0]), ([], 1))

    def test_it_says_what_has_become_of_each_endpoint(self):
        taken, nobody = socket.create_server(("127.0.0.1", 0)), daemon.Port()
        self.addCleanup(taken.close)
        self.addCleanup(nobody.close)
        running = daemon.Daemon(e2e.BIN, openflow_connect=f"tcp:127.0.0.1:{nobody.number},tcp:no-such.invalid:1,ssl:127.0.0.1:1")
        running.environment["KELIM_OPENFLOW_LISTEN"] += f",ptcp:127.0.0.1:{taken.getsockname()[1]}"
        self.run_until_the_end(running)
        states = lambda: [(row["state"], row["error"]) for row in running.ask_json("controllers")["endpoints"]]
        self.await_that(lambda: states()[2] == ("failing", "Connection refused"), "the refused connection")
        found = states()
        self.assertRegex(found.pop(3)[1], "^the host has no address: ")
        self.assertEqual(found, [
            ("listening", ""),
            ("failing", "Address already in use"),
            ("failing", "Connection refused"),
            ("unusable", "TLS needs openflow.tls_cert and openflow.tls_key"),
        ])

    def test_the_packet_path_follows_the_roles_or_the_operator(self):
        running = self.daemon()
        starts, ends = self.counted(running, "PKT")
        client = self.client(running)
        for command, more_starts, more_ends in ((None, 1, 0), ("pkt_end", 1, 1), ("pkt_by_role", 2, 1), ("pkt_start", 2, 1)):
            if command:
                running.command(command, module="of_ss")
            self.await_that(lambda: self.counted(running, "PKT") == (starts + more_starts, ends + more_ends), command)
        client.close()
        self.client(running).close()
        running.command("pkt_by_role", module="of_ss")
        self.await_that(lambda: self.counted(running, "PKT") == (starts + 2, ends + 2), "the end with the last controller")

    def await_addresses(self, running, *addresses):
        """Keys name an address by its number, whose first octet is the least significant."""
        wanted = {f"s_policy_kelim.onc_ip:0:{struct.unpack('<I', socket.inet_aton(address))[0]}" for address in addresses}
        self.await_that(lambda: set(self.stored(running, "onc_ip")) == wanted, f"the addresses {addresses}")

    def test_what_the_database_has_missed_it_learns_when_it_is_back(self):
        running = self.system(openflow_audit_interval_s=1, openflow_audit_repair="true")
        stays, goes = self.client(running), self.client(running, "127.0.0.2")
        for number in (5, 6):
            stays.send(openflow.METER_MOD, openflow.meter_mod(number, rate=1000))
        self.assertEqual(stays.barrier(), [])
        self.await_addresses(running, "127.0.0.1", "127.0.0.2")

        away = running.socket + "-away"
        os.rename(running.socket, away)
        for kind in ("normal", "pubsub"):
            e2e.redis(away, "CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")
        self.await_that(lambda: "database 8: redis" in running.output(), "the loss")
        goes.close()
        comes = self.client(running, "127.0.0.3")
        comes.send(openflow.METER_MOD, struct.pack("!HHI", 2, 1, 6))
        self.assertEqual(comes.barrier(), [])
        os.rename(away, running.socket)
        self.await_addresses(running, "127.0.0.1", "127.0.0.3")
        self.await_that(lambda: self.stored(running, "meter") == ["s_policy_kelim.meter:5:0"], "the end of meter 6")

        running.signal("ssc_kelim", signal.SIGKILL)
        self.await_that(lambda: len(running.pids("ssc_kelim")) == 2 and running.ready(), "another daemon")
        self.assertEqual([meter["meter"] for meter in running.ask_json("meters")["meters"]], [5])


if __name__ == "__main__":
    unittest.main(verbosity=2)
