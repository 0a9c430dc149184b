// Acts on flow requests: keeps the desired flows, hands changes to the daemon and tracks their outcome.
//
// A flow is sent, then installed or failed. The daemon reports failures; success follows from an answered barrier, so the flows
// add their own barriers behind their hand-overs. A changed flow is handed over under a new index and the old one is deleted only
// when the new one is installed; in a full table, without room for both, the old one is deleted first and put back if the new one
// fails. Openflow thread only. Times are monotonic nanoseconds, passed in by the caller.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/base/histogram.h"
#include "host/of_ss/desired/deadlines.h"
#include "host/of_ss/desired/flow_mod.h"
#include "host/of_ss/desired/flow_table.h"
#include "host/of_ss/desired/in_flight_log.h"
#include "host/of_ss/desired/southbound_client.h"
#include "host/of_ss/desired/trace.h"

namespace host::of_ss {

// The requester of a change. Each request has its own number; generation 0 means no controller.
struct Author {
  Origin origin = {};
  std::uint64_t request = 0;
};

enum class FlowEvent {
  added,
  deleted,
  modified,
  unchanged,     // an add of the same flow
  brought_back,  // its newer form has failed
};

struct FlowChange {
  FlowEvent event;
  RemovedReason reason;  // of a deletion
  Author author;
};

// Events for the controllers' side.
class FlowEvents {
 public:
  // A request failed after it had been accepted; `request` holds its first 64 bytes.
  virtual void flow_failed(const Origin &origin, const Error &error, Bytes request) = 0;
  // A flow was removed: by a delete, by a timeout, or because it failed after it had been installed.
  virtual void flow_removed(const FlowEntry &flow, RemovedReason reason) = 0;
  // While the flows are watched: a request or a failure has changed a flow. A transaction reports its changes when they are kept.
  virtual void flow_changed(const FlowEntry &flow, const FlowChange &change) = 0;
  // Generation 0 means one of the flows' own barriers, with the number returned by fence.
  virtual void barrier_answered(const Origin &origin) = 0;
  // These adds have passed their deadline without a barrier reply. Flows::overdue_checked is to be called with those that the
  // database shows as installed; the others are then given up.
  virtual void overdue(std::vector<std::uint64_t> indexes) = 0;

 protected:
  ~FlowEvents() = default;
};

struct FlowLimits {
  std::uint32_t capacity = 0;
  std::uint32_t window = 65536;                    // undecided hand-overs, and barriers, beyond which requests wait
  std::int64_t decide_timeout_ns = 2'000'000'000;  // an undecided add is given up after this time
};

// A failure after the request had been accepted, for the operator.
struct LateFailure {
  std::uint64_t index;
  std::uint8_t table_id;
  std::uint16_t priority;
  std::string match;
  const Error *error;
};

struct FlowCounters {
  std::uint64_t added = 0, removed = 0, failed = 0, timed_out = 0, unchanged = 0;
  std::uint64_t left = 0;               // failures without meaning, while a database was away
  std::uint64_t duplicate_results = 0;  // results of flows already answered or unknown
  std::uint64_t changed_in_place = 0;   // in a full table
  std::uint64_t own_barriers = 0, lost_barriers = 0, retried = 0, replays = 0;
  std::uint32_t latency_max_us = 0;
  std::uint64_t latency_sum_us = 0, decided = 0;
};

class Flows {
 public:
  Flows(const Callbacks &callbacks, FlowEvents &events, Trace &trace, const FlowLimits &limits)
      : client_(callbacks), events_(events), trace_(trace), limits_(limits) {}

  // Carries out a request that decode_flow_mod has accepted. `request` is the OpenFlow message.
  Verdict apply(const FlowMod &mod, const Origin &origin, Bytes request, std::int64_t now);
  // A controller's barrier: goes through the daemon if something is undecided or an earlier one of the same connection `waits`,
  // otherwise it is answered at once.
  void barrier(const BarrierTag &tag, const Origin &origin, bool waits, std::int64_t now);
  // Notes a hand-over that is not a flow's, so that barriers wait for it.
  void note_handover() { in_flight_.note(); }
  // Deletes the flows that use the meter; kMeterAll: any meter.
  void remove_users_of_meter(std::uint32_t meter_id);
  // The same for a meter that has failed: requesters of undecided flows are told that the meter is unknown.
  void fail_users_of_meter(std::uint32_t meter_id);
  // Deletes the flows that refer to the group, with reason OFPRR_GROUP_DELETE; kGroupAll: any group.
  void remove_users_of_group(std::uint32_t group);
  // Deletes every flow, and on the daemon's side every meter too; the caller removes its own meters.
  void remove_everything();

