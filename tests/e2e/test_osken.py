"""An os-ken controller, which nobody here wrote, makes two switches and three hosts a network. Needs python3-os-ken."""

import json
import pathlib
import shutil
import unittest

import e2e
import network
from interfaces import OnInterfaces
from traffic import ASK

APP = pathlib.Path(__file__).parents[1] / "support" / "osken_app.py"
LINK = [[1, 3], [2, 2]]  # switch and port


@unittest.skipUnless(shutil.which("osken-manager"), "osken-manager is missing (python3-os-ken)")
class OsKen(OnInterfaces):
    """Hosts 1 and 2 are on ports 1 and 2 of switch 1, host 3 on port 1 of switch 2; a cable joins port 3 of the one to 2 of the other."""

    def setUp(self):
        network.run("ip", "link", "add", "x1", "type", "veth", "peer", "name", "x2")
        self.addCleanup(network.run, "ip", "link", "delete", "x1")
        for end in ("x1", "x2"):
            network.run("ip", "link", "set", end, "up")
        port = self.free_port()
        self.switches = [self.daemon(**{**self.network.settings, "ports": ports, "openflow_datapath_id": str(number),
                                        "openflow_connect": f"tcp:127.0.0.1:{port}", "programmer_counter_interval_ms": 50})
                         for number, ports in ((1, "1:p1,2:p2,3:x1"), (2, "1:p3,2:x2"))]
        self.told = self.switches[0].run_dir / "told"
        command = ["osken-manager", "--ofp-listen-host", "127.0.0.1", "--ofp-tcp-listen-port", port, "--observe-links", APP]
        log = open(self.switches[0].run_dir / "osken", "w")
        self.addCleanup(log.close)
        self.spawn(*command, stdout=log, stderr=log, env={"PATH": "/usr/bin:/bin", "KELIM_TOLD": str(self.told)})

    def saw(self, name):
        """What the controller has said so far in lines with that name."""
        lines = self.told.read_text().split("\n")[:-1] if self.told.exists() else []  # the last one may be incomplete
        return [line for line in map(json.loads, lines) if name in line]

    def latest(self, name, switch):
        return ([line["packets"] for line in self.saw(name) if line[name] == switch] or [{}])[-1]

    def counters_agree(self):
        """The controller's latest port counters, [received, sent] by the switch, are the kernel's."""
        for switch, ports in ((1, ("p1", "p2", "x1")), (2, ("p3", "x2"))):
            for number, name in enumerate(ports, 1):
                link = json.loads(network.run("ip", "-s", "-j", "link", "show", name).stdout)[0]["stats64"]
                if self.latest("ports", switch).get(str(number)) != [link["rx"]["packets"], link["tx"]["packets"]]:
                    return False
        return True

    def test_a_learning_switch_makes_hosts_reach_each_other_over_two_switches(self):
        links = lambda: [line["link"] for line in self.saw("link")]
        self.await_that(lambda: LINK in links() and LINK[::-1] in links(), "the link between the switches, in both directions")
        hosts = self.network.hosts
        for kind in ("udp", "tcp"):
            for host in hosts:
                self.serve(host, kind)
        for kind in ("udp", "tcp"):
            for a, b in ((0, 1), (1, 2), (2, 0)):
                for switch in self.switches:  # so that the first packet is the controller's to forward
                    self.forget(switch)
                before = len(self.saw("packet"))
                answer = hosts[a].run("python3", "-c", ASK, kind, hosts[b].address).stdout
                self.assertEqual(answer, "hello\n", (kind, a, b))
                came = lambda: [(line["source"], line["to"]) for line in self.saw("packet")[before:]]
                self.await_that(lambda: (hosts[a].mac, hosts[b].mac) in came(), "the first packet at the controller")
        for a in hosts:
            for b in hosts:
                if a is not b:
                    self.assertEqual(a.ping(b, 5, wait=10), 5)
        # The controller's counters are exact: each ping either came to it or met its flow.
        pair = f"{hosts[0].mac} {hosts[1].mac}"
        for switch in self.switches:
            self.forget(switch)
        self.await_that(lambda: pair not in self.latest("flows", 1), "the flow to go")
        before = len(self.saw("packet"))
        self.assertEqual(hosts[0].ping(hosts[1], 100, wait=10), 100)
        came = lambda: [f"{line['source']} {line['to']}" for line in self.saw("packet")[before:] if line["packet"] == 1].count(pair)
        self.await_that(lambda: self.latest("flows", 1).get(pair, 0) + came() == 100, "100 packets in the controller's counters")
        self.await_that(self.counters_agree, "port counters that agree with the kernel's")

    def forget(self, switch):
        for host in self.network.hosts:
            e2e.ofctl(switch.port, "del-flows", f"dl_src={host.mac}")


if __name__ == "__main__":
    unittest.main(verbosity=2)
