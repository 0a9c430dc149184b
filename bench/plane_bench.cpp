// Measures the data plane's flow table by itself: flows added, and flows replaced by newer ones, per second.
#include <benchmark/benchmark.h>

#include <bit>
#include <memory>
#include <vector>

#include "programmer/linux/flow_table.h"

namespace {

using namespace programmer::dataplane;

struct Memory {
  explicit Memory(std::uint32_t room)
      : masks(2 * DP_MAX_MASKS),
        buckets(std::bit_ceil(room / 2)),
        flows(room + room / 32 + 1024),
        counts(flows.size()),
        before(flows.size()) {
    tables = {&control,
              masks.data(),
              buckets.data(),
              flows.data(),
              counts.data(),
              before.data(),
              static_cast<std::uint32_t>(buckets.size()),
              static_cast<std::uint32_t>(flows.size()),
              1};
  }
  dp_control control{};
  std::vector<dp_mask> masks;
  std::vector<dp_bucket> buckets;
  std::vector<dp_flow> flows;
  std::vector<dp_count> counts, before;
  dp_tables tables{};
};

// Flow `number` under one of `masks` masks.
FlowTable::Place add(FlowTable &table, std::uint32_t number, std::uint32_t masks, std::uint64_t index) {
  dp_key key{}, mask{};
  key.eth_type = DP_TYPE_IPV4, mask.eth_type = 0xffff;
  std::memcpy(key.dst, &number, sizeof number), std::memset(mask.dst, 0xff, sizeof number);
  mask.l4_src = static_cast<__u16>(number % masks);
  dp_flow flow{};
  flow.rank = 201, flow.index = index, flow.actions.output = DP_PORT;
  return table.add(key, mask, flow);
}

void put_in_force(benchmark::State &state) {
  const auto flows = static_cast<std::uint32_t>(state.range(0)), masks = static_cast<std::uint32_t>(state.range(1));
  for (auto _ : state) {
    state.PauseTiming();
    const auto memory = std::make_unique<Memory>(flows);
    FlowTable table(memory->tables);
    state.ResumeTiming();
    for (std::uint32_t n = 0; n < flows; ++n)
      if (add(table, n, masks, n + 1) == FlowTable::kNone) return state.SkipWithError("a flow found no room");
    state.PauseTiming();
    if (table.size() != flows) return state.SkipWithError("the table holds another number of flows");
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * flows);
}
BENCHMARK(put_in_force)
    ->Args({1000, 10})
    ->Args({100'000, 1})
    ->Args({100'000, 100})
    ->Args({1'000'000, 10})
    ->Unit(benchmark::kMillisecond);

void replace(benchmark::State &state) {
  constexpr std::uint32_t kFlows = 100'000;
  const auto memory = std::make_unique<Memory>(2 * kFlows);
  FlowTable table(memory->tables);
  std::vector<FlowTable::Place> places;
  for (std::uint32_t n = 0; n < kFlows; ++n) places.push_back(add(table, n, 10, n + 1));
  std::uint64_t index = kFlows;
  for (auto _ : state) {
    const auto n = static_cast<std::uint32_t>(++index % kFlows);
    const FlowTable::Place now = add(table, n, 10, index);
    if (now == FlowTable::kNone) return state.SkipWithError("a flow found no room");
    table.remove(places[n]);
    places[n] = now;
    if (n % 1024 == 0 && table.begin_grace()) table.end_grace();  // nobody reads
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(replace);

}  // namespace
