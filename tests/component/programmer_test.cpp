// The programming service on the real runtime and embedded store: records in, records out.
#include "programmer/programmer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "host/fault/fault.h"
#include "host/runtime/clock.h"
#include "host/runtime/loop.h"
#include "programmer/flow_table.h"
#include "programmer/script.h"
#include "programmer/wire.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"
#include "support/runtime_fixture.h"

namespace {

using namespace std::chrono_literals;
using programmer::Options;

Options options(void (*choose)(Options &)) {
  Options chosen;
  choose(chosen);
  return chosen;
}

constexpr auto kInstalling = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING;
constexpr auto kInstalled = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
constexpr auto kFailed = S_POLICY_KELIM__STATUS_E__STATUS_FAILED;
constexpr auto kResource = S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE;

struct Told {
  std::uint64_t index, uuid;
  int status;
  bool operator==(const Told &) const = default;
};

std::vector<Told> g_answers;  // every flow_sta written, in order

int note_answer(void *, const qx_obj *msg) {
  if (msg->cmd != QX_MOM_CMD_SET) return 0;
  const auto *sta = static_cast<const SPolicyKelim__FlowSta *>(msg->value);
  g_answers.push_back({sta->index->flow_index, sta->rep_uuid, sta->status});
  return 0;
}

class ProgrammerTest : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    for (const std::int32_t db : {QX_MOM_APP_DB, QX_MOM_UDP_DB}) {
      ASSERT_EQ(qx_mom_client_connect_sync(global, db), 0);
      ASSERT_EQ(qx_mom_client_connect(
                    global, db, [](void *, const char *) { return 0; }, "test"),
                0);
    }
    g_answers.clear();
    spin(5ms);
  }

  void TearDown() override {
    programmer::stop_embedded();
    RuntimeTest::TearDown();
  }

  void start(const Options &options = {}) {
    const qx_mom_spec spec = {{&s_policy_kelim__flow_sta__descriptor, &s_policy_kelim__flow_key__descriptor}, QX_MOM_DECODED};
    ASSERT_EQ(qx_mom_subscribe(global, QX_MOM_UDP_DB, &spec, note_answer), 0);
    ASSERT_EQ(programmer::start_embedded(global, options), 0);
    spin(5ms);
  }

  static void spin(std::chrono::milliseconds time) {
    host::run_until([] { return false; }, time);
  }

  // Everything that is answered at once has been answered when as many answers are there; more would be a fault.
  static std::vector<Told> answers(std::size_t expected) {
    host::run_until([&] { return g_answers.size() >= expected; }, 2s);
    spin(5ms);
    return std::exchange(g_answers, {});
  }

  void put_flow(std::uint64_t index, std::uint64_t uuid, std::string data = "flow") {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
    flow.index = &key;
    flow.req_uuid = uuid;
    flow.flow_data = {data.size(), reinterpret_cast<std::uint8_t *>(data.data())};
    ASSERT_EQ(qx_mom_setow(global, QX_MOM_UDP_DB, &flow.base, 0, 0, 1), 0);
  }

  void del_flow(std::uint64_t index) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
    flow.index = &key;
    ASSERT_EQ(qx_mom_del(global, QX_MOM_UDP_DB, &flow.base, 0, 0), 0);
  }

  void put_answer(std::uint64_t index, std::uint64_t uuid, SPolicyKelim__StatusE status) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__FlowSta sta = S_POLICY_KELIM__FLOW_STA__INIT;
    sta.index = &key;
    sta.rep_uuid = uuid;
    sta.status = status;
    ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &sta.base, 0, 0), 0);
  }

  // Looks at the stored object with the key of `wanted`; false when there is none.
  template <typename Record>
  bool look(std::int32_t db, const Record &wanted, const std::function<void(const Record &)> &at = nullptr) {
    qx_obj *found = nullptr;
    if (qx_mom_get_sync(global, db, &wanted.base, 0, &found) != 0) return false;
    const bool holder = found->cmd == QX_MOM_CMD_HASH_NEW || found->cmd == QX_MOM_CMD_HASH_SET;
    const void *value = holder ? static_cast<qx_mom_hash_value *>(found->value)->record : found->value;
    if (at) at(*static_cast<const Record *>(value));
    qx_mom_qx_obj_free(found);
    return true;
  }

  bool has_answer(std::uint64_t index) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__FlowSta sta = S_POLICY_KELIM__FLOW_STA__INIT;
    sta.index = &key;
    return look(QX_MOM_UDP_DB, sta);
  }

  // {packet_count, byte_count, packet_sum, byte_sum}; empty without a record.
  std::vector<std::uint64_t> counters(std::uint64_t index) {
    SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
    key.flow_index = index;
    SPolicyKelim__FlowCounter counter = S_POLICY_KELIM__FLOW_COUNTER__INIT;
    counter.index = &key;
    std::vector<std::uint64_t> numbers;
    look<SPolicyKelim__FlowCounter>(QX_MOM_UDP_DB, counter, [&](const auto &c) {
      numbers = {c.packet_count, c.byte_count, c.packet_sum, c.byte_sum};
    });
    return numbers;
  }

  void put_meter(std::uint32_t id, std::string data) {
    SPolicyKelim__MeterKey key = S_POLICY_KELIM__METER_KEY__INIT;
    key.meter_id = id;
    SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
    meter.index = &key;
    meter.status = kInstalling;
    meter.meter_data = {data.size(), reinterpret_cast<std::uint8_t *>(data.data())};
    ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &meter.base, 0, 0), 0);
  }

  void del_meter(std::uint32_t id) {
    SPolicyKelim__MeterKey key = S_POLICY_KELIM__METER_KEY__INIT;
    key.meter_id = id;
    SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
    meter.index = &key;
    ASSERT_EQ(qx_mom_del(global, QX_MOM_UDP_DB, &meter.base, 0, 0), 0);
  }

  // The meter's status, or -1 without a record.
  int meter_status(std::uint32_t id) {
    SPolicyKelim__MeterKey key = S_POLICY_KELIM__METER_KEY__INIT;
    key.meter_id = id;
    SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
    meter.index = &key;
    int status = -1;
    look<SPolicyKelim__Meter>(QX_MOM_UDP_DB, meter, [&](const auto &m) { status = m.status; });
    return status;
  }
};

