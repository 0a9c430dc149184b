// Parsing of matches and actions: every field, every action, and bytes that cannot be trusted.
#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_to_ace.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy_dbg.h"
#include "support/flow_bytes.h"

using namespace flow_bytes;

namespace {

using Node = flow_info_node;
using Fill = std::function<void(Node &)>;

Node zeroed_node() {
  Node node;
  std::memset(static_cast<void *>(&node), 0, sizeof node);
  return node;
}

void set(std::uint8_t *to, std::string_view digits) {
  const Bytes bytes = hex(digits);
  std::memcpy(to, bytes.data(), bytes.size());
}

// What both parsers made of a message, and the ERROR lines they wrote.
struct Parsed {
  Node node = zeroed_node();
  std::int32_t rule_rv = 1, action_rv = 1;
  std::string errors;
};

Parsed parse(const Bytes &message) {
  // A block of exactly this size: the sanitizer sees every byte read beyond it.
  const std::unique_ptr<std::byte[]> exact(new std::byte[message.size()]);
  std::copy(message.begin(), message.end(), exact.get());
  Parsed out;
  out.node.raw_len = static_cast<std::uint32_t>(message.size());
  ssc_sdn_debug_sw = SDN_DBG_ERROR;
  testing::internal::CaptureStdout();
  out.rule_rv = ssc_kelim_parse_flow_rule_para(exact.get(), &out.node);
  out.action_rv = ssc_kelim_parse_flow_action_para(exact.get(), &out.node);
  std::fflush(stdout);
  out.errors = testing::internal::GetCapturedStdout();
  ssc_sdn_debug_sw = 0;
  return out;
}

// The description of `got` is what `fill` makes of an empty one.
void expect_description(const Node &got, const Fill &fill) {
  Node want = zeroed_node();
  fill(want);
  EXPECT_EQ(std::memcmp(static_cast<const flow_description *>(&got), static_cast<const flow_description *>(&want),
                        sizeof(flow_description)),
            0);
}

bool mentions(const std::string &errors, const std::string &text) {
  return errors.find(text) != std::string::npos;
}

// ---- match

struct MatchCase {
  const char *label;
  Bytes match;
  std::uint64_t field_bitmap, rule_bitmap;
  Fill fill;
  const char *error = "";  // part of the one ERROR line, or none
};

const Bytes kInPort3 = field(0x80000004, le(std::uint32_t{3}));
const Bytes kEtype = field(0x80000a02, le(std::uint16_t{0x0800}));

const MatchCase kMatchCases[] = {
    {"nothing", {}, 0, 0, [](Node &) {}},
    {"in_port", kInPort3, 0x1, 0, [](Node &n) { n.in_port = 3; }},
    {"application type", field(0xffff0204, le(std::uint32_t{3})), 0x2, 0, [](Node &n) { n.exp_app_type = 3; }},
    {"eth_dst", field(0x80000606, hex("020304050607")), 0x8, 0x1,
     [](Node &n) { set(n.dst_mac, "020304050607"), set(n.dst_mac_mask, "ffffffffffff"); }},
    {"eth_dst masked", field(0x8000070c, hex("020304050607 ffff00000000")), 0x8, 0x1,
     [](Node &n) { set(n.dst_mac, "020304050607"), set(n.dst_mac_mask, "ffff00000000"); }},
    {"eth_src", field(0x80000806, hex("0a0b0c0d0e0f")), 0x10, 0x2,
     [](Node &n) { set(n.src_mac, "0a0b0c0d0e0f"), set(n.src_mac_mask, "ffffffffffff"); }},
    {"eth_src masked", field(0x8000090c, hex("0a0b0c0d0e0f 00000000ffff")), 0x10, 0x2,
     [](Node &n) { set(n.src_mac, "0a0b0c0d0e0f"), set(n.src_mac_mask, "00000000ffff"); }},
    {"eth_type", field(0x80000a02, le(std::uint16_t{0x86dd})), 0x20, 0x4,
     [](Node &n) { n.etype = 0x86dd, n.etype_mask = 0xffff; }},
    {"vlan_vid", field(0x80000c02, le(std::uint16_t{100})), 0x40, 0x8, [](Node &n) { n.vid = 100, n.vid_mask = 0xffff; }},
    {"vlan_vid masked", field(0x80000d04, hex("6400 ff0f")), 0x40, 0x8, [](Node &n) { n.vid = 0x64, n.vid_mask = 0x0fff; }},
    {"vlan_pcp", field(0x80000e01, hex("05")), 0x80, 0x10, [](Node &n) { n.cos = 5, n.cos_mask = 0xff; }},
    {"ip_dscp", field(0x80001001, hex("2e")), 0x100, 0x20, [](Node &n) { n.ipv4_dscp = 46, n.ipv4_dscp_mask = 0xff; }},
    {"ip_ecn is walked over", field(0x80001201, hex("02")), 0, 0, [](Node &) {}},
    {"ip_proto", field(0x80001401, hex("06")), 0x200, 0x40, [](Node &n) { n.protocol = 6, n.protocol_mask = 0xff; }},
    {"ipv4_src", field(0x80001604, le(0x0a000001u)), 0x400, 0x80,
     [](Node &n) { n.src_ipv4 = 0x0a000001, n.src_ipv4_mask = 0xffffffff; }},
    {"ipv4_src masked, mask not applied", field(0x80001708, le(0x0a0000ffu) + le(0xffffff00u)), 0x400, 0x80,
     [](Node &n) { n.src_ipv4 = 0x0a0000ff, n.src_ipv4_mask = 0xffffff00; }},
    {"ipv4_dst", field(0x80001804, le(0x0b000002u)), 0x800, 0x100,
     [](Node &n) { n.dst_ipv4 = 0x0b000002, n.dst_ipv4_mask = 0xffffffff; }},
    {"ipv4_dst masked", field(0x80001908, le(0x0b000000u) + le(0xffff0000u)), 0x800, 0x100,
     [](Node &n) { n.dst_ipv4 = 0x0b000000, n.dst_ipv4_mask = 0xffff0000; }},
    {"tcp_src", field(0x80001a02, le(std::uint16_t{1000})), 0x1000, 0x200,
     [](Node &n) { n.sport = 1000, n.sport_mask = 0xffff; }},
    {"tcp_dst sets both destination bits", field(0x80001c02, le(std::uint16_t{80})), 0xc000, 0x400,
     [](Node &n) { n.dport = 80, n.dport_mask = 0xffff; }},
    {"udp_src", field(0x80001e02, le(std::uint16_t{53})), 0x2000, 0x200, [](Node &n) { n.sport = 53, n.sport_mask = 0xffff; }},
    {"udp_dst", field(0x80002002, le(std::uint16_t{67})), 0x8000, 0x400, [](Node &n) { n.dport = 67, n.dport_mask = 0xffff; }},
    {"icmpv4_type", field(0x80002601, hex("08")), 0x10000, 0x800, [](Node &n) { n.icmp_type = 8, n.icmp_type_mask = 0xff; }},
    {"icmpv4_code", field(0x80002801, hex("03")), 0x20000, 0x1000, [](Node &n) { n.icmp_code = 3, n.icmp_code_mask = 0xff; }},
    {"arp_op is walked over", field(0x80002a02, le(std::uint16_t{1})), 0, 0, [](Node &) {}},
    {"ipv6_src", field(0x80003410, hex("20010db8 00000000 00000000 00000001")), 0x40000, 0x2000,
     [](Node &n) {
       set(n.ipv6_src, "20010db8000000000000000000000001"), set(n.ipv6_src_mask, "ffffffffffffffffffffffffffffffff");
     }},
    {"ipv6_src masked", field(0x80003520, hex("20010db8 00000000 00000000 00000001 ffffffff 00000000 00000000 00000000")),
     0x40000, 0x2000,
     [](Node &n) {
       set(n.ipv6_src, "20010db8000000000000000000000001"), set(n.ipv6_src_mask, "ffffffff000000000000000000000000");
     }},
    {"ipv6_dst", field(0x80003610, hex("fe800000 00000000 00000000 00000002")), 0x80000, 0x4000,
     [](Node &n) {
       set(n.ipv6_dst, "fe800000000000000000000000000002"), set(n.ipv6_dst_mask, "ffffffffffffffffffffffffffffffff");
     }},
    {"ipv6_dst masked", field(0x80003720, hex("fe800000 00000000 00000000 00000002 ffff0000 00000000 00000000 00000000")),
     0x80000, 0x4000,
     [](Node &n) {
       set(n.ipv6_dst, "fe800000000000000000000000000002"), set(n.ipv6_dst_mask, "ffff0000000000000000000000000000");
     }},
    {"icmpv6_type", field(0x80003a01, hex("80")), 0x10000, 0x800, [](Node &n) { n.icmp_type = 128, n.icmp_type_mask = 0xff; }},
    {"icmpv6_code", field(0x80003c01, hex("01")), 0x20000, 0x1000, [](Node &n) { n.icmp_code = 1, n.icmp_code_mask = 0xff; }},
    {"ipv6_exthdr", field(0x80004e02, le(std::uint16_t{0x11})), 0x100000, 0x40000,
     [](Node &n) { n.next_header = 0x11, n.next_header_mask = 0xffff; }},
    {"ipv6_exthdr masked", field(0x80004f04, hex("1100 ff01")), 0x100000, 0x40000,
     [](Node &n) { n.next_header = 0x11, n.next_header_mask = 0x1ff; }},

    {"tunnel_id between two fields", kInPort3 + field(0x80004c08, le(std::uint64_t{9})) + kEtype, 0x21, 0x4,
     [](Node &n) { n.in_port = 3, n.etype = 0x0800, n.etype_mask = 0xffff; }},
    {"a field the switch does not know ends the match", kInPort3 + field(0x80002c04, le(1u)) + kEtype, 0x1, 0,
     [](Node &n) { n.in_port = 3; }, "OXM_VALUE = 0x80002c04 isn't support"},
    {"a known field with a wrong length is not known", kInPort3 + field(0x80000a04, le(1u)) + kEtype, 0x1, 0,
     [](Node &n) { n.in_port = 3; }, "OXM_VALUE = 0x80000a04 isn't support"},
    {"a length that no slots add up to", kInPort3 + Bytes(4), 0x1, 0, [](Node &n) { n.in_port = 3; },
     "OXM_VALUE = 0x0 isn't support"},
    {"a field that runs beyond the match", kInPort3 + le(0x80001604u), 0x1, 0, [](Node &n) { n.in_port = 3; },
     "OXM_VALUE = 0x80001604 isn't support"},
    {"the last field without its padding", kInPort3 + le(0x80000a02u) + le(std::uint16_t{0x0800}), 0x21, 0x4,
     [](Node &n) { n.in_port = 3, n.etype = 0x0800, n.etype_mask = 0xffff; }},
};

TEST(FlowParse, match_fields) {
  for (const MatchCase &c : kMatchCases) {
    SCOPED_TRACE(c.label);
    const Parsed got = parse(flow_mod({.match = c.match, .actions = {}}));
    EXPECT_EQ(got.rule_rv, 0);
    EXPECT_EQ(got.node.flow_field_bitmap, c.field_bitmap);
    EXPECT_EQ(got.node.rule_bitmap, c.rule_bitmap);
    expect_description(got.node, c.fill);
    EXPECT_EQ(got.errors.empty(), *c.error == '\0') << got.errors;
    EXPECT_TRUE(mentions(got.errors, c.error)) << got.errors;
  }
}

TEST(FlowParse, slots_of_match_fields) {
  const struct {
    std::uint32_t header, slot;
    std::int32_t dumped;
  } cases[] = {
      {0x80000004, 8, 8},      {0xffff0204, 8, 8},      {0x80000606, 16, 16}, {0x8000070c, 16, 16},    {0x80000806, 16, 16},
      {0x8000090c, 16, 16},    {0x80000a02, 8, 8},      {0x80000c02, 8, 8},   {0x80000d04, 8, 8},      {0x80000e01, 8, 8},
      {0x80001001, 8, 8},      {0x80001201, 8, -1},     {0x80001401, 8, 8},   {0x80001604, 8, 8},      {0x80001708, 16, 16},
      {0x80001804, 8, 8},      {0x80001908, 16, 16},    {0x80001a02, 8, 8},   {0x80001c02, 8, 8},      {0x80001e02, 8, 8},
      {0x80002002, 8, 8},      {0x80002601, 8, 8},      {0x80002801, 8, 8},   {0x80002a02, 8, 8},      {0x80003410, 24, -1},
      {0x80003520, 40, -1},    {0x80003610, 24, -1},    {0x80003720, 40, -1}, {0x80003a01, 8, -1},     {0x80003c01, 8, -1},
      {0x80004c08, 16, -1},    {0x80004e02, 8, -1},     {0x80004f04, 8, -1},  {0x80000204, 65535, -1}, {0, 65535, -1},
      {0x00000004, 65535, -1}, {0xffffffff, 65535, -1},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(ssc_sdn_get_key_field_len(c.header), c.slot) << std::hex << c.header;
    testing::internal::CaptureStdout();
    EXPECT_EQ(libproxy_fp_sdn_get_key_field_len(c.header), c.dumped) << std::hex << c.header;
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "tlv_len: " + std::to_string(c.dumped) + ", ");
  }
}

