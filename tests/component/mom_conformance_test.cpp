// The object database's contract, the same for every store: calls, notifications, scans, congestion.
#include <algorithm>
#include <string>

#include "component/mom_conformance.h"
#include "libcgstctrl.h"

namespace mom_test {
namespace {

INSTANTIATE_TEST_SUITE_P(Stores, MomConformance, every_store(), store_name);

// ---- arguments and connections

TEST_P(MomConformance, UnconnectedClientIsToldAtOnce) {
  world.reset();
  start();
  qx_global *global = world->global();
  Flow flow(1);
  qx_obj *object = nullptr;
  const auto visit = [](const qx_obj *, void *) { return 0; };
  EXPECT_EQ(world->set(flow), -1);
  EXPECT_EQ(world->del(flow), -1);
  EXPECT_EQ(world->pexpire(flow, 10), -1);
  EXPECT_EQ(qx_mom_publish(global, 8, flow, 0, 0), -1);
  EXPECT_EQ(qx_mom_setnx_sync(global, 8, flow, 0, 0), -1);
  EXPECT_EQ(qx_mom_get_sync(global, 8, flow, 0, &object), -1);
  EXPECT_EQ(qx_mom_scan_sync(global, 8, flow, 0, visit, nullptr), -1);
  const qx_mom_spec spec = {kFlow, QX_MOM_DECODED};
  EXPECT_EQ(qx_mom_subscribe(global, 8, &spec, record_into<0>), -1);

  // The synchronous connection serves synchronous calls only.
  ASSERT_EQ(qx_mom_client_connect_sync(global, 8), 0);
  EXPECT_EQ(qx_mom_setnx_sync(global, 8, flow, 0, 0), 0);
  EXPECT_EQ(world->set(flow), -1);
}

TEST_P(MomConformance, MalformedArgumentsAreRefusedAndChangeNothing) {
  qx_global *global = world->global();
  Flow flow(1);
  qx_obj *object = reinterpret_cast<qx_obj *>(1);
  EXPECT_EQ(qx_mom_set(nullptr, 8, flow, 0, 0), -4);
  EXPECT_EQ(qx_mom_set(global, 3, flow, 0, 0), -4);
  EXPECT_EQ(qx_mom_set(global, 8, nullptr, 0, 0), -4);
  EXPECT_EQ(qx_mom_get_sync(global, 8, nullptr, 0, &object), -4);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(qx_mom_get_sync(global, 8, flow, 0, nullptr), -4);
  EXPECT_EQ(qx_mom_scan_sync(global, 8, flow, 0, nullptr, nullptr), -4);
  EXPECT_EQ(qx_mom_client_connect_sync(global, 99), -4);
  EXPECT_EQ(qx_mom_client_connect(global, 8, nullptr, "x"), -4);
  EXPECT_EQ(qx_mom_client_set_reconnect_cb(global, 8, nullptr, nullptr), -4);

  SPolicyKelim__Flow keyless = S_POLICY_KELIM__FLOW__INIT;
  EXPECT_EQ(world->set(base(&keyless)), -4);
  EXPECT_EQ(world->setow(base(&keyless), 1), -4);
  EXPECT_EQ(world->del(base(&keyless)), -4);
  EXPECT_EQ(qx_mom_setnx_sync(global, 8, base(&keyless), 0, 0), -4);
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  EXPECT_EQ(world->set(base(&signal)), -4);

  // A length without bytes, a sub-message of another type, an array without elements.
  flow.record.flow_data.len = 8;
  EXPECT_EQ(world->set(flow), -4);
  flow.record.flow_data.len = 0;
  flow.record.flow_field = reinterpret_cast<SPolicyKelim__FlowField *>(&flow.key);
  EXPECT_EQ(world->set(flow), -4);
  flow.record.flow_field = nullptr;
  flow.record.n_ace = 1;
  EXPECT_EQ(world->set(flow), -4);
  flow.record.n_ace = 0;

  // A descriptor without the two name lengths, and one of another kind.
  ProtobufCMessageDescriptor bare = s_policy_kelim__flow__descriptor;
  bare.reserved1 = bare.reserved2 = nullptr;
  flow.record.base.descriptor = &bare;
  EXPECT_EQ(world->set(flow), -4);
  flow.record.base.descriptor = nullptr;
  EXPECT_EQ(world->set(flow), -4);
  flow.record.base.descriptor = &s_policy_kelim__flow__descriptor;

  const qx_mom_spec wrong_key = {{kFlow.value, kMeter.key}, QX_MOM_DECODED};
  const qx_mom_spec no_value = {{nullptr, kFlow.key}, QX_MOM_DECODED};
  const qx_mom_spec wrong_delivery = {kFlow, 7};
  const qx_mom_spec right = {kFlow, QX_MOM_DECODED};
  for (const qx_mom_spec *spec : {&wrong_key, &no_value, &wrong_delivery, static_cast<const qx_mom_spec *>(nullptr)}) {
    EXPECT_EQ(qx_mom_subscribe(global, 8, spec, record_into<0>), -4);
  }
  EXPECT_EQ(qx_mom_subscribe(global, 8, &right, nullptr), -4);
  EXPECT_EQ(world->scan(flow).size(), 0u);
  qx_mom_qx_obj_free(nullptr);
}

TEST_P(MomConformance, SeveralClientsOfOneProcessShareADatabase) {
  qx_global *global = world->global();
  ASSERT_EQ(qx_mom_client_connect(global, 8, count_connect<1>, "one"), 0);
  ASSERT_EQ(qx_mom_client_connect(global, 8, count_connect<2>, nullptr), 0);
  EXPECT_EQ(connects[1] + connects[2], 0u);  // never from inside the call
  ASSERT_TRUE(run_until([] { return connects[1] == 1 && connects[2] == 1; }));

  world->watch<0>(kFlow);
  world->watch<1>(kFlow, 8, QX_MOM_PACKED);
  Flow flow(7);
  EXPECT_EQ(world->set(flow), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:7");
  ASSERT_EQ(recorders[1].seen.size(), 1u);
  EXPECT_EQ(recorders[1].seen[0].packed, pack(flow));
  EXPECT_EQ(connects[1], 1u);
}

TEST_P(MomConformance, EveryCallCanBeMadeToFail) {
  using host::fault::Point;
  qx_global *global = world->global();
  Flow flow(1);
  qx_obj *object = nullptr;
  const qx_mom_spec spec = {kFlow, QX_MOM_DECODED};
  void *conn = global;
  const std::pair<Point, std::function<int()>> calls[] = {
      {Point::mom_connect, [&] { return qx_mom_client_connect(global, 8, count_connect<1>, "x"); }},
      {Point::mom_connect_sync, [&] { return qx_mom_client_connect_sync(global, 8); }},
      {Point::mom_set_reconnect_cb, [&] { return qx_mom_client_set_reconnect_cb(global, 8, note_reconnect, nullptr); }},
      {Point::mom_set, [&] { return world->set(flow); }},
      {Point::mom_setow, [&] { return world->setow(flow, 1); }},
      {Point::mom_setnx, [&] { return qx_mom_setnx_sync(global, 8, flow, 0, 0); }},
      {Point::mom_del, [&] { return world->del(flow); }},
      {Point::mom_del_sync, [&] { return qx_mom_del_sync(global, 8, flow, 0, 0); }},
      {Point::mom_get, [&] { return qx_mom_get_sync(global, 8, flow, 0, &object); }},
      {Point::mom_scan,
       [&] {
         return qx_mom_scan_sync(
             global, 8, flow, 0, [](auto, auto) { return 0; }, nullptr);
       }},
      {Point::mom_pexpire, [&] { return world->pexpire(flow, 1); }},
      {Point::mom_del_expire, [&] { return world->del_expire(flow); }},
      {Point::mom_del_expire_ow, [&] { return world->del_expire_ow(flow, 1); }},
      {Point::mom_publish, [&] { return qx_mom_publish(global, 8, flow, 0, 0); }},
      {Point::mom_subscribe, [&] { return qx_mom_subscribe(global, 8, &spec, record_into<0>); }},
      {Point::cgst_init, [&] { return libcgstctrl_gen_init(conn, 8, "x"); }},
      {Point::cgst_topic, [&] { return libcgstctrl_gen_topic_reg(conn, 8, "x", &kFlow); }},
  };
  for (const auto &[point, call] : calls) {
    host::fault::fail(point, -99);
    EXPECT_EQ(call(), -99) << host::fault::name(point);
  }
  world->settle();
  EXPECT_EQ(world->get(flow).cmd, 0u);
  EXPECT_TRUE(recorders[0].seen.empty());
}

// ---- objects and their notifications

TEST_P(MomConformance, WritesAreDeliveredLaterOnceAndInOrder) {
  world->watch<0>(kFlow);
  const qx_mom_spec spec = {kFlowSta, QX_MOM_DECODED};
  ASSERT_EQ(qx_mom_subscribe(world->global(), 8, &spec, record_into<0>), 0);  // both types into one recorder
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty(); }));
  recorders[0].seen.clear();

