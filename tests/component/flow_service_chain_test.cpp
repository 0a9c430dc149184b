// Service-chain flows: to the application, back as access-control entries, to the programming service, and its status to the
// application.
#include "component/flow_world.h"

namespace {

using namespace flow_world;

// The application's answer. Each entry matches a destination MAC and an IPv6 source and rewrites the source MAC.
class Answer {
 public:
  explicit Answer(std::uint64_t flow_index, std::size_t entries) : entries_(entries) {
    key_.t_flow_type = 3;
    key_.flow_index = flow_index;
    record_.index = &key_;
    for (std::size_t i = 0; i < entries; i++) pointers_.push_back(entries_[i].link(static_cast<std::uint8_t>(i + 1)));
    record_.n_ace = entries;
    record_.ace = pointers_.data();
  }
  const ProtobufCMessage *record() const { return &record_.base; }

  struct Entry {
    std::uint8_t mac[6], mac_mask[6], ipv6[16], ipv6_mask[16], new_mac[6], new_mac_mask[6];
    PLibpub__Mac dst = P_LIBPUB__MAC__INIT, dst_mask = P_LIBPUB__MAC__INIT, src = P_LIBPUB__MAC__INIT,
                 src_mask = P_LIBPUB__MAC__INIT;
    PLibpub__Ipv6 from = P_LIBPUB__IPV6__INIT, from_mask = P_LIBPUB__IPV6__INIT;
    SPolicyKelim__FlowAceField field = S_POLICY_KELIM__FLOW_ACE_FIELD__INIT;
    SPolicyKelim__FlowAceAction action = S_POLICY_KELIM__FLOW_ACE_ACTION__INIT;
    SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT;
    char app_type[4] = "acl";

    // Bytes all of the entry's number, masks of its number plus 0xf0.
    SPolicyKelim__FlowAce *link(std::uint8_t number) {
      for (auto *bytes : {mac, new_mac}) std::memset(bytes, number, 6);
      for (auto *bytes : {mac_mask, new_mac_mask}) std::memset(bytes, number + 0xf0, 6);
      std::memset(ipv6, number, 16);
      std::memset(ipv6_mask, number + 0xf0, 16);
      dst.data = {6, mac}, dst_mask.data = {6, mac_mask}, src.data = {6, new_mac}, src_mask.data = {6, new_mac_mask};
      from.data = {16, ipv6}, from_mask.data = {16, ipv6_mask};
      field.rule_bitmap = 0xa001;  // MAC destination, IPv6 source, routed unicast
      field.in_port_ifx = number;
      field.dst_mac = &dst, field.dst_mac_mask = &dst_mask, field.ipv6_src = &from, field.ipv6_src_mask = &from_mask;
      field.l3_uc = 1;
      action.action_bitmap = 0x2010;  // redirect, source MAC
      action.redirect_ifx = 0x100u + number;
      action.mod_src_mac = &src, action.mod_src_mac_mask = &src_mask;
      ace.sn = 1000u + number;
      ace.acl_app_type = app_type;
      ace.ace_field = &field, ace.ace_action = &action;
      return &ace;
    }
  };
  Entry &entry(std::size_t i) { return entries_.at(i); }

