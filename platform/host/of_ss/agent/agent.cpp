#include "host/of_ss/agent/agent.h"

#include <event2/buffer.h>
#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "host/base/clock.h"
#include "host/base/loop.h"
#include "host/log/log.h"
#include "host/of_ss/protocol/protocol.h"
#include "host/of_ss/stored/answers.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

constexpr timeval kTick{0, 100'000}, kSecond{1, 0}, kNextTurn{0, 0};
constexpr timeval kCounterWait{0, 100'000};  // two ticks of the daemon
// What all connections that wait may have taken in one turn of the loop, each at most and at least so much of it; a message that
// was answered at length uses up the share of its connection.
constexpr std::uint32_t kTurnMessages = 1024, kShareMax = 256, kShareMin = 8;
constexpr std::size_t kShareBytes = 32 << 10;
// Who has had less than this handed over since the loop turned may go a little beyond the bound.
constexpr std::uint32_t kLittle = 4;
// The daemon reads the counters of all flows in one go, during which the loop stands: of more flows than this they are shown as
// they were reported last, a few seconds ago.
constexpr std::size_t kFlowsRefreshed = 20'000;
constexpr std::uint32_t kReportPeriodSeconds = 5;                    // the daemon's own; it does not take another
constexpr std::size_t kRefusalsKept = 200, kRefusedBytesKept = 512;  // of each
constexpr std::size_t kControllersKnown = 1024;                      // addresses
constexpr auto kRunLimit = std::chrono::seconds(3);
enum PortReason : std::uint8_t { kPortAdded = 0, kPortDeleted = 1, kPortModified = 2 };

}  // namespace

// ---- life

Agent::Agent(const Callbacks &callbacks, Inbox &inbox, Settings settings, LookUp look_up)
    : settings_(std::move(settings)),
      look_up_(std::move(look_up)),
      inbox_(inbox),
      flows_(callbacks, *this, trace_, settings_.flows),
      meters_(flows_),
      pace_(settings_.prompt, [this] { inbox_.nudge(); }),
      share_(kShareMax),
      daemon_turned_(std::make_shared<std::atomic<bool>>(false)) {
  // One thread uses this base; only the inbox is shared, and that has a lock of its own.
  const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(), event_config_free);
  event_config_set_flag(config.get(), EVENT_BASE_FLAG_NOLOCK);
  base_.reset(event_base_new_with_config(config.get()));
  inbox_event_ = make_event<&Agent::take_inbox>(inbox_.fd(), EV_READ | EV_PERSIST);
  tick_event_ = make_event<&Agent::tick>(-1, 0);
  second_event_ = make_event<&Agent::second>(-1, EV_PERSIST);
  reap_event_ = make_event<&Agent::reap>(-1, 0);
  refresh_event_ = make_event<&Agent::counters_are_late>(-1, 0);
  turns_event_ = make_event<&Agent::take_turns>(-1, 0);
  look_at_clock();
  update_ports();
}

Agent::~Agent() {
  stop();
}

void Agent::stop() {
  if (!thread_.joinable()) return;
  inbox_.post([this] { event_base_loopbreak(base_.get()); });
  thread_.join();
}

template <void (Agent::*Handler)()>
EventOwner Agent::make_event(int fd, short what) {
  const auto call = [](evutil_socket_t, short, void *self) { (static_cast<Agent *>(self)->*Handler)(); };
  return EventOwner(event_new(base_.get(), fd, what, call, this));
}

void Agent::restore(const StoredState &stored) {
  new_turn();
  flows_.time_of_day(clock::unix_offset().count());
  flows_.reserve_index_above(stored.last_index);
  std::size_t taken = 0, unknown = 0;
  for (const auto &message : stored.flows) ++(flows_.restore(message, now_ns_) ? taken : unknown);
  for (const auto &message : stored.meters) ++(meters_.restore(message, now_ns_) ? taken : unknown);
  pace_.begin_at(flows_.table().newest_index());
  if (taken || unknown) log::info("took over {} stored flows and meters; {} were not this library's", taken, unknown);
}

