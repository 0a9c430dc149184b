"""Start, second instance, end, restart."""

import os
import signal
import subprocess
import unittest

import daemon
import e2e


class Lifecycle(e2e.Test):
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

    def test_a_bad_setting_stops_the_start_with_its_name(self):
        settings = {"openflow_listen": "6653", "programmer_script": "explode=1", "programmer_sise": "5"}
        for key, value in settings.items():
            with self.subTest(key=key):
                running = daemon.Daemon(e2e.BIN, **{key: value})
                self.addCleanup(running.__exit__)
                process = running.spawn()
                output, _ = process.communicate(timeout=e2e.LIMIT)
                self.assertNotEqual(process.returncode, 0)
                self.assertIn(f"KELIM_{key.upper()}", output)

    def test_the_programming_service_needs_a_database_that_the_daemon_shares(self):
        environment = daemon.Daemon(e2e.BIN)
        self.addCleanup(environment.__exit__)
        alone = subprocess.run(
            [f"{e2e.BIN}/kelim-programmer"], env=environment.environment, capture_output=True, text=True, timeout=e2e.LIMIT
        )
        self.assertEqual(alone.returncode, 1)
        self.assertIn("mom.url (KELIM_MOM_URL) is embedded:", alone.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
