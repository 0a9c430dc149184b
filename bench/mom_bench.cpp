// Measures the object database's client: the cost of a write, a notification and a scan, and the memory that an object holds.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "host/base/loop.h"
#include "host/base/timer.h"
#include "host/config/config.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"

namespace {

using namespace std::chrono_literals;

constexpr qx_mom_type kFlow = {&s_policy_kelim__flow__descriptor, &s_policy_kelim__flow_key__descriptor};

std::uint64_t notified;
bool connected;

int count_notification(void *, const qx_obj *object) {
  notified += object->cmd != QX_MOM_CMD_DATA_FETCH;
  return 0;
}

class World {
 public:
  World() {
    host::config_reset();
    char name[] = "/tmp/kelim_bench_XXXXXX";
    dir_ = ::mkdtemp(name);
    const std::string url = std::getenv("KELIM_MOM_URL") ? std::getenv("KELIM_MOM_URL") : "embedded:";
    for (const auto &[key, value] :
         std::initializer_list<std::pair<const char *, std::string>>{{"run_dir", dir_},
                                                                     {"log.target", "stderr"},
                                                                     {"control.enabled", "false"},
                                                                     {"programmer.embedded", "false"},
                                                                     {"mom.high_water_writes", "4000000"},
                                                                     {"mom.high_water_bytes", "4000000000"},
                                                                     {"mom.url", url}}) {
      host::config_set(key, value);
    }
    global = qx_global_init("mom_bench", nullptr);
    connected = false;
    notified = 0;
    qx_mom_client_connect_sync(global, QX_MOM_UDP_DB);
    qx_mom_client_connect(
        global, QX_MOM_UDP_DB,
        [](void *, const char *) {
          connected = true;
          return 0;
        },
        nullptr);
    host::run_until([] { return connected; }, 10s);
  }
  ~World() {
    qx_global_finish(global);
    host::config_reset();
    [[maybe_unused]] const int rv = std::system(("rm -rf " + dir_).c_str());
  }

  void subscribe(std::uint32_t delivery) {
    const qx_mom_spec spec = {kFlow, delivery};
    qx_mom_subscribe(global, QX_MOM_UDP_DB, &spec, count_notification);
    host::run_until([] { return false; }, 5ms);
  }

  qx_global *global;

 private:
  std::string dir_;
};

// A typical flow: in_port, eth_type, ip_dst with mask, tcp_dst, one output, one access-control entry; about 290 bytes packed.
struct FlowRecord {
  std::array<std::uint8_t, 120> data{};
  PLibpub__Ipv4 ip = P_LIBPUB__IPV4__INIT, mask = P_LIBPUB__IPV4__INIT;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  SPolicyKelim__FlowField field = S_POLICY_KELIM__FLOW_FIELD__INIT;
  SPolicyKelim__FlowAction action = S_POLICY_KELIM__FLOW_ACTION__INIT;
  SPolicyKelim__FlowAceField ace_field = S_POLICY_KELIM__FLOW_ACE_FIELD__INIT;
  SPolicyKelim__FlowAceAction ace_action = S_POLICY_KELIM__FLOW_ACE_ACTION__INIT;
  SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT;
  SPolicyKelim__FlowAce *aces[1] = {&ace};
  SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;

  FlowRecord() {
    ip.data = 0x0a010203;
    mask.data = 0xffffff00;
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i);
    field.flow_field_bitmap = 0x4821;
    field.in_port_ifx = 1001;
    field.etype = 0x800;
    field.etype_mask = 0xffff;
    field.dst_ipv4 = &ip;
    field.dst_ipv4_mask = &mask;
    field.dport = 443;
    field.dport_mask = 0xffff;
    action.flow_action_bitmap = 1;
    action.output_ifx = 1002;
    ace_field.rule_bitmap = 0x504;
    ace_field.in_port_ifx = 1001;
    ace_field.etype = 0x800;
    ace_field.etype_mask = 0xffff;
    ace_field.dst_ipv4 = &ip;
    ace_field.dst_ipv4_mask = &mask;
    ace_field.dport = 443;
    ace_field.dport_mask = 0xffff;
    ace_action.action_bitmap = 0x10;
    ace_action.redirect_ifx = 1002;
    ace.sn = UINT64_MAX;
    ace.acl_app_type = const_cast<char *>("sdn_app");
    ace.ace_field = &ace_field;
    ace.ace_action = &ace_action;
    record.index = &key;
    record.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING;
    record.flow_data = {data.size(), data.data()};
    record.flow_field = &field;
    record.flow_action = &action;
    record.n_ace = 1;
    record.ace = aces;
    record.req_uuid = 123'456'789'012;
  }
  const ProtobufCMessage *message(std::uint64_t index) {
    key.flow_index = index;
    return reinterpret_cast<const ProtobufCMessage *>(&record);
  }
};

