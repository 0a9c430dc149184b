// What kelimctl shows of the agent: "flows", "controllers", "meters", "refusals" and its part of "status"; and whether it works.
// Loop's thread; the data is collected on the openflow thread.
#pragma once

namespace host::of_ss {

class Agent;

// Registers the views; `agent` is asked at each use and may be null.
void register_views(Agent *(*agent)());

}  // namespace host::of_ss
