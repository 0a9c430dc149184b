// The HTTP server of monitoring: /metrics, /healthz and /readyz, for GET and HEAD only. Loop's thread.
#pragma once

#include <event2/bufferevent.h>
#include <event2/http.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "host/base/timer.h"

struct evconnlistener;

namespace host::metrics {

class Server {
 public:
  static constexpr std::size_t kMostConnections = 16;  // at a time; further ones wait until one has ended

  // `address` is numeric, with a port. If it is in use, it is tried again every second.
  explicit Server(std::string address);
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  const std::string &address() const { return address_; }
  // Why the server cannot listen; "" if it does.
  const std::string &failure() const { return failure_; }

 private:
  void listen();
  bufferevent *admit();
  void look_after_connections();
  static void answer(evhttp_request *request, void *self);

  struct Free {
    void operator()(evhttp *http) const { evhttp_free(http); }
    void operator()(bufferevent *connection) const { bufferevent_decref(connection); }
  };
  using Connection = std::unique_ptr<bufferevent, Free>;

  const std::string address_;
  std::string failure_;
  std::unique_ptr<evhttp, Free> http_;
  evconnlistener *listener_ = nullptr;  // owned by http_
  std::vector<Connection> connections_;
  Timer again_{[this] { listen(); }};
  Timer look_{[this] { look_after_connections(); }};
};

}  // namespace host::metrics
