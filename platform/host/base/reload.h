// A changed configuration taken over while the process runs: at SIGHUP, or when a command asks for it. Loop's thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

struct Config;

// What became of one service's part: a line for people, "" for nothing worth telling.
struct Reloaded {
  std::string text;
  bool done = true;
};

// What a service takes over from a configuration that was read anew. `keys` are the keys that it looks at, such as
// "openflow.listen"; the others stay in force as they were at the start.
struct Reloadable {
  std::vector<std::string_view> keys;
  std::function<Reloaded(const Config &fresh)> take;
};

// Registers one until the runtime is released; they are called in this order.
void at_reload(Reloadable service);

// Reads the configuration anew and hands it to every service. The outcome is logged and, in `lines`, given to the caller: what
// the services say, and the changed keys that wait for the next start. 0; -4 for a configuration with a mistake, which changes
// nothing; -1 when a service could not take over its part.
int reload(std::vector<std::string> *lines = nullptr);

}  // namespace host
