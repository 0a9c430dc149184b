#include "of_ss.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "host/base/loop.h"
#include "host/base/mutex.h"
#include "host/base/owner_timer.h"
#include "host/base/reload.h"
#include "host/base/services.h"
#include "host/base/timer.h"
#include "host/config/config.h"
#include "host/control/control.h"
#include "host/control/status.h"
#include "host/ddm/ports.h"
#include "host/fault/fault.h"
#include "host/log/log.h"
#include "host/mom/hub.h"
#include "host/of_ss/agent/agent.h"
#include "host/of_ss/agent/settings.h"
#include "host/of_ss/desired/callbacks.h"
#include "host/of_ss/desired/results.h"
#include "host/of_ss/loop_trace.h"
#include "host/of_ss/metrics.h"
#include "host/of_ss/stored/answers.h"
#include "host/of_ss/stored/audit.h"
#include "host/of_ss/stored/stored.h"
#include "host/of_ss/stored/target.h"
#include "host/of_ss/testing.h"
#include "host/of_ss/views.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"
#include "ssat.h"

namespace host::of_ss {
namespace {

using fault::Point;

constexpr auto kRetry = std::chrono::seconds(1);
constexpr std::int32_t kLost = 0;  // one of the reconnect types of qx_mom.h

// Loop's thread.
qx_global *global_handle = nullptr;
Callbacks registered;
// Neither this nor the inbox is destroyed by exit(), with which the daemon may end: other threads use them until the end.
auto &agent = *new std::unique_ptr<Agent>;
std::unique_ptr<Audit> audit;
bool translations_known = false;           // database 4 has been connected
std::optional<Config::OpenFlow> reloaded;  // the configuration, if it has been reread

// Any thread. The inbox outlives the agent, so that late senders still find it.
auto &inbox = *new Inbox;
std::atomic<bool> running{false};
std::atomic<bool> fetch_is_due{false};
std::atomic<bool> held{false};

// A listener for tests. Without one it takes no lock.
template <typename... Args>
class Tap {
 public:
  void set(std::function<void(Args...)> listener) {
    const Lock lock(mutex_);
    listener_ = std::move(listener);
    is_set_.store(static_cast<bool>(listener_), std::memory_order_release);
  }
  void tell(Args... args) {
    if (!is_set_.load(std::memory_order_acquire)) return;
    const Lock lock(mutex_);
    if (listener_) listener_(args...);
  }

