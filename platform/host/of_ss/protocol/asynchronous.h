// Sends asynchronous messages (OpenFlow 1.3.5, 7.4) to the controllers that want them. Openflow thread.
#pragma once

#include "host/ddm/ports.h"
#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

// Sends OFPT_FLOW_REMOVED.
void send_flow_removed(Switch &sw, const FlowEntry &flow, RemovedReason reason);

// Updates the ports and sends an OFPT_PORT_STATUS for each change.
void update_ports(Switch &sw);

// Writes an ofp_port (7.2.1).
void put_port(Writer &out, const ddm::Port &port);

}  // namespace host::of_ss
