// The OpenFlow agent: its thread, its connections, and what they share.
//
// The agent owns the flows and meters, routes what comes from controllers (protocol.h) and from the daemon (the inbox) to them
// and their answers back. Everything runs on the openflow thread, except where it says otherwise.
#pragma once

#include <array>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/ddm/ports.h"
#include "host/of_ss/agent/inbox.h"
#include "host/of_ss/agent/pace.h"
#include "host/of_ss/agent/settings.h"
#include "host/of_ss/desired/callbacks.h"
#include "host/of_ss/desired/flows.h"
#include "host/of_ss/desired/meters.h"
#include "host/of_ss/desired/trace.h"
#include "host/of_ss/net/connection.h"
#include "host/of_ss/net/endpoints.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/protocol/bundles.h"
#include "host/of_ss/protocol/monitors.h"
#include "host/of_ss/stored/stored.h"

namespace host::of_ss {

inline constexpr std::size_t kMaxConnections = 255;

// Numbers, each with how many have it.
class Census {
 public:
  // Whether it is the first with this number, whether it was the last.
  bool add(std::uint32_t number) { return ++counts_[number] == 1; }
  bool remove(std::uint32_t number) {
    const auto at = counts_.find(number);
    if (--at->second > 0) return false;
    counts_.erase(at);
    return true;
  }
  bool contains(std::uint32_t number) const { return counts_.contains(number); }
  std::vector<std::uint32_t> numbers() const {
    std::vector<std::uint32_t> all;
    for (const auto &[number, count] : counts_) all.push_back(number);
    return all;
  }

 private:
  std::map<std::uint32_t, std::size_t> counts_;
};

// A log line that could come often: one a second tells the latest, the others are counted.
class SparingLine {
 public:
  bool due(std::int64_t now_ns) {
    ++untold_;
    return told_ns_ == 0 || now_ns - told_ns_ >= 1'000'000'000;
  }
  // How many there were since the line before, this one included.
  std::uint64_t tell(std::int64_t now_ns) {
    told_ns_ = now_ns;
    return std::exchange(untold_, 0);
  }

 private:
  std::int64_t told_ns_ = 0;
  std::uint64_t untold_ = 0;
};

// What is kept of a refused request, for the operator.
struct RefusalRecord {
  std::int64_t when_ns;
  std::string peer;
  std::uint32_t xid;
  Verdict verdict;
  std::vector<std::byte> request;  // the beginning of it
};

class Agent final : private FlowEvents, private ConnectionEvents {
 public:
  // `callbacks` and `inbox`, through which the daemon answers, outlive the agent.
  // `look_up` is called on the openflow thread with indexes of flows and has overdue_checked called later with those that are
  // installed.
  using LookUp = std::function<void(std::vector<std::uint64_t> indexes)>;
  Agent(const Callbacks &callbacks, Inbox &inbox, Settings settings, LookUp look_up);
  ~Agent();
  Agent(const Agent &) = delete;
  Agent &operator=(const Agent &) = delete;

  // ---- loop's thread

  // Takes over what is stored; before start.
  void restore(const StoredState &stored);
  // Opens the endpoints and starts the thread.
  void start();
  // How far the agent may be ahead of the loop; to be told of drains and answers.
  Pace &pace() { return pace_; }
  // Ends the thread, after the turn that it is in; the rest stays as it is.
  void stop();

  // ---- any thread

  void overdue_checked(std::vector<std::uint64_t> installed) {
    inbox_.post([this, found = std::move(installed)] { flows_.overdue_checked(found, now_ns_); });
  }
  // The addresses of controllers that are stored: what an outage of the database or an earlier life of the daemon has left among
  // them is withdrawn.
  void addresses_stored(std::vector<std::uint32_t> stored) {
    inbox_.post([this, stored = std::move(stored)] { withdraw_strangers(stored); });
  }
  // The machine's interfaces have changed.
  void ports_changed() {
    inbox_.post([this] { update_ports(); });
  }
  // The databases are there, perhaps again, and want to hear of everything.
  void data_fetched() {
    inbox_.post([this] { synchronise(); });
  }
  // A database has gone: a synchronisation that has not begun is not waited for; another one is asked for when it is back.
  void database_lost() {
    inbox_.post([this] { replay_asked_ = false; });
  }
  // Runs `work` on the openflow thread and waits for it, not longer than a few seconds. False when it has not run.
  bool run(std::function<void(Agent &)> work);

