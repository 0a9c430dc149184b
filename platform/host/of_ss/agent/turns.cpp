#include "host/of_ss/agent/turns.h"

#include <algorithm>

#include "host/of_ss/net/session.h"
#include "host/of_ss/protocol/protocol.h"

namespace host::of_ss {
namespace {

// A message with a longer answer uses up the share of its connection.
constexpr std::size_t kShareBytes = 32 << 10;
// A connection that has handed over less than this since the loop turned may exceed the bound a little.
constexpr std::uint32_t kLittle = 4;

}  // namespace

void Turns::begin(Connection &connection) {
  connection.session().share = share_;
  connection.session().unsent_before = connection.unsent();
}

bool Turns::may_take(Connection &connection, Bytes message) {
  Session &session = connection.session();
  if (session.dump || session.owes_updates || session.waits_for_counters || connection.is_backed_up()) return false;
  if (is_for_daemon(message) && !may_hand_over(session)) return false;
  if (session.share == 0 || connection.unsent() > session.unsent_before + kShareBytes) {
    next_is_due_ = true;
    return false;
  }
  --session.share;
  return true;
}

bool Turns::may_hand_over(Session &session) {
  if (sw_.replay.is_asked_or_running() || bundles_.is_committing()) return false;
  if (session.granted != sw_.pace.granted()) {
    session.granted = sw_.pace.granted();
    session.handed_over = 0;
  }
  const bool may = session.barriers < sw_.settings.connections.queue_bound && sw_.flows.room() &&
                   sw_.pace.open(sw_.flows.client().calls(), session.handed_over < kLittle);
  session.handed_over += may;
  return may;
}

void Turns::resume_waiting() {
  const auto waits = [this](std::size_t number) {
    const Connection *connection = sw_.controllers.at(number);
    return connection && connection->is_waiting();
  };
  std::uint32_t waiting = 0;
  for (std::size_t n = 0; n < kMaxConnections; ++n) waiting += waits(n);
  if (waiting == 0) return;
  share_ = std::clamp(kMessages / waiting, kShareMin, kShareMax);
  next_is_due_ = false;
  const std::size_t first = next_;
  for (std::size_t n = 0; n < kMaxConnections; ++n) {
    const std::size_t number = (first + n) % kMaxConnections;
    if (!waits(number)) continue;
    // The connection at which the pace is used up comes first when the agent may continue.
    if (sw_.is_in_pace()) next_ = (number + 1) % kMaxConnections;
    sw_.controllers.at(number)->resume();
  }
  share_ = kShareMax;
}

}  // namespace host::of_ss
