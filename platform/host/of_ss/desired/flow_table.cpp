#include "host/of_ss/desired/flow_table.h"

#include <new>

#include "host/of_ss/desired/flow_hash.h"
#include "host/of_ss/wire/actions.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// A list up to this length is walked without looking for a shorter one.
constexpr std::size_t kFew = 16;

static_assert(sizeof(FlowEntry) == 64);

std::uint32_t number_hash(std::uint64_t number) {
  return fold(mix(0, number));
}

// `hash` covers table and match.
std::uint32_t key_hash(std::uint32_t hash, std::uint16_t priority) {
  return number_hash(std::uint64_t{priority} << 32 | hash);
}

bool is_alike(const FlowEntry &entry, std::uint8_t table_id, Bytes match) {
  return entry.table_id() == table_id && same_bytes(southbound_match(entry.southbound()), match);
}

}  // namespace

// ---- lookups

FlowTable::Key FlowTable::key_of(Bytes flow_mod) {
  return {sb::get<std::uint8_t>(flow_mod.data(), sb::kFlowTableId), sb::get<std::uint16_t>(flow_mod.data(), sb::kFlowPriority),
          southbound_match(flow_mod)};
}

FlowEntry *FlowTable::find(const Key &key, std::uint32_t hash) const {
  return at(by_key_.find(key_hash(hash, key.priority), [&](std::uint32_t slot) {
    const auto &[entry, other, index] = slots_[slot];
    return other == hash && entry->priority() == key.priority && is_alike(*entry, key.table_id, key.match);
  }));
}

FlowTable::Place FlowTable::find(Bytes flow_mod) const {
  const Key key = key_of(flow_mod);
  const std::uint32_t hash = match_hash(key.table_id, key.match);
  by_match_.prefetch(hash);
  by_index_.prefetch(number_hash(static_cast<std::uint32_t>(next_index_)));
  return {hash, find(key, hash)};
}

FlowEntry *FlowTable::by_index(std::uint64_t index) const {
  const auto half = static_cast<std::uint32_t>(index);
  return at(by_index_.find(number_hash(half), [this, index, half](std::uint32_t slot) {
    return slots_[slot].index == half && slots_[slot].entry->index() == index;
  }));
}

FlowEntry *FlowTable::next(std::uint32_t &cursor) const {
  while (cursor < slots_.size())
    if (FlowEntry *entry = slots_[cursor++].entry.get()) return entry;
  return nullptr;
}

std::uint32_t FlowTable::first_alike(std::uint8_t table_id, Bytes match, std::uint32_t hash) const {
  return by_match_.find(
      hash, [&](std::uint32_t slot) { return slots_[slot].hash == hash && is_alike(*slots_[slot].entry, table_id, match); });
}

std::uint32_t FlowTable::first_with_cookie(std::uint64_t cookie) const {
  return by_cookie_.find(number_hash(cookie),
                         [this, cookie](std::uint32_t slot) { return slots_[slot].entry->cookie() == cookie; });
}

bool FlowTable::is_longer(const ListHead &head, std::size_t than) const {
  std::size_t length = 0;
  return any_in(head, [&length, than](const FlowEntry &) { return ++length > than; });
}

// The shorter of two sets of lists: the flows with the cookie, or those with exactly the match and the classes that it may cover.
std::vector<FlowTable::ListHead> FlowTable::candidates(const FlowCriteria &wanted) const {
  const ListHead with_cookie{wanted.cookie ? first_with_cookie(*wanted.cookie) : kNoSlot, &FlowEntry::with_cookie};
  if (wanted.cookie && !is_longer(with_cookie, kFew)) return {with_cookie};
  std::size_t flows = 0;
  std::vector<ListHead> lists;
  for (const std::uint32_t first : classes_.covered(wanted, flows)) lists.push_back({first, &FlowEntry::in_class});
  if (wanted.cookie && !is_longer(with_cookie, flows)) return {with_cookie};
  for (std::uint8_t table_id = 0; table_id < kTableCount; ++table_id)
    if (!wanted.table_id || *wanted.table_id == table_id)
      lists.push_back({first_alike(table_id, wanted.match, match_hash(table_id, wanted.match)), &FlowEntry::alike});
  return lists;
}

