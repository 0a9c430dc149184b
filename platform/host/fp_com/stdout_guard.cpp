#include "host/fp_com/stdout_guard.h"

#include <errno.h>
#include <event2/buffer.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

#include "host/base/mutex.h"
#include "host/log/log.h"

namespace host {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostUnread = 4 << 20;  // bytes; a dump of 30,000 flows
constexpr int kPipeSize = 1 << 20;            // bytes that can be printed before the thread runs
constexpr auto kLastWait = 1s;

bool can_block(int fd) {
  struct stat s, null;
  if (fstat(fd, &s) != 0 || S_ISREG(s.st_mode)) return false;
  return stat("/dev/null", &null) != 0 || !S_ISCHR(s.st_mode) || s.st_rdev != null.st_rdev;
}

// A non-blocking descriptor for the target of descriptor 1. The flag belongs to the open file, which other processes may share,
// so the file is opened again; a socket cannot be, but has a flag per call.
int own_way_out() {
  const int fd = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  return fd >= 0 ? fd : fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

class Guard {
 public:
  Guard(int before, int out, const int (&pipe)[2]) : before_(before), out_(out), in_(pipe[0]), buffer_(evbuffer_new()) {
    fflush(stdout);
    dup2(pipe[1], STDOUT_FILENO);
    close(pipe[1]);
    if (isatty(before) != 0) setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    sigset_t all, kept;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &kept);
    std::thread thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &kept, nullptr);
    pthread_setname_np(thread.native_handle(), "kelim_stdout");
    thread.detach();
  }
  Guard(const Guard &) = delete;
  Guard &operator=(const Guard &) = delete;

  // Restores descriptor 1, or points it to /dev/null if nobody reads there: the process is about to end.
  void end() {
    if (getpid() != pid_) return;  // a child without the thread
    fflush(stdout);
    Lock lock(mutex_);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);  // the thread sees the end of the pipe
    if (lock.wait_for(ended_changed_, kLastWait, [this]() KELIM_REQUIRES(mutex_) { return ended_; }))
      dup2(before_, STDOUT_FILENO);
    close(nowhere);
  }

 private:
  std::size_t unread() const { return evbuffer_get_length(buffer_); }

  void run() {
    bool open = true;
    while (open || unread() > 0) {
      // Idle ends are left out, because a pipe without readers would report that continuously.
      pollfd ends[] = {{open ? in_ : -1, POLLIN, 0}, {unread() > 0 ? out_ : -1, POLLOUT, 0}};
      if (poll(ends, 2, -1) < 0 && errno != EINTR) break;
      if (ends[0].revents != 0) open = take();
      if (ends[1].revents != 0) give();
      tell_dropped();
    }
    const Lock lock(mutex_);
    ended_ = true;
    ended_changed_.notify_all();
  }

  // False at the end of the pipe.
  bool take() {
    char bytes[65536];
    const ssize_t n = read(in_, bytes, sizeof bytes);
    if (n <= 0) return n < 0 && (errno == EINTR || errno == EAGAIN);
    const auto got = static_cast<std::size_t>(n);
    if (unread() + got <= kMostUnread && dropped_ == 0) {
      evbuffer_add(buffer_, bytes, got);
      return true;
    }
    if (dropped_ == 0) log::warn("standard output is not read: output is dropped until it is");
    dropped_ += got;
    return true;
  }

  void give() {
    evbuffer_iovec part;
    evbuffer_peek(buffer_, -1, nullptr, &part, 1);
    ssize_t n = send(out_, part.iov_base, part.iov_len, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = write(out_, part.iov_base, part.iov_len);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    // Without a reader, everything counts as read.
    evbuffer_drain(buffer_, n < 0 ? unread() : static_cast<std::size_t>(n));
  }

  void tell_dropped() {
    if (dropped_ == 0 || unread() > kMostUnread / 2) return;
    const std::string text = "\n[" + std::to_string(std::exchange(dropped_, 0)) + " bytes dropped: nobody read them]\n";
    evbuffer_add(buffer_, text.data(), text.size());
  }

  const pid_t pid_ = getpid();
  const int before_, out_, in_;
  evbuffer *buffer_;  // used by the thread only, like the count
  std::size_t dropped_ = 0;
  Mutex mutex_;
  std::condition_variable ended_changed_;
  bool ended_ KELIM_GUARDED_BY(mutex_) = false;
};

// Never destroyed: threads may print until the process is gone.
Guard *g_guard = nullptr;

}  // namespace

void guard_stdout() {
  int pipe[2];
  if (g_guard || !can_block(STDOUT_FILENO) || pipe2(pipe, O_CLOEXEC) != 0) return;
  fcntl(pipe[1], F_SETPIPE_SZ, kPipeSize);
  g_guard = new Guard(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), own_way_out(), pipe);
  std::atexit([] { g_guard->end(); });
}

}  // namespace host
