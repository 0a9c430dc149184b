#include "host/of_ss/desired/flows.h"

#include <algorithm>
#include <utility>

#include "host/of_ss/desired/results.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// The most hand-overs between two of the flows' own barriers, so that a long burst is decided piece by piece.
constexpr std::uint64_t kBarrierEvery = 1024;
constexpr std::size_t kLateFailuresKept = 100;
// A delete of more flows than this is split into pieces, so that it blocks neither this thread nor the daemon's loop.
constexpr std::size_t kAtOnce = 2048, kPiece = 256;
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kClockSet = 1'700'000'000;  // Unix seconds; an earlier clock has not been set

bool is_shortage(Bytes result) {
  return (sb::get<std::uint32_t>(result.data(), sb::kFlowResultCode) & ~kUndecided) == sb::kResultResource;
}

bool is_undecided(Bytes result) {
  return sb::get<std::uint32_t>(result.data(), sb::kFlowResultCode) & kUndecided;
}

Wanted wanted_by(const FlowMod &mod) {
  Wanted wanted{.match = southbound_match(mod.southbound())};
  if (mod.table_id != kTableAll) wanted.table_id = mod.table_id;
  if (mod.deletes() && mod.out_port != port::kAny) wanted.port = mod.out_port;
  if (~mod.cookie_mask == 0) wanted.cookie = mod.cookie;
  return wanted;
}

// True if an add leaves the flow as it is. A flow with a hard timeout is stored again, because the time restarts.
bool is_unchanged(const FlowEntry &flow, const FlowMod &mod) {
  return flow.state == FlowState::installed && !flow.get<std::uint16_t>(sb::kFlowHardTimeout) &&
         same_flow_mod(flow.southbound(), mod.southbound());
}

bool matches_everything(const FlowMod &mod) {
  return mod.table_id == kTableAll && southbound_match(mod.southbound()).empty() && mod.cookie_mask == 0 &&
         mod.out_port == port::kAny && mod.out_group == kGroupAny;
}

}  // namespace

// Sets the author of all changes during its life.
class Flows::Acting {
 public:
  Acting(Flows &flows, const Author &author) : flows_(flows) { flows_.author_ = author; }
  ~Acting() { flows_.author_ = {}; }
  Acting(const Acting &) = delete;
  Acting &operator=(const Acting &) = delete;

 private:
  Flows &flows_;
};

bool Flows::selected(const FlowEntry &flow, const FlowMod &filter) {
  if (filter.table_id != kTableAll && filter.table_id != flow.table_id()) return false;
  if ((flow.cookie() ^ filter.cookie) & filter.cookie_mask) return false;
  if (filter.deletes() && filter.out_group != kGroupAny) return false;
  if (filter.deletes() && filter.out_port != port::kAny && filter.out_port != output_port(flow.southbound())) return false;
  return match_covers(southbound_match(filter.southbound()), southbound_match(flow.southbound()));
}

// ---- requests

Verdict Flows::apply(const FlowMod &mod, const Origin &origin, Bytes request, std::int64_t now) {
  const Acting acting(*this, {origin, ++requests_});
  if (mod.command == fm::kAdd) return add(mod, origin, request, now);
  return mod.modifies() ? modify(mod, origin, request, now) : remove(mod);
}

Verdict Flows::add(const FlowMod &mod, const Origin &origin, Bytes request, std::int64_t now) {
  if (mod.flags & fm::kCheckOverlap && table_.overlaps(mod.southbound()))
    return refuse(err::kOverlap, "match", "a flow of this priority overlaps");
  const FlowTable::Place place = table_.find(mod.southbound());
  FlowEntry *before = place.entry;
  if (!before && capacity() && table_.flows() >= capacity())
    return refuse(err::kTableFull, "table", "the table has no room for another flow");
  if (before && is_unchanged(*before, mod)) {
    before->created_ns = now;
    before->last_hit_s = static_cast<std::uint32_t>(now / kSecond);
    ++counters_.unchanged;
    if (!transaction_) report(*before, FlowEvent::unchanged);
    trace_.note(Step::unchanged, before->index());
  } else {
    if (before) make_room(*before);
    before = &hand_over(mod.southbound(), place, now);
    in_flight_.expect(before->index(), origin, request, false, now);
    note_added(*before, FlowEvent::added);
    ++counters_.added;
  }
  before->controller = origin.controller;
  if (mod.flags & fm::kResetCounts) before->reset_counts();
  return {};
}

