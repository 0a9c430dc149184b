#include "host/control/server.h"

#include <errno.h>
#include <event2/buffer.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/base/loop.h"
#include "host/config/config.h"
#include "host/log/log.h"

namespace host::control {
namespace {

using namespace std::chrono_literals;

constexpr auto kLook = 1s;                             // between checks of the socket's file
constexpr timeval kIdle{.tv_sec = 300, .tv_usec = 0};  // between requests
constexpr timeval kStuck{.tv_sec = 60, .tv_usec = 0};  // without reading a byte of the answer

struct BuffereventDeleter {
  void operator()(bufferevent *b) const { bufferevent_free(b); }
};

// True if a process still serves the socket `address`.
bool is_served(const sockaddr_un &address) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const bool served = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 || errno == EAGAIN;
  ::close(fd);
  return served;
}

// A bound socket whose file only its owner may open, from its first moment. Negative on failure, with errno.
int bound_socket(const sockaddr_un &address) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  if (fchmod(fd, 0600) == 0 && bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
  const int error = errno;
  ::close(fd);
  errno = error;
  return -1;
}

// Opens the socket's file to the group as well. Returns "" or the error.
std::string share(const std::string &path, gid_t group) {
  if (chown(path.c_str(), static_cast<uid_t>(-1), group) == 0 && chmod(path.c_str(), 0660) == 0) return "";
  return path + ": cannot be given to control.group: " + strerror(errno) + "; the process's user must be one of its members";
}

// A peer without credentials counts as a member of the group.
LineServer::Access access_of(int fd) {
  ucred peer{};
  socklen_t length = sizeof peer;
  const bool known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0;
  return known && (peer.uid == 0 || peer.uid == geteuid()) ? LineServer::Access::owner : LineServer::Access::group;
}

}  // namespace

struct LineServer::Client {
  LineServer *server;
  Access access;
  std::unique_ptr<bufferevent, BuffereventDeleter> socket;
  bool closing = false;  // removed once its answer is sent
  std::shared_ptr<void> stream{};
  std::size_t missed = 0;  // lines of the stream

  evbuffer *input() const { return bufferevent_get_input(socket.get()); }
  evbuffer *output() const { return bufferevent_get_output(socket.get()); }
  void send(const std::string &line) const {
    evbuffer_add(output(), line.data(), line.size());
    evbuffer_add(output(), "\n", 1);
  }
};

LineServer::LineServer(Words words, std::optional<gid_t> group) : words_(std::move(words)), group_(group) {}

LineServer::~LineServer() {
  if (listener_) unlink(path_.c_str());
}

std::string LineServer::listen(const std::string &path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof address.sun_path) return path + ": longer than a socket's path may be (107 bytes)";
  path.copy(address.sun_path, path.size());
  if (is_served(address)) return path + ": another process serves this socket";
  unlink(path.c_str());
  const int fd = bound_socket(address);
  if (fd < 0) return path + ": " + strerror(errno);
  if (std::string why = group_ ? share(path, *group_) : ""; !why.empty()) {
    ::close(fd);
    unlink(path.c_str());
    return why;
  }
  const auto on_accept = [](evconnlistener *, evutil_socket_t client, sockaddr *, int, void *self) {
    static_cast<LineServer *>(self)->accept(client);
  };
  listener_.reset(
      evconnlistener_new(loop_base(), on_accept, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 2 * kMostClients, fd));
  if (!listener_) {
    ::close(fd);
    return path + ": " + strerror(errno);
  }
  path_ = path;
  look_.arm(kLook);
  // Without free descriptors, the waiting client would wake the loop again and again.
  evconnlistener_set_error_cb(listener_.get(), [](evconnlistener *l, void *self) {
    evconnlistener_disable(l);
    static_cast<LineServer *>(self)->listen_again_.arm(100ms);
  });
  return "";
}

// The run directory, or its contents, may have been removed.
void LineServer::look_after_socket() {
  look_.arm(kLook);
  if (access(path_.c_str(), F_OK) == 0 || errno != ENOENT) return;
  std::string why = make_run_dir();
  if (why.empty()) why = listen(path_);
  if (why.empty())
    log::warn("the control socket {} was missing and has been created again", path_);
  else if (!lost_)
    log::error("the control socket {} is missing and cannot be created again: {}", path_, why);
  lost_ = !why.empty();
}

void LineServer::accept(int fd) {
  bufferevent *socket = bufferevent_socket_new(loop_base(), fd, BEV_OPT_CLOSE_ON_FREE);
  if (!socket) {
    ::close(fd);
    return;
  }
  Client &client = clients_.emplace_back(Client{this, access_of(fd), std::unique_ptr<bufferevent, BuffereventDeleter>(socket)});
  bufferevent_setwatermark(socket, EV_READ, 0, kLongestLine + 1);
  bufferevent_set_timeouts(socket, &kIdle, &kStuck);
  const auto ready = [](bufferevent *, void *c) { static_cast<Client *>(c)->server->serve(*static_cast<Client *>(c)); };
  const auto ended = [](bufferevent *, short, void *c) { static_cast<Client *>(c)->server->close(*static_cast<Client *>(c)); };
  bufferevent_setcb(socket, ready, ready, ended, &client);
  if (clients_.size() > kMostClients) {
    client.closing = true;
    client.send(words_.turn_away("more than " + std::to_string(kMostClients) + " clients"));
    return;
  }
  bufferevent_enable(socket, EV_READ | EV_WRITE);
}

// Reads the next request only once the last answer is sent: a client that reads nothing costs one answer and, by the watermark,
// one line of input.
void LineServer::serve(Client &client) {
  while (!client.closing && !client.stream && evbuffer_get_length(client.output()) == 0) {
    std::size_t length = 0;
    const std::unique_ptr<char, void (*)(void *)> line(evbuffer_readln(client.input(), &length, EVBUFFER_EOL_LF), free);
    if (line && length > 0) {
      answer(client, std::string(line.get(), length));
    } else if (!line && evbuffer_get_length(client.input()) > kLongestLine) {
      client.send(words_.refuse("a request of more than " + std::to_string(kLongestLine) + " bytes"));
      client.closing = true;
    } else if (!line) {
      break;
    }
  }
  const bool drained = evbuffer_get_length(client.output()) == 0;
  if (drained && client.missed > 0) client.send(words_.missed(std::exchange(client.missed, 0)));
  if (drained && client.closing) close(client);
}

void LineServer::answer(Client &client, const std::string &line) {
  Reply reply = words_.answer(line, client.access, [this, &client](const auto &further) { push(client, further); });
  client.send(reply.line);
  client.stream = std::move(reply.stream);
  if (client.stream) bufferevent_set_timeouts(client.socket.get(), nullptr, &kStuck);  // from now on it only reads
}

void LineServer::push(Client &client, const std::function<std::string()> &line) {
  if (client.missed > 0 || evbuffer_get_length(client.output()) > kMostUnread) {
    ++client.missed;
  } else {
    client.send(line());
  }
}

void LineServer::close(Client &client) {
  clients_.remove_if([&](const Client &c) { return &c == &client; });
}

}  // namespace host::control
