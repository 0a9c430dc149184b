#include "of_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace of_load {

const char *g_mode = "";

namespace {

using namespace std::chrono_literals;

enum Type : std::uint8_t {
  kHello = 0,
  kError = 1,
  kEchoRequest = 2,
  kEchoReply = 3,
  kFeaturesRequest = 5,
  kFeaturesReply = 6,
  kFlowRemoved = 11,
  kFlowMod = 14,
  kMultipartRequest = 18,
  kMultipartReply = 19,
  kBarrierRequest = 20,
  kBarrierReply = 21
};
enum Command : std::uint8_t { kAdd = 0, kDelete = 3, kDeleteStrict = 4 };
enum Statistics : std::uint16_t { kFlow = 1, kAggregate = 2 };

constexpr std::uint8_t kVersion = 4;
constexpr std::size_t kHeader = 8, kPartHeader = 16;
constexpr std::size_t kAddressAt = 75;        // of ipv4_dst in a flow-mod
constexpr std::uint32_t kNet = 0x0a000000;    // its value for flow 0
constexpr auto kLimit = 60s;                  // without any progress
constexpr auto kLimitRefused = 2s;            // the same once an error has arrived
constexpr std::size_t kSentBehind = 1 << 20;  // sent bytes that a buffer may keep
constexpr int kSends = 64;                    // system calls per turn

void put8(Bytes &b, unsigned v) {
  b.push_back(static_cast<std::uint8_t>(v));
}
void put16(Bytes &b, unsigned v) {
  put8(b, v >> 8), put8(b, v);
}
void put32(Bytes &b, std::uint32_t v) {
  put16(b, v >> 16), put16(b, v);
}
void zeros(Bytes &b, std::size_t n) {
  b.insert(b.end(), n, 0);
}
void patch16(std::uint8_t *at, std::size_t v) {
  at[0] = static_cast<std::uint8_t>(v >> 8), at[1] = static_cast<std::uint8_t>(v);
}
void patch32(std::uint8_t *at, std::uint32_t v) {
  patch16(at, v >> 16), patch16(at + 2, v);
}
std::uint16_t be16(std::span<const std::uint8_t> b, std::size_t at) {
  return static_cast<std::uint16_t>(b[at] << 8 | b[at + 1]);
}
std::uint32_t be32(std::span<const std::uint8_t> b, std::size_t at) {
  return std::uint32_t{be16(b, at)} << 16 | be16(b, at + 2);
}

void oxm(Bytes &b, unsigned field, bool mask, unsigned len) {
  put16(b, 0x8000), put8(b, field << 1 | unsigned{mask}), put8(b, len);
}

void match_of_flow_0(Bytes &b) {
  const std::size_t start = b.size();
  put16(b, 1), put16(b, 0);                            // OFPMT_OXM
  oxm(b, 0, false, 4), put32(b, 1);                    // in_port
  oxm(b, 5, false, 2), put16(b, 0x0800);               // eth_type
  oxm(b, 10, false, 1), put8(b, 6);                    // ip_proto
  oxm(b, 12, true, 8), put32(b, kNet), put32(b, ~0U);  // ipv4_dst
  oxm(b, 14, false, 2), put16(b, 80);                  // tcp_dst
  const std::size_t len = b.size() - start;
  patch16(&b[start + 2], len);
  zeros(b, (8 - len % 8) % 8);
}

void match_all(Bytes &b) {
  put16(b, 1), put16(b, 4), zeros(b, 4);
}

// The whole message, without its xid.
Bytes flow_0(Command command) {
  Bytes b;
  put8(b, kVersion), put8(b, kFlowMod), zeros(b, 6);
  zeros(b, 16), put8(b, 0), put8(b, command), put16(b, 0), put16(b, 0), put16(b, 100);
  put32(b, ~0U), put32(b, ~0U), put32(b, ~0U), put16(b, 0), put16(b, 0);
  match_of_flow_0(b);
  if (command == kAdd) {
    put16(b, 4), put16(b, 24), put32(b, 0);                                 // apply actions
    put16(b, 0), put16(b, 16), put32(b, 2), put16(b, 0xffff), zeros(b, 6);  // output
  }
  patch16(&b[2], b.size());
  return b;
}

int connected_to(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0)
    die("connecting to port %u: %s", port, std::strerror(errno));
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

// Names the common errors of flow-mods (OpenFlow 1.3.5, 7.4.4.6).
std::string name_of_error(std::uint16_t type, std::uint16_t code) {
  static constexpr const char *kFlowModFailed[] = {"UNKNOWN", "TABLE_FULL",  "BAD_TABLE_ID", "OVERLAP",
                                                   "EPERM",   "BAD_TIMEOUT", "BAD_COMMAND",  "BAD_FLAGS"};
  const bool known = type == 5 && code < std::size(kFlowModFailed);
  return "OFPT_ERROR type " + std::to_string(type) + " code " + std::to_string(code) +
         (known ? std::string(" (FLOW_MOD_FAILED, ") + kFlowModFailed[code] + ")" : "");
}

}  // namespace

