#include "host/of_ss/switch/statistics.h"

#include <cstring>

namespace host::of_ss {
namespace {

constexpr std::size_t kMostRows = 65'536;

}  // namespace

void Statistics::take(Bytes report) {
  reported_ = true;
  for (ss_pkt_statistic row; report.size() >= sizeof row; report = report.subspan(sizeof row)) {
    std::memcpy(&row, report.data(), sizeof row);
    const Key key{std::uint64_t{row.kind} << 32 | row.id, row.part};
    if (row.gone)
      rows_.erase(key);
    else if (rows_.size() < kMostRows || rows_.contains(key))
      rows_[key] = row;
  }
}

ss_pkt_statistic Statistics::of(std::uint32_t kind, std::uint32_t id, std::uint32_t part) const {
  const auto found = rows_.find(Key{std::uint64_t{kind} << 32 | id, part});
  if (found != rows_.end()) return found->second;
  const std::uint64_t count = reported_ ? 0 : kUnknown;
  return {.kind = kind, .id = id, .part = part, .gone = 0, .packets = count, .bytes = count, .other = count};
}

}  // namespace host::of_ss
