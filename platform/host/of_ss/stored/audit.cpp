#include "host/of_ss/stored/audit.h"

#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "host/log/log.h"
#include "host/mom/hub.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"

namespace host::of_ss {
namespace {

using nlohmann::json;

// The pause after a look is at least kTimesLonger times this thread's time for the look, but at most kMostIntervals intervals.
constexpr int kTimesLonger = 1000, kMostIntervals = 10;

// After a step of a look in the background, the loop serves others for this many times the step's duration.
constexpr int kRest = 4;

std::chrono::nanoseconds processor_time() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

struct Wording {
  const char *kind, *what;
};
constexpr Wording kWordings[] = {
    {"flow", "is not stored"},
    {"flow", "is stored otherwise"},
    {"flow", "is not confirmed"},
    {"flow", "is stored but not asked for"},
    {"meter", "is not stored"},
    {"meter", "is stored otherwise"},
    {"meter", "is stored as failed"},
    {"meter", "is stored but not asked for"},
    {"flow", "is in the target but neither stored nor asked for"},
};

// Without a record to delete, asks the programming service to check again whether the flow is stored.
void doubt_flow(qx_global *global, std::uint64_t index) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = index;
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.index = &key;
  qx_mom_publish(global, QX_MOM_UDP_DB, &flow.base, 0, 0);
}

// A synchronisation repairs everything but unrequested meters, whose records outlive it. Such a meter is left over if the
// database was away when the meter was deleted.
void repair(Agent &agent, const std::vector<Difference> &differences) {
  bool others = false;
  for (const Difference &difference : differences) {
    if (difference.what == Difference::kMeterNotAskedFor)
      agent.of_switch().meters.delete_stray(static_cast<std::uint32_t>(difference.number));
    else
      others |= difference.what != Difference::kFlowLeftInTarget;
  }
  if (others) agent.of_switch().replay.ask(agent.of_switch().now());
}

}  // namespace

std::string text(const Difference &difference) {
  const Wording &wording = kWordings[difference.what];
  return fmt::format("{} {} {}", wording.kind, difference.number, wording.what);
}

Audit::Audit(qx_global *global, Agent &agent, const Options &options)
    : global_(global), agent_(agent), options_(options), timer_([this] { turn(); }) {
  if (options.interval.count()) timer_.arm(options.interval);
}

void Audit::ask() {
  hurried_ = true;
  timer_.arm({});
}

bool Audit::look() {
  do {
    turn();
  } while (look_);
  return settled_;
}

// Runs one step of a look and schedules the next.
void Audit::turn() {
  if (!look_) look_ = std::make_unique<Look>(global_, agent_);
  const auto begun = std::chrono::steady_clock::now();
  const auto used = processor_time();
  const Look::Result result = look_->step();
  cost_ += processor_time() - used;
  if (result == Look::Result::unfinished) {
    timer_.arm(hurried_ ? clock::Time{} : kRest * (std::chrono::steady_clock::now() - begun));
    return;
  }
  end(result == Look::Result::undisturbed);
  const auto pause = undisturbed_ ? kTimesLonger * cost_ : std::chrono::nanoseconds(0);
  look_.reset();
  hurried_ = false;
  cost_ = {};
  // Cancelled because a caller that finishes a look itself leaves the timer of its next step.
  timer_.cancel();
  if (options_.interval.count())
    timer_.arm(std::clamp<clock::Time>(pause, options_.interval, kMostIntervals * options_.interval));
}

void Audit::end(bool undisturbed) {
  settled_ = std::exchange(undisturbed_, undisturbed) && undisturbed;
  if (!undisturbed) return;
  ++counts_.looks;
  looked_ = clock::now();
  std::vector<Difference> confirmed;
  std::ranges::set_intersection(look_->found(), last_, std::back_inserter(confirmed));
  last_ = std::move(look_->found());
  if (settled_) note(std::move(confirmed));
}

// A repair without effect is not tried again.
void Audit::note(std::vector<Difference> confirmed) {
  if (confirmed == confirmed_) return;
  confirmed_ = std::move(confirmed);
  if (confirmed_.empty()) return log::info("audit: the database matches the requested state again");
  counts_.found += confirmed_.size();
  log::warn("audit: {} ({} differences between the requested state and the database)", text(confirmed_.front()),
            confirmed_.size());
  if (!options_.repair) return;
  // Without writes nothing can be repaired; once they are accepted again, everything is handed over anyway.
  if (!mom::hub()->takes_writes()) return;
  ++counts_.repairs;
  for (const Difference &difference : confirmed_)
    if (difference.what == Difference::kFlowLeftInTarget) doubt_flow(global_, difference.number);
  agent_.run([this](Agent &agent) { repair(agent, confirmed_); });
}

json Audit::view() const {
  json list = json::array();
  for (const Difference &difference : confirmed_) {
    const Wording &wording = kWordings[difference.what];
    list.push_back({{"kind", wording.kind}, {"number", difference.number}, {"what", wording.what}});
  }
  return {{"looking", look_ != nullptr || hurried_},
          {"progress", look_ ? look_->progress() : 0},
          {"settled", settled_},
          {"differences", std::move(list)},
          {"looks", counts_.looks},
          {"found", counts_.found},
          {"repairs", counts_.repairs}};
}

json Audit::summary() const {
  const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - looked_);
  return {{"differences", confirmed_.size()},
          {"looks", counts_.looks},
          {"age_s", counts_.looks ? json(static_cast<double>(age.count()) / 1000) : json()},
          {"found", counts_.found},
          {"repairs", counts_.repairs}};
}

}  // namespace host::of_ss
