// A raw pipelining OpenFlow 1.3 client: programs distinct flows into any switch as fast as the switch takes them and measures
// until the barrier reply. It knows nothing of this project, so that two switches are measured by the same yardstick.
//
// A random pause of up to 100 ms stands before every measurement.
//
//   of_load PORT burst N [ROUNDS]      N distinct adds and a barrier; the flows are deleted in between
//   of_load PORT churn N [ROUNDS]      N times add and strict delete of the same flow, then a barrier
//   of_load PORT latency SAMPLES [SOCKET CHANNEL]
//                                      one add and a barrier; with a channel of a Redis server, the time since the first message
//                                      there: since the switch began to work on the flow, however long it waited before
//   of_load PORT fill N                N adds and a barrier, flows are left in place
//   of_load PORT stats N [SAMPLES]     N adds and a barrier, then the statistics of all flows until their last part
//
// Prints one JSON object. Exit status 1 when the switch answered with an error or closed the connection.
#include <arpa/inet.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <span>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

enum Type : std::uint8_t {
  kHello = 0,
  kError = 1,
  kEchoRequest = 2,
  kEchoReply = 3,
  kFeaturesRequest = 5,
  kFeaturesReply = 6,
  kFlowMod = 14,
  kMultipartRequest = 18,
  kMultipartReply = 19,
  kBarrierRequest = 20,
  kBarrierReply = 21
};
enum Command : std::uint8_t { kAdd = 0, kDelete = 3, kDeleteStrict = 4 };

constexpr std::uint8_t kVersion = 4;

[[noreturn]] void die(const char *what) {
  std::fprintf(stderr, "of_load: %s\n", what);
  std::exit(1);
}

void put8(Bytes &b, unsigned v) {
  b.push_back(static_cast<std::uint8_t>(v));
}
void put16(Bytes &b, unsigned v) {
  put8(b, v >> 8), put8(b, v);
}
void put32(Bytes &b, std::uint32_t v) {
  put16(b, v >> 16), put16(b, v);
}
void zeros(Bytes &b, std::size_t n) {
  b.insert(b.end(), n, 0);
}

// Appends the header with length 0; close_message fills it in.
std::size_t open_message(Bytes &b, Type type, std::uint32_t xid) {
  const std::size_t start = b.size();
  put8(b, kVersion), put8(b, type), put16(b, 0), put32(b, xid);
  return start;
}

void close_message(Bytes &b, std::size_t start) {
  const std::size_t len = b.size() - start;
  b[start + 2] = static_cast<std::uint8_t>(len >> 8);
  b[start + 3] = static_cast<std::uint8_t>(len);
}

void plain(Bytes &b, Type type, std::uint32_t xid) {
  close_message(b, open_message(b, type, xid));
}

void oxm(Bytes &b, unsigned field, bool mask, unsigned len) {
  put16(b, 0x8000), put8(b, field << 1 | unsigned{mask}), put8(b, len);
}

void match(Bytes &b, std::uint32_t n) {
  const std::size_t start = b.size();
  put16(b, 1), put16(b, 0);                                      // OFPMT_OXM
  oxm(b, 0, false, 4), put32(b, 1);                              // in_port
  oxm(b, 5, false, 2), put16(b, 0x0800);                         // eth_type
  oxm(b, 10, false, 1), put8(b, 6);                              // ip_proto
  oxm(b, 12, true, 8), put32(b, 0x0a000000 + n), put32(b, ~0U);  // ipv4_dst
  oxm(b, 14, false, 2), put16(b, 80);                            // tcp_dst
  const std::size_t len = b.size() - start;
  b[start + 2] = static_cast<std::uint8_t>(len >> 8), b[start + 3] = static_cast<std::uint8_t>(len);
  zeros(b, (8 - len % 8) % 8);
}

// The n-th flow: in_port, eth_type, ip_proto, ip_dst/32, tcp_dst; one output.
void flow_mod(Bytes &b, Command command, std::uint32_t n, std::uint32_t xid) {
  const std::size_t start = open_message(b, kFlowMod, xid);
  zeros(b, 16), put8(b, 0), put8(b, command), put16(b, 0), put16(b, 0), put16(b, 100);
  put32(b, ~0U), put32(b, ~0U), put32(b, ~0U), put16(b, 0), put16(b, 0);
  match(b, n);
  if (command == kAdd) {
    put16(b, 4), put16(b, 24), put32(b, 0);                                 // apply actions
    put16(b, 0), put16(b, 16), put32(b, 2), put16(b, 0xffff), zeros(b, 6);  // output
  }
  close_message(b, start);
}

