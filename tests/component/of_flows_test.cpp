// The life of flows in the OpenFlow agent: hand-over, results, barriers, changes, deletes, timeouts, synchronisation, statistics.
#include <set>

#include "component/of_flows_world.h"

namespace {

using namespace of_world;

Message changed(FlowMod f, void (*change)(FlowMod &)) {
  change(f);
  return flow_mod(f);
}

// ---- hand-over, barriers, late errors

TEST_F(FlowsTest, ABarrierWaitsForWhatWasHandedOverBeforeIt) {
  hand_over(flow_mod(ipv4_flow(1, 10)) + barrier(11) + flow_mod(ipv4_flow(2, 12)) + barrier(13), 2);
  EXPECT_EQ(index_of(daemon.flows(true)[0]), 1u);
  EXPECT_EQ(index_of(daemon.flows(true)[1]), 2u);
  EXPECT_FALSE(c.ask(message(2, 99)).empty()) << "an echo is answered meanwhile";
  EXPECT_TRUE(c.of_type(21).empty());
  // The controller's barriers carry its connection's number, its transaction and its address; ours come from connection 255.
  Message tags;
  for (const Message &b : daemon.of_type(southbound::kBarrierRequest))
    if (southbound::get<std::uint8_t>(b.data(), 8) != 255) tags = tags + b;
  EXPECT_EQ(to_hex(tags), to_hex(hex("1f00 0400 1800 0100 00 00000000000000 0b000000 7f000001"
                                     "1f00 0400 1800 0100 00 00000000000000 0d000000 7f000001")));
  daemon.answer_barriers();
  EXPECT_EQ(get(c.await(21, 1), 4, 4), 11u);
  EXPECT_EQ(get(c.await(21, 2), 4, 4), 13u);
  EXPECT_EQ(c.of_type(21).size(), 2u);
}

TEST_F(FlowsTest, ADeleteIsWaitedForToo) {
  apply(flow_mod(ipv4_flow(1)));
  daemon.hold_barriers(true);
  c.send(changed(ipv4_flow(1), [](FlowMod &f) { f.command = 4; }) + barrier(7));
  ASSERT_TRUE(until([this] { return daemon.flows(false).size() == 1; }));
  EXPECT_EQ(index_of(daemon.flows(false)[0]), 1u);
  EXPECT_FALSE(c.ask(message(2, 99)).empty());
  EXPECT_TRUE(c.of_type(21).empty());
  daemon.answer_barriers();
  EXPECT_FALSE(c.await(21).empty());
}

TEST_F(FlowsTest, AFlowThatFailsLaterIsAnsweredOnceWithTheRequestAndBeforeTheBarrier) {
  FlowMod f = ipv4_flow(1, 10);
  f.cookie = 0x1122334455667788;
  hand_over(flow_mod(f) + flow_mod(ipv4_flow(2, 11)) + barrier(12), 2);
  PlayedDaemon::fail(1, 1);
  PlayedDaemon::fail(1, 2);
  PlayedDaemon::fail(2, 2);
  PlayedDaemon::fail(99, 2);
  daemon.answer_barriers();
  c.await(21);
  ASSERT_EQ(c.received().size(), 3u);
  const Message &full = c.received()[0], &other = c.received()[1];
  EXPECT_EQ(error_of(full), "5/1");
  EXPECT_EQ(get(full, 4, 4), 10u);
  const Message request = flow_mod(f);
  EXPECT_EQ(to_hex(data_of(full)), to_hex(std::span(request).first(64)));
  EXPECT_EQ(error_of(other), "5/0");
  EXPECT_EQ(get(other, 4, 4), 11u);
  EXPECT_TRUE(dump().empty()) << "a failed flow is no longer desired";
  EXPECT_TRUE(daemon.flows(false).empty()) << "the daemon has dropped it itself";
}

TEST_F(FlowsTest, AReplyGoesToTheConnectionThatAskedNotToItsNumber) {
  daemon.hold_barriers(true);
  {
    Controller gone;
    gone.connect(port);
    gone.send(hello() + flow_mod(ipv4_flow(1, 50)) + barrier(51));
    ASSERT_TRUE(until([this] { return daemon.flows(true).size() == 1; }));
  }
  ASSERT_TRUE(c.send(message(2, 1)));
  Controller next;
  ASSERT_TRUE(until([&] {
    next.connect(port);
    next.send(hello());
    return !next.ask(message(5, 1)).empty();
  }));
  next.forget();
  PlayedDaemon::fail(1, 2);
  daemon.answer_barriers();
  EXPECT_TRUE(next.settle());
  EXPECT_TRUE(next.received().empty()) << "nothing but the answer to its own barrier";
}

// A whole request fails once, however many flows it was about.
TEST_F(FlowsTest, AModifyOfManyFlowsFailsOnce) {
  apply(flow_mod(ipv4_flow(1)) + flow_mod(ipv4_flow(2)) + flow_mod(ipv4_flow(3)));
  daemon.forget();
  FlowMod all;
  all.xid = 20, all.command = 1, all.instructions = of_wire::apply(output(7));
  hand_over(flow_mod(all) + barrier(21), 3);
  for (const Message &add : daemon.flows(true)) PlayedDaemon::fail(index_of(add), 2);
  daemon.answer_barriers();
  c.await(21);
  EXPECT_EQ(errors(), Strings{"5/0"});
  const auto left = dump();
  ASSERT_EQ(left.size(), 3u) << "the old forms stay in force";
  for (const Shown &s : left) EXPECT_NE(s.rest.find("00000002ffff"), std::string::npos) << s.rest;
}

TEST_F(FlowsTest, MoreThanTheWindowWaitsAndIsNotLost) {
  constexpr std::uint32_t kFlows = 80'000;
  Message burst;
  for (std::uint32_t i = 0; i < kFlows; ++i) append(burst, flow_mod(ipv4_flow(i, i)));
  daemon.hold_barriers(true);
  std::size_t sent = 0;
  ASSERT_TRUE(until([&] {
    c.send_more(burst, sent);
    return daemon.flows(true).size() >= 65'536;
  }));
  ASSERT_TRUE(c.send_rest(burst, sent, 300ms) || sent > 65'536 * 80);
  EXPECT_EQ(daemon.flows(true).size(), 65'536u) << "no more while nothing is decided";
  daemon.answer_barriers();
  EXPECT_TRUE(c.send_rest(burst, sent, kPatience));
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(daemon.flows(true).size(), kFlows);
}

// What a controller has under way is bounded, and what is left of controllers that came and went as well.
TEST_F(FlowsTest, BarriersWithoutEndAreNotTakenWithoutEnd) {
  const auto under_way = [this] { return daemon.of_type(southbound::kBarrierRequest).size(); };
  hand_over(flow_mod(ipv4_flow(1)), 1);
  ASSERT_TRUE(until([&] { return under_way() == 1; })) << "the agent's own";
  Message flood;
  for (std::uint32_t xid = 1; xid <= 5000; ++xid) append(flood, barrier(xid));
  ASSERT_TRUE(c.send(flood + message(2, 0xecc0)));
  ASSERT_TRUE(until([&] { return under_way() >= 4097; }));
  host::of_ss::run_timers();
  EXPECT_EQ(under_way(), 4097u);
  EXPECT_FALSE(c.await(3).empty()) << "an echo request goes ahead of all that waits";
  for (std::size_t round = 2; round <= 20; ++round) {
    Controller other(port);
    ASSERT_TRUE(other.send(hello() + flood));
    const std::size_t most = std::min<std::size_t>(4096 * round + 1, 65536);
    ASSERT_TRUE(until([&] { return under_way() >= most; })) << round;
  }
  host::of_ss::run_timers();
  EXPECT_EQ(under_way(), 65536u);
  daemon.answer_barriers();
  ASSERT_FALSE(c.await(21, 5000).empty());
  std::uint32_t xid = 0;
  for (const Message &reply : c.of_type(21)) EXPECT_EQ(get(reply, 4, 4), ++xid);
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(c.of_type(3).size(), 1u) << "and is answered once";
}

// Some controllers number a batch and its barrier alike.
TEST_F(FlowsTest, RequestsMayShareTheirTransactionNumber) {
  hand_over(flow_mod(ipv4_flow(1, 9)) + barrier(9) + flow_mod(ipv4_flow(2, 9)) + barrier(9), 2);
  PlayedDaemon::fail(2, 2);
  EXPECT_EQ(error_of(c.await(1)), "5/0");
  daemon.answer_barriers();
  ASSERT_FALSE(c.await(21, 2).empty());
  for (const Message &m : c.received()) EXPECT_EQ(get(m, 4, 4), 9u);
}

// ---- changes

TEST_F(FlowsTest, AChangedFlowGetsANewIndexFirstAndTheOldOneGoesWhenTheNewOneIsIn) {
  apply(flow_mod(ipv4_flow(1)));
  FlowMod other = ipv4_flow(1, 30);
  other.instructions = of_wire::apply(output(7));
  daemon.forget();
  hand_over(flow_mod(other) + barrier(31), 1);
  EXPECT_EQ(index_of(daemon.flows(true)[0]), 2u);
  EXPECT_TRUE(daemon.flows(false).empty());
  daemon.answer_barriers();
  c.await(21);
  ASSERT_TRUE(until([this] { return daemon.flows(false).size() == 1; }));
  EXPECT_EQ(index_of(daemon.flows(false)[0]), 1u);
  ASSERT_EQ(dump().size(), 1u);
  EXPECT_NE(dump()[0].rest.find("00000007ffff"), std::string::npos);
}

TEST_F(FlowsTest, AFailedChangeLeavesTheOldFlowInForceWithItsCounters) {
  apply(flow_mod(ipv4_flow(1)));
  PlayedDaemon::report(1, 10, 1000);
  FlowMod other = ipv4_flow(1, 30);
  other.instructions = of_wire::apply(output(7));
  daemon.forget();
  hand_over(flow_mod(other), 1);
  PlayedDaemon::fail(2, 1);
  daemon.answer_barriers();
  EXPECT_EQ(error_of(c.await(1)), "5/1");
  const auto left = dump();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_NE(left[0].rest.find("00000002ffff"), std::string::npos);
  EXPECT_EQ(left[0].packets, 10u);
  EXPECT_TRUE(daemon.flows(false).empty());
}

TEST_F(FlowsTest, TheSameFlowAgainIsNotHandedOverAgain) {
  apply(flow_mod(ipv4_flow(1)));
  PlayedDaemon::report(1, 10, 1000);
  apply(flow_mod(ipv4_flow(1)));
  EXPECT_EQ(daemon.flows(true).size(), 1u);
  EXPECT_EQ(dump()[0].packets, 10u);
  apply(changed(ipv4_flow(1), [](FlowMod &f) { f.flags = 4; }));
  EXPECT_EQ(daemon.flows(true).size(), 1u);
  EXPECT_EQ(dump()[0].packets, 0u) << "RESET_COUNTS";
  apply(changed(ipv4_flow(1), [](FlowMod &f) { f.cookie = 5; }));
  EXPECT_EQ(daemon.flows(true).size(), 2u) << "what is stored of the flow has changed";
}

TEST_F(FlowsTest, AModifyChangesTheActionsAndNothingElse) {
  FlowMod f = ipv4_flow(1);
  f.cookie = 9, f.idle = 30, f.hard = 40, f.priority = 7;
  apply(flow_mod(f));
  PlayedDaemon::report(1, 10, 1000);
  FlowMod m;
  m.command = 1, m.cookie = 77, m.idle = 1, m.hard = 1, m.priority = 8, m.instructions = of_wire::apply(output(7));
  apply(flow_mod(m));
  const auto left = dump();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(std::tuple(left[0].cookie, left[0].idle, left[0].hard, left[0].priority, left[0].packets),
            std::tuple(9u, 30, 40, 7, 10u));
  EXPECT_NE(left[0].rest.find("00000007ffff"), std::string::npos);
  // A strict one looks at the priority; one that finds nothing does nothing.
  m.command = 2, m.fields = f.fields, m.instructions = of_wire::apply(output(1));
  apply(flow_mod(m));
  EXPECT_NE(dump()[0].rest.find("00000007ffff"), std::string::npos);
  m.priority = 7;
  apply(flow_mod(m));
  EXPECT_NE(dump()[0].rest.find("00000001ffff"), std::string::npos);
  EXPECT_TRUE(errors().empty());
}

// What a change leaves as it is asks for no answer, and takes none from the request before.
TEST_F(FlowsTest, AChangeOfSomeFlowsFailsByItself) {
  FlowMod same = ipv4_flow(1), other = ipv4_flow(2);
  same.cookie = other.cookie = 0x10;
  same.instructions = of_wire::apply(output(7));
  apply(flow_mod(same) + flow_mod(other));
  FlowMod change;
  change.xid = 71, change.command = 1, change.cookie = 0x10, change.cookie_mask = 0xff;
  change.instructions = of_wire::apply(output(7));
  hand_over(flow_mod(ipv4_flow(3, 70)) + flow_mod(change) + barrier(72), 4);
  PlayedDaemon::fail(4, 2);
  PlayedDaemon::fail(3, 2);
  daemon.answer_barriers();
  c.await(21);
  std::multiset<std::uint32_t> failed;
  for (const Message &error : c.of_type(1)) failed.insert(static_cast<std::uint32_t>(get(error, 4, 4)));
  EXPECT_EQ(failed, (std::multiset<std::uint32_t>{70, 71}));
}

// Changes faster than decisions: every form but the last goes, in order.
TEST_F(FlowsTest, ManyChangesInARowLeaveTheLastForm) {
  Message burst;
  for (const std::uint32_t out : {1, 2, 7, 2, 7}) {
    FlowMod f = ipv4_flow(1);
    f.instructions = of_wire::apply(output(out));
    append(burst, flow_mod(f));
  }
  hand_over(burst + barrier(1), 5);
  EXPECT_EQ(c.of_type(21).size(), 0u);
  daemon.answer_barriers();
  c.await(21);
  ASSERT_TRUE(c.settle());
  std::vector<std::uint64_t> gone;
  for (const Message &m : daemon.flows(false)) gone.push_back(index_of(m));
  EXPECT_EQ(gone, (std::vector<std::uint64_t>{1, 2, 3, 4}));
  ASSERT_EQ(dump().size(), 1u);
}

TEST_F(FlowsTest, AnAddDoesNotLookAtTheFiltersOfADelete) {
  FlowMod f = ipv4_flow(1);
  f.out_port = 0, f.out_group = 0, f.cookie_mask = 0xff;
  apply(flow_mod(f));
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(dump().size(), 1u);
}

TEST_F(FlowsTest, ARefusedFlowTellsTheMeterTheOverlapAndTheRoom) {
  FlowMod metered = ipv4_flow(1, 40);
  metered.instructions = hex("00060008 00000005") + metered.instructions;
  EXPECT_EQ(error_of(c.ask(flow_mod(metered))), "12/3");
  apply(flow_mod(ipv4_flow(1)));
  FlowMod wider;
  wider.xid = 41, wider.flags = 2, wider.fields = hex("80000a020800"), wider.instructions = of_wire::apply(output(7));
  EXPECT_EQ(error_of(c.ask(flow_mod(wider))), "5/3");
  wider.priority = 101;
  apply(flow_mod(wider));
  EXPECT_EQ(dump().size(), 2u);
}

class SmallTable : public FlowsTest {
 protected:
  void configure() override {
    FlowsTest::configure();
    set("openflow.capacity", "0");
  }
};

TEST_F(SmallTable, IsAsLargeAsTheDaemonSays) {
  PlayedDaemon::capacity(2);
  apply(flow_mod(ipv4_flow(1)) + flow_mod(ipv4_flow(2)));
  const Message error = c.ask(flow_mod(ipv4_flow(3, 60)));
  EXPECT_EQ(error_of(error), "5/1");
  c.forget();
  FlowMod again = ipv4_flow(2, 61);
  again.instructions = of_wire::apply(output(7));
  apply(flow_mod(again));
  EXPECT_TRUE(errors().empty()) << "a change needs no further room";
  EXPECT_EQ(daemon.flows(true).size(), 3u);
}

// ---- deletes

struct DeleteCase {
  const char *label;
  void (*filter)(FlowMod &);
  std::set<std::uint64_t> left;  // of the indexes 1 to 4
};
const DeleteCase kDeletes[] = {
    {"all of table 0", [](FlowMod &) {}, {4}},
    {"all of table 1", [](FlowMod &f) { f.table = 1; }, {1, 2, 3}},
    {"by match", [](FlowMod &f) { f.table = 255, f.fields = hex("80000a020800 80001908 0a000000 ff000000"); }, {3}},
    {"by cookie", [](FlowMod &f) { f.table = 255, f.cookie = 0x10, f.cookie_mask = 0xf0; }, {3, 4}},
    {"by output", [](FlowMod &f) { f.table = 255, f.out_port = 7; }, {1, 3, 4}},
    {"by group", [](FlowMod &f) { f.table = 255, f.out_group = 1; }, {1, 2, 3, 4}},
    {"strictly", [](FlowMod &f) { f.command = 4, f.fields = ipv4_flow(0x0a000001).fields; }, {2, 3, 4}},
    {"strictly with another priority",
     [](FlowMod &f) { f.command = 4, f.priority = 5, f.fields = ipv4_flow(0x0a000001).fields; },
     {1, 2, 3, 4}},
    {"strictly with a wider match", [](FlowMod &f) { f.command = 4, f.fields = hex("80000a020800"); }, {1, 2, 3, 4}},
    {"strictly in table 1", [](FlowMod &f) { f.command = 4, f.table = 1, f.fields = ipv4_flow(0x0a000001).fields; }, {1, 2, 3}},
    {"strictly in all tables", [](FlowMod &f) { f.command = 4, f.table = 255, f.fields = ipv4_flow(0x0a000001).fields; }, {2, 3}},
};

TEST_F(FlowsTest, DeletesTakeWhatTheySayAndNothingElse) {
  const auto flow = [](std::uint32_t destination, std::uint8_t table, std::uint64_t cookie, std::uint32_t out) {
    FlowMod f = ipv4_flow(destination);
    f.table = table, f.cookie = cookie, f.instructions = of_wire::apply(output(out));
    return flow_mod(f);
  };
  const Message four =
      flow(0x0a000001, 0, 0x11, 1) + flow(0x0a000002, 0, 0x12, 7) + flow(0x0b000001, 0, 0x21, 2) + flow(0x0a000001, 1, 0x31, 2);
  std::uint64_t first = 1;
  for (const DeleteCase &d : kDeletes) {
    SCOPED_TRACE(d.label);
    daemon.forget();
    apply(four);
    FlowMod filter;
    filter.command = 3;
    d.filter(filter);
    apply(flow_mod(filter));
    std::set<std::uint64_t> left{1, 2, 3, 4};
    for (const Message &m : daemon.flows(false)) left.erase(index_of(m) - first + 1);
    EXPECT_EQ(left, d.left);
    EXPECT_EQ(dump().size(), left.size());
    EXPECT_FALSE(daemon.told("DEL_ALL_FLOWS"));
    first += 4;
    FlowMod everything;
    everything.command = 3, everything.table = 255;
    apply(flow_mod(everything));
    EXPECT_TRUE(daemon.told("DEL_ALL_FLOWS"));
    EXPECT_TRUE(dump().empty());
  }
}

TEST_F(FlowsTest, AFlowThatAskedForItIsReportedWhenItGoes) {
  FlowMod f = ipv4_flow(0x0a000001);
  f.flags = 1, f.cookie = 0xc0, f.idle = 5, f.hard = 6, f.priority = 9;
  apply(flow_mod(f) + flow_mod(ipv4_flow(2)));
  PlayedDaemon::report(1, 3, 300);
  FlowMod all;
  all.command = 3, all.table = 255;
  apply(flow_mod(all));
  const auto removed = c.of_type(11);
  ASSERT_EQ(removed.size(), 1u);
  const std::string text = to_hex(removed[0]);
  EXPECT_EQ(text.substr(16, 24),
            "00000000000000c0"
            "0009"
            "02"
            "00");
  EXPECT_EQ(text.substr(56, 40),
            "0005"
            "0006"
            "0000000000000003"
            "000000000000012c");
  EXPECT_EQ(text.substr(96), to_hex(match(f.fields)));
}

// Asynchronous messages go to whom the masks say, and to nobody before its FEATURES_REPLY.
TEST_F(FlowsTest, AFlowsEndIsReportedToThoseWhoWantToHearOfIt) {
  Controller slave, shy(port);
  come_up(slave);
  slave.ask(message(24, 1, hex("00000003 00000000 0000000000000001")));
  ASSERT_TRUE(shy.send(hello()));
  ASSERT_TRUE(shy.settle());
  const auto reports = [&](std::uint32_t destination) {
    FlowMod f = ipv4_flow(destination);
    f.flags = 1;
    apply(flow_mod(f));
    f.command = 4;
    apply(flow_mod(f));
    EXPECT_TRUE(slave.settle() && shy.settle());
    return std::tuple(c.of_type(11).size(), slave.of_type(11).size(), shy.of_type(11).size());
  };
  EXPECT_EQ(reports(1), std::tuple(1u, 0u, 0u));
  // FLOW_REMOVED for a deletion: no more as equal, from now on as slave.
  c.send(message(28, 2, hex("00000007 00000000 00000007 00000007 0000000b 00000000")));
  slave.send(message(28, 2, hex("00000007 00000000 00000007 00000007 00000000 00000004")));
  EXPECT_TRUE(slave.settle());
  EXPECT_EQ(reports(2), std::tuple(1u, 1u, 0u));
  shy.ask(message(5, 3));
  EXPECT_EQ(reports(3), std::tuple(1u, 2u, 1u));
}

// ---- time

class Deadlines : public FlowsTest {
 protected:
  void configure() override {
    FlowsTest::configure();
    set("openflow.decide_timeout_ms", "2000");
  }
};

TEST_F(Deadlines, AnUndecidedAddIsGivenUpAndNothingWaitsForEver) {
  hand_over(flow_mod(ipv4_flow(1, 70)) + barrier(71), 1);
  EXPECT_FALSE(c.ask(message(2, 1)).empty());
  warp(1900ms);
  EXPECT_FALSE(c.ask(message(2, 2)).empty());
  EXPECT_TRUE(c.of_type(1).empty());
  warp(200ms);
  const Message error = c.await(1);
  EXPECT_EQ(error_of(error), "5/0");
  EXPECT_EQ(get(error, 4, 4), 70u);
  EXPECT_EQ(daemon.flows(false).size(), 1u) << "the daemon is told to forget it";
  EXPECT_TRUE(c.of_type(21).empty());
  EXPECT_TRUE(until([this] { return daemon.of_type(southbound::kBarrierRequest).size() == 2; }))
      << "a barrier of the agent's own nudges the daemon";
  daemon.answer_barriers();
  EXPECT_EQ(get(c.await(21), 4, 4), 71u);
  PlayedDaemon::fail(1, 2);
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(errors(), Strings{"5/0"}) << "its late result is not reported again";
}

// Of the adds that no barrier has told of, those that the database knows to be installed are not given up.
TEST_F(Deadlines, OnlyTheAddThatHoldsTheBarrierBackIsGivenUp) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = 2;
  SPolicyKelim__FlowSta status = S_POLICY_KELIM__FLOW_STA__INIT;
  status.index = &key;
  status.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
  bool connected = false;
  static bool *flag = &connected;
  qx_mom_client_connect(
      global, QX_MOM_UDP_DB, [](void *, const char *) { return *flag = true, 0; }, "test");
  ASSERT_TRUE(until([&] { return connected; }));
  ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &status.base, 0, 0), 0);
  hand_over(flow_mod(ipv4_flow(1, 70)) + flow_mod(ipv4_flow(2, 71)) + flow_mod(ipv4_flow(3, 72)) + barrier(73), 3);
  warp(2100ms);
  c.await(1, 2);
  daemon.answer_barriers();
  c.await(21);
  EXPECT_EQ(errors(), (Strings{"5/0", "5/0"}));
  EXPECT_EQ(std::tuple(get(c.of_type(1)[0], 4, 4), get(c.of_type(1)[1], 4, 4)), std::tuple(70u, 72u));
  ASSERT_EQ(dump().size(), 1u);
}

