"""Start, second instance, end."""

import os
import signal
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
        cases = (
            ("ssc_kelim", "programmer_script", "explode=1", "KELIM_PROGRAMMER_SCRIPT"),
            ("kelim-programmer", "programmer_script", "explode=1", "explode=1"),
            ("kelim-programmer", "mom_url", "embedded:", "KELIM_MOM_URL"),
        )
        for program, key, value, named in cases:
            with self.subTest(program=program, key=key):
                running = daemon.Daemon(e2e.BIN, **{key: value})
                self.addCleanup(running.__exit__)
                running.command_line = [running.bin / program]
                process = running.spawn()
                output, _ = process.communicate(timeout=e2e.LIMIT)
                self.assertNotEqual(process.returncode, 0)
                self.assertIn(named, output)


if __name__ == "__main__":
    unittest.main(verbosity=2)
