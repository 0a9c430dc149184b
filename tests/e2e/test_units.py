"""The result of `cmake --install`: programs that run, units that systemd accepts, a configuration that changes no default."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

import e2e

BUILD = pathlib.Path(e2e.BIN).parent


def run(*command, **environment):
    return subprocess.run(command, env={"PATH": os.environ["PATH"], **environment}, capture_output=True, text=True, timeout=60)


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        place = tempfile.TemporaryDirectory(prefix="kelim-")
        cls.addClassCleanup(place.cleanup)
        cls.root = pathlib.Path(place.name)
        cls.prefix = cls.root / "opt/kelim"
        cls.conf = cls.root / "etc/kelim/host.toml"
        # Installs twice, the second time over a changed configuration.
        for text in (b"# changed\n", b""):
            done = run("cmake", "--install", BUILD, "--prefix", "/opt/kelim", DESTDIR=place.name)
            assert done.returncode == 0, done.stderr
            cls.conf.write_bytes(cls.conf.read_bytes() + text)
        cls.units = sorted((cls.prefix / "lib/systemd/system").glob("*.service"))

    def test_systemd_accepts_the_units_with_and_for_the_data_plane(self):
        for unit in self.units:
            text = unit.read_text()
            self.assertEqual("@" in unit.stem, "Environment=KELIM_RUN_DIR=/run/kelim-%i KELIM_CONF=/etc/kelim/%i.toml\n" in text)
            unit.write_text(text.replace("=/opt/kelim/bin/", f"={self.prefix}/bin/"))
        self.assertEqual(len(self.units), 4)
        for unit in self.units:
            (drop_in := unit.with_name(unit.name + ".d")).mkdir()
            shutil.copy(self.prefix / "share/doc/ssc-kelim/examples/linux-target.conf", drop_in)
        result = run("systemd-analyze", "verify", "--man=no", *self.units)
        complaints = [line for line in result.stderr.splitlines() if "kelim" in line]
        self.assertEqual((result.returncode, complaints), (0, []), result.stderr)
        for page in re.findall(r"man:(\S+)\((\d)\)", "".join(unit.read_text() for unit in self.units)):
            self.assertGreater((self.prefix / "share/man" / f"man{page[1]}" / ".".join(page)).stat().st_size, 1000)

    def test_programs_take_what_units_and_configuration_hand_them_and_say_what_has_to_change(self):
        redis, none = "redis://127.0.0.1:6379", f"{self.root}/none"
        no_file, embedded = f"mom.password_file '{none}' cannot be read, ", "mom.url (KELIM_MOM_URL) is embedded:, "
        for program, url, status, why in (("ssc_kelim", redis, None, no_file), ("kelim-programmer", redis, 1, no_file),
                                          ("kelim-programmer", "embedded:", 78, embedded)):
            with self.subTest(program=program, url=url):
                command = re.search("^ExecStart=(.*)", (self.prefix / f"lib/systemd/system/{program}.service").read_text(), re.M)[1]
                command = [f"{self.prefix}/bin/{program}", *command.split()[1:]]
                result = run(*command, KELIM_CONF=str(self.conf), KELIM_RUN_DIR=str(self.root), KELIM_MOM_URL=url,
                             KELIM_MOM_PASSWORD_FILE=none)
                self.assertIn(result.returncode, [status] if status else range(1, 256))
                self.assertEqual((result.stdout, result.stderr[:len(program + why) + 2]), ("", f"{program}: {why}"))

    def test_a_delivered_configuration_says_what_holds_without_it(self):
        self.assertIn("# changed", self.conf.read_text())
        delivered = self.conf.with_name("host.toml.new").read_text()
        self.assertEqual(run(self.prefix / "bin/kelimctl", "config", "--toml").stdout, delivered)
        plain = self.conf.with_name("plain.toml")
        plain.write_text(re.sub(r"^#(?=\w+ = |\[)", "", delivered, flags=re.M))
        self.assertEqual(run(self.prefix / "bin/kelimctl", "--process", "none", "flows", KELIM_CONF=str(plain)).returncode, 3)


if __name__ == "__main__":
    unittest.main(verbosity=2)