void Agent::start() {
  for (const Endpoint &endpoint : settings_.endpoints) open(endpoint);
  event_add(inbox_event_.get(), nullptr);
  event_add(second_event_.get(), &kSecond);
  // Signals are for the loop's thread.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  thread_ = std::thread([this] { main(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Agent::main() {
  pthread_setname_np(pthread_self(), "openflow");
  flows_.handover().connected();
  flows_.handover().configure_reports(settings_.report_cells, kReportPeriodSeconds);
  for (const auto &dialer : dialers_) dialer->dial();
  turn_done();
  event_base_dispatch(base_.get());
}

bool Agent::run(std::function<void(Agent &)> work) {
  struct Job {
    std::mutex mutex;
    std::condition_variable done;
    bool ran = false, abandoned = false;
  };
  const auto job = std::make_shared<Job>();
  inbox_.post([this, job, work = std::move(work)] {
    const std::lock_guard lock(job->mutex);
    if (job->abandoned) return;
    work(*this);
    job->ran = true;
    job->done.notify_one();
  });
  std::unique_lock lock(job->mutex);
  job->done.wait_for(lock, kRunLimit, [&job] { return job->ran; });
  job->abandoned = true;
  return job->ran;
}

void Agent::new_turn() {
  clock_is_fresh_ = false;
  look_at_clock();
}

void Agent::look_at_clock() {
  if (clock_is_fresh_) return;
  now_ns_ = clock::now().count();
  trace_.set_time(now_ns_);
  clock_is_fresh_ = true;
}

// ---- endpoints

void Agent::open(const Endpoint &endpoint) {
  const Accept take = [this](BuffereventOwner bev, Peer peer, Dialer *dialer) {
    accept(std::move(bev), std::move(peer), dialer);
  };
  if (!endpoint.listens) {
    dialers_.push_back(std::make_unique<Dialer>(base_.get(), endpoint, settings_.tls.get(), take));
    return;
  }
  listeners_.push_back(std::make_unique<Listener>(base_.get(), endpoint, settings_.tls.get(), take));
  listeners_.back()->open();
}

bool Agent::is_open(const std::string &endpoint) const {
  const auto has_it = [&endpoint](const auto &all) {
    return std::ranges::any_of(all, [&endpoint](const auto &one) { return one->target() == endpoint; });
  };
  return has_it(listeners_) || has_it(dialers_);
}

EndpointState Agent::state_of(const std::string &endpoint) const {
  const auto is_it = [&endpoint](const auto &one) { return one->target() == endpoint; };
  if (const auto it = std::ranges::find_if(listeners_, is_it); it != listeners_.end()) return (*it)->state();
  for (const Connection *connection : connections())
    if (connection->peer().endpoint == endpoint && connection->is_up()) return {"connected", ""};
  if (const auto it = std::ranges::find_if(dialers_, is_it); it != dialers_.end()) return (*it)->state();
  const auto unusable = settings_.unusable.find(endpoint);
  return {"unusable", unusable == settings_.unusable.end() ? "" : unusable->second};
}

void Agent::reconfigure(Settings fresh) {
  // Connections that are there keep the certificates that they have begun with, and those who come without new ones the old.
  if (fresh.tls) std::swap(settings_.tls, fresh.tls);
  for (const auto &listener : listeners_) listener->use_tls(settings_.tls.get());
  for (const auto &dialer : dialers_) dialer->use_tls(settings_.tls.get());
  // They do not go on where nobody would be checked any more.
  std::vector<std::string> kept = fresh.controllers;
  std::erase_if(kept, [&fresh](const std::string &endpoint) {
    const auto unusable = fresh.unusable.find(endpoint);
    return unusable != fresh.unusable.end() && unusable->second == kNoAuthority;
  });
  close_endpoints_but(kept);
  for (const Endpoint &endpoint : fresh.endpoints) {
    if (is_open(endpoint.text)) continue;
    open(endpoint);
    if (!endpoint.listens) dialers_.back()->dial();
  }
  settings_.controllers.swap(fresh.controllers);
  std::erase_if(past_traffic_, [this](const auto &past) {
    return std::ranges::find(settings_.controllers, past.first) == settings_.controllers.end();
  });
  settings_.unusable.swap(fresh.unusable);
}

