#include "host/of_ss/switch/counter_refresh.h"

#include <utility>

#include "host/of_ss/net/session.h"

namespace host::of_ss {
namespace {

constexpr timeval kPatience{0, 100'000};  // two ticks of the daemon
// The daemon reads the counters of all flows in one go, which stalls the loop: with more flows than this the latest reported
// values are shown, a few seconds old.
constexpr std::size_t kFlowsRefreshed = 20'000;

}  // namespace

CounterRefresh::CounterRefresh(event_base *base, Flows &flows, Over over)
    : flows_(flows), over_(std::move(over)), late_(make_event<&CounterRefresh::give_up>(base, *this)) {}

void CounterRefresh::ask(Connection &connection, std::int64_t now_ns) {
  if (flows_.table().size() == 0 || flows_.table().size() > kFlowsRefreshed) return;
  connection.session().waits_for_counters = true;
  if (xid_) return;
  flows_.client().ask_counters(southbound::kAllFlows);
  event_add(late_.get(), &kPatience);
  xid_ = flows_.fence(now_ns);
}

bool CounterRefresh::barrier_answered(std::uint32_t xid) {
  if (xid_ == 0 || xid != xid_) return false;
  end(false);
  return true;
}

void CounterRefresh::end(bool late) {
  xid_ = 0;
  event_del(late_.get());
  over_(late);
}

}  // namespace host::of_ss
