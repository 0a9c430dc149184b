// A programming service's end of the packet path: retries to connect to the agent's socket, and hands messages over without
// waiting.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>

#include <memory>
#include <new>
#include <vector>

#include "host/config/config.h"
#include "host/log/log.h"
#include "host/packet/message.h"

namespace packet = host::packet;
using packet::Bytes, packet::Head, packet::Kind, packet::Taken;

namespace {

constexpr timespec kAtOnce{.tv_sec = 0, .tv_nsec = 1}, kBetweenCalls{.tv_sec = 0, .tv_nsec = 200'000'000};
constexpr int kMessagesAtATime = 64;
constexpr int kNobody = -1, kBad = -4;

Bytes bytes_of(const void *at, std::size_t length) {
  return {static_cast<const std::byte *>(at), length};
}

}  // namespace

struct ss_pkt_path {
 public:
  explicit ss_pkt_path(const ss_pkt_user &user)
      : user_(user),
        epoll_(epoll_create1(EPOLL_CLOEXEC)),
        timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
        buffer_(packet::kMaxMessage) {}

  bool start() { return epoll_.is_open() && timer_.is_open() && watch(timer_.get()) && call_again(kAtOnce, kBetweenCalls); }
  int fd() const { return epoll_.get(); }
  void work();
  int send(const Head &head, Bytes body);
  template <typename Row>
  int report(Kind kind, std::span<const Row> rows) {
    return send({.kind = kind, .frame = static_cast<std::uint32_t>(rows.size_bytes())}, std::as_bytes(rows));
  }

 private:
  bool watch(int fd) {
    epoll_event event{.events = EPOLLIN, .data = {.fd = fd}};
    return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
  }
  bool call_again(const timespec &first, const timespec &interval) {
    const itimerspec times{.it_interval = interval, .it_value = first};
    return timerfd_settime(timer_.get(), 0, &times, nullptr) == 0;
  }
  void call();
  void hang_up();
  bool handle(const Head &head, Bytes actions, Bytes frame);
  bool greeted_by(const Head &head);

  const ss_pkt_user user_;
  packet::Descriptor epoll_, timer_, socket_;
  bool greeted_ = false;       // the other end has sent its hello
  bool told_version_ = false;  // a different version at the other end has been logged
  std::vector<std::byte> buffer_;
};

// A missing or unserved socket is tried again.
void ss_pkt_path::call() {
  const std::string path = packet::socket_path(host::config().run_dir);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof address.sun_path) return;
  path.copy(address.sun_path, path.size());
  packet::Descriptor fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return;
  if (!packet::is_trusted(fd.get()) || packet::put(fd.get(), {.kind = Kind::hello, .number = packet::kVersion}) != 0) return;
  if (!watch(fd.get())) return;
  socket_.reset(fd.release());
  call_again({}, {});
}

void ss_pkt_path::hang_up() {
  socket_.reset();
  call_again(kBetweenCalls, kBetweenCalls);
  if (std::exchange(greeted_, false)) user_.wanted(user_.arg, 0);
}

bool ss_pkt_path::greeted_by(const Head &head) {
  greeted_ = head.kind == Kind::hello && head.number == packet::kVersion;
  if (greeted_) {
    user_.wanted(user_.arg, head.flag);
  } else if (!std::exchange(told_version_, true)) {
    host::log::error("the OpenFlow service library speaks version {} of the packet path, this process {}: no packets",
                     head.number, packet::kVersion);
  }
  return greeted_;
}

// False for messages that the other end must not send.
bool ss_pkt_path::handle(const Head &head, Bytes actions, Bytes frame) {
  if (!greeted_) return greeted_by(head);
  if (head.kind == Kind::wanted) user_.wanted(user_.arg, head.flag);
  if (head.kind == Kind::out) {
    const ss_pkt_out out{head.number, head.actions, actions.data(), frame.data(), head.frame};
    user_.out(user_.arg, &out);
  }
  return head.kind == Kind::wanted || head.kind == Kind::out;
}

void ss_pkt_path::work() {
  std::uint64_t times;
  if (::read(timer_.get(), &times, sizeof times) == sizeof times && !socket_.is_open()) call();
  for (int n = 0; n < kMessagesAtATime && socket_.is_open(); ++n) {
    Head head;
    Bytes actions, frame;
    const Taken taken = packet::take(socket_.get(), buffer_, head, actions, frame);
    if (taken == Taken::nothing) return;
    if (taken == Taken::gone || !handle(head, actions, frame)) hang_up();
  }
}

int ss_pkt_path::send(const Head &head, Bytes body) {
  if (!greeted_) return kNobody;
  const int rv = packet::put(socket_.get(), head, {}, body);
  if (rv == kNobody) hang_up();
  return rv;
}

extern "C" {

ss_pkt_path *ss_pkt_path_open(qx_global *, const ss_pkt_user *user) {
  try {
    auto path = std::make_unique<ss_pkt_path>(*user);
    return path->start() ? path.release() : nullptr;
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}

void ss_pkt_path_close(ss_pkt_path *path) {
  delete path;
}

int ss_pkt_path_fd(const ss_pkt_path *path) {
  return path->fd();
}

void ss_pkt_path_work(ss_pkt_path *path) {
  path->work();
}

int ss_pkt_path_in(ss_pkt_path *path, const ss_pkt_in *about, const void *frame, std::uint32_t len) {
  if (!path || !about || !frame || len > SS_PKT_FRAME_MAX) return kBad;
  const Head head{.kind = Kind::in,
                  .table = about->table,
                  .reason = about->reason,
                  .number = about->in_port,
                  .cookie = about->cookie,
                  .frame = len};
  return path->send(head, bytes_of(frame, len));
}

int ss_pkt_path_report(ss_pkt_path *path, const ss_pkt_counts *counts, std::uint32_t ports) {
  if (!path || !counts || ports > packet::kMaxReported) return kBad;
  return path->report(Kind::counts, std::span(counts, ports));
}

int ss_pkt_path_statistics(ss_pkt_path *path, const ss_pkt_statistic *statistics, std::uint32_t number) {
  if (!path || !statistics || number > SS_PKT_STATISTICS_MAX) return kBad;
  return path->report(Kind::statistics, std::span(statistics, number));
}
}
