// The flows that the service knows: a slab of entries addressed by slot, and an open-addressing index by key over it. An entry
// costs 48 bytes plus 11 to 21 bytes of index. Entries never move; a slot is reused after its flow has been removed. Loop's
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "programmer/target.h"

namespace programmer {

enum class KnownFlowState : std::uint8_t {
  free,       // the slot is empty
  stored,     // read from the database: an answer or counters, not yet with their flow
  asked,      // the target has not answered
  installed,  // in the target
  refused,    // not in the target
};

struct KnownFlow {
  std::uint64_t index = 0;
  std::uint32_t vsd = 0;
  KnownFlowState state = KnownFlowState::free;
  std::uint8_t status = 0;    // of the last answer, a status_e
  bool settled : 1 = false;   // flow_sta holds exactly this answer to `uuid`; the same request needs none again
  bool seen : 1 = false;      // by the resynchronisation in progress
  bool counted : 1 = false;   // a flow_counter record exists
  std::uint64_t content = 0;  // hash of what the target was asked to install
  std::uint64_t uuid = 0;     // of the last request answered
  Counters sums;              // as last written

  FlowKey key() const { return {index, vsd}; }
};

class KnownFlows {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  // Announces find or insert of the key, so that the memory is there by then.
  void prefetch(const FlowKey &key) const { __builtin_prefetch(&buckets_[tag_of(key) & (buckets_.size() - 1)]); }
  std::uint32_t find(const FlowKey &key) const;
  // The key's slot; a new entry is in state stored.
  std::uint32_t insert(const FlowKey &key);
  void erase(std::uint32_t slot);

  KnownFlow &operator[](std::uint32_t slot) { return (*chunks_[slot / kChunk])[slot % kChunk]; }
  const KnownFlow &operator[](std::uint32_t slot) const { return (*chunks_[slot / kChunk])[slot % kChunk]; }
  std::uint32_t slots() const { return slots_; }  // upper bound of slots, including free ones
  std::uint32_t size() const { return size_; }

 private:
  static constexpr std::uint32_t kChunk = 1024;
  struct Bucket {
    std::uint32_t tag = 0;
    std::uint32_t slot = kNone;
  };

  static std::uint32_t tag_of(const FlowKey &key);
  std::size_t bucket_of(const FlowKey &key, std::uint32_t tag) const;
  std::uint32_t new_slot();
  void grow();

  std::vector<std::unique_ptr<std::array<KnownFlow, kChunk>>> chunks_;
  std::vector<Bucket> buckets_ = std::vector<Bucket>(64);
  std::uint32_t slots_ = 0;
  std::uint32_t size_ = 0;
  std::uint32_t first_free_ = kNone;  // linked through KnownFlow::index
};

}  // namespace programmer
