// The object database's contract, the same for every platform and store: calls, notifications, scans, congestion, expiry and
// overwrite tags.
#include <optional>
#include <random>
#include <set>

#include "conformance/store_world.h"
#include "libcgstctrl.h"

namespace mom_test {
namespace {

class MomConformance : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override { start(); }
  void start(unsigned topic_limit = 0) {
    make(topic_limit);
    world->connect_all();
  }
  void make(unsigned topic_limit = 0) {
    world.reset();
    world.emplace(start_process(GetParam(), topic_limit));
  }

  std::optional<StoreWorld> world;
};

INSTANTIATE_TEST_SUITE_P(Stores, MomConformance, testing::ValuesIn(stores()), [](const auto &store) { return store.param; });

// ---- arguments and connections

TEST_P(MomConformance, CallsRefuseMalformedArgumentsAndRecords) {
  qx_global *global = world->global();
  world->watch<0>(Flow::kType);
  Flow flow(1);
  for (const auto &[name, call] : kOps) {
    SCOPED_TRACE(name);
    EXPECT_EQ(call(nullptr, 8, flow, 1), -4);
    EXPECT_EQ(call(global, 3, flow, 1), -4);
    EXPECT_EQ(call(global, 8, nullptr, 1), -4);
  }
  SPolicyKelim__Flow keyless = S_POLICY_KELIM__FLOW__INIT;
  for (const char *name : {"set", "tag", "setnx", "del", "del_sync", "get"}) {
    EXPECT_EQ(kOps.at(name)(global, 8, &keyless.base, 1), -4) << name;
  }
  EXPECT_EQ(qx_mom_get_sync(global, 8, flow, 0, nullptr), -4);
  EXPECT_EQ(qx_mom_scan_sync(global, 8, flow, 0, nullptr, nullptr), -4);
  EXPECT_EQ(qx_mom_client_connect_sync(global, 99), -4);
  EXPECT_EQ(qx_mom_client_connect(global, 8, nullptr, "x"), -4);
  EXPECT_EQ(qx_mom_client_set_reconnect_cb(global, 8, nullptr, nullptr), -4);
  const qx_mom_spec right = {Flow::kType, QX_MOM_DECODED}, wrong_delivery = {Flow::kType, 7};
  const qx_mom_spec wrong_key = {{Flow::kType.value, Meter::kType.key}, QX_MOM_DECODED};
  const qx_mom_spec no_value = {{nullptr, Flow::kType.key}, QX_MOM_DECODED}, *none = nullptr;
  for (const auto *spec : {&wrong_key, &no_value, &wrong_delivery, none}) {
    EXPECT_EQ(qx_mom_subscribe(global, 8, spec, record_into<1>), -4);
  }
  EXPECT_EQ(qx_mom_subscribe(global, 8, &right, nullptr), -4);
  qx_mom_qx_obj_free(nullptr);

  ProtobufCMessageDescriptor bare = s_policy_kelim__flow__descriptor;
  bare.reserved1 = bare.reserved2 = nullptr;
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  Flow no_bytes(1), other_part(1), no_elements(1), no_name_lengths(1), of_no_kind(1);
  no_bytes.record.flow_data.len = 8;
  other_part.record.flow_field = reinterpret_cast<SPolicyKelim__FlowField *>(&other_part.key);
  no_elements.record.n_ace = 1;
  no_name_lengths.record.base.descriptor = &bare;
  of_no_kind.record.base.descriptor = nullptr;
  EXPECT_EQ(world->set(&signal.base), -4) << "it has no key";
  int row = 0;
  for (Flow *malformed : {&no_bytes, &other_part, &no_elements, &no_name_lengths, &of_no_kind}) {
    EXPECT_EQ(world->set(*malformed), -4) << row++;
  }
  world->settle();
  EXPECT_TRUE(world->scan(flow).empty() && recorders[0].seen.empty());
}

TEST_P(MomConformance, ConnectionsServeTheirKindOfCall) {
  make();
  qx_global *global = world->global();
  Flow flow(1);
  for (const auto &[name, call] : kOps) EXPECT_EQ(call(global, 8, flow, 1), -1) << name;
  EXPECT_EQ(world->subscribe<0>(Flow::kType), -1);
  ASSERT_EQ(qx_mom_client_connect_sync(global, 8), 0);
  world->run("setnx flow:1; set flow:1 gives -1");

  for (unsigned client = 0; client < 2; ++client) {
    ASSERT_EQ(qx_mom_client_connect(global, 8, count_connect, nullptr), 0);
    EXPECT_EQ(connects, client);  // never from inside the call
    ASSERT_TRUE(run_until([&] { return connects == client + 1; }));
  }
  world->watch<0>(Flow::kType);
  world->watch<1>(Flow::kType, 8, QX_MOM_PACKED);
  world->watch<1>(Meter::kType, 8, QX_MOM_PACKED);
  world->run("set flow:1; set meter:1");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1");
  ASSERT_EQ(trace(recorders[1].seen), "1:0 1:0");
  EXPECT_EQ(recorders[1].seen[0].packed, pack(flow));
  EXPECT_EQ(recorders[1].seen[1].packed, pack(Meter(1)));
  EXPECT_TRUE(recorders[0].seen[0].packed.empty());
}

// ---- objects and their notifications

// What is told and what is left, as "type cmd:key=status" of each.
struct Journey {
  const char *name;
  std::uint64_t flows;  // that are there, with tag 1
  std::string steps;
  std::string left;
  std::string gone;  // everything deleted in the end, by key
  const char *told;  // type by type, in this order; null when it is plain
};

const Journey kJourneys[] = {
    {"writes are told once, in order, as they were written; deletions with the last record", 0,
     "set flow:1; set flow_sta:1 14; set flow:2 3; set flow:1 3; del flow:2", "flow 1:1=3, flow_sta 1:1=14, ", "flow 3:2=3, ",
     "flow 1:1=0, flow 1:2=3, flow 1:1=3, flow 3:2=3, flow_sta 1:1=14, "},
    {"hash-class types tell the first write from others", 0,
     "set meter:3 1; set meter:3 3; del meter:3; set meter:3 1; del_sync meter:3; setnx meter:3", "meter 6:3=0, ",
     "meter 3:3=3, meter 3:3=1, ", "meter 4:3=1, meter 6:3=3, meter 3:3=3, meter 4:3=1, meter 3:3=1, meter 4:3=0, "},
    {"set if absent keeps what is there", 0,
     "setnx flow:1 1; setnx flow:1 2 gives 1; get flow:1; del_sync flow:1; setnx flow:1 3", "flow 1:1=3, ", "flow 3:1=1, ",
     "flow 1:1=1, flow 3:1=1, flow 1:1=3, "},
    {"what is not there cannot be deleted", 0,
     "get flow:5 gives -7; del flow:5 gives -7; del_sync flow:5 gives -7; set flow:5; del_sync flow:5; del flow:5 gives -7", "",
     "flow 3:5=0, ", "flow 1:5=0, flow 3:5=0, "},
    {"deletions keep their place among the writes of their type, also of the same object", 2,
     "set flow:3 2; del flow:1; set flow:1 3; set flow:3 4; del flow:1; set flow_sta:1; del flow_sta:1; set flow:1 5; del "
     "flow:3; "
     "set flow_sta:2; set flow:3 6; del flow:2; del flow:2 gives -7",
     "flow 1:1=5, flow 1:3=6, flow_sta 1:2=0, ", "flow 3:1=0, flow 3:1=3, flow_sta 3:1=0, flow 3:2=0, flow 3:3=4, ",
     "flow 1:3=2, flow 3:1=0, flow 1:1=3, flow 1:3=4, flow 3:1=3, flow 1:1=5, flow 3:3=4, flow 1:3=6, flow 3:2=0, "
     "flow_sta 1:1=0, flow_sta 3:1=0, flow_sta 1:2=0, "},
    {"what is published is told and not stored", 0, "publish flow:4 2", "", "", "flow 16:4=2, "},
    {"objects expire alone unless they are rewritten or kept", 4,
     "expire flow:1 300; expire flow:2 300; expire flow:3 300; expire flow:9 300; set flow:2; keep flow:3; keep flow:4",
     "flow 1:2=0, flow 1:3=0, flow 1:4=0, ", "flow 3:1=0, ", nullptr},
    {"a later expiry takes the place of an earlier one", 4,
     "expire flow:2 3600000; expire flow:2 300; expire flow:3 300; expire flow:3 3600000; expire flow:4 0",
     "flow 1:1=0, flow 1:3=0, ", "flow 3:2=0, flow 3:4=0, ", nullptr},
    {"types expire as a whole, but for what is rewritten or new, and leave others alone", 4,
     "set flow_sta:1; set meter:1; expire flow 300; expire meter 300; tag flow:2 1; set flow:5; keep meter",
     "flow 1:2=1, flow 1:5=0, flow_sta 1:1=0, meter 6:1=0, ", "flow 3:1=0, flow 3:3=0, flow 3:4=0, ", nullptr},
    {"the whole's expiry takes over from a single one, and a single one behind it leaves the whole", 4,
     "expire flow:1 3600000; expire flow 300; expire flow:2 3600000; keep flow:3", "flow 1:2=0, flow 1:3=0, ",
     "flow 3:1=0, flow 3:4=0, ", nullptr},
    {"the whole's longer expiry takes over as well", 2, "expire flow:2 300; expire flow 3600000", "flow 1:1=0, flow 1:2=0, ", "",
     nullptr},
    {"the whole takes back both kinds", 2, "expire flow 300; expire flow:2 300; keep flow", "flow 1:1=0, flow 1:2=0, ", "", ""},
    {"a deletion by tag takes nothing ahead of its deadline", 4, "expire flow 3600000; tag flow:4 1; drop flow 1; drop flow 0",
     "flow 1:1=0, flow 1:2=0, flow 1:3=0, flow 1:4=1, ", "", "flow 1:4=1, "},
    {"what is renewed in pieces never goes, and what is not goes at its deadline, whatever its tag", 5,
     "tag flow:5 16; expire flow 300; tag flow:2 1; drop flow 1; tag flow:3 1; drop flow 1; drop flow 16; set flow:4",
     "flow 1:2=1, flow 1:3=1, flow 1:4=0, ", "flow 3:1=0, flow 3:5=0, ", nullptr},
};

std::string list(const std::vector<Seen> &seen) {
  std::string out;
  for (const Seen &one : seen)
    out += one.type.substr(one.type.find('.') + 1) + " " + trace({one}) + "=" + std::to_string(one.status) + ", ";
  return out;
}

std::string deletions() {
  std::vector<Seen> deleted = recorders[0].seen;
  std::erase_if(deleted, [](const Seen &seen) { return seen.cmd != 3; });
  std::ranges::stable_sort(deleted, {}, &Seen::key);  // expiries have no order among themselves
  return list(deleted);
}

template <typename Record>
std::string clear(StoreWorld &world) {
  const auto left = world.scan(Record(0));
  for (const Seen &seen : left) EXPECT_EQ(world.del(Record(seen.key)), 0);
  return list(left);
}

TEST_P(MomConformance, Journeys) {
  world->watch<0>(Flow::kType);
  world->watch<0>(FlowSta::kType);
  world->watch<0>(Meter::kType);
  world->watch<1>(OncIp::kType);
  for (const auto &[name, flows, steps, left, gone, told] : kJourneys) {
    SCOPED_TRACE(name);
    world->fill(flows);
    world->forget();
    confirmed = 0;
    ASSERT_EQ(world->set(OncIp(1)), 0);
    world->run(steps);
    ASSERT_EQ(world->call("expire", OncIp(1), 300), 0);  // the last to expire
    EXPECT_TRUE(recorders[0].seen.empty() && confirmed == 0) << "nothing from inside the calls";
    world->settle();
    auto by_type = recorders[0].seen;
    std::ranges::stable_sort(by_type, {}, &Seen::type);
    EXPECT_TRUE(!told || list(by_type) == told) << list(by_type);
    world->pass(350ms);
    ASSERT_TRUE(run_until([] { return count(3, 1) == 1; }));
    EXPECT_TRUE(run_until([&expected = gone] { return deletions() == expected; })) << deletions();
    EXPECT_EQ(clear<Flow>(*world) + clear<FlowSta>(*world) + clear<Meter>(*world), left);
    std::size_t requests = 1;
    for (std::size_t at = 0; (at = steps.find("expire", at)) != std::string::npos; ++at) ++requests;
    EXPECT_EQ(confirmed, requests);
  }
}

TEST_P(MomConformance, CallsSeeWhatWasDoneBeforeThem) {
  std::mt19937 random(7);
  std::set<std::uint64_t> there, scanned;
  for (int step = 0; step < 6000; ++step) {
    Flow any(random() % 40 + (random() % 8 << 20));
    const std::uint64_t index = any.key.flow_index;
    if (random() % 2 == 0) {
      ASSERT_EQ(world->set(any), 0);
      there.insert(index);
    } else {
      ASSERT_EQ(step % 3 ? world->del(any) : world->call("del_sync", any), there.erase(index) ? 0 : -7) << step;
    }
    const bool seen = step % 5 != 0 || world->get(any).cmd == there.count(index);
    ASSERT_TRUE(seen) << step;
    if (step % 100 == 0) world->settle();
  }
  for (const Seen &each : world->scan(Flow(0))) scanned.insert(each.key);
  EXPECT_EQ(scanned, there);
  EXPECT_TRUE(world->scan(Flow(0), 4).empty()) << "another database";
}

TEST_P(MomConformance, BinaryValuesAndKeysPassUnchanged) {
  std::string data;
  for (int i = 0; i < 1000; ++i) data.push_back(static_cast<char>(i));
  world->watch<0>(Flow::kType, 8, QX_MOM_PACKED);
  Flow flow(UINT64_MAX);
  flow.key.vsd_id = UINT32_MAX;
  flow.record.flow_data = {data.size(), reinterpret_cast<std::uint8_t *>(data.data())};
  EXPECT_EQ(world->set(flow), 0);
  world->settle();
  ASSERT_EQ(recorders[0].seen.size(), 1u);
  EXPECT_EQ(recorders[0].seen[0].packed, pack(flow));
  EXPECT_EQ(world->get(flow).text, record_text::text(flow));

  // Keys of text, in order: any bytes, also those that separate or quote elsewhere, short and longer than the part kept inline.
  const std::string inlined(16, 'b');
  std::vector<std::string> names = {"",      "\x01\xff:%*?[\\]\r\n", "a",           "a:1",         "a:2",
                                    inlined, std::string(300, 'b'),  inlined + "c", inlined + "d", "\xf0\x28"};
  std::string in_order, scanned;
  for (std::size_t i = 0; i < names.size(); ++i) {
    Registration registration(names[i * 7 % names.size()].data());
    EXPECT_EQ(world->set(registration, 0), 0);
    in_order += (names[i].empty() ? "index={}" : "index={name='" + names[i] + "'}") + " ";
  }
  for (const Seen &seen : world->scan(Registration(names[0].data()), 0)) scanned += seen.text + " ";
  EXPECT_EQ(scanned, in_order);
  for (std::string &name : names) EXPECT_EQ(world->call("del_sync", Registration(name.data()), 0, 0), 0);
  EXPECT_TRUE(world->scan(Registration(names[0].data()), 0).empty());
}

// ---- subscriptions

TEST_P(MomConformance, SubscriptionBeginsWithDataFetch) {
  world->run("set flow:1");
  world->settle();
  ASSERT_EQ(world->subscribe<0>(Flow::kType), 0);
  EXPECT_TRUE(recorders[0].seen.empty());
  ASSERT_TRUE(arrive(1));
  EXPECT_EQ(recorders[0].seen[0].type, "");
  world->run("set flow:2");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "29:0 1:2");

