#include "host/metrics/server.h"

#include <errno.h>
#include <event2/buffer.h>
#include <event2/listener.h>
#include <event2/util.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/base/loop.h"
#include "host/log/log.h"
#include "host/metrics/health.h"
#include "host/metrics/metrics.h"

namespace host::metrics {
namespace {

constexpr auto kRetry = std::chrono::seconds(1), kLook = std::chrono::seconds(1);
constexpr auto kLookWhenFull = std::chrono::milliseconds(50);
constexpr int kIdleSeconds = 30;  // without a request, or in the middle of one
constexpr ev_ssize_t kLongestHeaders = 8192;
constexpr int kBacklog = 64;
// All methods that libevent knows, so that each gets an answer that says what is allowed.
constexpr auto kMethods =
    static_cast<ev_uint16_t>(EVHTTP_REQ_GET | EVHTTP_REQ_HEAD | EVHTTP_REQ_POST | EVHTTP_REQ_PUT | EVHTTP_REQ_DELETE |
                             EVHTTP_REQ_OPTIONS | EVHTTP_REQ_TRACE | EVHTTP_REQ_CONNECT | EVHTTP_REQ_PATCH);

struct Answer {
  int status;
  std::string text;
};

Answer health_answer(health::Kind kind) {
  std::string text;
  for (const std::string &why : health::failing(kind)) text += why + "\n";
  return text.empty() ? Answer{HTTP_OK, "ok\n"} : Answer{HTTP_SERVUNAVAIL, text};
}

struct Path {
  const char *name;
  const char *type;
  Answer (*answer)();
};
constexpr Path kPaths[] = {
    {"/metrics", "text/plain; version=0.0.4; charset=utf-8",
     [] {
       return Answer{HTTP_OK, page()};
     }},
    {"/healthz", "text/plain; charset=utf-8", [] { return health_answer(health::Kind::alive); }},
    {"/readyz", "text/plain; charset=utf-8", [] { return health_answer(health::Kind::ready); }},
};

void send(evhttp_request *request, const char *type, const Answer &answer) {
  evkeyvalq *headers = evhttp_request_get_output_headers(request);
  evhttp_add_header(headers, "Content-Type", type);
  evhttp_add_header(headers, "Content-Length", std::to_string(answer.text.size()).c_str());
  if (evhttp_request_get_command(request) != EVHTTP_REQ_HEAD)
    evbuffer_add(evhttp_request_get_output_buffer(request), answer.text.data(), answer.text.size());
  evhttp_send_reply(request, answer.status, nullptr, nullptr);
}

}  // namespace

Server::Server(std::string address) : address_(std::move(address)), http_(evhttp_new(loop_base())) {
  evhttp_set_allowed_methods(http_.get(), kMethods);
  evhttp_set_max_headers_size(http_.get(), kLongestHeaders);
  evhttp_set_max_body_size(http_.get(), 0);
  evhttp_set_timeout(http_.get(), kIdleSeconds);
  evhttp_set_gencb(http_.get(), answer, this);
  evhttp_set_bevcb(
      http_.get(), [](event_base *, void *self) { return static_cast<Server *>(self)->admit(); }, this);
  listen();
}

void Server::listen() {
  sockaddr_storage address{};
  int length = sizeof address;
  evutil_parse_sockaddr_port(address_.c_str(), reinterpret_cast<sockaddr *>(&address), &length);
  listener_ =
      evconnlistener_new_bind(loop_base(), nullptr, nullptr, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC | LEV_OPT_REUSEABLE,
                              kBacklog, reinterpret_cast<const sockaddr *>(&address), length);
  if (listener_ && evhttp_bind_listener(http_.get(), listener_)) {
    failure_.clear();
    return log::info("metrics are served on {}", address_);
  }
  again_.arm(kRetry);
  if (const std::string why = strerror(errno); std::exchange(failure_, why) != why)
    log::error("metrics cannot be served on {}: {}; trying again every second", address_, why);
}

// libevent does not report the end of a connection, so its bufferevent is kept and watched instead.
bufferevent *Server::admit() {
  bufferevent *connection = bufferevent_socket_new(loop_base(), -1, BEV_OPT_CLOSE_ON_FREE);
  if (!connection) return nullptr;
  bufferevent_incref(connection);
  connections_.emplace_back(connection);
  if (connections_.size() >= kMostConnections) evconnlistener_disable(listener_);
  look_.arm(std::chrono::milliseconds(0));
  return connection;
}

// Clients beyond the limit stay in the backlog.
void Server::look_after_connections() {
  std::erase_if(connections_, [](const Connection &connection) {
    bufferevent_event_cb ended = nullptr;
    bufferevent_getcb(connection.get(), nullptr, nullptr, &ended, nullptr);
    return ended == nullptr;  // released by libevent
  });
  const bool full = connections_.size() >= kMostConnections;
  full ? evconnlistener_disable(listener_) : evconnlistener_enable(listener_);
  if (!connections_.empty()) look_.arm(full ? kLookWhenFull : kLook);
}

void Server::answer(evhttp_request *request, void *) {
  constexpr const char *kPlain = "text/plain; charset=utf-8";
  const evhttp_cmd_type method = evhttp_request_get_command(request);
  if (method != EVHTTP_REQ_GET && method != EVHTTP_REQ_HEAD) {
    evhttp_add_header(evhttp_request_get_output_headers(request), "Allow", "GET, HEAD");
    return send(request, kPlain, {HTTP_BADMETHOD, "only GET and HEAD are allowed\n"});
  }
  const char *asked = evhttp_uri_get_path(evhttp_request_get_evhttp_uri(request));
  const auto *path = std::ranges::find_if(kPaths, [asked](const Path &p) { return asked && strcmp(p.name, asked) == 0; });
  if (path == std::end(kPaths)) return send(request, kPlain, {HTTP_NOTFOUND, "the paths are /metrics, /healthz and /readyz\n"});
  send(request, path->type, path->answer());
}

}  // namespace host::metrics
