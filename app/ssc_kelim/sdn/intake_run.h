// The pattern of the intakes: they note the arrival, check, copy and hand over. What differs stands in one row an intake.
//
// Thread: service-library thread.
#pragma once

#include <cstddef>
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
  void *(*allocate)(const Request &);  // null: out of memory, with nothing left allocated
  void (*fill)(const Request &, void *data);
  void (*release)(void *data);
};

// Slots of sdn_opt_cnt.
struct Counters {
  unsigned received = kNone;
  unsigned failed = kNone;            // refused or out of memory
  unsigned failed_hand_over = kNone;  // not queued
};

constexpr Counters counters_of(sdn_opt_group group) {
  return {group + SDN_OPT_RECEIVED, group + SDN_OPT_FAILED, group + SDN_OPT_FAILED};
}

struct Intake {
  const char *name;
  libss_pthrd_handler handler;
  Counters counters = {};
  unsigned timing = kNone;

  void (*arrived)(const Request &) = nullptr;
  bool needs_msg = true;
  std::int32_t (*refused)(const Request &) = nullptr;  // 0, or the code to refuse with, after its line
  void (*accepted)(const Request &) = nullptr;
  const Copy *copy = nullptr;  // null: the handler gets no data
  std::size_t copy_at_least = 0;
  bool timed_before_fill = false;  // the time ends with the allocation, not with the copy

  const kelim::LogClass *fault = &kelim::kError;  // class of the lines about a missing message and memory
  const char *no_memory = "malloc happen error!";
  const kelim::LogClass *hand_over_fault = &kelim::kVer;
  void (*reply)(const Request &, std::int32_t code) = nullptr;  // null: the controller side hears nothing
  bool replies_to_refusal = false;
  const char *done = nullptr;  // VER line of success
};

// Takes a request in. 0 queued, or the code that it failed with.
std::int32_t take_in(const Intake &intake, std::uint32_t vsd_id, const void *msg, std::uint32_t len);

}  // namespace intake_run
