// Flow-mods from the wire into southbound messages and back: each case is bytes in, bytes or an error out.
#include <gtest/gtest.h>

#include <ostream>

#include "host/of_ss/flow_mod.h"
#include "southbound.h"
#include "support/of_wire.h"

namespace {

using namespace of_wire;
using host::of_ss::Verdict;

constexpr std::uint32_t kPorts[] = {1, 2, 7};

struct Decoded {
  Verdict verdict;
  host::of_ss::FlowMod mod;
};

Decoded decode(const Message &request) {
  Decoded d;
  d.verdict = host::of_ss::decode_flow_mod(request, kPorts, d.mod);
  return d;
}

std::string error_text(const Verdict &verdict) {
  if (!verdict.refused()) return "accepted";
  return std::to_string(verdict.error->type) + "/" + std::to_string(verdict.error->code);
}

// ---- accepted matches: the fields on the wire, and the slots that the daemon reads (host order, little-endian)

struct MatchCase {
  const char *label;
  const char *wire;
  const char *slots;
  std::uint8_t table = 0;
};
void PrintTo(const MatchCase &c, std::ostream *out) {
  *out << c.label;
}

const char *const kTcp = "80000a020800 8000140106 ";
const MatchCase kMatches[] = {
    {"nothing", "", ""},
    {"in_port", "80000004 00000001", "04000080 01000000"},
    {"eth_dst", "80000606 010203040506", "06060080 010203040506 000000000000"},
    {"eth_dst masked", "8000070c 010203000000 ffffff000000", "0c070080 010203000000 ffffff000000"},
    {"eth_src", "80000806 0a0b0c0d0e0f", "06080080 0a0b0c0d0e0f 000000000000"},
    {"eth_src masked", "8000090c 0a0000000000 ff0000000000", "0c090080 0a0000000000 ff0000000000"},
    {"eth_type", "80000a02 0806", "020a0080 06080000"},
    {"vlan_vid loses OFPVID_PRESENT", "80000c02 1064", "020c0080 64000000"},
    {"vlan_vid 0, a priority tag", "80000c02 1000", "020c0080 00000000"},
    {"vlan_vid 4094", "80000c02 1ffe", "020c0080 fe0f0000"},
    {"vlan_vid masked", "80000d04 1060 1ff0", "040d0080 6000f00f"},
    {"vlan_vid with a full mask is exact", "80000d04 1064 1fff", "020c0080 64000000"},
    {"vlan_pcp", "80000c021064 80000e0107", "020c0080 64000000 010e0080 07000000"},
    {"ip_dscp", "80000a020800 800010013f", "020a0080 00080000 01100080 3f000000"},
    {"ip_dscp of IPv6", "80000a0286dd 8000100108", "020a0080 dd860000 01100080 08000000"},
    {"ip_proto", "80000a020800 8000140111", "020a0080 00080000 01140080 11000000"},
    {"ipv4_src", "80000a020800 80001604 0a000001", "020a0080 00080000 04160080 0100000a"},
    {"ipv4_src masked", "80000a020800 80001708 0a000000 ff000000", "020a0080 00080000 08170080 0000000a 000000ff 00000000"},
    {"ipv4_dst", "80000a020800 80001804 c0a80102", "020a0080 00080000 04180080 0201a8c0"},
    {"ipv4_dst masked", "80000a020800 80001908 c0a80000 ffff0000", "020a0080 00080000 08190080 0000a8c0 0000ffff 00000000"},
    {"ipv4_dst with a full mask is exact", "80000a020800 80001908 c0a80102 ffffffff", "020a0080 00080000 04180080 0201a8c0"},
    {"ipv4_dst with an empty mask is left out", "80000a020800 80001908 00000000 00000000", "020a0080 00080000"},
    {"tcp_src", "80000a020800 8000140106 80001a02 0050", "020a0080 00080000 01140080 06000000 021a0080 50000000"},
    {"tcp_dst", "80000a020800 8000140106 80001c02 1f90", "020a0080 00080000 01140080 06000000 021c0080 901f0000"},
    {"tcp_dst of IPv6", "80000a0286dd 8000140106 80001c02 0050", "020a0080 dd860000 01140080 06000000 021c0080 50000000"},
    {"udp_src", "80000a020800 8000140111 80001e02 0035", "020a0080 00080000 01140080 11000000 021e0080 35000000"},
    {"udp_dst", "80000a020800 8000140111 80002002 0035", "020a0080 00080000 01140080 11000000 02200080 35000000"},
    {"icmpv4", "80000a020800 8000140101 8000260108 8000280100",
     "020a0080 00080000 01140080 01000000 01260080 08000000 01280080 00000000"},
    {"ipv6_src", "80000a0286dd 80003410 20010db8000000000000000000000001",
     "020a0080 dd860000 10340080 20010db8000000000000000000000001 00000000"},
    {"ipv6_dst masked", "80000a0286dd 80003720 20010db8000000000000000000000000 ffffffff000000000000000000000000",
     "020a0080 dd860000 20370080 20010db8000000000000000000000000 ffffffff000000000000000000000000 00000000"},
    {"icmpv6", "80000a0286dd 800014013a 80003a0187 80003c0100",
     "020a0080 dd860000 01140080 3a000000 013a0080 87000000 013c0080 00000000"},
    {"ipv6_exthdr", "80000a0286dd 80004e02 0041", "020a0080 dd860000 024e0080 41000000"},
    {"ipv6_exthdr masked", "80000a0286dd 80004f04 0001 0003", "020a0080 dd860000 044f0080 01000300"},
    {"application type", "ffff0208 004b454c 00000005", "0402ffff 05000000"},
    {"application type 3 in table 0", "ffff0208 004b454c 00000003", "0402ffff 03000000"},
    {"table 1 adds the application type", "80000004 00000001", "04000080 01000000 0402ffff 03000000", 1},
    {"table 1 with the application type given", "ffff0208 004b454c 00000003 80000004 00000001",
     "04000080 01000000 0402ffff 03000000", 1},
    {"any order of fields, in_port first", "80000a020800 8000140106 80001c020050 80000004 00000007",
     "04000080 07000000 020a0080 00080000 01140080 06000000 021c0080 50000000"},
    {"what a field needs may come after it", "80001804 0a000001 80000a020800", "020a0080 00080000 04180080 0100000a"},
};

class Matches : public testing::TestWithParam<MatchCase> {};

TEST_P(Matches, BecomeSlots) {
  FlowMod f;
  f.table = GetParam().table;
  f.fields = hex(GetParam().wire);
  f.instructions = apply(output(2));
  const Decoded d = decode(flow_mod(f));
  ASSERT_EQ(error_text(d.verdict), "accepted");
  const Message slots = hex(GetParam().slots);
  const std::size_t block = 40 + (slots.size() + 11) / 8 * 8;
  ASSERT_EQ(d.mod.length, block + 8 + 16);
  EXPECT_EQ(southbound::get<std::uint16_t>(d.mod.message, 40), 1);
  EXPECT_EQ(southbound::get<std::uint16_t>(d.mod.message, 42), slots.size());
  EXPECT_EQ(to_hex(d.mod.southbound().subspan(44, slots.size())), to_hex(slots));
  EXPECT_EQ(to_hex(d.mod.southbound().subspan(block)),
            "10000000"
            "00000000"
            "0000"
            "1000"
            "02000000"
            "ffff"
            "000000000000");
}

// What a match becomes is given back to the controller as it came, in the order of the fields' numbers.
TEST_P(Matches, ComeBackAsTheSameFlow) {
  FlowMod f;
  f.table = GetParam().table;
  f.fields = hex(GetParam().wire);
  const Decoded d = decode(flow_mod(f));
  std::vector<std::byte> wire;
  host::of_ss::Writer out(wire);
  host::of_ss::encode_wire_match(host::of_ss::southbound_match(d.mod.southbound()), f.table == 1, out);
  ASSERT_EQ(wire.size() % 8, 0u);
  f.fields.assign(wire.begin() + 4, wire.begin() + static_cast<std::ptrdiff_t>(get(wire, 2, 2)));
  const Decoded again = decode(flow_mod(f));
  EXPECT_EQ(to_hex(again.mod.southbound()), to_hex(d.mod.southbound()));
}

INSTANTIATE_TEST_SUITE_P(Codec, Matches, testing::ValuesIn(kMatches));

TEST(FlowMod, CarriesTheWholeRequestSouthbound) {
  FlowMod f = ipv4_flow(0x0a000001);
  f.priority = 0x1234, f.cookie = 0x0102030405060708, f.idle = 30, f.hard = 600, f.flags = 1;
  f.instructions = hex("00060008 00000009") + f.instructions;
  const Decoded d = decode(flow_mod(f));
  ASSERT_EQ(error_text(d.verdict), "accepted");
  // Type 10, version 4, length 96, table property 0; index 0; cookie; priority, flags, add, table 0, apply with one action;
  // meter, timeouts; match of 24 bytes; 16 bytes of actions.
  EXPECT_EQ(to_hex(d.mod.southbound()),
            to_hex(hex("0a00 0400 6000 0000 0000000000000000 0807060504030201 3412 0100 00 00 01 01 09000000 1e00 5802"
                       "0100 1800 04000080 01000000 020a0080 00080000 04180080 0100000a 00000000"
                       "10000000 00000000 0000 1000 02000000 ffff 000000000000")));
}

// ---- accepted instructions: on the wire, and the block that the daemon reads

struct ActionCase {
  const char *label;
  const char *wire;
  const char *block;
  const char *text;
};
void PrintTo(const ActionCase &c, std::ostream *out) {
  *out << c.label;
}

#define APPLY(LEN) "0004" LEN "00000000 "
#define WRITE(LEN) "0003" LEN "00000000 "
const ActionCase kActions[] = {
    {"none: a block of length 0", "", "00000000 00000000", "drop"},
    {"empty APPLY_ACTIONS", APPLY("0008"), "00000000 00000000", "drop"},
    {"output", APPLY("0018") "0000 0010 00000002 ffff 000000000000", "10000000 00000000 0000 1000 02000000 ffff 000000000000",
     "output:2"},
    {"output to the controller", APPLY("0018") "0000 0010 fffffffd 0080 000000000000",
     "10000000 00000000 0000 1000 fdffffff 8000 000000000000", "output:CONTROLLER:128"},
    {"output NORMAL", APPLY("0018") "0000 0010 fffffffa 0000 000000000000",
     "10000000 00000000 0000 1000 faffffff 0000 000000000000", "output:NORMAL"},
    {"set_queue, then output", APPLY("0020") "0015 0008 00000008 0000 0010 00000007 ffff 000000000000",
     "18000000 00000000 1500 0800 08000000 0000 1000 07000000 ffff 000000000000", "set_queue:8,output:7"},
    {"set eth_dst", APPLY("0018") "0019 0010 80000606 010203040506 0000",
     "10000000 00000000 1900 1000 06060080 010203040506 0000", "set_field:01:02:03:04:05:06->eth_dst"},
    {"set vlan_vid loses OFPVID_PRESENT", APPLY("0018") "0019 0010 80000c02 1005 000000000000",
     "10000000 00000000 1900 1000 020c0080 0500 000000000000", "set_field:5->vlan_vid"},
    {"set vlan_pcp", APPLY("0018") "0019 0010 80000e01 07 00000000000000",
     "10000000 00000000 1900 1000 010e0080 07 00000000000000", "set_field:7->vlan_pcp"},
    {"set ip_dscp", APPLY("0018") "0019 0010 80001001 2e 00000000000000",
     "10000000 00000000 1900 1000 01100080 2e 00000000000000", "set_field:46->ip_dscp"},
    {"of an action set the output acts last",
     WRITE("0028") "0000 0010 00000002 ffff 000000000000 0019 0010 80000806 0a0b0c0d0e0f 0000",
     "20000000 00000000 1900 1000 06080080 0a0b0c0d0e0f 0000 0000 1000 02000000 ffff 000000000000",
     "set_field:0a:0b:0c:0d:0e:0f->eth_src,output:2"},
    {"APPLY_ACTIONS come before WRITE_ACTIONS",
     WRITE("0018") "0000 0010 00000002 ffff 000000000000" APPLY("0018") "0019 0010 80000e01 03 00000000000000",
     "20000000 00000000 1900 1000 010e0080 03 00000000000000 0000 1000 02000000 ffff 000000000000",
     "set_field:3->vlan_pcp,output:2"},
    {"CLEAR_ACTIONS with APPLY_ACTIONS", "0005 0008 00000000" APPLY("0018") "0000 0010 fffffffd ffff 000000000000",
     "10000000 00000000 0000 1000 fdffffff ffff 000000000000", "output:CONTROLLER"},
};

class Actions : public testing::TestWithParam<ActionCase> {
 protected:
  static Message request() {
    FlowMod f;
    f.fields = hex("80000a020800 80000c021064");
    f.instructions = hex(GetParam().wire);
    return flow_mod(f);
  }
};

TEST_P(Actions, BecomeTheBlock) {
  const Decoded d = decode(request());
  ASSERT_EQ(error_text(d.verdict), "accepted");
  EXPECT_EQ(to_hex(d.mod.southbound().subspan(64)), to_hex(hex(GetParam().block)));
  EXPECT_EQ(host::of_ss::actions_text(d.mod.southbound()), GetParam().text);
}

TEST_P(Actions, ComeBackAsTheyCame) {
  const Decoded d = decode(request());
  std::vector<std::byte> wire;
  host::of_ss::Writer out(wire);
  host::of_ss::encode_wire_instructions(d.mod.southbound(), out);
  FlowMod f;
  f.fields = hex("80000a020800 80000c021064");
  f.instructions = wire;
  EXPECT_EQ(wire.size(), hex(GetParam().wire).size());
  EXPECT_EQ(to_hex(decode(flow_mod(f)).mod.southbound()), to_hex(d.mod.southbound()));
}

INSTANTIATE_TEST_SUITE_P(Codec, Actions, testing::ValuesIn(kActions));

// ---- refused: the error that goes back

struct RefusedCase {
  const char *label;
  const char *error;
  FlowMod mod;
};
void PrintTo(const RefusedCase &c, std::ostream *out) {
  *out << c.label;
}

FlowMod with_match(const char *fields) {
  FlowMod f;
  f.fields = hex(fields);
  return f;
}
FlowMod with_instructions(const std::string &instructions, const char *fields = "80000a020800 80000c021064") {
  FlowMod f = with_match(fields);
  f.instructions = hex(instructions);
  return f;
}
FlowMod with_actions(const char *actions, const char *fields = "80000a020800 80000c021064") {
  FlowMod f = with_match(fields);
  f.instructions = apply(hex(actions));
  return f;
}
FlowMod with(void (*change)(FlowMod &)) {
  FlowMod f = ipv4_flow(1);
  change(f);
  return f;
}

const std::vector<RefusedCase> &refused_cases() {
  static const std::vector<RefusedCase> cases = {
      {"in_phy_port", "4/6", with_match("80000004 00000001 80000204 00000001")},
      {"metadata", "4/6", with_match("80000408 0000000000000001")},
      {"ip_ecn", "4/6", with_match("80000a020800 8000120101")},
      {"sctp_dst", "4/6", with_match("80000a020800 8000140184 80002402 0050")},
      {"arp_op", "4/6", with_match("80000a020806 80002a02 0001")},
      {"arp_spa", "4/6", with_match("80000a020806 80002c04 0a000001")},
      {"ipv6_flabel", "4/6", with_match("80000a0286dd 80003804 00000001")},
      {"mpls_label", "4/6", with_match("80000a028847 80004404 00000010")},
      {"tunnel_id", "4/6", with_match("80004c08 0000000000000001")},
      {"a field number that does not exist", "4/6", with_match("80007e02 0001")},
      {"a class that does not exist", "4/6", with_match("00010004 00000001")},
      {"another experimenter's field", "4/6", with_match("ffff0208 00002320 00000003")},
      {"another field of the experimenter", "4/6", with_match("ffff0408 004b454c 00000003")},
      {"ipv4_dst without eth_type", "4/9", with_match("80001804 0a000001")},
      {"ipv4_dst with eth_type of IPv6", "4/9", with_match("80000a0286dd 80001804 0a000001")},
      {"tcp_dst without ip_proto", "4/9", with_match("80000a020800 80001c02 0050")},
      {"tcp_dst with ip_proto of UDP", "4/9", with_match("80000a020800 8000140111 80001c02 0050")},
      {"icmpv4_type with IPv6", "4/9", with_match("80000a0286dd 8000140101 8000260108")},
      {"icmpv6_type with ICMP of IPv4", "4/9", with_match("80000a0286dd 8000140101 80003a0187")},
      {"vlan_pcp without vlan_vid", "4/9", with_match("80000e0101")},
      {"ip_dscp without eth_type", "4/9", with_match("8000100101")},
      {"a field twice", "4/10", with_match("80000004 00000001 80000004 00000002")},
      {"a field twice, once with a mask of nothing", "4/10",
       with_match("80000a020800 80001908 00000000 00000000 80001804 0a000001")},
      {"a value bit where the mask is 0", "4/5", with_match("80000a020800 80001908 0a000001 ffffff00")},
      {"a mask on in_port", "4/8", with_match("80000108 00000001 ffffffff")},
      {"a mask on tcp_dst", "4/8", with_match("80000a020800 8000140106 80001d04 0050 fff0")},
      {"in_port 0", "4/7", with_match("80000004 00000000")},
      {"in_port CONTROLLER", "4/7", with_match("80000004 fffffffd")},
      {"vlan_vid none", "4/7", with_match("80000c02 0000")},
      {"vlan_vid present only", "4/7", with_match("80000d04 1000 1000")},
      {"vlan_vid without OFPVID_PRESENT", "4/7", with_match("80000c02 0064")},
      {"vlan_vid with a mask without OFPVID_PRESENT", "4/7", with_match("80000d04 0064 0fff")},
      {"vlan_vid 4095", "4/7", with_match("80000c02 1fff")},
      {"vlan_vid above its bits", "4/7", with_match("80000c02 3064")},
      {"vlan_pcp 8", "4/7", with_match("80000c021064 80000e0108")},
      {"ip_dscp 64", "4/7", with_match("80000a020800 8000100140")},
      {"ipv6_exthdr above its bits", "4/7", with_match("80000a0286dd 80004e02 0200")},
      {"another application type in table 1", "4/7",
       with([](FlowMod &f) { f.table = 1, f.fields = hex("ffff0208 004b454c 00000005"); })},
      {"in_port with 2 bytes", "4/1", with_match("80000002 0001")},
      {"a masked field with the length of an unmasked one", "4/1", with_match("80000a020800 80001904 0a000001")},
      {"a field longer than the match", "4/1", with_match("80000004 0000")},
      {"a match that ends within a header", "4/1", with_match("80000004 00000001 8000")},
      {"our experimenter's field with a wrong length", "4/1", with_match("ffff0206 004b454c 0003")},

      {"table 2", "5/2", with([](FlowMod &f) { f.table = 2; })},
      {"all tables in an add", "5/2", with([](FlowMod &f) { f.table = 255; })},
      {"all tables in a modify", "5/2", with([](FlowMod &f) { f.table = 255, f.command = 1; })},
      {"command 5", "5/6", with([](FlowMod &f) { f.command = 5; })},
      {"flag 32", "5/7", with([](FlowMod &f) { f.flags = 32; })},
      {"a buffered packet", "1/8", with([](FlowMod &f) { f.buffer = 1; })},

      {"GOTO_TABLE", "3/2", with_instructions("0001 0008 01 000000")},
      {"WRITE_METADATA", "3/3", with_instructions("0002 0018 00000000 0000000000000001 ffffffffffffffff")},
      {"instruction type 0", "3/0", with_instructions("0000 0008 00000000")},
      {"instruction type 7", "3/0", with_instructions("0007 0008 00000000")},
      {"APPLY_ACTIONS twice", "3/1", with_instructions("0004 0008 00000000 0004 0008 00000000")},
      {"an experimenter's instruction", "3/5", with_instructions("ffff 0008 00002320")},
      {"an instruction longer than the message", "3/7", with_instructions("0004 0010 00000000")},
      {"an instruction of length 0", "3/7", with_instructions("0004 0000 00000000")},
      {"an instruction of length 4", "3/7", with_instructions("0004 0004 00000000")},
      {"CLEAR_ACTIONS with something in it", "3/7", with_instructions("0005 0010 00000000 0000000000000000")},
      {"meter 0", "12/2", with_instructions("0006 0008 00000000")},

      {"output to port 0", "2/4", with_actions("0000 0010 00000000 0000 000000000000")},
      {"output to a port that is not there", "2/4", with_actions("0000 0010 00000003 0000 000000000000")},
      {"output to MAX", "2/4", with_actions("0000 0010 ffffff00 0000 000000000000")},
      {"output to TABLE", "2/4", with_actions("0000 0010 fffffff9 0000 000000000000")},
      {"output to FLOOD", "2/4", with_actions("0000 0010 fffffffb 0000 000000000000")},
      {"output to LOCAL", "2/4", with_actions("0000 0010 fffffffe 0000 000000000000")},
      {"output to ANY", "2/4", with_actions("0000 0010 ffffffff 0000 000000000000")},
      {"two outputs", "2/7", with_actions("0000 0010 00000001 0000 000000000000 0000 0010 00000002 0000 000000000000")},
      {"set-field after the output", "2/11",
       with_actions("0000 0010 00000001 0000 000000000000 0019 0010 80000606 010203040506 0000")},
      {"set_queue after the output", "2/11", with_actions("0000 0010 00000001 0000 000000000000 0015 0008 00000001")},
      {"push_vlan", "2/0", with_actions("0011 0008 8100 0000")},
      {"pop_vlan", "2/0", with_actions("0012 0008 00000000")},
      {"dec_nw_ttl", "2/0", with_actions("0018 0008 00000000")},
      {"an action type that does not exist", "2/0", with_actions("0063 0008 00000000")},
      {"a group", "2/9", with_actions("0016 0008 00000001")},
      {"an experimenter's action", "2/2", with_actions("ffff 0008 00002320")},
      {"queue 0", "2/8", with_actions("0015 0008 00000000")},
      {"queue 9", "2/8", with_actions("0015 0008 00000009")},
      {"an output of length 8", "2/1", with_actions("0000 0008 00000001")},
      {"an action of length 0", "2/1", with_actions("0000 0000 00000001")},
      {"an action longer than the list", "2/1", with_actions("0000 0018 00000001 0000 000000000000")},
      {"set ipv4_dst", "2/13", with_actions("0019 0010 80001804 0a000001 00000000")},
      {"set in_port", "2/13", with_actions("0019 0010 80000004 00000001 00000000")},
      {"set eth_dst with a mask", "2/13", with_actions("0019 0018 8000070c 010203040506 ffffffffffff 00000000")},
      {"set vlan_vid with 4 bytes", "2/14", with_actions("0019 0010 80000c04 00001005 00000000")},
      {"set eth_dst in too short an action", "2/14", with_actions("0019 0008 80000606")},
      {"set vlan_vid 4095", "2/15", with_actions("0019 0010 80000c02 1fff 000000000000")},
      {"set vlan_vid without OFPVID_PRESENT", "2/15", with_actions("0019 0010 80000c02 0005 000000000000")},
      {"set vlan_pcp 8", "2/15", with_actions("0019 0010 80000e01 08 00000000000000")},
      {"set ip_dscp 64", "2/15", with_actions("0019 0010 80001001 40 00000000000000")},
      {"set vlan_pcp where packets may be untagged", "2/10",
       with_actions("0019 0010 80000e01 01 00000000000000", "80000a020800")},
      {"set vlan_vid where packets may be untagged", "2/10",
       with_actions("0019 0010 80000c02 1005 000000000000", "80000a020800")},
      {"set ip_dscp where packets may be no IP", "2/10", with_actions("0019 0010 80001001 01 00000000000000", "80000c021064")},
  };
  return cases;
}

class Refused : public testing::TestWithParam<RefusedCase> {};

TEST_P(Refused, WithTheExactError) {
  const Decoded d = decode(flow_mod(GetParam().mod));
  EXPECT_EQ(error_text(d.verdict), GetParam().error);
  EXPECT_STRNE(d.verdict.why, "") << "the operator is told why";
}

INSTANTIATE_TEST_SUITE_P(Codec, Refused, testing::ValuesIn(refused_cases()));

TEST(FlowMod, OfAnotherMatchTypeIsRefused) {
  Message request = flow_mod(ipv4_flow(1));
  request[49] = std::byte{0};
  EXPECT_EQ(error_text(decode(request).verdict), "4/0");
}

TEST(FlowMod, WithMoreActionsThanFitIsRefused) {
  FlowMod f;
  Message actions;
  for (int i = 0; i < 200; ++i) actions = actions + hex("0019 0010 80000606 010203040506 0000");
  f.instructions = apply(actions);
  EXPECT_EQ(error_text(decode(flow_mod(f)).verdict), "2/7");
}

// Deletes take what adds do not: all tables, a buffer id, instructions that nobody reads.
TEST(FlowMod, DeleteLooksAtTheMatchOnly) {
  FlowMod f = ipv4_flow(0x0a000001);
  f.command = 3, f.table = 255, f.buffer = 0;
  f.instructions = hex("0001 0008 01000000");
  const Decoded d = decode(flow_mod(f));
  ASSERT_EQ(error_text(d.verdict), "accepted");
  EXPECT_EQ(to_hex(d.mod.southbound().subspan(44, 24)), to_hex(hex("04000080 01000000 020a0080 00080000 04180080 0100000a")));
}

// Every length that a valid flow-mod can be cut to is refused or accepted, never read beyond: the copy is as long as the cut.
TEST(FlowMod, CutAnywhereIsNeverReadBeyondItsEnd) {
  FlowMod f;
  f.fields = hex("80000004 00000001 80000a020800 8000140106 80001908 0a000000 ff000000 80001c02 0050");
  f.instructions = hex("0006 0008 00000001") + apply(hex("0019 0010 80000606 010203040506 0000 0015 0008 00000001") + output(2));
  const Message whole = flow_mod(f);
  ASSERT_EQ(error_text(decode(whole).verdict), "accepted");
  const std::size_t without_instructions = 48 + match(f.fields).size();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const std::vector<std::byte> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    const bool still_a_message = length == without_instructions || length == without_instructions + 8;
    EXPECT_EQ(decode(cut).verdict.refused(), !still_a_message) << "cut to " << length;
  }
}

