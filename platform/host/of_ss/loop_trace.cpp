#include "host/of_ss/loop_trace.h"

#include "host/base/timer.h"
#include "host/mom/hub.h"
#include "s_policy_kelim.pb-c.h"

namespace host::of_ss::loop_trace {
namespace {

// The number of events in a turn of the loop that share one reading of the clock.
constexpr unsigned kEventsAReading = 16;

std::int64_t g_now_ns = 0;
unsigned g_left = 0;  // events for which the reading is still valid

// Not destroyed by exit(), with which the daemon may end.
EventRing &events() {
  static auto &ring = *new EventRing;
  return ring;
}

Timer &next_turn() {
  static Timer timer([] { g_left = 0; });
  return timer;
}

std::int64_t now_ns() {
  if (g_left == 0) {
    g_now_ns = clock::now().count();
    g_left = next_turn().armed() || next_turn().arm(clock::Time::zero()) ? kEventsAReading : 1;
  }
  --g_left;
  return g_now_ns;
}

void note(Step step, std::uint64_t index, std::uint32_t detail) {
  events().note({.at_ns = now_ns(), .subject = index, .detail = detail, .step = step});
}

template <typename Record>
void wrote(const mom::Slot &slot, const ProtobufCMessage &message, bool deletes, int result) {
  const auto *key = reinterpret_cast<const Record &>(message).index;
  if (!key) return;
  if (result != 0)
    note(Step::not_written, key->flow_index, static_cast<std::uint32_t>(result));
  else
    note(deletes ? Step::erased : Step::written, key->flow_index, static_cast<std::uint32_t>(slot.db.number));
}

void look_on(std::int32_t db, const ProtobufCMessageDescriptor &record, mom::Slot::Wrote wrote_record) {
  mom::Hub *hub = mom::hub();
  if (hub) hub->slot(*hub->database(db), *mom::RecordType::of(&record)).wrote = wrote_record;
}

}  // namespace

void start() {
  look_on(QX_MOM_UDP_DB, s_policy_kelim__flow__descriptor, wrote<SPolicyKelim__Flow>);
  look_on(QX_MOM_APP_DB, s_policy_kelim__parse_flow__descriptor, wrote<SPolicyKelim__ParseFlow>);
}

void answered(std::uint64_t index, std::optional<std::uint32_t> status) {
  note(status ? Step::answered : Step::answer_erased, index, status.value_or(0));
}

const EventRing &ring() {
  return events();
}

}  // namespace host::of_ss::loop_trace