// ---- actions

struct ActionCase {
  const char *label;
  Bytes actions;
  std::uint64_t flow_bitmap, ace_bitmap;
  Fill fill;
  const char *error = "";
  std::int64_t listed = -1;  // what the message says of the list's length
};

Fill port(std::uint32_t ifx, bool fwd, bool ctrl) {
  return [=](Node &n) { n.output_ifx = ifx, n.fwd_flag = fwd, n.ctrl_flag = ctrl; };
}

const ActionCase kActionCases[] = {
    {"none", {}, 0, 0, [](Node &) {}},
    {"a negative length", output(2), 0, 0, [](Node &) {}, "", -8 + (std::int64_t{1} << 32)},
    {"an ordinary port", output(2), 0x1, 0x11, port(2, true, false)},
    {"the last ordinary port", output(0xfffffff7), 0x1, 0x11, port(0xfffffff7, true, false)},
    {"the port after MAX", output(0xffffff01), 0x1, 0x11, port(0xffffff01, true, false)},
    {"MAX", output(0xffffff00), 0x1, 0x10, port(0xffffff00, false, false), "do not support port type(0xffffff00)."},
    {"IN_PORT", output(0xfffffff8), 0x1, 0x216, port(0xfffffff8, false, true)},
    {"TABLE", output(0xfffffff9), 0x1, 0x10, port(0xfffffff9, false, false), "do not support port type(0xfffffff9)."},
    {"NORMAL", output(0xfffffffa), 0x1, 0x11, port(0xfffffffa, true, false)},
    {"FLOOD", output(0xfffffffb), 0x1, 0x10, port(0xfffffffb, false, false), "do not support port type(0xfffffffb)."},
    {"ALL", output(0xfffffffc), 0x1, 0x216, port(0xfffffffc, false, true)},
    {"CONTROLLER", output(0xfffffffd), 0x1, 0x216, port(0xfffffffd, false, true)},
    {"LOCAL", output(0xfffffffe), 0x1, 0x10, port(0xfffffffe, false, false), "do not support port type(0xfffffffe)."},
    {"ANY", output(0xffffffff), 0x1, 0x10, port(0xffffffff, false, false), "do not support port type(0xffffffff)."},
    {"queue 1", set_queue(1), 0x2, 0x800, [](Node &n) { n.mod_queue_pri = 1; }},
    {"queue 8", set_queue(8), 0x2, 0x800, [](Node &n) { n.mod_queue_pri = 8; }},
    {"queue 0 is kept", set_queue(0), 0x2, 0x800, [](Node &) {}, "queue_id: 0 from SFC UI is ERROR"},
    {"queue 9 is kept", set_queue(9), 0x2, 0x800, [](Node &n) { n.mod_queue_pri = 9; }, "queue_id: 9 from SFC UI is ERROR"},
    {"set eth_dst", set_field(0x80000606, hex("020304050607")), 0x4, 0x1000,
     [](Node &n) { set(n.mod_dst_mac, "020304050607"), set(n.mod_dst_mac_mask, "ffffffffffff"); }},
    {"set eth_src", set_field(0x80000806, hex("0a0b0c0d0e0f")), 0x8, 0x2000,
     [](Node &n) { set(n.mod_src_mac, "0a0b0c0d0e0f"), set(n.mod_src_mac_mask, "ffffffffffff"); }},
    {"set vlan_vid", set_field(0x80000c02, le(std::uint16_t{200})), 0x10, 0x100, [](Node &n) { n.mod_vid = 200; }},
    {"set vlan_pcp", set_field(0x80000e01, hex("06")), 0x20, 0x200, [](Node &n) { n.mod_cos = 6; }},
    {"set ip_dscp", set_field(0x80001001, hex("0a")), 0x40, 0x400, [](Node &n) { n.mod_ipv4_dscp = 10; }},
    {"set-field of something else, and an unknown action, are passed over",
     set_field(0x80001604, le(1u)) + action(17, le(0x8100u)) + set_queue(2), 0x2, 0x800, [](Node &n) { n.mod_queue_pri = 2; }},
    {"several", set_field(0x80000c02, le(std::uint16_t{5})) + set_queue(3) + output(4), 0x13, 0x911,
     [](Node &n) { n.mod_vid = 5, n.mod_queue_pri = 3, n.output_ifx = 4, n.fwd_flag = 1; }},
    {"an action of length 0 ends the list", set_queue(3) + Bytes(8) + output(4), 0x2, 0x800, [](Node &n) { n.mod_queue_pri = 3; },
     "OXM_VALUE = 0x0 isn't support"},
    {"a list that claims more than there is", set_queue(3), 0x2, 0x800, [](Node &n) { n.mod_queue_pri = 3; },
     "OXM_VALUE = 0x0 isn't support", 16},
    {"an action that runs beyond the list", set_queue(3) + output(4), 0x2, 0x800, [](Node &n) { n.mod_queue_pri = 3; },
     "OXM_VALUE = 0x100000 isn't support", 16},
    {"a set-field too short for its value", action(25, le(0x80000606u)) + output(4), 0, 0, [](Node &) {},
     "OXM_VALUE = 0x80019 isn't support"},
};

