// Where a plane is kept while no service runs: a directory of a BPF file system, which one process at a time has.
//
// Below it are two planes: the one in force, and the next one until it is filled. Threads: one at a time.
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

  // The directory for `installation`, which is any text that tells planes apart, below `root`; both are made where they are not
  // there. Null, with the reason: another process has it, or there can be none here.
  static std::unique_ptr<Pins> open(const std::string &root, const std::string &installation, Refusal &refusal);

  const std::string &directory() const { return directory_; }

  // A descriptor of the map or program of that name; none when it is not there.
  Descriptor get(const char *plane, const char *name) const;
  // Pins it, in the place of one that has the name. False with errno.
  bool put(const char *plane, const char *name, int object);
  void clear(const char *plane);
  // The next plane is the one in force.
  void settle();
  // Takes everything out, the directory as well, and the root that nobody else uses. Whether there was anything.
  bool remove();

 private:
  Pins(std::string directory, Descriptor lock) : directory_(std::move(directory)), lock_(std::move(lock)) {}
  std::string path(const char *plane, const std::string &name) const { return directory_ + "/" + plane + "/" + name; }

  std::string directory_;
  Descriptor lock_;
};

}  // namespace programmer::dataplane
