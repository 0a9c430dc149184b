// The object database: in the daemon, reached over its control socket, or in a Redis server that kelimctl talks to itself.
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

  // What the daemon's own client of the database counts; null when no daemon answers.
  virtual Json client() = 0;

  // Gives every change to `each` until that returns false or the user interrupts; first {"live": ...} when it begins.
  using Each = std::function<bool(const Json &line)>;
  virtual void watch(const Json &args, const Each &each) = 0;
};

// The Redis server that the loaded configuration names, else the daemon's.
std::unique_ptr<Database> open_database(Link &link);

}  // namespace kelimctl
