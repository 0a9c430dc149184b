// Conversion between a node and the members of records: bit by bit, whole records, there and back, and without memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"
#include "support/flow_bytes.h"
#include "support/record_text.h"

using namespace flow_bytes;
using record_text::text;

namespace {

void set(std::uint8_t *to, std::string_view digits) {
  const Bytes bytes = hex(digits);
  std::memcpy(to, bytes.data(), bytes.size());
}

// A node in which every member has a value of its own and every bit of every bitmap is set.
flow_info_node full_node() {
  flow_info_node n{};
  n.flow_index = 0x55;
  set(n.dst_mac, "020000000001"), set(n.dst_mac_mask, "ffffff000001");
  set(n.src_mac, "020000000002"), set(n.src_mac_mask, "ffffff000002");
  set(n.ipv6_src, "20010db8000000000000000000000001"), set(n.ipv6_src_mask, "ffffffff000000000000000000000001");
  set(n.ipv6_dst, "20010db8000000000000000000000002"), set(n.ipv6_dst_mask, "ffffffff000000000000000000000002");
  n.cos = 0x5, n.cos_mask = 0xe5;
  n.icmp_type = 0x8, n.icmp_type_mask = 0xf8;
  n.icmp_code = 0x3, n.icmp_code_mask = 0xf3;
  n.ipv4_dscp = 0x2e, n.ipv4_dscp_mask = 0x3f;
  n.protocol = 0x11, n.protocol_mask = 0xf1;
  n.etype = 0x86dd, n.etype_mask = 0xfff1;
  n.sport = 0x3e8, n.sport_mask = 0xfff2;
  n.dport = 0x50, n.dport_mask = 0xfff3;
  n.next_header = 0x1f, n.next_header_mask = 0x1ff;
  n.in_port = 0x3;
  n.exp_app_type = 0x9;
  n.vid = 0x64, n.vid_mask = 0xfff;
  n.src_ipv4 = 0x0a000001, n.src_ipv4_mask = 0xffffff01;
  n.dst_ipv4 = 0x0a000002, n.dst_ipv4_mask = 0xffffff02;
  n.hit_state_l2_da = n.l3_uc = n.fwd_flag = n.ctrl_flag = n.keep_ttl_flag = 1;
  set(n.mod_dst_mac, "020000000011"), set(n.mod_dst_mac_mask, "ffffffffff11");
  set(n.mod_src_mac, "020000000012"), set(n.mod_src_mac_mask, "ffffffffff12");
  n.mod_cos = 0x6;
  n.mod_ipv4_dscp = 0xa;
  n.mod_vid = 0xc8;
  n.output_ifx = 0x4;
  n.mod_queue_pri = 0x7;
  n.rule_bitmap = 0x7ffff;
  n.action_bitmap = 0x3fff;
  n.flow_field_bitmap = 0x1fffff;
  n.flow_action_bitmap = 0x7f;
  n.raw_len = 77;
  return n;
}

// What each bit puts into a record, by bit number.
constexpr const char *kFieldBits[] = {
    "in_port_ifx=0x3",
    "",
    "",
    "dst_mac=020000000001 dst_mac_mask=ffffff000001",
    "src_mac=020000000002 src_mac_mask=ffffff000002",
    "etype=0x86dd etype_mask=0xfff1",
    "vid=0x64 vid_mask=0xfff",
    "cos=0x5 cos_mask=0xe5",
    "ipv4_dscp=0x2e ipv4_dscp_mask=0x3f",
    "protocol=0x11 protocol_mask=0xf1",
    "src_ipv4=0xa000001 src_ipv4_mask=0xffffff01",
    "dst_ipv4=0xa000002 dst_ipv4_mask=0xffffff02",
    "sport=0x3e8 sport_mask=0xfff2",
    "sport=0x3e8 sport_mask=0xfff2",
    "dport=0x50 dport_mask=0xfff3",
    "dport=0x50 dport_mask=0xfff3",
    "icmp_type=0x8 icmp_type_mask=0xf8",
    "icmp_code=0x3 icmp_code_mask=0xf3",
    "ipv6_src=20010db8000000000000000000000001 ipv6_src_mask=ffffffff000000000000000000000001",
    "ipv6_dst=20010db8000000000000000000000002 ipv6_dst_mask=ffffffff000000000000000000000002",
    "",
    "",
};
constexpr const char *kActionBits[] = {
    "output_ifx=0x4",
    "mod_queue_pri=0x7",
    "mod_dst_mac=020000000011 mod_dst_mac_mask=ffffffffff11",
    "mod_src_mac=020000000012 mod_src_mac_mask=ffffffffff12",
    "mod_vid=0xc8",
    "mod_cos=0x6",
    "mod_ipv4_dscp=0xa",
    "",
};
constexpr const char *kRuleBits[] = {
    "dst_mac=020000000001 dst_mac_mask=ffffff000001",
    "src_mac=020000000002 src_mac_mask=ffffff000002",
    "etype=0x86dd etype_mask=0xfff1",
    "vid=0x64 vid_mask=0xfff",
    "cos=0x5 cos_mask=0xe5",
    "ipv4_dscp=0x2e ipv4_dscp_mask=0x3f",
    "protocol=0x11 protocol_mask=0xf1",
    "src_ipv4=0xa000001 src_ipv4_mask=0xffffff01",
    "dst_ipv4=0xa000002 dst_ipv4_mask=0xffffff02",
    "sport=0x3e8 sport_mask=0xfff2",
    "dport=0x50 dport_mask=0xfff3",
    "icmp_type=0x8 icmp_type_mask=0xf8",
    "icmp_code=0x3 icmp_code_mask=0xf3",
    "ipv6_src=20010db8000000000000000000000001 ipv6_src_mask=ffffffff000000000000000000000001",
    "ipv6_dst=20010db8000000000000000000000002 ipv6_dst_mask=ffffffff000000000000000000000002",
    "l3_uc=0x1",
    "hit_state_l2_da=0x1",
    "",
    "next_header=0x1f next_header_mask=0x1ff",
    "",
};
constexpr const char *kAceActionBits[] = {
    "fwd=0x1",
    "ctrl=0x1",
    "",
    "",
    "redirect_ifx=0x4",
    "",
    "ttl_is_keep=0x1",
    "",
    "mod_vid=0xc8",
    "mod_cos=0x6",
    "mod_ipv4_dscp=0xa",
    "mod_prio_in=0x7",
    "mod_dst_mac=020000000011 mod_dst_mac_mask=ffffffffff11",
    "mod_src_mac=020000000012 mod_src_mac_mask=ffffffffff12",
    "",
};

// One kind of record, with its calls.
template <typename Record>
struct Kind {
  void (*init)(Record *);
  std::uint64_t Record::*bitmap;
  void (*convert)(Record *, std::uint32_t, const flow_info_node *, int *);
  void (*release)(Record *);
};
constexpr Kind<SPolicyKelim__FlowField> kField = {s_policy_kelim__flow_field__init, &SPolicyKelim__FlowField::flow_field_bitmap,
                                                  ssc_sdn_parse_flow_ace_field_convert, ssc_sdn_free_field_ip_mac};
constexpr Kind<SPolicyKelim__FlowAction> kAction = {s_policy_kelim__flow_action__init,
                                                    &SPolicyKelim__FlowAction::flow_action_bitmap,
                                                    ssc_sdn_parse_flow_ace_action_convert, ssc_sdn_free_action_mac};
constexpr Kind<SPolicyKelim__FlowAceField> kRule = {s_policy_kelim__flow_ace_field__init,
                                                    &SPolicyKelim__FlowAceField::rule_bitmap, ssc_sdn_ace_field_convert,
                                                    ssc_sdn_free_ace_field_ip_mac};
constexpr Kind<SPolicyKelim__FlowAceAction> kAceAction = {s_policy_kelim__flow_ace_action__init,
                                                          &SPolicyKelim__FlowAceAction::action_bitmap, ssc_sdn_ace_action_convert,
                                                          ssc_sdn_free_ace_action_mac};

template <typename Record, std::size_t N>
void expect_bits(const Kind<Record> &kind, const char *const (&expected)[N]) {
  const flow_info_node node = full_node();
  for (std::uint32_t bit = 0; bit < N; bit++) {
    SCOPED_TRACE(bit);
    Record record;
    kind.init(&record);
    int error = 0;
    kind.convert(&record, bit, &node, &error);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(text(&record.base), expected[bit]);
    record.*kind.bitmap = std::uint64_t{1} << bit;
    kind.release(&record);
  }
}

TEST(FlowConvert, each_bit_fills_its_members) {
  expect_bits(kField, kFieldBits);
  expect_bits(kAction, kActionBits);
  expect_bits(kRule, kRuleBits);
  expect_bits(kAceAction, kAceActionBits);
}

constexpr const char *kFullField =
    "flow_field_bitmap=0x1fffff in_port_ifx=0x3 %s"
    "dst_mac=020000000001 dst_mac_mask=ffffff000001 src_mac=020000000002 src_mac_mask=ffffff000002 etype=0x86dd "
    "etype_mask=0xfff1 "
    "cos=0x5 cos_mask=0xe5 vid=0x64 vid_mask=0xfff ipv4_dscp=0x2e ipv4_dscp_mask=0x3f protocol=0x11 protocol_mask=0xf1 "
    "src_ipv4=0xa000001 src_ipv4_mask=0xffffff01 dst_ipv4=0xa000002 dst_ipv4_mask=0xffffff02 icmp_type=0x8 icmp_type_mask=0xf8 "
    "icmp_code=0x3 icmp_code_mask=0xf3 sport=0x3e8 sport_mask=0xfff2 dport=0x50 dport_mask=0xfff3 "
    "ipv6_src=20010db8000000000000000000000001 ipv6_src_mask=ffffffff000000000000000000000001 "
    "ipv6_dst=20010db8000000000000000000000002 ipv6_dst_mask=ffffffff000000000000000000000002";
constexpr const char *kFullAction =
    "flow_action_bitmap=0x7f output_ifx=0x4 mod_vid=0xc8 mod_cos=0x6 mod_ipv4_dscp=0xa mod_dst_mac=020000000011 "
    "mod_dst_mac_mask=ffffffffff11 mod_src_mac=020000000012 mod_src_mac_mask=ffffffffff12 mod_queue_pri=0x7";
constexpr const char *kFullRule =
    "rule_bitmap=0x7ffff in_port_ifx=0x3 dst_mac=020000000001 dst_mac_mask=ffffff000001 src_mac=020000000002 "
    "src_mac_mask=ffffff000002 etype=0x86dd etype_mask=0xfff1 cos=0x5 cos_mask=0xe5 vid=0x64 vid_mask=0xfff ipv4_dscp=0x2e "
    "ipv4_dscp_mask=0x3f protocol=0x11 protocol_mask=0xf1 src_ipv4=0xa000001 src_ipv4_mask=0xffffff01 dst_ipv4=0xa000002 "
    "dst_ipv4_mask=0xffffff02 icmp_type=0x8 icmp_type_mask=0xf8 icmp_code=0x3 icmp_code_mask=0xf3 sport=0x3e8 sport_mask=0xfff2 "
    "dport=0x50 dport_mask=0xfff3 ipv6_src=20010db8000000000000000000000001 ipv6_src_mask=ffffffff000000000000000000000001 "
    "ipv6_dst=20010db8000000000000000000000002 ipv6_dst_mask=ffffffff000000000000000000000002 hit_state_l2_da=0x1 l3_uc=0x1 "
    "next_header=0x1f next_header_mask=0x1ff";
constexpr const char *kFullAceAction =
    "action_bitmap=0x3fff fwd=0x1 mod_vid=0xc8 mod_cos=0x6 mod_ipv4_dscp=0xa ctrl=0x1 mod_dst_mac=020000000011 "
    "mod_dst_mac_mask=ffffffffff11 mod_src_mac=020000000012 mod_src_mac_mask=ffffffffff12 mod_prio_in=0x7 redirect_ifx=0x4 "
    "ttl_is_keep=0x1";

std::string full_field(const char *app_type) {
  std::string out = kFullField;
  return out.replace(out.find("%s"), 2, app_type);
}

// The two records that a node becomes.
struct FlowRecord {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  explicit FlowRecord(std::size_t entries = 1) { flow.index = &key, flow.n_ace = entries; }
  ~FlowRecord() { ssc_sdn_free_flow_members(&flow); }
};
struct ParseFlowRecord {
  SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  SPolicyKelim__ParseFlow parse_flow = S_POLICY_KELIM__PARSE_FLOW__INIT;
  ParseFlowRecord() { parse_flow.index = &key; }
  ~ParseFlowRecord() { ssc_sdn_free_parse_flow_members(&parse_flow); }
};

TEST(FlowConvert, whole_records_of_a_flow_that_uses_everything) {
  const flow_info_node node = full_node();
  FlowRecord record(2);
  ASSERT_EQ(ssc_sdn_ace_field_act_convert(&record.flow, &node), 0);
  EXPECT_EQ(record.flow.flow_data.len, 77u);
  // The application type's bit fills nothing; the flow record gets the type from the node, the parse_flow record does not.
  EXPECT_EQ(text(&record.flow.flow_field->base), full_field("exp_app_type=0x9 "));
  EXPECT_EQ(text(&record.flow.flow_action->base), kFullAction);
  EXPECT_EQ(text(&record.flow.ace[0]->base), std::string("sn=0xffffffffffffffff acl_app_type='sdn_app' ace_field={") + kFullRule +
                                                 "} ace_action={" + kFullAceAction + "}");
  EXPECT_EQ(text(&record.flow.ace[1]->base), "acl_app_type='sdn_app'");
  // Borrowed, not copied.
  EXPECT_EQ(record.flow.flow_field->dst_mac->data.data, node.dst_mac);
  EXPECT_EQ(record.flow.ace[0]->ace_field->ipv6_src_mask->data.data, node.ipv6_src_mask);

  ParseFlowRecord parsed;
  ASSERT_EQ(ssc_sdn_parse_flow_ace_field_act_convert(&parsed.parse_flow, &node), 0);
  EXPECT_EQ(text(&parsed.parse_flow.field->base), full_field(""));
  EXPECT_EQ(text(&parsed.parse_flow.action->base), kFullAction);
}

TEST(FlowConvert, records_of_small_flows) {
  const struct {
    const char *label;
    Bytes match, actions;
    const char *field, *action, *entry;
  } cases[] = {
      {"in_port only",
       field(0x80000004, le(5u)),
       {},
       "flow_field_bitmap=0x1 in_port_ifx=0x5",
       "",
       "ace_field={in_port_ifx=0x5} ace_action={}"},
      {"ordinary output",
       {},
       output(2),
       "",
       "flow_action_bitmap=0x1 output_ifx=0x2",
       "ace_field={} ace_action={action_bitmap=0x11 fwd=0x1 redirect_ifx=0x2}"},
      {"output to the controller",
       {},
       output(0xfffffffd),
       "",
       "flow_action_bitmap=0x1 output_ifx=0xfffffffd",
       "ace_field={} ace_action={action_bitmap=0x216 ctrl=0x1 redirect_ifx=0xfffffffd}"},
      {"the controller and a priority",
       {},
       set_field(0x80000e01, hex("04")) + output(0xfffffffd),
       "",
       "flow_action_bitmap=0x21 output_ifx=0xfffffffd mod_cos=0x4",
       "ace_field={} ace_action={action_bitmap=0x216 mod_cos=0x4 ctrl=0x1 redirect_ifx=0xfffffffd}"},
      {"application type",
       field(0xffff0204, le(3u)),
       {},
       "flow_field_bitmap=0x2 exp_app_type=0x3",
       "",
       "ace_field={} ace_action={}"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.label);
    const Bytes message = flow_mod({.match = c.match, .actions = c.actions});
    flow_info_node node{};
    node.raw_len = static_cast<std::uint32_t>(message.size());
    ssc_kelim_parse_flow_rule_para(message.data(), &node);
    ssc_kelim_parse_flow_action_para(message.data(), &node);
    FlowRecord record;
    ASSERT_EQ(ssc_sdn_ace_field_act_convert(&record.flow, &node), 0);
    EXPECT_EQ(text(&record.flow.flow_field->base), c.field);
    EXPECT_EQ(text(&record.flow.flow_action->base), c.action);
    EXPECT_EQ(text(&record.flow.ace[0]->base), std::string("sn=0xffffffffffffffff acl_app_type='sdn_app' ") + c.entry);
  }
}

// ---- there and back

TEST(FlowConvert, a_stored_entry_comes_back_as_it_was) {
  const flow_info_node node = full_node();
  FlowRecord record;
  ASSERT_EQ(ssc_sdn_ace_field_act_convert(&record.flow, &node), 0);
  // Any non-zero flag counts as one.
  record.flow.ace[0]->ace_field->l3_uc = 5;
  record.flow.ace[0]->ace_action->fwd = 0x100;
  flow_info_node back{};
  EXPECT_EQ(ssc_sdn_read_back_ace_field(&back, record.flow.ace[0]), -1);
  EXPECT_EQ(ssc_sdn_read_back_ace_action(&back, record.flow.ace[0]), -1);
  FlowRecord again;
  ASSERT_EQ(ssc_sdn_ace_field_act_convert(&again.flow, &back), 0);
  EXPECT_EQ(text(&again.flow.ace[0]->ace_field->base), kFullRule);
  EXPECT_EQ(text(&again.flow.ace[0]->ace_action->base), kFullAceAction);
}

TEST(FlowConvert, an_entry_that_lacks_an_address_fails_at_its_bit) {
  std::uint8_t short_address[5] = {};
  PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
  mac.data = {sizeof short_address, short_address};
  SPolicyKelim__FlowAceField field = S_POLICY_KELIM__FLOW_ACE_FIELD__INIT;
  SPolicyKelim__FlowAceAction action = S_POLICY_KELIM__FLOW_ACE_ACTION__INIT;
  SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT;
  flow_info_node node{};
  EXPECT_EQ(ssc_sdn_read_back_ace_field(&node, &ace), -1) << "no match, no bits";
  EXPECT_EQ(ssc_sdn_read_back_ace_action(&node, &ace), -1) << "no actions, no bits";
  ace.ace_field = &field;
  ace.ace_action = &action;
  for (const int bit : {0, 1, 7, 8, 13, 14}) {
    field.rule_bitmap = std::uint64_t{1} << bit;
    EXPECT_EQ(ssc_sdn_read_back_ace_field(&node, &ace), bit);
  }
  for (const int bit : {12, 13}) {
    action.action_bitmap = std::uint64_t{1} << bit;
    EXPECT_EQ(ssc_sdn_read_back_ace_action(&node, &ace), bit);
  }
  field.rule_bitmap = 1;
  field.dst_mac = field.dst_mac_mask = &mac;
  EXPECT_EQ(ssc_sdn_read_back_ace_field(&node, &ace), 0) << "five bytes are no MAC address";
  field.rule_bitmap = ~std::uint64_t{0} << 19;
  EXPECT_EQ(ssc_sdn_read_back_ace_field(&node, &ace), -1) << "bits beyond the table mean nothing";
}

// ---- without memory

// Fails the first, second, ... allocation of `convert` until it succeeds; the ERROR lines of every failure.
template <typename Convert, typename Untouched>
std::vector<std::string> fail_every_allocation(Convert convert, Untouched untouched) {
  std::vector<std::string> failures;
  for (std::uint32_t nth = 1; nth < 1000; nth++) {
    ssc_sdn_malloc_fail_nth(nth);
    ssc_sdn_debug_sw = SDN_DBG_ERROR;
    testing::internal::CaptureStdout();
    const std::int32_t rv = convert();
    std::fflush(stdout);
    failures.push_back(testing::internal::GetCapturedStdout());
    ssc_sdn_debug_sw = 0;
    ssc_sdn_malloc_fail_nth(0);
    if (rv == 0) break;
    EXPECT_EQ(rv, -2);
    EXPECT_TRUE(untouched());
    EXPECT_NE(failures.back().find("MALLOC ERR!["), std::string::npos) << failures.back();
    EXPECT_NE(failures.back().find("flow_entry malloc failed. flow_index = 85"), std::string::npos) << failures.back();
  }
  EXPECT_EQ(failures.back(), "") << "the call that succeeds logs nothing";
  failures.pop_back();
  return failures;
}

std::size_t with(const std::vector<std::string> &failures, const std::string &text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(failures, [&](const std::string &f) { return f.find(text) != std::string::npos; }));
}

