// The Redis server's address and its reports about itself; commands and replies on the wire. Loop's thread.
#pragma once

#include <hiredis/hiredis.h>
#include <openssl/ssl.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/config/config.h"

namespace host::mom {

struct RedisEndpoint {
  std::string url;   // as configured, for messages
  std::string path;  // of the unix socket; empty: TCP
  std::string host;
  int port = 0;
  std::string user;  // empty: the server's default user
  std::string password;
  bool secure = false;           // connect with TLS
  std::shared_ptr<SSL_CTX> tls;  // certificates and keys for it
  std::string server_name;       // the name that the server's certificate must be for; empty: its address
  // The sentinels that know host and port of the named master; empty: the URL names the server itself.
  std::vector<RedisEndpoint> sentinels;
  std::string master;
  std::string client;  // prefix of this process's connection names on the server, "client/8/sync"; empty: unnamed

  std::string connection_name(std::int32_t db, std::string_view what) const {
    return client + "/" + std::to_string(db) + "/" + std::string(what);
  }
};

// "redis+unix:/PATH", "redis://[USER@]HOST[:PORT]", the same with "rediss" for TLS, HOST also "[IPV6]";
// "redis+sentinel://[USER@]HOST[:PORT],.../NAME". Returns "" or what is wrong with the URL, without showing a password in it.
std::string parse_endpoint(const std::string &url, RedisEndpoint *endpoint);

// The configured endpoint, with password and certificates read from their files. Returns "" or what is wrong.
std::string configured_endpoint(const Config::Mom &config, RedisEndpoint *endpoint);

// The command that logs in; empty when there is no password.
std::vector<std::string_view> login(const RedisEndpoint &endpoint);

// Replaces the names of host or sentinels by numeric addresses. Called once, at the start, because look-ups block, which the loop
// must not. Returns "" or why no address was found.
std::string resolve(RedisEndpoint *endpoint);

// A server's position in a replication history. A replica that becomes master begins a new history and reports the offset up to
// which it shares the previous one.
struct History {
  std::string id;
  std::string previous_id;
  long long offset = 0;
  long long previous_end = 0;

  // True when the server holds everything written up to `had`.
  bool continues(const History &had) const {
    if (had.id.empty()) return false;
    return id == had.id ? offset >= had.offset : previous_id == had.id && previous_end > had.offset;
  }
};

// The server's INFO.
struct ServerInfo {
  std::string run_id;  // of this server process
  std::string version;
  std::string role;
  bool loading = false;
  History history;
};
ServerInfo parse_info(std::string_view text);
// Returns "" or why this server cannot be used.
std::string server_unfit(const ServerInfo &info);

struct FreeReply {
  void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using RedisReply = std::unique_ptr<redisReply, FreeReply>;

inline bool is_error(const redisReply *reply) {
  return reply->type == REDIS_REPLY_ERROR;
}
// The reply itself if it is an error, or the first error in the replies of a transaction; null if there is none.
inline const redisReply *error_in(const redisReply *reply) {
  if (is_error(reply)) return reply;
  for (std::size_t i = 0; reply->type == REDIS_REPLY_ARRAY && i < reply->elements; ++i) {
    if (is_error(reply->element[i])) return reply->element[i];
  }
  return nullptr;
}
inline std::string_view text_of(const redisReply *reply) {
  return {reply->str ? reply->str : "", reply->str ? static_cast<std::size_t>(reply->len) : 0};
}

// The query to a sentinel. take_master() copies the master's address from the reply to the endpoint; returns "" or why there is
// none.
std::vector<std::string_view> master_question(const RedisEndpoint &endpoint);
std::string take_master(const redisReply *reply, RedisEndpoint *endpoint);

// Appends one command in wire format.
using Arguments = std::initializer_list<std::string_view>;
void append_command(std::string &out, std::span<const std::string_view> arguments);
// Appends one argument, which is the pieces joined.
void append_argument(std::string &out, std::initializer_list<std::string_view> pieces);
// Appends the head of a command with that many arguments.
void append_command_head(std::string &out, std::size_t arguments);
inline void append_command(std::string &out, Arguments arguments) {
  append_command(out, std::span(arguments.begin(), arguments.size()));
}

}  // namespace host::mom
