#include "programmer/known_flows.h"

namespace programmer {

std::uint32_t KnownFlows::tag_of(const FlowKey &key) {
  std::uint64_t x = (key.index ^ (std::uint64_t{key.vsd} << 40)) * 0x9e3779b97f4a7c15u;
  x = (x ^ (x >> 32)) * 0xd6e8feb86659fd93u;
  return static_cast<std::uint32_t>(x >> 32);
}

// The bucket of the key, or the empty bucket where it belongs.
std::size_t KnownFlows::bucket_of(const FlowKey &key, std::uint32_t tag) const {
  const std::size_t mask = buckets_.size() - 1;
  for (std::size_t i = tag & mask;; i = (i + 1) & mask) {
    const Bucket &bucket = buckets_[i];
    if (bucket.slot == kNone || (bucket.tag == tag && (*this)[bucket.slot].key() == key)) return i;
  }
}

std::uint32_t KnownFlows::find(const FlowKey &key) const {
  return buckets_[bucket_of(key, tag_of(key))].slot;
}

std::uint32_t KnownFlows::new_slot() {
  if (first_free_ != kNone) {
    const std::uint32_t slot = first_free_;
    first_free_ = static_cast<std::uint32_t>((*this)[slot].index);
    return slot;
  }
  if (slots_ % kChunk == 0) chunks_.push_back(std::make_unique<std::array<KnownFlow, kChunk>>());
  return slots_++;
}

void KnownFlows::grow() {
  std::vector<Bucket> old(buckets_.size() * 2);
  old.swap(buckets_);
  const std::size_t mask = buckets_.size() - 1;
  for (const Bucket &bucket : old) {
    if (bucket.slot == kNone) continue;
    std::size_t i = bucket.tag & mask;
    while (buckets_[i].slot != kNone) i = (i + 1) & mask;
    buckets_[i] = bucket;
  }
}

std::uint32_t KnownFlows::insert(const FlowKey &key) {
  const std::uint32_t tag = tag_of(key);
  std::size_t i = bucket_of(key, tag);
  if (buckets_[i].slot != kNone) return buckets_[i].slot;
  if ((size_ + 1) * std::size_t{4} > buckets_.size() * 3) {
    grow();
    i = bucket_of(key, tag);
  }
  const std::uint32_t slot = new_slot();
  buckets_[i] = {tag, slot};
  ++size_;
  KnownFlow &entry = (*this)[slot];
  entry = {};
  entry.index = key.index;
  entry.vsd = key.vsd;
  entry.state = KnownFlowState::stored;
  return slot;
}

// Closes the gap by moving back every later bucket of the run that may stand in it, so that searches need no tombstones.
void KnownFlows::erase(std::uint32_t slot) {
  const FlowKey key = (*this)[slot].key();
  const std::size_t mask = buckets_.size() - 1;
  std::size_t gap = bucket_of(key, tag_of(key));
  for (std::size_t i = (gap + 1) & mask; buckets_[i].slot != kNone; i = (i + 1) & mask) {
    const std::size_t home = buckets_[i].tag & mask;
    if (((i - home) & mask) < ((i - gap) & mask)) continue;
    buckets_[gap] = buckets_[i];
    gap = i;
  }
  buckets_[gap] = {};
  --size_;
  (*this)[slot] = {};
  (*this)[slot].index = first_free_;
  first_free_ = slot;
}

}  // namespace programmer