TEST_F(ProgrammerTest, AnswersEachRequestAndKeepsToItsSize) {
  start(options([](Options &o) { o.size = 2; }));
  put_flow(1, 11);
  put_flow(2, 12);
  put_flow(3, 13);
  EXPECT_EQ(answers(3), (std::vector<Told>{{1, 11, kInstalled}, {2, 12, kInstalled}, {3, 13, kResource}}));
  del_flow(1);
  spin(5ms);
  EXPECT_FALSE(has_answer(1));
  put_flow(3, 14);
  EXPECT_EQ(answers(1), (std::vector<Told>{{3, 14, kInstalled}}));
}

TEST_F(ProgrammerTest, AnswersAnUnchangedRewriteWithoutTouchingTheTarget) {
  start(options([](Options &o) { o.script = "fail=2,3"; }));
  put_flow(1, 11);
  put_flow(1, 12);
  put_flow(1, 12);
  EXPECT_EQ(answers(3), (std::vector<Told>{{1, 11, kInstalled}, {1, 12, kInstalled}, {1, 12, kInstalled}}));
  put_flow(1, 13, "changed");
  EXPECT_EQ(answers(1), (std::vector<Told>{{1, 13, kFailed}}));
  put_flow(1, 14, "changed");  // what failed is tried again
  put_flow(1, 15, "changed");
  EXPECT_EQ(answers(2), (std::vector<Told>{{1, 14, kFailed}, {1, 15, kInstalled}}));
}

TEST_F(ProgrammerTest, DelaysOvertakeEachOtherAndADeletedFlowIsForgotten) {
  host::clock::stop();
  start(options([](Options &o) {
    o.delay_ms = 50;
    o.script = "delay=1:200,@2:0;silent=@9";
  }));
  put_flow(1, 11);
  put_flow(2, 12);
  put_flow(3, 13);
  put_flow(4, 14);
  put_flow(9, 19);
  put_flow(1, 21);  // would be answered after 50 ms if it were not for the request before
  EXPECT_EQ(answers(1), (std::vector<Told>{{2, 12, kInstalled}}));
  del_flow(4);
  spin(5ms);
  host::clock::warp(60ms);
  EXPECT_EQ(answers(1), (std::vector<Told>{{3, 13, kInstalled}}));
  host::clock::warp(200ms);
  EXPECT_EQ(answers(2), (std::vector<Told>{{1, 11, kInstalled}, {1, 21, kInstalled}}));
  EXPECT_FALSE(has_answer(4));
  EXPECT_FALSE(has_answer(9));
}

