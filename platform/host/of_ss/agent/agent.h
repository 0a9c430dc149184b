// The OpenFlow agent: its thread, and the work of each turn of the thread's loop.
//
// It passes messages from controllers to the protocol (protocol.h), replies of the daemon (inbox.h) to the flows and meters of
// the switch (switch.h), and answers back. Everything runs on the openflow thread, unless noted otherwise.
#pragma once

#include <event2/event.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/base/event_owner.h"
#include "host/of_ss/agent/inbox.h"
#include "host/of_ss/agent/replies.h"
#include "host/of_ss/agent/settings.h"
#include "host/of_ss/agent/turns.h"
#include "host/of_ss/desired/callbacks.h"
#include "host/of_ss/net/endpoint_set.h"
#include "host/of_ss/protocol/asynchronous.h"
#include "host/of_ss/protocol/bundles.h"
#include "host/of_ss/protocol/monitors.h"
#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

// Contents of the database from an earlier run of the daemon: southbound flow-mods and meter-mods.
struct StoredState {
  std::vector<std::vector<std::byte>> flows, meters;
  std::uint64_t last_index = 0;  // the greatest credible index of a flow, a flow's status or a translation
  TargetCapabilities target;     // as announced by the programming service
};

class Agent final : private FlowEvents, private ConnectionEvents {
 public:
  // `callbacks` and `inbox`, through which the daemon answers, must outlive the agent. `look_up` is called on the openflow thread
  // with indexes of flows, and later calls overdue_checked with the installed ones.
  using LookUp = std::function<void(std::vector<std::uint64_t> indexes)>;
  Agent(const Callbacks &callbacks, Inbox &inbox, Settings settings, LookUp look_up);
  ~Agent();
  Agent(const Agent &) = delete;
  Agent &operator=(const Agent &) = delete;

  // ---- loop's thread

  // Adopts the stored state; before start.
  void restore(const StoredState &stored);
  // Opens the endpoints and starts the thread.
  void start();
  // Limits how far the agent may be ahead of the loop; must be notified of drains and answers.
  Pace &pace() { return switch_.pace; }
  // Ends the thread after its current turn; everything else stays as it is.
  void stop();

  // ---- any thread

  void overdue_checked(std::vector<std::uint64_t> installed) {
    inbox_.post([this, found = std::move(installed)] { switch_.flows.overdue_checked(found, switch_.now()); });
  }
  // Passes in the stored controller addresses; those that no controller has are withdrawn.
  void addresses_stored(std::vector<std::uint32_t> stored) {
    inbox_.post([this, stored = std::move(stored)] { switch_.controllers.withdraw_strangers(stored); });
  }
  // To be called when the programming service has announced another target.
  void target_announced(const TargetCapabilities &target) {
    inbox_.post([this, target] { switch_.set_target(target); });
  }
  // To be called when the machine's interfaces have changed.
  void ports_changed() {
    inbox_.post([this] { update_ports(switch_); });
  }
  // To be called when the databases have come up, also after a restart: replays everything.
  void data_fetched() {
    inbox_.post([this] { switch_.replay.ask(switch_.now()); });
  }
  void database_lost() {
    inbox_.post([this] { switch_.replay.database_lost(); });
  }
  // Runs `work` on the openflow thread and waits for it, at most a few seconds. False if it has not run.
  bool run(std::function<void(Agent &)> work) {
    return inbox_.run([this, work = std::move(work)] { work(*this); });
  }

  // ---- on the openflow thread

  // Applies the endpoints and certificates of a changed configuration. Endpoints that are no longer configured are closed with
  // their connections; flows and meters stay, even without any endpoint.
  void reconfigure(EndpointSettings fresh);
  // Deletes every flow and meter.
  void forget_everything();
  // For tests: the periodic work, assuming that the daemon's loop turns.
  void run_timers();

  Switch &of_switch() { return switch_; }
  const Switch &of_switch() const { return switch_; }
  Flows &flows() { return switch_.flows; }
  const Flows &flows() const { return switch_.flows; }
  const EndpointSet &endpoints() const { return endpoints_; }
  EndpointState state_of(const std::string &endpoint) const {
    return endpoints_.state_of(endpoint, switch_.controllers.is_connected(endpoint));
  }
  // Flow requests that failed after they had been accepted, by error.
  const ErrorCounts &failure_counts() const { return failure_counts_; }

 private:
  // FlowEvents
  void flow_failed(const Origin &origin, const Error &error, Bytes request) override;
  void flow_removed(const FlowEntry &flow, RemovedReason reason) override { send_flow_removed(switch_, flow, reason); }
  void flow_changed(const FlowEntry &flow, const FlowChange &change) override { monitors_.flow_changed(flow, change); }
  void barrier_answered(const Origin &origin) override;
  void overdue(std::vector<std::uint64_t> indexes) override { look_up_(std::move(indexes)); }
  // ConnectionEvents
  void up(Connection &connection) override { switch_.controllers.up(connection); }
  void message(Connection &connection, Bytes message) override;
  void batch_begins(Connection &connection) override { turns_.begin(connection); }
  bool may_take(Connection &connection, Bytes message) override { return turns_.may_take(connection, message); }
  void batch_done(Connection &connection) override;
  void drained(Connection &connection) override;
  void gone(Connection &connection) override;
  void overfull() override { switch_.controllers.overfull(); }

  void main();
  void new_turn();
  void turn_done();
  void take_inbox();
  bool is_busy() const { return switch_.flows.is_replaying() || switch_.flows.is_deleting() || bundles_.is_committing(); }
  void work_on();
  void take_turns();
  void reap();
  void tick();
  void second();
  void check_deadlines(bool daemon_turns);
  void ask_daemon_to_turn();
  void counters_are_there(bool late);

  struct FreeBase {
    void operator()(event_base *base) const { event_base_free(base); }
  };

  const LookUp look_up_;
  const std::uint32_t report_cells_;
  Inbox &inbox_;
  std::unique_ptr<event_base, FreeBase> base_;
  Switch switch_;
  Bundles bundles_{switch_};
  Monitors monitors_{switch_};
  Turns turns_{switch_, bundles_};
  DaemonReplies replies_{switch_, *this};
  EndpointSet endpoints_;
  ErrorCounts failure_counts_;

  EventOwner inbox_event_, tick_event_, second_event_, reap_event_, turns_event_;
  bool ticking_ = false;
  std::shared_ptr<std::atomic<bool>> daemon_turned_;
  bool asked_to_turn_ = false;  // the daemon's loop has not answered yet
  std::thread thread_;
};

}  // namespace host::of_ss
