// What a flow-mod says, as the programming service reads it: every match field, every action, and bytes that cannot be trusted.
#include "app/flow_world.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"

namespace {

using namespace flow_world;

const Bytes kInPort = field(0x80000004, le(1u));
const Bytes kEtype = field(0x80000a02, le(std::uint16_t{0x0800}));

const std::string kNoPort = "do not support port type";

class FlowRecords : public FlowWorld {
 protected:
  // Takes in, as flows 1, 2, 3, ..., what `make` makes of each case, and lets `look` see each case with its record. The ERROR
  // lines of both parsers are those of the cases, in order.
  template <typename Cases, typename Make, typename Look>
  void store(const Cases &cases, Make make, Look look) {
    d.expect_error("");
    Texts expected, errors;
    for (std::uint64_t i = 0; i < std::size(cases); ++i) {
      Bytes message = make(cases[i]);
      put16(message, 8, i + 1);
      flow(message);
      if (!cases[i].error.empty()) expected.push_back(cases[i].error);
    }
    d.tick();
    const auto records = d.stored(kUdpDb, &s_policy_kelim__flow__descriptor);
    EXPECT_EQ(records.size(), std::size(cases));
    for (const auto &record : records) look(cases[index_of(record) - 1], *record.as<SPolicyKelim__Flow>());
    for (const std::string &line : d.errors())
      if (line.starts_with("ssc_kelim_parse_flow_") || line.starts_with("ssc_sdn_set_ace_one_action"))
        errors.push_back(line.substr(line.find(": ") + 2));
    EXPECT_EQ(errors, expected);
  }
  static std::string bitmap(const char *name, std::uint64_t bits) { return bits ? name + ("=" + hex(bits)) : ""; }
};

// A match field, with a mask or without; `members` stands in the controller's match and in the entry's rule alike unless
// `rule_members` is given.
struct MatchField {
  std::uint32_t header;
  const char *payload;
  std::uint64_t field_bits, rule_bits;
  std::string members;
  const char *rule_members = nullptr;
  std::string error = "";
};
const MatchField kMatchFields[] = {
    {0x8000070c, "020304050607 ffff00000000", 0x8, 0x1, " dst_mac=020304050607 dst_mac_mask=ffff00000000"},
    {0x80000806, "0a0b0c0d0e0f", 0x10, 0x2, " src_mac=0a0b0c0d0e0f src_mac_mask=ffffffffffff"},
    {0x80000a02, "dd86", 0x20, 0x4, " etype=0x86dd etype_mask=0xffff"},
    {0x80000d04, "6400 ff0f", 0x40, 0x8, " vid=0x64 vid_mask=0xfff"},
    {0x80000e01, "05", 0x80, 0x10, " cos=0x5 cos_mask=0xff"},
    {0x80001001, "2e", 0x100, 0x20, " ipv4_dscp=0x2e ipv4_dscp_mask=0xff"},
    {0x80001201, "02", 0, 0, ""},  // ip_ecn is walked over
    {0x80001401, "06", 0x200, 0x40, " protocol=0x6 protocol_mask=0xff"},
    {0x80001708, "ff00000a 00ffffff", 0x400, 0x80, " src_ipv4=0xa0000ff src_ipv4_mask=0xffffff00"},  // mask not applied
    {0x80001804, "0200000b", 0x800, 0x100, " dst_ipv4=0xb000002 dst_ipv4_mask=0xffffffff"},
    {0x80001a02, "e803", 0x1000, 0x200, " sport=0x3e8 sport_mask=0xffff"},
    {0x80001c02, "5000", 0xc000, 0x400, " dport=0x50 dport_mask=0xffff"},  // tcp_dst sets both destination bits
    {0x80001e02, "3500", 0x2000, 0x200, " sport=0x35 sport_mask=0xffff"},
    {0x80002002, "4300", 0x8000, 0x400, " dport=0x43 dport_mask=0xffff"},
    {0x80002601, "08", 0x10000, 0x800, " icmp_type=0x8 icmp_type_mask=0xff"},
    {0x80002801, "03", 0x20000, 0x1000, " icmp_code=0x3 icmp_code_mask=0xff"},
    {0x80003520, "20010db8000000000000000000000001 ffffffff000000000000000000000000", 0x40000, 0x2000,
     " ipv6_src=20010db8000000000000000000000001 ipv6_src_mask=ffffffff000000000000000000000000"},
    {0x80003610, "fe800000000000000000000000000002", 0x80000, 0x4000,
     " ipv6_dst=fe800000000000000000000000000002 ipv6_dst_mask=ffffffffffffffffffffffffffffffff"},
    {0x80003a01, "80", 0x10000, 0x800, " icmp_type=0x80 icmp_type_mask=0xff"},
    {0x80003c01, "01", 0x20000, 0x1000, " icmp_code=0x1 icmp_code_mask=0xff"},
    {0x80004c08, "0900000000000000", 0, 0, ""},  // tunnel_id
    {0x80004f04, "1100 ff01", 0x100000, 0x40000, "", " next_header=0x11 next_header_mask=0x1ff"},
    {0xffff0204, "05000000", 0x2, 0, " exp_app_type=0x5", ""},
};

// Each is followed by an in_port, which is found only behind a slot of the right size.
TEST_F(FlowRecords, MatchFields) {
  EXPECT_EQ(ssc_sdn_get_key_field_len(0x80000204), 65535u) << "a field that nobody knows";
  store(
      kMatchFields,
      [](const MatchField &f) { return flow_mod({.match = field(f.header, hex(f.payload)) + kInPort, .actions = {}}); },
      [](const MatchField &f, const SPolicyKelim__Flow &record) {
        SCOPED_TRACE(hex(f.header));
        EXPECT_EQ(ssc_sdn_get_key_field_len(f.header), field(f.header, hex(f.payload)).size());
        EXPECT_EQ(text(&record.flow_field->base), bitmap("flow_field_bitmap", f.field_bits | 1) + " in_port_ifx=0x1" + f.members);
        EXPECT_EQ(text(&record.ace[0]->ace_field->base), (f.rule_bits ? "rule_bitmap=" + hex(f.rule_bits) + " " : "") +
                                                             "in_port_ifx=0x1" + (f.rule_members ? f.rule_members : f.members));
      });
}

// `members` stands in the controller's actions and in the entry's alike unless `entry_members` is given. A port that cannot be
// output to keeps its flow, which then forwards nowhere.
TEST_F(FlowRecords, Actions) {
  const struct {
    const char *label;
    Bytes actions;
    std::uint64_t flow_bits, entry_bits;
    std::string members = "", entry_members = members, error = "";
  } cases[] = {
      {"none", {}, 0, 0},
      {"set eth_dst", set_field(0x80000606, hex("020304050607")), 0x4, 0x1000,
       " mod_dst_mac=020304050607 mod_dst_mac_mask=ffffffffffff"},
      {"set eth_src", set_field(0x80000806, hex("0a0b0c0d0e0f")), 0x8, 0x2000,
       " mod_src_mac=0a0b0c0d0e0f mod_src_mac_mask=ffffffffffff"},
      {"set vlan_vid", set_field(0x80000c02, hex("c800")), 0x10, 0x100, " mod_vid=0xc8"},
      {"set vlan_pcp", set_field(0x80000e01, hex("06")), 0x20, 0x200, " mod_cos=0x6"},
      {"set ip_dscp", set_field(0x80001001, hex("0a")), 0x40, 0x400, " mod_ipv4_dscp=0xa"},
      {"others are passed over", set_field(0x80001604, le(1u)) + action(17, le(0x8100u)) + set_queue(1), 0x2, 0x800,
       " mod_queue_pri=0x1", " mod_prio_in=0x1"},
      {"queue 8", set_queue(8), 0x2, 0x800, " mod_queue_pri=0x8", " mod_prio_in=0x8"},
      {"queue 0", set_queue(0), 0x2, 0x800, "", "", "queue_id: 0 from SFC UI is ERROR"},
      {"queue 9", set_queue(9), 0x2, 0x800, " mod_queue_pri=0x9", " mod_prio_in=0x9", "queue_id: 9 from SFC UI is ERROR"},
      {"port 2", output(2), 0x1, 0x11, " output_ifx=0x2", " fwd=0x1 redirect_ifx=0x2"},
      {"above MAX", output(0xffffff01), 0x1, 0x11, " output_ifx=0xffffff01", " fwd=0x1 redirect_ifx=0xffffff01"},
      {"NORMAL", output(0xfffffffa), 0x1, 0x11, " output_ifx=0xfffffffa", " fwd=0x1 redirect_ifx=0xfffffffa"},
      {"IN_PORT", output(0xfffffff8), 0x1, 0x216, " output_ifx=0xfffffff8", " ctrl=0x1 redirect_ifx=0xfffffff8"},
      {"the controller and a priority", set_field(0x80000e01, hex("04")) + output(0xfffffffd), 0x21, 0x216,
       " output_ifx=0xfffffffd mod_cos=0x4", " mod_cos=0x4 ctrl=0x1 redirect_ifx=0xfffffffd"},
      {"MAX", output(0xffffff00), 0x1, 0x10, " output_ifx=0xffffff00", " redirect_ifx=0xffffff00", kNoPort + "(0xffffff00)."},
      {"LOCAL", output(0xfffffffe), 0x1, 0x10, " output_ifx=0xfffffffe", " redirect_ifx=0xfffffffe", kNoPort + "(0xfffffffe)."},
  };
  store(
      cases, [](const auto &c) { return flow_mod({.match = {}, .actions = c.actions}); },
      [](const auto &c, const SPolicyKelim__Flow &record) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(text(&record.flow_action->base), bitmap("flow_action_bitmap", c.flow_bits) + c.members);
        EXPECT_EQ(text(&record.ace[0]->ace_action->base), bitmap("action_bitmap", c.entry_bits) + c.entry_members);
      });
}

