#include "host/of_ss/net/transport.h"

#include <event2/bufferevent_ssl.h>
#include <event2/util.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "host/tls/tls.h"

namespace host::of_ss {
namespace {

bool same_host(const sockaddr &a, const sockaddr &b) {
  if (a.sa_family != b.sa_family) return false;
  if (a.sa_family == AF_INET)
    return reinterpret_cast<const sockaddr_in &>(a).sin_addr.s_addr == reinterpret_cast<const sockaddr_in &>(b).sin_addr.s_addr;
  const auto &host_of = [](const sockaddr &s) -> const in6_addr & { return reinterpret_cast<const sockaddr_in6 &>(s).sin6_addr; };
  return a.sa_family == AF_INET6 && std::memcmp(&host_of(a), &host_of(b), sizeof(in6_addr)) == 0;
}

}  // namespace

std::string failure_text(bufferevent *bev) {
  const int system = EVUTIL_SOCKET_ERROR();
  const unsigned long code = bufferevent_get_openssl_error(bev);
  if (code == 0) return system ? evutil_socket_error_to_string(system) : "closed by the peer";
  return tls::failure_text(code, bufferevent_openssl_get_ssl(bev));
}

std::uint32_t local_interface(evutil_socket_t fd) {
  sockaddr_storage own{};
  socklen_t length = sizeof own;
  ifaddrs *all = nullptr;
  if (getsockname(fd, reinterpret_cast<sockaddr *>(&own), &length) != 0 || getifaddrs(&all) != 0) return 0;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(all, freeifaddrs);
  for (const ifaddrs *at = all; at; at = at->ifa_next)
    if (at->ifa_addr && same_host(*at->ifa_addr, reinterpret_cast<const sockaddr &>(own))) return if_nametoindex(at->ifa_name);
  return 0;
}

}  // namespace host::of_ss
