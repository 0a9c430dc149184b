// The engine of the intakes: it records a request's arrival, checks it, copies it and hands it over. Each intake is one row.
//
// Thread: service-library thread.
#pragma once

#include <cstdint>

#include "kelim/common/kelim_debug.h"
#include "libss_pthrd.h"

namespace intake_run {

inline constexpr unsigned kNone = ~0u;  // no counter, no timing slot

struct Intake;

struct Request {
  const Intake &intake;
  std::uint32_t vsd_id;
  const void *msg;
  std::uint32_t len;
};

// How the handler's data is made from the request.
struct Copy {
  void *(*make)(const Request &);                       // timed; null: out of memory, with nothing left allocated
  void (*fill)(const Request &, void *data) = nullptr;  // not timed; null if `make` does everything
  void (*release)(void *data) = ssc_sdn_free;
  const char *no_memory = "malloc happen error!";
};

// Slots of sdn_opt_cnt.
struct Counters {
  unsigned received = kNone, failed = kNone;
};

constexpr Counters counters_of(sdn_opt_group group) {
  return {group + SDN_OPT_RECEIVED, group + SDN_OPT_FAILED};
}

// The usual check: 0, or QX_INVALID with a log line if there is no message.
std::int32_t needs_msg(const Request &request);

struct Intake {
  const char *name;  // as its log lines show it
  libss_pthrd_handler handler;
  Counters counters = {};
  unsigned timing = kNone;

  // The steps, in order; null skips one.
  void (*arrived)(const Request &) = nullptr;
  std::int32_t (*check)(const Request &) = needs_msg;  // 0, or the code to refuse with, already logged
  void (*accepted)(const Request &) = nullptr;
  const Copy *copy = nullptr;                                    // null: the handler gets no data
  void (*failed)(const Request &, std::int32_t code) = nullptr;  // QX_NO_MEMORY out of memory, QX_NOT_POSTED not queued

  // Log classes: for a missing message or lack of memory, and for a request that cannot be queued.
  const kelim::LogClass *fault = &kelim::kError, *hand_over_fault = &kelim::kVer;
  const char *done = nullptr;  // VER line of success
};

// Accepts a request. 0 if it is queued, else the code of the failure.
std::int32_t take_in(const Intake &intake, std::uint32_t vsd_id, const void *msg, std::uint32_t len);

}  // namespace intake_run