  Flow one(1), two(2, 3);
  FlowSta sta(1, S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE);
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
  EXPECT_EQ(seen[1].type, "s_policy_kelim.flow_sta");
  EXPECT_EQ(seen[1].status, 14);
  EXPECT_EQ(seen[0].status, 0);  // what was written then, not what stands there now
  EXPECT_EQ(seen[3].status, 3);
  EXPECT_EQ(seen[4].second, 3u);  // the deletion carries the last record
  for (const Seen &one_seen : seen) {
    EXPECT_FALSE(one_seen.holder);
    EXPECT_EQ(one_seen.packed, "");
  }
}

TEST_P(MomConformance, GetAndDeleteKnowWhatIsThere) {
  Flow flow(5, 2, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING);
  EXPECT_EQ(world->get(flow).cmd, 0u);
  EXPECT_EQ(world->del(flow), -7);
  EXPECT_EQ(qx_mom_del_sync(world->global(), 8, flow, 0, 0), -7);
  EXPECT_EQ(world->set(flow), 0);
  world->settle();
  const Seen seen = world->get(flow);
  EXPECT_EQ(seen.cmd, 1u);
  EXPECT_EQ(seen.key, 5u);
  EXPECT_EQ(seen.second, 2u);
  EXPECT_EQ(seen.status, 1);
  Flow neighbour(5, 3);
  EXPECT_EQ(world->get(neighbour).cmd, 0u);
  EXPECT_EQ(world->get(flow, 4).cmd, 0u);  // another database
  EXPECT_EQ(qx_mom_del_sync(world->global(), 8, flow, 0, 0), 0);
  EXPECT_EQ(world->get(flow).cmd, 0u);
  EXPECT_EQ(world->del(flow), -7);
}

