// Measures the cost of a flow-mod in the OpenFlow agent (reading it from the wire, desired state, southbound message and
// hand-over), also over a TCP connection. Callbacks stand in for the daemon and do the work of its intakes: two allocations, a
// copy and a list append.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "host/base/loop.h"
#include "host/config/config.h"
#include "host/of_ss/desired/flow_mod.h"
#include "host/of_ss/desired/flows.h"
#include "host/of_ss/testing.h"
#include "of_ss.h"
#include "qx_mom.h"
#include "qx_runtime.h"
#include "southbound.h"

namespace {

using namespace host::of_ss;

// in_port 1, eth_type 0x0800, ip_proto 6, ipv4_dst 10.x.y.z/31, tcp_dst 80; output 2.
struct WireFlow {
  std::uint8_t bytes[120] = {4, 14, 0, 120};
  explicit WireFlow(std::uint32_t n) {
    constexpr std::uint8_t kMatch[48] = {0,    1, 0,    41, 0x80, 0, 0,    4, 0,    0,    0,    1,     // match, in_port
                                         0x80, 0, 0x0a, 2,  8,    0, 0x80, 0, 0x14, 1,    6,           // eth_type, ip_proto
                                         0x80, 0, 0x19, 8,  10,   0, 0,    0, 0xff, 0xff, 0xff, 0xfe,  // ipv4_dst
                                         0x80, 0, 0x1c, 2,  0,    80};                                 // tcp_dst, padding
    constexpr std::uint8_t kApply[24] = {0, 4, 0, 24, 0, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0, 2, 0xff, 0xff};
    put32(4, n);
    bytes[31] = 100;
    memset(bytes + 32, 0xff, 12);
    memcpy(bytes + 48, kMatch, sizeof kMatch);
    memcpy(bytes + 96, kApply, sizeof kApply);
    put32(48 + 27, 0x0a000000u + 2 * n);
  }
  void put32(std::size_t at, std::uint32_t v) {
    v = htonl(v);
    memcpy(bytes + at, &v, 4);
  }
  Bytes span() const { return std::as_bytes(std::span(bytes)).first(bytes[3]); }
};

WireFlow strict_delete(std::uint32_t n) {
  WireFlow wire(n);
  wire.bytes[25] = 4, wire.bytes[3] = 96;
  return wire;
}

constexpr std::uint32_t kPorts[] = {1, 2, 3};

// The work of the daemon's intake for a message.
std::mutex g_list_mutex;
std::vector<void *> g_list;
int take(void *message) {
  const auto length = southbound::get<std::uint16_t>(message, southbound::kLen);
  void **job = static_cast<void **>(malloc(16));
  job[1] = malloc(length);
  memcpy(job[1], message, length);
  const std::lock_guard lock(g_list_mutex);
  g_list.push_back(job);
  return 0;
}
void drain() {
  const std::lock_guard lock(g_list_mutex);
  for (void *job : g_list) {
    free(static_cast<void **>(job)[1]);
    free(job);
  }
  g_list.clear();
}
int answer_barrier(void *message) {
  southbound::put(message, southbound::kType, std::uint16_t{southbound::kBarrierReply});
  of_ss_send_msg(message, southbound::kBarrierLen);
  return 0;
}
int nothing(void *) {
  return 0;
}
void no_signal() {}

struct Quiet final : FlowEvents {
  void flow_failed(const Origin &, const Error &, Bytes) override {}
  void flow_removed(const FlowEntry &, RemovedReason) override {}
  void flow_changed(const FlowEntry &, const FlowChange &) override {}
  void barrier_answered(const Origin &) override {}
  void overdue(std::vector<std::uint64_t>) override {}
};

Callbacks player() {
  return {take,    nothing,   nothing, nothing, no_signal, nothing, nothing, nothing,
          nothing, no_signal, nothing, nothing, nothing,   nothing, nothing, no_signal};
}

void decode(benchmark::State &state) {
  FlowMod mod;
  std::uint32_t n = 0;
  for (auto _ : state) {
    const WireFlow flow(++n);
    const Verdict verdict = decode_flow_mod(flow.span(), {kPorts}, mod);
    if (verdict.refused()) state.SkipWithError(verdict.why);
    benchmark::DoNotOptimize(mod);
  }
}
BENCHMARK(decode);

// Reading, table, in-flight log, hand-over; the table grows to range(0) flows and starts over.
void decode_and_add(benchmark::State &state) {
  const Callbacks callbacks = player();
  Quiet quiet;
  Trace trace;
  std::unique_ptr<Flows> flows;
  FlowMod mod;
  std::uint32_t n = 0;
  for (auto _ : state) {
    if (n % state.range(0) == 0) {
      state.PauseTiming();
      drain();
      flows = std::make_unique<Flows>(callbacks, quiet, trace, FlowLimits{});
      state.ResumeTiming();
    }
    const WireFlow flow(++n % static_cast<std::uint32_t>(state.range(0)));
    if (decode_flow_mod(flow.span(), {kPorts}, mod).refused()) state.SkipWithError("refused");
    flows->apply(mod, {1, n}, flow.span(), n);
  }
  drain();
}
BENCHMARK(decode_and_add)->Arg(600)->Arg(10'000)->Arg(100'000);

// Processor time of this thread, so that other load on the machine does not count.
double cpu_now_s() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Answers the agent's own barrier as the daemon would, so that every flow counts as decided.
void settle(Flows &flows) {
  std::byte reply[southbound::kBarrierLen] = {};
  southbound::put_header(reply, southbound::kBarrierReply, 4, sizeof reply, 0);
  southbound::put(reply, southbound::kBarrierConnId, kOwnBarrier);
  southbound::put(reply, southbound::kBarrierXid, flows.fence(0));
  flows.barrier_reply(reply, 0);
  drain();
}

// The longest single add while a table grows to range(0) flows.
void longest_add(benchmark::State &state) {
  const Callbacks callbacks = player();
  Quiet quiet;
  FlowMod mod;
  double longest = 0;
  for (auto _ : state) {
    Trace trace;
    Flows flows(callbacks, quiet, trace, FlowLimits{});
    for (std::uint32_t n = 0; n < state.range(0); ++n) {
      const WireFlow flow(n);
      decode_flow_mod(flow.span(), {kPorts}, mod);
      const double start = cpu_now_s();
      flows.apply(mod, {1, n}, flow.span(), n);
      longest = std::max(longest, cpu_now_s() - start);
      if (n % 1024 == 0) settle(flows);
    }
    drain();
  }
  state.counters["longest_ms"] = longest * 1000;
}
BENCHMARK(longest_add)->Arg(1'000'000)->Iterations(1)->Unit(benchmark::kMillisecond);

// A table of range(0) flows with distinct cookies, of which the first thousand have distinct outputs and meters; a thousand
// requests, each about one of these. "us" is the time of one request.
enum About : int { kByMatch, kByWiderMatch, kByCookie, kByPort, kByMeter, kOverlap };
struct Scene {
  static constexpr std::uint32_t kSpecial = 1000, kFirstPort = 10;
  Callbacks callbacks = player();
  Quiet quiet;
  Trace trace;
  Flows flows{callbacks, quiet, trace, FlowLimits{}};
  FlowMod mod;
  std::vector<std::uint32_t> ports;

