#include "host/of_ss/net/endpoints.h"

#include <arpa/inet.h>
#include <errno.h>
#include <event2/bufferevent_ssl.h>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <utility>

#include "host/log/log.h"

namespace host::of_ss {
namespace {

constexpr std::int64_t kFirstDelayMs = 250, kLongestDelayMs = 8000;
constexpr int kBacklog = 511;

struct Method {
  const char *prefix;
  bool listens, tls;
};
constexpr Method kMethods[] = {{"ptcp:", true, false}, {"pssl:", true, true}, {"tcp:", false, false}, {"ssl:", false, true}};

// Returns "" or why the host cannot be used. Names are for dialers only; a listener's name would stand for the address of an
// interface that may appear or change later.
std::string take_host(std::string host, const std::string &port, Endpoint &endpoint) {
  if (host.size() > 1 && host.front() == '[') host = host.substr(1, host.size() - 2);
  Addresses found;
  if (const std::string why = find_addresses(host, port, AI_NUMERICHOST, found); !found && endpoint.listens)
    return fmt::format("\"{}\" is no numeric address such as 0.0.0.0 or [::]; names are allowed for tcp: and ssl: only", host);
  endpoint.host = host;
  endpoint.port = port;
  if (!found) return "";
  std::memcpy(&endpoint.address, found->ai_addr, found->ai_addrlen);
  endpoint.address_len = found->ai_addrlen;
  return "";
}

std::string address_text(const sockaddr *address) {
  char host[NI_MAXHOST], port[NI_MAXSERV];
  const socklen_t length = address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (getnameinfo(address, length, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) return "?";
  return address->sa_family == AF_INET6 ? fmt::format("[{}]:{}", host, port) : fmt::format("{}:{}", host, port);
}

Peer peer_of(const sockaddr *address, const Endpoint &endpoint) {
  const bool v4 = address->sa_family == AF_INET;
  return {(endpoint.tls ? "ssl:" : "tcp:") + address_text(address),
          v4 ? reinterpret_cast<const sockaddr_in *>(address)->sin_addr.s_addr : 0, endpoint.text};
}

// Disables Nagle's algorithm, because replies are small and awaited.
void send_at_once(evutil_socket_t fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

BuffereventOwner make_bufferevent(event_base *base, evutil_socket_t fd, SSL_CTX *tls, bufferevent_ssl_state state) {
  if (!tls) return BuffereventOwner(bufferevent_socket_new(base, fd, BEV_OPT_CLOSE_ON_FREE));
  SSL *ssl = SSL_new(tls);
  if (!ssl) return nullptr;
  bufferevent *bev = bufferevent_openssl_socket_new(base, fd, ssl, state, BEV_OPT_CLOSE_ON_FREE);
  if (!bev) SSL_free(ssl);
  return BuffereventOwner(bev);
}

std::int64_t with_jitter(std::int64_t ms) {
  static thread_local std::minstd_rand random(std::random_device{}());
  return std::uniform_int_distribution<std::int64_t>(ms / 2, ms)(random);
}

}  // namespace

bool parse_endpoint(const std::string &text, Endpoint &endpoint, std::string &error) {
  const auto *method =
      std::find_if(std::begin(kMethods), std::end(kMethods), [&text](const Method &m) { return text.starts_with(m.prefix); });
  const auto colon = text.rfind(':');
  if (method == std::end(kMethods) || colon < strlen(method->prefix)) {
    error = "allowed are ptcp:HOST:PORT, pssl:HOST:PORT, tcp:HOST:PORT and ssl:HOST:PORT";
    return false;
  }
  endpoint.text = text;
  endpoint.listens = method->listens;
  endpoint.tls = method->tls;
  const std::size_t host = strlen(method->prefix);
  error = take_host(text.substr(host, colon - host), text.substr(colon + 1), endpoint);
  return error.empty();
}

// ---- listening

Listener::Listener(event_base *base, const Endpoint &endpoint, SSL_CTX *tls, Accept accept)
    : base_(base),
      endpoint_(endpoint),
      tls_(endpoint.tls ? tls : nullptr),
      accept_(std::move(accept)),
      pause_(evtimer_new(
          base, [](evutil_socket_t, short, void *self) { evconnlistener_enable(static_cast<Listener *>(self)->listener_.get()); },
          this)) {}

void Listener::open() {
  if (listener_) return;
  const auto take = [](evconnlistener *, evutil_socket_t fd, sockaddr *address, int, void *self) {
    static_cast<Listener *>(self)->accepted(fd, address);
  };
  listener_.reset(evconnlistener_new_bind(base_, take, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC | LEV_OPT_REUSEABLE,
                                          kBacklog, reinterpret_cast<const sockaddr *>(&endpoint_.address),
                                          static_cast<int>(endpoint_.address_len)));
  if (listener_) {
    evconnlistener_set_error_cb(listener_.get(), [](evconnlistener *, void *self) { static_cast<Listener *>(self)->failed(); });
    failure_.clear();
    log::info("controllers are served on {} (port {})", endpoint_.text, port());
  } else if (const std::string why = strerror(errno); std::exchange(failure_, why) != why) {
    log::error("cannot listen on {}: {}; trying again every second", endpoint_.text, why);
  }
}

EndpointState Listener::state() const {
  return {listener_ ? "listening" : "failing", failure_};
}

std::uint16_t Listener::port() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (!listener_ || getsockname(evconnlistener_get_fd(listener_.get()), reinterpret_cast<sockaddr *>(&address), &length) != 0)
    return 0;
  const bool v6 = address.ss_family == AF_INET6;
  return ntohs(v6 ? reinterpret_cast<sockaddr_in6 &>(address).sin6_port : reinterpret_cast<sockaddr_in &>(address).sin_port);
}

void Listener::accepted(evutil_socket_t fd, const sockaddr *address) {
  send_at_once(fd);
  BuffereventOwner bev = make_bufferevent(base_, fd, tls_, BUFFEREVENT_SSL_ACCEPTING);
  if (!bev) {
    evutil_closesocket(fd);
    return;
  }
  accept_(std::move(bev), peer_of(address, endpoint_), nullptr);
}

// Without file descriptors or memory the connection stays in the backlog, and is accepted after a pause instead of in a busy
// loop.
void Listener::failed() {
  log::warn("cannot accept a connection on {}: {}", endpoint_.text, strerror(errno));
  evconnlistener_disable(listener_.get());
  const timeval pause{0, 100'000};
  evtimer_add(pause_.get(), &pause);
}

// ---- connecting

Dialer::Dialer(event_base *base, const Endpoint &endpoint, SSL_CTX *tls, Accept accept)
    : base_(base),
      endpoint_(endpoint),
      tls_(endpoint.tls ? tls : nullptr),
      accept_(std::move(accept)),
      timer_(evtimer_new(
          base, [](evutil_socket_t, short, void *self) { static_cast<Dialer *>(self)->dial(); }, this)),
      delay_ms_(kFirstDelayMs) {}

void Dialer::dial() {
  if (endpoint_.address_len > 0) return connect(reinterpret_cast<const sockaddr *>(&endpoint_.address), endpoint_.address_len);
  lookup_ = std::make_unique<Lookup>(base_, endpoint_.host, endpoint_.port, [this] { looked_up(); });
}

void Dialer::looked_up() {
  const auto lookup = std::move(lookup_);
  if (!lookup->error().empty()) return ended(false, lookup->error());
  const addrinfo *next = lookup->addresses();
  for (std::size_t n = looked_up_++; n > 0; --n) next = next->ai_next ? next->ai_next : lookup->addresses();
  connect(next->ai_addr, next->ai_addrlen);
}

void Dialer::connect(const sockaddr *address, socklen_t length) {
  BuffereventOwner bev = make_bufferevent(base_, -1, tls_, BUFFEREVENT_SSL_CONNECTING);
  if (!bev || bufferevent_socket_connect(bev.get(), address, static_cast<int>(length)) != 0) return ended(false, strerror(errno));
  send_at_once(bufferevent_getfd(bev.get()));
  accept_(std::move(bev), peer_of(address, endpoint_), this);
}

void Dialer::ended(bool was_up, const std::string &why) {
  if (was_up) delay_ms_ = kFirstDelayMs;
  if (was_up) failure_.clear();
  if (!was_up && std::exchange(failure_, why) != why) log::warn("no connection to {}: {}; trying again", endpoint_.text, why);
  const std::int64_t wait = with_jitter(delay_ms_);
  delay_ms_ = std::min(delay_ms_ * 2, kLongestDelayMs);
  const timeval pause{wait / 1000, wait % 1000 * 1000};
  evtimer_add(timer_.get(), &pause);
}

EndpointState Dialer::state() const {
  return {failure_.empty() ? "connecting" : "failing", failure_};
}

}  // namespace host::of_ss
