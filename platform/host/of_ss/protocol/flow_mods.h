// Carries out an OFPT_FLOW_MOD (OpenFlow 1.3.5, 7.3.4.1) from a controller or a bundle. Openflow thread.
#pragma once

#include "host/of_ss/switch/switch.h"

namespace host::of_ss {

Verdict carry_out_flow_mod(Switch &sw, const Origin &origin, Bytes message);

}  // namespace host::of_ss
