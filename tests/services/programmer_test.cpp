// The programming service on the real runtime and embedded store: records in, records out. The host's clock stands still.
#include "programmer/programmer.h"

#include <map>
#include <random>
#include <set>

#include "host/fault/fault.h"
#include "host/mom/mom_world.h"

namespace mom_test {
namespace {

using programmer::Options;

using FlowCounter = Keyed<SPolicyKelim__FlowCounter, s_policy_kelim__flow_counter__descriptor,
                          s_policy_kelim__flow_key__descriptor, &SPolicyKelim__FlowKey::flow_index>;
using ParseFlow = Keyed<SPolicyKelim__ParseFlow, s_policy_kelim__parse_flow__descriptor,
                        s_policy_kelim__parse_flow_key__descriptor, &SPolicyKelim__ParseFlowKey::flow_index>;
using FlowToAce = Keyed<SPolicyKelim__FlowToAce, s_policy_kelim__flow_to_ace__descriptor,
                        s_policy_kelim__parse_flow_key__descriptor, &SPolicyKelim__ParseFlowKey::flow_index>;

class Programmer : public testing::Test {
 protected:
  void SetUp() override {
    world.connect_all();
    host::clock::stop();
  }
  void TearDown() override { programmer::stop_embedded(); }

  void start(const Options &options = {}) {
    world.watch<0>(FlowSta::kType);
    recorders[0].hook = [this](const qx_obj *object) {
      if (object->cmd != 1) return;
      const auto &sta = *static_cast<const SPolicyKelim__FlowSta *>(object->value);
      const auto *status = protobuf_c_enum_descriptor_get_value(&s_policy_kelim__status_e__descriptor, sta.status);
      told += std::to_string(sta.index->flow_index) + "/" + std::to_string(sta.rep_uuid) + " " + status->name + "\n";
    };
    ASSERT_EQ(programmer::start_embedded(world.global(), options), 0);
    rest();
  }
  void run(const std::string &steps) {
    world.run(steps);
    rest();
  }
  // What is written and what is written in answer to that is delivered.
  void rest() {
    for (int round = 0; round < 3; ++round) {
      for (const std::int32_t db : {4, 8}) world.settle(db);
    }
  }
  // Lets time pass until `condition` holds.
  bool pass(std::chrono::milliseconds time, const std::function<bool()> &condition) {
    host::clock::warp(time);
    const bool held = run_until(condition);
    rest();
    return held;
  }
  // Every flow_sta written meanwhile, in order, "INDEX/UUID STATUS" in each line.
  std::string answers() {
    rest();
    return std::exchange(told, "");
  }
  std::string answers_after(std::chrono::milliseconds time) {
    EXPECT_TRUE(pass(time, [this] { return !told.empty(); }));
    return answers();
  }

  void put_flow(std::uint64_t index, std::uint64_t uuid, std::string data = "flow") {
    Flow flow(index);
    flow.record.req_uuid = uuid;
    flow.record.flow_data = {data.size(), reinterpret_cast<std::uint8_t *>(data.data())};
    ASSERT_EQ(world.setow(flow, 1), 0);
  }
  void put_answer(std::uint64_t index, std::uint64_t uuid) {
    FlowSta sta(index);
    sta.record.rep_uuid = uuid;
    sta.record.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
    ASSERT_EQ(world.set(sta), 0);
  }
  template <typename Record>
  std::string stored(std::uint64_t key, std::int32_t db = 8) {
    Record record(key);
    return world.get(record, db).text;
  }

