#include "host/mom/redis_endpoint.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "host/mom/redis_scripts.h"

namespace mom {

namespace {

constexpr std::string_view kUnix = "redis+unix:";
constexpr std::string_view kTcp = "redis://";
constexpr int kDefaultPort = 6379;
constexpr int kOldestMajor = 7;

// At least a moment: no time at all would mean without limit.
timeval to_timeval(std::chrono::milliseconds limit) {
  const auto ms = std::max<std::chrono::milliseconds::rep>(limit.count(), 1);
  return {.tv_sec = ms / 1000, .tv_usec = ms % 1000 * 1000};
}

std::chrono::milliseconds left_until(std::chrono::steady_clock::time_point deadline) {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
}

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
