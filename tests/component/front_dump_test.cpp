// What operators see: the dump of a flow-mod as it comes in, and every debug command, over the command service's socket.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "common/kelim_debug.h"
#include "component/harness.h"
#include "host/control/client.h"
#include "kelim/common/kelim_debug.h"
#include "s_cluster.pb-c.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy_dbg.h"

namespace {

using harness::Bytes;
using harness::field;
using harness::operator+;
using harness::value;

Bytes bytes(std::initializer_list<unsigned> list) {
  Bytes out;
  for (unsigned byte : list) out.push_back(static_cast<std::byte>(byte));
  return out;
}

// An action of a 32-bit word and nothing else.
Bytes word_action(std::uint16_t type, std::uint32_t word) {
  return value(type) + value<std::uint16_t>(8) + value(word);
}

Bytes set_field(std::uint32_t header, const Bytes &bytes_of_value) {
  Bytes action = value<std::uint16_t>(25) + value<std::uint16_t>(0) + value(header) + bytes_of_value;
  action.resize((action.size() + 7) / 8 * 8);
  southbound::put(action.data(), 2, static_cast<std::uint16_t>(action.size()));
  return action;
}

const Bytes kMac = bytes({0x02, 0, 0, 0, 0xab, 0x01});
const Bytes kMacMask = bytes({0xff, 0xff, 0xff, 0, 0, 0});

Bytes with_meter(Bytes flow, std::uint32_t meter) {
  southbound::put(flow.data(), 32, meter);
  return flow;
}

// Everything that the dump of a flow-mod decodes.
Bytes full_flow_mod() {
  const Bytes match = field(0x80000004, value<std::uint32_t>(1)) + field(0x80000606, kMac) + field(0x8000070c, kMac + kMacMask) +
                      field(0x80000806, kMac) + field(0x8000090c, kMac + kMacMask) +
                      field(0x80000a02, value<std::uint16_t>(0x0800)) + field(0x80000c02, value<std::uint16_t>(100)) +
                      field(0x80000d04, value<std::uint16_t>(100) + value<std::uint16_t>(0x0fff)) +
                      field(0x80000e01, value<std::uint8_t>(5)) + field(0x80001001, value<std::uint8_t>(46)) +
                      field(0x80001401, value<std::uint8_t>(6)) + field(0x80001604, value<std::uint32_t>(0x0a000001)) +
                      field(0x80001708, value<std::uint32_t>(0x0a000000) + value<std::uint32_t>(0xffffff00)) +
                      field(0x80001804, value<std::uint32_t>(0xc0a80001)) +
                      field(0x80001908, value<std::uint32_t>(0xc0a80000) + value<std::uint32_t>(0xffff0000)) +
                      field(0x80001a02, value<std::uint16_t>(1001)) + field(0x80001c02, value<std::uint16_t>(1002)) +
                      field(0x80001e02, value<std::uint16_t>(1003)) + field(0x80002002, value<std::uint16_t>(1004)) +
                      field(0x80002601, value<std::uint8_t>(8)) + field(0x80002801, value<std::uint8_t>(3)) +
                      field(0x80002a02, value<std::uint16_t>(2)) + field(0xffff0204, value<std::uint32_t>(5));
  Bytes actions = harness::output(0xfffffffd);
  for (std::uint16_t type : {11, 12, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24}) actions = actions + word_action(type, type + 100u);
  actions = actions + set_field(0x80000c02, value<std::uint16_t>(200)) + set_field(0x80000e01, value<std::uint8_t>(6)) +
            set_field(0x80001001, value<std::uint8_t>(10)) +
            set_field(0x80000d04, value<std::uint16_t>(200) + value<std::uint16_t>(0x0fff)) + set_field(0x80000806, kMac) +
            set_field(0x8000090c, kMac + kMacMask) + set_field(0x80000606, kMac) + set_field(0x8000070c, kMac + kMacMask) +
            set_field(0x80000a02, value<std::uint16_t>(0x0800));
  for (std::uint16_t type : {26, 27, 65535, 9}) actions = actions + word_action(type, type);
  return with_meter(harness::flow_mod(0x1234, match, actions), 7);
}

constexpr const char *kFullDump = R"(
********flow info*********
total_len: 592, index: 4660, priority: 100, command: 0, meter_id: 7.
**key start**
type: 0x1, length: 232.

