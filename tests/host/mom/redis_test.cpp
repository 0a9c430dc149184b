// What is particular to the store in Redis: its layout, its failures, what else may be in the server.
#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>
#include <optional>
#include <thread>

#include "host/log/log.h"
#include "host/mom/mom_world.h"
#include "qx_runtime.h"
#include "support/certificates.h"

namespace mom_test {
namespace {

// A TCP port of 127.0.0.1 that the system gives to nobody else while this object lives. It is bound and does not listen: a server
// that sets SO_REUSEADDR can take it.
struct Port {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  std::string text;
  Port() {
    const int shared = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(socket, reinterpret_cast<sockaddr *>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length);
    text = std::to_string(ntohs(address.sin_port));
  }
  ~Port() { ::close(socket); }
  Port(const Port &) = delete;
};

// A message on the channels of a type.
std::string notification(char kind, const std::string &member, const std::string &record) {
  std::string text = kind + member + '\0';
  for (int shift = 0; shift < 32; shift += 8) text.push_back(static_cast<char>(record.size() >> shift));
  return text + record;
}

// What the start says to standard error; "" when it succeeds.
std::string start_with(const Settings &settings) {
  testing::internal::CaptureStderr();
  World world("Embedded", settings);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(world.global() == nullptr, !said.empty());
  return said;
}

std::string start_at(const std::string &url, const std::string &password = "") {
  return start_with({{"mom.url", url}, {"mom.password", password}});
}

class MomRedis : public testing::Test {
 protected:
  void start(const Settings &settings = {}, std::vector<std::string> options = {}) {
    server.emplace(std::move(options));
    world.emplace(server->url(), settings);
    world->connect_all();
    ASSERT_EQ(qx_mom_client_set_reconnect_cb(world->global(), 8, note_reconnect, nullptr), 0);
    admin({"AUTH", "sesame"});
    ASSERT_EQ(admin({"SELECT", "8"}), "OK");
  }
  std::string admin(const std::vector<std::string> &command) { return server->command(command); }

  static long reconnected(std::int32_t type) { return std::count(reconnects.begin(), reconnects.end(), type); }
  static bool wait_for(std::int32_t type) {
    return run_until([&] { return reconnected(type) > 0; });
  }
  // The log's only line that holds the text, or how many there are.
  std::string logged(const std::string &text) {
    host::log::flush();
    std::string found;
    int lines = 0;
    std::ifstream log(host::config().log.file);
    for (std::string line; std::getline(log, line);) {
      if (line.find(text) != std::string::npos) found = ++lines == 1 ? line : std::to_string(lines) + " lines";
    }
    return lines ? found : "0 lines";
  }
  static std::chrono::milliseconds time(const std::function<void()> &work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  }

