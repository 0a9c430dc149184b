"""A small OpenFlow 1.3 client on a plain socket, for scripts that must see every byte (OpenFlow 1.3.5, chapter 7)."""

import collections
import socket
import struct

VERSION = 4
HELLO, ERROR, ECHO_REQUEST, ECHO_REPLY = 0, 1, 2, 3
FEATURES_REQUEST, FEATURES_REPLY, PACKET_IN, FLOW_REMOVED, PACKET_OUT = 5, 6, 10, 11, 13
FLOW_MOD, MULTIPART_REQUEST, MULTIPART_REPLY, BARRIER_REQUEST, BARRIER_REPLY, METER_MOD = 14, 18, 19, 20, 21, 29
ADD, MODIFY, DELETE, DELETE_STRICT = 0, 1, 3, 4
NO_BUFFER = ANY = 0xFFFFFFFF
IN_PORT, TABLE, NORMAL, FLOOD, ALL, CONTROLLER, LOCAL = (0xFFFFFFF0 + n for n in (8, 9, 10, 11, 12, 13, 14))
NO_MATCH, ACTION = 0, 1  # reasons of packet-ins
HEADER = struct.Struct("!BBHI")

Message = collections.namedtuple("Message", "type xid raw")
PacketIn = collections.namedtuple("PacketIn", "total reason table cookie in_port frame")


def oxm(field, value, mask=b""):
    return struct.pack("!HBB", 0x8000, field << 1 | bool(mask), len(value) + len(mask)) + value + mask


def pad8(data):
    return data + bytes(-len(data) % 8)


def match(*fields):
    body = b"".join(fields)
    return pad8(struct.pack("!HH", 1, 4 + len(body)) + body)


def output(port):
    return struct.pack("!HHIH6x", 0, 16, port, 0xFFFF)


def set_field(field, value):
    return struct.pack("!HH", 25, len(pad8(bytes(4) + oxm(field, value)))) + pad8(bytes(4) + oxm(field, value))[4:]


def packet_out(frame, *actions, in_port=CONTROLLER):
    body = b"".join(actions)
    return struct.pack("!IIH6x", NO_BUFFER, in_port, len(body)) + body + frame


def packet_in_of(message):
    _, total, reason, table, cookie = struct.unpack_from("!IHBBQ", message.raw, HEADER.size)
    at = HEADER.size + 16
    match_length = struct.unpack_from("!H", message.raw, at + 2)[0]
    in_port = struct.unpack_from("!I", message.raw, at + 8)[0]
    return PacketIn(total, reason, table, cookie, in_port, message.raw[at + len(pad8(bytes(match_length))) + 2 :])


def apply_actions(*actions):
    body = b"".join(actions)
    return struct.pack("!HH4x", 4, 8 + len(body)) + body


def tcp_flow(number, out_port=2):
    """Returns match and instructions of flow `number`: in_port 1, TCP, an address and a port that depend on the number."""
    address = struct.pack("!I", 0x0A000000 | number & 0xFFFFFF)
    port = struct.pack("!H", 1 + number % 60000)
    fields = (oxm(0, struct.pack("!I", 1)), oxm(5, b"\x08\x00"), oxm(10, b"\x06"), oxm(12, address), oxm(14, port))
    return match(*fields), apply_actions(output(out_port))


def flow_mod(command, flow_match, instructions=b"", priority=100, table=0, cookie=0, idle=0, hard=0, flags=0):
    """`idle` and `hard` are timeouts in seconds."""
    fixed = struct.pack("!QQBBHHHIIIH2x", cookie, 0, table, command, idle, hard, priority, NO_BUFFER, ANY, ANY, flags)
    return fixed + flow_match + instructions


def meter_mod(number, rate, command=ADD):
    """A meter that drops packets above the rate, in kilobits per second."""
    return struct.pack("!HHI", command, 1, number) + struct.pack("!HHII4x", 1, 16, rate, 0)


class Client:
    PATIENCE = 60  # seconds for an answer, because sanitizer builds on a busy machine are slow

    def __init__(self, port, host="127.0.0.1", source=""):
        self.socket = socket.create_connection((host, port), timeout=self.PATIENCE, source_address=(source, 0))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.received = b""
        self.xid = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def handshake(self):
        self.send(HELLO)
        features = self.send(FEATURES_REQUEST)
        while self.receive().xid != features:
            pass
        return self

    def frame(self, kind, body=b"", xid=None):
        """Returns the bytes of one message; its transaction id, kept as self.xid, is the client's next one unless given."""
        self.xid = self.xid + 1 if xid is None else xid
        return HEADER.pack(VERSION, kind, HEADER.size + len(body), self.xid) + body

    def send(self, kind, body=b"", xid=None):
        self.socket.sendall(self.frame(kind, body, xid))
        return self.xid

    def add(self, number, **options):
        flow_match, instructions = tcp_flow(number)
        return self.send(FLOW_MOD, flow_mod(ADD, flow_match, instructions, **options))

    def delete(self, number, **options):
        return self.send(FLOW_MOD, flow_mod(DELETE_STRICT, tcp_flow(number)[0], **options))

    def delete_all(self):
        return self.send(FLOW_MOD, flow_mod(DELETE, match(), table=0xFF))

    def quiet(self, seconds):
        """Returns the messages that arrive before a pause of that length, possibly none."""
        messages = []
        self.socket.settimeout(seconds)
        try:
            while True:
                messages.append(self.receive())
        except TimeoutError:
            return messages
        finally:
            self.socket.settimeout(self.PATIENCE)

    def receive(self):
        """Returns the next message, answering echo requests before it; EOFError if the other side has closed the connection."""
        while True:
            while len(self.received) < HEADER.size or len(self.received) < self._length():
                data = self.socket.recv(1 << 16)
                if not data:
                    raise EOFError("connection closed by the switch")
                self.received += data
            length = self._length()
            raw, self.received = self.received[:length], self.received[length:]
            _, kind, _, xid = HEADER.unpack_from(raw)
            if kind != ECHO_REQUEST:
                return Message(kind, xid, raw)
            self.socket.sendall(HEADER.pack(VERSION, ECHO_REPLY, length, xid) + raw[HEADER.size :])

    def _length(self):
        length = HEADER.unpack_from(self.received)[2]
        if length < HEADER.size:
            raise ValueError(f"message of length {length}")
        return length

    def barrier(self):
        """Sends a barrier, waits for its reply and returns the messages that came before it, in order."""
        xid = self.send(BARRIER_REQUEST)
        before = []
        while True:
            message = self.receive()
            if message.type == BARRIER_REPLY and message.xid == xid:
                return before
            before.append(message)


ERRORS = {(1, 5): "OFPBRC_EPERM", (5, 0): "OFPFMFC_UNKNOWN"}  # those that occur in the tests


def error_of(message):
    """Returns (name, data) of an error message; (type, code) instead of the name if ERRORS lacks it."""
    numbers = struct.unpack_from("!HH", message.raw, HEADER.size)
    return ERRORS.get(numbers, numbers), message.raw[HEADER.size + 4 :]
