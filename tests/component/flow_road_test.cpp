// Ordinary flows: the record that each becomes, its result, and what is left when something fails on the way.
#include "component/flow_world.h"

namespace {

using namespace flow_world;

class FlowRoad : public FlowWorld {};

TEST_F(FlowRoad, a_typical_flow_becomes_this_record) {
  const Bytes message = typical_flow(0x11);
  flow(message);
  EXPECT_EQ(flows_stored(), 0u) << "nothing happens on the caller's thread";
  d.tick();
  EXPECT_EQ(stored(kUdpDb, s_policy_kelim__flow__descriptor),
            Texts{"index={flow_index=0x11} flow_data=" + digits(message) +
                  " flow_field={flow_field_bitmap=0xc821 in_port_ifx=0x1 etype=0x800 etype_mask=0xffff dst_ipv4=0xa010200 "
                  "dst_ipv4_mask=0xffffff00 dport=0x50 dport_mask=0xffff} flow_action={flow_action_bitmap=0x1 output_ifx=0x2} "
                  "ace=[{sn=0xffffffffffffffff acl_app_type='sdn_app' ace_field={rule_bitmap=0x504 in_port_ifx=0x1 etype=0x800 "
                  "etype_mask=0xffff dst_ipv4=0xa010200 dst_ipv4_mask=0xffffff00 dport=0x50 dport_mask=0xffff} "
                  "ace_action={action_bitmap=0x11 fwd=0x1 redirect_ifx=0x2}}]"});
  const auto records = d.stored(kUdpDb, &s_policy_kelim__flow__descriptor);
  EXPECT_GT(records.at(0).as<SPolicyKelim__Flow>()->req_uuid, 0u);

  answer(0x11, 1);
  EXPECT_FALSE(queue_empty()) << "still installing";
  answer(0x11, 2);
  EXPECT_TRUE(queue_empty());
  EXPECT_TRUE(d.replies().empty()) << "a flow that is installed is not reported";
  EXPECT_EQ(flows_cached(), 1u);
}

TEST_F(FlowRoad, a_flow_that_fails_after_it_was_accepted_leaves_nothing_but_its_reply) {
  d.expect_error("recev  openflow msg version= 4!");
  d.expect_error("install failed. status:");
  d.expect_error("send flow error msg to PI, dune to op flow failed");
  d.expect_error("flow node del failed.flow_index:2, vsd_id:0");
  send(d.pi().open, message(6, le(1u)));
  flow(typical_flow(2));
  flow(typical_flow(3));
  send(d.pi().barrier, barrier(0x77));
  d.tick();
  answer(2, 3);
  // Type 11, version 4, 24 bytes, table 1, flow index, 2: failed.
  EXPECT_EQ(replies(11), Texts{"0b00040018000100"
                               "0200000000000000"
                               "0200000000000000"});
  answer(3, 14);
  // A shortage that the programming service reports is a failure like any other here; only the status record tells it apart.
  EXPECT_EQ(replies(11).at(1),
            "0b000400180001000300000000000000"
            "0200000000000000");
  EXPECT_EQ(barriers_answered(), std::vector<std::uint32_t>{0x77});
  EXPECT_EQ(flows_stored(), 0u);
  EXPECT_EQ(flows_cached(), 0u);
  EXPECT_TRUE(queue_empty());
  flow(deletion(typical_flow(2)));
  d.tick();
  EXPECT_EQ(replies(11).size(), 2u) << "one reply a flow";
}

TEST_F(FlowRoad, vlan_ids_end_at_4094) {
  const auto vlan_flow = [](std::uint64_t index, std::uint16_t vid) {
    return flow_mod({.index = index, .match = field(0x80000004, le(1u)) + field(0x80000c02, le(vid)), .actions = output(2)});
  };
  d.expect_error("flow node field vlan id check failed. index:2, vsd_id:0, vlan id:4095");
  d.expect_error("send flow error msg to PI");
  flow(vlan_flow(1, 4094));
  flow(vlan_flow(2, 4095));
  d.tick();
  EXPECT_EQ(flows_stored(), 1u);
  EXPECT_TRUE(cached(1));
  EXPECT_FALSE(cached(2));
  EXPECT_EQ(replies(11), Texts{"0b00000018000000"
                               "0200000000000000"
                               "0200000000000000"});
}

TEST_F(FlowRoad, a_known_flow_is_stored_again_from_its_cached_description) {
  flow(typical_flow(1));
  d.tick();
  const Texts first = stored(kUdpDb, s_policy_kelim__flow__descriptor);
  Bytes other = typical_flow(1);
  other[48] = std::byte{3};  // in_port 3 instead of 1
  flow(other);
  d.tick();
  const std::string again = stored(kUdpDb, s_policy_kelim__flow__descriptor).at(0);
  EXPECT_EQ(flows_cached(), 1u);
  EXPECT_NE(again.find("flow_data=" + digits(other)), std::string::npos) << again;
  EXPECT_EQ(again.substr(again.find(" flow_field=")), first.at(0).substr(first.at(0).find(" flow_field=")));

  // A shorter message than the first: nothing behind it is read or stored.
  const Bytes shorter = flow_mod({.index = 1, .match = field(0x80000004, le(1u)), .actions = output(2)});
  ASSERT_LT(shorter.size(), other.size());
  flow(shorter);
  d.tick();
  const std::string last = stored(kUdpDb, s_policy_kelim__flow__descriptor).at(0);
  EXPECT_NE(last.find("flow_data=" + digits(shorter) + " "), std::string::npos) << last;
}

TEST_F(FlowRoad, deletion_is_silent_and_an_unknown_flow_counts_as_deleted) {
  d.expect_error("flow node del failed.flow_index:9, vsd_id:0");
  flow(typical_flow(1));
  d.tick();
  flow(deletion(typical_flow(1)));
  flow(deletion(typical_flow(9)));
  d.tick();
  EXPECT_EQ(flows_stored(), 0u);
  EXPECT_EQ(flows_cached(), 0u);
  EXPECT_TRUE(queue_empty());
  EXPECT_TRUE(d.replies().empty());
  EXPECT_EQ(sdn_opt_cnt[3], 2u);
  EXPECT_EQ(sdn_opt_cnt[4], 2u);
  EXPECT_EQ(sdn_opt_cnt[5], 0u);

  // The record is gone already: the deletion fails, and is counted.
  d.expect_error("ssc sdn del flow FAIL!");
  flow(typical_flow(2));
  d.tick();
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = 2;
  SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
  record.index = &key;
  ASSERT_EQ(d.remove(kUdpDb, &record.base), 0);
  flow(deletion(typical_flow(2)));
  d.tick();
  EXPECT_EQ(sdn_opt_cnt[5], 1u);
  EXPECT_EQ(flows_cached(), 0u);
}

// Ports 1 to 3 are ordinary, 45 is an overlay tunnel, 46 an overlay router; 99 is unknown.
TEST_F(FlowRoad, ports_are_checked_before_a_flow_is_stored) {
  d.expect_error("get phyid by ifx failed, rv = -7(ifx = 99");
  d.expect_error("ifx_type is LLCB_OVERLAY_TUNNEL, NOT SUPPORT.");
  d.expect_error("ifx is OF_SS_ALL_OT_IFINDEX, NOT SUPPORT.");
  d.expect_error("OXM_VALUE = 0x80000a02 isn't support");
  d.expect_error("do not support port type(0xfffffffb).");
  d.expect_error("ssc_sdn_add_flow_to_udp: ssc kelim pick out in port phyid FAIL!");
  d.expect_error("ssc sdn del flow FAIL!");  // what was never stored cannot be deleted
  d.expect_error("ssc kelim insert_msg_node FAIL!");
  d.expect_error("send flow error msg to PI");
  const auto match = [](std::uint32_t in_port) { return field(0x80000004, le(in_port)); };
  const Bytes etype = field(0x80000a02, le(std::uint16_t{0x0800}));
  const struct {
    const char *label;
    Bytes match, actions;
    bool stored;
  } cases[] = {
      {"ordinary", match(1), output(2), true},
      {"unknown in port", match(99), output(2), false},
      {"tunnel", match(45), output(2), false},
      {"router", match(46), output(2), false},
      {"all other interfaces", match(0x10001), output(2), false},
      {"all or one interface", match(0x10002), output(2), true},
      {"in port behind another field", etype + match(99), output(2), false},
      {"no in port", etype, output(2), true},
      {"no match", {}, output(2), true},
      {"unknown output port", match(1), output(99), true},
      {"output to the controller", match(1), output(0xfffffffd), true},
      {"output to FLOOD", match(1), output(0xfffffffb), true},
      {"no action", match(1), {}, true},
  };
  std::uint64_t index = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.label);
    const std::size_t before = flows_stored(), failures = replies(11).size();
    flow(flow_mod({.index = ++index, .match = c.match, .actions = c.actions}));
    d.tick();
    EXPECT_EQ(flows_stored() - before, c.stored ? 1u : 0u);
    EXPECT_EQ(cached(index), c.stored);
    EXPECT_EQ(replies(11).size() - failures, c.stored ? 0u : 1u);
  }
}

