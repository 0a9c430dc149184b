#include "host/mom/record/key_set.h"

#include <utility>

namespace host::mom {
namespace {

constexpr std::size_t kSmallest = 32;
constexpr std::uint64_t kNeighbours = 15;  // keys that differ only in these bits of their first word are neighbours

std::uint64_t mixed(std::uint64_t word) {
  word = (word ^ (word >> 32)) * 0xd6e8feb86659fd93U;
  return word ^ (word >> 32);
}

// The same for all neighbours, except for the low bits.
std::uint64_t group(const KeyHead &head) {
  return mixed((head.high & ~kNeighbours) * 0x9e3779b97f4a7c15U ^ head.low);
}

}  // namespace

// ---- one table

std::size_t KeySet::Flat::home(const KeyHead &head) const {
  return ((group(head) & ~kNeighbours) | (head.high & kNeighbours)) & (slots_.size() - 1);
}

// The slot that holds the key, or the free slot where it belongs.
std::size_t KeySet::Flat::place(const KeyHead &head) const {
  std::size_t at = home(head);
  while (slots_[at] != head && slots_[at] != KeyHead{}) at = (at + 1) & (slots_.size() - 1);
  return at;
}

void KeySet::Flat::insert(const KeyHead &head) {
  if (2 * (taken_ + 1) > slots_.size()) grow();
  KeyHead &slot = slots_[place(head)];
  taken_ += slot != head;
  slot = head;
}

void KeySet::Flat::grow() {
  const std::vector<KeyHead> before = std::exchange(slots_, std::vector<KeyHead>(slots_.empty() ? kSmallest : 2 * slots_.size()));
  for (const KeyHead &head : before) {
    if (head != KeyHead{}) slots_[place(head)] = head;
  }
}

// Closes the gap by moving back each later key of the run that may fill it, so that searches need no tombstones.
void KeySet::Flat::erase(const KeyHead &head) {
  if (!contains(head)) return;
  const std::size_t mask = slots_.size() - 1;
  std::size_t gap = place(head);
  for (std::size_t at = (gap + 1) & mask; slots_[at] != KeyHead{}; at = (at + 1) & mask) {
    if (((at - home(slots_[at])) & mask) < ((at - gap) & mask)) continue;
    slots_[gap] = slots_[at];
    gap = at;
  }
  slots_[gap] = {};
  --taken_;
}

// ---- the set

// Chosen by the top bits of the hash; the low bits choose the slot within the table.
std::size_t KeySet::table(const Key &key) {
  return group(key.head) >> (64 - kTableBits);
}

bool KeySet::contains(const Key &key) const {
  return is_flat(key) ? tables_[table(key)].contains(key.head) : others_.contains(key);
}

void KeySet::insert(const Key &key) {
  if (is_flat(key)) {
    tables_[table(key)].insert(key.head);
  } else {
    others_.insert(key);
  }
}

void KeySet::erase(const Key &key) {
  if (is_flat(key)) {
    tables_[table(key)].erase(key.head);
  } else {
    others_.erase(key);
  }
}

}  // namespace host::mom
