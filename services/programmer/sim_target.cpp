#include "programmer/sim_target.h"

#include <algorithm>

namespace programmer {
namespace {

constexpr std::size_t kAnswersPerTurn = 1024;  // then the loop runs other work
constexpr std::uint64_t kOvertakingUs = 2000;  // how late an overtaking answer may be

}  // namespace

SimTarget::SimTarget(qx_thread_master *master, const Options &options, FlowSink &sink)
    : sink_(sink),
      size_(options.size),
      delay_ms_(options.delay_ms),
      rate_(options.counter_rate),
      timer_(
          master, [](void *self) { static_cast<SimTarget *>(self)->answer_due(); }, this, "programmer answers"),
      started_us_(now_us()) {
  std::string ignored;
  script_.parse(options.script, options.seed, ignored);
}

void SimTarget::set_occupied(Cell &cell, bool occupied) {
  used_ += static_cast<std::uint32_t>(occupied) - cell.occupied;
  cell.occupied = occupied ? 1 : 0;
}

// False when the request is never answered.
bool SimTarget::decide(const FlowRequest &request, Outcome &outcome) {
  Cell &cell = cells_[request.slot];
  const Script::Answer scripted = script_.answer(arrivals_, request.key.index);
  const bool room = cell.occupied != 0 || used_ < size_;
  set_occupied(cell, scripted == Script::Answer::normal && room);
  outcome = cell.occupied ? Outcome::installed : scripted == Script::Answer::fail ? Outcome::failed : Outcome::resource;
  return scripted != Script::Answer::silent;
}

void SimTarget::install_flow(const FlowRequest &request, Bytes /*record*/) {
  if (request.slot >= cells_.size()) cells_.resize(request.slot + 1);
  ++arrivals_;
  Outcome outcome{};
  if (!decide(request, outcome)) return;
  // Most answers are due at once, whatever the time is.
  if (delay_ms_ == 0 && !script_.delays_differ()) return sink_.flow_answered(request, outcome);
  const std::uint64_t now = now_us();
  const std::uint64_t due = due_us(request, now);
  if (due == now) return sink_.flow_answered(request, outcome);
  waiting_.push_back({due, arrivals_, request, cells_[request.slot].life, outcome});
  std::ranges::push_heap(waiting_, std::ranges::greater{}, [](const Waiting &w) { return std::pair(w.due_us, w.order); });
  wait_for_next();
}

// The time of the answer: after its delay, but not before the answer to an earlier request for the same flow.
std::uint64_t SimTarget::due_us(const FlowRequest &request, std::uint64_t now) {
  const std::uint64_t due = now + script_.delay_ms(arrivals_, request.key.index, delay_ms_) * std::uint64_t{1000};
  if (!script_.delays_differ()) return due;
  const auto last = last_due_us_.find(request.slot);
  const std::uint64_t in_order = last == last_due_us_.end() ? due : std::max(due, last->second);
  if (in_order > now) last_due_us_[request.slot] = in_order;
  return in_order;
}

void SimTarget::wait_for_next() {
  if (waiting_.empty()) return;
  const std::uint64_t now = now_us();
  const std::uint64_t due = waiting_.front().due_us;
  const std::uint64_t wait = due > now ? due - now : 0;
  timer_.arm(script_.delays_differ() ? std::min(wait, kOvertakingUs) : wait);
}

void SimTarget::answer_due() {
  const std::uint64_t now = now_us();
  for (std::size_t n = 0; n < kAnswersPerTurn && !waiting_.empty() && waiting_.front().due_us <= now; ++n) {
    const Waiting next = waiting_.front();
    std::ranges::pop_heap(waiting_, std::ranges::greater{}, [](const Waiting &w) { return std::pair(w.due_us, w.order); });
    waiting_.pop_back();
    if (cells_[next.request.slot].life != next.life) continue;
    if (const auto last = last_due_us_.find(next.request.slot); last != last_due_us_.end() && last->second == next.due_us) {
      last_due_us_.erase(last);
    }
    sink_.flow_answered(next.request, next.outcome);
  }
  wait_for_next();
}

void SimTarget::remove_flow(std::uint32_t slot) {
  if (slot >= cells_.size()) return;
  set_occupied(cells_[slot], false);
  ++cells_[slot].life;
  last_due_us_.erase(slot);
}

Outcome SimTarget::install_meter(std::uint32_t id, Bytes /*meter_data*/) {
  if (script_.meter_fails(id)) return Outcome::failed;
  meters_.insert(id);
  return Outcome::installed;
}

void SimTarget::remove_meter(std::uint32_t id) {
  meters_.erase(id);
}

void SimTarget::set_controller_address(std::uint32_t ip, bool present) {
  if (present) {
    addresses_.insert(ip);
  } else {
    addresses_.erase(ip);
  }
}

// The whole packets of a flow that has been installed since the start, so that no fraction is lost between readings.
std::uint64_t SimTarget::packets_by_now() const {
  return (now_us() - started_us_) / 1000 * rate_ / 1000;
}

void SimTarget::begin_reading() {
  const std::uint64_t packets = packets_by_now();
  growth_ = {packets - grown_.packets, (packets - grown_.packets) * kBytesPerPacket};
  grown_.packets = packets;
}

void SimTarget::read_counters(std::uint32_t slot, Counters &sums) {
  if (!holds(slot)) return;
  sums.packets += growth_.packets;
  sums.bytes += growth_.bytes;
}

Target::Usage SimTarget::usage() const {
  return {used_, size_, static_cast<std::uint32_t>(meters_.size()), static_cast<std::uint32_t>(addresses_.size()),
          static_cast<std::uint32_t>(waiting_.size())};
}

}  // namespace programmer
