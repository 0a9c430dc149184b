// The switch as controllers see it: what the handlers of their messages (protocol/) work on. One a process; the agent owns it,
// tells it the time and runs it. Openflow thread.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <vector>

#include "host/base/clock.h"
#include "host/base/thread_bound.h"
#include "host/of_ss/desired/flows.h"
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
  bool prompt = true;  // the daemon is woken when something was handed over
  FlowLimits flows;
  ConnectionLimits connections;
};

class Switch {
 public:
  // What it tells, and what is above it. All outlive it.
  struct Above {
    const Callbacks &callbacks;
    FlowEvents &flow_events;
    ConnectionEvents &connection_events;
    Bundles &bundles;
    Monitors &monitors;
    CounterRefresh::Over counters_are_there;
    std::function<void()> wake;  // has the openflow thread look at the pace again; called on the loop's thread
  };
  Switch(event_base *base, const SwitchSettings &own, Above above)
      : settings(own),
        flows(above.callbacks, above.flow_events, trace, settings.flows),
        meters(flows),
        controllers(above.connection_events, flows.client(), settings.connections, [this](bool wanted) { packets.want(wanted); }),
        packets(base, controllers, scratch),
        pace(settings.prompt, std::move(above.wake)),
        replay(flows, meters, controllers),
        counters(base, flows, std::move(above.counters_are_there)),
        bundles(above.bundles),
        monitors(above.monitors) {}

  // Monotonic nanoseconds, of the turn of the loop.
  std::int64_t now() const {
    thread.check();
    return now_ns_;
  }
  // At the beginning of a turn: reads the clock, unless that has been done in it.
  void look_at_clock() {
    thread.check();
    if (clock_is_fresh_) return;
    now_ns_ = clock::now().count();
    trace.set_time(now_ns_);
    clock_is_fresh_ = true;
  }
  void end_turn() { clock_is_fresh_ = false; }

  // Whether a change that takes several turns may hand over more now; if not, it is asked to go on later.
  bool may_work() { return flows.room() && is_in_pace(); }
  bool is_in_pace() { return pace.open(flows.client().calls(), false); }
  // Who asks for what the message says.
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
  PortTable ports;
  Controllers controllers;
  Packets packets;
  Refusals refusals;
  Pace pace;
  Replay replay;
  CounterRefresh counters;
  Bundles &bundles;
  Monitors &monitors;

  // Of one call at a time: a reply being written, a flow-mod being read.
  std::vector<std::byte> scratch;
  FlowMod flow_mod;

 private:
  std::int64_t now_ns_ = 0;
  bool clock_is_fresh_ = false;
};

}  // namespace host::of_ss
