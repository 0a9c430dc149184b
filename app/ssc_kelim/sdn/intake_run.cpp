#include "ssc_kelim/sdn/intake_run.h"

#include "ssc_kelim/sdn/ssc_sdn_main_list.h"

// The log knows list, intakes and initialisation as one source.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_init.cpp"

namespace intake_run {
namespace {

void count(unsigned slot) {
  if (slot != kNone) sdn_opt_cnt[slot]++;
}

void stop_timing(const Intake &intake) {
  if (intake.timing != kNone) ssc_sdn_time_stop(intake.timing);
}

void reply(const Request &request, std::int32_t code) {
  if (request.intake.reply != nullptr) request.intake.reply(request, code);
}

// The handler's data; false when memory is short.
bool copy_request(const Request &request, void *&data) {
  const Intake &intake = request.intake;
  data = intake.copy != nullptr ? intake.copy->allocate(request) : nullptr;
  if (intake.copy != nullptr && data == nullptr) return false;
  if (intake.timed_before_fill) stop_timing(intake);
  if (intake.copy != nullptr) intake.copy->fill(request, data);
  if (!intake.timed_before_fill) stop_timing(intake);
  return true;
}

// 0, or the code of a request that must not be queued.
std::int32_t check(const Request &request) {
  const Intake &intake = request.intake;
  if (intake.needs_msg && request.msg == nullptr) {
    SDN_LOG_AS(*intake.fault, intake.name, "msg = NULL");
    return -4;
  }
  const std::int32_t code = intake.refused != nullptr ? intake.refused(request) : 0;
  if (code != 0 && intake.replies_to_refusal) reply(request, code);
  return code;
}

std::int32_t hand_over(const Request &request, void *data) {
  const Intake &intake = request.intake;
  if (ssc_sdn_main_pthrd_add_handler(intake.handler, data, request.vsd_id) != nullptr) {
    if (intake.done != nullptr) SDN_VER_AS(intake.name, "%s", intake.done);
    return 0;
  }
  SDN_LOG_AS(*intake.hand_over_fault, intake.name, "ssc sdn add main pthread fail!\n");
  if (intake.copy != nullptr) intake.copy->release(data);
  count(intake.counters.failed_hand_over);
  reply(request, -11);
  return -11;
}

}  // namespace

std::int32_t take_in(const Intake &intake, std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  const Request request{intake, vsd_id, msg, len};
  if (intake.arrived != nullptr) intake.arrived(request);
  count(intake.counters.received);
  if (intake.timing != kNone) ssc_sdn_time_start(intake.timing);

  if (const std::int32_t code = check(request); code != 0) {
    count(intake.counters.failed);
    return code;
  }
  if (intake.accepted != nullptr) intake.accepted(request);

  void *data;
  if (!copy_request(request, data)) {
    SDN_LOG_AS(*intake.fault, intake.name, "%s", intake.no_memory);
    count(intake.counters.failed);
    reply(request, -2);
    return -2;
  }
  return hand_over(request, data);
}

}  // namespace intake_run
