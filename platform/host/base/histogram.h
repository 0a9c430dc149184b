// A histogram of durations with fixed buckets. Adding a value costs a short search and two additions: no lock, no memory. It
// belongs to one thread.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace host {

class Histogram {
 public:
  // Upper bounds in microseconds; longer values go into a last bucket without a bound.
  static constexpr std::array<std::int64_t, 15> kBoundsUs = {
      100, 250, 500, 1'000, 2'500, 5'000, 10'000, 25'000, 50'000, 100'000, 250'000, 1'000'000, 2'500'000, 5'000'000, 10'000'000};

  void observe(std::chrono::nanoseconds took) {
    const std::int64_t us = took.count() / 1000;
    std::size_t bucket = 0;
    while (bucket < kBoundsUs.size() && us > kBoundsUs[bucket]) ++bucket;
    ++counts_[bucket];
    sum_us_ += static_cast<std::uint64_t>(us < 0 ? 0 : us);
  }

  const std::array<std::uint64_t, kBoundsUs.size() + 1> &counts() const { return counts_; }
  std::uint64_t sum_us() const { return sum_us_; }

 private:
  std::array<std::uint64_t, kBoundsUs.size() + 1> counts_{};
  std::uint64_t sum_us_ = 0;
};

}  // namespace host
