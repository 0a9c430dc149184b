#include "host/control/capture.h"

#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace host::control {
namespace {

constexpr std::size_t kLongest = 64 << 20;

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

std::string read_all(int fd, std::size_t limit) {
  std::string text(std::min(static_cast<std::size_t>(std::max<off_t>(lseek(fd, 0, SEEK_END), 0)), limit), '\0');
  std::size_t got = 0;
  while (got < text.size()) {
    const ssize_t n = pread(fd, text.data() + got, text.size() - got, static_cast<off_t>(got));
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  text.resize(got);
  return text;
}

void write_all(int fd, const std::string &text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

// A file in memory replaces descriptor 1 meanwhile: unlike a pipe it holds a dump of any size without a reader.
Captured capture_stdout(const std::function<void()> &print) {
  const Fd file(memfd_create("kelim_output", MFD_CLOEXEC));
  fflush(stdout);
  const Fd before(dup(STDOUT_FILENO));
  if (file.get() < 0 || dup2(file.get(), STDOUT_FILENO) < 0) {
    print();
    return {};
  }
  print();
  fflush(stdout);
  if (before.get() >= 0) {
    dup2(before.get(), STDOUT_FILENO);
  } else {
    close(STDOUT_FILENO);
  }
  Captured captured{.text = read_all(file.get(), kLongest)};
  captured.cut = captured.text.size() == kLongest;
  write_all(STDOUT_FILENO, captured.text);
  return captured;
}

}  // namespace host::control
