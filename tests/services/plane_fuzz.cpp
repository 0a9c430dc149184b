// Any bytes as a flow record, as a meter-mod, and as a packet that meets what they program: {length u16, record, length u16,
// meter-mod, packet}.
#include <memory>

#include "programmer/linux/flow_table.h"
#include "programmer/linux/keys.h"
#include "programmer/linux/meter.h"
#include "programmer/linux/meters.h"
#include "support/fuzz_runtime.h"

namespace {

using namespace programmer;
using namespace programmer::dataplane;

// The next part of the input, in memory of exactly its size.
std::vector<std::uint8_t> part(Bytes &input) {
  const std::size_t said = input.size() < 2 ? 0 : input[0] | input[1] << 8;
  input = input.subspan(std::min<std::size_t>(2, input.size()));
  const Bytes bytes = input.first(std::min(said, input.size()));
  input = input.subspan(bytes.size());
  return {bytes.begin(), bytes.end()};
}

constexpr std::uint32_t kPlaces = 64, kBuckets = 2;

struct Memory {
  dp_control control{};
  dp_mask masks[2 * DP_MAX_MASKS]{};
  dp_bucket buckets[kBuckets]{};
  dp_hint hints[1]{};
  dp_flow flows[kPlaces]{};
  dp_count counts[kPlaces]{}, before[kPlaces]{};
  dp_meter meters[DP_MAX_METERS]{};
  dp_cached cache[DP_CACHE_SETS]{};
  dp_tables tables{&control, masks, buckets, hints, flows, counts, before, kBuckets, kPlaces, 1, cache};

  // As new for another table. What is cached stays, and is of an earlier state.
  void clear() {
    control.current = (control.current | 1) + 1;
    std::memset(control.matched, 0, sizeof control.matched);
    for (dp_mask *list : {masks, masks + DP_MAX_MASKS}) std::fill_n(list, kPlaces + 1, dp_mask{});
    std::ranges::fill(buckets, dp_bucket{});
    hints[0] = {};
    meters[0] = {};
  }
};

// A packet that is just what the entry wants finds a flow.
void add(FlowTable &table, const Memory &memory, const FlowProgram &program, const Entry &entry) {
  const KeyAndMask match = key_of(entry);
  const auto *key = reinterpret_cast<const std::uint8_t *>(&match.key),
             *mask = reinterpret_cast<const std::uint8_t *>(&match.mask);
  for (std::size_t i = 0; i < sizeof(dp_key); ++i) require((key[i] & ~mask[i]) == 0);
  dp_flow flow{};
  flow.rank = program.rank;
  flow.actions = rewrites_of(entry.actions);
  if (table.add(match.key, match.mask, flow) != FlowTable::kNone)
    require(dp_classify(&memory.tables, &memory.control, &match.key) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  Bytes input(data, size);
  const auto record = part(input), meter_mod = part(input), frame = std::vector<std::uint8_t>(input.begin(), input.end());
  static const auto memory = std::make_unique<Memory>();
  memory->clear();
  FlowTable table(memory->tables);
  FlowProgram program;
  const char *fault = read_program(record, program);
  require(fault != nullptr || !program.entries.empty());
  for (const Entry &entry : program.entries)
    if (fault == nullptr) add(table, *memory, program, entry);

  dp_packet packet{frame.data(), static_cast<std::uint32_t>(frame.size())};
  dp_key key;
  dp_headers headers;
  dp_parse(&packet, 1, 0, &key, &headers);
  require(headers.l3 <= frame.size() && headers.l4 <= frame.size());
  require(dp_classify(&memory->tables, &memory->control, &key) <= kPlaces);

  Bands bands;
  Meters meters(memory->meters);
  if (read_bands(meter_mod, bands)) require(meters.set(1, bands) == (bands.bands.size() <= DP_MAX_BANDS));
  dp_meter_packet(&memory->meters[0], 1'000'000'000, 1, static_cast<__u32>(frame.size()));
  return 0;
}