void delete_everything(Bytes &b, std::uint32_t xid) {
  const std::size_t start = open_message(b, kFlowMod, xid);
  zeros(b, 16), put8(b, 0xff), put8(b, kDelete), zeros(b, 6), put32(b, ~0U), put32(b, ~0U), put32(b, ~0U), zeros(b, 4);
  put16(b, 1), put16(b, 4), zeros(b, 4);
  close_message(b, start);
}

class Client {
 public:
  explicit Client(std::uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) die("cannot connect");
    const int on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    Bytes hello;
    plain(hello, kHello, 1);
    plain(hello, kFeaturesRequest, 2);
    run(hello, kFeaturesReply, 2);
  }
  ~Client() { ::close(fd_); }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  // Sends `out` while reading, until the message `type` with `xid` has come in.
  void run(std::span<const std::uint8_t> out, Type type, std::uint32_t xid) {
    bool done = false;
    while (!done) {
      pollfd p{fd_, static_cast<short>(POLLIN | (out.empty() ? 0 : POLLOUT)), 0};
      if (::poll(&p, 1, 30000) <= 0) die("no answer within 30 s");
      if ((p.revents & POLLOUT) != 0) out = out.subspan(send_some(out));
      if ((p.revents & (POLLIN | POLLHUP | POLLERR)) != 0) done = receive(type, xid);
    }
  }

  // For what fits into the socket at once.
  void send_all(std::span<const std::uint8_t> out) {
    if (send_some(out) != out.size()) die("the switch does not take one flow");
  }
  std::uint64_t errors() const { return errors_; }
  // Entries of flow statistics so far.
  std::uint64_t entries() const { return entries_; }

 private:
  std::size_t send_some(std::span<const std::uint8_t> out) {
    const ssize_t n = ::send(fd_, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno != EAGAIN) die("the switch closed the connection");
    return n < 0 ? 0 : static_cast<std::size_t>(n);
  }

  bool receive(Type type, std::uint32_t xid) {
    std::uint8_t chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EAGAIN)) die("the switch closed the connection");
    if (n > 0) in_.insert(in_.end(), chunk, chunk + n);
    bool found = false;
    std::size_t at = 0;
    while (in_.size() - at >= 8) {
      const std::size_t len = static_cast<std::size_t>(in_[at + 2]) << 8 | in_[at + 3];
      if (len < 8) die("a message shorter than its header came in");
      if (in_.size() - at < len) break;
      found = handle(std::span(in_).subspan(at, len), type, xid) || found;
      at += len;
    }
    in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(at));
    return found;
  }

  bool handle(std::span<std::uint8_t> msg, Type type, std::uint32_t xid) {
    std::uint32_t id = 0;
    std::memcpy(&id, msg.data() + 4, 4);
    id = ntohl(id);
    if (msg[1] == kError) ++errors_;
    if (msg[1] == kEchoRequest) {
      msg[1] = kEchoReply;
      if (::send(fd_, msg.data(), msg.size(), MSG_NOSIGNAL) < 0) die("the switch closed the connection");
    }
    return msg[1] == type && id == xid && (type != kMultipartReply || last_part(msg));
  }

  bool last_part(std::span<const std::uint8_t> msg) {
    for (std::size_t at = 16; at + 2 <= msg.size(); ++entries_) {
      const std::size_t len = static_cast<std::size_t>(msg[at]) << 8 | msg[at + 1];
      if (len == 0) die("an entry without length came in");
      at += len;
    }
    return (msg[11] & 1) == 0;
  }

  int fd_ = -1;
  Bytes in_;
  std::uint64_t errors_ = 0, entries_ = 0;
};

double seconds_of(Client &client, const Bytes &out, std::uint32_t xid) {
  const auto start = Clock::now();
  client.run(out, kBarrierReply, xid);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

Bytes adds(std::uint32_t n, std::uint32_t first) {
  Bytes out;
  for (std::uint32_t i = 0; i < n; ++i) flow_mod(out, kAdd, first + i, 100 + i);
  return out;
}

void clear(Client &client) {
  Bytes out;
  delete_everything(out, 50);
  plain(out, kBarrierRequest, 51);
  client.run(out, kBarrierReply, 51);
}

Bytes churn(std::uint32_t n) {
  Bytes out;
  for (std::uint32_t i = 0; i < n; ++i) flow_mod(out, kAdd, i, 100 + i), flow_mod(out, kDeleteStrict, i, 100 + i);
  return out;
}

void print_sorted(const char *mode, std::uint32_t n, std::vector<double> values, std::uint64_t errors) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double q) {
    return values[std::min(values.size() - 1, static_cast<std::size_t>(q * static_cast<double>(values.size())))];
  };
  std::printf(
      "{\"mode\":\"%s\",\"n\":%u,\"runs\":%zu,\"min_s\":%.6f,\"median_s\":%.6f,\"p99_s\":%.6f,\"max_s\":%.6f,\"errors\":%llu}\n",
      mode, n, values.size(), values.front(), at(0.5), at(0.99), values.back(), static_cast<unsigned long long>(errors));
}