// The cost of protobuf-c alone, as a baseline for the others.
void BM_PackOnly(benchmark::State &state) {
  FlowRecord flow;
  std::uint8_t buffer[4096];
  std::size_t size = 0;
  for (auto _ : state) benchmark::DoNotOptimize(size = protobuf_c_message_pack(flow.message(1), buffer));
  state.counters["bytes"] = static_cast<double>(size);
}
BENCHMARK(BM_PackOnly);

// Skips, with the reason, measurements without meaning for a Redis server, where accepting a write is not executing it.
bool of_embedded_store(benchmark::State &state) {
  if (!std::getenv("KELIM_MOM_URL")) return true;
  state.SkipWithError("measures the embedded store");
  return false;
}

// Writing `n` new objects, ascending like the daemon's indexes, without subscribers.
void BM_SetNew(benchmark::State &state) {
  if (!of_embedded_store(state)) return;
  FlowRecord flow;
  const auto n = static_cast<std::uint64_t>(state.range(0));
  double held = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto world = std::make_unique<World>();
    const auto before = mallinfo2();
    state.ResumeTiming();
    for (std::uint64_t i = 1; i <= n; ++i) qx_mom_setow(world->global, QX_MOM_UDP_DB, flow.message(i), 0, 0, 1);
    state.PauseTiming();
    const auto after = mallinfo2();
    held = static_cast<double>(after.uordblks + after.hblkhd - before.uordblks - before.hblkhd) / static_cast<double>(n);
    world.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(n) * static_cast<std::int64_t>(state.iterations()));
  state.counters["bytes_per_object"] = held;
  state.counters["packed_bytes"] = static_cast<double>(protobuf_c_message_get_packed_size(flow.message(n)));
}
BENCHMARK(BM_SetNew)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

// Rewriting objects among 100,000 in scattered order.
void BM_Rewrite(benchmark::State &state) {
  if (!of_embedded_store(state)) return;
  World world;
  FlowRecord flow;
  constexpr std::uint64_t kCount = 100'000;
  for (std::uint64_t i = 1; i <= kCount; ++i) qx_mom_set(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0);
  std::uint64_t at = 0;
  for (auto _ : state) qx_mom_setow(world.global, QX_MOM_UDP_DB, flow.message((at += 7919) % kCount + 1), 0, 0, 1);
}
BENCHMARK(BM_Rewrite);

// Bursts of 10,000 writes until a subscriber has seen them all.
void BM_SetAndNotify(benchmark::State &state) {
  World world;
  world.subscribe(static_cast<std::uint32_t>(state.range(0)));
  FlowRecord flow;
  constexpr std::uint64_t kBurst = 10'000;
  for (auto _ : state) {
    notified = 0;
    for (std::uint64_t i = 1; i <= kBurst; ++i) qx_mom_setow(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0, 1);
    host::run_until([] { return notified == kBurst; }, 60s);
  }
  state.SetItemsProcessed(kBurst * static_cast<std::int64_t>(state.iterations()));
  state.SetLabel(state.range(0) == QX_MOM_PACKED ? "packed" : "decoded");
}
BENCHMARK(BM_SetAndNotify)->Arg(QX_MOM_DECODED)->Arg(QX_MOM_PACKED)->Unit(benchmark::kMillisecond)->UseRealTime();

