// What happened to the latest requests and flows, for an operator who asks (trace_view.h).
//
// An event is a few plain words in a ring, in which the newest takes the place of the oldest: nothing is allocated, locked or
// formatted before somebody asks. The openflow thread has a ring of its own, and the loop's thread has one (loop_trace.h).
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// What an event says; what its `subject` and `detail` hold stands in parentheses.
enum class Step : std::uint8_t {
  // Of a request.
  received,        // (cookie of a flow-mod; number of the controller's address)
  from_bundle,     // the same, of a flow-mod whose bundle is committed
  refused,         // (; error)
  carried_out,     // at once, without the daemon
  error_sent,      // what had been accepted failed (; error)
  barrier_handed,  // the daemon answers it
  barrier_answered,
  // Of a flow (its index).
  unchanged,    // asked for once more
  handed_over,  // a new form of it
  made_room,    // its deletion is handed over before its new form is
  replaced,     // its deletion is handed over, its new form is installed
  removed,      // (index; RemovedReason)
  result,       // the daemon says that it failed (index; the daemon's code)
  installed,
  failed,       // (index; error)
  given_up,     // nobody answers for it
  tried_again,  // under a new index
  // Of a flow's records, on the loop's thread.
  written,      // (index; database)
  not_written,  // (index; result of the call)
  erased,       // (index; database)
  answered,     // the programming service says (index; status)
  answer_erased,
};
inline constexpr Step kFirstOfFlow = Step::unchanged, kFirstOfLoop = Step::written;

struct TraceEvent {
  std::int64_t at_ns = 0;  // host clock, of the turn of the loop that it happened in
  std::uint64_t subject = 0;
  std::uint32_t request = 0;  // which one it belongs to; 0: none
  std::uint32_t xid = 0;
  std::uint32_t detail = 0;
  Step step{};
  std::uint8_t type = 0, command = 0;  // of a request's message
};
static_assert(sizeof(TraceEvent) == 32);

// One thread's.
class EventRing {
 public:
  static constexpr std::size_t kSize = 1 << 14;

  void note(const TraceEvent &event) { events_[noted_++ % kSize] = event; }
  // All that it holds, the oldest first.
  std::vector<TraceEvent> events() const;
  bool has_forgotten() const { return noted_ > kSize; }

 private:
  std::vector<TraceEvent> events_ = std::vector<TraceEvent>(kSize);
  std::uint64_t noted_ = 0;
};

inline std::uint32_t error_number(const Error &error) {
  return std::uint32_t{error.type} << 16 | error.code;
}

// The openflow thread's events. It is told the time, and knows which request is being worked on.
class Trace {
 public:
  void set_time(std::int64_t now_ns) { now_ns_ = now_ns; }

  // A request begins; its number, which is not 0.
  std::uint32_t begin(Step step, Bytes message, std::uint16_t controller);
  // Events belong to that request for as long as this lives; 0: to none.
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

  // Of the present request, and of an earlier one.
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
