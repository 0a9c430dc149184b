"""The data plane on interfaces of network namespaces, with real packets between hosts, built byte by byte where that matters."""

import os
import pathlib
import re
import signal
import struct
import subprocess
import time
import unittest

import e2e
import daemon
import network
import openflow
import packet_table
from interfaces import UDP, OnInterfaces, frame, ipv4, udp
from packet_table import A_GROUP, ACTIONS, CONTROLLER, EXT_HEADERS, EXT_MATCHES, MATCHES, PACKETS, needed

NOBODY = 65534


class DataPlane(OnInterfaces):
    def setUp(self):
        self.one, self.two, self.three = self.network.hosts
        self.switch = self.daemon(**self.network.settings, programmer_counter_interval_ms=50)

    def connect(self):
        self.add("priority=10,in_port=1,actions=output:2", "priority=10,in_port=2,actions=output:1")

    def counted(self):
        """Returns the flows' (packets, bytes) by priority, as reported to the controller."""
        flows = e2e.ofctl(self.switch.port, "dump-flows").stdout.splitlines()
        number = lambda line, name: int(line.split(name + "=")[1].split(",")[0].split()[0])
        return {number(line, "priority"): (number(line, "n_packets"), number(line, "n_bytes")) for line in flows if "priority" in line}

    def await_counts(self, **expected):
        wanted = {int(name[1:]): counts for name, counts in expected.items()}
        self.await_that(lambda: self.counted().items() >= wanted.items(), f"{wanted} in {self.counted()}")

    def shown(self):
        lines = self.switch.command("show", module="programmer").splitlines()
        return {line.rsplit(None, 1)[0].strip(): int(line.rsplit(None, 1)[1]) for line in lines if line.strip()}

    def test_a_ping_passes_when_flows_let_it_and_every_packet_counts(self):
        self.assertEqual(self.one.ping(self.two), 0)
        self.connect()
        self.assertEqual(self.one.ping(self.two, 20), 20)
        self.await_counts(_10=(20, 20 * 98))
        self.add("priority=20,icmp,in_port=1,actions=drop")
        self.assertEqual(self.one.ping(self.two, 3), 0)
        self.await_counts(_20=(3, 3 * 98))
        self.add("priority=20,icmp,in_port=1", command="del-flows")
        self.assertEqual(self.one.ping(self.two, 20), 20)
        self.await_counts(_10=(40, 40 * 98))

    def test_a_port_that_goes_and_comes_back_forwards_again(self):
        self.connect()
        away = (  # where p2 goes, and how it comes back
            (lambda: network.run("ip", "link", "delete", "p2"), lambda: self.two.plug((1, 2, 3))),
            (lambda: self.rename(("p2", "q2")), lambda: self.rename(("q2", "p2"))),
            (self.move_away, self.move_back),
        )
        for goes, comes_back in away:
            goes()
            self.await_that(lambda: self.shown()["ports that are there"] == 2, "the port to be missed")
            self.assertEqual(self.one.ping(self.two), 0)
            comes_back()
            self.await_that(lambda: self.one.ping(self.two) == 1, "the ping behind the port that is back")

    def test_ports_that_change_while_nobody_looks_forward_as_they_are_then(self):
        self.connect()
        swap = lambda: self.rename(("p2", "q2"), ("p3", "p2"), ("q2", "p3"))
        for change, behind_port_2 in ((lambda: (self.move_away(), self.move_back()), self.two), (swap, self.three), (swap, self.two)):
            self.switch.process.send_signal(signal.SIGSTOP)
            change()
            self.switch.process.send_signal(signal.SIGCONT)
            self.await_that(lambda: self.one.ping(behind_port_2) == 1, f"the ping of host {behind_port_2.number}")

    def rename(self, *names):
        for old, new in names:
            network.run("ip", "link", "set", old, "down")
            network.run("ip", "link", "set", old, "name", new, "up")

    def move_away(self):
        network.run("ip", "link", "set", "p2", "netns", self.three.process.pid)

    def move_back(self):
        self.three.run("ip", "link", "set", "p2", "netns", os.getpid())
        network.run("ip", "link", "set", "p2", "up")

    def packet_out(self, packet, actions):
        return e2e.ofctl(self.switch.port, "packet-out", f"in_port=1 packet={packet.hex()} actions={actions}")

    def expect(self, frames, received, by_packet_out=False, **case):
        """What was sent arrives ahead of a last frame, sent the same way, which all hosts but the first get."""
        end = frame(ipv4(b"end", proto=99))
        self.packet_out(end, "all") if by_packet_out else frames[0].send(end)
        with self.subTest(by_packet_out=by_packet_out, **case):
            for number, there in enumerate(frames[1:], 2):
                wanted = [PACKETS[received[f"port {number}"]]] if f"port {number}" in received else []
                self.assertEqual(list(iter(lambda: network.receive(there), end)), wanted)
            if "port 1" in received:
                self.assertEqual(network.receive(frames[0]), PACKETS[received["port 1"]])
            if CONTROLLER in received:
                self.assertEqual(openflow.packet_in_of(self.controller.receive()).frame, PACKETS[received[CONTROLLER]])

    def test_every_field_matches_and_every_action_does_what_the_table_says(self):
        network.run("ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", 0)  # where NORMAL leads to
        self.addCleanup(network.run, "ip", "link", "delete", "br0")
        for interface in ("p1", "p2", "p3", "br0"):
            network.run("ip", "link", "set", interface, "up", *(("master", "br0") if interface != "br0" else ()))
        frames = self.sockets()
        client = self.controller = self.client(self.switch)
        self.add(A_GROUP, command="add-group")
        self.add("priority=9,in_port=1,ip,nw_proto=99,actions=all")
        for field, flow, yes, no in MATCHES:
            self.add(f"priority=5,{flow},actions=output:2")
            self.match_all(frames, yes, no, field=field, flow=flow)
            self.add(f"priority=5,{flow}", command="del-flows")
        for bits, mask, yes, no in EXT_MATCHES:
            headers = openflow.oxm(EXT_HEADERS, struct.pack("!H", bits), struct.pack("!H", mask))
            match = openflow.match(openflow.oxm(5, b"\x86\xdd"), headers)
            client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, match, openflow.apply_actions(openflow.output(2)), priority=5))
            self.assertEqual(client.barrier(), [])
            self.match_all(frames, yes, no, field="ipv6_exthdr", flow=(bits, mask))
            client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.DELETE_STRICT, match, priority=5))
            client.barrier()
        for action, actions, sent, received, also in ACTIONS:
            flow = f"priority=5,in_port=1,{needed(sent)}"
            self.add(f"{flow},actions={actions}")
            frames[0].send(PACKETS[sent])
            self.expect(frames, received, action=action, sent=sent)
            self.add(flow, command="del-flows")
            done = self.packet_out(PACKETS[sent], actions)
            self.assertEqual(done.returncode == 0 and not done.stderr, also, (action, done))
            if also:
                self.expect(frames, received, by_packet_out=True, action=action, sent=sent)

    def match_all(self, frames, yes, no, **case):
        for packets, received in ((yes, True), (no, False)):
            for name in packets:
                frames[0].send(PACKETS[name])
                self.expect(frames, {"port 2": name} if received else {}, packet=name, **case)

    def test_the_document_shows_the_table_that_was_run(self):
        shown = pathlib.Path(__file__).parents[2].joinpath("docs/dataplane.md").read_text()
        self.assertTrue(packet_table.markdown() in shown, "the output of tests/support/packet_table.py belongs there")

    # The forwarding flow is changed repeatedly while packets arrive.
    def test_a_change_under_traffic_loses_and_doubles_no_packet(self):
        self.connect()
        self.add(*(f"priority=1,ip,nw_src=10.0.0.0/{bits},actions=drop" for bits in range(20, 28)))  # enough masks for a cache
        here, there, _ = self.sockets()

        def change(n):
            self.add(f"in_port=1,actions=set_queue:{1 + n % 8},output:2", command="mod-flows")

        self.expect_every_packet(here, there, lambda data: frame(ipv4(udp(1, data))), change)

    def test_a_meter_lets_its_rate_pass(self):
        self.add("meter=1,pktps,burst,bands=type=drop,rate=200,burst_size=20", command="add-meter")
        self.add("priority=9,in_port=1,ip,nw_proto=99,actions=output:2", "priority=5,in_port=1,actions=meter:1,output:2")
        here, there, _ = self.sockets()
        begun, number = time.monotonic(), 2000
        for n in range(number):
            here.send(frame(ipv4(udp(n))))
        spent = time.monotonic() - begun
        here.send(frame(ipv4(b"end", proto=99)))
        passed = 0
        while network.receive(there)[23] == UDP:
            passed += 1
        self.assertGreaterEqual(passed, 20 + int(200 * spent * 0.9))
        self.assertLessEqual(passed, 22 + 200 * (spent + 0.01))
        self.assertEqual(self.shown()["packets dropped by a meter"], number - passed)

    def test_packets_flow_while_the_service_is_killed_and_from_what_is_stored_afterwards(self):
        self.assertEqual(self.switch.stop(), 0)
        self.switch = self.system(**self.network.settings)
        self.connect()
        self.assertEqual(self.one.ping(self.two, 5), 5)
        self.switch.process.send_signal(signal.SIGSTOP)  # the supervisor, which would restart the service at once
        self.switch.signal("kelim-programmer", signal.SIGKILL)
        self.assertEqual(self.one.ping(self.two, 5), 5)
        self.switch.process.send_signal(signal.SIGCONT)
        self.await_that(lambda: len(self.switch.pids("kelim-programmer")) == 2, "another service")
        self.await_that(lambda: "flows in the target                            2" in self.programmer(), "the flows in its table")
        self.assertEqual(self.one.ping(self.two, 5), 5)

    def programmer(self):
        return self.switch.kelimctl("--process", "kelim-programmer", "cmd", "programmer", "show").stdout

    def test_a_queue_is_a_class_of_the_output_port(self):
        self.addCleanup(network.run, "tc", "qdisc", "delete", "dev", "p2", "root")
        network.run("tc", "qdisc", "add", "dev", "p2", "root", "handle", "1:", "htb", "default", 1)
        for number in (1, 3):
            network.run("tc", "class", "add", "dev", "p2", "parent", "1:", "classid", f"1:{number}", "htb", "rate", "100mbit")
        self.add("priority=9,in_port=1,udp,actions=set_queue:3,output:2", "priority=5,in_port=1,actions=output:2")
        here, there, _ = self.sockets()
        for packet in [frame(ipv4(udp(1)))] * 3 + [frame(ipv4(b"end", proto=99))]:
            here.send(packet)
            network.receive(there)
        shown = network.run("tc", "-s", "class", "show", "dev", "p2").stdout
        sent = dict(re.findall(r"class htb (\S+).*?Sent \d+ bytes (\d+) pkt", shown, re.S))
        self.assertEqual(sent, {"1:1": "1", "1:3": "3"})

    def test_without_a_right_the_start_says_which_one_is_missing(self):
        cases = (
            ({}, "-bpf,-sys_admin", "lacks CAP_BPF"),
            ({}, "-net_raw", "lacks CAP_NET_RAW"),
            ({"ports": ""}, "-sys_boot", "1 to 256 ports"),
            ({}, "-sys_boot", "another process uses it as a port"),
        )
        for settings, dropped, named in cases:
            with self.subTest(named=named):
                running = daemon.Daemon(e2e.BIN, **{**self.network.settings, **settings})
                self.addCleanup(running.__exit__)
                running.command_line = ["setpriv", f"--bounding-set={dropped}", *running.command_line]
                process = running.spawn()
                output, _ = process.communicate(timeout=e2e.LIMIT)
                self.assertNotEqual(process.returncode, 0)
                self.assertRegex(output, f"ssc_kelim: programmer.target linux is not possible here: .*{named}.*\n$")

    def test_an_ordinary_user_needs_four_capabilities_and_no_more(self):
        self.assertEqual(self.switch.stop(), 0)
        four = "-all,+bpf,+net_admin,+net_raw,+perfmon"
        self.switch = daemon.Daemon(e2e.BIN, **self.network.settings)
        self.addCleanup(self.switch.__exit__)
        os.chown(self.switch.run_dir, NOBODY, NOBODY)
        self.let_in()
        self.switch.command_line = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", f"--inh-caps={four}",
                                    f"--ambient-caps={four}", f"--bounding-set={four}", "--no-new-privs", *self.switch.command_line]
        self.switch.__enter__()
        self.connect()
        self.assertEqual(self.one.ping(self.two, 3), 3)
        if not self.network.pinned:
            return
        self.assertEqual(self.switch.stop(), 0)
        self.switch.start()  # the embedded database has lost the flows
        self.assertEqual([self.switch.ask_json("plane")[name] for name in ("pinned", "taken_over", "dropped")], [True, 0, 2])

    def let_in(self):
        """Creates the directory for pins in a file system that belongs to root, with the command of the units' drop-in."""
        unit = pathlib.Path(__file__).parents[2].joinpath("packaging/systemd/linux-target.conf").read_text()
        command = re.search(r'^ExecStartPre=\+/bin/sh -c "(.*)"$', unit, re.M)[1]
        for ours, theirs in (("/sys/fs/bpf", self.network.pins), ("-o kelim -g kelim", f"-o {NOBODY} -g {NOBODY}")):
            self.assertIn(ours, command)
            command = command.replace(ours, theirs)
        subprocess.run(["sh", "-c", command], check=True)


if __name__ == "__main__":
    unittest.main(verbosity=2)