  // ---- on the openflow thread

  // The configuration has changed: takes over its endpoints and certificates, leaves the rest as it was. Endpoints that are no
  // longer configured end with their connections; what controllers asked for stays, also without any endpoint.
  void reconfigure(Settings fresh);
  // Deletes every flow and meter.
  void forget_everything();
  // Whether packets to the controllers may flow, whatever roles they have; nothing: by their roles again.
  void force_packets(std::optional<bool> flow);
  // Hands everything to the daemon again, which forgets the flows that are not among it: as soon as it has answered for what it
  // has, and before anything that the controllers send meanwhile.
  void synchronise();

  // ---- for tests, on the openflow thread: the periodic work, with the daemon's loop taken as turning
  void run_timers();

  // The port that the n-th listening endpoint is bound to, 0 when it is not.
  std::uint16_t port(std::size_t n) const { return n < listeners_.size() ? listeners_[n]->port() : 0; }

  // ---- for the protocol

  Flows &flows() { return flows_; }
  const Flows &flows() const { return flows_; }
  Bundles &bundles() { return bundles_; }
  Monitors &monitors() { return monitors_; }
  // The connection, while it is up; null when it has gone.
  Connection *find(std::uint64_t generation) const;
  // Whether everything is being handed to the daemon again, or will be as soon as it has answered for what it has.
  bool is_to_replay() const { return replay_asked_ || flows_.is_replaying(); }
  // Whether a change that takes several turns may hand over more now; if not, it is asked to go on later.
  bool may_work() { return flows_.room() && pace_.open(flows_.handover().calls(), false); }
  Meters &meters() { return meters_; }
  const Meters &meters() const { return meters_; }
  std::uint64_t datapath_id() const { return settings_.datapath_id; }
  const ddm::Ports &ports() const { return *ports_; }
  const ddm::Port *find_port(std::uint32_t number) const;
  std::span<const std::uint32_t> port_numbers() const { return port_numbers_; }
  // Looks at the ports again and reports to the controllers what has changed.
  void update_ports();
  std::int64_t now() const { return now_ns_; }
  // Answers a request with an error and keeps it for the operator.
  void refuse(Connection &connection, const Verdict &verdict, Bytes request);
  // The connection's role becomes `role`; when that is master, another master becomes slave.
  void set_role(Connection &connection, Role role);
  std::vector<std::byte> &scratch() { return scratch_; }
  FlowMod &flow_mod() { return flow_mod_; }
  Trace &trace() { return trace_; }
  const Trace &trace() const { return trace_; }
  // Asks the daemon for the counters of all flows; Session::waits_for_counters of the connection is cleared when they are there,
  // or when they take too long.
  void refresh_counters(Connection &connection);
  struct Generation {
    bool defined = false;
    std::uint64_t id = ~std::uint64_t{0};
  };
  Generation &master_generation() { return master_generation_; }

  // ---- for the views

  std::vector<const Connection *> connections() const;
  const std::deque<RefusalRecord> &refusals() const { return refusals_; }
  std::uint64_t refused() const { return refused_; }
  // How often each error was sent: for requests that were refused, and for those that failed after they had been accepted.
  using ErrorCounts = std::map<const Error *, std::uint64_t>;
  const ErrorCounts &refusal_counts() const { return refusal_counts_; }
  const ErrorCounts &failure_counts() const { return failure_counts_; }
  // Messages by configured endpoint, also those of connections that have gone.
  std::map<std::string, Traffic> traffic() const;
  // The address that Peer::controller stands for; "" for 0.
  const std::string &controller_address(std::uint16_t number) const { return controller_addresses_[number]; }
  std::uint64_t turned_away() const { return turned_away_; }
  const std::vector<std::string> &endpoints() const { return settings_.controllers; }
  EndpointState state_of(const std::string &endpoint) const;

 private:
  // FlowEvents
  void flow_failed(const Origin &origin, const Error &error, Bytes request) override;
  void flow_removed(const FlowEntry &flow, RemovedReason reason) override;
  void flow_changed(const FlowEntry &flow, const FlowChange &change) override { monitors_.flow_changed(flow, change); }
  void barrier_answered(const Origin &origin) override;
  void overdue(std::vector<std::uint64_t> indexes) override { look_up_(std::move(indexes)); }
  // ConnectionEvents
  void up(Connection &connection) override;
  void message(Connection &connection, Bytes message) override;
  void batch_begins(Connection &connection) override;
  bool may_take(Connection &connection, Bytes message) override;
  void batch_done(Connection &connection) override;
  void drained(Connection &connection) override;
  void gone(Connection &connection) override;
  void overfull() override;