void Agent::close_endpoints_but(const std::vector<std::string> &wanted) {
  const auto unwanted = [&wanted](const std::string &endpoint) { return std::ranges::find(wanted, endpoint) == wanted.end(); };
  for (const auto &connection : connections_) {
    if (!connection || connection->is_gone() || !unwanted(connection->peer().endpoint)) continue;
    dialer_of_[connection->number()] = nullptr;
    connection->abort("its endpoint is no longer configured");
  }
  std::erase_if(listeners_, [&unwanted](const auto &listener) { return unwanted(listener->target()); });
  std::erase_if(dialers_, [&unwanted](const auto &dialer) { return unwanted(dialer->target()); });
}

void Agent::forget_everything() {
  log::info("asked to forget everything: {} flows and {} meters are given up", flows_.table().size(), meters_.all().size());
  meters_.forget();
  flows_.remove_everything();
}

// ---- connections

void Agent::accept(BuffereventOwner bev, Peer peer, Dialer *dialer) {
  const std::size_t number = free_number();
  if (number == kMaxConnections) {
    ++turned_away_;
    log::warn("a controller was turned away, there are {} connections already", kMaxConnections);
    if (dialer) dialer->ended(false, "there are too many connections");
    return;
  }
  const std::uint64_t generation = ++generations_ << 8 | number;
  peer.controller = controller_number(peer.name);
  connections_[number] = std::make_unique<Connection>(static_cast<ConnectionEvents &>(*this), std::move(bev), std::move(peer),
                                                      generation, settings_.connections, clock::now().count());
  dialer_of_[number] = dialer;
  connections_[number]->start();
}

// The number of the address in "tcp:192.0.2.1:40132"; 0 when there have been too many.
std::uint16_t Agent::controller_number(const std::string &peer) {
  const std::size_t begin = peer.find(':') + 1, end = peer.rfind(':');
  const std::string address = peer.substr(begin, end - begin);
  const auto known = std::ranges::find(controller_addresses_, address);
  if (known != controller_addresses_.end()) return static_cast<std::uint16_t>(known - controller_addresses_.begin());
  if (controller_addresses_.size() > kControllersKnown) return 0;
  controller_addresses_.push_back(address);
  return static_cast<std::uint16_t>(controller_addresses_.size() - 1);
}

// A free connection number; kMaxConnections when every number is taken by a controller. Of the others the oldest makes room, so
// that connections that say nothing beyond HELLO and ECHO keep nobody out.
std::size_t Agent::free_number() {
  std::size_t oldest = kMaxConnections;
  for (std::size_t n = 0; n < kMaxConnections; ++n) {
    const Connection *connection = connections_[n].get();
    if (!connection) return n;
    if (connection->is_expendable() &&
        (oldest == kMaxConnections || connection->generation() < connections_[oldest]->generation()))
      oldest = n;
  }
  if (oldest == kMaxConnections) return oldest;
  connections_[oldest]->abort("made room for another connection");
  reap();
  return oldest;
}

Connection *Agent::find(std::uint64_t generation) const {
  if (generation == 0) return nullptr;
  Connection *connection = connections_[generation & 0xff].get();
  return connection && connection->generation() == generation && connection->is_up() ? connection : nullptr;
}

void Agent::up(Connection &connection) {
  connection.session().up = true;
  connection.session().interface = local_interface(connection.fd());
  log::info("controller {} is connected", connection.peer().name);
  arrived(connection);
  update_packets();
}