 private:
  std::atomic<bool> is_set_{false};
  Mutex mutex_;
  std::function<void(Args...)> listener_ KELIM_GUARDED_BY(mutex_);
};
Tap<std::span<const std::byte>> reply_tap;
Tap<> fetch_tap;

void stop_agent() {
  running = false;
  fetch_is_due = false;  // the loop that was to serve it may have ended
  audit.reset();
  agent.reset();
}

void start_agent();

Timer &retry_timer() {
  static Timer timer(start_agent);
  return timer;
}

// Finds which of the flows are installed according to the database, and passes the answer to the then current agent, if any.
void look_up(std::vector<std::uint64_t> indexes) {
  post([indexes = std::move(indexes)] {
    if (agent) agent->overdue_checked(installed_flows(global_handle, indexes));
  });
}

void look_through_stored();

Timer &look_timer() {
  static Timer timer(look_through_stored);
  return timer;
}

// Finds controllers that disconnected while the daemon could not be told; connected ones are announced again anyway.
int look_through_addresses() {
  std::vector<std::uint32_t> stored;
  const int rv = stored_addresses(global_handle, stored);
  if (rv == 0) agent->addresses_stored(std::move(stored));
  return rv;
}

// Likewise finds service-chain flows that are no longer requested. Assigned indexes are never reused.
int look_through_translations() {
  std::vector<Translation> stored;
  if (const int rv = stored_translations(global_handle, stored); rv != 0) return rv;
  const auto is_asked = [](Agent &a, const Translation &one) { return a.flows().table().by_index(one.index) != nullptr; };
  if (!agent->run([&](Agent &a) { std::erase_if(stored, [&](const auto &one) { return is_asked(a, one); }); })) return QX_FAILED;
  return withdraw(global_handle, stored);
}

// Runs before every synchronisation, because reading behind its many writes would block the loop.
void look_through_stored() {
  if (!agent) return;
  int rv = look_through_addresses();
  if (rv == 0) rv = look_through_translations();
  if (rv == 0) return;
  log::warn("what the database holds of controllers and service chains cannot be read ({}), trying again", rv);
  look_timer().arm(kRetry);
}

// While the server refuses writes the synchronisation waits: records that cannot be rewritten would be lost. Once writes are
// accepted, every subscriber gets another signal.
void fetch_now() {
  fetch_is_due = false;
  if (!agent || !mom::hub() || !mom::hub()->takes_writes()) return;
  look_through_stored();
  agent->data_fetched();
}

// After an outage each database signals; one synchronisation serves them all.
void fetch() {
  if (!fetch_is_due.exchange(true)) post(fetch_now);
}

// Database 4 has come up: again, or for the first time, when the hand-over that follows anyway uses it.
int translations_told(void *, const qx_obj *told) {
  if (told->cmd == QX_MOM_CMD_DATA_FETCH && std::exchange(translations_known, true)) fetch();
  return 0;
}

int database_changed(void *, std::int32_t, std::int32_t type) {
  if (type == kLost && agent) agent->database_lost();
  return 0;
}

void watch_databases() {
  mom::Hub *hub = mom::hub();
  if (!hub) return;
  for (const std::int32_t number : {QX_MOM_APP_DB, QX_MOM_UDP_DB})
    if (mom::Database *db = hub->database(number)) hub->set_reconnect(*db, database_changed);
}

void watch_translations() {
  translations_known = false;
  mom::Hub *hub = mom::hub();
  mom::Database *db = hub ? hub->database(QX_MOM_APP_DB) : nullptr;
  const mom::RecordType *type = mom::RecordType::of(&s_policy_kelim__flow_to_ace_sta__descriptor);
  if (db && type) hub->subscribe(hub->slot(*db, *type), true, translations_told);
}

// The synchronisation that follows would drop stored flows that were not adopted, so the agent does not start before they have
// been read.
void start_agent() {
  if (agent || held || !registered.complete() || !global_handle) return;
  StoredState stored;
  stored.target = announced_target();
  if (const int rv = read_stored(global_handle, stored); rv != 0) {
    log::error("the stored flows cannot be read ({}), trying again", rv);
    retry_timer().arm(kRetry);
    return;
  }
  inbox.clear();
  const Config::OpenFlow &openflow = reloaded ? *reloaded : config().openflow;
  agent = std::make_unique<Agent>(registered, inbox, settings_from(openflow), look_up);
  agent->restore(stored);
  running = true;
  after_owner_timer([] {
    if (agent) agent->pace().drained();
  });
  // exit() destroys objects that this thread reads, such as the configuration.
  [[maybe_unused]] static const int registered_once = std::atexit([] {
    if (agent) agent->stop();
  });
  agent->start();
  audit = std::make_unique<Audit>(global_handle, *agent,
                                  Audit::Options{std::chrono::seconds(openflow.audit_interval_s), openflow.audit_repair});
}

// Once every callback is registered, the agent starts in a separate turn, because the daemon is still in the middle of its own
// start here.
template <typename Callback>
int put(Callback &slot, Callback cb) {
  if (!cb) return QX_INVALID;
  if (const int rv = fault::check(Point::of_register)) return rv;
  slot = cb;
  if (registered.complete() && !agent) post(start_agent);
  return 0;
}

// ---- commands of the operator: kelimctl cmd of_ss ...

int on_agent(std::function<void(Agent &)> work) {
  return agent && agent->run(std::move(work)) ? QX_OK : QX_FAILED;
}

// Applies settings that the agent can change at run time.
Reloaded take_over(const Config &fresh) {
  reloaded = fresh.openflow;
  EndpointSettings settings = settings_from(*reloaded).endpoints;
  std::string controllers;
  for (const std::string &controller : settings.names) controllers += " " + controller;
  if (agent && on_agent([&settings](Agent &a) { a.reconfigure(std::move(settings)); }) != 0)
    return {.text = "the OpenFlow service library is too busy to change its controllers", .done = false};
  if (controllers.empty())
    return {.text = "no controller is configured; flows and meters stay (kelimctl cmd of_ss forget_everything deletes them)"};
  return {.text = "controllers:" + controllers};
}

int reload_all(const std::int64_t *, std::uint32_t) {
  std::vector<std::string> lines;
  const int rv = reload(&lines);
  for (const std::string &line : lines) std::printf("%s\n", line.c_str());
  return rv;
}

int forget_everything(const std::int64_t *, std::uint32_t) {
  return on_agent([](Agent &a) { a.forget_everything(); });
}

template <int Flow>
int packets(const std::int64_t *, std::uint32_t) {
  return on_agent([](Agent &a) { a.of_switch().controllers.force_packets(Flow < 0 ? std::nullopt : std::optional(Flow != 0)); });
}

struct Command {
  const char *name;
  ssat_handler handler;
};
constexpr Command kCommands[] = {{"reload", reload_all},
                                 {"forget_everything", forget_everything},
                                 {"pkt_start", packets<1>},
                                 {"pkt_end", packets<0>},
                                 {"pkt_by_role", packets<-1>}};

// Failures are ignored: the library works without commands.
void register_commands() {
  if (ssat_lib_init(global_handle, "of_ss") != 0) return;
  for (const Command &command : kCommands) ssat_reg_mod_cmd("of_ss", command.name, "nil", command.handler);
}

// The offset of the result code in a reply; std::nullopt for replies that are not results.
std::optional<std::size_t> result_code_at(std::span<const std::byte> reply) {
  const auto type = southbound::get<std::uint16_t>(reply.data(), southbound::kType);
  if (type == southbound::kFlowResult && reply.size() == southbound::kFlowResultLen) return southbound::kFlowResultCode;
  if (type == southbound::kMeterResult && reply.size() == southbound::kMeterResultLen) return southbound::kMeterResultCode;
  return std::nullopt;
}

// A failure while the database accepts no writes says nothing about the hardware, however soon the database is back: so such a
// result is marked here. Results come from the loop's thread.
bool put_in_inbox(std::span<const std::byte> reply) {
  const auto code_at = result_code_at(reply);
  if (!code_at || mom::hub()->takes_writes()) return inbox.put(reply);
  std::array<std::byte, southbound::kFlowResultLen> marked{};
  std::ranges::copy(reply, marked.begin());
  southbound::put(marked.data(), *code_at, southbound::get<std::uint32_t>(reply.data(), *code_at) | kUndecided);
  return inbox.put(std::span(marked).first(reply.size()));
}

// The length in the header is not checked: the daemon's barrier reply echoes the request's.
bool is_message(const void *msg, std::uint32_t len) {
  return msg && len >= southbound::kHeaderLen && len <= UINT16_MAX;
}

}  // namespace

const Callbacks &callbacks() {
  return registered;
}

void hold_agent(bool hold) {
  held = hold;
}

void set_reply_tap(std::function<void(std::span<const std::byte>)> tap) {
  reply_tap.set(std::move(tap));
}

void set_fetch_tap(std::function<void()> tap) {
  fetch_tap.set(std::move(tap));
}

std::uint16_t listening_port(std::size_t n) {
  std::uint16_t port = 0;
  if (agent) agent->run([n, &port](Agent &a) { port = a.endpoints().port(n); });
  return port;
}

std::optional<std::vector<std::string>> audit_now() {
  if (!audit || !audit->look()) return std::nullopt;
  std::vector<std::string> texts;
  for (const Difference &difference : audit->differences()) texts.push_back(text(difference));
  return texts;
}

void run_timers() {
  if (agent) agent->run([](Agent &a) { a.run_timers(); });
}

void of_ss_reset_for_tests() {
  stop_agent();
  set_reply_tap(nullptr);
  set_fetch_tap(nullptr);
  registered = {};
  global_handle = nullptr;
  held = false;
}

}  // namespace host::of_ss

