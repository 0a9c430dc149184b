// The control service over its socket: commands, their arguments, views, and clients that misbehave.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ssat.h"
#include "support/ask.h"

namespace {

using namespace std::chrono_literals;
using host::control::Client;
using nlohmann::json;

int dump(const std::int64_t *args, std::uint32_t) {
  for (std::int64_t i = 0; i < args[0]; ++i)
    printf("flow_index:%ld, vsd_id:0, rule_bitmap:1234567890 \xff\n", static_cast<long>(i));
  return 0;
}

class Control : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    ASSERT_EQ(ssat_lib_init(global, "m"), 0);
    const std::pair<const char *, const char *> commands[] = {
        {"two", "index=%d, vsd_id=%d"}, {"hex", "dbg_val=%x"}, {"switch", "sw=%d(0/1)"}, {"dump", "lines=%d"}};
    for (const auto &[name, format] : commands) ASSERT_EQ(ssat_reg_mod_cmd("m", name, format, dump), 0) << name;
  }

  std::string path() const { return host::control::socket_path(dir.path(), "core_test"); }

  // The next line that the client is sent.
  static json next(Client &client) {
    return beside_the_loop([&client] {
      std::string line;
      EXPECT_EQ(client.receive(&line, kPatience), "");
      return json::parse(line);
    });
  }

  json ask(const std::string &line) {
    Client client;
    EXPECT_EQ(client.connect(path()), "");
    client.send(line + "\n");
    return next(client);
  }
  static std::string call(const std::string &name, const json &args) {
    return json{{"call", "cmd"}, {"module", "m"}, {"command", name}, {"args", args}}.dump();
  }
};

TEST_F(Control, WhatDoesNotFitIsRefusedWithWhatIsAllowed) {
  const std::pair<std::string, const char *> cases[] = {
      {R"({"call":"cmd","module":"x","command":"two"})", "unknown module \"x\"; allowed: m"},
      {call("x", {}), "unknown command \"x\"; allowed: dump, hex, switch, two"},
      {call("two", {{"index", "1"}}), "vsd_id is missing; usage: m two index=%d vsd_id=%d"},
      {call("two", {{"index", "1"}, {"vsd_id", "0"}, {"x", "1"}}), "unknown argument x; usage: m two"},
      {call("two", {{"index", "0x1"}, {"vsd_id", "0"}}), "index=0x1 is not a decimal number"},
      {call("two", {{"index", "9223372036854775808"}, {"vsd_id", "0"}}), "is not a decimal number"},
      {call("two", {{"index", json::array({1})}, {"vsd_id", "0"}}), "index=[1] is not"},
      {call("hex", {{"dbg_val", "0x"}}), "is not a hexadecimal number; usage: m hex dbg_val=%x"},
      {call("switch", {{"sw", "2"}}), "sw=2 is not 0 or 1"},
      {call("two", "1 2"), "args is not an object"},
      {R"({"call":"view","name":"x"})", "unknown view \"x\"; allowed: "},
      {R"({"call":"view","name":4})", ""},
      {R"({"call":"reboot"})", "unknown call \"reboot\"; allowed: cmd, list, set, view, watch"},
      {"\xff\xfe{", "one JSON object"},
  };
  for (const auto &[request, words] : cases) {
    const json answer = ask(request);
    EXPECT_EQ(answer["status"], 2) << request;
    EXPECT_NE(answer["error"].get<std::string>().find(words), std::string::npos) << request << answer;
  }
}

TEST_F(Control, RegistrationRefusesWhatItCannotServe) {
  EXPECT_EQ(ssat_reg_mod_cmd("x", "c", "", dump), -7);
  EXPECT_EQ(ssat_reg_mod_cmd("m", "two", "", dump), -4) << "registered already";
  for (const char *format : {"x", "x=", "x=%", "x=%s", "=%d", "x=%d(", "x=%d(a)", "x=%d,x=%d", "x=%d,,y=%d", "x y=%d",
                             "a=%d,b=%d,c=%d,d=%d,e=%d,f=%d,g=%d,h=%d,i=%d"})
    EXPECT_EQ(ssat_reg_mod_cmd("m", "c", format, dump), -4) << format;
  const json commands = ask(R"({"call":"list"})")["modules"][0]["commands"];
  EXPECT_EQ(commands.size(), 4u);
  EXPECT_EQ(commands[3], (json{{"name", "two"}, {"format", "index=%d, vsd_id=%d"}}));
}

TEST_F(Control, ALargeDumpReachesCallerAndStandardOutputWhole) {
  testing::internal::CaptureStdout();
  const json answer = ask(call("dump", {{"lines", "100000"}}));
  const std::string printed = testing::internal::GetCapturedStdout();
  const auto &output = answer["output"].get_ref<const std::string &>();
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 100'000);
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 100'000);
  EXPECT_NE(output.find("flow_index:99999, vsd_id:0, rule_bitmap:1234567890 \xEF\xBF\xBD\n"), std::string::npos)
      << "not valid UTF-8";
}

