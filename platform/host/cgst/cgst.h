// Congestion control: counts, per record type, the writes in flight to the database or to subscribers, and enforces limits.
// Loop's thread.
//
// A write is in flight from its acceptance until every subscriber has seen it (embedded store) or the server has answered
// (Redis). Deletions are counted but never refused: they free more than they hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace host::cgst {

// 0 means no limit.
struct Limits {
  std::uint64_t writes = 0;
  std::uint64_t bytes = 0;
};

struct Load {
  std::uint64_t writes = 0;
  std::uint64_t bytes = 0;
  std::uint64_t high_writes = 0;
  std::uint64_t high_bytes = 0;
  std::uint64_t refused = 0;  // over the limit
  std::uint64_t total = 0;    // accepted since the start

  bool admits(std::size_t size, const Limits &limits) const {
    return (!limits.writes || writes < limits.writes) && (!limits.bytes || bytes + size <= limits.bytes);
  }
  void add(std::size_t size);
  void remove(std::size_t size, std::size_t count);
};

class Topic {
 public:
  // True when the write may proceed; false counts it as refused. It is in flight only from take() on.
  bool admit(std::size_t size);
  void take(std::size_t size);
  // `count` writes of `size` bytes together.
  void release(std::size_t size, std::size_t count = 1);

  // Gives a registered topic its own limit beside the pipeline's.
  void enrol() { enrolled_ = true; }
  bool enrolled() const { return enrolled_; }
  const Load &load() const { return load_; }

 private:
  Load load_;
  bool enrolled_ = false;
};

// The sum over all topics, and the limits in force.
const Load &pipeline();
void set_limits(const Limits &topic, const Limits &pipeline);

// Resets loads and limits at the runtime's end.
void reset();

}  // namespace host::cgst
