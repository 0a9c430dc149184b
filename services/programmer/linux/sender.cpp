#include "programmer/linux/sender.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

namespace programmer::dataplane {
namespace {

enum class Fate : std::uint8_t { sent, later, full, down, refused };

Fate fate_of(int error) {
  if (error == EAGAIN || error == EINTR) return Fate::later;
  if (error == ENOBUFS || error == ENOMEM) return Fate::full;
  return error == ENETDOWN || error == ENXIO || error == ENODEV ? Fate::down : Fate::refused;
}

Fate put(int fd, std::uint32_t interface, Bytes frame) {
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_protocol = htons(dp_be16(&frame[12]));
  to.sll_ifindex = static_cast<int>(interface);
  const auto *address = reinterpret_cast<const sockaddr *>(&to);
  return ::sendto(fd, frame.data(), frame.size(), MSG_DONTWAIT, address, sizeof to) >= 0 ? Fate::sent : fate_of(errno);
}

}  // namespace

Sender::~Sender() {
  if (fd_ >= 0) ::close(fd_);
}

// The socket has no protocol, so that it receives nothing.
bool Sender::open(std::string &why) {
  fd_ = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
  if (fd_ < 0) why = std::string("packets cannot be sent: ") + std::strerror(errno);
  return fd_ >= 0;
}

// Sets the same priority that the program gives a packet for set_queue.
void Sender::choose_queue(std::uint32_t queue) {
  if (queue == queue_) return;
  const std::uint32_t priority = queue == 0 ? 0 : 1U << 16 | queue;
  setsockopt(fd_, SOL_SOCKET, SO_PRIORITY, &priority, sizeof priority);
  queue_ = queue;
}

// False if the frame must wait.
bool Sender::try_to_send(std::uint32_t place, Bytes frame, std::uint32_t queue) {
  const std::uint32_t interface = std::atomic_ref(const_cast<__u32 &>(ports_[place].ifindex)).load(std::memory_order_acquire);
  choose_queue(queue);
  Counts &counts = counts_[place];
  const Fate fate = interface == 0 ? Fate::down : frame.size() < kEthLen ? Fate::refused : put(fd_, interface, frame);
  if (fate == Fate::later) return false;
  constexpr std::uint64_t Counts::*kCounts[] = {&Counts::sent, nullptr, &Counts::full, &Counts::down, &Counts::refused};
  ++(counts.*kCounts[static_cast<std::size_t>(fate)]);
  return true;
}

void Sender::send(std::uint32_t place, Bytes frame, std::uint32_t queue) {
  if (waiting_.empty() && try_to_send(place, frame, queue)) return;
  if (waiting_.size() < kWaiting)
    waiting_.push_back({place, queue, {frame.begin(), frame.end()}});
  else
    ++counts_[place].full;
}

void Sender::send_waiting() {
  while (!waiting_.empty() && try_to_send(waiting_.front().place, waiting_.front().frame, waiting_.front().queue))
    waiting_.pop_front();
}

}  // namespace programmer::dataplane
