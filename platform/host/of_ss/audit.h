// Compares what controllers asked for with what the database holds of it: every few seconds, and when an operator asks.
//
// A look at a moment when something is under way says nothing. A difference counts when two looks in a row have found it. It is
// repaired, where that is configured, by a synchronisation: the daemon hears of everything again and forgets the rest. Stored
// meters that nobody asked for are deleted.
//
// Loop's thread; the comparison itself runs on the openflow thread, for which the loop waits.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "host/of_ss/agent.h"
#include "host/runtime/timer.h"
#include "qx_runtime.h"

namespace host::of_ss {

struct Difference {
  enum What : std::uint8_t {
    flow_not_stored,
    flow_stored_otherwise,
    flow_not_confirmed,
    flow_not_asked_for,
    meter_not_stored,
    meter_stored_otherwise,
    meter_failed,
    meter_not_asked_for,
    flow_left_in_target,
  };
  What what;
  std::uint64_t number;  // index of the flow, or number of the meter
  auto operator<=>(const Difference &) const = default;
};

class Audit {
 public:
  struct Options {
    std::chrono::seconds interval;  // 0: only when asked
    bool repair;
  };
  // `agent` outlives the audit.
  Audit(qx_global *global, Agent &agent, const Options &options);

  // One look. Whether it and the one before were undisturbed, so that differences() is the truth.
  bool look();
  const std::vector<Difference> &differences() const { return confirmed_; }
  // A look and what is known after it, for kelimctl.
  nlohmann::json view();
  // What is known, without another look.
  nlohmann::json summary() const;
  struct Counts {
    std::uint64_t looks = 0, found = 0, repairs = 0;  // undisturbed looks; differences, repairs so far
  };
  const Counts &counts() const { return counts_; }

 private:
  bool compare(std::vector<Difference> &found);
  void note(std::vector<Difference> confirmed);
  void repeat();

  qx_global *global_;
  Agent &agent_;
  const Options options_;
  bool undisturbed_ = false;                  // the last look was
  std::vector<Difference> last_, confirmed_;  // ascending
  Counts counts_;
  clock::Time looked_{};  // the last undisturbed look
  Timer timer_;
};

// "flow 17 is not stored"
std::string text(const Difference &difference);

}  // namespace host::of_ss
