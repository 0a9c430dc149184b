// Where the Redis server is, what it says of itself, commands and answers. Loop's thread.
#pragma once

#include <hiredis/hiredis.h>
#include <openssl/ssl.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/config/config.h"

namespace mom {

struct Endpoint {
  std::string url;   // as configured, for messages
  std::string path;  // of the unix socket; empty: TCP
  std::string host;
  int port = 0;
  std::string user;  // empty: the server's default one
  std::string password;
  bool secure = false;           // TLS is asked for
  std::shared_ptr<SSL_CTX> tls;  // what it is done with
  std::string server_name;       // that the server's certificate has to be for; empty: its address
  // Where to ask for host and port of the server, which is the master of that name; empty: the server stands in the URL.
  std::vector<Endpoint> sentinels;
  std::string master;
  std::string client;  // how the server lists our connections, "client/8/sync"; empty: without a name

  std::string connection_name(int32_t db, std::string_view what) const {
    return client + "/" + std::to_string(db) + "/" + std::string(what);
  }
};

// "redis+unix:/PATH", "redis://[USER@]HOST[:PORT]", the same with "rediss" for TLS, HOST also "[IPV6]";
// "redis+sentinel://[USER@]HOST[:PORT],.../NAME". "" or what is wrong with the URL; a password that stands in it is not shown.
std::string parse_endpoint(const std::string &url, Endpoint *endpoint);

// The endpoint of the configuration, with password and certificates from their files. "" or what is wrong.
std::string configured_endpoint(const host::Config::Mom &config, Endpoint *endpoint);

// The command that logs in; empty when there is no password.
std::vector<std::string_view> login(const Endpoint &endpoint);

// Puts the numeric address of host, or sentinels, in place of their names. To be called once, at the start: looking names up
// blocks, and the loop must not. "" or why it has none.
std::string resolve(Endpoint *endpoint);

// How far a server has come in which history of writes. A replica that becomes master begins a history of its own and tells up to
// where it shares the one before.
struct History {
  std::string id;
  std::string previous_id;
  long long offset = 0;
  long long previous_end = 0;

  // Whether it holds all that was written up to `had`.
  bool continues(const History &had) const {
    if (had.id.empty()) return false;
    return id == had.id ? offset >= had.offset : previous_id == had.id && previous_end > had.offset;
  }
};

// What INFO tells of the server.
struct ServerInfo {
  std::string run_id;  // of this server process
  std::string version;
  std::string role;
  bool loading = false;
  History history;
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

// What to ask a sentinel, and what becomes of the answer: the master's address, or why there is none.
std::vector<std::string_view> master_question(const Endpoint &endpoint);
std::string take_master(const redisReply *reply, Endpoint *endpoint);

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

}  // namespace mom
