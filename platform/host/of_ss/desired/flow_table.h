// The desired flows, as requested by the controllers.
//
// An entry is one southbound flow-mod, kept as the bytes that were handed to the daemon, so that a replay is byte-identical; the
// controller's view of it is derived from them. Entries are found by index, and by the identity of a flow: table, priority and
// match. Of several entries for the same flow the newest is in force and the others await removal: a changed flow is added under
// a new index before the old one is removed, and the old one comes back into force if the new one fails. Requests for many flows
// find them by match, by cookie, and by class (flow_classes.h).
//
// Openflow thread only. An entry does not move until it is removed.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "host/base/blocks.h"
#include "host/of_ss/desired/flow_classes.h"
#include "host/of_ss/desired/slot_index.h"
#include "host/of_ss/wire/wire.h"
#include "southbound.h"

namespace host::of_ss {

enum class FlowState : std::uint8_t {
  sent,       // handed to the daemon, not decided yet
  installed,  // decided: a later barrier has been answered without a failure
};

// A counter of a flow. The daemon returns its total on request, and reports changes unasked; changes are a few seconds late, so
// the larger of the two is right, and the value never decreases.
struct Counter {
  std::uint64_t total = 0;    // latest known total of this form of the flow
  std::uint64_t changes = 0;  // sum of the reported changes
  std::uint64_t before = 0;   // counted by earlier forms; modulo 2^64, so that a reset may subtract

  std::uint64_t value() const { return before + total; }
  void is(std::uint64_t now) { total = total < now ? now : total; }
  void grew(std::uint64_t by) { is(changes += by); }
  void reset() { before = 0 - total; }
};

struct FlowCounts {
  Counter packets, bytes;
};

// Neighbours in a list of entries, by slot.
struct Links {
  std::uint32_t previous = kNoSlot, next = kNoSlot;
};

inline constexpr std::int64_t kSecondNs = 1'000'000'000;

// There may be millions of these: 64 bytes and the message.
struct FlowEntry {
  std::int64_t created_ns;             // monotonic; of the flow, not of its latest form
  std::unique_ptr<FlowCounts> counts;  // null while nothing has been counted
  std::uint32_t slot;
  std::uint32_t flow_class = kNoSlot;  // number among the FlowClasses
  std::uint32_t older = kNoSlot;       // the form of the same flow before this one
  Links alike = {};                    // flows with the same table and match, newest first, as in the other lists
  Links in_class = {};
  Links with_cookie = {};        // flows with the same cookie
  std::uint32_t latency_us = 0;  // from hand-over to decision, 0 while undecided
  FlowState state = FlowState::sent;
  bool in_force : 1 = true;
  bool retried : 1 = false;      // it has failed once after it was installed
  bool displaced : 1 = false;    // the daemon lacks it, or was told to delete it, to make room for its newer form
  bool provisional : 1 = false;  // added in an open transaction
  bool set_aside : 1 = false;    // deleted in an open transaction, which may bring it back
  bool replaces : 1 = false;     // added while a flow with its match and priority existed
  std::uint16_t controller = 0;  // the latest requester (Peer::controller); 0 for a flow of an earlier run

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
  std::uint8_t table_id() const { return get<std::uint8_t>(::southbound::kFlowTableId); }
  std::uint64_t packets() const { return counts ? counts->packets.value() : 0; }
  std::uint64_t bytes() const { return counts ? counts->bytes.value() : 0; }
  FlowCounts &counted() {
    if (!counts) counts = std::make_unique<FlowCounts>();
    return *counts;
  }
  void reset_counts() {
    if (!counts) return;
    counts->packets.reset();
    counts->bytes.reset();
  }
};

// The greatest credible index of a stored flow. No run of the daemon gets that far; counting on from an index near the end would
// reach the indexes that mean no flow and every flow, and those in use.
inline constexpr std::uint64_t kGreatestStoredIndex = ~std::uint64_t{0} >> 1;

class FlowTable {
 public:
  // A place in the table: the entry in force with table, priority and match of a southbound flow-mod, or null. Valid until the
  // table changes.
  struct Place {
    std::uint32_t hash;
    FlowEntry *entry;
  };
  Place find(Bytes flow_mod) const;
  // The place of an entry that is in force.
  Place place_of(FlowEntry &entry) const { return {slots_[entry.slot].hash, &entry}; }
  FlowEntry *by_index(std::uint64_t index) const;

  // Adds a copy of the southbound flow-mod under the next index and puts it in force; `place` is find's result, and the entry in
  // force there becomes the `older` of the new one.
  FlowEntry &insert(Bytes flow_mod, const Place &place, std::int64_t now_ns);
  // Like insert, under the message's own index; later indexes will be greater. Null if the index is in use or not allowed.
  FlowEntry *restore(Bytes flow_mod, std::int64_t now_ns);
  void mark_installed(FlowEntry &entry) {
    entry.state = FlowState::installed;
    --sent_;
  }
  // Removes the entry; if it was in force, its older form comes back into force.
  void remove(FlowEntry &entry);
  // Takes the flow, which has no older form, out of force, or puts it back, for which its place must be free.
  void set_aside(FlowEntry &entry);
  void bring_back(FlowEntry &entry);