 oxm_value: 0x80000004,tlv_len: 8, in_port_ifx: 1,

 oxm_value: 0x80000606,tlv_len: 16, dmac: 0x 2  0  0  0  ab  1 

 oxm_value: 0x8000070c,tlv_len: 16, dmac: 0x 2  0  0  0  ab  1 
dmac_mask: 0x ff  ff  ff  0  0  0 

 oxm_value: 0x80000806,tlv_len: 16, smac: 0x 2  0  0  0  ab  1 

 oxm_value: 0x8000090c,tlv_len: 16, smac: 0x 2  0  0  0  ab  1 
smac_mask: 0x ff  ff  ff  0  0  0 

 oxm_value: 0x80000a02,tlv_len: 8, etype: 0x800,

 oxm_value: 0x80000c02,tlv_len: 8, vid: 100,

 oxm_value: 0x80000d04,tlv_len: 8, vid: 100, vid_mask: 0xfff,

 oxm_value: 0x80000e01,tlv_len: 8, cos: 5,

 oxm_value: 0x80001001,tlv_len: 8, dscp: 46,

 oxm_value: 0x80001401,tlv_len: 8, protocol: 6,

 oxm_value: 0x80001604,tlv_len: 8, ipv4_src: 0xa000001,

 oxm_value: 0x80001708,tlv_len: 16, ipv4_src: 0xa000000, ipv4_src_mask: 0xffffff00,

 oxm_value: 0x80001804,tlv_len: 8, ipv4_dst: 0xc0a80001,

 oxm_value: 0x80001908,tlv_len: 16, ipv4_dst: 0xc0a80000, ipv4_dst_mask: 0xffff0000,

 oxm_value: 0x80001a02,tlv_len: 8, l4_src_port: 1001,

 oxm_value: 0x80001c02,tlv_len: 8, l4_dst_port: 1002,

 oxm_value: 0x80001e02,tlv_len: 8, l4_src_port: 1003,

 oxm_value: 0x80002002,tlv_len: 8, l4_dst_port: 1004,

 oxm_value: 0x80002601,tlv_len: 8, icmp_type: 8,

 oxm_value: 0x80002801,tlv_len: 8, icmp_code: 3,

 oxm_value: 0x80002a02,tlv_len: 8, ARP_OP_CODE: 2,

 oxm_value: 0xffff0204,tlv_len: 8, app_type: 5,
**key end**

**action start**
total_actions_len: 304

 oxm_value: 0xfffffffd,type: 0(OF_SSAT_OUTPUT), len: 16, port: -3

 oxm_value: 0x6f,type: 11(OF_SSAT_COPY_TTL_OUT), len: 8, COPY_TTL_OUT: 111

 oxm_value: 0x70,type: 12(OF_SSAT_COPY_TTL_IN), len: 8, COPY_TTL_IN: 112

 oxm_value: 0x73,type: 15(OF_SSAT_SET_MPLS_TTL), len: 8, SET_MPLS_TTL: 115

 oxm_value: 0x74,type: 16(OF_SSAT_DEC_MPLS_TTL), len: 8, DEC_MPLS_TTL: 116

 oxm_value: 0x75,type: 17(OF_SSAT_PUSH_VLAN), len: 8, PUSH_VLAN: 117

 oxm_value: 0x76,type: 18(OF_SSAT_POP_VLAN), len: 8, POP_VLAN: 118

 oxm_value: 0x77,type: 19(OF_SSAT_PUSH_MPLS), len: 8, PUSH_MPLS: 119

 oxm_value: 0x78,type: 20(OF_SSAT_POP_MPLS), len: 8, POP_MPLS: 120

 oxm_value: 0x79,type: 21(OF_SSAT_SET_QUEUE), len: 8, SET_QUEUE: 121

 oxm_value: 0x7a,type: 22(OF_SSAT_GROUP), len: 8, apply_group: 122

 oxm_value: 0x7b,type: 23(OF_SSAT_SET_NW_TTL), len: 8, SET_NW_TTL: 123

 oxm_value: 0x7c,type: 24(OF_SSAT_DEC_NW_TTL), len: 8, DEC_NW_TTL: 124

 oxm_value: 0x80000c02,type: 25(OF_SSAT_SET_FIELD), len: 16, vid: 200,

 oxm_value: 0x80000e01,type: 25(OF_SSAT_SET_FIELD), len: 16, cos: 6,

