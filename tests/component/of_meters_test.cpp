// Meters in the OpenFlow agent: hand-over, refusals, failures that come later.
#include <set>

#include "component/of_flows_world.h"

namespace {

using namespace of_world;

Message meter_mod(std::uint32_t xid, std::uint16_t command, std::uint32_t id,
                  const char *bands = "0001 0010 00000064 00000000 00000000", std::uint16_t flags = 1) {
  Message body;
  put(body, command, 2);
  put(body, flags, 2);
  put(body, id, 4);
  return message(29, xid, body + hex(bands));
}

Message word(std::uint32_t value) {
  Message out;
  put(out, value, 4);
  return out;
}

TEST_F(FlowsTest, MetersAreHandedOverInHostOrderAndShown) {
  apply(meter_mod(1, 0, 5, "0001 0010 000003e8 00000064 00000000 0002 0010 000007d0 00000000 01 000000"));
  ASSERT_EQ(daemon.of_type(southbound::kMeterMod).size(), 1u);
  EXPECT_EQ(
      to_hex(daemon.of_type(southbound::kMeterMod)[0]),
      to_hex(hex(
          "1100 0400 3000 0000 0000 0100 05000000 0100 1000 e8030000 64000000 00000000 0200 1000 d0070000 00000000 01 000000")));
  EXPECT_EQ(to_hex(c.ask(message(18, 2, hex("000a 0000 00000000 00000005 00000000")))).substr(32),
            to_hex(hex("0028 0001 00000005 0001 0010 000003e8 00000064 00000000 0002 0010 000007d0 00000000 01 000000")));
  FlowMod user = ipv4_flow(1);
  user.instructions = hex("00060008 00000005") + user.instructions;
  apply(flow_mod(user) + flow_mod(ipv4_flow(2)));
  const Message stats = c.ask(message(18, 3, hex("0009 0000 00000000 00000005 00000000")));
  ASSERT_EQ(stats.size(), 16u + 40 + 2 * 16);
  EXPECT_EQ(to_hex(stats).substr(32, 32),
            "00000005"
            "0048"
            "000000000000"
            "00000001")
      << "one flow uses it";

  daemon.forget();
  apply(meter_mod(4, 1, 5, "0001 0010 00000001 00000000 00000000"));
  EXPECT_EQ(to_hex(daemon.of_type(southbound::kMeterMod)[0]).substr(16, 4), "0000") << "a change rewrites it as an add does";
  daemon.forget();
  apply(meter_mod(5, 2, 0xffffffff, ""));
  EXPECT_EQ(to_hex(daemon.of_type(southbound::kMeterMod)[0]).substr(16, 16),
            "0200"
            "0100"
            "05000000");
  EXPECT_EQ(daemon.flows(false).size(), 1u) << "its flow goes along";
  EXPECT_EQ(dump().size(), 1u);
  EXPECT_TRUE(errors().empty());
}

struct MeterCase {
  const char *label;
  Message request;
  const char *error;
};

// Each meter with its own users; an older form of a flow, which is on its way out, is none. The price of the walk over the flows
// is paid once and not once a meter.
TEST_F(FlowsTest, StatisticsOfAllMetersTakeOneLookAtTheFlows) {
  constexpr std::uint32_t kMeters = 1000, kFlows = 10'000;
  const auto user = [](std::uint32_t flow, std::uint32_t meter) {
    FlowMod f = ipv4_flow(flow);
    f.instructions = hex("00060008") + word(meter) + f.instructions;
    return flow_mod(f);
  };
  Message requests;
  for (std::uint32_t id = 1; id <= kMeters; ++id) append(requests, meter_mod(1, 0, id));
  for (std::uint32_t flow = 1; flow <= kFlows; ++flow) append(requests, user(flow, 1 + flow % 7));
  apply(requests);
  hand_over(user(7, 500), kFlows + 1);
  const auto ask = [this](std::uint32_t xid, std::uint32_t id) {
    const auto begun = std::chrono::steady_clock::now();
    const Message reply = c.ask(message(18, xid, hex("0009 0000 00000000") + word(id) + word(0)));
    return std::pair(std::chrono::steady_clock::now() - begun, reply);
  };
  auto one = ask(2, 500).first, all = ask(3, 0xffffffff).first;
  for (std::uint32_t n = 0; n < 9; ++n) {
    one = std::min(one, ask(2, 500).first);
    all = std::min(all, ask(3, 0xffffffff).first);
  }
  EXPECT_LT(all, 20 * one);

  const Message reply = ask(4, 0xffffffff).second;
  ASSERT_EQ(reply.size(), 16u + kMeters * (40 + 16)) << "in one part";
  const auto users = [&reply](std::uint32_t id) { return get(reply, 16 + (id - 1) * 56 + 12, 4); };
  // 10000 = 7 * 1428 + 4: flows 1 to 4 of the last seven use meters 2 to 5, and flow 7 has left meter 1.
  const std::uint64_t expected[] = {1427, 1429, 1429, 1429, 1429, 1428, 1428, 0};
  for (std::uint32_t id = 1; id <= 8; ++id) EXPECT_EQ(users(id), expected[id - 1]) << id;
  EXPECT_EQ(users(500), 1u);
  daemon.answer_barriers();
}

TEST_F(FlowsTest, MetersAreRefusedExactly) {
  apply(meter_mod(1, 0, 5));
  const MeterCase cases[] = {
      {"a meter that is there", meter_mod(10, 0, 5), "12/1"},
      {"a change of one that is not there", meter_mod(11, 1, 6), "12/3"},
      {"meter 0", meter_mod(12, 0, 0), "12/2"},
      {"a virtual meter", meter_mod(13, 0, 0xfffffffe), "12/2"},
      {"all meters in an add", meter_mod(14, 0, 0xffffffff), "12/2"},
      {"command 3", meter_mod(15, 3, 6), "12/4"},
      {"unknown flag", meter_mod(16, 0, 6, "", 16), "12/5"},
      {"both units", meter_mod(17, 0, 6, "", 3), "12/5"},
      {"rate 0", meter_mod(18, 0, 6, "0001 0010 00000000 00000000 00000000"), "12/6"},
      {"band type 3", meter_mod(19, 0, 6, "0003 0010 00000001 00000000 00000000"), "12/8"},
      {"precedence 64", meter_mod(20, 0, 6, "0002 0010 00000001 00000000 40 000000"), "12/9"},
      {"a band cut short", meter_mod(21, 0, 6, "0001 0010 00000001"), "1/6"},
      {"a band that says another length", meter_mod(22, 0, 6, "0001 0008 00000001 00000000 00000000"), "1/6"},
  };
  daemon.forget();
  for (const MeterCase &m : cases) EXPECT_EQ(error_of(c.ask(m.request)), m.error) << m.label;
  std::string nine;
  for (int i = 0; i < 9; ++i) nine += "0001 0010 00000001 00000000 00000000";
  EXPECT_EQ(error_of(c.ask(meter_mod(30, 0, 6, nine.c_str()))), "12/11");
  EXPECT_TRUE(daemon.of_type(southbound::kMeterMod).empty());
  Message many;
  for (std::uint32_t id = 100; id < 100 + 1023; ++id) append(many, meter_mod(1, 0, id));
  apply(many);
  EXPECT_EQ(error_of(c.ask(meter_mod(31, 0, 99))), "12/10");
}

TEST_F(FlowsTest, AMeterThatFailsLaterIsAnsweredWithItsRequest) {
  apply(meter_mod(80, 0, 5) + meter_mod(81, 0, 6));
  daemon.forget();
  PlayedDaemon::fail_meter(5, 0);
  PlayedDaemon::fail_meter(6, 1);
  PlayedDaemon::fail_meter(6, 1);
  const Message first = c.await(1, 1), second = c.await(1, 2);
  EXPECT_EQ(error_of(first), "12/10");
  EXPECT_EQ(to_hex(data_of(first)), to_hex(meter_mod(80, 0, 5)));
  EXPECT_EQ(error_of(second), "12/0");
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(c.of_type(1).size(), 2u);
  EXPECT_EQ(c.ask(message(18, 2, hex("0009 0000 00000000 ffffffff 00000000"))).size(), 16u);
  // Of the first nothing was stored. The record of the other one, which says that it failed, is deleted.
  ASSERT_EQ(daemon.of_type(southbound::kMeterMod).size(), 1u);
  EXPECT_EQ(to_hex(daemon.of_type(southbound::kMeterMod)[0]).substr(16, 16), "0200010006000000");
}

TEST_F(FlowsTest, AFailedChangeOfAMeterLeavesItAsItWas) {
  const auto config = [this] { return to_hex(c.ask(message(18, 2, hex("000a 0000 00000000 00000005 00000000")))).substr(32); };
  apply(meter_mod(80, 0, 5));
  const Message first = daemon.of_type(southbound::kMeterMod)[0];
  const std::string before = config();
  for (const std::uint32_t result : {0u, 1u}) {
    apply(meter_mod(81, 1, 5, "0001 0010 00000001 00000000 00000000"));
    EXPECT_NE(config(), before);
    c.forget();
    daemon.forget();
    PlayedDaemon::fail_meter(5, result);
    EXPECT_EQ(error_of(c.await(1)), result ? "12/0" : "12/10");
    EXPECT_TRUE(c.settle());
    EXPECT_EQ(config(), before);
    // The database has refused the change, or holds it as failed.
    EXPECT_EQ(daemon.of_type(southbound::kMeterMod), std::vector<Message>(result ? 1 : 0, first));
  }
  // What fails long after the change is the meter itself.
  apply(meter_mod(82, 1, 5, "0001 0010 00000001 00000000 00000000"));
  warp(11s);
  PlayedDaemon::fail_meter(5, 1);
  EXPECT_TRUE(until([this] { return to_hex(daemon.of_type(southbound::kMeterMod).back()).substr(16, 4) == "0200"; }));
}

TEST_F(FlowsTest, AMeterThatFailsTakesItsFlowsAlong) {
  const auto metered = [](std::uint32_t destination, std::uint32_t xid) {
    FlowMod f = ipv4_flow(destination, xid);
    f.flags = 1, f.instructions = hex("00060008 00000005") + f.instructions;
    return f;
  };
  apply(meter_mod(80, 0, 5) + flow_mod(metered(1, 81)) + flow_mod(ipv4_flow(2)) + flow_mod(ipv4_flow(3)));
  hand_over(flow_mod(metered(3, 82)) + flow_mod(metered(4, 83)) + barrier(84), 5);
  daemon.forget();
  c.forget();
  PlayedDaemon::fail_meter(5, 1);
  daemon.answer_barriers();
  c.await(21);
  std::vector<std::pair<std::string, std::uint64_t>> told;
  for (const Message &m : c.of_type(1)) told.emplace_back(error_of(m), get(m, 4, 4));
  EXPECT_EQ(told, (std::vector<std::pair<std::string, std::uint64_t>>{{"12/3", 82}, {"12/3", 83}, {"12/0", 80}}));
  EXPECT_EQ(c.of_type(11).size(), 1u) << "the flow that was installed is reported as removed";
  std::set<std::uint64_t> gone;
  for (const Message &m : daemon.flows(false)) gone.insert(index_of(m));
  EXPECT_EQ(gone, (std::set<std::uint64_t>{1, 4, 5}));
  EXPECT_EQ(dump().size(), 2u) << "the third flow is what it was before its change";
}

}  // namespace