TEST_F(Deadlines, ALostBarrierIsAnsweredInTheEnd) {
  apply(flow_mod(ipv4_flow(1)));
  daemon.hold_barriers(true);
  c.send(changed(ipv4_flow(1), [](FlowMod &f) { f.command = 4; }) + barrier(72));
  ASSERT_TRUE(until([this] { return daemon.flows(false).size() == 1; }));
  warp(100ms);
  warp(2100ms);
  EXPECT_EQ(get(c.await(21), 4, 4), 72u);
}

TEST_F(FlowsTest, HardAndIdleTimeoutsEndAFlow) {
  FlowMod hard = ipv4_flow(1), idle = ipv4_flow(2);
  hard.hard = 30, hard.flags = 1;
  idle.idle = 20, idle.flags = 1;
  apply(flow_mod(hard) + flow_mod(idle));
  warp(15s);
  PlayedDaemon::report(2, 1, 100);
  EXPECT_TRUE(c.settle());
  EXPECT_TRUE(c.of_type(11).empty());
  warp(15s);
  const Message first = c.await(11);
  ASSERT_FALSE(first.empty());
  EXPECT_EQ(to_hex(first).substr(36, 2), "01") << "hard timeout";
  EXPECT_EQ(c.of_type(11).size(), 1u) << "the other one was used 15 seconds ago";
  warp(6s);
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(c.of_type(11).size(), 1u) << "its counters are asked for first";
  warp(1s);
  const Message second = c.await(11, 2);
  ASSERT_FALSE(second.empty());
  EXPECT_EQ(to_hex(second).substr(36, 2), "00") << "idle timeout";
  EXPECT_EQ(daemon.flows(false).size(), 2u);
  EXPECT_TRUE(dump().empty());
}

