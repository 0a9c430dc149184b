// The object database's contract, the same for every store: calls, notifications, scans, congestion, expiry and overwrite tags.
#include <optional>
#include <random>
#include <set>
#include <string>

#include "component/mom_world.h"
#include "libcgstctrl.h"

namespace mom_test {
namespace {

class MomConformance : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override { start(); }
  void start(const Settings &settings = {}) {
    world.reset();
    world.emplace(make_backend(GetParam()), settings);
    world->connect_all();
  }

  std::optional<World> world;
};

INSTANTIATE_TEST_SUITE_P(Stores, MomConformance, testing::Values("Embedded", "Redis"),
                         [](const auto &store) { return store.param; });

// ---- arguments and connections

using host::fault::Point;

struct Call {
  Point fault;
  bool needs_key;
  std::function<int(qx_global *, int32_t, ProtobufCMessage *)> make;
};

int get(qx_global *global, int32_t db, ProtobufCMessage *record) {
  auto *object = reinterpret_cast<qx_obj *>(1);
  const int rv = qx_mom_get_sync(global, db, record, 0, &object);
  EXPECT_EQ(object, nullptr);
  return rv;
}

int ignore(const qx_obj *, void *) {
  return 0;
}

const Call kCalls[] = {
    {Point::mom_set, true, [](auto g, auto db, auto r) { return qx_mom_set(g, db, r, 0, 0); }},
    {Point::mom_setow, true, [](auto g, auto db, auto r) { return qx_mom_setow(g, db, r, 0, 0, 1); }},
    {Point::mom_del, true, [](auto g, auto db, auto r) { return qx_mom_del(g, db, r, 0, 0); }},
    {Point::mom_pexpire, false, [](auto g, auto db, auto r) { return qx_mom_pexpire(g, db, r, 0, 1, 0, confirm, nullptr); }},
    {Point::mom_del_expire, false, [](auto g, auto db, auto r) { return qx_mom_del_expire(g, db, r, 0, 0, nullptr); }},
    {Point::mom_del_expire_ow, false, [](auto g, auto db, auto r) { return qx_mom_del_expire_ow(g, db, r, 0, 0, nullptr, 1); }},
    {Point::mom_publish, false, [](auto g, auto db, auto r) { return qx_mom_publish(g, db, r, 0, 0); }},
    {Point::mom_setnx, true, [](auto g, auto db, auto r) { return qx_mom_setnx_sync(g, db, r, 0, 0); }},
    {Point::mom_del_sync, true, [](auto g, auto db, auto r) { return qx_mom_del_sync(g, db, r, 0, 0); }},
    {Point::mom_get, true, get},
    {Point::mom_scan, false, [](auto g, auto db, auto r) { return qx_mom_scan_sync(g, db, r, 0, ignore, nullptr); }},
};

TEST_P(MomConformance, EveryCallRefusesWhatItCannotDo) {
  world->watch<0>(Flow::kType);
  Flow flow(1);
  SPolicyKelim__Flow keyless = S_POLICY_KELIM__FLOW__INIT;
  for (const auto &[fault, needs_key, call] : kCalls) {
    SCOPED_TRACE(host::fault::name(fault));
    EXPECT_EQ(call(nullptr, 8, flow), -4);
    EXPECT_EQ(call(world->global(), 3, flow), -4);
    EXPECT_EQ(call(world->global(), 8, nullptr), -4);
    if (needs_key) {
      EXPECT_EQ(call(world->global(), 8, base(&keyless)), -4);
    }
    host::fault::fail(fault, -99);
    EXPECT_EQ(call(world->global(), 8, flow), -99);
  }
  qx_global *global = world->global();
  EXPECT_EQ(qx_mom_get_sync(global, 8, flow, 0, nullptr), -4);
  EXPECT_EQ(qx_mom_scan_sync(global, 8, flow, 0, nullptr, nullptr), -4);
  EXPECT_EQ(qx_mom_client_connect_sync(global, 99), -4);
  EXPECT_EQ(qx_mom_client_connect(global, 8, nullptr, "x"), -4);
  EXPECT_EQ(qx_mom_client_set_reconnect_cb(global, 8, nullptr, nullptr), -4);
  const qx_mom_spec right = {Flow::kType, QX_MOM_DECODED}, wrong_delivery = {Flow::kType, 7};
  const qx_mom_spec wrong_key = {{Flow::kType.value, Meter::kType.key}, QX_MOM_DECODED};
  const qx_mom_spec no_value = {{nullptr, Flow::kType.key}, QX_MOM_DECODED};
  const qx_mom_spec *none = nullptr;
  for (const auto *spec : {&wrong_key, &no_value, &wrong_delivery, none}) {
    EXPECT_EQ(qx_mom_subscribe(global, 8, spec, record_into<1>), -4);
  }
  EXPECT_EQ(qx_mom_subscribe(global, 8, &right, nullptr), -4);
  qx_mom_qx_obj_free(nullptr);
  world->settle();
  EXPECT_TRUE(world->scan(flow).empty());
  EXPECT_TRUE(recorders[0].seen.empty());
}

TEST_P(MomConformance, MalformedRecordsAreNotWritten) {
  ProtobufCMessageDescriptor bare = s_policy_kelim__flow__descriptor;
  bare.reserved1 = bare.reserved2 = nullptr;
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  Flow no_bytes(1), other_part(1), no_elements(1), no_name_lengths(1), of_no_kind(1);
  no_bytes.record.flow_data.len = 8;
  other_part.record.flow_field = reinterpret_cast<SPolicyKelim__FlowField *>(&other_part.key);
  no_elements.record.n_ace = 1;
  no_name_lengths.record.base.descriptor = &bare;
  of_no_kind.record.base.descriptor = nullptr;
  EXPECT_EQ(world->set(base(&signal)), -4) << "it has no key";
  int row = 0;
  for (Flow *flow : {&no_bytes, &other_part, &no_elements, &no_name_lengths, &of_no_kind}) {
    EXPECT_EQ(world->set(*flow), -4) << row++;
  }
  Flow all(0);
  EXPECT_TRUE(world->scan(all).empty());
}

TEST_P(MomConformance, ConnectionsServeTheirKindOfCall) {
  world.reset();
  world.emplace(make_backend(GetParam()));
  qx_global *global = world->global();
  Flow flow(1);
  for (const Call &call : kCalls) EXPECT_EQ(call.make(global, 8, flow), -1) << host::fault::name(call.fault);
  EXPECT_EQ(world->subscribe<0>(Flow::kType), -1);
  ASSERT_EQ(qx_mom_client_connect_sync(global, 8), 0);
  EXPECT_EQ(world->setnx(flow), 0);
  EXPECT_EQ(world->set(flow), -1);

  ASSERT_EQ(qx_mom_client_connect(global, 8, count_connect<1>, "one"), 0);
  ASSERT_EQ(qx_mom_client_connect(global, 8, count_connect<2>, nullptr), 0);
  EXPECT_EQ(connects[1] + connects[2], 0u);  // never from inside the call
  ASSERT_TRUE(run_until([] { return connects[1] == 1 && connects[2] == 1; }));
  world->watch<0>(Flow::kType);
  world->watch<1>(Flow::kType, 8, QX_MOM_PACKED);
  EXPECT_EQ(world->set(flow), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1");
  ASSERT_EQ(recorders[1].seen.size(), 1u);
  EXPECT_EQ(recorders[1].seen[0].packed, pack(flow));
  EXPECT_EQ(connects[1], 1u);
}

// ---- objects and their notifications

TEST_P(MomConformance, WritesAreDeliveredLaterOnceAndInOrder) {
  world->watch<0>(Flow::kType);
  ASSERT_EQ(world->subscribe<0>(FlowSta::kType), 0);  // both types into one recorder
  ASSERT_TRUE(arrive(1));
  recorders[0].seen.clear();

  Flow one(1), two(2);
  FlowSta sta(1);
  two.key.vsd_id = 3;
  sta.record.status = S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE;
  EXPECT_EQ(world->set(one), 0);
  EXPECT_EQ(world->set(sta), 0);
  EXPECT_EQ(world->set(two), 0);
  one.record.status = S_POLICY_KELIM__STATUS_E__STATUS_FAILED;
  EXPECT_EQ(world->set(one), 0);
  EXPECT_EQ(world->del(two), 0);
  EXPECT_TRUE(recorders[0].seen.empty());  // nothing from inside the calls
  world->settle();

  const auto &seen = recorders[0].seen;
  ASSERT_EQ(trace(seen), "1:1 1:1 1:2 1:1 3:2");
  EXPECT_EQ(seen[0].text, "index={flow_index=0x1}");  // what was written then, not what stands there now
  EXPECT_EQ(seen[1].type, "s_policy_kelim.flow_sta");
  EXPECT_EQ(seen[1].text, "index={flow_index=0x1} status=0xe");
  EXPECT_EQ(seen[3].text, "index={flow_index=0x1} status=0x3");
  EXPECT_EQ(seen[4].text, "index={flow_index=0x2 vsd_id=0x3}");  // the deletion carries the last record
  for (const Seen &each : seen) EXPECT_TRUE(!each.holder && each.packed.empty());
}

TEST_P(MomConformance, CallsSeeWhatWasDoneBeforeThem) {
  Flow flow(5), neighbour(5);
  flow.key.vsd_id = 2;
  for (uint64_t round = 1; round <= 50; ++round) {
    flow.record.req_uuid = round;
    EXPECT_EQ(world->set(flow), 0);
    EXPECT_EQ(world->get(flow).text, "index={flow_index=0x5 vsd_id=0x2} req_uuid=" + record_text::hex(round));
    EXPECT_EQ(trace(world->scan(flow)), "1:5");
    EXPECT_EQ(round % 2 ? world->del(flow) : world->del_sync(flow), 0);
    EXPECT_EQ(world->get(flow).cmd, 0u);
    EXPECT_EQ(round % 3 ? world->del(flow) : world->del_sync(flow), -7);
  }
  EXPECT_EQ(world->set(flow), 0);
  EXPECT_EQ(world->get(neighbour).cmd, 0u);
  EXPECT_EQ(world->get(flow, 4).cmd, 0u);  // another database

  std::mt19937 random(7);
  std::set<uint64_t> there = {5};
  for (int step = 0; step < 6000; ++step) {
    Flow any(random() % 40 + (random() % 8 << 20));
    any.key.vsd_id = any.key.flow_index == 5 ? 2 : 0;
    if (random() % 2 == 0) {
      ASSERT_EQ(world->set(any), 0);
      there.insert(any.key.flow_index);
    } else {
      ASSERT_EQ(world->del(any), there.erase(any.key.flow_index) ? 0 : -7) << step;
    }
    if (step % 100 == 0) world->settle();
  }
  std::set<uint64_t> scanned;
  for (const Seen &each : world->scan(flow)) scanned.insert(each.key);
  EXPECT_EQ(scanned, there);
}

TEST_P(MomConformance, SetIfAbsentKeepsWhatIsThere) {
  world->watch<0>(Registration::kType, 0);
  char name[] = "kelim", library[] = "libkelim.pkt.ss.so";
  Registration first(name), second(name);
  first.record.dlib_name = library;
  second.record.reg_type = 9;
  EXPECT_EQ(world->setnx(first, 0), 0);
  EXPECT_EQ(world->setnx(second, 0), 1);
  world->settle(0);
  EXPECT_EQ(recorders[0].seen.size(), 1u);
  EXPECT_EQ(world->get(second, 0).text, "index={name='kelim'} dlib_name='libkelim.pkt.ss.so'");
  EXPECT_EQ(world->del_sync(second, 0), 0);
  EXPECT_EQ(world->setnx(second, 0), 0);
}

TEST_P(MomConformance, HashClassTypesComeInAHolder) {
  world->watch<0>(Meter::kType);
  world->watch<1>(Meter::kType, 8, QX_MOM_PACKED);
  Meter meter(3);
  EXPECT_EQ(world->set(meter), 0);
  meter.record.status = S_POLICY_KELIM__STATUS_E__STATUS_FAILED;
  EXPECT_EQ(world->set(meter), 0);
  for (const Seen &seen : {world->get(meter), world->scan(meter).at(0)}) {
    EXPECT_EQ(seen.cmd, 6u);
    EXPECT_TRUE(seen.holder);
    EXPECT_EQ(seen.text, "index={meter_id=0x3} status=0x3");
  }
  EXPECT_EQ(world->del(meter), 0);
  EXPECT_EQ(world->set(meter), 0);  // for the first time again
  EXPECT_EQ(world->del(meter), 0);
  EXPECT_EQ(world->setnx(meter), 0);
  world->settle();

  const auto &seen = recorders[0].seen, &packed = recorders[1].seen;
  ASSERT_EQ(trace(seen), "4:3 6:3 3:3 4:3 3:3 4:3");
  for (const Seen &each : seen) {
    EXPECT_EQ(each.holder, each.cmd != 3);
    EXPECT_EQ(each.error, 0);
  }
  EXPECT_EQ(seen[2].text, "index={meter_id=0x3} status=0x3");
  EXPECT_EQ(trace(packed), "1:0 1:0 3:0 1:0 3:0 1:0");
  EXPECT_EQ(packed[3].packed, pack(meter));
}

TEST_P(MomConformance, BinaryValuesAndKeysPassUnchanged) {
  std::string data;
  for (int i = 0; i < 1000; ++i) data.push_back(static_cast<char>(i));
  world->watch<0>(Flow::kType, 8, QX_MOM_PACKED);
  Flow flow(UINT64_MAX);
  flow.key.vsd_id = UINT32_MAX;
  flow.record.flow_data = {data.size(), reinterpret_cast<uint8_t *>(data.data())};
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
  for (size_t i = 0; i < names.size(); ++i) {
    Registration registration(names[i * 7 % names.size()].data());
    EXPECT_EQ(world->set(registration, 0), 0);
    in_order += (names[i].empty() ? "index={}" : "index={name='" + names[i] + "'}") + " ";
  }
  for (const Seen &seen : world->scan(Registration(names[0].data()), 0)) scanned += seen.text + " ";
  EXPECT_EQ(scanned, in_order);
  for (std::string &name : names) EXPECT_EQ(world->del_sync(Registration(name.data()), 0), 0);
  EXPECT_TRUE(world->scan(Registration(names[0].data()), 0).empty());
}

TEST_P(MomConformance, PublishedRecordsAreDeliveredAndNotStored) {
  world->watch<0>(kPktSig);
  world->watch<1>(Flow::kType);
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  signal.is_pkt_start = 1;
  Flow flow(4);
  EXPECT_EQ(world->publish(base(&signal)), 0);
  EXPECT_EQ(world->publish(flow), 0);
  EXPECT_EQ(world->publish(flow, 4), 0);  // nobody listens there
  EXPECT_TRUE(recorders[0].seen.empty());
  ASSERT_TRUE(arrive(1, 1));
  EXPECT_EQ(trace(recorders[0].seen), "16:0");
  EXPECT_EQ(recorders[0].seen[0].text, "is_pkt_start=0x1");
  EXPECT_EQ(trace(recorders[1].seen), "16:4");
  EXPECT_TRUE(world->scan(flow).empty());
}

// ---- subscriptions

TEST_P(MomConformance, SubscriptionBeginsWithDataFetch) {
  Flow before(1), after(2);
  ASSERT_EQ(world->set(before), 0);
  world->settle();
  ASSERT_EQ(world->subscribe<0>(Flow::kType), 0);
  EXPECT_TRUE(recorders[0].seen.empty());
  ASSERT_TRUE(arrive(1));
  EXPECT_EQ(recorders[0].seen[0].type, "");
  ASSERT_EQ(world->set(after), 0);
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
  ASSERT_EQ(world->set(after), 0);
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
    EXPECT_EQ(world->del_sync(&flow->base), 0);
    EXPECT_EQ(flow->index->flow_index + 1, next.key.flow_index);  // the delivered record outlives what was done to the object
  };
  Flow first(1);
  ASSERT_EQ(world->set(first), 0);
  ASSERT_TRUE(arrive(9));
  std::stable_partition(recorders[0].seen.begin(), recorders[0].seen.end(), [](const Seen &seen) { return seen.cmd == 1; });
  EXPECT_EQ(trace(recorders[0].seen), "1:1 1:2 1:3 1:4 1:5 3:1 3:2 3:3 3:4");
  EXPECT_EQ(trace(world->scan(first)), "1:5");
}

TEST_P(MomConformance, ReconnectToTheSameServerKeepsDataAndRepeatsDataFetch) {
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);  // told once all the same
  world->watch<0>(Flow::kType);
  world->watch<1>(Meter::kType);
  Flow flow(1);
  ASSERT_EQ(world->set(flow), 0);
  // Like the daemon's callback: subscribes again when the connection is back. Meters are left to the client.
  on_reconnect = [&](int32_t type) {
    EXPECT_EQ(world->subscribe<0>(Flow::kType), type == 2 ? 0 : -1);
    EXPECT_EQ(world->set(flow), type == 2 ? 0 : -1);
  };
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(round);
    world->forget();
    reconnects.clear();
    world->backend().cut_connections(8);
    ASSERT_TRUE(run_until([] { return !reconnects.empty() && reconnects.back() == 2; }));
    EXPECT_EQ(reconnects.front(), 0);
    for (const int32_t type : {0, 2}) EXPECT_EQ(std::count(reconnects.begin(), reconnects.end(), type), 1);
    EXPECT_EQ(std::count(reconnects.begin(), reconnects.end(), 1), 0);
    ASSERT_TRUE(arrive(1) && arrive(1, 1));
    world->settle();
    EXPECT_EQ(count(29), 1u);
    EXPECT_EQ(trace(recorders[1].seen), "29:0");
    EXPECT_EQ(trace(world->scan(flow)), "1:1");
    ASSERT_EQ(world->del(flow), 0);
    world->settle();
    EXPECT_EQ(recorders[0].seen.back().cmd, 3u);
  }
}

