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

// A field of each kind that the dumps tell apart, and `more`: numbers in both bases, addresses, masks, what has no text.
Bytes full_flow_mod(const Bytes &more = {}) {
  const Bytes mac = hex("02000000ab01"), mac_mask = hex("ffffff000000"), vlan_mask = hex("ff0f");
  const Bytes match = field(0x80000004, le(1u)) + field(0x8000070c, mac + mac_mask) + field(0x80000a02, hex("0008")) +
                      field(0x80000d04, hex("6400") + vlan_mask) + field(0x80001708, hex("0000000a 00ffffff")) +
                      field(0x80001c02, hex("ea03")) + field(0xffff0204, le(5u));
  const Bytes actions = output(0xfffffffd) + set_queue(3) + set_field(0x80000d04, hex("c800") + vlan_mask) +
                        set_field(0x80000806, mac) + set_field(0x80000a02, hex("0008")) + action(65535, le(7u)) +
                        action(9, le(9u));
  Bytes flow = flow_mod({.index = 0x1234, .match = match + more, .actions = actions});
  put16(flow, 24, 100);  // priority
  put16(flow, 32, 7);    // meter
  return flow;
}

constexpr const char *kFullDump = R"(
********flow info*********
total_len: 216, index: 4660, priority: 100, command: 0, meter_id: 7.
**key start**
type: 0x1, length: 72.

 oxm_value: 0x80000004,tlv_len: 8, in_port_ifx: 1,

 oxm_value: 0x8000070c,tlv_len: 16, dmac: 0x 2  0  0  0  ab  1 
dmac_mask: 0x ff  ff  ff  0  0  0 

 oxm_value: 0x80000a02,tlv_len: 8, etype: 0x800,

 oxm_value: 0x80000d04,tlv_len: 8, vid: 100, vid_mask: 0xfff,

 oxm_value: 0x80001708,tlv_len: 16, ipv4_src: 0xa000000, ipv4_src_mask: 0xffffff00,

 oxm_value: 0x80001c02,tlv_len: 8, l4_dst_port: 1002,

 oxm_value: 0xffff0204,tlv_len: 8, app_type: 5,
**key end**

**action start**
total_actions_len: 88

 oxm_value: 0xfffffffd,type: 0(OF_SSAT_OUTPUT), len: 16, port: -3

 oxm_value: 0x3,type: 21(OF_SSAT_SET_QUEUE), len: 8, SET_QUEUE: 3

 oxm_value: 0x80000d04,type: 25(OF_SSAT_SET_FIELD), len: 16, vid: 200,
vid_mask: 4095,

 oxm_value: 0x80000806,type: 25(OF_SSAT_SET_FIELD), len: 16, smac: 0x 2  0  0  0  ab  1 

 oxm_value: 0x80000a02,type: 25(OF_SSAT_SET_FIELD), len: 16, 
 oxm_value: 0x7,type: 65535(OF_SSAT_EXPERIMENTER), len: 8, 
 oxm_value: 0x9,type: 9(ERROR: Can't  analyze OFSSAT_ACTION_TYPE), len: 8, **action end, aciton_num: 7**
)";

TEST_F(Debug, ShowsFieldsAndActionsBeforeTheFlowIsTakenIn) {
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

// A TCP port stands twice because TCP and UDP have a bit each; an IPv6 address has no line end behind its mask.
constexpr const char *kFullEntry =
    "flow_index:4660, vsd_id:0, exp_app_type:5, rule_bitmap:279693, action_bitmap:10774\n"
    "exp_app_type: 5\n"
    "in_port_ifx:  1\n"
    "dmac: 02:00:00:00:ab:01:  dmac_mask: ff:ff:ff:00:00:00:\n"
    "etype: 2048, etype_mask:65535\n"
    "vid: 100, vid_mask:4095\n"
    "src_ipv4: 167772160, src_ipv4_mask:-256\n"
    "dport: 1002, dport_mask:65535\n"
    "dport: 1002, dport_mask:65535\n"
    "ipv6: 2001:0db8:0000:0000:0000:0000:0000:0002:\nipv6_mask: ffff:ffff:ffff:ffff:0000:0000:0000:0000:"
    "next_header: 1, next_header_mask:511\n"
    "output_ifx:  0xfffffffd\n"
    "mod_queue_pri:  3\n"
    "mod_smac: 02:00:00:00:ab:01:\n";

TEST_F(Debug, CommandsShowTheFlowsTheQueueAndTheSynchronisationAndMoveThePacketPath) {
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_all_flow_info"), "");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_sdn_msg_queue"), "msg queue is empty\n");
  flow(full_flow_mod(field(0x80003720, hex("20010db8000000000000000000000002 ffffffffffffffff0000000000000000")) +
                     field(0x80004f04, hex("0100ff01"))));
  send(d.pi().barrier, barrier(9));
  send(d.pi().ds_start, message(33, {}));
  flow(typical_flow(78));
  d.tick();
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_primitive_flow_entry", {{"index", "4660"}, {"vsd_id", "0"}}), kFullEntry);
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_all_flow_info"),
            "flow_index:4660, vsd_id:0, exp_app_type:5, rule_bitmap:279693, action_bitmap:10774\n"
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
  const std::string shown = run("ssc_kelim_proxy", "show-cnt");
  for (const std::string line :
       {" ITEM      ADD       DEL        ", " FLOW      12        1          ", " METER     0         0          ",
        " CONNECT        1          ", " BARRIER        1          ", " DEL_ALL        0          "})
    EXPECT_NE(shown.find(line + "\n"), std::string::npos) << shown;
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