TEST_F(FlowRecords, AListEndsWhereItCannotBeFollowed) {
  const struct {
    const char *label;
    Bytes match;  // behind the ingress port
    std::uint64_t field_bits;
    Bytes actions;
    std::uint64_t action_bits;
    std::string error;
    std::int64_t listed = -1;  // what the message says of the action list's length
  } cases[] = {
      {"unknown field", field(0x80002c04, le(1u)) + kEtype, 0x1, {}, 0, "OXM_VALUE = 0x80002c04 isn't support"},
      {"of a wrong length", field(0x80000a04, le(1u)) + kEtype, 0x1, {}, 0, "OXM_VALUE = 0x80000a04 isn't support"},
      {"no slots add up", Bytes(4), 0x1, {}, 0, "OXM_VALUE = 0x0 isn't support"},
      {"beyond the match", le(0x80001604u), 0x1, {}, 0, "OXM_VALUE = 0x80001604 isn't support"},
      {"length 0", {}, 0x1, set_queue(3) + Bytes(8) + output(4), 0x2, "OXM_VALUE = 0x0 isn't support"},
      {"more than there is", {}, 0x1, set_queue(3), 0x2, "OXM_VALUE = 0x0 isn't support", 16},
      {"beyond the list", {}, 0x1, set_queue(3) + output(4), 0x2, "OXM_VALUE = 0x100000 isn't support", 16},
      {"short of its value", {}, 0x1, action(25, le(0x80000606u)) + output(4), 0, "OXM_VALUE = 0x80019 isn't support"},
      {"a negative length", {}, 0x1, output(2), 0, "", -8 + (std::int64_t{1} << 32)},
  };
  store(
      cases, [](const auto &c) { return flow_mod({.match = kInPort + c.match, .actions = c.actions, .actions_len = c.listed}); },
      [](const auto &c, const SPolicyKelim__Flow &record) {
        EXPECT_EQ(record.flow_field->flow_field_bitmap, c.field_bits) << c.label;
        EXPECT_EQ(record.flow_action->flow_action_bitmap, c.action_bits) << c.label;
      });
}

}  // namespace
