// Parsing a flow-mod: from received bytes to a cached node.
//
// Parsing never rejects a flow: anything unknown is logged, and the part parsed before it is kept. Received bytes are not
// trusted: every walk ends where the message ends.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

#include "ssc_kelim/sdn/flow_node.h"

// Reads the match (OpenFlow 1.3.5, 7.2.3) of the flow-mod at `flow`, node->raw_len bytes, into `node`. 0, or QX_INVALID for a
// null node or a flow without instruction block; `node` is then untouched.
std::int32_t ssc_kelim_parse_flow_rule_para(const void *flow, flow_info_node *node);

// Reads the actions (OpenFlow 1.3.5, 7.2.5) the same way.
std::int32_t ssc_kelim_parse_flow_action_para(const void *flow, flow_info_node *node);

// Bytes that a match field occupies in the message, 65535 for a field that the switch does not know.
std::uint32_t ssc_sdn_get_key_field_len(std::uint32_t oxm_header);

// The same for the dump of flows, which knows fewer fields: -1 for the others. Prints "tlv_len: %d, " with its result. Any
// thread.
std::int32_t libproxy_fp_sdn_get_key_field_len(std::uint32_t oxm_header);
