// The metrics of the agent and of the audit. Loop's thread; the agent's part is written on the openflow thread.
#pragma once

namespace host::of_ss {

class Agent;
class Audit;

// Both functions are called at each use and may return null.
void register_metrics(Agent *(*agent)(), const Audit *(*audit)());

}  // namespace host::of_ss