Verdict Flows::modify(const FlowMod &mod, const Origin &origin, Bytes request, std::int64_t now) {
  bool expected = false;
  for (FlowEntry *flow : targets(mod, mod.command == fm::kModifyStrict))
    expected |= change(*flow, mod, origin, request, expected, now);
  return {};
}

Verdict Flows::remove(const FlowMod &mod) {
  if (mod.command == fm::kDelete && matches_everything(mod) && !transaction_) {
    if (table_.size() <= kAtOnce)
      remove_all();
    else
      deletion_ = Deletion{author_};
    return {};
  }
  const auto found = targets(mod, mod.command == fm::kDeleteStrict);
  if (found.size() <= kAtOnce || transaction_) {
    for (FlowEntry *flow : found) remove_flow(*flow, kDeleted);
  } else {
    deletion_ = Deletion{author_, std::make_unique<FlowMod>(mod)};
    for (const FlowEntry *flow : found) deletion_->slots.push_back(flow->slot);
  }
  return {};
}

// The deletion's next flow; null when none is left. A slot may hold another flow by now.
FlowEntry *Flows::next_to_delete() {
  auto &[author, filter, slots, next] = *deletion_;
  while (FlowEntry *flow = filter ? nullptr : table_.next(next))
    if (flow->in_force) return flow;
  while (next < slots.size())
    if (FlowEntry *flow = table_.at(slots[next++]); flow && flow->in_force && selected(*flow, *filter)) return flow;
  return nullptr;
}

void Flows::delete_more() {
  const Acting acting(*this, deletion_->author);
  const Trace::During during(trace_, deletion_->author.origin.request);
  for (std::size_t n = 0; n < kPiece; ++n) {
    FlowEntry *flow = next_to_delete();
    if (!flow) return end_deletion();
    remove_flow(*flow, kDeleted);
  }
}

// Failures meanwhile may have brought older forms back into force, which must go too; after a delete of everything the daemon may
// know flows that are not in this table.
void Flows::end_deletion() {
  const auto filter = std::move(std::exchange(deletion_, std::nullopt)->filter);
  if (!filter) return remove_all();
  for (FlowEntry *flow : targets(*filter, false)) remove_flow(*flow, kDeleted);
}

// The flows affected by a modify or a delete.
std::vector<FlowEntry *> Flows::targets(const FlowMod &mod, bool strict) {
  if (!strict) return flows_in_force(wanted_by(mod), [&mod](const FlowEntry &flow) { return selected(flow, mod); });
  std::vector<FlowEntry *> found;
  for (std::uint8_t table_id = 0; table_id < kTableCount; ++table_id) {
    if (mod.table_id != kTableAll && mod.table_id != table_id) continue;
    if (FlowEntry *flow = find_in_table(mod, table_id); flow && selected(*flow, mod)) found.push_back(flow);
  }
  return found;
}

template <typename Fits>
std::vector<FlowEntry *> Flows::flows_in_force(const Wanted &wanted, Fits &&fits) const {
  std::vector<FlowEntry *> found;
  table_.each_candidate(wanted, [&found, &fits](FlowEntry &flow) {
    if (fits(flow)) found.push_back(&flow);
  });
  std::ranges::sort(found, {}, [](const FlowEntry *flow) { return flow->index(); });
  return found;
}

// A request for all tables names its flow as in table 0; in table 1 the application type is added.
FlowEntry *Flows::find_in_table(const FlowMod &mod, std::uint8_t table_id) {
  if (mod.table_id == table_id) return table_.find(mod.southbound()).entry;
  const Bytes match = southbound_match(mod.southbound());
  scratch_.assign(mod.message, mod.message + sb::kFlowOxm + match.size());
  if (table_id == kServiceChainTable) {
    scratch_.resize(scratch_.size() + 8);
    sb::put(scratch_.data(), sb::kFlowOxm + match.size(), sb::kOxmExpAppType);
    sb::put(scratch_.data(), sb::kFlowOxm + match.size() + 4, sb::kServiceChainAppType);
  }
  sb::put(scratch_.data(), sb::kFlowTableId, table_id);
  sb::put(scratch_.data(), sb::kFlowMatchLen, static_cast<std::uint16_t>(scratch_.size() - sb::kFlowOxm));
  return table_.find(scratch_).entry;
}

