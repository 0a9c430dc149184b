// Sends frames out of the ports. One thread only.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>

#include "programmer/linux/frame.h"

namespace programmer::dataplane {

class Sender {
 public:
  static constexpr std::size_t kWaiting = 256;  // most frames that wait for interfaces

  // The outcomes of one port's frames.
  struct Counts {
    std::uint64_t sent = 0, full = 0, down = 0, refused = 0;
  };

  // `ports` are the plane's DP_MAX_PORTS, read at each frame, and must outlive the sender.
  explicit Sender(const dp_port *ports) : ports_(ports) {}
  ~Sender();
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;

  // False, with one line in `why`, if this process may not send raw frames.
  bool open(std::string &why);

  // Sends out of the port at `place`, in queue `queue`; 0: none. A frame that the kernel does not accept now waits, or is dropped
  // if kWaiting frames wait already.
  void send(std::uint32_t place, Bytes frame, std::uint32_t queue);

  // To be called when fd() is writable while frames wait.
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
  std::uint32_t queue_ = 0;  // the socket's current queue
  std::deque<Waiting> waiting_;
  std::array<Counts, DP_MAX_PORTS> counts_{};
};

}  // namespace programmer::dataplane
