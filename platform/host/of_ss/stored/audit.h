// Compares what controllers asked for with what the database holds of it: every few seconds, and when an operator asks.
//
// A look (look.h) that ends while a request is in flight says nothing. A difference counts when two looks in a row have found it.
// It is repaired, where that is configured, by a synchronisation: the daemon hears of everything again and forgets the rest.
// Stored meters that nobody asked for are deleted. Loop's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "host/base/timer.h"
#include "host/of_ss/agent/agent.h"
#include "host/of_ss/stored/look.h"
#include "qx_runtime.h"

namespace host::of_ss {

class Audit {
 public:
  struct Options {
    std::chrono::seconds interval;  // 0: only when asked
    bool repair;
  };
  // `agent` outlives the audit.
  Audit(qx_global *global, Agent &agent, const Options &options);

  // Starts a comparison now and runs it as fast as the loop allows; speeds up one that is running. view() shows when it ends.
  void ask();
  // For tests: finishes the running comparison, or runs a whole one, before it returns. True when it and the one before were
  // undisturbed, so that differences() can be relied on.
  bool look();
  const std::vector<Difference> &differences() const { return confirmed_; }
  // The latest findings, in full and as a summary.
  nlohmann::json view() const;
  nlohmann::json summary() const;
  struct Counts {
    std::uint64_t looks = 0, found = 0, repairs = 0;  // undisturbed looks; differences, repairs so far
  };
  const Counts &counts() const { return counts_; }

 private:
  void turn();
  void end(bool undisturbed);
  void note(std::vector<Difference> confirmed);

  qx_global *global_;
  Agent &agent_;
  const Options options_;
  std::unique_ptr<Look> look_;                // under way
  bool hurried_ = false;                      // somebody waits for it, or for its beginning
  std::chrono::nanoseconds cost_{0};          // processor time spent on it so far
  bool undisturbed_ = false;                  // the last look was
  bool settled_ = false;                      // and so was the one before
  std::vector<Difference> last_, confirmed_;  // ascending
  Counts counts_;
  clock::Time looked_{};  // the last undisturbed look
  Timer timer_;
};

// "flow 17 is not stored"
std::string text(const Difference &difference);

}  // namespace host::of_ss