// ---- comparing matches

struct PairCase {
  const char *label;
  const char *general, *specific;
  bool covers, overlaps;
};
const PairCase kPairs[] = {
    {"everything covers a flow", "", "80000004 00000001", true, true},
    {"a flow does not cover everything", "80000004 00000001", "", false, true},
    {"a flow covers itself", "80000004 00000001", "80000004 00000001", true, true},
    {"different ports", "80000004 00000001", "80000004 00000002", false, false},
    {"a network covers an address in it", "80000a020800 80001908 0a000000 ff000000", "80000a020800 80001804 0a010203", true,
     true},
    {"a network does not cover an address outside", "80000a020800 80001908 0a000000 ff000000", "80000a020800 80001804 0b010203",
     false, false},
    {"an address does not cover its network", "80000a020800 80001804 0a010203", "80000a020800 80001908 0a000000 ff000000", false,
     true},
    {"networks side by side", "80000a020800 80001908 0a000000 ffff0000", "80000a020800 80001908 0a010000 ffff0000", false, false},
    {"different fields", "80000004 00000001", "80000606 010203040506", false, true},
    {"a field less", "80000004 00000001", "80000004 00000001 80000a020800", true, true},
    {"IPv4 and IPv6", "80000a020800", "80000a0286dd", false, false},
};

