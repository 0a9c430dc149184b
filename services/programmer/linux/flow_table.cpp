#include "programmer/linux/flow_table.h"

#include <algorithm>
#include <atomic>
#include <functional>

namespace programmer::dataplane {
namespace {

template <typename T>
void store(T &to, T value) {
  std::atomic_ref(to).store(value, std::memory_order_release);
}

__u64 entry_for(std::uint64_t hash, FlowTable::Place place) {
  return __u64{dp_tag(hash)} << 32 | (place + 1);
}

}  // namespace

FlowTable::FlowTable(const dp_tables &memory)
    : memory_(memory), behind_(memory.places, kNone), elsewhere_(memory.bucket_count), inherited_(memory.places) {
  memory_.control->bucket_mask = memory.bucket_count - 1;
  memory_.control->flows = memory.places;
  masks_.reserve(DP_MAX_MASKS);
  inherit_masks();
  inherit_flows();
  find_free_places();
  publish();
}

FlowTable::Words FlowTable::words_of(const dp_key &key) {
  Words words;
  std::memcpy(words.data(), &key, sizeof key);
  return words;
}

// Ends a change by invalidating the results that readers have cached.
void FlowTable::publish() {
  store<__u64>(memory_.control->current, memory_.control->current + 2);
  store<__u32>(memory_.control->cache, rows_ >= DP_CACHE_FROM ? memory_.cache_sets : 0);
}

dp_mask *FlowTable::list(bool in_force) const {
  const bool second = ((memory_.control->current & 1) != 0) == in_force;
  return memory_.masks + (second ? DP_MAX_MASKS : 0);
}

// ---- masks

// The identifier of the mask, which is added to the list if necessary; kNone, with the lack set, if there is no free row.
std::uint32_t FlowTable::mask_of(const Words &words, std::uint32_t type) {
  if (const auto known = ids_.find(words); known != ids_.end()) return known->second;
  return append_mask(words, type);
}

std::uint32_t FlowTable::append_mask(const Words &words, std::uint32_t type) {
  if (rows_ == DP_MAX_MASKS && !rewrite_list()) {
    return refuse(list_resting_ || list_retired_ ? Lack::kGrace : Lack::kMasks);
  }
  if (free_ids_.empty() && masks_.size() == DP_MAX_MASKS) return refuse(Lack::kGrace);
  std::uint32_t id = static_cast<std::uint32_t>(masks_.size());
  if (free_ids_.empty()) {
    masks_.emplace_back();
  } else {
    id = free_ids_.back();
    free_ids_.pop_back();
  }
  match_on(words);
  masks_[id] = {words, rows_, type, {}};
  ids_.emplace(words, id);
  dp_mask &row = list(true)[rows_];
  std::ranges::copy(words, row.words);
  row.rest = 0;
  row.only_type = type;
  row.id = id;
  if (rows_ + 1 < DP_MAX_MASKS) store<__u32>(list(true)[rows_ + 1].rank, 0);
  ++rows_;
  untidy_ = true;
  return id;
}

// Extends the bits of packets that cached results tell apart, and ends those results, before the first flow tells them apart.
void FlowTable::match_on(const Words &words) {
  auto &matched = memory_.control->matched[memory_.control->current & 1];
  bool more = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    more = more || (words[i] & ~matched[i]) != 0;
    store<__u64>(matched[i], matched[i] | words[i]);
  }
  if (more) store<__u64>(memory_.control->current, memory_.control->current + 2);
}

// Prepares the mask for a flow of that rank and type, so that searches find the flow as soon as it is published.
void FlowTable::raise(std::uint32_t id, std::uint32_t rank, std::uint32_t type) {
  Mask &mask = masks_[id];
  ++mask.ranks[rank];
  dp_mask *rows = list(true);
  dp_mask &row = rows[mask.row];
  if (type != mask.only_type) {
    mask.only_type = DP_ANY_TYPE;
    store<__u32>(row.only_type, DP_ANY_TYPE);
  }
  if (row.rank >= rank) return;
  for (std::uint32_t i = 0; i < mask.row; ++i) {
    if (rows[i].rest < rank) {
      store<__u32>(rows[i].rest, rank);
      untidy_ = untidy_ || rows[i].rank < rank;
    }
  }
  store<__u32>(row.rank, rank);
}

