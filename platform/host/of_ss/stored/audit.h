// The audit: compares the requested state with the database, every few seconds and when an operator asks.
//
// A look (look.h) that ends while a request is in flight is inconclusive. A difference counts when two consecutive looks have
// found it. If configured, it is repaired by a synchronisation, which hands everything to the daemon again and drops the rest.
// Unrequested stored meters are deleted. Loop's thread.
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
  // `agent` must outlive the audit.
  Audit(qx_global *global, Agent &agent, const Options &options);

  // Starts a comparison now and runs it as fast as the loop allows; speeds up a running one. view() shows when it has ended.
  void ask();
  // For tests: finishes the running comparison, or runs a whole one, before it returns. True if it and the previous one were
  // undisturbed, so that differences() is reliable.
  bool look();
  const std::vector<Difference> &differences() const { return confirmed_; }
  // The latest findings, in full and as a summary.
  nlohmann::json view() const;
  nlohmann::json summary() const;
  struct Counts {
    std::uint64_t looks = 0, found = 0, repairs = 0;  // undisturbed looks, differences and repairs so far
  };
  const Counts &counts() const { return counts_; }

 private:
  void turn();
  void end(bool undisturbed);
  void note(std::vector<Difference> confirmed);

  qx_global *global_;
  Agent &agent_;
  const Options options_;
  std::unique_ptr<Look> look_;                // in progress
  bool hurried_ = false;                      // a caller waits for it, or for its beginning
  std::chrono::nanoseconds cost_{0};          // processor time spent on it so far
  bool undisturbed_ = false;                  // of the last look
  bool settled_ = false;                      // the look before was undisturbed too
  std::vector<Difference> last_, confirmed_;  // ascending
  Counts counts_;
  clock::Time looked_{};  // the last undisturbed look
  Timer timer_;
};

// "flow 17 is not stored"
std::string text(const Difference &difference);

}  // namespace host::of_ss
