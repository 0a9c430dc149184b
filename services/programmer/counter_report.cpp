#include "programmer/counter_report.h"

#include "s_policy_kelim.pb-c.h"

namespace programmer {
namespace {

constexpr std::uint32_t kSlotsPerTurn = 256;   // then the loop runs other work
constexpr std::uint64_t kTryAgainUs = 10'000;  // wait before retrying when the database accepts no writes
// At most 4,000 records a second: every one is a write to the database and a notification to each of its readers.
constexpr std::uint64_t kSliceUs = 50'000, kWritesPerSlice = 200;

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
  const std::uint64_t spent = now_us() - begun_us_;
  timer_.arm(interval_us_ > spent ? interval_us_ - spent : 0);
}

// Limits the records written in each slice of time.
bool CounterReport::may_write() {
  const std::uint64_t now = now_us();
  if (now - slice_began_us_ >= kSliceUs) {
    slice_began_us_ = now;
    slice_writes_ = 0;
  }
  return slice_writes_ < kWritesPerSlice;
}

// False when the record may not be written now; the change is then reported later.
bool CounterReport::report(KnownFlow &entry, std::uint32_t slot) {
  Counters sums = entry.sums;
  target_.read_counters(slot, sums);
  if (sums == entry.sums) return true;
  if (!may_write()) return false;
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
  ++slice_writes_;
  return true;
}

}  // namespace programmer