void Agent::gone(Connection &connection) {
  event_active(reap_event_.get(), 0, 0);
  bundles_.forget(connection.generation());
  past_traffic_[connection.peer().endpoint] += connection.traffic();
  const bool was_up = connection.session().up;
  if (Dialer *dialer = std::exchange(dialer_of_[connection.number()], nullptr))
    dialer->ended(was_up, connection.why_closed());
  else if (!was_up)
    tell_failed_connection(connection);
  if (!was_up) return;
  log::info("controller {} has gone: {}", connection.peer().name, connection.why_closed());
  update_packets();
  left(connection);
}

void Agent::overfull() {
  Connection *fullest = nullptr;
  for (const auto &connection : connections_)
    if (connection && (!fullest || connection->unsent() > fullest->unsent())) fullest = connection.get();
  if (fullest)
    fullest->abort(fmt::format("all connections together hold too much unsent, and this one most, {} bytes", fullest->unsent()));
}

void Agent::tell_failed_connection(const Connection &connection) {
  const std::int64_t now = clock::now().count();
  if (failed_line_.due(now))
    log::warn("{} came by {} and is no controller: {} ({} such since the last such line)", connection.peer().name,
              connection.peer().endpoint, connection.why_closed(), failed_line_.tell(now));
}

// The daemon knows addresses and interfaces, each once however many connections have it.
void Agent::arrived(const Connection &connection) {
  const std::uint32_t address = connection.peer().address;
  const bool new_interface = interfaces_.add(connection.session().interface);
  if (up_++ == 0)
    flows_.handover().open(interfaces_.numbers());
  else if (new_interface)
    flows_.handover().manage(interfaces_.numbers());
  if (address && addresses_.add(address)) flows_.handover().controller(true, address);
}

void Agent::left(const Connection &connection) {
  const std::uint32_t address = connection.peer().address;
  if (address && addresses_.remove(address)) flows_.handover().controller(false, address);
  const std::vector<std::uint32_t> before = interfaces_.numbers();
  const bool less = interfaces_.remove(connection.session().interface);
  if (--up_ == 0)
    flows_.handover().close(before);
  else if (less)
    flows_.handover().manage(interfaces_.numbers());
}

void Agent::withdraw_strangers(const std::vector<std::uint32_t> &stored) {
  for (const std::uint32_t address : stored)
    if (!addresses_.contains(address)) flows_.handover().controller(false, address);
}

void Agent::reap() {
  for (auto &connection : connections_)
    if (connection && connection->is_gone()) connection.reset();
  monitors_.sweep();
  turn_done();
}

// Packets may flow to the controller while there is one that takes them.
void Agent::update_packets() {
  bool wanted = false;
  for (const auto &connection : connections_)
    wanted |= connection && connection->is_up() && connection->session().role != Role::slave;
  wanted = packets_forced_.value_or(wanted);
  if (wanted != packets_) flows_.handover().packets(wanted);
  packets_ = wanted;
}

void Agent::force_packets(std::optional<bool> flow) {
  packets_forced_ = flow;
  update_packets();
}

void Agent::set_role(Connection &connection, Role role) {
  if (role == Role::master)
    for (const auto &other : connections_)
      if (other && other->session().role == Role::master) other->session().role = Role::slave;
  connection.session().role = role;
  update_packets();
}

std::vector<const Connection *> Agent::connections() const {
  std::vector<const Connection *> all;
  for (const auto &connection : connections_)
    if (connection && connection->is_up()) all.push_back(connection.get());
  return all;
}

std::map<std::string, Traffic> Agent::traffic() const {
  std::map<std::string, Traffic> all;
  for (const std::string &endpoint : settings_.controllers)
    if (const auto past = past_traffic_.find(endpoint); past != past_traffic_.end()) all.insert(*past);
  for (const auto &connection : connections_)
    if (connection && !connection->is_gone()) all[connection->peer().endpoint] += connection->traffic();
  return all;
}

