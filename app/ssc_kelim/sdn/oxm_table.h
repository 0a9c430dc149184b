// The match fields: one row for every OXM header that the switch knows (OpenFlow 1.3.5, 7.2.3).
//
// A header is class (16 bits), field (7 bits), has-mask (1 bit), payload length in bytes (8 bits). The payload is the value and,
// with has-mask, a mask of the same width; header and payload lie in a slot that is rounded up to a multiple of 8. Parsing, slot
// sizes, the conversion to and from records and the dump of a flow are walks over this table.
//
// Thread: any; constant data.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "s_policy_kelim.pb-c.h"
#include "southbound.h"
#include "ssc_kelim/sdn/flow_members.h"
#include "ssc_kelim/sdn/flow_node.h"

// How the dump of a flow prints a field. A field without a label is not known to the dump.
enum class oxm_format : std::uint8_t { decimal, hex, mac };
struct oxm_text {
  const char *label = nullptr;
  oxm_format format = oxm_format::decimal;
  bool in_set_field = false;  // printed in a set-field action, too
};

struct oxm_row {
  std::uint32_t header;
  bool stored;  // false: skipped
  oxm_text text;
  std::uint64_t field_bits;  // flow_field_e bits that it sets
  std::uint64_t rule_bits;   // flow_ace_rule_e bit that it sets
  void (*store)(flow_description &, const std::byte *payload);
  flow_members::ops<SPolicyKelim__FlowField> field;    // where the field lies in flow_field
  flow_members::ops<SPolicyKelim__FlowAceField> rule;  // and in flow_ace_field

  constexpr std::size_t slot() const { return southbound::oxm_slot(header); }
};

namespace oxm {

inline constexpr bool has_mask(std::uint32_t header) {
  return (header >> 8 & 1) != 0;
}
inline constexpr std::size_t payload(std::uint32_t header) {
  return header & 0xff;
}
inline constexpr std::size_t width(std::uint32_t header) {
  return payload(header) / (has_mask(header) ? 2 : 1);
}

// Stores the payload of a field with this header; without a mask in it, the mask becomes all ones of the field's width.
template <std::uint32_t Header, auto NodeValue, auto NodeMask>
void store(flow_description &node, const std::byte *bytes) {
  constexpr std::size_t n = width(Header);
  using value = typename flow_members::pointed_at<decltype(NodeValue)>::member;
  static_assert(payload(Header) == n * (has_mask(Header) ? 2 : 1), "value and mask have the same width");
  static_assert(std::is_array_v<value> ? n == sizeof(value) : n <= sizeof(value), "the value fits its member");
  std::memcpy(&(node.*NodeValue), bytes, n);
  if constexpr (has_mask(Header)) {
    std::memcpy(&(node.*NodeMask), bytes + n, n);
  } else if constexpr (NodeMask != nullptr) {
    std::memset(&(node.*NodeMask), 0xff, n);
  }
}

// A match field: its members in the node, in flow_field and in flow_ace_field. A null pointer means that there is no such member.
template <auto NodeValue, auto NodeMask, auto FieldValue, auto FieldMask, auto RuleValue, auto RuleMask>
struct match_field {
  template <std::uint32_t Header>
  static constexpr auto stored_by = store<Header, NodeValue, NodeMask>;