bool FlowTable::overlaps(Bytes flow_mod) const {
  const Key key = key_of(flow_mod);
  const auto has_exactly = [this, &key](Bytes match) {
    return find({key.table_id, key.priority, match}, match_hash(key.table_id, match)) != nullptr;
  };
  const auto overlapping = [&key](const FlowEntry &entry) {
    return entry.in_force && entry.priority() == key.priority && matches_overlap(southbound_match(entry.southbound()), key.match);
  };
  return classes_.overlap(key.table_id, key.match, has_exactly, [&](std::uint32_t first) {
    return any_in({first, &FlowEntry::in_class}, overlapping);
  });
}

// ---- insertion and removal

FlowEntry &FlowTable::insert(Bytes flow_mod, const Place &place, std::int64_t now_ns) {
  return put(flow_mod, place, next_index_, now_ns);
}

FlowEntry *FlowTable::restore(Bytes flow_mod, std::int64_t now_ns) {
  const auto index = sb::get<std::uint64_t>(flow_mod.data(), sb::kFlowIndex);
  if (index == 0 || index > kGreatestStoredIndex || by_index(index)) return nullptr;
  return &put(flow_mod, find(flow_mod), index, now_ns);
}

FlowEntry &FlowTable::put(Bytes flow_mod, const Place &place, std::uint64_t index, std::int64_t now_ns) {
  const std::uint32_t slot = take_slot();
  void *memory = entries_.allocate(size_of(flow_mod));
  if (!memory) throw std::bad_alloc();
  auto *entry = new (memory) FlowEntry{.created_ns = now_ns, .counts = {}, .slot = slot};
  slots_[slot] = {std::unique_ptr<FlowEntry, Free>(entry), place.hash, static_cast<std::uint32_t>(index)};
  ++sent_;
  std::memcpy(entry->message(), flow_mod.data(), flow_mod.size());
  sb::put(entry->message(), sb::kFlowIndex, index);
  reserve_index_above(index);

  by_index_.insert(slot, [this](std::uint32_t s) { return index_hash_at(s); });
  if (FlowEntry *before = place.entry) {
    before->in_force = false;
    entry->older = before->slot;
    by_key_.replace(before->slot, slot, key_hash_at(slot));
  } else {
    take_place(*entry);
  }
  enlist(*entry);
  return *entry;
}

void FlowTable::remove(FlowEntry &entry) {
  sent_ -= entry.state == FlowState::sent;
  delist(entry);
  by_index_.erase(entry.slot, [this](std::uint32_t s) { return index_hash_at(s); });
  if (entry.set_aside) {
    // A flow that is set aside is not in by_key_.
  } else if (!entry.in_force) {
    take_form_out(entry);
  } else if (FlowEntry *older = at(entry.older)) {
    older->in_force = true;
    by_key_.replace(entry.slot, older->slot, key_hash_at(entry.slot));
  } else {
    free_place(entry);
  }
  free_.push_back(entry.slot);
  slots_[entry.slot].entry.reset();
}

void FlowTable::take_place(const FlowEntry &entry) {
  by_key_.insert(entry.slot, [this](std::uint32_t s) { return key_hash_at(s); });
  ++flows_of_[entry.table_id()];
}

void FlowTable::free_place(const FlowEntry &entry) {
  by_key_.erase(entry.slot, [this](std::uint32_t s) { return key_hash_at(s); });
  --flows_of_[entry.table_id()];
}

void FlowTable::set_aside(FlowEntry &entry) {
  free_place(entry);
  entry.in_force = false;
  entry.set_aside = true;
}

void FlowTable::bring_back(FlowEntry &entry) {
  take_place(entry);
  entry.in_force = true;
  entry.set_aside = false;
}