void FlowTable::lower(std::uint32_t id, std::uint32_t rank) {
  auto &ranks = masks_[id].ranks;
  const auto found = ranks.find(rank);
  if (--found->second != 0) return;
  ranks.erase(found);
  untidy_ = true;
}

// Writes the masks that have flows into the other list, the highest rank first, and puts that list in force. Does nothing if
// nothing has changed, or while the other list may still be read. True if unused masks were dropped.
bool FlowTable::rewrite_list() {
  if (!untidy_ || list_retired_ || list_resting_) return false;
  std::vector<std::uint32_t> order;
  for (const auto &[words, id] : ids_)
    if (!masks_[id].ranks.empty()) order.push_back(id);
  const bool gained = order.size() < rows_;
  const auto highest = [this](std::uint32_t id) { return masks_[id].ranks.rbegin()->first; };
  std::ranges::sort(order,
                    [&](std::uint32_t a, std::uint32_t b) { return highest(a) != highest(b) ? highest(a) > highest(b) : a < b; });
  std::erase_if(ids_, [this](const auto &entry) {
    if (!masks_[entry.second].ranks.empty()) return false;
    retired_ids_.push_back(entry.second);
    return true;
  });
  dp_mask *rows = list(false);
  auto &matched = memory_.control->matched[~memory_.control->current & 1];
  std::ranges::fill(matched, 0);
  std::uint32_t rest = 0;
  for (std::size_t i = order.size(); i-- > 0; rest = rows[i].rank) {
    Mask &mask = masks_[order[i]];
    mask.row = static_cast<std::uint32_t>(i);
    std::ranges::copy(mask.words, rows[i].words);
    std::ranges::transform(mask.words, matched, matched, std::bit_or());
    rows[i].rank = highest(order[i]);
    rows[i].rest = rest;
    rows[i].only_type = mask.only_type;
    rows[i].id = order[i];
  }
  rows_ = static_cast<std::uint32_t>(order.size());
  if (rows_ < DP_MAX_MASKS) rows[rows_].rank = 0;
  store<__u64>(memory_.control->current, (memory_.control->current + 2) ^ 1);
  list_retired_ = true;
  untidy_ = false;
  return gained;
}

void FlowTable::tidy() {
  rewrite_list();
}

// ---- places

FlowTable::Place FlowTable::take_place() {
  if (!free_.empty()) {
    const Place place = free_.back();
    free_.pop_back();
    return place;
  }
  if (unused_ < memory_.places) return unused_++;
  return refuse(retired_.empty() && resting_.empty() ? Lack::kPlaces : Lack::kGrace);
}

bool FlowTable::begin_grace() {
  if (!resting_.empty() || !resting_ids_.empty() || list_resting_) return false;
  resting_.swap(retired_);
  resting_ids_.swap(retired_ids_);
  list_resting_ = std::exchange(list_retired_, false);
  return !resting_.empty() || !resting_ids_.empty() || list_resting_;
}

void FlowTable::end_grace() {
  free_.insert(free_.end(), resting_.begin(), resting_.end());
  resting_.clear();
  free_ids_.insert(free_ids_.end(), resting_ids_.begin(), resting_ids_.end());
  resting_ids_.clear();
  list_resting_ = false;
}

// To be called when no reader counts there any more.
void FlowTable::reset_counts(Place place) {
  memory_.before[place] = {};
  for (std::uint32_t row = 0; row < memory_.rows; ++row) {
    dp_count &cell = memory_.counts[std::size_t{row} * memory_.places + place];
    store<__u64>(cell.packets, 0);
    store<__u64>(cell.bytes, 0);
  }
}