 oxm_value: 0x80001001,type: 25(OF_SSAT_SET_FIELD), len: 16, dscp: 10,

 oxm_value: 0x80000d04,type: 25(OF_SSAT_SET_FIELD), len: 16, vid: 200,
vid_mask: 4095,

 oxm_value: 0x80000806,type: 25(OF_SSAT_SET_FIELD), len: 16, smac: 0x 2  0  0  0  ab  1 

 oxm_value: 0x8000090c,type: 25(OF_SSAT_SET_FIELD), len: 24, smac: 0x 2  0  0  0  ab  1 
smac_mask: 0x ff  ff  ff  0  0  0 

 oxm_value: 0x80000606,type: 25(OF_SSAT_SET_FIELD), len: 16, dmac: 0x 2  0  0  0  ab  1 

 oxm_value: 0x8000070c,type: 25(OF_SSAT_SET_FIELD), len: 24, dmac: 0x 2  0  0  0  ab  1 
dmac_mask: 0x ff  ff  ff  0  0  0 

 oxm_value: 0x80000a02,type: 25(OF_SSAT_SET_FIELD), len: 16, 
 oxm_value: 0x1a,type: 26(OF_SSAT_PUSH_PBB), len: 8, PUSH_PBB: 26

 oxm_value: 0x1b,type: 27(OF_SSAT_POP_PBB), len: 8, POP_PBB: 27

 oxm_value: 0xffff,type: 65535(OF_SSAT_EXPERIMENTER), len: 8, 
 oxm_value: 0x9,type: 9(ERROR: Can't  analyze OFSSAT_ACTION_TYPE), len: 8, **action end, aciton_num: 26**
)";

std::string dump_of(const Bytes &flow) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(libproxy_fp_sdn_dump_flow(flow.data()), 0);
  return testing::internal::GetCapturedStdout();
}

// ---- the dump of a flow-mod

TEST(FlowDump, ShowsEveryFieldAndActionBeforeTheFlowIsTakenIn) {
  harness::Daemon daemon;
  Bytes flow = full_flow_mod();
  testing::internal::CaptureStdout();
  daemon.pi().flow_mod(flow.data());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "switched off";

  libproxy_sdn_debug_sw = PROXY_DBG_NOTICE;
  testing::internal::CaptureStdout();
  daemon.pi().flow_mod(flow.data());
  const std::string printed = testing::internal::GetCapturedStdout();
  libproxy_sdn_debug_sw = PROXY_DBG_ERROR;
  ASSERT_GE(printed.size(), std::strlen(kFullDump));
  EXPECT_EQ(printed.substr(0, std::strlen(kFullDump)), kFullDump);
  EXPECT_TRUE(std::regex_match(printed.substr(std::strlen(kFullDump)),
                               std::regex(R"(\[[^\]]+\]\[SDN\]\[NOTICE\]libproxy_fp_sdn_op_flow\[\d+\]:0)")));
}

