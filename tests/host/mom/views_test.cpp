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
    const Json reply = beside_the_loop([&] { return ask(host::config().run_dir, "mom_test", request); });
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

}  // namespace
}  // namespace mom_test
