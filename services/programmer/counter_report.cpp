#include "programmer/counter_report.h"

#include "s_policy_kelim.pb-c.h"

namespace programmer {
namespace {

constexpr std::uint32_t kSlotsPerTurn = 256;   // then the loop runs other work
constexpr std::uint64_t kTryAgainUs = 10'000;  // wait before retrying when the database accepts no writes

}  // namespace

CounterReport::CounterReport(Context &context, KnownFlows &table, Target &target, std::uint32_t interval_ms)
    : context_(context),
      table_(table),
      target_(target),
      interval_us_(std::uint64_t{interval_ms} * 1000),
      timer_(
          context.global->master, [](void *self) { static_cast<CounterReport *>(self)->turn(); }, this, "programmer counters") {}

bool CounterReport::start() {
  return interval_us_ == 0 || timer_.arm(interval_us_);
}

void CounterReport::turn() {
  if (!in_round_) {
    in_round_ = true;
    next_slot_ = 0;
    begun_us_ = now_us();
    target_.begin_reading();
    if (!target_.counts()) next_slot_ = table_.slots();
  }
  for (std::uint32_t n = 0; n < kSlotsPerTurn && next_slot_ < table_.slots(); ++n, ++next_slot_) {
    KnownFlow &entry = table_[next_slot_];
    if (entry.state == KnownFlowState::installed && !report(entry, next_slot_)) {
      timer_.arm(kTryAgainUs);
      return;
    }
  }
  if (next_slot_ < table_.slots()) {
    timer_.arm(0);
    return;
  }
  in_round_ = false;
  tell_end();
  const std::uint64_t spent = now_us() - begun_us_;
  timer_.arm(interval_us_ > spent ? interval_us_ - spent : 0);
}

// Publishes a record without a flow behind the changes: to tell that a flow is idle, the daemon must know that its counters have
// been read, even if they did not change. The next report makes up for a lost one.
void CounterReport::tell_end() {
  SPolicyKelim__FlowKey nothing = S_POLICY_KELIM__FLOW_KEY__INIT;
  SPolicyKelim__FlowCounter record = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  record.index = &nothing;
  qx_mom_publish(context_.global, kFlowDb, &record.base, 0, 0);
}

// False when the database accepts no writes now; the change is then reported later.
bool CounterReport::report(KnownFlow &entry, std::uint32_t slot) {
  Counters sums = entry.sums;
  target_.read_counters(slot, sums);
  if (sums == entry.sums) return true;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = entry.index;
  key.vsd_id = entry.vsd;
  SPolicyKelim__FlowCounter record = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  record.index = &key;
  record.packet_count = sums.packets - entry.sums.packets;
  record.byte_count = sums.bytes - entry.sums.bytes;
  record.packet_sum = sums.packets;
  record.byte_sum = sums.bytes;
  const int result = qx_mom_set(context_.global, kFlowDb, &record.base, 0, 0);
  if (result != 0) return result != QX_NO_ROOM && result != QX_FAILED;
  entry.sums = sums;
  entry.counted = true;
  ++written_;
  return true;
}

}  // namespace programmer