  explicit Scene(std::uint32_t size) {
    for (std::uint32_t port = 1; port < kFirstPort + kSpecial; ++port) ports.push_back(port);
    for (std::uint32_t n = 0; n < size; ++n) add(n);
  }
  void read(const WireFlow &wire) {
    if (decode_flow_mod(wire.span(), {ports}, mod).refused()) abort();
  }
  void add(std::uint32_t n, bool check_overlap = false) {
    WireFlow wire(n);
    wire.put32(12, n);
    wire.bytes[45] = check_overlap ? 2 : 0;
    if (n < kSpecial) wire.put32(108, kFirstPort + n);
    read(wire);
    if (n < kSpecial) southbound::put(mod.message, southbound::kFlowMeterId, n + 1);
    if (flows.apply(mod, {1, n}, wire.span(), n).refused()) abort();
    if (n % 1024 == 0) settle(flows);
  }
  void remove(std::uint32_t n, About about) {
    WireFlow wire(n);
    wire.bytes[25] = 3, wire.bytes[3] = 96;
    if (about != kByMatch) wire.bytes[48 + 3] = 4;
    if (about == kByWiderMatch) wire.bytes[48 + 3] = 35;  // without tcp_dst
    if (about == kByCookie) wire.put32(12, n), memset(wire.bytes + 16, 0xff, 8);
    if (about == kByPort) wire.put32(36, kFirstPort + n);
    if (about == kByMeter) return flows.remove_users_of_meter(n + 1);
    if (about == kByCookie || about == kByPort) wire.bytes[3] = 56;
    if (about == kByWiderMatch) wire.bytes[3] = 88, memset(wire.bytes + 48 + 35, 0, 5);
    read(wire);
    flows.apply(mod, {1, n}, wire.span(), n);
  }
};

void one_of_many(benchmark::State &state) {
  const auto about = static_cast<About>(state.range(0));
  Scene scene(static_cast<std::uint32_t>(state.range(1)));
  double spent = 0;
  for (auto _ : state) {
    const double start = cpu_now_s();
    for (std::uint32_t n = 0; n < Scene::kSpecial; ++n)
      about == kOverlap      ? scene.flows.apply((scene.read(strict_delete(n)), scene.mod), {}, {}, n),
          scene.add(n, true) : scene.remove(n, about);
    state.SetIterationTime(cpu_now_s() - start);
    spent += cpu_now_s() - start;
    drain();
    if (scene.flows.table().flows() != static_cast<std::size_t>(state.range(1)) - (about == kOverlap ? 0 : Scene::kSpecial))
      state.SkipWithError("a request did not match exactly one flow");
    if (about != kOverlap)
      for (std::uint32_t n = 0; n < Scene::kSpecial; ++n) scene.add(n);
  }
  constexpr const char *kNames[] = {"by match", "by wider match", "by cookie", "by output", "by meter", "check overlap"};
  state.SetLabel(kNames[about]);
  state.counters["us"] = spent / static_cast<double>(state.iterations()) / Scene::kSpecial * 1e6;
  drain();
}
BENCHMARK(one_of_many)
    ->ArgsProduct({{kByMatch, kByWiderMatch, kByCookie, kByPort, kByMeter, kOverlap}, {1'000, 100'000}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

int connect_to(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) abort();
  return fd;
}

void await_barrier(int fd, std::uint32_t xid) {
  const std::uint8_t request[] = {
      4, 20, 0, 8, std::uint8_t(xid >> 24), std::uint8_t(xid >> 16), std::uint8_t(xid >> 8), std::uint8_t(xid)};
  if (write(fd, request, sizeof request) != sizeof request) abort();
  std::uint8_t header[8];
  do {
    if (recv(fd, header, 8, MSG_WAITALL) != 8) abort();
    std::vector<std::uint8_t> body(header[2] * 256 + header[3] - 8);
    if (!body.empty() && recv(fd, body.data(), body.size(), MSG_WAITALL) != static_cast<ssize_t>(body.size())) abort();
  } while (header[1] != 21 || memcmp(header + 4, request + 4, 4) != 0);
}

double thread_cpu_s(const char *name) {
  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
    char line[512] = "";
    FILE *comm = fopen((task.path() / "comm").c_str(), "r");
    if (comm && fgets(line, sizeof line, comm)) line[strcspn(line, "\n")] = 0;
    if (comm) fclose(comm);
    if (strcmp(line, name) != 0) continue;
    FILE *stat = fopen((task.path() / "schedstat").c_str(), "r");
    unsigned long long ns = 0;
    if (stat && fscanf(stat, "%llu", &ns) != 1) ns = 0;
    if (stat) fclose(stat);
    return static_cast<double>(ns) / 1e9;
  }
  return 0;
}

// A burst of range(0) adds and a barrier over TCP, then a delete of everything. "cpu_us" is the openflow thread's time per
// flow-mod.
void socket_burst(benchmark::State &state) {
  char dir[] = "/tmp/kelim-bench-XXXXXX";
  host::config_set("run_dir", mkdtemp(dir));
  for (const auto &[key, value] :
       std::initializer_list<std::pair<const char *, const char *>>{{"openflow.listen", "ptcp:127.0.0.1:0"},
                                                                    {"openflow.capacity", "1000000"},
                                                                    {"ports", "1:p1,2:p2,3:p3"},
                                                                    {"programmer.embedded", "false"},
                                                                    {"log.level", "off"},
                                                                    {"log.target", "stderr"}})
    if (const std::string error = host::config_set(key, value); !error.empty()) {
      fprintf(stderr, "%s\n", error.c_str());
      abort();
    }
  qx_global *global = qx_global_init("of_bench", nullptr);
  qx_mom_client_connect_sync(global, QX_MOM_UDP_DB);
  ss_of_init(global);
  of_ss_regiter_flow_mod(take), of_ss_regiter_send_openmsg(nothing), of_ss_regiter_mgmt_ifx(nothing),
      of_ss_regiter_send_closemsg(nothing);
  of_ss_regiter_del_all_flow(no_signal), of_ss_regiter_start(nothing), of_ss_regiter_end(nothing),
      of_ss_regiter_flow_statistic_reply(nothing);
  of_ss_regiter_meter_mod(nothing), of_ss_socket_connected(no_signal), of_ss_flowcount_config(nothing), of_ss_pkt_start(nothing);
  of_ss_pkt_end(nothing), of_ss_con_info(nothing), ofss_barrier_request(answer_barrier), of_ss_regiter_del_all(no_signal);
  host::run_until([] { return listening_port() != 0; }, std::chrono::seconds(5));
  const int fd = connect_to(listening_port());
  const std::uint8_t hello[] = {4, 0, 0, 8, 0, 0, 0, 1};
  if (write(fd, hello, sizeof hello) != sizeof hello) abort();
  await_barrier(fd, 7);

  std::vector<std::uint8_t> burst;
  for (std::uint32_t n = 0; n < state.range(0); ++n) {
    const WireFlow flow(n);
    burst.insert(burst.end(), flow.bytes, flow.bytes + sizeof flow.bytes);
  }
  WireFlow wipe(0);
  const std::uint8_t empty_match[] = {0, 1, 0, 4, 0, 0, 0, 0};
  wipe.bytes[3] = 56, wipe.bytes[24] = 255, wipe.bytes[25] = 3;
  memcpy(wipe.bytes + 48, empty_match, 8);

  double cpu = 0;
  for (auto _ : state) {
    const double before = thread_cpu_s("openflow");
    for (std::size_t at = 0; at < burst.size();) {
      const ssize_t n = write(fd, burst.data() + at, burst.size() - at);
      if (n <= 0) abort();
      at += static_cast<std::size_t>(n);
    }
    await_barrier(fd, 8);
    cpu += thread_cpu_s("openflow") - before;
    state.PauseTiming();
    if (write(fd, wipe.bytes, 56) != 56) abort();
    await_barrier(fd, 9);
    drain();
    state.ResumeTiming();
  }
  const double flows = static_cast<double>(state.iterations() * state.range(0));
  state.counters["adds/s"] = benchmark::Counter(flows, benchmark::Counter::kIsRate);
  state.counters["cpu_us"] = cpu * 1e6 / flows;
  close(fd);
  qx_global_finish(global);
  of_ss_reset_for_tests();
  host::config_reset();
  std::filesystem::remove_all(dir);
}
BENCHMARK(socket_burst)->Arg(10'000)->Arg(100'000)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
