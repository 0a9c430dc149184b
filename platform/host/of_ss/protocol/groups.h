// Groups: OFPT_GROUP_MOD (OpenFlow 1.3.5, 7.3.4.3) and the multipart replies about them (7.3.5.9 to 7.3.5.11). Openflow thread.
#pragma once

#include "host/of_ss/net/connection.h"
#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

Verdict change_groups(Switch &sw, Connection &connection, Bytes message);

Verdict group_stats(Switch &sw, Connection &connection, Bytes request);
Verdict group_desc(Switch &sw, Connection &connection, Bytes request);
Verdict group_features(Switch &sw, Connection &connection, Bytes request);

}  // namespace host::of_ss