TEST(FlowParse, actions) {
  for (const ActionCase &c : kActionCases) {
    SCOPED_TRACE(c.label);
    const Parsed got = parse(flow_mod({.match = {}, .actions = c.actions, .actions_len = c.listed}));
    EXPECT_EQ(got.action_rv, 0);
    EXPECT_EQ(got.node.flow_action_bitmap, c.flow_bitmap);
    EXPECT_EQ(got.node.action_bitmap, c.ace_bitmap);
    expect_description(got.node, c.fill);
    EXPECT_EQ(got.errors.empty(), *c.error == '\0') << got.errors;
    EXPECT_TRUE(mentions(got.errors, c.error)) << got.errors;
  }
}

// ---- messages that are no flows

TEST(FlowParse, refuses_a_flow_without_instructions_and_leaves_the_node) {
  const Parsed got = parse(flow_mod({.match = kInPort3, .actions = {}, .instructions = false}));
  EXPECT_EQ(got.rule_rv, -4);
  EXPECT_EQ(got.action_rv, -4);
  EXPECT_EQ(got.node.flow_field_bitmap, 0u);
  expect_description(got.node, [](Node &) {});
  EXPECT_TRUE(mentions(got.errors, "ssc_kelim_parse_flow_rule_para")) << got.errors;
  EXPECT_TRUE(mentions(got.errors, "flow_info_node is NULL")) << got.errors;

  const Bytes flow = flow_mod({.match = kInPort3, .actions = output(2)});
  EXPECT_EQ(ssc_kelim_parse_flow_rule_para(flow.data(), nullptr), -4);
  EXPECT_EQ(ssc_kelim_parse_flow_action_para(flow.data(), nullptr), -4);
}

