#include "ssc_kelim/sdn/ssc_kelim_flow_convert.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <memory>

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/flow_members.h"
#include "ssc_kelim/sdn/oxm_table.h"

// Parsing and conversion log under one source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_flow_parse.cpp"

namespace flow_members {
template <>
inline constexpr auto init_of<SPolicyKelim__FlowField> = s_policy_kelim__flow_field__init;
template <>
inline constexpr auto init_of<SPolicyKelim__FlowAction> = s_policy_kelim__flow_action__init;
template <>
inline constexpr auto init_of<SPolicyKelim__FlowAceField> = s_policy_kelim__flow_ace_field__init;
template <>
inline constexpr auto init_of<SPolicyKelim__FlowAceAction> = s_policy_kelim__flow_ace_action__init;
template <>
inline constexpr auto init_of<SPolicyKelim__FlowAce> = s_policy_kelim__flow_ace__init;
}  // namespace flow_members

namespace {

using flow_members::first_failing_bit;
using flow_members::flag_member;
using flow_members::kNothing;
using flow_members::new_message;
using flow_members::ops;
using flow_members::pair;
using flow_members::single;

using N = flow_description;

// ---- members by bit

template <typename Record, std::size_t Bits>
using members_by_bit = std::array<ops<Record>, Bits>;

// The members of every bit of a bitmap, from the match fields that set it. Fields that set the same bit name the same members.
template <std::size_t Bits, typename Record>
consteval members_by_bit<Record, Bits> from_match_fields(std::uint64_t oxm_row::*bits, ops<Record> oxm_row::*members) {
  members_by_bit<Record, Bits> table;
  table.fill(kNothing<Record>);
  for (std::size_t bit = 0; bit < Bits; ++bit) {
    for (const oxm_row &row : oxm::kRows) {
      if (row.*bits >> bit & 1) {
        table[bit] = row.*members;
        break;
      }
    }
  }
  return table;
}

constexpr auto kFlowFields =
    from_match_fields<S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_FIELD_MAX>(&oxm_row::field_bits, &oxm_row::field);

// Two flags of an entry correspond to no match field; they occur only in entries of service-chain applications.
constexpr auto kAceRules = [] {
  auto table = from_match_fields<S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_MAX>(&oxm_row::rule_bits, &oxm_row::rule);
  using A = SPolicyKelim__FlowAceField;
  table[S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_L3_UC] = flag_member<&A::l3_uc, &N::l3_uc>();
  table[S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_HIT_STATE_L2_DA] = flag_member<&A::hit_state_l2_da, &N::hit_state_l2_da>();
  return table;
}();

constexpr auto kFlowActions = [] {
  using R = SPolicyKelim__FlowAction;
  members_by_bit<R, S_POLICY_KELIM__FLOW_ACTION_E__FLOW_ACTION_MAX> table;
  table.fill(kNothing<R>);
  table[S_POLICY_KELIM__FLOW_ACTION_E__OUTPUT] = single<&R::output_ifx, &N::output_ifx>();
  table[S_POLICY_KELIM__FLOW_ACTION_E__SET_QUEUE] = single<&R::mod_queue_pri, &N::mod_queue_pri>();
  table[S_POLICY_KELIM__FLOW_ACTION_E__SET_ETH_DST] =
      pair<&R::mod_dst_mac, &R::mod_dst_mac_mask, &N::mod_dst_mac, &N::mod_dst_mac_mask>();
  table[S_POLICY_KELIM__FLOW_ACTION_E__SET_ETH_SRC] =
      pair<&R::mod_src_mac, &R::mod_src_mac_mask, &N::mod_src_mac, &N::mod_src_mac_mask>();
  table[S_POLICY_KELIM__FLOW_ACTION_E__SET_VLAN_VID] = single<&R::mod_vid, &N::mod_vid>();
  table[S_POLICY_KELIM__FLOW_ACTION_E__SET_VLAN_PCP] = single<&R::mod_cos, &N::mod_cos>();
  table[S_POLICY_KELIM__FLOW_ACTION_E__SET_IP_DSCP] = single<&R::mod_ipv4_dscp, &N::mod_ipv4_dscp>();
  return table;
}();

// Bits without members (CPU_CODE, METER, L3_SWITCH, COUNTER) carry their meaning in the bitmap alone.
constexpr auto kAceActions = [] {
  using R = SPolicyKelim__FlowAceAction;
  members_by_bit<R, S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_MAX> table;
  table.fill(kNothing<R>);
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_FWD] = flag_member<&R::fwd, &N::fwd_flag>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_CTRL] = flag_member<&R::ctrl, &N::ctrl_flag>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_REDIRECT] = single<&R::redirect_ifx, &N::output_ifx>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_KEEP_TTL] = flag_member<&R::ttl_is_keep, &N::keep_ttl_flag>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_VID] = single<&R::mod_vid, &N::mod_vid>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_COS] = single<&R::mod_cos, &N::mod_cos>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_IPV4_DSCP] = single<&R::mod_ipv4_dscp, &N::mod_ipv4_dscp>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_PRIO_IN] = single<&R::mod_prio_in, &N::mod_queue_pri>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_SET_DMAC] =
      pair<&R::mod_dst_mac, &R::mod_dst_mac_mask, &N::mod_dst_mac, &N::mod_dst_mac_mask>();
  table[S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_SET_SMAC] =
      pair<&R::mod_src_mac, &R::mod_src_mac_mask, &N::mod_src_mac, &N::mod_src_mac_mask>();
  return table;
}();

