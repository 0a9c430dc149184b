// Ordinary flows: the record that each becomes, its result, and what is left when something fails on the way.
#include "app/flow_world.h"

namespace {

using namespace flow_world;

using OrdinaryFlows = FlowWorld;

TEST_F(OrdinaryFlows, ATypicalFlowBecomesThisRecord) {
  const Bytes message = typical_flow(0x11);
  flow(message);
  d.tick();
  EXPECT_EQ(flows(),
            Texts{"index={flow_index=0x11} flow_data=" + digits(message) +
                  " flow_field={flow_field_bitmap=0xc821 in_port_ifx=0x1 etype=0x800 etype_mask=0xffff dst_ipv4=0xa010200 "
                  "dst_ipv4_mask=0xffffff00 dport=0x50 dport_mask=0xffff} flow_action={flow_action_bitmap=0x1 output_ifx=0x2} "
                  "ace=[{sn=0xffffffffffffffff acl_app_type='sdn_app' ace_field={rule_bitmap=0x504 in_port_ifx=0x1 etype=0x800 "
                  "etype_mask=0xffff dst_ipv4=0xa010200 dst_ipv4_mask=0xffffff00 dport=0x50 dport_mask=0xffff} "
                  "ace_action={action_bitmap=0x11 fwd=0x1 redirect_ifx=0x2}}]"});
  EXPECT_GT(d.stored(kUdpDb, &s_policy_kelim__flow__descriptor).at(0).as<SPolicyKelim__Flow>()->req_uuid, 0u);

  answer(0x11, 2);
  EXPECT_TRUE(queue_empty());
  EXPECT_TRUE(d.replies().empty()) << "a flow that is installed is not reported";

  // Again with other contents: the message is stored, its description stays that of the first. Nothing behind a shorter one is
  // read or stored.
  const std::string description = flows().at(0).substr(flows().at(0).find(" flow_field="));
  Bytes other = message;
  put16(other, 48, 3);  // in_port
  for (const Bytes &again : {other, flow_mod({.index = 0x11, .match = field(0x80000004, le(1u)), .actions = output(2)})}) {
    handle(again);
    EXPECT_EQ(flows(), Texts{"index={flow_index=0x11} flow_data=" + digits(again) + description});
  }
}

TEST_F(OrdinaryFlows, DeletionIsSilentAndAnUnknownFlowCountsAsDeleted) {
  announce({"flow node del failed.flow_index:9, vsd_id:0", "ssc sdn del flow FAIL!"});
  for (std::uint64_t index : {1, 2}) handle(typical_flow(index));
  for (std::uint64_t index : {1, 9}) handle(deletion(typical_flow(index)));
  expect_counters({{3, 2}, {4, 2}, {5, 0}});
  host::fault::fail(host::fault::Point::mom_del, -1);
  handle(deletion(typical_flow(2)));
  EXPECT_EQ(flows_cached(), 0u);
  EXPECT_TRUE(queue_empty());
  EXPECT_TRUE(d.replies().empty());
  expect_counters({{4, 2}, {5, 1}});
}

// Ports 1 to 3 are ordinary, 45 is an overlay tunnel, 46 an overlay router; 99 is unknown.
TEST_F(OrdinaryFlows, PortsAndVlanAreCheckedBeforeAFlowIsStored) {
  announce({"get phyid by ifx failed, rv = -7(ifx = 99", "ifx_type is LLCB_OVERLAY_TUNNEL, NOT SUPPORT.",
            "ifx is OF_SS_ALL_OT_IFINDEX, NOT SUPPORT.", "OXM_VALUE = 0x80000a02 isn't support",
            "OXM_VALUE = 0x80000c02 isn't support", "ssc_sdn_add_flow_to_udp: ssc kelim pick out in port phyid FAIL!",
            "ssc sdn del flow FAIL!", "ssc kelim insert_msg_node FAIL!",
            "flow node field vlan id check failed. index:9, vsd_id:0, vlan id:4095", "send flow error msg to PI"});
  const auto match = [](std::uint32_t in_port) { return field(0x80000004, le(in_port)); };
  const auto vlan = [](std::uint16_t id) { return field(0x80000c02, le(id)); };
  const Bytes etype = field(0x80000a02, le(std::uint16_t{0x0800}));
  const struct {
    const char *label;
    Bytes match;
    bool stored;
  } cases[] = {
      {"unknown in port", match(99), false},
      {"tunnel", match(45), false},
      {"router", match(46), false},
      {"all other interfaces", match(0x10001), false},
      {"all or one interface", match(0x10002), true},
      {"in port behind another field", etype + match(99), false},
      {"no in port", etype, true},
      {"the last VLAN id", vlan(4094), true},
      {"one too many", vlan(4095), false},
  };
  std::uint64_t index = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.label);
    const std::size_t before = flows().size();
    d.forget_replies();
    handle(flow_mod({.index = ++index, .match = c.match, .actions = output(2)}));
    EXPECT_EQ(flows().size() - before, c.stored ? 1u : 0u);
    EXPECT_EQ(flows_cached(), flows().size());
    EXPECT_EQ(replies(11), c.stored ? Texts{} : Texts{failure(index)});
  }

  // The database's word on it is another class: out of resources.
  announce({"qx_mom_setow FAIL! ow:1, rv:-14", "ssc_sdn_add_flow_to_udp: ssc sdn add flow ow:1 FAIL!"});
  host::fault::fail(host::fault::Point::mom_setow, -14);
  d.forget_replies();
  handle(typical_flow(0x20));
  EXPECT_EQ(replies(11), Texts{failure(0x20, 1)});
  EXPECT_EQ(flows_cached(), flows().size());
}

// Fails the first, second, ... allocation of the handler until a flow goes through. Whatever failed, the flow is answered once,
// and neither a record nor a queue node is left. Three failures leave the cache node: that of its copy, and those of the queue's
// two blocks.
TEST_F(OrdinaryFlows, OutOfMemoryAtAnyPoint) {
  d.expect_error("");
  for (std::uint64_t index : {1, 2, 3}) handle(typical_flow(index));
  flow(typical_flow(4));
  fail_allocation(2);
  d.tick();
  EXPECT_EQ(flows().size(), 4u);
  EXPECT_EQ(flows_cached(), 3u) << "without memory for a larger index the flow goes on unindexed";
  handle(typical_flow(5));  // leaves room in the index for one more
  for (std::uint64_t index : {1, 2, 3, 4, 5}) answer(index, 2);

  // Node, copy and two queue blocks; then for an application two messages, six address pairs of the match and two of the actions,
  // and for the programming service the same again with a list and its entry.
  for (const auto &[app_type, allocations] : {std::pair{3u, 4u + 2 + 2 * 8}, std::pair{5u, 4u + 2 * (2 + 2 * 8) + 2}}) {
    SCOPED_TRACE(app_type);
    unsigned nodes_left = 0;
    for (std::uint32_t nth = 1; nth <= allocations + 1; ++nth) {
      SCOPED_TRACE(nth);
      const bool fails = nth <= allocations;
      d.forget_replies();
      flow(full_flow(7, 1, app_type));
      fail_allocation(nth);
      d.tick();
      fail_allocation(0);
      EXPECT_EQ(replies(11), fails ? Texts{failure(7)} : Texts{});
      EXPECT_EQ(flows().size() + parse_flows().size(), fails ? 5u : 6u);
      EXPECT_EQ(queue_empty(), fails);
      nodes_left += flows_cached() - 4;
      handle(deletion(full_flow(7, 1, app_type)));
    }
    EXPECT_EQ(nodes_left, 3u + 1);
  }
}

}  // namespace
