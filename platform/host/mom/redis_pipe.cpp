#include "host/mom/redis_pipe.h"

#include <hiredis/adapters/libevent.h>
#include <hiredis/sds.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "host/runtime/loop.h"

namespace mom {

namespace {

// Has the kernel probe the peer of an idle TCP connection, at first after half of the time, and give up what stays without
// acknowledgement for the whole of it. An option that the kernel does not know only makes it notice later.
void notice_loss(int fd, std::chrono::milliseconds dead_after) {
  using std::chrono::seconds;
  const auto whole_seconds = [](std::chrono::milliseconds time) {
    return static_cast<int>(std::max(std::chrono::floor<seconds>(time), seconds(1)).count());
  };
  const int idle = whole_seconds(dead_after / 2), interval = whole_seconds(dead_after / 8);
  const int probes = whole_seconds(dead_after - seconds(idle)) / interval;
  const auto set = [fd](int level, int option, int value) { ::setsockopt(fd, level, option, &value, sizeof value); };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, idle);
  set(IPPROTO_TCP, TCP_KEEPINTVL, interval);
  set(IPPROTO_TCP, TCP_KEEPCNT, probes);
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(dead_after.count()));
}

}  // namespace

std::string Pipe::open() {
  redisAsyncContext *context = endpoint_.path.empty() ? redisAsyncConnect(endpoint_.host.c_str(), endpoint_.port)
                                                      : redisAsyncConnectUnix(endpoint_.path.c_str());
  if (!context) return "out of memory";
  if (context->err) {
    std::string why = context->errstr;
    redisAsyncFree(context);
    return why;
  }
  if (endpoint_.path.empty()) notice_loss(context->c.fd, dead_after_);
  context_ = context;
  context->data = this;
  redisLibeventAttach(context, host::loop_base());
  redisAsyncSetConnectCallback(context, on_connect);
  redisAsyncSetDisconnectCallback(context, on_disconnect);
  if (!endpoint_.password.empty()) {
    send({"AUTH", endpoint_.password}, [this](const redisReply *reply) {
      if (reply && is_error(reply)) ended_("mom.password is refused: " + std::string(text_of(reply)));
    });
  }
  return "";
}

void Pipe::close() {
  redisAsyncContext *context = std::exchange(context_, nullptr);
  if (!context) return;
  // From inside one of its callbacks hiredis frees it when that returns; its disconnect callback must not report then.
  redisAsyncSetDisconnectCallback(context, nullptr);
  context->onConnect = nullptr;
  context->onDisconnect = nullptr;
  redisAsyncFree(context);
}

void Pipe::on_connect(const redisAsyncContext *context, int status) {
  if (status != REDIS_OK) of(context)->finish(context, status, "cannot connect");
}

void Pipe::on_disconnect(const redisAsyncContext *context, int status) {
  of(context)->finish(context, status, "closed by the server");
}

// hiredis releases the context itself after this.
void Pipe::finish(const redisAsyncContext *context, int status, const char *what) {
  if (context_ != context) return;
  context_ = nullptr;
  ended_(status == REDIS_OK || !context->errstr || !*context->errstr ? what : context->errstr);
}

void Pipe::count(const redisReply *reply) {
  --waiting_;
  if (reply) ++answered_;
}

void Pipe::on_answer(redisAsyncContext *context, void *reply, void *answer) {
  const std::unique_ptr<Answer> owned(static_cast<Answer *>(answer));
  of(context)->count(static_cast<redisReply *>(reply));
  if (*owned) (*owned)(static_cast<redisReply *>(reply));
}

void Pipe::on_plain_answer(redisAsyncContext *context, void *reply, void *) {
  Pipe *pipe = of(context);
  pipe->count(static_cast<redisReply *>(reply));
  pipe->on_plain(static_cast<redisReply *>(reply));
}

void Pipe::send(Arguments arguments, Answer answer) {
  std::string command;
  append_command(command, arguments);
  auto owned = std::make_unique<Answer>(std::move(answer));
  if (!context_ || redisAsyncFormattedCommand(context_, on_answer, owned.get(), command.data(), command.size()) != REDIS_OK) {
    return;  // the connection is ending; who asked learns it from `ended`
  }
  (void)owned.release();
  ++waiting_;
}

void Pipe::send_plain(std::string_view formatted) {
  if (context_ &&
      redisAsyncFormattedCommand(context_, on_plain_answer, nullptr, formatted.data(), formatted.size()) == REDIS_OK) {
    ++waiting_;
  }
}

size_t Pipe::unsent() const {
  return context_ ? sdslen(context_->c.obuf) : 0;
}

void Pipe::push() {
  if (context_ && context_->c.flags & REDIS_CONNECTED) redisAsyncHandleWrite(context_);
}

bool Pipe::drive(const std::function<bool()> &done, std::chrono::steady_clock::time_point deadline) {
  while (!done()) {
    if (!context_) return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) return false;
    const auto interest = static_cast<short>(unsent() ? POLLIN | POLLOUT : POLLIN);
    pollfd wait{.fd = context_->c.fd, .events = interest, .revents = 0};
    const int ready = ::poll(&wait, 1, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    if (wait.revents & POLLOUT) redisAsyncHandleWrite(context_);
    if (context_ && wait.revents & ~POLLOUT) redisAsyncHandleRead(context_);
  }
  return true;
}

void Pipe::subscribe(const std::string &channel) {
  std::string command;
  append_command(command, {"SUBSCRIBE", channel});
  if (context_) redisAsyncFormattedCommand(context_, on_subscription, nullptr, command.data(), command.size());
}

void Pipe::on_subscription(redisAsyncContext *context, void *answer, void *) {
  const auto *reply = static_cast<const redisReply *>(answer);
  Pipe *pipe = of(context);
  if (!reply || pipe->context_ != context) return;
  if (is_error(reply)) {
    pipe->ended_("SUBSCRIBE is refused: " + std::string(text_of(reply)));
    return;
  }
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3) return;
  const std::string_view kind = text_of(reply->element[0]);
  if (kind == "message") pipe->message(text_of(reply->element[1]), text_of(reply->element[2]));
  if (kind == "subscribe") pipe->confirmed(text_of(reply->element[1]));
}

}  // namespace mom
