// The object database: in the daemon, reached over its control socket, or in a Redis server that kelimctl connects to directly.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kelimctl/link.h"

namespace kelimctl {

class Database {
 public:
  virtual ~Database() = default;

  // "op" and its arguments (host/mom/views.h).
  virtual Json query(const Json &args) = 0;

  // Counters of the daemon's own database client; null when no daemon answers.
  virtual Json client() = 0;

  // Passes every change to `each` until that returns false or the user interrupts; {"live": ...} comes first, when the watch
  // begins.
  using Each = std::function<bool(const Json &line)>;
  virtual void watch(const Json &args, const Each &each) = 0;
};

// The Redis server that the loaded configuration names, else the daemon's database.
std::unique_ptr<Database> open_database(Link &link);

}  // namespace kelimctl
