// Data synchronisation and bulk removal, by the notifications that the programming service would see.
#include "component/flow_world.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"

namespace {

using namespace flow_world;
using namespace std::chrono_literals;

class FlowSync : public FlowWorld {
 protected:
  void start() { send(d.pi().ds_start, message(33, {})); }
  void end() { send(d.pi().ds_end, message(34, {})); }
  void installed(std::uint64_t index) {
    flow(typical_flow(index));
    d.tick();
    answer(index, 2);
  }
  // Flows that are stored, by index.
  std::vector<std::uint64_t> flows() const {
    std::vector<std::uint64_t> out;
    for (const auto &record : d.stored(kUdpDb, &s_policy_kelim__flow__descriptor)) {
      out.push_back(record.as<SPolicyKelim__Flow>()->index->flow_index);
    }
    return out;
  }
  // Changes of flow records as watched: "set 1", "del 2".
  Texts flow_changes() const {
    Texts out;
    for (const auto &change : d.changes()) {
      out.push_back((change.cmd == 1   ? "set "
                     : change.cmd == 3 ? "del "
                                       : "? ") +
                    std::to_string(change.record.as<SPolicyKelim__Flow>()->index->flow_index));
    }
    return out;
  }
  // A flow record from an earlier life of the daemon, with the tag that it was written with.
  void left_over(std::uint64_t index, std::int64_t tag, std::uint32_t vsd_id = 0) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    key.vsd_id = vsd_id;
    SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
    record.index = &key;
    d.on_loop([&] { ASSERT_EQ(qx_mom_setow(g_ssc_kelim_global, kUdpDb, &record.base, 0, 0, tag), 0); });
  }
  void meter(std::uint32_t id) { send(d.pi().meter_mod, message(17, le(std::uint16_t{0}) + le(std::uint16_t{0}) + le(id))); }
  std::size_t meters() const { return d.count(kUdpDb, &s_policy_kelim__meter__descriptor); }
  // "in progress, kind 1 finished, kind 0 finished, end received"
  std::string stage() const {
    ssc_ds_stage now{};
    d.on_loop([&] { now = g_ssc_ds_stage; });
    return std::to_string(now.in_progress) + std::to_string(now.kind1_finished) + std::to_string(now.kind0_finished) +
           std::to_string(now.end_received);
  }
};

TEST_F(FlowSync, what_is_replayed_stays_and_what_is_left_over_goes) {
  for (std::uint64_t index : {1, 2, 3}) left_over(index, 1);
  left_over(4, 2);
  left_over(5, 9);  // a tag of nobody: it expires
  meter(1);
  d.tick();
  d.watch(kUdpDb, kFlowType);

  start();
  flow(typical_flow(1));
  flow(typical_flow(3));
  end();
  d.tick();
  EXPECT_EQ(flow_changes(), (Texts{"set 1", "set 3", "del 4", "del 2"})) << "replayed flows are never deleted in between";
  EXPECT_EQ(flows(), (std::vector<std::uint64_t>{1, 3, 5}));
  EXPECT_EQ(stage(), "0110");
  EXPECT_EQ(sdn_opt_cnt[21], 2u) << "counted by intake and handler";
  EXPECT_EQ(sdn_opt_cnt[22], 1u);
  EXPECT_EQ(sdn_opt_cnt[24], 1u);
  EXPECT_EQ(sdn_opt_cnt[25], 2u) << "both kinds cleaned up";

  d.warp(200ms);
  EXPECT_EQ(flow_changes().back(), "del 5");
  EXPECT_EQ(flows(), (std::vector<std::uint64_t>{1, 3}));
  EXPECT_EQ(meters(), 1u) << "meters survive";
}

TEST_F(FlowSync, without_an_end_what_is_left_over_expires) {
  left_over(1, 1);
  left_over(2, 1);
  meter(1);
  d.tick();
  d.watch(kUdpDb, kFlowType);
  start();
  flow(typical_flow(2));
  d.tick();
  EXPECT_EQ(stage(), "1000");
  d.warp(40ms);
  EXPECT_EQ(flow_changes(), Texts{"set 2"});
  d.warp(100ms);
  EXPECT_EQ(flow_changes(), (Texts{"set 2", "del 1"}));
  EXPECT_EQ(meters(), 0u);
  d.warp(500ms);
  EXPECT_EQ(flows(), std::vector<std::uint64_t>{2});
}

TEST_F(FlowSync, an_end_without_a_start_changes_nothing) {
  left_over(1, 1);
  end();
  d.tick();
  EXPECT_EQ(stage(), "0110");
  EXPECT_EQ(flows(), std::vector<std::uint64_t>{1});
  EXPECT_EQ(sdn_opt_cnt[25], 0u);
}

