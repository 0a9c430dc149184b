#include "programmer/linux/pins.h"

#include <bpf/bpf.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace programmer::dataplane {
namespace {

namespace fs = std::filesystem;

// A file name for an installation, which may be a path; a BPF file system does not allow dots in names.
std::string name_of(const std::string &installation) {
  std::string name;
  for (const char c : installation.substr(std::min(installation.size(), installation.find_first_not_of('/')))) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "_%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    name += plain ? std::string(1, c) : c == '/' ? "-" : escaped;
  }
  return name;
}

bool is_for_pins(const std::string &directory) {
  struct statfs about {};
  return statfs(directory.c_str(), &about) == 0 && about.f_type == BPF_FS_MAGIC;
}

bool make(const std::string &directory) {
  return ::mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST;
}

}  // namespace

std::unique_ptr<Pins> Pins::open(const std::string &root, const std::string &installation, Refusal &refusal) {
  const std::string directory = root + "/" + name_of(installation);
  std::error_code ignored;
  if (!is_for_pins(fs::exists(root, ignored) ? root : fs::path(root).parent_path().string())) {
    refusal.why = root + " is in no BPF file system that can be reached (mount -t bpf)";
    return nullptr;
  }
  Descriptor lock(make(root) && make(directory) ? ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
  if (lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return std::unique_ptr<Pins>(new Pins(directory, std::move(lock)));
  refusal.taken = lock && errno == EWOULDBLOCK;
  refusal.why = directory + (refusal.taken ? ": another process has this plane" : std::string(": ") + std::strerror(errno));
  return nullptr;
}

Descriptor Pins::get(const char *plane, const char *name) const {
  return Descriptor(bpf_obj_get(path(plane, name).c_str()));
}

bool Pins::put(const char *plane, const char *name, int object) {
  const std::string at = path(plane, name), beside = at + "-new";
  ::unlink(beside.c_str());
  return make(directory_ + "/" + plane) && bpf_obj_pin(object, beside.c_str()) == 0 &&
         std::rename(beside.c_str(), at.c_str()) == 0;
}

void Pins::clear(const char *plane) {
  std::error_code ignored;
  fs::remove_all(directory_ + "/" + plane, ignored);
}

void Pins::settle() {
  clear(kInForce);
  std::rename((directory_ + "/" + kNext).c_str(), (directory_ + "/" + kInForce).c_str());
}

bool Pins::remove() {
  std::error_code ignored;
  const bool held = !fs::is_empty(directory_, ignored);
  fs::remove_all(directory_, ignored);
  fs::remove(fs::path(directory_).parent_path(), ignored);
  return held;
}

}  // namespace programmer::dataplane
