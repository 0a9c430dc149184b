#include "programmer/chain.h"

#include <array>
#include <map>
#include <tuple>

namespace programmer {
namespace {

using Match = SPolicyKelim__FlowField;
using AceMatch = SPolicyKelim__FlowAceField;
using FlowActions = SPolicyKelim__FlowAction;
using AceActions = SPolicyKelim__FlowAceAction;
using Mac = std::array<std::uint8_t, 6>;

constexpr std::size_t kNodes = 2;
// Locally administered addresses of the service nodes.
constexpr Mac kNodeMac[kNodes] = {{0x02, 0x6b, 0x65, 0x6c, 0x00, 0x01}, {0x02, 0x6b, 0x65, 0x6c, 0x00, 0x02}};
constexpr Mac kExact = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr char kAppType[] = "service_chain";

constexpr std::uint64_t bit(unsigned number) {
  return std::uint64_t{1} << number;
}

// Maps a bit of the flow to a bit of the entry, with the members that belong to it; sub-messages are shared, not copied.
template <typename From, typename To>
struct Row {
  unsigned from_bit;
  unsigned to_bit;
  void (*copy)(const From &, To &);
};

// clang-format off
#define MATCH_ROW(flow_bit, rule_bit, member)                                                                    \
  {S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_OF_##flow_bit, S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_##rule_bit, \
   [](const Match &from, AceMatch &to) { to.member = from.member, to.member##_mask = from.member##_mask; }}
#define ACTION_ROW(flow_bit, action_bit, from_member, to_member)                                            \
  {S_POLICY_KELIM__FLOW_ACTION_E__##flow_bit, S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_##action_bit, \
   [](const FlowActions &from, AceActions &to) { to.to_member = from.from_member; }}
// clang-format on

constexpr Row<Match, AceMatch> kMatchRows[] = {
    MATCH_ROW(ETH_DST, MAC_DST, dst_mac),
    MATCH_ROW(ETH_SRC, MAC_SRC, src_mac),
    MATCH_ROW(ETH_TYPE, ETYPE, etype),
    MATCH_ROW(VLAN_VID, VID, vid),
    MATCH_ROW(VLAN_PCP, COS, cos),
    MATCH_ROW(IP_DSCP, IPV4_DSCP, ipv4_dscp),
    MATCH_ROW(IP_PROTO, IPV4_PROTOCOL, protocol),
    MATCH_ROW(IPV4_SRC, IPV4_SRC, src_ipv4),
    MATCH_ROW(IPV4_DST, IPV4_DST, dst_ipv4),
    MATCH_ROW(TCP_SRC, SRC_L4PORT, sport),
    MATCH_ROW(UDP_SRC, SRC_L4PORT, sport),
    MATCH_ROW(TCP_DST, DST_L4PORT, dport),
    MATCH_ROW(UDP_DST, DST_L4PORT, dport),
    MATCH_ROW(ICMPV4_TYPE, ICMP_TYPE, icmp_type),
    MATCH_ROW(ICMPV4_CODE, ICMP_CODE, icmp_code),
    MATCH_ROW(IPV6_SRC, IPV6_SRC, ipv6_src),
    MATCH_ROW(IPV6_DST, IPV6_DST, ipv6_dst),
    MATCH_ROW(IPV6_EXTHDR, IPV6_NEXT_HDR, next_header),
};
// SET_ETH_DST is missing: within the chain the destination is the node's.
constexpr Row<FlowActions, AceActions> kActionRows[] = {
    ACTION_ROW(OUTPUT, REDIRECT, output_ifx, redirect_ifx),
    ACTION_ROW(SET_QUEUE, PRIO_IN, mod_queue_pri, mod_prio_in),
    ACTION_ROW(SET_VLAN_VID, VID, mod_vid, mod_vid),
    ACTION_ROW(SET_VLAN_PCP, COS, mod_cos, mod_cos),
    ACTION_ROW(SET_IP_DSCP, IPV4_DSCP, mod_ipv4_dscp, mod_ipv4_dscp),
};
#undef MATCH_ROW
#undef ACTION_ROW

template <typename From, typename To, std::size_t N>
std::uint64_t translate(const Row<From, To> (&rows)[N], const From &from, std::uint64_t from_bits, To &to) {
  std::uint64_t to_bits = 0;
  for (const auto &row : rows) {
    if ((from_bits & bit(row.from_bit)) == 0) continue;
    row.copy(from, to);
    to_bits |= bit(row.to_bit);
  }
  return to_bits;
}

PLibpub__Mac mac_of(const Mac &address) {
  PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
  mac.data = {address.size(), const_cast<std::uint8_t *>(address.data())};
  return mac;
}

// An entry and everything that it points to.
struct NodeEntry {
  SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT;
  AceMatch match = S_POLICY_KELIM__FLOW_ACE_FIELD__INIT;
  AceActions actions = S_POLICY_KELIM__FLOW_ACE_ACTION__INIT;
  PLibpub__Mac node, previous_node, exact = mac_of(kExact);

  NodeEntry(const SPolicyKelim__ParseFlow &flow, std::size_t position) : node(mac_of(kNodeMac[position])) {
    ace.sn = position + 1;
    ace.acl_app_type = const_cast<char *>(kAppType);
    ace.ace_field = &match;
    ace.ace_action = &actions;
    if (flow.field) {
      match.rule_bitmap = translate(kMatchRows, *flow.field, flow.field->flow_field_bitmap, match);
      match.in_port_ifx = flow.field->in_port_ifx;
    }
    if (flow.action) actions.action_bitmap = translate(kActionRows, *flow.action, flow.action->flow_action_bitmap, actions);
    actions.action_bitmap |=
        bit(S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_FWD) | bit(S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_SET_DMAC);
    actions.fwd = 1;
    actions.mod_dst_mac = &node;
    actions.mod_dst_mac_mask = &exact;
    if (position > 0) come_from(kNodeMac[position - 1]);
  }
  NodeEntry(const NodeEntry &) = delete;
  NodeEntry &operator=(const NodeEntry &) = delete;

 private:
  void come_from(const Mac &address) {
    previous_node = mac_of(address);
    match.rule_bitmap |= bit(S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_MAC_SRC);
    match.src_mac = &previous_node;
    match.src_mac_mask = &exact;
  }
};

template <typename Record>
const Record *record_of(const qx_obj *object) {
  const auto *record = object ? static_cast<const Record *>(object->value) : nullptr;
  return record && record->index ? record : nullptr;
}

using Key = std::tuple<std::uint32_t, std::uint64_t, std::uint32_t>;

Key key_of(const SPolicyKelim__ParseFlowKey &key) {
  return {key.t_flow_type, key.flow_index, key.vsd_id};
}

}  // namespace

Chain::Chain(Context &context)
    : context_(context),
      catch_up_(
          context.global->master, [](void *self) { return static_cast<Chain *>(self)->resynchronise(); }, this,
          "programmer chain again") {}

void Chain::notified(const qx_obj &msg) {
  if (msg.cmd == QX_MOM_CMD_SET) written(msg);
  if (msg.cmd == QX_MOM_CMD_DEL) deleted(msg);
  if (msg.cmd == QX_MOM_CMD_DATA_FETCH) catch_up_.now();
}

void Chain::written(const qx_obj &msg) {
  const auto *flow = record_of<SPolicyKelim__ParseFlow>(&msg);
  if (!flow) return report_fault(context_, "parse_flow record", {});
  if (!answer(*flow)) catch_up_.soon();
}

void Chain::deleted(const qx_obj &msg) {
  const auto *flow = record_of<SPolicyKelim__ParseFlow>(&msg);
  if (!flow) return report_fault(context_, "parse_flow record", {});
  SPolicyKelim__FlowToAce entries = S_POLICY_KELIM__FLOW_TO_ACE__INIT;
  entries.index = flow->index;
  const int result = qx_mom_del(context_.global, kChainDb, &entries.base, 0, 0);
  if (result != 0 && result != QX_NOT_FOUND) catch_up_.soon();
}

bool Chain::answer(const SPolicyKelim__ParseFlow &flow) {
  NodeEntry first(flow, 0);
  NodeEntry second(flow, 1);
  SPolicyKelim__FlowAce *aces[kNodes] = {&first.ace, &second.ace};
  SPolicyKelim__FlowToAce entries = S_POLICY_KELIM__FLOW_TO_ACE__INIT;
  entries.index = flow.index;
  entries.n_ace = kNodes;
  entries.ace = aces;
  entries.rep_uuid = flow.req_uuid;
  const int result = qx_mom_set(context_.global, kChainDb, &entries.base, 0, 0);
  if (result == 0) {
    ++translated_;
  } else {
    PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "flow_to_ace of flow %llu cannot be written: %d",
                   static_cast<unsigned long long>(flow.index->flow_index), result);
  }
  return result == 0;
}

// ---- resynchronisation

// Answers flows whose answer is missing or outdated, and deletes answers without a flow.
bool Chain::resynchronise() {
  SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  SPolicyKelim__ParseFlow any_flow = S_POLICY_KELIM__PARSE_FLOW__INIT;
  SPolicyKelim__FlowToAce any_entries = S_POLICY_KELIM__FLOW_TO_ACE__INIT;
  any_flow.index = &key;
  any_entries.index = &key;
  std::map<Key, std::uint64_t> answered;  // the request's stamp
  bool complete = scan(context_, kChainDb, any_entries, [&](const qx_obj &object) {
    if (const auto *entries = record_of<SPolicyKelim__FlowToAce>(&object)) answered[key_of(*entries->index)] = entries->rep_uuid;
  });
  bool done = true;
  complete = complete && scan(context_, kChainDb, any_flow, [&](const qx_obj &object) {
               const auto *flow = record_of<SPolicyKelim__ParseFlow>(&object);
               if (!flow) return;
               const auto found = answered.extract(key_of(*flow->index));
               if (found.empty() || found.mapped() != flow->req_uuid) done &= answer(*flow);
             });
  if (!complete) return false;
  for (const auto &[orphan, stamp] : answered) {
    std::tie(key.t_flow_type, key.flow_index, key.vsd_id) = orphan;
    const int result = qx_mom_del(context_.global, kChainDb, &any_entries.base, 0, 0);
    done &= result == 0 || result == QX_NOT_FOUND;
  }
  return done;
}

}  // namespace programmer
