// A flow as the cache keeps it: its key, what its match and actions say, and its flow-mod as received.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

#include "southbound.h"

// The key as hashed and compared: all 16 bytes, so `filler` has to be 0 in every key that is built for a lookup.
struct flow_info_key {
  std::uint64_t flow_index;
  std::uint32_t vsd_id;
  std::uint32_t filler;
};

// The match and the actions of a flow, field by field. Values and masks as received, in host byte order; a field that came
// without a mask is given an all-ones mask of the field's width.
struct flow_description {
  std::uint8_t dst_mac[6], dst_mac_mask[6];
  std::uint8_t src_mac[6], src_mac_mask[6];
  std::uint8_t ipv6_src[16], ipv6_src_mask[16];
  std::uint8_t ipv6_dst[16], ipv6_dst_mask[16];
  std::uint8_t cos, cos_mask;              // VLAN priority
  std::uint8_t icmp_type, icmp_type_mask;  // ICMPv4 or ICMPv6
  std::uint8_t icmp_code, icmp_code_mask;
  std::uint8_t ipv4_dscp, ipv4_dscp_mask;
  std::uint8_t protocol, protocol_mask;
  std::uint16_t etype, etype_mask;
  std::uint16_t sport, sport_mask;  // TCP or UDP
  std::uint16_t dport, dport_mask;
  std::uint16_t next_header, next_header_mask;  // IPv6 extension headers
  std::uint32_t in_port;
  std::uint32_t exp_app_type;   // see is_service_chain
  std::uint32_t vid, vid_mask;  // 16-bit values
  std::uint32_t src_ipv4, src_ipv4_mask;
  std::uint32_t dst_ipv4, dst_ipv4_mask;
  std::uint8_t hit_state_l2_da;  // only in a node read back from a stored access-control entry
  std::uint8_t l3_uc;            // likewise
  std::uint8_t fwd_flag;         // output to an ordinary port or NORMAL
  std::uint8_t ctrl_flag;        // output to CONTROLLER, IN_PORT or ALL
  std::uint8_t keep_ttl_flag;    // only in a node read back from a stored access-control entry
  std::uint8_t mod_dst_mac[6], mod_dst_mac_mask[6];
  std::uint8_t mod_src_mac[6], mod_src_mac_mask[6];
  std::uint8_t mod_cos;
  std::uint8_t mod_ipv4_dscp;
  std::uint16_t mod_vid;
  std::uint32_t output_ifx;
  std::uint32_t mod_queue_pri;
};

// A node. It serves as its own key.
struct flow_info_node : flow_info_key, flow_description {
  std::uint64_t rule_bitmap;    // bits of flow_ace_rule_e
  std::uint64_t action_bitmap;  // bits of flow_ace_action_e
  std::uint32_t raw_len;        // bytes of `raw`
  // The install-state words, which a refreshed node takes over from its template.
  std::uint32_t install_state;       // 0
  std::uint64_t flow_field_bitmap;   // which match fields are present: bits of flow_field_e (bit 6: a VLAN id)
  std::uint64_t flow_action_bitmap;  // which actions are present: bits of flow_action_e
  std::uint8_t *raw;                 // the flow-mod as received; owned
};

static_assert(sizeof(flow_info_key) == 16 && sizeof(flow_description) == 192 && sizeof(flow_info_node) == 256,
              "a million of them: allocators serve 256 bytes without a remainder");

// True for a flow that its application translates into access-control entries.
inline bool is_service_chain(const flow_description &flow) {
  return flow.exp_app_type == southbound::kServiceChainAppType;
}