void die(const char *format, ...) {
  char text[400];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::fprintf(stderr, "of_load: %s%s%s\n", g_mode, *g_mode ? ": " : "", text);
  std::_Exit(1);  // without waiting for other threads
}

Client::Client(std::uint16_t port) : fd_(connected_to(port)), add_(flow_0(kAdd)), remove_(flow_0(kDeleteStrict)) {
  end(begin(kHello));
  ask(kFeaturesRequest, kFeaturesReply);
  wait();
}

Client::~Client() {
  ::close(fd_);
}

std::size_t Client::begin(std::uint8_t type) {
  const std::size_t start = out_.size();
  put8(out_, kVersion), put8(out_, type), put16(out_, 0), put32(out_, ++xid_);
  return start;
}

void Client::end(std::size_t start) {
  patch16(&out_[start + 2], out_.size() - start);
}

void Client::ask(std::uint8_t type, std::uint8_t answer) {
  end(begin(type));
  await(answer);
}

void Client::await(std::uint8_t answer) {
  progress_ = Clock::now();
  awaited_.push_back({answer, xid_, progress_});
}

void Client::flow_mod(Bytes &pattern, std::uint32_t n) {
  patch32(&pattern[4], ++xid_);
  patch32(&pattern[kAddressAt], kNet + n);
  out_.insert(out_.end(), pattern.begin(), pattern.end());
}

void Client::add(std::uint32_t n) {
  flow_mod(add_, n);
}

void Client::remove(std::uint32_t n) {
  flow_mod(remove_, n);
}

void Client::remove_all() {
  const std::size_t start = begin(kFlowMod);
  zeros(out_, 16), put8(out_, 0xff), put8(out_, kDelete), zeros(out_, 6);
  put32(out_, ~0U), put32(out_, ~0U), put32(out_, ~0U), zeros(out_, 4);
  match_all(out_);
  end(start);
}

void Client::barrier() {
  ask(kBarrierRequest, kBarrierReply);
}

void Client::echo() {
  ask(kEchoRequest, kEchoReply);
}

void Client::ask_statistics(std::uint16_t type) {
  const std::size_t start = begin(kMultipartRequest);
  put16(out_, type), zeros(out_, 6), put8(out_, 0xff), zeros(out_, 3), put32(out_, ~0U), put32(out_, ~0U), zeros(out_, 20);
  match_all(out_);
  end(start);
  await(kMultipartReply);
  counted_ = 0;
}

std::uint64_t Client::dump() {
  ask_statistics(kFlow);
  wait();
  return counted_;
}

std::uint64_t Client::count() {
  ask_statistics(kAggregate);
  wait();
  return counted_;
}

void Client::turn() {
  const bool unsent = sent_ < out_.size();
  const Clock::duration limit = refusals_.count > 0 ? kLimitRefused : kLimit;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(progress_ + limit - Clock::now()).count();
  pollfd p{fd_, static_cast<short>(POLLIN | (unsent ? POLLOUT : 0)), 0};
  if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) die_late();
  if ((p.revents & POLLOUT) != 0) send_some();
  if ((p.revents & (POLLIN | POLLHUP | POLLERR)) != 0) receive();
}

void Client::wait() {
  progress_ = Clock::now();
  while (sent_ < out_.size() || !awaited_.empty()) turn();
}

void Client::send_all() {
  progress_ = Clock::now();
  send_some();
  if (!out_.empty()) die("the switch does not accept a few messages at once");
}

