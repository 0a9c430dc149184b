// The messages of the packet path (libss_pkt.h), which is a socket in the run directory: the OpenFlow agent listens, a
// programming service connects. One message is one datagram in the machine's byte order: head, actions, frame. Any thread.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "libss_pkt.h"

namespace host::packet {

inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::size_t kMaxActions = 1024;  // bytes; the agent's longest list
inline constexpr std::size_t kMaxReported = 300;  // ports

enum class Kind : std::uint8_t {
  hello = 1,  // both ways, first: `number` is the version; in the agent's, `flag` means that packets are wanted
  wanted,     // from the agent: `flag`
  in,         // from the service: `number` is the packet's port; frame
  out,        // from the agent: `number` is the in_port; actions, frame
  counts,     // from the service: the frame is an array of ss_pkt_counts
  statistics  // from the service: the frame is an array of ss_pkt_statistic
};

struct Head {
  Kind kind{};
  std::uint8_t flag = 0;
  std::uint8_t table = 0;
  std::uint8_t reason = 0;
  std::uint32_t number = 0;
  std::uint64_t cookie = 0;
  std::uint32_t actions = 0;  // bytes
  std::uint32_t frame = 0;    // bytes
};
static_assert(sizeof(Head) == 24);
inline constexpr std::size_t kMaxMessage = sizeof(Head) + kMaxActions + SS_PKT_FRAME_MAX;
static_assert(kMaxReported * sizeof(ss_pkt_counts) <= SS_PKT_FRAME_MAX);
static_assert(SS_PKT_STATISTICS_MAX * sizeof(ss_pkt_statistic) <= SS_PKT_FRAME_MAX);

using Bytes = std::span<const std::byte>;

// Sends one datagram without waiting: 0; -14 when there is no room, -1 when the other end is gone.
int put(int socket, const Head &head, Bytes actions = {}, Bytes frame = {});

// Receives the next datagram into `buffer`, of kMaxMessage bytes. `gone` also means that the other end sent an invalid message.
enum class Taken : std::uint8_t { nothing, message, gone };
Taken take(int socket, std::span<std::byte> buffer, Head &head, Bytes &actions, Bytes &frame);

// True if the other end is a process of this user or of root.
bool is_trusted(int socket);

std::string socket_path(const std::string &run_dir);

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  int release() { return std::exchange(fd_, -1); }
  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }

 private:
  int fd_;
};

}  // namespace host::packet
