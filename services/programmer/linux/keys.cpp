#include "programmer/linux/keys.h"

#include <algorithm>

#include "programmer/linux/memory.h"

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

dp_actions rewrites_of(const EntryActions &actions) {
  struct Row {
    EntryActions::Set wanted;
    __u8 set;
  };
  constexpr Row kRows[] = {{EntryActions::kEthDst, DP_SET_DST},  {EntryActions::kEthSrc, DP_SET_SRC},
                           {EntryActions::kVlanId, DP_SET_VLAN}, {EntryActions::kVlanPcp, DP_SET_VLAN},
                           {EntryActions::kDscp, DP_SET_DSCP},   {EntryActions::kQueue, DP_SET_QUEUE}};
  dp_actions out{};
  for (const Row &row : kRows)
    if ((actions.sets & row.wanted) != 0) out.sets |= row.set;
  const bool id = (actions.sets & EntryActions::kVlanId) != 0, pcp = (actions.sets & EntryActions::kVlanPcp) != 0;
  out.vlan = tag_of(pcp ? actions.vlan_pcp : 0, id ? actions.vlan_id : 0);
  out.vlan_mask = tag_of(pcp ? 7 : 0, id ? DP_VLAN_ID : 0);
  out.dscp = actions.dscp;
  out.queue = static_cast<__u16>(actions.queue);
  std::ranges::copy(actions.eth_dst, out.eth_dst);
  std::ranges::copy(actions.eth_src, out.eth_src);
  return out;
}

// ---- lists

namespace {

struct TypeRow {
  Action::Type type;
  __u8 kind;
};
constexpr TypeRow kTypes[] = {
    {Action::kOutput, DP_STEP_OUTPUT},  {Action::kPushVlan, DP_STEP_PUSH}, {Action::kPopVlan, DP_STEP_POP},
    {Action::kSetQueue, DP_STEP_QUEUE}, {Action::kSetTtl, DP_STEP_TTL},    {Action::kDecTtl, DP_STEP_DEC_TTL},
};

// By OpenFlow's number (1.3.5, 7.2.3.7).
struct FieldRow {
  std::uint8_t number;
  __u8 kind;
  __u16 at = 0;
  __u16 mask = 0;
  __u8 proto = 0;
};
constexpr FieldRow kFields[] = {
    {3, DP_STEP_ETH, 0},
    {4, DP_STEP_ETH, 6},
    {6, DP_STEP_VLAN, 0, DP_VLAN_ID},
    {7, DP_STEP_VLAN, 0, 7 << DP_VLAN_PCP_SHIFT},
    {8, DP_STEP_DSCP},
    {11, DP_STEP_IPV4, DP_IPV4_SRC},
    {12, DP_STEP_IPV4, DP_IPV4_DST},
    {13, DP_STEP_L4, 0, 0, DP_TCP},
    {14, DP_STEP_L4, 2, 0, DP_TCP},
    {15, DP_STEP_L4, 0, 0, DP_UDP},
    {16, DP_STEP_L4, 2, 0, DP_UDP},
    {26, DP_STEP_IPV6, DP_IPV6_SRC},
    {27, DP_STEP_IPV6, DP_IPV6_DST},
};

void put_value(const Action &action, dp_step &step) {
  if (step.kind == DP_STEP_IPV4) {
    for (unsigned i = 0; i < 4; ++i) step.bytes[i] = static_cast<__u8>(action.number >> (24 - 8 * i));
  } else if (step.kind == DP_STEP_ETH || step.kind == DP_STEP_IPV6) {
    std::ranges::copy(action.bytes, step.bytes);
  } else {
    step.value = static_cast<__u16>(step.kind == DP_STEP_VLAN && step.mask != DP_VLAN_ID ? action.number << DP_VLAN_PCP_SHIFT
                                                                                         : action.number);
  }
}

}  // namespace

dp_step step_of(const Action &action) {
  dp_step step{};
  if (action.type != Action::kSetField) {
    step.kind = std::ranges::find(kTypes, action.type, &TypeRow::type)->kind;
    if (step.kind != DP_STEP_OUTPUT) step.value = static_cast<__u16>(action.number);
    return step;
  }
  const FieldRow &row = *std::ranges::find(kFields, action.field, &FieldRow::number);
  step.kind = row.kind, step.at = row.at, step.mask = row.mask, step.proto = row.proto;
  put_value(action, step);
  if (step.mask != 0) step.value &= step.mask;
  return step;
}

}  // namespace programmer::dataplane