// ---- hand-over

void Flows::stamp(FlowEntry &flow) const {
  const std::int64_t unix_s = (flow.created_ns + unix_offset_ns_) / kSecond;
  sb::put(flow.message(), created_offset(flow.southbound()), static_cast<std::uint32_t>(unix_s));
}

// The stored flow's time of creation, by the callers' clock. A time that is unknown, because the machine's clock was not set yet,
// or in the future counts as now.
std::int64_t Flows::stamped(Bytes flow_mod, std::int64_t now) const {
  const std::int64_t unix_s = sb::get<std::uint32_t>(flow_mod.data(), created_offset(flow_mod));
  return unix_s < kClockSet ? now : std::min(unix_s * kSecond - unix_offset_ns_, now);
}

// Hands a new entry, or a new form of the one at `place`, to the daemon. The caller must note the pending answer.
FlowEntry &Flows::hand_over(Bytes flow_mod, const FlowTable::Place &place, std::int64_t created) {
  FlowEntry &flow = table_.insert(flow_mod, place, created);
  flow.last_hit_s = static_cast<std::uint32_t>(created / kSecond);
  stamp(flow);
  flow.replaces = place.entry;
  if (const FlowEntry *before = place.entry; before && before->counts) {
    flow.counted().packets.before = before->packets();
    flow.counted().bytes.before = before->bytes();
  }
  trace_.note(Step::handed_over, flow.index());
  client_.add(flow);
  return flow;
}

// The flow's own head and match with the instructions of `mod`; valid until scratch_ is used again.
Bytes Flows::with_instructions_of(const FlowEntry &flow, const FlowMod &mod) {
  const std::size_t block = sb::flow_instruction_offset(flow.get<std::uint16_t>(sb::kFlowMatchLen));
  const std::size_t from = sb::flow_instruction_offset(sb::get<std::uint16_t>(mod.message, sb::kFlowMatchLen));
  scratch_.assign(flow.message(), flow.message() + block);
  scratch_.insert(scratch_.end(), mod.message + from, mod.message + mod.length);
  sb::put(scratch_.data(), sb::kLen, static_cast<std::uint16_t>(scratch_.size()));
  std::memcpy(scratch_.data() + sb::kFlowInstructions, mod.message + sb::kFlowInstructions, 2);
  std::memcpy(scratch_.data() + sb::kFlowMeterId, mod.message + sb::kFlowMeterId, 4);
  return scratch_;
}

// True if an answer is expected: a flow that already is as requested is not handed over.
bool Flows::change(FlowEntry &flow, const FlowMod &mod, const Origin &origin, Bytes request, bool same_request,
                   std::int64_t now) {
  const Bytes changed = with_instructions_of(flow, mod);
  const bool differs = flow.state == FlowState::sent || !same_flow_mod(flow.southbound(), changed);
  FlowEntry *form = &flow;
  if (differs) {
    make_room(flow);
    form = &hand_over(changed, {flow.hash, &flow}, flow.created_ns);
    form->last_hit_s = flow.last_hit_s;
    form->controller = origin.controller;
    in_flight_.expect(form->index(), origin, request, same_request, now);
    note_added(*form, FlowEvent::modified);
  }
  if (mod.flags & fm::kResetCounts) form->reset_counts();
  return differs;
}

// A changed flow occupies another cell of the target until its former form is removed. If there is no free cell, the form in
// force is deleted first; it stays in this table, and is put back if the new one fails.
void Flows::make_room(FlowEntry &flow) {
  if (transaction_ || !capacity() || table_.size() < capacity()) return;
  drop_older_forms(flow);
  tell_deletion(flow);
  flow.displaced = true;
  trace_.note(Step::made_room, flow.index());
  ++counters_.changed_in_place;
}

// Hands over displaced forms that are in force again because their successor has failed.
void Flows::put_back(std::int64_t now) {
  for (const std::uint64_t index : std::exchange(displaced_, {}))
    if (FlowEntry *flow = table_.by_index(index); flow && flow->in_force && flow->displaced) add_again(*flow, now);
}

void Flows::tell_deletion(FlowEntry &flow) {
  if (flow.displaced) return;
  client_.remove(flow);
  in_flight_.note();
}

void Flows::withdraw(FlowEntry &flow) {
  tell_deletion(flow);
  table_.remove(flow);
}

