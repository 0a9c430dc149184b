#include "host/base/blocks.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

namespace {

struct Held {
  unsigned char *bytes;
  std::size_t size;
  unsigned char content;

  bool is_whole() const {
    return std::all_of(bytes, bytes + size, [this](unsigned char byte) { return byte == content; });
  }
};

TEST(Blocks, DoNotOverlapAndGiveTheirMemoryBack) {
  constexpr std::size_t kSizes[] = {1, 16, 17, 257, 270, 272, 1024, 1025};  // of four classes, and one without chunks
  const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  std::mt19937 random(7);
  std::vector<Held> held;
  host::Blocks blocks;
  const auto release_some = [&](std::size_t left) {
    std::shuffle(held.begin(), held.end(), random);
    for (; held.size() > left; held.pop_back()) {
      ASSERT_TRUE(held.back().is_whole()) << held.back().size;
      host::Blocks::release(held.back().bytes, held.back().size);
    }
  };
  for (const std::size_t left : {15'000, 20'000, 100, 0}) {
    for (int n = 0; n < 20'000; ++n) {
      const std::size_t size = kSizes[random() % std::size(kSizes)];
      auto *bytes = static_cast<unsigned char *>(blocks.allocate(size));
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(bytes) % 16, 0u);
      held.push_back({bytes, size, static_cast<unsigned char>(random())});
      std::memset(bytes, held.back().content, size);
    }
    release_some(left);
  }
  held = {};
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + 3'000'000) << "a chunk is left for each class";
}

}  // namespace
