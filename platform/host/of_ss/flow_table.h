// The desired flows: what the controllers asked for and the switch is to have.
//
// An entry is one southbound flow-mod, kept as the bytes that were handed to the daemon, so that a replay is byte-identical; what
// the controller sees of it is derived from them. Entries are found by index, and by what makes them the same flow: table,
// priority and match. Of several entries for the same flow the newest is in force and the others are on their way out: a changed
// flow is added under a new index before the old one goes, and comes back into force when the new one fails.
//
// Openflow thread only. An entry stays where it is until it is removed.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "host/of_ss/wire.h"
#include "southbound.h"

namespace host::of_ss {

inline constexpr std::uint32_t kNoSlot = ~std::uint32_t{0};

enum class FlowState : std::uint8_t {
  sent,       // handed to the daemon, not decided yet
  installed,  // decided: a barrier that came after it has been answered and no failure came
};

// A counter of a flow. The daemon gives its total on request, and reports changes on its own; changes are a few seconds late, so
// the larger of both is right, and the value never goes back.
struct Counter {
  std::uint64_t total = 0;    // of this form of the flow, as far as is known
  std::uint64_t changes = 0;  // sum of the reported changes
  std::uint64_t before = 0;   // counted before, by earlier forms; modulo 2^64, so that a reset may take away

  std::uint64_t value() const { return before + total; }
  void is(std::uint64_t now) { total = total < now ? now : total; }
  void grew(std::uint64_t by) { is(changes += by); }
  void reset() { before = 0 - total; }
};

struct FlowEntry {
  std::int64_t created_ns;  // monotonic; of the flow, not of its latest form
  Counter packets, bytes;
  std::uint32_t slot;
  std::uint32_t hash;
  std::uint32_t older = kNoSlot, newer = kNoSlot;  // other forms of the same flow
  std::uint32_t last_hit_s = 0;                    // monotonic seconds of the latest change of a counter
  std::uint32_t latency_us = 0;                    // from hand-over to decision, 0 while undecided
  FlowState state = FlowState::sent;
  bool in_force = true;
  bool retried = false;          // it has failed once after it was installed
  std::uint32_t idle_round = 0;  // of the counters, when it was first seen idle; 0 while it is not

  std::byte *message() { return reinterpret_cast<std::byte *>(this + 1); }
  const std::byte *message() const { return reinterpret_cast<const std::byte *>(this + 1); }
  Bytes southbound() const { return {message(), get<std::uint16_t>(::southbound::kLen)}; }
  template <typename T>
  T get(std::size_t offset) const {
    return ::southbound::get<T>(message(), offset);
  }
  std::uint64_t index() const { return get<std::uint64_t>(::southbound::kFlowIndex); }
  std::uint64_t cookie() const { return get<std::uint64_t>(::southbound::kFlowCookie); }
  std::uint16_t priority() const { return get<std::uint16_t>(::southbound::kFlowPriority); }
  std::uint16_t flags() const { return get<std::uint16_t>(::southbound::kFlowFlags); }
  bool has_timeout() const {
    return get<std::uint16_t>(::southbound::kFlowIdleTimeout) || get<std::uint16_t>(::southbound::kFlowHardTimeout);
  }
  std::uint8_t table_id() const { return get<std::uint8_t>(::southbound::kFlowTableId); }
};

// Slot numbers in a hash table: open addressing, no tombstones. `Hash` gives the hash of what is in a slot.
class SlotIndex {
 public:
  template <typename Match>
  std::uint32_t find(std::uint32_t hash, Match &&match) const {
    if (cells_.empty()) return kNoSlot;
    for (std::size_t i = hash & mask();; i = (i + 1) & mask())
      if (cells_[i] == kNoSlot || match(cells_[i])) return cells_[i];
  }
  template <typename Hash>
  void insert(std::uint32_t slot, Hash &&hash_of) {
    if (cells_.size() * 7 <= (count_ + 1) * 10) grow(hash_of);
    place(slot, hash_of(slot));
    ++count_;
  }
  template <typename Hash>
  void erase(std::uint32_t slot, Hash &&hash_of) {
    std::size_t hole = position(slot, hash_of(slot));
    for (std::size_t i = (hole + 1) & mask(); cells_[i] != kNoSlot; i = (i + 1) & mask()) {
      const std::size_t home = hash_of(cells_[i]) & mask();
      if (((i - home) & mask()) < ((i - hole) & mask())) continue;
      cells_[hole] = cells_[i];
      hole = i;
    }
    cells_[hole] = kNoSlot;
    --count_;
  }
  void replace(std::uint32_t slot, std::uint32_t by, std::uint32_t hash) { cells_[position(slot, hash)] = by; }
  std::size_t size() const { return count_; }