TEST_F(ProgrammerTest, OwesAnswersWhileTheDatabaseIsFull) {
  start();
  host::fault::fail(host::fault::Point::mom_set, -14, 0, 3);
  for (std::uint64_t index = 1; index <= 4; ++index) put_flow(index, 10 + index);
  EXPECT_EQ(answers(4), (std::vector<Told>{{1, 11, kInstalled}, {2, 12, kInstalled}, {3, 13, kInstalled}, {4, 14, kInstalled}}));
}

TEST_F(ProgrammerTest, CountersGrowAndAreWrittenOnlyWhenTheyChanged) {
  host::clock::stop();
  start(options([](Options &o) {
    o.script = "fail=2";
    o.counter_interval_ms = 100;
    o.counter_rate = 3;
  }));
  put_flow(1, 11);
  put_flow(2, 12);
  answers(2);
  for (int i = 0; i < 3; ++i) {  // less than a packet
    host::clock::warp(100ms);
    spin(3ms);
    EXPECT_TRUE(counters(1).empty());
  }
  host::clock::warp(700ms);
  ASSERT_TRUE(host::run_until([&] { return !counters(1).empty(); }, 2s));
  EXPECT_EQ(counters(1), (std::vector<std::uint64_t>{3, 300, 3, 300}));
  host::clock::warp(1000ms);
  ASSERT_TRUE(host::run_until([&] { return counters(1)[2] > 3; }, 2s));
  EXPECT_EQ(counters(1), (std::vector<std::uint64_t>{3, 300, 6, 600}));
  EXPECT_TRUE(counters(2).empty());
  del_flow(1);
  spin(5ms);
  EXPECT_TRUE(counters(1).empty());
}

TEST_F(ProgrammerTest, StartsWithWhatIsThere) {
  host::clock::stop();
  put_flow(1, 11);
  put_answer(1, 11, kInstalled);  // answered in an earlier life
  put_flow(2, 12);
  put_answer(2, 10, kInstalled);  // answered, but to an earlier request
  put_flow(3, 13);                // never answered
  put_answer(4, 14, kInstalled);  // its flow has gone
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = 1;
  SPolicyKelim__FlowCounter counter = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  counter.index = &key;
  counter.packet_sum = 1000;
  counter.byte_sum = 5000;
  ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &counter.base, 0, 0), 0);
  spin(5ms);
  start(options([](Options &o) {
    o.counter_interval_ms = 1000;
    o.counter_rate = 5;
  }));
  EXPECT_EQ(answers(2), (std::vector<Told>{{2, 12, kInstalled}, {3, 13, kInstalled}}));
  EXPECT_TRUE(has_answer(1));
  EXPECT_FALSE(has_answer(4));
  put_flow(1, 11);  // its notification was under way when it was read: not answered again
  put_flow(1, 11);  // a request of its own
  EXPECT_EQ(answers(1), (std::vector<Told>{{1, 11, kInstalled}}));
  host::clock::warp(1000ms);
  ASSERT_TRUE(host::run_until([&] { return counters(1)[2] != 1000; }, 2s));
  EXPECT_EQ(counters(1), (std::vector<std::uint64_t>{5, 500, 1005, 5500}));
}

// Which of the scans at the start fails; there are seven, one a record type.
class ProgrammerReading : public ProgrammerTest, public testing::WithParamInterface<unsigned> {};

