// A flow record and a meter-mod as the daemon leaves them, with a packet; and what the first is read as.
#include "programmer/entry.h"
#include "s_policy_kelim.pb-c.h"
#include "support/flow_bytes.h"
#include "support/regression.h"

namespace {

using namespace flow_bytes;

constexpr std::uint64_t rules(auto... numbers) {
  return ((std::uint64_t{1} << numbers) | ...);
}

// Priority 100, table 1, meter 9; what the entry says is the caller's.
Bytes packed(SPolicyKelim__FlowAceField &match, SPolicyKelim__FlowAceAction &actions, std::uint64_t flow_actions,
             std::uint64_t sn) {
  Bytes mod = flow_mod({.index = 7, .match = {}, .actions = {}});
  put16(mod, 24, 100);
  mod[29] = std::byte{1}, mod[32] = std::byte{9};
  SPolicyKelim__FlowAction wanted = S_POLICY_KELIM__FLOW_ACTION__INIT;
  wanted.flow_action_bitmap = flow_actions;
  SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT, *list = &ace;
  ace.sn = sn;
  ace.ace_field = &match;
  ace.ace_action = &actions;
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.flow_data = {mod.size(), reinterpret_cast<std::uint8_t *>(mod.data())};
  flow.flow_action = &wanted;
  flow.ace = &list;
  flow.n_ace = 1;
  Bytes out(s_policy_kelim__flow__get_packed_size(&flow));
  s_policy_kelim__flow__pack(&flow, reinterpret_cast<std::uint8_t *>(out.data()));
  return out;
}

constexpr std::uint64_t kOrdinary = ~std::uint64_t{0};

// VLAN 7 of 12 bits, 10.1.0.0/16 and a MAC address; to the input port, with the priority bit that always comes with that.
Bytes record(std::uint64_t flow_actions = 0, std::uint64_t sn = kOrdinary) {
  std::uint8_t address[] = {2, 0, 0, 0, 0, 5}, exact[] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  PLibpub__Mac mac = P_LIBPUB__MAC__INIT, mac_mask = P_LIBPUB__MAC__INIT;
  mac.data = {6, address}, mac_mask.data = {6, exact};
  PLibpub__Ipv4 ip = P_LIBPUB__IPV4__INIT, ip_mask = P_LIBPUB__IPV4__INIT;
  ip.data = 0x0a010203, ip_mask.data = 0xffff0000;
  SPolicyKelim__FlowAceField match = S_POLICY_KELIM__FLOW_ACE_FIELD__INIT;
  match.rule_bitmap = rules(S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_MAC_DST, S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_VID,
                            S_POLICY_KELIM__FLOW_ACE_RULE_E__SS_FP_RULE_IPV4_DST);
  match.in_port_ifx = 3;
  match.vid = 7, match.vid_mask = 0xffff;
  match.dst_mac = &mac, match.dst_mac_mask = &mac_mask;
  match.dst_ipv4 = &ip, match.dst_ipv4_mask = &ip_mask;
  SPolicyKelim__FlowAceAction actions = S_POLICY_KELIM__FLOW_ACE_ACTION__INIT;
  actions.action_bitmap =
      rules(S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_REDIRECT, S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_CTRL,
            S_POLICY_KELIM__FLOW_ACE_ACTION_E__SS_FP_ACTION_COS);
  actions.redirect_ifx = 0xfffffff8;
  actions.mod_cos = 5;
  return packed(match, actions, flow_actions, sn);
}

programmer::FlowProgram read(const Bytes &bytes) {
  programmer::FlowProgram program;
  EXPECT_EQ(programmer::read_program({reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size()}, program), nullptr);
  return program;
}

TEST(Entry, IsWhatTheRecordSays) {
  const programmer::FlowProgram program = read(record());
  EXPECT_EQ(program.rank, (100U << 1 | 1) + 1);
  EXPECT_EQ(program.meter, 9U);
  ASSERT_EQ(program.entries.size(), 1U);
  programmer::Fields value, mask;
  value.in_port = 3, mask.in_port = 0xffffffff;
  value.tagged = mask.tagged = true;
  value.vlan_id = 7, mask.vlan_id = 0xfff;
  value.eth_dst = {2, 0, 0, 0, 0, 5}, mask.eth_dst = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  value.ipv4_dst = {10, 1, 0, 0}, mask.ipv4_dst = {0xff, 0xff, 0, 0};
  EXPECT_EQ(program.entries[0].value, value);
  EXPECT_EQ(program.entries[0].mask, mask);
  EXPECT_EQ(program.entries[0].actions.output, 0xfffffff8U);
  EXPECT_EQ(program.entries[0].actions.sets, 0) << "nobody has asked for a priority";
  const auto asked = rules(S_POLICY_KELIM__FLOW_ACTION_E__SET_VLAN_PCP);
  for (const Bytes &bytes : {record(asked), record(0, 1)})  // of the service chain the entry alone tells
    EXPECT_EQ(read(bytes).entries[0].actions.sets, programmer::EntryActions::kVlanPcp);
}

TEST(PlaneFuzz, FixedInputs) {
  const auto counted = [](const Bytes &bytes) { return le(static_cast<std::uint16_t>(bytes.size())) + bytes; };
  const Bytes meter = hex("1100 0400 2000 0000 0000 0500 01000000 0100 1000 64000000 10000000 00000000");
  const Bytes frame =
      hex("020000000005 020000000001 8100 0007 0800 4500001c 00000000 40110000 0a000001 0a010203 03e80035 00080000");
  run_around(counted(record()) + counted(meter) + frame);
  run(counted({}) + counted(meter + Bytes(16 * 9)) + frame);
}

}  // namespace
