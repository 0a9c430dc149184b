// Sends frames of 64 bytes into a network interface as fast as it takes them, or measures the round trip of one to another
// interface and back. It knows nothing about the switch in between.
//
//   packet_load send INTERFACE SECONDS MICROFLOWS FLOWS    microflow N: nw_dst is flow N * 7919 % FLOWS, tp_src is N
//   packet_load rtt INTERFACE OTHER SAMPLES                back by the flow for 30.0.0.0/8
//
// Prints one JSON object. Needs CAP_NET_RAW. Exit status 1, with one line about the cause, when a frame cannot be sent or does
// not arrive.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Frame = std::array<std::uint8_t, 64>;

constexpr std::size_t kBatch = 64;
constexpr int kPatience = 2000;  // ms

[[noreturn]] void die(const char *what) {
  std::fprintf(stderr, "packet_load: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class Interface {
 public:
  Interface(const char *name, int protocol) : socket_(::socket(AF_PACKET, SOCK_RAW, 0)) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(static_cast<std::uint16_t>(protocol));
    address.sll_ifindex = static_cast<int>(if_nametoindex(name));
    const int one = 1;
    if (socket_ < 0 || address.sll_ifindex == 0 || ::bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        ::setsockopt(socket_, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one) != 0 ||
        ::setsockopt(socket_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one) != 0)
      die(name);
  }
  ~Interface() { ::close(socket_); }
  Interface(const Interface &) = delete;
  Interface &operator=(const Interface &) = delete;

  // Returns the number of frames sent.
  std::size_t send(mmsghdr *first, std::size_t count) const {
    const int sent = ::sendmmsg(socket_, first, static_cast<unsigned>(count), 0);
    if (sent < 0 && errno != ENOBUFS && errno != EAGAIN) die("send");
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  void send(const Frame &frame) const {
    if (::send(socket_, frame.data(), frame.size(), 0) != static_cast<ssize_t>(frame.size())) die("send");
  }
  void receive(const Frame &expected) const {
    for (Frame found{}; found != expected;) {
      pollfd readable{socket_, POLLIN, 0};
      errno = ETIMEDOUT;
      if (::poll(&readable, 1, kPatience) != 1 || ::recv(socket_, found.data(), found.size(), 0) < 0)
        die("a frame did not arrive");
    }
  }

 private:
  int socket_;
};

// A frame of UDP without checksum, from 10.0.0.1. No host has either Ethernet address, so that none answers.
Frame frame_to(std::uint32_t destination, std::uint16_t port) {
  Frame frame{0x02, 0, 0, 0, 1, 2, 0x02, 0, 0, 0, 1, 1, 0x08, 0, 0x45, 0, 0, 50, 0, 7, 0, 0, 64, 17, 0, 0, 10, 0, 0, 1};
  const std::uint32_t to = htonl(destination);
  std::memcpy(&frame[30], &to, sizeof to);
  frame[34] = static_cast<std::uint8_t>(port >> 8), frame[35] = static_cast<std::uint8_t>(port), frame[37] = 53, frame[39] = 30;
  std::uint32_t sum = 0;
  for (std::size_t i = 14; i < 34; i += 2) sum += static_cast<std::uint32_t>(frame[i] << 8 | frame[i + 1]);
  sum = (sum & 0xffff) + (sum >> 16);
  frame[24] = static_cast<std::uint8_t>(~sum >> 8), frame[25] = static_cast<std::uint8_t>(~sum);
  return frame;
}

int send_all(char **given) {
  const Interface to(given[0], 0);
  const double seconds = std::atof(given[1]);
  const auto microflows = static_cast<std::uint32_t>(std::atol(given[2])),
             flows = static_cast<std::uint32_t>(std::atol(given[3]));
  std::vector<Frame> frames;
  for (std::uint32_t n = 0; n < microflows; ++n)
    frames.push_back(
        frame_to(20U << 24 | static_cast<std::uint32_t>(std::uint64_t{n} * 7919 % flows), static_cast<std::uint16_t>(n)));
  while (frames.size() % kBatch != 0) frames.push_back(frames[frames.size() % microflows]);
  std::vector<iovec> places;
  for (Frame &frame : frames) places.push_back({frame.data(), frame.size()});
  std::vector<mmsghdr> messages(places.size());
  for (std::size_t i = 0; i < places.size(); ++i) messages[i].msg_hdr.msg_iov = &places[i], messages[i].msg_hdr.msg_iovlen = 1;
  const auto start = Clock::now();
  std::uint64_t sent = 0;
  for (std::size_t at = 0; seconds_since(start) < seconds; at = (at + kBatch) % messages.size())
    sent += to.send(&messages[at], kBatch);
  std::printf("{\"sent\":%llu,\"seconds\":%.6f}\n", static_cast<unsigned long long>(sent), seconds_since(start));
  return 0;
}

int round_trips(char **given) {
  constexpr int kAll = 0x0003;
  const Interface here(given[0], kAll), there(given[1], kAll);
  const Frame out = frame_to(20U << 24, 1), back = frame_to(30U << 24, 1);
  std::vector<double> times(static_cast<std::size_t>(std::atol(given[2])));
  for (double &time : times) {
    const auto start = Clock::now();
    here.send(out), there.receive(out);
    there.send(back), here.receive(back);
    time = 1e6 * seconds_since(start);
  }
  std::sort(times.begin(), times.end());
  std::printf("{\"p50_us\":%.2f,\"p99_us\":%.2f}\n", times[times.size() / 2], times[times.size() * 99 / 100]);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "send" && argc == 6) return send_all(argv + 2);
  if (mode == "rtt" && argc == 5) return round_trips(argv + 2);
  std::fprintf(stderr, "usage: packet_load send INTERFACE SECONDS MICROFLOWS FLOWS | rtt INTERFACE OTHER SAMPLES\n");
  return 2;
}
