// The outcomes of the flows' hand-overs: barriers, results, deadlines and timeouts.
#include <algorithm>
#include <utility>

#include "host/of_ss/desired/flows.h"
#include "host/of_ss/desired/results.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// The most hand-overs between two of the flows' own barriers, so that a long burst is decided piece by piece.
constexpr std::uint64_t kBarrierEvery = 1024;
constexpr std::size_t kLateFailuresKept = 100;

bool is_shortage(Bytes result) {
  return (sb::get<std::uint32_t>(result.data(), sb::kFlowResultCode) & ~kUndecided) == sb::kResultResource;
}

bool is_undecided(Bytes result) {
  return sb::get<std::uint32_t>(result.data(), sb::kFlowResultCode) & kUndecided;
}

// A flow stays until it has been answered, and while a newer form of it may still fail.
bool can_time_out(const FlowEntry &flow) {
  return flow.in_force && flow.state == FlowState::installed;
}

}  // namespace

// ---- barriers

void Flows::barrier(const BarrierTag &tag, const Origin &origin, bool waits, std::int64_t now) {
  if (!waits && in_flight_.all_decided()) {
    barrier_times_.observe({});
    events_.barrier_answered(origin);
    return;
  }
  trace_.note(Step::barrier_handed);
  in_flight_.barrier_sent(tag, origin, now);
  client_.barrier(tag);
}

std::uint32_t Flows::fence(std::int64_t now) {
  ++counters_.own_barriers;
  const BarrierTag tag{kOwnBarrier, ++own_xid_, 0};
  in_flight_.barrier_sent(tag, {0, own_xid_}, now);
  client_.barrier(tag);
  return own_xid_;
}

void Flows::batch_done(std::int64_t now) {
  put_back(now);
  const std::uint64_t uncovered = in_flight_.uncovered();
  if (uncovered >= kBarrierEvery || (uncovered > 0 && !in_flight_.barrier_under_way())) fence(now);
}

void Flows::barrier_done(const SentBarrier &sent, std::int64_t now) {
  if (sent.origin.generation) barrier_times_.observe(std::chrono::nanoseconds(now - sent.since_ns));
  events_.barrier_answered(sent.origin);
}

void Flows::barrier_reply(Bytes reply, std::int64_t now) {
  const bool known =
      reply.size() >= sb::kBarrierLen && in_flight_.barrier_replied(
                                             barrier_tag(reply), [this, now](const Pending &pending) { decided(pending, now); },
                                             [this, now](const SentBarrier &sent) { barrier_done(sent, now); });
  if (!known) ++counters_.duplicate_results;
}

// ---- results

void Flows::decided(const Pending &pending, std::int64_t now) {
  FlowEntry *flow = table_.by_index(pending.index);
  if (!flow || flow->state != FlowState::sent) return;
  const bool failed_since = pending.failed;
  table_.mark_installed(*flow);
  trace_.note(Step::installed, flow->index());
  install_times_.observe(std::chrono::nanoseconds(now - pending.since_ns));
  flow->latency_us = static_cast<std::uint32_t>(std::min<std::int64_t>((now - pending.since_ns) / 1000, UINT32_MAX));
  counters_.latency_max_us = std::max(counters_.latency_max_us, flow->latency_us);
  counters_.latency_sum_us += flow->latency_us;
  ++counters_.decided;
  if (!flow->provisional) drop_older_forms(*flow);
  if (!failed_since) return;
  if (flow->in_force)
    failed_late(*flow, now);
  else
    table_.remove(*flow);
}

void Flows::flow_result(Bytes reply, std::int64_t now) {
  if (reply.size() < sb::kFlowResultLen) return;
  const auto index = sb::get<std::uint64_t>(reply.data(), sb::kFlowIndex);
  FlowEntry *flow = table_.by_index(index);
  Pending *pending = in_flight_.find(index);
  trace_.note(Step::result, index, sb::get<std::uint32_t>(reply.data(), sb::kFlowResultCode));
  // No controller waits for it: the flow stays desired, and the synchronisation that follows hands it over again.
  if (is_undecided(reply) && (!pending || !pending->origin.generation)) {
    counters_.left += flow != nullptr;
    return;
  }
  const bool full = is_shortage(reply) || (pending && pending->no_room);
  const Error &error = full ? err::kTableFull : err::kFlowModUnknown;
  if (pending && !pending->answered) {
    events_.flow_failed(pending->origin, error, Bytes(pending->request_head, pending->request_len));
    in_flight_.answer(*pending);
    if (flow) fail(*flow, error);
  } else if (flow && flow->state == FlowState::sent) {
    fail(*flow, error);
  } else if (flow && flow->in_force && !pending) {
    failed_late(*flow, now);
  } else {
    ++counters_.duplicate_results;
  }
}

void Flows::flow_answer(Bytes answer, std::int64_t now) {
  const auto index = sb::get<std::uint64_t>(answer.data(), sb::kFlowIndex);
  FlowEntry *flow = table_.by_index(index);
  if (Pending *pending = in_flight_.find(index)) {
    // The daemon reports it later, or not at all if the flow had succeeded before.
    pending->failed = true;
    pending->no_room = is_shortage(answer);
  } else if (flow && flow->in_force) {
    failed_late(*flow, now);
  } else if (flow && !transaction_) {
    table_.remove(*flow);
  }
}