TEST_F(FlowRoad, a_refused_write_is_reported_with_its_class) {
  d.expect_error("qx_mom_setow FAIL! ow:1, rv:-14");
  d.expect_error("ssc_sdn_add_flow_to_udp: ssc sdn add flow ow:1 FAIL!");
  d.expect_error("ssc kelim insert_msg_node FAIL!");
  d.expect_error("ssc sdn del flow FAIL!");
  d.expect_error("send flow error msg to PI");
  host::fault::fail(host::fault::Point::mom_setow, -14);
  flow(typical_flow(1));
  d.tick();
  EXPECT_EQ(replies(11), Texts{"0b00000018000000"
                               "0100000000000000"
                               "0100000000000000"});
  EXPECT_EQ(flows_cached(), 0u);
  EXPECT_TRUE(queue_empty());
}

// Fails the first, second, ... allocation of the handler until a flow goes through. Whatever failed, the flow is answered once,
// and neither a record nor a queue node is left. Three failures leave the cache node: that of its copy, and those of the queue's
// two blocks. Without memory for a larger index the flow goes on unindexed.
TEST_F(FlowRoad, out_of_memory_at_any_point) {
  d.expect_error("");
  flow(typical_flow(1));
  d.tick();
  answer(1, 2);
  int nodes_left = 0;
  std::uint64_t index = 100;
  for (std::uint32_t nth = 1;; nth++, index++) {
    ASSERT_LT(nth, 100u);
    SCOPED_TRACE(nth);
    d.forget_replies();
    flow(typical_flow(index));
    fail_allocation(nth);
    d.tick();
    fail_allocation(0);
    const Texts failures = replies(11);
    if (failures.empty() && cached(index)) break;
    if (failures.empty()) {
      EXPECT_EQ(flows_stored(), 2u) << "stored, though not indexed";
      answer(index, 3);
      continue;
    }
    EXPECT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures.at(0).substr(16), digits(le(index) + le(std::uint64_t{2})));
    EXPECT_EQ(flows_stored(), 1u);
    EXPECT_TRUE(queue_empty());
    if (cached(index)) {
      nodes_left++;
      flow(deletion(typical_flow(index)));
      d.tick();
    }
    EXPECT_EQ(flows_cached(), 1u);
  }
  EXPECT_EQ(nodes_left, 3);
  EXPECT_EQ(flows_cached(), 2u);
}

}  // namespace