void FlowTable::go_on_from(Place place, const Counters &counted) {
  memory_.before[place].packets += counted.packets;
  memory_.before[place].bytes += counted.bytes;
}

Counters FlowTable::count(Place place) const {
  Counters sum{memory_.before[place].packets, memory_.before[place].bytes};
  for (std::uint32_t row = 0; row < memory_.rows; ++row) {
    const dp_count &cell = memory_.counts[std::size_t{row} * memory_.places + place];
    sum.packets += dp_counted(cell.packets);
    sum.bytes += dp_counted(cell.bytes);
  }
  return sum;
}

// ---- buckets

__u64 *FlowTable::entry_of(std::uint32_t bucket, Place place) const {
  auto &entries = memory_.buckets[bucket].entries;
  auto *found = std::ranges::find_if(entries, [place](__u64 e) { return static_cast<std::uint32_t>(e) == place + 1; });
  return found == std::end(entries) ? nullptr : found;
}

// Turns the bucket's unused entries into tombstones, so that searches no longer end at them but continue in the second bucket.
void FlowTable::keep_closed(std::uint32_t bucket) {
  for (__u64 &entry : memory_.buckets[bucket].entries)
    if (entry == 0) store<__u64>(entry, DP_TOMB);
}

// Called before a flow of this bucket is published, so that the hint has the bits of all its flows at any moment.
void FlowTable::expect(std::uint64_t hash, std::uint32_t home) {
  __u64 &bits = memory_.hints[home / DP_HINT_BUCKETS].bits;
  store<__u64>(bits, bits | dp_hint_bit(dp_tag(hash), home));
}

// Clears the bits of flows that are gone, unless flows of this bucket are in another one, because their bits are not known.
void FlowTable::expect_only_present(std::uint32_t bucket) {
  if (elsewhere_[bucket] != 0) return;
  __u64 &bits = memory_.hints[bucket / DP_HINT_BUCKETS].bits, present = 0;
  for (const __u64 entry : memory_.buckets[bucket].entries)
    if (entry << 32 != 0) present |= dp_hint_bit(static_cast<__u32>(entry >> 32), bucket);
  store<__u64>(bits, (bits & ~(__u64{0xff} << bucket % DP_HINT_BUCKETS * 8)) | present);
}

// Publishes a flow whose key is new under its mask. A bucket holds each tag only once, so that a scan finds at most one flow.
bool FlowTable::insert(Place place, std::uint64_t hash) {
  const std::uint32_t mask = memory_.bucket_count - 1;
  const std::uint32_t home = dp_first_bucket(hash, mask);
  for (const std::uint32_t bucket : {home, dp_second_bucket(hash, mask)}) {
    auto &entries = memory_.buckets[bucket].entries;
    if (std::ranges::any_of(entries, [hash](__u64 e) { return e >> 32 == dp_tag(hash) && e << 32 != 0; })) {
      continue;
    }
    const auto room = std::ranges::find_if(entries, [](__u64 e) { return e == 0 || e == DP_TOMB; });
    if (room == std::end(entries)) continue;
    if (bucket != home) {
      keep_closed(home);
      ++elsewhere_[home];
    }
    expect(hash, home);
    store<__u64>(*room, entry_for(hash, place));
    return true;
  }
  return false;
}

// Publishes the flow at `place` instead of the one at `old`, in the same entry.
void FlowTable::put(std::uint64_t hash, Place old, Place place) {
  const std::uint32_t mask = memory_.bucket_count - 1;
  __u64 *at = entry_of(dp_first_bucket(hash, mask), old);
  if (!at) at = entry_of(dp_second_bucket(hash, mask), old);
  store(*at, entry_for(hash, place));
}

