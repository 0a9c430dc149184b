#include "programmer/linux/ports.h"

#include <bpf/libbpf.h>
#include <errno.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <utility>

#include "programmer/linux/interface.h"

namespace programmer::dataplane {
namespace {

// Where the program stands among the filters of an interface; those of other people keep their places.
constexpr std::uint32_t kHandle = 1, kPriority = 0x4b45;

bpf_tc_hook ingress_of(std::uint32_t interface) {
  return {.sz = sizeof(bpf_tc_hook), .ifindex = static_cast<int>(interface), .attach_point = BPF_TC_INGRESS, .parent = 0};
}

// 0, or a negative errno.
int attach(std::uint32_t interface, int program) {
  bpf_tc_hook hook = ingress_of(interface);
  if (const int rv = bpf_tc_hook_create(&hook); rv != 0 && rv != -EEXIST) return rv;
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.prog_fd = program;
  options.flags = BPF_TC_F_REPLACE;
  options.handle = kHandle;
  options.priority = kPriority;
  return bpf_tc_attach(&hook, &options);
}

void detach(std::uint32_t interface) {
  const bpf_tc_hook hook = ingress_of(interface);
  bpf_tc_opts options{};
  options.sz = sizeof options;
  options.handle = kHandle;
  options.priority = kPriority;
  bpf_tc_detach(&hook, &options);
}

}  // namespace

Ports::Ports(const Context &context, Plane &plane, std::vector<PortName> names)
    : context_(context), plane_(plane), names_(std::move(names)) {
  for (std::uint32_t place = 0; place < names_.size(); ++place) plane_.ports()[place].number = names_[place].number;
}

std::unique_ptr<Ports> Ports::open(const Context &context, Plane &plane, std::vector<PortName> names, std::string &why) {
  if (names.empty() || names.size() > DP_MAX_PORTS) {
    why =
        "it needs 1 to " + std::to_string(int{DP_MAX_PORTS}) + " ports, the configuration names " + std::to_string(names.size());
    return nullptr;
  }
  std::unique_ptr<Ports> ports(new Ports(context, plane, std::move(names)));
  if (!ports->claim(why) || !ports->listen(why)) return nullptr;
  for (std::uint32_t place = 0; place < ports->names_.size(); ++place)
    if (!ports->follow(place, why)) return nullptr;
  ports->thread_ = std::thread(&Ports::run, ports.get());
  return ports;
}

Ports::~Ports() {
  if (thread_.joinable()) {
    eventfd_write(end_, 1);
    thread_.join();
  }
  claims_.push_back(notices_);
  claims_.push_back(end_);
  for (const int fd : claims_)
    if (fd >= 0) ::close(fd);
}

std::uint32_t Ports::place_of(std::uint32_t number) const {
  const auto found = std::ranges::find(names_, number, &PortName::number);
  return found == names_.end() ? kNone : static_cast<std::uint32_t>(found - names_.begin());
}

std::uint32_t Ports::present() const {
  std::uint32_t count = 0;
  for (std::uint32_t place = 0; place < names_.size(); ++place)
    count += std::atomic_ref(plane_.ports()[place].ifindex).load(std::memory_order_relaxed) != 0 ? 1 : 0;
  return count;
}

// A name of this network namespace that one process at a time can have, and has until it ends, for each interface.
bool Ports::claim(std::string &why) {
  for (const PortName &port : names_) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    claims_.push_back(fd);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "kelim-port-" + port.interface;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr *>(&address), length) != 0) {
      why = "interface " + port.interface + ": " +
            (errno == EADDRINUSE ? "another process has it as a port" : std::strerror(errno));
      return false;
    }
  }
  return true;
}

// ---- following the kernel

bool Ports::listen(std::string &why) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK;
  notices_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  end_ = ::eventfd(0, EFD_CLOEXEC);
  const bool bound =
      notices_ >= 0 && end_ >= 0 && ::bind(notices_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  if (!bound) why = std::string("changes of interfaces cannot be listened to: ") + std::strerror(errno);
  return bound;
}

void Ports::run() {
  pollfd waits[] = {{notices_, POLLIN, 0}, {end_, POLLIN, 0}};
  char bytes[8192];
  while (true) {
    if (::poll(waits, std::size(waits), -1) < 0 && errno != EINTR) return;
    if (waits[1].revents != 0) return;
    while (::recv(notices_, bytes, sizeof bytes, 0) > 0 || errno == ENOBUFS) errno = 0;
    follow();
  }
}

void Ports::follow() {
  for (std::uint32_t place = 0; place < names_.size(); ++place) {
    std::string why;
    if (!follow(place, why)) PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "%s", why.c_str());
  }
}

// Brings one port to what the kernel has under its name now.
bool Ports::follow(std::uint32_t place, std::string &why) {
  const std::uint32_t now = if_nametoindex(names_[place].interface.c_str());
  const std::uint32_t before = plane_.ports()[place].ifindex;
  if (now == before) return true;
  if (before != 0) leave(before, place);
  return now == 0 || take(now, place, why);
}

bool Ports::take(std::uint32_t interface, std::uint32_t place, std::string &why) {
  const std::string &name = names_[place].interface;
  int error = 0;
  keep_whole(name);
  if (!make_promiscuous(name) || !plane_.set_port(interface, place)) {
    error = errno;
  } else {
    error = -attach(interface, plane_.program());
  }
  if (error == ENODEV) return true;  // gone meanwhile
  if (error != 0) {
    plane_.forget_port(interface);
    why = "interface " + name + " cannot be taken as a port: " + std::strerror(error);
    return false;
  }
  std::atomic_ref(plane_.ports()[place].ifindex).store(interface, std::memory_order_release);
  if (!silence(name)) PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "interface %s goes on speaking IPv6 of its own", name.c_str());
  PROGRAMMER_LOG(context_, QX_ZLOG_VERBOSE, "port %u is interface %s", names_[place].number, name.c_str());
  if (has_address(name)) {
    PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "interface %s has addresses, whose packets are now up to the flows", name.c_str());
  }
  return true;
}

void Ports::leave(std::uint32_t interface, std::uint32_t place) {
  std::atomic_ref(plane_.ports()[place].ifindex).store(0, std::memory_order_release);
  plane_.forget_port(interface);
  detach(interface);
  PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "port %u has lost its interface %s", names_[place].number,
                 names_[place].interface.c_str());
}

}  // namespace programmer::dataplane