TEST_P(ProgrammerReading, IsRepeatedUntilEverythingCouldBeRead) {
  host::clock::stop();
  SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  key.t_flow_type = 3;
  SPolicyKelim__ParseFlow flow = S_POLICY_KELIM__PARSE_FLOW__INIT;
  SPolicyKelim__FlowToAce wanted = S_POLICY_KELIM__FLOW_TO_ACE__INIT, orphan = S_POLICY_KELIM__FLOW_TO_ACE__INIT;
  flow.index = wanted.index = &key;
  SPolicyKelim__ParseFlowKey other = key;
  key.flow_index = 7;
  other.flow_index = 8;
  orphan.index = &other;
  ASSERT_EQ(qx_mom_set(global, QX_MOM_APP_DB, &flow.base, 0, 0), 0);
  ASSERT_EQ(qx_mom_set(global, QX_MOM_APP_DB, &orphan.base, 0, 0), 0);
  put_flow(1, 11);
  put_answer(2, 12, kInstalled);  // its flow has gone
  put_meter(3, "bands");
  spin(5ms);
  host::fault::fail(host::fault::Point::mom_scan, -1, GetParam());
  start(options([](Options &o) { o.service_chain = true; }));
  EXPECT_GT(host::fault::seen(host::fault::Point::mom_scan), GetParam());
  host::clock::warp(200ms);
  EXPECT_TRUE(host::run_until([&] { return has_answer(1) && !has_answer(2) && meter_status(3) == kInstalled; }, kPatience));
  EXPECT_TRUE(host::run_until([&] { return look(QX_MOM_APP_DB, wanted) && !look(QX_MOM_APP_DB, orphan); }, kPatience));
  EXPECT_EQ(answers(1), (std::vector<Told>{{1, 11, kInstalled}}));
}

INSTANTIATE_TEST_SUITE_P(EachScan, ProgrammerReading, testing::Range(0U, 7U));

TEST_F(ProgrammerTest, NothingLeavesTheTargetWhileTheDatabaseCannotBeRead) {
  host::clock::stop();
  put_flow(1, 11);
  host::fault::fail(host::fault::Point::mom_scan, -1, 0, 1000);
  start();
  put_flow(2, 12);
  EXPECT_EQ(answers(1), (std::vector<Told>{{2, 12, kInstalled}}));
  for (int i = 0; i < 3; ++i) {
    host::clock::warp(200ms);
    spin(5ms);
  }
  EXPECT_TRUE(has_answer(2));
  EXPECT_FALSE(has_answer(1));
  host::fault::clear();
  host::clock::warp(200ms);
  EXPECT_EQ(answers(1), (std::vector<Told>{{1, 11, kInstalled}}));
}

TEST_F(ProgrammerTest, MetersCarryTheirStatus) {
  start(options([](Options &o) { o.script = "meter-fail=2"; }));
  put_meter(1, "bands");
  put_meter(2, "bands");
  EXPECT_TRUE(host::run_until([&] { return meter_status(1) == kInstalled && meter_status(2) == kFailed; }, 2s));
  put_meter(1, "other bands");
  EXPECT_EQ(meter_status(1), kInstalling);
  EXPECT_TRUE(host::run_until([&] { return meter_status(1) == kInstalled; }, 2s));
  // An answer that could not be given is given later.
  host::fault::fail(host::fault::Point::mom_get, -1);
  put_meter(4, "bands");
  ASSERT_TRUE(host::run_until([] { return host::fault::seen(host::fault::Point::mom_get) == 1; }, kPatience));
  EXPECT_TRUE(host::run_until([&] { return meter_status(4) == kInstalled; }, kPatience));
  // A meter that goes before its request was looked at stays away.
  put_meter(3, "bands");
  del_meter(3);
  spin(20ms);
  EXPECT_EQ(meter_status(3), -1);
}

TEST_F(ProgrammerTest, ControllerAddressesAreConfirmed) {
  start();
  SPolicyKelim__OncIpKey key = S_POLICY_KELIM__ONC_IP_KEY__INIT;
  key.ip = 0x0100000a;
  SPolicyKelim__OncIp address = S_POLICY_KELIM__ONC_IP__INIT;
  address.index = &key;
  address.status = kInstalling;
  ASSERT_EQ(qx_mom_set(global, QX_MOM_UDP_DB, &address.base, 0, 0), 0);
  int status = -1;
  EXPECT_TRUE(host::run_until(
      [&] {
        look<SPolicyKelim__OncIp>(QX_MOM_UDP_DB, address, [&](const auto &a) { status = a.status; });
        return status == kInstalled;
      },
      2s));
}

