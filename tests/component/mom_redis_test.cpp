// What is particular to the store in Redis: its layout, its failures, what else may be in the server.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <thread>

#include "component/mom_world.h"
#include "host/log/log.h"
#include "host/mom/redis_endpoint.h"
#include "host/runtime/timer.h"

namespace mom_test {
namespace {

using Settings = std::vector<std::pair<std::string, std::string>>;

// A TCP port of 127.0.0.1 that the system gives to nobody else while this object lives. It is bound and does not listen: a server
// that sets SO_REUSEADDR can take it.
class Port {
 public:
  Port() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const int shared = 1;
    ::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length);
    text_ = std::to_string(ntohs(address.sin_port));
  }
  ~Port() { ::close(socket_); }
  Port(const Port &) = delete;
  const std::string &text() const { return text_; }
  int socket() const { return socket_; }

 private:
  int socket_;
  std::string text_;
};

// Answers SELECT and INFO like a server of the given version, once, each after `delay`.
class OldServer {
 public:
  explicit OldServer(const std::string &version, std::chrono::milliseconds delay = 0ms) {
    ::listen(port_.socket(), 1);
    const std::string info = "# Server\r\nredis_version:" + version + "\r\nrun_id:abc\r\n";
    answers_ = {"+OK\r\n", "$" + std::to_string(info.size()) + "\r\n" + info + "\r\n"};
    thread_ = std::thread([this, delay] {
      const int client = ::accept(port_.socket(), nullptr, nullptr);
      char buffer[512];
      for (const std::string &answer : answers_) {
        if (::recv(client, buffer, sizeof buffer, 0) <= 0) break;
        std::this_thread::sleep_for(delay);
        ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      }
      ::close(client);
    });
  }
  ~OldServer() {
    ::shutdown(port_.socket(), SHUT_RDWR);
    thread_.join();
  }
  std::string url() const { return "redis://127.0.0.1:" + port_.text(); }

 private:
  Port port_;
  std::vector<std::string> answers_;
  std::thread thread_;
};

class Elsewhere final : public Backend {
 public:
  explicit Elsewhere(std::string url) : url_(std::move(url)) {}
  std::string url() const override { return url_; }
  void pass(std::chrono::milliseconds) override {}
  void put_raw(int32_t, const std::string &, const std::string &) override {}
  void cut_connections(int32_t) override {}

 private:
  std::string url_;
};

// What the start says to standard error; "" when it succeeds.
std::string start_at(const std::string &url, const std::string &password = "") {
  testing::internal::CaptureStderr();
  World world(std::make_unique<Elsewhere>(url), {{"mom.password", password}});
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(world.global() == nullptr, !said.empty());
  return said;
}

class MomRedis : public testing::Test {
 protected:
  void start(const Settings &settings = {}, std::vector<std::string> options = {}) {
    auto owned = std::make_unique<RedisBackend>(std::move(options));
    backend = owned.get();
    world.emplace(std::move(owned), settings);
    ASSERT_NE(world->global(), nullptr);
    world->connect_all();
    ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);
    ASSERT_EQ(admin({"SELECT", "8"}), "OK");
  }
  std::string admin(const std::vector<std::string> &command) { return backend->server().command(command); }

  static long reconnected(int32_t type) { return std::count(reconnects.begin(), reconnects.end(), type); }
  static bool wait_for(int32_t type) {
    return run_until([&] { return reconnected(type) > 0; });
  }
  // The log's lines that hold the text.
  std::vector<std::string> logged(const std::string &text) {
    host::log::flush();
    std::vector<std::string> lines;
    std::ifstream log(world->run_dir() + "/log");
    for (std::string line; std::getline(log, line);) {
      if (line.find(text) != std::string::npos) lines.push_back(line);
    }
    return lines;
  }
  static std::chrono::milliseconds time(const std::function<void()> &work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  }

  std::optional<World> world;
  RedisBackend *backend = nullptr;
};

