#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "kelim/common/kelim_debug.h"
#include "southbound_view.h"
#include "ssc_kelim/sdn/oxm_table.h"

namespace {

using southbound::bytes;
using southbound::flow_view;
using southbound::read;

constexpr std::uint32_t kUnknownSlot = 65535;
constexpr char kActionLogName[] = "ssc_sdn_set_ace_one_action";

constexpr std::uint64_t flow_bit(unsigned bit) {
  return std::uint64_t{1} << bit;
}

// False when there is nothing to parse: no node, or a flow that ends before its instructions.
bool has_instructions(const flow_view &flow, const flow_info_node *node) {
  return node && flow.has_match() && !flow.ends_at_match();
}

// ---- actions (OpenFlow 1.3.5, 7.2.5)

constexpr std::uint16_t kOutput = 0, kSetQueue = 21, kSetField = 25;

#define FLOW(name) flow_bit(S_POLICY_KELIM__FLOW_ACTION_E__##name)
#define ACE(name) flow_bit(S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_##name)

// The set-field actions that the switch knows.
struct set_field_row {
  std::uint32_t header;
  void (*store)(flow_description &, const std::byte *payload);
  std::uint64_t flow_bits, ace_bits;
};

using N = flow_description;

template <std::uint32_t Header, auto NodeValue, auto NodeMask = nullptr>
consteval set_field_row set_field(std::uint64_t flow_bits, std::uint64_t ace_bits) {
  return {Header, oxm::store<Header, NodeValue, NodeMask>, flow_bits, ace_bits};
}

// clang-format off
constexpr set_field_row kSetFields[] = {
    set_field<0x80000606, &N::mod_dst_mac, &N::mod_dst_mac_mask>(FLOW(SET_ETH_DST),  ACE(SET_DMAC)),
    set_field<0x80000806, &N::mod_src_mac, &N::mod_src_mac_mask>(FLOW(SET_ETH_SRC),  ACE(SET_SMAC)),
    set_field<0x80000c02, &N::mod_vid>                          (FLOW(SET_VLAN_VID), ACE(VID)),
    set_field<0x80000e01, &N::mod_cos>                          (FLOW(SET_VLAN_PCP), ACE(COS)),
    set_field<0x80001001, &N::mod_ipv4_dscp>                    (FLOW(SET_IP_DSCP),  ACE(IPV4_DSCP)),
};

// What an output port does. Deliberate: a flow to an unsupported port is kept, with a redirect that forwards nowhere.
enum class PortKind { unsupported, to_controller, normal, ordinary };
struct port_row {
  std::uint32_t port;
  PortKind kind;
};
constexpr port_row kReservedPorts[] = {
    {0xffffff00, PortKind::unsupported},   // MAX
    {0xfffffff8, PortKind::to_controller},  // IN_PORT
    {0xfffffff9, PortKind::unsupported},   // TABLE
    {0xfffffffa, PortKind::normal},        // NORMAL
    {0xfffffffb, PortKind::unsupported},   // FLOOD
    {0xfffffffc, PortKind::to_controller},  // ALL
    {0xfffffffd, PortKind::to_controller},  // CONTROLLER
    {0xfffffffe, PortKind::unsupported},   // LOCAL
    {0xffffffff, PortKind::unsupported},   // ANY
};
// clang-format on

PortKind kind_of(std::uint32_t port) {
  const auto *row = std::ranges::find(kReservedPorts, port, &port_row::port);
  return row == std::end(kReservedPorts) ? PortKind::ordinary : row->kind;
}

void output(flow_info_node &node, std::uint32_t port, std::uint64_t &flow_bits, std::uint64_t &ace_bits) {
  flow_bits |= FLOW(OUTPUT);
  node.output_ifx = port;
  SDN_VER_AS(kActionLogName, "out_port_ifx: %d(0x%x)\n", port, port);
  ace_bits |= ACE(REDIRECT);
  switch (kind_of(port)) {
    case PortKind::unsupported:
      SDN_ERROR_AS(kActionLogName, "do not support port type(0x%x).", port);
      return;
    case PortKind::to_controller:
      node.ctrl_flag = 1;
      ace_bits |= ACE(CTRL) | ACE(CPU_CODE) | ACE(COS);
      return;
    case PortKind::normal:
      SDN_VER_AS(kActionLogName, "out_port is normal.");
      break;
    case PortKind::ordinary:
      SDN_VER_AS(kActionLogName, "out_port_ifx = %d(0x%x).", port, port);
      break;
  }
  node.fwd_flag = 1;
  ace_bits |= ACE(FWD);
}

void set_queue(flow_info_node &node, std::uint32_t queue, std::uint64_t &flow_bits, std::uint64_t &ace_bits) {
  node.mod_queue_pri = queue;
  if (queue < 1 || queue > 8) SDN_ERROR_AS(kActionLogName, "queue_id: %d from SFC UI is ERROR\n", queue);
  flow_bits |= FLOW(SET_QUEUE);
  ace_bits |= ACE(PRIO_IN);
}

// `body` begins with the OXM header. False when the value does not fit in it.
bool set_field_value(flow_info_node &node, bytes body, std::uint64_t &flow_bits, std::uint64_t &ace_bits) {
  const auto *row = std::ranges::find(kSetFields, read<std::uint32_t>(body, 0), &set_field_row::header);
  if (row == std::end(kSetFields)) return true;
  if (body.size() < sizeof row->header + oxm::payload(row->header)) return false;
  row->store(node, body.data() + sizeof row->header);
  flow_bits |= row->flow_bits;
  ace_bits |= row->ace_bits;
  return true;
}
#undef FLOW
#undef ACE

// Stores one action in the node. False if its value is cut off.
bool take_action(flow_info_node &node, std::uint16_t type, bytes body, std::uint64_t &flow_bits, std::uint64_t &ace_bits) {
  if (type == kSetField) return set_field_value(node, body, flow_bits, ace_bits);
  if (type != kOutput && type != kSetQueue) return true;
  if (body.size() < sizeof(std::uint32_t)) return false;
  const auto number = read<std::uint32_t>(body, 0);
  (type == kOutput ? output : set_queue)(node, number, flow_bits, ace_bits);
  return true;
}

}  // namespace

