#include "programmer/linux/lists.h"

#include <utility>

namespace programmer::dataplane {
namespace {

std::string content_of(std::span<const dp_step> list) {
  std::string content;
  for (dp_step step : list) {
    step.next = 0;
    content.append(reinterpret_cast<const char *>(&step), sizeof step);
  }
  return content;
}

// The places of a list's steps; empty if it does not end within the memory and the limit.
std::vector<std::uint32_t> places_of(const dp_step *steps, std::uint32_t first) {
  std::vector<std::uint32_t> places;
  for (std::uint32_t at = first; at != 0; at = steps[at - 1].next) {
    if (at > DP_MAX_STEPS || places.size() == DP_LIST_STEPS) return {};
    places.push_back(at - 1);
  }
  return places;
}

}  // namespace

ActionLists::ActionLists(dp_step *steps, const std::vector<std::uint32_t> &in_force) : steps_(steps) {
  std::vector<bool> taken(DP_MAX_STEPS);
  for (const std::uint32_t first : in_force)
    if (!by_first_.contains(first)) inherit(first, taken);
  for (std::uint32_t place = DP_MAX_STEPS; place-- > 0;)
    if (!taken[place]) free_.push_back(place);
}

// Steps of a second list with the same content, or of damaged ones that share steps, are never reused, since flows refer to them.
void ActionLists::inherit(std::uint32_t first, std::vector<bool> &taken) {
  std::vector<dp_step> list;
  bool own = true;
  for (const std::uint32_t place : places_of(steps_, first)) {
    list.push_back(steps_[place]);
    own = own && !taken[place];
    taken[place] = true;
  }
  if (list.empty() || !own) return;
  const auto [at, fresh] = known_.try_emplace(content_of(list), Known{first, 0, true});
  if (fresh) by_first_.emplace(first, at);
}

std::uint32_t ActionLists::use(std::span<const dp_step> list) {
  const auto [at, fresh] = known_.try_emplace(content_of(list));
  Known &known = at->second;
  if (fresh && (known.first = write(list)) == 0) {
    known_.erase(at);
    return 0;
  }
  if (fresh) by_first_.emplace(known.first, at);
  ++known.flows;
  return known.first;
}

// Nobody reads the steps before a flow refers to them.
std::uint32_t ActionLists::write(std::span<const dp_step> list) {
  if (list.empty() || list.size() > DP_LIST_STEPS || list.size() > free_.size()) return 0;
  std::uint32_t next = 0;
  for (std::size_t n = list.size(); n-- > 0;) {
    const std::uint32_t place = free_.back();
    free_.pop_back();
    steps_[place] = list[n];
    steps_[place].next = std::exchange(next, place + 1);
  }
  return next;
}

void ActionLists::release(std::uint32_t first) {
  const auto found = by_first_.find(first);
  --found->second->second.flows;
  forget_unused(found->second);
}

void ActionLists::forget_unused(Lists::iterator list) {
  const Known &known = list->second;
  if (known.flows != 0 || known.inherited) return;
  for (const std::uint32_t place : places_of(steps_, known.first)) retired_.push_back(place);
  by_first_.erase(known.first);
  known_.erase(list);
}

void ActionLists::drop_inherited() {
  for (auto at = known_.begin(); at != known_.end();) {
    const auto list = at++;
    list->second.inherited = false;
    forget_unused(list);
  }
}

bool ActionLists::begin_grace() {
  if (!resting_.empty()) return false;
  resting_.swap(retired_);
  return !resting_.empty();
}

void ActionLists::end_grace() {
  free_.insert(free_.end(), resting_.begin(), resting_.end());
  resting_.clear();
}

}  // namespace programmer::dataplane
