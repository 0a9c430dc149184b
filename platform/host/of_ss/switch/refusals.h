// Refuses requests: answers them, keeps the latest for the operator, counts them by error. Openflow thread.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "host/log/rate_limit.h"
#include "host/of_ss/net/connection.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

struct RefusalRecord {
  std::int64_t when_ns;
  std::string peer;
  std::uint32_t xid;
  Verdict verdict;
  std::vector<std::byte> request;  // its first bytes
};

// The number of times each error was sent.
using ErrorCounts = std::map<const Error *, std::uint64_t>;

class Refusals {
 public:
  // Sends the error and records the refusal.
  void refuse(Connection &connection, const Verdict &verdict, Bytes request, std::int64_t now_ns);

  // Oldest first.
  const std::deque<RefusalRecord> &latest() const { return latest_; }
  std::uint64_t total() const { return total_; }
  const ErrorCounts &counts() const { return counts_; }

 private:
  std::deque<RefusalRecord> latest_;
  std::uint64_t total_ = 0;
  ErrorCounts counts_;
  log::RateLimit line_;
};

}  // namespace host::of_ss