  static consteval flow_members::ops<SPolicyKelim__FlowField> field() {
    if constexpr (FieldValue == nullptr) {
      return flow_members::kNothing<SPolicyKelim__FlowField>;
    } else {
      return flow_members::pair<FieldValue, FieldMask, NodeValue, NodeMask>();
    }
  }
  static consteval flow_members::ops<SPolicyKelim__FlowAceField> rule() {
    if constexpr (RuleValue == nullptr) {
      return flow_members::kNothing<SPolicyKelim__FlowAceField>;
    } else {
      return flow_members::pair<RuleValue, RuleMask, NodeValue, NodeMask>();
    }
  }
};

using N = flow_description;
using F = SPolicyKelim__FlowField;
using A = SPolicyKelim__FlowAceField;

// Most members have the same name in the node and in both records.
#define ALIKE(name) match_field<&N::name, &N::name##_mask, &F::name, &F::name##_mask, &A::name, &A::name##_mask>
using eth_dst = ALIKE(dst_mac);
using eth_src = ALIKE(src_mac);
using eth_type = ALIKE(etype);
using vlan_vid = ALIKE(vid);
using vlan_pcp = ALIKE(cos);
using ip_dscp = ALIKE(ipv4_dscp);
using ip_proto = ALIKE(protocol);
using ipv4_src = ALIKE(src_ipv4);
using ipv4_dst = ALIKE(dst_ipv4);
using l4_src = ALIKE(sport);
using l4_dst = ALIKE(dport);
using icmp_type = ALIKE(icmp_type);
using icmp_code = ALIKE(icmp_code);
using ipv6_src = ALIKE(ipv6_src);
using ipv6_dst = ALIKE(ipv6_dst);
#undef ALIKE
// The ingress port is not part of an entry's rule; it is copied when an entry is built.
using in_port = match_field<&N::in_port, nullptr, &F::in_port_ifx, nullptr, nullptr, nullptr>;
// Deliberate: flow_field has members for these two, but only their bits go there; applications take the values as absent.
using exp_app_type = match_field<&N::exp_app_type, nullptr, nullptr, nullptr, nullptr, nullptr>;
using ipv6_exthdr = match_field<&N::next_header, &N::next_header_mask, nullptr, nullptr, &A::next_header, &A::next_header_mask>;

template <std::uint32_t Header, typename Field>
consteval oxm_row row(std::uint64_t field_bits, std::uint64_t rule_bits, oxm_text text) {
  return {Header, true, text, field_bits, rule_bits, Field::template stored_by<Header>, Field::field(), Field::rule()};
}

// A field that is skipped without being read.
template <std::uint32_t Header>
consteval oxm_row skipped(oxm_text text) {
  return {Header,
          false,
          text,
          0,
          0,
          [](flow_description &, const std::byte *) {},
          flow_members::kNothing<SPolicyKelim__FlowField>,
          flow_members::kNothing<SPolicyKelim__FlowAceField>};
}

inline constexpr std::uint64_t kNoRule = 0;

inline constexpr oxm_text kNotDumped;
inline constexpr bool kInSetField = true;
consteval oxm_text decimal(const char *label, bool in_set_field = false) {
  return {label, oxm_format::decimal, in_set_field};
}
consteval oxm_text hex(const char *label) {
  return {label, oxm_format::hex};
}
consteval oxm_text mac(const char *label) {
  return {label, oxm_format::mac, kInSetField};
}

#define FIELD(name) (std::uint64_t{1} << S_POLICY_KELIM__FLOW_FIELD_E__##name)
#define RULE(name) (std::uint64_t{1} << S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_##name)
// clang-format off
inline constexpr oxm_row kRows[] = {
    //  header      members           flow_field_e                 flow_ace_rule_e      text in the dump
    row<0x80000004, in_port>     (FIELD(OXM_SS_OF_IN_PORT),      kNoRule,             decimal("in_port_ifx")),
    row<0x80000606, eth_dst>     (FIELD(OXM_SS_OF_ETH_DST),      RULE(MAC_DST),       mac("dmac")),
    row<0x8000070c, eth_dst>     (FIELD(OXM_SS_OF_ETH_DST),      RULE(MAC_DST),       mac("dmac")),
    row<0x80000806, eth_src>     (FIELD(OXM_SS_OF_ETH_SRC),      RULE(MAC_SRC),       mac("smac")),
    row<0x8000090c, eth_src>     (FIELD(OXM_SS_OF_ETH_SRC),      RULE(MAC_SRC),       mac("smac")),
    row<0x80000a02, eth_type>    (FIELD(OXM_SS_OF_ETH_TYPE),     RULE(ETYPE),         hex("etype")),
    row<0x80000c02, vlan_vid>    (FIELD(OXM_SS_OF_VLAN_VID),     RULE(VID),           decimal("vid", kInSetField)),
    row<0x80000d04, vlan_vid>    (FIELD(OXM_SS_OF_VLAN_VID),     RULE(VID),           decimal("vid", kInSetField)),
    row<0x80000e01, vlan_pcp>    (FIELD(OXM_SS_OF_VLAN_PCP),     RULE(COS),           decimal("cos", kInSetField)),
    row<0x80001001, ip_dscp>     (FIELD(OXM_SS_OF_IP_DSCP),      RULE(IPV4_DSCP),     decimal("dscp", kInSetField)),
    skipped<0x80001201>          (/* IP_ECN */                                        kNotDumped),
    row<0x80001401, ip_proto>    (FIELD(OXM_SS_OF_IP_PROTO),     RULE(IPV4_PROTOCOL), decimal("protocol")),
    row<0x80001604, ipv4_src>    (FIELD(OXM_SS_OF_IPV4_SRC),     RULE(IPV4_SRC),      hex("ipv4_src")),
    row<0x80001708, ipv4_src>    (FIELD(OXM_SS_OF_IPV4_SRC),     RULE(IPV4_SRC),      hex("ipv4_src")),
    row<0x80001804, ipv4_dst>    (FIELD(OXM_SS_OF_IPV4_DST),     RULE(IPV4_DST),      hex("ipv4_dst")),
    row<0x80001908, ipv4_dst>    (FIELD(OXM_SS_OF_IPV4_DST),     RULE(IPV4_DST),      hex("ipv4_dst")),
    row<0x80001a02, l4_src>      (FIELD(OXM_SS_OF_TCP_SRC),      RULE(SRC_L4PORT),    decimal("l4_src_port")),
    // Deliberate: a TCP destination port sets the UDP bit too; readers of the bitmap take either as "destination port".
    row<0x80001c02, l4_dst>      (FIELD(OXM_SS_OF_TCP_DST) |
                                  FIELD(OXM_SS_OF_UDP_DST),      RULE(DST_L4PORT),    decimal("l4_dst_port")),
    // Deliberate: in the dump UDP ports have the labels of TCP ports.
    row<0x80001e02, l4_src>      (FIELD(OXM_SS_OF_UDP_SRC),      RULE(SRC_L4PORT),    decimal("l4_src_port")),
    row<0x80002002, l4_dst>      (FIELD(OXM_SS_OF_UDP_DST),      RULE(DST_L4PORT),    decimal("l4_dst_port")),
    row<0x80002601, icmp_type>   (FIELD(OXM_SS_OF_ICMPV4_TYPE),  RULE(ICMP_TYPE),     decimal("icmp_type")),
    row<0x80002801, icmp_code>   (FIELD(OXM_SS_OF_ICMPV4_CODE),  RULE(ICMP_CODE),     decimal("icmp_code")),
    skipped<0x80002a02>          (/* ARP_OP */                                        decimal("ARP_OP_CODE")),
    row<0x80003410, ipv6_src>    (FIELD(OXM_SS_OF_IPV6_SRC),     RULE(IPV6_SRC),      kNotDumped),
    row<0x80003520, ipv6_src>    (FIELD(OXM_SS_OF_IPV6_SRC),     RULE(IPV6_SRC),      kNotDumped),
    row<0x80003610, ipv6_dst>    (FIELD(OXM_SS_OF_IPV6_DST),     RULE(IPV6_DST),      kNotDumped),
    row<0x80003720, ipv6_dst>    (FIELD(OXM_SS_OF_IPV6_DST),     RULE(IPV6_DST),      kNotDumped),
    // Deliberate: ICMPv6 shares members and bits with ICMPv4; the IP protocol tells them apart.
    row<0x80003a01, icmp_type>   (FIELD(OXM_SS_OF_ICMPV4_TYPE),  RULE(ICMP_TYPE),     kNotDumped),
    row<0x80003c01, icmp_code>   (FIELD(OXM_SS_OF_ICMPV4_CODE),  RULE(ICMP_CODE),     kNotDumped),
    skipped<0x80004c08>          (/* TUNNEL_ID */                                     kNotDumped),
    row<0x80004e02, ipv6_exthdr> (FIELD(OXM_SS_OF_IPV6_EXTHDR),  RULE(IPV6_NEXT_HDR), kNotDumped),
    row<0x80004f04, ipv6_exthdr> (FIELD(OXM_SS_OF_IPV6_EXTHDR),  RULE(IPV6_NEXT_HDR), kNotDumped),
    // Experimenter class, field 1, 4 bytes: the application type.
    row<0xffff0204, exp_app_type>(FIELD(OXM_SS_OF_EXP_APP_TYPE), kNoRule,             decimal("app_type")),
};
// clang-format on
#undef FIELD
#undef RULE

// Rows by the header's second byte (field and has-mask), which is different in every row; 0 means none, else row number plus 1.
inline constexpr auto kIndex = [] {
  std::array<std::uint8_t, 256> index{};
  for (std::size_t i = 0; i < std::size(kRows); ++i) index[kRows[i].header >> 8 & 0xff] = static_cast<std::uint8_t>(i + 1);
  return index;
}();

static_assert(std::ranges::adjacent_find(kRows, std::ranges::greater_equal{}, &oxm_row::header) == std::end(kRows),
              "headers ascend");
static_assert(std::ranges::all_of(kRows, [](const oxm_row &r) { return r.stored == (r.field_bits != 0); }),
              "what is stored is flagged, what is walked over is not");
static_assert(std::ranges::all_of(kRows, [](const oxm_row &r) { return r.stored || r.rule_bits == 0; }));
static_assert(std::ranges::count_if(kIndex, [](std::uint8_t i) { return i != 0; }) == std::size(kRows),
              "the second byte of a header finds its row");

}  // namespace oxm

// The row of a header, or null for a field that the switch does not know.
inline const oxm_row *oxm_find(std::uint32_t header) {
  const std::uint8_t at = oxm::kIndex[header >> 8 & 0xff];
  return at != 0 && oxm::kRows[at - 1].header == header ? &oxm::kRows[at - 1] : nullptr;
}