TEST_P(MomConformance, ReadsSeeTheWritesBeforeThem) {
  Flow flow(6);
  for (int round = 0; round < 50; ++round) {
    flow.record.req_uuid = static_cast<uint64_t>(round);
    EXPECT_EQ(world->set(flow), 0);
    EXPECT_EQ(world->get(flow).cmd, 1u);
    EXPECT_EQ(world->scan(flow).size(), 1u);
    EXPECT_EQ(world->del(flow), 0);
    EXPECT_EQ(world->get(flow).cmd, 0u);
    EXPECT_EQ(world->del(flow), -7);
  }
}

TEST_P(MomConformance, SetIfAbsentKeepsWhatIsThere) {
  world->watch<0>(kRegistration, 0);
  Registration first("kelim"), second("kelim");
  first.record.dlib_name = const_cast<char *>("libkelim.pkt.ss.so");
  second.record.reg_type = 9;
  EXPECT_EQ(qx_mom_setnx_sync(world->global(), 0, first, 0, 0), 0);
  EXPECT_EQ(qx_mom_setnx_sync(world->global(), 0, second, 0, 0), 1);
  world->settle(0);
  EXPECT_EQ(recorders[0].seen.size(), 1u);
  qx_obj *object = nullptr;
  ASSERT_EQ(qx_mom_get_sync(world->global(), 0, second, 0, &object), 0);
  const auto *stored = static_cast<const SCluster__RegPktInfo *>(object->value);
  EXPECT_STREQ(stored->dlib_name, "libkelim.pkt.ss.so");
  EXPECT_EQ(stored->reg_type, 0u);
  qx_mom_qx_obj_free(object);
  EXPECT_EQ(qx_mom_del_sync(world->global(), 0, second, 0, 0), 0);
  EXPECT_EQ(qx_mom_setnx_sync(world->global(), 0, second, 0, 0), 0);
}