 private:
  std::vector<Entry> entries_;
  std::vector<SPolicyKelim__FlowAce *> pointers_;
  SPolicyKelim__ParseFlowKey key_ = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  SPolicyKelim__FlowToAce record_ = S_POLICY_KELIM__FLOW_TO_ACE__INIT;
};

class ServiceChain : public FlowWorld {
 protected:
  Texts parse_flows() const { return stored(kAppDb, s_policy_kelim__parse_flow__descriptor); }
  Texts statuses() const { return stored(kAppDb, s_policy_kelim__flow_to_ace_sta__descriptor); }
  Texts flows() const { return stored(kUdpDb, s_policy_kelim__flow__descriptor); }
  void add(std::uint64_t index) {
    flow(service_chain_flow(index));
    d.tick();
  }
  // The flow failed: one reply of the class, and nothing of it is left but what the application wrote itself.
  void expect_gone(std::uint64_t index) {
    EXPECT_EQ(replies(11), Texts{"0b00000018000000" + digits(le(index)) + "0200000000000000"});
    EXPECT_EQ(parse_flows(), Texts{});
    EXPECT_EQ(flows(), Texts{});
    EXPECT_EQ(flows_cached(), 0u);
    EXPECT_TRUE(queue_empty());
  }
};

TEST_F(ServiceChain, two_entries_with_different_addresses_reach_the_switch_and_their_status_the_application) {
  add(7);
  EXPECT_EQ(flows(), Texts{});
  EXPECT_EQ(parse_flows(),
            Texts{"index={t_flow_type=0x3 flow_index=0x7} field={flow_field_bitmap=0xb in_port_ifx=0x1 "
                  "dst_mac=020000000001 dst_mac_mask=ffffffffffff} action={flow_action_bitmap=0x1 output_ifx=0x2}"});

  ASSERT_EQ(d.write(kAppDb, Answer(7, 2).record()), 0);
  const std::string controllers =
      " flow_field={flow_field_bitmap=0xb in_port_ifx=0x1 exp_app_type=0x3 dst_mac=020000000001 dst_mac_mask=ffffffffffff} "
      "flow_action={flow_action_bitmap=0x1 output_ifx=0x2}";
  const std::string first =
      "{sn=0x3e9 acl_app_type='acl' ace_field={rule_bitmap=0xa001 in_port_ifx=0x1 dst_mac=010101010101 dst_mac_mask=f1f1f1f1f1f1 "
      "ipv6_src=01010101010101010101010101010101 ipv6_src_mask=f1f1f1f1f1f1f1f1f1f1f1f1f1f1f1f1 l3_uc=0x1} "
      "ace_action={action_bitmap=0x2010 mod_src_mac=010101010101 mod_src_mac_mask=f1f1f1f1f1f1 redirect_ifx=0x101}}";
  const std::string second =
      "{sn=0x3ea acl_app_type='acl' ace_field={rule_bitmap=0xa001 in_port_ifx=0x2 dst_mac=020202020202 dst_mac_mask=f2f2f2f2f2f2 "
      "ipv6_src=02020202020202020202020202020202 ipv6_src_mask=f2f2f2f2f2f2f2f2f2f2f2f2f2f2f2f2 l3_uc=0x1} "
      "ace_action={action_bitmap=0x2010 mod_src_mac=020202020202 mod_src_mac_mask=f2f2f2f2f2f2 redirect_ifx=0x102}}";
  EXPECT_EQ(flows(), Texts{"index={flow_index=0x7} status=0x1 flow_data=" + digits(service_chain_flow(7)) + controllers +
                           " ace=[" + first + second + "]"});
  d.on_loop([] {
    const flow_info_key key{7, 0, 0};
    const flow_info_node *node = ssc_kelim_find_flow_node(&key);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->dst_mac[0], 2) << "the cached flow is the controller's, not an entry's";
    EXPECT_EQ(node->rule_bitmap, 0x1u);
  });

  EXPECT_EQ(statuses(), Texts{});
  answer(7, 2);
  EXPECT_EQ(statuses(), Texts{"index={t_flow_type=0x3 flow_index=0x7} status=0x2"});
  EXPECT_TRUE(queue_empty());
  EXPECT_TRUE(d.replies().empty());

  // The controller deletes the flow; the application then withdraws its answer, and with it the flow record.
  flow(deletion(service_chain_flow(7)));
  d.tick();
  EXPECT_EQ(parse_flows(), Texts{});
  EXPECT_EQ(statuses(), Texts{});
  EXPECT_EQ(flows().size(), 1u);
  ASSERT_EQ(d.remove(kAppDb, Answer(7, 0).record()), 0);
  EXPECT_EQ(flows(), Texts{});
}

TEST_F(ServiceChain, an_answer_without_entries_still_makes_a_flow) {
  add(7);
  ASSERT_EQ(d.write(kAppDb, Answer(7, 0).record()), 0);
  EXPECT_EQ(flows(), Texts{"index={flow_index=0x7} status=0x1 flow_data=" + digits(service_chain_flow(7)) +
                           " flow_field={} flow_action={}"});
}

TEST_F(ServiceChain, ports_are_checked_when_the_answer_comes) {
  d.expect_error("get phyid by ifx failed, rv = -7(ifx = 99");
  d.expect_error("ssc_kelim_add_flow_to_ace: ssc kelim pick out in port phyid FAIL!");
  d.expect_error("ssc_sdn_del_flow_to_sta: ssc sdn del flow sta FAIL!");  // there was no status yet
  d.expect_error("send flow error msg to PI");
  flow(flow_mod({.index = 7, .match = field(0x80000004, le(99u)) + field(0xffff0204, le(3u)), .actions = output(2)}));
  d.tick();
  EXPECT_EQ(parse_flows().size(), 1u);
  ASSERT_EQ(d.write(kAppDb, Answer(7, 1).record()), 0);
  expect_gone(7);
}

