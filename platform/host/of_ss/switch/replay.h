// Hands everything to the daemon again when its databases have been away: it forgets what is not among it. Openflow thread.
//
// The daemon waits for one answer of the programming service for each time that a flow was handed over; a service that was away
// itself answers once for what it finds. So nothing is handed over again while its answer may be outstanding: a barrier tells
// that none is, whatever barriers the daemon has lost with the database. Until then the controllers wait.
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

  // As soon as the daemon has answered for what it has, and before anything that the controllers send meanwhile.
  void ask(std::int64_t now_ns);
  // A database has gone: a replay that has not begun is not waited for. It is asked for again when the database is back.
  void database_lost() { asked_ = false; }
  bool is_asked_or_running() const { return asked_ || flows_.is_replaying(); }

  // Begins one that has been asked for, when nothing is under way.
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
