// The blocking connection to the Redis server: for synchronous calls and for the look at the server when the process starts.
// Loop's thread.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>

#include "host/mom/redis/endpoint.h"
#include "host/mom/redis/stream.h"

namespace mom {

// A blocking connection to one database. Nothing waits beyond the deadline that was set last; after a call that waited in vain
// the next ones fail at once for as long as the limit, so that a frozen server does not hold the loop again and again.
class SyncConnection {
 public:
  SyncConnection(const Endpoint &endpoint, int32_t db, std::chrono::milliseconds limit)
      : endpoint_(endpoint), db_(db), limit_(limit) {}

  // Of what follows. Set before every call.
  void set_deadline(std::chrono::steady_clock::time_point deadline) { deadline_ = deadline; }

  // "" or why there is no connection; keeps a living one.
  std::string open();
  void close() { stream_->close(); }

  // The answer, an error reply included; null when the connection failed (it is closed then). Opens the connection when needed.
  Reply call(std::span<const std::string_view> arguments);
  Reply call(Arguments arguments) { return call(std::span(arguments.begin(), arguments.size())); }
  // Runs a script by its hash, with its text where the server does not know it. `arguments`: number of keys, keys, arguments.
  Reply run(const struct Script &script, Arguments arguments);

  const ServerInfo &server() const { return server_; }
  // The last open() met a server that will not do, now or later: its version, or the password.
  bool refused() const { return refused_; }
  void note_timeout() { resting_until_ = std::chrono::steady_clock::now() + limit_; }
  bool resting() const { return std::chrono::steady_clock::now() < resting_until_; }

 private:
  Reply exchange(std::span<const std::string_view> arguments);
  bool wait();
  std::string greet();
  std::string find_master(Endpoint *server);

  const Endpoint &endpoint_;
  int32_t db_;
  std::chrono::milliseconds limit_;
  std::unique_ptr<Stream> stream_ = std::make_unique<Stream>();
  ServerInfo server_;
  bool refused_ = false;
  std::chrono::steady_clock::time_point deadline_{};
  std::chrono::steady_clock::time_point resting_until_{};
};

}  // namespace mom