TEST_P(MomConformance, HashClassTypesComeInAHolder) {
  world->watch<0>(kMeter);
  world->watch<1>(kMeter, 8, QX_MOM_PACKED);
  Meter meter(3);
  EXPECT_EQ(world->set(meter), 0);
  meter.record.status = S_POLICY_KELIM__STATUS_E__STATUS_FAILED;
  EXPECT_EQ(world->set(meter), 0);
  world->settle();
  const Seen got = world->get(meter);
  EXPECT_EQ(got.cmd, 6u);
  EXPECT_TRUE(got.holder);
  EXPECT_EQ(got.status, 3);
  const auto scanned = world->scan(meter);
  ASSERT_EQ(trace(scanned), "6:3");
  EXPECT_TRUE(scanned[0].holder);
  EXPECT_EQ(world->del(meter), 0);
  EXPECT_EQ(world->set(meter), 0);  // for the first time again
  EXPECT_EQ(world->del(meter), 0);
  EXPECT_EQ(qx_mom_setnx_sync(world->global(), 8, meter, 0, 0), 0);
  world->settle();

  const auto &seen = recorders[0].seen;
  ASSERT_EQ(trace(seen), "4:3 6:3 3:3 4:3 3:3 4:3");
  EXPECT_TRUE(seen[0].holder && seen[1].holder && seen[3].holder);
  EXPECT_FALSE(seen[2].holder);
  EXPECT_EQ(seen[2].status, 3);
  EXPECT_EQ(seen[0].error, 0);
  const auto &packed = recorders[1].seen;
  ASSERT_EQ(packed.size(), 6u);
  EXPECT_EQ(packed[0].cmd, 1u);
  EXPECT_EQ(packed[1].cmd, 1u);
  EXPECT_EQ(packed[2].cmd, 3u);
  EXPECT_EQ(packed[3].packed, pack(meter));
  EXPECT_EQ(packed[3].type, "");
}

TEST_P(MomConformance, BinaryValuesAndKeysPassUnchanged) {
  std::string data;
  for (int i = 0; i < 1000; ++i) data.push_back(static_cast<char>(i));
  world->watch<0>(kFlow, 8, QX_MOM_PACKED);
  Flow flow(UINT64_MAX, UINT32_MAX);
  flow.record.flow_data = {data.size(), reinterpret_cast<uint8_t *>(data.data())};
  EXPECT_EQ(world->set(flow), 0);
  world->settle();
  ASSERT_EQ(recorders[0].seen.size(), 1u);
  EXPECT_EQ(recorders[0].seen[0].packed, pack(flow));
  EXPECT_EQ(world->get(flow).key, UINT64_MAX);

  // Keys of text: any bytes, also those that separate or quote elsewhere, short and longer than the part kept inline.
  const std::string names[] = {"",
                               "\x01\xff:%*?[\\]\r\n",
                               "a",
                               "a:1",
                               "a:2",
                               std::string(16, 'b'),
                               std::string(16, 'b') + "c",
                               std::string(16, 'b') + "d",
                               std::string(300, 'b'),
                               "\xf0\x28"};
  const std::vector<std::string> in_order = {"",
                                             "\x01\xff:%*?[\\]\r\n",
                                             "a",
                                             "a:1",
                                             "a:2",
                                             std::string(16, 'b'),
                                             std::string(300, 'b'),
                                             std::string(16, 'b') + "c",
                                             std::string(16, 'b') + "d",
                                             "\xf0\x28"};
  for (const std::string &name :
       {names[7], names[0], names[9], names[3], names[6], names[1], names[8], names[2], names[5], names[4]}) {
    Registration registration(name);
    EXPECT_EQ(world->set(registration, 0), 0);
  }
  world->settle(0);
  static std::vector<std::string> visited;
  visited.clear();
  Registration all("");
  EXPECT_EQ(qx_mom_scan_sync(
                world->global(), 0, all, 0,
                [](const qx_obj *object, void *) {
                  visited.push_back(static_cast<const SCluster__RegPktInfo *>(object->value)->index->name);
                  return 0;
                },
                nullptr),
            0);
  EXPECT_EQ(visited, in_order);
  for (const std::string &name : names) {
    Registration registration(name);
    EXPECT_EQ(qx_mom_del_sync(world->global(), 0, registration, 0, 0), 0);
  }
  EXPECT_TRUE(world->scan(all, 0).empty());
}