// What is not released is the leak sanitizer's to find.
TEST(FlowConvert, out_of_memory_at_any_point_undoes_everything) {
  const flow_info_node node = full_node();
  FlowRecord record(3);
  record.key.flow_index = 85;
  auto failures = fail_every_allocation([&] { return ssc_sdn_ace_field_act_convert(&record.flow, &node); },
                                        [&] { return !record.flow.flow_field && !record.flow.flow_action && !record.flow.ace; });
  // Four messages, the list and three entries; then two addresses a bit, of 6 rules, 2 entry actions, 6 fields and 2 actions.
  EXPECT_EQ(failures.size(), 4u + 1 + 3 + 2 * 16);
  for (const int bit : {0, 1, 7, 8, 13, 14}) {
    EXPECT_EQ(with(failures, "]:ssc_sdn_ace_field_convert fail: field is " + std::to_string(bit)), bit == 1 ? 6u : 2u) << bit;
  }
  EXPECT_EQ(with(failures, "]:ssc_sdn_ace_action_convert fail: action is 12"), 2u);
  EXPECT_EQ(with(failures, "]:ssc_sdn_parse_flow_ace_field_convert fail: field is 19"), 2u);
  EXPECT_EQ(with(failures, "]:ssc_sdn_parse_flow_ace_action_convert fail: action is 3"), 2u);

  ParseFlowRecord parsed;
  parsed.key.flow_index = 85;
  failures = fail_every_allocation([&] { return ssc_sdn_parse_flow_ace_field_act_convert(&parsed.parse_flow, &node); },
                                   [&] { return !parsed.parse_flow.field && !parsed.parse_flow.action; });
  EXPECT_EQ(failures.size(), 2u + 2 * 8);
  EXPECT_EQ(with(failures, "]:ssc_sdn_parse_flow_ace_field_convert fail: field is 3"), 2u);
  EXPECT_EQ(with(failures, "]:ssc_sdn_parse_flow_ace_action_convert fail: action is 2"), 2u);
}

}  // namespace
