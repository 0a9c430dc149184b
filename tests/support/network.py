"""A switch and its hosts in private network namespaces; the machine's own network stays untouched.

The process itself, with everything it starts later, moves into the switch's namespace. Host N is 10.0.0.N behind the interface
"pN" of the switch; hosts know each other's addresses, so that no unrequested packet crosses the switch.
"""

import ctypes
import os
import pathlib
import platform
import re
import socket
import struct
import subprocess
import tempfile

CLONE_NEWNET = 0x40000000
SO_RCVBUFFORCE = 33
SOL_PACKET, PACKET_AUXDATA, PACKET_IGNORE_OUTGOING = 263, 8, 23
ALL_PROTOCOLS = 3
TAG_IS_VALID = 1 << 4
NEEDED = {"CAP_NET_ADMIN": 12, "CAP_NET_RAW": 13, "CAP_SYS_ADMIN": 21, "CAP_PERFMON": 38, "CAP_BPF": 39}

libc = ctypes.CDLL(None, use_errno=True)


BPF_CALL = {"x86_64": 321, "aarch64": 280}  # numbers of the system call
BPF_MAP_CREATE, BPF_MAP_TYPE_ARRAY = 0, 2


def may_have_maps():
    """True if the kernel lets this process create a BPF map, which a container may forbid whatever the capabilities are."""
    wanted = struct.pack("=IIII112x", BPF_MAP_TYPE_ARRAY, 4, 8, 1)
    descriptor = libc.syscall(BPF_CALL.get(platform.machine(), -1), BPF_MAP_CREATE, wanted, len(wanted))
    if descriptor >= 0:
        os.close(descriptor)
    return descriptor >= 0


def missing():
    """The missing privileges, in words; empty if this process can create private networks and load programs there."""
    status = pathlib.Path("/proc/self/status").read_text()
    held = int(re.search(r"^CapEff:\s*(\w+)", status, re.M)[1], 16)
    lacking = [name for name, bit in NEEDED.items() if not held >> bit & 1]
    return ", ".join(lacking) or ("" if may_have_maps() else "the system call bpf")


def check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def run(*words, **options):
    return subprocess.run([str(word) for word in words], check=True, capture_output=True, text=True, **options)


def mac(number):
    return f"02:00:00:00:00:{number:02x}"


class Host:
    def __init__(self, number):
        self.number, self.address, self.mac = number, f"10.0.0.{number}", mac(number)
        start = "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6; ip link set lo up; echo; exec sleep infinity"
        self.process = subprocess.Popen(["unshare", "--net", "sh", "-c", start], stdout=subprocess.PIPE)
        self.process.stdout.readline()

    def words(self, *words):
        return ["nsenter", "--net", "-t", self.process.pid, *words]

    def run(self, *words):
        return run(*self.words(*words))

    def plug(self, peers):
        """Connects the host to the switch, or reconnects it after its cable was pulled."""
        port = f"p{self.number}"
        run("ip", "link", "add", port, "type", "veth", "peer", "name", "eth0", "address", self.mac, "netns", self.process.pid)
        run("ip", "link", "set", port, "up")
        self.run("ip", "link", "set", "eth0", "up")
        self.run("ip", "address", "add", self.address + "/24", "dev", "eth0")
        for peer in peers:
            if peer != self.number:
                self.run("ip", "neighbour", "replace", f"10.0.0.{peer}", "lladdr", mac(peer), "dev", "eth0", "nud", "permanent")

    def ping(self, other, count=1, wait=1):
        """Returns the number of answered pings."""
        command = self.words("ping", "-n", "-q", "-i", 0.01, "-c", count, "-W", wait, other.address)
        result = subprocess.run([str(word) for word in command], capture_output=True, text=True)
        return int(result.stdout.split(" received")[0].split()[-1])

    def socket(self):
        """Opens a socket for whole frames on the host's interface."""
        own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        there = os.open(f"/proc/{self.process.pid}/ns/net", os.O_RDONLY)
        try:
            check(libc.setns(there, CLONE_NEWNET))
            frames = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ALL_PROTOCOLS))
            frames.bind(("eth0", 0))
        finally:
            check(libc.setns(own, CLONE_NEWNET))
            os.close(own)
            os.close(there)
        frames.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
        frames.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
        frames.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
        frames.settimeout(10)
        return frames

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def receive(frames):
    """Returns the next frame, with its VLAN tag put back in place, because the kernel delivers it beside the frame."""
    frame, beside, _, _ = frames.recvmsg(1 << 16, 256)
    for level, kind, data in beside:
        status, _, _, _, _, tag, protocol = struct.unpack("=IIIHHHH", data[:20])
        if (level, kind) == (SOL_PACKET, PACKET_AUXDATA) and status & TAG_IS_VALID:
            frame = frame[:12] + struct.pack("!HH", protocol, tag) + frame[12:]
    return frame


def private():
    """Moves this process into a network namespace of its own."""
    check(libc.unshare(CLONE_NEWNET))
    with open("/proc/sys/net/ipv6/conf/default/disable_ipv6", "w") as setting:
        setting.write("1")
    run("ip", "link", "set", "lo", "up")


class Network:
    def __init__(self, hosts=2):
        private()
        numbers = range(1, hosts + 1)
        self.hosts = [Host(number) for number in numbers]
        for host in self.hosts:
            host.plug(numbers)
        # A private BPF file system; if it cannot be mounted, nothing is pinned.
        self.pins = tempfile.mkdtemp(prefix="kelim-")
        self.pinned = subprocess.run(["mount", "-t", "bpf", "-o", "mode=0700", "bpf", self.pins], capture_output=True).returncode == 0
        # Settings for a daemon that uses this switch.
        self.settings = {
            "programmer_target": "linux",
            "ports": ",".join(f"{n}:p{n}" for n in numbers),
            "programmer_pin_dir": f"{self.pins}/kelim" if self.pinned else "none",
        }

    def close(self):
        if self.pinned:
            run("umount", "--lazy", self.pins)
        os.rmdir(self.pins)
        for host in self.hosts:
            host.close()
