// Captures what a function prints on standard output.
#pragma once

#include <functional>
#include <string>

namespace host::control {

struct Captured {
  std::string text;
  bool cut = false;  // the output exceeded the limit of 64 MiB
};

// Runs `print` and returns the standard output of that time, output of other threads included, which is still printed as well.
// Loop's thread.
Captured capture_stdout(const std::function<void()> &print);

}  // namespace host::control
