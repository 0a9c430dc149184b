// Fixed inputs of a fuzzer, run by every build.
#pragma once

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

inline std::vector<std::byte> text(std::string_view words) {
  const auto *at = reinterpret_cast<const std::byte *>(words.data());
  return {at, at + words.size()};
}

inline void run(const std::vector<std::byte> &input) {
  EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.data()), input.size()), 0);
}

// Runs the input whole, cut at every length, and with every byte changed to a few values.
inline void run_around(const std::vector<std::byte> &whole) {
  for (auto end = whole.begin(); end <= whole.end(); ++end) run({whole.begin(), end});
  for (std::size_t at = 0; at < whole.size(); ++at)
    for (const int change : {0x01, 0x10, 0x80, 0xff}) {
      std::vector<std::byte> bytes = whole;
      bytes[at] ^= std::byte(change);
      run(bytes);
    }
}