void FlowTable::vacate(std::uint64_t hash, Place place) {
  const std::uint32_t mask = memory_.bucket_count - 1;
  const std::uint32_t home = dp_first_bucket(hash, mask);
  const bool at_home = entry_of(home, place) != nullptr;
  const std::uint32_t bucket = at_home ? home : dp_second_bucket(hash, mask);
  store<__u64>(*entry_of(bucket, place), elsewhere_[bucket] != 0 ? DP_TOMB : 0);
  if (!at_home && --elsewhere_[home] == 0) open_again(home);
  expect_only_present(home);
  expect_only_present(bucket);
}

// Turns the bucket's tombstones back into unused entries, once all flows that belong in the bucket are in it.
void FlowTable::open_again(std::uint32_t bucket) {
  for (__u64 &entry : memory_.buckets[bucket].entries)
    if (entry == DP_TOMB) store<__u64>(entry, 0);
}

// ---- contents left by an earlier table

bool FlowTable::knows(std::uint32_t mask) const {
  if (mask >= masks_.size()) return false;
  const auto known = ids_.find(masks_[mask].words);
  return known != ids_.end() && known->second == mask;
}

// A row with a rank is in the list, even if the earlier table ended before a flow came under its mask.
void FlowTable::inherit_masks() {
  const dp_mask *rows = list(true);
  for (; rows_ < DP_MAX_MASKS && rows[rows_].rank != 0; ++rows_) {
    const dp_mask &row = rows[rows_];
    if (row.id >= DP_MAX_MASKS) continue;
    if (row.id >= masks_.size()) masks_.resize(row.id + 1);
    Mask &mask = masks_[row.id];
    std::ranges::copy(row.words, mask.words.begin());
    match_on(mask.words);
    mask.row = rows_;
    mask.only_type = row.only_type;
    ids_.emplace(mask.words, row.id);
  }
  for (std::uint32_t id = 0; id < masks_.size(); ++id)
    if (!knows(id)) free_ids_.push_back(id);
  untidy_ = rows_ != 0;
}

void FlowTable::inherit_flows() {
  for (std::uint32_t bucket = 0; bucket < memory_.bucket_count; ++bucket) {
    for (__u64 &entry : memory_.buckets[bucket].entries)
      if (entry != 0 && entry != DP_TOMB && !inherit_flow(bucket, entry)) store(entry, DP_TOMB);
  }
  for (std::uint32_t bucket = 0; bucket < memory_.bucket_count; ++bucket) {
    elsewhere_[bucket] != 0 ? keep_closed(bucket) : open_again(bucket);
    expect_only_present(bucket);
  }
}

// True if the entry refers to a valid flow that belongs in this bucket; the flow is then inherited.
bool FlowTable::inherit_flow(std::uint32_t bucket, __u64 entry) {
  const Place place = static_cast<Place>(entry) - 1;
  if (place >= memory_.places || inherited_[place]) return false;
  const dp_flow &flow = memory_.flows[place];
  if (!knows(flow.mask)) return false;
  Words masked;
  std::ranges::copy(flow.key, masked.begin());
  const std::uint64_t hash = dp_hash(masked.data(), flow.mask);
  const std::uint32_t mask = memory_.bucket_count - 1, home = dp_first_bucket(hash, mask);
  if (entry != entry_for(hash, place) || (bucket != home && bucket != dp_second_bucket(hash, mask))) return false;
  if (bucket != home) ++elsewhere_[home];
  ++masks_[flow.mask].ranks[flow.rank];
  inherited_[place] = true;
  ++inherited_count_;
  ++size_;
  return true;
}

void FlowTable::find_free_places() {
  unused_ = memory_.places;
  while (unused_ != 0 && !inherited_[unused_ - 1]) --unused_;
  for (Place place = 0; place < unused_; ++place)
    if (!inherited_[place]) free_.push_back(place);
}