// Changes are reported late: before a flow counts as idle, its counters are asked for.
TEST_F(FlowsTest, AFlowWhoseCountersMoveIsNotIdle) {
  FlowMod idle = ipv4_flow(1);
  idle.idle = 10, idle.flags = 1;
  apply(flow_mod(idle));
  daemon.count(1, 5, 500);
  warp(11s);
  EXPECT_EQ(daemon.of_type(southbound::kStatRequest).size(), 1u);
  EXPECT_TRUE(c.settle());
  warp(1s);
  EXPECT_TRUE(c.settle());
  EXPECT_TRUE(c.of_type(11).empty());
  warp(11s);
  warp(1s);
  EXPECT_FALSE(c.await(11).empty()) << "the same count again is no use";
}

// ---- synchronisation and restart

TEST_F(FlowsTest, ASynchronisationHandsEveryFlowOverAgainUnchanged) {
  Message flows;
  for (std::uint32_t i = 1; i <= 50; ++i) append(flows, flow_mod(ipv4_flow(i)));
  apply(flows + message(29, 1, hex("0000 0001 00000005 0001 0010 00000064 00000000 00000000")));
  auto expected = daemon.flows(true);
  const auto meters = daemon.of_type(southbound::kMeterMod);
  daemon.forget();
  ss_of_ds_fetch();
  ASSERT_TRUE(until([this] { return daemon.of_type(southbound::kDsEnd).size() == 1; }));
  auto replayed = daemon.messages();
  replayed.resize(53);
  EXPECT_EQ(to_hex(replayed.front()), "2100040008000100");
  EXPECT_EQ(to_hex(replayed.back()), "2200040008000100");
  EXPECT_EQ(to_hex(replayed[1]), to_hex(meters[0])) << "meters before all flows, which may be many";
  replayed.erase(replayed.begin(), replayed.begin() + 2);
  replayed.resize(50);
  std::sort(replayed.begin(), replayed.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(replayed, expected);
  EXPECT_TRUE(errors().empty());
}

// After a restart of what programs them, flows that do not fit any more get one more chance, and are then reported as removed.
TEST_F(FlowsTest, AnInstalledFlowThatFailsIsAddedOnceMoreAndThenReported) {
  apply(flow_mod(ipv4_flow(1)));
  PlayedDaemon::fail(1, 2);
  ASSERT_TRUE(until([this] { return daemon.flows(true).size() == 2; }));
  EXPECT_EQ(index_of(daemon.flows(true)[1]), 2u);
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(dump().size(), 1u);
  PlayedDaemon::fail(2, 2);
  EXPECT_FALSE(c.await(11).empty());
  EXPECT_TRUE(dump().empty());
  EXPECT_TRUE(errors().empty());
}

class Restart : public FlowsTest {
 protected:
  bool starts_at_once() override { return false; }
  void SetUp() override {
    FlowsTest::SetUp();
    static bool connected;
    connected = false;
    const auto note = [](void *, const char *) {
      connected = true;
      return 0;
    };
    qx_mom_client_connect(global, QX_MOM_UDP_DB, note, "test");
    ASSERT_TRUE(until([] { return connected; }));
  }
  void store(std::uint64_t index, const Message &flow_data) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
    flow.index = &key;
    flow.flow_data = {flow_data.size(), const_cast<std::uint8_t *>(reinterpret_cast<const std::uint8_t *>(flow_data.data()))};
    ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &flow.base, 0, 0), 0);
  }
};

