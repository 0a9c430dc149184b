#include "host/ddm/ports.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <optional>
#include <utility>

#include "host/base/clock.h"
#include "host/base/loop.h"
#include "host/base/mutex.h"
#include "host/base/services.h"
#include "host/base/timer_queue.h"
#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/log/log.h"
#include "libddm.h"
#include "lsm_if.h"

namespace host::ddm {
namespace {

using Interfaces = std::vector<Interface>;

std::optional<Interfaces> machine() {
  auto all = read_interfaces();
  if (!all) log::error("the interfaces cannot be read: {}", strerror(errno));
  return all;
}

void show(Port &port, const Interface &real) {
  port.mac = real.mac;
  port.interface = real.index;
  port.enabled = real.enabled;
  port.has_link = real.carrier;
  port.medium = read_medium(real.name);
}

Port from_machine(const Interface &real) {
  Port port{.ifx = real.index, .name = real.name, .phyid = real.index, .type = LSM_IF_TYPE_ETHERNET};
  show(port, real);
  return port;
}

// ---- the configured ports

Port from_config(const ConfigPort &configured, const Interfaces &machine) {
  const auto ifx = configured.ifx;
  const auto byte = [ifx](unsigned shift) { return static_cast<std::uint8_t>(ifx >> shift); };
  Port port{.ifx = ifx,
            .name = configured.name,
            .phyid = configured.phyid,
            .type = configured.type,
            .mac = {0x02, 0x00, byte(24), byte(16), byte(8), byte(0)}};
  const auto real = std::ranges::find(machine, configured.name, &Interface::name);
  if (real != machine.end()) show(port, *real);
  return port;
}

std::optional<Ports> read_ports() {
  const auto interfaces = machine();
  if (!interfaces) return std::nullopt;
  Ports ports;
  for (const ConfigPort &configured : config().ports) ports.push_back(from_config(configured, *interfaces));
  for (const Interface &real : *interfaces)
    if (config().ports.empty() && !real.loopback) ports.push_back(from_machine(real));
  std::ranges::sort(ports, {}, &Port::ifx);
  return ports;
}

// ---- the current table

Mutex g_mutex;
std::shared_ptr<const Ports> g_ports KELIM_GUARDED_BY(g_mutex);
bool g_stale KELIM_GUARDED_BY(g_mutex) = true;
std::atomic<bool> g_watched{false};  // the kernel notifies changes; otherwise the table is reread for every query

void look_again() {
  const Lock lock(g_mutex);
  g_stale = true;
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
std::function<void()> g_changed;  // loop's thread

void drain(evutil_socket_t fd, short, void *) {
  char bytes[8192];
  while (recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0 || errno == ENOBUFS) {
    errno = 0;
  }
  look_again();
  if (g_changed) g_changed();
}

bool watch_links() {
  const int notices = open_link_notices();
  if (notices < 0) return false;
  auto watch = std::make_unique<Watch>(notices);
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

// ---- counters

constexpr clock::Time kCountersKept = std::chrono::milliseconds(100);

using CountersByIndex = std::map<std::uint32_t, Counters>;

Mutex g_counters_mutex;
std::shared_ptr<const CountersByIndex> g_counters KELIM_GUARDED_BY(g_counters_mutex);
clock::Time g_counters_read KELIM_GUARDED_BY(g_counters_mutex){};

// One query to the kernel returns the counters of all interfaces, so that reading port after port costs only one.
std::shared_ptr<const CountersByIndex> all_counters() {
  const Lock lock(g_counters_mutex);
  const clock::Time now = clock::now();
  if (g_counters && now - g_counters_read < kCountersKept) return g_counters;
  auto fresh = std::make_shared<CountersByIndex>();
  for (const Interface &real : machine().value_or(Interfaces{})) fresh->emplace(real.index, real.counters);
  g_counters = std::move(fresh);
  g_counters_read = now;
  return g_counters;
}

}  // namespace

// A failed read does not mean that interfaces are gone, so the latest known table stays.
std::shared_ptr<const Ports> ports() {
  const Lock lock(g_mutex);
  if (g_ports && !g_stale) return g_ports;
  if (auto fresh = read_ports()) {
    g_ports = std::make_shared<const Ports>(std::move(*fresh));
    g_stale = !g_watched;
  }
  return g_ports ? g_ports : std::make_shared<const Ports>();
}

void on_change(std::function<void()> changed) {
  g_changed = std::move(changed);
}

std::shared_ptr<const Counters> counters(const Port &port) {
  const auto all = all_counters();
  const auto found = all->find(port.interface);
  return found == all->end() ? nullptr : std::shared_ptr<const Counters>(all, &found->second);
}

int enable(const Port &port, bool enabled) {
  const int error = port.interface == 0 ? ENODEV : enable_interface(port.interface, enabled);
  look_again();
  return error;
}

}  // namespace host::ddm

extern "C" {

int libddm_init(qx_global *global, const char *name) {
  using namespace host;
  if (!global || !name) return QX_INVALID;
  if (const int rv = fault::check(fault::Point::ddm_init)) return rv;
  if (ddm::g_watch) return 0;
  if (!ddm::watch_links())
    log::warn("interface changes cannot be watched, every query rereads the interfaces: {}", strerror(errno));
  at_finish([] { ddm::g_watch.reset(); });
  return 0;
}

int libddm_get_phyid_by_ifx(std::uint32_t ifx, std::uint32_t *phyid) {
  if (!phyid) return QX_INVALID;
  if (const int rv = host::fault::check(host::fault::Point::ddm_phyid)) return rv;
  const auto ports = host::ddm::ports();
  const auto *port = host::ddm::find(*ports, ifx);
  if (!port) return QX_NOT_FOUND;
  *phyid = port->phyid;
  return 0;
}

int libddm_for_each_port(void (*visit)(void *arg, std::uint32_t ifx, const char *name), void *arg) {
  if (host::config().ports.empty()) return 0;
  for (const auto &port : *host::ddm::ports()) visit(arg, port.ifx, port.name.c_str());
  return 0;
}

std::uint32_t lsm_if_get_type(std::uint32_t ifx) {
  const auto ports = host::ddm::ports();
  const auto *port = host::ddm::find(*ports, ifx);
  return port ? port->type : static_cast<std::uint32_t>(LSM_IF_TYPE_ETHERNET);
}
}
