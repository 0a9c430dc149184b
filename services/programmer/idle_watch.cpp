#include "programmer/idle_watch.h"

#include <algorithm>

#include "s_policy_kelim.pb-c.h"

namespace programmer {
namespace {

// Rounds are 0.3 s apart, so a flow is reported at most 0.6 s late, unless many flows are watched: the rounds take at most a
// twentieth of the loop's time.
constexpr std::uint64_t kBetweenLooksUs = 300'000, kPause = 20;
constexpr std::uint32_t kSlotsPerTurn = 1024;  // then the loop runs other work
constexpr std::uint8_t kMostTold = 7;          // repeated after 1, 2, 4 ... 64 s

std::uint32_t now_ms() {
  return static_cast<std::uint32_t>(now_us() / 1000);
}

std::uint32_t repeated_after_ms(std::uint8_t told) {
  return told == 0 ? 0 : 1000 * ((1U << told) - 1);
}

}  // namespace

IdleWatch::IdleWatch(Context &context, const KnownFlows &table, Target &target, bool enabled)
    : context_(context),
      table_(table),
      target_(target),
      enabled_(enabled),
      timer_(
          context.global->master, [](void *self) { static_cast<IdleWatch *>(self)->turn(); }, this, "programmer idle flows") {}

void IdleWatch::watch(std::uint32_t slot, std::uint16_t timeout_s) {
  if (!enabled_ || (timeout_s == 0 && slot >= watched_.size())) return;
  if (slot >= watched_.size()) watched_.resize(slot + 1);
  watched_[slot] = {.quiet_ms = now_ms(), .timeout_s = timeout_s};
  timer_.arm(kBetweenLooksUs);
}

void IdleWatch::turn() {
  if (next_slot_ == 0) begun_us_ = now_us();
  const std::uint32_t now = now_ms();
  const auto end = static_cast<std::uint32_t>(std::min<std::size_t>(watched_.size(), next_slot_ + kSlotsPerTurn));
  while (next_slot_ < end) look(next_slot_++, now);
  if (next_slot_ < watched_.size()) {
    timer_.arm(0);
    return;
  }
  next_slot_ = 0;
  if (std::exchange(seen_, 0) == 0) return watched_.clear();
  timer_.arm(std::max(kBetweenLooksUs, kPause * (now_us() - begun_us_)));
}

void IdleWatch::look(std::uint32_t slot, std::uint32_t now_ms) {
  Watched &flow = watched_[slot];
  if (flow.timeout_s == 0) return;
  const KnownFlow &known = table_[slot];
  if (known.state == KnownFlowState::free) {
    flow = {};
    return;
  }
  ++seen_;
  const auto packets = static_cast<std::uint32_t>(target_.matched(slot));
  if (known.state != KnownFlowState::installed || packets != flow.packets)
    flow = {.packets = packets, .quiet_ms = now_ms, .timeout_s = flow.timeout_s};
  else if (now_ms - flow.quiet_ms >= 1000U * flow.timeout_s + repeated_after_ms(flow.told) && tell(known, slot))
    flow.told = std::min<std::uint8_t>(flow.told + 1, kMostTold);
}

// False when the database accepts no writes now.
bool IdleWatch::tell(const KnownFlow &flow, std::uint32_t slot) {
  Counters sums = flow.sums;
  target_.read_counters(slot, sums);
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = flow.index;
  key.vsd_id = flow.vsd;
  SPolicyKelim__FlowCounter record = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  record.index = &key;
  record.packet_sum = sums.packets;
  record.byte_sum = sums.bytes;
  return qx_mom_publish(context_.global, kFlowDb, &record.base, 0, 0) == 0;
}

}  // namespace programmer
