"""The life of the data plane: packets keep flowing whichever process is killed, restarted or replaced."""

import itertools
import json
import os
import signal
import struct
import subprocess
import tempfile
import unittest

import daemon
import e2e
import network
import openflow
from interfaces import OnInterfaces, Traffic, frame, ipv4, udp

TICK = 0.002  # seconds between bursts: about 10,000 packets a second
FOREIGN = 30000  # preference of a foreign filter


def between(source, destination, in_port):
    """A match on address prefixes of these lengths, and on a port unless it is 0."""
    prefix = lambda length: struct.pack("!I", ((1 << length) - 1) << (32 - length))
    port = [openflow.oxm(0, struct.pack("!I", in_port))] if in_port else []
    addresses = [openflow.oxm(field, prefix(length), prefix(length)) for field, length in ((11, source), (12, destination))]
    return openflow.match(*port, openflow.oxm(5, b"\x08\x00"), *addresses)


class Life(OnInterfaces):
    def setUp(self):
        if not self.network.pinned:
            self.skipTest("no BPF file system can be mounted")
        self.one, self.two, self.three = self.network.hosts
        for host in self.network.hosts:
            subprocess.run(["tc", "qdisc", "delete", "dev", f"p{host.number}", "clsact"], capture_output=True)
        directory = tempfile.TemporaryDirectory(prefix="kelim-")
        self.addCleanup(directory.cleanup)
        self.redis_dir, self.redis_port = directory.name, self.free_port()
        self.start_redis()

    def start_redis(self):
        """Starts a server that has each write on disk before it answers, so that it can be killed without loss."""
        self.redis = self.spawn("redis-server", "--bind", "127.0.0.1", "--port", self.redis_port, "--dir", self.redis_dir, "--save", "",
                                "--appendonly", "yes", "--appendfsync", "always", "--hz", 100, stdout=subprocess.DEVNULL)

    def begin(self, **settings):
        settings = {**self.network.settings, "mom_url": f"redis://127.0.0.1:{self.redis_port}", **settings}
        self.switch = self.system(programmer_counter_interval_ms=50, **settings)
        self.add("priority=10,in_port=1,actions=output:2", "priority=10,in_port=2,actions=output:1")

    def sockets(self):
        frames = [host.socket() for host in (self.one, self.two)]
        for each in frames:
            self.addCleanup(each.close)
        return frames

    def plane(self):
        """Returns the service's view of the plane; empty while no service runs."""
        told = self.switch.kelimctl("--process", "kelim-programmer", "plane", "--json")
        return json.loads(told.stdout) if told.returncode == 0 else {}

    def in_step(self):
        return self.plane().get("in_step") and self.plane()

    def counted(self):
        flows = e2e.ofctl(self.switch.port, "dump-flows", "in_port=1").stdout.splitlines()
        return [int(line.split("n_packets=")[1].split(",")[0]) for line in flows if "n_packets" in line]

    def kill(self, victim):
        before = {name: len(self.switch.pids(name)) for name in ("kelim-programmer", "ssc_kelim")}
        if victim == "redis-server":
            self.redis.kill()
            self.redis.wait()
            self.start_redis()
        else:
            self.switch.signal(victim, signal.SIGKILL)
        awaited = "ssc_kelim" if victim == "redis-server" else victim  # the daemon ends with its database
        self.await_that(lambda: len(self.switch.pids(awaited)) > before[awaited], f"another {awaited}")
        self.await_that(lambda: self.switch.ready() and self.in_step(), f"everything in step after the end of {victim}")

    def test_whoever_is_killed_no_packet_is_lost_or_doubled_and_every_one_counts(self):
        self.begin()
        self.add(*(f"priority=1,ip,nw_src=10.0.0.0/{bits},actions=drop" for bits in range(20, 28)))  # enough masks for a cache
        with Traffic(*self.sockets(), tick=TICK) as traffic:
            for victim in ("kelim-programmer", "ssc_kelim", "redis-server"):
                with self.subTest(victim=victim):
                    self.kill(victim)
                    told = self.plane()
                    self.assertEqual((told["taken_over"], told["written"], told["dropped"]), (10, 0, 0))
        self.assert_none_lost_or_doubled(traffic, 10_000)
        print(f"{len(traffic.got)} packets at {traffic.rate:.0f} a second ", end="", flush=True)
        self.await_that(lambda: self.counted() == [len(traffic.got)], f"{len(traffic.got)} packets in {self.counted()}")

    # A plane of another size or with other ports cannot be taken over; without pins the maps are always new.
    def test_a_plane_that_cannot_be_taken_over_forwards_until_the_next_one_is_filled(self):
        for first, then in (({}, {"programmer_size": 5000}), ({}, {"ports": "1:p1,2:p2"}), ({"programmer_pin_dir": "none"},) * 2):
            with self.subTest(first=first, then=then):
                self.begin(**first)
                with Traffic(*self.sockets(), tick=TICK) as traffic:
                    self.assertEqual(self.switch.stop(), 0)
                    self.switch.environment |= {f"KELIM_{key.upper()}": str(value) for key, value in then.items()}
                    self.switch.start()
                    told = self.await_that(self.in_step, "the next plane")
                    self.assertEqual((told["taken_over"], told["written"], told["pinned"]), (0, 2, "programmer_pin_dir" not in then))
                self.assert_none_lost_or_doubled(traffic, 1000)
                left = "kelim_plane" in network.run("tc", "filter", "show", "dev", "p3", "ingress").stdout
                self.assertEqual(left, "ports" not in then, "p3 is a port no more")
                if "programmer_pin_dir" in then:
                    self.assertRegex(self.switch.output(), "not pinned: programmer.pin_dir is none")
                self.assertEqual(e2e.ofctl(self.switch.port, "del-flows").returncode, 0)
                self.assertEqual(self.switch.stop(), 0)

    def test_what_changed_while_nobody_was_there_is_all_that_is_touched(self):
        self.begin()
        self.add("meter=1,pktps,bands=type=drop,rate=5", command="add-meter")
        self.add("priority=20,in_port=3,actions=meter:1,output:1", "priority=30,udp,in_port=1,actions=drop")
        here, there = self.sockets()
        self.switch.process.send_signal(signal.SIGSTOP)  # the supervisor, which would restart the service at once
        self.switch.signal("kelim-programmer", signal.SIGKILL)
        before = set(self.stored(self.switch, "flow"))
        self.ask("--strict", "del-flows", "priority=30,udp,in_port=1")
        self.ask("add-flow", "priority=40,tcp,in_port=1,actions=drop")
        self.await_that(lambda: len(set(self.stored(self.switch, "flow")) ^ before) == 2, "the records as they are now")
        packet = frame(ipv4(udp(1)))
        here.send(packet)
        self.assertEqual(self.one.ping(self.two, 3), 3)
        self.assertEqual(network.receive(there)[23], 1)  # ICMP: the ping, with no datagram before it
        self.switch.process.send_signal(signal.SIGCONT)
        told = self.await_that(self.in_step, "the service that comes back")
        self.assertEqual((told["taken_over"], told["written"], told["dropped"]), (3, 1, 1))
        self.await_that(lambda: here.send(packet) and self.next_is(there, packet), "datagrams, whose flow has gone")

    # There are only 1,024 masks, so that the new flows have no room beside the old ones; still none is refused.
    def test_what_has_room_only_when_the_old_has_gone_waits_for_that(self):
        self.begin(openflow_capacity=4000, openflow_decide_timeout_ms=e2e.LIMIT * 1000)
        lengths = list(itertools.product(range(1, 33), range(1, 32)))
        add = lambda client, in_port: [
            client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, between(source, destination, in_port)))
            for source, destination in lengths]
        client = self.client(self.switch)
        client.delete_all()
        add(client, 0)
        self.assertEqual(client.barrier(), [])
        self.switch.process.send_signal(signal.SIGSTOP)  # the supervisor, which would restart the service at once
        self.switch.signal("kelim-programmer", signal.SIGKILL)
        client.delete_all()
        before = set(self.stored(self.switch, "flow_sta"))
        add(client, 3)
        self.await_that(lambda: len(set(self.stored(self.switch, "flow")) - before) == len(lengths), "the records of the new flows")
        self.switch.process.send_signal(signal.SIGCONT)
        self.assertEqual(client.barrier(), [])
        told = self.await_that(self.in_step, "the service that comes back")
        self.assertEqual((told["taken_over"], told["written"], told["dropped"]), (0, len(lengths), len(lengths)))
        self.assertNotIn("refused: ", self.switch.kelimctl("--process", "kelim-programmer", "cmd", "programmer", "show").stdout)

    def ask(self, *words):
        """Starts ovs-ofctl with a request and does not wait for its answer."""
        words = [f"tcp:127.0.0.1:{self.switch.port}" if word is None else word for word in (*words[:-1], None, words[-1])]
        self.spawn("ovs-ofctl", "-O", "OpenFlow13", *words)

    def next_is(self, there, packet):
        there.settimeout(0.05)
        try:
            return network.receive(there) == packet
        except TimeoutError:
            return False

    def test_a_plane_has_one_service(self):
        self.begin()
        self.assertEqual(self.plane()["pins"], self.pins())
        second = daemon.Daemon(e2e.BIN, **{**self.network.settings, "run_dir": self.switch.run_dir, "ports": "7:nothing"})
        self.addCleanup(second.__exit__)
        self.switch.signal("ssc_kelim", signal.SIGSTOP)
        for words in ((), ("--release",)):
            second.command_line = [second.bin / "kelim-programmer", *words]
            output, _ = (process := second.spawn()).communicate(timeout=e2e.LIMIT)
            self.assertEqual((process.returncode, output.count("\n")), (1, 1), output)
        self.switch.signal("ssc_kelim", signal.SIGCONT)

    def pins(self):
        """Returns the directory in which the switch's plane is pinned."""
        name = "".join(c if c.isalnum() else "-" if c == "/" else f"_{ord(c):02x}" for c in str(self.switch.run_dir).lstrip("/"))
        return f"{self.network.settings['programmer_pin_dir']}/{name}"

    def test_everything_is_taken_out_but_what_is_other_peoples(self):
        network.run("tc", "qdisc", "add", "dev", "p1", "clsact")
        network.run("tc", "filter", "add", "dev", "p1", "ingress", "pref", FOREIGN, "protocol", "ip", "u32", "match", "u32", 0, 0)
        self.addCleanup(network.run, "tc", "qdisc", "delete", "dev", "p1", "clsact")
        self.begin()
        named = f"interface p1 has a tc filter of another program on its ingress (pref {FOREIGN}, u32)"
        self.assertEqual(self.switch.output().count(named), 1)
        ports = {port["interface"]: port["others"] for port in self.plane()["ports"]}
        self.assertEqual(ports, {"p1": [{"direction": "ingress", "pref": FOREIGN, "name": "u32"}], "p2": [], "p3": []})
        shown = self.switch.kelimctl("--process", "kelim-programmer", "plane").stdout
        self.assertRegex(shown, f"pinned in {self.pins()}, in step(.*\\n)*.* 1  p1 +forwards +ingress pref {FOREIGN} u32")
        self.assertEqual(self.switch.stop(), 0)
        self.assertEqual(self.one.ping(self.two), 1)
        self.assertTrue(os.path.isdir(self.pins()))
        release = lambda: subprocess.run([self.switch.bin / "kelim-programmer", "--release"], env=self.switch.environment,
                                         capture_output=True, text=True, timeout=e2e.LIMIT)
        powerless = subprocess.run(["setpriv", "--bounding-set=-net_admin", self.switch.bin / "kelim-programmer", "--release"],
                                   env=self.switch.environment, capture_output=True, text=True, timeout=e2e.LIMIT)
        self.assertEqual((powerless.returncode, powerless.stderr), (1, "kelim-programmer: the process lacks CAP_NET_ADMIN\n"))
        done = release()
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(done.stdout.splitlines(), [*(f"interface p{n} is no longer a port" for n in (1, 2, 3)), f"{self.pins()} removed"])
        self.assertFalse(os.path.exists(self.pins()))
        for port, filters in (("p1", 1), ("p2", 0), ("p3", 0)):
            shown = network.run("tc", "filter", "show", "dev", port, "ingress").stdout
            self.assertEqual((shown.count("kelim"), shown.count(f"pref {FOREIGN} u32 chain 0 fh 800::")), (0, filters), shown)
            self.assertEqual("clsact" in network.run("tc", "qdisc", "show", "dev", port).stdout, bool(filters))
            self.assertNotIn("PROMISC", network.run("ip", "link", "show", port).stdout)
        self.assertEqual(self.one.ping(self.two), 0)
        self.assertEqual(release().stdout, "there is nothing to remove\n")


if __name__ == "__main__":
    unittest.main(verbosity=2)