TEST_F(ServiceChain, an_entry_may_leave_out_its_parts) {
  add(7);
  Answer bare(7, 1);
  bare.entry(0).ace.ace_field = nullptr;
  bare.entry(0).ace.ace_action = nullptr;
  bare.entry(0).app_type[0] = '\0';
  ASSERT_EQ(d.write(kAppDb, bare.record()), 0);
  EXPECT_NE(flows().at(0).find(" ace=[{sn=0x3e9 ace_field={} ace_action={}}]"), std::string::npos) << flows().at(0);
}

TEST_F(ServiceChain, an_answer_for_an_unknown_flow_writes_nothing) {
  d.expect_error("flow node add failed. index:8, vsd_id:0");
  d.expect_error("update msg node fail, Not find msg_node: SDN_ADD_FLOW_MSG, msg_id = 8");
  d.expect_error("flow node del failed.flow_index:8, vsd_id:0");
  ASSERT_EQ(d.write(kAppDb, Answer(8, 1).record()), 0);
  EXPECT_EQ(flows(), Texts{});
}

TEST_F(ServiceChain, an_entry_that_lacks_an_address_fails_the_flow) {
  d.expect_error("ssc_sdn_ace_field_convert fail: field is 13");
  d.expect_error("flow_entry malloc failed. flow_index = 7");
  d.expect_error("send flow error msg to PI, dune to op flow failed,flow_index = 7, ret_val = -2");
  d.expect_error("ssc sdn del flow sta FAIL! flow_index:7, vsd_id:0");  // there was no status yet
  add(7);
  Answer lacking(7, 2);
  lacking.entry(1).field.ipv6_src_mask = nullptr;
  ASSERT_EQ(d.write(kAppDb, lacking.record()), 0);
  expect_gone(7);
}

TEST_F(ServiceChain, a_flow_that_the_switch_refuses_is_reported_and_its_status_goes_with_it) {
  d.expect_error("flow index:7 install failed. status:3");
  d.expect_error("send flow error msg to PI, dune to op flow failed,flow_index = 7, ret_val = 2");
  add(7);
  ASSERT_EQ(d.write(kAppDb, Answer(7, 2).record()), 0);
  d.watch(kAppDb, kFlowToAceStaType);
  answer(7, 3);
  EXPECT_EQ(parse_flows(), Texts{});
  EXPECT_EQ(statuses(), Texts{});
  const auto seen = d.changes();
  ASSERT_EQ(seen.size(), 2u) << "the application has seen the status, then its deletion";
  EXPECT_EQ(record_text::text(seen[0].record.message.get()), "index={t_flow_type=0x3 flow_index=0x7} status=0x3");
  EXPECT_EQ(seen[1].cmd, 3u);
}

TEST_F(ServiceChain, the_application_database_refuses_the_flow) {
  d.expect_error("qx_mom_set FAIL! rv:-1");
  d.expect_error("ssc sdn add flow FAIL! flow_index:7, vsd_id:0");
  d.expect_error("ssc_sdn_add_flow_to_app FAIL!");
  d.expect_error("ret_val = -20");
  d.expect_error("ssc sdn del flow");
  host::fault::fail(host::fault::Point::mom_set, -1);
  add(7);
  expect_gone(7);
}

// The translation's allocations, one after the other; a flow of its own for each.
TEST_F(ServiceChain, out_of_memory_at_any_point_of_the_translation) {
  d.expect_error("");
  std::uint64_t index = 1;
  for (std::uint32_t nth = 1;; nth++, index++) {
    ASSERT_LT(nth, 100u);
    SCOPED_TRACE(nth);
    add(index);
    d.forget_replies();
    fail_allocation(nth);
    ASSERT_EQ(d.write(kAppDb, Answer(index, 2).record()), 0);
    fail_allocation(0);
    if (!flows().empty()) break;
    expect_gone(index);
  }
  // Two arrays; a name and three address pairs an entry; one pair of the controller's match.
  EXPECT_EQ(index, 2u + 2 * (1 + 3 * 2) + 2 + 1);
}

}  // namespace