TEST_F(MomRedis, LayoutIsTheDocumentedOne) {
  start();
  Flow flow(17, 4);
  ASSERT_EQ(world->setow(flow, 258), 0);
  world->settle();
  EXPECT_EQ(admin({"GET", "s_policy_kelim.flow:17:4"}), std::string("\x02\x01\0\0\0\0\0\0", 8) + pack(flow));
  EXPECT_EQ(admin({"SMEMBERS", "s_policy_kelim.flow"}), "17:4");
  EXPECT_EQ(admin({"PTTL", "s_policy_kelim.flow:17:4"}), "-1");
  const std::string clients = admin({"CLIENT", "LIST"});
  for (const char *name : {"write", "listen", "sync"})
    EXPECT_NE(clients.find(std::string("name=mom_test/8/") + name), std::string::npos);
  Registration registration("a:b c");
  ASSERT_EQ(qx_mom_setnx_sync(world->global(), 0, registration, 0, 0), 0);
  ASSERT_EQ(admin({"SELECT", "0"}), "OK");
  EXPECT_EQ(admin({"SMEMBERS", "s_cluster.reg_pkt_info"}), "a%3Ab%20c");
  ASSERT_EQ(admin({"SELECT", "8"}), "OK");
  ASSERT_EQ(world->del(flow), 0);
  world->settle();
  EXPECT_EQ(admin({"DBSIZE"}), "0");
}

// A writer may die at any moment, and others read in between: an object must not stand there without its place in the index, or
// without its notification.
TEST_F(MomRedis, WritesOfOneTurnAreOneTransaction) {
  start();
  ASSERT_EQ(admin({"CONFIG", "SET", "slowlog-log-slower-than", "0"}), "OK");
  Flow first(17), second(18);
  FlowSta answer(17);
  ASSERT_EQ(world->set(first), 0);
  ASSERT_EQ(world->set(second), 0);
  ASSERT_EQ(world->set(answer), 0);
  world->settle();
  const std::string newest_first = admin({"SLOWLOG", "GET", "100"});
  size_t at = newest_first.size();
  for (const char *command : {"MULTI", "SADD\ns_policy_kelim.flow\n17:0\n18:0", "MSET\ns_policy_kelim.flow:17:0",
                              "PUBLISH\n8:s_policy_kelim.flow\nW17:0", "MULTI", "SADD\ns_policy_kelim.flow_sta\n17:0",
                              "MSET\ns_policy_kelim.flow_sta:17:0", "PUBLISH\n8:s_policy_kelim.flow_sta\nW17:0"}) {
    at = newest_first.rfind(command, at);
    ASSERT_NE(at, std::string::npos) << command << " in its place in\n" << newest_first;
  }
}

TEST_F(MomRedis, IndexForgetsWhatExpired) {
  start();
  world->watch<0>(kFlow);
  Flow all(0), kept(3);
  for (uint64_t i = 1; i <= 3; ++i) {
    Flow flow(i);
    ASSERT_EQ(world->set(flow), 0);
  }
  ASSERT_EQ(world->pexpire(all, 50), 0);
  ASSERT_EQ(world->set(kept), 0);
  EXPECT_TRUE(run_until([&] { return admin({"SMEMBERS", "s_policy_kelim.flow"}) == "3:0"; }));
  EXPECT_EQ(trace(world->scan(all)), "1:3");
}

// A server that stops in the middle of it: what comes to its turn after its deadline goes as an expiry all the same.
TEST_F(MomRedis, ExpiryOfATypeThatIsHeldUpLosesNoNotification) {
  constexpr uint64_t kCount = 20'000;
  start();
  world->watch<0>(kFlow, 8, QX_MOM_PACKED);
  for (uint64_t i = 1; i <= kCount; ++i) {
    Flow flow(i);
    ASSERT_EQ(world->set(flow), 0);
  }
  world->settle();
  recorders[0].seen.clear();
  Flow all(0);
  ASSERT_EQ(world->pexpire(all, 1), 0);
  host::run_until([] { return false; }, 5ms);
  backend->server().kill(SIGSTOP);
  host::run_until([] { return false; }, 400ms);  // the deadline is in 200 ms
  backend->server().kill(SIGCONT);
  EXPECT_TRUE(run_until([] { return recorders[0].seen.size() == kCount; })) << recorders[0].seen.size();
  EXPECT_TRUE(world->scan(all).empty());
}

// ---- failures

