"""The systemd units are well-formed, and what they promise is in them."""

import pathlib
import re
import shlex
import subprocess
import tempfile
import unittest

import e2e

UNITS = pathlib.Path(__file__).parents[2] / "packaging" / "systemd"


class Units(unittest.TestCase):
    def test_systemd_accepts_them(self):
        with tempfile.TemporaryDirectory() as place:
            for unit in UNITS.glob("*.service.in"):
                # Verification looks for the program, which need not be installed here.
                text = re.sub(r"^(Exec\w+=).*", r"\1/bin/true", unit.read_text(), flags=re.MULTILINE)
                (pathlib.Path(place) / unit.stem).write_text(text)
            units = sorted(pathlib.Path(place).iterdir())
            self.assertEqual(len(units), 2)
            result = subprocess.run(["systemd-analyze", "verify", *units], capture_output=True, text=True, timeout=60)
            complaints = [line for line in result.stderr.splitlines() if place in line]
            self.assertEqual((result.returncode, complaints), (0, []), result.stderr)

    def test_both_are_restarted_watched_and_confined(self):
        promises = ("Type=notify", "Restart=on-failure", "NoNewPrivileges=yes", "StateDirectory=kelim", "RuntimeDirectory=kelim")
        for unit in UNITS.glob("*.service.in"):
            lines = unit.read_text().splitlines()
            for promise in promises:
                self.assertIn(promise, lines, unit)
            self.assertTrue(any(line.startswith("WatchdogSec=") for line in lines), unit)
        daemon = (UNITS / "ssc_kelim.service.in").read_text().splitlines()
        self.assertIn("RestartForceExitStatus=77", daemon)
        # The names of controllers are looked up at the start.
        self.assertIn("Wants=network-online.target", daemon)
        self.assertTrue(any(re.match(r"After=.*\bnetwork-online\.target\b", line) for line in daemon))

    def test_the_programs_take_what_the_units_hand_them(self):
        for unit in UNITS.glob("*.service.in"):
            with self.subTest(unit=unit.name), tempfile.TemporaryDirectory() as place:
                environment = {"KELIM_CONF": "/dev/null"}
                for line in unit.read_text().splitlines():
                    if line.startswith("Environment="):
                        environment |= dict(word.split("=", 1) for word in shlex.split(line.removeprefix("Environment=")))
                    if line.startswith("ExecStart="):
                        command = shlex.split(line.removeprefix("ExecStart=").replace("@CMAKE_INSTALL_FULL_BINDIR@", e2e.BIN))
                # Nothing but the database is missing.
                environment |= {"KELIM_RUN_DIR": place, "KELIM_MOM_URL": f"redis+unix:{place}/none"}
                result = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60)
                self.assertNotEqual(result.returncode, 0)
                complaint = f"{pathlib.Path(command[0]).name}: mom.url redis+unix:{place}/none: No such file or directory\n"
                self.assertEqual((result.stdout, result.stderr), ("", complaint))


if __name__ == "__main__":
    unittest.main(verbosity=2)
