"""The daemon on a platform other than the Linux host, of which it uses nothing: one flow, from a callback to a barrier reply."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import threading
import unittest

LIMIT = 60  # seconds to wait for any condition
BIN = pathlib.Path(os.environ["KELIM_BIN"])
SOURCE = pathlib.Path(__file__).parents[2]
SAID = [
    "southbound: room for 600 flows",
    "southbound: fetch, so the flow is handed over between start and end",
    "programming service: flow 1 is installed",
    "southbound: barrier 7 is answered",
]


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, timeout=900)


class Platform(unittest.TestCase):
    def check_flow(self, program):
        with tempfile.TemporaryDirectory(prefix="kelim-") as run_dir:
            with subprocess.Popen([program], stdout=subprocess.PIPE, text=True, env={"KELIM_RUN_DIR": run_dir}) as daemon:
                guard = threading.Timer(LIMIT, daemon.kill)
                guard.start()
                said = [daemon.stdout.readline().strip() for _ in SAID]
                daemon.terminate()
                rest = daemon.stdout.read()
                guard.cancel()
        self.assertEqual((said, rest, daemon.returncode), (SAID, "", 0))

    def check_nothing_of_the_host_in(self, program):
        symbols = run("nm", "-C", program).stdout
        self.assertRegex(symbols, r"T ssc_kelim_event_pthrd")
        self.assertEqual([line for line in symbols.splitlines() if re.search(r"\b(host|mom|cgst|programmer)::|malloc_conf", line)], [])
        needed = re.findall(r"NEEDED.*\[(lib[a-z-]+)", run("readelf", "-d", program).stdout)
        self.assertIn("libprotobuf-c", needed)
        self.assertEqual(set(needed) & {"libevent", "libhiredis", "libjemalloc", "libspdlog", "libsystemd", "libssl", "libbsd"}, set())

    def test_the_template_takes_a_flow_to_a_barrier_reply(self):
        program = BIN / "ssc_kelim_template"
        self.check_flow(program)
        self.check_nothing_of_the_host_in(program)

    def configure(self, platform, build):
        return run("cmake", "-S", SOURCE, "-B", build, "-G", "Ninja", f"-DKELIM_PLATFORM_DIR={platform}", "-DKELIM_TESTS=OFF",
                   "-DCMAKE_C_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")

    def test_a_platform_may_lie_anywhere_and_a_missing_one_is_named(self):
        # Always the same place in the build directory, so that later runs rebuild little.
        place = BIN.parent / "own_platform"
        shutil.rmtree(place / "platform", ignore_errors=True)
        shutil.copytree(SOURCE / "platform/template", place / "platform")
        self.assertEqual(self.configure(place / "platform", place / "build").returncode, 0)
        built = run("cmake", "--build", place / "build")
        self.assertEqual(built.returncode, 0, built.stdout[-4000:])
        compiled = [unit["file"] for unit in json.loads((place / "build/compile_commands.json").read_text())]
        self.assertIn(str(place / "platform/store.cpp"), compiled)
        self.assertFalse([file for file in compiled if "/platform/host/" in file])
        self.check_flow(place / "build/bin/ssc_kelim")
        self.check_nothing_of_the_host_in(place / "build/bin/ssc_kelim")

        (place / "platform/CMakeLists.txt").write_text("add_library(other INTERFACE)\n")
        for platform, complaint in {place / "platform": "defines no target kelim_platform", place / "none": "There is no"}.items():
            failed = self.configure(platform, place / "refused")
            self.assertEqual(failed.returncode, 1)
            for part in (complaint, "platform/host, platform/template or one of your own"):
                self.assertIn(part, " ".join(failed.stderr.split()))  # CMake wraps the message


if __name__ == "__main__":
    unittest.main()
