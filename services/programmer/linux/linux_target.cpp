#include "programmer/linux/linux_target.h"

#include <algorithm>

#include "programmer/linux/keys.h"

namespace programmer::dataplane {
namespace {

constexpr std::uint64_t kTidyUs = 1'000'000;
constexpr int kGracePeriods = 3;  // most that a flow waits for, if the table is full of places that were just vacated

struct Reserved {
  std::uint32_t port;  // OpenFlow 1.3.5, 7.2.1
  __u8 output;
};
constexpr std::uint32_t kLowestRank = 2;  // of priority 0, in either table
constexpr std::uint32_t kFirstReserved = 0xffffff00;
constexpr Reserved kReserved[] = {
    {0, DP_DROP}, {0xfffffff8, DP_IN_PORT}, {0xfffffffa, DP_NORMAL}, {0xfffffffc, DP_ALL}, {0xfffffffd, DP_CONTROLLER}};

template <typename... Number>
constexpr std::uint64_t bits(Number... number) {
  return ((std::uint64_t{1} << number) | ...);
}

constexpr unsigned kGroup = 22;  // of whose buckets the actions are in the list

constexpr const char *kLacks[] = {
    "",
    "no room for another flow in the plane",
    "no room for another mask",
    "no room in the two buckets of the flow",
};

}  // namespace

// False if another process has the plane. Without pins, because none are possible or wanted, the consequences are logged.
bool LinuxTarget::open_pins(const Context &context, const std::string &root, Parts &parts, std::string &why) {
  Pins::Refusal refusal;
  if (!root.empty()) parts.pins = Pins::open(root, qx_installation(context.global), refusal);
  if (refusal.taken) return why = refusal.why, false;
  if (parts.pins) return true;
  parts.unpinned = root.empty() ? "programmer.pin_dir is none" : refusal.why;
  PROGRAMMER_LOG(context, QX_ZLOG_ERROR,
                 "the plane is not pinned: %s; a service that is started again fills a new one, and what flows and meters had "
                 "counted since the last report is lost",
                 parts.unpinned.c_str());
  return true;
}

std::unique_ptr<Target> LinuxTarget::open(const Context &context, Settings settings, FlowSink &sink, std::string &why) {
  if (!Grace::possible()) {
    why = "the kernel has no membarrier (CONFIG_MEMBARRIER, and no nohz_full)";
    return nullptr;
  }
  if (!Plane::possible(why) || !Ports::possible(settings.ports, why)) return nullptr;
  Parts parts;
  if (!open_pins(context, settings.pin_dir, parts, why)) return nullptr;
  Plane::Wanted wanted{settings.flows, {}};
  for (const PortName &port : settings.ports) wanted.ports.push_back(port.number);
  parts.plane = Plane::load(wanted, parts.pins.get(), why);
  if (!parts.plane) return nullptr;
  parts.ports = Ports::open(context, *parts.plane, std::move(settings.ports), why);
  if (!parts.ports) return nullptr;
  Grace::pass();  // readers may still use what an earlier service has removed from its tables
  std::unique_ptr<LinuxTarget> target(new LinuxTarget(context, settings.flows, sink, std::move(parts)));
  target->packets_ = Packets::open(context, *target->plane_, target->grace_, settings.rate, why);
  return target->packets_ ? std::move(target) : nullptr;
}

LinuxTarget::LinuxTarget(const Context &context, std::uint32_t flows, FlowSink &sink, Parts parts)
    : context_(context),
      sink_(sink),
      size_(flows),
      pins_(std::move(parts.pins)),
      unpinned_(std::move(parts.unpinned)),
      plane_(std::move(parts.plane)),
      ports_(std::move(parts.ports)),
      table_(plane_->tables()),
      lists_(plane_->tables().steps, table_.inherited_lists()),
      meters_(plane_->meters()),
      timer_(
          context.global->master, [](void *self) { static_cast<LinuxTarget *>(self)->tidy(); }, this, "programmer plane") {
  timer_.arm(kTidyUs);
}

// ---- grace periods

// Reclaims what a finished grace period has freed, and begins the next one if something waits for it.
void LinuxTarget::breathe() {
  if (!grace_.over()) return;
  if (resting_) table_.end_grace(), lists_.end_grace();
  const bool flows_rest = table_.begin_grace();
  resting_ = lists_.begin_grace() || flows_rest;
  if (resting_) grace_.begin();
}

void LinuxTarget::tidy() {
  table_.tidy();
  breathe();
  packets_->tell(statistics());
  timer_.arm(kTidyUs);
}

// A packet is looked up in both tables at once.
std::vector<ss_pkt_statistic> LinuxTarget::statistics() const {
  const dp_tally tally = plane_->tally();
  std::vector<ss_pkt_statistic> all = {{SS_PKT_TABLE, 0, 0, 0, tally.looked_up, 0, tally.matched - tally.matched_in_1},
                                       {SS_PKT_TABLE, 1, 0, 0, tally.looked_up, 0, tally.matched_in_1}};
  meters_.tell(all);
  const std::vector<ss_pkt_statistic> queues = ports_->queues();
  all.insert(all.end(), queues.begin(), queues.end());
  return all;
}

// ---- flows

// Notes the reason, which counts once the refusal is final: the request may yet be postponed.
Outcome LinuxTarget::refuse(const char *why, Outcome outcome) {
  why_ = why;
  return outcome;
}

Outcome LinuxTarget::finally(Outcome outcome) {
  if (outcome != Outcome::installed && ++refused_[why_] == 1)
    PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "refused: %s; more of this kind are only counted", why_);
  return outcome;
}

