// Measures the cost of a request within the daemon, apart from the flow itself: intake, handler list, queue of outstanding
// requests.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "ssc_kelim/sdn/handler_run.h"
#include "ssc_kelim/sdn/ssc_kelim_intake.h"
#include "ssc_kelim/sdn/ssc_sdn_main_list.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

namespace {

using Clock = std::chrono::steady_clock;

enum Order { kInOrder, kReversed, kRandom };

std::vector<std::uint64_t> ids_in(std::size_t n, Order order) {
  std::vector<std::uint64_t> ids(n);
  std::iota(ids.begin(), ids.end(), 1);
  if (order == kReversed) std::ranges::reverse(ids);
  if (order == kRandom) std::ranges::shuffle(ids, std::mt19937(1));
  return ids;
}

void queue_flows(std::size_t n) {
  std::byte flow[southbound::kFlowOxm] = {};
  for (std::uint64_t id = 1; id <= n; ++id) {
    southbound::put(flow, southbound::kFlowIndex, id);
    ssc_sdn_msg_queue_alloc_flow_msg_node(flow, 0);
  }
}

template <typename Work>
double seconds(Work work) {
  const auto begin = Clock::now();
  work();
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// One result: marking its node and popping finished ones.
void BM_Result(benchmark::State &state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const auto ids = ids_in(n, static_cast<Order>(state.range(1)));
  ssc_sdn_msg_queue_reset_for_tests();
  for (auto _ : state) {
    queue_flows(n);
    state.SetIterationTime(seconds([&] {
      for (std::uint64_t id : ids) {
        ssc_sdn_msg_queue_update_msg_node(SDN_ADD_FLOW_MSG, id, 0);
        ssc_sdn_msg_queue_traverse_pop_msg_node();
      }
    }));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
  state.counters["per_result"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Result)->ArgsProduct({{600, 10'000, 100'000}, {kInOrder, kReversed, kRandom}})->UseManualTime();

// One outstanding add.
void BM_Push(benchmark::State &state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    state.SetIterationTime(seconds([&] { queue_flows(n); }));
    ssc_sdn_msg_queue_reset_for_tests();
  }
  state.counters["per_push"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Push)->Arg(600)->Arg(10'000)->Arg(100'000)->UseManualTime();

// A removal that finds nothing, as for every delete of an installed flow.
void BM_RemovalOfNothing(benchmark::State &state) {
  ssc_sdn_msg_queue_reset_for_tests();
  queue_flows(static_cast<std::size_t>(state.range(0)));
  std::uint64_t id = 1'000'000;
  for (auto _ : state) ssc_sdn_msg_queue_destory_flow_msg_node(id++);
  ssc_sdn_msg_queue_reset_for_tests();
}
BENCHMARK(BM_RemovalOfNothing)->Arg(600)->Arg(10'000)->Arg(100'000);

// The data-sync check after each of n replayed flows, none of them answered yet.
void BM_DataSyncCheck(benchmark::State &state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    ssc_sdn_msg_queue_reset_for_tests();
    queue_flows(n);
    for (auto *link = g_ssc_sdn_msg_queue.next; link != &g_ssc_sdn_msg_queue; link = link->next)
      static_cast<ssc_sdn_msg_queue_node *>(link)->is_ds = 1;
    state.SetIterationTime(seconds([&] {
      for (std::uint64_t id = 1; id <= n; ++id) {
        ssc_sdn_msg_queue_update_node_set_status(id);
        benchmark::DoNotOptimize(ssc_sdn_msg_queue_check_ds_end_by_type(0));
      }
    }));
  }
  ssc_sdn_msg_queue_reset_for_tests();
  state.counters["per_check"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_DataSyncCheck)->Arg(600)->Arg(10'000)->Arg(100'000)->UseManualTime();

// ---- handler list

void free_data(libss_pthrd_hdl *hdl) {
  ssc_sdn_free(hdl->data);
}

// Append and drain in one thread, `range` calls at a time.
void BM_AppendAndDrain(benchmark::State &state) {
  ssc_sdn_main_pthread_init();
  const auto n = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    for (std::size_t i = 0; i < n; ++i) ssc_sdn_main_pthrd_add_handler(free_data, ssc_sdn_malloc(96, __func__, __LINE__), 0);
    ssc_sdn_main_pthrd_handler();
  }
  state.counters["per_call"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_AppendAndDrain)->Arg(600)->Arg(100'000);

// The same with a thread that appends while this one drains continuously.
void BM_AppendAndDrainTwoThreads(benchmark::State &state) {
  ssc_sdn_main_pthread_init();
  const auto n = static_cast<std::size_t>(state.range(0));
  static std::atomic<std::size_t> handled;
  for (auto _ : state) {
    handled = 0;
    std::thread library([n] {
      for (std::size_t i = 0; i < n; ++i)
        ssc_sdn_main_pthrd_add_handler(
            [](libss_pthrd_hdl *hdl) {
              free_data(hdl);
              handled.fetch_add(1, std::memory_order_relaxed);
            },
            ssc_sdn_malloc(96, "library", 0), 0);
    });
    while (handled.load(std::memory_order_relaxed) < n) ssc_sdn_main_pthrd_handler();
    library.join();
  }
  state.counters["per_call"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_AppendAndDrainTwoThreads)->Arg(100'000)->UseRealTime();

// ---- intake

// The library thread's cost of a flow-mod: check, copy, count, time, append.
void BM_Intake(benchmark::State &state) {
  ssc_sdn_main_pthread_init();
  std::byte flow[120] = {};
  southbound::put_header(flow, southbound::kFlowMod, 4, sizeof flow, 0);
  constexpr int kBatch = 1000;
  for (auto _ : state) {
    state.SetIterationTime(seconds([&] {
      for (int i = 0; i < kBatch; ++i) ssc_sdn_add_flow_msg(0, flow, sizeof flow);
    }));
    libss_pthrd_tranv_node(ssc_sdn_mst,
                           [](libss_pthrd_hdl *hdl) { ssc_sdn_free(static_cast<ssc_sdn_flow_job *>(hdl->data)->msg); });
    libss_pthrd_clear_hdl(ssc_sdn_mst);
  }
  state.counters["per_intake"] =
      benchmark::Counter(kBatch, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Intake)->UseManualTime();

}  // namespace
