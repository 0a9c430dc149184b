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
#include <string>
#include <thread>
#include <vector>

#include "host/ddm/ports.h"
#include "host/of_ss/callbacks.h"
#include "host/of_ss/connection.h"
#include "host/of_ss/endpoints.h"
#include "host/of_ss/flows.h"
#include "host/of_ss/inbox.h"
#include "host/of_ss/meters.h"
#include "host/of_ss/session.h"
#include "host/of_ss/settings.h"
#include "host/of_ss/stored.h"

namespace host::of_ss {

inline constexpr std::size_t kMaxConnections = 255;

// What is kept of a refused request, for the operator.
struct RefusalRecord {
  std::int64_t when_ns;
  std::string peer;
  std::uint32_t xid;
  const char *request;  // name of the message type
  Verdict verdict;
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
  // The port that the n-th listening endpoint is bound to, 0 when it is not.
  std::uint16_t port(std::size_t n) const { return n < ports_bound_.size() ? ports_bound_[n] : 0; }

  // ---- any thread

  void overdue_checked(std::vector<std::uint64_t> installed) {
    inbox_.post([this, found = std::move(installed)] { flows_.overdue_checked(found, now_ns_); });
  }
  // Runs `work` on the openflow thread and waits for it, not longer than a few seconds. False when it has not run.
  bool run(std::function<void(Agent &)> work);

  // ---- for tests, on the openflow thread: the periodic work, with the daemon's loop taken as turning
  void run_timers();

  // ---- for the protocol

  Flows &flows() { return flows_; }
  Meters &meters() { return meters_; }
  std::uint64_t datapath_id() const { return settings_.datapath_id; }
  const ddm::Ports &ports() const { return *ports_; }
  const ddm::Port *find_port(std::uint32_t number) const;
  std::span<const std::uint32_t> port_numbers() const { return port_numbers_; }
  std::int64_t now() const { return now_ns_; }
  // Answers a request with an error and keeps it for the operator.
  void refuse(Connection &connection, const Verdict &verdict, Bytes request);
  // The connection's role becomes `role`; when that is master, another master becomes slave.
  void set_role(Connection &connection, Role role);
  std::vector<std::byte> &scratch() { return scratch_; }
  FlowMod &flow_mod() { return flow_mod_; }
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
  std::uint64_t turned_away() const { return turned_away_; }
  std::vector<std::string> targets() const;

 private:
  // FlowEvents
  void flow_failed(const Origin &origin, const Error &error, Bytes request) override;
  void flow_removed(const FlowEntry &flow, RemovedReason reason) override;
  void barrier_answered(const Origin &origin) override;
  void overdue(std::vector<std::uint64_t> indexes) override { look_up_(std::move(indexes)); }
  // ConnectionEvents
  void up(Connection &connection) override;
  void message(Connection &connection, Bytes message) override;
  bool may_take(const Connection &connection) override;
  void batch_done(Connection &connection) override;
  void drained(Connection &connection) override;
  void gone(Connection &connection) override;

  void open_endpoints();
  void main();
  void look_at_clock();
  void new_turn();
  void turn_done();
  void take_inbox();
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
  void synchronise();
  void resume_waiting();
  void tick();
  void second();
  void check_deadlines(bool daemon_turns);
  void ask_daemon_to_turn();
  bool any_needs_ticks() const;
  void accept(BuffereventOwner bev, Peer peer, Dialer *dialer);
  std::size_t free_number();
  void reap();
  Connection *find(std::uint64_t generation) const;
  void announce(const Peer &peer, int by);
  void update_packets();
  void update_ports();
  void send_port_status(const ddm::Port &port, std::uint8_t reason);
  template <typename Send>
  void for_each_listener(Async kind, std::uint8_t reason, Send &&send);
  void counters_are_there();

  const Settings settings_;
  const LookUp look_up_;
  Inbox &inbox_;
  Flows flows_;
  Meters meters_;
  std::shared_ptr<const ddm::Ports> ports_;
  std::vector<std::uint32_t> port_numbers_;

  struct FreeBase {
    void operator()(event_base *base) const { event_base_free(base); }
  };
  struct FreeEvent {
    void operator()(event *e) const { event_free(e); }
  };
  using EventOwner = std::unique_ptr<event, FreeEvent>;
  template <void (Agent::*Handler)()>
  EventOwner make_event(int fd, short what);

  std::unique_ptr<event_base, FreeBase> base_;
  EventOwner inbox_event_, tick_event_, second_event_, reap_event_;
  bool ticking_ = false;
  std::vector<std::unique_ptr<Listener>> listeners_;
  std::vector<std::unique_ptr<Dialer>> dialers_;
  std::vector<std::uint16_t> ports_bound_;
  std::array<std::unique_ptr<Connection>, kMaxConnections> connections_;
  std::array<Dialer *, kMaxConnections> dialer_of_{};
  std::uint64_t generations_ = 0;
  std::size_t up_ = 0;
  std::map<std::uint32_t, int> addresses_;  // of controllers, with the number of their connections
  bool packets_ = false;                    // the daemon has been told that packets to the controller may flow
  Generation master_generation_;

  std::int64_t now_ns_ = 0;
  bool clock_is_fresh_ = false;
  std::vector<std::byte> scratch_;
  FlowMod flow_mod_;
  std::deque<RefusalRecord> refusals_;
  std::uint64_t refused_ = 0, turned_away_ = 0;
  std::int64_t refusal_logged_ns_ = 0;
  std::uint64_t refusals_unlogged_ = 0;

  // A refresh of the counters under way: the own barrier behind it, and when it is given up.
  std::uint32_t refresh_xid_ = 0;
  std::int64_t refresh_until_ns_ = 0;

  std::shared_ptr<std::atomic<bool>> daemon_turned_;
  std::thread thread_;
};

}  // namespace host::of_ss