TEST_P(MomConformance, PublishedRecordsAreDeliveredAndNotStored) {
  world->watch<0>(kPktSig);
  world->watch<1>(kFlow);
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  signal.is_pkt_start = 1;
  Flow flow(4);
  EXPECT_EQ(qx_mom_publish(world->global(), 8, base(&signal), 0, 0), 0);
  EXPECT_EQ(qx_mom_publish(world->global(), 8, flow, 0, 0), 0);
  EXPECT_EQ(qx_mom_publish(world->global(), 4, flow, 0, 0), 0);  // nobody listens there
  EXPECT_TRUE(recorders[0].seen.empty());
  ASSERT_TRUE(run_until([] { return !recorders[1].seen.empty(); }));
  EXPECT_EQ(trace(recorders[0].seen), "16:1");
  EXPECT_EQ(trace(recorders[1].seen), "16:4");
  EXPECT_TRUE(world->scan(flow).empty());
}

// ---- subscriptions

TEST_P(MomConformance, SubscriptionBeginsWithDataFetch) {
  Flow before(1), after(2);
  const qx_mom_spec spec = {kFlow, QX_MOM_DECODED};
  ASSERT_EQ(world->set(before), 0);
  world->settle();
  ASSERT_EQ(qx_mom_subscribe(world->global(), 8, &spec, record_into<0>), 0);
  EXPECT_TRUE(recorders[0].seen.empty());
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty(); }));
  EXPECT_EQ(recorders[0].seen[0].cmd, 29u);
  EXPECT_EQ(recorders[0].seen[0].type, "");
  ASSERT_EQ(world->set(after), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "29:0 1:2");

  // Asked for again: subscribed once, a signal each time, also when it is asked for from inside its own callback.
  recorders[0].seen.clear();
  recorders[0].hook = [&](const qx_obj *) {
    recorders[0].hook = nullptr;
    EXPECT_EQ(qx_mom_subscribe(world->global(), 8, &spec, record_into<0>), 0);
    EXPECT_EQ(qx_mom_subscribe(world->global(), 8, &spec, record_into<1>), 0);
  };
  ASSERT_EQ(qx_mom_subscribe(world->global(), 8, &spec, record_into<0>), 0);
  ASSERT_TRUE(run_until([] { return recorders[0].seen.size() == 2 && recorders[1].seen.size() == 1; }));
  ASSERT_EQ(world->set(after), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "29:0 29:0 1:2");
  EXPECT_EQ(trace(recorders[1].seen), "29:0 1:2");
}

TEST_P(MomConformance, CallbackMayWriteWhatItListensTo) {
  world->watch<0>(kFlow);
  recorders[0].hook = [&](const qx_obj *object) {
    const auto *flow = static_cast<const SPolicyKelim__Flow *>(object->value);
    if (object->cmd == 3 || flow->index->flow_index >= 5) return;
    Flow next(flow->index->flow_index + 1);
    EXPECT_EQ(world->set(next), 0);
    EXPECT_EQ(qx_mom_del_sync(world->global(), 8, reinterpret_cast<const ProtobufCMessage *>(flow), 0, 0), 0);
    EXPECT_EQ(flow->index->flow_index + 1, next.key.flow_index);  // the delivered record outlives what was done to the object
  };
  Flow first(1);
  ASSERT_EQ(world->set(first), 0);
  ASSERT_TRUE(run_until([] { return recorders[0].seen.size() == 9; }));
  std::vector<Seen> written, deleted;
  for (const Seen &seen : recorders[0].seen) (seen.cmd == 1 ? written : deleted).push_back(seen);
  EXPECT_EQ(trace(written), "1:1 1:2 1:3 1:4 1:5");
  EXPECT_EQ(trace(deleted), "3:1 3:2 3:3 3:4");
  EXPECT_EQ(trace(world->scan(first)), "1:5");
}