TEST(FlowDump, ShowsWhatIsMissing) {
  const Bytes bare = harness::flow_mod(1, {}, {});
  const std::string head = "\n********flow info*********\ntotal_len: ";
  const Bytes no_block(bare.begin(), bare.end() - 8);
  Bytes without_actions = no_block;
  southbound::put(without_actions.data(), 4, static_cast<std::uint16_t>(without_actions.size()));
  EXPECT_EQ(dump_of(without_actions), head +
                                          "48, index: 1, priority: 100, command: 0, meter_id: 0.\n"
                                          "**key start**\ntype: 0x1, length: 0.\n**key end**\n\nhas no action.\n");
  EXPECT_EQ(dump_of(bare), head +
                               "56, index: 1, priority: 100, command: 0, meter_id: 0.\n"
                               "**key start**\ntype: 0x1, length: 0.\n**key end**\n\n"
                               "**action start**\ntotal_actions_len: 0\n**action end, aciton_num: 0**\n");
  // A field that the dump does not know ends the match; what stands behind it is not shown.
  const Bytes unknown = harness::flow_mod(
      1, field(0x80001201, value<std::uint8_t>(1)) + field(0x80000004, value<std::uint32_t>(1)), harness::output(1));
  EXPECT_NE(dump_of(unknown).find("length: 16.\n\n oxm_value: 0x80001201,tlv_len: -1, **key end**\n\n**action start**"),
            std::string::npos);
  testing::internal::CaptureStdout();
  EXPECT_EQ(libproxy_fp_sdn_dump_flow(nullptr), 0);
  EXPECT_EQ(libproxy_fp_sdn_dump_one_action({}, 0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: invalid para -- flow is NULL.\np_action null.\n");
}

// Run under the address sanitizer this shows that no walk leaves the message.
TEST(FlowDump, NeverLeavesTheMessage) {
  const Bytes whole = full_flow_mod();
  const auto dump_cut = [](const Bytes &flow, std::size_t len) {
    const auto copy = std::make_unique<std::byte[]>(len);
    std::memcpy(copy.get(), flow.data(), len);
    southbound::put(copy.get(), 4, static_cast<std::uint16_t>(len));
    libproxy_fp_sdn_dump_flow(copy.get());
  };
  testing::internal::CaptureStdout();
  for (std::size_t len = 8; len < whole.size(); ++len) dump_cut(whole, len);
  for (std::size_t at = 40; at < whole.size(); ++at) {
    Bytes broken = whole;
    for (unsigned byte : {0x00u, 0x7fu, 0xffu}) {
      broken[at] = static_cast<std::byte>(byte);
      dump_cut(broken, broken.size());
    }
  }
  EXPECT_NE(testing::internal::GetCapturedStdout().find("**action end, aciton_num: 25**"), std::string::npos)
      << "the walk ends before the action that is cut off";
}

// ---- debug commands

class Commands {
 public:
  Commands() { EXPECT_EQ(client_.connect(host::control::socket_path(getenv("KELIM_RUN_DIR"), "ssc_kelim")), ""); }

  std::string operator()(const std::string &module, const std::string &command, nlohmann::json args = nlohmann::json::object()) {
    const nlohmann::json request = {{"call", "cmd"}, {"module", module}, {"command", command}, {"args", std::move(args)}};
    std::string line;
    EXPECT_EQ(client_.request(request.dump(), &line), "");
    const auto answer = nlohmann::json::parse(line);
    if (answer.value("status", -1) != 0) return "refused: " + answer.value("error", "");
    result = answer.value("result", -1);
    return answer.value("output", "");
  }

  int result = 0;

 private:
  host::control::Client client_;
};

Bytes ipv6(unsigned last) {
  return bytes({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last});
}

// Every field and action that the cache holds.
Bytes full_flow() {
  const Bytes half_mask = Bytes(8, std::byte{0xff}) + Bytes(8);
  const Bytes match =
      field(0x80000004, value<std::uint32_t>(1)) + field(0xffff0204, value<std::uint32_t>(5)) +
      field(0x8000070c, kMac + kMacMask) + field(0x80000806, kMac) + field(0x80000a02, value<std::uint16_t>(0x0800)) +
      field(0x80000d04, value<std::uint16_t>(100) + value<std::uint16_t>(0x0fff)) + field(0x80000e01, value<std::uint8_t>(5)) +
      field(0x80001001, value<std::uint8_t>(46)) + field(0x80001401, value<std::uint8_t>(6)) +
      field(0x80001708, value<std::uint32_t>(0x0a000000) + value<std::uint32_t>(0xffffff00)) +
      field(0x80001804, value<std::uint32_t>(0x0a000002)) + field(0x80001a02, value<std::uint16_t>(1001)) +
      field(0x80001c02, value<std::uint16_t>(1002)) + field(0x80001e02, value<std::uint16_t>(1003)) +
      field(0x80002601, value<std::uint8_t>(8)) + field(0x80002801, value<std::uint8_t>(3)) + field(0x80003410, ipv6(1)) +
      field(0x80003720, ipv6(2) + half_mask) + field(0x80004f04, value<std::uint16_t>(1) + value<std::uint16_t>(0x01ff));
  const Bytes actions = harness::output(2) + word_action(21, 3) + set_field(0x80000606, kMac) + set_field(0x80000806, kMac) +
                        set_field(0x80000c02, value<std::uint16_t>(200)) + set_field(0x80000e01, value<std::uint8_t>(6)) +
                        set_field(0x80001001, value<std::uint8_t>(10));
  return harness::flow_mod(77, match, actions);
}

// Ports stand twice because TCP and UDP have a bit each; an IPv6 address has no line end behind its mask.
constexpr const char *kFullEntry =
    "flow_index:77, vsd_id:0, exp_app_type:5, rule_bitmap:294911, action_bitmap:16145\n"
    "exp_app_type: 5\n"
    "in_port_ifx:  1\n"
    "dmac: 02:00:00:00:ab:01:  dmac_mask: ff:ff:ff:00:00:00:\n"
    "smac: 02:00:00:00:ab:01:  smac_mask:ff:ff:ff:ff:ff:ff:\n"
    "etype: 2048, etype_mask:65535\n"
    "vid: 100, vid_mask:4095\n"
    "cos: 5, cos_mask:255\n"
    "ipv4_dscp: 46, ipv4_dscp_mask:255\n"
    "protocol: 6, protocol_mask:255\n"
    "src_ipv4: 167772160, src_ipv4_mask:-256\n"
    "dst_ipv4: 167772162, dst_ipv4_mask:-1\n"
    "sport: 1003, sport_mask:65535\n"
    "sport: 1003, sport_mask:65535\n"
    "dport: 1002, dport_mask:65535\n"
    "dport: 1002, dport_mask:65535\n"
    "icmp_type: 8, icmp_type_mask:255\n"
    "icmp_code: 3, icmp_code_mask:255\n"
    "ipv6: 2001:0db8:0000:0000:0000:0000:0000:0001:\nipv6_mask: ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff:"
    "ipv6: 2001:0db8:0000:0000:0000:0000:0000:0002:\nipv6_mask: ffff:ffff:ffff:ffff:0000:0000:0000:0000:"
    "next_header: 1, next_header_mask:511\n"
    "output_ifx:  0x2\n"
    "mod_queue_pri:  3\n"
    "mod_dmac: 02:00:00:00:ab:01:\n"
    "mod_smac: 02:00:00:00:ab:01:\n"
    "mod_vid:  200\n"
    "mod_cos:  6\n"
    "mod_ipv4_dscp:  10\n";

TEST(DebugCommands, ShowTheFlowsTheQueueAndTheSynchronisation) {
  harness::Daemon daemon;
  Commands run;
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_all_flow_info"), "");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_sdn_msg_queue"), "msg queue is empty\n");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_ds_status"),
            "ds stage status:\nds stage start: 0\nds stage received end: 0\nds stage sc is end: 1\nds stage not sc is end: 1\n");

  Bytes flow = full_flow(), barrier = harness::barrier(9), start = harness::message(33, 8), late = harness::simple_flow(78);
  daemon.pi().flow_mod(flow.data());
  daemon.pi().barrier(barrier.data());
  daemon.pi().ds_start(start.data());
  daemon.tick();
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_primitive_flow_entry", {{"index", "77"}, {"vsd_id", "0"}}), kFullEntry);
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_all_flow_info"),
            "flow_index:77, vsd_id:0, exp_app_type:5, rule_bitmap:294911, action_bitmap:16145\n");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_ds_status"),
            "ds stage status:\nds stage start: 1\nds stage received end: 0\nds stage sc is end: 0\nds stage not sc is end: 0\n");
  daemon.pi().flow_mod(late.data());
  daemon.tick();
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_sdn_msg_queue"),
            "\n 0 :type:SDN_ADD_FLOW_MSG - msg id = 77 is ret: 0, type:0, is_ds: 0, is_set: 0\n"
            "\n 1 :type:SDN_BARRIER - msg id = 9 is ret: 0, type:14, is_ds: 0, is_set: 0\n"
            "\n 2 :type:SDN_ADD_FLOW_MSG - msg id = 78 is ret: 0, type:0, is_ds: 1, is_set: 1\n");

  daemon.expect_error("flow info cache flow_index:5, vsd_id:1 get failed.");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_primitive_flow_entry", {{"index", "5"}, {"vsd_id", "1"}}), "");
}