  void open(const Endpoint &endpoint);
  bool is_open(const std::string &endpoint) const;
  void close_endpoints_but(const std::vector<std::string> &wanted);
  void main();
  void look_at_clock();
  void new_turn();
  void turn_done();
  void take_inbox();
  void replay_when_settled();
  void begin_replay();
  void end_replay();
  struct ReplyRow {
    std::uint16_t type;
    std::size_t min_length;
    void (*take)(Agent &agent, Bytes message);
  };
  static const ReplyRow *reply_row(std::uint16_t type);
  void take_reply(Bytes message);
  void take_meter_result(Bytes message);
  void take_counters(Bytes message);
  void take_report(Bytes message);
  bool may_hand_over(Session &session);
  void resume_waiting();
  bool is_busy() const { return flows_.is_replaying() || flows_.is_deleting() || bundles_.is_committing(); }
  void work_on();
  void take_turns();
  void tick();
  void second();
  void check_deadlines(bool daemon_turns);
  void ask_daemon_to_turn();
  bool any_needs_ticks() const;
  void accept(BuffereventOwner bev, Peer peer, Dialer *dialer);
  std::size_t free_number();
  std::uint16_t controller_number(const std::string &peer);
  void reap();
  void arrived(const Connection &connection);
  void left(const Connection &connection);
  void withdraw_strangers(const std::vector<std::uint32_t> &stored);
  void tell_failed_connection(const Connection &connection);
  void update_packets();
  void send_port_status(const ddm::Port &port, std::uint8_t reason);
  template <typename Send>
  void for_each_listener(Async kind, std::uint8_t reason, Send &&send);
  void counters_are_there();
  void counters_are_late();

  Settings settings_;
  const LookUp look_up_;
  Inbox &inbox_;
  Trace trace_;
  Flows flows_;
  Meters meters_;
  Bundles bundles_{*this};
  Monitors monitors_{*this};
  Pace pace_;
  std::shared_ptr<const ddm::Ports> ports_;
  std::vector<std::uint32_t> port_numbers_;

  struct FreeBase {
    void operator()(event_base *base) const { event_base_free(base); }
  };
  template <void (Agent::*Handler)()>
  EventOwner make_event(int fd, short what);

  std::unique_ptr<event_base, FreeBase> base_;
  EventOwner inbox_event_, tick_event_, second_event_, reap_event_, refresh_event_, turns_event_;
  bool ticking_ = false;
  std::vector<std::unique_ptr<Listener>> listeners_;
  std::vector<std::unique_ptr<Dialer>> dialers_;
  std::array<std::unique_ptr<Connection>, kMaxConnections> connections_;
  std::array<Dialer *, kMaxConnections> dialer_of_{};
  std::size_t next_turn_ = 0;   // the connection whose turn comes first
  std::uint32_t share_;         // messages a connection may have taken in one turn
  bool share_used_up_ = false;  // some connection waits for nothing but its next turn
  std::uint64_t generations_ = 0;
  std::size_t up_ = 0;
  Census addresses_, interfaces_;  // of the controllers' connections
  bool packets_ = false;           // the daemon has been told that packets to the controller may flow
  std::optional<bool> packets_forced_;
  Generation master_generation_;

  std::int64_t now_ns_ = 0;
  bool clock_is_fresh_ = false;
  std::vector<std::byte> scratch_;
  FlowMod flow_mod_;
  std::deque<RefusalRecord> refusals_;
  std::uint64_t refused_ = 0, turned_away_ = 0;
  std::vector<std::string> controller_addresses_{""};  // by number
  ErrorCounts refusal_counts_, failure_counts_;
  std::map<std::string, Traffic> past_traffic_;  // of connections that have gone
  SparingLine refusal_line_, failed_line_;

  bool replay_asked_ = false;  // as soon as the daemon has nothing under way

  // The own barrier behind a refresh of the counters under way; 0 when there is none.
  std::uint32_t refresh_xid_ = 0;

  std::shared_ptr<std::atomic<bool>> daemon_turned_;
  bool asked_to_turn_ = false;  // the daemon's loop has not answered yet
  std::thread thread_;
};

}  // namespace host::of_ss
