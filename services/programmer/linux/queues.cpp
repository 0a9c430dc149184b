#include "programmer/linux/queues.h"

#include <linux/gen_stats.h>
#include <linux/pkt_sched.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "programmer/linux/netlink.h"

namespace programmer::dataplane {
namespace {

constexpr std::uint32_t kQdisc = 1;  // the handle 1:

template <typename T>
T payload_of(const rtattr &attribute) {
  T value{};
  std::memcpy(&value, RTA_DATA(&attribute), std::min<std::size_t>(sizeof value, RTA_PAYLOAD(&attribute)));
  return value;
}

bool is_htb(const rtattr &kind) {
  const auto *text = static_cast<const char *>(RTA_DATA(&kind));
  return std::string_view(text, strnlen(text, RTA_PAYLOAD(&kind))) == "htb";
}

void read_counts(const rtattr &one, ss_pkt_statistic &row) {
  if (one.rta_type == TCA_STATS_BASIC) {
    const auto basic = payload_of<gnet_stats_basic>(one);
    row.bytes = basic.bytes;
    row.packets = std::max<std::uint64_t>(row.packets, basic.packets);
  }
  if (one.rta_type == TCA_STATS_PKT64) row.packets = payload_of<std::uint64_t>(one);  // only once 32 bits are not enough
  if (one.rta_type == TCA_STATS_QUEUE) row.other = payload_of<gnet_stats_queue>(one).drops;
}

}  // namespace

void tell_queues(std::uint32_t interface, std::uint32_t port, std::vector<ss_pkt_statistic> &statistics) {
  tcmsg about{};
  about.tcm_ifindex = static_cast<int>(interface);
  netlink::dump(netlink::open(), RTM_GETTCLASS, RTM_NEWTCLASS, about, [&](const nlmsghdr &message) {
    const auto *one = static_cast<const tcmsg *>(NLMSG_DATA(&message));
    ss_pkt_statistic row{SS_PKT_QUEUE, port, TC_H_MIN(one->tcm_handle), 0, 0, 0, 0};
    bool htb = false;
    netlink::for_each(TCA_RTA(one), TCA_PAYLOAD(&message), [&](const rtattr &attribute) {
      if (attribute.rta_type == TCA_KIND) htb = is_htb(attribute);
      if (attribute.rta_type == TCA_STATS2) netlink::for_each_nested(attribute, [&](const rtattr &n) { read_counts(n, row); });
    });
    if (htb && TC_H_MAJ(one->tcm_handle) >> 16 == kQdisc) statistics.push_back(row);
  });
}

}  // namespace programmer::dataplane
