"""A client that nobody here wrote: ovs-ofctl."""

import re
import subprocess
import unittest

import e2e


class OvsOfctl(e2e.Test):
    def setUp(self):
        self.running = self.daemon()

    def ofctl(self, command, *arguments, stdin=None):
        result = subprocess.run(
            ["ovs-ofctl", "-O", "OpenFlow13", command, f"tcp:127.0.0.1:{self.running.port}", *arguments],
            input=stdin, capture_output=True, text=True, timeout=60,
        )
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def dumped(self):
        return [line for line in self.ofctl("dump-flows").splitlines() if "table=" in line]

    def test_flows_come_back_as_they_were_sent(self):
        flows = [
            "priority=10,in_port=1 actions=output:2",
            "priority=20,ip,nw_dst=10.1.0.0/16 actions=output:3",
            "priority=30,tcp6,ipv6_dst=2001:db8::/32,tp_dst=443 actions=CONTROLLER:65535",
            "priority=40,dl_vlan=7 actions=set_field:4104->vlan_vid,output:4",
            "priority=50,icmp,icmp_type=8 actions=drop",
        ]
        self.ofctl("add-flows", "-", stdin="".join(flow.replace(" ", ",") + "\n" for flow in flows))
        self.assertEqual(sorted(re.sub(r".*(priority=.*)", r"\1", line) for line in self.dumped()), flows)

    def test_six_hundred_flows_are_dumped_whole(self):
        client = self.client(self.running)
        for number in range(600):
            client.add(number)
        self.assertEqual(client.barrier(), [])
        self.assertEqual(len(set(self.dumped())), 600)
        self.ofctl("del-flows")
        self.assertEqual(self.dumped(), [])
        self.assert_nothing_left(self.running)


if __name__ == "__main__":
    unittest.main(verbosity=2)
