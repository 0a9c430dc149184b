// The trace: events of the latest requests and flows, for operators (trace_view.h).
//
// An event is a few plain words in a ring, in which the newest replaces the oldest: nothing is allocated, locked or formatted
// until the trace is queried. The openflow thread and the loop's thread (loop_trace.h) have separate rings.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// Kinds of event, with the contents of `subject` and `detail` in parentheses.
enum class Step : std::uint8_t {
  // Of a request.
  received,        // (cookie of a flow-mod; number of the controller's address)
  from_bundle,     // the same, of a flow-mod whose bundle is committed
  refused,         // (; error)
  carried_out,     // at once, without the daemon
  error_sent,      // an accepted request failed (; error)
  barrier_handed,  // to the daemon, which answers it
  barrier_answered,
  // Of a flow (its index).
  unchanged,    // requested again
  handed_over,  // a new form of it
  made_room,    // its deletion is handed over ahead of its new form
  replaced,     // its deletion is handed over, its new form is installed
  removed,      // (index; RemovedReason)
  result,       // the daemon reports a failure (index; the daemon's code)
  installed,
  failed,       // (index; error)
  given_up,     // without an answer
  tried_again,  // under a new index
  // Of a flow's records, on the loop's thread.
  written,      // (index; database)
  not_written,  // (index; result of the call)
  erased,       // (index; database)
  answered,     // by the programming service (index; status)
  answer_erased,
};
inline constexpr Step kFirstOfFlow = Step::unchanged, kFirstOfLoop = Step::written;

struct TraceEvent {
  std::int64_t at_ns = 0;  // host clock at the turn of the loop
  std::uint64_t subject = 0;
  std::uint32_t request = 0;  // number of its request; 0: none
  std::uint32_t xid = 0;
  std::uint32_t detail = 0;
  Step step{};
  std::uint8_t type = 0, command = 0;  // of a request's message
};
static_assert(sizeof(TraceEvent) == 32);

// The events of one thread.
class EventRing {
 public:
  static constexpr std::size_t kSize = 1 << 14;

  void note(const TraceEvent &event) { events_[noted_++ % kSize] = event; }
  // All events, oldest first.
  std::vector<TraceEvent> events() const;
  bool has_forgotten() const { return noted_ > kSize; }

 private:
  std::vector<TraceEvent> events_ = std::vector<TraceEvent>(kSize);
  std::uint64_t noted_ = 0;
};

inline std::uint32_t error_number(const Error &error) {
  return std::uint32_t{error.type} << 16 | error.code;
}

// The openflow thread's events. It is given the time, and knows the current request.
class Trace {
 public:
  void set_time(std::int64_t now_ns) { now_ns_ = now_ns; }

  // Begins a request; returns its number, which is not 0.
  std::uint32_t begin(Step step, Bytes message, std::uint16_t controller);
  // Events belong to that request during its life; 0: to none.
  class During {
   public:
    During(Trace &trace, std::uint32_t request) : trace_(trace), before_(std::exchange(trace.request_, request)) {}
    ~During() { trace_.request_ = before_; }
    During(const During &) = delete;
    During &operator=(const During &) = delete;

   private:
    Trace &trace_;
    const std::uint32_t before_;
  };
  std::uint32_t request() const { return request_; }

  // Note an event of the current request, or of an earlier one.
  void note(Step step, std::uint64_t subject = 0, std::uint32_t detail = 0) { note_of(request_, 0, step, subject, detail); }
  void note_of(std::uint32_t request, std::uint32_t xid, Step step, std::uint64_t subject = 0, std::uint32_t detail = 0) {
    ring_.note({.at_ns = now_ns_, .subject = subject, .request = request, .xid = xid, .detail = detail, .step = step});
  }

  const EventRing &ring() const { return ring_; }

 private:
  EventRing ring_;
  std::int64_t now_ns_ = 0;
  std::uint32_t request_ = 0, begun_ = 0;
};

}  // namespace host::of_ss
