// The table of the data plane in plain memory: against a linear list, and with a reader beside the writer; the parsing of
// packets.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <thread>

#include "programmer/linux/flow_table.h"
#include "support/flow_bytes.h"

namespace {

using namespace programmer::dataplane;

struct Memory {
  Memory(std::uint32_t places, std::uint32_t bucket_count)
      : masks(2 * DP_MAX_MASKS), buckets(bucket_count), flows(places), counts(places) {
    tables = {&control, masks.data(), buckets.data(), flows.data(), counts.data(), bucket_count, places, 1};
  }
  // The index of the flow that decides; 0: none.
  std::uint64_t find(const dp_key &key) const {
    const std::uint32_t place = dp_classify(&tables, &control, &key);
    return place == 0 ? 0 : flows[place - 1].index;
  }
  dp_control control{};
  std::vector<dp_mask> masks;
  std::vector<dp_bucket> buckets;
  std::vector<dp_flow> flows;
  std::vector<dp_count> counts;
  dp_tables tables;
};

struct Model {
  FlowTable::Place place;
  dp_key key, mask;
  std::uint32_t rank;
  std::uint64_t index;

  bool matches(const dp_key &packet) const {
    const auto *p = reinterpret_cast<const unsigned char *>(&packet), *k = reinterpret_cast<const unsigned char *>(&key),
               *m = reinterpret_cast<const unsigned char *>(&mask);
    for (std::size_t i = 0; i < sizeof key; ++i)
      if (((p[i] ^ k[i]) & m[i]) != 0) return false;
    return true;
  }
};

dp_flow flow_of(std::uint32_t rank, std::uint64_t index) {
  dp_flow flow{};
  flow.rank = rank;
  flow.index = index;
  return flow;
}

std::uint64_t find(const std::vector<Model> &flows, const dp_key &packet) {
  const Model *best = nullptr;
  for (const Model &flow : flows)
    if (flow.matches(packet) && (!best || std::pair(flow.rank, flow.index) > std::pair(best->rank, best->index))) best = &flow;
  return best ? best->index : 0;
}

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  std::uint32_t below(std::uint32_t end) { return static_cast<std::uint32_t>(engine_() % end); }
  dp_key key() {
    dp_key key{};
    key.in_port = below(3);
    key.eth_type = below(2) ? DP_TYPE_IPV4 : DP_TYPE_IPV6;
    key.eth_dst[5] = static_cast<__u8>(below(3));
    key.l4_dst = static_cast<__u16>(below(4));
    key.dst[3] = static_cast<__u8>(below(8));
    return key;
  }
  dp_key mask() {
    dp_key mask{};
    mask.in_port = below(2) ? ~0U : 0;
    mask.eth_type = below(4) ? 0xffff : 0;
    mask.eth_dst[5] = below(2) ? 0xff : 0;
    mask.l4_dst = below(2) ? 0xffff : 0;
    mask.dst[3] = static_cast<__u8>(0xff << below(9));
    mask.src[0] = static_cast<__u8>(below(2) ? 0 : below(200));  // as many masks as there is room for, and more
    return mask;
  }

 private:
  std::mt19937 engine_;
};

void rest(FlowTable &table) {
  if (table.begin_grace()) table.end_grace();
}

// Buckets are so few that they overflow, and places too; masks come and go.
void run_steps(unsigned seed, std::uint32_t places, std::uint32_t buckets, int steps) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  Memory memory(places, buckets);
  FlowTable table(memory.tables);
  std::vector<Model> model;
  std::uint64_t index = 0;
  for (int step = 0; step < steps; ++step) {
    const std::uint32_t choice = random.below(100);
    if (choice < (step / 2000 % 2 != 0 ? 20U : 40U)) {
      Model flow{FlowTable::kNone, random.key(), random.mask(), 1 + random.below(20), ++index};
      flow.place = table.add(flow.key, flow.mask, flow_of(flow.rank, index));
      if (flow.place != FlowTable::kNone)
        model.push_back(flow);
      else if (table.lack() == FlowTable::Lack::kGrace)
        rest(table);
    } else if (choice < 65 && !model.empty()) {
      const std::size_t which = random.below(static_cast<std::uint32_t>(model.size()));
      table.remove(model[which].place);
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(which));
    } else if (choice == 65) {
      table.tidy();
      rest(table);
    }
    const dp_key packet = random.key();
    ASSERT_EQ(memory.find(packet), find(model, packet)) << "step " << step;
    ASSERT_EQ(table.size(), model.size());
  }
  for (const Model &flow : model) table.remove(flow.place);
  EXPECT_EQ(table.size(), 0U);
  for (const dp_bucket &bucket : memory.buckets)
    for (const __u64 entry : bucket.entries) ASSERT_EQ(entry, 0U);
}

TEST(PlaneTable, FindsWhatALinearListFinds) {
  const unsigned seed = std::random_device{}();
  for (unsigned i = 0; i < 8; ++i) run_steps(seed + i, 40U << i, 4U << i, 20'000);
}

// A flow that is replaced all the time under a reader, beside others that come and go: found each time.
TEST(PlaneTable, AReplacedFlowIsNeverMissing) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the program in the kernel reads without locks on purpose";
#endif
  Memory memory(64, 16);
  FlowTable table(memory.tables);
  dp_key key{}, mask{};
  key.in_port = 7;
  mask.in_port = ~0U;
  FlowTable::Place present = table.add(key, mask, flow_of(3, 1));
  std::atomic<bool> end = false;
  std::atomic<std::uint64_t> turns = 0, misses = 0;
  std::thread reader([&] {
    for (; !end; ++turns) misses += dp_classify(&memory.tables, &memory.control, &key) == 0;
  });
  for (std::uint64_t index = 2; index < 20'000; ++index) {
    const FlowTable::Place next = table.add(key, mask, flow_of(3, index));
    ASSERT_NE(next, FlowTable::kNone);
    table.remove(present);
    present = next;
    dp_key other = key;
    other.in_port = static_cast<__u32>(index << 8);
    table.remove(table.add(other, mask, flow_of(3, index)));
    table.tidy();
    if (index % 16 != 0 || !table.begin_grace()) continue;
    for (const std::uint64_t before = turns; turns < before + 2;) std::this_thread::yield();
    table.end_grace();
  }
  end = true;
  reader.join();
  EXPECT_EQ(misses, 0U) << "of " << turns;
}

}  // namespace
