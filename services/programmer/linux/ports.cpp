#include "programmer/linux/ports.h"

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
#include <span>
#include <utility>

#include "programmer/linux/filters.h"
#include "programmer/linux/interface.h"
#include "programmer/linux/queues.h"

namespace programmer::dataplane {
namespace {

constexpr int kBetweenLooksMs = 1000;  // at the queues

}  // namespace

Ports::Ports(const Context &context, Plane &plane, std::vector<PortName> names)
    : context_(context), plane_(plane), names_(std::move(names)), replaces_(plane.inherited()) {
  for (std::uint32_t place = 0; place < names_.size(); ++place) plane_.ports()[place].number = names_[place].number;
}

bool Ports::possible(const std::vector<PortName> &names, std::string &why) {
  if (!names.empty() && names.size() <= DP_MAX_PORTS) return true;
  why = "it needs 1 to " + std::to_string(int{DP_MAX_PORTS}) + " ports, the configuration names " + std::to_string(names.size());
  return false;
}

std::unique_ptr<Ports> Ports::open(const Context &context, Plane &plane, std::vector<PortName> names, std::string &why) {
  std::unique_ptr<Ports> ports(new Ports(context, plane, std::move(names)));
  for (const PortName &port : ports->names_)
    if (!claim(port, ports->claims_, why)) return nullptr;
  if (!ports->listen(why)) return nullptr;
  ports->abandon_lost();
  for (std::uint32_t place = 0; place < ports->names_.size(); ++place)
    if (!ports->begin(place, why)) return nullptr;
  ports->thread_ = std::thread(&Ports::run, ports.get());
  return ports;
}

Ports::~Ports() {
  if (thread_.joinable()) {
    eventfd_write(end_, 1);
    thread_.join();
  }
  for (const int fd : {notices_, end_})
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

// Claims the interface by an abstract socket name: one process per network namespace can hold it, and loses it when it ends.
bool Ports::claim(const PortName &port, std::vector<Descriptor> &claims, std::string &why) {
  const Descriptor &claim = claims.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = "kelim-port-" + port.interface;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (claim && ::bind(claim.get(), reinterpret_cast<const sockaddr *>(&address), length) == 0) return true;
  why = "interface " + port.interface + ": " + (errno == EADDRINUSE ? "another process uses it as a port" : std::strerror(errno));
  return false;
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
  if (!bound) why = std::string("changes of interfaces cannot be observed: ") + std::strerror(errno);
  return bound;
}

void Ports::run() {
  pollfd waits[] = {{notices_, POLLIN, 0}, {end_, POLLIN, 0}};
  char bytes[8192];
  while (true) {
    look_at_queues();
    const int ready = ::poll(waits, std::size(waits), kBetweenLooksMs);
    if ((ready < 0 && errno != EINTR) || waits[1].revents != 0) return;
    if (ready <= 0) continue;
    while (::recv(notices_, bytes, sizeof bytes, 0) > 0 || errno == ENOBUFS) errno = 0;
    follow();
  }
}

// The kernel may make the caller wait for whoever is changing interfaces, which only this thread can afford.
void Ports::look_at_queues() {
  std::vector<ss_pkt_statistic> now;
  for (std::uint32_t place = 0; place < names_.size(); ++place) {
    const std::uint32_t interface = std::atomic_ref(plane_.ports()[place].ifindex).load(std::memory_order_relaxed);
    if (interface != 0) tell_queues(interface, names_[place].number, now);
  }
  const std::lock_guard lock(looking_);
  queues_ = std::move(now);
}

std::vector<ss_pkt_statistic> Ports::queues() const {
  const std::lock_guard lock(looking_);
  return queues_;
}

// Takes the port's interface even if an earlier service has already recorded it in the map.
bool Ports::begin(std::uint32_t place, std::string &why) {
  const std::uint32_t now = if_nametoindex(names_[place].interface.c_str());
  return now == 0 || take(now, place, why);
}

void Ports::follow() {
  const std::lock_guard lock(following_);
  abandon_lost();
  for (std::uint32_t place = 0; place < names_.size(); ++place) {
    std::string why;
    if (!follow(place, why)) PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "%s", why.c_str());
  }
}

// Leaves all interfaces that no longer have their port's name before any is taken, because they may have another port's name now.
void Ports::abandon_lost() {
  for (std::uint32_t place = 0; place < names_.size(); ++place) {
    const std::uint32_t before = plane_.ports()[place].ifindex;
    if (before != 0 && before != if_nametoindex(names_[place].interface.c_str())) leave(before, place);
  }
}

// Takes the interface that now has the port's name, if any; also the same one again if it has lost the program, as it does on its
// way through another network namespace.
bool Ports::follow(std::uint32_t place, std::string &why) {
  const std::uint32_t now = if_nametoindex(names_[place].interface.c_str());
  const std::uint32_t before = plane_.ports()[place].ifindex;
  if (now == 0 || (before != 0 && now != before)) return true;  // what has changed just now has its own notice
  return (now == before && filters::program_of(now) != 0) || take(now, place, why);
}

bool Ports::take(std::uint32_t interface, std::uint32_t place, std::string &why) {
  const std::string &name = names_[place].interface;
  int error = 0;
  keep_whole(name);
  if (!make_promiscuous(name) || !plane_.set_port(interface, place)) {
    error = errno;
  } else {
    error = put_program(interface);
  }
  if (error == ENODEV) return true;  // the interface has disappeared meanwhile
  if (error != 0) {
    plane_.forget_port(interface);
    why = "interface " + name + " cannot become a port: " + std::strerror(error);
    return false;
  }
  std::atomic_ref(plane_.ports()[place].ifindex).store(interface, std::memory_order_release);
  if (!silence(name))
    PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "IPv6 cannot be disabled on interface %s, which keeps sending packets of its own",
                   name.c_str());
  PROGRAMMER_LOG(context_, QX_ZLOG_VERBOSE, "port %u is interface %s", names_[place].number, name.c_str());
  if (has_address(name)) {
    PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "interface %s has addresses; from now on the flows decide about its packets",
                   name.c_str());
  }
  name_others(name, interface);
  return true;
}