TEST_F(MomRedis, ServerRestartedEmptyIsAnotherServer) {
  start();
  Flow flow(1);
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  backend->server().kill(SIGKILL);
  ASSERT_TRUE(wait_for(0));
  EXPECT_EQ(world->set(flow), -1);
  const auto visit = [](const qx_obj *, void *) { return 0; };
  EXPECT_EQ(qx_mom_scan_sync(world->global(), 8, flow, 0, visit, nullptr), -1);
  ASSERT_TRUE(wait_for(3));
  backend->server().start();
  ASSERT_TRUE(wait_for(1));
  EXPECT_EQ(reconnected(2), 0);
  EXPECT_EQ(reconnected(0), 1);
  EXPECT_EQ(reconnects.back(), 1);
  EXPECT_EQ(world->get(flow).cmd, 0u);
  EXPECT_EQ(world->set(flow), 0);
  EXPECT_EQ(world->get(flow).cmd, 1u);
}

TEST_F(MomRedis, FrozenServerHoldsTheLoopNoLongerThanTheBound) {
  start({{"mom.sync_timeout_ms", "300"}, {"mom.high_water_writes", "1000"}});
  world->watch<0>(kFlow);
  Flow flow(1);
  qx_obj *object = nullptr;
  backend->server().kill(SIGSTOP);
  EXPECT_LT(time([&] { EXPECT_EQ(qx_mom_get_sync(world->global(), 8, flow, 0, &object), -1); }), 3000ms);
  EXPECT_LT(time([&] { EXPECT_EQ(qx_mom_get_sync(world->global(), 8, flow, 0, &object), -1); }), 100ms);  // not again and again
  uint64_t accepted = 0;
  int rv = 0;
  EXPECT_LT(time([&] {
              while (accepted < 100'000 && rv == 0) {
                Flow next(accepted + 1);
                rv = world->set(next);
                accepted += rv == 0;
              }
            }),
            3000ms);
  EXPECT_EQ(rv, -14);
  EXPECT_EQ(accepted, 2000u);  // the pipeline holds twice what a topic may
  EXPECT_LT(time([&] { host::run_until([] { return false; }, 20ms); }), 3000ms);
  backend->server().kill(SIGCONT);
  ASSERT_TRUE(run_until([&] { return recorders[0].seen.size() == accepted; }));
  EXPECT_TRUE(reconnects.empty());
  EXPECT_TRUE(run_until([&] { return qx_mom_get_sync(world->global(), 8, flow, 0, &object) == 0; }));
  qx_mom_qx_obj_free(object);
}

TEST_F(MomRedis, ServerThatStaysFrozenIsGivenUpAndTakenBack) {
  start({{"mom.dead_after_ms", "200"}});
  world->watch<0>(kFlow);
  Flow flow(1);
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  backend->server().kill(SIGSTOP);
  ASSERT_TRUE(wait_for(0));
  EXPECT_EQ(world->set(flow), -1);
  backend->server().kill(SIGCONT);
  ASSERT_TRUE(wait_for(2));
  ASSERT_TRUE(run_until([] { return recorders[0].seen.back().cmd == 29; }));
  EXPECT_EQ(world->get(flow).cmd, 1u);
}

// The server may be silent for the configured time, not less, whenever in the rhythm of the looks at it the silence begins.
TEST_F(MomRedis, AnswersAreWaitedForAsLongAsConfigured) {
  start({{"mom.dead_after_ms", "800"}});
  Flow flow(1);
  for (const auto begin : {0ms, 50ms, 150ms}) {
    SCOPED_TRACE(begin.count());
    reconnects.clear();
    host::clock::stop();
    host::clock::warp(begin);
    ASSERT_EQ(world->set(flow), 0);
    world->settle();
    backend->server().kill(SIGSTOP);
    ASSERT_EQ(world->set(flow), 0);
    auto silent = 0ms;
    while (reconnects.empty() && silent < 2s) {
      bool passed = false;
      host::Timer step([&] { passed = true; });
      step.arm(50ms);
      host::clock::warp(50ms);
      ASSERT_TRUE(run_until([&] { return passed; }));
      host::run_until([] { return !reconnects.empty(); }, 5ms);
      silent += 50ms;
    }
    EXPECT_GE(silent, 800ms);
    EXPECT_LE(silent, 1050ms) << "a quarter more, and a step";
    host::clock::resume();
    backend->server().kill(SIGCONT);
    ASSERT_TRUE(wait_for(2));
  }
  EXPECT_FALSE(logged("no answer for 800 ms").empty());
}

