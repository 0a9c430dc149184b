#include "host/of_ss/switch/replay.h"

#include "host/log/log.h"

namespace host::of_ss {

void Replay::ask(std::int64_t now_ns) {
  asked_ = true;
  if (!flows_.all_decided()) flows_.fence(now_ns);
}

// Some time after the start the daemon drops objects that have not been handed over again. That time grows with the number of
// objects of each kind, so the few meters come first: behind many flows they would expire before their turn. Also, flows then
// find the meters that they use. The flows follow as fast as the daemon's loop keeps up, which has other work meanwhile.
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
  // The daemon may have lost barriers with the database; the answer to this one covers them.
  flows_.fence(now_ns);
  controllers_.announce();
  log::info("handed {} flows and {} meters to the daemon again", flows_.table().size(), meters_.all().size());
}

}  // namespace host::of_ss
