#include "host/mom/redis_endpoint.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>

namespace mom {

namespace {

constexpr std::string_view kUnix = "redis+unix:";
constexpr std::string_view kTcp = "redis://";
constexpr int kDefaultPort = 6379;
constexpr int kOldestMajor = 7;

}  // namespace

std::string parse_endpoint(const std::string &url, Endpoint *endpoint) {
  endpoint->url = url;
  std::string_view rest = url;
  if (rest.starts_with(kUnix)) {
    endpoint->path = rest.substr(kUnix.size());
    return endpoint->path.starts_with('/') ? "" : "mom.url '" + url + "': the socket's path must begin with /";
  }
  if (!rest.starts_with(kTcp)) return "mom.url '" + url + "': must be embedded:, redis+unix:/PATH or redis://HOST:PORT";
  rest.remove_prefix(kTcp.size());
  if (rest.ends_with('/')) rest.remove_suffix(1);
  const size_t bracket = rest.starts_with('[') ? rest.find(']') : 0;
  const size_t colon = bracket == std::string_view::npos ? bracket : rest.find(':', bracket);
  std::string_view host = rest.substr(0, colon);
  endpoint->port = kDefaultPort;
  bool good = bracket != std::string_view::npos;
  if (good && colon != std::string_view::npos) {
    const std::string_view port = rest.substr(colon + 1);
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), endpoint->port);
    good = error == std::errc{} && end == port.data() + port.size() && endpoint->port > 0 && endpoint->port <= 65535;
  }
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  endpoint->host = host;
  if (good && !host.empty() && host.find_first_of("/@") == std::string_view::npos) return "";
  return "mom.url '" + url + "': must be redis://HOST:PORT with a port from 1 to 65535 (the password has a key of its own)";
}

std::string resolve(Endpoint *endpoint) {
  if (!endpoint->path.empty()) return "";
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

ServerInfo parse_info(std::string_view text) {
  ServerInfo info;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find("\r\n"));
    text.remove_prefix(std::min(text.size(), line.size() + 2));
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = line.substr(colon + 1);
    if (name == "run_id") info.run_id = value;
    if (name == "redis_version") info.version = value;
    if (name == "loading") info.loading = value == "1";
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
void append_head(std::string &out, char kind, size_t count) {
  char head[24];
  head[0] = kind;
  char *end = std::to_chars(head + 1, head + sizeof head - 2, count).ptr;
  *end++ = '\r';
  *end++ = '\n';
  out.append(head, end);
}

}  // namespace

void append_argument(std::string &out, std::initializer_list<std::string_view> pieces) {
  size_t size = 0;
  for (const std::string_view piece : pieces) size += piece.size();
  append_head(out, '$', size);
  for (const std::string_view piece : pieces) out.append(piece);
  out.append("\r\n");
}

void append_command_head(std::string &out, size_t arguments) {
  append_head(out, '*', arguments);
}

void append_command(std::string &out, std::span<const std::string_view> arguments) {
  append_command_head(out, arguments.size());
  for (const std::string_view argument : arguments) append_argument(out, {argument});
}

}  // namespace mom