// The server's own limit, as a baseline for BM_SetAndNotify: the same SET and PUBLISH from a bare pipelining client, 256
// outstanding, with one subscriber that reads the bytes. Only with KELIM_MOM_URL=redis+unix:...
void BM_BareSetAndPublish(benchmark::State &state) {
  const char *url = std::getenv("KELIM_MOM_URL");
  if (!url || std::string_view(url).substr(0, 11) != "redis+unix:") {
    state.SkipWithError("needs KELIM_MOM_URL=redis+unix:...");
    return;
  }
  using Context = std::unique_ptr<redisContext, decltype(&redisFree)>;
  const Context writer(redisConnectUnix(url + 11), redisFree), reader(redisConnectUnix(url + 11), redisFree);
  const auto take = [](const Context &context) {
    void *reply = nullptr;
    redisGetReply(context.get(), &reply);
    freeReplyObject(reply);
  };
  redisAppendCommand(reader.get(), "SUBSCRIBE bare");
  take(reader);
  FlowRecord flow;
  std::uint8_t value[4096];
  constexpr int kBurst = 10'000;
  for (auto _ : state) {
    std::thread subscriber([&] {
      for (int i = 0; i < kBurst; ++i) take(reader);
    });
    for (int i = 0; i < kBurst; ++i) {
      const std::size_t size = protobuf_c_message_pack(flow.message(static_cast<std::uint64_t>(i)), value);
      redisAppendCommand(writer.get(), "SET bare:%d:0 %b", i, value, size);
      redisAppendCommand(writer.get(), "PUBLISH bare %b", value, size);
      int done = 0;
      if (i % 16 == 15) redisBufferWrite(writer.get(), &done);
      if (i >= 256) take(writer), take(writer);
    }
    for (int i = 0; i < 512; ++i) take(writer);
    subscriber.join();
  }
  state.SetItemsProcessed(kBurst * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_BareSetAndPublish)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---- 100,000 objects of a type, and their effect on others

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// Beats every millisecond on the loop and notes the longest time between two beats, less the beat's own work.
class Heart {
 public:
  explicit Heart(std::function<void()> work) : work_(std::move(work)) { timer_.arm(1ms); }
  double longest_ms() const { return longest_; }

 private:
  void beat() {
    longest_ = std::max(longest_, ms_since(last_));
    work_();
    last_ = Clock::now();
    timer_.arm(1ms);
  }
  std::function<void()> work_;
  Clock::time_point last_ = Clock::now();
  double longest_ = 0;
  host::Timer timer_{[this] { beat(); }};
};

// Another client of the same Redis server, which pings it continuously: the longest answer shows how long the server was busy
// with one request.
class Bystander {
 public:
  Bystander() {
    if (const char *url = std::getenv("KELIM_MOM_URL")) thread_ = std::thread([this, url] { ask(url + 11); });
  }
  double stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    return longest_;
  }

 private:
  void ask(const char *path) {
    const std::unique_ptr<redisContext, decltype(&redisFree)> server(redisConnectUnix(path), redisFree);
    while (!done_) {
      const auto begin = Clock::now();
      freeReplyObject(redisCommand(server.get(), "PING"));
      longest_ = std::max(longest_, ms_since(begin));
      std::this_thread::sleep_for(200us);
    }
  }
  std::atomic<bool> done_ = false;
  double longest_ = 0;
  std::thread thread_;
};

// A number from the Redis server's INFO; 0 without a server.
double server_says(const char *name) {
  const char *url = std::getenv("KELIM_MOM_URL");
  if (!url) return 0;
  const std::unique_ptr<redisContext, decltype(&redisFree)> server(redisConnectUnix(url + 11), redisFree);
  auto *reply = static_cast<redisReply *>(redisCommand(server.get(), "INFO"));
  const std::string info = reply->str, line = "\n" + std::string(name) + ":";
  freeReplyObject(reply);
  return std::strtod(info.c_str() + info.find(line) + line.size(), nullptr);
}

double server_memory() {
  return server_says("used_memory");
}

double server_cpu_s() {
  return server_says("used_cpu_user") + server_says("used_cpu_sys");
}

// The number of flows found by one scan.
std::uint64_t scanned(World &world) {
  FlowRecord flow;
  std::uint64_t seen = 0;
  const auto count = [](const qx_obj *, void *number) {
    ++*static_cast<std::uint64_t *>(number);
    return 0;
  };
  qx_mom_scan_sync(world.global, QX_MOM_UDP_DB, flow.message(0), 0, count, &seen);
  return seen;
}