// Null, or the reason why the output is impossible.
const char *LinuxTarget::find_output(std::uint32_t number, __u8 &output, __u8 &port) const {
  if (const auto *row = std::ranges::find(kReserved, number, &Reserved::port); row != std::end(kReserved)) {
    output = row->output;
    return nullptr;
  }
  if (number >= kFirstReserved) return "output to an unsupported reserved port";
  const std::uint32_t place = ports_->place_of(number);
  if (place == Ports::kNone) return "output to a port that is not configured";
  output = DP_PORT;
  port = static_cast<__u8>(place);
  return nullptr;
}

// The kernel's own stack takes the packet itself, so nothing can follow.
Outcome LinuxTarget::use_list(Cell &cell, dp_actions &to) {
  steps_.clear();
  for (const Action &action : program_.list) {
    dp_step &step = steps_.emplace_back(step_of(action));
    if (step.kind != DP_STEP_OUTPUT) continue;
    if (const char *fault = find_output(action.number, step.output, step.port)) return refuse(fault, Outcome::failed);
    if (step.output == DP_NORMAL && &action != &program_.list.back())
      return refuse("an action behind output NORMAL", Outcome::failed);
  }
  to.list = cell.list = lists_.use(steps_);
  return to.list != 0 ? Outcome::installed : refuse("no room for another action list", Outcome::resource);
}

Outcome LinuxTarget::add(const Entry &entry, dp_flow flow, Cell &cell) {
  if (flow.actions.list == 0) {
    const __u16 meter = flow.actions.meter;
    flow.actions = rewrites_of(entry.actions);
    flow.actions.meter = meter;
    if (const char *fault = find_output(entry.actions.output, flow.actions.output, flow.actions.port))
      return refuse(fault, Outcome::failed);
  }
  const KeyAndMask match = key_of(entry);
  flow.actions.miss = flow.rank <= kLowestRank && entry.mask == Fields{} ? 1 : 0;
  FlowTable::Place place = table_.add(match.key, match.mask, flow);
  for (int n = 0; n < kGracePeriods && place == FlowTable::kNone && table_.lack() == FlowTable::Lack::kGrace; ++n) {
    grace_.wait();
    breathe();
    place = table_.add(match.key, match.mask, flow);
  }
  if (place == FlowTable::kNone) return refuse(kLacks[static_cast<std::size_t>(table_.lack())], Outcome::resource);
  cell.places.push_back(place);
  return Outcome::installed;
}

// Puts the flow's entries in force; after a failure some of them may be in force.
Outcome LinuxTarget::program(const FlowRequest &request, Bytes record, Cell &cell) {
  if (const char *fault = read_program(record, program_)) return refuse(fault, Outcome::failed);
  dp_flow flow{};
  flow.rank = program_.rank;
  flow.cookie = program_.cookie;
  flow.index = request.key.index;
  flow.vsd = request.key.vsd;
  if (program_.meter != 0) {
    flow.actions.meter = meters_.use(program_.meter);
    if (flow.actions.meter == 0) return refuse("no room for another meter", Outcome::resource);
    cell.meter = program_.meter;
  }
  if (!program_.list.empty())
    if (const Outcome outcome = use_list(cell, flow.actions); outcome != Outcome::installed) return outcome;
  for (const Entry &entry : program_.entries)
    if (const Outcome outcome = add(entry, flow, cell); outcome != Outcome::installed) return outcome;
  return Outcome::installed;
}

// The new form is in force before the old one is removed.
void LinuxTarget::install_flow(const FlowRequest &request, Bytes record) {
  if (request.slot >= cells_.size()) cells_.resize(request.slot + 1);
  Cell &cell = cells_[request.slot];
  Cell next;
  Outcome outcome = Outcome::resource;
  const std::uint32_t inherited = table_.inherited();
  if (!cell.places.empty() || used_ < size_) {
    outcome = program(request, record, next);
    if (outcome != Outcome::installed) clear(next);
  } else {
    refuse("no room for another flow", outcome);
  }
  const bool taken_over = table_.inherited() != inherited;
  if (!next.places.empty()) go_on_counting(next, cell.places.empty() ? request.counted : total(cell), taken_over);
  used_ -= cell.places.empty() ? 0 : 1;
  clear(cell);
  cell = std::move(next);
  used_ += cell.places.empty() ? 0 : 1;
  if (outcome == Outcome::resource && postpone(request, record)) return;
  sink_.flow_answered(request, finally(outcome));
}

