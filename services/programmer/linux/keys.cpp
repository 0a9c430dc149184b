#include "programmer/linux/keys.h"

#include <algorithm>

namespace programmer::dataplane {
namespace {

std::uint16_t tag_of(std::uint8_t pcp, std::uint16_t id) {
  return static_cast<std::uint16_t>(pcp << DP_VLAN_PCP_SHIFT | id);
}

// Used for values and for masks. IPv4 and IPv6 share the address bytes, because the version that a flow does not match on is
// zero.
dp_key key_of(const Fields &fields) {
  dp_key key{};
  key.in_port = fields.in_port;
  key.eth_type = fields.eth_type;
  key.vlan = static_cast<__u16>(tag_of(fields.vlan_pcp, fields.vlan_id) | (fields.tagged ? DP_VLAN_PRESENT : 0));
  std::ranges::copy(fields.eth_dst, key.eth_dst);
  std::ranges::copy(fields.eth_src, key.eth_src);
  key.proto = fields.proto;
  key.dscp = fields.dscp;
  key.ext_headers = fields.ext_headers;
  key.l4_src = fields.l4_src;
  key.l4_dst = fields.l4_dst;
  std::ranges::copy(fields.ipv6_src, key.src);
  std::ranges::copy(fields.ipv6_dst, key.dst);
  for (std::size_t i = 0; i < fields.ipv4_src.size(); ++i) {
    key.src[i] |= fields.ipv4_src[i];
    key.dst[i] |= fields.ipv4_dst[i];
  }
  return key;
}

// The headers that a packet must have for the mask's fields to be present.
__u8 headers_for(const Fields &mask) {
  Fields ip;
  ip.proto = mask.proto, ip.dscp = mask.dscp, ip.ext_headers = mask.ext_headers;
  ip.ipv4_src = mask.ipv4_src, ip.ipv4_dst = mask.ipv4_dst, ip.ipv6_src = mask.ipv6_src, ip.ipv6_dst = mask.ipv6_dst;
  const bool l4 = mask.l4_src != 0 || mask.l4_dst != 0;
  return static_cast<__u8>((ip != Fields{} || l4 ? DP_HAS_IP : 0) | (l4 ? DP_HAS_L4 : 0));
}

}  // namespace

KeyAndMask key_of(const Entry &entry) {
  KeyAndMask out{key_of(entry.value), key_of(entry.mask)};
  out.key.has = out.mask.has = headers_for(entry.mask);
  return out;
}

dp_actions rewrites_of(const Actions &actions) {
  struct Row {
    Actions::Set wanted;
    __u8 set;
  };
  constexpr Row kRows[] = {{Actions::kEthDst, DP_SET_DST},   {Actions::kEthSrc, DP_SET_SRC}, {Actions::kVlanId, DP_SET_VLAN},
                           {Actions::kVlanPcp, DP_SET_VLAN}, {Actions::kDscp, DP_SET_DSCP},  {Actions::kQueue, DP_SET_QUEUE}};
  dp_actions out{};
  for (const Row &row : kRows)
    if ((actions.sets & row.wanted) != 0) out.sets |= row.set;
  const bool id = (actions.sets & Actions::kVlanId) != 0, pcp = (actions.sets & Actions::kVlanPcp) != 0;
  out.vlan = tag_of(pcp ? actions.vlan_pcp : 0, id ? actions.vlan_id : 0);
  out.vlan_mask = tag_of(pcp ? 7 : 0, id ? DP_VLAN_ID : 0);
  out.dscp = actions.dscp;
  out.queue = static_cast<__u16>(actions.queue);
  std::ranges::copy(actions.eth_dst, out.eth_dst);
  std::ranges::copy(actions.eth_src, out.eth_src);
  return out;
}

}  // namespace programmer::dataplane
