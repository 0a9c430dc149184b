// Shows the trace (trace.h) of one flow or request. Events are ordered and put into words here, only on request.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "host/of_ss/desired/trace.h"

namespace host::of_ss {

class Agent;

// The subject of a query; a plain number stands for the flow with that index, and for each request with that cookie or
// transaction id.
struct TraceQuestion {
  std::optional<std::uint64_t> index, cookie, xid;
  std::size_t limit;  // maximum number of events of one story
};
// {"number": "17"}, {"index": "17"}, {"cookie": "0x17"} or {"xid": "17"}; with {"limit": 1000}. Throws control::Refusal.
TraceQuestion trace_question(const nlohmann::json &args);

// The events of both threads, with the data needed to put them into words.
struct TraceSnapshot {
  std::vector<TraceEvent> requests, records;  // of the openflow thread; of the loop's
  std::uint64_t newest_index = 0;
  std::map<std::uint32_t, std::string> controllers;  // addresses by number, for those in the events
  std::int64_t since_ns = 0;                         // earlier events are forgotten; 0: none are
};
// Openflow thread, while the loop's thread waits.
TraceSnapshot trace_snapshot(const Agent &agent);

nlohmann::json trace_view(const TraceQuestion &question, TraceSnapshot &snapshot);

}  // namespace host::of_ss