  // Asked for again: subscribed once, a signal each time, also when it is asked for from inside its own callback.
  recorders[0].seen.clear();
  recorders[0].hook = [&](const qx_obj *) {
    recorders[0].hook = nullptr;
    EXPECT_EQ(world->subscribe<0>(Flow::kType), 0);
    EXPECT_EQ(world->subscribe<1>(Flow::kType), 0);
  };
  ASSERT_EQ(world->subscribe<0>(Flow::kType), 0);
  ASSERT_TRUE(arrive(2) && arrive(1, 1));
  world->run("set flow:2");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "29:0 29:0 1:2");
  EXPECT_EQ(trace(recorders[1].seen), "29:0 1:2");
}

TEST_P(MomConformance, CallbackMayWriteWhatItListensTo) {
  world->watch<0>(Flow::kType);
  recorders[0].hook = [&](const qx_obj *object) {
    auto *flow = static_cast<SPolicyKelim__Flow *>(object->value);
    if (object->cmd == 3 || flow->index->flow_index >= 5) return;
    Flow next(flow->index->flow_index + 1);
    EXPECT_EQ(world->set(next), 0);
    EXPECT_EQ(world->call("del_sync", &flow->base), 0);
    EXPECT_EQ(flow->index->flow_index + 1, next.key.flow_index);  // the delivered record outlives what was done to the object
  };
  world->run("set flow:1");
  ASSERT_TRUE(arrive(9));
  std::stable_partition(recorders[0].seen.begin(), recorders[0].seen.end(), [](const Seen &seen) { return seen.cmd == 1; });
  EXPECT_EQ(trace(recorders[0].seen), "1:1 1:2 1:3 1:4 1:5 3:1 3:2 3:3 3:4");
  EXPECT_EQ(trace(world->scan(Flow(0))), "1:5");
}