void Flows::drop_older_forms(FlowEntry &flow) {
  while (FlowEntry *older = table_.at(flow.older)) {
    trace_.note(Step::replaced, older->index());
    withdraw(*older);
  }
}

void Flows::remove_flow(FlowEntry &flow, RemovedReason reason) {
  if (transaction_)
    set_aside(&flow);
  else
    take_out(flow, reason);
}

void Flows::take_out(FlowEntry &flow, RemovedReason reason) {
  drop_older_forms(flow);
  if (flow.flags() & fm::kSendFlowRem) events_.flow_removed(flow, reason);
  report(flow, FlowEvent::deleted, reason);
  ++counters_.removed;
  trace_.note(Step::removed, flow.index(), reason);
  withdraw(flow);
}

void Flows::clear_table() {
  std::uint32_t cursor = 0;
  while (FlowEntry *flow = table_.next(cursor)) {
    if (flow->in_force && flow->flags() & fm::kSendFlowRem) events_.flow_removed(*flow, kDeleted);
    if (flow->in_force) report(*flow, FlowEvent::deleted);
    counters_.removed += flow->in_force;
    trace_.note(Step::removed, flow->index(), kDeleted);
    // The daemon removes stored flows. A flow that the service chain has not answered yet is not stored, and would be installed
    // later.
    if (flow->state == FlowState::sent && is_for_service_chain(southbound_match(flow->southbound()))) tell_deletion(*flow);
    table_.remove(*flow);
  }
}

void Flows::remove_all() {
  clear_table();
  client_.remove_all_flows();
  in_flight_.note();
}

void Flows::remove_everything() {
  deletion_.reset();
  transaction_.reset();
  clear_table();
  client_.remove_everything();
  in_flight_.note();
}

std::vector<FlowEntry *> Flows::users_of_meter(std::uint32_t meter_id) const {
  return flows_in_force({.meter_id = meter_id}, [meter_id](const FlowEntry &flow) {
    const auto used = flow.get<std::uint32_t>(sb::kFlowMeterId);
    return meter_id == kMeterAll ? used != 0 : used == meter_id;
  });
}

void Flows::remove_users_of_meter(std::uint32_t meter_id) {
  for (FlowEntry *flow : users_of_meter(meter_id)) remove_flow(*flow, kDeleted);
}

// It works in rounds, because removing an undecided form may bring an older one that also uses the meter back into force.
void Flows::fail_users_of_meter(std::uint32_t meter_id) {
  for (auto users = users_of_meter(meter_id); !users.empty(); users = users_of_meter(meter_id))
    for (FlowEntry *flow : users) {
      Pending *pending = in_flight_.find(flow->index());
      if (!pending) {
        remove_flow(*flow, kDeleted);
        continue;
      }
      if (!pending->answered)
        events_.flow_failed(pending->origin, err::kUnknownMeter, Bytes(pending->request_head, pending->request_len));
      in_flight_.answer(*pending);
      withdraw_failed(*flow, err::kUnknownMeter);
    }
}

void Flows::begin_replay() {
  ++counters_.replays;
  replayed_ = 0;
}

void Flows::replay_more() {
  for (std::size_t n = 0; n < kPiece; ++n) {
    FlowEntry *flow = table_.next(*replayed_);
    if (!flow) return replayed_.reset();
    if (flow->displaced) continue;
    client_.add(*flow);
    in_flight_.note();
  }
}

bool Flows::restore(Bytes flow_mod, std::int64_t now) {
  if (!is_flow_mod(flow_mod)) return false;
  FlowEntry *flow = table_.restore(flow_mod, stamped(flow_mod, now));
  if (!flow) return false;
  table_.mark_installed(*flow);
  flow->last_hit_s = static_cast<std::uint32_t>(now / kSecond);
  // Two forms of one flow: the previous run ended in the middle of a change. The older one is not replayed, so its record is
  // removed.
  while (FlowEntry *older = table_.at(flow->older)) table_.remove(*older);
  return true;
}

// ---- transactions

void Flows::begin(std::int64_t now) {
  transaction_ = Transaction{now};
}

void Flows::note_added(FlowEntry &flow, FlowEvent event) {
  if (!transaction_) return report(flow, event);
  flow.provisional = true;
  transaction_->steps.push_back({flow.index(), true, author_});
}

