"""A learning switch: a controller that knows of a network only what its packets tell.

What no flow matches comes to it. It notes where the sender is, sends the packet where the receiver is, or everywhere while that is not
known, and adds a flow for the packets that follow.
"""

import threading

import openflow

PRIORITY = 1  # of what it has learnt


class LearningSwitch(threading.Thread):
    """Has shaken hands, and its flow for everything unknown is in force, when it has been made; start() sets it to work."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.client = openflow.Client(port).handshake()
        self.known = {}  # address -> port
        self.seen = []  # packets that came
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
