// A client of the control service: connects, sends a request line, receives the answer. For kelimctl and tests; independent of
// the rest of the host. Blocking calls with a time limit; one thread per client.
#pragma once

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace host::control {

// The path at which the process `name` serves control requests.
inline std::string socket_path(const std::string &run_dir, const std::string &name) {
  return run_dir + "/" + name + ".ctl";
}

class Client {
 public:
  Client() = default;
  ~Client() { disconnect(); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  // Returns "" or why no process can be reached at `path`.
  std::string connect(const std::string &path) {
    disconnect();
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path) return path + ": longer than a socket's path may be";
    path.copy(address.sun_path, path.size());
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return "";
    std::string why = path + ": " + strerror(errno);
    disconnect();
    return why;
  }

  void disconnect() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    received_.clear();
  }

  int fd() const { return fd_; }

  // Sends `line` (without line end) and waits for the answer line. Returns "" and sets *answer, or returns why there is none.
  std::string request(std::string_view line, std::string *answer, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    std::string unsent = send(std::string(line) + "\n");
    if (fd_ < 0) return unsent;
    // A process that rejects the client says why before it closes the connection.
    const std::string why = receive(answer, limit);
    return unsent.empty() || why.empty() ? why : unsent;
  }

  std::string send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return std::string("sending the request: ") + strerror(errno);
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return "";
  }

  // Receives the next line. Without a limit it waits as long as the connection lasts.
  std::string receive(std::string *answer, std::optional<std::chrono::milliseconds> limit = {}) {
    std::optional<std::chrono::steady_clock::time_point> deadline;
    if (limit) deadline = std::chrono::steady_clock::now() + *limit;
    std::size_t searched = 0;
    while (true) {
      if (const auto end = received_.find('\n', searched); end != std::string::npos) {
        *answer = received_.substr(0, end);
        received_.erase(0, end + 1);
        return "";
      }
      searched = received_.size();
      if (std::string why = read_more(deadline); !why.empty()) return why;
    }
  }

 private:
  static int left_until(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
  }

  std::string read_more(const std::optional<std::chrono::steady_clock::time_point> &deadline) {
    pollfd wait{.fd = fd_, .events = POLLIN, .revents = 0};
    const int ready = ::poll(&wait, 1, deadline ? left_until(*deadline) : -1);
    if (ready == 0) return "no answer in time";
    char bytes[65536];
    const ssize_t n = ready < 0 ? -1 : ::recv(fd_, bytes, sizeof bytes, 0);
    if (n < 0 && errno == EINTR) return "";
    if (n < 0) return std::string("receiving the answer: ") + strerror(errno);
    if (n == 0) return "the process closed the connection";
    received_.append(bytes, static_cast<std::size_t>(n));
    return "";
  }

  int fd_ = -1;
  std::string received_;
};

}  // namespace host::control
