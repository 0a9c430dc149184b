// Where connections come from: sockets that listen ("ptcp:HOST:PORT", "pssl:HOST:PORT") and controllers that are connected to
// ("tcp:HOST:PORT", "ssl:HOST:PORT"). Openflow thread, except where it says otherwise.
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

// An address of the configuration, as text and taken apart.
struct Endpoint {
  std::string text;
  bool listens = false;
  bool tls = false;
  // Where a name stands for the address, it is looked up at each attempt to connect.
  std::string host, port;
  sockaddr_storage address{};
  socklen_t address_len = 0;  // 0: there is a name
};

// What has become of an endpoint; the names are `listening`, `connected`, `connecting`, `failing` and `unusable`.
struct EndpointState {
  std::string name;
  std::string error;  // why it fails or cannot be used; otherwise empty
};

// Reads one; false and `error` when it is none. Nothing is looked up. Any thread.
bool parse_endpoint(const std::string &text, Endpoint &endpoint, std::string &error);

class Dialer;

// Gets a connection that is there or being set up, and the dialer that made it; null for one that was accepted.
using Accept = std::function<void(BuffereventOwner bev, Peer peer, Dialer *dialer)>;

struct FreeListener {
  void operator()(evconnlistener *listener) const { evconnlistener_free(listener); }
};
using ListenerOwner = std::unique_ptr<evconnlistener, FreeListener>;

class Listener {
 public:
  Listener(event_base *base, const Endpoint &endpoint, SSL_CTX *tls, Accept accept);
  // Begins to listen, unless it does already; the first failure is logged. To be called again later after a failure.
  void open();
  const std::string &target() const { return endpoint_.text; }
  // For connections to come; without effect where there is no TLS.
  void use_tls(SSL_CTX *tls) { tls_ = endpoint_.tls ? tls : nullptr; }
  // The port that is bound; 0 when none is.
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
  std::string failure_;  // the last one that was logged; empty while it listens
};

// Keeps one connection to a controller: looks up its name, where it has one, connects, and after each failure or end waits a
// little longer, with jitter, up to a bound. Of several addresses of a name each attempt takes the next.
class Dialer {
 public:
  Dialer(event_base *base, const Endpoint &endpoint, SSL_CTX *tls, Accept accept);
  Dialer(const Dialer &) = delete;
  Dialer &operator=(const Dialer &) = delete;

  void dial();
  // The connection that it made has ended; `was_up` when it had got through. A reason is logged when it is a new one.
  void ended(bool was_up, const std::string &why);
  const std::string &target() const { return endpoint_.text; }
  void use_tls(SSL_CTX *tls) { tls_ = endpoint_.tls ? tls : nullptr; }
  // Of one whose connection is not up.
  EndpointState state() const;

 private:
  void looked_up();
  void connect(const sockaddr *address, socklen_t length);

  event_base *base_;
  const Endpoint endpoint_;
  SSL_CTX *tls_;
  Accept accept_;
  EventOwner timer_;
  std::unique_ptr<Lookup> lookup_;  // while it is under way
  std::size_t looked_up_ = 0;       // how often addresses have been found
  std::int64_t delay_ms_;
  std::string failure_;  // the last one that was logged; empty after a connection that got through
};

}  // namespace host::of_ss
