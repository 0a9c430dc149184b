// What a platform provides so that the conformance tests run on its store: one source file that defines the three functions,
// linked with the tests and the platform (kelim_store_conformance in tests/kelim_test.cmake). Everything here runs on the loop's
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qx_runtime.h"

namespace mom_test {

// A process with a runtime and one empty store; both go with it.
class Process {
 public:
  virtual ~Process() = default;
  virtual qx_global *global() = 0;
  // Lets so much time pass for the store, where it does not pass by itself.
  virtual void pass(std::chrono::milliseconds) {}
  // Cuts every connection of `db` and lets it come back to the same data. False where there is none that could be cut.
  virtual bool cut_connections(std::int32_t) { return false; }
};

// The platform's stores, by names in letters and digits: every test runs on each.
std::vector<std::string> stores();

// One lives at a time. A type that has a topic refuses further writes while so many have not been told to its subscribers; 0
// leaves that to the platform.
std::unique_ptr<Process> start_process(const std::string &store, unsigned topic_limit);

// Runs the loop until `condition` holds. False when that takes longer than anybody would wait.
bool run_until(const std::function<bool()> &condition);

}  // namespace mom_test
