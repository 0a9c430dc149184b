"""The daemon and its controllers: endpoints reconfigured while it runs, look-ups of names, the packet path, stored addresses."""

import os
import re
import select
import signal
import socket
import struct
import subprocess
import unittest

import daemon
import e2e
import openflow


class Controllers(e2e.Test):
    def listen(self, running, *ports):
        """Changes the ports for controllers in the configuration file and has it reloaded; returns the daemon's answer."""
        (running.run_dir / "host.toml").write_text(f"[openflow]\nlisten = {[f'ptcp:127.0.0.1:{port}' for port in ports]}\n")
        return running.kelimctl("cmd", "of_ss", "reload")

    def counted(self, running, label):
        """Returns the daemon's counters of that kind of southbound call."""
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

        reserved = self.free_port()
        self.assertIn(str(reserved), self.listen(running, running.port, reserved).stdout)
        with openflow.Client(reserved) as second:
            self.assertEqual(second.handshake().barrier(), [])
            refused = self.listen(running, "nowhere")
            self.assertEqual(refused.returncode, 1)
            self.assertIn("openflow.listen", refused.stdout)
            self.assertEqual(client.barrier(), [], "the first connection goes on")
            self.listen(running, reserved)
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
        taken = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(taken.close)
        running = daemon.Daemon(e2e.BIN, openflow_connect=f"tcp:127.0.0.1:{self.free_port()},tcp:no-such.invalid:1,ssl:127.0.0.1:1")
        running.environment["KELIM_OPENFLOW_LISTEN"] += f",ptcp:127.0.0.1:{taken.getsockname()[1]},ptcp:localhost:1"
        self.run_until_the_end(running)
        states = lambda: [(row["state"], row["error"]) for row in running.ask_json("controllers")["endpoints"]]
        self.await_that(lambda: {state for state, _ in states()[3:5]} == {"failing"}, "what cannot be connected to")
        found = states()
        self.assertRegex(found.pop(4)[1], "^the host has no address: ")
        self.assertEqual(found, [
            ("listening", ""),
            ("failing", "Address already in use"),
            ("unusable", '"localhost" is no numeric address such as 0.0.0.0 or [::]; names are allowed for tcp: and ssl: only'),
            ("failing", "Connection refused"),
            ("unusable", "TLS needs openflow.tls_cert and openflow.tls_key"),
        ])

    def name_server(self, running):
        """Gives the daemon the test's own /etc/hosts and name server; returns the server's socket, which the test must serve."""
        server = socket.socket(type=socket.SOCK_DGRAM)
        self.addCleanup(server.close)
        address = f"127.{os.getpid() >> 8 & 255}.{os.getpid() & 255}.53"
        try:
            server.bind((address, 53))
            subprocess.run(["unshare", "--mount", "true"], check=True, capture_output=True)
        except (OSError, subprocess.CalledProcessError) as why:
            self.skipTest(f"needs a name server and a mount name space of its own: {why}")
        (running.run_dir / "resolv.conf").write_text(f"nameserver {address}\noptions timeout:30\n")
        (running.run_dir / "hosts").write_text("127.0.0.1 in-hosts.example\n")
        mounts = "".join(f"mount --bind {running.run_dir}/{name} /etc/{name} && " for name in ("resolv.conf", "hosts"))
        running.command_line = ["unshare", "--mount", "sh", "-c", mounts + 'exec "$0"', *running.command_line]
        server.settimeout(0.1)
        return server

    def resolve(self, server, address=b""):
        """Answers one waiting query, if any: with the IPv4 address, or that the name does not exist."""
        try:
            question, asker = server.recvfrom(512)
        except TimeoutError:
            return
        found = b"\xc0\x0c\0\1\0\1\0\0\0\0\0\4" + address if address and question[-4:-2] == b"\0\1" else b""
        header = struct.pack("!HHHHH", 0x8180 if address else 0x8183, 1, bool(found), 0, 0)
        server.sendto(question[:2] + header + question[12:] + found, asker)

    def test_looking_up_names_holds_nothing_up_and_is_tried_again(self):
        running = daemon.Daemon(e2e.BIN)
        running.environment["KELIM_CONF"] = f"{running.run_dir}/host.toml"
        server = self.name_server(running)
        controller = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(controller.close)
        port = controller.getsockname()[1]
        connect = lambda *names: (running.run_dir / "host.toml").write_text(
            f"[openflow]\nconnect = {[f'tcp:{name}:{port}' for name in names]}\n")
        states = lambda: [(row["state"], row["error"]) for row in running.ask_json("controllers")["endpoints"]][1:]
        connect()
        self.run_until_the_end(running)

        connect("in-hosts.example")
        self.assertEqual(running.kelimctl("cmd", "of_ss", "reload").returncode, 0)
        accepted = controller.accept()[0]
        self.addCleanup(accepted.close)
        accepted.sendall(struct.pack("!BBHI", 4, 0, 8, 1))
        self.await_that(lambda: states() == [("connected", "")], "the controller of /etc/hosts")

        connect("in-hosts.example", "elsewhere.example")
        self.assertEqual(running.kelimctl("cmd", "of_ss", "reload").returncode, 0)
        self.await_that(lambda: select.select([server], [], [], 0)[0], "the question for the name")
        self.assertEqual(states(), [("connected", ""), ("connecting", "")], "the question is not answered yet")
        failing = lambda: self.resolve(server) or states()[1][0] == "failing"
        self.await_that(failing, "the answer that there is no such name")
        self.assertRegex(states()[1][1], "^the host has no address: ")
        controller.settimeout(0)
        def found():
            self.resolve(server, socket.inet_aton("127.0.0.1"))
            return select.select([controller], [], [], 0)[0]
        self.await_that(found, "a connection by the name that there is now")

        connect("third.example")  # the daemon is to end during this look-up
        self.assertEqual(running.kelimctl("cmd", "of_ss", "reload").returncode, 0)
        self.await_that(lambda: select.select([server], [], [], 0)[0], "the question for the last name")

    def await_addresses(self, running, *addresses):
        """Waits for the stored addresses; keys hold an address as a number with the first octet as the least significant."""
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