// The place of the identical inherited flow; kNone if there is none. Fills in the flow's mask if the mask is known.
FlowTable::Place FlowTable::claim(const dp_key &mask, dp_flow &flow) {
  if (inherited_count_ == 0) return kNone;
  const auto known = ids_.find(words_of(mask));
  if (known == ids_.end()) return kNone;
  flow.mask = known->second;
  for (Place at = dp_find(&memory_, flow.key, flow.mask, memory_.bucket_count - 1) - 1; at != kNone; at = behind_[at]) {
    if (!inherited_[at] || std::memcmp(&memory_.flows[at], &flow, sizeof flow) != 0) continue;
    inherited_[at] = false;
    --inherited_count_;
    return at;
  }
  return kNone;
}

std::vector<std::uint32_t> FlowTable::inherited_lists() const {
  std::vector<std::uint32_t> lists;
  for (Place place = 0; place < unused_; ++place)
    if (const __u32 list = memory_.flows[place].actions.list; inherited_[place] && list != 0) lists.push_back(list);
  return lists;
}

void FlowTable::drop_inherited() {
  for (Place place = 0; inherited_count_ != 0; ++place)
    if (inherited_[place]) remove(place);
}

// ---- flows

bool FlowTable::outranks(Place a, Place b) const {
  const dp_flow &left = memory_.flows[a], &right = memory_.flows[b];
  return left.rank != right.rank ? left.rank > right.rank : left.index >= right.index;
}

// Publishes the flow, or queues it behind the flows with its key that outrank it.
bool FlowTable::link(Place place, const Words &masked, std::uint32_t mask) {
  const std::uint64_t hash = dp_hash(masked.data(), mask);
  const Place head = dp_find(&memory_, masked.data(), mask, memory_.bucket_count - 1) - 1;
  behind_[place] = kNone;
  if (head == kNone) return insert(place, hash);
  if (outranks(place, head)) {
    behind_[place] = head;
    put(hash, head, place);
    return true;
  }
  Place before = head;
  while (behind_[before] != kNone && !outranks(place, behind_[before])) before = behind_[before];
  behind_[place] = std::exchange(behind_[before], place);
  return true;
}

FlowTable::Place FlowTable::add(const dp_key &key, const dp_key &mask, dp_flow flow) {
  const Words words = words_of(mask);
  dp_mask_key(words_of(key).data(), words.data(), flow.key);
  if (const Place held = claim(mask, flow); held != kNone) return held;
  const std::uint32_t type = mask.eth_type == 0xffff ? key.eth_type : std::uint32_t{DP_ANY_TYPE};
  const Place place = take_place();
  if (place == kNone) return kNone;
  const std::uint32_t id = mask_of(words, type);
  if (id == kNone) {
    free_.push_back(place);
    return kNone;
  }
  Words masked;
  std::ranges::copy(flow.key, masked.begin());
  flow.mask = id;
  memory_.flows[place] = flow;
  reset_counts(place);
  raise(id, flow.rank, type);
  if (!link(place, masked, id)) {
    lower(id, flow.rank);
    free_.push_back(place);
    return refuse(Lack::kBuckets);
  }
  publish();
  ++size_;
  return place;
}

void FlowTable::remove(Place place) {
  const dp_flow &flow = memory_.flows[place];
  Words masked;
  std::ranges::copy(flow.key, masked.begin());
  const std::uint64_t hash = dp_hash(masked.data(), flow.mask);
  Place before = dp_find(&memory_, masked.data(), flow.mask, memory_.bucket_count - 1) - 1;
  if (before == place) {
    const Place next = behind_[place];
    if (next == kNone) {
      vacate(hash, place);
    } else {
      put(hash, place, next);
    }
  } else {
    while (behind_[before] != place) before = behind_[before];
    behind_[before] = behind_[place];
  }
  lower(flow.mask, flow.rank);
  if (inherited_[place]) --inherited_count_;
  inherited_[place] = false;
  publish();
  retired_.push_back(place);
  --size_;
}

}  // namespace programmer::dataplane
