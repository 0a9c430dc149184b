#include "host/of_ss/desired/in_flight_log.h"

#include <algorithm>

namespace host::of_ss {
namespace {

// Capacity kept for the next burst, in entries of about 130 bytes; the rest is released once everything is decided.
constexpr std::size_t kKeptRoom = 4096;

}  // namespace

void InFlightLog::expect(std::uint64_t index, const Origin &origin, Bytes request, bool same_request, std::int64_t now_ns) {
  if (!same_request) ++request_;
  const std::size_t kept = std::min(request.size(), sizeof Pending::request_head);
  Pending &pending = pending_.emplace_back();
  pending.index = index;
  pending.number = ++handed_;
  pending.request = request_;
  pending.since_ns = now_ns;
  pending.origin = origin;
  pending.request_len = static_cast<std::uint8_t>(kept);
  if (kept) std::memcpy(pending.request_head, request.data(), kept);
}

void InFlightLog::barrier_sent(const BarrierTag &tag, const Origin &origin, std::int64_t now_ns) {
  barriers_.push_back({handed_, tag, origin, now_ns});
}

Pending *InFlightLog::find(std::uint64_t index) {
  const auto at = std::lower_bound(pending_.begin() + static_cast<std::ptrdiff_t>(head_), pending_.end(), index,
                                   [](const Pending &pending, std::uint64_t i) { return pending.index < i; });
  return at != pending_.end() && at->index == index ? &*at : nullptr;
}

void InFlightLog::answer(Pending &pending) {
  const auto mark = [&](auto at, auto end) {
    for (; at != end && at->request == pending.request; ++at) at->answered = true;
  };
  const auto here = pending_.begin() + (&pending - pending_.data());
  mark(here, pending_.end());
  mark(std::make_reverse_iterator(here), std::make_reverse_iterator(pending_.begin() + static_cast<std::ptrdiff_t>(head_)));
}

void InFlightLog::shrink() {
  if (head_ == pending_.size()) {
    pending_.clear();
    head_ = 0;
    if (pending_.capacity() > kKeptRoom) pending_.shrink_to_fit();
  } else if (head_ > kKeptRoom && head_ > pending_.size() / 2) {
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
}

}  // namespace host::of_ss
