"""The link to the database is lost, or one of the processes is in trouble, again and again while flows come and go: afterwards
requested, stored and installed flows are the same. KELIM_FLAPS is the number of disturbances, 8 by default:

    KELIM_FLAPS=500 KELIM_SEED=1 ctest --preset release -R e2e.flaps -V --timeout 7200
"""

import os
import random
import resource
import signal
import threading
import time
import unittest

import e2e
import test_processes

FLAPS = int(os.environ.get("KELIM_FLAPS", 8))
SEED = int(os.environ.get("KELIM_SEED", time.time_ns() % 100_000))
FLOWS = 300
CHAIN_FLOWS = range(FLOWS - 40, FLOWS)  # in table 1


class Load(threading.Thread):
    """Adds and deletes flows in batches, each followed by a barrier; `asked` holds the flows that exist according to the switch."""

    def __init__(self, system, chance, asked):
        super().__init__()
        self.system, self.chance = system, chance
        self.asked, self.doubtful = set(asked), set()
        self.problem = None
        self.forgetful = False  # True: the next daemon starts without flows
        self.enough = threading.Event()
        self.start()

    def run(self):
        try:
            while not self.enough.is_set() or self.doubtful:
                try:
                    with self.system.client() as client:
                        self._work(client)
                except TimeoutError:  # a barrier without an answer
                    raise
                except (OSError, EOFError):  # the daemon ended in the middle of a batch
                    if self.forgetful:
                        self.asked.clear()
                    self.enough.wait(0.05)
        except Exception as problem:  # reported by the test
            self.problem = problem

    def _work(self, client):
        self._batch(client, self.doubtful, adds=False)
        while not self.enough.is_set():
            numbers = {self.chance.randrange(FLOWS) for _ in range(20)}
            self._batch(client, numbers, adds=self.chance.random() < 0.6)

    def _batch(self, client, numbers, adds):
        self.doubtful = set(numbers)
        act = client.add if adds else client.delete
        sent = {act(number, table=int(number in CHAIN_FLOWS)): number for number in sorted(numbers)}
        failed = {sent.get(message.xid) for message in client.barrier()}
        self.asked = (self.asked - self.doubtful) | ((self.doubtful - failed) if adds else set())
        self.doubtful = set()

    def stop(self):
        self.enough.set()
        self.join()
        return self.asked


class Flaps(e2e.Test):
    def cut(self):
        """Cuts every connection to the server, or those of one process to one database."""
        if self.chance.random() < 0.5:
            for kind in ("normal", "pubsub"):
                e2e.redis(self.system.socket, "CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")
            return
        name = f" name={self.chance.choice(('ssc_kelim', 'kelim-programmer'))}/{self.chance.choice((4, 8))}/"
        e2e.kill_clients(self.system.socket, name)

    def outage(self):
        """Makes the server unreachable for a while, with brief returns in between."""
        away = self.system.socket + "-away"
        for _ in range(self.chance.randrange(1, 4)):
            os.rename(self.system.socket, away)
            try:
                for kind in ("normal", "pubsub"):
                    e2e.redis(away, "CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")
                time.sleep(self.chance.uniform(0, 1.5))
            finally:
                os.rename(away, self.system.socket)
            time.sleep(self.chance.uniform(0, 0.1))

    def freeze(self):
        name = self.chance.choice(self.system.NAMES)
        self.system.signal(name, signal.SIGSTOP)
        time.sleep(self.chance.uniform(0.1, 1.5))
        self.system.signal(name, signal.SIGCONT)

    def refuse_writes(self):
        """Lets the server refuse writes, for lack of memory or of replicas."""
        key, value = self.chance.choice((("maxmemory", "1"), ("min-replicas-to-write", "1")))
        e2e.redis(self.system.socket, "CONFIG", "SET", key, value)
        time.sleep(self.chance.uniform(0, 1.5))
        e2e.redis(self.system.socket, "CONFIG", "SET", key, "0")

    def empty_database(self):
        e2e.redis(self.system.socket, "FLUSHALL")

    def forget_scripts(self):
        e2e.redis(self.system.socket, "SCRIPT", "FLUSH")

    def starve(self):
        """Cuts connections while the daemon or the programming service has no free descriptor for new ones."""
        pid = self.system.pids(self.chance.choice(self.system.NAMES[1:]))[-1]
        limits = resource.prlimit(pid, resource.RLIMIT_NOFILE)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (len(os.listdir(f"/proc/{pid}/fd")), limits[1]))
        self.cut()
        time.sleep(self.chance.uniform(0, 1.5))
        resource.prlimit(pid, resource.RLIMIT_NOFILE, limits)

    def kill_service(self):
        self.kill("kelim-programmer")

    def kill_daemon(self):
        self.kill("ssc_kelim")

    def kill_server(self):
        """Kills the server; the next one is empty, so the daemon ends."""
        self.load.forgetful = True
        self.kill("redis-server", "ssc_kelim")

    def kill(self, *names):
        before = [len(self.system.pids(name)) for name in names]
        self.system.signal(names[0], signal.SIGKILL)
        again = lambda: all(len(self.system.pids(name)) > count for name, count in zip(names, before))
        self.await_that(lambda: again() and self.system.ready(), f"another {names}")

    def differences(self, asked):
        found = test_processes.Processes.differences(self, self.system, asked)
        if found:
            return found
        chains = {kind: {key.split(":")[1] for key in e2e.records(self.system.socket, kind, database=4)}
                  for kind in ("parse_flow", "flow_to_ace", "flow_to_ace_sta")}
        wanted = {key.split(":")[0] for key, flow in e2e.records(self.system.socket, "flow").items()
                  if test_processes.number_of(flow) in CHAIN_FLOWS}
        return {kind: sorted(keys ^ wanted)[:5] for kind, keys in chains.items() if keys != wanted}

    def test_nothing_is_lost_and_nothing_comes_back(self):
        self.chance = random.Random(SEED)
        print(f"KELIM_FLAPS={FLAPS} KELIM_SEED={SEED}", flush=True)
        self.system = self.system(programmer_counter_rate=100, programmer_counter_interval_ms=200, mom_dead_after_ms=1000)
        blows = (self.cut, self.outage, self.freeze, self.refuse_writes, self.empty_database, self.forget_scripts, self.starve,
                 self.kill_service, self.kill_daemon, self.kill_server)
        asked = set()
        for flap in range(FLAPS):
            self.load = load = Load(self.system, self.chance, asked)
            time.sleep(self.chance.uniform(0, 0.3))
            blow = self.chance.choice(blows)
            blow()
            asked = load.stop()
            self.assertIsNone(load.problem)
            end = time.monotonic() + e2e.LIMIT
            while found := self.differences(asked):
                self.assertLess(time.monotonic(), end, (flap, blow.__name__, found))
                time.sleep(0.1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
