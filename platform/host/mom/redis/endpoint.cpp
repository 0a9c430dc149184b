#include "host/mom/redis/endpoint.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>

#include "host/config/text.h"
#include "host/tls/tls.h"

namespace host::mom {

namespace {

constexpr int kDefaultPort = 6379, kSentinelPort = 26379;
constexpr int kOldestMajor = 7;

enum class Form { path, server, sentinels };
struct Scheme {
  std::string_view prefix;
  Form form;
  bool secure;
};
constexpr Scheme kSchemes[] = {{"redis+unix:", Form::path, false},
                               {"redis://", Form::server, false},
                               {"rediss://", Form::server, true},
                               {"redis+sentinel://", Form::sentinels, false},
                               {"rediss+sentinel://", Form::sentinels, true}};

std::string bad_url(const std::string &url, const std::string &why) {
  return "mom.url '" + masked(url) + "': " + why;
}

// "HOST[:PORT]", with the host in brackets if it contains colons.
bool parse_address(std::string_view text, std::string *host, int *port) {
  const std::size_t bracket = text.starts_with('[') ? text.find(']') : 0;
  if (bracket == std::string_view::npos) return false;
  const std::size_t colon = text.find(':', bracket);
  if (colon != std::string_view::npos) {
    const auto parsed = number(text.substr(colon + 1));
    if (!parsed || *parsed == 0 || *parsed > 65535) return false;
    *port = static_cast<int>(*parsed);
  }
  *host = text.substr(0, colon);
  if (host->starts_with('[') && host->ends_with(']')) *host = host->substr(1, host->size() - 2);
  return !host->empty() && host->find_first_of("/@") == std::string::npos;
}

// "HOST[:PORT],.../NAME"
bool parse_sentinels(std::string_view text, RedisEndpoint *endpoint) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return false;
  endpoint->master = text.substr(slash + 1);
  for (const std::string &address : split(text.substr(0, slash), ",")) {
    RedisEndpoint &sentinel = endpoint->sentinels.emplace_back();
    sentinel.port = kSentinelPort;
    if (!parse_address(address, &sentinel.host, &sentinel.port)) return false;
    sentinel.server_name = sentinel.host;
  }
  return !endpoint->sentinels.empty() && !endpoint->master.empty();
}

// A name without a slash is the name of a systemd credential.
std::string read_password(const std::string &file, std::string *password) {
  std::string path = file;
  if (file.find('/') == std::string::npos) {
    const char *credentials = std::getenv("CREDENTIALS_DIRECTORY");
    if (!credentials) return "mom.password_file '" + file + "' names a credential, but systemd hands over none (LoadCredential=)";
    path = std::string(credentials) + "/" + file;
  }
  std::ifstream in(path);
  if (!std::getline(in, *password)) return "mom.password_file '" + file + "' cannot be read, or its first line is empty";
  return "";
}

}  // namespace

std::string parse_endpoint(const std::string &url, RedisEndpoint *endpoint) {
  endpoint->url = url;
  std::string_view rest = url;
  const auto scheme = std::ranges::find_if(kSchemes, [&](const Scheme &one) { return rest.starts_with(one.prefix); });
  if (scheme == std::end(kSchemes))
    return bad_url(url,
                   "must be embedded:, redis+unix:/PATH, redis://[USER@]HOST:PORT or redis+sentinel://[USER@]HOST:PORT,.../NAME "
                   "(with TLS rediss...)");
  rest.remove_prefix(scheme->prefix.size());
  endpoint->secure = scheme->secure;
  if (scheme->form == Form::path) {
    endpoint->path = rest;
    return rest.starts_with('/') ? "" : bad_url(url, "the socket's path must begin with /");
  }
  if (const std::size_t at = rest.rfind('@'); at != std::string_view::npos) {
    endpoint->user = rest.substr(0, at);
    rest.remove_prefix(at + 1);
  }
  if (endpoint->user.find(':') != std::string::npos)
    return bad_url(url, "the password belongs in mom.password or mom.password_file");
  if (scheme->form == Form::sentinels) {
    if (parse_sentinels(rest, endpoint)) return "";
    return bad_url(url, "must be " + std::string(scheme->prefix) + "[USER@]HOST:PORT,.../NAME with ports from 1 to 65535");
  }
  if (rest.ends_with('/')) rest.remove_suffix(1);
  endpoint->port = kDefaultPort;
  if (!parse_address(rest, &endpoint->host, &endpoint->port))
    return bad_url(url, "must be " + std::string(scheme->prefix) + "[USER@]HOST:PORT with a port from 1 to 65535");
  endpoint->server_name = endpoint->host;
  return "";
}

