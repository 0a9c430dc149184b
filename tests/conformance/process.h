// The interface through which the conformance tests run on a platform's store. The platform provides one source file that defines
// the three functions and is linked with the tests and the platform (kelim_store_conformance in tests/kelim_test.cmake).
// Everything here runs on the loop's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qx_runtime.h"

namespace mom_test {

// A process with a runtime and one store, initially empty; it owns both.
class Process {
 public:
  virtual ~Process() = default;
  virtual qx_global *global() = 0;
  // Lets that much time pass for the store, if its time does not pass by itself.
  virtual void pass(std::chrono::milliseconds) {}
  // Cuts every connection of `db`, which then reconnects to the same data. False if the store has no connections to cut.
  virtual bool cut_connections(std::int32_t) { return false; }
};

// The names of the platform's stores, in letters and digits; every test runs on each.
std::vector<std::string> stores();

// At most one process lives at a time. A type with a topic refuses further writes while `topic_limit` writes have not been
// delivered to its subscribers; 0 leaves the limit to the platform.
std::unique_ptr<Process> start_process(const std::string &store, unsigned topic_limit);

// Runs the loop until `condition` holds. False after a generous time limit.
bool run_until(const std::function<bool()> &condition);

}  // namespace mom_test