std::int32_t ssc_kelim_parse_flow_rule_para(const void *msg, flow_info_node *node) {
  const flow_view flow(msg, node ? node->raw_len : 0);
  if (!has_instructions(flow, node)) {
    SDN_ERROR("flow_info_node is NULL");
    return QX_INVALID;
  }
  std::uint64_t field_bits = 0, rule_bits = 0;
  for (auto at = flow.match(); at.more(); at.next()) {
    const oxm_row *row = at.whole() ? oxm_find(at.word()) : nullptr;
    if (!row) {
      SDN_ERROR("OXM_VALUE = 0x%x isn't support", at.word());
      break;
    }
    row->store(*node, at.body().data());
    field_bits |= row->field_bits;
    rule_bits |= row->rule_bits;
  }
  node->flow_field_bitmap = field_bits;
  node->rule_bitmap = rule_bits;
  SDN_VER("flow_field_bitmap:%lu, rule_bitmap: %lu", field_bits, rule_bits);
  return 0;
}

std::int32_t ssc_kelim_parse_flow_action_para(const void *msg, flow_info_node *node) {
  const flow_view flow(msg, node ? node->raw_len : 0);
  if (!has_instructions(flow, node)) {
    SDN_ERROR("flow_info_node is NULL");
    return QX_INVALID;
  }
  std::uint64_t flow_bits = 0, ace_bits = 0;
  for (auto at = flow.actions(); at.more(); at.next()) {
    const auto type = static_cast<std::uint16_t>(at.word());
    if (!at.whole() || !take_action(*node, type, at.body(), flow_bits, ace_bits)) {
      SDN_ERROR("OXM_VALUE = 0x%x isn't support", at.word());
      break;
    }
  }
  node->action_bitmap = ace_bits;
  node->flow_action_bitmap = flow_bits;
  return 0;
}

std::uint32_t ssc_sdn_get_key_field_len(std::uint32_t oxm_header) {
  const oxm_row *row = oxm_find(oxm_header);
  return row ? static_cast<std::uint32_t>(row->slot()) : kUnknownSlot;
}

std::int32_t libproxy_fp_sdn_get_key_field_len(std::uint32_t oxm_header) {
  const oxm_row *row = oxm_find(oxm_header);
  const std::int32_t len = row && row->text.label ? static_cast<std::int32_t>(row->slot()) : -1;
  std::printf("tlv_len: %d, ", len);
  return len;
}
