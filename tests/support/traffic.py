"""Programs that the hosts run, given to `python3 -c`: an echo server on port 7, a client that asks it once, and one that sends much."""

# Connections are reset at once, so that none of their packets arrives during the next test.
END_AT_ONCE = "import socket, struct, sys; at_once = (socket.SOL_SOCKET, socket.SO_LINGER, struct.pack('ii', 1, 0))"
# A thread per connection: the reset of an earlier one may have been lost with the flows of its test.
ECHO_SERVER = END_AT_ONCE + """
import threading
def echo(peer):
    peer.setsockopt(*at_once)
    with peer:
        try:
            while data := peer.recv(1 << 16):
                peer.sendall(data)
        except ConnectionResetError:
            pass
kind = {"tcp": socket.SOCK_STREAM, "udp": socket.SOCK_DGRAM}[sys.argv[1]]
server = socket.socket(socket.AF_INET, kind)
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(("", 7))
if kind == socket.SOCK_STREAM:
    server.listen()
print(flush=True)
while True:
    if kind == socket.SOCK_STREAM:
        threading.Thread(target=echo, args=[server.accept()[0]], daemon=True).start()
    else:
        server.sendto(*server.recvfrom(1 << 16))
"""
ASK = END_AT_ONCE + """
kind = {"tcp": socket.SOCK_STREAM, "udp": socket.SOCK_DGRAM}[sys.argv[1]]
client = socket.socket(socket.AF_INET, kind)
client.setsockopt(*at_once)
client.settimeout(30)
client.connect((sys.argv[2], 7))
client.send(b"hello")
print(client.recv(99).decode())
"""
# Prints how many bytes came back and their sum.
PUSHED = bytes(range(250)) * 400
PUSH = END_AT_ONCE + """
client = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
client.setsockopt(*at_once)
client.connect((sys.argv[1], int(sys.argv[2])))
client.sendall(bytes(range(250)) * 400)
data = client.makefile("rb").read(250 * 400)
print(len(data), sum(data))
"""