// Links the form after this one to the form before it.
void FlowTable::take_form_out(const FlowEntry &entry) {
  FlowEntry *newer = find(key_of(entry.southbound()), slots_[entry.slot].hash);
  while (newer->older != entry.slot) newer = at(newer->older);
  newer->older = entry.older;
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

// ---- lists

std::uint32_t FlowTable::index_hash_at(std::uint32_t slot) const {
  return number_hash(slots_[slot].index);
}

std::uint32_t FlowTable::key_hash_at(std::uint32_t slot) const {
  return key_hash(slots_[slot].hash, slots_[slot].entry->priority());
}

void FlowTable::link(FlowEntry &entry, std::uint32_t first, List list) {
  (entry.*list).next = first;
  if (FlowEntry *next = at(first)) (next->*list).previous = entry.slot;
}

void FlowTable::unlink(FlowEntry &entry, List list) {
  const Links links = entry.*list;
  if (FlowEntry *previous = at(links.previous)) (previous->*list).next = links.next;
  if (FlowEntry *next = at(links.next)) (next->*list).previous = links.previous;
}

// Puts the entry before `first`, whose place in the index it takes.
template <typename Hash>
void FlowTable::lead(SlotIndex &index, FlowEntry &entry, std::uint32_t first, List list, Hash &&hash_of) {
  link(entry, first, list);
  if (first == kNoSlot)
    index.insert(entry.slot, hash_of);
  else
    index.replace(first, entry.slot, hash_of(entry.slot));
}

template <typename Hash>
void FlowTable::leave(SlotIndex &index, FlowEntry &entry, List list, Hash &&hash_of) {
  unlink(entry, list);
  const Links links = entry.*list;
  if (links.previous != kNoSlot) return;
  if (links.next == kNoSlot)
    index.erase(entry.slot, hash_of);
  else
    index.replace(entry.slot, links.next, hash_of(entry.slot));
}

void FlowTable::enlist(FlowEntry &entry) {
  lead(by_match_, entry, first_alike(entry.table_id(), southbound_match(entry.southbound()), slots_[entry.slot].hash),
       &FlowEntry::alike, [this](std::uint32_t s) { return slots_[s].hash; });
  lead(by_cookie_, entry, first_with_cookie(entry.cookie()), &FlowEntry::with_cookie,
       [this](std::uint32_t s) { return number_hash(slots_[s].entry->cookie()); });
  entry.flow_class = classes_.join(entry.southbound());
  link(entry, classes_[entry.flow_class].first, &FlowEntry::in_class);
  classes_[entry.flow_class].first = entry.slot;
}

void FlowTable::delist(FlowEntry &entry) {
  leave(by_match_, entry, &FlowEntry::alike, [this](std::uint32_t s) { return slots_[s].hash; });
  leave(by_cookie_, entry, &FlowEntry::with_cookie, [this](std::uint32_t s) { return number_hash(slots_[s].entry->cookie()); });
  unlink(entry, &FlowEntry::in_class);
  if (classes_[entry.flow_class].first == entry.slot) classes_[entry.flow_class].first = entry.in_class.next;
  classes_.leave(entry.flow_class);
}

std::size_t created_offset(Bytes flow_mod) {
  return sb::flow_instruction_offset(sb::get<std::uint16_t>(flow_mod.data(), sb::kFlowMatchLen)) + sb::kInstructionCreated;
}

bool same_flow_mod(Bytes a, Bytes b) {
  constexpr std::size_t kAfterIndex = sb::kFlowIndex + 8;
  const std::size_t created = created_offset(a), after = created + 4;
  const auto same = [&a, &b](std::size_t from, std::size_t to) {
    return std::memcmp(a.data() + from, b.data() + from, to - from) == 0;
  };
  return a.size() == b.size() && same(0, sb::kFlowIndex) && same(kAfterIndex, created) && same(after, a.size());
}

}  // namespace host::of_ss
