// The directory of a BPF file system that keeps a plane while no service runs; one process at a time owns it.
//
// It holds up to two planes: the one in force, and the next one until that is filled. Threads: one at a time.
#pragma once

#include <memory>
#include <string>

#include "programmer/linux/descriptor.h"

namespace programmer::dataplane {

class Pins {
 public:
  static constexpr char kInForce[] = "plane", kNext[] = "next";

  struct Refusal {
    bool taken = false;  // by another process
    std::string why;
  };

  // Opens the directory of `installation`, any text that distinguishes planes, below `root`; both are created if missing. Null,
  // with the reason, if another process owns it or no such directory is possible here.
  static std::unique_ptr<Pins> open(const std::string &root, const std::string &installation, Refusal &refusal);

  const std::string &directory() const { return directory_; }

  // A descriptor of the map or program of that name; empty if it does not exist.
  Descriptor get(const char *plane, const char *name) const;
  // Pins the object, replacing one of the same name. False with errno.
  bool put(const char *plane, const char *name, int object);
  void clear(const char *plane);
  // Makes the next plane the one in force.
  void settle();
  // Removes everything with the directory, and the root if nobody else uses it. True if there was anything.
  bool remove();

 private:
  Pins(std::string directory, Descriptor lock) : directory_(std::move(directory)), lock_(std::move(lock)) {}
  std::string path(const char *plane, const std::string &name) const { return directory_ + "/" + plane + "/" + name; }

  std::string directory_;
  Descriptor lock_;
};

}  // namespace programmer::dataplane