TEST(Match, CoversAndOverlapsFieldByField) {
  for (const PairCase &c : kPairs) {
    const Decoded a = decode(flow_mod(with_match(c.general))), b = decode(flow_mod(with_match(c.specific)));
    const auto general = host::of_ss::southbound_match(a.mod.southbound()),
               specific = host::of_ss::southbound_match(b.mod.southbound());
    EXPECT_EQ(host::of_ss::match_covers(general, specific), c.covers) << c.label;
    EXPECT_EQ(host::of_ss::matches_overlap(general, specific), c.overlaps) << c.label;
    EXPECT_EQ(host::of_ss::matches_overlap(specific, general), c.overlaps) << c.label;
  }
}

TEST(Match, ReadsWellAsText) {
  const auto text = [](const char *fields) {
    const Decoded d = decode(flow_mod(with_match(fields)));
    return host::of_ss::match_text(host::of_ss::southbound_match(d.mod.southbound()));
  };
  EXPECT_EQ(text(""), "");
  EXPECT_EQ(text("80000004 00000001 80000a020800 80001908 0a000000 ff000000"), "in_port=1,eth_type=0x0800,ipv4_dst=10.0.0.0/8");
  EXPECT_EQ(text("80000a020800 80001908 0a000001 ff0000ff"), "eth_type=0x0800,ipv4_dst=10.0.0.1/255.0.0.255");
  EXPECT_EQ(text("8000070c 010203000000 ffffff000000 80000d04 1060 1ff0"),
            "eth_dst=01:02:03:00:00:00/ff:ff:ff:00:00:00,vlan_vid=96/0xff0");
  EXPECT_EQ(text("80000a0286dd 80003410 20010db8000000000000000000000001 ffff0208 004b454c 00000003"),
            "eth_type=0x86dd,ipv6_src=2001:db8::1,app_type=3");
}

}  // namespace
