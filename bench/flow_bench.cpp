// Measures the daemon's own work for a flow (parsing, cache, record, write) and the memory that a flow holds.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/base/loop.h"
#include "host/config/config.h"
#include "kelim/common/kelim_debug.h"
#include "libddm.h"
#include "libss_pthrd.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"
#include "ssc_kelim/sdn/handler_run.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_convert.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_parse.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_store.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"
#include "ssc_kelim/sdn/ssc_kelim_removal.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

namespace {
std::uint64_t g_mallocs;
}

// Counts the program's allocations; the allocator is the C library's own.
extern "C" void *__libc_malloc(std::size_t size);
extern "C" void *malloc(std::size_t size) {
  ++g_mallocs;
  return __libc_malloc(size);
}

namespace {

using namespace std::chrono_literals;

// in_port 1, eth_type IPv4, 10.1.2.0/24, tcp_dst 80; output to port 2. Without ingress port, ip_proto takes its place.
struct TypicalFlow {
  alignas(8) std::byte bytes[112] = {};
  explicit TypicalFlow(std::uint64_t index, bool in_port = true) {
    southbound::put_header(bytes, southbound::kFlowMod, 4, sizeof bytes, 0);
    southbound::put(bytes, southbound::kFlowIndex, index);
    southbound::put<std::uint16_t>(bytes, southbound::kFlowMatchLen, 40);
    std::size_t at = southbound::kFlowOxm;
    const auto field = [&](std::uint32_t header, std::uint64_t payload) {
      southbound::put(bytes, at, header);
      std::memcpy(bytes + at + 4, &payload, header & 0xff);
      at += southbound::oxm_slot(header);
    };
    if (in_port) field(0x80000004, 1);
    field(0x80000a02, 0x0800);
    if (!in_port) field(0x80001401, 6);
    field(0x80001908, 0xffffff000a010200);
    field(0x80001c02, 80);
    at += 4;
    southbound::put<std::int32_t>(bytes, at, 16);
    southbound::put<std::uint16_t>(bytes, at + 10, 16);
    southbound::put<std::uint32_t>(bytes, at + 12, 2);
  }
};

flow_info_node key_of(std::uint64_t index) {
  flow_info_node key{};
  key.flow_index = index;
  return key;
}

// A runtime with the embedded store, and the modules that a flow passes.
class World {
 public:
  World() {
    char name[] = "/tmp/kelim_flow_bench_XXXXXX";
    dir_ = ::mkdtemp(name);
    host::config_reset();
    for (const auto &[key, value] :
         std::initializer_list<std::pair<const char *, std::string>>{{"run_dir", dir_},
                                                                     {"log.target", "stderr"},
                                                                     {"control.enabled", "false"},
                                                                     {"programmer.embedded", "false"},
                                                                     {"ports", "1:p1:101:1,2:p2:102:1"},
                                                                     {"mom.high_water_writes", "4000000"},
                                                                     {"mom.high_water_bytes", "4000000000"}}) {
      const std::string error = host::config_set(key, value);
      if (!error.empty()) std::fprintf(stderr, "%s\n", error.c_str());
    }
    g_ssc_kelim_global = qx_global_init("flow_bench", nullptr);
    g_policy_error_zlog_category = qx_zlog_init("policy_error");
    libddm_init(g_ssc_kelim_global, "flow_bench");
    qx_mom_client_connect_sync(g_ssc_kelim_global, QX_MOM_UDP_DB);
    static bool connected;
    connected = false;
    qx_mom_client_connect(
        g_ssc_kelim_global, QX_MOM_UDP_DB,
        [](void *, const char *) {
          connected = true;
          return 0;
        },
        nullptr);
    host::run_until([] { return connected; }, 10s);
    ssc_kelim_flow_info_init();
    ssc_sdn_msg_queue_init();
  }
  ~World() {
    ssc_sdn_msg_queue_reset_for_tests();
    ssc_kelim_flow_db_reset_for_tests();
    qx_global_finish(std::exchange(g_ssc_kelim_global, nullptr));
    [[maybe_unused]] const int rv = std::system(("rm -rf " + dir_).c_str());
  }

