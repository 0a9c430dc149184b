// What controllers asked for against what the database holds: every kind of difference, and their repair.
#include "host/of_ss/agent_world.h"

namespace {

using namespace of_world;

class Audit : public AgentTest {
 protected:
  void store_meter(std::uint32_t id, const Message &bytes,
                   SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED) {
    records::Meter meter(id);
    meter.record.status = status;
    meter.record.meter_data = data(bytes);
    store(meter);
  }
  // Four flows and three meters, as the daemon and the programming service would have stored them.
  void fill() {
    for (std::uint32_t id = 1; id <= 3; ++id) apply(message(29, 1, hex("0000 0001 0000000" + std::to_string(id))));
    for (std::uint32_t i = 1; i <= 4; ++i) apply(flow_mod(ipv4_flow(i)));
    meters_ = daemon.of_type(southbound::kMeterMod);
    flows_ = daemon.flows(true);
    for (std::uint32_t i = 0; i < 3; ++i) store_meter(i + 1, meters_[i]);
    for (std::uint32_t i = 0; i < 4; ++i) store_flow(i + 1, flows_[i]), store_answer(i + 1);
    daemon.forget();
  }
  std::vector<Message> flows_, meters_;
};

TEST_F(Audit, FindsWhateverDiffers) {
  fill();
  EXPECT_EQ(host::of_ss::audit_now(), std::nullopt) << "one look is none";
  EXPECT_EQ(host::of_ss::audit_now(), Strings{});
  store_flow(2, flows_[2]);
  store_answer(3, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING);
  apply(flow_mod(ipv4_flow(5)));
  store_flow(99, flows_[3]);
  store_meter(2, meters_[0]);
  store_meter(3, meters_[2], S_POLICY_KELIM__STATUS_E__STATUS_FAILED);
  store_meter(7, meters_[0]);
  EXPECT_EQ(host::of_ss::audit_now(), Strings{}) << "no difference before it is seen twice";
  EXPECT_EQ(host::of_ss::audit_now(), (Strings{"flow 5 is not stored", "flow 2 is stored otherwise", "flow 3 is not confirmed",
                                               "flow 99 is stored but not asked for", "meter 2 is stored otherwise",
                                               "meter 3 is stored as failed", "meter 7 is stored but not asked for"}));
  store_answer(98);
  EXPECT_EQ(host::of_ss::audit_now()->back(), "meter 7 is stored but not asked for");
  EXPECT_EQ(host::of_ss::audit_now()->back(), "flow 98 is in the target but neither stored nor asked for");
  hand_over(flow_mod(ipv4_flow(6)), 2);
  EXPECT_EQ(host::of_ss::audit_now(), std::nullopt) << "what is under way is no difference";
  EXPECT_TRUE(daemon.of_type(southbound::kDsStart).empty()) << "nothing is repaired that nobody has asked to be";
}

// More than fits one step of a look, on any side.
TEST_F(Audit, FindsEveryDifferenceAmongMany) {
  constexpr std::uint32_t kFlows = 1500, kLost = 300;
  for (std::uint32_t i = 1; i <= kFlows; ++i) apply(flow_mod(ipv4_flow(i)));
  flows_ = daemon.flows(true);
  for (std::uint32_t i = 1; i <= kFlows; ++i) {
    if (i > kLost) store_flow(i, flows_[i - 1]);
    store_answer(i);
  }
  store_flow(kFlows, flows_[0]);
  store_flow(kFlows + 1, flows_[0]);
  EXPECT_EQ(host::of_ss::audit_now(), std::nullopt);
  const auto found = host::of_ss::audit_now().value();
  ASSERT_EQ(found.size(), kLost + 2);
  EXPECT_EQ(found[kLost - 1], "flow 300 is not stored");
  EXPECT_EQ(found[kLost], "flow 1500 is stored otherwise");
  EXPECT_EQ(found[kLost + 1], "flow 1501 is stored but not asked for");
}

// A replay that meets a database that is away again fails in every part, and decides nothing. What a controller waits for fails.
TEST_F(Audit, WhatFailsForWantOfTheDatabaseStaysAndIsReplayed) {
  fill();
  connect_again(false);
  for (std::uint64_t index = 1; index <= 4; ++index) PlayedDaemon::fail(index, 2);
  for (std::uint32_t id = 1; id <= 3; ++id) PlayedDaemon::fail_meter(id, 1);
  hand_over(flow_mod(ipv4_flow(5, 75)) + message(29, 76, hex("0000 0001 00000005")), 1);
  ASSERT_TRUE(until([this] { return daemon.of_type(southbound::kMeterMod).size() == 1; }));
  PlayedDaemon::fail(5, 2);
  PlayedDaemon::fail_meter(5, 1);
  c.await(1, 2);
  EXPECT_EQ(errors(), (Strings{"OFPFMFC_UNKNOWN 75", "OFPMMFC_UNKNOWN 76"}));
  daemon.answer_barriers();
  connect_again(true);
  daemon.forget();
  ss_of_ds_fetch();
  ASSERT_TRUE(until([this] { return !daemon.of_type(southbound::kDsEnd).empty(); }));
  EXPECT_EQ(daemon.flows(true), flows_);
  EXPECT_EQ(daemon.of_type(southbound::kMeterMod), meters_);
}

class AuditRepair : public Audit {
 protected:
  void configure() override {
    Audit::configure();
    set("openflow.audit_interval_s", "10");
    set("openflow.audit_repair", "true");
    set("openflow.decide_timeout_ms", "60000");  // the steered clock leaps past the usual one while an add is undecided
  }
};

// A meter that nobody asked for is deleted: a synchronisation would leave its record. Everything else is handed over again. What
// a repair did not change is not repaired again.
TEST_F(AuditRepair, IsTriedOnce) {
  fill();
  store_meter(7, meters_[0]);
  const auto look = [](int times) {
    while (times--) EXPECT_TRUE(until([] { return host::of_ss::audit_now().has_value(); }));
  };
  const auto synchronisations = [this] { return daemon.of_type(southbound::kDsEnd).size(); };
  EXPECT_EQ(host::of_ss::audit_now(), std::nullopt);
  EXPECT_TRUE(daemon.of_type(southbound::kMeterMod).empty());
  look(4);
  EXPECT_EQ(daemon.of_type(southbound::kMeterMod), std::vector<Message>{hex("1100 0400 1000 0000 0200 0000 07000000")})
      << "type 17, length 16, delete, no flags, meter 7";
  EXPECT_EQ(synchronisations(), 0u);
  store_flow(2, flows_[2]);
  for (int turns = 0; turns < 50 && !synchronisations(); ++turns) {
    host::clock::warp(10s);
    EXPECT_TRUE(c.settle());
  }
  look(4);
  EXPECT_EQ(synchronisations(), 1u);
  EXPECT_EQ(daemon.flows(true).size(), 4u);
}

// A look that failed because it waited too long is no reason to look less often.
TEST_F(AuditRepair, GoesOnAfterALookThatFailed) {
  fill();
  {
    const unsigned calls = daemon.calls();
    const auto stopped = daemon.stop();
    ASSERT_TRUE(c.send(flow_mod(ipv4_flow(5, 75))));
    ASSERT_TRUE(until([&] { return daemon.calls() > calls; }));
    host::clock::warp(10s);
    host::run_until([] { return false; }, 3500ms);  // it waits 3 seconds for the openflow thread
  }
  ASSERT_TRUE(c.settle());
  for (int times = 0; times < 500 && daemon.of_type(southbound::kDsEnd).empty(); ++times) {
    host::clock::warp(10s);
    ASSERT_TRUE(c.settle());
  }
  EXPECT_EQ(daemon.of_type(southbound::kDsEnd).size(), 1u) << "flow 5 is not stored";
}

}  // namespace
