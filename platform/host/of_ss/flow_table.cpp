#include "host/of_ss/flow_table.h"

#include "host/of_ss/actions.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

std::uint32_t fold(std::uint64_t h) {
  return static_cast<std::uint32_t>(h ^ h >> 32);
}

std::uint64_t mix(std::uint64_t h, std::uint64_t word) {
  h = (h ^ word) * 0x9e3779b97f4a7c15u;
  return h ^ h >> 29;
}

std::uint32_t index_hash(std::uint64_t index) {
  return fold(mix(0, index));
}

// Table, priority and match; slots are whole 8-byte words.
std::uint32_t key_hash(Bytes flow_mod) {
  const Bytes match = southbound_match(flow_mod);
  std::uint64_t h =
      mix(sb::get<std::uint8_t>(flow_mod.data(), sb::kFlowTableId), sb::get<std::uint16_t>(flow_mod.data(), sb::kFlowPriority));
  for (std::size_t at = 0; at + 8 <= match.size(); at += 8) h = mix(h, sb::get<std::uint64_t>(match.data(), at));
  return fold(mix(h, match.size()));
}

bool same_key(Bytes a, Bytes b) {
  const Bytes match = southbound_match(a), other = southbound_match(b);
  return sb::get<std::uint16_t>(a.data(), sb::kFlowPriority) == sb::get<std::uint16_t>(b.data(), sb::kFlowPriority) &&
         sb::get<std::uint8_t>(a.data(), sb::kFlowTableId) == sb::get<std::uint8_t>(b.data(), sb::kFlowTableId) &&
         match.size() == other.size() && std::memcmp(match.data(), other.data(), match.size()) == 0;
}

}  // namespace

FlowTable::Place FlowTable::find(Bytes flow_mod) const {
  const std::uint32_t hash = key_hash(flow_mod);
  return {hash, at(by_key_.find(hash, [this, flow_mod, hash](std::uint32_t slot) {
            return slots_[slot]->hash == hash && same_key(slots_[slot]->southbound(), flow_mod);
          }))};
}

FlowEntry *FlowTable::by_index(std::uint64_t index) const {
  return at(by_index_.find(index_hash(index), [this, index](std::uint32_t slot) { return slots_[slot]->index() == index; }));
}

FlowEntry &FlowTable::insert(Bytes flow_mod, const Place &place, std::int64_t now_ns) {
  return put(flow_mod, place, next_index_, now_ns);
}

FlowEntry *FlowTable::restore(Bytes flow_mod, std::int64_t now_ns) {
  const auto index = sb::get<std::uint64_t>(flow_mod.data(), sb::kFlowIndex);
  if (index == 0 || index == sb::kAllFlows || by_index(index)) return nullptr;
  return &put(flow_mod, find(flow_mod), index, now_ns);
}

FlowEntry &FlowTable::put(Bytes flow_mod, const Place &place, std::uint64_t index, std::int64_t now_ns) {
  const std::uint32_t slot = take_slot();
  void *memory = ::operator new(sizeof(FlowEntry) + flow_mod.size());
  auto *entry = new (memory) FlowEntry{.created_ns = now_ns, .packets = {}, .bytes = {}, .slot = slot, .hash = place.hash};
  slots_[slot].reset(entry);
  std::memcpy(entry->message(), flow_mod.data(), flow_mod.size());
  sb::put(entry->message(), sb::kFlowIndex, index);
  reserve_index_above(index);
  timed_ += entry->has_timeout();

  by_index_.insert(slot, [this](std::uint32_t s) { return index_hash(slots_[s]->index()); });
  if (FlowEntry *before = place.entry) {
    before->in_force = false;
    before->newer = slot;
    entry->older = before->slot;
    by_key_.replace(before->slot, slot, place.hash);
  } else {
    by_key_.insert(slot, [this](std::uint32_t s) { return slots_[s]->hash; });
    ++flows_of_[entry->table_id()];
  }
  return *entry;
}

void FlowTable::remove(FlowEntry &entry) {
  const auto hash_of = [this](std::uint32_t s) { return slots_[s]->hash; };
  by_index_.erase(entry.slot, [this](std::uint32_t s) { return index_hash(slots_[s]->index()); });
  FlowEntry *older = at(entry.older), *newer = at(entry.newer);
  if (older) older->newer = entry.newer;
  if (newer) newer->older = entry.older;
  if (entry.in_force && older) {
    older->in_force = true;
    by_key_.replace(entry.slot, older->slot, entry.hash);
  } else if (entry.in_force) {
    by_key_.erase(entry.slot, hash_of);
    --flows_of_[entry.table_id()];
  }
  timed_ -= entry.has_timeout();
  free_.push_back(entry.slot);
  slots_[entry.slot].reset();
}

FlowEntry *FlowTable::next(std::uint32_t &cursor) const {
  while (cursor < slots_.size())
    if (FlowEntry *entry = slots_[cursor++].get()) return entry;
  return nullptr;
}

std::uint32_t FlowTable::take_slot() {
  if (free_.empty()) {
    slots_.emplace_back();
    return static_cast<std::uint32_t>(slots_.size() - 1);
  }
  const std::uint32_t slot = free_.back();
  free_.pop_back();
  return slot;
}

bool same_flow_mod(Bytes a, Bytes b) {
  constexpr std::size_t kAfterIndex = sb::kFlowIndex + 8;
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), sb::kFlowIndex) == 0 &&
         std::memcmp(a.data() + kAfterIndex, b.data() + kAfterIndex, a.size() - kAfterIndex) == 0;
}

}  // namespace host::of_ss
