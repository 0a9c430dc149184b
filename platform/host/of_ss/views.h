// The agent's views for kelimctl, such as "flows", "controllers", "meters", "groups", "refusals" and its part of "status", and
// its health checks. Loop's thread; the data are collected on the openflow thread.
#pragma once

namespace host::of_ss {

class Agent;

// Registers the views; `agent` is called at each use and may return null.
void register_views(Agent *(*agent)());

}  // namespace host::of_ss
