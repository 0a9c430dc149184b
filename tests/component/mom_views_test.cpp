// What an operator sees of the database: the views over the control socket.
#include <atomic>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "component/mom_world.h"
#include "host/control/client.h"
#include "host/mom/hub.h"
#include "host/mom/views.h"
#include "libcgstctrl.h"

namespace mom_test {
namespace {

using Json = nlohmann::json;

class MomViews : public testing::Test {
 protected:
  void SetUp() override {
    world.emplace(std::make_unique<EmbeddedBackend>(),
                  std::vector<std::pair<std::string, std::string>>{{"control.enabled", "true"}});
    ASSERT_NE(world->global(), nullptr);
    world->connect_all();
  }

  // Asks as kelimctl does, from another thread; gives "data", or the error's text.
  Json view(const std::string &name, const Json &args) {
    std::string answer;
    std::atomic<bool> done = false;
    std::thread operator_thread([&] {
      host::control::Client client;
      EXPECT_EQ(client.connect(host::control::socket_path(world->run_dir(), "mom_test")), "");
      EXPECT_EQ(client.request(Json{{"call", "view"}, {"name", name}, {"args", args}}.dump(), &answer), "");
      done = true;
    });
    EXPECT_TRUE(run_until([&] { return done.load(); }));
    operator_thread.join();
    const Json reply = Json::parse(answer);
    return reply.at("status") == 0 ? reply.at("data") : reply.at("error");
  }