// ---- from the controllers

void Agent::message(Connection &connection, Bytes message) {
  look_at_clock();
  const Trace::During during(trace_, trace_.begin(Step::received, message, connection.peer().controller));
  handle_message(*this, connection, message);
}

void Agent::batch_begins(Connection &connection) {
  connection.session().share = share_;
  connection.session().unsent_before = connection.unsent();
}

bool Agent::may_take(Connection &connection, Bytes message) {
  Session &session = connection.session();
  if (session.dump || session.owes_updates || session.waits_for_counters || connection.is_clogged()) return false;
  if (is_for_daemon(message) && !may_hand_over(session)) return false;
  if (session.share == 0 || connection.unsent() > session.unsent_before + kShareBytes) {
    share_used_up_ = true;
    return false;
  }
  --session.share;
  return true;
}

bool Agent::may_hand_over(Session &session) {
  if (is_to_replay() || bundles_.is_committing()) return false;
  if (session.granted != pace_.granted()) {
    session.granted = pace_.granted();
    session.handed_over = 0;
  }
  const bool may = session.barriers < settings_.connections.queue_bound && flows_.room() &&
                   pace_.open(flows_.handover().calls(), session.handed_over < kLittle);
  session.handed_over += may;
  return may;
}

void Agent::batch_done(Connection &) {
  look_at_clock();
  work_on();
  turn_done();
}

// Goes on with what takes several turns, a replay, a delete of very many flows or the commit of a bundle, as far as the daemon
// keeps up; the requests behind it have their turn when it is through.
void Agent::work_on() {
  const bool was_busy = is_busy();
  const auto may = [this] { return pace_.open(flows_.handover().calls(), false); };
  while (flows_.is_replaying() && may()) {
    flows_.replay_more();
    if (!flows_.is_replaying()) end_replay();
  }
  while (!is_to_replay() && flows_.is_deleting() && may()) flows_.delete_more();
  bundles_.advance();
  if (!was_busy || is_busy()) return;
  share_used_up_ = true;
  monitors_.go_on();
}

// The connections that wait, each with its share, beginning with the one that was next when the turn before ended.
void Agent::resume_waiting() {
  const auto waits = [](const auto &connection) { return connection && connection->is_waiting(); };
  const auto waiting = static_cast<std::uint32_t>(std::ranges::count_if(connections_, waits));
  if (waiting == 0) return;
  share_ = std::clamp(kTurnMessages / waiting, kShareMin, kShareMax);
  share_used_up_ = false;
  const std::size_t first = next_turn_;
  for (std::size_t n = 0; n < kMaxConnections; ++n) {
    Connection *connection = connections_[(first + n) % kMaxConnections].get();
    if (!waits(connection)) continue;
    // Who comes when the pace is up is first when it may go on.
    if (pace_.open(flows_.handover().calls(), false)) next_turn_ = (connection->number() + 1) % kMaxConnections;
    connection->resume();
  }
  share_ = kShareMax;
}

void Agent::take_turns() {
  new_turn();
  resume_waiting();
}

// After everything that may have handed something over.
void Agent::turn_done() {
  flows_.batch_done(now_ns_);
  pace_.turn_ended(flows_.handover().calls(), flows_.table().newest_index());
  if (std::exchange(share_used_up_, false)) event_add(turns_event_.get(), &kNextTurn);
  clock_is_fresh_ = false;
  if (ticking_ || !any_needs_ticks()) return;
  ticking_ = true;
  flows_.check_deadlines(now_ns_, false);
  ask_daemon_to_turn();
  event_add(tick_event_.get(), &kTick);
}

void Agent::drained(Connection &connection) {
  new_turn();
  if (connection.session().dump) continue_dump(*this, connection);
  monitors_.go_on(connection);
  connection.resume();
}

