#include "host/mom/key_set.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace mom {
namespace {

// Keys that share slots: few groups of neighbours, other second words, texts, and the key of nothing but zeros.
Key some_key(std::mt19937 &random) {
  Key key{{random() % 40 + (random() % 8 << 20), random() % 3}, ""};
  if (random() % 16 == 0) key.tail = "behind";
  return random() % 64 == 0 ? Key{} : key;
}

TEST(MomKeySet, HoldsWhatWasInsertedAndNotErased) {
  std::mt19937 random(7);
  KeySet set;
  std::set<Key> expected;
  for (int step = 0; step < 200'000; ++step) {
    const Key key = some_key(random);
    ASSERT_EQ(set.contains(key), expected.contains(key)) << step;
    if (random() % 2 == 0) {
      set.insert(key);
      expected.insert(key);
    } else {
      set.erase(key);
      expected.erase(key);
    }
    if (step % 50'000 == 49'999) {
      set.clear();
      expected.clear();
    }
  }
}

}  // namespace
}  // namespace mom
