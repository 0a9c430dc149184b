// Fetches fresh counters for statistics requests: asks the daemon for those of all flows, once for all waiting connections.
// Openflow thread.
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
  // `over` is called when the counters have arrived, or, in a separate turn of the loop, when they are `late`; it must serve the
  // connections with Session::waits_for_counters set.
  using Over = std::function<void(bool late)>;
  CounterRefresh(event_base *base, Flows &flows, Over over);

  // Makes the connection wait for fresh counters, unless there are too many flows.
  void ask(Connection &connection, std::int64_t now_ns);
  // One of the flows' own barriers was answered; true if it was the one behind the refresh.
  bool barrier_answered(std::uint32_t xid);

 private:
  void end(bool late);
  void give_up() { end(true); }

  Flows &flows_;
  const Over over_;
  EventOwner late_;
  std::uint32_t xid_ = 0;  // of the barrier behind the current refresh; 0 if there is none
};

}  // namespace host::of_ss
