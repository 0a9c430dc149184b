// Data synchronisation and bulk removal, by the notifications that the programming service would see.
#include "app/flow_world.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"

namespace {

using namespace flow_world;
using namespace std::chrono_literals;

class DataSync : public FlowWorld {
 protected:
  void start() { handle(d.pi().ds_start, message(33, {})); }
  void end() { handle(d.pi().ds_end, message(34, {})); }
  void meter() { send(d.pi().meter_mod, message(17, le(std::uint16_t{0}) + le(std::uint16_t{0}) + le(1u))); }
  // A flow record from an earlier life of the daemon, with the tag that it was written with.
  void left_over(std::uint64_t index, std::int64_t tag, std::uint32_t vsd_id = 0) {
    records::Flow flow(index);
    flow.key.vsd_id = vsd_id;
    d.on_loop([&] { ASSERT_EQ(qx_mom_setow(g_ssc_kelim_global, kUdpDb, flow, 0, 0, tag), 0); });
  }
  // Changes of flow records as watched: "set 1", "del 2".
  Texts changes() const {
    Texts out;
    for (const auto &change : d.changes())
      out.push_back((change.cmd == 1 ? "set " : change.cmd == 3 ? "del " : "? ") + std::to_string(index_of(change.record)));
    return out;
  }
  bool in_progress() const {
    return on_loop([] { return g_ssc_ds_stage.in_progress; }) != 0;
  }
};

TEST_F(DataSync, WhatIsReplayedStaysAndWhatIsLeftOverGoes) {
  end();
  expect_counters({{25, 0}});
  for (std::uint64_t index : {1, 2, 3}) left_over(index, 1);
  left_over(4, 2);
  left_over(5, 9);  // a tag of nobody: it expires
  meter();
  d.tick();
  d.watch(kUdpDb, records::Flow::kType);

  // The kind's work is done with the first piece; what is still to come is not past its deadline.
  host::clock::stop();
  send(d.pi().ds_start, message(33, {}));
  handle(typical_flow(1));
  expect_counters({{25, 1}});
  flow(typical_flow(3));
  end();
  EXPECT_EQ(changes(), (Texts{"set 1", "set 3"})) << "replayed flows are never deleted in between";
  EXPECT_EQ(flows().size(), 5u);
  EXPECT_FALSE(in_progress());
  host::clock::resume();
  // A start counts at the intake and in its handler; both kinds are cleaned up.
  expect_counters({{21, 2}, {22, 1}, {24, 2}, {25, 2}});

  d.warp(200ms);
  EXPECT_EQ(changes(), (Texts{"set 1", "set 3", "del 2", "del 4", "del 5"}));
  EXPECT_EQ(flows().size(), 2u);
  EXPECT_EQ(meters(), 1u) << "meters survive";
}

TEST_F(DataSync, WithoutAnEndWhatIsLeftOverExpires) {
  for (std::uint64_t index : {1, 2}) left_over(index, 1);
  meter();
  d.tick();
  d.watch(kUdpDb, records::Flow::kType);
  start();
  handle(typical_flow(2));
  d.warp(40ms);
  EXPECT_EQ(changes(), Texts{"set 2"});
  d.warp(600ms);
  EXPECT_EQ(changes(), (Texts{"set 2", "del 1"}));
  EXPECT_EQ(meters(), 0u);
}

// A replay that is begun anew in the middle, one in pieces, several in a row: what they renew is never deleted in between, and
// what has gone does not come back.
TEST_F(DataSync, ReplaysInPiecesAndInARowDeleteOnceWhatIsLeftOverAndNothingElse) {
  for (std::uint64_t index : {1, 2, 3, 4}) left_over(index, 1);
  d.tick();
  d.watch(kUdpDb, records::Flow::kType);
  start();
  send(d.pi().ds_start, message(33, {}));
  handle(typical_flow(1));
  for (std::uint64_t index : {2, 3}) flow(typical_flow(index));
  end();
  for (int again = 0; again < 2; ++again) {
    start();
    for (std::uint64_t index : {1, 2, 3}) flow(typical_flow(index));
    end();
  }
  d.warp(600ms);
  EXPECT_EQ(changes(), (Texts{"set 1", "set 2", "set 3", "set 1", "set 2", "set 3", "set 1", "set 2", "set 3", "del 4"}));
}

// The kind of service-chain flows ends with the application's answer, once; a second start begins anew.
TEST_F(DataSync, AKindWithWorkLeftAtTheEndIsCleanedUpLater) {
  left_over(4, 2);
  start();
  flow(service_chain_flow(7));
  end();
  EXPECT_EQ(flows().size(), 1u);
  EXPECT_EQ(sdn_opt_cnt[25], 1u);
  for (int again = 0; again < 2; ++again) {
    decide(7, {});
    EXPECT_EQ(flows().size(), 2u);
    EXPECT_EQ(sdn_opt_cnt[25], 2u);
  }
  d.warp(200ms);
  EXPECT_EQ(flows().size(), 1u);
  answer(7, 2);

  // What cannot be put under expiry, or cleaned up, holds nothing else. The first kind's records carry tag 2.
  announce({"Expire del fail. ow:2", "flow_entry expire flow FAIL!", "Expire flow FAIL!"});
  host::fault::fail(host::fault::Point::mom_pexpire, -1);
  start();
  host::fault::fail(host::fault::Point::mom_del_expire_ow, -1);
  start();
  end();
  EXPECT_FALSE(in_progress());
  EXPECT_EQ(flows().size(), 1u) << "tag 2 failed";
  EXPECT_EQ(sdn_opt_cnt[25], 3u) << "tag 1 was cleaned up";
}

TEST_F(DataSync, DeleteAllFlowsEndsASynchronisation) {
  for (std::uint64_t index : {1, 2, 3}) flow(typical_flow(index));
  meter();
  send(d.pi().barrier, barrier(0x33));
  start();

  d.expect_error("flow node del failed.flow_index:77, vsd_id:0");
  left_over(77, 9);     // stored, but not cached
  left_over(78, 9, 5);  // of another virtual switch
  announce({"MALLOC ERR![", "SSC_SDN_MALLOC FAIL!"});
  d.pi().del_all_flow();
  fail_allocation(1);
  d.tick();
  EXPECT_EQ(flows().size(), 5u) << "without memory it touches nothing";
  EXPECT_FALSE(queue_empty());
  d.pi().del_all_flow();
  d.tick();
  EXPECT_FALSE(in_progress());
  EXPECT_EQ(flows().size(), 2u);
  EXPECT_EQ(flows_cached(), 0u) << "nothing was cleaned up ahead of the scan";
  EXPECT_TRUE(queue_empty());
  EXPECT_EQ(barriers_answered(), std::vector<std::uint32_t>{0x33});
  EXPECT_TRUE(replies(11).empty());
  end();
  expect_counters({{19, 2}, {20, 1}, {25, 1}});  // no clean-up any more
}

TEST_F(DataSync, DeleteAllTakesFlowsAndMetersEvenWhenTheFlowScanFails) {
  d.expect_error("ssc sdn del flow FAIL!");
  meter();
  handle(service_chain_flow(7));
  decide(7, {});
  answer(7, 2);
  handle(typical_flow(1));
  host::fault::fail(host::fault::Point::mom_scan, -1);
  d.pi().del_all();
  d.tick();
  EXPECT_EQ(flows().size(), 2u);
  EXPECT_EQ(meters(), 0u);
  EXPECT_TRUE(queue_empty()) << "the queue is emptied even so";

  d.pi().del_all();
  d.tick();
  EXPECT_EQ(flows().size(), 1u) << "what an application decided goes when it says so";
  decide(7, {}, true);
  expect_nothing_left();
  expect_counters({{5, 1}, {46, 2}, {47, 1}});
}

}  // namespace