TEST_F(MomRedis, ServerThatLoadsItsDataIsWaitedFor) {
  // Each object takes two milliseconds to load, and the server answers in between.
  start({}, {"--key-load-delay", "2000", "--loading-process-events-interval-bytes", "1024"});
  world->watch<0>(kFlow);
  constexpr uint64_t kCount = 300;
  for (uint64_t i = 1; i <= kCount; ++i) {
    Flow flow(i);
    ASSERT_EQ(world->set(flow), 0);
  }
  world->settle();
  ASSERT_EQ(admin({"SAVE"}), "OK");
  recorders[0].seen.clear();
  size_t found = 0;
  Flow all(0);
  recorders[0].hook = [&](const qx_obj *object) {
    if (object->cmd == 29) found = world->scan(all).size();
  };
  backend->server().kill(SIGKILL);
  backend->server().start();
  EXPECT_NE(admin({"INFO", "persistence"}).find("loading:1"), std::string::npos);
  ASSERT_TRUE(wait_for(1));
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty(); }));
  EXPECT_EQ(trace(recorders[0].seen), "29:0");
  EXPECT_EQ(found, kCount);
  EXPECT_FALSE(logged("the server is loading its data").empty());

  // A process that starts meanwhile waits as well.
  auto owned = world->take_backend();
  world.reset();
  backend->server().kill(SIGKILL);
  backend->server().start();
  EXPECT_EQ(start_at(owned->url()), "");
}

TEST_F(MomRedis, WhatTheServerRefusesIsNeverTakenForDone) {
  start();
  Flow flow(1), other(2);
  Meter meter(1);
  ASSERT_EQ(world->set(flow), 0);
  ASSERT_EQ(world->get(flow).cmd, 1u);
  ASSERT_EQ(admin({"CONFIG", "SET", "maxmemory", "1"}), "OK");
  EXPECT_EQ(qx_mom_setnx_sync(world->global(), 8, other, 0, 0), -1);
  EXPECT_EQ(qx_mom_del_sync(world->global(), 8, flow, 0, 0), 0) << "deletions free memory";
  EXPECT_TRUE(reconnects.empty());
  ASSERT_EQ(world->set(meter), 0);  // written by a script
  ASSERT_TRUE(wait_for(0));
  ASSERT_EQ(admin({"CONFIG", "SET", "maxmemory", "0"}), "OK");
  ASSERT_TRUE(wait_for(2));
  EXPECT_TRUE(world->scan(meter).empty());
  EXPECT_FALSE(logged("the server refused a write: OOM").empty());
}

TEST_F(MomRedis, AServerThatMayDropObjectsIsComplainedOf) {
  start({}, {"--maxmemory-policy", "allkeys-lru"});
  EXPECT_FALSE(logged("maxmemory-policy is allkeys-lru, noeviction is needed").empty());
}

TEST_F(MomRedis, RefusedWriteIsFollowedByResynchronisation) {
  start();
  world->watch<0>(kFlow);
  ASSERT_EQ(admin({"CONFIG", "SET", "maxmemory", "1"}), "OK");
  Flow flow(1);
  ASSERT_EQ(world->set(flow), 0);
  ASSERT_TRUE(wait_for(0));
  ASSERT_EQ(admin({"CONFIG", "SET", "maxmemory", "0"}), "OK");
  ASSERT_TRUE(wait_for(2));
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty() && recorders[0].seen.back().cmd == 29; }));
  EXPECT_EQ(world->get(flow).cmd, 0u);
  EXPECT_EQ(admin({"SMEMBERS", "s_policy_kelim.flow"}), "");
  EXPECT_EQ(trace(recorders[0].seen), "29:0") << "a write that did not happen is not announced";
  recorders[0].seen.clear();
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1");
  EXPECT_EQ(world->get(flow).cmd, 1u);
}