TEST_P(MomConformance, ReconnectToTheSameServerKeepsDataAndRepeatsDataFetch) {
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);  // told once all the same
  world->watch<0>(Flow::kType);
  world->watch<1>(Meter::kType);
  world->run("set flow:1");
  // Like the daemon's callback: subscribes again when the connection is back. Meters are left to the client.
  on_reconnect = [&](std::int32_t type) {
    EXPECT_EQ(world->subscribe<0>(Flow::kType), type == 2 ? 0 : -1);
    EXPECT_EQ(world->set(Flow(1)), type == 2 ? 0 : -1);
  };
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(round);
    world->forget();
    reconnects.clear();
    world->run("set flow:1");
    if (!world->cut_connections(8)) GTEST_SKIP() << "this store has no connection that could be lost";
    ASSERT_TRUE(run_until([] { return !reconnects.empty() && reconnects.back() == 2; }));
    EXPECT_EQ(reconnects.front(), 0);
    for (const std::int32_t type : {0, 2}) EXPECT_EQ(std::count(reconnects.begin(), reconnects.end(), type), 1);
    EXPECT_EQ(std::count(reconnects.begin(), reconnects.end(), 1), 0);
    ASSERT_TRUE(arrive(1) && arrive(1, 1));
    world->settle();
    EXPECT_EQ(count(29), 1u);
    EXPECT_EQ(trace(recorders[1].seen), "29:0");
    EXPECT_EQ(trace(world->scan(Flow(0))), "1:1");
    world->run("del flow:1");
    world->settle();
    EXPECT_EQ(recorders[0].seen.back().cmd, 3u);
  }
}