void Client::send_some() {
  for (int i = 0; i < kSends && sent_ < out_.size(); ++i) {
    const ssize_t n = ::send(fd_, out_.data() + sent_, std::min(most_, out_.size() - sent_), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == EAGAIN) break;
    if (n < 0) die("the switch closed the connection: %s", std::strerror(errno));
    sent_ += static_cast<std::size_t>(n);
    bytes_sent_ += static_cast<std::uint64_t>(n);
    progress_ = Clock::now();
  }
  if (sent_ < out_.size() && sent_ < kSentBehind) return;
  out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(sent_));
  sent_ = 0;
}

void Client::receive() {
  std::uint8_t chunk[65536];
  const ssize_t n = ::recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT);
  if (n == 0 || (n < 0 && errno != EAGAIN)) {
    check_refusals();
    die("the switch closed the connection");
  }
  if (n > 0) in_.insert(in_.end(), chunk, chunk + n);
  std::size_t at = 0;
  while (in_.size() - at >= kHeader) {
    const std::size_t len = be16(in_, at + 2);
    if (len < kHeader) die("received a message of %zu bytes", len);
    if (in_.size() - at < len) break;
    handle(std::span(in_).subspan(at, len));
    at += len;
  }
  in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(at));
}

void Client::handle(std::span<std::uint8_t> message) {
  const std::uint32_t xid = be32(message, 4);
  switch (message[1]) {
    case kError:
      return refused(message);
    case kEchoRequest:
      message[1] = kEchoReply;
      out_.insert(out_.end(), message.begin(), message.end());
      return;
    case kFlowRemoved:
      die("a flow was removed without having been deleted");
    case kMultipartReply:
      take_part(message);
      if ((be16(message, 10) & 1) != 0) return;  // more parts follow
      return answered(kMultipartReply, xid);
    case kFeaturesReply:
    case kBarrierReply:
    case kEchoReply:
      return answered(message[1], xid);
    default:
      return;
  }
}

void Client::refused(std::span<const std::uint8_t> error) {
  if (error.size() < kHeader + 4) die("received an error of %zu bytes", error.size());
  if (refusals_.count++ == 0) refusals_ = {1, be16(error, 8), be16(error, 10), be32(error, 4)};
}

void Client::take_part(std::span<const std::uint8_t> reply) {
  progress_ = Clock::now();
  if (reply.size() < kPartHeader) die("received a multipart reply of %zu bytes", reply.size());
  if (be16(reply, 8) == kAggregate && reply.size() >= kPartHeader + 20) counted_ = be32(reply, kPartHeader + 16);
  if (be16(reply, 8) != kFlow) return;
  for (std::size_t at = kPartHeader; at < reply.size(); ++counted_) {
    const std::size_t len = at + 2 <= reply.size() ? be16(reply, at) : 0;
    if (len == 0 || at + len > reply.size()) die("an entry of flow statistics has a length of %zu", len);
    at += len;
  }
}

// Answers of a type come in the order of their requests.
void Client::answered(std::uint8_t type, std::uint32_t xid) {
  const auto due = std::find_if(awaited_.begin(), awaited_.end(), [&](const Awaited &a) { return a.type == type; });
  if (due == awaited_.end()) die("unrequested answer of type %u, xid %u", type, xid);
  if (due->xid != xid) die("the answer of type %u has xid %u where %u was due", type, xid, due->xid);
  check_refusals();
  progress_ = Clock::now();
  longest_ = std::max(longest_, std::chrono::duration<double>(progress_ - due->since).count());
  awaited_.erase(due);
}

void Client::check_refusals() const {
  const Refusals &r = refusals_;
  if (r.count == 0) return;
  die("%s for xid %u, %llu errors so far", name_of_error(r.type, r.code).c_str(), r.xid,
      static_cast<unsigned long long>(r.count));
}

void Client::die_late() const {
  check_refusals();
  if (awaited_.empty()) die("the switch accepts no bytes for %lld s", static_cast<long long>(kLimit.count()));
  const Awaited &due = awaited_.front();
  die("no answer of type %u to xid %u after %.0f s, %zu answers are missing", due.type, due.xid, seconds_since(due.since),
      awaited_.size());
}

}  // namespace of_load
