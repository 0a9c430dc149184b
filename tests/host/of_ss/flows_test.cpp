// The life of flows in the OpenFlow agent: hand-over, results, barriers, changes, deletes, timeouts, synchronisation, statistics.
#include <random>
#include <set>

#include "host/of_ss/agent_world.h"
#include "host/of_ss/desired/flow_mod.h"
#include "host/of_ss/desired/flow_table.h"

namespace {

using namespace of_world;
using AgentFlows = AgentTest;

FlowMod with_output(FlowMod f, std::uint32_t port) {
  f.instructions = of_wire::apply(output(port));
  return f;
}
FlowMod strict_delete(std::uint32_t destination) {
  FlowMod f = ipv4_flow(destination);
  f.command = 4;
  return f;
}

// ---- what a request becomes, and how it is shown

// What people read, what comes on the wire, and what the daemon reads, in host order, little-endian. A full mask is exact, and an
// empty one left out; VLAN ids lose OFPVID_PRESENT.
struct Reading {
  const char *text, *wire, *slots;
  std::uint8_t table = 0;
};
const Reading kMatches[] = {
    {"in_port=1,eth_dst=01:02:03:04:05:06,eth_src=0a:00:00:00:00:00/ff:00:00:00:00:00,eth_type=0x0806",
     "80000004 00000001 80000606 010203040506 8000090c 0a0000000000 ff0000000000 80000a02 0806",
     "04000080 01000000 06060080 010203040506 000000000000 0c090080 0a0000000000 ff0000000000 020a0080 06080000"},
    {"eth_dst=01:02:03:00:00:00/ff:ff:ff:00:00:00,eth_src=0a:0b:0c:0d:0e:0f,vlan_vid=96/0xff0",
     "8000070c 010203000000 ffffff000000 80000806 0a0b0c0d0e0f 80000d04 1060 1ff0",
     "0c070080 010203000000 ffffff000000 06080080 0a0b0c0d0e0f 000000000000 040d0080 6000f00f"},
    {"vlan_vid=0", "80000d04 1000 1fff", "020c0080 00000000"},
    {"eth_type=0x0800,ip_dscp=63,ipv4_src=10.0.0.1,ipv4_dst=192.168.0.0/16",
     "80000a020800 800010013f 80001604 0a000001 80001908 c0a80000 ffff0000",
     "020a0080 00080000 01100080 3f000000 04160080 0100000a 08190080 0000a8c0 0000ffff 00000000"},
    {"eth_type=0x0800,ipv4_src=10.0.0.1/255.0.0.255,ipv4_dst=10.0.0.2",
     "80000a020800 80001708 0a000001 ff0000ff 80001908 0a000002 ffffffff",
     "020a0080 00080000 08170080 0100000a ff0000ff 00000000 04180080 0200000a"},
    {"in_port=7,eth_type=0x0800,ip_proto=6,tcp_src=80,tcp_dst=8080",
     "80001c021f90 80001a020050 8000140106 80000a020800 80000004 00000007 80001708 00000000 00000000",
     "04000080 07000000 020a0080 00080000 01140080 06000000 021a0080 50000000 021c0080 901f0000"},
    {"eth_type=0x86dd,ipv6_src=2001:db8::1,ipv6_dst=2001:db8::/ffff:ffff::,ipv6_exthdr=0x0001/0x003",
     "80000a0286dd 80003410 20010db8000000000000000000000001 80003720 20010db8000000000000000000000000"
     "ffffffff000000000000000000000000 80004f04 0001 0003",
     "020a0080 dd860000 10340080 20010db8000000000000000000000001 00000000 20370080 20010db8000000000000000000000000"
     "ffffffff000000000000000000000000 00000000 044f0080 01000300"},
    {"app_type=3", "ffff0208 004b454c 00000003", "0402ffff 03000000"},
    {"app_type=3", "", "0402ffff 03000000", 1},
    {"in_port=1,app_type=3", "ffff0208 004b454c 00000003 80000004 00000001", "04000080 01000000 0402ffff 03000000", 1},
};
const Reading kActions[] = {
    {"drop", "0004 0008 00000000", "00000000 00000000"},
    {"output:CONTROLLER:128", "0004 0018 00000000 0000 0010 fffffffd 0080 000000000000",
     "10000000 00000000 0000 1000 fdffffff 8000 000000000000"},
    {"set_queue:8,output:7", "0004 0020 00000000 0015 0008 00000008 0000 0010 00000007 ffff 000000000000",
     "18000000 00000000 1500 0800 08000000 0000 1000 07000000 ffff 000000000000"},
    {"set_field:01:02:03:04:05:06->eth_dst,set_field:5->vlan_vid,set_field:46->ip_dscp,output:NORMAL",
     "0004 0048 00000000 0019 0010 80000606 010203040506 0000 0019 0010 80000c02 1005 000000000000"
     "0019 0010 80001001 2e 00000000000000 0000 0010 fffffffa ffff 000000000000",
     "40000000 00000000 1900 1000 06060080 010203040506 0000 1900 1000 020c0080 0500 000000000000"
     "1900 1000 01100080 2e 00000000000000 0000 1000 faffffff ffff 000000000000"},
    // APPLY_ACTIONS come before WRITE_ACTIONS, of which the output acts last.
    {"set_field:3->vlan_pcp,set_field:0a:0b:0c:0d:0e:0f->eth_src,output:2",
     "0003 0028 00000000 0000 0010 00000002 ffff 000000000000 0019 0010 80000806 0a0b0c0d0e0f 0000"
     "0005 0008 00000000 0004 0018 00000000 0019 0010 80000e01 03 00000000000000",
     "30000000 00000000 1900 1000 010e0080 03 00000000000000 1900 1000 06080080 0a0b0c0d0e0f 0000"
     "0000 1000 02000000 ffff 000000000000"},
};

// When a southbound flow was created.
std::time_t stamp_of(const Message &made) {
  return southbound::get<std::uint32_t>(made.data(), host::of_ss::created_offset(made));
}
void set_stamp(Message &made, std::time_t stamp) {
  southbound::put(made.data(), host::of_ss::created_offset(made), static_cast<std::uint32_t>(stamp));
}

class Readings : public AgentTest {
 protected:
  // What the flow is handed over as. What is shown of it is the same flow.
  Message handed_over(const FlowMod &f) {
    daemon.forget();
    const std::time_t now = std::time(nullptr);
    apply(flow_mod(f));
    const Message shown = dump().at(0);
    const auto match = shown.begin() + 48, end = match + static_cast<int>(get(shown, 50, 2)),
               aligned = match + (end - match + 7) / 8 * 8;
    FlowMod again = f;
    again.fields = {match + 4, end}, again.instructions = {aligned, shown.end()};
    EXPECT_EQ(again.instructions.size(), f.instructions.size());
    apply(flow_mod(again) + flow_mod(everything()));
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(daemon.flows(true).size(), f.hard ? 2u : 1u) << "a hard timeout begins anew";
    Message made = daemon.flows(true).at(0);
    EXPECT_GE(stamp_of(made), now - 1);
    EXPECT_LE(stamp_of(made), now + 60);
    set_stamp(made, 0);
    return made;
  }
};

TEST_F(Readings, OfAFlow) {
  for (const Reading &r : kMatches) {
    SCOPED_TRACE(r.text);
    const Message made = handed_over({.table = r.table, .fields = hex(r.wire)}), slots = hex(r.slots);
    EXPECT_EQ(to_hex(std::span(made).subspan(42)), to_hex(pack({{slots.size() << 8, 2}}) + slots + Message(4 + 8)));
    EXPECT_EQ(host::of_ss::match_text(host::of_ss::southbound_match(made)), r.text);
  }
  for (const Reading &r : kActions) {
    SCOPED_TRACE(r.text);
    const Message made = handed_over({.fields = hex("80000a020800 80000c021064"), .instructions = hex(r.wire)});
    EXPECT_EQ(to_hex(std::span(made).subspan(64)), to_hex(hex(r.slots)));
    EXPECT_EQ(host::of_ss::actions_text(made), r.text);
  }
  apply(message(29, 1, hex("0000 0001 00000009")));
  FlowMod f = ipv4_flow(0x0a000001);
  f.priority = 0x1234, f.cookie = 0x0102030405060708, f.idle = 30, f.hard = 600, f.flags = 1;
  f.instructions = hex("00060008 00000009") + f.instructions;
  Message made = handed_over(f);
  made[8] = std::byte{};
  // Type 10, version 4, length 96, table property 0; its index; cookie; priority, flags, add, table 0, apply with one action;
  // meter, timeouts; match of 24 bytes; 16 bytes of actions.
  EXPECT_EQ(to_hex(made),
            to_hex(hex("0a00 0400 6000 0000 0000000000000000 0807060504030201 3412 0100 00 00 01 01 09000000 1e00 5802"
                       "0100 1800 04000080 01000000 020a0080 00080000 04180080 0100000a 00000000"
                       "10000000 00000000 0000 1000 02000000 ffff 000000000000")));
}

// ---- hand-over, barriers, late errors

TEST_F(AgentFlows, ABarrierWaitsForWhatWasHandedOverBeforeIt) {
  apply(flow_mod(ipv4_flow(3)));
  daemon.forget();
  const auto barriers = [this] { return c.of_type(21).size(); };
  hand_over(flow_mod(ipv4_flow(1, 10)) + barrier(11) + flow_mod(ipv4_flow(2, 12)) + barrier(13), 2);
  EXPECT_EQ(index_of(daemon.flows(true)[0]), 2u);
  EXPECT_EQ(index_of(daemon.flows(true)[1]), 3u);
  EXPECT_FALSE(c.ask(message(2, 99)).empty()) << "an echo is answered meanwhile";
  EXPECT_EQ(barriers(), 0u);
  // The controller's barriers carry its connection's number, its transaction and its address; ours come from connection 255.
  Message tags;
  for (const Message &b : daemon.of_type(southbound::kBarrierRequest))
    if (southbound::get<std::uint8_t>(b.data(), 8) != 255) tags = tags + b;
  EXPECT_EQ(to_hex(tags), to_hex(hex("1f00 0400 1800 0100 00 00000000000000 0b000000 7f000001"
                                     "1f00 0400 1800 0100 00 00000000000000 0d000000 7f000001")));
  daemon.answer_barriers();
  EXPECT_EQ(get(c.await(21, 1), 4, 4), 11u);
  EXPECT_EQ(get(c.await(21, 2), 4, 4), 13u);
  EXPECT_EQ(barriers(), 2u);
  // A delete is waited for too.
  daemon.hold_barriers(true);
  c.send(flow_mod(strict_delete(3)) + barrier(14));
  ASSERT_TRUE(until([this] { return deleted() == std::vector<std::uint64_t>{1}; }));
  EXPECT_FALSE(c.ask(message(2, 99)).empty());
  EXPECT_EQ(barriers(), 0u);
  daemon.answer_barriers();
  EXPECT_EQ(get(c.await(21), 4, 4), 14u);
}

TEST_F(AgentFlows, AReplyGoesToTheConnectionThatAskedNotToItsNumber) {
  daemon.hold_barriers(true);
  {
    Controller gone(port);
    gone.send(hello() + flow_mod(ipv4_flow(1, 50)) + barrier(51));
    ASSERT_TRUE(until([this] { return daemon.flows(true).size() == 1; }));
  }
  // Its end was there before these requests.
  for (int turns = 0; turns < 2; ++turns) EXPECT_FALSE(c.ask(message(2, 99)).empty());
  Controller next;
  come_up(next);
  PlayedDaemon::fail(1, 2);
  daemon.answer_barriers();
  EXPECT_TRUE(next.settle());
  EXPECT_TRUE(next.received().empty()) << "nothing but the answer to its own barrier";
}

// What a change leaves as it is asks for no answer, and takes none from the request before.
TEST_F(AgentFlows, AChangeOfManyFlowsFailsOnceAndByItself) {
  Message three;
  for (const std::uint32_t number : {1, 2, 3}) {
    FlowMod f = with_output(ipv4_flow(number), number == 3 ? 7 : 2);
    f.cookie = 0x10;
    append(three, flow_mod(f));
  }
  apply(three);
  FlowMod change = with_output(everything(1), 7);
  change.table = 0, change.xid = 71, change.cookie = 0x10, change.cookie_mask = 0xff;
  hand_over(flow_mod(ipv4_flow(4, 70)) + flow_mod(change) + barrier(72), 6);
  for (const std::uint64_t index : {6, 5, 4}) PlayedDaemon::fail(index, 2);
  daemon.answer_barriers();
  c.await(21);
  EXPECT_EQ(errors(), (Strings{"OFPFMFC_UNKNOWN 71", "OFPFMFC_UNKNOWN 70"}));
  const auto left = dump();
  ASSERT_EQ(left.size(), 3u) << "the old forms stay in force";
  EXPECT_EQ(std::count_if(left.begin(), left.end(), [](const Message &m) { return output_of(m) == 2; }), 2);
}

class InPieces : public AgentTest {
 protected:
  void fill() {
    Message burst;
    for (std::uint32_t i = 0; i < kFlows; ++i) append(burst, flow_mod(ipv4_flow(i)));
    apply(burst);
    daemon.forget();
  }
  // Waits for a barrier reply; as many messages as the daemon got at most between two turns of its loop are not very many.
  void expect_pieces() {
    std::size_t seen = 0, longest = 0;
    EXPECT_TRUE(until([&] {
      const std::size_t now = daemon.messages().size();
      longest = std::max(longest, now - std::exchange(seen, now));
      return !c.of_type(21).empty();
    }));
    if (host::config().openflow.prompt) {
      EXPECT_LT(longest, 2000u);  // otherwise as much as fits a period of 50 ms
    }
  }
  static constexpr std::uint32_t kFlows = 3'500;
};

// A controller's request waits for the end of a replay, which stands behind the last flow.
TEST_F(InPieces, AReplayOfVeryManyFlowsIsHandedOver) {
  fill();
  ss_of_ds_fetch();
  ASSERT_TRUE(until([this] { return !daemon.of_type(southbound::kDsStart).empty(); }));
  ASSERT_TRUE(c.send(flow_mod(ipv4_flow(kFlows)) + barrier(70)));
  expect_pieces();
  const auto told = daemon.messages();
  const auto end = std::ranges::find(told, std::byte{southbound::kDsEnd}, [](const Message &m) { return m[0]; });
  EXPECT_EQ(std::count_if(told.begin(), end, PlayedDaemon::is_add), kFlows);
  EXPECT_EQ(std::count_if(end, told.end(), PlayedDaemon::is_add), 1);
}

// The daemon's loop turns between the pieces of a delete of very many flows, and what comes after it waits for the last of them.
TEST_F(InPieces, ADeleteOfVeryManyFlowsIsHandedOver) {
  FlowMod by_match = everything();
  by_match.fields = hex("80000a020800");
  for (const FlowMod &filter : {everything(), by_match}) {
    fill();
    ASSERT_TRUE(c.send(flow_mod(filter) + flow_mod(ipv4_flow(1)) + barrier(70)));
    expect_pieces();
    const auto told = daemon.messages();
    const auto add = std::ranges::find_if(told, PlayedDaemon::is_add);
    EXPECT_GE(add - told.begin(), kFlows);
    EXPECT_EQ(deleted().size(), kFlows);
    EXPECT_EQ(dump().size(), 1u);
    c.forget();
    apply(flow_mod(everything()));
  }
}

TEST_F(AgentFlows, MoreThanTheWindowWaitsAndIsNotLost) {
  constexpr std::uint32_t kFlows = 80'000;
  host::clock::stop();  // however long it takes, nothing is given up
  Message burst;
  for (std::uint32_t i = 0; i < kFlows; ++i) append(burst, flow_mod(ipv4_flow(i, i)));
  daemon.hold_barriers(true);
  c.send(burst, 0ms);
  ASSERT_TRUE(until([&] { return c.send_more(), daemon.adds() >= 65'536; }));
  for (int turns = 0; turns < 10; ++turns) host::of_ss::run_timers(), c.send_more();
  EXPECT_EQ(daemon.adds(), 65'536u) << "no more while nothing is decided";
  daemon.answer_barriers();
  EXPECT_TRUE(c.send({}));
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(daemon.adds(), kFlows);
}

// What a controller has under way is bounded, and what is left of controllers that came and went as well.
TEST_F(AgentFlows, BarriersWithoutEndAreNotTakenWithoutEnd) {
  const auto under_way = [this](std::size_t most) {
    const auto count = [this] { return daemon.seen(southbound::kBarrierRequest); };
    until([&] { return count() >= most; });
    host::of_ss::run_timers();
    return count();
  };
  host::clock::stop();  // however long it takes, nothing is given up
  hand_over(flow_mod(ipv4_flow(1)), 1);
  ASSERT_EQ(under_way(1), 1u) << "the agent's own";
  Message flood;
  for (std::uint32_t xid = 1; xid <= 5000; ++xid) append(flood, barrier(xid));
  ASSERT_TRUE(c.send(flood + message(2, 0xecc0)));
  ASSERT_EQ(under_way(4097), 4097u);
  EXPECT_FALSE(c.await(3).empty()) << "an echo request goes ahead of all that waits";
  for (std::size_t round = 2; round <= 20; ++round) {
    Controller other(port);
    ASSERT_TRUE(other.send(hello() + flood));
    const std::size_t most = std::min<std::size_t>(4096 * round + 1, 65536);
    ASSERT_EQ(under_way(most), most) << round;
  }
  daemon.answer_barriers();
  ASSERT_FALSE(c.await(21, 5000).empty());
  std::uint32_t xid = 0;
  for (const Message &reply : c.of_type(21)) EXPECT_EQ(get(reply, 4, 4), ++xid);
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(c.of_type(3).size(), 1u) << "and is answered once";
}

// ---- changes

// A changed flow gets a new index first, and the old one goes when the new one is in.
TEST_F(AgentFlows, AChangeThatFailsLeavesTheOldFlowAndOneThatSucceedsReplacesIt) {
  apply(flow_mod(ipv4_flow(1)));
  report(1, 10, 1000);
  const Message change = flow_mod(with_output(ipv4_flow(1, 30), 7));
  hand_over(change, 2);
  PlayedDaemon::fail(2, 1);
  daemon.answer_barriers();
  ASSERT_TRUE(c.settle());
  EXPECT_EQ(errors(), Strings{"OFPFMFC_TABLE_FULL 30"});
  EXPECT_EQ(std::pair(output_of(dump().at(0)), packets_of(dump().at(0))), std::pair(2ul, 10ul));
  hand_over(change, 3);
  EXPECT_TRUE(deleted().empty());
  daemon.answer_barriers();
  ASSERT_TRUE(c.settle());
  EXPECT_EQ(deleted(), std::vector<std::uint64_t>{1});
  // Changes faster than decisions: every form but the last goes.
  Message burst;
  for (const std::uint32_t out : {1, 2, 7, 2, 7}) append(burst, flow_mod(with_output(ipv4_flow(1), out)));
  hand_over(burst, 8);
  daemon.answer_barriers();
  ASSERT_TRUE(c.settle());
  EXPECT_EQ(deleted(), (std::vector<std::uint64_t>{1, 3, 4, 5, 6, 7}));
  ASSERT_EQ(dump().size(), 1u);
  EXPECT_EQ(output_of(dump()[0]), 7u);
  // A delete takes every form, decided or not.
  hand_over(flow_mod(with_output(ipv4_flow(1), 1)) + flow_mod(with_output(ipv4_flow(1), 2)) + flow_mod(strict_delete(1)), 10);
  ASSERT_TRUE(until([this] { return deleted().size() >= 9; }));
  EXPECT_TRUE(dump().empty());
}

// A full table has no room for two forms of a flow: the old one goes first, and is put back, once, when the new one fails.
TEST_F(AgentFlows, AChangeInAFullTableIsMadeInPlace) {
  PlayedDaemon::capacity(2);
  FlowMod kept = ipv4_flow(1), m = with_output(ipv4_flow(1, 30), 7);
  kept.flags = 1, m.command = 2;
  apply(flow_mod(kept) + flow_mod(ipv4_flow(2)));
  for (const std::uint64_t index : {3, 5}) {
    daemon.forget();
    hand_over(index == 3 ? flow_mod(m) : flow_mod(with_output(ipv4_flow(1, 30), 7)), 1);
    const auto mods = daemon.of_type(southbound::kFlowMod);
    ASSERT_EQ(mods.size(), 2u);
    EXPECT_EQ(std::pair(index_of(mods[0]), mods[0][southbound::kFlowCommand]), std::pair(index == 3 ? 1 : 4ul, std::byte{1}));
    EXPECT_EQ(index_of(mods[1]), index);
    c.forget();
    PlayedDaemon::fail(index, 1);
    ASSERT_TRUE(until([this] { return daemon.flows(true).size() == 2; }));
    daemon.answer_barriers();
    ASSERT_TRUE(c.settle());
    EXPECT_EQ(errors(), Strings{"OFPFMFC_TABLE_FULL 30"});
    EXPECT_TRUE(c.of_type(11).empty());
    EXPECT_EQ(std::pair(output_of(daemon.flows(true)[1]), index_of(daemon.flows(true)[1])), std::pair(0x02000000ul, index + 1));
    EXPECT_EQ(dump().size(), 2u);
  }
  daemon.forget();
  apply(flow_mod(m));
  EXPECT_EQ(deleted(), std::vector<std::uint64_t>{6}) << "told once";
  hand_over(flow_mod(with_output(m, 1)), 2);
  PlayedDaemon::fail(8, 1);
  ASSERT_TRUE(until([this] { return daemon.flows(true).size() == 3; }));
  PlayedDaemon::fail(9, 1);
  EXPECT_FALSE(c.await(11).empty()) << "neither form fits any more";
  daemon.answer_barriers();
  EXPECT_EQ(dump().size(), 1u);
}

// An add does not look at the filters of a delete.
TEST_F(AgentFlows, TheSameFlowAgainIsNotHandedOverAgain) {
  FlowMod f = ipv4_flow(1);
  f.out_port = 0, f.out_group = 0, f.cookie_mask = 0xff;
  apply(flow_mod(f));
  report(1, 10, 1000);
  apply(flow_mod(f));
  EXPECT_EQ(packets_of(dump()[0]), 10u);
  f.flags = 4;
  apply(flow_mod(f));
  EXPECT_EQ(packets_of(dump()[0]), 0u) << "RESET_COUNTS";
  EXPECT_EQ(daemon.flows(true).size(), 1u);
  f.cookie = 5;
  apply(flow_mod(f));
  EXPECT_EQ(daemon.flows(true).size(), 2u) << "what is stored of the flow has changed";
  EXPECT_EQ(dump().size(), 1u);
}

TEST_F(AgentFlows, AModifyChangesTheActionsAndNothingElse) {
  FlowMod f = ipv4_flow(1);
  f.cookie = 9, f.idle = 30, f.hard = 40, f.priority = 7;
  apply(flow_mod(f));
  report(1, 10, 1000);
  FlowMod m = with_output({}, 7);
  m.command = 1, m.cookie = 77, m.idle = 1, m.hard = 1, m.priority = 8;
  apply(flow_mod(m));
  const auto left = dump();
  ASSERT_EQ(left.size(), 1u);
  // Priority, timeouts, no flags; cookie, packets.
  EXPECT_EQ(to_hex(left[0]).substr(24, 56), to_hex(hex("0007 001e 0028 0000 00000000 0000000000000009 000000000000000a")));
  EXPECT_EQ(output_of(left[0]), 7u);
  // A strict one looks at the priority; one that finds nothing does nothing.
  m = with_output(m, 1);
  m.command = 2, m.fields = f.fields;
  apply(flow_mod(m));
  EXPECT_EQ(output_of(dump()[0]), 7u);
  m.priority = 7;
  apply(flow_mod(m));
  EXPECT_EQ(output_of(dump()[0]), 1u);
  EXPECT_TRUE(errors().empty());
}

TEST_F(AgentFlows, DeletingEverythingWhileFlowsAreOutstandingAnswersEveryBarrier) {
  hand_over(flow_mod(ipv4_flow(1)) + barrier(1) + flow_mod(ipv4_flow(2)) + flow_mod(everything()) + barrier(2), 2);
  ASSERT_TRUE(until([this] { return !daemon.told(PlayedDaemon::kDelAllFlows).empty(); }));
  EXPECT_TRUE(c.of_type(21).empty());
  daemon.answer_barriers();
  EXPECT_EQ(get(c.await(21, 2), 4, 4), 2u);
  EXPECT_TRUE(deleted().empty()) << "one request takes them all";
  EXPECT_TRUE(dump().empty());
}

TEST_F(AgentFlows, ARefusedFlowTellsTheMeterTheOverlapAndTheRoom) {
  PlayedDaemon::capacity(2);
  FlowMod metered = ipv4_flow(1, 40);
  metered.instructions = hex("00060008 00000005") + metered.instructions;
  EXPECT_EQ(error_of(c.ask(flow_mod(metered))), "OFPMMFC_UNKNOWN_METER");
  apply(flow_mod(ipv4_flow(1)));
  FlowMod other = with_output({}, 7);
  other.flags = 2;
  for (const char *overlaps : {"80000a020800", "80000606 010203040506", "80000a020800 80001908 00000000 ff000000"}) {
    other.fields = hex(overlaps);
    EXPECT_EQ(error_of(c.ask(flow_mod(other))), "OFPFMFC_OVERLAP") << overlaps;
  }
  c.forget();
  other.fields = hex("80000a020800 80001908 01000000 ff000000");
  apply(flow_mod(other));
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(error_of(c.ask(flow_mod(ipv4_flow(3)))), "OFPFMFC_TABLE_FULL") << "the table is as large as the daemon says";
  c.forget();
  apply(flow_mod(with_output(ipv4_flow(1), 7)));
  EXPECT_TRUE(errors().empty()) << "a change needs no further room";
  EXPECT_EQ(dump().size(), 2u);
}

// ---- deletes

TEST_F(AgentFlows, DeletesTakeWhatTheySayAndStatisticsShowIt) {
  FlowMod one = with_output(ipv4_flow(0x0a000001), 1), two = with_output(ipv4_flow(0x0a000002), 7), net = ipv4_flow(0),
          four = one;
  one.cookie = 0x11, two.cookie = 0x12, net.cookie = 0x21, four.cookie = 0x31, four.table = 1;
  net.fields = hex("80000004 00000001 80000a020800 80001908 0b000000 ff000000");
  const Message ip = hex("80000a020800"), network = ip + hex("80001908 0a000000 ff000000"), unread = hex("0001 0008 01000000");
  const struct {
    const char *label;
    FlowMod filter;
    std::set<std::uint64_t> left;
  } cases[] = {
      {"all of table 0", {.command = 3}, {4}},
      {"all of table 1", {.command = 3, .table = 1}, {1, 2, 3}},
      {"by match", {.command = 3, .table = 255, .buffer = 0, .fields = network, .instructions = unread}, {3}},
      {"by a narrower match", {.command = 3, .table = 255, .fields = ipv4_flow(0x0b000000).fields}, {1, 2, 3, 4}},
      {"by a field that they lack", {.command = 3, .table = 255, .fields = hex("80000606 010203040506")}, {1, 2, 3, 4}},
      {"by cookie", {.command = 3, .table = 255, .cookie = 0x10, .cookie_mask = 0xf0}, {3, 4}},
      {"by output", {.command = 3, .table = 255, .out_port = 7}, {1, 3, 4}},
      {"by group", {.command = 3, .table = 255, .out_group = 1}, {1, 2, 3, 4}},
      {"strictly", {.command = 4, .fields = one.fields}, {2, 3, 4}},
      {"strictly with another priority", {.command = 4, .priority = 5, .fields = one.fields}, {1, 2, 3, 4}},
      {"strictly with a wider match", {.command = 4, .fields = ip}, {1, 2, 3, 4}},
      {"strictly in table 1", {.command = 4, .table = 1, .fields = one.fields}, {1, 2, 3}},
      {"strictly in all tables", {.command = 4, .table = 255, .fields = one.fields}, {2, 3}},
  };
  std::uint64_t before = 0;
  for (const auto &d : cases) {
    SCOPED_TRACE(d.label);
    daemon.forget();
    apply(flow_mod(one) + flow_mod(two) + flow_mod(net) + flow_mod(four));
    EXPECT_TRUE(d.filter.command == 4 || dump(dump_request(1, d.filter)).size() == 4 - d.left.size());
    apply(flow_mod(d.filter));
    std::set<std::uint64_t> left{1, 2, 3, 4};
    for (const std::uint64_t index : deleted()) left.erase(index - before);
    EXPECT_EQ(left, d.left);
    EXPECT_EQ(dump().size(), left.size());
    EXPECT_EQ(daemon.told(PlayedDaemon::kDelAllFlows), "");
    before += 4;
    apply(flow_mod(everything()));
    EXPECT_NE(daemon.told(PlayedDaemon::kDelAllFlows), "");
    EXPECT_TRUE(dump().empty());
  }
}

// Many flows of many kinds: what a delete takes is what a dump of the same, which looks at every flow, shows; and an add that
// looks for overlaps finds what a look at every flow finds.
TEST_F(AgentFlows, WhatIsLookedUpIsWhatAWalkFinds) {
  std::minstd_rand dice(1);
  const auto one_of = [&dice](const auto &list) { return std::data(list)[dice() % std::size(list)]; };
  constexpr std::uint64_t kMasks[] = {0, 0, 1, ~0ull};
  constexpr std::uint32_t kOutputs[] = {1, 2, 7, 0xffffffff};
  constexpr std::uint8_t kTables[] = {0, 0, 1, 255};
  const auto random_match = [&] {
    const std::string net = to_hex(be(0x0a000000u + static_cast<std::uint32_t>(dice() % 8) * 4));
    const std::string kinds[] = {"", "80001804" + net, "80001908" + net + "fffffffc", "80001908 0a000000 ff000000"};
    return hex(one_of(std::vector<const char *>{"", "80000004 00000001", "80000004 00000002"})) +
           hex("80000a020800" + one_of(kinds));
  };
  std::vector<Message> accepted;
  for (int n = 0; n < 400; ++n) {
    FlowMod f = with_output({.table = static_cast<std::uint8_t>(dice() % 2)}, kOutputs[dice() % 3]);
    f.xid = 1 + n, f.fields = random_match(), f.priority = dice() % 3, f.cookie = dice() % 5, f.flags = n % 2 * 2;
    daemon.forget();
    const bool refused = !error_of(c.ask(flow_mod(f) + message(20, f.xid))).empty();
    f.flags = 0;
    host::of_ss::FlowMod read;
    const std::uint32_t ports[] = {1, 2, 7};
    decode_flow_mod(flow_mod(f), {ports}, read);
    const bool overlaps = std::ranges::any_of(accepted, [&read](const Message &other) {
      return other[southbound::kFlowTableId] == read.message[southbound::kFlowTableId] &&
             !memcmp(&other[southbound::kFlowPriority], read.message + southbound::kFlowPriority, 2) &&
             host::of_ss::matches_overlap(host::of_ss::southbound_match(other), host::of_ss::southbound_match(read.southbound()));
    });
    ASSERT_EQ(refused, n % 2 && overlaps) << n;
    if (!refused) accepted.emplace_back(read.message, read.message + read.length);
  }
  for (int n = 0; n < 60; ++n) {
    FlowMod filter{.command = 3,
                   .table = one_of(kTables),
                   .cookie = dice() % 5,
                   .cookie_mask = one_of(kMasks),
                   .out_port = one_of(kOutputs),
                   .fields = random_match()};
    if (filter.out_port == 7) filter.fields.clear();
    filter.cookie &= filter.cookie_mask;
    const auto ids = [this](const FlowMod &of) {
      std::multiset<std::string> found;
      for (const Message &m : dump(dump_request(0xd0, of)))
        found.insert(to_hex(Message(m.begin(), m.begin() + 4) + Message(m.begin() + 12, m.end())));
      return found;
    };
    auto left = ids(everything());
    for (const std::string &taken : ids(filter)) left.erase(left.find(taken));
    apply(flow_mod(filter));
    ASSERT_EQ(ids(everything()), left) << n;
    if (n % 20 == 19)
      for (int i = 0; i < 100; ++i) {
        FlowMod f = with_output({.table = static_cast<std::uint8_t>(dice() % 2)}, kOutputs[dice() % 3]);
        f.fields = random_match(), f.priority = dice() % 3, f.cookie = dice() % 5;
        apply(flow_mod(f));
      }
  }
}

// Asynchronous messages go to whom the masks say, and to nobody before the answer to its first request, whichever.
TEST_F(AgentFlows, AFlowsEndIsReportedToThoseWhoWantToHearOfIt) {
  Controller slave, shy(port);
  come_up(slave);
  slave.ask(message(24, 1, hex("00000003 00000000 0000000000000001")));
  ASSERT_TRUE(shy.send(hello()));
  FlowMod f = ipv4_flow(0x0a000001);
  f.flags = 1, f.cookie = 0xc0, f.idle = 5, f.hard = 6, f.priority = 9;
  const auto reports = [&] {
    apply(flow_mod(f) + flow_mod(ipv4_flow(2)));
    report(index_of(daemon.flows(true).back()) - 1, 3, 300);
    apply(flow_mod(everything()));
    EXPECT_TRUE(slave.settle());
    shy.ask(message(2, 2));  // an echo is no request
    return std::tuple(c.of_type(11).size(), slave.of_type(11).size(), shy.of_type(11).size());
  };
  EXPECT_EQ(reports(), std::tuple(1u, 0u, 0u));
  // Cookie, priority, a deletion, table 0; timeouts, counters, match.
  const std::string text = to_hex(c.await(11));
  EXPECT_EQ(text.substr(16, 24) + text.substr(56), to_hex(hex("00000000000000c0 0009 02 00 0005 0006"
                                                              "0000000000000003 000000000000012c") +
                                                          match(f.fields)));
  // FLOW_REMOVED for a deletion: no more as equal, from now on as slave.
  c.send(message(28, 2, hex("00000007 00000000 00000007 00000007 0000000b 00000000")));
  slave.send(message(28, 2, hex("00000007 00000000 00000007 00000007 00000000 00000004")));
  EXPECT_TRUE(slave.settle());
  EXPECT_EQ(reports(), std::tuple(1u, 1u, 0u));
  shy.ask(message(7, 3));
  EXPECT_EQ(reports(), std::tuple(1u, 2u, 1u));
}

// ---- time

// Of the adds that no barrier has told of, those that the database knows to be installed are not given up.
TEST_F(AgentFlows, AnUndecidedAddIsGivenUpAndNothingWaitsForEver) {
  store_answer(2);
  hand_over(flow_mod(ipv4_flow(1, 70)) + flow_mod(ipv4_flow(2, 71)) + flow_mod(ipv4_flow(3, 72)) + barrier(73), 3);
  warp(1900ms);
  EXPECT_FALSE(c.ask(message(2, 2)).empty());
  EXPECT_TRUE(errors().empty());
  warp(200ms);
  c.await(1, 2);
  EXPECT_EQ(deleted(), (std::vector<std::uint64_t>{1, 3})) << "the daemon is told to forget them";
  EXPECT_TRUE(c.of_type(21).empty());
  host::clock::resume();
  EXPECT_TRUE(until([this] { return daemon.of_type(southbound::kBarrierRequest).size() == 3; }))
      << "a barrier of the agent's own nudges the daemon";
  daemon.answer_barriers();
  EXPECT_EQ(get(c.await(21), 4, 4), 73u);
  PlayedDaemon::fail(1, 2);
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(errors(), (Strings{"OFPFMFC_UNKNOWN 70", "OFPFMFC_UNKNOWN 72"})) << "a late result is not reported again";
  EXPECT_EQ(dump().size(), 1u);
}

TEST_F(AgentFlows, ALostBarrierIsAnsweredInTheEnd) {
  apply(flow_mod(ipv4_flow(1)));
  daemon.hold_barriers(true);
  c.send(flow_mod(strict_delete(1)) + barrier(72));
  ASSERT_TRUE(until([this] { return daemon.flows(false).size() == 1; }));
  warp(100ms);
  warp(2100ms);
  EXPECT_EQ(get(c.await(21), 4, 4), 72u);
}

// Hard timeouts are measured here, idle ones by the programming service, whose last word on a flow are its final counters.
TEST_F(AgentFlows, HardAndIdleTimeoutsEndAFlow) {
  FlowMod hard = ipv4_flow(1), idle = ipv4_flow(2), both = ipv4_flow(3), late = ipv4_flow(4);
  for (FlowMod *timed : {&hard, &idle, &both, &late}) timed->flags = 1;
  hard.hard = 30, idle.idle = 20, both.idle = 20, both.hard = 40, late.hard = 60;
  apply(flow_mod(late) + flow_mod(hard) + flow_mod(idle) + flow_mod(both) + flow_mod(ipv4_flow(5)));
  const auto ended_after = [this](std::chrono::seconds time) {
    warp(time);
    EXPECT_TRUE(c.settle());
    std::string ends;  // the reason, 0 for idle, and the packets
    for (const Message &m : c.of_type(11)) ends += std::to_string(get(m, 18, 1)) + "/" + std::to_string(get(m, 32, 8)) + " ";
    return ends;
  };
  EXPECT_EQ(ended_after(29s), "");
  count(3, 7), count(5, 9, true);
  EXPECT_EQ(ended_after(2s), "1/0 ");
  count(3, 8, true);
  EXPECT_EQ(ended_after(0s), "1/0 0/8 ");
  apply(flow_mod(both));
  EXPECT_EQ(ended_after(35s), "1/0 0/8 1/0 ") << "a deadline of an earlier flow with the same match";
  EXPECT_EQ(ended_after(6s), "1/0 0/8 1/0 1/0 ");
  EXPECT_EQ(dump().size(), 1u) << "a flow without a timeout is never idle";
}

// So many that deadlines of flows that are gone are dropped meanwhile.
TEST_F(AgentFlows, ManyHardTimeoutsEndTheirFlowsInTime) {
  Message first, gone, rest;
  for (std::uint32_t n = 0; n < 1500; ++n) {
    FlowMod f = ipv4_flow(n);
    f.hard = static_cast<std::uint16_t>(n < 1000 ? 2001 + n * 617 % 1000 : 501 + n * 617 % 500);
    append(n < 1000 ? first : rest, flow_mod(f));
    if (n < 1000 && n % 2 == 0) append(gone, flow_mod(strict_delete(n)));
  }
  for (const Message &part : {first, gone, rest}) apply(part);
  ASSERT_EQ(dump().size(), 1000u);
  for (const auto &[time, left] : {std::pair{750s, 750}, {750s, 500}, {1000s, 250}, {600s, 0}}) {
    warp(time);
    EXPECT_TRUE(c.settle());
    EXPECT_NEAR(static_cast<double>(dump().size()), left, 5);
  }
}

// ---- synchronisation and restart

// A life that ended in the middle of a change has left both forms of a flow; one that ended while a service-chain flow was being
// deleted has left its record. A synchronisation hands everything over again unchanged, meters before all flows, which may be
// many.
TEST_F(AgentFlows, TakesOverTheNewestFormOfWhatIsStoredAndReplaysIt) {
  // Index 41, cookie 0x77, priority 100, idle 60, table 1: in_port 1 and application type 3; output to 2, by WRITE_ACTIONS.
  const Message stored =
      hex("0a00 0400 5800 0000 2900000000000000 7700000000000000 6400 0000 00 01 02 00 00000000 3c00 0000"
          "0100 1000 04000080 01000000 0402ffff 03000000 00000000"
          "10000000 00000000 0000 1000 02000000 ffff 000000000000");
  Message older = stored;
  older[8] = std::byte{40}, older[76] = std::byte{7};
  Message deleted = stored;
  deleted[8] = std::byte{42}, deleted[48] = std::byte{2};
  store_flow(40, older);
  store_flow(41, stored);
  store_flow(42, deleted);
  for (const std::uint64_t index : {40, 41}) store(records::ParseFlow(index), QX_MOM_APP_DB);
  store_flow(99, hex("00112233"));
  host::of_ss::of_ss_reset_for_tests();
  daemon.forget();
  start();
  const auto shown = dump();
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0][2], std::byte{1}) << "its table";
  EXPECT_EQ(to_hex(shown[0]).substr(24, 8) + to_hex(shown[0]).substr(48, 16), to_hex(hex("0064 003c 0000000000000077")));
  EXPECT_EQ(to_hex(shown[0]).substr(96),
            to_hex(hex("0001 000c 80000004 00000001 00000000 0003 0018 00000000 0000 0010 00000002 ffff 000000000000")));
  apply(flow_mod(ipv4_flow(1)) + message(29, 1, hex("0000 0001 00000005 0001 0010 00000064 00000000 00000000")));
  const Message flow = daemon.flows(true).at(0), meter = daemon.of_type(southbound::kMeterMod).at(0);
  EXPECT_EQ(index_of(flow), 100u) << "above every index that is stored";
  daemon.forget();
  ss_of_ds_fetch();
  ASSERT_TRUE(until([this] { return daemon.of_type(southbound::kDsEnd).size() == 1; }));
  auto replayed = daemon.messages();
  replayed.resize(5);
  std::sort(replayed.begin() + 2, replayed.begin() + 4);
  EXPECT_EQ(replayed, (std::vector<Message>{hex("2100040008000100"), meter, stored, flow, hex("2200040008000100")}));
  EXPECT_TRUE(errors().empty());
}

// A time that has not come yet, and one from before the clock was set, say nothing.
TEST_F(AgentFlows, DurationAndHardTimeoutGoOnInTheNextLife) {
  FlowMod f = ipv4_flow(1);
  f.hard = 130, f.flags = 1;
  apply(flow_mod(f));
  Message made = daemon.flows(true).at(0);
  const auto age_after_restart = [this, &made](std::time_t stamp) {
    set_stamp(made, stamp);
    store_flow(1, made);
    host::of_ss::of_ss_reset_for_tests();
    daemon.forget();
    start();
    return get(dump().at(0), 4, 4);
  };
  const std::time_t now = std::time(nullptr);
  EXPECT_LT(age_after_restart(now + 1000), 20u);
  EXPECT_LT(age_after_restart(5), 20u);
  EXPECT_NEAR(static_cast<double>(age_after_restart(now - 100)), 110, 10);
  warp(31s);
  EXPECT_EQ(get(c.await(11), 18, 1), 1u);
  EXPECT_TRUE(dump().empty());
}

// Of two hand-overs of a flow a service that was away answers one, and every barrier behind the other would wait.
TEST_F(AgentFlows, NothingIsReplayedThatIsStillToBeAnswered) {
  daemon.hold_barriers(true);
  c.send(flow_mod(ipv4_flow(1)));
  ASSERT_TRUE(until([this] { return daemon.adds() == 1; }));
  ss_of_ds_fetch();
  ss_of_ds_fetch();
  ASSERT_TRUE(until([this] { return daemon.of_type(southbound::kBarrierRequest).size() == 2; }));
  c.send(flow_mod(ipv4_flow(2)));
  daemon.answer_barriers();
  ASSERT_TRUE(until([this] { return daemon.adds() == 3; }));
  std::vector<std::uint64_t> indexes;
  for (const Message &add : daemon.flows(true)) indexes.push_back(index_of(add));
  EXPECT_EQ(indexes, (std::vector<std::uint64_t>{1, 1, 2}));
  EXPECT_EQ(daemon.of_type(southbound::kDsStart).size(), 1u);
}

// ---- statistics

// What the daemon says of a flow's total wins over the sum of its changes, which comes later, and no counter goes back.
TEST_F(AgentFlows, CountersNeverGoBackAndCountNothingTwice) {
  apply(flow_mod(ipv4_flow(1)));
  PlayedDaemon::report(1, 5, 500);
  daemon.count(1, 8, 800);
  EXPECT_EQ(packets_of(dump()[0]), 8u);
  PlayedDaemon::report(1, 3, 300);
  EXPECT_EQ(packets_of(dump()[0]), 8u) << "these three were in the total";
  PlayedDaemon::report(1, 2, 200);
  EXPECT_EQ(packets_of(dump()[0]), 10u);
  daemon.count(2, 20, 2000);
  apply(flow_mod(ipv4_flow(2)));
  EXPECT_EQ(to_hex(c.ask(dump_request(5, everything(), 2))).substr(32, 40), to_hex(pack({{30, 8}, {3000, 8}, {2, 4}})));
  daemon.hold_barriers(true);
  EXPECT_EQ(dump().size(), 2u) << "also when the daemon is silent";
}

}  // namespace
