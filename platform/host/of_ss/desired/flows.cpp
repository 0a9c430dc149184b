// What requests make of the flows: adds, changes, deletes, replay and transactions. Their outcomes are in flow_outcomes.cpp.
#include "host/of_ss/desired/flows.h"

#include <algorithm>
#include <utility>

#include "host/of_ss/desired/flow_selection.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// A delete of more flows than this is split into pieces, so that it blocks neither this thread nor the daemon's loop.
constexpr std::size_t kAtOnce = 2048, kPiece = 256;
constexpr std::int64_t kClockSet = 1'700'000'000;  // Unix seconds; an earlier clock has not been set

bool is_timed(const FlowEntry &flow) {
  return flow.get<std::uint16_t>(sb::kFlowIdleTimeout) || flow.get<std::uint16_t>(sb::kFlowHardTimeout);
}

// True if an add leaves the flow as it is. A flow with a timeout is stored again, because the time restarts.
bool is_unchanged(const FlowEntry &flow, const FlowMod &mod) {
  return flow.state == FlowState::installed && !is_timed(flow) && same_flow_mod(flow.southbound(), mod.southbound());
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
  for (FlowEntry *flow : targets(table_, mod, mod.command == fm::kModifyStrict, scratch_))
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
  const auto found = targets(table_, mod, mod.command == fm::kDeleteStrict, scratch_);
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
  for (FlowEntry *flow : targets(table_, *filter, false, scratch_)) remove_flow(*flow, kDeleted);
}

// ---- hand-over

void Flows::stamp(FlowEntry &flow) const {
  const std::int64_t unix_s = (flow.created_ns + unix_offset_ns_) / kSecondNs;
  sb::put(flow.message(), created_offset(flow.southbound()), static_cast<std::uint32_t>(unix_s));
}

// The stored flow's time of creation, by the callers' clock. A time that is unknown, because the machine's clock was not set yet,
// or in the future counts as now.
std::int64_t Flows::stamped(Bytes flow_mod, std::int64_t now) const {
  const std::int64_t unix_s = sb::get<std::uint32_t>(flow_mod.data(), created_offset(flow_mod));
  return unix_s < kClockSet ? now : std::min(unix_s * kSecondNs - unix_offset_ns_, now);
}

void Flows::end_in_time(const FlowEntry &flow) {
  if (const std::int64_t hard = flow.get<std::uint16_t>(sb::kFlowHardTimeout))
    deadlines_.add(flow.index(), flow.created_ns + hard * kSecondNs);
}

// Hands a new entry, or a new form of the one at `place`, to the daemon. The caller must note the pending answer.
FlowEntry &Flows::hand_over(Bytes flow_mod, const FlowTable::Place &place, std::int64_t created) {
  FlowEntry &flow = table_.insert(flow_mod, place, created);
  stamp(flow);
  end_in_time(flow);
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
    form = &hand_over(changed, table_.place_of(flow), flow.created_ns);
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

void Flows::remove_users_of_meter(std::uint32_t meter_id) {
  for (FlowEntry *flow : users_of_meter(table_, meter_id)) remove_flow(*flow, kDeleted);
}

void Flows::remove_users_of_group(std::uint32_t group) {
  for (FlowEntry *flow : users_of_group(table_, group)) remove_flow(*flow, kGroupDelete);
}

// It works in rounds, because removing an undecided form may bring an older one that also uses the meter back into force.
void Flows::fail_users_of_meter(std::uint32_t meter_id) {
  for (auto users = users_of_meter(table_, meter_id); !users.empty(); users = users_of_meter(table_, meter_id))
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
  end_in_time(*flow);
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
  transaction_->changes.push_back({flow.index(), true, author_});
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
  transaction_->changes.push_back({flow->index(), false, author_});
}

bool Flows::end_more(bool keep_it, std::int64_t now) {
  for (std::size_t n = 0; transaction_ && n < kPiece; ++n) {
    auto &[since_ns, changes, kept, failed] = *transaction_;
    if (kept == changes.size()) {
      transaction_.reset();
    } else if (keep_it) {
      keep(changes[kept++], now);
    } else {
      undo(changes.back());
      changes.pop_back();
    }
  }
  return transaction_.has_value();
}

void Flows::keep(const Transaction::Change &change, std::int64_t now) {
  FlowEntry *flow = table_.by_index(change.index);
  if (!flow) return;
  const Acting acting(*this, change.author);
  flow->provisional = false;
  if (!change.added) return take_out(*flow, kDeleted);
  drop_older_forms(*flow);
  if (flow->in_force) report(*flow, flow->created_ns < transaction_->since_ns ? FlowEvent::modified : FlowEvent::added);
  if (!flow->displaced) return;
  flow->displaced = false;
  failed_late(*flow, now);
}

// To be called with the latest change first, so that each finds the table as it left it.
void Flows::undo(const Transaction::Change &change) {
  FlowEntry *flow = table_.by_index(change.index);
  if (!flow) return;
  if (change.added)
    withdraw(*flow);
  else
    table_.bring_back(*flow);
}

}  // namespace host::of_ss
