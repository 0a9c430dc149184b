// The queues of ports: the classes 1:QUEUE of an HTB qdisc, to which set_queue directs packets (docs/dataplane.md). Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "libss_pkt.h"

namespace programmer::dataplane {

// Appends a row for each queue of the interface, which is this port; none without such a qdisc.
void tell_queues(std::uint32_t interface, std::uint32_t port, std::vector<ss_pkt_statistic> &statistics);

}  // namespace programmer::dataplane
