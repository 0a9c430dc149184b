// What the trace (trace.h) tells of one flow or request. Times are put in order and words are found here, when somebody asks.
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

// What is asked for: of one number each flow with that index, and each request with that cookie or transaction id.
struct TraceQuestion {
  std::optional<std::uint64_t> index, cookie, xid;
  std::size_t limit;  // events of one story
};
// {"number": "17"}, {"index": "17"}, {"cookie": "0x17"} or {"xid": "17"}; with {"limit": 1000}. Throws control::Refusal.
TraceQuestion trace_question(const nlohmann::json &args);

// The events of both threads, and what is needed to put them into words.
struct TraceSnapshot {
  std::vector<TraceEvent> requests, records;  // of the openflow thread, of the loop's
  std::uint64_t newest_index = 0;
  std::map<std::uint32_t, std::string> controllers;  // addresses by number, of those in the events
  std::int64_t since_ns = 0;                         // what happened before is forgotten; 0: nothing is
};
// Openflow thread, while the loop's waits.
TraceSnapshot trace_snapshot(const Agent &agent);

nlohmann::json trace_view(const TraceQuestion &question, TraceSnapshot &snapshot);

}  // namespace host::of_ss
