#include "host/mom/record/key_set.h"

#include <utility>

namespace host::mom {
namespace {

constexpr std::size_t kSmallest = 16;
constexpr std::uint64_t kNeighbours = 63;  // keys that differ only in these bits of their first word are neighbours

std::uint64_t mixed(std::uint64_t word) {
  word = (word ^ (word >> 32)) * 0xd6e8feb86659fd93U;
  return word ^ (word >> 32);
}

KeyHead first_neighbour(const KeyHead &head) {
  return {head.high & ~kNeighbours, head.low};
}

std::uint64_t bit(const KeyHead &head) {
  return std::uint64_t{1} << (head.high & kNeighbours);
}

std::uint64_t hash(const KeyHead &first) {
  return mixed(first.high * 0x9e3779b97f4a7c15U ^ first.low);
}

}  // namespace

// ---- one table

std::size_t KeySet::Flat::home(const KeyHead &first) const {
  return hash(first) & (slots_.size() - 1);
}

// The slot of the neighbours, or the free slot where it belongs.
std::size_t KeySet::Flat::place(const KeyHead &first) const {
  std::size_t at = home(first);
  while (slots_[at].present != 0 && slots_[at].first != first) at = (at + 1) & (slots_.size() - 1);
  return at;
}

bool KeySet::Flat::contains(const KeyHead &head) const {
  return !slots_.empty() && (slots_[place(first_neighbour(head))].present & bit(head)) != 0;
}

void KeySet::Flat::insert(const KeyHead &head) {
  if (2 * (taken_ + 1) > slots_.size()) grow();
  const KeyHead first = first_neighbour(head);
  Neighbours &slot = slots_[place(first)];
  taken_ += slot.present == 0;
  slot.first = first;
  slot.present |= bit(head);
}

void KeySet::Flat::grow() {
  const std::vector<Neighbours> before =
      std::exchange(slots_, std::vector<Neighbours>(slots_.empty() ? kSmallest : 2 * slots_.size()));
  for (const Neighbours &slot : before) {
    if (slot.present != 0) slots_[place(slot.first)] = slot;
  }
}

void KeySet::Flat::erase(const KeyHead &head) {
  if (!contains(head)) return;
  const std::size_t at = place(first_neighbour(head));
  slots_[at].present &= ~bit(head);
  if (slots_[at].present != 0) return;
  --taken_;
  close_gap(at);
}

// Moves back each later slot of the run that may fill the gap, so that searches need no tombstones.
void KeySet::Flat::close_gap(std::size_t gap) {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = (gap + 1) & mask; slots_[at].present != 0; at = (at + 1) & mask) {
    if (((at - home(slots_[at].first)) & mask) < ((at - gap) & mask)) continue;
    slots_[gap] = slots_[at];
    gap = at;
  }
  slots_[gap] = {};
}

// ---- the set

// Chosen by the top bits of the hash; the low bits choose the slot within the table.
std::size_t KeySet::table(const Key &key) {
  return hash(first_neighbour(key.head)) >> (64 - kTableBits);
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
