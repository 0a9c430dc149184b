// The statistics that the agent has been told, so that only changes are sent. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "libss_pkt.h"

namespace programmer::dataplane {

class ReportedStatistics {
 public:
  // Sends the rows that differ from those sent before, and those that have gone; what the path does not take now is sent next
  // time.
  void send(ss_pkt_path *path, const std::vector<ss_pkt_statistic> &now);
  // The agent may be another one, which knows nothing: everything is sent again. If it is the same, it is still told of what has
  // gone.
  void forget();

 private:
  using Key = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;  // kind, id, part
  static Key key_of(const ss_pkt_statistic &row) { return {row.kind, row.id, row.part}; }
  void add_gone(const std::vector<ss_pkt_statistic> &now, std::vector<ss_pkt_statistic> &changes) const;

  std::map<Key, ss_pkt_statistic> sent_;  // kind 0: to be sent again
};

}  // namespace programmer::dataplane
