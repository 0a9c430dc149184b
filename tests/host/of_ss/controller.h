// An OpenFlow controller on a socket, with the messages that it sends and reads.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "host/base/loop.h"
#include "support/of_wire.h"
#include "support/runtime_fixture.h"

namespace of_world {

using namespace of_wire;

// A controller: a socket and the messages received on it.
class Controller {
 public:
  Controller() = default;
  explicit Controller(std::uint16_t port) { connect(port); }
  virtual ~Controller() { close(); }
  Controller(const Controller &) = delete;
  Controller &operator=(const Controller &) = delete;

  // A small `segment` or `buffer` limits how much data in transit the kernel buffers.
  void connect(std::uint16_t port, in_addr_t to = htonl(INADDR_LOOPBACK), int segment = 0, int buffer = 0) {
    const sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {to}, .sin_zero = {}};
    adopt(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (buffer) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    if (segment) setsockopt(fd_, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
    ASSERT_EQ(::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << strerror(errno);
  }
  void adopt(int fd) {
    close();
    fd_ = fd;
    ended_ = false;
  }
  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

  // Sends the bytes behind those still unsent, turning the loop while the peer does not accept them; false if it never does.
  bool send(const Message &bytes, std::chrono::milliseconds limit = kPatience) {
    append(output_, bytes);
    return host::run_until([&] { return !send_more(); }, limit) && output_.empty();
  }
  // Sends as much as the peer accepts without waiting. True if there is more to send.
  bool send_more() {
    const ssize_t n = put_some(output_);
    if (n > 0) output_.erase(output_.begin(), output_.begin() + n);
    return !output_.empty() && (n >= 0 || errno == EAGAIN);
  }
  // Reads what has arrived, or about that many bytes of it.
  void read(std::ptrdiff_t bytes = PTRDIFF_MAX) {
    std::byte chunk[65536];
    for (ssize_t n; fd_ >= 0 && bytes > 0 && (n = get_some(chunk)) >= 0; bytes -= n) {
      if (n == 0) ended_ = true;
      if (ended_) return;
      input_.insert(input_.end(), chunk, chunk + n);
      cut();
    }
    if (errno == ECONNRESET) ended_ = true;
  }
  bool ended() {
    read();
    return ended_;
  }
  // The whole messages received so far.
  const std::vector<Message> &received() {
    read();
    return received_;
  }
  std::vector<Message> of_type(std::uint8_t type) {
    std::vector<Message> found;
    for (const Message &m : received())
      if (get(m, 1, 1) == type) found.push_back(m);
    return found;
  }
  void forget() { received_.clear(); }

  // Waits for the n-th message of a type; an empty message if it does not arrive.
  Message await(std::uint8_t type, std::size_t n = 1) {
    host::run_until([&] { return of_type(type).size() >= n || ended_; }, kPatience);
    const auto found = of_type(type);
    return found.size() >= n ? found[n - 1] : Message{};
  }
  // Sends the request and waits for any message with its xid.
  Message ask(const Message &request) {
    const auto answers = [&](const Message &m) { return get(m, 4, 4) == get(request, 4, 4) && get(m, 1, 1) != 0; };
    const auto answer = [&] { return std::ranges::find_if(received_, answers); };
    forget();
    send(request);
    host::run_until([&] { return read(), answer() != received_.end() || ended_; }, kPatience);
    return answer() != received_.end() ? *answer() : Message{};
  }
  // Waits until everything sent so far has been handled and answered, as the reply to a barrier shows; that reply is not kept.
  bool settle() {
    const Message answer = message(21, ++settled_);
    const auto settled = [&] { return read(), std::erase(received_, answer) == 1 || ended_; };
    return send(barrier(settled_)) && host::run_until(settled, kPatience) && !ended_;
  }

 protected:
  // Like send and recv, without waiting.
  virtual ssize_t put_some(std::span<const std::byte> bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  virtual ssize_t get_some(std::span<std::byte> into) { return ::recv(fd_, into.data(), into.size(), MSG_DONTWAIT); }
  int fd_ = -1;

 private:
  void cut() {
    auto at = input_.begin();
    while (input_.end() - at >= 8) {
      const auto end = at + static_cast<std::ptrdiff_t>(get({at, input_.end()}, 2, 2));
      if (end > input_.end()) break;
      received_.emplace_back(at, end);
      at = end;
    }
    input_.erase(input_.begin(), at);
  }
  bool ended_ = false;
  std::uint32_t settled_ = 0xb0000000;
  Message input_, output_;
  std::vector<Message> received_;
};

// A controller's socket that waits for the agent to connect.
class Listener {
 public:
  Listener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) { ::listen(fd_, 5); }
  ~Listener() { ::close(fd_); }
  std::string address() const {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    ::getsockname(fd_, reinterpret_cast<sockaddr *>(&bound), &length);
    return "127.0.0.1:" + std::to_string(ntohs(bound.sin_port));
  }
  void accept(Controller &c) {
    int fd = -1;
    ASSERT_TRUE(host::run_until([&] { return (fd = ::accept(fd_, nullptr, nullptr)) >= 0; }, kPatience));
    c.adopt(fd);
  }

 private:
  int fd_;
};

// A filter for every flow of every table.
inline FlowMod everything(std::uint8_t command = 3) {
  FlowMod f;
  f.command = command, f.table = 0xff;
  return f;
}
// A request for the flows, or their sums, that a non-strict delete with the same filter would remove.
inline Message dump_request(std::uint32_t xid, const FlowMod &filter = everything(), std::uint16_t type = 1) {
  const Message body = be(type) + Message(6) + be(filter.table) + Message(3) + be(filter.out_port, filter.out_group) +
                       Message(4) + be(filter.cookie, filter.cookie_mask);
  return message(18, xid, body + match(filter.fields));
}

// The packets in an entry of a FLOW reply, and the port of its last action.
inline std::uint64_t packets_of(const Message &entry) {
  return get(entry, 32, 8);
}
inline std::uint64_t output_of(const Message &entry) {
  return get(entry, entry.size() - 12, 4);
}

}  // namespace of_world