void Agent::refuse(Connection &connection, const Verdict &verdict, Bytes request) {
  connection.send_error(*verdict.error, request);
  trace_.note(Step::refused, 0, error_number(*verdict.error));
  ++refused_;
  ++refusal_counts_[verdict.error];
  const char *name = message_name(be8(request, kOfType));
  const Bytes kept = request.first(std::min(request.size(), kRefusedBytesKept));
  refusals_.push_back({now_ns_, connection.peer().name, be32(request, kOfXid), verdict, {kept.begin(), kept.end()}});
  if (refusals_.size() > kRefusalsKept) refusals_.pop_front();
  if (refusal_line_.due(now_ns_))
    log::warn("{} of {} refused with {}: {}: {} ({} refused since the last such line)", name, connection.peer().name,
              verdict.error->name, verdict.what, verdict.why, refusal_line_.tell(now_ns_));
}

// ---- to the controllers

void Agent::flow_failed(const Origin &origin, const Error &error, Bytes request) {
  ++failure_counts_[&error];
  Connection *connection = find(origin.generation);
  if (!connection) return;
  trace_.note_of(origin.request, origin.xid, Step::error_sent, 0, error_number(error));
  connection->send_error(error, origin.xid, request);
}

void Agent::barrier_answered(const Origin &origin) {
  if (origin.generation == 0 && origin.xid == refresh_xid_) return counters_are_there();
  Connection *connection = find(origin.generation);
  if (!connection) return;
  --connection->session().barriers;
  trace_.note_of(origin.request, origin.xid, Step::barrier_answered);
  Reply(scratch_, kBarrierReplyMsg, origin.xid).send(*connection);
}

// Those that want the asynchronous message, by their mask for their role.
template <typename Send>
void Agent::for_each_listener(Async kind, std::uint8_t reason, Send &&send) {
  for (const auto &connection : connections_) {
    if (!connection || !connection->is_up() || !connection->session().has_asked) continue;
    const std::size_t mask = static_cast<std::size_t>(kind) + (connection->session().role == Role::slave);
    if (connection->session().async[mask] >> reason & 1) send(*connection);
  }
}