// ---- scans

TEST_P(MomConformance, ScanVisitsTheTypeInKeyOrder) {
  for (const auto &[index, vsd] : std::initializer_list<std::pair<std::uint64_t, std::uint32_t>>{
           {1ull << 40, 0}, {2, 0}, {1, 256}, {0, 5}, {256, 0}, {1, 1}, {10, 0}, {1ull << 63, 0}, {0, 0}, {9, 0}, {1, 255}}) {
    Flow flow(index);
    FlowSta other(index);
    flow.key.vsd_id = vsd;
    ASSERT_EQ(world->set(flow), 0);
    ASSERT_EQ(world->set(other), 0);
  }
  SPolicyKelim__Flow keyless = S_POLICY_KELIM__FLOW__INIT;
  const auto seen = world->scan(&keyless.base);
  EXPECT_EQ(trace(seen), "1:0 1:0 1:1 1:1 1:1 1:2 1:9 1:10 1:256 1:1099511627776 1:9223372036854775808");
  EXPECT_EQ(seen.at(2).text + seen.at(3).text + seen.at(4).text,
            "index={flow_index=0x1 vsd_id=0x1}index={flow_index=0x1 vsd_id=0xff}index={flow_index=0x1 vsd_id=0x100}");
}

TEST_P(MomConformance, ScanBearsWritesAndDeletionsOfItsTable) {
  static StoreWorld *in_scan;
  in_scan = &*world;
  world->watch<0>(Flow::kType);
  world->fill(3000, 10);
  const auto visit = [](const qx_obj *object, void *visited) {
    const std::uint64_t index = static_cast<const SPolicyKelim__Flow *>(object->value)->index->flow_index;
    static_cast<std::vector<std::uint64_t> *>(visited)->push_back(index);
    Flow self(index), before(index - 1), after(index + 1), next(index + 10);
    for (Flow *flow : {&before, &after, &self}) EXPECT_EQ(in_scan->set(*flow), 0);
    EXPECT_EQ(in_scan->del(self), 0);
    if (index % 100 == 0 && index < 3000) {
      EXPECT_EQ(in_scan->del(next), 0);
    } else if (index % 100 == 50) {
      EXPECT_EQ(in_scan->set(next), 0);
    }
    return -5;  // not looked at
  };
  std::vector<std::uint64_t> visited, expected;
  // None of those that were deleted before their turn, none of those that the visits added.
  for (std::uint64_t index = 10; index <= 3000; index += 10) {
    if (index % 100 != 10 || index == 10) expected.push_back(index);
  }
  Flow all(0);
  ASSERT_EQ(qx_mom_scan_sync(world->global(), 8, all, 0, visit, &visited), 0);
  EXPECT_EQ(visited, expected);
  EXPECT_EQ(world->scan(all).size(), 2 * expected.size());
}

