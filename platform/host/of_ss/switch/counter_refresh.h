// Fresh counters for statistics requests: asks the daemon for those of all flows, once for all connections that wait. Openflow
// thread.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <functional>

#include "host/base/event_owner.h"
#include "host/of_ss/desired/flows.h"
#include "host/of_ss/net/connection.h"

namespace host::of_ss {

class CounterRefresh {
 public:
  // `over` is called when the counters are there, or, in a turn of the loop of its own, when they are `late`; it serves the
  // connections whose Session::waits_for_counters is set.
  using Over = std::function<void(bool late)>;
  CounterRefresh(event_base *base, Flows &flows, Over over);

  // Has the connection wait for fresh counters, unless there are too many flows to ask for.
  void ask(Connection &connection, std::int64_t now_ns);
  // A barrier of the flows' own is answered; whether it was the one behind the refresh.
  bool barrier_answered(std::uint32_t xid);

 private:
  void end(bool late);
  void give_up() { end(true); }

  Flows &flows_;
  const Over over_;
  EventOwner late_;
  std::uint32_t xid_ = 0;  // of the barrier behind the refresh under way; 0 when there is none
};

}  // namespace host::of_ss
