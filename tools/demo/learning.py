"""A learning switch: a controller that learns the hosts' ports from their packets alone.

Packets that match no flow come to it. It notes the sender's port, sends the packet to the receiver's port, or to all ports while that is
unknown, and adds a flow for the packets that follow.
"""

import threading

import openflow

PRIORITY = 1  # of the learnt flows


class LearningSwitch(threading.Thread):
    """The constructor completes the handshake and installs the flow for unknown packets; start() begins the learning."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.client = openflow.Client(port).handshake()
        self.known = {}  # address -> port
        self.seen = []  # packets received
        miss = openflow.flow_mod(openflow.ADD, openflow.match(), openflow.apply_actions(openflow.output(openflow.CONTROLLER)), priority=0)
        self.client.send(openflow.FLOW_MOD, miss)
        self.client.barrier()

    def run(self):
        try:
            while True:
                message = self.client.receive()
                if message.type == openflow.PACKET_IN:
                    self.learn(openflow.packet_in_of(message))
        except (EOFError, OSError):
            pass

    def learn(self, packet):
        self.seen.append(packet)
        receiver, sender = packet.frame[:6], packet.frame[6:12]
        self.known[sender] = packet.in_port
        output = openflow.output(self.known.get(receiver, openflow.FLOOD))
        if receiver in self.known:
            fields = (openflow.oxm(0, packet.in_port.to_bytes(4, "big")), openflow.oxm(3, receiver), openflow.oxm(4, sender))
            flow = openflow.flow_mod(openflow.ADD, openflow.match(*fields), openflow.apply_actions(output), priority=PRIORITY)
            self.client.send(openflow.FLOW_MOD, flow)
        self.client.send(openflow.PACKET_OUT, openflow.packet_out(packet.frame, output, in_port=packet.in_port))

    def close(self):
        self.client.socket.shutdown(2)
        self.join()
        self.client.close()
