// What an operator sees of the database: the views over the control socket.
#include "host/mom/views.h"
#include "host/mom/hub.h"
#include "host/mom/mom_world.h"
#include "libcgstctrl.h"
#include "support/ask.h"

namespace mom_test {
namespace {

using Json = nlohmann::json;

class MomViews : public testing::Test {
 protected:
  void SetUp() override { world.connect_all(); }

  // Asks as kelimctl does, from another thread; gives "data", or the error's text.
  Json view(const std::string &name, const Json &args) {
    const Json request = {{"call", "view"}, {"name", name}, {"args", args}};
    const Json reply = beside_the_loop([&] { return ask(world.run_dir(), "mom_test", request); });
    return reply.at("status") == 0 ? reply.at("data") : reply.at("error");
  }

  World world{"Embedded", {{"control.enabled", "true"}}};
};

TEST_F(MomViews, CountsAndRefusesClearly) {
  world.watch<0>(Flow::kType);
  ASSERT_EQ(libcgstctrl_gen_init(world.global(), 8, "test"), 0);
  ASSERT_EQ(libcgstctrl_gen_topic_reg(world.global(), 8, "test", &Flow::kType), 0);
  world.fill(3);
  world.settle();
  Json topic = view("congestion", Json::object()).at("topics");
  topic[0].erase("bytes");
  topic[0].erase("high_water_bytes");
  EXPECT_EQ(topic, Json::parse(R"([{"type": "s_policy_kelim.flow", "db": 8, "writes": 0, "high_water_writes": 3, "total": 3,
                                    "refused": 0}])"));
  for (const char *bytes : {"\xff", "", "\x2a\x05\x08"}) world.put_raw(8, "s_policy_kelim.flow:9:0", bytes);
  EXPECT_EQ(trace(world.scan(Flow(0))), "1:1 1:2 1:3");
  world.run("get flow:9 gives -1");
  world.settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1 1:2 1:3") << "nobody is told of a value that is none";
  const Json listed = view("mom", {{"op", "ls"}, {"type", "s_policy_kelim.flow"}, {"limit", 2}});
  EXPECT_EQ(listed, Json::parse(R"({"total": 4, "objects": [{"db": 8, "key": "s_policy_kelim.flow:1:0"},
                                                            {"db": 8, "key": "s_policy_kelim.flow:2:0"}]})"));
  const Json broken = view("mom", {{"op", "get"}, {"key", "s_policy_kelim.flow:9:0"}});
  EXPECT_EQ(broken.at("objects")[0].at("record").at("broken"), true);
  const Json stats = view("mom", Json::object());
  EXPECT_EQ(stats.at("store"), "embedded");
  const auto flows = std::ranges::find_if(stats.at("types"), [](const Json &row) {
    return row.at("type") == "s_policy_kelim.flow" && row.at("db") == 8 && row.at("objects") == 4 && row.at("subscribers") == 1;
  });
  EXPECT_NE(flows, stats.at("types").end()) << stats;
  const Json client = view("mom", {{"op", "client"}});
  EXPECT_EQ(client.at("skipped"), Json::parse(R"({"s_policy_kelim.flow: the value is no record of its type": 5})"));

  std::vector<std::string> keys = {"s_policy_kelim.flow:3:0", "s_policy_kelim.flow:4:0", "s_policy_kelim.flow:1:0"};
  const Json several = view("mom", {{"op", "get"}, {"key", keys}});
  ASSERT_EQ(several.at("total"), 2);
  EXPECT_EQ(several.at("objects")[0].at("key"), keys[0]);
  EXPECT_EQ(several.at("objects")[1].at("key"), keys[2]);
  keys.resize(101, keys[0]);
  for (const auto &[request, refusal] : std::initializer_list<std::pair<Json, const char *>>{
           {{{"op", "get"}, {"key", keys}}, "more than 100 keys"},
           {{{"op", "dance"}}, "no op 'dance'; there are stats, client, ls, scan and get"},
           {{{"op", "ls"}, {"type", "s_policy_kelim.flow"}, {"db", 3}}, "no database 3; there are 0, 4 and 8"},
           {{{"op", "ls"}, {"type", "s_policy_kelim.flow"}, {"db", (1LL << 32) + 8}},
            "no database 4294967304; there are 0, 4 and 8"},
           {{{"op", "ls"}, {"type", "s_policy_kelim.flow"}, {"limit", -1}}, "limit takes a whole number from 0 on"}}) {
    EXPECT_EQ(view("mom", request).get<std::string>().find(refusal), 0u) << request;
  }
}

class MomWatch : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(Stores, MomWatch, testing::Values("Embedded", "Redis"), [](const auto &store) { return store.param; });

TEST_P(MomWatch, ShowsEveryChangeWhateverItIsUntilItIsLetGo) {
  World world(GetParam());
  world.connect_all();
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world.global(), 8, note_reconnect, nullptr), 0);
  std::vector<Json> lines;
  auto watching = host::mom::watch(*host::mom::hub(), {{"db", 8}}, [&](const auto &line) { lines.push_back(Json(line())); });
  ASSERT_TRUE(run_until([&] { return !lines.empty(); }));
  EXPECT_EQ(lines[0], (Json{{"live", 12}}));  // the types of the schema

  FlowSta sta(1);
  SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
  signal.is_pkt_start = 1;
  ASSERT_EQ(world.set(sta), 0);
  ASSERT_EQ(world.publish(&signal.base), 0);
  world.settle();
  world.put_raw(8, "s_policy_kelim.flow:2:0", "\xff\xff");
  ASSERT_EQ(world.pexpire(sta, 1), 0);
  world.pass(10ms);
  ASSERT_TRUE(run_until([&] { return lines.size() == 6; }));
  world.cut_connections(8);
  ASSERT_TRUE(run_until([] { return !reconnects.empty() && reconnects.back() == 2; }));
  ASSERT_EQ(world.set(sta), 0);
  ASSERT_TRUE(run_until([&] { return lines.size() == 7; }));
  watching.reset();
  ASSERT_EQ(world.set(sta), 0);
  world.settle();
  std::string shown;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const Json change = host::mom::decode_change(lines[i]);
    const bool broken = change.at("record").contains("broken");
    shown += change.at("db").dump() + " " + change.value("change", "") + " " + (broken ? "" : change.value("key", "")) + " " +
             change.at("record").dump() + "\n";
  }
  const std::string object =
      R"(s_policy_kelim.flow_sta:1:0 {"index":{"flow_index":1,"vsd_id":0},"rep_uuid":0,"status":"STATUS_NONE"})";
  EXPECT_EQ(shown,
            "8 written " + object + "\n8 published s_policy_kelim.pkt_sig {\"is_pkt_start\":1}\n" +
                "8 published s_policy_kelim.pkt_sig {\"is_pkt_start\":0}\n8 written  {\"broken\":true,\"length\":2}\n8 deleted " +
                object + "\n8 written " + object + "\n");
}

}  // namespace
}  // namespace mom_test
