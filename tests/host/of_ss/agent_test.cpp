// The OpenFlow agent towards its controllers: handshake, every message, hostile peers, roles.
#include <ifaddrs.h>
#include <net/if.h>

#include "host/of_ss/agent_world.h"

namespace {

using namespace of_world;
using Agent = AgentTest;

// "What it is: bytes".
using Cases = std::vector<std::string>;

Message bytes_of(const std::string &input) {
  return hex(input.substr(input.find(':') + 1));
}

// ---- handshake

// What is served, and what is refused with an error.
TEST_F(Agent, AgreesOnVersion4OrSaysWhyNot) {
  const Cases cases = {
      "served a bitmap with version 4: 04000010 00000001 00010008 00000010",
      "served no bitmap, a newer header version: 06000008 00000001",
      "served an older header version with a bitmap with 4: 01000010 00000001 00010008 00000012",
      "served an unknown element before a bitmap of two words: 0400001c 00000001 00ff0005 01000000 0001000c 00000010 00000001",
      "served a body that is no element: 0400000c 00000001 00000000",
      "OFPHFC_INCOMPATIBLE only version 1: 01000008 00000001",
      "OFPHFC_INCOMPATIBLE a bitmap without 4: 06000010 00000001 00010008 00000060",
      "OFPHFC_INCOMPATIBLE not HELLO: 04050008 00000001",
      "OFPHFC_INCOMPATIBLE a length below the header: 04000004 00000001",
      "OFPHFC_INCOMPATIBLE text: 47455420 2f204854 54502f31 2e310d0a"};
  for (const std::string &input : cases) {
    SCOPED_TRACE(input);
    Controller peer(port);
    // Ours comes first, before the peer has said anything: version 4 and a bitmap with 4 alone.
    const std::string ours = to_hex(peer.await(0));
    EXPECT_EQ(ours.substr(0, 8) + ours.substr(16), to_hex(hex("04000010 00010008 00000010")));
    peer.send(bytes_of(input));
    if (input.starts_with("served")) {
      EXPECT_EQ(get(peer.ask(message(5, 77)), 1, 1), 6u);
      continue;
    }
    EXPECT_EQ(error_of(peer.await(1)), "OFPHFC_INCOMPATIBLE");
    EXPECT_GT(peer.await(1).size(), 12u) << "a text says why";
    EXPECT_TRUE(until([&] { return peer.ended(); }));
  }
  EXPECT_TRUE(c.settle());
}

// ---- each message and its answer

// The first byte is the type of the message, and the rest its body.
Message request_of(const std::string &input) {
  const Message bytes = bytes_of(input);
  return message(static_cast<std::uint8_t>(bytes.at(0)), 0x4e9, {bytes.begin() + 1, bytes.end()});
}

// Requests and what their answers begin with: type, body.
TEST_F(Agent, RequestsAreAnswered) {
  const std::string kMonitor = "12 ffff 0000 00000000 4f4e4600 0000074e 00000001 ";
  const Cases cases = {
      "FEATURES: 05 -> 06 00000000000000ab 00000000 02 00 0000 00000007 00000000",
      "GET_CONFIG: 07 -> 08 0000 0080",
      "SET_CONFIG: 09 0000 ffff ->",
      "GET_CONFIG of what was set: 07 -> 08 0000 ffff",
      "GET_ASYNC: 1a -> 1b 00000007 00000000 00000007 00000007 0000000f 00000000",
      "SET_ASYNC: 1c 00000001 00000002 00000003 00000004 00000005 00000006 ->",
      "GET_ASYNC of what was set: 1a -> 1b 00000001 00000002 00000003 00000004 00000005 00000006",
      "ECHO: 02 0102030405 -> 03 0102030405",
      "ERROR from the controller: 01 0001 0000 ->",
      "GROUP_MOD delete all: 0f 0002 00 00 fffffffc ->",
      "TABLE_MOD: 11 00 000000 00000000 ->",
      "QUEUE_GET_CONFIG: 16 00000001 00000000 -> 17 00000001 00000000",
      "DESC: 12 0000 0000 00000000 -> 13 0000 0000 00000000 6b656c696d00",
      "TABLE: 12 0003 0000 00000000 -> 13 0003 0000 00000000 00000000 00000000 ffffffffffffffff ffffffffffffffff 01000000 "
      "00000000 ffffffffffffffffffffffffffffffff",
      "PORT_STATS of a port that the machine does not have: 12 0004 0000 00000000 00000002 00000000 -> 13 0004 0000 00000000 "
      "00000002 00000000 ffffffffffffffff ffffffffffffffff",
      "GROUP_FEATURES: 12 0008 0000 00000000 -> 13 0008 0000 00000000 00000000 00000000 00000000",
      "METER_FEATURES: 12 000b 0000 00000000 -> 13 000b 0000 00000000 00000400 00000006 00000007 08 00 0000",
      "PORT_DESC: 12 000d 0000 00000000 -> 13 000d 0000 00000000 00000001 00000000 020000000001 0000 "
      "70310000000000000000000000000000 00000000 00000000",
      "a bundle opened: 04 4f4e4600 000008fc 00000005 0000 0003 -> 04 4f4e4600 000008fc 00000005 0001 0003",
      "opened again: 04 4f4e4600 000008fc 00000005 0000 0003 -> 01 ffff 08ff 4f4e4600 04",
      "with an unknown flag: 04 4f4e4600 000008fc 00000006 0000 0004 -> 01 ffff 0903 4f4e4600",
      "a barrier in it: 04 4f4e4600 000008fd 00000005 0000 0003 04140008000004e9 -> 01 ffff 0906 4f4e4600",
      "another transaction's: 04 4f4e4600 000008fd 00000005 0000 0003 040e000800000001 -> 01 ffff 0905 4f4e4600",
      "longer than its carrier: 04 4f4e4600 000008fd 00000005 0000 0003 040e0009000004e9 -> 01 ffff 0904",
      "other flags: 04 4f4e4600 000008fd 00000005 0000 0001 040e0008000004e9 -> 01 ffff 0903 4f4e4600",
      "a bad flow-mod: 04 4f4e4600 000008fd 00000005 0000 0003 040e0008000004e9 -> 01 0001 0006 04",
      "committed after that: 04 4f4e4600 000008fc 00000005 0004 0003 -> 01 ffff 0909 4f4e4600",
      "committed again: 04 4f4e4600 000008fc 00000005 0004 0003 -> 01 ffff 08fe 4f4e4600",
      "another: 04 4f4e4600 000008fc 00000007 0000 0000 -> 04 4f4e4600 000008fc 00000007 0001 0000",
      "closed: 04 4f4e4600 000008fc 00000007 0002 0000 -> 04 4f4e4600 000008fc 00000007 0003 0000",
      "added to: 04 4f4e4600 000008fd 00000007 0000 0000 040e0008000004e9 -> 01 ffff 0900 4f4e4600",
      "no request: 04 4f4e4600 000008fc 00000007 0001 0000 -> 01 ffff 0902 4f4e4600",
      "discarded: 04 4f4e4600 000008fc 00000007 0006 0000 -> 04 4f4e4600 000008fc 00000007 0007 0000",
      "too short: 04 4f4e4600 000008fc 00000007 -> 01 0001 0006",
      "no message of bundles: 04 4f4e4600 000008fe 00000007 0000 0000 -> 01 0001 0004",
      "a monitor: " + kMonitor + "003f 0004 ffffffff ff000000 0001 0004 00000000 -> 13 ffff 0000 00000000 4f4e4600 0000074e",
      "the same again: " + kMonitor + "003f 0004 ffffffff ff000000 0001 0004 00000000 -> 01 ffff 0006 00002320",
      "of no change: " + kMonitor + "0031 0004 ffffffff ff000000 0001 0004 00000000 -> 01 ffff 0007 00002320",
      "with an unknown flag: " + kMonitor + "007f 0004 ffffffff ff000000 0001 0004 00000000 -> 01 ffff 0007 00002320",
      "of table 2: " + kMonitor + "003f 0004 ffffffff 02000000 0001 0004 00000000 -> 01 0001 0009",
      "longer than the request: " + kMonitor + "003f 000c ffffffff ff000000 0001 0004 00000000 -> 01 0001 0006",
      "of two lengths: " + kMonitor + "003f 0008 ffffffff ff000000 0001 0004 00000000 -> 01 0004 0001",
      "cut short: " + kMonitor + "003f 0004 ffffffff ff000000 0001 -> 01 0001 0006",
      "in two parts: 12 ffff 0001 00000000 4f4e4600 0000074e 00000001 003f 0004 ffffffff ff000000 0001 0004 00000000 -> 01 0001 "
      "000d",
      "another type: 12 ffff 0000 00000000 4f4e4600 0000074f 00000001 003f 0004 ffffffff ff000000 0001 0004 00000000 -> 01 0001 "
      "0004",
      "another experimenter: 12 ffff 0000 00000000 00002320 0000074e -> 01 0001 0003",
      "without a type: 12 ffff 0000 00000000 4f4e4600 -> 01 0001 0006",
      "cancelled: 04 4f4e4600 0000074e 00000001 -> ",
      "cancelled again: 04 4f4e4600 0000074e 00000001 -> 01 ffff 0008 00002320",
      "a long cancellation: 04 4f4e4600 0000074e 00000001 00 -> 01 0001 0006"};
  for (const std::string &input : cases) {
    SCOPED_TRACE(input);
    const std::size_t arrow = input.find("->");
    c.forget();
    apply(request_of(input.substr(0, arrow)));
    std::string got;
    for (const Message &m : c.received()) {
      EXPECT_EQ(to_hex(m).substr(0, 2) + to_hex(m).substr(8, 8), "04000004e9") << "version and transaction";
      got += to_hex(m).substr(2, 2) + to_hex(m).substr(16);
    }
    const std::string begins = to_hex(hex(input.substr(arrow + 2)));
    EXPECT_EQ(begins.empty() ? got : got.substr(0, begins.size()), begins);
  }
}

class Refused : public AgentTest {
 protected:
  // Each is refused with the error that it begins with, which carries the whole request, and is handed over to nobody.
  template <typename Request>
  void expect_refused(const Cases &cases, Request request_of) {
    for (const std::string &input : cases) {
      SCOPED_TRACE(input);
      const Message request = request_of(input), answer = c.ask(request);
      EXPECT_EQ(error_of(answer), input.substr(0, input.find(' ')));
      EXPECT_EQ(to_hex(data_of(answer)), to_hex(request));
    }
    EXPECT_TRUE(daemon.flows(true).empty() && daemon.of_type(southbound::kMeterMod).empty());
  }
  // The bytes are of a part of a flow-mod.
  void expect_flows_refused(const Cases &cases, FlowMod (*flow_of)(const Message &bytes)) {
    expect_refused(cases, [flow_of](const std::string &input) { return flow_mod(flow_of(bytes_of(input))); });
  }
};

TEST_F(Refused, Requests) {
  const Cases cases = {
      "OFPBRC_BAD_TYPE a reply: 06 0000000000000000 00000000 00000000 00000000 00000000",
      "OFPBRC_BAD_TYPE type 255: ff",
      "OFPBRC_BAD_MULTIPART multipart type 14: 12 000e 0000 00000000",
      "OFPBRC_BAD_EXPERIMENTER EXPERIMENTER: 04 00002320 00000001",
      "OFPBRC_BAD_LEN FEATURES with a body: 05 00000000",
      "OFPBRC_BAD_LEN FLOW_MOD shorter than a flow-mod: 0e 0000000000000000",
      "OFPBRC_BAD_LEN PACKET_OUT whose actions end outside: 0d ffffffff fffffffd 0018 000000000000 0000 0010 00000002 ffff "
      "000000000000",
      "OFPBRC_EPERM PACKET_OUT without a data plane: 0d ffffffff fffffffd 0000 000000000000 0000000000000000000000000000",
      "OFPBRC_BAD_LEN PACKET_OUT of half a frame: 0d ffffffff fffffffd 0000 000000000000 00000000000000000000000000",
      "OFPBRC_BAD_LEN FLOW without its body: 12 0001 0000 00000000",
      "OFPBRC_BUFFER_UNKNOWN PACKET_OUT of a buffered packet: 0d 00000001 fffffffd 0000 000000000000",
      "OFPBRC_BAD_TABLE_ID FLOW of table 2: 12 0001 0000 00000000 02000000 ffffffff ffffffff 00000000 0000000000000000 "
      "00000000000000000001000400000000",
      "OFPBRC_BAD_PORT PACKET_OUT from a port that is not there: 0d ffffffff 00000009 0000 000000000000",
      "OFPBRC_BAD_PORT PORT_STATS of a port that is not there: 12 0004 0000 00000000 00000009 00000000",
      "OFPBRC_MULTIPART_BUFFER_OVERFLOW multipart in more parts: 12 0000 0001 00000000",
      "OFPBAC_BAD_OUT_PORT PACKET_OUT to a missing port: 0d ffffffff fffffffd 0010 000000000000 0000 0010 00000009 ffff "
      "000000000000",
      "OFPBAC_BAD_OUT_PORT to NORMAL: 0d ffffffff fffffffd 0010 000000000000 0000 0010 fffffffa ffff 000000000000",
      "OFPGMFC_OUT_OF_GROUPS GROUP_MOD add: 0f 0000 00 00 00000001",
      "OFPGMFC_UNKNOWN_GROUP GROUP_MOD modify: 0f 0001 00 00 00000001",
      "OFPGMFC_BAD_COMMAND GROUP_MOD command 9: 0f 0009 00 00 00000001",
      "OFPPMFC_BAD_PORT PORT_MOD, no port: 10 00000009 00000000 020000000009 0000 00000000 00000000 00000000 00000000",
      "OFPPMFC_BAD_HW_ADDR PORT_MOD, no such address: 10 00000001 00000000 0a0b0c0d0e0f 0000 00000001 00000001 00000000 00000000",
      "OFPPMFC_EPERM PORT_MOD: 10 00000001 00000000 020000000001 0000 00000001 00000001 00000000 00000000",
      "OFPTMFC_BAD_TABLE TABLE_MOD of table 2: 11 02 000000 00000000",
      "OFPTMFC_BAD_CONFIG TABLE_MOD that configures: 11 00 000000 00000001",
      "OFPQOFC_BAD_PORT QUEUE_GET_CONFIG of a port that is not there: 16 00000009 00000000",
      "OFPSCFC_BAD_FLAGS SET_CONFIG that drops fragments: 09 0001 0080",
      "OFPRRFC_BAD_ROLE ROLE 4: 18 00000004 00000000 0000000000000000",
      "OFPMMFC_INVALID_METER meter 0: 1d 0000 0001 00000000",
      "OFPMMFC_INVALID_METER all in an add: 1d 0000 0001 ffffffff",
      "OFPMMFC_UNKNOWN_METER METER of none: 12 0009 0000 00000000 00000001 00000000",
      "OFPMMFC_UNKNOWN_METER a change of no meter: 1d 0001 0001 00000006",
      "OFPMMFC_BAD_COMMAND METER_MOD command 3: 1d 0003 0001 00000006",
      "OFPMMFC_BAD_FLAGS METER_MOD with an unknown flag: 1d 0000 0010 00000006",
      "OFPMMFC_BAD_FLAGS both units: 1d 0000 0003 00000006",
      "OFPMMFC_BAD_RATE rate 0: 1d 0000 0001 00000006 0001 0010 00000000 00000000 00000000",
      "OFPMMFC_BAD_BAND band type 3: 1d 0000 0001 00000006 0003 0010 00000001 00000000 00000000",
      "OFPMMFC_BAD_BAND_VALUE precedence 64: 1d 0000 0001 00000006 0002 0010 00000001 00000000 40 000000",
      "OFPBRC_BAD_LEN band of another length: 1d 0000 0001 00000006 0001 0008 00000001 00000000 00000000",
      "OFPTFFC_EPERM TABLE_FEATURES that sets: 12 000c 0000 00000000 0040 00 0000000000 "
      "0000000000000000000000000000000000000000000000000000000000000000 0000000000000000 0000000000000000 00000000 00000000"};
  expect_refused(cases, request_of);
}

TEST_F(Refused, FlowsForTheirMatch) {
  const Cases cases = {
      "OFPBMC_BAD_LEN unmasked length of a masked field: 80000a020800 80001904 0a000001",
      "OFPBMC_BAD_LEN longer than the match: 80000004 0000",
      "OFPBMC_BAD_LEN ends within a header: 80000004 00000001 8000",
      "OFPBMC_BAD_LEN wrong length of the experimenter's field: ffff0206 004b454c 0003",
      "OFPBMC_BAD_WILDCARDS value bit where the mask is 0: 80000a020800 80001908 0a000001 ffffff00",
      "OFPBMC_BAD_FIELD ip_ecn: 80000a020800 8000120101",
      "OFPBMC_BAD_FIELD no such field: 80007e02 0001",
      "OFPBMC_BAD_FIELD another experimenter: ffff0208 00002320 00000003",
      "OFPBMC_BAD_VALUE in_port 0: 80000004 00000000",
      "OFPBMC_BAD_VALUE in_port CONTROLLER: 80000004 fffffffd",
      "OFPBMC_BAD_VALUE vlan_vid present only: 80000d04 1000 1000",
      "OFPBMC_BAD_VALUE vlan_vid without OFPVID_PRESENT: 80000c02 0064",
      "OFPBMC_BAD_VALUE vlan_vid 4095: 80000c02 1fff",
      "OFPBMC_BAD_VALUE vlan_pcp 8: 80000c021064 80000e0108",
      "OFPBMC_BAD_VALUE ipv6_exthdr above its bits: 80000a0286dd 80004e02 0200",
      "OFPBMC_BAD_MASK mask on in_port: 80000108 00000001 ffffffff",
      "OFPBMC_BAD_PREREQ of IPv6: 80000a0286dd 80001804 0a000001",
      "OFPBMC_BAD_PREREQ tcp_dst without ip_proto: 80000a020800 80001c02 0050",
      "OFPBMC_BAD_PREREQ icmpv6_type of ICMP: 80000a0286dd 8000140101 80003a0187",
      "OFPBMC_BAD_PREREQ vlan_pcp without vlan_vid: 80000e0101",
      "OFPBMC_DUP_FIELD a field twice, once with a mask of nothing: 80000a020800 80001908 00000000 00000000 80001804 0a000001"};
  expect_flows_refused(cases, [](const Message &fields) { return FlowMod{.fields = fields}; });
}

constexpr char kTaggedIp[] = "80000a020800 80000c021064";

TEST_F(Refused, FlowsForTheirInstructions) {
  const Cases cases = {"OFPBIC_UNKNOWN_INST type 0: 0000 0008 00000000",
                       "OFPBIC_UNKNOWN_INST type 7: 0007 0008 00000000",
                       "OFPBIC_UNSUP_INST APPLY_ACTIONS twice: 0004 0008 00000000 0004 0008 00000000",
                       "OFPBIC_BAD_TABLE_ID GOTO_TABLE: 0001 0008 01 000000",
                       "OFPBIC_UNSUP_METADATA WRITE_METADATA: 0002 0018 00000000 0000000000000001 ffffffffffffffff",
                       "OFPBIC_BAD_EXPERIMENTER an experimenter's: ffff 0008 00002320",
                       "OFPBIC_BAD_LEN longer than the message: 0004 0010 00000000",
                       "OFPBIC_BAD_LEN length 4: 0004 0004 00000000",
                       "OFPBIC_BAD_LEN CLEAR_ACTIONS with something in it: 0005 0010 00000000 0000000000000000",
                       "OFPMMFC_INVALID_METER meter 0: 0006 0008 00000000"};
  expect_flows_refused(cases, [](const Message &list) { return FlowMod{.fields = hex(kTaggedIp), .instructions = list}; });
}

TEST_F(Refused, FlowsForTheirActions) {
  const Cases cases = {
      "OFPBAC_BAD_TYPE pop_vlan: 0012 0008 00000000",
      "OFPBAC_BAD_LEN output of length 8: 0000 0008 00000001",
      "OFPBAC_BAD_LEN length 0: 0000 0000 00000001",
      "OFPBAC_BAD_LEN longer than the list: 0000 0018 00000001 0000 000000000000",
      "OFPBAC_BAD_EXPERIMENTER an experimenter's: ffff 0008 00002320",
      "OFPBAC_BAD_OUT_PORT no such port: 0000 0010 00000003 0000 000000000000",
      "OFPBAC_BAD_OUT_PORT TABLE: 0000 0010 fffffff9 0000 000000000000",
      "OFPBAC_TOO_MANY two outputs: 0000 0010 00000001 0000 000000000000 0000 0010 00000002 0000 000000000000",
      "OFPBAC_BAD_QUEUE queue 0: 0015 0008 00000000",
      "OFPBAC_BAD_QUEUE queue 9: 0015 0008 00000009",
      "OFPBAC_BAD_OUT_GROUP group: 0016 0008 00000001",
      "OFPBAC_UNSUPPORTED_ORDER set-field after the output: 0000 0010 00000001 0000 000000000000 0019 0010 80000606 010203040506 "
      "0000",
      "OFPBAC_BAD_SET_TYPE ipv4_dst: 0019 0010 80001804 0a000001 00000000",
      "OFPBAC_BAD_SET_TYPE a mask: 0019 0018 8000070c 010203040506 ffffffffffff 00000000",
      "OFPBAC_BAD_SET_LEN vlan_vid with 4 bytes: 0019 0010 80000c04 00001005 00000000",
      "OFPBAC_BAD_SET_LEN too short an action: 0019 0008 80000606",
      "OFPBAC_BAD_SET_ARGUMENT vlan_vid 4095: 0019 0010 80000c02 1fff 000000000000",
      "OFPBAC_BAD_SET_ARGUMENT without OFPVID_PRESENT: 0019 0010 80000c02 0005 000000000000"};
  expect_flows_refused(
      cases, [](const Message &list) { return FlowMod{.fields = hex(kTaggedIp), .instructions = of_wire::apply(list)}; });
  const Cases untagged = {"OFPBAC_MATCH_INCONSISTENT vlan_pcp: 0019 0010 80000e01 01 00000000000000",
                          "OFPBAC_MATCH_INCONSISTENT ip_dscp: 0019 0010 80001001 01 00000000000000"};
  expect_flows_refused(untagged, [](const Message &list) { return FlowMod{.instructions = of_wire::apply(list)}; });
  Message many;
  for (int i = 0; i < 200; ++i) append(many, hex("0019 0010 80000606 010203040506 0000"));
  EXPECT_EQ(error_of(c.ask(flow_mod({.instructions = of_wire::apply(many)}))), "OFPBAC_TOO_MANY") << "more than fit";
}

TEST_F(Refused, FlowsForTheirHead) {
  EXPECT_EQ(error_of(c.ask(flow_mod({.table = 2}))), "OFPFMFC_BAD_TABLE_ID");
  EXPECT_EQ(error_of(c.ask(flow_mod({.table = 255}))), "OFPFMFC_BAD_TABLE_ID") << "all tables in an add";
  EXPECT_EQ(error_of(c.ask(flow_mod({.command = 5}))), "OFPFMFC_BAD_COMMAND");
  EXPECT_EQ(error_of(c.ask(flow_mod({.flags = 32}))), "OFPFMFC_BAD_FLAGS");
  EXPECT_EQ(error_of(c.ask(flow_mod({.buffer = 1}))), "OFPBRC_BUFFER_UNKNOWN");
  EXPECT_EQ(error_of(c.ask(flow_mod({.table = 1, .fields = hex("ffff0208 004b454c 00000005")}))), "OFPBMC_BAD_VALUE")
      << "not the chain's";
  Message other_match = flow_mod({});
  other_match[49] = std::byte{0};
  EXPECT_EQ(error_of(c.ask(other_match)), "OFPBMC_BAD_TYPE");
}

// A message of another version is refused and the connection goes on; transaction number 0 is as good as any.
TEST_F(Agent, UnusualHeadersAreAnswered) {
  daemon.hold_barriers(true);
  EXPECT_EQ(error_of(c.ask(hex("01050008 00000009"))), "OFPBRC_BAD_VERSION");
  EXPECT_EQ(to_hex(c.ask(barrier(0))), "0415000800000000") << "with nothing to wait for at once";
  EXPECT_EQ(error_of(c.ask(hex("04050004 00000009"))), "OFPBRC_BAD_LEN") << "a length below the header";
  EXPECT_TRUE(until([&] { return c.ended(); }));
}

// ---- roles

Message role_request(std::uint32_t role, std::uint64_t generation) {
  return message(24, 0x401e, pack({{role, 4}, {0, 4}, {generation, 8}}));
}

TEST_F(Agent, RolesFollowTheGenerationAndLeaveOneMaster) {
  Controller other;
  come_up(other);
  const auto role = [](Controller &of, std::uint32_t wanted, std::uint64_t generation) {
    const Message m = of.ask(role_request(wanted, generation));
    return m.size() == 24 ? to_hex(m).substr(23, 1) + ":" + to_hex(m).substr(32) : error_of(m);
  };
  EXPECT_EQ(role(c, 0, 0), "1:ffffffffffffffff") << "equal, no generation yet";
  EXPECT_EQ(role(c, 2, 5), "2:0000000000000005");
  EXPECT_EQ(role(other, 2, 4), "OFPRRFC_STALE") << "older";
  EXPECT_EQ(role(other, 2, 6), "2:0000000000000006");
  EXPECT_EQ(role(c, 0, 0), "3:0000000000000006") << "the other master is slave now";
  const Message writes[] = {
      message(13, 6, hex("ffffffff fffffffd 0000 000000000000")),
      flow_mod(ipv4_flow(1, 6)),
      message(15, 6, hex("0002 00 00 fffffffc")),
      message(16, 6, hex("00000001 00000000 020000000001 0000 00000000 00000000 00000000 00000000")),
      message(17, 6, hex("00 000000 00000000")),
      message(29, 6, hex("0000 0001 00000005 0001 0010 00000064 00000000 00000000")),
  };
  for (const Message &write : writes) EXPECT_EQ(error_of(c.ask(write)), "OFPBRC_IS_SLAVE") << get(write, 1, 1);
  EXPECT_TRUE(daemon.flows(true).empty() && daemon.of_type(southbound::kMeterMod).empty());
  EXPECT_EQ(role(other, 2, 6), "2:0000000000000006") << "the same again";
  EXPECT_EQ(role(c, 1, 0), "1:0000000000000006") << "equal needs no generation";
  apply(flow_mod(ipv4_flow(1, 8)));
  EXPECT_EQ(daemon.flows(true).size(), 1u);
  EXPECT_EQ(role(c, 2, 0x8000000000000005), "2:8000000000000005");
  EXPECT_EQ(role(c, 2, 6), "OFPRRFC_STALE") << "numbers compare as on a circle";
  EXPECT_EQ(role(c, 2, 4), "2:0000000000000004");
}

// ---- what the daemon is told of controllers

TEST_F(Agent, TheDaemonHearsOfTheFirstAndTheLastController) {
  const auto told = [this](std::uint16_t type) { return daemon.told(type); };
  const std::string lo = to_hex(le(if_nametoindex("lo")));
  {
    Controller other;
    come_up(other);
    // Type 6, version 4, length 12, table property 1, one interface: the one over which both have come.
    EXPECT_EQ(told(southbound::kOpen), "1: 060004000c000100" + lo);
    EXPECT_EQ(told(southbound::kMgmtIfx), "");
    // Announced: one address, 127.0.0.1, first octet first.
    EXPECT_EQ(told(southbound::kOncInfo).substr(0, 3) + told(southbound::kOncInfo).substr(19), "1: 000000007f000001");
    // So many cells a report, and the daemon's own period of five seconds.
    EXPECT_TRUE(until([&] { return told(southbound::kFlowCountConfig) == "1: 1a000400100001000700000005000000"; }));
    c.close();
    EXPECT_TRUE(other.settle());
    EXPECT_EQ(told(southbound::kClose), "");
    // Packets flow while somebody is no slave.
    other.ask(role_request(3, 1));
    EXPECT_TRUE(until([this] { return daemon.of_type(southbound::kPktEnd).size() == 1; }));
    other.ask(role_request(2, 2));
    EXPECT_TRUE(until([this] { return daemon.of_type(southbound::kPktStart).size() == 2; }));
  }
  EXPECT_TRUE(until([&] { return told(southbound::kClose) == "1: 070004000c000100" + lo; }));
  EXPECT_EQ(told(southbound::kOncInfo).substr(0, 3) + told(southbound::kOncInfo).substr(19), "2: 010000007f000001");
  EXPECT_EQ(told(southbound::kDsStart), "") << "controllers that come and go start no synchronisation";
}

TEST_F(Agent, TheDaemonIsToldWhenTheInterfacesOfTheControllersChange) {
  ifaddrs *all = nullptr;
  ASSERT_EQ(getifaddrs(&all), 0);
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(all, freeifaddrs);
  const auto *other = all;
  while (other &&
         !(other->ifa_addr && other->ifa_addr->sa_family == AF_INET && (other->ifa_flags & (IFF_LOOPBACK | IFF_UP)) == IFF_UP))
    other = other->ifa_next;
  if (!other) GTEST_SKIP() << "this machine has the loopback interface alone";
  const std::string outer = to_hex(le(if_nametoindex(other->ifa_name)));
  Controller far;
  come_up(far, reinterpret_cast<const sockaddr_in *>(other->ifa_addr)->sin_addr.s_addr);
  EXPECT_EQ(daemon.told(southbound::kMgmtIfx), "1: 1800040010000100" + to_hex(le(if_nametoindex("lo"))) + outer);
  EXPECT_EQ(daemon.of_type(southbound::kOncInfo).size(), 2u) << "each has its address announced";
  c.close();
  EXPECT_TRUE(until([&] { return daemon.told(southbound::kMgmtIfx) == "2: 180004000c000100" + outer; }));
  far.close();
  EXPECT_TRUE(until([&] { return daemon.told(southbound::kClose) == "1: 070004000c000100" + outer; }));
}

// ---- hostile and broken peers; another controller is served as before

TEST_F(Agent, TheLimitOfConnectionsHolds) {
  // More at a time than there are numbers, and none says anything, or more than HELLO and ECHO: the oldest make room.
  std::vector<std::unique_ptr<Controller>> silent, all;
  for (int i = 0; i < 600; ++i) silent.push_back(std::make_unique<Controller>(port));
  for (int i = 0; i < 300; ++i) {
    silent.push_back(std::make_unique<Controller>(port));
    silent.back()->send(hello() + message(2, 1));
  }
  for (int i = 0; i < 254; ++i) {
    all.push_back(std::make_unique<Controller>());
    come_up(*all.back());
  }
  Controller one_too_many(port);
  EXPECT_TRUE(until([&] { return one_too_many.ended(); }));
  all.pop_back();
  EXPECT_TRUE(until([&] {
    Controller again(port);
    again.send(hello());
    return !again.ask(message(5, 1)).empty();
  }));
  EXPECT_TRUE(c.settle());
}

TEST_F(Agent, APeerThatDoesNotReadIsNotServedWithoutEnd) {
  Message flows, many;
  for (std::uint32_t i = 0; i < 2000; ++i) append(flows, flow_mod(ipv4_flow(i, i)));
  apply(flows);
  Controller greedy;
  come_up(greedy);
  for (int i = 0; i < 400'000; ++i) append(many, dump_request(9));
  EXPECT_FALSE(greedy.send(many, 1s)) << "200 KB of answer each: reading stops long before all is taken";
  EXPECT_TRUE(c.settle());
}

// None of them holds as much as one may.
TEST_F(Agent, PeersThatDoNotReadDoNotTakeTheMemoryTogether) {
  std::vector<std::unique_ptr<Controller>> deaf(200);
  for (auto &peer : deaf) {
    peer = std::make_unique<Controller>();
    peer->connect(port, htonl(INADDR_LOOPBACK), 536);
    ASSERT_TRUE(peer->send(hello() + message(5, 1)));
    ASSERT_FALSE(peer->await(6).empty());
  }
  Message flows;
  for (std::uint32_t i = 0; i < 2000; ++i) {
    FlowMod flow = ipv4_flow(i, i);
    flow.flags = 1;  // OFPFF_SEND_FLOW_REM
    append(flows, flow_mod(flow));
  }
  std::size_t left = 201;
  for (int round = 0; round < 20 && left == 201; ++round) {
    apply(flows + flow_mod(everything()));
    daemon.forget();
    c.forget();
    std::size_t unsent = 0;
    const auto controllers = view("controllers")["controllers"];
    for (const auto &one : controllers) unsent += one["unsent_bytes"].get<std::size_t>();
    EXPECT_LE(unsent, 128u << 20);
    left = controllers.size();
  }
  EXPECT_LT(left, 201u) << "the fullest are closed";
  EXPECT_TRUE(c.settle());
}

// ---- time

class Echo : public AgentTest {
 protected:
  void configure() override {
    AgentTest::configure();
    set("openflow.echo_interval_s", "10");
    set("openflow.decide_timeout_ms", "600000");
    set("openflow.queue_bound", "1");
  }
};

TEST_F(Echo, ASilentPeerIsProbedAndThenGivenUp) {
  Controller mute(port);
  mute.await(0);
  warp(10s);
  Message reply = c.await(2);
  ASSERT_FALSE(reply.empty());
  reply[1] = std::byte{3};
  apply(reply);
  c.forget();
  warp(9s);
  EXPECT_TRUE(c.of_type(2).empty()) << "it has answered; silence begins again";
  EXPECT_TRUE(until([&] { return mute.ended(); })) << "it has never said HELLO";
  EXPECT_EQ(mute.received().size(), 1u);
  warp(2s);
  EXPECT_FALSE(c.await(2).empty());
  warp(25s);
  EXPECT_TRUE(until([&] { return c.ended(); }));
}

// While the daemon takes its time, a controller's messages wait and it is not probed. However long that was, it is not given up
// before it has had the time to answer.
TEST_F(Echo, APeerWhoseMessagesWaitedIsProbedBeforeItIsGivenUp) {
  hand_over(flow_mod(ipv4_flow(1)) + barrier(1) + flow_mod(ipv4_flow(2)) + barrier(2), 1);
  warp(40s);
  for (int turns = 0; turns < 2; ++turns) host::of_ss::run_timers();  // what it would send is out by then
  EXPECT_TRUE(c.of_type(2).empty()) << "its second flow waits";
  daemon.answer_barriers();
  ASSERT_FALSE(c.await(21, 2).empty());
  warp(1s);
  ASSERT_FALSE(c.await(2).empty());
  warp(19s);
  EXPECT_FALSE(c.ended());
  warp(1s);
  EXPECT_TRUE(until([&] { return c.ended(); })) << "now it has not answered in two intervals";
}

}  // namespace