TEST_P(MomConformance, ReconnectToTheSameServerKeepsDataAndRepeatsDataFetch) {
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);  // told once all the same
  world->watch<0>(kFlow);
  world->watch<1>(kMeter);
  Flow flow(1);
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  recorders[0].seen.clear();
  // Like the daemon's callback: subscribes again when the connection is back. Meters are left to the client.
  on_reconnect = [&](int32_t type) {
    const qx_mom_spec spec = {kFlow, QX_MOM_DECODED};
    EXPECT_EQ(qx_mom_subscribe(world->global(), 8, &spec, record_into<0>), type == 2 ? 0 : -1);
    EXPECT_EQ(world->set(flow), type == 2 ? 0 : -1);
  };
  world->backend().cut_connections(8);
  ASSERT_TRUE(run_until([] { return !reconnects.empty() && reconnects.back() == 2; }));
  EXPECT_EQ(reconnects.front(), 0);
  EXPECT_EQ(std::count(reconnects.begin(), reconnects.end(), 2), 1);
  EXPECT_EQ(std::count(reconnects.begin(), reconnects.end(), 1), 0);
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty() && !recorders[1].seen.empty(); }));
  world->settle();
  EXPECT_EQ(std::count_if(recorders[0].seen.begin(), recorders[0].seen.end(), [](const Seen &seen) { return seen.cmd == 29; }),
            1);
  EXPECT_EQ(trace(recorders[1].seen), "29:0");
  EXPECT_EQ(trace(world->scan(flow)), "1:1");
  ASSERT_EQ(world->del(flow), 0);
  world->settle();
  EXPECT_EQ(recorders[0].seen.back().cmd, 3u);
}

// ---- scans

TEST_P(MomConformance, ScanVisitsTheTypeInKeyOrder) {
  for (const auto &[index, vsd] : std::initializer_list<std::pair<uint64_t, uint32_t>>{
           {1ull << 40, 0}, {2, 0}, {1, 256}, {0, 5}, {256, 0}, {1, 1}, {10, 0}, {1ull << 63, 0}, {0, 0}, {9, 0}, {1, 255}}) {
    Flow flow(index, vsd);
    ASSERT_EQ(world->set(flow), 0);
    FlowSta other(index);
    ASSERT_EQ(world->set(other), 0);
  }
  Flow all(0);
  std::string order;
  for (const Seen &seen : world->scan(all)) order += std::to_string(seen.key) + "." + std::to_string(seen.second) + " ";
  EXPECT_EQ(order, "0.0 0.5 1.1 1.255 1.256 2.0 9.0 10.0 256.0 1099511627776.0 9223372036854775808.0 ");
  SPolicyKelim__Flow keyless = S_POLICY_KELIM__FLOW__INIT;
  EXPECT_EQ(world->scan(base(&keyless)).size(), 11u);
}

struct Mutation {
  World *world;
  std::vector<uint64_t> visited;
};

TEST_P(MomConformance, ScanBearsWritesAndDeletionsOfItsTable) {
  world->watch<0>(kFlow);
  for (uint64_t index = 10; index <= 3000; index += 10) {
    Flow flow(index);
    ASSERT_EQ(world->set(flow), 0);
  }
  Mutation mutation = {&*world, {}};
  Flow all(0);
  const auto visit = [](const qx_obj *object, void *arg) {
    auto &state = *static_cast<Mutation *>(arg);
    const uint64_t index = static_cast<const SPolicyKelim__Flow *>(object->value)->index->flow_index;
    state.visited.push_back(index);
    Flow self(index), before(index - 1), after(index + 1), next(index + 10);
    EXPECT_EQ(state.world->set(before), 0);
    EXPECT_EQ(state.world->set(after), 0);
    EXPECT_EQ(state.world->set(self), 0);
    EXPECT_EQ(state.world->del(self), 0);
    const int deleted = index % 100 == 0 && index < 3000 ? state.world->del(next) : 0;
    const int rewritten = index % 100 == 50 ? state.world->set(next) : 0;
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(rewritten, 0);
    return -5;  // not looked at
  };
  ASSERT_EQ(qx_mom_scan_sync(world->global(), 8, all, 0, visit, &mutation), 0);
  // 300 objects, of which 29 (110, 210, ... 2910) were deleted before their turn; none of those that the visits added.
  EXPECT_EQ(mutation.visited.size(), 271u);
  for (const uint64_t index : mutation.visited) EXPECT_TRUE(index % 10 == 0 && (index % 100 != 10 || index == 10)) << index;
  EXPECT_TRUE(std::is_sorted(mutation.visited.begin(), mutation.visited.end()));
  EXPECT_EQ(world->scan(all).size(), 542u);
}

