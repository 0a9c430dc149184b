// The data plane's packet and byte counts of tables, meters, bands and queues, which it reports about once a second
// (libss_pkt.h). Openflow thread.
#pragma once

#include <cstdint>
#include <map>
#include <utility>

#include "host/of_ss/wire/wire.h"
#include "libss_pkt.h"

namespace host::of_ss {

inline constexpr std::uint64_t kUnknown = ~std::uint64_t{0};  // a counter that the switch does not have (7.3.5)

class Statistics {
 public:
  // Takes a report: an array of ss_pkt_statistic. Rows beyond a bound are ignored.
  void take(Bytes report);

  // The latest counts: kUnknown before the first report, afterwards 0 for anything not reported.
  ss_pkt_statistic of(std::uint32_t kind, std::uint32_t id, std::uint32_t part = 0) const;
  // Calls `visit` with each row of the kind, in the order of `id` and `part`.
  template <typename Visit>
  void each(std::uint32_t kind, Visit &&visit) const {
    for (auto at = rows_.lower_bound(Key{std::uint64_t{kind} << 32, 0}); at != rows_.end() && at->second.kind == kind; ++at)
      visit(at->second);
  }

 private:
  using Key = std::pair<std::uint64_t, std::uint32_t>;  // kind << 32 | id, part
  std::map<Key, ss_pkt_statistic> rows_;
  bool reported_ = false;
};

}  // namespace host::of_ss
