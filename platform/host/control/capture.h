// What a function prints on standard output, for a caller that wants to read it.
#pragma once

#include <functional>
#include <string>

namespace host::control {

struct Captured {
  std::string text;
  bool cut = false;  // it was longer than the limit of 64 MiB
};

// Runs `print` and gives what reached standard output meanwhile, which goes to standard output as well. What other threads print
// at that time is part of it. Loop's thread.
Captured capture_stdout(const std::function<void()> &print);

}  // namespace host::control
