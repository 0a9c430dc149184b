"""Start, second instance, end, restart."""

import signal
import unittest

import daemon
import e2e


class Lifecycle(e2e.Test):
    def test_a_second_instance_ends_at_once_and_the_first_goes_on(self):
        running = self.daemon()
        second = running.spawn()
        output, _ = second.communicate(timeout=10)
        self.assertNotEqual(second.returncode, 0)
        self.assertIn("ssc_kelim", output)
        self.assertEqual(self.client(running).barrier(), [])

    def test_termination_is_clean_with_flows_in_flight(self):
        for how in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(how=how.name):
                running = self.daemon(programmer_script="silent=*")
                client = self.client(running)
                for number in range(1, 51):
                    client.add(number)
                self.assertEqual(running.stop(how), 0, running.output()[-3000:])

    def test_restart_in_the_same_run_directory(self):
        running = self.daemon()
        self.client(running).add(1)
        running.process.kill()
        running.process.wait()
        with daemon.Daemon(e2e.BIN, run_dir=running.run_dir, port=running.port) as again:
            client = self.client(again)
            client.add(2)
            self.assertEqual(client.barrier(), [])
            self.assertEqual(len(self.stored(again, "flow")), 1)
            self.assertEqual(again.stop(), 0)

    def test_a_bad_setting_stops_the_start_with_its_name(self):
        settings = {"openflow_listen": "6653", "programmer_script": "explode=1", "programmer_sise": "5"}
        for key, value in settings.items():
            with self.subTest(key=key):
                running = daemon.Daemon(e2e.BIN, **{key: value})
                self.addCleanup(running.__exit__)
                process = running.spawn()
                output, _ = process.communicate(timeout=10)
                self.assertNotEqual(process.returncode, 0)
                self.assertIn(f"KELIM_{key.upper()}", output)


if __name__ == "__main__":
    unittest.main(verbosity=2)
