// The configured endpoints and their states. Openflow thread, unless noted otherwise.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/of_ss/net/endpoints.h"
#include "host/tls/tls.h"

namespace host::of_ss {

// The reason why an endpoint is unusable when peers must be checked but authorities are missing.
inline constexpr char kNoAuthority[] =
    "TLS needs openflow.tls_ca, the authorities that peers are checked against (or openflow.tls_verify = false, which lets "
    "anybody program flows)";

struct EndpointSettings {
  std::vector<std::string> names;               // every configured endpoint, as text
  std::vector<Endpoint> usable;                 // the usable ones
  std::map<std::string, std::string> unusable;  // the others, with the reason
  tls::Context tls;
};

// The endpoints of `fresh` whose connections may stay. Connections of an endpoint that is unusable for lack of authorities may
// not: their peers would remain unchecked.
std::vector<std::string> endpoints_that_stay(const EndpointSettings &fresh);

class EndpointSet {
 public:
  EndpointSet(event_base *base, EndpointSettings settings, Accept accept);

  // Opens the listening endpoints; before the thread starts.
  void open();
  // Makes the first attempts to connect to controllers.
  void dial();
  // To be called about every second: retries failed listening endpoints.
  void retry();
  // Closes all endpoints but those that `stay` and opens new ones. New certificates apply to future connections.
  void reconfigure(EndpointSettings fresh, const std::vector<std::string> &stay);

  const std::vector<std::string> &names() const { return settings_.names; }
  // `connected`: a connection of this endpoint is up.
  EndpointState state_of(const std::string &endpoint, bool connected) const;
  // The port that the n-th listening endpoint is bound to, 0 when it is not.
  std::uint16_t port(std::size_t n) const { return n < listeners_.size() ? listeners_[n]->port() : 0; }

 private:
  void open(const Endpoint &endpoint);
  bool is_open(const std::string &endpoint) const;

  event_base *base_;
  EndpointSettings settings_;
  const Accept accept_;
  std::vector<std::unique_ptr<Listener>> listeners_;
  std::vector<std::unique_ptr<Dialer>> dialers_;
};

}  // namespace host::of_ss
