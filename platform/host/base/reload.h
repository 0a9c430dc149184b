// Applies a changed configuration while the process runs: at SIGHUP, or on a command. Loop's thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

struct Config;

// The outcome of one service's part: a line for operators, "" if there is nothing to report.
struct Reloaded {
  std::string text;
  bool done = true;
};

// A service that applies a reread configuration. `keys` are the keys that it applies, such as "openflow.listen"; all other keys
// keep the values of the start.
struct Reloadable {
  std::vector<std::string_view> keys;
  std::function<Reloaded(const Config &fresh)> take;
};

// Registers a service until the runtime is released; services are called in the order of registration.
void at_reload(Reloadable service);

// Rereads the configuration and passes it to every service. The outcome is logged and returned in `lines`: the services' lines,
// and the changed keys that take effect only at the next start. 0; -4 for an invalid configuration, which changes nothing; -1
// when a service could not apply its part.
int reload(std::vector<std::string> *lines = nullptr);

}  // namespace host