// Writes and notifies, scans in one pass, sets the expiry, cancels it and lets all expire; for each step the time, the longest
// pause of the loop outside the call, and the longest wait of another client of the server.
void BM_HundredThousand(benchmark::State &state) {
  World world;
  world.subscribe(QX_MOM_DECODED);
  FlowRecord flow;
  constexpr std::uint64_t kCount = 100'000;
  const double empty = server_memory();
  std::uint64_t written = 0;
  const auto phase = [&](const char *name, const std::function<void()> &beat, const std::function<bool()> &done) {
    Bystander bystander;
    const auto begin = Clock::now();
    Heart heart(beat);
    if (!host::run_until(done, 120s)) state.SkipWithError(name);
    const std::string prefix = std::string(name) + "_";
    state.counters[prefix + "ms"] = ms_since(begin);
    state.counters[prefix + "pause_ms"] = heart.longest_ms();
    state.counters[prefix + "server_ms"] = bystander.stop();
  };
  const auto idle = [] {};
  static unsigned confirmed;
  confirmed = 0;
  const auto confirm = [] {
    ++confirmed;
    return 0;
  };
  const auto write_some = [&] {
    for (int i = 0; i < 500 && written < kCount; ++i) qx_mom_setow(world.global, QX_MOM_UDP_DB, flow.message(++written), 0, 0, 1);
  };
  // A pipelined request, confirmed when the requests before it have been executed.
  const auto flush = [&] { qx_mom_pexpire(world.global, QX_MOM_UDP_DB, flow.message(kCount + 1), 0, 1, 0, confirm, nullptr); };
  for (auto _ : state) {
    phase("write", write_some, [] { return notified == kCount; });
    std::uint64_t seen = 0;
    phase(
        "scan",
        [&] {
          if (seen > 0) return;
          seen = scanned(world);
        },
        [&] { return seen == kCount; });
    qx_mom_pexpire(world.global, QX_MOM_UDP_DB, flow.message(0), 0, 600'000, 0, confirm, nullptr);
    phase("expire", idle, [] { return confirmed == 1; });
    qx_mom_del_expire(world.global, QX_MOM_UDP_DB, flow.message(0), 0, 0, nullptr);
    flush();
    phase("persist", idle, [] { return confirmed == 2; });
    state.counters["server_bytes_per_object"] = (server_memory() - empty) / kCount;
    notified = 0;
    qx_mom_pexpire(world.global, QX_MOM_UDP_DB, flow.message(0), 0, 1, 0, nullptr, nullptr);
    phase("expired", idle, [] { return notified == kCount; });
  }
}
BENCHMARK(BM_HundredThousand)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Adds and deletions in turn over a table of 600 objects, 200 of each per turn of the loop, until a subscriber has seen all. With
// a second type, each deletion removes a flow's answer and its counters, as the programming service does.
void BM_Churn(benchmark::State &state) {
  World world;
  world.subscribe(QX_MOM_PACKED);
  FlowRecord flow;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  SPolicyKelim__FlowSta sta = S_POLICY_KELIM__FLOW_STA__INIT;
  SPolicyKelim__FlowCounter counter = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  sta.index = counter.index = &key;
  constexpr std::uint64_t kTable = 600, kMods = 40'000, kTurn = 200;
  const bool answers = state.range(0) == 2;
  std::uint64_t next = 0;
  const auto add = [&] {
    qx_mom_setow(world.global, QX_MOM_UDP_DB, flow.message(++next), 0, 0, 1);
    key.flow_index = next;
    if (answers) qx_mom_set(world.global, QX_MOM_UDP_DB, &sta.base, 0, 0);
    if (answers) qx_mom_set(world.global, QX_MOM_UDP_DB, &counter.base, 0, 0);
  };
  const auto del = [&] {
    key.flow_index = next - kTable;
    qx_mom_del(world.global, QX_MOM_UDP_DB, flow.message(key.flow_index), 0, 0);
    if (answers) qx_mom_del(world.global, QX_MOM_UDP_DB, &sta.base, 0, 0);
    if (answers) qx_mom_del(world.global, QX_MOM_UDP_DB, &counter.base, 0, 0);
  };
  while (next < kTable) add();
  host::run_until([&] { return notified == kTable; }, 60s);
  double cpu = 0;
  for (auto _ : state) {
    notified = 0;
    std::uint64_t given = 0;
    const double before = server_cpu_s();
    Heart heart([&] {
      for (std::uint64_t n = 0; n < kTurn && given < kMods && given < notified + 8 * kTurn; n += 2, given += 2) add(), del();
    });
    if (!host::run_until([&] { return notified == kMods; }, 60s)) state.SkipWithError("notifications are missing");
    cpu += server_cpu_s() - before;
  }
  const auto mods = static_cast<double>(kMods * state.iterations());
  state.SetItemsProcessed(static_cast<std::int64_t>(mods));
  state.counters["server_us_per_mod"] = cpu * 1e6 / mods;
}
BENCHMARK(BM_Churn)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// 100,000 objects deleted one by one in one call of the loop, as delete-all does.
void BM_DeleteEach(benchmark::State &state) {
  World world;
  world.subscribe(QX_MOM_PACKED);
  FlowRecord flow;
  constexpr std::uint64_t kCount = 100'000;
  for (auto _ : state) {
    state.PauseTiming();
    notified = 0;
    for (std::uint64_t i = 1; i <= kCount; ++i) qx_mom_setow(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0, 1);
    host::run_until([] { return notified == kCount; }, 60s);
    notified = 0;
    state.ResumeTiming();
    for (std::uint64_t i = 1; i <= kCount; ++i) qx_mom_del(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0);
    if (!host::run_until([] { return notified == kCount; }, 60s)) state.SkipWithError("notifications are missing");
  }
}
BENCHMARK(BM_DeleteEach)->Unit(benchmark::kMillisecond)->UseRealTime();

// Processor time of this thread, so that other load on the machine does not count.
double cpu_ms() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

// With a million objects: the longest single call of each kind in processor time, and the longest pause of the loop outside them.
void BM_Million(benchmark::State &state) {
  World world;
  world.subscribe(QX_MOM_PACKED);
  FlowRecord flow;
  constexpr std::uint64_t kCount = 1'000'000;
  std::uint64_t at = 0;
  const auto phase = [&](const char *name, std::uint64_t calls, const auto &call, const std::function<bool()> &done) {
    double longest = 0;
    at = 0;
    const auto some = [&] {
      for (int i = 0; i < 500 && at < calls; ++i) {
        const double begin = cpu_ms();
        call(++at);
        longest = std::max(longest, cpu_ms() - begin);
      }
    };
    Heart heart(some);
    if (!host::run_until([&] { return at == calls && done(); }, 300s)) state.SkipWithError(name);
    state.counters[std::string(name) + "_call_ms"] = longest;
    state.counters[std::string(name) + "_pause_ms"] = heart.longest_ms();
    notified = 0;
  };
  const auto write = [&](std::uint64_t i) { qx_mom_setow(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0, 1); };
  const auto remove = [&](std::uint64_t i) { qx_mom_del(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0); };
  const auto expire_in = [&](std::uint32_t ms) {
    return [&world, &flow, ms](std::uint64_t) {
      qx_mom_pexpire(world.global, QX_MOM_UDP_DB, flow.message(0), 0, ms, 0, nullptr, nullptr);
    };
  };
  const auto keep = [&](std::uint64_t) { qx_mom_del_expire(world.global, QX_MOM_UDP_DB, flow.message(0), 0, 0, nullptr); };
  const auto drop = [&](std::uint64_t) { qx_mom_del_expire_ow(world.global, QX_MOM_UDP_DB, flow.message(0), 0, 0, nullptr, 1); };
  const auto at_once = [] { return true; };
  const auto all = [] { return notified == kCount; };
  for (auto _ : state) {
    phase("write", kCount, write, all);
    phase("expire", 1, expire_in(600'000), at_once);
    phase("keep", 1, keep, at_once);
    phase("rewrite", kCount, write, all);
    phase("delete", kCount, remove, all);
    phase("write", kCount, write, all);
    phase("expired", 1, expire_in(1), all);
    phase("drop", 1, drop, at_once);
  }
}
BENCHMARK(BM_Million)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Scan(benchmark::State &state) {
  World world;
  FlowRecord flow;
  const auto n = static_cast<std::uint64_t>(state.range(0));
  for (std::uint64_t i = 1; i <= n; ++i) qx_mom_set(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0);
  for (auto _ : state) {
    if (scanned(world) != n) state.SkipWithError("objects are missing");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(n) * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_Scan)->Arg(100'000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Setting and cancelling the expiry of a whole type.
void BM_ExpireType(benchmark::State &state) {
  if (!of_embedded_store(state)) return;
  World world;
  FlowRecord flow;
  for (std::uint64_t i = 1; i <= 100'000; ++i) qx_mom_set(world.global, QX_MOM_UDP_DB, flow.message(i), 0, 0);
  for (auto _ : state) {
    qx_mom_pexpire(world.global, QX_MOM_UDP_DB, flow.message(0), 0, 60'000, 0, nullptr, nullptr);
    qx_mom_del_expire(world.global, QX_MOM_UDP_DB, flow.message(0), 0, 0, nullptr);
  }
}
BENCHMARK(BM_ExpireType)->Unit(benchmark::kMicrosecond);

}  // namespace
