"""A controller for osken-manager: a learning switch, a monitor of its counters, and a witness of the links that os-ken discovers.

It appends what it sees to the file KELIM_TOLD, a JSON object a line.
"""

import json
import os

from os_ken.base import app_manager
from os_ken.controller import ofp_event
from os_ken.controller.handler import CONFIG_DISPATCHER, MAIN_DISPATCHER, set_ev_cls
from os_ken.lib import hub
from os_ken.lib.packet import ether_types, ethernet, packet
from os_ken.ofproto import ofproto_v1_3 as of
from os_ken.ofproto import ofproto_v1_3_parser as parser
from os_ken.topology import event, switches


class Learning(app_manager.OSKenApp):
    OFP_VERSIONS = [of.OFP_VERSION]
    _CONTEXTS = {"switches": switches.Switches}

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.known, self.datapaths = {}, {}
        hub.spawn(self.monitor)

    def tell(self, **what):
        with open(os.environ["KELIM_TOLD"], "a") as told:
            print(json.dumps(what), file=told)

    def add(self, datapath, priority, match, *outputs):
        actions = [parser.OFPActionOutput(port, of.OFPCML_NO_BUFFER) for port in outputs]
        instructions = [parser.OFPInstructionActions(of.OFPIT_APPLY_ACTIONS, actions)]
        datapath.send_msg(parser.OFPFlowMod(datapath=datapath, priority=priority, match=match, instructions=instructions))

    @set_ev_cls(ofp_event.EventOFPSwitchFeatures, CONFIG_DISPATCHER)
    def connected(self, ev):
        self.datapaths[ev.msg.datapath.id] = ev.msg.datapath
        self.add(ev.msg.datapath, 0, parser.OFPMatch(), of.OFPP_CONTROLLER)

    @set_ev_cls(ofp_event.EventOFPPacketIn, MAIN_DISPATCHER)
    def packet_in(self, ev):
        datapath, in_port = ev.msg.datapath, ev.msg.match["in_port"]
        eth = packet.Packet(ev.msg.data).get_protocol(ethernet.ethernet)
        if eth.ethertype == ether_types.ETH_TYPE_LLDP:
            return  # the topology's
        self.known[datapath.id, eth.src] = in_port
        out = self.known.get((datapath.id, eth.dst), of.OFPP_FLOOD)
        self.tell(packet=datapath.id, source=eth.src, to=eth.dst, known=out != of.OFPP_FLOOD)
        if out != of.OFPP_FLOOD:
            self.add(datapath, 1, parser.OFPMatch(in_port=in_port, eth_dst=eth.dst, eth_src=eth.src), out)
        actions = [parser.OFPActionOutput(out)]
        datapath.send_msg(parser.OFPPacketOut(datapath=datapath, buffer_id=of.OFP_NO_BUFFER, in_port=in_port, actions=actions,
                                              data=ev.msg.data))

    @set_ev_cls(event.EventLinkAdd)
    def link(self, ev):
        self.tell(link=[[end.dpid, end.port_no] for end in (ev.link.src, ev.link.dst)])

    def monitor(self):
        while True:
            for datapath in self.datapaths.values():
                datapath.send_msg(parser.OFPFlowStatsRequest(datapath))
                datapath.send_msg(parser.OFPPortStatsRequest(datapath, 0, of.OFPP_ANY))
            hub.sleep(0.2)

    @set_ev_cls(ofp_event.EventOFPFlowStatsReply, MAIN_DISPATCHER)
    def flow_counters(self, ev):
        learnt = {f"{s.match['eth_src']} {s.match['eth_dst']}": s.packet_count for s in ev.msg.body if s.priority == 1}
        self.tell(flows=ev.msg.datapath.id, packets=learnt)

    @set_ev_cls(ofp_event.EventOFPPortStatsReply, MAIN_DISPATCHER)
    def port_counters(self, ev):
        self.tell(ports=ev.msg.datapath.id, packets={str(s.port_no): [s.rx_packets, s.tx_packets] for s in ev.msg.body})
