#include "host/of_ss/desired/deadlines.h"

#include <algorithm>
#include <functional>

namespace host::of_ss {
namespace {

constexpr std::size_t kFew = 1024;  // stale deadlines are not looked for among so few

}  // namespace

void Deadlines::add(std::uint64_t index, std::int64_t at_ns) {
  if (heap_.size() >= std::max(limit_, kFew)) drop_stale();
  heap_.push_back({at_ns, index});
  std::ranges::push_heap(heap_, std::greater{});
}

void Deadlines::drop_stale() {
  std::erase_if(heap_, [this](const Deadline &one) { return !table_.by_index(one.index); });
  std::ranges::make_heap(heap_, std::greater{});
  limit_ = 2 * heap_.size();
}

std::vector<std::uint64_t> Deadlines::take_due(std::int64_t now_ns) {
  std::vector<std::uint64_t> due;
  while (!heap_.empty() && heap_.front().at_ns <= now_ns) {
    due.push_back(heap_.front().index);
    std::ranges::pop_heap(heap_, std::greater{});
    heap_.pop_back();
  }
  return due;
}

}  // namespace host::of_ss
