#include "host/mom/redis/sync.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "host/mom/redis/round_trips.h"
#include "host/mom/redis/scripts.h"

namespace host::mom {

namespace {

std::chrono::milliseconds left_until(std::chrono::steady_clock::time_point deadline) {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
}

}  // namespace

std::string SyncConnection::open() {
  if (stream_->is_open()) return "";
  refused_ = false;
  if (resting()) return "the server did not answer in time";
  RedisEndpoint server = endpoint_;
  std::string why = endpoint_.sentinels.empty() ? "" : find_master(&server);
  if (why.empty()) why = stream_->open(server);
  if (why.empty()) why = greet();
  refused_ |= why.starts_with("TLS: certificate");
  if (!why.empty()) {
    close();
    return why;
  }
  return "";
}

std::string SyncConnection::find_master(RedisEndpoint *server) {
  const auto deadline = deadline_;
  std::string why;
  auto shares = static_cast<int>(endpoint_.sentinels.size()) + 1;
  for (const RedisEndpoint &sentinel : endpoint_.sentinels) {
    // Each gets a share of the time, so that a silent one leaves some for the others and for the master.
    const auto now = std::chrono::steady_clock::now();
    deadline_ = now + (deadline - now) / shares--;
    why = stream_->open(sentinel);
    const RedisReply reply = why.empty() ? exchange(master_question(endpoint_)) : nullptr;
    if (reply) why = take_master(reply.get(), server);
    if (!reply && why.empty()) why = stream_->error().empty() ? "no answer in time" : stream_->error();
    close();
    if (why.empty()) break;
  }
  deadline_ = deadline;
  return why.empty() ? "" : "no sentinel names a master '" + endpoint_.master + "': " + why;
}

// Logs in, selects the database, asks who the server is.
std::string SyncConnection::greet() {
  const auto ask = [&](const std::vector<std::string_view> &arguments, RedisReply *reply) -> std::string {
    *reply = exchange(arguments);
    if (!*reply) return stream_->error().empty() ? "the server did not answer in time" : stream_->error();
    return is_error(reply->get()) ? std::string(text_of(reply->get())) : "";
  };
  RedisReply reply;
  if (const auto arguments = login(endpoint_); !arguments.empty()) {
    if (const std::string why = ask(arguments, &reply); !why.empty()) {
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
  if (!endpoint_.sentinels.empty() && server_.role != "master") return "the server that the sentinels name is a " + server_.role;
  return refused_ ? why : ask({"CLIENT", "SETNAME", endpoint_.connection_name(db_, "sync")}, &reply);
}

RedisReply SyncConnection::exchange(std::span<const std::string_view> arguments) {
  std::string command;
  append_command(command, arguments);
  stream_->write(command);
  const auto begun = std::chrono::steady_clock::now();
  while (true) {
    if (RedisReply reply = stream_->next()) {
      round_trips.blocking.observe(std::chrono::steady_clock::now() - begun);
      return reply;
    }
    if (!stream_->error().empty() || !stream_->send() || !wait() || !stream_->step()) return nullptr;
  }
}

// False when the deadline passes first.
bool SyncConnection::wait() {
  pollfd ready{.fd = stream_->fd(), .events = stream_->wants(), .revents = 0};
  while (true) {
    const auto left = left_until(deadline_).count();
    const int rv = left <= 0 ? 0 : ::poll(&ready, 1, static_cast<int>(left));
    if (rv > 0) return true;
    if (rv < 0 && errno == EINTR) continue;
    note_timeout();
    return false;
  }
}

RedisReply SyncConnection::call(std::span<const std::string_view> arguments) {
  // A connection that the server has closed fails only when used, so one more attempt is worthwhile.
  for (int attempt = 0; attempt < 2; ++attempt) {
    const bool fresh = !stream_->is_open();
    if (!open().empty()) return nullptr;
    if (RedisReply reply = exchange(arguments)) return reply;
    close();
    if (fresh || resting()) return nullptr;
  }
  return nullptr;
}

RedisReply SyncConnection::run(const RedisScript &script, Arguments arguments) {
  std::vector<std::string_view> all = {"EVALSHA", script.sha};
  all.insert(all.end(), arguments.begin(), arguments.end());
  RedisReply reply = call(all);
  if (!reply || !is_error(reply.get()) || !text_of(reply.get()).starts_with("NOSCRIPT")) return reply;
  all[0] = "EVAL";
  all[1] = script.text;
  return call(all);
}

}  // namespace host::mom
