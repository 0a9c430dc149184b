"""The framework of the demonstrations: shows commands with their output and checks expectations."""

import re
import subprocess
import textwrap
import time

from daemon import Failed


class Steps:
    """A demonstration in steps, which run() of a derived class goes through."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.failed = []
        self.step = 0
        self.begun = time.monotonic()

    def run_all(self):
        try:
            self.run()
        except (Failed, subprocess.SubprocessError, OSError) as problem:
            self.failed.append(f"step {self.step}: {problem}")

    def result(self, hint):
        """Prints the outcome and returns the exit status."""
        print()
        if self.failed:
            print("NOT as expected:")
            for failure in self.failed:
                print(f"  {failure}")
            return 1
        print(f"Everything was as expected ({time.monotonic() - self.begun:.1f} s). {hint}")
        return 0

    def chapter(self, title, text):
        self.step += 1
        print(f"\n{self.step}. {title}")
        for line in textwrap.wrap(" ".join(text.split()), 96):
            print(f"   {line}")
        print(flush=True)

    def show(self, text):
        for line in text.rstrip().splitlines():
            print(f"      {line}".rstrip())
        print(flush=True)

    def check(self, good, expectation):
        print(f"   [{'ok' if good else 'FAILED'}] {expectation}", flush=True)
        if not good:
            self.failed.append(f"step {self.step}: {expectation}")

    def ofctl(self, command, *arguments):
        """Runs and shows ovs-ofctl; returns its exit status and its output, errors included."""
        words = ["ovs-ofctl", "-O", "OpenFlow13", command, f"tcp:127.0.0.1:{self.daemon.port}", *arguments]
        print("      $ " + " ".join(f"'{word}'" if re.search(r"[^\w:.-]", word) else word for word in words))
        result = subprocess.run(words, capture_output=True, text=True, timeout=30)
        output = result.stdout + result.stderr
        # The client shows the bytes of a refused request below the error; the first line is enough.
        shown = output.splitlines()[:1] if result.returncode else output.splitlines()
        for line in shown:
            print(f"        {line.strip()}")
        return result.returncode, output

    def kelimctl(self, *arguments):
        print(f"      $ kelimctl {' '.join(arguments)}")
        text = self.daemon.ask(*arguments)
        self.show(text)
        return text