// Removes a failed flow, which the daemon has already dropped on its side.
void Flows::fail(FlowEntry &flow, const Error &error) {
  trace_.note(Step::failed, flow.index(), error_number(error));
  if (flow.provisional) {
    flow.displaced = transaction_->failed = true;
    return;
  }
  ++counters_.failed;
  late_failures_.push_back(
      {flow.index(), flow.table_id(), flow.priority(), match_text(southbound_match(flow.southbound())), &error});
  if (late_failures_.size() > kLateFailuresKept) late_failures_.pop_front();
  if (flow.retried) events_.flow_removed(flow, kDeleted);
  const FlowEntry *before = flow.in_force ? table_.at(flow.older) : nullptr;
  if (before && before->displaced) displaced_.push_back(before->index());
  if (flow.in_force && !before) report(flow, FlowEvent::deleted);
  table_.remove(flow);
  if (before) report(*before, FlowEvent::brought_back);
}

// Handles the failure of an installed flow, as after a restart of the programming service: it gets one more chance under a new
// index.
void Flows::failed_late(FlowEntry &flow, std::int64_t now) {
  if (flow.retried || flow.provisional) return fail(flow, err::kFlowModUnknown);
  ++counters_.retried;
  trace_.note(Step::tried_again, flow.index());
  add_again(flow, now);
}

void Flows::add_again(FlowEntry &flow, std::int64_t now) {
  FlowEntry &again = hand_over(flow.southbound(), table_.place_of(flow), flow.created_ns);
  again.retried = true;
  again.controller = flow.controller;
  in_flight_.expect(again.index(), {}, {}, false, now);
  table_.remove(flow);
}

void Flows::counted(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
  FlowEntry *flow = table_.by_index(index);
  if (!flow || (!packets && !bytes)) return;
  flow->counted().packets.is(packets);
  flow->counted().bytes.is(bytes);
}

void Flows::count_more(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes) {
  FlowEntry *flow = table_.by_index(index);
  if (!flow || (!packets && !bytes)) return;
  flow->counted().packets.grew(packets);
  flow->counted().bytes.grew(bytes);
}

// ---- time

void Flows::check_deadlines(std::int64_t now, bool daemon_turns) {
  if (daemon_turns) patience_ns_ += now - checked_ns_;
  checked_ns_ = now;
  if (in_flight_.all_decided() || progress_ != in_flight_.decided()) {
    progress_ = in_flight_.decided();
    progress_ns_ = patience_ns_;
    return;
  }
  if (patience_ns_ - progress_ns_ < limits_.decide_timeout_ns) return;
  progress_ns_ = patience_ns_;
  // A query without an answer for that long is given up.
  if (asked_up_to_) return overdue_checked({}, now);
  if (auto indexes = overdue_adds(now); !indexes.empty()) return events_.overdue(std::move(indexes));
  give_up_barriers(now);
  fence(now);
}

// The adds before the first unanswered barrier: one of them holds it back, and only the database can tell which.
std::vector<std::uint64_t> Flows::overdue_adds(std::int64_t now) {
  const std::uint64_t last = in_flight_.front_barrier() ? in_flight_.front_barrier()->number : ~std::uint64_t{0};
  std::vector<std::uint64_t> indexes;
  in_flight_.for_each([this, now, last, &indexes](const Pending &pending) {
    if (pending.number > last || !is_overdue(&pending, now)) return false;
    indexes.push_back(pending.index);
    asked_up_to_ = pending.number;
    return true;
  });
  return indexes;
}

void Flows::overdue_checked(const std::vector<std::uint64_t> &installed, std::int64_t now) {
  const std::uint64_t last = std::exchange(asked_up_to_, 0);
  while (in_flight_.front() && in_flight_.front()->number <= last)
    in_flight_.release_front([this, now, &installed](const Pending &pending) {
      if (std::binary_search(installed.begin(), installed.end(), pending.index))
        decided(pending, now);
      else
        give_up(pending);
    });
  if (last) fence(now);
}

// Only deletes precede these barriers, and still no answer has arrived: they are lost, so that waiting must end.
void Flows::give_up_barriers(std::int64_t now) {
  for (; is_overdue(in_flight_.front_barrier(), now); ++counters_.lost_barriers)
    in_flight_.barrier_replied(
        in_flight_.front_barrier()->tag, [](const Pending &) {},
        [this, now](const SentBarrier &sent) { barrier_done(sent, now); });
}

void Flows::give_up(const Pending &pending) {
  ++counters_.timed_out;
  trace_.note(Step::given_up, pending.index);
  FlowEntry *flow = table_.by_index(pending.index);
  if (!pending.answered)
    events_.flow_failed(pending.origin, err::kFlowModUnknown, Bytes(pending.request_head, pending.request_len));
  if (flow && flow->state == FlowState::sent) withdraw_failed(*flow, err::kFlowModUnknown);
}

// Removes a failed flow that the daemon has, or may have.
void Flows::withdraw_failed(FlowEntry &flow, const Error &error) {
  tell_deletion(flow);
  fail(flow, error);
}

// A flow that cannot be removed now gets another deadline.
void Flows::check_timeouts(std::int64_t now) {
  if (transaction_ || is_replaying()) return;
  const auto due = deadlines_.take_due(now);
  for (const std::uint64_t index : due) {
    FlowEntry *flow = table_.by_index(index);
    if (flow && can_time_out(*flow))
      remove_flow(*flow, kHardTimeout);
    else if (flow)
      deadlines_.add(index, now + kSecondNs);
  }
  if (!due.empty()) batch_done(now);
}

void Flows::idle(std::uint64_t index) {
  FlowEntry *flow = table_.by_index(index);
  const bool may_go = flow && !transaction_ && !is_replaying() && can_time_out(*flow);
  if (may_go && flow->get<std::uint16_t>(sb::kFlowIdleTimeout)) remove_flow(*flow, kIdleTimeout);
}

}  // namespace host::of_ss
