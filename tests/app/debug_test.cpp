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

// The parts stand in the text in this order.
void expect_in_order(const std::string &text, std::initializer_list<const char *> parts) {
  std::size_t at = 0;
  for (const char *part : parts) {
    at = text.find(part, at);
    ASSERT_NE(at, std::string::npos) << part << " in its place in\n" << text;
  }
}

// ---- the dump of a flow-mod

// A field of each kind that the dumps tell apart: numbers in both bases, addresses, masks, what has no text.
Bytes full_flow_mod() {
  const Bytes mac = hex("02000000ab01"), vlan_mask = hex("ff0f");
  const Bytes match = field(0x80000004, le(1u)) + field(0x8000070c, mac + hex("ffffff000000")) +
                      field(0x80000d04, hex("6400") + vlan_mask) + field(0x80001708, hex("0000000a 00ffffff")) +
                      field(0x80001c02, hex("ea03")) + field(0xffff0204, le(5u)) +
                      field(0x80003720, hex("20010db8000000000000000000000002 ffffffffffffffff0000000000000000"));
  const Bytes actions = output(0xfffffffd) + set_queue(3) + set_field(0x80000d04, hex("c800") + vlan_mask) +
                        set_field(0x80000806, mac) + action(65535, le(7u)) + action(9, le(9u));
  Bytes flow = flow_mod({.index = 0x1234, .match = match, .actions = actions});
  put16(flow, 24, 100);  // priority
  put16(flow, 32, 7);    // meter
  return flow;
}

std::string printed_by(const std::function<void()> &work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

TEST_F(Debug, ShowsFieldsAndActionsBeforeTheFlowIsTakenIn) {
  const auto take_in = [this] { flow(full_flow_mod()); };
  EXPECT_EQ(printed_by(take_in), "") << "switched off";
  libproxy_sdn_debug_sw = PROXY_DBG_NOTICE;
  expect_in_order(
      printed_by(take_in),
      {"index: 4660, priority: 100, command: 0, meter_id: 7.", "oxm_value: 0x80000004,tlv_len: 8, in_port_ifx: 1,",
       "dmac: 0x 2  0  0  0  ab  1 \ndmac_mask: 0x ff  ff  ff  0  0  0 ", "vid: 100, vid_mask: 0xfff,",
       "ipv4_src: 0xa000000, ipv4_src_mask: 0xffffff00,", "app_type: 5,", "**key end**",
       "type: 0(OF_SSAT_OUTPUT), len: 16, port: -3", "SET_QUEUE: 3", "vid: 200,\nvid_mask: 4095,", "smac: 0x 2  0  0  0  ab  1 ",
       "type: 65535(OF_SSAT_EXPERIMENTER)", "type: 9(ERROR: ", "aciton_num: 6**", "[SDN][NOTICE]libproxy_fp_sdn_op_flow["});
}

// A field that the dump does not know ends the match, an action that is cut off ends the actions.
TEST(FlowDump, ShowsWhatIsMissing) {
  const auto dump_of = [](const void *message) {
    return printed_by([message] { EXPECT_EQ(libproxy_fp_sdn_dump_flow(message), 0); });
  };
  EXPECT_EQ(dump_of(nullptr), "Error: invalid para -- flow is NULL.\n");
  Bytes bare = flow_mod({.index = 1, .match = {}, .actions = {}, .instructions = false});
  expect_in_order(dump_of(bare.data()), {"length: 0.\n**key end**", "has no action."});
  Bytes cut = flow_mod({.match = field(0x80001201, hex("01")) + field(0x80000004, le(1u)), .actions = output(1) + output(2)});
  put16(cut, 4, cut.size() - 8);
  expect_in_order(dump_of(cut.data()),
                  {"oxm_value: 0x80001201,tlv_len: -1, **key end**", "port: 1\n**action end, aciton_num: 1**"});
}

// ---- debug commands

TEST_F(Debug, CommandsShowTheFlowsTheQueueAndTheSynchronisationAndMoveThePacketPath) {
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_all_flow_info"), "");
  EXPECT_EQ(run("ssc_kelim", "dump_ssc_sdn_msg_queue"), "msg queue is empty\n");
  flow(full_flow_mod());
  send(d.pi().barrier, barrier(9));
  send(d.pi().ds_start, message(33, {}));
  flow(typical_flow(78));
  d.tick();
  // A TCP port stands twice because TCP and UDP have a bit each.
  expect_in_order(run("ssc_kelim", "dump_ssc_primitive_flow_entry", {{"index", "4660"}, {"vsd_id", "0"}}),
                  {"exp_app_type: 5\n", "dmac: 02:00:00:00:ab:01:  dmac_mask: ff:ff:ff:00:00:00:\n", "vid: 100, vid_mask:4095\n",
                   "dport: 1002, dport_mask:65535\ndport: 1002,", "ipv6: 2001:0db8:0000:0000:0000:0000:0000:0002:\n",
                   "output_ifx:  0xfffffffd\n", "mod_smac: 02:00:00:00:ab:01:\n"});
  expect_in_order(run("ssc_kelim", "dump_ssc_all_flow_info"), {"flow_index:4660, vsd_id:0, exp_app_type:5, ", "flow_index:78, "});
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