TEST_P(MomConformance, BrokenValuesAreSkippedAndNothingElse) {
  world->watch<0>(kFlow);
  Flow one(1), three(3);
  ASSERT_EQ(world->set(one), 0);
  ASSERT_EQ(world->set(three), 0);
  world->settle();
  for (const char *bytes : {"\xff\xff\xff", "\x2a\x05\x08", ""}) world->backend().put_raw(8, "s_policy_kelim.flow:2:0", bytes);
  world->backend().put_raw(8, "s_policy_kelim.flow:2:0", "\x2a\x05\x08");
  EXPECT_EQ(trace(world->scan(one)), "1:1 1:3");
  Flow two(2);
  qx_obj *object = nullptr;
  EXPECT_EQ(qx_mom_get_sync(world->global(), 8, two, 0, &object), -1);
  EXPECT_EQ(object, nullptr);
  EXPECT_GE(mom::testing::skipped(), 2u);
  ASSERT_EQ(world->set(two), 0);
  world->settle();
  EXPECT_EQ(recorders[0].seen.back().key, 2u);
  EXPECT_EQ(trace(world->scan(one)), "1:1 1:2 1:3");
}

// ---- size and congestion

TEST_P(MomConformance, HundredThousandObjects) {
  constexpr uint64_t kCount = 100'000;
  world.reset();
  start({{"mom.high_water_writes", "1000000"}});
  world->connect_all();
  world->watch<0>(kFlow, 8, QX_MOM_PACKED);
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
  run_until([] { return !recorders[0].seen.empty(); });
  world->backend().pass(550ms);
  ASSERT_TRUE(run_until([] { return recorders[0].seen.size() == kCount; })) << recorders[0].seen.size();
  EXPECT_EQ(std::count_if(recorders[0].seen.begin(), recorders[0].seen.end(), [](const Seen &seen) { return seen.cmd == 3; }),
            static_cast<ptrdiff_t>(kCount - 1));
  EXPECT_EQ(world->scan(all).size(), 1u);
}

TEST_P(MomConformance, TopicOverItsLimitRefusesUntilItHasDrained) {
  world.reset();
  start({{"mom.high_water_writes", "100"}});
  world->connect_all();
  world->watch<0>(kFlow);
  world->watch<1>(kFlowSta);
  EXPECT_EQ(libcgstctrl_gen_topic_reg(world->global(), 8, "test", &kFlow), -1);
  ASSERT_EQ(libcgstctrl_gen_init(world->global(), 8, "test"), 0);
  ASSERT_EQ(libcgstctrl_gen_init(world->global(), 8, "test"), 0);
  EXPECT_EQ(libcgstctrl_gen_topic_reg(world->global(), 8, "test", nullptr), -4);
  const qx_mom_type malformed = {kFlow.value, kMeter.key};
  EXPECT_EQ(libcgstctrl_gen_topic_reg(world->global(), 8, "test", &malformed), -4);
  ASSERT_EQ(libcgstctrl_gen_topic_reg(world->global(), 8, "test", &kFlow), 0);
  ASSERT_EQ(libcgstctrl_gen_topic_reg(world->global(), 8, "test", &kFlow), 0);

  for (uint64_t i = 1; i <= 100; ++i) {
    Flow flow(i);
    ASSERT_EQ(world->set(flow), 0);
  }
  Flow refused(101), first(1);
  EXPECT_EQ(world->set(refused), -14);
  EXPECT_EQ(world->setow(refused, 1), -14);
  EXPECT_EQ(qx_mom_publish(world->global(), 8, refused, 0, 0), -14);
  EXPECT_EQ(world->del(first), 0);  // deletions free room and are never refused
  FlowSta other(1);
  EXPECT_EQ(world->set(other), 0);  // a type without a topic has the pipeline's limit only
  world->settle();
  EXPECT_EQ(recorders[0].seen.size(), 101u);
  EXPECT_EQ(world->get(refused).cmd, 0u);
  EXPECT_EQ(world->set(refused), 0);
}

}  // namespace
}  // namespace mom_test
