#include "host/of_ss/switch/replay.h"

#include "host/log/log.h"

namespace host::of_ss {

void Replay::ask(std::int64_t now_ns) {
  asked_ = true;
  if (!flows_.all_decided()) flows_.fence(now_ns);
}

// What the daemon has not heard of again some time after the start, it forgets. That time grows with how many there are of each
// kind, so the meters, which are few, come first: behind many flows they would be forgotten before they were heard of. And a flow
// finds the meter that it uses. The flows follow as the daemon's loop keeps up: it has others to serve meanwhile.
void Replay::begin_when_settled() {
  if (!asked_ || flows_.is_replaying() || !flows_.all_decided() || flows_.is_in_transaction()) return;
  asked_ = false;
  flows_.client().begin_sync();
  meters_.replay();
  flows_.begin_replay();
}

void Replay::go_on(std::int64_t now_ns) {
  flows_.replay_more();
  if (!flows_.is_replaying()) end(now_ns);
}

void Replay::end(std::int64_t now_ns) {
  flows_.client().end_sync();
  // The daemon may have lost barriers with the database; the answer to this one stands for them.
  flows_.fence(now_ns);
  controllers_.announce();
  log::info("handed {} flows and {} meters to the daemon again", flows_.table().size(), meters_.all().size());
}

}  // namespace host::of_ss
