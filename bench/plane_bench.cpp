// Measures the data plane's flow table by itself, in user space: flows added, flows replaced by newer ones and packets looked up,
// per second.
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
        hints(buckets.size() / DP_HINT_BUCKETS),
        flows(room + room / 32 + 1024),
        counts(flows.size()),
        before(flows.size()),
        cache(DP_CACHE_MAX_SETS) {
    tables = {&control,
              masks.data(),
              buckets.data(),
              hints.data(),
              flows.data(),
              counts.data(),
              before.data(),
              static_cast<std::uint32_t>(buckets.size()),
              static_cast<std::uint32_t>(flows.size()),
              1,
              cache.data()};
    tables.cache_sets = DP_CACHE_MAX_SETS;
  }
  dp_control control{};
  std::vector<dp_mask> masks;
  std::vector<dp_bucket> buckets;
  std::vector<dp_hint> hints;
  std::vector<dp_flow> flows;
  std::vector<dp_count> counts, before;
  std::vector<dp_cached> cache;
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

// The frames of planes.py: microflow N goes to flow N * 7919 % flows and has a source port of its own. With the last argument a
// flow of the lowest priority matches on a source port, so that every microflow differs in something that is matched on.
void look_up(benchmark::State &state) {
  const auto flows = static_cast<std::uint32_t>(state.range(0)), masks = static_cast<std::uint32_t>(state.range(1)),
             microflows = static_cast<std::uint32_t>(state.range(2));
  const auto memory = std::make_unique<Memory>(200'000);
  FlowTable table(memory->tables);
  dp_key key{}, mask{};
  key.eth_type = DP_TYPE_IPV4, mask.eth_type = 0xffff;
  for (std::uint32_t n = 0; n < flows; ++n) {
    const std::uint32_t at = n % masks;
    std::memset(mask.dst, 0xff, 4), std::memcpy(key.dst, &n, sizeof n);
    mask.eth_src[5] = static_cast<__u8>(0xff << at / 20), mask.src[0] = 0xff, mask.src[1] = 0, mask.src[2] = 0;
    for (std::uint32_t bit = 0; bit < at % 20; ++bit) mask.src[1 + bit / 8] |= static_cast<__u8>(0x80 >> bit % 8);
    dp_flow flow{};
    flow.rank = 201, flow.index = n + 1;
    if (table.add(key, mask, flow) == FlowTable::kNone) return state.SkipWithError("a flow found no room");
  }
  key.has = DP_HAS_IP | DP_HAS_L4;
  std::vector<dp_key> packets(microflows, key);
  for (std::uint32_t n = 0; n < microflows; ++n) {
    const auto to = static_cast<std::uint32_t>(std::uint64_t{n} * 7919 % flows);
    std::memcpy(packets[n].dst, &to, sizeof to), packets[n].l4_src = static_cast<__u16>(n);
  }
  if (state.range(3) != 0) {
    dp_key port{}, all{};
    port.l4_src = 65535, all.l4_src = 0xffff;
    dp_flow flow{};
    flow.rank = 1;
    table.add(port, all, flow);
  }
  table.tidy();
  std::size_t at = 0;
  for (auto _ : state) {
    if (dp_classify(&memory->tables, &memory->control, &packets[at]) == 0) return state.SkipWithError("a packet found no flow");
    if (++at == microflows) at = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(look_up)->ArgsProduct({{1000, 100'000}, {10, 100}, {1000, 50'000}, {0, 1}});

}  // namespace