  std::optional<World> world;
};

TEST_F(MomViews, RecordsAreShownAsPeopleWriteThem) {
  uint8_t mac[] = {0x00, 0x1b, 0x21, 0x0a, 0x0b, 0xff};
  uint8_t ipv6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  uint8_t data[] = {0xde, 0xad};
  PLibpub__Mac dst_mac = P_LIBPUB__MAC__INIT;
  PLibpub__Ipv4 ip = P_LIBPUB__IPV4__INIT;
  PLibpub__Ipv6 source = P_LIBPUB__IPV6__INIT;
  dst_mac.data = {sizeof mac, mac};
  ip.data = 0xc0a80107;
  source.data = {sizeof ipv6, ipv6};
  SPolicyKelim__FlowField field = S_POLICY_KELIM__FLOW_FIELD__INIT;
  field.flow_field_bitmap = 1u << 3 | 1u << 11 | uint64_t{1} << 40;
  field.dst_mac = &dst_mac;
  field.dst_ipv4 = &ip;
  field.ipv6_src = &source;
  field.cos = -1;
  SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT;
  ace.sn = UINT64_MAX;
  ace.acl_app_type = const_cast<char *>("sdn_app");
  SPolicyKelim__FlowAce *aces[] = {&ace};
  Flow flow(17, 0, S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE);
  flow.record.flow_field = &field;
  flow.record.flow_data = {sizeof data, data};
  flow.record.n_ace = 1;
  flow.record.ace = aces;
  ASSERT_EQ(world->set(flow), 0);

  SPolicyKelim__OncIpKey onc_key = S_POLICY_KELIM__ONC_IP_KEY__INIT;
  SPolicyKelim__OncIp onc = S_POLICY_KELIM__ONC_IP__INIT;
  onc_key.ip = 0x0100000a;
  onc.index = &onc_key;
  ASSERT_EQ(world->set(base(&onc)), 0);

  const Json answer = view("mom", {{"op", "get"}, {"key", "s_policy_kelim.flow:17:0"}});
  const Json expected = Json::parse(R"({
    "index": {"flow_index": 17, "vsd_id": 0},
    "status": "STATUS_RESOURCE",
    "mac_loopback_phyid": 0,
    "flow_data": "dead",
    "flow_field": {"flow_field_bitmap": ["OXM_SS_OF_ETH_DST", "OXM_SS_OF_IPV4_DST", "bit 40"], "dst_mac": "00:1b:21:0a:0b:ff",
                   "dst_ipv4": "192.168.1.7", "ipv6_src": "2001:db8::1", "cos": -1},
    "flow_action": null,
    "ace": [{"sn": 18446744073709551615, "acl_app_type": "sdn_app"}],
    "req_uuid": 0})");
  ASSERT_EQ(answer.at("total"), 1);
  EXPECT_EQ(answer.at("objects")[0].at("record"), expected);
  EXPECT_EQ(answer.at("objects")[0].at("db"), 8);
  const Json scan = view("mom", {{"op", "scan"}, {"type", "s_policy_kelim.onc_ip"}});
  EXPECT_EQ(scan.at("objects")[0].at("key"), "s_policy_kelim.onc_ip:0:16777226");
  EXPECT_EQ(scan.at("objects")[0].at("record").at("index").at("ip"), "10.0.0.1");
}

TEST_F(MomViews, CountsAndRefusesClearly) {
  for (uint64_t i = 1; i <= 3; ++i) {
    Flow flow(i);
    ASSERT_EQ(world->set(flow), 0);
  }
  world->backend().put_raw(8, "s_policy_kelim.flow:9:0", "\xff");
  world->watch<0>(kFlow);
  const Json listed = view("mom", {{"op", "ls"}, {"type", "s_policy_kelim.flow"}, {"limit", 2}});
  EXPECT_EQ(listed.at("total"), 4);
  ASSERT_EQ(listed.at("objects").size(), 2u);
  EXPECT_EQ(listed.at("objects")[1].at("key"), "s_policy_kelim.flow:2:0");
  const Json broken = view("mom", {{"op", "get"}, {"key", "s_policy_kelim.flow:9:0"}});
  EXPECT_EQ(broken.at("objects")[0].at("record").at("broken"), true);
  const Json stats = view("mom", Json::object());
  EXPECT_EQ(stats.at("store"), "embedded");
  bool found = false;
  for (const Json &type : stats.at("types")) {
    if (type.at("type") != "s_policy_kelim.flow" || type.at("db") != 8) continue;
    found = true;
    EXPECT_EQ(type.at("objects"), 4);
    EXPECT_EQ(type.at("subscribers"), 1);
  }
  EXPECT_TRUE(found);
  const Json client = view("mom", {{"op", "client"}});
  EXPECT_EQ(client.at("connected"), Json::parse("[0, 4, 8]"));
  EXPECT_EQ(client.at("skipped"), Json::object());

  std::vector<std::string> keys = {"s_policy_kelim.flow:3:0", "s_policy_kelim.flow:4:0", "s_policy_kelim.flow:1:0"};
  const Json several = view("mom", {{"op", "get"}, {"key", keys}});
  ASSERT_EQ(several.at("total"), 2);
  EXPECT_EQ(several.at("objects")[0].at("key"), keys[0]);
  EXPECT_EQ(several.at("objects")[1].at("key"), keys[2]);
  keys.resize(101, keys[0]);
  EXPECT_EQ(view("mom", {{"op", "get"}, {"key", keys}}), "more than 100 keys");

  EXPECT_EQ(view("mom", {{"op", "dance"}}), "no op 'dance'; there are stats, client, ls, scan and get");
  EXPECT_EQ(view("mom", {{"op", "get"}, {"key", "s_policy_kelim.flow:1"}}),
            "'s_policy_kelim.flow:1' is no key of s_policy_kelim.flow");
  EXPECT_EQ(view("mom", {{"op", "ls"}, {"type", "s_policy_kelim.flow"}, {"db", 3}}), "no database 3; there are 0, 4 and 8");
  EXPECT_NE(view("mom", {{"op", "ls"}, {"type", "flow"}}).get<std::string>().find("no record type 'flow'; there are s_cluster"),
            std::string::npos);
}

class MomWatch : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(Stores, MomWatch, testing::Values("Embedded", "Redis"), [](const auto &store) { return store.param; });

TEST_P(MomWatch, ShowsEveryChangeWhateverItIsUntilItIsLetGo) {
  const bool redis = GetParam() == "Redis";
  World world(redis ? std::unique_ptr<Backend>(new RedisBackend) : std::make_unique<EmbeddedBackend>());
  world.connect_all();
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world.global(), 8, note_reconnect, nullptr), 0);
  Json lines = Json::array();
  auto watching = mom::watch(*mom::hub(), {{"db", 8}}, [&](const auto &line) { lines.push_back(Json(line())); });
  const auto next = [&] {
    EXPECT_TRUE(run_until([&] { return !lines.empty(); }));
    const Json line = lines.empty() ? Json::object() : lines[0];
    if (!lines.empty()) lines.erase(0);
    return line;
  };
  EXPECT_EQ(next(), (Json{{"live", 11}}));  // the types of the schema
  const auto change = [&] {
    Json shown = mom::decode_change(next());
    shown.erase("at");
    return shown;
  };

  Flow flow(1);
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  signal.is_pkt_start = 1;
  ASSERT_EQ(world.set(flow), 0);
  const Json written = change();
  EXPECT_EQ(written.at("key"), "s_policy_kelim.flow:1:0");
  EXPECT_EQ(written.at("change"), "written");
  EXPECT_EQ(written.at("record").at("status"), "STATUS_NONE");
  ASSERT_EQ(qx_mom_publish(world.global(), 8, base(&signal), 0, 0), 0);
  EXPECT_EQ(change(), Json::parse(R"({"db":8,"change":"published","key":"s_policy_kelim.pkt_sig","record":{"is_pkt_start":1}})"));
  world.backend().put_raw(8, "s_policy_kelim.flow:2:0", "\xff\xff");
  EXPECT_EQ(change().at("record"), Json::parse(R"({"broken":true,"length":2})"));
  ASSERT_EQ(world.pexpire(flow, 1), 0);
  world.backend().pass(10ms);
  const Json expired = change();
  EXPECT_EQ(expired.at("change"), "deleted");
  EXPECT_EQ(expired.at("record").at("index").at("flow_index"), 1);

  world.backend().cut_connections(8);
  ASSERT_TRUE(run_until([] { return !reconnects.empty() && reconnects.back() == 2; }));
  ASSERT_EQ(world.set(flow), 0);
  EXPECT_EQ(change().at("key"), "s_policy_kelim.flow:1:0");
  watching.reset();
  ASSERT_EQ(world.set(flow), 0);
  world.settle();
  EXPECT_EQ(lines, Json::array());
}

TEST_F(MomViews, CongestionShowsTopicsInFlight) {
  world->watch<0>(kFlow);
  ASSERT_EQ(libcgstctrl_gen_init(world->global(), 8, "test"), 0);
  ASSERT_EQ(libcgstctrl_gen_topic_reg(world->global(), 8, "test", &kFlow), 0);
  for (uint64_t i = 1; i <= 5; ++i) {
    Flow flow(i);
    ASSERT_EQ(world->set(flow), 0);
  }
  world->settle();
  const Json topics = view("congestion", Json::object()).at("topics");
  ASSERT_EQ(topics.size(), 1u);
  EXPECT_EQ(topics[0].at("type"), "s_policy_kelim.flow");
  EXPECT_EQ(topics[0].at("writes"), 0);
  EXPECT_EQ(topics[0].at("high_water_writes"), 5);
  EXPECT_EQ(topics[0].at("total"), 5);
  EXPECT_EQ(topics[0].at("refused"), 0);
}

}  // namespace
}  // namespace mom_test
