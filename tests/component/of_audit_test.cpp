// What controllers asked for against what the database holds: every kind of difference, and their repair.
#include "component/of_flows_world.h"

namespace {

using namespace of_world;

class Audit : public FlowsTest {
 protected:
  void configure() override {
    FlowsTest::configure();
    set("openflow.audit_interval_s", "0");
  }
  void SetUp() override {
    FlowsTest::SetUp();
    connected = false;
    qx_mom_client_connect(
        global, QX_MOM_UDP_DB, [](void *, const char *) { return connected = true, 0; }, "test");
    ASSERT_TRUE(until([] { return connected; }));
  }
  void write(const ProtobufCMessage &record) { ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &record, 0, 0), 0); }
  static ProtobufCBinaryData data(const Message &bytes) {
    return {bytes.size(), const_cast<std::uint8_t *>(reinterpret_cast<const std::uint8_t *>(bytes.data()))};
  }
  void store_flow(std::uint64_t index, const Message &bytes) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
    flow.index = &key;
    flow.flow_data = data(bytes);
    write(flow.base);
  }
  void store_answer(std::uint64_t index, SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__FlowSta answer = S_POLICY_KELIM__FLOW_STA__INIT;
    answer.index = &key;
    answer.status = status;
    write(answer.base);
  }
  void store_meter(std::uint32_t id, const Message &bytes,
                   SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED) {
    SPolicyKelim__MeterKey key = S_POLICY_KELIM__METER_KEY__INIT;
    key.meter_id = id;
    SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
    meter.index = &key;
    meter.status = status;
    meter.meter_data = data(bytes);
    write(meter.base);
  }
  // Four flows and three meters, as the daemon and the programming service would have stored them.
  void fill() {
    for (std::uint32_t id = 1; id <= 3; ++id) apply(message(29, 1, hex("0000 0001 0000000" + std::to_string(id))));
    for (std::uint32_t i = 1; i <= 4; ++i) apply(flow_mod(ipv4_flow(i)));
    std::uint32_t id = 0;
    for (const Message &meter : daemon.of_type(southbound::kMeterMod)) store_meter(++id, meter);
    for (const Message &flow : daemon.flows(true)) store_flow(index_of(flow), flow), store_answer(index_of(flow));
  }
  static inline bool connected;
};

TEST_F(Audit, FindsWhateverDiffers) {
  fill();
  EXPECT_EQ(host::of_ss::audit_now(), std::nullopt) << "one look is none";
  EXPECT_EQ(host::of_ss::audit_now(), Strings{});
  const auto flows = daemon.flows(true);
  const auto meters = daemon.of_type(southbound::kMeterMod);
  SPolicyKelim__FlowKey first = S_POLICY_KELIM__FLOW_KEY__INIT;
  first.flow_index = 1;
  SPolicyKelim__Flow gone = S_POLICY_KELIM__FLOW__INIT;
  gone.index = &first;
  ASSERT_EQ(qx_mom_del_sync(global, QX_MOM_UDP_DB, &gone.base, 0, 0), 0);
  store_flow(2, flows[2]);
  store_answer(3, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING);
  store_flow(99, flows[3]);
  store_meter(2, meters[0]);
  store_meter(3, meters[2], S_POLICY_KELIM__STATUS_E__STATUS_FAILED);
  store_meter(7, meters[0]);
  EXPECT_EQ(host::of_ss::audit_now(), Strings{}) << "no difference before it is seen twice";
  EXPECT_EQ(host::of_ss::audit_now(), (Strings{"flow 1 is not stored", "flow 2 is stored otherwise", "flow 3 is not confirmed",
                                               "flow 99 is stored but not asked for", "meter 2 is stored otherwise",
                                               "meter 3 is stored as failed", "meter 7 is stored but not asked for"}));
  // What is under way is no difference.
  hand_over(flow_mod(ipv4_flow(5)), 5);
  EXPECT_EQ(host::of_ss::audit_now(), std::nullopt);
  EXPECT_TRUE(daemon.of_type(southbound::kDsStart).empty()) << "nothing is repaired that nobody has asked to be";
}

class AuditRepair : public Audit {
 protected:
  void configure() override {
    Audit::configure();
    set("openflow.audit_interval_s", "10");
    set("openflow.audit_repair", "true");
  }
};

// A synchronisation would leave its record.
TEST_F(AuditRepair, DeletesAMeterThatNobodyAskedFor) {
  fill();
  store_meter(7, daemon.of_type(southbound::kMeterMod)[0]);
  daemon.forget();
  const auto told = [this] {
    std::string all;
    for (const Message &m : daemon.of_type(southbound::kMeterMod)) all += to_hex(m) + " ";
    return all;
  };
  EXPECT_EQ(host::of_ss::audit_now(), std::nullopt);
  EXPECT_EQ(told(), "");
  EXPECT_EQ(host::of_ss::audit_now(), Strings{"meter 7 is stored but not asked for"});
  EXPECT_EQ(told(), "11000400100000000200000007000000 ") << "type 17, length 16, delete, no flags, meter 7";
  daemon.forget();
  for (int looks = 0; looks < 3; ++looks) EXPECT_TRUE(until([] { return host::of_ss::audit_now().has_value(); }));
  EXPECT_EQ(told(), "") << "what a repair did not change is not repaired again";
  EXPECT_TRUE(daemon.of_type(southbound::kDsStart).empty());
}

TEST_F(AuditRepair, HandsEverythingOverAgainOnce) {
  fill();
  store_flow(2, daemon.flows(true)[2]);
  const auto synchronisations = [this] { return daemon.of_type(southbound::kDsStart).size(); };
  for (int looks = 0; looks < 2; ++looks) {
    EXPECT_EQ(synchronisations(), 0u);
    host::clock::warp(10s);
    EXPECT_TRUE(c.settle());
  }
  EXPECT_TRUE(until([&] { return synchronisations() == 1; }));
  EXPECT_EQ(daemon.flows(true).size(), 8u);
  daemon.answer_barriers();
  for (int looks = 0; looks < 3; ++looks) {
    host::clock::warp(10s);
    EXPECT_TRUE(c.settle());
  }
  EXPECT_EQ(synchronisations(), 1u) << "what a repair did not change is not repaired again";
}

}  // namespace
