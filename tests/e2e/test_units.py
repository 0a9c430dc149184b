"""The systemd units are well-formed, and what they promise is in them."""

import pathlib
import re
import shlex
import subprocess
import tempfile
import unittest

import e2e

UNITS = sorted((pathlib.Path(__file__).parents[2] / "packaging" / "systemd").glob("*.service.in"))
PROMISES = {"Type=notify", "Restart=on-failure", "WatchdogSec=10s", "NoNewPrivileges=yes", "StateDirectory=kelim"}


class Units(unittest.TestCase):
    def test_systemd_accepts_them_and_both_are_restarted_watched_and_confined(self):
        with tempfile.TemporaryDirectory() as place:
            units = [pathlib.Path(place) / unit.stem for unit in UNITS]
            for template, unit in zip(UNITS, units):
                text = template.read_text()
                own = {"RestartForceExitStatus=77"} if unit.stem == "ssc_kelim" else set()
                self.assertLessEqual(PROMISES | own, set(text.splitlines()), unit)
                # Verification looks for the program, which need not be installed here.
                unit.write_text(re.sub(r"^(Exec\w+=).*", r"\1/bin/true", text, flags=re.MULTILINE))
            self.assertEqual(len(units), 2)
            result = subprocess.run(["systemd-analyze", "verify", *units], capture_output=True, text=True, timeout=60)
            complaints = [line for line in result.stderr.splitlines() if place in line]
            self.assertEqual((result.returncode, complaints), (0, []), result.stderr)

    def test_the_programs_take_what_the_units_hand_them(self):
        for unit in UNITS:
            with self.subTest(unit=unit.name), tempfile.TemporaryDirectory() as place:
                given = dict(re.findall("^(ExecStart|Environment)=(.*)", unit.read_text(), re.MULTILINE))
                command = shlex.split(given["ExecStart"].replace("@CMAKE_INSTALL_FULL_BINDIR@", e2e.BIN))
                environment = dict(word.split("=", 1) for word in shlex.split(given["Environment"]))
                # Nothing but the database is missing.
                environment |= {"KELIM_CONF": "/dev/null", "KELIM_RUN_DIR": place, "KELIM_MOM_URL": f"redis+unix:{place}/none"}
                result = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60)
                self.assertNotEqual(result.returncode, 0)
                complaint = f"{pathlib.Path(command[0]).name}: mom.url redis+unix:{place}/none: No such file or directory\n"
                self.assertEqual((result.stdout, result.stderr), ("", complaint))


if __name__ == "__main__":
    unittest.main(verbosity=2)