TEST_F(Restart, TakesOverWhatIsStored) {
  // Index 41, cookie 0x77, priority 100, idle 60, table 1: in_port 1 and application type 3; output to 2, by WRITE_ACTIONS.
  const Message stored =
      hex("0a00 0400 5800 0000 2900000000000000 7700000000000000 6400 0000 00 01 02 00 00000000 3c00 0000"
          "0100 1000 04000080 01000000 0402ffff 03000000 00000000"
          "10000000 00000000 0000 1000 02000000 ffff 000000000000");
  store(41, stored);
  store(99, hex("00112233"));
  start();
  come_up(c);
  const auto shown = dump();
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(std::tuple(shown[0].table, shown[0].cookie, shown[0].priority, shown[0].idle), std::tuple(1, 0x77u, 100, 60));
  EXPECT_EQ(shown[0].rest,
            to_hex(hex("0001 000c 80000004 00000001 00000000 0003 0018 00000000 0000 0010 00000002 ffff 000000000000")));
  ss_of_ds_fetch();
  ASSERT_TRUE(until([this] { return daemon.flows(true).size() == 1; }));
  EXPECT_EQ(to_hex(daemon.flows(true)[0]), to_hex(stored)) << "byte for byte";
  apply(flow_mod(ipv4_flow(1)));
  EXPECT_EQ(index_of(daemon.flows(true)[1]), 100u) << "above every index that is stored";
}

