// Rate limit for one log line: at most one a second, with a count of the occasions that it stands for. One thread.
#pragma once

#include <cstdint>
#include <utility>

namespace host::log {

class RateLimit {
 public:
  // To be called at each occasion; true if the line is to be written now.
  bool due(std::int64_t now_ns) {
    ++suppressed_;
    if (written_ns_ != 0 && now_ns - written_ns_ < 1'000'000'000) return false;
    written_ns_ = now_ns;
    return true;
  }
  // Occasions since the previous line, including the present one. To be called for each line that is written.
  std::uint64_t count() { return std::exchange(suppressed_, 0); }

 private:
  std::int64_t written_ns_ = 0;
  std::uint64_t suppressed_ = 0;
};

}  // namespace host::log