template <typename Record, std::size_t Bits>
void fill_bit(const members_by_bit<Record, Bits> &table, Record *record, std::uint32_t bit, const flow_info_node *node,
              int *error) {
  if (bit < Bits && !table[bit].fill(*record, *node)) *error = 1;
}

// Runs Convert on every bit below Bits that is set, ascending. The bit at which memory ran out, or -1.
template <auto Convert, unsigned Bits, typename Record>
int fill_bits(Record *record, std::uint64_t bitmap, const flow_info_node *node) {
  return first_failing_bit(bitmap, Bits, [&](unsigned bit) {
    int error = 0;
    Convert(record, bit, node, &error);
    return error == 0;
  });
}

template <typename Record, std::size_t Bits>
void release_bits(const members_by_bit<Record, Bits> &table, std::uint64_t bitmap, Record *record) {
  first_failing_bit(bitmap, Bits, [&](unsigned bit) {
    table[bit].release(*record);
    return true;
  });
}

// ---- records under construction, which release their sub-messages when they are destroyed

void release(SPolicyKelim__FlowField *field) {
  ssc_sdn_free_field_ip_mac(field);
}
void release(SPolicyKelim__FlowAction *action) {
  ssc_sdn_free_action_mac(action);
}
void release(SPolicyKelim__FlowAceField *field) {
  ssc_sdn_free_ace_field_ip_mac(field);
}
void release(SPolicyKelim__FlowAceAction *action) {
  ssc_sdn_free_ace_action_mac(action);
}

struct free_record {
  template <typename Record>
  void operator()(Record *record) const {
    release(record);
    ssc_sdn_free(record);
  }
};
template <typename Record>
using record_ptr = std::unique_ptr<Record, free_record>;

template <typename Record>
record_ptr<Record> new_record() {
  return record_ptr<Record>(new_message<Record>().release());
}

template <typename Record>
void free_and_clear(Record *&record) {
  if (record) free_record{}(record);
  record = nullptr;
}

// The controller's request, as both kinds of record carry it.
struct request {
  record_ptr<SPolicyKelim__FlowField> field = new_record<SPolicyKelim__FlowField>();
  record_ptr<SPolicyKelim__FlowAction> action = new_record<SPolicyKelim__FlowAction>();

  bool complete() const { return field && action; }
  // False, after one line under the name of `caller`, when memory runs out.
  bool fill(const flow_info_node *node, const char *caller) {
    if (const int bit = ssc_sdn_fill_flow_field(field.get(), node); bit >= 0) {
      SDN_ERROR_AS(caller, "ssc_sdn_parse_flow_ace_field_convert fail: field is %d", bit);
      return false;
    }
    if (const int bit = ssc_sdn_fill_flow_action(action.get(), node); bit >= 0) {
      SDN_ERROR_AS(caller, "ssc_sdn_parse_flow_ace_action_convert fail: action is %d", bit);
      return false;
    }
    return true;
  }
};

// The one entry that carries a flow.
struct entry {
  record_ptr<SPolicyKelim__FlowAceField> field = new_record<SPolicyKelim__FlowAceField>();
  record_ptr<SPolicyKelim__FlowAceAction> action = new_record<SPolicyKelim__FlowAceAction>();