// Every prefix of a flow, with a length that tells the truth: nothing is read beyond it (the sanitizer watches), and what lies
// whole in front of the cut is kept.
TEST(FlowParse, every_truncation_keeps_what_lies_before_it) {
  const Bytes whole = flow_mod({.match = kInPort3                                              // 44 to 51
                                         + field(0x8000070c, hex("020304050607ffffffffffff"))  // 52 to 67
                                         + kEtype,                                             // 68 to 75, value to 73
                                .actions = set_queue(3)                                        // 88 to 95
                                           + output(2)});                                      // 96 to 111, port to 103
  ASSERT_EQ(whole.size(), 112u);
  for (std::size_t len = 0; len <= whole.size(); len++) {
    SCOPED_TRACE(len);
    Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(len));
    if (len >= 6) put16(cut, 4, len);
    const Parsed got = parse(cut);
    const bool refused = len < 44 || len == 80;
    EXPECT_EQ(got.rule_rv, refused ? -4 : 0);
    EXPECT_EQ(got.action_rv, refused ? -4 : 0);
    const std::uint64_t fields = (len >= 52 ? 0x1 : 0) | (len >= 68 ? 0x8 : 0) | (len >= 74 ? 0x20 : 0);
    EXPECT_EQ(got.node.flow_field_bitmap, refused ? 0 : fields);
    const std::uint64_t actions = (len >= 96 ? 0x2 : 0) | (len >= 112 ? 0x1 : 0);
    EXPECT_EQ(got.node.flow_action_bitmap, actions);
    EXPECT_EQ(got.errors.empty(), len == 112) << got.errors;

    // The other walks over the same bytes.
    const std::unique_ptr<std::byte[]> exact(new std::byte[std::max<std::size_t>(len, 6)]());
    std::copy(cut.begin(), cut.end(), exact.get());
    SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
    record.flow_data = {len, reinterpret_cast<std::uint8_t *>(exact.get())};
    EXPECT_EQ(ssc_kelim_pick_out_outport_phyid(&record), 0);
    if (len < 6) continue;
    testing::internal::CaptureStdout();
    EXPECT_EQ(libproxy_fp_sdn_dump_flow(exact.get()), 0);
    std::fflush(stdout);
    EXPECT_TRUE(mentions(testing::internal::GetCapturedStdout(), "flow info"));
  }
}

}  // namespace
