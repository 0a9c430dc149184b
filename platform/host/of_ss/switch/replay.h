// The replay: hands everything to the daemon again after its databases were away; the daemon drops everything else. Openflow
// thread.
//
// The daemon waits for one answer of the programming service for each hand-over of a flow; a service that was away too answers
// only once for each flow it finds. So nothing is handed over again while its answer may be outstanding: a barrier shows that
// none is, even if the daemon has lost other barriers with the database. Until then the controllers wait.
#pragma once

#include <cstdint>

#include "host/of_ss/desired/flows.h"
#include "host/of_ss/desired/meters.h"
#include "host/of_ss/switch/controllers.h"

namespace host::of_ss {

class Replay {
 public:
  Replay(Flows &flows, Meters &meters, const Controllers &controllers)
      : flows_(flows), meters_(meters), controllers_(controllers) {}

  // Requests a replay, to begin once the daemon has answered for all hand-overs, and ahead of later messages from controllers.
  void ask(std::int64_t now_ns);
  // A database is lost: cancels a replay that has not begun. It is requested again when the database is back.
  void database_lost() { asked_ = false; }
  bool is_asked_or_running() const { return asked_ || flows_.is_replaying(); }

  // Begins a requested replay when nothing is in flight.
  void begin_when_settled();
  // Hands over the next piece; while Flows::is_replaying.
  void go_on(std::int64_t now_ns);

 private:
  void end(std::int64_t now_ns);

  Flows &flows_;
  Meters &meters_;
  const Controllers &controllers_;
  bool asked_ = false;
};

}  // namespace host::of_ss
