#include "programmer/linux/interface.h"

#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <fstream>

namespace programmer::dataplane {
namespace {

ifreq request_for(const std::string &name) {
  ifreq request{};
  name.copy(request.ifr_name, IFNAMSIZ - 1);
  return request;
}

bool ask(unsigned long what, ifreq &request) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool done = ::ioctl(fd, what, &request) == 0;
  const int error = errno;
  ::close(fd);
  errno = error;
  return done;
}

std::string speech_of(const std::string &name) {
  return "/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6";
}

}  // namespace

bool make_promiscuous(const std::string &name, bool promiscuous) {
  ifreq request = request_for(name);
  if (!ask(SIOCGIFFLAGS, request)) return false;
  const int others = request.ifr_flags & ~IFF_PROMISC;
  request.ifr_flags = static_cast<short>(promiscuous ? others | IFF_PROMISC : others);
  return ask(SIOCSIFFLAGS, request);
}

void keep_whole(const std::string &name) {
  ethtool_value value{ETHTOOL_GFLAGS, 0};
  ifreq request = request_for(name);
  request.ifr_data = reinterpret_cast<char *>(&value);
  if (!ask(SIOCETHTOOL, request) || (value.data & ETH_FLAG_LRO) == 0) return;
  value = {ETHTOOL_SFLAGS, value.data & ~std::uint32_t{ETH_FLAG_LRO}};
  ask(SIOCETHTOOL, request);
}

bool silence(const std::string &name) {
  if (::access("/proc/sys/net/ipv6", F_OK) != 0) return true;  // a kernel without IPv6
  std::ofstream setting(speech_of(name));
  setting << 1 << std::flush;
  return setting.good();
}

void give_back(const std::string &name) {
  make_promiscuous(name, false);
  std::string usual;
  if (std::ifstream(speech_of("default")) >> usual) std::ofstream(speech_of(name)) << usual;
}

bool has_address(const std::string &name) {
  ifaddrs *all = nullptr;
  if (getifaddrs(&all) != 0) return false;
  bool found = false;
  for (const ifaddrs *at = all; at && !found; at = at->ifa_next) {
    if (!at->ifa_addr || name != at->ifa_name) continue;
    const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(at->ifa_addr);
    found = at->ifa_addr->sa_family == AF_INET || (at->ifa_addr->sa_family == AF_INET6 && !IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr));
  }
  freeifaddrs(all);
  return found;
}

}  // namespace programmer::dataplane