// ---- size and congestion

// Requests for a whole type take their place among the writes, however many objects it has.
TEST_P(MomConformance, HundredThousandObjects) {
  constexpr std::uint64_t kCount = 100'000;
  start(1'000'000);
  world->watch<0>(Flow::kType);
  for (std::uint64_t i = 0; i < kCount; ++i) ASSERT_EQ(world->setow(Flow((i * 7919) % kCount + 1), 1), 0);
  world->settle();
  EXPECT_EQ(count(1), kCount);
  const auto scanned = world->scan(Flow(0));
  ASSERT_EQ(scanned.size(), kCount);
  for (std::uint64_t i = 0; i < kCount; i += 999) EXPECT_EQ(scanned[i].key, i + 1);

  // Taken out of expiry; and expired or rewritten behind that.
  world->run("expire flow 3600000; keep flow; drop flow 1");
  EXPECT_EQ(world->scan(Flow(0)).size(), kCount);
  world->forget();
  world->run("expire flow 500");
  world->fill(kCount, 7);
  world->run("drop flow 1");
  world->pass(1600ms);  // a second more than asked for, for a hundred thousand
  const auto gone = [] {
    return std::ranges::count_if(recorders[0].seen, [](const Seen &seen) { return seen.cmd == 3 && seen.key % 7 != 0; });
  };
  EXPECT_TRUE(run_until([&] { return gone() == kCount - kCount / 7; })) << gone();
  const auto kept = world->scan(Flow(0));
  ASSERT_EQ(kept.size(), kCount / 7);
  for (std::size_t i = kept.size(); i-- > 100;) ASSERT_EQ(world->del(Flow(kept[i].key)), 0);
  EXPECT_EQ(trace(world->scan(Flow(0))), trace({kept.begin(), kept.begin() + 100}));
}

TEST_P(MomConformance, TopicOverItsLimitRefusesUntilItHasDrained) {
  start(100);
  world->watch<0>(Flow::kType);
  world->watch<1>(FlowSta::kType);
  const auto enrol = [&](const qx_mom_type *type) { return libcgstctrl_gen_topic_reg(world->global(), 8, "test", type); };
  const qx_mom_type malformed = {Flow::kType.value, Meter::kType.key};
  EXPECT_EQ(enrol(&Flow::kType), -1);
  for (int time = 0; time < 2; ++time) {
    ASSERT_EQ(libcgstctrl_gen_init(world->global(), 8, "test"), 0);
    EXPECT_EQ(enrol(nullptr), -4);
    EXPECT_EQ(enrol(&malformed), -4);
    ASSERT_EQ(enrol(&Flow::kType), 0);
  }

  world->fill(100);
  // Deletions free room and are never refused; a type without a topic has the pipeline's limit only.
  world->run("set flow:101 gives -14; tag flow:101 1 gives -14; publish flow:101 gives -14; del flow:1; set flow_sta:1");
  world->settle();
  EXPECT_EQ(recorders[0].seen.size(), 101u);
  world->run("get flow:101 gives -7; set flow:101");
}

}  // namespace
}  // namespace mom_test
