// The maps as the service sees them: arrays in memory that it shares with the program, or a test's memory. Includes classify.h
// and parse.h, with the definitions that they require in user space.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "programmer/linux/layout.h"

struct dp_tables {
  dp_control *control;
  dp_mask *masks;      // two lists of DP_MAX_MASKS
  dp_bucket *buckets;  // bucket_count of them, a power of two, at least 2
  dp_hint *hints;      // one for DP_HINT_BUCKETS buckets
  dp_flow *flows;
  dp_count *counts;  // `rows` rows of `places`
  dp_count *before;  // one more row: counts from before the flow was added
  std::uint32_t bucket_count;
  std::uint32_t places;
  std::uint32_t rows;                        // one for each processor, and the service's own as the last one
  dp_cached *cache = nullptr;                // of a reader in user space: cache_sets
  dp_step *steps = nullptr;                  // DP_MAX_STEPS
  std::uint32_t cache_sets = DP_CACHE_SETS;  // of each reader; a power of two
};

// Reading and increasing a counter that one thread, or one processor, writes while others read it.
inline __u64 dp_counted(const __u64 &counter) {
  return std::atomic_ref(const_cast<__u64 &>(counter)).load(std::memory_order_relaxed);
}
inline void dp_count_more(__u64 &counter, __u64 by) {
  std::atomic_ref(counter).store(counter + by, std::memory_order_relaxed);
}

struct dp_packet {
  const std::uint8_t *bytes;
  std::uint32_t length;
};

inline int dp_load(const dp_packet *packet, __u32 offset, void *to, __u32 length) {
  if (offset > packet->length || length > packet->length - offset) return -1;
  std::memcpy(to, packet->bytes + offset, length);
  return 0;
}

inline void dp_loop(__u32 count, long (*step)(__u32, void *), void *context) {
  for (__u32 i = 0; i < count && step(i, context) == 0; ++i) {
  }
}

inline const dp_mask *dp_mask_at(const dp_tables *tables, __u32 at) {
  return at < 2 * DP_MAX_MASKS ? &tables->masks[at] : nullptr;
}
inline const dp_bucket *dp_bucket_at(const dp_tables *tables, __u32 at) {
  return at < tables->bucket_count ? &tables->buckets[at] : nullptr;
}
inline const dp_hint *dp_hint_at(const dp_tables *tables, __u32 at) {
  return at * DP_HINT_BUCKETS < tables->bucket_count ? &tables->hints[at] : nullptr;
}
inline const dp_flow *dp_flow_at(const dp_tables *tables, __u32 at) {
  return at < tables->places ? &tables->flows[at] : nullptr;
}
inline dp_cached *dp_cached_at(const dp_tables *tables, __u32 set, __u32 sets) {
  return set < sets ? tables->cache + set : nullptr;
}

#include "programmer/linux/classify.h"  // requires all of the above
