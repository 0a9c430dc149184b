#include "host/mom/redis/pipe.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "host/base/loop.h"
#include "host/mom/redis/round_trips.h"

namespace host::mom {

namespace {

// Has the kernel probe the peer of an idle TCP connection, first after half of `dead_after`, and end the connection when nothing
// is acknowledged for all of it. If the kernel lacks an option, the loss is noticed later.
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
  if (std::string why = stream_.open(endpoint_); !why.empty()) return why;
  ++generation_;
  if (endpoint_.path.empty()) notice_loss(stream_.fd(), dead_after_);
  const auto ready = [](evutil_socket_t, short what, void *self) { static_cast<Pipe *>(self)->ready(what); };
  readable_.reset(event_new(loop_base(), stream_.fd(), EV_READ | EV_PERSIST, ready, this));
  writable_.reset(event_new(loop_base(), stream_.fd(), EV_WRITE, ready, this));
  event_add(readable_.get(), nullptr);
  if (const auto arguments = login(endpoint_); !arguments.empty()) {
    send(arguments, [this](const redisReply *reply) {
      if (reply && is_error(reply)) finish("mom.password is refused: " + std::string(text_of(reply)));
    });
  }
  return "";
}

void Pipe::close() {
  if (!stream_.is_open()) return;
  ++generation_;
  timed_ = 0;
  readable_.reset();
  writable_.reset();
  stream_.close();
  for (const Answer &answer : std::exchange(pending_, {})) (answer ? answer : on_plain)(nullptr);
}

void Pipe::finish(const std::string &why) {
  close();
  ended_(why);
}

// ---- commands

void Pipe::send(std::span<const std::string_view> arguments, Answer answer) {
  if (!stream_.is_open()) return;  // `ended` tells the caller
  std::string command;
  append_command(command, arguments);
  stream_.write(command);
  pending_.push_back(answer ? std::move(answer) : [](const redisReply *) {});
  time_last();
  watch_output();
}

void Pipe::send_plain(std::string_view formatted) {
  if (!stream_.is_open()) return;
  stream_.write(formatted);
  pending_.emplace_back();
  time_last();
  watch_output();
}

// Begins to measure the round trip of the last command, unless one is being measured.
void Pipe::time_last() {
  if (timed_ != 0) return;
  timed_ = answered_ + pending_.size();
  timed_since_ = std::chrono::steady_clock::now();
}

void Pipe::push() {
  if (stream_.is_open() && !stream_.send()) finish(std::string(stream_.error()));
}

void Pipe::subscribe(const std::string &channel) {
  if (!stream_.is_open()) return;
  std::string command;
  append_command(command, {"SUBSCRIBE", channel});
  stream_.write(command);
  watch_output();
}

// ---- on the loop

void Pipe::watch_output() {
  const bool wanted = stream_.wants() & POLLOUT;
  if (wanted && !event_pending(writable_.get(), EV_WRITE, nullptr)) event_add(writable_.get(), nullptr);
}

void Pipe::ready(short what) {
  go_on(what & EV_READ || endpoint_.tls ? stream_.step() : stream_.send());
}

// Dispatches the replies received. A callback may end this connection and begin another.
void Pipe::go_on(bool good) {
  const unsigned generation = generation_;
  while (const RedisReply reply = stream_.next()) {
    take(reply.get());
    if (generation != generation_) return;
  }
  if (!good || !stream_.error().empty()) return finish(std::string(stream_.error()));
  watch_output();
}

void Pipe::take(const redisReply *reply) {
  if (pending_.empty()) return take_message(reply);
  const Answer answer = std::move(pending_.front());
  pending_.pop_front();
  if (++answered_ == timed_) {
    round_trips.piped.observe(std::chrono::steady_clock::now() - timed_since_);
    timed_ = 0;
  }
  (answer ? answer : on_plain)(reply);
}

void Pipe::take_message(const redisReply *reply) {
  if (is_error(reply)) return finish("SUBSCRIBE is refused: " + std::string(text_of(reply)));
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3) return;
  const std::string_view kind = text_of(reply->element[0]);
  if (kind == "message") message(text_of(reply->element[1]), text_of(reply->element[2]));
  if (kind == "subscribe") confirmed(text_of(reply->element[1]));
}

bool Pipe::drive(const std::function<bool()> &done, std::chrono::steady_clock::time_point deadline) {
  while (!done()) {
    if (!stream_.is_open()) return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) return false;
    pollfd wait{.fd = stream_.fd(), .events = stream_.wants(), .revents = 0};
    const int rv = ::poll(&wait, 1, static_cast<int>(left));
    if (rv < 0 && errno != EINTR) return false;
    if (rv > 0) go_on(stream_.step());
  }
  return true;
}

}  // namespace host::mom