  bool complete() const { return field && action; }
  bool fill(const flow_info_node *node, const char *caller) {
    if (const int bit = ssc_sdn_fill_ace_field(field.get(), node); bit >= 0) {
      SDN_ERROR_AS(caller, "ssc_sdn_ace_field_convert fail: field is %d", bit);
      return false;
    }
    if (const int bit = ssc_sdn_fill_ace_action(action.get(), node); bit >= 0) {
      SDN_ERROR_AS(caller, "ssc_sdn_ace_action_convert fail: action is %d", bit);
      return false;
    }
    return true;
  }
};

// ---- the list of entries of a flow record

constexpr std::uint64_t kNoSequenceNumber = ~std::uint64_t{0};
char g_acl_app_type[] = "sdn_app";

struct free_ace_list {
  std::size_t count = 0;
  void operator()(SPolicyKelim__FlowAce **list) const {
    for (std::size_t i = 0; i < count && list[i]; ++i) {
      free_and_clear(list[i]->ace_field);
      free_and_clear(list[i]->ace_action);
      ssc_sdn_free(list[i]);
    }
    ssc_sdn_free(list);
  }
};
using ace_list = std::unique_ptr<SPolicyKelim__FlowAce *[], free_ace_list>;

// `count` entries without field and action; null, with nothing kept, when memory is short.
ace_list new_ace_list(std::size_t count) {
  const std::size_t bytes = count * sizeof(SPolicyKelim__FlowAce *);
  ace_list list(static_cast<SPolicyKelim__FlowAce **>(ssc_sdn_malloc(bytes, __func__, __LINE__)), {count});
  if (!list) return list;
  std::memset(list.get(), 0, bytes);
  for (std::size_t i = 0; i < count; ++i) {
    list[i] = new_message<SPolicyKelim__FlowAce>().release();
    if (!list[i]) return {nullptr, {}};
    list[i]->acl_app_type = g_acl_app_type;
  }
  return list;
}

}  // namespace

// ---- one bit

void ssc_sdn_parse_flow_ace_field_convert(SPolicyKelim__FlowField *field, std::uint32_t bit, const flow_info_node *node,
                                          int *error) {
  fill_bit(kFlowFields, field, bit, node, error);
}
void ssc_sdn_parse_flow_ace_action_convert(SPolicyKelim__FlowAction *action, std::uint32_t bit, const flow_info_node *node,
                                           int *error) {
  fill_bit(kFlowActions, action, bit, node, error);
}
void ssc_sdn_ace_field_convert(SPolicyKelim__FlowAceField *field, std::uint32_t bit, const flow_info_node *node, int *error) {
  fill_bit(kAceRules, field, bit, node, error);
}
void ssc_sdn_ace_action_convert(SPolicyKelim__FlowAceAction *action, std::uint32_t bit, const flow_info_node *node, int *error) {
  fill_bit(kAceActions, action, bit, node, error);
}

bool ssc_kelim_get_flow_to_ace_field(flow_info_node *node, const SPolicyKelim__FlowAce *ace, std::uint32_t bit) {
  return bit >= kAceRules.size() || kAceRules[bit].read_back(*node, *ace->ace_field);
}
bool ssc_kelim_get_flow_to_ace_action(flow_info_node *node, const SPolicyKelim__FlowAce *ace, std::uint32_t bit) {
  return bit >= kAceActions.size() || kAceActions[bit].read_back(*node, *ace->ace_action);
}

void ssc_sdn_free_field_ip_mac(SPolicyKelim__FlowField *field) {
  release_bits(kFlowFields, field->flow_field_bitmap, field);
}
void ssc_sdn_free_action_mac(SPolicyKelim__FlowAction *action) {
  release_bits(kFlowActions, action->flow_action_bitmap, action);
}
void ssc_sdn_free_ace_field_ip_mac(SPolicyKelim__FlowAceField *field) {
  release_bits(kAceRules, field->rule_bitmap, field);
}
void ssc_sdn_free_ace_action_mac(SPolicyKelim__FlowAceAction *action) {
  release_bits(kAceActions, action->action_bitmap, action);
}

// ---- every bit

int ssc_sdn_fill_flow_field(SPolicyKelim__FlowField *field, const flow_info_node *node) {
  field->flow_field_bitmap = node->flow_field_bitmap;
  return fill_bits<ssc_sdn_parse_flow_ace_field_convert, kFlowFields.size()>(field, field->flow_field_bitmap, node);
}