// A life that ended in the middle of a change has left both forms.
TEST_F(Restart, TakesOverTheNewestFormOfAFlow) {
  const auto form = [](std::uint8_t index, std::uint8_t out) {
    Message m =
        hex("0a00 0400 5000 0000 0000000000000000 7700000000000000 6400 0000 00 00 02 00 00000000 0000 0000"
            "0100 0800 04000080 01000000 00000000"
            "10000000 00000000 0000 1000 00000000 ffff 000000000000");
    m[8] = std::byte{index};
    m[68] = std::byte{out};
    return m;
  };
  store(41, form(41, 2));
  store(42, form(42, 3));
  start();
  come_up(c);
  EXPECT_EQ(dump().size(), 1u);
  ss_of_ds_fetch();
  ASSERT_TRUE(until([this] { return !daemon.flows(true).empty(); }));
  ASSERT_TRUE(c.settle());
  ASSERT_EQ(daemon.flows(true).size(), 1u);
  EXPECT_EQ(to_hex(daemon.flows(true)[0]), to_hex(form(42, 3)));
}

// ---- statistics

TEST_F(FlowsTest, StatisticsOfManyFlowsComeInPartsWithFreshCounters) {
  constexpr std::uint32_t kFlows = 3000;
  Message flows;
  for (std::uint32_t i = 1; i <= kFlows; ++i) append(flows, flow_mod(ipv4_flow(i)));
  apply(flows);
  for (std::uint64_t i = 1; i <= kFlows; ++i) daemon.count(i, i, 100 * i);
  const auto shown = dump();
  ASSERT_EQ(shown.size(), kFlows);
  std::uint64_t packets = 0;
  for (const Shown &s : shown) {
    EXPECT_EQ(s.bytes, 100 * s.packets);
    packets += s.packets;
  }
  EXPECT_EQ(packets, std::uint64_t{kFlows} * (kFlows + 1) / 2);
  EXPECT_GT(c.of_type(19).size(), 4u) << "300 KB in parts below 64 KB";
  const Message aggregate = c.ask(dump_request(5, 0xff, {}, 0xffffffff, 0, 0, 2));
  EXPECT_EQ(std::tuple(get(aggregate, 16, 8), get(aggregate, 24, 8), get(aggregate, 32, 4)),
            std::tuple(packets, 100 * packets, kFlows));
}