  FlowEntry *at(std::uint32_t slot) const { return slot == kNoSlot ? nullptr : slots_[slot].entry.get(); }
  // Walks all entries: begins at cursor 0, null at the end. Entries may be added and removed meanwhile; each one that stays is
  // visited once.
  FlowEntry *next(std::uint32_t &cursor) const;
  // Calls `visit` with entries in force that include all wanted ones; it must filter them itself, and must not change the table.
  template <typename Visit>
  void each_candidate(const FlowCriteria &wanted, Visit &&visit) const {
    for (const ListHead &head : candidates(wanted))
      any_in(head, [&visit](FlowEntry &entry) { return entry.in_force && (visit(entry), false); });
  }
  // True if an entry in force with the flow-mod's table and priority overlaps it.
  bool overlaps(Bytes flow_mod) const;

  std::size_t size() const { return by_index_.size(); }
  // Number of undecided entries.
  std::size_t sent() const { return sent_; }
  // Number of flows; several forms of one flow count once.
  std::size_t flows() const { return by_key_.size(); }
  std::size_t flows_of(std::uint8_t table_id) const { return flows_of_[table_id]; }
  // The highest index assigned so far; 0 when there is none.
  std::uint64_t newest_index() const { return next_index_ - 1; }
  void reserve_index_above(std::uint64_t index) { next_index_ = index < next_index_ ? next_index_ : index + 1; }

 private:
  static std::size_t size_of(Bytes flow_mod) { return sizeof(FlowEntry) + flow_mod.size(); }
  struct Free {
    void operator()(FlowEntry *entry) const {
      const std::size_t size = size_of(entry->southbound());
      entry->~FlowEntry();
      Blocks::release(entry, size);
    }
  };
  // A search compares these numbers, so that it seldom has to fetch another flow's entry.
  struct Slot {
    std::unique_ptr<FlowEntry, Free> entry;
    std::uint32_t hash;   // of table and match
    std::uint32_t index;  // its lower half
  };
  using List = Links FlowEntry::*;
  struct ListHead {
    std::uint32_t first;
    List list;
  };
  struct Key {
    std::uint8_t table_id;
    std::uint16_t priority;
    Bytes match;
  };
  static Key key_of(Bytes flow_mod);

  // Visits the list until `visit` returns true; returns whether it did.
  template <typename Visit>
  bool any_in(const ListHead &head, Visit &&visit) const {
    for (FlowEntry *entry = at(head.first); entry; entry = at((entry->*head.list).next))
      if (visit(*entry)) return true;
    return false;
  }
  std::vector<ListHead> candidates(const FlowCriteria &wanted) const;
  bool is_longer(const ListHead &head, std::size_t than) const;
  std::uint32_t first_alike(std::uint8_t table_id, Bytes match, std::uint32_t hash) const;
  std::uint32_t first_with_cookie(std::uint64_t cookie) const;
  FlowEntry *find(const Key &key, std::uint32_t hash) const;
  FlowEntry &put(Bytes flow_mod, const Place &place, std::uint64_t index, std::int64_t now_ns);
  void link(FlowEntry &entry, std::uint32_t first, List list);
  void unlink(FlowEntry &entry, List list);
  template <typename Hash>
  void lead(SlotIndex &index, FlowEntry &entry, std::uint32_t first, List list, Hash &&hash_of);
  template <typename Hash>
  void leave(SlotIndex &index, FlowEntry &entry, List list, Hash &&hash_of);
  void enlist(FlowEntry &entry);
  void delist(FlowEntry &entry);
  void free_place(const FlowEntry &entry);
  void take_place(const FlowEntry &entry);
  void take_form_out(const FlowEntry &entry);
  std::uint32_t take_slot();
  std::uint32_t index_hash_at(std::uint32_t slot) const;
  std::uint32_t key_hash_at(std::uint32_t slot) const;

  Blocks entries_;
  std::vector<Slot> slots_;
  std::vector<std::uint32_t> free_;
  SlotIndex by_key_, by_index_;
  SlotIndex by_match_, by_cookie_;  // the first of each list
  FlowClasses classes_;
  std::size_t flows_of_[kTableCount] = {};
  std::size_t sent_ = 0;
  std::uint64_t next_index_ = 1;
};

// The offset of the creation time in a southbound flow-mod.
std::size_t created_offset(Bytes flow_mod);
// True if two southbound flow-mods are equal except for index and creation time.
bool same_flow_mod(Bytes a, Bytes b);

}  // namespace host::of_ss
