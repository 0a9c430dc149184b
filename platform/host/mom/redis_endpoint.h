// Where the Redis server is, and the blocking connection to it: for synchronous calls and for the look at the server when the
// process starts. Loop's thread.
#pragma once

#include <hiredis/hiredis.h>

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mom {

struct Endpoint {
  std::string url;   // as configured, for messages
  std::string path;  // of the unix socket; empty: TCP
  std::string host;
  int port = 0;
  std::string password;
  std::string client;  // how the server lists our connections, "client/8/sync"; empty: without a name

  std::string connection_name(int32_t db, std::string_view what) const {
    return client + "/" + std::to_string(db) + "/" + std::string(what);
  }
};

// "redis+unix:/PATH", "redis://HOST:PORT", "redis://HOST", HOST also "[IPV6]". "" or what is wrong with the URL.
std::string parse_endpoint(const std::string &url, Endpoint *endpoint);

// Puts the host's numeric address in place of its name. To be called once, at the start: looking names up blocks, and the loop
// must not. "" or why it has none.
std::string resolve(Endpoint *endpoint);

// What INFO tells of the server.
struct ServerInfo {
  std::string run_id;  // of this server process
  std::string version;
  bool loading = false;
};
ServerInfo parse_info(std::string_view text);
// "" or why this server cannot be used.
std::string server_unfit(const ServerInfo &info);

struct FreeReply {
  void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, FreeReply>;

inline bool is_error(const redisReply *reply) {
  return reply->type == REDIS_REPLY_ERROR;
}
// The error itself or the first one among the answers of a transaction; null when there is none.
inline const redisReply *error_in(const redisReply *reply) {
  if (is_error(reply)) return reply;
  for (size_t i = 0; reply->type == REDIS_REPLY_ARRAY && i < reply->elements; ++i) {
    if (is_error(reply->element[i])) return reply->element[i];
  }
  return nullptr;
}
inline std::string_view text_of(const redisReply *reply) {
  return {reply->str ? reply->str : "", reply->str ? static_cast<size_t>(reply->len) : 0};
}

// One command on the wire, appended to `out`.
using Arguments = std::initializer_list<std::string_view>;
void append_command(std::string &out, std::span<const std::string_view> arguments);
// One argument of a command, of pieces that stand in several places.
void append_argument(std::string &out, std::initializer_list<std::string_view> pieces);
// The head of a command, before that many arguments.
void append_command_head(std::string &out, size_t arguments);
inline void append_command(std::string &out, Arguments arguments) {
  append_command(out, std::span(arguments.begin(), arguments.size()));
}

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
  void close() { context_.reset(); }

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
  struct FreeContext {
    void operator()(redisContext *context) const { redisFree(context); }
  };
  Reply exchange(std::span<const std::string_view> arguments);
  bool wait(short events);
  std::string greet();

  const Endpoint &endpoint_;
  int32_t db_;
  std::chrono::milliseconds limit_;
  std::unique_ptr<redisContext, FreeContext> context_;
  ServerInfo server_;
  bool refused_ = false;
  std::chrono::steady_clock::time_point deadline_{};
  std::chrono::steady_clock::time_point resting_until_{};
};

}  // namespace mom