int ssc_sdn_fill_flow_action(SPolicyKelim__FlowAction *action, const flow_info_node *node) {
  action->flow_action_bitmap = node->flow_action_bitmap;
  return fill_bits<ssc_sdn_parse_flow_ace_action_convert, kFlowActions.size()>(action, action->flow_action_bitmap, node);
}

int ssc_sdn_fill_ace_field(SPolicyKelim__FlowAceField *field, const flow_info_node *node) {
  field->rule_bitmap = node->rule_bitmap;
  field->in_port_ifx = node->in_port;
  return fill_bits<ssc_sdn_ace_field_convert, kAceRules.size()>(field, field->rule_bitmap, node);
}

int ssc_sdn_fill_ace_action(SPolicyKelim__FlowAceAction *action, const flow_info_node *node) {
  action->action_bitmap = node->action_bitmap;
  return fill_bits<ssc_sdn_ace_action_convert, kAceActions.size()>(action, action->action_bitmap, node);
}

int ssc_sdn_read_back_ace_field(flow_info_node *node, const SPolicyKelim__FlowAce *ace) {
  if (!ace->ace_field) return -1;
  node->rule_bitmap = ace->ace_field->rule_bitmap;
  node->in_port = ace->ace_field->in_port_ifx;
  return first_failing_bit(node->rule_bitmap, kAceRules.size(),
                           [&](unsigned bit) { return ssc_kelim_get_flow_to_ace_field(node, ace, bit); });
}

int ssc_sdn_read_back_ace_action(flow_info_node *node, const SPolicyKelim__FlowAce *ace) {
  if (!ace->ace_action) return -1;
  node->action_bitmap = ace->ace_action->action_bitmap;
  return first_failing_bit(node->action_bitmap, kAceActions.size(),
                           [&](unsigned bit) { return ssc_kelim_get_flow_to_ace_action(node, ace, bit); });
}

// ---- whole records

std::int32_t ssc_sdn_parse_flow_ace_field_act_convert(SPolicyKelim__ParseFlow *parse_flow, const flow_info_node *node) {
  request asked;
  if (!asked.complete() || !asked.fill(node, __func__)) {
    SDN_ERROR("flow_entry malloc failed. flow_index = %lu", parse_flow->index->flow_index);
    return QX_NO_MEMORY;
  }
  parse_flow->field = asked.field.release();
  parse_flow->action = asked.action.release();
  return 0;
}

std::int32_t ssc_sdn_ace_field_act_convert(SPolicyKelim__Flow *flow, const flow_info_node *node) {
  flow->flow_data.len = node->raw_len;
  request asked;
  entry first;
  ace_list list = new_ace_list(flow->n_ace);
  if (!asked.complete() || !first.complete() || !list || !first.fill(node, __func__) || !asked.fill(node, __func__)) {
    SDN_ERROR("flow_entry malloc failed. flow_index = %lu", flow->index->flow_index);
    return QX_NO_MEMORY;
  }
  asked.field->exp_app_type = node->exp_app_type;
  if (node->flow_action_bitmap >> S_POLICY_KELIM__FLOW_ACTION_E__OUTPUT & 1) first.action->redirect_ifx = node->output_ifx;
  if (flow->n_ace > 0) {
    list[0]->sn = kNoSequenceNumber;
    list[0]->ace_field = first.field.release();
    list[0]->ace_action = first.action.release();
  }
  flow->flow_field = asked.field.release();
  flow->flow_action = asked.action.release();
  flow->ace = list.release();
  return 0;
}

void ssc_sdn_free_parse_flow_members(SPolicyKelim__ParseFlow *parse_flow) {
  free_and_clear(parse_flow->field);
  free_and_clear(parse_flow->action);
}

void ssc_sdn_free_flow_members(SPolicyKelim__Flow *flow) {
  free_and_clear(flow->flow_field);
  free_and_clear(flow->flow_action);
  if (flow->ace) free_ace_list{flow->n_ace}(flow->ace);
  flow->ace = nullptr;
}

bool ssc_sdn_check_memcpy_reverse() {
  std::uint32_t data_dst = 0;
  const std::uint16_t data_src = 1;
  std::memcpy(&data_dst, &data_src, sizeof data_src);
  SDN_VER("data_dst %u", data_dst);
  return data_dst != 1;
}
