// Service-chain flows: to the application, back as access-control entries, to the programming service, and its status to the
// application.
#include "app/flow_world.h"

namespace {

using namespace flow_world;

// An access-control entry of an application: a match and actions of its own, empty to begin with.
struct Entry {
  SPolicyKelim__FlowAceField field = S_POLICY_KELIM__FLOW_ACE_FIELD__INIT;
  SPolicyKelim__FlowAceAction action = S_POLICY_KELIM__FLOW_ACE_ACTION__INIT;
  SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT;
  Entry() { ace.ace_field = &field, ace.ace_action = &action; }
};

class ServiceChain : public FlowWorld {
 protected:
  Texts statuses() const { return stored(kAppDb, s_policy_kelim__flow_to_ace_sta__descriptor); }
  // An entry that says all that a flow can, with addresses that end in `last`, two flags, and action
  // bits that say it all. It lives as long as its record.
  SPolicyKelim__FlowAce *full_entry(std::uint8_t last, harness::Record &record) {
    handle(full_flow(100, last));
    record = d.stored(kUdpDb, &s_policy_kelim__flow__descriptor).at(0);
    handle(deletion(full_flow(100, last)));
    SPolicyKelim__FlowAce *ace = record.as<SPolicyKelim__Flow>()->ace[0];
    ace->sn = 1000u + last;
    ace->acl_app_type[0] = 'S';
    ace->ace_field->in_port_ifx = last;
    ace->ace_field->rule_bitmap |= 0x18000;
    ace->ace_field->hit_state_l2_da = last & 1, ace->ace_field->l3_uc = last >> 1;
    ace->ace_action->action_bitmap |= 0x46;
    ace->ace_action->ctrl = last & 1, ace->ace_action->ttl_is_keep = last >> 1;
    return ace;
  }
  // Flow 7 failed: one reply of the class, and nothing of it is left but what the application wrote itself.
  void expect_gone() {
    EXPECT_EQ(replies(11), Texts{failure(7)});
    expect_nothing_left();
    d.forget_replies();
  }
};

TEST_F(ServiceChain, TwoEntriesWithDifferentAddressesReachTheSwitchAndTheirStatusTheApplication) {
  harness::Record one, two;
  SPolicyKelim__FlowAce *const first = full_entry(1, one), *const second = full_entry(2, two);
  const std::string entries = "[{" + text(&first->base) + "}{" + text(&second->base) + "}]";
  EXPECT_NE(entries.find(" mod_src_mac=020000000002 "), std::string::npos) << entries;

  handle(service_chain_flow(7));
  EXPECT_EQ(flows(), Texts{});
  const std::string request =
      "field={flow_field_bitmap=0xb in_port_ifx=0x1 dst_mac=020000000001 dst_mac_mask=ffffffffffff} "
      "action={flow_action_bitmap=0x1 output_ifx=0x2}";
  EXPECT_EQ(parse_flows(), Texts{"index={t_flow_type=0x3 flow_index=0x7} " + request});

  decide(7, {first, second});
  const Texts decided = flows();
  EXPECT_EQ(decided, Texts{"index={flow_index=0x7} status=0x1 flow_data=" + digits(service_chain_flow(7)) +
                           " flow_field={flow_field_bitmap=0xb in_port_ifx=0x1 exp_app_type=0x3 dst_mac=020000000001 "
                           "dst_mac_mask=ffffffffffff} flow_action={flow_action_bitmap=0x1 output_ifx=0x2} ace=" +
                           entries});
  answer(7, 2);
  EXPECT_EQ(statuses(), Texts{"index={t_flow_type=0x3 flow_index=0x7} status=0x2"});
  EXPECT_TRUE(queue_empty());
  EXPECT_TRUE(d.replies().empty());
  // The cached flow is the controller's, not an entry's: asked again, it asks the same.
  handle(service_chain_flow(7));
  EXPECT_EQ(parse_flows(), Texts{"index={t_flow_type=0x3 flow_index=0x7} " + request});

  // The controller deletes the flow; the application then withdraws its answer, and with it the flow record.
  handle(deletion(service_chain_flow(7)));
  EXPECT_EQ(statuses(), Texts{});
  EXPECT_EQ(flows(), decided);
  decide(7, {}, true);
  expect_nothing_left();
}

TEST_F(ServiceChain, AnAnswerMayLeaveOutEntriesAndTheirParts) {
  const std::string head = "index={flow_index=0x7} status=0x1 flow_data=" + digits(service_chain_flow(7));
  handle(service_chain_flow(7));
  decide(7, {});
  EXPECT_EQ(flows(), Texts{head + " flow_field={} flow_action={}"});
  Entry bare, beyond;
  bare.ace.ace_field = nullptr;
  bare.ace.ace_action = nullptr;
  beyond.field.rule_bitmap = std::uint64_t{1} << 19;  // bits that nobody knows
  decide(7, {&bare.ace, &beyond.ace});
  EXPECT_NE(flows().at(0).find(" ace=[{ace_field={} ace_action={}}{ace_field={rule_bitmap=0x80000} ace_action={}}]"),
            std::string::npos)
      << flows().at(0);
}

TEST_F(ServiceChain, AnEntryThatLacksAnAddressFailsTheFlow) {
  announce({"ssc_sdn_ace_field_convert fail: field is 14", "ssc_sdn_ace_field_convert fail: field is",
            "ssc_sdn_ace_action_convert fail: action is 12", "ssc_sdn_ace_action_convert fail: action is 13",
            "flow_entry malloc failed. flow_index = 7",
            "send flow error msg to PI, dune to op flow failed,flow_index = 7, ret_val = -2",
            "ssc sdn del flow sta FAIL! flow_index:7, vsd_id:0"});
  std::uint8_t bytes[5] = {};
  PLibpub__Mac cut = P_LIBPUB__MAC__INIT;
  cut.data = {sizeof bytes, bytes};
  // Bits of the match, then of the actions.
  for (const auto &[rules, actions] :
       {std::pair{1, 0}, {1 << 1, 0}, {1 << 7, 0}, {1 << 8, 0}, {1 << 13, 0}, {1 << 14, 0}, {0, 1 << 12}, {0, 1 << 13}}) {
    SCOPED_TRACE(hex(rules) + " " + hex(actions));
    Entry good, lacking;
    lacking.field.rule_bitmap = rules;
    lacking.field.dst_mac = lacking.field.dst_mac_mask = &cut;  // five bytes are no address
    lacking.action.action_bitmap = actions;
    handle(service_chain_flow(7));
    decide(7, {&good.ace, &lacking.ace});
    expect_gone();
  }
}

TEST_F(ServiceChain, AnAnswerIsCheckedForItsFlowAndPort) {
  Bytes unknown_in_port = service_chain_flow(7);
  put16(unknown_in_port, 48, 99);
  announce({"get phyid by ifx failed, rv = -7(ifx = 99", "ssc_kelim_add_flow_to_ace: ssc kelim pick out in port phyid FAIL!",
            "ssc_sdn_del_flow_to_sta: ssc sdn del flow sta FAIL!", "send flow error msg to PI"});
  handle(unknown_in_port);
  decide(7, {});
  expect_gone();

  announce({"flow node add failed. index:7, vsd_id:0", "update msg node fail, Not find msg_node: SDN_ADD_FLOW_MSG, msg_id = 7",
            "flow node del failed.flow_index:7, vsd_id:0"});
  decide(7, {});
  EXPECT_TRUE(d.replies().empty());
  expect_nothing_left();
}

TEST_F(ServiceChain, AFlowThatTheSwitchOrTheDatabaseRefusesIsReportedAndItsStatusGoesWithIt) {
  announce(
      {"flow index:7 install failed. status:3", "send flow error msg to PI, dune to op flow failed,flow_index = 7, ret_val = 2"});
  handle(service_chain_flow(7));
  decide(7, {});
  d.watch(kAppDb, FlowToAceSta::kType);
  answer(7, 3);
  const auto seen = d.changes();
  ASSERT_EQ(seen.size(), 2u) << "the application has seen the status, then its deletion";
  EXPECT_EQ(text(seen[0].record.message.get()), "index={t_flow_type=0x3 flow_index=0x7} status=0x3");
  EXPECT_EQ(seen[1].cmd, 3u);
  decide(7, {}, true);
  expect_gone();

  announce({"qx_mom_set FAIL! rv:-1", "ssc sdn add flow FAIL! flow_index:7, vsd_id:0", "ssc_sdn_add_flow_to_app FAIL!",
            "ret_val = -20", "ssc sdn del flow"});
  host::fault::fail(host::fault::Point::mom_set, -1);
  handle(service_chain_flow(7));
  expect_gone();
}

// The translation's allocations, one after the other; a flow of its own for each.
TEST_F(ServiceChain, OutOfMemoryAtAnyPointOfTheTranslation) {
  d.expect_error("");
  harness::Record record;
  SPolicyKelim__FlowAce *const entry = full_entry(1, record);
  // Two arrays; a name and eight address pairs an entry; one pair of the controller's match.
  const std::uint32_t allocations = 2 + 2 * (1 + 2 * 8) + 2;
  for (std::uint32_t nth = 1; nth <= allocations + 1; ++nth) {
    SCOPED_TRACE(nth);
    handle(service_chain_flow(7));
    fail_allocation(nth);
    decide(7, {entry, entry});
    fail_allocation(0);
    if (nth <= allocations) expect_gone();
  }
  EXPECT_EQ(flows().size(), 1u);
}

}  // namespace