using host::of_ss::put;
using host::of_ss::registered;

extern "C" {

int ss_of_init(qx_global *global) {
  using namespace host::of_ss;
  if (const int rv = host::fault::check(Point::of_init)) return rv;
  if (!global) return QX_FAILED;
  global_handle = global;
  watch_answers(
      [](Bytes answer) {
        if (running) inbox.put(answer);
      },
      [](std::uint64_t index, std::optional<std::uint32_t> status) {
        loop_trace::answered(index, status);
        if (agent) agent->pace().answered(index);
      });
  watch_target(global, [](const TargetCapabilities &target) {
    if (agent) agent->target_announced(target);
  });
  loop_trace::start();
  watch_translations();
  watch_databases();
  host::ddm::on_change([] {
    if (agent) agent->ports_changed();
  });
  register_views([] { return agent.get(); });
  const auto running_audit = [] {
    return audit ? audit.get() : throw std::invalid_argument("the OpenFlow service library is not running yet");
  };
  host::control::register_view("audit", [running_audit](const nlohmann::json &args) {
    if (args.value("look", false)) running_audit()->ask();
    return running_audit()->view();
  });
  host::control::register_status("audit", [running_audit] { return running_audit()->summary(); });
  register_metrics([] { return agent.get(); }, []() -> const Audit * { return audit.get(); });
  register_commands();
  host::at_reload({.keys = {"openflow.listen", "openflow.connect", "openflow.tls_cert", "openflow.tls_key", "openflow.tls_ca",
                            "openflow.tls_verify"},
                   .take = take_over});
  host::at_finish([] {
    retry_timer().cancel();
    look_timer().cancel();
    stop_agent();
    host::ddm::on_change(nullptr);
    registered = {};
    reloaded.reset();
    global_handle = nullptr;
  });
  return 0;
}

int of_ss_regiter_flow_mod(of_ss_msg_cb cb) {
  return put(registered.flow_mod, cb);
}
int of_ss_regiter_send_openmsg(of_ss_msg_cb cb) {
  return put(registered.open, cb);
}
int of_ss_regiter_mgmt_ifx(of_ss_msg_cb cb) {
  return put(registered.mgmt_ifx, cb);
}
int of_ss_regiter_send_closemsg(of_ss_msg_cb cb) {
  return put(registered.close, cb);
}
int of_ss_regiter_del_all_flow(of_ss_signal_cb cb) {
  return put(registered.del_all_flow, cb);
}
int of_ss_regiter_start(of_ss_msg_cb cb) {
  return put(registered.ds_start, cb);
}
int of_ss_regiter_end(of_ss_msg_cb cb) {
  return put(registered.ds_end, cb);
}
int of_ss_regiter_flow_statistic_reply(of_ss_msg_cb cb) {
  return put(registered.statistic, cb);
}
int of_ss_regiter_meter_mod(of_ss_msg_cb cb) {
  return put(registered.meter_mod, cb);
}
int of_ss_socket_connected(of_ss_signal_cb cb) {
  return put(registered.connected, cb);
}
int of_ss_flowcount_config(of_ss_msg_cb cb) {
  return put(registered.flow_count, cb);
}
int of_ss_pkt_start(of_ss_msg_cb cb) {
  return put(registered.pkt_start, cb);
}
int of_ss_pkt_end(of_ss_msg_cb cb) {
  return put(registered.pkt_end, cb);
}
int of_ss_con_info(of_ss_msg_cb cb) {
  return put(registered.onc_info, cb);
}
int ofss_barrier_request(of_ss_msg_cb cb) {
  if (const int rv = host::fault::check(host::fault::Point::of_barrier_request)) return rv;
  return put(registered.barrier, cb);
}
int of_ss_regiter_del_all(of_ss_signal_cb cb) {
  return put(registered.del_all, cb);
}

void ss_of_ds_fetch(void) {
  using namespace host::of_ss;
  if (host::fault::check(Point::of_fetch)) return;
  fetch_tap.tell();
  fetch();
}

int of_ss_send_msg(const void *msg, std::uint32_t len) {
  using namespace host::of_ss;
  if (!is_message(msg, len)) return QX_INVALID;
  if (const int rv = host::fault::check(Point::of_send)) return rv;
  const std::span bytes(static_cast<const std::byte *>(msg), len);
  reply_tap.tell(bytes);
  if (!running) return held ? QX_OK : QX_FAILED;
  return put_in_inbox(bytes) ? QX_OK : QX_FAILED;
}
}
