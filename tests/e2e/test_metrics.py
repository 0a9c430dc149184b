"""Monitoring over HTTP: /metrics agrees with what was done, and bad requests and idle clients are dealt with."""

import http.client
import shutil
import signal
import socket
import subprocess
import sys
import unittest

sys.path.append("/usr/lib/python3/dist-packages")  # of Debian's package, for other Python installations
from prometheus_client.parser import text_string_to_metric_families

import e2e
import openflow


class Metrics(e2e.Test):
    def ask(self, port, path, method="GET", **how):
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=e2e.LIMIT)
        self.addCleanup(connection.close)
        connection.request(method, path, **how)
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read().decode()

    def scrape(self, port):
        """Returns the samples by name and label values; the text must follow the rules of the format."""
        status, headers, text = self.ask(port, "/metrics")
        self.assertEqual((status, headers["Content-Type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
        if shutil.which("promtool"):
            checked = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
            self.assertEqual((checked.returncode, checked.stderr), (0, ""))
        families = list(text_string_to_metric_families(text))
        self.assertEqual(len({family.name for family in families}), len(families), "each family once")
        for family in families:
            self.assertTrue(family.documentation and family.type != "unknown", family)
            self.assertRegex(family.name, "^(kelim|process)_[a-z0-9_]+$")
            self.assertNotRegex(family.name, "_(ms|us|kib|total)$", "base units; the parser takes _total off counters alone")
            for sample in family.samples:
                self.assertEqual(sample.name.endswith("_total"), family.type == "counter", sample)
        return {(sample.name, *sample.labels.values()): sample.value for family in families for sample in family.samples}

    def test_what_was_done_is_what_is_counted(self):
        port = self.free_port()
        running = self.daemon(metrics_listen=port, programmer_script="fail=@2", programmer_counter_interval_ms=0)
        client = self.client(running)
        for number in range(1, 5):
            client.add(number)
        client.delete(1)
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, openflow.match(openflow.oxm(11, bytes(4)))))
        self.assertEqual(len(client.barrier()), 2)
        client.barrier()
        found = self.scrape(port)
        endpoint = f"ptcp:127.0.0.1:{running.port}"
        for sample, value in {
            ("kelim_flows", "installed"): 2, ("kelim_flows", "sent"): 0, ("kelim_flows_added_total",): 4,
            ("kelim_flows_removed_total",): 1, ("kelim_flows_failed_total",): 1, ("kelim_undecided",): 0,
            ("kelim_refusals_total", "OFPBMC_BAD_PREREQ"): 1, ("kelim_failures_total", "OFPFMFC_UNKNOWN"): 1,
            ("kelim_flow_install_seconds_count",): found["kelim_flows_installed_total",], ("kelim_barrier_seconds_count",): 2,
            ("kelim_barrier_seconds_bucket", "+Inf"): 2, ("kelim_controllers", endpoint): 1, ("kelim_openflow_up",): 1,
            ("kelim_controller_sent_errors_total", endpoint): 2, ("kelim_database_up", "8"): 1,
            ("kelim_programmer_flows",): 2, ("kelim_programmer_answers_total", "failed"): 1,
            ("kelim_programmer_flows_removed_total",): 2, ("kelim_log_lines_dropped_total",): 0,
        }.items():
            self.assertEqual(found.get(sample), value, sample)
        self.assertGreaterEqual(found["kelim_database_writes_total", "8", "s_policy_kelim.flow_sta"], 4)
        self.assertGreater(found["kelim_drain_seconds_count",], 0)
        self.assertGreater(found["kelim_drain_seconds_sum",], 0)
        received = ("kelim_controller_received_messages_total", endpoint)
        client.close()
        self.await_that(lambda: self.scrape(port)["kelim_controllers", endpoint] == 0, "the controller's end")
        self.assertGreaterEqual(self.scrape(port)[received], found[received], "those of connections that have gone count on")

    def test_whoever_asks_otherwise_gets_an_answer_and_holds_nobody_up(self):
        port = self.free_port()
        self.daemon(metrics_listen=f"127.0.0.1:{port}")
        status, headers, text = self.ask(port, "/metrics", "HEAD")
        self.assertEqual((status, text), (200, ""))
        self.assertGreater(int(headers["Content-Length"]), 1000)
        for method, path, how, expected in (
            ("GET", "/", {}, 404), ("GET", "/healthz", {}, 200), ("GET", "/readyz?verbose", {}, 200), ("POST", "/metrics", {}, 405),
            ("DELETE", "/healthz", {}, 405), ("POST", "/metrics", {"body": b"x" * 100000}, 413),
            ("GET", "/metrics", {"headers": {"X": "y" * 10000}}, 400),
        ):
            with self.subTest(method=method, path=path):
                self.assertEqual(self.ask(port, path, method, **how)[0], expected)
        idle = [socket.create_connection(("127.0.0.1", port)) for _ in range(40)]
        late = socket.create_connection(("127.0.0.1", port))
        late.sendall(b"GET /healthz HTTP/1.0\r\n\r\n")
        late.settimeout(0.3)
        self.assertRaises(TimeoutError, late.recv, 1)  # waits behind 16 idle connections
        for connection in idle:
            connection.close()
        late.settimeout(e2e.LIMIT)
        self.assertIn(b"200", late.recv(100))
        late.close()

    def test_a_port_that_is_taken_is_named_and_tried_again(self):
        taken = socket.create_server(("127.0.0.1", 0))
        port = taken.getsockname()[1]
        running = self.daemon(metrics_listen=port)
        self.assertEqual(running.output().count(f"metrics cannot be served on 127.0.0.1:{port}: Address already in use"), 1)
        self.assertIn("Address already in use", running.ask("status"))
        taken.close()
        self.await_that(lambda: f"metrics are served on 127.0.0.1:{port}" in running.output(), "the port")
        self.assertEqual(self.ask(port, "/readyz")[0], 200)

    def test_the_programming_service_and_a_database_that_is_away(self):
        own, programmers = self.free_port(), self.free_port()
        running = self.system(metrics_listen=own, metrics_programmer_listen=programmers)
        client = self.client(running)
        for number in range(1, 4):
            client.add(number)
        client.barrier()
        found = self.scrape(programmers)
        self.assertEqual(found["kelim_programmer_answers_total", "installed"], 3)
        self.assertNotIn(("kelim_flow_capacity",), found)
        for port in (own, programmers):
            found = self.scrape(port)
            self.assertEqual(found["kelim_database_up", "8"], 1)
            self.assertGreater(found["kelim_database_round_trip_seconds_count", "piped"], 0)
        running.signal("redis-server", signal.SIGSTOP)
        status, _, text = self.await_that(lambda: (a := self.ask(own, "/readyz"))[0] == 503 and a, "the loss to be noticed")
        self.assertIn("database: database ", text)
        self.assertEqual(self.ask(own, "/healthz")[0], 200)
        running.signal("redis-server", signal.SIGCONT)
        for port in (own, programmers):
            self.await_that(lambda: self.ask(port, "/readyz")[0] == 200, "both processes to be ready again")
        self.await_that(lambda: self.scrape(own)["kelim_database_reconnects_total", "8"] > 0, "the reconnect")


if __name__ == "__main__":
    unittest.main(verbosity=2)