TEST(DebugCommands, SetTheSwitchesAndShowTheCounters) {
  harness::Daemon daemon;
  Commands run;
  EXPECT_EQ(run("ssc_kelim", "kelim_set_dbg", {{"dbg_val", "ff"}}).substr(0, 93),
            " Debug kelim - VER: On, ERROR: On, DS: On, barrier: On, count: On, packet: On, assert: On \n");
  EXPECT_EQ(ssc_sdn_debug_sw, 0xffu);
  EXPECT_EQ(run("ssc_kelim", "kelim_set_dbg", {{"dbg_val", "4a"}}),
            " Debug kelim - VER: Off, ERROR: On, DS: Off, barrier: On, count: Off, packet: Off, assert: On \n");
  EXPECT_EQ(run("ssc_kelim", "kelim_set_dbg", {{"dbg_val", "0"}}),
            " Debug kelim - VER: Off, ERROR: Off, DS: Off, barrier: Off, count: Off, packet: Off, assert: Off \n");
  EXPECT_EQ(run("ssc_kelim", "kelim_set_count_dbg_sw", {{"sw", "1"}}), " Debug kelim - count_dbg_sw : On\n");
  EXPECT_EQ(g_sdn_count_dbg_sw, 1u);
  EXPECT_EQ(run("ssc_kelim", "kelim_set_count_dbg_sw", {{"sw", "0"}}), " Debug kelim - count_dbg_sw : Off\n");

  const std::string line = " -------------------  \n";
  EXPECT_EQ(run("ssc_kelim_proxy", "set-debug", {{"ver", "1"}, {"err", "0"}, {"not", "1"}}),
            line + "  SET DEBUG: 0x0005   \n" + line);
  EXPECT_EQ(run("ssc_kelim_proxy", "set-debug", {{"ver", "0"}, {"err", "1"}, {"not", "0"}}),
            line + "  SET DEBUG: 0x0002   \n" + line);
  EXPECT_EQ(libproxy_sdn_debug_sw, 2u);

  run("ssc_kelim_proxy", "clear-cnt");
  Bytes flow = harness::simple_flow(1), remove = harness::flow_mod(1, {}, {}, 1), barrier = harness::barrier(1);
  for (int i = 0; i < 12; ++i) daemon.pi().flow_mod(flow.data());
  daemon.pi().flow_mod(remove.data());
  daemon.pi().barrier(barrier.data());
  daemon.pi().connected();
  daemon.tick();
  const std::string separator = "---------------------------------- \n";
  EXPECT_EQ(run("ssc_kelim_proxy", "show-cnt"), " ITEM      ADD       DEL        \n" + separator +
                                                    " FLOW      12        1          \n"
                                                    " METER     0         0          \n"
                                                    " ENABLE    0         0          \n"
                                                    " DS        0         0          \n"
                                                    " PKT       0         0          \n"
                                                    " ONC       0         0          \n" +
                                                    separator +
                                                    " CONNECT        1          \n"
                                                    " CONFIG         0          \n"
                                                    " DEL_ALL_FLOW   0          \n"
                                                    " STATISTIC      0          \n"
                                                    " FETCH          0          \n"
                                                    " BARRIER        1          \n"
                                                    " DEL_ALL        0          \n"
                                                    " CAPACITY       1          \n" +
                                                    separator);
  run("ssc_kelim_proxy", "clear-cnt");
  EXPECT_NE(run("ssc_kelim_proxy", "show-cnt").find(" FLOW      0         0"), std::string::npos);
}