std::string bytes_of(const ProtobufCBinaryData &data) {
  return {reinterpret_cast<const char *>(data.data), data.len};
}

TEST_F(ProgrammerTest, TranslatesServiceChainFlows) {
  start(options([](Options &o) { o.service_chain = true; }));
  SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  key.t_flow_type = 3;
  key.flow_index = 77;
  SPolicyKelim__FlowField match = S_POLICY_KELIM__FLOW_FIELD__INIT;
  match.flow_field_bitmap =
      1u << S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_OF_ETH_TYPE | 1u << S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_OF_IPV4_DST;
  PLibpub__Ipv4 address = P_LIBPUB__IPV4__INIT, mask = P_LIBPUB__IPV4__INIT;
  address.data = 0x0a000001;
  mask.data = 0xffffff00;
  match.etype = 0x0800;
  match.etype_mask = 0xffff;
  match.dst_ipv4 = &address;
  match.dst_ipv4_mask = &mask;
  SPolicyKelim__FlowAction action = S_POLICY_KELIM__FLOW_ACTION__INIT;
  action.flow_action_bitmap = 1u << S_POLICY_KELIM__FLOW_ACTION_E__OUTPUT;
  action.output_ifx = 9;
  SPolicyKelim__ParseFlow flow = S_POLICY_KELIM__PARSE_FLOW__INIT;
  flow.index = &key;
  flow.field = &match;
  flow.action = &action;
  flow.req_uuid = 500;
  ASSERT_EQ(qx_mom_set(global, QX_MOM_APP_DB, &flow.base, 0, 0), 0);

  SPolicyKelim__FlowToAce wanted = S_POLICY_KELIM__FLOW_TO_ACE__INIT;
  wanted.index = &key;
  ASSERT_TRUE(host::run_until([&] { return look(QX_MOM_APP_DB, wanted); }, 2s));
  look<SPolicyKelim__FlowToAce>(QX_MOM_APP_DB, wanted, [&](const auto &entries) {
    EXPECT_EQ(entries.rep_uuid, 500u);
    ASSERT_EQ(entries.n_ace, 2u);
    for (std::size_t i = 0; i < 2; ++i) {
      const auto &ace = *entries.ace[i];
      EXPECT_EQ(ace.sn, i + 1);
      EXPECT_EQ(ace.ace_field->etype, 0x0800u);
      EXPECT_EQ(ace.ace_field->dst_ipv4->data, 0x0a000001u);
      EXPECT_EQ(ace.ace_field->dst_ipv4_mask->data, 0xffffff00u);
      EXPECT_EQ(ace.ace_action->redirect_ifx, 9u);
      EXPECT_EQ(ace.ace_action->mod_dst_mac->data.len, 6u);
    }
    // ETYPE and IPV4_DST; the second entry also the source address. FWD, REDIRECT and SET_DMAC.
    EXPECT_EQ(entries.ace[0]->ace_field->rule_bitmap, 0x104u);
    EXPECT_EQ(entries.ace[1]->ace_field->rule_bitmap, 0x106u);
    EXPECT_EQ(entries.ace[0]->ace_action->action_bitmap, 0x1011u);
    EXPECT_NE(bytes_of(entries.ace[0]->ace_action->mod_dst_mac->data), bytes_of(entries.ace[1]->ace_action->mod_dst_mac->data));
    EXPECT_EQ(bytes_of(entries.ace[1]->ace_field->src_mac->data), bytes_of(entries.ace[0]->ace_action->mod_dst_mac->data));
  });
  ASSERT_EQ(qx_mom_del(global, QX_MOM_APP_DB, &flow.base, 0, 0), 0);
  EXPECT_TRUE(host::run_until([&] { return !look(QX_MOM_APP_DB, wanted); }, 2s));
}

// ---- parts on their own

std::string check_script(const char *script) {
  Options chosen;
  chosen.script = script;
  return programmer::check(chosen);
}