// The kind of service-chain flows ends with the application's answer, once; a second start begins anew.
TEST_F(FlowSync, a_kind_with_work_left_at_the_end_is_cleaned_up_later) {
  left_over(4, 2);
  start();
  flow(service_chain_flow(7));
  end();
  d.tick();
  EXPECT_EQ(stage(), "1011");
  EXPECT_EQ(flows(), std::vector<std::uint64_t>{4});
  EXPECT_EQ(sdn_opt_cnt[25], 1u);

  SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  key.t_flow_type = 3;
  key.flow_index = 7;
  SPolicyKelim__FlowToAce record = S_POLICY_KELIM__FLOW_TO_ACE__INIT;
  record.index = &key;
  ASSERT_EQ(d.write(kAppDb, &record.base), 0);
  EXPECT_EQ(stage(), "0110");
  EXPECT_EQ(flows(), std::vector<std::uint64_t>{7});
  EXPECT_EQ(sdn_opt_cnt[25], 2u);
  ASSERT_EQ(d.write(kAppDb, &record.base), 0);
  EXPECT_EQ(sdn_opt_cnt[25], 2u);
  answer(7, 2);

  start();
  d.tick();
  EXPECT_EQ(stage(), "1000");
}

TEST_F(FlowSync, a_failed_clean_up_does_not_hold_the_synchronisation) {
  d.expect_error("Expire del fail. ow:2");
  d.expect_error("flow_entry expire flow FAIL!");
  d.expect_error("Expire flow FAIL!");
  host::fault::fail(host::fault::Point::mom_pexpire, -1);
  host::fault::fail(host::fault::Point::mom_del_expire_ow, -1);
  start();
  end();
  d.tick();
  EXPECT_EQ(stage(), "0110");
  EXPECT_EQ(sdn_opt_cnt[25], 1u) << "tag 2 failed, tag 1 was cleaned up";
}

TEST_F(FlowSync, delete_all_flows_ends_a_synchronisation) {
  for (std::uint64_t index : {1, 2}) installed(index);
  meter(1);
  d.tick();
  flow(typical_flow(3));
  send(d.pi().barrier, barrier(0x33));
  start();
  d.tick();
  EXPECT_EQ(stage(), "1000");

  d.expect_error("flow node del failed.flow_index:77, vsd_id:0");
  left_over(77, 9);     // stored, but not cached
  left_over(78, 9, 5);  // of another virtual switch
  d.pi().del_all_flow();
  d.tick();
  EXPECT_EQ(stage(), "0110");
  EXPECT_EQ(flows(), (std::vector<std::uint64_t>{77, 78}));
  EXPECT_EQ(flows_cached(), 3u) << "what tag 1 cleaned up ahead of the scan keeps its description";
  EXPECT_TRUE(queue_empty());
  EXPECT_EQ(barriers_answered(), std::vector<std::uint32_t>{0x33});
  EXPECT_TRUE(replies(11).empty());
  EXPECT_EQ(sdn_opt_cnt[19], 1u);
  EXPECT_EQ(sdn_opt_cnt[20], 0u);
  end();
  d.tick();
  EXPECT_EQ(sdn_opt_cnt[25], 1u) << "nothing is in progress any more";
}

TEST_F(FlowSync, delete_all_flows_with_600_outstanding) {
  for (std::uint64_t index = 1; index <= 600; index++) {
    flow(index % 100 ? typical_flow(index) : service_chain_flow(index));
    if (index % 50 == 0) send(d.pi().barrier, barrier(static_cast<std::uint32_t>(index)));
  }
  d.tick();
  EXPECT_EQ(flows_stored(), 594u);
  d.expect_error("flow node del failed");
  d.pi().del_all_flow();
  d.tick();
  EXPECT_EQ(flows_stored(), 0u);
  EXPECT_TRUE(queue_empty());
  EXPECT_EQ(barriers_answered(), (std::vector<std::uint32_t>{50, 100, 150, 200, 250, 300, 350, 400, 450, 500, 550, 600}));
  flow(deletion(typical_flow(1)));
  d.tick();
}

TEST_F(FlowSync, delete_all_takes_flows_and_meters_even_when_the_flow_scan_fails) {
  d.expect_error("ssc sdn del flow FAIL!");
  installed(1);
  meter(1);
  d.tick();
  send(d.pi().barrier, barrier(1));
  flow(typical_flow(2));
  d.tick();
  host::fault::fail(host::fault::Point::mom_scan, -1);
  d.pi().del_all();
  d.tick();
  EXPECT_EQ(flows_stored(), 2u);
  EXPECT_EQ(meters(), 0u);
  EXPECT_TRUE(queue_empty()) << "the queue is emptied even so";
  EXPECT_EQ(sdn_opt_cnt[5], 1u);
  EXPECT_EQ(sdn_opt_cnt[46], 1u);
  EXPECT_EQ(sdn_opt_cnt[47], 1u);

  d.pi().del_all();
  d.tick();
  EXPECT_EQ(flows_stored(), 0u);
  EXPECT_EQ(flows_cached(), 0u);
  EXPECT_EQ(sdn_opt_cnt[47], 1u);
}

TEST_F(FlowSync, delete_all_flows_without_memory_touches_nothing) {
  d.expect_error("MALLOC ERR![");
  d.expect_error("SSC_SDN_MALLOC FAIL!");
  flow(typical_flow(1));
  d.tick();
  d.pi().del_all_flow();
  fail_allocation(1);
  d.tick();
  EXPECT_EQ(flows_stored(), 1u);
  EXPECT_FALSE(queue_empty());
  EXPECT_EQ(sdn_opt_cnt[20], 1u);
}

}  // namespace
