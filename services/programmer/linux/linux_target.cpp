#include "programmer/linux/linux_target.h"

#include <algorithm>

#include "programmer/linux/keys.h"

namespace programmer::dataplane {
namespace {

constexpr std::uint64_t kTidyUs = 1'000'000;
constexpr int kGracePeriods = 3;  // that a flow waits for at most, when the table is full of what has just left it

struct Reserved {
  std::uint32_t port;  // OpenFlow 1.3.5, 7.2.1
  __u8 output;
};
constexpr std::uint32_t kLowestRank = 2;  // of priority 0, in either table
constexpr std::uint32_t kFirstReserved = 0xffffff00;
constexpr Reserved kReserved[] = {
    {0, DP_DROP}, {0xfffffff8, DP_IN_PORT}, {0xfffffffa, DP_NORMAL}, {0xfffffffc, DP_ALL}, {0xfffffffd, DP_CONTROLLER}};

constexpr const char *kLacks[] = {
    "",
    "no room for another flow in the plane",
    "no room for another mask",
    "no room in the two buckets of the flow",
};

}  // namespace

std::unique_ptr<Target> LinuxTarget::open(const Context &context, std::uint32_t flows, std::vector<PortName> names,
                                          PacketRate rate, FlowSink &sink, std::string &why) {
  if (!Grace::possible()) {
    why = "the kernel has no membarrier (CONFIG_MEMBARRIER, and no nohz_full)";
    return nullptr;
  }
  auto plane = Plane::load(flows, why);
  if (!plane) return nullptr;
  auto ports = Ports::open(context, *plane, std::move(names), why);
  if (!ports) return nullptr;
  std::unique_ptr<LinuxTarget> target(new LinuxTarget(context, flows, sink, std::move(plane), std::move(ports)));
  target->packets_ = Packets::open(context, *target->plane_, target->grace_, rate, why);
  return target->packets_ ? std::move(target) : nullptr;
}

LinuxTarget::LinuxTarget(const Context &context, std::uint32_t flows, FlowSink &sink, std::unique_ptr<Plane> plane,
                         std::unique_ptr<Ports> ports)
    : context_(context),
      sink_(sink),
      size_(flows),
      plane_(std::move(plane)),
      ports_(std::move(ports)),
      table_(plane_->tables()),
      meters_(plane_->meters()),
      timer_(
          context.global->master, [](void *self) { static_cast<LinuxTarget *>(self)->tidy(); }, this, "programmer plane") {
  timer_.arm(kTidyUs);
}

// ---- grace periods

// Takes back what a grace period that is over has set free, and begins the next one where something waits for it.
void LinuxTarget::breathe() {
  if (!grace_.over()) return;
  if (resting_) table_.end_grace();
  resting_ = table_.begin_grace();
  if (resting_) grace_.begin();
}

void LinuxTarget::tidy() {
  table_.tidy();
  breathe();
  timer_.arm(kTidyUs);
}

// ---- flows

Outcome LinuxTarget::refuse(const char *why, Outcome outcome) {
  if (++refused_[why] == 1) PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "flow refused: %s; more of this kind are only counted", why);
  return outcome;
}

// Null, or what stands against it.
const char *LinuxTarget::set_output(const Actions &from, dp_actions &to) const {
  if (const auto *row = std::ranges::find(kReserved, from.output, &Reserved::port); row != std::end(kReserved)) {
    to.output = row->output;
    return nullptr;
  }
  if (from.output >= kFirstReserved) return "output to a reserved port that the plane does not serve";
  const std::uint32_t place = ports_->place_of(from.output);
  if (place == Ports::kNone) return "output to a port that is not configured";
  to.output = DP_PORT;
  to.port = static_cast<__u8>(place);
  return nullptr;
}

Outcome LinuxTarget::add(const Entry &entry, dp_flow flow, Cell &cell) {
  const __u16 meter = flow.actions.meter;
  flow.actions = rewrites_of(entry.actions);
  flow.actions.meter = meter;
  if (const char *fault = set_output(entry.actions, flow.actions)) return refuse(fault, Outcome::kFailed);
  const KeyAndMask match = key_of(entry);
  flow.actions.miss = flow.rank <= kLowestRank && entry.mask == Fields{} ? 1 : 0;
  FlowTable::Place place = table_.add(match.key, match.mask, flow);
  for (int n = 0; n < kGracePeriods && place == FlowTable::kNone && table_.lack() == FlowTable::Lack::kGrace; ++n) {
    grace_.wait();
    breathe();
    place = table_.add(match.key, match.mask, flow);
  }
  if (place == FlowTable::kNone) return refuse(kLacks[static_cast<std::size_t>(table_.lack())], Outcome::kResource);
  cell.places.push_back(place);
  return Outcome::kInstalled;
}

