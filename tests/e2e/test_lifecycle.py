"""The daemon's start and end, a second instance, and its log."""

import os
import signal
import socket
import subprocess
import unittest

import daemon
import e2e
import openflow


class Lifecycle(e2e.Test):
    def test_every_program_says_what_it_is_and_refuses_what_it_does_not_know(self):
        run = lambda *words: subprocess.run([f"{e2e.BIN}/{words[0]}", *words[1:]], capture_output=True, text=True, timeout=e2e.LIMIT)
        versions = [run(name, "--version").stdout.split() for name in ("ssc_kelim", "kelim-programmer", "kelimctl")]
        self.assertEqual({version[1] for version in versions if len(version) == 2}, {versions[0][1]}, versions)
        self.assertIn("examples:", run("ssc_kelim", "--help").stdout)
        for words in (["--bogus"], ["--version", "--bogus"]):
            refused = run("ssc_kelim", *words)
            self.assertEqual((refused.returncode, refused.stdout), (2, ""))
            self.assertRegex(refused.stderr, '^ssc_kelim: argument "--bogus" is not known; allowed: --help, --version .*\n$')
        for program, status in (("ssc_kelim", 255), ("kelim-programmer", 2)):
            refused = daemon.Daemon(e2e.BIN, programmer_script="explode=1")
            self.addCleanup(refused.__exit__)
            refused.command_line = [refused.bin / program]
            process = refused.spawn()
            self.assertIn("explode=1", process.communicate(timeout=e2e.LIMIT)[0])
            self.assertEqual(process.returncode, status)
        running = self.daemon()
        client = self.client(running)
        client.send(openflow.FLOW_MOD, openflow.flow_mod(openflow.ADD, openflow.match(openflow.oxm(5, b"\x08\x00"))))
        self.assertEqual(client.barrier(), [])
        self.assertNotIn(" error ", running.output())
        self.assertIn(f"ssc_kelim {versions[0][1]} starts: configuration /dev/null, database embedded:", running.output())

    def test_the_journal_and_syslog_are_told_priority_and_origin(self):
        if subprocess.run(["unshare", "--mount", "true"], capture_output=True).returncode:
            self.skipTest("needs a mount name space of its own")
        # Gives the daemon a /dev and a /run with this test's sockets in place of those of journald and syslog.
        mounts = """cd "$0" && mount --rbind /dev dev && mount -t tmpfs dev /dev && touch /dev/null /dev/urandom /dev/log
            mount --bind dev/null /dev/null && mount --bind dev/urandom /dev/urandom && mount --bind log /dev/log
            mount -t tmpfs run /run && mkdir -p /run/systemd/journal && touch /run/systemd/journal/socket
            mount --bind log /run/systemd/journal/socket && exec "$@\""""
        told = {
            "journald": rb"MESSAGE=ssc_kelim .* starts: .*\nPRIORITY=6\nSYSLOG_IDENTIFIER=ssc_kelim\nKELIM_CATEGORY=kelim_host\n"
                        rb"CODE_FILE=platform/host/.*cpp\nCODE_FUNC=.+\nCODE_LINE=\d+\n",
            "syslog": rb"<30>... .. ..:..:.. ssc_kelim\[\d+\]: kelim_host: ssc_kelim .* starts: .* \(platform/.*cpp:\d+ .+\)",
        }
        for target, line in told.items():
            running = daemon.Daemon(e2e.BIN, log_target=target)
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as service, self.subTest(target):
                service.bind(str(running.run_dir / "log"))
                service.settimeout(e2e.LIMIT)
                (running.run_dir / "dev").mkdir()
                running.command_line = ["unshare", "--mount", "sh", "-ec", mounts, running.run_dir, *running.command_line]
                self.run_until_the_end(running)
                self.assertRegex(service.recv(65536), line)
                self.assertNotIn("starts:", running.output())

    def test_a_second_instance_ends_at_once_and_the_first_goes_on(self):
        running = self.daemon()
        second = running.spawn()
        output, _ = second.communicate(timeout=e2e.LIMIT)
        self.assertNotEqual(second.returncode, 0)
        pid_file = running.run_dir / "ssc_kelim.pid"
        self.assertIn(f"{pid_file} is held by a running instance with pid {running.process.pid}\n", output)
        self.assertEqual(pid_file.read_text(), str(running.process.pid))
        self.assertEqual(self.client(running).barrier(), [])

    def test_termination_is_clean_with_flows_in_flight(self):
        for how in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(how=how.name):
                running = self.daemon(programmer_script="silent=*")
                client = self.client(running)
                for number in range(1, 51):
                    client.add(number)
                self.assertEqual(running.stop(how), 0, running.output()[-3000:])
                self.assertEqual(os.listdir(running.run_dir), ["output"])

    def test_a_hangup_reloads_and_ends_neither_process(self):
        running = self.system()
        (running.run_dir / "host.toml").write_text("")
        for name, said in (("ssc_kelim", f"reload: controllers: ptcp:127.0.0.1:{running.port}"),
                           ("kelim-programmer", "reload: kelim-programmer has nothing to reload")):
            running.signal(name, signal.SIGHUP)
            self.await_that(lambda: said in running.output(), said)
            self.assertEqual(len(running.pids(name)), 1)

    def test_who_reads_nothing_stops_neither_service_nor_end(self):
        running = daemon.Daemon(e2e.BIN, log_target="stderr", openflow_capacity=50000, programmer_size=50000)
        self.addCleanup(running.__exit__)
        running.process = running.spawn()  # both outputs in one pipe
        self.addCleanup(running.process.stdout.close)
        self.await_that(running.ready, "the daemon")
        client = self.client(running)

        def print_much(priority):
            running.command("kelim_set_dbg", "dbg_val=0xff")
            for number in range(3000):
                client.add(number, priority=priority)
                if number % 300 == 0:
                    self.assertEqual(client.barrier(), [])
            running.command("kelim_set_dbg", "dbg_val=0")

        print_much(1)
        os.set_blocking(running.process.stdout.fileno(), False)
        seen = []
        read = lambda: seen.append(running.process.stdout.buffer.read(1 << 20)) or b"bytes dropped" in b"".join(filter(None, seen))
        self.await_that(read, "the number of bytes that were dropped")
        print_much(2)
        self.assertEqual(running.stop(), 0)

if __name__ == "__main__":
    unittest.main(verbosity=2)
