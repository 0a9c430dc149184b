// The desired flows: what the controllers asked for and the switch is to have.
//
// An entry is one southbound flow-mod, kept as the bytes that were handed to the daemon, so that a replay is byte-identical; what
// the controller sees of it is derived from them. Entries are found by index, and by what makes them the same flow: table,
// priority and match. Of several entries for the same flow the newest is in force and the others are on their way out: a changed
// flow is added under a new index before the old one goes, and comes back into force when the new one fails. Requests for many
// flows find them by match, by cookie, and by their group (flow_groups.h).
//
// Openflow thread only. An entry stays where it is until it is removed.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "host/of_ss/desired/flow_groups.h"
#include "host/of_ss/desired/slot_index.h"
#include "host/of_ss/wire/wire.h"
#include "southbound.h"

namespace host::of_ss {

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

struct FlowCounts {
  Counter packets, bytes;
};

// Neighbours in a list of entries, by slot.
struct Links {
  std::uint32_t previous = kNoSlot, next = kNoSlot;
};

inline constexpr std::int64_t kSecondNs = 1'000'000'000;

// There may be millions: 72 bytes and the message, so that most flows fit 192.
struct FlowEntry {
  std::int64_t created_ns;             // monotonic; of the flow, not of its latest form
  std::unique_ptr<FlowCounts> counts;  // null while nothing has been counted
  std::uint32_t slot;
  std::uint32_t hash;             // of table and match
  std::uint32_t group = kNoSlot;  // number among the FlowGroups
  std::uint32_t older = kNoSlot;  // the form of the same flow before this one
  Links alike = {};               // those with the same table and match, newest first; so are the others
  Links in_group = {};
  Links with_cookie = {};        // those with the same cookie
  std::uint32_t last_hit_s = 0;  // monotonic seconds of the latest change of a counter
  std::uint32_t latency_us = 0;  // from hand-over to decision, 0 while undecided
  std::uint32_t idle_round = 0;  // of the counters, when it was first seen idle; 0 while it is not
  FlowState state = FlowState::sent;
  bool in_force : 1 = true;
  bool retried : 1 = false;      // it has failed once after it was installed
  bool displaced : 1 = false;    // the daemon does not have it, or has been told to delete it, to make room for its newer form
  bool provisional : 1 = false;  // came in a transaction that is not at its end
  bool set_aside : 1 = false;    // was deleted in one, which may bring it back
  bool replaces : 1 = false;     // came while there was a flow with its match and priority
  std::uint16_t controller = 0;  // who asked for it last (Peer::controller); 0 for one of an earlier life

  void hit_at(std::int64_t now) { last_hit_s = static_cast<std::uint32_t>(now / kSecondNs); }
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

// The greatest index that is believed of what is stored. No life of the daemon gets that far; counting on from an index near the
// end, the next one would come to the indexes that mean no flow and every flow, and to those in use.
inline constexpr std::uint64_t kGreatestStoredIndex = ~std::uint64_t{0} >> 1;

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
  void mark_installed(FlowEntry &entry) {
    entry.state = FlowState::installed;
    --sent_;
  }
  // Takes the entry out; when it was in force, its older form is in force again.
  void remove(FlowEntry &entry);
  // Takes the flow, which has no older form, out of force, and puts it back; its place must be free then.
  void set_aside(FlowEntry &entry);
  void bring_back(FlowEntry &entry);

  FlowEntry *at(std::uint32_t slot) const { return slot == kNoSlot ? nullptr : slots_[slot].get(); }
  // Walks all entries: begins at cursor 0, null at the end. Entries may come and go meanwhile; each that stays is visited once.
  FlowEntry *next(std::uint32_t &cursor) const;
  // Calls `visit` with entries in force, among them all that are wanted; it filters them itself, and must not change the table.
  template <typename Visit>
  void each_candidate(const Wanted &wanted, Visit &&visit) const {
    for (const Chain &chain : candidates(wanted))
      any_in(chain, [&visit](FlowEntry &entry) { return entry.in_force && (visit(entry), false); });
  }
  // Whether an entry in force with the table and the priority of the flow-mod overlaps it.
  bool overlaps(Bytes flow_mod) const;

  std::size_t size() const { return by_index_.size(); }
  // Those of them that are not decided.
  std::size_t sent() const { return sent_; }
  // Number of flows; several forms of one flow count once.
  std::size_t flows() const { return by_key_.size(); }
  std::size_t flows_of(std::uint8_t table_id) const { return flows_of_[table_id]; }
  // The highest index assigned so far; 0 when there is none.
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
  using List = Links FlowEntry::*;
  struct Chain {
    std::uint32_t first;
    List list;
  };
  struct Key {
    std::uint8_t table_id;
    std::uint16_t priority;
    Bytes match;
  };
  static Key key_of(Bytes flow_mod);

  // Visits the list until `visit` returns true; whether it did.
  template <typename Visit>
  bool any_in(const Chain &chain, Visit &&visit) const {
    for (FlowEntry *entry = at(chain.first); entry; entry = at((entry->*chain.list).next))
      if (visit(*entry)) return true;
    return false;
  }
  std::vector<Chain> candidates(const Wanted &wanted) const;
  bool is_longer(const Chain &chain, std::size_t than) const;
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

  std::vector<Owner> slots_;
  std::vector<std::uint32_t> free_;
  SlotIndex by_key_, by_index_;
  SlotIndex by_match_, by_cookie_;  // the first of each list
  FlowGroups groups_;
  std::size_t flows_of_[kTableCount] = {};
  std::size_t sent_ = 0;
  std::uint64_t next_index_ = 1;
};

// Where a southbound flow-mod says when its flow was created.
std::size_t created_offset(Bytes flow_mod);
// Whether two southbound flow-mods ask for the same in every byte but the index and the time of creation.
bool same_flow_mod(Bytes a, Bytes b);

}  // namespace host::of_ss
