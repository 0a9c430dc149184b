#include "programmer/linux/reported_statistics.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <span>

namespace programmer::dataplane {
namespace {

bool same(const ss_pkt_statistic &a, const ss_pkt_statistic &b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

void ReportedStatistics::forget() {
  for (auto &[key, row] : sent_) row.kind = 0;
}

void ReportedStatistics::add_gone(const std::vector<ss_pkt_statistic> &now, std::vector<ss_pkt_statistic> &changes) const {
  std::set<Key> there;
  for (const ss_pkt_statistic &row : now) there.insert(key_of(row));
  for (const auto &[key, row] : sent_)
    if (const auto &[kind, id, part] = key; !there.contains(key)) changes.push_back({kind, id, part, 1, 0, 0, 0});
}

void ReportedStatistics::send(ss_pkt_path *path, const std::vector<ss_pkt_statistic> &now) {
  std::vector<ss_pkt_statistic> changes;
  std::ranges::copy_if(now, std::back_inserter(changes), [this](const ss_pkt_statistic &row) {
    const auto before = sent_.find(key_of(row));
    return before == sent_.end() || !same(before->second, row);
  });
  add_gone(now, changes);
  for (std::span rest(changes); !rest.empty();) {
    const auto part = rest.first(std::min<std::size_t>(rest.size(), SS_PKT_STATISTICS_MAX));
    if (ss_pkt_path_statistics(path, part.data(), static_cast<std::uint32_t>(part.size())) != 0) return;
    for (const ss_pkt_statistic &row : part) {
      if (row.gone != 0)
        sent_.erase(key_of(row));
      else
        sent_[key_of(row)] = row;
    }
    rest = rest.subspan(part.size());
  }
}

}  // namespace programmer::dataplane
