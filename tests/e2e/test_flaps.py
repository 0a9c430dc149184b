"""The link to the database is lost, or one of the processes is in trouble, again and again while flows come and go: afterwards
requested, stored and installed flows are the same. KELIM_FLAPS is the number of disturbances, 8 by default:

    KELIM_FLAPS=500 KELIM_SEED=1 ctest --preset release -R e2e.flaps -V --timeout 7200
"""

import os
import random
import resource
import signal
import time
import unittest

import e2e
import load

FLAPS = int(os.environ.get("KELIM_FLAPS", 8))
SEED = int(os.environ.get("KELIM_SEED", time.time_ns() % 100_000))
CHAIN = range(load.FLOWS - 40, load.FLOWS)  # flows of the service chain, in table 1


class Flaps(load.Test):
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
        self.kill(self.system, "kelim-programmer")

    def kill_daemon(self):
        self.kill(self.system, "ssc_kelim")

    def kill_server(self):
        """Kills the server; the next one is empty, so the daemon ends."""
        self.flows.forgetful = True
        self.kill(self.system, "redis-server", "ssc_kelim")

    def differences(self, system, asked):
        found = super().differences(system, asked)
        if found:
            return found
        chains = {kind: {key.split(":")[1] for key in e2e.records(system.socket, kind, database=4)}
                  for kind in ("parse_flow", "flow_to_ace", "flow_to_ace_sta")}
        wanted = {key.split(":")[0] for key, flow in e2e.records(system.socket, "flow").items() if load.number_of(flow) in CHAIN}
        return {kind: sorted(keys ^ wanted)[:5] for kind, keys in chains.items() if keys != wanted}

    def test_nothing_is_lost_and_nothing_comes_back(self):
        self.chance = random.Random(SEED)
        print(f"KELIM_FLAPS={FLAPS} KELIM_SEED={SEED}", flush=True)
        self.system = self.system(programmer_counter_rate=100, programmer_counter_interval_ms=200, mom_dead_after_ms=1000)
        blows = (self.cut, self.outage, self.freeze, self.refuse_writes, self.empty_database, self.forget_scripts, self.starve,
                 self.kill_service, self.kill_daemon, self.kill_server)
        asked = ()
        for flap in range(FLAPS):
            self.flows = load.Load(self.system, self.chance, asked, CHAIN)
            time.sleep(self.chance.uniform(0, 0.3))
            blow = self.chance.choice(blows)
            blow()
            asked = self.flows.stop()
            self.assert_of_one_mind(self.system, asked, after=(flap, blow.__name__))


if __name__ == "__main__":
    unittest.main(verbosity=2)
