// The blocking connection to the Redis server, for synchronous calls and for the check of the server when the process starts.
// Loop's thread.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>

#include "host/mom/redis/endpoint.h"
#include "host/mom/redis/stream.h"

namespace host::mom {

// A blocking connection to one database. No call waits beyond the latest deadline. After a timeout, calls fail at once for the
// duration of `limit`, so that a frozen server does not block the loop repeatedly.
class SyncConnection {
 public:
  SyncConnection(const RedisEndpoint &endpoint, std::int32_t db, std::chrono::milliseconds limit)
      : endpoint_(endpoint), db_(db), limit_(limit) {}

  // The deadline of the next call; to be set before each.
  void set_deadline(std::chrono::steady_clock::time_point deadline) { deadline_ = deadline; }

  // Connects unless it is connected. Returns "" or why it cannot.
  std::string open();
  void close() { stream_->close(); }

  // The reply, which may be an error reply; null when the connection failed and was closed. Opens the connection when needed.
  RedisReply call(std::span<const std::string_view> arguments);
  RedisReply call(Arguments arguments) { return call(std::span(arguments.begin(), arguments.size())); }
  // Runs a script by its hash, or by its text if the server does not know it. `arguments`: number of keys, keys, arguments.
  RedisReply run(const struct RedisScript &script, Arguments arguments);

  const ServerInfo &server() const { return server_; }
  // True when the last open() failed for a permanent reason: the server's version, the password, its certificate.
  bool refused() const { return refused_; }
  void note_timeout() { resting_until_ = std::chrono::steady_clock::now() + limit_; }
  bool resting() const { return std::chrono::steady_clock::now() < resting_until_; }

 private:
  RedisReply exchange(std::span<const std::string_view> arguments);
  bool wait();
  std::string greet();
  std::string find_master(RedisEndpoint *server);

  const RedisEndpoint &endpoint_;
  std::int32_t db_;
  std::chrono::milliseconds limit_;
  std::unique_ptr<Stream> stream_ = std::make_unique<Stream>();
  ServerInfo server_;
  bool refused_ = false;
  std::chrono::steady_clock::time_point deadline_{};
  std::chrono::steady_clock::time_point resting_until_{};
};

}  // namespace host::mom
