"""The records in Redis, read without any code of the programs under test."""

import re
import socket


class Redis:
    """One connection to the server on that unix socket, in that database."""

    def __init__(self, path, database):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(10)
        self.socket.connect(path)
        self.replies = self.socket.makefile("rb")
        self.ask("SELECT", database)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.replies.close()
        self.socket.close()

    def ask(self, *words):
        words = [word if isinstance(word, bytes) else str(word).encode() for word in words]
        self.socket.sendall(b"*%d\r\n" % len(words) + b"".join(b"$%d\r\n%s\r\n" % (len(word), word) for word in words))
        return self._reply()

    def _reply(self):
        line = self.replies.readline()
        if not line.endswith(b"\r\n"):
            raise EOFError("the server has gone")
        kind, rest = line[:1], line[1:-2]
        if kind == b"-":
            raise ValueError(rest.decode())
        if kind == b"$":
            return None if rest == b"-1" else self.replies.read(int(rest) + 2)[:-2]
        if kind == b"*":
            return [self._reply() for _ in range(int(rest))]
        return int(rest) if kind == b":" else rest.decode()

    def all(self, record_type):
        """The packed records of that type by their key, such as "17:0"."""
        prefix = f"s_policy_kelim.{record_type}:"
        names = [name.decode() for name in self.ask("KEYS", prefix + "*")]
        values = self.ask("MGET", *names) if names else []
        return {name.removeprefix(prefix): value[8:] for name, value in zip(names, values) if value is not None}


def fields(packed):
    """The numeric and the length-delimited fields of a record, by number; of a repeated one the last."""
    found, at = {}, 0

    def varint():
        nonlocal at
        value = shift = 0
        while True:
            byte = packed[at]
            at += 1
            value |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                return value

    while at < len(packed):
        tag = varint()
        value = varint()
        if tag & 7 == 2:
            value, at = packed[at : at + value], at + value
        found[tag >> 3] = value
    return found


def destination(flow_record):
    """The IPv4 destination of a stored flow: in its flow_data an OXM header and the address, both little-endian."""
    found = re.search(rb"\x04\x18\x00\x80(.{4})", fields(flow_record)[8], re.DOTALL)
    return ".".join(str(byte) for byte in reversed(found[1]))