TEST_F(Control, OnlyTheOwnerMayConnectAndTheSocketGoesWithTheRuntime) {
  struct stat s;
  ASSERT_EQ(stat(path().c_str(), &s), 0);
  EXPECT_EQ(s.st_mode & 0777u, 0600u);
  qx_global_finish(global);
  EXPECT_NE(stat(path().c_str(), &s), 0);
  // What a killed process leaves is replaced, what another one serves is not.
  const int left = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(left, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(listen(left, 1), 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(qx_global_init("core_test", nullptr), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("another process serves"), std::string::npos);
  close(left);
  set("control.group", "no-such-group");
  testing::internal::CaptureStderr();
  EXPECT_EQ(qx_global_init("core_test", nullptr), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("control.group: there is no group \"no-such-group\""), std::string::npos);
  set("control.group", "");
  global = qx_global_init("core_test", nullptr);
  ASSERT_NE(global, nullptr);
  EXPECT_EQ(ask(R"({"call":"list"})")["modules"], json::array()) << "commands went with the last runtime";
}

TEST_F(Control, TheSocketComesBackWhenTheRunDirectoryWasRemoved) {
  std::filesystem::remove_all(dir.path());
  EXPECT_TRUE(host::run_until([&] { return std::filesystem::exists(path()); }, kPatience));
  EXPECT_EQ(ask(R"({"call":"list"})")["status"], 0);
}

TEST_F(Control, RequestsMayComeInPiecesAndInARowButNotWithoutEnd) {
  Client client;
  ASSERT_EQ(client.connect(path()), "");
  client.send(R"({"call":)");
  client.send("\"list\"}\n\n{\"call\":\"view\",\"name\":\"timings\"}\n{\"call\":\"x\"}\n");
  EXPECT_TRUE(next(client).contains("modules"));
  EXPECT_EQ(next(client)["data"], json::array());
  EXPECT_EQ(next(client)["status"], 2);

  client.send(std::string(65'535, 'x'));
  EXPECT_EQ(ask(R"({"call":"list"})")["status"], 0);
  std::string answer;
  EXPECT_EQ(client.receive(&answer, 0ms), "no answer in time") << "it may still end";
  client.send(std::string(1'000, 'x'));
  EXPECT_EQ(next(client)["error"], "a request of more than 65536 bytes");
  EXPECT_NE(beside_the_loop([&] { return client.receive(&answer, kPatience); }), "") << "the client is dropped";
}

// Clients that send requests for ever and never read: each costs one answer, and the others are served.
TEST_F(Control, ClientsThatNeverReadDelayNobody) {
  std::vector<Client> deaf(8);
  testing::internal::CaptureStdout();
  for (Client &client : deaf) {
    ASSERT_EQ(client.connect(path()), "");
    for (int i = 0; i < 20; ++i) client.send(call("dump", {{"lines", "20000"}}) + "\n");
  }
  EXPECT_EQ(ask(R"({"call":"list"})")["status"], 0);
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_LE(std::count(output.begin(), output.end(), '\n'), 8 * 20'000) << "one dump a client";
}

TEST_F(Control, AFeedTellsAReaderThatIsTooSlowHowManyLinesItMissed) {
  host::control::Push push;
  std::weak_ptr<void> feed;
  host::control::register_feed("ticks", [&](const json &, host::control::Push given) -> std::shared_ptr<void> {
    push = std::move(given);
    auto life = std::make_shared<int>();
    feed = life;
    return life;
  });
  EXPECT_EQ(ask(R"({"call":"watch","name":"tocks"})")["error"], "unknown feed \"tocks\"; allowed: mom, ticks");
  Client client;
  ASSERT_EQ(client.connect(path()), "");
  client.send(R"({"call":"watch","name":"ticks"})"
              "\n{\"call\":\"list\"}\n");  // the second one is not read any more
  EXPECT_EQ(next(client), (json{{"status", 0}}));

  constexpr int kTicks = 100'000;  // about 13 MB
  int made = 0;
  for (int number = 0; number < kTicks; ++number) {
    push([&] { return ++made, json{{"tick", number}, {"padding", std::string(100, '.')}}; });
    if (number % 1000 == 0) host::run_until([] { return true; }, 1s);
  }
  EXPECT_LT(made, 20'000) << "what nobody has room for is not even made";
  beside_the_loop([&] {
    std::string line;
    for (int number = 0; number < made && client.receive(&line, kPatience) == ""; ++number) {
      EXPECT_EQ(json::parse(line)["tick"], number);
    }
    return 0;
  });
  EXPECT_EQ(next(client), (json{{"missed", kTicks - made}}));
  push([] { return json("again"); });
  EXPECT_EQ(next(client), "again");
  client.disconnect();
  EXPECT_TRUE(host::run_until([&] { return feed.expired(); }, kPatience));
}

}  // namespace
