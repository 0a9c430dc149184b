"""The outcome of a flow is reported to the controller that requested it."""

import re
import signal
import subprocess
import unittest

import daemon
import e2e
import openflow


class Results(e2e.Test):
    def test_a_flow_that_fails_later_gives_one_error_to_its_controller_and_leaves_nothing(self):
        running = self.daemon(programmer_script="fail=@1;delay=@1:120")
        other, client = self.client(running), self.client(running)
        request = client.frame(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, *openflow.tcp_flow(7)))
        client.socket.sendall(request)
        (error,) = client.barrier()
        self.assertEqual((error.type, error.xid), (openflow.ERROR, client.xid - 1))
        name, data = openflow.error_of(error)
        self.assertEqual((name, data[:64]), ("OFPFMFC_UNKNOWN", request[:64]))
        for record in ("flow", "flow_sta", "flow_counter"):
            self.assertEqual(self.stored(running, record), [], record)
        self.assertEqual(running.command("dump_ssc_all_flow_info").strip(), "")
        self.assertIn("msg queue is empty", running.command("dump_ssc_sdn_msg_queue"))
        self.assertEqual(client.barrier() + other.barrier(), [])

    def test_flows_that_do_not_fit_any_more_are_tried_again_and_then_reported(self):
        running = daemon.System(e2e.BIN)
        (running.run_dir / "ssc_kelim").symlink_to(f"{e2e.BIN}/ssc_kelim")
        service, size = running.run_dir / "kelim-programmer", running.run_dir / "size"
        service.write_text(f'#!/bin/sh\nexec {e2e.BIN}/kelim-programmer --size "$(cat {size})"\n')
        service.chmod(0o700)
        running.command_line[1] = running.run_dir
        size.write_text("10")
        client = self.client(self.run_until_the_end(running))
        for number in range(10):
            client.add(number)
        self.assertEqual(client.barrier(), [])
        size.write_text("7")
        running.signal("kelim-programmer", signal.SIGKILL)
        self.assertEqual([client.receive().type for _ in range(3)], [openflow.FLOW_REMOVED] * 3)
        self.assertEqual((len(self.stored(running, "flow")), len(running.ask_json("flows")["flows"])), (7, 7))

    def test_a_bundle_is_carried_out_whole_or_not_at_all(self):
        running = self.daemon(programmer_script="fail=@900")

        def bundle(command, port, *more, count=600):
            flows = [f"tcp,nw_dst=10.0.{n >> 8}.{n & 255},tp_dst=80,actions=output:{port}" for n in range(count)]
            return e2e.ofctl(running.port, command, "-", options=["--bundle"], stdin="\n".join([*flows, *more]))

        def views():
            shown = e2e.ofctl(running.port, "dump-flows", options=["--no-stats"]).stdout
            target = running.command("flows", module="programmer").split()
            return sorted(re.findall(r"nw_dst=\S+ actions=output:\d+", shown)), sorted(self.stored(running, "flow")), sorted(target)

        self.assertEqual(bundle("add-flows", 1).returncode, 0)
        before = views()
        self.assertEqual([len(view) for view in before], [600] * 3)
        for error, more in (("OFPBAC_BAD_OUT_GROUP", ["actions=group:7"]), ("OFPFMFC_UNKNOWN", [])):
            result = bundle("replace-flows", 2, *more, count=500)
            self.assertEqual(result.returncode, 1)
            self.assertIn(f"{error} for: OFPT_FLOW_MOD", result.stderr)
            self.await_that(lambda: views() == before, f"the flows as they were before {error}")
        # A flow added and deleted within the bundle, a changed one, and the deletion of all earlier flows.
        more = ["delete_strict priority=32768,tcp,nw_dst=10.0.0.1,tp_dst=80", "modify tcp,nw_dst=10.0.0.2,actions=output:4"]
        flows = ["delete", *(f"add tcp,nw_dst=10.0.0.{n},tp_dst=80,actions=output:3" for n in range(50)), *more]
        self.assertEqual(e2e.ofctl(running.port, "add-flows", "-", options=["--bundle"], stdin="\n".join(flows)).returncode, 0)
        self.await_that(lambda: [len(view) for view in views()] == [49] * 3, "49 flows everywhere")
        self.assertEqual([flow for flow in views()[0] if "output:3" not in flow], ["nw_dst=10.0.0.2,tp_dst=80 actions=output:4"])

    def test_ovs_ofctl_watches_the_flows(self):
        running = self.daemon(programmer_script="fail=@3")
        command = lambda *words, **more: e2e.ofctl(running.port, *words, **more)
        command("add-flow", "priority=1,actions=drop")
        words = ["ovs-ofctl", "-O", "OpenFlow13", "monitor", f"tcp:127.0.0.1:{running.port}", "watch:out_port=7", "watch:ip",
                 f"--unixctl={running.run_dir}/ofctl"]
        monitor = self.spawn(*words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertIn("ONFST_FLOW_MONITOR reply", monitor.stdout.readline())
        command("add-flow", "udp,nw_dst=10.0.0.2,hard_timeout=60,cookie=5,actions=output:7")
        self.assertIn("OFPFMFC_UNKNOWN", command("add-flow", "tcp,actions=output:2").stderr)
        command("add-flow", "arp,actions=output:2")
        bundle = ["add priority=1,actions=output:7", "delete udp", "add ip,actions=drop"]
        self.assertEqual(command("add-flows", "-", options=["--bundle"], stdin="\n".join(bundle)).returncode, 0)
        command("mod-flows", "ip,actions=output:3")
        command("mod-flows", "priority=1,actions=output:3", options=["--strict"])
        command("del-flows")
        events = []
        while len(events) < 9:
            line = monitor.stdout.readline()
            events += re.findall(r"event=(.*) table=0 (?:cookie=0 )?(.*)", line)
        udp, gone = "hard_timeout=60 cookie=0x5 udp,nw_dst=10.0.0.2 actions=output:7", "DELETED reason=delete"
        self.assertEqual(events, [
            ("ADDED", udp), ("ADDED", "tcp actions=output:2"), (gone, "tcp actions=output:2"),
            ("ADDED", "actions=output:7"), (gone, udp), ("ADDED", "ip"),
            ("MODIFIED", "ip actions=output:3"), ("MODIFIED", "actions=output:3"), (gone, "ip actions=output:3"),
        ])

    def test_a_flow_that_waits_for_the_service_chain_goes_with_all_others(self):
        running = self.daemon(programmer_service_chain="false", openflow_decide_timeout_ms=60000)
        client = self.client(running)
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, *openflow.tcp_flow(1), table=1))
        self.await_that(lambda: self.stored(running, "parse_flow"), "the request to the service chain")
        client.delete_all()
        self.await_that(lambda: not self.stored(running, "parse_flow"), "its end")
        self.assertNotIn("flow_index", running.command("dump_ssc_all_flow_info"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