TEST(ProgrammerScript, ReadsItsLanguageAndNamesWhatIsWrong) {
  using Answer = programmer::Script::Answer;
  programmer::Script script;
  std::string error;
  ASSERT_TRUE(script.parse("fail=3,17-19;resource=5,3;silent=@40-41;delay=7:200,*:5;meter-fail=2", 1, error)) << error;
  EXPECT_EQ(script.answer(3, 1), Answer::kResource);
  EXPECT_EQ(script.answer(16, 1), Answer::kNormal);
  EXPECT_EQ(script.answer(19, 1), Answer::kFail);
  EXPECT_EQ(script.answer(19, 40), Answer::kSilent);
  EXPECT_EQ(script.delay_ms(7, 1, 9), 200u);
  EXPECT_EQ(script.delay_ms(8, 7, 9), 5u);
  EXPECT_TRUE(script.meter_fails(2));
  EXPECT_FALSE(script.meter_fails(3));

  std::map<std::uint64_t, std::vector<bool>> chosen;  // by seed
  for (const std::uint64_t seed : {7, 8}) {
    ASSERT_TRUE(script.parse("fail=25%", seed, error));
    for (std::uint64_t n = 1; n <= 4000; ++n) chosen[seed].push_back(script.answer(n, n) == Answer::kFail);
    EXPECT_NEAR(std::ranges::count(chosen[seed], true), 1000, 100);
  }
  EXPECT_NE(chosen[7], chosen[8]);

  for (const char *bad :
       {"explode=1", "fail", "fail=", "fail=x", "fail=5-3", "fail=1-", "fail=@", "fail=101%", "delay=7", "delay=7:", "delay=:5",
        "fail=1;;resource=2", "fail=99999999999999999999", "meter-fail=5%", "fail=1,,2", "fail=-1"}) {
    EXPECT_FALSE(script.parse(bad, 1, error)) << bad;
    EXPECT_NE(check_script(bad), "") << bad;
  }
  EXPECT_EQ(check_script("fail=1"), "");
}

TEST(ProgrammerFlowTable, AgreesWithAPlainMapUnderRandomUse) {
  programmer::FlowTable table;
  std::map<std::pair<std::uint64_t, std::uint32_t>, std::uint32_t> model;
  std::mt19937 random(3);
  for (int step = 0; step < 200'000; ++step) {
    const programmer::FlowKey key{random() % 5000, static_cast<std::uint32_t>(random() % 2)};
    const auto known = model.find({key.index, key.vsd});
    if (random() % 3 != 0) {
      const std::uint32_t slot = table.insert(key);
      ASSERT_EQ(slot, known == model.end() ? slot : known->second);
      model[{key.index, key.vsd}] = slot;
    } else if (known != model.end()) {
      table.erase(known->second);
      model.erase(known);
    }
    ASSERT_EQ(table.size(), model.size());
  }
  for (const auto &[key, slot] : model) {
    EXPECT_EQ(table.find({key.first, key.second}), slot);
    EXPECT_EQ(table[slot].index, key.first);
  }
  EXPECT_EQ(table.find({5000, 0}), programmer::FlowTable::kNone);
}

TEST(ProgrammerWire, StopsWhereTheBytesEnd) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = ~0ull;
  std::string data(300, 'x');
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.index = &key;
  flow.req_uuid = 1ull << 50;
  flow.flow_data = {data.size(), reinterpret_cast<std::uint8_t *>(data.data())};
  std::vector<std::uint8_t> packed(s_policy_kelim__flow__get_packed_size(&flow));
  s_policy_kelim__flow__pack(&flow, packed.data());
  std::vector<std::size_t> borders;
  for (std::size_t length = 0; length <= packed.size(); ++length) {
    const std::vector<std::uint8_t> cut(packed.begin(), packed.begin() + static_cast<std::ptrdiff_t>(length));
    programmer::WireReader reader(cut);
    programmer::WireField field;
    while (reader.next(field)) {
    }
    if (!reader.broken()) borders.push_back(length);
  }
  EXPECT_EQ(borders.size(), 4u);  // nothing, and behind each of the three fields
  for (const std::vector<std::uint8_t> &bad : {std::vector<std::uint8_t>(11, 0xff), {0x00, 0x01}, {0x0b}, {0x0a, 0x05, 1}}) {
    programmer::WireReader reader(bad);
    programmer::WireField field;
    while (reader.next(field)) {
    }
    EXPECT_TRUE(reader.broken());
  }
}

}  // namespace