// 0, or an errno.
int Ports::put_program(std::uint32_t interface) const {
  const std::uint32_t there = filters::program_of(interface);
  if (there == plane_.program_id() || (there != 0 && !replaces_)) return 0;
  return -filters::attach(interface, plane_.program());
}

void Ports::name_others(const std::string &name, std::uint32_t interface) const {
  for (const filters::Filter &filter : filters::list(interface)) {
    if (filter.ours()) continue;
    PROGRAMMER_LOG(context_, QX_ZLOG_ERROR,
                   "interface %s has a tc filter of another program on its %s (pref %u, %s), which is left alone", name.c_str(),
                   filter.ingress ? "ingress" : "egress", filter.preference, filter.name.c_str());
  }
}

void Ports::leave(std::uint32_t interface, std::uint32_t place) {
  std::atomic_ref(plane_.ports()[place].ifindex).store(0, std::memory_order_release);
  plane_.forget_port(interface);
  release(interface);
  PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "port %u has lost its interface %s", names_[place].number,
                 names_[place].interface.c_str());
}

// ---- the end of an earlier plane

// False if the interface has no plane's program.
bool Ports::release(std::uint32_t interface) {
  char name[IF_NAMESIZE];
  if (!if_indextoname(interface, name) || filters::program_of(interface) == 0) return false;
  filters::detach(interface);
  give_back(name);
  return true;
}

bool Ports::release(const std::vector<PortName> &names, std::vector<std::uint32_t> interfaces, std::string &said) {
  std::vector<Descriptor> claims;
  std::vector<std::uint32_t> configured;
  for (const PortName &port : names) {
    if (!claim(port, claims, said)) return false;
    configured.push_back(if_nametoindex(port.interface.c_str()));
  }
  interfaces.insert(interfaces.begin(), configured.begin(), configured.end());
  for (const std::uint32_t interface : interfaces) {
    char name[IF_NAMESIZE];
    if (release(interface) && if_indextoname(interface, name))
      said += "interface " + std::string(name) + " is no longer a port\n";
  }
  return true;
}

std::vector<PlaneState::Port> Ports::state() const {
  std::vector<PlaneState::Port> state;
  for (std::uint32_t place = 0; place < names_.size(); ++place) {
    const std::uint32_t interface = std::atomic_ref(plane_.ports()[place].ifindex).load(std::memory_order_relaxed);
    PlaneState::Port port{names_[place].number, names_[place].interface, interface != 0, false, {}};
    for (const filters::Filter &filter : interface != 0 ? filters::list(interface) : std::vector<filters::Filter>()) {
      if (filter.ours())
        port.forwards = filter.program == plane_.program_id();
      else
        port.others.push_back({filter.ingress, filter.preference, filter.name});
    }
    state.push_back(std::move(port));
  }
  return state;
}

void Ports::take_over() {
  const std::lock_guard lock(following_);
  replaces_ = true;
  const std::span<const dp_port> ports(plane_.ports(), names_.size());
  for (const dp_port &port : ports) {
    const int error = port.ifindex == 0 ? 0 : put_program(port.ifindex);
    if (error != 0 && error != ENODEV)
      PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "port %u keeps an earlier program: %s", port.number, std::strerror(error));
  }
  for (const std::uint32_t interface : plane_.earlier_ports())
    if (std::ranges::find(ports, interface, &dp_port::ifindex) == ports.end()) release(interface);
}

}  // namespace programmer::dataplane
