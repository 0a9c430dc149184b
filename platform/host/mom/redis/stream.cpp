#include "host/mom/redis/stream.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace host::mom {

namespace {

constexpr std::size_t kReceived = 64U << 10;    // bytes received at a time
constexpr std::size_t kForgotten = 256U << 10;  // sent bytes kept in front of unsent ones before they are erased

struct Address {
  sockaddr_storage bytes{};
  socklen_t length = 0;
};

// Returns "" or why the address is invalid. Looks up nothing: resolve() has been called.
std::string address_of(const RedisEndpoint &endpoint, Address *address) {
  if (!endpoint.path.empty()) {
    auto *unix_socket = reinterpret_cast<sockaddr_un *>(&address->bytes);
    if (endpoint.path.size() >= sizeof unix_socket->sun_path) return "the socket's path is too long";
    unix_socket->sun_family = AF_UNIX;
    endpoint.path.copy(unix_socket->sun_path, endpoint.path.size());
    address->length = sizeof *unix_socket;
    return "";
  }
  addrinfo hints{}, *found = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  const std::string port = std::to_string(endpoint.port);
  if (const int rv = ::getaddrinfo(endpoint.host.c_str(), port.c_str(), &hints, &found); rv != 0)
    return "'" + endpoint.host + "' is no address: " + gai_strerror(rv);
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  std::memcpy(&address->bytes, found->ai_addr, found->ai_addrlen);
  address->length = found->ai_addrlen;
  return "";
}

bool is_numeric(const std::string &host) {
  in6_addr address;
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1 || ::inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

}  // namespace

std::string Stream::open(const RedisEndpoint &endpoint) {
  close();
  Address address;
  if (std::string why = address_of(endpoint, &address); !why.empty()) return why;
  fd_ = ::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (endpoint.path.empty()) ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  std::string why;
  if (fd_ < 0 || (::connect(fd_, reinterpret_cast<sockaddr *>(&address.bytes), address.length) != 0 && errno != EINPROGRESS))
    why = std::strerror(errno);
  if (why.empty() && endpoint.tls) why = start_tls(endpoint);
  reader_.reset(redisReaderCreate());
  if (!why.empty()) close();
  return why;
}

// The server's certificate must be for the configured name, or for the address.
std::string Stream::start_tls(const RedisEndpoint &endpoint) {
  tls_.reset(SSL_new(endpoint.tls.get()));
  const std::string &name = endpoint.server_name.empty() ? endpoint.host : endpoint.server_name;
  X509_VERIFY_PARAM *check = tls_ ? SSL_get0_param(tls_.get()) : nullptr;
  const bool address = is_numeric(name);
  const bool set =
      check && SSL_set_fd(tls_.get(), fd_) == 1 &&
      (address ? X509_VERIFY_PARAM_set1_ip_asc(check, name.c_str()) : SSL_set1_host(tls_.get(), name.c_str())) == 1 &&
      (address || SSL_set_tlsext_host_name(tls_.get(), name.c_str()) == 1);
  if (!set) return "TLS cannot be set up for the server name '" + name + "'";
  SSL_set_mode(tls_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_set_connect_state(tls_.get());
  return "";
}

void Stream::close() {
  tls_.reset();
  reader_.reset();
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  output_.clear();
  sent_ = 0;
  waits_for_input_ = waits_for_output_ = false;
  error_.clear();
}

short Stream::wants() const {
  const bool output = waits_for_output_ || (unsent() > 0 && !waits_for_input_);
  return static_cast<short>(output ? POLLIN | POLLOUT : POLLIN);
}

// Like send() and recv(): the number of bytes, 0 for "not now", -1 for the end of the connection.
ssize_t Stream::outcome(int rv) {
  if (rv > 0) return rv;
  const int what = SSL_get_error(tls_.get(), rv);
  waits_for_output_ = what == SSL_ERROR_WANT_WRITE;
  if (what == SSL_ERROR_WANT_READ || what == SSL_ERROR_WANT_WRITE) return 0;
  const unsigned long code = ERR_peek_error();
  if (code != 0)
    error_ = tls::failure_text(code, tls_.get());
  else
    error_ = what == SSL_ERROR_SYSCALL && errno != 0 ? std::strerror(errno) : "closed by the server";
  return -1;
}

ssize_t Stream::put(std::string_view bytes) {
  if (tls_) {
    ERR_clear_error();
    const ssize_t n = outcome(SSL_write(tls_.get(), bytes.data(), static_cast<int>(bytes.size())));
    waits_for_input_ = n == 0 && !waits_for_output_;
    return n;
  }
  const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (n >= 0) return n;
  if (errno == EAGAIN || errno == EINTR) return 0;
  error_ = std::strerror(errno);
  return -1;
}

ssize_t Stream::get(char *into, std::size_t size) {
  if (tls_) {
    ERR_clear_error();
    return outcome(SSL_read(tls_.get(), into, static_cast<int>(size)));
  }
  const ssize_t n = ::recv(fd_, into, size, 0);
  if (n > 0) return n;
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
  error_ = n == 0 ? "closed by the server" : std::strerror(errno);
  return -1;
}

bool Stream::send() {
  while (unsent() > 0) {
    const ssize_t n = put(std::string_view(output_).substr(sent_));
    if (n < 0) return false;
    if (n == 0) break;
    sent_ += static_cast<std::size_t>(n);
  }
  if (unsent() > 0 && sent_ < kForgotten) return true;
  output_.erase(0, std::exchange(sent_, 0));
  return true;
}

// Receives one piece, so that a server that sends endlessly does not block the loop; with TLS a whole record, because the socket
// does not become readable for the rest of it.
bool Stream::receive() {
  char bytes[kReceived];
  do {
    const ssize_t n = get(bytes, sizeof bytes);
    if (n < 0) return false;
    if (n == 0) return true;
    waits_for_input_ = false;
    if (redisReaderFeed(reader_.get(), bytes, static_cast<std::size_t>(n)) != REDIS_OK) return failed(reader_->errstr);
  } while (tls_ && SSL_pending(tls_.get()) > 0);
  return true;
}

bool Stream::failed(std::string why) {
  error_ = std::move(why);
  return false;
}

RedisReply Stream::next() {
  void *reply = nullptr;
  if (reader_ && redisReaderGetReply(reader_.get(), &reply) != REDIS_OK) failed(reader_->errstr);
  return RedisReply(static_cast<redisReply *>(reply));
}

}  // namespace host::mom
