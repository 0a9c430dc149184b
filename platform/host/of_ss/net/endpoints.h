// The sources of connections: listening sockets ("ptcp:HOST:PORT", "pssl:HOST:PORT") and controllers to connect to
// ("tcp:HOST:PORT", "ssl:HOST:PORT"). Openflow thread, unless noted otherwise.
#pragma once

#include <event2/event.h>
#include <event2/listener.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/of_ss/net/connection.h"
#include "host/of_ss/net/lookup.h"
#include "host/tls/tls.h"

namespace host::of_ss {

// An address from the configuration, as text and parsed.
struct Endpoint {
  std::string text;
  bool listens = false;
  bool tls = false;
  // A name instead of an address is looked up at each attempt to connect.
  std::string host, port;
  sockaddr_storage address{};
  socklen_t address_len = 0;  // 0: `host` is a name
};

// The state of an endpoint; its names are `listening`, `connected`, `connecting`, `failing` and `unusable`.
struct EndpointState {
  std::string name;
  std::string error;  // why it fails or is unusable; otherwise empty
};

// Parses an endpoint; false and `error` if it is invalid. Looks up nothing. Any thread.
bool parse_endpoint(const std::string &text, Endpoint &endpoint, std::string &error);

class Dialer;

// Receives a connection that is established or in progress, and the dialer that made it; null for an accepted one.
using Accept = std::function<void(BuffereventOwner bev, Peer peer, Dialer *dialer)>;

struct FreeListener {
  void operator()(evconnlistener *listener) const { evconnlistener_free(listener); }
};
using ListenerOwner = std::unique_ptr<evconnlistener, FreeListener>;

class Listener {
 public:
  Listener(event_base *base, const Endpoint &endpoint, SSL_CTX *tls, Accept accept);
  // Begins to listen unless it already does; the first failure is logged. After a failure it must be called again later.
  void open();
  const std::string &target() const { return endpoint_.text; }
  // Sets the certificates of future connections; without effect on endpoints without TLS.
  void use_tls(SSL_CTX *tls) { tls_ = endpoint_.tls ? tls : nullptr; }
  // The bound port; 0 if none is.
  std::uint16_t port() const;
  EndpointState state() const;

 private:
  void accepted(evutil_socket_t fd, const sockaddr *address);
  void failed();

  event_base *base_;
  const Endpoint endpoint_;
  SSL_CTX *tls_;
  Accept accept_;
  ListenerOwner listener_;
  EventOwner pause_;
  std::string failure_;  // last failure logged; empty while it listens
};

// Maintains one connection to a controller: looks up its name, if any, connects, and after each failure or end waits a little
// longer, with jitter, up to a bound. Successive attempts use successive addresses of a name.
class Dialer {
 public:
  Dialer(event_base *base, const Endpoint &endpoint, SSL_CTX *tls, Accept accept);
  Dialer(const Dialer &) = delete;
  Dialer &operator=(const Dialer &) = delete;

  void dial();
  // The dialer's connection has ended; `was_up` if it had been established. A new reason is logged.
  void ended(bool was_up, const std::string &why);
  const std::string &target() const { return endpoint_.text; }
  void use_tls(SSL_CTX *tls) { tls_ = endpoint_.tls ? tls : nullptr; }
  // The state while its connection is not up.
  EndpointState state() const;

 private:
  void looked_up();
  void connect(const sockaddr *address, socklen_t length);

  event_base *base_;
  const Endpoint endpoint_;
  SSL_CTX *tls_;
  Accept accept_;
  EventOwner timer_;
  std::unique_ptr<Lookup> lookup_;  // while it runs
  std::size_t looked_up_ = 0;       // number of successful look-ups
  std::int64_t delay_ms_;
  std::string failure_;  // last failure logged; empty after a successful connection
};

}  // namespace host::of_ss