// ---- scans

TEST_P(MomConformance, ScanVisitsTheTypeInKeyOrder) {
  for (const auto &[index, vsd] : std::initializer_list<std::pair<uint64_t, uint32_t>>{
           {1ull << 40, 0}, {2, 0}, {1, 256}, {0, 5}, {256, 0}, {1, 1}, {10, 0}, {1ull << 63, 0}, {0, 0}, {9, 0}, {1, 255}}) {
    Flow flow(index);
    FlowSta other(index);
    flow.key.vsd_id = vsd;
    ASSERT_EQ(world->set(flow), 0);
    ASSERT_EQ(world->set(other), 0);
  }
  SPolicyKelim__Flow keyless = S_POLICY_KELIM__FLOW__INIT;
  const auto seen = world->scan(base(&keyless));
  EXPECT_EQ(trace(seen), "1:0 1:0 1:1 1:1 1:1 1:2 1:9 1:10 1:256 1:1099511627776 1:9223372036854775808");
  EXPECT_EQ(seen.at(2).text + seen.at(3).text + seen.at(4).text,
            "index={flow_index=0x1 vsd_id=0x1}index={flow_index=0x1 vsd_id=0xff}index={flow_index=0x1 vsd_id=0x100}");
}

TEST_P(MomConformance, ScanBearsWritesAndDeletionsOfItsTable) {
  static World *in_scan;
  in_scan = &*world;
  world->watch<0>(Flow::kType);
  world->fill(3000, 10);
  const auto visit = [](const qx_obj *object, void *visited) {
    const uint64_t index = static_cast<const SPolicyKelim__Flow *>(object->value)->index->flow_index;
    static_cast<std::vector<uint64_t> *>(visited)->push_back(index);
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
  std::vector<uint64_t> visited, expected;
  // None of those that were deleted before their turn, none of those that the visits added.
  for (uint64_t index = 10; index <= 3000; index += 10) {
    if (index % 100 != 10 || index == 10) expected.push_back(index);
  }
  Flow all(0);
  ASSERT_EQ(qx_mom_scan_sync(world->global(), 8, all, 0, visit, &visited), 0);
  EXPECT_EQ(visited, expected);
  EXPECT_EQ(world->scan(all).size(), 2 * expected.size());
}

TEST_P(MomConformance, BrokenValuesAreSkippedAndNothingElse) {
  world->watch<0>(Flow::kType);
  Flow one(1), two(2), three(3);
  ASSERT_EQ(world->set(one), 0);
  ASSERT_EQ(world->set(three), 0);
  world->settle();
  const uint64_t skipped = mom::testing::skipped();
  for (const char *bytes : {"\xff\xff\xff", "", "\x2a\x05\x08"}) world->backend().put_raw(8, "s_policy_kelim.flow:2:0", bytes);
  EXPECT_EQ(trace(world->scan(one)), "1:1 1:3");
  EXPECT_EQ(world->get(two, 8, -1).cmd, 0u);
  ASSERT_EQ(world->set(two), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1 1:3 1:2");
  EXPECT_EQ(mom::testing::skipped(), skipped + 5);  // three notifications, a scan and a get
  EXPECT_EQ(trace(world->scan(one)), "1:1 1:2 1:3");
}

// ---- size and congestion

TEST_P(MomConformance, HundredThousandObjects) {
  constexpr uint64_t kCount = 100'000;
  start({{"mom.high_water_writes", "1000000"}});
  world->watch<0>(Flow::kType);
  for (uint64_t i = 0; i < kCount; ++i) {
    Flow flow((i * 7919) % kCount + 1);
    ASSERT_EQ(world->setow(flow, 1), 0);
  }
  world->settle();
  EXPECT_EQ(recorders[0].seen.size(), kCount);
  recorders[0].seen.clear();
  Flow all(0), last(kCount);
  const auto scanned = world->scan(all);
  ASSERT_EQ(scanned.size(), kCount);
  for (uint64_t i = 0; i < kCount; i += 999) EXPECT_EQ(scanned[i].key, i + 1);

  ASSERT_EQ(world->pexpire(all, 500), 0);
  ASSERT_EQ(world->setow(last, 1), 0);
  ASSERT_TRUE(arrive(1));
  world->backend().pass(550ms);
  ASSERT_TRUE(arrive(kCount));
  world->settle();
  std::set<uint64_t> deleted;
  for (const Seen &seen : recorders[0].seen) {
    const bool once = seen.key == kCount || (seen.cmd == 3 && deleted.insert(seen.key).second);
    EXPECT_TRUE(once) << seen.cmd << ":" << seen.key;
  }
  EXPECT_EQ(deleted.size(), kCount - 1);
  EXPECT_EQ(trace(world->scan(all)), "1:100000");
}

TEST_P(MomConformance, TopicOverItsLimitRefusesUntilItHasDrained) {
  start({{"mom.high_water_writes", "100"}});
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
  Flow refused(101), first(1);
  FlowSta other(1);
  EXPECT_EQ(world->set(refused), -14);
  EXPECT_EQ(world->setow(refused, 1), -14);
  EXPECT_EQ(world->publish(refused), -14);
  EXPECT_EQ(world->del(first), 0);  // deletions free room and are never refused
  EXPECT_EQ(world->set(other), 0);  // a type without a topic has the pipeline's limit only
  world->settle();
  EXPECT_EQ(recorders[0].seen.size(), 101u);
  EXPECT_EQ(world->get(refused).cmd, 0u);
  EXPECT_EQ(world->set(refused), 0);
}

// ---- expiry

TEST_P(MomConformance, ObjectsExpireAloneUnlessRewritten) {
  world->watch<0>(Flow::kType);
  Flow one(1), two(2), three(3), four(4), missing(9);
  world->fill(4);
  for (Flow *flow : {&one, &two, &three, &missing}) ASSERT_EQ(world->pexpire(*flow, 500), 0);
  ASSERT_EQ(world->set(two), 0);
  ASSERT_EQ(world->del_expire(three), 0);
  ASSERT_EQ(world->del_expire(four), 0);
  EXPECT_EQ(confirmed, 0u);
  world->forget();
  EXPECT_EQ(confirmed, 4u);
  world->backend().pass(550ms);
  ASSERT_TRUE(arrive(1));
  EXPECT_EQ(world->get(one).cmd, 0u);
  EXPECT_EQ(world->del(one), -7);
  EXPECT_EQ(trace(world->scan(one)), "1:2 1:3 1:4");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "3:1");
  EXPECT_EQ(recorders[0].seen[0].type, "s_policy_kelim.flow");

  // A later expiry takes the place of an earlier one; one without delay is announced too.
  ASSERT_EQ(world->pexpire(two, 3'600'000), 0);
  ASSERT_EQ(world->pexpire(two, 50), 0);
  ASSERT_EQ(world->pexpire(three, 50), 0);
  ASSERT_EQ(world->pexpire(three, 3'600'000), 0);
  ASSERT_EQ(world->pexpire(four, 0), 0);
  world->backend().pass(60ms);
  ASSERT_TRUE(arrive(3));
  EXPECT_EQ(trace(world->scan(one)), "1:3");
}

TEST_P(MomConformance, TypesExpireAsAWholeUnlessRewritten) {
  world->watch<0>(Flow::kType);
  world->watch<1>(Meter::kType);
  Flow all(0), two(2), late(4);
  FlowSta other(1);
  Meter meters(0), meter(1);
  world->fill(3);
  ASSERT_EQ(world->set(other), 0);
  ASSERT_EQ(world->set(meter), 0);
  ASSERT_EQ(world->pexpire(all, 500), 0);
  ASSERT_EQ(world->pexpire(meters, 500), 0);
  ASSERT_EQ(world->setow(two, 1), 0);  // replayed
  ASSERT_EQ(world->set(late), 0);      // new
  ASSERT_EQ(world->del_expire(meters), 0);
  world->forget();
  world->backend().pass(550ms);
  ASSERT_TRUE(arrive(2));
  world->settle();
  std::sort(recorders[0].seen.begin(), recorders[0].seen.end(), [](const Seen &a, const Seen &b) { return a.key < b.key; });
  EXPECT_EQ(trace(recorders[0].seen), "3:1 3:3");  // expiries have no order among themselves
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:4");
  EXPECT_EQ(trace(world->scan(other)), "1:1");
  EXPECT_EQ(trace(world->scan(meters)), "6:1");
  EXPECT_TRUE(recorders[1].seen.empty());
}

TEST_P(MomConformance, SingleAndWholeExpiryCombine) {
  world->watch<0>(Flow::kType);
  Flow all(0), one(1), two(2), three(3);
  world->fill(3);
  ASSERT_EQ(world->pexpire(one, 3'600'000), 0);
  ASSERT_EQ(world->pexpire(all, 500), 0);        // takes over
  ASSERT_EQ(world->pexpire(two, 3'600'000), 0);  // leaves the whole's
  ASSERT_EQ(world->del_expire(three), 0);
  world->forget();
  world->backend().pass(550ms);
  ASSERT_TRUE(arrive(1));
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3");
  ASSERT_EQ(world->pexpire(three, 50), 0);
  ASSERT_EQ(world->pexpire(all, 3'600'000), 0);  // takes over from the shorter one
  world->settle();
  world->backend().pass(60ms);
  EXPECT_FALSE(host::run_until([] { return recorders[0].seen.size() > 1; }, 100ms));
  ASSERT_EQ(world->pexpire(three, 50), 0);
  ASSERT_EQ(world->del_expire(all), 0);  // takes back both kinds
  ASSERT_EQ(world->pexpire(all, 40), 0);
  ASSERT_EQ(world->set(two), 0);
  world->settle();
  world->backend().pass(100ms);
  ASSERT_TRUE(arrive(3));  // 3:1, 1:2, 3:3
  EXPECT_EQ(trace(world->scan(all)), "1:2");
}

TEST_P(MomConformance, TagsChooseAmongWhatIsUnderExpiry) {
  world->watch<0>(Flow::kType);
  Flow all(0), tag1(1), tag2(2), none(3), again1(4), retagged(5);
  for (Flow *flow : {&tag1, &again1, &retagged}) ASSERT_EQ(world->setow(*flow, 1), 0);
  ASSERT_EQ(world->setow(tag2, 2), 0);
  ASSERT_EQ(world->set(none), 0);
  ASSERT_EQ(world->setow(retagged, -9'000'000'000), 0);
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);  // nothing is under expiry yet
  EXPECT_EQ(world->scan(all).size(), 5u);
  ASSERT_EQ(world->pexpire(all, 3'600'000), 0);
  ASSERT_EQ(world->setow(again1, 1), 0);  // rewritten in time
  world->forget();
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);
  EXPECT_EQ(world->get(tag1).cmd, 0u);  // now, not later
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "3:1");
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3 1:4 1:5");
  ASSERT_EQ(world->del_expire_ow(all, -9'000'000'000), 0);
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3 1:4");
  ASSERT_EQ(world->set(tag2), 0);  // a plain write leaves no tag
  ASSERT_EQ(world->pexpire(tag2, 3'600'000), 0);
  ASSERT_EQ(world->del_expire_ow(all, 2), 0);
  EXPECT_EQ(trace(world->scan(all)), "1:2 1:3 1:4");
  ASSERT_EQ(world->del_expire_ow(all, 0), 0);
  EXPECT_EQ(trace(world->scan(all)), "1:4");
}

// Requests for a whole type take their place among the writes, however many objects it has.
TEST_P(MomConformance, WholeTypeRequestsKeepTheirPlaceAmongTheWrites) {
  constexpr uint64_t kCount = 5000;
  Flow all(0);
  world->watch<0>(Flow::kType);

  // Rewritten before the deletion by tag, or after it.
  world->fill(kCount);
  ASSERT_EQ(world->pexpire(all, 3'600'000), 0);
  world->fill(kCount, 10);
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);
  world->fill(kCount, 7);
  const auto left = world->scan(all);
  EXPECT_EQ(confirmed, 0u);
  EXPECT_EQ(left.size(), kCount / 10 + kCount / 7 - kCount / 70);
  for (const Seen &seen : left) EXPECT_TRUE(seen.key % 10 == 0 || seen.key % 7 == 0) << seen.key;
  world->settle();
  EXPECT_EQ(confirmed, 1u);
  EXPECT_EQ(count(3), kCount - kCount / 10);

  // Taken out of expiry, or expired, and rewritten behind that.
  world->fill(kCount);
  ASSERT_EQ(world->pexpire(all, 3'600'000), 0);
  ASSERT_EQ(world->del_expire(all), 0);
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);  // finds nothing
  EXPECT_EQ(world->scan(all).size(), kCount);
  world->forget();
  ASSERT_EQ(world->pexpire(all, 300), 0);
  world->fill(kCount, 3);
  world->forget();
  world->backend().pass(400ms);
  ASSERT_TRUE(arrive(kCount - kCount / 3));
  EXPECT_EQ(world->scan(all).size(), kCount / 3);

  // At once.
  world->forget();
  ASSERT_EQ(world->pexpire(all, 0), 0);
  world->backend().pass(1ms);
  ASSERT_TRUE(arrive(kCount / 3)) << recorders[0].seen.size();
  EXPECT_TRUE(world->scan(all).empty());
}

}  // namespace
}  // namespace mom_test