  // Replies of the daemon.
  void flow_result(Bytes reply, std::int64_t now);
  // The programming service's answer for a failed flow (results.h); precedes the daemon's result, if any.
  void flow_answer(Bytes answer, std::int64_t now);
  void barrier_reply(Bytes reply, std::int64_t now);
  void capacity(std::uint32_t flows) { told_capacity_ = flows; }
  // Counters of one index: totals, and changes.
  void counted(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes);
  void count_more(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes);
  // The programming service reports that the flow has matched nothing for its idle timeout. A report may be ignored, because the
  // service repeats it while the flow exists.
  void idle(std::uint64_t index);

  // Hands every flow to the daemon again, a few hundred per replay_more; the caller begins the synchronisation before, ends it
  // after the last flow, and lets the daemon's loop turn in between. Meanwhile nothing else is carried out.
  void begin_replay();
  bool is_replaying() const { return replayed_.has_value(); }
  void replay_more();
  // Sets the offset from the callers' clock to Unix time, in nanoseconds: flows are stored with their creation time, so that
  // durations and hard timeouts continue in the next run. To be called again when the time of day may have been set.
  void time_of_day(std::int64_t unix_offset) { unix_offset_ns_ = unix_offset; }
  // Adopts a stored flow of an earlier run.
  bool restore(Bytes flow_mod, std::int64_t now);
  void reserve_index_above(std::uint64_t index) { table_.reserve_index_above(index); }

  // Enables FlowEvents::flow_changed.
  void watch(bool watched) { watched_ = watched; }

  // Adds one of the flows' own barriers behind everything so far, even if all is decided; returns its number.
  std::uint32_t fence(std::int64_t now);
  // To be called after each batch of requests: adds a barrier behind them if none is in flight.
  void batch_done(std::int64_t now);
  // To be called about every 100 ms: deadlines. `daemon_turns` says that the daemon's loop has turned since the previous call;
  // otherwise the time in between does not count.
  void check_deadlines(std::int64_t now, bool daemon_turns);
  // True while a large delete is in progress: nothing else may be carried out before delete_more has handled its last flow, a few
  // hundred at a time. The caller lets the daemon's loop turn in between.
  bool is_deleting() const { return deletion_.has_value(); }
  void delete_more();
  // A transaction: everything that apply does from begin on is undone or kept as a whole. It may begin when nothing is undecided,
  // and no other change may be made meanwhile. The target needs room for the new flows beside those to be removed.
  bool can_begin() const { return all_decided() && displaced_.empty() && !is_deleting() && !transaction_; }
  void begin(std::int64_t now);
  bool is_in_transaction() const { return transaction_.has_value(); }
  // True if a flow of the transaction has failed.
  bool has_failed() const { return transaction_ && transaction_->failed; }
  // Ends the transaction, a few hundred flows per call; false when it is finished.
  bool end_more(bool keep, std::int64_t now);
  // The answer to FlowEvents::overdue: the indexes of the installed flows, ascending.
  void overdue_checked(const std::vector<std::uint64_t> &installed, std::int64_t now);
  // To be called about every second: hard timeouts.
  void check_timeouts(std::int64_t now);
  bool needs_deadlines() const { return in_flight_.outstanding() > 0; }
  // True if the daemon has answered for everything handed over.
  bool all_decided() const { return in_flight_.all_decided(); }

  // True if another request may be carried out now.
  bool room() const {
    return !is_deleting() && !is_replaying() && in_flight_.outstanding() < limits_.window &&
           in_flight_.barriers() < limits_.window;
  }
  // The number of flows that fit; 0 while that is not known.
  std::uint32_t capacity() const {
    if (limits_.capacity) return limits_.capacity;
    return target_capacity_ ? target_capacity_ : told_capacity_;
  }
  // Sets the capacity that the target has announced; 0: none, so that the daemon's notification counts.
  void target_holds(std::uint32_t flows) { target_capacity_ = flows; }
  const FlowTable &table() const { return table_; }
  const InFlightLog &in_flight() const { return in_flight_; }
  const FlowCounters &counters() const { return counters_; }
  // Times from the hand-over of an add to its decision, and from a controller's barrier to its answer.
  const Histogram &install_times() const { return install_times_; }
  const Histogram &barrier_times() const { return barrier_times_; }
  const std::deque<LateFailure> &late_failures() const { return late_failures_; }
  SouthboundClient &client() { return client_; }

