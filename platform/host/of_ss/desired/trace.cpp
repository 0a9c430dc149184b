#include "host/of_ss/desired/trace.h"

#include <algorithm>

namespace host::of_ss {
namespace {

// The command of a message with one; arbitrary bytes of others.
std::uint8_t command_of(std::uint8_t type, Bytes message) {
  const std::size_t at = type == kFlowModMsg ? fm::kCommand : kOfHeader + 1;
  return message.size() > at ? be8(message, at) : 0;
}

}  // namespace

std::vector<TraceEvent> EventRing::events() const {
  const std::size_t held = std::min<std::uint64_t>(noted_, kSize), first = (noted_ - held) % kSize;
  std::vector<TraceEvent> all;
  all.reserve(held);
  const auto from = events_.begin() + static_cast<std::ptrdiff_t>(first);
  all.insert(all.end(), from, from + static_cast<std::ptrdiff_t>(std::min(held, kSize - first)));
  all.insert(all.end(), events_.begin(), events_.begin() + static_cast<std::ptrdiff_t>(held - all.size()));
  return all;
}

std::uint32_t Trace::begin(Step step, Bytes message, std::uint16_t controller) {
  if (++begun_ == 0) ++begun_;
  const std::uint8_t type = be8(message, kOfType);
  const bool has_cookie = type == kFlowModMsg && message.size() >= fm::kCookieMask;
  ring_.note({.at_ns = now_ns_,
              .subject = has_cookie ? be64(message, fm::kCookie) : 0,
              .request = begun_,
              .xid = be32(message, kOfXid),
              .detail = controller,
              .step = step,
              .type = type,
              .command = command_of(type, message)});
  return begun_;
}

}  // namespace host::of_ss
