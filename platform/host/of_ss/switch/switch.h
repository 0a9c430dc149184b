// The switch as seen by controllers, on which the handlers of their messages (protocol/) work. One per process; the agent owns
// it, sets its time and runs it. Openflow thread.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <vector>

#include "host/base/clock.h"
#include "host/base/thread_bound.h"
#include "host/of_ss/desired/flows.h"
#include "host/of_ss/desired/groups.h"
#include "host/of_ss/desired/meters.h"
#include "host/of_ss/desired/trace.h"
#include "host/of_ss/net/connection.h"
#include "host/of_ss/switch/controllers.h"
#include "host/of_ss/switch/counter_refresh.h"
#include "host/of_ss/switch/pace.h"
#include "host/of_ss/switch/packets.h"
#include "host/of_ss/switch/port_table.h"
#include "host/of_ss/switch/refusals.h"
#include "host/of_ss/switch/replay.h"

namespace host::of_ss {

class Bundles;
class Monitors;

struct SwitchSettings {
  std::uint64_t datapath_id = 0;
  bool prompt = true;  // wake the daemon after a hand-over
  FlowLimits flows;
  ConnectionLimits connections;
};

class Switch {
 public:
  // The receivers of its events, which must outlive it.
  struct Observers {
    const Callbacks &callbacks;
    FlowEvents &flow_events;
    ConnectionEvents &connection_events;
    Bundles &bundles;
    Monitors &monitors;
    CounterRefresh::Over counters_are_there;
    std::function<void()> wake;  // makes the openflow thread check the pace again; called on the loop's thread
  };
  Switch(event_base *base, const SwitchSettings &own, Observers observers)
      : settings(own),
        flows(observers.callbacks, observers.flow_events, trace, settings.flows),
        meters(flows, target_),
        controllers(observers.connection_events, flows.client(), settings.connections,
                    [this](bool wanted) { packets.want(wanted); }),
        packets(base, controllers, scratch),
        pace(settings.prompt, std::move(observers.wake)),
        replay(flows, meters, controllers),
        counters(base, flows, std::move(observers.counters_are_there)),
        bundles(observers.bundles),
        monitors(observers.monitors) {}

  // The target's capabilities, against which all later requests are checked.
  const TargetCapabilities &target() const { return target_; }
  void set_target(const TargetCapabilities &target) {
    target_ = target;
    flows.target_holds(target.flows);
  }
  Terms terms() const { return {ports.numbers(), target_, &groups}; }

  // Monotonic nanoseconds at the current turn of the loop.
  std::int64_t now() const {
    thread.check();
    return now_ns_;
  }
  // At the beginning of a turn: reads the clock, unless the turn has already done so.
  void look_at_clock() {
    thread.check();
    if (clock_is_fresh_) return;
    now_ns_ = clock::now().count();
    trace.set_time(now_ns_);
    clock_is_fresh_ = true;
  }
  void end_turn() { clock_is_fresh_ = false; }

  // True if a change of several turns may hand over more now; otherwise it is resumed later.
  bool may_work() { return flows.room() && is_in_pace(); }
  bool is_in_pace() { return pace.open(flows.client().calls(), false); }
  // The origin of a request: its connection and transaction id.
  Origin origin(const Connection &connection, Bytes message) const {
    return {connection.generation(), be32(message, kOfXid), connection.peer().controller, trace.request()};
  }
  void refuse(Connection &connection, const Verdict &verdict, Bytes request) {
    refusals.refuse(connection, verdict, request, now_ns_);
    trace.note(Step::refused, 0, error_number(*verdict.error));
  }

  const SwitchSettings settings;
  ThreadBound thread;
  Trace trace;
  Flows flows;
  Meters meters;
  Groups groups;
  PortTable ports;
  Controllers controllers;
  Packets packets;
  Refusals refusals;
  Pace pace;
  Replay replay;
  CounterRefresh counters;
  Bundles &bundles;
  Monitors &monitors;

  // Used by one call at a time, for a reply being written or a flow-mod being read.
  std::vector<std::byte> scratch;
  FlowMod flow_mod;

 private:
  TargetCapabilities target_;
  std::int64_t now_ns_ = 0;
  bool clock_is_fresh_ = false;
};

}  // namespace host::of_ss