// Puts the flow's entries in force; on a failure some may be.
Outcome LinuxTarget::program(const FlowRequest &request, Bytes record, Cell &cell) {
  if (const char *fault = read_program(record, program_)) return refuse(fault, Outcome::kFailed);
  dp_flow flow{};
  flow.rank = program_.rank;
  flow.cookie = program_.cookie;
  flow.index = request.key.index;
  if (program_.meter != 0) {
    flow.actions.meter = meters_.use(program_.meter);
    if (flow.actions.meter == 0) return refuse("no room for another meter", Outcome::kResource);
    cell.meter = program_.meter;
  }
  for (const Entry &entry : program_.entries)
    if (const Outcome outcome = add(entry, flow, cell); outcome != Outcome::kInstalled) return outcome;
  return Outcome::kInstalled;
}

// The new form is in force before the old one goes.
void LinuxTarget::install_flow(const FlowRequest &request, Bytes record) {
  if (request.slot >= cells_.size()) cells_.resize(request.slot + 1);
  Cell &cell = cells_[request.slot];
  Cell next;
  Outcome outcome = Outcome::kResource;
  if (!cell.places.empty() || used_ < size_) {
    outcome = program(request, record, next);
    if (outcome != Outcome::kInstalled) clear(next);
  } else {
    refuse("no room for another flow", outcome);
  }
  if (!next.places.empty()) table_.go_on_from(next.places.front(), cell.places.empty() ? request.counted : total(cell));
  used_ -= cell.places.empty() ? 0 : 1;
  clear(cell);
  cell = std::move(next);
  used_ += cell.places.empty() ? 0 : 1;
  sink_.flow_answered(request, outcome);
}

void LinuxTarget::clear(Cell &cell) {
  for (const FlowTable::Place place : cell.places) table_.remove(place);
  if (cell.meter != 0) meters_.release(cell.meter);
  cell = {};
}

void LinuxTarget::remove_flow(std::uint32_t slot) {
  if (slot >= cells_.size()) return;
  used_ -= cells_[slot].places.empty() ? 0 : 1;
  clear(cells_[slot]);
}

Counters LinuxTarget::total(const Cell &cell) const {
  Counters sum;
  for (const FlowTable::Place place : cell.places) {
    const Counters one = table_.count(place);
    sum = {sum.packets + one.packets, sum.bytes + one.bytes};
  }
  return sum;
}

void LinuxTarget::read_counters(std::uint32_t slot, Counters &sums) {
  if (holds(slot)) sums = total(cells_[slot]);
}

// ---- the rest

Outcome LinuxTarget::install_meter(std::uint32_t id, Bytes meter_data) {
  Bands bands;
  if (!read_bands(meter_data, bands)) return refuse("a meter with a band or a rate that nobody can carry out", Outcome::kFailed);
  return meters_.set(id, bands) ? Outcome::kInstalled
                                : refuse("no room for another meter, or for that many bands", Outcome::kFailed);
}

// Only kept: controllers are not reached through the ports.
void LinuxTarget::set_controller_address(std::uint32_t ip, bool present) {
  std::erase(addresses_, ip);
  if (present) addresses_.push_back(ip);
}

Target::Usage LinuxTarget::usage() const {
  return {used_, size_, meters_.size(), static_cast<std::uint32_t>(addresses_.size()), 0};
}

void LinuxTarget::describe(const Tell &tell) const {
  const dp_tally tally = plane_->tally();
  tell("ports that are there", ports_->present());
  tell("masks", table_.masks());
  tell("packets looked up", tally.looked_up);
  tell("packets matched", tally.matched);
  tell("packets dropped by a meter", tally.metered);
  tell("packets without a port to go to", tally.no_port);
  tell("packets that could not be rewritten", tally.not_rewritten);
  for (const auto &[why, count] : refused_) tell(("refused: " + why).c_str(), count);
}

}  // namespace programmer::dataplane