TEST_F(MomRedis, LostScriptsAreLoadedAgain) {
  start();
  world->watch<0>(kFlow);
  Flow flow(1), other(2);
  ASSERT_EQ(world->set(flow), 0);
  ASSERT_EQ(world->set(other), 0);
  world->settle();
  ASSERT_EQ(admin({"SCRIPT", "FLUSH"}), "OK");
  EXPECT_EQ(qx_mom_del_sync(world->global(), 8, flow, 0, 0), 0);
  EXPECT_TRUE(reconnects.empty());  // a call that waits does it by itself

  // In the pipeline what follows has been sent already: nothing is lost silently, everybody resynchronises.
  ASSERT_EQ(admin({"SCRIPT", "FLUSH"}), "OK");
  ASSERT_EQ(world->pexpire(other, 10'000), 0);
  Flow all(0);
  ASSERT_EQ(world->pexpire(all, 60'000), 0);
  ASSERT_TRUE(wait_for(2));
  ASSERT_EQ(world->pexpire(all, 60'000), 0);
  world->settle();
  EXPECT_GT(std::stol(admin({"PTTL", "s_policy_kelim.flow:2:0"})), 10'000);
}

TEST_F(MomRedis, ConnectionsComeBackHoweverOftenTheyAreCut) {
  start();
  world->watch<0>(kFlow);
  for (uint64_t round = 1; round <= 5; ++round) {
    Flow flow(round);
    ASSERT_EQ(world->set(flow), 0);
    backend->cut_connections(8);
    ASSERT_TRUE(run_until([&] { return reconnected(2) == static_cast<long>(round); }));
    ASSERT_EQ(world->set(flow), 0);
    EXPECT_EQ(world->get(flow).key, round);
  }
  EXPECT_EQ(reconnected(1), 0);
  EXPECT_EQ(reconnected(0), 5);
  Flow all(0);
  EXPECT_EQ(trace(world->scan(all)), "1:1 1:2 1:3 1:4 1:5");
}

// ---- others in the same server

TEST_F(MomRedis, WhatOthersDidToAnObjectIsKnown) {
  start();
  world->watch<0>(kFlow);
  Flow flow(1);
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  // Another process deletes it, as the script does.
  ASSERT_EQ(admin({"DEL", "s_policy_kelim.flow:1:0"}), "1");
  ASSERT_EQ(admin({"SREM", "s_policy_kelim.flow", "1:0"}), "1");
  ASSERT_EQ(admin({"PUBLISH", "8:s_policy_kelim.flow-", notification('D', "1:0", pack(flow))}), "1");
  ASSERT_TRUE(run_until([] { return recorders[0].seen.back().cmd == 3; }));
  EXPECT_EQ(world->del(flow), -7);
  ASSERT_EQ(world->set(flow), 0);
  ASSERT_EQ(admin({"PEXPIRE", "s_policy_kelim.flow:1:0", "1"}).substr(0, 1) == "(", false);
  world->settle();
  EXPECT_TRUE(run_until([&] {
    if (world->get(flow).cmd != 0) admin({"PEXPIRE", "s_policy_kelim.flow:1:0", "1"});
    return recorders[0].seen.back().cmd == 3;
  }));
  EXPECT_EQ(world->del(flow), -7);
}

// The server's word of an expiry may still be on its way.
TEST_F(MomRedis, WhatMayHaveExpiredIsAskedFor) {
  start();
  world->watch<0>(kFlow);
  Flow all(0), alone(1), among_all(2);
  for (Flow *flow : {&alone, &among_all}) {
    ASSERT_EQ(world->set(*flow), 0);
    world->settle();
  }
  const auto gone_from_server = [&](const std::string &key) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (admin({"EXISTS", key}) != "0" && std::chrono::steady_clock::now() < deadline) continue;
  };
  ASSERT_EQ(world->pexpire(alone, 1), 0);
  EXPECT_EQ(world->get(among_all).cmd, 1u);  // the request has been carried out
  gone_from_server("s_policy_kelim.flow:1:0");
  EXPECT_EQ(world->del(alone), -7);
  ASSERT_EQ(world->pexpire(all, 1), 0);
  EXPECT_EQ(world->scan(all).size(), 1u);
  gone_from_server("s_policy_kelim.flow:2:0");
  EXPECT_EQ(world->del(among_all), -7);
}

TEST_F(MomRedis, ForeignAndBrokenContentsAreSkippedAndCounted) {
  start();
  world->watch<0>(kFlow);
  Flow flow(1), alien(2), tiny(3);
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  recorders[0].seen.clear();
  ASSERT_EQ(admin({"SADD", "s_policy_kelim.flow", "2:0", "3:0", "4:0", "x", "1:0:0", "%", "", std::string("\0\xff", 2)}), "8");
  ASSERT_EQ(admin({"RPUSH", "s_policy_kelim.flow:2:0", "a list"}), "1");
  ASSERT_EQ(admin({"SET", "s_policy_kelim.flow:3:0", "short"}), "OK");
  ASSERT_EQ(admin({"SET", "s_policy_kelim.flow:foreign", "x", "PX", "1"}), "OK");
  ASSERT_EQ(admin({"SET", "something else", "x", "PX", "1"}), "OK");
  const std::string good = notification('W', "1:0", pack(flow));
  for (const std::string &payload : std::vector<std::string>{
           "", std::string(1, '\0'), "W", "W1:0", good.substr(0, 8), good.substr(0, good.size() - 1),
           notification('X', "1:0", pack(flow)), notification('W', "x:0", pack(flow)), notification('W', "2:0", pack(flow)),
           notification('W', "1:0", "\xff\xff"), notification('D', "9", "")}) {
    ASSERT_EQ(admin({"PUBLISH", "8:s_policy_kelim.flow", payload}), "1");
  }
  // The good ones beside what cannot be read, but nothing behind what has no known end.
  ASSERT_EQ(admin({"PUBLISH", "8:s_policy_kelim.flow", notification('W', "x:0", "") + good + "W1" + good}), "1");
  EXPECT_EQ(trace(world->scan(flow)), "1:1");
  qx_obj *object = nullptr;
  EXPECT_EQ(qx_mom_get_sync(world->global(), 8, alien, 0, &object), -1);
  EXPECT_EQ(qx_mom_get_sync(world->global(), 8, tiny, 0, &object), -1);
  EXPECT_EQ(object, nullptr);
  ASSERT_EQ(world->set(alien), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1 1:2");  // the good ones, nothing of the others
  EXPECT_GE(mom::testing::skipped(), 14u);
  EXPECT_TRUE(reconnects.empty());

  // Each kind once, with the key that it was met at first.
  const auto skipped = [&](const std::string &kind) {
    const auto lines = logged(kind);
    return lines.size() == 1 ? lines[0].substr(lines[0].find("skipped ")) : std::to_string(lines.size()) + " lines";
  };
  EXPECT_EQ(skipped("a notification of no known layout").find("skipped s_policy_kelim.flow:: a"), 0u);
  EXPECT_EQ(skipped("a notification of an object that cannot be").find("skipped s_policy_kelim.flow:x:0: a"), 0u);
  EXPECT_EQ(skipped("the value is no record of its type").find("skipped s_policy_kelim.flow:2:0: the"), 0u);
}

TEST_F(MomRedis, OthersKeysCostOneLineHoweverManyThereAre) {
  start();
  const uint64_t before = mom::testing::skipped();
  for (int i = 1; i <= 300; ++i) {
    ASSERT_EQ(admin({"SET", "session\r\n" + std::to_string(i), "x", "PX", "1"}), "OK");
    ASSERT_EQ(admin({"SET", "session\r\n:" + std::to_string(i), "x", "PX", "1"}), "OK");
  }
  ASSERT_TRUE(run_until([&] { return mom::testing::skipped() == before + 600; }));
  const auto lines = logged("the expiry of an object that cannot be");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("skipped session??"), std::string::npos);
}

TEST_F(MomRedis, ValuesOfAnotherKindNeitherStopADeletionNorSurviveIt) {
  start();
  world->watch<0>(kFlow);
  Flow all(0), tagged(1), alien(2), last(3);
  for (Flow *flow : {&tagged, &last}) ASSERT_EQ(world->setow(*flow, 1), 0);
  world->settle();
  recorders[0].seen.clear();
  ASSERT_EQ(admin({"SADD", "s_policy_kelim.flow", "2:0"}), "1");
  ASSERT_EQ(admin({"RPUSH", "s_policy_kelim.flow:2:0", "a list"}), "1");
  ASSERT_EQ(world->pexpire(all, 60'000), 0);
  ASSERT_EQ(world->del_expire_ow(all, 1), 0);
  world->settle();
  EXPECT_EQ(recorders[0].seen.size(), 2u);
  EXPECT_EQ(admin({"SMEMBERS", "s_policy_kelim.flow"}), "2:0");
  recorders[0].seen.clear();
  EXPECT_EQ(qx_mom_del_sync(world->global(), 8, alien, 0, 0), 0);
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "3:2");
  EXPECT_EQ(admin({"DBSIZE"}), "0");
  EXPECT_TRUE(reconnects.empty());
}

// A second process of ours on the same server: answers every flow, and deletes every third.
int answering_process(const std::string &url, uint64_t flows) {
  World world(std::make_unique<Elsewhere>(url));
  world.connect_all();
  uint64_t answered = 0;
  recorders[0].hook = [&](const qx_obj *object) {
    if (object->cmd != 1) return;
    const uint64_t index = reinterpret_cast<const SPolicyKelim__Flow *>(object->value)->index->flow_index;
    FlowSta sta(index);
    Flow flow(index);
    ++answered;
    if (world.set(sta) != 0 || (index % 3 == 0 && qx_mom_del_sync(world.global(), 8, flow, 0, 0) != 0)) ::_exit(1);
  };
  const qx_mom_spec spec = {kFlow, QX_MOM_DECODED};
  qx_mom_subscribe(world.global(), 8, &spec, record_into<0>);
  FlowSta ready(1);
  const bool announced = run_until([] { return !recorders[0].seen.empty(); }) && world.set(ready, 4) == 0;
  const bool done = announced && run_until([&] { return answered == flows; });
  if (done) world.settle();
  return done ? 0 : 1;
}

TEST(MomRedisProcesses, TwoProcessesWorkOnTheSameObjects) {
  constexpr uint64_t kFlows = 3000;
  support::RedisServer server;
  const pid_t child = ::fork();
  if (child == 0) ::_exit(answering_process(server.url(), kFlows));
  World world(std::make_unique<Elsewhere>(server.url()));
  world.connect_all();
  world.watch<0>(kFlow);
  world.watch<1>(kFlowSta);
  Flow all(0);
  FlowSta answers(0), ready(1);
  ASSERT_TRUE(run_until([&] { return world.get(ready, 4).cmd == 1; }));
  for (uint64_t i = 1; i <= kFlows; ++i) {
    Flow flow(i);
    ASSERT_EQ(world.set(flow), 0);
    if (i % 100 == 0) host::run_until([] { return false; }, 1ms);  // the other one works meanwhile
  }
  const auto seen = [](size_t recorder, uint32_t cmd) {
    const auto &all_seen = recorders[recorder].seen;
    return std::count_if(all_seen.begin(), all_seen.end(), [&](const Seen &one) { return one.cmd == cmd; });
  };
  ASSERT_TRUE(run_until([&] { return seen(1, 1) == kFlows && seen(0, 3) == kFlows / 3; })) << seen(1, 1) << " " << seen(0, 3);
  EXPECT_EQ(seen(0, 1), static_cast<ptrdiff_t>(kFlows));
  EXPECT_EQ(world.scan(all).size(), kFlows - kFlows / 3);
  EXPECT_EQ(world.scan(answers).size(), kFlows);
  Flow deleted_there(3), here(1);
  EXPECT_EQ(world.del(deleted_there), -7);
  EXPECT_EQ(world.del(here), 0);
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

// ---- starting

// Over TCP, by name, with a password.
TEST(MomRedisStart, TcpAndPasswordServeAsTheSocketDoes) {
  const Port port;
  const support::RedisServer server({"--port", port.text(), "--bind", "127.0.0.1", "--requirepass", "sesame"});
  World world(std::make_unique<Elsewhere>("redis://localhost:" + port.text()), {{"mom.password", "sesame"}});
  ASSERT_NE(world.global(), nullptr);
  world.connect_all();
  world.watch<0>(kFlow);
  Flow flow(1);
  ASSERT_EQ(world.setow(flow, 1), 0);
  EXPECT_EQ(world.get(flow).cmd, 1u);
  world.settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1");
}

// Ends the server's side of the client's connection as a machine that goes down does: without a word to the client. False where
// the system does not let us.
bool lose(support::RedisServer &server, const std::string &client) {
  const auto number_behind = [](const std::string &text, const std::string &name, size_t from = 0) {
    return std::stoi(text.substr(text.find(name, from) + name.size()));
  };
  const std::string clients = server.command({"CLIENT", "LIST"});
  const size_t line = clients.rfind("id=", clients.find(" name=" + client + " "));
  const auto process =
      static_cast<int>(::syscall(SYS_pidfd_open, number_behind(server.command({"INFO", "server"}), "process_id:"), 0));
  const auto socket = static_cast<int>(::syscall(SYS_pidfd_getfd, process, number_behind(clients, " fd=", line), 0));
  // A late acknowledgement would be told that nobody is there any more.
  const auto acknowledged = [socket] {
    tcp_info info{};
    socklen_t length = sizeof info;
    return ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || info.tcpi_unacked == 0;
  };
  EXPECT_TRUE(run_until(acknowledged));
  const int silent = 1;
  const bool done = ::setsockopt(socket, IPPROTO_TCP, TCP_REPAIR, &silent, sizeof silent) == 0;
  ::close(socket);
  ::close(process);
  return done && server.command({"CLIENT", "KILL", "ID", std::to_string(number_behind(clients, "id=", line))}) == "1";
}

TEST(MomRedisTcp, AListenerLostWithoutAWordIsNoticed) {
  const Port port;
  support::RedisServer server({"--port", port.text(), "--bind", "127.0.0.1"});
  World world(std::make_unique<Elsewhere>("redis://127.0.0.1:" + port.text()), {{"mom.dead_after_ms", "1000"}});
  ASSERT_NE(world.global(), nullptr);
  world.connect_all();
  world.watch<0>(kFlow);
  ASSERT_EQ(qx_mom_client_set_reconnect_cb(world.global(), 8, note_reconnect, nullptr), 0);
  if (!lose(server, "mom_test/8/listen")) GTEST_SKIP() << "the system lets no connection be lost: " << strerror(errno);
  ASSERT_TRUE(run_until([] { return !reconnects.empty() && reconnects.back() == 2; }));
  EXPECT_EQ(reconnects.front(), 0);
  Flow flow(1);
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty(); })) << "told to read what it missed";
  ASSERT_EQ(world.set(flow), 0);
  EXPECT_TRUE(run_until([] { return trace(recorders[0].seen) == "29:0 1:1"; })) << trace(recorders[0].seen);
}

TEST(MomRedisStart, AFrozenServerIsGivenUpInOneLine) {
  support::RedisServer server;
  server.kill(SIGSTOP);
  EXPECT_EQ(start_at(server.url()), "mom_test: mom.url " + server.url() + ": the server did not answer in time\n");
}

// However many exchanges it takes: here connecting asks twice.
TEST(MomRedisStart, ASynchronousCallEndsAtItsDeadline) {
  const OldServer slow("7.0.0", 200ms);
  mom::Endpoint endpoint;
  ASSERT_EQ(mom::parse_endpoint(slow.url(), &endpoint), "");
  mom::SyncConnection connection(endpoint, 8, 300ms);
  connection.set_deadline(std::chrono::steady_clock::now() + 300ms);
  EXPECT_EQ(connection.open(), "the server did not answer in time");
}

TEST(MomRedisStart, SaysInOneLineWhatIsWrong) {
  const support::RedisServer open, guarded({"--requirepass", "sesame"});
  EXPECT_EQ(start_at(open.url()), "");
  EXPECT_EQ(start_at(guarded.url(), "sesame"), "");
  EXPECT_EQ(start_at(guarded.url()),
            "mom_test: mom.url " + guarded.url() + ": the server wants a password, but mom.password is empty\n");
  EXPECT_EQ(start_at(guarded.url(), "open"),
            "mom_test: mom.url " + guarded.url() +
                ": mom.password is refused: WRONGPASS invalid username-password pair or user is disabled.\n");
  EXPECT_EQ(start_at("redis+unix:/nowhere/redis.sock"),
            "mom_test: mom.url redis+unix:/nowhere/redis.sock: No such file or directory\n");
  EXPECT_EQ(start_at("redis://user@host:1"),
            "mom_test: mom.url 'redis://user@host:1': must be redis://HOST:PORT with a port from 1 to 65535 (the password has a "
            "key of its own)\n");
  const std::string nowhere = start_at("redis://no-such-host.invalid:6379");
  EXPECT_EQ(nowhere.find("mom_test: mom.url redis://no-such-host.invalid:6379: the host has no address: "), 0u) << nowhere;
  EXPECT_EQ(std::count(nowhere.begin(), nowhere.end(), '\n'), 1);
  const OldServer old("6.2.14");
  EXPECT_EQ(start_at(old.url()), "mom_test: mom.url " + old.url() + ": the server's version is '6.2.14'; 7 or later is needed\n");
}

}  // namespace
}  // namespace mom_test
