#include "host/mom/redis_sync.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "host/mom/redis_scripts.h"

namespace mom {

namespace {

// At least a moment: no time at all would mean without limit.
timeval to_timeval(std::chrono::milliseconds limit) {
  const auto ms = std::max<std::chrono::milliseconds::rep>(limit.count(), 1);
  return {.tv_sec = ms / 1000, .tv_usec = ms % 1000 * 1000};
}

std::chrono::milliseconds left_until(std::chrono::steady_clock::time_point deadline) {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
}

}  // namespace

std::string SyncConnection::open() {
  if (context_) return "";
  refused_ = false;
  if (resting()) return "the server did not answer in time";
  const timeval limit = to_timeval(left_until(deadline_));
  context_.reset(endpoint_.path.empty() ? redisConnectWithTimeout(endpoint_.host.c_str(), endpoint_.port, limit)
                                        : redisConnectUnixWithTimeout(endpoint_.path.c_str(), limit));
  if (!context_) return "out of memory";
  std::string why = context_->err ? context_->errstr : "";
  if (why.empty()) why = greet();
  if (!why.empty()) {
    close();
    return why;
  }
  return "";
}

// Password, database, who the server is.
std::string SyncConnection::greet() {
  const auto ask = [&](Arguments arguments, Reply *reply) -> std::string {
    *reply = exchange(std::span(arguments.begin(), arguments.size()));
    if (!*reply) return context_ && context_->err ? context_->errstr : "the server did not answer in time";
    return is_error(reply->get()) ? std::string(text_of(reply->get())) : "";
  };
  Reply reply;
  if (!endpoint_.password.empty()) {
    if (const std::string why = ask({"AUTH", endpoint_.password}, &reply); !why.empty()) {
      refused_ = reply != nullptr;
      return refused_ ? "mom.password is refused: " + why : why;
    }
  }
  std::string why = ask({"SELECT", std::to_string(db_)}, &reply);
  refused_ = why.starts_with("NOAUTH");
  if (refused_) return "the server wants a password, but mom.password is empty";
  if (why.empty()) why = ask({"INFO"}, &reply);
  if (!why.empty()) return why;
  server_ = parse_info(text_of(reply.get()));
  why = server_unfit(server_);
  refused_ = !why.empty();
  return refused_ ? why : ask({"CLIENT", "SETNAME", endpoint_.connection_name(db_, "sync")}, &reply);
}

Reply SyncConnection::exchange(std::span<const std::string_view> arguments) {
  std::string command;
  append_command(command, arguments);
  if (redisAppendFormattedCommand(context_.get(), command.data(), command.size()) != REDIS_OK) return nullptr;
  int sent = 0;
  while (!sent) {
    if (!wait(POLLOUT) || redisBufferWrite(context_.get(), &sent) != REDIS_OK) return nullptr;
  }
  void *reply = nullptr;
  while (redisReaderGetReply(context_->reader, &reply) == REDIS_OK && !reply) {
    if (!wait(POLLIN) || redisBufferRead(context_.get()) != REDIS_OK) return nullptr;
  }
  return Reply(static_cast<redisReply *>(reply));
}

// False when the deadline passes first.
bool SyncConnection::wait(short events) {
  pollfd ready{.fd = context_->fd, .events = events, .revents = 0};
  while (true) {
    const auto left = left_until(deadline_).count();
    const int rv = left <= 0 ? 0 : ::poll(&ready, 1, static_cast<int>(left));
    if (rv > 0) return true;
    if (rv < 0 && errno == EINTR) continue;
    note_timeout();
    return false;
  }
}

Reply SyncConnection::call(std::span<const std::string_view> arguments) {
  // A connection that the server closed meanwhile shows at its first use: worth one more attempt.
  for (int attempt = 0; attempt < 2; ++attempt) {
    const bool fresh = !context_;
    if (!open().empty()) return nullptr;
    if (Reply reply = exchange(arguments)) return reply;
    close();
    if (fresh || resting()) return nullptr;
  }
  return nullptr;
}

Reply SyncConnection::run(const Script &script, Arguments arguments) {
  std::vector<std::string_view> all = {"EVALSHA", script.sha};
  all.insert(all.end(), arguments.begin(), arguments.end());
  Reply reply = call(all);
  if (!reply || !is_error(reply.get()) || !text_of(reply.get()).starts_with("NOSCRIPT")) return reply;
  all[0] = "EVAL";
  all[1] = script.text;
  return call(all);
}

}  // namespace mom