  // The job that an intake hands to the handler.
  static libss_pthrd_hdl job_of(std::uint64_t index, bool in_port = true) {
    const TypicalFlow flow(index, in_port);
    auto *job = static_cast<ssc_sdn_flow_job *>(std::malloc(sizeof(ssc_sdn_flow_job)));
    job->len = sizeof flow.bytes;
    job->msg = std::malloc(sizeof flow.bytes);
    std::memcpy(job->msg, flow.bytes, sizeof flow.bytes);
    libss_pthrd_hdl hdl{};
    hdl.data = job;
    return hdl;
  }

 private:
  std::string dir_;
};

// ---- the whole handler

constexpr std::uint64_t kBatch = 1000;

// From the handler's start to the accepted write (data release included), with that many flows present.
void add_handler(benchmark::State &state, bool in_port) {
  World world;
  std::uint64_t index = 0;
  const auto resident = static_cast<std::uint64_t>(state.range(0));
  const auto add = [&](std::uint64_t flow) {
    libss_pthrd_hdl hdl = World::job_of(flow, in_port);
    ssc_sdn_add_flow_handler(&hdl);
  };
  while (index < resident) add(++index);
  for (std::uint64_t flow = 1; flow <= index; ++flow) ssc_sdn_msg_queue_update_msg_node(SDN_ADD_FLOW_MSG, flow, 0);
  ssc_sdn_msg_queue_traverse_pop_msg_node();
  std::vector<libss_pthrd_hdl> batch(kBatch);
  std::uint64_t mallocs = 0;
  while (state.KeepRunningBatch(kBatch)) {
    state.PauseTiming();
    const std::uint64_t first = index + 1;
    for (auto &hdl : batch) hdl = World::job_of(++index, in_port);
    const std::uint64_t before = g_mallocs;
    state.ResumeTiming();
    for (auto &hdl : batch) ssc_sdn_add_flow_handler(&hdl);
    state.PauseTiming();
    mallocs += g_mallocs - before;
    for (std::uint64_t flow = first; flow <= index; ++flow) {
      ssc_sdn_process_flow_install_result(0, flow, 0);
      ssc_sdn_del_flow_related_data(0, flow);
    }
    host::run_until([] { return false; }, 0ms);
    state.ResumeTiming();
  }
  state.counters["allocations/flow"] = static_cast<double>(mallocs) / static_cast<double>(state.iterations());
}
BENCHMARK_CAPTURE(add_handler, typical, true)->Arg(0)->Arg(600)->Arg(100000);
// The port check logs a line for every field of a flow that has no ingress port.
BENCHMARK_CAPTURE(add_handler, without_in_port, false)->Arg(0);

// ---- its parts

flow_info_node *cached(std::uint64_t index) {
  const TypicalFlow flow(index);
  const flow_info_node key = key_of(index);
  return ssc_kelim_add_flow_node(flow.bytes, sizeof flow.bytes, &key);
}

void parse(benchmark::State &state) {
  const TypicalFlow flow(1);
  flow_info_node node{};
  node.raw_len = sizeof flow.bytes;
  for (auto _ : state) {
    ssc_kelim_parse_flow_rule_para(flow.bytes, &node);
    ssc_kelim_parse_flow_action_para(flow.bytes, &node);
    benchmark::DoNotOptimize(node);
  }
}
BENCHMARK(parse);

void cache_add_and_delete(benchmark::State &state) {
  ssc_kelim_flow_info_init();
  for (auto _ : state) ssc_kelim_del_flow_node(cached(1));
  ssc_kelim_flow_db_reset_for_tests();
}
BENCHMARK(cache_add_and_delete);

// The record of a flow as the add handler builds it.
struct BuiltRecord {
  explicit BuiltRecord(const flow_info_node &node) {
    record.index = &key;
    record.n_ace = 1;
    record.flow_data.data = static_cast<std::uint8_t *>(node.raw);
    ssc_sdn_ace_field_act_convert(&record, &node);
  }
  ~BuiltRecord() { ssc_sdn_free_flow_members(&record); }
  BuiltRecord(const BuiltRecord &) = delete;
  BuiltRecord &operator=(const BuiltRecord &) = delete;

  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(1, 0);
  SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
};

// Building the record from the node, and its release.
void build_record(benchmark::State &state) {
  ssc_kelim_flow_info_init();
  const flow_info_node *node = cached(1);
  for (auto _ : state) {
    BuiltRecord built(*node);
    benchmark::DoNotOptimize(built.record);
  }
  ssc_kelim_flow_db_reset_for_tests();
}
BENCHMARK(build_record);

// Port check and accepted write of a built record, and the write alone.
void store_record(benchmark::State &state) {
  World world;
  flow_info_node *node = cached(1);
  BuiltRecord built(*node);
  const bool check = state.range(0) != 0;
  while (state.KeepRunningBatch(kBatch)) {
    for (std::uint64_t i = 0; i < kBatch; ++i) {
      built.key.flow_index = i + 1;
      if (check) {
        ssc_sdn_store_flow(&built.record, SSC_KELIM_OW_FLOW, "store_record");
      } else {
        qx_mom_setow(g_ssc_kelim_global, QX_MOM_UDP_DB, &built.record.base, 0, 0, SSC_KELIM_OW_FLOW);
      }
    }
    state.PauseTiming();
    host::run_until([] { return false; }, 0ms);
    state.ResumeTiming();
  }
}
BENCHMARK(store_record)->ArgName("port_check")->Arg(0)->Arg(1);

void build_and_pack(benchmark::State &state) {
  ssc_kelim_flow_info_init();
  flow_info_node *node = cached(1);
  std::uint8_t packed[1024];
  std::size_t bytes = 0;
  for (auto _ : state) {
    const BuiltRecord built(*node);
    benchmark::DoNotOptimize(bytes = s_policy_kelim__flow__pack(&built.record, packed));
  }
  state.counters["record bytes"] = static_cast<double>(bytes);
  ssc_kelim_flow_db_reset_for_tests();
}
BENCHMARK(build_and_pack);

// ---- lookups

void lookup(benchmark::State &state) {
  ssc_kelim_flow_info_init();
  const auto flows = static_cast<std::uint64_t>(state.range(0));
  for (std::uint64_t index = 1; index <= flows; ++index) cached(index);
  std::mt19937_64 random(1);
  std::vector<flow_info_key> keys(1 << 16);
  for (auto &key : keys) key = {random() % flows + 1, 0, 0};
  std::size_t at = 0;
  for (auto _ : state) benchmark::DoNotOptimize(ssc_kelim_find_flow_node(&keys[at++ % keys.size()]));
  ssc_kelim_flow_db_reset_for_tests();
}
BENCHMARK(lookup)->Arg(600)->Arg(100000)->Arg(1000000);

// ---- memory

std::size_t held() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

void bytes_a_flow(benchmark::State &state) {
  const auto flows = static_cast<std::uint64_t>(state.range(0));
  for (auto _ : state) {
    World world;
    std::size_t before = held();
    for (std::uint64_t index = 1; index <= flows; ++index) cached(index);
    state.counters["cache"] = static_cast<double>(held() - before) / static_cast<double>(flows);
    ssc_kelim_flow_db_reset_for_tests();
    ssc_kelim_flow_info_init();

    before = held();
    for (std::uint64_t index = 1; index <= flows; ++index) {
      libss_pthrd_hdl hdl = World::job_of(index);
      ssc_sdn_add_flow_handler(&hdl);
    }
    state.counters["outstanding"] = static_cast<double>(held() - before) / static_cast<double>(flows);
    for (std::uint64_t index = 1; index <= flows; ++index) ssc_sdn_msg_queue_update_msg_node(SDN_ADD_FLOW_MSG, index, 0);
    ssc_sdn_msg_queue_traverse_pop_msg_node();
    host::run_until([] { return false; }, 10ms);
    state.counters["installed"] = static_cast<double>(held() - before) / static_cast<double>(flows);
  }
}
BENCHMARK(bytes_a_flow)->Arg(600)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