std::string configured_endpoint(const Config::Mom &config, RedisEndpoint *endpoint) {
  std::string why = parse_endpoint(config.url, endpoint);
  endpoint->password = config.password;
  if (why.empty() && !config.password_file.empty()) why = read_password(config.password_file, &endpoint->password);
  if (!why.empty() || !endpoint->secure) return why;
  if (!config.tls_server_name.empty()) endpoint->server_name = config.tls_server_name;
  if (config.tls_ca.empty()) return bad_url(config.url, "needs mom.tls_ca, the authorities that the server is checked against");
  endpoint->tls = tls::load(config.tls_cert, config.tls_key, config.tls_ca, why);
  for (RedisEndpoint &sentinel : endpoint->sentinels) {
    sentinel.tls = endpoint->tls;
    if (!config.tls_server_name.empty()) sentinel.server_name = config.tls_server_name;
  }
  return why;
}

std::vector<std::string_view> login(const RedisEndpoint &endpoint) {
  if (endpoint.password.empty()) return {};
  if (endpoint.user.empty()) return {"AUTH", endpoint.password};
  return {"AUTH", endpoint.user, endpoint.password};
}

std::string resolve(RedisEndpoint *endpoint) {
  for (RedisEndpoint &sentinel : endpoint->sentinels)
    if (std::string why = resolve(&sentinel); !why.empty()) return sentinel.host + ": " + why;
  if (endpoint->host.empty()) return "";
  std::string why;
  for (const int family : {AF_INET, AF_INET6}) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *first = nullptr;
    if (const int rv = getaddrinfo(endpoint->host.c_str(), nullptr, &hints, &first); rv != 0) {
      why = gai_strerror(rv);
      continue;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> found(first, freeaddrinfo);
    char numeric[NI_MAXHOST] = "";
    getnameinfo(found->ai_addr, found->ai_addrlen, numeric, sizeof numeric, nullptr, 0, NI_NUMERICHOST);
    endpoint->host = numeric;
    return "";
  }
  return "the host has no address: " + why;
}

std::vector<std::string_view> master_question(const RedisEndpoint &endpoint) {
  return {"SENTINEL", "GET-MASTER-ADDR-BY-NAME", endpoint.master};
}

std::string take_master(const redisReply *reply, RedisEndpoint *endpoint) {
  if (is_error(reply)) return std::string(text_of(reply));
  const bool known = reply->type == REDIS_REPLY_ARRAY && reply->elements == 2;
  const auto port = known ? number(text_of(reply->element[1])) : std::nullopt;
  if (!port || *port == 0 || *port > 65535) return "the sentinel does not know it";
  endpoint->host = text_of(reply->element[0]);
  endpoint->port = static_cast<int>(*port);
  return "";
}

ServerInfo parse_info(std::string_view text) {
  ServerInfo info;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find("\r\n"));
    text.remove_prefix(std::min(text.size(), line.size() + 2));
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = line.substr(colon + 1);
    if (name == "run_id") info.run_id = value;
    if (name == "redis_version") info.version = value;
    if (name == "role") info.role = value;
    if (name == "loading") info.loading = value == "1";
    if (name == "master_replid") info.history.id = value;
    if (name == "master_replid2") info.history.previous_id = value;
    if (name == "master_repl_offset") std::from_chars(value.begin(), value.end(), info.history.offset);
    if (name == "second_repl_offset") std::from_chars(value.begin(), value.end(), info.history.previous_end);
  }
  return info;
}

std::string server_unfit(const ServerInfo &info) {
  int major = 0;
  std::from_chars(info.version.data(), info.version.data() + info.version.size(), major);
  if (major >= kOldestMajor) return "";
  return "the server's version is '" + info.version + "'; " + std::to_string(kOldestMajor) + " or later is needed";
}

namespace {

// '*' and the number of arguments, '$' and the number of bytes.
void append_head(std::string &out, char kind, std::size_t count) {
  char head[24];
  head[0] = kind;
  char *end = std::to_chars(head + 1, head + sizeof head - 2, count).ptr;
  *end++ = '\r';
  *end++ = '\n';
  out.append(head, end);
}

}  // namespace

void append_argument(std::string &out, std::initializer_list<std::string_view> pieces) {
  std::size_t size = 0;
  for (const std::string_view piece : pieces) size += piece.size();
  append_head(out, '$', size);
  for (const std::string_view piece : pieces) out.append(piece);
  out.append("\r\n");
}

void append_command_head(std::string &out, std::size_t arguments) {
  append_head(out, '*', arguments);
}

void append_command(std::string &out, std::span<const std::string_view> arguments) {
  append_command_head(out, arguments.size());
  for (const std::string_view argument : arguments) append_argument(out, {argument});
}

}  // namespace host::mom