 private:
  class Acting;
  struct Transaction {
    struct Change {
      std::uint64_t index;
      bool added;  // otherwise set aside
      Author author;
    };
    std::int64_t since_ns;
    std::vector<Change> changes = {};
    std::size_t kept = 0;  // changes made permanent
    bool failed = false;
  };

  Verdict add(const FlowMod &mod, const Origin &origin, Bytes request, std::int64_t now);
  Verdict modify(const FlowMod &mod, const Origin &origin, Bytes request, std::int64_t now);
  Verdict remove(const FlowMod &mod);
  void stamp(FlowEntry &flow) const;
  std::int64_t stamped(Bytes flow_mod, std::int64_t now) const;
  FlowEntry &hand_over(Bytes flow_mod, const FlowTable::Place &place, std::int64_t created);
  Bytes with_instructions_of(const FlowEntry &flow, const FlowMod &mod);
  bool change(FlowEntry &flow, const FlowMod &mod, const Origin &origin, Bytes request, bool same_request, std::int64_t now);
  void remove_flow(FlowEntry &flow, RemovedReason reason);
  void take_out(FlowEntry &flow, RemovedReason reason);
  void set_aside(FlowEntry *flow);
  void note_added(FlowEntry &flow, FlowEvent event);
  void report(const FlowEntry &flow, FlowEvent event, RemovedReason reason = kDeleted) {
    if (watched_) events_.flow_changed(flow, {event, reason, author_});
  }
  void keep(const Transaction::Change &change, std::int64_t now);
  void undo(const Transaction::Change &change);
  void remove_all();
  void clear_table();
  FlowEntry *next_to_delete();
  void end_deletion();
  void make_room(FlowEntry &flow);
  void put_back(std::int64_t now);
  void tell_deletion(FlowEntry &flow);
  void withdraw(FlowEntry &flow);
  void drop_older_forms(FlowEntry &flow);
  void decided(const Pending &pending, std::int64_t now);
  void fail(FlowEntry &flow, const Error &error);
  void failed_late(FlowEntry &flow, std::int64_t now);
  void add_again(FlowEntry &flow, std::int64_t now);
  template <typename Sent>
  bool is_overdue(const Sent *sent, std::int64_t now) const {
    return sent && now - sent->since_ns >= limits_.decide_timeout_ns;
  }
  std::vector<std::uint64_t> overdue_adds(std::int64_t now);
  void give_up(const Pending &pending);
  void withdraw_failed(FlowEntry &flow, const Error &error);
  void barrier_done(const SentBarrier &sent, std::int64_t now);
  void give_up_barriers(std::int64_t now);
  void end_in_time(const FlowEntry &flow);

  // A delete in progress; without a filter, of everything.
  struct Deletion {
    Author author;
    std::unique_ptr<FlowMod> filter = {};
    std::vector<std::uint32_t> slots = {};  // of the flows found
    std::uint32_t next = 0;                 // position among them, or in the whole table
  };

  SouthboundClient client_;
  FlowEvents &events_;
  Trace &trace_;
  const FlowLimits limits_;
  FlowTable table_;
  Deadlines deadlines_{table_};
  InFlightLog in_flight_;
  std::optional<Deletion> deletion_;
  std::optional<std::uint32_t> replayed_;  // cursor in the table during a replay
  std::optional<Transaction> transaction_;
  FlowCounters counters_;
  Histogram install_times_, barrier_times_;
  std::deque<LateFailure> late_failures_;
  std::vector<std::uint64_t> displaced_;  // indexes of displaced forms to put back
  std::int64_t unix_offset_ns_ = 0;
  std::uint32_t told_capacity_ = 0, target_capacity_ = 0;
  std::uint32_t own_xid_ = 0;
  bool watched_ = false;
  Author author_;  // of the current request
  std::uint64_t requests_ = 0;
  // The clock of deadlines, which stops while the daemon's loop does not turn.
  std::int64_t patience_ns_ = 0, checked_ns_ = 0, progress_ns_ = 0;
  std::uint64_t progress_ = 0;
  std::uint64_t asked_up_to_ = 0;  // last hand-over covered by a pending FlowEvents::overdue; 0 without one
  std::vector<std::byte> scratch_;
};

}  // namespace host::of_ss