  std::optional<support::RedisServer> server;
  std::optional<World> world;
};

TEST_F(MomRedis, LayoutIsTheDocumentedOne) {
  start();
  Flow flow(17);
  flow.key.vsd_id = 4;
  ASSERT_EQ(world->setow(flow, 258), 0);
  world->settle();
  EXPECT_EQ(admin({"GET", "s_policy_kelim.flow:17:4"}), std::string("\x02\x01\0\0\0\0\0\0", 8) + pack(flow));
  EXPECT_EQ(admin({"SMEMBERS", "s_policy_kelim.flow"}), "17:4");
  ASSERT_EQ(world->del(flow), 0);
  world->settle();
  EXPECT_EQ(admin({"DBSIZE"}), "0");
  ASSERT_EQ(world->set(flow), 0);
  world->settle();
  ASSERT_EQ(world->call("expire", flow, 1), 0);
  EXPECT_TRUE(run_until([&] { return admin({"DBSIZE"}) == "0"; })) << "the index forgets what expired";
  char name[] = "a:b c";
  ASSERT_EQ(world->call("setnx", Registration(name), 0, 0), 0);
  ASSERT_EQ(admin({"SELECT", "0"}), "OK");
  EXPECT_EQ(admin({"SMEMBERS", "s_cluster.reg_pkt_info"}), "a%3Ab%20c");
}

// A writer may die at any moment, and others read in between: an object must not stand there without its place in the index, or
// without its notification.
TEST_F(MomRedis, WritesOfOneTurnAreOneTransaction) {
  start();
  ASSERT_EQ(admin({"CONFIG", "SET", "slowlog-log-slower-than", "0"}), "OK");
  const auto expect_in_order = [&](const std::vector<const char *> &commands) {
    world->settle();
    const std::string newest_first = admin({"SLOWLOG", "GET", "100"});
    std::size_t at = newest_first.size();
    for (const char *command : commands) {
      at = newest_first.rfind(command, at);
      ASSERT_NE(at, std::string::npos) << command << " in its place in\n" << newest_first;
    }
    ASSERT_EQ(admin({"SLOWLOG", "RESET"}), "OK");
  };
  world->fill(18, 17);
  world->run("set flow:18; set flow_sta:17");
  expect_in_order({"MULTI", "SADD\ns_policy_kelim.flow\n17:0\n18:0", "MSET\ns_policy_kelim.flow:17:0",
                   "PUBLISH\n8:s_policy_kelim.flow\nW17:0", "MULTI", "SADD\ns_policy_kelim.flow_sta\n17:0",
                   "MSET\ns_policy_kelim.flow_sta:17:0", "PUBLISH\n8:s_policy_kelim.flow_sta\nW17:0"});

  // Deletions with them, and types that take turns.
  world->run("set flow:17; set flow:18; set flow_sta:17");  // known to be there: their deletion need not ask
  expect_in_order({});
  world->run("set flow:19; del flow:17; set flow_sta:18; del flow_sta:17; set flow:20; del flow:18; set flow_sta:19");
  expect_in_order({"MULTI", "SADD\ns_policy_kelim.flow\n19:0\n20:0", "MSET\ns_policy_kelim.flow:19:0", "EVAL", "MULTI",
                   "SADD\ns_policy_kelim.flow_sta\n18:0\n19:0", "EVAL"});
}

// A server that stops in the middle of it: what comes to its turn after its deadline goes as an expiry all the same.
TEST_F(MomRedis, ExpiryOfATypeThatIsHeldUpLosesNoNotification) {
  start();
  world->watch<0>(Flow::kType, 8, QX_MOM_PACKED);
  world->fill(20'000);
  world->forget();
  world->run("expire flow 1");
  host::run_until([] { return false; }, 5ms);
  server->kill(SIGSTOP);
  host::run_until([] { return false; }, 400ms);  // the deadline is in 200 ms
  server->kill(SIGCONT);
  EXPECT_TRUE(arrive(20'000)) << recorders[0].seen.size();
  EXPECT_TRUE(world->scan(Flow(0)).empty());
}

// A server that does not look for what is past its deadline by itself.
TEST_F(MomRedis, DeletionOfWhatExpiredHasTheServerNoticeIt) {
  start({}, {"--enable-debug-command", "yes"});
  world->watch<0>(Flow::kType);
  world->fill(3);
  world->forget();
  ASSERT_EQ(admin({"DEBUG", "SET-ACTIVE-EXPIRE", "0"}), "OK");
  world->run("expire flow 300; tag flow:2 1");
  EXPECT_TRUE(run_until([&] {
    world->run("drop flow 1");
    return count(3) == 2;
  }));
  EXPECT_EQ(trace(world->scan(Flow(0))), "1:2");
}

// A table of a million objects takes the server seconds to go over.
TEST_F(MomRedis, DeletionOfWhatExpiredGoesOverNothingThatIsNotDueYet) {
  start();
  world->fill(20'000);  // due after two seconds
  world->run("expire flow 1");
  world->settle();
  const auto looked_at = [&] {
    const std::string all = admin({"INFO", "commandstats"});
    const std::size_t at = all.find("cmdstat_exists:");
    return at == std::string::npos ? "" : all.substr(at, all.find(',', at) - at);
  };
  const std::string before = looked_at();
  world->run("drop flow 1");
  world->settle();
  EXPECT_EQ(looked_at(), before);
}

// Whether the object is there, nobody waits to know while the server goes over a whole type; it is deleted all the same.
TEST_F(MomRedis, ADeletionDoesNotWaitForTheExpiryOfAType) {
  start();
  world->fill(3000);
  world->run("expire flow 60000; del flow:2; del flow:9999");
  world->settle();
  world->run("get flow:1; get flow:2 gives -7; del flow:9999 gives -7");
}

// ---- failures

TEST_F(MomRedis, FrozenServerHoldsTheLoopNoLongerThanTheBound) {
  start({{"mom.sync_timeout_ms", "1000"}, {"mom.high_water_writes", "1000"}});
  world->watch<0>(Flow::kType);
  server->kill(SIGSTOP);
  world->run("set flow:1");
  const auto bound = time([&] { world->run("get flow:1 gives -1"); });
  EXPECT_LT(bound, 5000ms);
  EXPECT_LT(time([&] { world->run("get flow:1 gives -1"); }), bound / 2) << "waited again";
  std::uint64_t accepted = 1;
  while (accepted < 100'000 && world->set(Flow(accepted + 1)) == 0) ++accepted;
  EXPECT_EQ(accepted, 2000u);  // the pipeline holds twice what a topic may
  world->run("set flow:1 gives -14");
  host::run_until([] { return false; }, 20ms);
  server->kill(SIGCONT);
  ASSERT_TRUE(arrive(accepted));
  EXPECT_TRUE(reconnects.empty());
  EXPECT_TRUE(run_until([&] { return world->call("setnx", Flow(1)) == 1; }));
}

// It may be silent for the configured time, not less, whenever in the rhythm of the looks at it the silence begins.
TEST_F(MomRedis, ServerThatStaysFrozenIsGivenUpAfterTheTimeConfiguredAndTakenBack) {
  start({{"mom.dead_after_ms", "400"}});
  world->watch<0>(Flow::kType);
  for (const auto begin : {0ms, 30ms, 80ms}) {
    SCOPED_TRACE(begin.count());
    world->forget();
    reconnects.clear();
    host::run_until([] { return false; }, begin);
    server->kill(SIGSTOP);
    world->run("set flow:1");
    EXPECT_GE(time([&] { EXPECT_TRUE(wait_for(0)); }), 400ms);
    world->run("set flow:1 gives -1");
    server->kill(SIGCONT);
    ASSERT_TRUE(wait_for(2));
    EXPECT_EQ(reconnected(0), 1);
    ASSERT_TRUE(run_until([] { return count(29) == 1; }));
    world->run("set flow:1; get flow:1");
  }
}

TEST_F(MomRedis, ServerThatLoadsItsDataIsWaitedFor) {
  // Each object takes two milliseconds to load, and the server answers in between.
  start({}, {"--key-load-delay", "2000", "--loading-process-events-interval-bytes", "1024"});
  world->watch<0>(Flow::kType);
  world->fill(300);
  world->forget();
  ASSERT_EQ(admin({"SAVE"}), "OK");
  std::size_t found = 0;
  Flow all(0);
  recorders[0].hook = [&](const qx_obj *) { found = world->scan(all).size(); };
  server->kill(SIGKILL);
  server->start();
  EXPECT_NE(admin({"INFO", "persistence"}).find("loading:1"), std::string::npos);
  ASSERT_TRUE(wait_for(1));
  ASSERT_TRUE(arrive(1));
  EXPECT_EQ(trace(recorders[0].seen), "29:0");
  EXPECT_EQ(found, 300u);
  EXPECT_NE(logged("the server is loading its data"), "0 lines");

  // A process that starts meanwhile waits as well.
  world.reset();
  server->kill(SIGKILL);
  server->start();
  EXPECT_EQ(start_at(server->url()), "");
}

// No write that is refused is taken for done. What is stored stays, also where a replay was under way; it can be deleted. What is
// new is refused at once. When there is room again, everybody is asked to look again, over connections that held.
TEST_F(MomRedis, AServerThatRefusesWritesKeepsWhatItHasAndHealsByItself) {
  start();
  world->watch<0>(Flow::kType);
  for (const std::string refused : {"flow:12", "meter:1"}) {  // meters are written by a script
    SCOPED_TRACE(refused);
    world->fill(9);
    world->forget();
    world->run("expire flow 300; get flow:1");  // the server has taken that
    ASSERT_EQ(admin({"CONFIG", "SET", "maxmemory", "1"}), "OK");
    world->run("tag flow:1 1; set " + refused + "; tag flow:2 1; drop flow 1; setnx flow:10 gives -1");
    ASSERT_TRUE(run_until([&] { return world->set(Flow(11)) == -14; }));
    world->run("tag flow:3 1; expire flow 100; drop flow 1; del flow:9; del_sync flow:8");
    host::run_until([] { return false; }, 500ms);  // what was put under expiry would have gone
    EXPECT_EQ(trace(world->scan(Flow(0))), "1:1 1:2 1:3 1:4 1:5 1:6 1:7");
    EXPECT_EQ(trace(recorders[0].seen), "3:9 3:8") << "a write that did not happen is not announced";
    ASSERT_EQ(admin({"CONFIG", "SET", "maxmemory", "0"}), "OK");
    ASSERT_TRUE(run_until([] { return count(29) == 1; }));
    world->run("get " + refused + " gives -7; set flow:11; get flow:11; del flow:11; expire flow 1");
    ASSERT_TRUE(run_until([&] { return world->scan(Flow(0)).empty(); }));
  }
  EXPECT_TRUE(reconnects.empty());
  EXPECT_EQ(logged("the server refuses writes; what is stored stays: OOM"), "2 lines");
  EXPECT_EQ(logged("the server takes writes again"), "2 lines");
}

// As a replica that was a master before: nothing can be deleted there either.
TEST_F(MomRedis, AReplicaIsWaitedForLikeAServerWithoutRoom) {
  start();
  world->watch<0>(Flow::kType);
  world->fill(3);
  world->forget();
  const Port nobody;
  ASSERT_EQ(admin({"REPLICAOF", "127.0.0.1", nobody.text}), "OK");
  world->run("expire flow 100; tag flow:1 1; drop flow 1");
  ASSERT_TRUE(run_until([&] { return world->set(Flow(11)) == -14; }));
  EXPECT_EQ(trace(world->scan(Flow(0))), "1:1 1:2 1:3");
  ASSERT_EQ(admin({"REPLICAOF", "NO", "ONE"}), "OK");
  ASSERT_TRUE(run_until([] { return count(29) == 1; }));
  EXPECT_TRUE(reconnects.empty());
}

// Who reads what is there in one database, and writes of it into another, needs both.
TEST(MomHub, NoDataFetchSignalComesBeforeEveryDatabaseIsBack) {
  World world("Embedded");
  world.connect_all();
  world.watch<0>(Flow::kType);
  world.forget();
  host::mom::testing::provoke_reconnect(4, 0);
  for (std::int32_t type : {0, 2}) host::mom::testing::provoke_reconnect(8, type);
  world.settle();
  EXPECT_EQ(count(29), 0u);
  host::mom::testing::provoke_reconnect(4, 2);
  EXPECT_TRUE(run_until([] { return count(29) == 1; }));
}

TEST_F(MomRedis, AServerThatMayDropObjectsIsComplainedOf) {
  start({}, {"--maxmemory-policy", "allkeys-lru"});
  EXPECT_NE(logged("maxmemory-policy is allkeys-lru, noeviction is needed"), "0 lines");
}

TEST_F(MomRedis, LostScriptsAreLoadedAgain) {
  start();
  world->watch<0>(Flow::kType);
  world->fill(2);
  world->settle();
  ASSERT_EQ(admin({"SCRIPT", "FLUSH"}), "OK");
  world->run("del_sync flow:1");
  EXPECT_TRUE(reconnects.empty());  // a call that waits does it by itself

  // In the pipeline what follows has been sent already: nothing is lost silently, everybody resynchronises.
  ASSERT_EQ(admin({"SCRIPT", "FLUSH"}), "OK");
  world->run("expire flow 60000");
  ASSERT_TRUE(wait_for(2));
  world->run("expire flow 60000");
  EXPECT_TRUE(run_until([&] { return admin({"PTTL", "s_policy_kelim.flow:2:0"}) != "-1"; }));
}

// ---- others in the same server

// The server's word of an expiry may still be on its way, and others may set one.
TEST_F(MomRedis, WhatMayHaveExpiredIsAskedFor) {
  start();
  world->watch<0>(Flow::kType);
  world->fill(3);
  world->forget();
  const auto expect_gone = [&](const std::string &flow) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (admin({"EXISTS", "s_policy_kelim." + flow + ":0"}) != "0" && std::chrono::steady_clock::now() < deadline) continue;
    world->run("del " + flow + " gives -7");
  };
  world->run("expire flow:1 1; get flow:2");  // the request has been carried out
  expect_gone("flow:1");
  ASSERT_EQ(admin({"PEXPIRE", "s_policy_kelim.flow:3:0", "1"}), "1");
  ASSERT_TRUE(run_until([] { return !recorders[0].seen.empty() && recorders[0].seen.back().key == 3; }));
  expect_gone("flow:3");
  world->run("expire flow 1; scan flow");
  expect_gone("flow:2");
}

TEST_F(MomRedis, ForeignAndBrokenContentsAreSkippedAndCounted) {
  start();
  world->watch<0>(Flow::kType);
  Flow flow(1);
  ASSERT_EQ(world->set(flow), 0);
  world->forget();
  const std::uint64_t before = host::mom::testing::skipped();
  ASSERT_EQ(admin({"SADD", "s_policy_kelim.flow", "2:0", "3:0", "4:0", "x", "1:0:0", "%", "", std::string("\0\xff", 2)}), "8");
  ASSERT_EQ(admin({"RPUSH", "s_policy_kelim.flow:2:0", "a list"}), "1");
  ASSERT_EQ(admin({"SET", "s_policy_kelim.flow:3:0", "short"}), "OK");
  const std::string good = notification('W', "1:0", pack(flow));
  for (const std::string &payload : std::vector<std::string>{
           "", std::string(1, '\0'), "W", "W1:0", good.substr(0, 8), good.substr(0, good.size() - 1),
           notification('X', "1:0", pack(flow)), notification('W', "x:0", pack(flow)), notification('W', "2:0", pack(flow)),
           notification('W', "1:0", "\xff\xff"), notification('D', "9", ""),
           // The good ones beside what cannot be read, but nothing behind what has no known end.
           notification('W', "x:0", "") + good + "W1" + good}) {
    ASSERT_EQ(admin({"PUBLISH", "8:s_policy_kelim.flow", payload}), "1");
  }
  EXPECT_EQ(trace(world->scan(flow)), "1:1");
  world->run("get flow:2 gives -1; get flow:3 gives -1; set flow:2");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1 1:2");  // the good ones, nothing of the others
  // 13 notifications, five members and a value in the scan, two values asked for.
  EXPECT_EQ(host::mom::testing::skipped(), before + 21);

  // Others' keys cost a line however many there are.
  for (int i = 1; i <= 300; ++i) {
    ASSERT_EQ(admin({"SET", "session\r\n" + std::to_string(i), "x", "PX", "1"}), "OK");
    ASSERT_EQ(admin({"SET", "session\r\n:" + std::to_string(i), "x", "PX", "1"}), "OK");
  }
  ASSERT_TRUE(run_until([&] { return host::mom::testing::skipped() == before + 621; }));
  EXPECT_TRUE(reconnects.empty());
  // Each kind once, with the key that it was met at first.
  for (const auto &[key, kind] : std::initializer_list<std::pair<const char *, const char *>>{
           {"s_policy_kelim.flow:: ", "a notification of no known layout"},
           {"s_policy_kelim.flow:x:0: ", "a notification of an object that cannot be"},
           {"s_policy_kelim.flow:2:0: ", "the value is no record of its type"},
           {"session??", "the expiry of an object that cannot be"}}) {
    EXPECT_NE(logged(kind).find(std::string("skipped ") + key), std::string::npos) << logged(kind);
  }
}

TEST_F(MomRedis, ValuesOfAnotherKindNeitherStopADeletionNorSurviveIt) {
  start();
  world->watch<0>(Flow::kType);
  world->fill(3, 3);
  ASSERT_EQ(admin({"RPUSH", "s_policy_kelim.flow:4:0", "a list"}), "1");
  ASSERT_EQ(admin({"SADD", "s_policy_kelim.flow", "4:0"}), "1");
  world->forget();
  world->run("del flow:3; del_sync flow:4");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "3:3 3:4");
  EXPECT_EQ(admin({"DBSIZE"}), "0");
  EXPECT_TRUE(reconnects.empty());
}

// ---- TCP, and starting

// Lets nothing of what is sent to the client over TCP arrive any more, without a word to either side.
bool deafen(support::RedisServer &server, const std::string &client) {
  const std::string clients = server.command({"CLIENT", "LIST"});
  const std::string mark = " addr=127.0.0.1:";
  const int port = std::stoi(clients.substr(clients.rfind(mark, clients.find(" name=" + client + " ")) + mark.size()));
  sock_filter nothing = BPF_STMT(BPF_RET | BPF_K, 0);
  const sock_fprog filter = {1, &nothing};
  sockaddr_in own{};
  for (int fd = 0; fd < 1024; ++fd) {
    socklen_t length = sizeof own;
    const bool found = ::getsockname(fd, reinterpret_cast<sockaddr *>(&own), &length) == 0 && own.sin_family == AF_INET &&
                       ntohs(own.sin_port) == port;
    if (found) return ::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
  }
  return false;
}

// Over TCP, by name, with a password.
TEST_F(MomRedis, TcpAndPasswordServeAsTheSocketDoesAndAListenerLostWithoutAWordIsNoticed) {
  const Port port;
  start({{"mom.url", "redis://localhost:" + port.text}, {"mom.password", "sesame"}, {"mom.dead_after_ms", "1000"}},
        {"--port", port.text, "--bind", "127.0.0.1", "--requirepass", "sesame"});
  world->watch<0>(Flow::kType);
  world->run("tag flow:1 1; get flow:1");
  world->settle();
  EXPECT_EQ(trace(recorders[0].seen), "1:1");
  ASSERT_TRUE(deafen(*server, "mom_test/8/listen"));
  ASSERT_TRUE(run_until([] { return !reconnects.empty() && reconnects.back() == 2; }));
  EXPECT_EQ(reconnects.front(), 0);
  ASSERT_TRUE(arrive(2)) << "told to read what it missed";
  world->run("set flow:1");
  EXPECT_TRUE(run_until([] { return trace(recorders[0].seen) == "1:1 29:0 1:1"; })) << trace(recorders[0].seen);
}

TEST_F(MomRedis, TlsServesWhoHasTheRightCertificatesAndPasswordAndTheServerIsChecked) {
  using certificates::Identity;
  const Identity authority("authority"), theirs("localhost", &authority), ours("daemon", &authority);
  const TempDir dir;
  authority.write(dir / "ca", dir / "ca.key");
  theirs.write(dir / "server", dir / "server.key");
  ours.write(dir / "cert", dir / "key");
  std::ofstream(dir / "password") << "sesame\n";
  const Port port;
  const std::string url = "rediss://kelim@localhost:" + port.text;
  const Settings good = {{"mom.url", url},
                         {"mom.password_file", dir / "password"},
                         {"mom.tls_ca", dir / "ca"},
                         {"mom.tls_cert", dir / "cert"},
                         {"mom.tls_key", dir / "key"}};
  start(good, {"--tls-port", port.text, "--bind", "127.0.0.1", "--tls-ca-cert-file", dir / "ca", "--tls-cert-file",
               dir / "server", "--tls-key-file", dir / "server.key", "--user", "kelim", "on", ">sesame", "~*", "&*", "+@all"});
  world->watch<0>(Flow::kType);
  world->fill(20'000);
  world->settle();
  EXPECT_EQ(count(1), 20'000u);
  EXPECT_EQ(world->scan(Flow(0)).size(), 20'000u);
  ASSERT_NE(admin({"CLIENT", "KILL", "TYPE", "normal"}), "0");
  ASSERT_TRUE(wait_for(2));
  world->run("get flow:1");
  EXPECT_EQ(logged("sesame"), "0 lines");
  world.reset();

  const auto refused = [&](const char *key, const std::string &value) {
    Settings settings = good;
    settings.emplace_back(key, value);
    return start_with(settings);
  };
  const std::string failed = "mom_test: mom.url " + url + ": ", wrong = failed + "TLS: certificate verify failed: ";
  EXPECT_EQ(refused("mom.tls_ca", ""),
            "mom_test: mom.url '" + url + "': needs mom.tls_ca, the authorities that the server is checked against\n");
  EXPECT_EQ(refused("mom.tls_server_name", "elsewhere"), wrong + "hostname mismatch\n");
  EXPECT_EQ(refused("mom.tls_cert", "").find(failed), 0u) << "the server ends the connection";
  EXPECT_EQ(refused("mom.password_file", dir / "ca").find(failed + "mom.password is refused: WRONGPASS"), 0u);
  EXPECT_EQ(refused("mom.password_file", "kelim"),
            "mom_test: mom.password_file 'kelim' names a credential, but systemd hands over "
            "none (LoadCredential=)\n");
  EXPECT_EQ(refused("mom.tls_ca", dir / "cert"), wrong + "self-signed certificate in certificate chain\n");
}

TEST(MomRedisStart, SaysInOneLineWhatIsWrong) {
  support::RedisServer open, frozen, guarded({"--requirepass", "sesame"});
  const Port old;
  ::listen(old.socket, 1);
  const std::jthread answers([&] {
    const int client = ::accept(old.socket, nullptr, nullptr);
    constexpr std::string_view kAnswers = "+OK\r\n$44\r\n# Server\r\nredis_version:6.2.14\r\nrun_id:abc\r\n\r\n";
    ::send(client, kAnswers.data(), kAnswers.size(), MSG_NOSIGNAL);
    for (char buffer[512]; ::recv(client, buffer, sizeof buffer, 0) > 0;) continue;
    ::close(client);
  });
  frozen.kill(SIGSTOP);
  EXPECT_EQ(start_at(open.url()), "");
  EXPECT_EQ(start_at(guarded.url(), "sesame"), "");
  const std::string old_url = "redis://127.0.0.1:" + old.text;
  const std::string refused = "mom.password is refused: WRONGPASS invalid username-password pair or user is disabled.";
  const struct {
    std::string url, password, said;
  } rows[] = {
      {frozen.url(), "", frozen.url() + ": the server did not answer in time"},
      {guarded.url(), "", guarded.url() + ": the server wants a password, but mom.password is empty"},
      {guarded.url(), "open", guarded.url() + ": " + refused},
      {"redis+unix:/nowhere/redis.sock", "", "redis+unix:/nowhere/redis.sock: No such file or directory"},
      {"redis+sentinel://127.0.0.1:1,[::1]:x/kelim", "",
       "'redis+sentinel://127.0.0.1:1,[::1]:x/kelim': must be redis+sentinel://[USER@]HOST:PORT,.../NAME with ports from 1 to "
       "65535"},
      {"redis+sentinel://127.0.0.1:1/kelim", "",
       "redis+sentinel://127.0.0.1:1/kelim: no sentinel names a master 'kelim': Connection refused"},
      {old_url, "", old_url + ": the server's version is '6.2.14'; 7 or later is needed"},
  };
  for (const auto &[url, password, said] : rows) EXPECT_EQ(start_at(url, password), "mom_test: mom.url " + said + "\n");
  ::shutdown(old.socket, SHUT_RDWR);  // lets go of it should nobody have come
  const std::string nowhere = start_at("redis://no-such-host.invalid:6379");
  EXPECT_EQ(nowhere.find("mom_test: mom.url redis://no-such-host.invalid:6379: the host has no address: "), 0u) << nowhere;
  EXPECT_EQ(std::count(nowhere.begin(), nowhere.end(), '\n'), 1);
}

}  // namespace
}  // namespace mom_test