// What the daemon says of a flow's total wins over the sum of its changes, which comes later, and no counter goes back.
TEST_F(FlowsTest, CountersNeverGoBackAndCountNothingTwice) {
  apply(flow_mod(ipv4_flow(1)));
  PlayedDaemon::report(1, 5, 500);
  daemon.count(1, 8, 800);
  EXPECT_EQ(dump()[0].packets, 8u);
  PlayedDaemon::report(1, 3, 300);
  EXPECT_EQ(dump()[0].packets, 8u) << "these three were in the total";
  PlayedDaemon::report(1, 2, 200);
  EXPECT_EQ(dump()[0].packets, 10u);
}

TEST_F(FlowsTest, StatisticsAreAnsweredAlsoWhenTheDaemonGivesNone) {
  apply(flow_mod(ipv4_flow(1)));
  daemon.hold_barriers(true);
  c.forget();
  c.send(dump_request(5));
  ASSERT_TRUE(until([this] { return daemon.of_type(southbound::kStatRequest).size() == 1; }));
  EXPECT_FALSE(c.await(19).empty());
}

TEST_F(FlowsTest, StatisticsLookAtTheirFilter) {
  FlowMod second = ipv4_flow(0x0b000001);
  second.table = 1, second.cookie = 0x22, second.instructions = of_wire::apply(output(7));
  apply(flow_mod(ipv4_flow(0x0a000001)) + flow_mod(second));
  EXPECT_EQ(dump(dump_request(1, 0)).size(), 1u);
  EXPECT_EQ(dump(dump_request(2, 1)).size(), 1u);
  EXPECT_EQ(dump(dump_request(3, 0xff, {}, 7)).size(), 1u);
  EXPECT_EQ(dump(dump_request(4, 0xff, {}, 0xffffffff, 0x20, 0xf0)).size(), 1u);
  EXPECT_EQ(dump(dump_request(5, 0xff, hex("80000a020800 80001908 0a000000 ff000000"))).size(), 1u);
  EXPECT_EQ(dump(dump_request(6, 0xff, hex("80000a0286dd"))).size(), 0u);
}

}  // namespace
