#include "host/of_ss/agent/agent.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

#include "host/base/clock.h"
#include "host/base/loop.h"
#include "host/log/log.h"
#include "host/of_ss/net/reply.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/protocol/multipart.h"
#include "host/of_ss/protocol/protocol.h"

namespace host::of_ss {
namespace {

constexpr timeval kTick{0, 100'000}, kSecond{1, 0}, kNextTurn{0, 0};
constexpr std::uint32_t kReportPeriodSeconds = 5;  // the daemon's fixed period

// One thread uses this base; only the inbox is shared, and it has its own lock.
event_base *new_base() {
  const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(), event_config_free);
  event_config_set_flag(config.get(), EVENT_BASE_FLAG_NOLOCK);
  return event_base_new_with_config(config.get());
}

}  // namespace

// ---- start and end

Agent::Agent(const Callbacks &callbacks, Inbox &inbox, Settings settings, LookUp look_up)
    : look_up_(std::move(look_up)),
      report_cells_(settings.report_cells),
      inbox_(inbox),
      base_(new_base()),
      switch_(base_.get(), settings.own,
              {.callbacks = callbacks,
               .flow_events = *this,
               .connection_events = *this,
               .bundles = bundles_,
               .monitors = monitors_,
               .counters_are_there = [this](bool late) { counters_are_there(late); },
               .wake = [this] { inbox_.nudge(); }}),
      endpoints_(base_.get(), std::move(settings.endpoints),
                 [this](BuffereventOwner bev, Peer peer, Dialer *dialer) {
                   switch_.controllers.accept(std::move(bev), std::move(peer), dialer);
                 }),
      inbox_event_(make_event<&Agent::take_inbox>(base_.get(), *this, inbox_.fd(), EV_READ | EV_PERSIST)),
      tick_event_(make_event<&Agent::tick>(base_.get(), *this)),
      second_event_(make_event<&Agent::second>(base_.get(), *this, -1, EV_PERSIST)),
      reap_event_(make_event<&Agent::reap>(base_.get(), *this)),
      turns_event_(make_event<&Agent::take_turns>(base_.get(), *this)),
      daemon_turned_(std::make_shared<std::atomic<bool>>(false)) {
  switch_.look_at_clock();
}

Agent::~Agent() {
  stop();
}

void Agent::stop() {
  if (!thread_.joinable()) return;
  inbox_.post([this] { event_base_loopbreak(base_.get()); });
  thread_.join();
}

void Agent::restore(const StoredState &stored) {
  new_turn();
  switch_.set_target(stored.target);
  Flows &flows = switch_.flows;
  flows.time_of_day(clock::unix_offset().count());
  flows.reserve_index_above(stored.last_index);
  std::size_t taken = 0, unknown = 0;
  for (const auto &message : stored.flows) ++(flows.restore(message, switch_.now()) ? taken : unknown);
  for (const auto &message : stored.meters) ++(switch_.meters.restore(message, switch_.now()) ? taken : unknown);
  pace().begin_at(flows.table().newest_index());
  if (taken || unknown) log::info("took over {} stored flows and meters; {} were not this library's", taken, unknown);
}

void Agent::start() {
  switch_.packets.open(config().run_dir);
  endpoints_.open();
  event_add(inbox_event_.get(), nullptr);
  event_add(second_event_.get(), &kSecond);
  // Signals belong to the loop's thread.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  thread_ = std::thread([this] { main(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Agent::main() {
  pthread_setname_np(pthread_self(), "openflow");
  switch_.thread.bind();
  switch_.flows.client().bind_to_thread();
  switch_.flows.client().connected();
  switch_.flows.client().configure_reports(report_cells_, kReportPeriodSeconds);
  endpoints_.dial();
  turn_done();
  event_base_dispatch(base_.get());
}

void Agent::reconfigure(EndpointSettings fresh) {
  const std::vector<std::string> stay = endpoints_that_stay(fresh);
  switch_.controllers.close_but(stay);
  endpoints_.reconfigure(std::move(fresh), stay);
  switch_.controllers.forget_traffic_but(endpoints_.names());
}

void Agent::forget_everything() {
  log::info("asked to forget everything: {} flows and {} meters are deleted", switch_.flows.table().size(),
            switch_.meters.all().size());
  switch_.meters.forget();
  switch_.groups.forget();
  switch_.flows.remove_everything();
}

// ---- turns

void Agent::new_turn() {
  switch_.end_turn();
  switch_.look_at_clock();
}

// To be called at the end of each turn that may have handed something over.
void Agent::turn_done() {
  Flows &flows = switch_.flows;
  flows.batch_done(switch_.now());
  switch_.pace.turn_ended(flows.client().calls(), flows.table().newest_index());
  if (turns_.take_next_is_due()) event_add(turns_event_.get(), &kNextTurn);
  switch_.end_turn();
  if (ticking_ || !flows.needs_deadlines()) return;
  ticking_ = true;
  flows.check_deadlines(switch_.now(), false);
  ask_daemon_to_turn();
  event_add(tick_event_.get(), &kTick);
}

// Continues work of several turns (a replay, a large delete or the commit of a bundle) as far as the daemon keeps up; requests
// behind it continue once it is finished.
void Agent::work_on() {
  const bool was_busy = is_busy();
  Flows &flows = switch_.flows;
  while (flows.is_replaying() && switch_.is_in_pace()) switch_.replay.go_on(switch_.now());
  while (!switch_.replay.is_asked_or_running() && flows.is_deleting() && switch_.is_in_pace()) flows.delete_more();
  bundles_.advance();
  if (!was_busy || is_busy()) return;
  turns_.ask_for_next();
  monitors_.go_on();
}

void Agent::take_turns() {
  new_turn();
  turns_.resume_waiting();
}

// ---- from the controllers

void Agent::message(Connection &connection, Bytes message) {
  switch_.look_at_clock();
  const Trace::During during(switch_.trace, switch_.trace.begin(Step::received, message, connection.peer().controller));
  handle_message(switch_, connection, message);
}

void Agent::batch_done(Connection &) {
  switch_.look_at_clock();
  work_on();
  turn_done();
}

void Agent::drained(Connection &connection) {
  new_turn();
  if (connection.session().dump) continue_dump(switch_, connection);
  monitors_.go_on(connection);
  connection.resume();
}

void Agent::gone(Connection &connection) {
  event_active(reap_event_.get(), 0, 0);
  bundles_.forget(connection.generation());
  switch_.controllers.gone(connection);
}

void Agent::reap() {
  switch_.controllers.reap();
  monitors_.sweep();
  turn_done();
}

// ---- to the controllers

void Agent::flow_failed(const Origin &origin, const Error &error, Bytes request) {
  ++failure_counts_[&error];
  Connection *connection = switch_.controllers.find(origin.generation);
  if (!connection) return;
  switch_.trace.note_of(origin.request, origin.xid, Step::error_sent, 0, error_number(error));
  connection->send_error(error, origin.xid, request);
}

void Agent::barrier_answered(const Origin &origin) {
  if (origin.generation == 0 && switch_.counters.barrier_answered(origin.xid)) return;
  Connection *connection = switch_.controllers.find(origin.generation);
  if (!connection) return;
  --connection->session().barriers;
  switch_.trace.note_of(origin.request, origin.xid, Step::barrier_answered);
  Reply(switch_.scratch, kBarrierReplyMsg, origin.xid).send(*connection);
}

void Agent::counters_are_there(bool late) {
  if (late) new_turn();
  for (std::size_t n = 0; n < kMaxConnections; ++n) {
    Connection *connection = switch_.controllers.at(n);
    if (!connection || !std::exchange(connection->session().waits_for_counters, false)) continue;
    continue_dump(switch_, *connection);
    connection->resume();
  }
  if (late) turn_done();
}

// ---- from the daemon

void Agent::take_inbox() {
  new_turn();
  Inbox::Taken taken = inbox_.take();
  for (Bytes message; !(message = taken.next_message()).empty();) replies_.take(message);
  for (const auto &work : taken.work) work();
  switch_.replay.begin_when_settled();
  work_on();
  turn_done();
  turns_.resume_waiting();
}

// ---- time

// Deadlines count only while the daemon's loop turns, because undecided requests are not late while it is busy. A stalled loop is
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
  ticking_ = switch_.flows.needs_deadlines();
  if (!ticking_) return;
  ask_daemon_to_turn();
  event_add(tick_event_.get(), &kTick);
}

void Agent::check_deadlines(bool daemon_turns) {
  switch_.flows.check_deadlines(switch_.now(), daemon_turns);
  switch_.replay.begin_when_settled();
  work_on();
  turns_.resume_waiting();
}

void Agent::run_timers() {
  new_turn();
  check_deadlines(true);
  second();
}

void Agent::second() {
  new_turn();
  switch_.controllers.check(switch_.now());
  switch_.flows.time_of_day(clock::unix_offset().count());
  switch_.flows.check_timeouts(switch_.now());
  bundles_.expire(switch_.now());
  update_ports(switch_);
  endpoints_.retry();
  switch_.packets.look_after_socket();
  turn_done();
}

}  // namespace host::of_ss