// A form added in the transaction itself is withdrawn at once, and the form that it replaced is the flow to delete.
void Flows::set_aside(FlowEntry *flow) {
  while (flow && flow->provisional) {
    FlowEntry *before = table_.at(flow->older);
    withdraw(*flow);
    flow = before;
  }
  if (!flow) return;
  table_.set_aside(*flow);
  transaction_->steps.push_back({flow->index(), false, author_});
}

bool Flows::end_more(bool keep_it, std::int64_t now) {
  for (std::size_t n = 0; transaction_ && n < kPiece; ++n) {
    auto &[since_ns, steps, kept, failed] = *transaction_;
    if (kept == steps.size()) {
      transaction_.reset();
    } else if (keep_it) {
      keep(steps[kept++], now);
    } else {
      undo(steps.back());
      steps.pop_back();
    }
  }
  return transaction_.has_value();
}

void Flows::keep(const Transaction::Step &step, std::int64_t now) {
  FlowEntry *flow = table_.by_index(step.index);
  if (!flow) return;
  const Acting acting(*this, step.author);
  flow->provisional = false;
  if (!step.added) return take_out(*flow, kDeleted);
  drop_older_forms(*flow);
  if (flow->in_force) report(*flow, flow->created_ns < transaction_->since_ns ? FlowEvent::modified : FlowEvent::added);
  if (!flow->displaced) return;
  flow->displaced = false;
  failed_late(*flow, now);
}

// To be called with the latest step first, so that each finds the table as it left it.
void Flows::undo(const Transaction::Step &step) {
  FlowEntry *flow = table_.by_index(step.index);
  if (!flow) return;
  if (step.added)
    withdraw(*flow);
  else
    table_.bring_back(*flow);
}

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
  FlowEntry &again = hand_over(flow.southbound(), {flow.hash, &flow}, flow.created_ns);
  again.retried = true;
  again.controller = flow.controller;
  in_flight_.expect(again.index(), {}, {}, false, now);
  table_.remove(flow);
}

void Flows::counted(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes, std::int64_t now) {
  FlowEntry *flow = table_.by_index(index);
  if (!flow || (!packets && !bytes)) return;
  FlowCounts &counts = flow->counted();
  if (packets > counts.packets.total) flow->last_hit_s = static_cast<std::uint32_t>(now / kSecond);
  counts.packets.is(packets);
  counts.bytes.is(bytes);
}

void Flows::count_more(std::uint64_t index, std::uint64_t packets, std::uint64_t bytes, std::int64_t now) {
  FlowEntry *flow = table_.by_index(index);
  if (!flow || (!packets && !bytes)) return;
  if (packets) flow->last_hit_s = static_cast<std::uint32_t>(now / kSecond);
  flow->counted().packets.grew(packets);
  flow->counted().bytes.grew(bytes);
}

void Flows::moved(std::uint64_t index, std::int64_t now) {
  if (FlowEntry *flow = table_.by_index(index)) flow->last_hit_s = static_cast<std::uint32_t>(now / kSecond);
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

// For a flow that the daemon has, or may have.
void Flows::withdraw_failed(FlowEntry &flow, const Error &error) {
  tell_deletion(flow);
  fail(flow, error);
}

void Flows::check_timeouts(std::int64_t now) {
  if (transaction_ || is_replaying()) return;
  const auto decided = [](const FlowEntry &flow) { return flow.state == FlowState::installed; };
  const auto timed = flows_in_force({.timed = true}, decided);
  for (FlowEntry *flow : timed) check_timeout(*flow, now);
  if (!timed.empty()) batch_done(now);
}

// A flow that looks idle is removed after the programming service has read all counters once more without finding it used: of the
// rounds that end from now on, only the second has begun since. Without counting, no flow is idle.
void Flows::check_timeout(FlowEntry &flow, std::int64_t now) {
  const std::int64_t hard = flow.get<std::uint16_t>(sb::kFlowHardTimeout), idle = flow.get<std::uint16_t>(sb::kFlowIdleTimeout);
  if (hard && now - flow.created_ns >= hard * kSecond) return remove_flow(flow, kHardTimeout);
  if (!idle || now / kSecond - flow.last_hit_s < idle)
    flow.idle_round = 0;
  else if (!flow.idle_round)
    flow.idle_round = rounds_;
  else if (rounds_ - flow.idle_round >= 2)
    remove_flow(flow, kIdleTimeout);
}

}  // namespace host::of_ss
