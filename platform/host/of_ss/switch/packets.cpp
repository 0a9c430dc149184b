#include "host/of_ss/switch/packets.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>

#include "host/log/log.h"
#include "host/of_ss/net/reply.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/wire/oxm.h"

namespace host::of_ss {
namespace {

using packet::Kind, packet::Taken;

constexpr int kNobody = -1;
constexpr int kMessagesAtATime = 32;             // from the data plane, before other work continues
constexpr std::size_t kUnsentBound = 256 << 10;  // bytes unread by a controller above which it gets no packets
constexpr std::uint16_t kOxmMatch = 1, kMatchLen = 12;

// A listening socket that only this user can connect to, replacing one left by an earlier process. Negative with errno.
int listening_socket(const std::string &path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof address.sun_path) return errno = ENAMETOOLONG, -1;
  path.copy(address.sun_path, path.size());
  packet::Descriptor fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ::unlink(path.c_str());
  const bool listens = fd.is_open() && ::fchmod(fd.get(), 0600) == 0 &&
                       ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                       ::listen(fd.get(), 4) == 0;
  return listens ? fd.release() : -1;
}

}  // namespace

template <void (Packets::*Handler)()>
EventOwner Packets::watch(int fd) {
  EventOwner made = make_event<Handler>(base_, *this, fd, EV_READ | EV_PERSIST);
  event_add(made.get(), nullptr);
  return made;
}

Packets::~Packets() {
  if (listener_.is_open()) ::unlink(path_.c_str());
}

// ---- the connection to the data plane

void Packets::open(const std::string &run_dir) {
  path_ = packet::socket_path(run_dir);
  buffer_.resize(packet::kMaxMessage);
  listen();
}

void Packets::listen() {
  listener_watch_.reset();
  listener_.reset(listening_socket(path_));
  if (listener_.is_open()) {
    failure_.clear();
    listener_watch_ = watch<&Packets::accept>(listener_.get());
  } else if (const std::string why = strerror(errno); std::exchange(failure_, why) != why) {
    log::error("{}: {}: no packets to or from controllers", path_, why);
  }
}

void Packets::look_after_socket() {
  if (!path_.empty() && (!listener_.is_open() || ::access(path_.c_str(), F_OK) != 0)) listen();
}

void Packets::accept() {
  packet::Descriptor fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd.is_open() && errno != EAGAIN && errno != ECONNABORTED) {  // out of descriptors: retried later
    listener_watch_.reset();
    listener_.reset();
  }
  if (!fd.is_open() || !packet::is_trusted(fd.get())) return;
  hang_up();
  if (packet::put(fd.get(), {.kind = Kind::hello, .flag = wanted_, .number = packet::kVersion}) != 0) return;
  plane_.reset(fd.release());
  plane_watch_ = watch<&Packets::take>(plane_.get());
}

void Packets::hang_up() {
  plane_watch_.reset();
  plane_.reset();
  greeted_ = false;
  ports_.clear();
  statistics_ = {};
}

void Packets::take() {
  for (int n = 0; n < kMessagesAtATime && plane_.is_open(); ++n) {
    packet::Head head;
    Bytes actions, frame;
    const Taken taken = packet::take(plane_.get(), buffer_, head, actions, frame);
    if (taken == Taken::nothing) return;
    if (taken == Taken::gone || !handle(head, frame)) hang_up();
  }
}

// False for messages that a data plane must not send.
bool Packets::handle(const packet::Head &head, Bytes frame) {
  if (!greeted_) {
    greeted_ = head.kind == Kind::hello && head.number == packet::kVersion;
    if (!greeted_)
      log::error("a programming service speaks version {} of the packet path, this process {}", head.number, packet::kVersion);
    return greeted_;
  }
  const bool is_packet = head.kind == Kind::in && head.reason <= SS_PKT_ACTION;
  if (is_packet) deliver(head, frame.first(std::min<std::size_t>(frame.size(), SS_PKT_FRAME_MAX)));
  if (head.kind == Kind::counts) keep(frame);
  if (head.kind == Kind::statistics) statistics_.take(frame);
  return is_packet || head.kind == Kind::counts || head.kind == Kind::statistics;
}

void Packets::keep(Bytes counts) {
  for (ss_pkt_counts one; counts.size() >= sizeof one; counts = counts.subspan(sizeof one)) {
    memcpy(&one, counts.data(), sizeof one);
    if (ports_.size() < packet::kMaxReported || ports_.contains(one.port)) ports_[one.port] = one;
  }
}

void Packets::want(bool wanted) {
  if (std::exchange(wanted_, wanted) == wanted || !plane_.is_open()) return;
  // Without room for this message the plane would miss it; after a reconnect the greeting repeats it.
  if (packet::put(plane_.get(), {.kind = Kind::wanted, .flag = wanted}) != 0) hang_up();
}

// ---- to the controllers

// OFPT_PACKET_IN (7.4.1). Nothing is buffered, so the packet is whole, whatever max_len says.
void Packets::deliver(const packet::Head &head, Bytes frame) {
  Reply reply(scratch_, kPacketIn, 0);
  reply.out.u32(kNoBuffer);
  reply.out.u16(static_cast<std::uint16_t>(frame.size()));
  reply.out.u8(head.reason);
  reply.out.u8(head.table);
  reply.out.u64(head.cookie);
  reply.out.u16(kOxmMatch);
  reply.out.u16(kMatchLen);
  reply.out.u32(oxm_header(oxm_field(kOxmInPort), false));
  reply.out.u32(head.number);
  reply.out.zeros(4 + 2);
  reply.out.bytes(frame);
  ++counters_.in;
  bool anybody = false;
  controllers_.for_each_listener(Async::packet_in, head.reason, [&, bytes = reply.finish()](Connection &connection) {
    anybody = true;
    const bool reads = connection.unsent() + bytes.size() <= kUnsentBound;
    ++(reads ? counters_.in_sent : counters_.in_dropped);
    ++(reads ? connection.session().packets_in : connection.session().packets_lost);
    if (reads) connection.send(bytes);
  });
  if (!anybody) ++counters_.in_unwanted;
}

// ---- from the controllers

Verdict Packets::send(Connection &from, std::uint32_t in_port, Bytes actions, Bytes frame) {
  const packet::Head head{.kind = Kind::out,
                          .number = in_port,
                          .actions = static_cast<std::uint32_t>(actions.size()),
                          .frame = static_cast<std::uint32_t>(frame.size())};
  const int rv = greeted_ ? packet::put(plane_.get(), head, actions, frame) : kNobody;
  if (rv == kNobody) {
    ++counters_.out_refused;
    return refuse(err::kRequestEperm, "packet_out",
                  "there is no data plane that sends packets (programmer.target linux has one)");
  }
  ++(rv == 0 ? counters_.out : counters_.out_full);
  if (rv == 0) ++from.session().packets_out;
  return {};
}

}  // namespace host::of_ss
