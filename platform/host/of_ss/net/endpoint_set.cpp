#include "host/of_ss/net/endpoint_set.h"

#include <algorithm>
#include <utility>

namespace host::of_ss {
namespace {

template <typename All>
auto find(const All &all, const std::string &endpoint) {
  return std::ranges::find_if(all, [&endpoint](const auto &one) { return one->target() == endpoint; });
}

template <typename All>
void close_but(const std::vector<std::string> &stay, All &all) {
  std::erase_if(all, [&stay](const auto &one) { return std::ranges::find(stay, one->target()) == stay.end(); });
}

}  // namespace

std::vector<std::string> endpoints_that_stay(const EndpointSettings &fresh) {
  std::vector<std::string> stay = fresh.names;
  std::erase_if(stay, [&fresh](const std::string &endpoint) {
    const auto unusable = fresh.unusable.find(endpoint);
    return unusable != fresh.unusable.end() && unusable->second == kNoAuthority;
  });
  return stay;
}

EndpointSet::EndpointSet(event_base *base, EndpointSettings settings, Accept accept)
    : base_(base), settings_(std::move(settings)), accept_(std::move(accept)) {}

void EndpointSet::open() {
  for (const Endpoint &endpoint : settings_.usable) open(endpoint);
}

void EndpointSet::open(const Endpoint &endpoint) {
  if (!endpoint.listens) {
    dialers_.push_back(std::make_unique<Dialer>(base_, endpoint, settings_.tls.get(), accept_));
    return;
  }
  listeners_.push_back(std::make_unique<Listener>(base_, endpoint, settings_.tls.get(), accept_));
  listeners_.back()->open();
}

void EndpointSet::dial() {
  for (const auto &dialer : dialers_) dialer->dial();
}

void EndpointSet::retry() {
  for (const auto &listener : listeners_) listener->open();
}

bool EndpointSet::is_open(const std::string &endpoint) const {
  return find(listeners_, endpoint) != listeners_.end() || find(dialers_, endpoint) != dialers_.end();
}

EndpointState EndpointSet::state_of(const std::string &endpoint, bool connected) const {
  if (const auto it = find(listeners_, endpoint); it != listeners_.end()) return (*it)->state();
  if (connected) return {"connected", ""};
  if (const auto it = find(dialers_, endpoint); it != dialers_.end()) return (*it)->state();
  const auto unusable = settings_.unusable.find(endpoint);
  return {"unusable", unusable == settings_.unusable.end() ? "" : unusable->second};
}

void EndpointSet::reconfigure(EndpointSettings fresh, const std::vector<std::string> &stay) {
  // Without new certificates the old ones stay in use.
  if (!fresh.tls) std::swap(settings_.tls, fresh.tls);
  settings_ = std::move(fresh);
  for (const auto &listener : listeners_) listener->use_tls(settings_.tls.get());
  for (const auto &dialer : dialers_) dialer->use_tls(settings_.tls.get());
  close_but(stay, listeners_);
  close_but(stay, dialers_);
  for (const Endpoint &endpoint : settings_.usable) {
    if (is_open(endpoint.text)) continue;
    open(endpoint);
    if (!endpoint.listens) dialers_.back()->dial();
  }
}

}  // namespace host::of_ss
