#include "host/ddm/netlink.h"

#include <errno.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

namespace host::ddm {
namespace {

using Bytes = std::span<const std::byte>;

class Socket {
 public:
  explicit Socket(std::uint32_t groups = 0, int flags = 0)
      : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE)) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    bound_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  }
  ~Socket() {
    const int error = errno;
    if (fd_ >= 0) ::close(fd_);
    errno = error;
  }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  int fd() const { return fd_; }
  bool bound() const { return bound_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
  bool bound_;
};

template <typename T>
T read(Bytes from) {
  T value{};
  std::memcpy(&value, from.data(), std::min(sizeof value, from.size()));
  return value;
}

// Calls visit(type, value) with the contents behind the `Header` of each element: messages, attributes.
template <typename Header, typename Visit>
void for_each(Bytes all, std::size_t (*length_of)(const Header &), Visit visit) {
  while (all.size() >= sizeof(Header)) {
    const auto header = read<Header>(all);
    const std::size_t length = length_of(header);
    if (length < sizeof header || length > all.size()) return;
    visit(header, all.subspan(sizeof header, length - sizeof header));
    all = all.subspan(std::min<std::size_t>(NLMSG_ALIGN(length), all.size()));
  }
}

template <typename Visit>
void for_each_message(Bytes all, Visit visit) {
  for_each<nlmsghdr>(
      all, [](const nlmsghdr &h) { return std::size_t{h.nlmsg_len}; }, visit);
}

template <typename Visit>
void for_each_attribute(Bytes all, Visit visit) {
  for_each<rtattr>(
      all, [](const rtattr &a) { return std::size_t{a.rta_len}; }, visit);
}

struct Request {
  nlmsghdr header;
  ifinfomsg link;
};

// Sends the request and calls visit(type, body) for every message of the answer. 0, or an errno.
template <typename Visit>
int ask(std::uint16_t type, std::uint16_t flags, const ifinfomsg &link, Visit visit) {
  const Socket socket;
  Request request{{sizeof request, type, static_cast<std::uint16_t>(NLM_F_REQUEST | flags), 1, 0}, link};
  if (!socket.bound() || ::send(socket.fd(), &request, sizeof request, 0) < 0) return errno;
  std::vector<std::byte> buffer(64u << 10);
  std::optional<int> result;
  while (!result) {
    const ssize_t n = ::recv(socket.fd(), buffer.data(), buffer.size(), 0);
    if (n <= 0) return n < 0 ? errno : EIO;
    for_each_message(Bytes(buffer).first(static_cast<std::size_t>(n)), [&](const nlmsghdr &header, Bytes body) {
      if (header.nlmsg_type == NLMSG_ERROR || header.nlmsg_type == NLMSG_DONE) {
        result = -read<int>(body);
      } else {
        visit(header.nlmsg_type, body);
      }
    });
  }
  return *result;
}

Counters counters_of(const rtnl_link_stats64 &s) {
  return {s.rx_packets, s.tx_packets, s.rx_bytes,        s.tx_bytes,       s.rx_dropped,    s.tx_dropped,
          s.rx_errors,  s.tx_errors,  s.rx_frame_errors, s.rx_over_errors, s.rx_crc_errors, s.collisions};
}

Interface interface_of(Bytes message) {
  const auto link = read<ifinfomsg>(message);
  Interface found{.index = static_cast<std::uint32_t>(link.ifi_index),
                  .name = {},
                  .loopback = (link.ifi_flags & IFF_LOOPBACK) != 0,
                  .enabled = (link.ifi_flags & IFF_UP) != 0};
  std::uint8_t state = IF_OPER_UNKNOWN;
  for_each_attribute(message.subspan(std::min(sizeof link, message.size())), [&](const rtattr &attribute, Bytes value) {
    const auto *text = reinterpret_cast<const char *>(value.data());
    switch (attribute.rta_type) {
      case IFLA_IFNAME:
        found.name.assign(text, ::strnlen(text, value.size()));
        break;
      case IFLA_ADDRESS:
        if (value.size() == found.mac.size()) std::memcpy(found.mac.data(), value.data(), value.size());
        break;
      case IFLA_OPERSTATE:
        state = read<std::uint8_t>(value);
        break;
      case IFLA_STATS64:
        found.counters = counters_of(read<rtnl_link_stats64>(value));
        break;
    }
  });
  found.carrier = (link.ifi_flags & IFF_LOWER_UP) != 0 && (state == IF_OPER_UP || state == IF_OPER_UNKNOWN);
  return found;
}

}  // namespace

std::optional<std::vector<Interface>> read_interfaces() {
  std::vector<Interface> all;
  const int error = ask(RTM_GETLINK, NLM_F_DUMP, {}, [&all](std::uint16_t type, Bytes message) {
    if (type == RTM_NEWLINK) all.push_back(interface_of(message));
  });
  errno = error;
  return error == 0 ? std::optional(std::move(all)) : std::nullopt;
}

int enable_interface(std::uint32_t index, bool enable) {
  ifinfomsg link{};
  link.ifi_index = static_cast<int>(index);
  link.ifi_flags = enable ? IFF_UP : 0;
  link.ifi_change = IFF_UP;
  return ask(RTM_NEWLINK, NLM_F_ACK, link, [](std::uint16_t, Bytes) {});
}

int open_link_notices() {
  Socket socket(RTMGRP_LINK, SOCK_NONBLOCK);
  return socket.bound() ? socket.release() : -1;
}

}  // namespace host::ddm