 private:
  std::size_t mask() const { return cells_.size() - 1; }
  std::size_t position(std::uint32_t slot, std::uint32_t hash) const {
    std::size_t i = hash & mask();
    while (cells_[i] != slot) i = (i + 1) & mask();
    return i;
  }
  void place(std::uint32_t slot, std::uint32_t hash) {
    std::size_t i = hash & mask();
    while (cells_[i] != kNoSlot) i = (i + 1) & mask();
    cells_[i] = slot;
  }
  template <typename Hash>
  void grow(Hash &&hash_of) {
    std::vector<std::uint32_t> old(cells_.empty() ? 64 : cells_.size() * 2, kNoSlot);
    old.swap(cells_);
    for (const std::uint32_t slot : old)
      if (slot != kNoSlot) place(slot, hash_of(slot));
  }
  std::vector<std::uint32_t> cells_;
  std::size_t count_ = 0;
};

class FlowTable {
 public:
  // A place in the table: the entry in force with table, priority and match of a southbound flow-mod, or null. Good until the
  // table changes.
  struct Place {
    std::uint32_t hash;
    FlowEntry *entry;
  };
  Place find(Bytes flow_mod) const;
  FlowEntry *by_index(std::uint64_t index) const;

  // Adds a copy of the southbound flow-mod under the next index and puts it in force; `place` is what find said, and the entry
  // that was in force there becomes the `older` of the new one.
  FlowEntry &insert(Bytes flow_mod, const Place &place, std::int64_t now_ns);
  // The same under the index that the message carries; later indexes will be greater. Null when the index is there or not
  // allowed.
  FlowEntry *restore(Bytes flow_mod, std::int64_t now_ns);
  // Takes the entry out; when it was in force, its older form is in force again.
  void remove(FlowEntry &entry);

  FlowEntry *at(std::uint32_t slot) const { return slot == kNoSlot ? nullptr : slots_[slot].get(); }
  // Walks all entries: begins at cursor 0, null at the end. Entries may come and go meanwhile; each that stays is visited once.
  FlowEntry *next(std::uint32_t &cursor) const;

  std::size_t size() const { return by_index_.size(); }
  // Flows, each counted once whatever forms of it there are.
  std::size_t flows() const { return by_key_.size(); }
  // Entries with an idle or a hard timeout.
  std::size_t timed() const { return timed_; }
  std::size_t flows_of(std::uint8_t table_id) const { return flows_of_[table_id]; }
  // The greatest index given so far; 0 for none.
  std::uint64_t newest_index() const { return next_index_ - 1; }
  void reserve_index_above(std::uint64_t index) { next_index_ = index < next_index_ ? next_index_ : index + 1; }

 private:
  struct Free {
    void operator()(FlowEntry *entry) const {
      entry->~FlowEntry();
      ::operator delete(entry);
    }
  };
  using Owner = std::unique_ptr<FlowEntry, Free>;

  FlowEntry &put(Bytes flow_mod, const Place &place, std::uint64_t index, std::int64_t now_ns);
  std::uint32_t take_slot();

  std::vector<Owner> slots_;
  std::vector<std::uint32_t> free_;
  SlotIndex by_key_, by_index_;
  std::size_t flows_of_[kTableCount] = {};
  std::size_t timed_ = 0;
  std::uint64_t next_index_ = 1;
};

// Whether two southbound flow-mods ask for the same in every byte but the index.
bool same_flow_mod(Bytes a, Bytes b);

}  // namespace host::of_ss
