// Puts frames on the wire, out of the ports. One thread's.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>

#include "programmer/linux/frame.h"

namespace programmer::dataplane {

class Sender {
 public:
  static constexpr std::size_t kWaiting = 256;  // frames that wait for an interface

  // What has become of the frames of one port.
  struct Counts {
    std::uint64_t sent = 0, full = 0, down = 0, refused = 0;
  };

  // `ports` are those of the plane, DP_MAX_PORTS; what changes in them is seen.
  explicit Sender(const dp_port *ports) : ports_(ports) {}
  ~Sender();
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;

  // False with one line when this process may not.
  bool open(std::string &why);

  // Out of the port at that place, in queue `queue`, 0 for none. What the kernel does not take now waits, and with more waiting
  // it is dropped.
  void send(std::uint32_t place, Bytes frame, std::uint32_t queue);

  // While frames wait, whoever sees that fd() can be written to calls send_waiting().
  bool has_waiting() const { return !waiting_.empty(); }
  int fd() const { return fd_; }
  void send_waiting();

  const Counts &counts(std::uint32_t place) const { return counts_[place]; }

 private:
  struct Waiting {
    std::uint32_t place, queue;
    Frame frame;
  };
  bool try_to_send(std::uint32_t place, Bytes frame, std::uint32_t queue);
  void choose_queue(std::uint32_t queue);

  const dp_port *ports_;
  int fd_ = -1;
  std::uint32_t queue_ = 0;  // that the socket sends to
  std::deque<Waiting> waiting_;
  std::array<Counts, DP_MAX_PORTS> counts_{};
};

}  // namespace programmer::dataplane
