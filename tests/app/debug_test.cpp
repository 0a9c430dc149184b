// What operators see: the dump of a flow-mod as it comes in, and every debug command, over the command service's socket.
#include <fstream>
#include <sstream>

#include "app/flow_world.h"
#include "common/kelim_debug.h"
#include "s_cluster.pb-c.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy_dbg.h"
#include "support/ask.h"

namespace {

using namespace flow_world;

class Debug : public FlowWorld {
 protected:
  // What a debug command prints and, where it fails, gives, or why it is refused.
  static std::string run(const std::string &module, const std::string &command,
                         const nlohmann::json &args = nlohmann::json::object()) {
    const nlohmann::json request = {{"call", "cmd"}, {"module", module}, {"command", command}, {"args", args}};
    const auto answer = ask(getenv("KELIM_RUN_DIR"), "ssc_kelim", request);
    const int result = answer.value("result", 0);
    return answer.value("output", "") + answer.value("error", "") + (result == 0 ? "" : "returned " + std::to_string(result));
  }
};

// ---- the dump of a flow-mod

// Match fields or set-fields, each written as header=value bytes.
Bytes all_of(Bytes (*make)(std::uint32_t, const Bytes &), const std::string &fields) {
  Bytes all;
  std::istringstream in(fields);
  for (std::string header, value; std::getline(in >> std::ws, header, '=') && in >> value;)
    all = all + make(static_cast<std::uint32_t>(std::stoul(header, nullptr, 16)), hex(value));
  return all;
}

// Everything that the dump of a flow-mod decodes, and `more` match fields.
Bytes full_flow_mod(const Bytes &more = {}) {
  const Bytes match = all_of(field,
                             "80000004=01000000 80000606=02000000ab01 8000070c=02000000ab01ffffff000000 80000806=02000000ab01 "
                             "8000090c=02000000ab01ffffff000000 80000a02=0008 80000c02=6400 80000d04=6400ff0f 80000e01=05 "
                             "80001001=2e 80001401=06 80001604=0100000a 80001708=0000000a00ffffff 80001804=0100a8c0 "
                             "80001908=0000a8c00000ffff 80001a02=e903 80001c02=ea03 80001e02=eb03 80002002=ec03 80002601=08 "
                             "80002801=03 80002a02=0200 ffff0204=05000000");
  Bytes actions = output(0xfffffffd);
  for (std::uint16_t type : {11, 12, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24}) actions = actions + action(type, le(type + 100u));
  actions = actions + all_of(set_field,
                             "80000c02=c800 80000e01=06 80001001=0a 80000d04=c800ff0f 80000806=02000000ab01 "
                             "8000090c=02000000ab01ffffff000000 80000606=02000000ab01 8000070c=02000000ab01ffffff000000 "
                             "80000a02=0008");
  for (std::uint16_t type : {26, 27, 65535, 9}) actions = actions + action(type, le(std::uint32_t{type}));
  Bytes flow = flow_mod({.index = 0x1234, .match = match + more, .actions = actions});
  put16(flow, 24, 100);  // priority
  put16(flow, 32, 7);    // meter
  return flow;
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

TEST_F(Debug, ShowsEveryFieldAndActionBeforeTheFlowIsTakenIn) {
  testing::internal::CaptureStdout();
  flow(full_flow_mod());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "switched off";
  libproxy_sdn_debug_sw = PROXY_DBG_NOTICE;
  testing::internal::CaptureStdout();
  flow(full_flow_mod());
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed.substr(0, std::strlen(kFullDump)), kFullDump);
  EXPECT_NE(printed.find("[SDN][NOTICE]libproxy_fp_sdn_op_flow[", std::strlen(kFullDump)), std::string::npos) << printed;
}

TEST(FlowDump, ShowsWhatIsMissing) {
  const auto dump_of = [](const void *message) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(libproxy_fp_sdn_dump_flow(message), 0);
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(dump_of(flow_mod({.index = 1, .match = {}, .actions = {}, .instructions = false}).data()),
            "\n********flow info*********\ntotal_len: 48, index: 1, priority: 0, command: 0, meter_id: 0.\n"
            "**key start**\ntype: 0x1, length: 0.\n**key end**\n\nhas no action.\n");
  // A field that the dump does not know ends the match, an action that is cut off ends the actions.
  Bytes cut =
      flow_mod({.index = 1, .match = field(0x80001201, hex("01")) + field(0x80000004, le(1u)), .actions = output(1) + output(2)});
  put16(cut, 4, cut.size() - 8);
  EXPECT_EQ(dump_of(cut.data()),
            "\n********flow info*********\ntotal_len: 96, index: 1, priority: 0, command: 0, meter_id: 0.\n"
            "**key start**\ntype: 0x1, length: 16.\n\n oxm_value: 0x80001201,tlv_len: -1, **key end**\n\n"
            "**action start**\ntotal_actions_len: 32\n\n oxm_value: 0x1,type: 0(OF_SSAT_OUTPUT), len: 16, port: 1\n"
            "**action end, aciton_num: 1**\n");
  EXPECT_EQ(dump_of(nullptr), "Error: invalid para -- flow is NULL.\n");
}

// ---- debug commands

// Ports stand twice because TCP and UDP have a bit each; an IPv6 address has no line end behind its mask.
constexpr const char *kFullEntry =
    "flow_index:4660, vsd_id:0, exp_app_type:5, rule_bitmap:294911, action_bitmap:16150\n"
    "exp_app_type: 5\n"
    "in_port_ifx:  1\n"
    "dmac: 02:00:00:00:ab:01:  dmac_mask: ff:ff:ff:00:00:00:\n"
    "smac: 02:00:00:00:ab:01:  smac_mask:ff:ff:ff:00:00:00:\n"
    "etype: 2048, etype_mask:65535\n"
    "vid: 100, vid_mask:4095\n"
    "cos: 5, cos_mask:255\n"
    "ipv4_dscp: 46, ipv4_dscp_mask:255\n"
    "protocol: 6, protocol_mask:255\n"
    "src_ipv4: 167772160, src_ipv4_mask:-256\n"
    "dst_ipv4: -1062731776, dst_ipv4_mask:-65536\n"
    "sport: 1003, sport_mask:65535\n"
    "sport: 1003, sport_mask:65535\n"
    "dport: 1004, dport_mask:65535\n"
    "dport: 1004, dport_mask:65535\n"
    "icmp_type: 8, icmp_type_mask:255\n"
    "icmp_code: 3, icmp_code_mask:255\n"
    "ipv6: 2001:0db8:0000:0000:0000:0000:0000:0001:\nipv6_mask: ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff:"
    "ipv6: 2001:0db8:0000:0000:0000:0000:0000:0002:\nipv6_mask: ffff:ffff:ffff:ffff:0000:0000:0000:0000:"
    "next_header: 1, next_header_mask:511\n"
    "output_ifx:  0xfffffffd\n"
    "mod_queue_pri:  121\n"
    "mod_dmac: 02:00:00:00:ab:01:\n"
    "mod_smac: 02:00:00:00:ab:01:\n"
    "mod_vid:  200\n"
    "mod_cos:  6\n"
    "mod_ipv4_dscp:  10\n";

TEST_F(Debug, CommandsShowTheFlowsTheQueueAndTheSynchronisationAndMoveThePacketPath) {
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_all_flow_info"), "");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_sdn_msg_queue"), "msg queue is empty\n");
  d.expect_error("queue_id: 121 from SFC UI is ERROR");
  flow(full_flow_mod(all_of(field,
                            "80003410=20010db8000000000000000000000001 80004f04=0100ff01 "
                            "80003720=20010db8000000000000000000000002ffffffffffffffff0000000000000000")));
  send(d.pi().barrier, barrier(9));
  send(d.pi().ds_start, message(33, {}));
  flow(typical_flow(78));
  d.tick();
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_primitive_flow_entry", {{"index", "4660"}, {"vsd_id", "0"}}), kFullEntry);
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_all_flow_info"),
            "flow_index:4660, vsd_id:0, exp_app_type:5, rule_bitmap:294911, action_bitmap:16150\n"
            "flow_index:78, vsd_id:0, exp_app_type:0, rule_bitmap:1284, action_bitmap:17\n");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_sdn_msg_queue"),
            "\n 0 :type:SDN_ADD_FLOW_MSG - msg id = 4660 is ret: 0, type:0, is_ds: 0, is_set: 0\n"
            "\n 1 :type:SDN_BARRIER - msg id = 9 is ret: 0, type:14, is_ds: 0, is_set: 0\n"
            "\n 2 :type:SDN_ADD_FLOW_MSG - msg id = 78 is ret: 0, type:0, is_ds: 1, is_set: 1\n");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_ds_status"),
            "ds stage status:\nds stage start: 1\nds stage received end: 0\nds stage sc is end: 0\nds stage not sc is end: 1\n");
  d.expect_error("flow info cache flow_index:4660, vsd_id:1 get failed.");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_primitive_flow_entry", {{"index", "4660"}, {"vsd_id", "1"}}), "returned -7");
  for (const auto &[command, left] : {std::pair{"kelim_pkt_end", 0u}, {"kelim_pkt_start", 1u}}) {
    run("ssc_kelim", command);
    EXPECT_EQ(d.count(0, &s_cluster__reg_pkt_info__descriptor), left) << command;
  }
}

