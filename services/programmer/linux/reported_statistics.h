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
  // The agent knows nothing, because it is another one.
  void forget() { sent_.clear(); }

 private:
  using Key = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;  // kind, id, part
  static Key key_of(const ss_pkt_statistic &row) { return {row.kind, row.id, row.part}; }
  void add_gone(const std::vector<ss_pkt_statistic> &now, std::vector<ss_pkt_statistic> &changes) const;

  std::map<Key, ss_pkt_statistic> sent_;
};

}  // namespace programmer::dataplane