TEST(DebugCommands, ASwitchFileHoldsADecimalNumberInItsFirstEightBytes) {
  char path[] = "/tmp/kelim-switch-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(ssc_sdn_read_switch_file(path), std::nullopt) << "empty";
  ASSERT_EQ(write(fd, "3\n", 2), 2);
  EXPECT_EQ(ssc_sdn_read_switch_file(path), 3u);
  ASSERT_EQ(pwrite(fd, "0000012345", 10, 0), 10);
  EXPECT_EQ(ssc_sdn_read_switch_file(path), 123u);
  close(fd);
  unlink(path);
  EXPECT_EQ(ssc_sdn_read_switch_file(path), std::nullopt) << "missing";
}

TEST(DebugCommands, RegisterAndWithdrawThePacketPath) {
  harness::Daemon daemon;
  Commands run;
  const auto registered = [&daemon] { return daemon.count(0, &s_cluster__reg_pkt_info__descriptor); };
  EXPECT_EQ(registered(), 1u) << "made at start-up";
  run("ssc_kelim", "kelim_pkt_start");
  EXPECT_EQ(run.result, 0) << "being there already is success";
  run("ssc_kelim", "kelim_pkt_end");
  EXPECT_EQ(run.result, 0);
  EXPECT_EQ(registered(), 0u);
  daemon.expect_error("qx_mom_set error. rv:-7");
  run("ssc_kelim", "kelim_pkt_end");
  EXPECT_EQ(run.result, -7);
}

}  // namespace
