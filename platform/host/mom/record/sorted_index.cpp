#include "host/mom/record/sorted_index.h"

namespace host::mom {

namespace {

// Short keys with equal heads are equal; long ones may differ after their first 16 bytes.
bool tails_can_differ(const Key &key, const Object &object) {
  return !key.tail.empty() || object.tail_size != 0;
}

}  // namespace

std::strong_ordering SortedIndex::compare(const Block &block, std::size_t slot, const Key &key) {
  const auto by_head = block.heads[slot] <=> key.head;
  if (by_head != 0 || !tails_can_differ(key, *block.objects[slot])) return by_head;
  return block.objects[slot]->tail() <=> std::string_view(key.tail);
}

SortedIndex::Place SortedIndex::find(const Key &key) const {
  if (directory_.empty()) return {};
  // The last block that does not begin after the key. Several blocks may begin with the same head, so the search for a long key
  // steps back over equal heads.
  auto entry = std::upper_bound(directory_.begin(), directory_.end(), key.head,
                                [](const KeyHead &head, const Entry &candidate) { return head < candidate.first; });
  while (entry != directory_.begin() && entry != directory_.begin() + 1) {
    if (compare(*std::prev(entry)->block, 0, key) <= 0) break;
    --entry;
  }
  const std::size_t index = entry == directory_.begin() ? 0 : static_cast<std::size_t>(entry - directory_.begin()) - 1;
  const Block &block = *directory_[index].block;

  std::size_t low = 0;
  std::size_t high = block.count;
  while (low < high) {
    const std::size_t middle = (low + high) / 2;
    if (compare(block, middle, key) < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return {index, low, low < block.count && compare(block, low, key) == 0};
}

Key SortedIndex::key_at(const Place &place) const {
  const Block &block = *directory_[place.block].block;
  return {block.heads[place.slot], std::string(block.objects[place.slot]->tail())};
}

SortedIndex::Place SortedIndex::settle(Place place) const {
  if (place.block < directory_.size() && place.slot >= directory_[place.block].block->count) {
    ++place.block;
    place.slot = 0;
  }
  place.found = place.block < directory_.size();
  return place;
}

SortedIndex::Place SortedIndex::after(const Key &key) const {
  const Place place = find(key);
  return settle({place.block, place.slot + (place.found ? 1 : 0), true});
}

void SortedIndex::open_gap(Block &block, std::size_t slot) {
  std::move_backward(block.heads.begin() + slot, block.heads.begin() + block.count, block.heads.begin() + block.count + 1);
  std::move_backward(block.objects.begin() + slot, block.objects.begin() + block.count, block.objects.begin() + block.count + 1);
  ++block.count;
}

void SortedIndex::close_gap(Block &block, std::size_t slot) {
  std::move(block.heads.begin() + slot + 1, block.heads.begin() + block.count, block.heads.begin() + slot);
  std::move(block.objects.begin() + slot + 1, block.objects.begin() + block.count, block.objects.begin() + slot);
  --block.count;
}

void SortedIndex::add_block(std::size_t position, std::unique_ptr<Block> block) {
  const KeyHead first = block->heads[0];
  directory_.insert(directory_.begin() + position, Entry{first, std::move(block)});
}

// Makes room in a full block: a new block after it takes the upper half, or nothing when the key comes after all others, so that
// ascending keys leave full blocks behind.
SortedIndex::Place SortedIndex::split(const Place &place) {
  Block &left = *directory_[place.block].block;
  auto right = std::make_unique<Block>();
  if (place.slot == left.count && place.block + 1 == directory_.size()) {
    directory_.push_back(Entry{KeyHead{}, std::move(right)});
    return {place.block + 1, 0, false};
  }
  const std::size_t half = left.count / 2;
  std::copy(left.heads.begin() + half, left.heads.begin() + left.count, right->heads.begin());
  std::copy(left.objects.begin() + half, left.objects.begin() + left.count, right->objects.begin());
  right->count = left.count - half;
  left.count = half;
  add_block(place.block + 1, std::move(right));
  return place.slot <= half ? place : Place{place.block + 1, place.slot - half, false};
}

void SortedIndex::insert(const Place &place, const Key &key, ObjectRef object) {
  Place target = place;
  if (directory_.empty()) {
    directory_.push_back(Entry{key.head, std::make_unique<Block>()});
  } else if (directory_[place.block].block->count == kBlockMax) {
    target = split(place);
  }
  Entry &entry = directory_[target.block];
  open_gap(*entry.block, target.slot);
  entry.block->heads[target.slot] = key.head;
  entry.block->objects[target.slot] = object.release();
  entry.first = entry.block->heads[0];
  ++size_;
  ++version_;
}

ObjectRef SortedIndex::replace(const Place &place, ObjectRef object) {
  Object *&stored = directory_[place.block].block->objects[place.slot];
  return ObjectRef::adopt(std::exchange(stored, object.release()));
}

void SortedIndex::merge_into_left(std::size_t right) {
  Block &from = *directory_[right].block;
  Block &to = *directory_[right - 1].block;
  std::copy(from.heads.begin(), from.heads.begin() + from.count, to.heads.begin() + to.count);
  std::copy(from.objects.begin(), from.objects.begin() + from.count, to.objects.begin() + to.count);
  to.count += from.count;
  directory_.erase(directory_.begin() + right);
}

void SortedIndex::shrink(std::size_t block) {
  Entry &entry = directory_[block];
  if (entry.block->count == 0) {
    directory_.erase(directory_.begin() + block);
    return;
  }
  entry.first = entry.block->heads[0];
  if (entry.block->count >= kMergeBelow) return;
  const auto fits = [&](std::size_t right) {
    return right > 0 && right < directory_.size() &&
           directory_[right - 1].block->count + directory_[right].block->count <= kBlockMax / 2;
  };
  if (fits(block)) {
    merge_into_left(block);
  } else if (fits(block + 1)) {
    merge_into_left(block + 1);
  }
}

ObjectRef SortedIndex::erase(const Place &place) {
  Block &block = *directory_[place.block].block;
  ObjectRef object = ObjectRef::adopt(block.objects[place.slot]);
  close_gap(block, place.slot);
  shrink(place.block);
  --size_;
  ++version_;
  return object;
}

void SortedIndex::clear() {
  for (Entry &entry : directory_) {
    for (std::size_t slot = 0; slot < entry.block->count; ++slot) ObjectRef::adopt(entry.block->objects[slot]);
  }
  directory_.clear();
  size_ = 0;
  ++version_;
}

}  // namespace host::mom