TEST_F(Debug, CommandsSetTheSwitchesAndShowTheCounters) {
  for (const auto &[value, shown] :
       {std::pair{"55", "VER: On, ERROR: Off, DS: On, barrier: Off, count: On, packet: Off, assert: On"},
        {"66", "VER: Off, ERROR: On, DS: On, barrier: Off, count: Off, packet: On, assert: On"},
        {"78", "VER: Off, ERROR: Off, DS: Off, barrier: On, count: On, packet: On, assert: On"}})
    EXPECT_EQ(run("ssc_kelim", "kelim_set_dbg", {{"dbg_val", value}}), std::string(" Debug kelim - ") + shown + " \n");
  EXPECT_EQ(ssc_sdn_debug_sw, 0x78u);
  EXPECT_EQ(run("ssc_kelim", "kelim_set_count_dbg_sw", {{"sw", "1"}}), " Debug kelim - count_dbg_sw : On\n");
  EXPECT_EQ(g_sdn_count_dbg_sw, 1u);
  EXPECT_EQ(libproxy_sdn_debug_sw, PROXY_DBG_ERROR);
  EXPECT_EQ(run("ssc_kelim_proxy", "set-debug", {{"ver", "1"}, {"err", "0"}, {"not", "1"}}),
            " -------------------  \n  SET DEBUG: 0x0005   \n -------------------  \n");

  run("ssc_kelim_proxy", "clear-cnt");
  for (int i = 0; i < 12; ++i) flow(typical_flow(1));
  flow(deletion(typical_flow(1)));
  send(d.pi().barrier, barrier(1));
  d.pi().connected();
  d.tick();
  const std::string separator = "---------------------------------- \n";
  const std::string shown = " ITEM      ADD       DEL        \n" + separator +
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
                            separator;
  EXPECT_EQ(run("ssc_kelim_proxy", "show-cnt"), shown);
}

TEST(Switches, AFileHoldsADecimalNumberInItsFirstEightBytes) {
  const TempDir dir;
  EXPECT_EQ(ssc_sdn_read_switch_file((dir / "missing").c_str()), std::nullopt);
  for (const auto &[text, value] :
       {std::pair<const char *, std::optional<std::uint32_t>>{"", {}}, {"3\n", 3}, {"0000012345", 123}}) {
    std::ofstream(dir / "switch") << text;
    EXPECT_EQ(ssc_sdn_read_switch_file((dir / "switch").c_str()), value) << text;
  }
}

}  // namespace
