#include "host/of_ss/protocol/flow_mods.h"

namespace host::of_ss {

Verdict carry_out_flow_mod(Switch &sw, const Origin &origin, Bytes message) {
  FlowMod &mod = sw.flow_mod;
  if (const Verdict verdict = decode_flow_mod(message, sw.terms(), mod); verdict.refused()) return verdict;
  const auto meter = southbound::get<std::uint32_t>(mod.message, southbound::kFlowMeterId);
  if (meter && !mod.deletes() && !sw.meters.knows(meter))
    return refuse(err::kUnknownMeter, "meter", "there is no meter with this number");
  return sw.flows.apply(mod, origin, message, sw.now());
}

}  // namespace host::of_ss
