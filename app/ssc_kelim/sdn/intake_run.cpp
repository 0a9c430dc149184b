#include "ssc_kelim/sdn/intake_run.h"

#include "ssc_kelim/sdn/ssc_sdn_main_list.h"

// Main list, intakes and initialisation log under one source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_init.cpp"

namespace intake_run {
namespace {

void count(unsigned slot) {
  if (slot != kNone) ++sdn_opt_cnt[slot];
}

void stop_timing(const Intake &intake) {
  if (intake.timing != kNone) ssc_sdn_time_stop(intake.timing);
}

// Counts a failure, runs the intake's own reaction to it and returns the code.
std::int32_t fail(const Request &request, std::int32_t code) {
  count(request.intake.counters.failed);
  if (request.intake.failed) request.intake.failed(request, code);
  return code;
}

// The handler's data; false when memory is short.
bool copy_request(const Request &request, void *&data) {
  const Copy *copy = request.intake.copy;
  data = copy ? copy->make(request) : nullptr;
  if (copy && !data) return false;
  stop_timing(request.intake);
  if (copy && copy->fill) copy->fill(request, data);
  return true;
}

std::int32_t hand_over(const Request &request, void *data) {
  const Intake &intake = request.intake;
  if (ssc_sdn_main_pthrd_add_handler(intake.handler, data, request.vsd_id)) {
    if (intake.done) SDN_VER_AS(intake.name, "%s", intake.done);
    return 0;
  }
  SDN_LOG_AS(*intake.hand_over_fault, intake.name, "ssc sdn add main pthread fail!\n");
  if (intake.copy) intake.copy->release(data);
  return fail(request, QX_NOT_POSTED);
}

}  // namespace

std::int32_t needs_msg(const Request &request) {
  if (request.msg) return 0;
  SDN_LOG_AS(*request.intake.fault, request.intake.name, "msg = NULL");
  return QX_INVALID;
}

std::int32_t take_in(const Intake &intake, std::uint32_t vsd_id, const void *msg, std::uint32_t len) {
  const Request request{intake, vsd_id, msg, len};
  if (intake.arrived) intake.arrived(request);
  count(intake.counters.received);
  if (intake.timing != kNone) ssc_sdn_time_start(intake.timing);

  if (const std::int32_t code = intake.check ? intake.check(request) : 0; code != 0) {
    count(intake.counters.failed);
    return code;
  }
  if (intake.accepted) intake.accepted(request);

  void *data;
  if (!copy_request(request, data)) {
    SDN_LOG_AS(*intake.fault, intake.name, "%s", intake.copy->no_memory);
    return fail(request, QX_NO_MEMORY);
  }
  return hand_over(request, data);
}

}  // namespace intake_run