  World world{"Embedded"};
  std::string told;
};

TEST_F(Programmer, AnswersEachRequestAndKeepsToItsSize) {
  start({.size = 2, .script = ""});
  for (std::uint64_t index = 1; index <= 3; ++index) put_flow(index, 10 + index);
  EXPECT_EQ(answers(), "1/11 STATUS_INSTALLED\n2/12 STATUS_INSTALLED\n3/13 STATUS_RESOURCE\n");
  run("del flow:1");
  EXPECT_EQ(stored<FlowSta>(1), "");
  put_flow(3, 14);
  EXPECT_EQ(answers(), "3/14 STATUS_INSTALLED\n");
}

TEST_F(Programmer, AnswersAnUnchangedRewriteWithoutTouchingTheTarget) {
  start({.script = "fail=2,3"});
  for (const std::uint64_t uuid : {11, 12, 12}) put_flow(1, uuid);
  EXPECT_EQ(answers(), "1/11 STATUS_INSTALLED\n1/12 STATUS_INSTALLED\n1/12 STATUS_INSTALLED\n");
  for (const std::uint64_t uuid : {13, 14, 15}) put_flow(1, uuid, "changed");  // what failed is tried again
  EXPECT_EQ(answers(), "1/13 STATUS_FAILED\n1/14 STATUS_FAILED\n1/15 STATUS_INSTALLED\n");
}

TEST_F(Programmer, DelaysOvertakeEachOtherAndADeletedFlowIsForgotten) {
  start({.delay_ms = 50, .script = "delay=1:200,@2:0;silent=@9"});
  for (const std::uint64_t index : {1, 2, 3, 4, 9}) put_flow(index, 10 + index);
  put_flow(1, 21);  // would be answered after 50 ms if it were not for the request before
  EXPECT_EQ(answers(), "2/12 STATUS_INSTALLED\n");
  run("del flow:4");
  EXPECT_EQ(answers_after(60ms), "3/13 STATUS_INSTALLED\n");
  EXPECT_EQ(answers_after(200ms), "1/11 STATUS_INSTALLED\n1/21 STATUS_INSTALLED\n");
  EXPECT_EQ(stored<FlowSta>(4) + stored<FlowSta>(9), "");
}

TEST_F(Programmer, OwesAnswersWhileTheDatabaseIsFull) {
  start();
  host::fault::fail(host::fault::Point::mom_set, -14, 0, 2);
  for (const std::uint64_t index : {1, 2, 3}) put_flow(index, 10 + index);
  EXPECT_EQ(answers(), "");
  host::clock::warp(20ms);
  run_until([] { return host::fault::seen(host::fault::Point::mom_set) == 2; });
  EXPECT_EQ(answers_after(20ms), "1/11 STATUS_INSTALLED\n2/12 STATUS_INSTALLED\n3/13 STATUS_INSTALLED\n");
}

TEST_F(Programmer, CountersGrowAndAreWrittenOnlyWhenTheyChanged) {
  start({.script = "fail=2", .counter_interval_ms = 100, .counter_rate = 3});
  for (const std::uint64_t index : {1, 2}) put_flow(index, 10 + index);
  rest();
  host::clock::warp(300ms);  // less than a packet
  rest();
  EXPECT_EQ(stored<FlowCounter>(1), "");
  ASSERT_TRUE(pass(700ms, [&] { return stored<FlowCounter>(1) != ""; }));
  EXPECT_EQ(stored<FlowCounter>(1), "index={flow_index=0x1} packet_count=0x3 byte_count=0x12c packet_sum=0x3 byte_sum=0x12c");
  const std::string grown = "index={flow_index=0x1} packet_count=0x3 byte_count=0x12c packet_sum=0x6 byte_sum=0x258";
  ASSERT_TRUE(pass(1000ms, [&] { return stored<FlowCounter>(1) == grown; })) << stored<FlowCounter>(1);
  EXPECT_EQ(stored<FlowCounter>(2), "");
  run("del flow:1");
  EXPECT_EQ(stored<FlowCounter>(1), "");
}

// A southbound flow-mod of which only the idle timeout matters.
std::string idle_after(std::uint8_t seconds) {
  std::string bytes(40, '\0');
  bytes[36] = static_cast<char>(seconds);
  return bytes;
}

TEST_F(Programmer, AFlowThatMatchesNothingForItsIdleTimeoutIsPublishedUntilItIsRemoved) {
  start({.delay_ms = 1000, .script = "fail=3"});
  world.watch<1>(FlowCounter::kType);
  for (const std::uint64_t index : {1, 2, 3}) put_flow(index, 10 + index, index == 2 ? "without" : idle_after(3));
  const auto published_after = [this](std::chrono::milliseconds time) {
    for (auto spent = 0ms; spent < time; spent += 300ms) {  // at the pace of the watch
      host::clock::warp(300ms);
      for (int turn = 0; turn < 3; ++turn) rest();
    }
    std::string all;
    for (const Seen &one : std::exchange(recorders[1].seen, {})) all += one.text + "\n";
    return all;
  };
  const std::string idle = "index={flow_index=0x1}\n";
  EXPECT_EQ(published_after(3900ms), "") << "the time begins with the installation";
  EXPECT_EQ(published_after(600ms), idle);
  EXPECT_EQ(published_after(600ms), "");
  EXPECT_EQ(published_after(600ms), idle) << "once more after a second";
  run("del flow:1");
  recorders[1].seen.clear();
  EXPECT_EQ(published_after(9000ms), "");
}

TEST_F(Programmer, TheMoreCountersChangeTheLongerARoundTakes) {
  start({.script = "", .counter_interval_ms = 100, .counter_rate = 100});
  for (std::uint64_t index = 1; index <= 1000; ++index) put_flow(index, index);
  rest();
  std::uint64_t written = 0;
  for (int n = 0; n < 20; ++n) {
    const auto before = programmer::totals()->counters;
    host::clock::warp(50ms);
    for (int turn = 0; turn < 8; ++turn) rest();
    written += programmer::totals()->counters - before;
    EXPECT_LE(programmer::totals()->counters - before, 200u);
  }
  EXPECT_GE(written, 2000u) << "and still every counter comes again";
}

// Which of the scans at the start fails; there are seven, one a record type, and the eighth does not come.
class ProgrammerStart : public Programmer, public testing::WithParamInterface<unsigned> {};

TEST_P(ProgrammerStart, GoesOnFromWhatIsThereOnceAllOfItCouldBeRead) {
  put_flow(1, 11);
  put_answer(1, 11);  // answered in an earlier life
  put_flow(2, 12);
  put_answer(2, 10);                             // answered, but to an earlier request
  put_flow(3, 13);                               // never answered
  world.run("set meter:5 1; set flow_sta:4 2");  // the latter's flow has gone
  FlowCounter counter(1);
  counter.record.packet_sum = 1000;
  counter.record.byte_sum = 5000;
  ASSERT_EQ(world.set(counter), 0);
  ParseFlow chained(7);
  FlowToAce orphan(8);
  ASSERT_EQ(world.set(chained, 4), 0);
  ASSERT_EQ(world.set(orphan, 4), 0);
  rest();
  host::fault::fail(host::fault::Point::mom_scan, -1, GetParam());
  start({.script = "", .counter_interval_ms = 1000, .counter_rate = 5});
  EXPECT_GT(host::fault::seen(host::fault::Point::mom_scan), std::min(GetParam(), 6u));
  ASSERT_TRUE(pass(200ms, [&] { return stored<Meter>(5) == "index={meter_id=0x5} status=0x2" && stored<FlowSta>(4).empty(); }));
  EXPECT_EQ(answers(), "2/12 STATUS_INSTALLED\n3/13 STATUS_INSTALLED\n");
  EXPECT_NE(stored<FlowSta>(1), "");
  EXPECT_NE(stored<FlowToAce>(7, 4), "");
  EXPECT_EQ(stored<FlowToAce>(8, 4), "");
  for (int time = 0; time < 2; ++time) put_flow(1, 11);  // was under way when it was read; a request of its own
  EXPECT_EQ(answers(), "1/11 STATUS_INSTALLED\n");
  const std::string grown = "index={flow_index=0x1} packet_count=0x5 byte_count=0x1f4 packet_sum=0x3ed byte_sum=0x157c";
  EXPECT_TRUE(pass(800ms, [&] { return stored<FlowCounter>(1) == grown; })) << stored<FlowCounter>(1);
}

INSTANTIATE_TEST_SUITE_P(EachScan, ProgrammerStart, testing::Range(0U, 8U));

TEST_F(Programmer, NothingLeavesTheTargetWhileTheDatabaseCannotBeRead) {
  put_flow(1, 11);
  host::fault::fail(host::fault::Point::mom_scan, -1, 0, 1000);
  start();
  put_flow(2, 12);
  EXPECT_EQ(answers(), "2/12 STATUS_INSTALLED\n");
  const unsigned before = host::fault::seen(host::fault::Point::mom_scan);
  ASSERT_TRUE(pass(200ms, [&] { return host::fault::seen(host::fault::Point::mom_scan) > before; }));
  EXPECT_NE(stored<FlowSta>(2), "");
  EXPECT_EQ(stored<FlowSta>(1), "");
  host::fault::clear();
  EXPECT_EQ(answers_after(200ms), "1/11 STATUS_INSTALLED\n");
}

TEST_F(Programmer, MetersAndControllerAddressesCarryTheirStatus) {
  start({.script = "meter-fail=2"});
  OncIp address(0x0100000a);
  address.record.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING;
  ASSERT_EQ(world.set(address), 0);
  run("set meter:1 1; set meter:2 1; set meter:3 1; del meter:3");  // goes before its request was looked at: stays away
  EXPECT_EQ(world.get(address).text, "index={ip=0x100000a} status=0x2");
  EXPECT_EQ(stored<Meter>(1), "index={meter_id=0x1} status=0x2");
  EXPECT_EQ(stored<Meter>(2), "index={meter_id=0x2} status=0x3");
  EXPECT_EQ(stored<Meter>(3), "");
  host::fault::fail(host::fault::Point::mom_get, -1);
  run("set meter:1 1");  // an answer that could not be given is given later
  EXPECT_EQ(stored<Meter>(1), "index={meter_id=0x1} status=0x1");
  EXPECT_TRUE(pass(200ms, [&] { return stored<Meter>(1) == "index={meter_id=0x1} status=0x2"; }));
}

TEST_F(Programmer, TranslatesServiceChainFlows) {
  start();
  PLibpub__Ipv4 address = P_LIBPUB__IPV4__INIT, mask = P_LIBPUB__IPV4__INIT;
  address.data = 0x0a000001;
  mask.data = 0xffffff00;
  SPolicyKelim__FlowField match = S_POLICY_KELIM__FLOW_FIELD__INIT;
  match.flow_field_bitmap =
      1u << S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_OF_ETH_TYPE | 1u << S_POLICY_KELIM__FLOW_FIELD_E__OXM_SS_OF_IPV4_DST;
  match.etype = 0x0800;
  match.etype_mask = 0xffff;
  match.dst_ipv4 = &address;
  match.dst_ipv4_mask = &mask;
  SPolicyKelim__FlowAction action = S_POLICY_KELIM__FLOW_ACTION__INIT;
  action.flow_action_bitmap = 1u << S_POLICY_KELIM__FLOW_ACTION_E__OUTPUT;
  action.output_ifx = 9;
  ParseFlow flow(77);
  flow.key.t_flow_type = 3;
  flow.record.field = &match;
  flow.record.action = &action;
  flow.record.req_uuid = 500;
  ASSERT_EQ(world.set(flow, 4), 0);
  rest();
  FlowToAce entries(77);
  entries.key.t_flow_type = 3;
  // ETYPE and IPV4_DST; the second entry also the source address, that of the first node. FWD, REDIRECT and SET_DMAC.
  EXPECT_EQ(world.get(entries, 4).text,
            "index={t_flow_type=0x3 flow_index=0x4d} ace=["
            "{sn=0x1 acl_app_type='service_chain' ace_field={rule_bitmap=0x104 etype=0x800 etype_mask=0xffff dst_ipv4=0xa000001 "
            "dst_ipv4_mask=0xffffff00} ace_action={action_bitmap=0x1011 fwd=0x1 mod_dst_mac=026b656c0001 "
            "mod_dst_mac_mask=ffffffffffff redirect_ifx=0x9}}"
            "{sn=0x2 acl_app_type='service_chain' ace_field={rule_bitmap=0x106 src_mac=026b656c0001 src_mac_mask=ffffffffffff "
            "etype=0x800 etype_mask=0xffff dst_ipv4=0xa000001 dst_ipv4_mask=0xffffff00} ace_action={action_bitmap=0x1011 fwd=0x1 "
            "mod_dst_mac=026b656c0002 mod_dst_mac_mask=ffffffffffff redirect_ifx=0x9}}] rep_uuid=0x1f4");
  ASSERT_EQ(world.del(flow, 4), 0);
  rest();
  EXPECT_EQ(world.get(entries, 4).cmd, 0u);
}

TEST_F(Programmer, KnowsEveryFlowHoweverTheyComeAndGo) {
  start();
  std::mt19937 random(3);
  std::set<std::uint64_t> there;
  for (int step = 0; step < 30'000; ++step) {
    const std::uint64_t index = random() % 3000 + 1;
    if (random() % 3 != 0) {
      put_flow(index, static_cast<std::uint64_t>(step));
      there.insert(index);
    } else if (there.erase(index) != 0) {
      ASSERT_EQ(world.del(Flow(index)), 0);
    }
    if (step % 1000 == 0) rest();
  }
  rest();
  std::set<std::uint64_t> answered;
  for (const Seen &sta : world.scan(FlowSta(0))) answered.insert(sta.key);
  EXPECT_EQ(answered, there);
}

TEST_F(Programmer, SkipsWhatIsNoFlowRecord) {
  start();
  Flow flow(1);
  std::string data(300, 'x');
  flow.record.req_uuid = 1ull << 50;
  flow.record.flow_data = {data.size(), reinterpret_cast<std::uint8_t *>(data.data())};
  const std::string whole = pack(flow);
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    world.put_raw(8, "s_policy_kelim.flow:1:0", whole.substr(0, length));
  }
  // Good are the ends behind each of the three fields.
  EXPECT_EQ(answers(), "1/0 STATUS_INSTALLED\n1/0 STATUS_INSTALLED\n1/1125899906842624 STATUS_INSTALLED\n");
  const std::string key = whole.substr(0, 4);
  for (const std::string &bad : {std::string(11, '\xff'), std::string("\0\1", 2), std::string("\x0b"), std::string("\x0a\5\1")}) {
    world.put_raw(8, "s_policy_kelim.flow:1:0", key + bad);
  }
  EXPECT_EQ(answers(), "");
}

TEST_F(Programmer, ScriptSaysWhatHappensToWhichRequest) {
  for (const char *bad :
       {"explode=1", "fail", "fail=", "fail=x", "fail=5-3", "fail=1-", "fail=@", "fail=101%", "delay=7", "delay=7:", "delay=:5",
        "fail=1;;resource=2", "fail=99999999999999999999", "meter-fail=5%", "fail=1,,2", "fail=-1"}) {
    EXPECT_EQ(programmer::start_embedded(world.global(), {.script = bad}), -4) << bad;
  }
  start({.script = "fail=2,4-5;resource=6,2;silent=@30-31;delay=*:0"});
  for (const std::uint64_t index : {1, 2, 3, 4, 5, 6, 30, 31, 32}) put_flow(index, 7);
  EXPECT_EQ(answers(),
            "1/7 STATUS_INSTALLED\n2/7 STATUS_RESOURCE\n3/7 STATUS_INSTALLED\n4/7 STATUS_FAILED\n5/7 STATUS_FAILED\n"
            "6/7 STATUS_RESOURCE\n32/7 STATUS_INSTALLED\n");
}

TEST_F(Programmer, ChanceFollowsTheSeed) {
  std::map<std::uint64_t, std::string> chosen;
  for (const std::uint64_t seed : {7, 8, 7}) {
    start({.script = "fail=25%", .seed = seed});
    for (std::uint64_t index = 1; index <= 1000; ++index) put_flow(index, 1);
    const std::string answered = answers();
    EXPECT_NEAR(std::ranges::count(answered, 'F'), 250, 60);
    EXPECT_EQ(chosen.try_emplace(seed, answered).first->second, answered);
    for (std::uint64_t index = 1; index <= 1000; ++index) ASSERT_EQ(world.del(Flow(index)), 0);
    programmer::stop_embedded();
  }
  EXPECT_NE(chosen[7], chosen[8]);
}

}  // namespace
}  // namespace mom_test
