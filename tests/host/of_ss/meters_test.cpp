// Meters in the OpenFlow agent: hand-over, refusals, failures that come later.
#include "host/of_ss/agent_world.h"

namespace {

using namespace of_world;

constexpr char kBand[] = "0001 0010 00000064 00000000 00000000", kOtherBand[] = "0001 0010 00000001 00000000 00000000";

Message meter_mod(std::uint32_t xid, std::uint16_t command, std::uint32_t id, const std::string &bands = kBand,
                  std::uint16_t flags = 1) {
  return message(29, xid, pack({{command, 2}, {flags, 2}, {id, 4}}) + hex(bands));
}

FlowMod metered(std::uint32_t destination, std::uint32_t meter, std::uint32_t xid = 1) {
  FlowMod f = ipv4_flow(destination, xid);
  f.flags = 1, f.instructions = pack({{6, 2}, {8, 2}, {meter, 4}}) + f.instructions;
  return f;
}

class Meters : public AgentTest {
 protected:
  // The entries of METER (9) or METER_CONFIG (10), of one meter or of all.
  Message ask(std::uint8_t type, std::uint32_t id) { return multipart(type, be(id, 0u)); }
  // The meter-mods that the daemon was told, without their headers.
  Strings told() const {
    Strings found;
    for (const Message &m : daemon.of_type(southbound::kMeterMod)) found.push_back(to_hex(m).substr(16));
    return found;
  }
};

TEST_F(Meters, AreHandedOverInHostOrderAndShown) {
  apply(meter_mod(1, 0, 5, "0001 0010 000003e8 00000064 00000000 0002 0010 000007d0 00000000 01 000000"));
  EXPECT_EQ(to_hex(daemon.of_type(southbound::kMeterMod).at(0)),
            to_hex(hex("1100 0400 3000 0000 0000 0100 05000000 0100 1000 e8030000 64000000 00000000 0200 1000 d0070000 00000000"
                       "01 000000")));
  EXPECT_EQ(to_hex(ask(10, 5)),
            to_hex(hex("0028 0001 00000005 0001 0010 000003e8 00000064 00000000 0002 0010 000007d0 00000000 01 000000")));
  apply(flow_mod(metered(1, 5)) + flow_mod(ipv4_flow(2)));
  daemon.forget();
  apply(meter_mod(4, 1, 5, kOtherBand) + meter_mod(5, 2, 0xffffffff, ""));
  ASSERT_EQ(told().size(), 2u);
  EXPECT_EQ(told()[0].substr(0, 16), "0000010005000000") << "a change rewrites it as an add does";
  EXPECT_EQ(told()[1].substr(0, 16), "0200010005000000");
  EXPECT_EQ(daemon.flows(false).size(), 1u) << "its flow goes along";
  EXPECT_EQ(dump().size(), 1u);
  EXPECT_TRUE(errors().empty());
}

// An older form of a flow, which is on its way out, uses no meter.
TEST_F(Meters, CountTheFlowsThatUseThem) {
  apply(meter_mod(1, 0, 5) + meter_mod(2, 0, 6) + meter_mod(3, 0, 7));
  apply(flow_mod(metered(1, 5)) + flow_mod(metered(2, 5)) + flow_mod(metered(3, 6)) + flow_mod(metered(4, 6)));
  hand_over(flow_mod(metered(2, 7)), 5);
  const Message all = ask(9, 0xffffffff);
  ASSERT_EQ(all.size(), 3u * 56);
  EXPECT_EQ(std::tuple(get(all, 12, 4), get(all, 56 + 12, 4), get(all, 112 + 12, 4)), std::tuple(1u, 2u, 1u));
  EXPECT_EQ(to_hex(ask(9, 7)).substr(0, 32), to_hex(hex("00000007 0038 000000000000 00000001")));
}

TEST_F(Meters, AreBounded) {
  std::string nine;
  for (int i = 0; i < 9; ++i) nine += kBand;
  EXPECT_EQ(error_of(c.ask(meter_mod(2, 0, 6, nine))), "OFPMMFC_OUT_OF_BANDS");
  Message many;
  for (std::uint32_t id = 1; id <= 1024; ++id) append(many, meter_mod(3, 0, id));
  apply(many);
  EXPECT_EQ(error_of(c.ask(meter_mod(4, 0, 5))), "OFPMMFC_METER_EXISTS") << "there is one";
  EXPECT_EQ(error_of(c.ask(meter_mod(5, 0, 1025))), "OFPMMFC_OUT_OF_METERS");
  EXPECT_EQ(told().size(), 1024u);
}

TEST_F(Meters, ThatFailLaterAreAnsweredWithTheirRequest) {
  apply(meter_mod(80, 0, 5) + meter_mod(81, 0, 6));
  daemon.forget();
  for (const auto &[id, result] : {std::pair{5, 0}, {6, 1}, {6, 1}}) PlayedDaemon::fail_meter(id, result);
  c.await(1, 2);
  EXPECT_TRUE(c.settle());
  EXPECT_EQ(errors(), (Strings{"OFPMMFC_OUT_OF_METERS 80", "OFPMMFC_UNKNOWN 81"}));
  EXPECT_EQ(to_hex(data_of(c.received()[0])), to_hex(meter_mod(80, 0, 5)));
  EXPECT_TRUE(ask(9, 0xffffffff).empty());
  // Of the first nothing was stored. The record of the other one, which says that it failed, is deleted.
  ASSERT_EQ(told().size(), 1u);
  EXPECT_EQ(told()[0].substr(0, 16), "0200010006000000");
}

TEST_F(Meters, AreAsTheyWereAfterAChangeThatFailed) {
  apply(meter_mod(80, 0, 5));
  const Strings first = told();
  const Message before = ask(10, 5);
  for (const std::uint32_t result : {0u, 1u}) {
    apply(meter_mod(81, 1, 5, kOtherBand));
    EXPECT_NE(ask(10, 5), before);
    c.forget();
    daemon.forget();
    PlayedDaemon::fail_meter(5, result);
    EXPECT_EQ(error_of(c.await(1)), result ? "OFPMMFC_UNKNOWN" : "OFPMMFC_OUT_OF_METERS");
    EXPECT_TRUE(c.settle());
    EXPECT_EQ(ask(10, 5), before);
    // The database has refused the change, or holds it as failed.
    EXPECT_EQ(told(), result ? first : Strings{});
  }
  // What fails long after the change is the meter itself.
  apply(meter_mod(82, 1, 5, kOtherBand));
  warp(11s);
  PlayedDaemon::fail_meter(5, 1);
  EXPECT_TRUE(until([this] { return told().back().starts_with("0200"); }));
}

TEST_F(Meters, ThatFailTakeTheirFlowsAlong) {
  apply(meter_mod(80, 0, 5) + flow_mod(metered(1, 5, 81)) + flow_mod(ipv4_flow(2)) + flow_mod(ipv4_flow(3)));
  FlowMod changed = metered(1, 5, 84);
  changed.cookie = 7;
  hand_over(flow_mod(metered(3, 5, 82)) + flow_mod(metered(4, 5, 83)) + flow_mod(changed) + barrier(85), 6);
  c.forget();
  PlayedDaemon::fail_meter(5, 1);
  daemon.answer_barriers();
  c.await(21);
  EXPECT_EQ(errors(),
            (Strings{"OFPMMFC_UNKNOWN_METER 82", "OFPMMFC_UNKNOWN_METER 83", "OFPMMFC_UNKNOWN_METER 84", "OFPMMFC_UNKNOWN 80"}));
  EXPECT_EQ(c.of_type(11).size(), 1u) << "the flow that was installed is reported as removed";
  EXPECT_EQ(deleted(), (std::vector<std::uint64_t>{1, 4, 5, 6}));
  EXPECT_EQ(dump().size(), 2u) << "the third flow is what it was before its change";
}

}  // namespace
