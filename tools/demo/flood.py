"""Programs that two hosts run, given to `python3 -c`: a sink on port 9 that counts what it receives, and a client that sends as fast as it
can."""

# Prints an empty line when it is ready, and then the bytes received within that many seconds from the first ones on.
SINK = """
import socket, sys, time
if sys.argv[1] == "tcp":
    server = socket.create_server(("", 9))
    print(flush=True)
    sink, _ = server.accept()
else:
    sink = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sink.bind(("", 9))
    print(flush=True)
sink.settimeout(5)
total, room = sink.recv_into(bytearray(1 << 16)), bytearray(1 << 16)
end = time.monotonic() + float(sys.argv[2])
while time.monotonic() < end:
    total += sink.recv_into(room)
print(total, flush=True)
"""
FLOOD = """
import socket, sys
kind = {"tcp": socket.SOCK_STREAM, "udp": socket.SOCK_DGRAM}[sys.argv[1]]
client = socket.socket(socket.AF_INET, kind)
client.connect((sys.argv[2], 9))
data = bytes(int(sys.argv[3]))
while True:
    client.send(data)
"""