// Waits up to `most`, so that the measurement does not keep step with a period of the switch.
void pause(std::mt19937 &random, std::chrono::microseconds most) {
  std::this_thread::sleep_for(std::chrono::microseconds(random() % static_cast<std::uint64_t>(most.count())));
}

void timed_rounds(Client &client, const char *mode, std::uint32_t n, int rounds) {
  std::mt19937 random(std::random_device{}());
  std::vector<double> values;
  for (int round = 0; round < rounds; ++round) {
    Bytes out = std::string_view(mode) == "churn" ? churn(n) : adds(n, 0);
    plain(out, kBarrierRequest, 60);
    clear(client);
    pause(random, std::chrono::milliseconds(100));
    values.push_back(seconds_of(client, out, 60));
  }
  clear(client);
  print_sorted(mode, n, values, client.errors());
}

// A channel of a Redis server.
class Channel {
 public:
  Channel(const char *socket, const char *name) : context_(redisConnectUnix(socket), redisFree) {
    if (!context_ || context_->err != 0) die("cannot connect to the Redis server");
    redisAppendCommand(context_.get(), "SUBSCRIBE %s", name);
    wait();
  }
  void wait() {
    void *message = nullptr;
    if (redisGetReply(context_.get(), &message) != REDIS_OK) die("the Redis server closed the connection");
    freeReplyObject(message);
  }

 private:
  std::unique_ptr<redisContext, decltype(&redisFree)> context_;
};

void latency(Client &client, std::uint32_t samples, Channel *begin) {
  std::mt19937 random(1);
  std::vector<double> values;
  for (std::uint32_t i = 0; i < samples; ++i) {
    pause(random, std::chrono::milliseconds(100));
    Bytes out = adds(1, i);
    plain(out, kBarrierRequest, 60);
    if (begin != nullptr) {
      client.send_all(out);
      begin->wait();
      out.clear();
    }
    values.push_back(seconds_of(client, out, 60));
  }
  clear(client);
  print_sorted("latency", 1, values, client.errors());
}

void statistics(Client &client, std::uint32_t n, int samples) {
  std::mt19937 random(1);
  std::vector<double> values;
  Bytes fill = adds(n, 0);
  plain(fill, kBarrierRequest, 60);
  clear(client);
  client.run(fill, kBarrierReply, 60);
  Bytes request;
  const std::size_t start = open_message(request, kMultipartRequest, 61);
  put16(request, 1), zeros(request, 6), put8(request, 0xff), zeros(request, 3), put32(request, ~0U), put32(request, ~0U);
  zeros(request, 20), put16(request, 1), put16(request, 4), zeros(request, 4);
  close_message(request, start);
  for (int i = 0; i < samples; ++i) {
    pause(random, std::chrono::milliseconds(100));
    const std::uint64_t before = client.entries();
    const auto begun = Clock::now();
    client.run(request, kMultipartReply, 61);
    values.push_back(std::chrono::duration<double>(Clock::now() - begun).count());
    if (client.entries() - before != n) die("the statistics are not those of all flows");
  }
  clear(client);
  print_sorted("stats", n, values, client.errors());
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 4) die("usage: of_load PORT burst|churn|latency|fill|stats N [ROUNDS]");
  Client client(static_cast<std::uint16_t>(std::atoi(argv[1])));
  const std::string_view mode = argv[2];
  const auto n = static_cast<std::uint32_t>(std::atoi(argv[3]));
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 5;
  if (mode == "burst" || mode == "churn") {
    timed_rounds(client, argv[2], n, rounds);
  } else if (mode == "latency") {
    std::unique_ptr<Channel> begin;
    if (argc > 5) begin = std::make_unique<Channel>(argv[4], argv[5]);
    latency(client, n, begin.get());
  } else if (mode == "fill") {
    Bytes out = adds(n, 0);
    plain(out, kBarrierRequest, 60);
    print_sorted("fill", n, {seconds_of(client, out, 60)}, client.errors());
  } else if (mode == "stats") {
    statistics(client, n, argc > 4 ? rounds : 100);
  } else {
    die("the mode is burst, churn, latency, fill or stats");
  }
  return client.errors() == 0 ? 0 : 1;
}
