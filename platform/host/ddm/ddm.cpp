#include "host/ddm/ports.h"

#include <ifaddrs.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/log/log.h"
#include "host/runtime/loop.h"
#include "host/runtime/services.h"
#include "host/runtime/timer_queue.h"
#include "libddm.h"
#include "lsm_if.h"

namespace host::ddm {
namespace {

// ---- what the machine has

Port from_machine(const ifaddrs &entry) {
  sockaddr_ll link;
  std::memcpy(&link, entry.ifa_addr, sizeof link);
  const auto ifx = static_cast<std::uint32_t>(link.sll_ifindex);
  Port port{.ifx = ifx,
            .name = entry.ifa_name,
            .phyid = ifx,
            .type = LSM_IF_TYPE_ETHERNET,
            .mac = {},
            .up = (entry.ifa_flags & IFF_UP) != 0};
  if (link.sll_halen == port.mac.size()) std::copy_n(link.sll_addr, port.mac.size(), port.mac.begin());
  return port;
}

// One entry an interface: the one that carries its link-layer address.
Ports machine_ports() {
  Ports ports;
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return ports;
  for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET) ports.push_back(from_machine(*entry));
  }
  freeifaddrs(list);
  return ports;
}

// ---- what is configured

Port from_config(const ConfigPort &configured, const Ports &machine) {
  const auto ifx = configured.ifx;
  const auto byte = [ifx](unsigned shift) { return static_cast<std::uint8_t>(ifx >> shift); };
  Port port{.ifx = ifx,
            .name = configured.name,
            .phyid = configured.phyid,
            .type = configured.type,
            .mac = {0x02, 0x00, byte(24), byte(16), byte(8), byte(0)},
            .up = true};
  const auto real = std::find_if(machine.begin(), machine.end(), [&](const Port &p) { return p.name == configured.name; });
  if (real != machine.end()) {
    port.mac = real->mac;
    port.up = real->up;
  }
  return port;
}

Ports read_ports() {
  Ports ports = machine_ports();
  if (!config().ports.empty()) {
    const Ports machine = std::exchange(ports, {});
    for (const ConfigPort &configured : config().ports) ports.push_back(from_config(configured, machine));
  }
  std::sort(ports.begin(), ports.end(), [](const Port &a, const Port &b) { return a.ifx < b.ifx; });
  return ports;
}

// ---- the table in force

std::mutex g_mutex;  // of g_ports
std::shared_ptr<const Ports> g_ports;
std::atomic<bool> g_watched{false};  // whether changes are noticed; the table is read anew for every question otherwise

void look_again() {
  std::lock_guard lock(g_mutex);
  g_ports.reset();
}

// ---- notice of changes

struct Watch {
  explicit Watch(int netlink) : fd(netlink) {}
  ~Watch() {
    g_watched = false;
    look_again();
    changed.reset();
    ::close(fd);
  }
  Watch(const Watch &) = delete;
  Watch &operator=(const Watch &) = delete;

  int fd;
  EventPtr changed;
};

std::unique_ptr<Watch> g_watch;

void drain(evutil_socket_t fd, short, void *) {
  char bytes[8192];
  while (recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0 || errno == ENOBUFS) {
    errno = 0;
  }
  look_again();
}

bool watch_links() {
  auto watch = std::make_unique<Watch>(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK;
  if (bind(watch->fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return false;
  watch->changed.reset(event_new(loop_base(), watch->fd, EV_READ | EV_PERSIST, drain, nullptr));
  if (!watch->changed || event_add(watch->changed.get(), nullptr) != 0) return false;
  g_watch = std::move(watch);
  g_watched = true;
  return true;
}

const Port *find(const Ports &ports, std::uint32_t ifx) {
  const auto it = std::lower_bound(ports.begin(), ports.end(), ifx, [](const Port &p, std::uint32_t i) { return p.ifx < i; });
  return it != ports.end() && it->ifx == ifx ? &*it : nullptr;
}

}  // namespace

std::shared_ptr<const Ports> ports() {
  std::lock_guard lock(g_mutex);
  if (g_ports) return g_ports;
  auto fresh = std::make_shared<const Ports>(read_ports());
  if (g_watched) g_ports = fresh;
  return fresh;
}

}  // namespace host::ddm

extern "C" {

int libddm_init(qx_global *global, const char *name) {
  using namespace host;
  if (global == nullptr || name == nullptr) return -4;
  if (const int rv = fault::check(fault::Point::ddm_init)) return rv;
  if (ddm::g_watch) return 0;
  if (!ddm::watch_links()) log::warn("changes of interfaces go unnoticed, every question reads them anew: {}", strerror(errno));
  at_finish([] { ddm::g_watch.reset(); });
  return 0;
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid) {
  if (phyid == nullptr) return -4;
  if (const int rv = host::fault::check(host::fault::Point::ddm_phyid)) return rv;
  const auto ports = host::ddm::ports();
  const auto *port = host::ddm::find(*ports, ifx);
  if (port == nullptr) return -7;
  *phyid = port->phyid;
  return 0;
}

uint32_t lsm_if_get_type(uint32_t ifx) {
  const auto ports = host::ddm::ports();
  const auto *port = host::ddm::find(*ports, ifx);
  return port == nullptr ? static_cast<uint32_t>(LSM_IF_TYPE_ETHERNET) : port->type;
}
}