void Agent::flow_removed(const FlowEntry &flow, RemovedReason reason) {
  Reply reply(scratch_, kFlowRemoved, 0);
  const std::int64_t age = now_ns_ - flow.created_ns;
  reply.out.u64(flow.cookie());
  reply.out.u16(flow.priority());
  reply.out.u8(reason);
  reply.out.u8(flow.table_id());
  reply.out.u32(static_cast<std::uint32_t>(age / 1'000'000'000));
  reply.out.u32(static_cast<std::uint32_t>(age % 1'000'000'000));
  reply.out.u16(flow.get<std::uint16_t>(sb::kFlowIdleTimeout));
  reply.out.u16(flow.get<std::uint16_t>(sb::kFlowHardTimeout));
  reply.out.u64(flow.packets());
  reply.out.u64(flow.bytes());
  encode_wire_match(southbound_match(flow.southbound()), flow.table_id() == kServiceChainTable, reply.out);
  for_each_listener(Async::flow_removed, reason, [bytes = reply.finish()](Connection &connection) { connection.send(bytes); });
}

const ddm::Port *Agent::find_port(std::uint32_t number) const {
  const auto at =
      std::lower_bound(ports_->begin(), ports_->end(), number, [](const ddm::Port &p, std::uint32_t n) { return p.ifx < n; });
  return at != ports_->end() && at->ifx == number ? &*at : nullptr;
}

void Agent::update_ports() {
  const auto now = ddm::ports();
  if (now == ports_) return;
  const auto before = std::exchange(ports_, now);
  port_numbers_.clear();
  for (const ddm::Port &port : *ports_) port_numbers_.push_back(port.ifx);
  if (!before) return;
  for (const ddm::Port &port : *before)
    if (!find_port(port.ifx)) send_port_status(port, kPortDeleted);
  for (const ddm::Port &port : *ports_) {
    const auto old = std::find_if(before->begin(), before->end(), [&port](const ddm::Port &p) { return p.ifx == port.ifx; });
    if (old == before->end())
      send_port_status(port, kPortAdded);
    else if (!(*old == port))
      send_port_status(port, kPortModified);
  }
}

void Agent::send_port_status(const ddm::Port &port, std::uint8_t reason) {
  Reply reply(scratch_, kPortStatus, 0);
  reply.out.u8(reason);
  reply.out.zeros(7);
  put_port(reply.out, port);
  for_each_listener(Async::port_status, reason, [bytes = reply.finish()](Connection &connection) { connection.send(bytes); });
}

// ---- from the daemon

void Agent::take_inbox() {
  new_turn();
  Inbox::Taken taken = inbox_.take();
  for (Bytes message; !(message = taken.next_message()).empty();) take_reply(message);
  for (const auto &work : taken.work) work();
  replay_when_settled();
  work_on();
  turn_done();
  resume_waiting();
}

// The replies, each with the length that it must have at least.
const Agent::ReplyRow *Agent::reply_row(std::uint16_t type) {
  static constexpr ReplyRow kReplies[] = {
      {sb::kFlowResult, sb::kFlowResultLen, [](Agent &a, Bytes m) { a.flows_.flow_result(m, a.now_ns_); }},
      {kFlowAnswer, sb::kFlowResultLen, [](Agent &a, Bytes m) { a.flows_.flow_answer(m, a.now_ns_); }},
      {kFlowMoved, sb::kFlowResultLen,
       [](Agent &a, Bytes m) { a.flows_.moved(sb::get<std::uint64_t>(m.data(), sb::kFlowIndex), a.now_ns_); }},
      {kRoundCounted, sb::kFlowResultLen, [](Agent &a, Bytes) { a.flows_.counted_round(); }},
      {sb::kStatReply, sb::kStatReplyLen, [](Agent &a, Bytes m) { a.take_counters(m); }},
      {sb::kMeterResult, sb::kMeterResultLen, [](Agent &a, Bytes m) { a.take_meter_result(m); }},
      {sb::kPackedReport, sb::kHeaderLen, [](Agent &a, Bytes m) { a.take_report(m); }},
      {sb::kBarrierReply, sb::kBarrierLen, [](Agent &a, Bytes m) { a.flows_.barrier_reply(m, a.now_ns_); }},
      {sb::kCapacity, sb::kCapacityLen,
       [](Agent &a, Bytes m) { a.flows_.capacity(sb::get<std::uint32_t>(m.data(), sb::kCapacityFlows)); }},
  };
  const auto *row = std::find_if(std::begin(kReplies), std::end(kReplies), [type](const ReplyRow &r) { return r.type == type; });
  return row == std::end(kReplies) ? nullptr : row;
}

void Agent::take_reply(Bytes message) {
  const auto type = sb::get<std::uint16_t>(message.data(), sb::kType);
  const ReplyRow *row = reply_row(type);
  if (row && message.size() >= row->min_length) return row->take(*this, message);
  log::warn("a reply of type {} and length {} from the daemon is not known", type, message.size());
}

void Agent::take_meter_result(Bytes message) {
  if (const auto failure = meters_.result(message, now_ns_)) flow_failed(failure->origin, *failure->error, failure->request);
}

void Agent::take_counters(Bytes message) {
  const std::byte *at = message.data();
  if (sb::get<std::uint32_t>(at, sb::kStatStatus) != 0) return;
  flows_.counted(sb::get<std::uint64_t>(at, sb::kStatIndex), sb::get<std::uint64_t>(at, sb::kStatPackets),
                 sb::get<std::uint64_t>(at, sb::kStatBytes), now_ns_);
}

void Agent::take_report(Bytes message) {
  const std::byte *at = message.data();
  for (std::size_t cell = sb::kCells; cell + sb::kCellLen <= message.size(); cell += sb::kCellLen)
    flows_.count_more(sb::get<std::uint64_t>(at, cell), sb::get<std::uint64_t>(at, cell + 8),
                      sb::get<std::uint64_t>(at, cell + 16), now_ns_);
}

// The daemon waits for one answer of the programming service for each time that a flow was handed over; a service that was away
// itself answers once for what it finds. So nothing is handed over again while its answer may be outstanding: the fence tells
// that none is, whatever barriers the daemon has lost with the database. Until then the controllers wait.
void Agent::synchronise() {
  replay_asked_ = true;
  if (!flows_.all_decided()) flows_.fence(now_ns_);
}

void Agent::replay_when_settled() {
  if (replay_asked_ && !flows_.is_replaying() && flows_.all_decided() && !bundles_.is_in_transaction()) begin_replay();
}

// What the daemon has not heard of again some time after the start, it forgets. That time grows with how many there are of each
// kind, so the meters, which are few, come first: behind many flows they would be forgotten before they were heard of. And a flow
// finds the meter that it uses. The flows follow as the daemon's loop keeps up (work_on): it has others to serve meanwhile.
void Agent::begin_replay() {
  replay_asked_ = false;
  flows_.handover().begin_sync();
  meters_.replay();
  flows_.begin_replay();
}

void Agent::end_replay() {
  flows_.handover().end_sync();
  // The daemon may have lost barriers with the database; the answer to this one stands for them.
  flows_.fence(now_ns_);
  for (const std::uint32_t address : addresses_.numbers()) flows_.handover().controller(true, address);
  log::info("handed {} flows and {} meters to the daemon again", flows_.table().size(), meters_.all().size());
}

// ---- counters

void Agent::refresh_counters(Connection &connection) {
  if (flows_.table().size() == 0 || flows_.table().size() > kFlowsRefreshed) return;
  connection.session().waits_for_counters = true;
  if (refresh_xid_) return;
  flows_.handover().ask_counters(sb::kAllFlows);
  event_add(refresh_event_.get(), &kCounterWait);
  refresh_xid_ = flows_.fence(now_ns_);
}

void Agent::counters_are_late() {
  new_turn();
  if (refresh_xid_) counters_are_there();
  turn_done();
}

void Agent::counters_are_there() {
  refresh_xid_ = 0;
  event_del(refresh_event_.get());
  for (const auto &connection : connections_) {
    if (!connection || !std::exchange(connection->session().waits_for_counters, false)) continue;
    continue_dump(*this, *connection);
    connection->resume();
  }
}

// ---- time

bool Agent::any_needs_ticks() const {
  return flows_.needs_deadlines();
}

// Deadlines count only while the loop of the daemon turns: what it has not come to is not its failure. A loop that stands is
// asked once.
void Agent::ask_daemon_to_turn() {
  if (std::exchange(asked_to_turn_, true)) return;
  post([turned = daemon_turned_] { turned->store(true); });
}

void Agent::tick() {
  new_turn();
  const bool turned = daemon_turned_->exchange(false);
  if (turned) asked_to_turn_ = false;
  check_deadlines(turned);
  turn_done();
  ticking_ = any_needs_ticks();
  if (!ticking_) return;
  ask_daemon_to_turn();
  event_add(tick_event_.get(), &kTick);
}

void Agent::check_deadlines(bool daemon_turns) {
  flows_.check_deadlines(now_ns_, daemon_turns);
  replay_when_settled();
  work_on();
  resume_waiting();
}

void Agent::run_timers() {
  new_turn();
  check_deadlines(true);
  second();
}

void Agent::second() {
  new_turn();
  for (const auto &connection : connections_)
    if (connection && !connection->is_gone()) connection->check(now_ns_);
  flows_.time_of_day(clock::unix_offset().count());
  flows_.check_timeouts(now_ns_);
  bundles_.expire(now_ns_);
  update_ports();
  for (const auto &listener : listeners_) listener->open();
  turn_done();
}

}  // namespace host::of_ss
