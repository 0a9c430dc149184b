#include "host/of_ss/net/lookup.h"

#include <errno.h>
#include <fmt/format.h>
#include <pthread.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <system_error>
#include <thread>
#include <utility>

namespace host::of_ss {

std::string find_addresses(const std::string &host, const std::string &port, int flags, Addresses &found) {
  addrinfo hints{}, *list = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  const int rv = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  found.reset(rv == 0 ? list : nullptr);
  if (rv == 0) return "";
  return fmt::format("the host has no address: {}", rv == EAI_SYSTEM ? strerror(errno) : gai_strerror(rv));
}

// Shared by the look-up and its thread; the last of the two releases it. The thread writes until `there` is set; then `fd`
// becomes readable.
struct Lookup::Shared {
  Shared(std::string h, std::string p) : host(std::move(h)), port(std::move(p)) {}
  ~Shared() { close(fd); }
  Shared(const Shared &) = delete;
  Shared &operator=(const Shared &) = delete;

  const std::string host, port;
  const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  std::string error;
  Addresses found;
  std::atomic<bool> there{false};
};

Lookup::Lookup(event_base *base, const std::string &host, const std::string &port, std::function<void()> done)
    : shared_(std::make_shared<Shared>(host, port)), done_(std::move(done)) {
  const auto answered = [](evutil_socket_t, short, void *self) { static_cast<Lookup *>(self)->answered(); };
  event_.reset(event_new(base, shared_->fd, EV_READ, answered, this));
  if (shared_->fd >= 0)
    start();
  else
    fail("no file descriptor is left");
}

void Lookup::start() {
  event_add(event_.get(), nullptr);
  try {
    std::thread([shared = shared_] {
      pthread_setname_np(pthread_self(), "name look-up");
      shared->error = find_addresses(shared->host, shared->port, 0, shared->found);
      shared->there.store(true, std::memory_order_release);
      eventfd_write(shared->fd, 1);
    }).detach();
  } catch (const std::system_error &e) {
    fail(e.what());
  }
}

// The look-up may be destroyed inside the call.
void Lookup::answered() {
  if (shared_->there.load(std::memory_order_acquire)) std::exchange(done_, nullptr)();
}

void Lookup::fail(const std::string &why) {
  shared_->error = "the host's name cannot be looked up: " + why;
  shared_->there = true;
  event_active(event_.get(), 0, 0);
}

Lookup::~Lookup() = default;

const std::string &Lookup::error() const {
  return shared_->error;
}

const addrinfo *Lookup::addresses() const {
  return shared_->found.get();
}

}  // namespace host::of_ss
