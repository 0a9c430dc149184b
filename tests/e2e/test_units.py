"""The systemd units are well-formed, and what they promise is in them."""

import pathlib
import subprocess
import tempfile
import unittest

UNITS = pathlib.Path(__file__).parents[2] / "packaging" / "systemd"


class Units(unittest.TestCase):
    def test_systemd_accepts_them(self):
        with tempfile.TemporaryDirectory() as place:
            for unit in UNITS.glob("*.service.in"):
                # Verification looks for the program, which need not be installed here.
                lines = unit.read_text().splitlines()
                text = "\n".join("ExecStart=/bin/true" if line.startswith("ExecStart=") else line for line in lines)
                (pathlib.Path(place) / unit.stem).write_text(text + "\n")
            units = sorted(pathlib.Path(place).iterdir())
            self.assertEqual(len(units), 2)
            result = subprocess.run(["systemd-analyze", "verify", *units], capture_output=True, text=True, timeout=60)
            complaints = [line for line in result.stderr.splitlines() if place in line]
            self.assertEqual((result.returncode, complaints), (0, []), result.stderr)

    def test_the_daemon_is_restarted_watched_and_confined(self):
        lines = (UNITS / "ssc_kelim.service.in").read_text().splitlines()
        for promise in ("RestartForceExitStatus=77", "NoNewPrivileges=yes", "StateDirectory=kelim", "RuntimeDirectory=kelim"):
            self.assertIn(promise, lines)
        self.assertTrue(any(line.startswith("WatchdogSec=") for line in lines))


if __name__ == "__main__":
    unittest.main(verbosity=2)