// Lets the flow's counters continue from earlier ones. A flow that was taken over has continued by itself, so that only the
// difference is added.
void LinuxTarget::go_on_counting(const Cell &cell, const Counters &earlier, bool taken_over) {
  ++(taken_over ? taken_over_ : written_);
  const Counters now = taken_over ? total(cell) : Counters{};
  if (earlier.packets > now.packets)
    table_.go_on_from(cell.places.front(), {earlier.packets - now.packets, earlier.bytes - std::min(now.bytes, earlier.bytes)});
}

// ---- after the start

// Keeps the request for later if there may be room once the remaining inherited flows are dropped.
bool LinuxTarget::postpone(const FlowRequest &request, Bytes record) {
  if (table_.inherited() == 0) return false;
  postponed_[request.slot] = {request, {record.begin(), record.end()}};
  return true;
}

void LinuxTarget::all_flows_known() {
  flows_known_ = true;
  dropped_ += table_.inherited();
  table_.drop_inherited();
  lists_.drop_inherited();
  for (const auto &[slot, postponed] : std::exchange(postponed_, {})) install_flow(postponed.request, postponed.record);
  finish_start();
}

void LinuxTarget::all_meters_known() {
  meters_known_ = true;
  meters_.drop_inherited();
  finish_start();
}

// The plane now agrees with the database, so that an earlier plane is no longer needed.
void LinuxTarget::finish_start() {
  if (!flows_known_ || !meters_known_ || std::exchange(in_step_, true)) return;
  ports_->take_over();
  plane_->settle();
  PROGRAMMER_LOG(context_, QX_ZLOG_VERBOSE,
                 "the plane agrees with the database: %llu flows taken over unchanged, %llu written, %llu dropped",
                 static_cast<unsigned long long>(taken_over_), static_cast<unsigned long long>(written_),
                 static_cast<unsigned long long>(dropped_));
}

// ---- the end of a flow

void LinuxTarget::clear(Cell &cell) {
  for (const FlowTable::Place place : cell.places) table_.remove(place);
  if (cell.meter != 0) meters_.release(cell.meter);
  if (cell.list != 0) lists_.release(cell.list);
  cell = {};
}

void LinuxTarget::remove_flow(std::uint32_t slot) {
  postponed_.erase(slot);
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
  if (!read_bands(meter_data, bands)) return finally(refuse("a meter with an unsupported band or rate", Outcome::failed));
  if (meters_.set(id, bands)) return Outcome::installed;
  return finally(refuse("no room for another meter, or for that many bands", Outcome::failed));
}

// Only remembered, because controllers are not reached through the ports.
void LinuxTarget::set_controller_address(std::uint32_t ip, bool present) {
  std::erase(addresses_, ip);
  if (present) addresses_.push_back(ip);
}

Target::Usage LinuxTarget::usage() const {
  return {used_, size_, meters_.size(), static_cast<std::uint32_t>(addresses_.size()),
          static_cast<std::uint32_t>(postponed_.size())};
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

// The match fields are all that an entry can hold.
std::optional<Capabilities> LinuxTarget::capabilities() const {
  return Capabilities{.name = "linux",
                      .flows = size_,
                      .meters = DP_MAX_METERS,
                      .bands = DP_MAX_BANDS,
                      .set_fields = bits(3, 4, 6, 7, 8, 11, 12, 13, 14, 15, 16, 26, 27),
                      .actions = bits(Action::kOutput, Action::kPushVlan, Action::kPopVlan, Action::kSetQueue, kGroup,
                                      Action::kSetTtl, Action::kDecTtl, Action::kSetField),
                      .several_outputs = true,
                      .tag_presence = true,
                      .forwards_packets = true};
}

std::optional<PlaneState> LinuxTarget::plane() const {
  return PlaneState{.pins = pins_ ? pins_->directory() : "",
                    .unpinned = unpinned_,
                    .in_step = in_step_,
                    .taken_over = taken_over_,
                    .dropped = dropped_,
                    .written = written_,
                    .ports = ports_->state()};
}

// The configured ports are included, because they may have a program even if nothing is pinned.
bool LinuxTarget::release(const Context &context, const Settings &settings, std::string &said) {
  if (!Plane::possible(said)) return false;
  Pins::Refusal refusal;
  const auto pins = settings.pin_dir.empty() ? nullptr : Pins::open(settings.pin_dir, qx_installation(context.global), refusal);
  if (refusal.taken) return said = refusal.why, false;
  std::vector<std::uint32_t> interfaces = pins ? Plane::ports_in(*pins) : std::vector<std::uint32_t>();
  if (!Ports::release(settings.ports, std::move(interfaces), said)) return false;
  if (pins && pins->remove()) said += pins->directory() + " removed\n";
  return true;
}

}  // namespace programmer::dataplane
