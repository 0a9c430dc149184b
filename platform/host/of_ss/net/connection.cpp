#include "host/of_ss/net/connection.h"

#include <event2/buffer.h>
#include <event2/bufferevent_ssl.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include "host/base/clock.h"
#include "host/of_ss/net/session.h"

namespace host::of_ss {
namespace {

constexpr std::size_t kInputBound = 1 << 20;      // unprocessed bytes at which reading stops
constexpr std::size_t kReadByLibevent = 4 << 10;  // at a time
constexpr std::size_t kReadAhead = 31 << 10;      // with what libevent adds, an allocation of 32 KB
constexpr std::size_t kBackedUp = 1 << 20;        // bytes unread by the peer above which it is not served
constexpr std::size_t kDrained = 256 << 10;       // below this it is served again
constexpr std::size_t kWrittenAtOnce = 16 << 10;  // more leaves room for other connections first
constexpr std::size_t kOutputBound = 32u << 20;   // above this it is closed
constexpr std::size_t kAllOutputBound = 128u << 20;
constexpr std::int64_t kHelloLimit = 10'000'000'000, kClosingLimit = 2'000'000'000;
constexpr std::uint16_t kVersionBitmap = 1;

// HELLO with header version 4 and a bitmap with version 4 alone.
constexpr std::uint8_t kHelloMessage[] = {kVersion, kHello, 0, 16, 0, 0, 0, 1, 0, kVersionBitmap, 0, 8, 0, 0, 0, 1 << kVersion};
constexpr std::uint8_t kProbe[] = {kVersion, kEchoRequest, 0, 8, 0, 0, 0, 2};

std::size_t length_of(Bytes message) {
  return be16(message, kOfLength);
}

// True if a HELLO offers our version: by its bitmap, otherwise by its header's version, which is the highest.
bool offers_our_version(Bytes hello) {
  for (std::size_t at = kOfHeader; at + 4 <= hello.size();) {
    const std::size_t length = be16(hello, at + 2);
    if (length < 4 || length > hello.size() - at) break;
    if (be16(hello, at) == kVersionBitmap && length >= 8) return be32(hello, at + 4) >> kVersion & 1;
    at += (length + 7) & ~std::size_t{7};
  }
  return be8(hello, 0) >= kVersion;
}

}  // namespace

Connection::Connection(ConnectionEvents &events, BuffereventOwner bev, Peer peer, std::uint64_t generation,
                       const ConnectionLimits &limits, std::int64_t now_ns)
    : events_(events),
      bev_(std::move(bev)),
      peer_(std::move(peer)),
      generation_(generation),
      limits_(limits),
      since_ns_(now_ns),
      heard_ns_(now_ns),
      flush_(make_event<&Connection::flush>(bufferevent_get_base(bev_.get()), *this)),
      session_(std::make_unique<Session>()) {}

Connection::~Connection() = default;

void Connection::start() {
  bufferevent_setcb(
      bev_.get(), [](bufferevent *, void *self) { static_cast<Connection *>(self)->read(); },
      [](bufferevent *, void *self) { static_cast<Connection *>(self)->written(); },
      [](bufferevent *, short what, void *self) { static_cast<Connection *>(self)->event(what); }, this);
  bufferevent_setwatermark(bev_.get(), EV_READ, 0, kInputBound);
  bufferevent_setwatermark(bev_.get(), EV_WRITE, kDrained, 0);
  const auto count = [](evbuffer *, const evbuffer_cb_info *change, void *all) {
    *static_cast<std::size_t *>(all) += change->n_added - change->n_deleted;
  };
  evbuffer_add_cb(bufferevent_get_output(bev_.get()), count, &events_.unsent_);
  send(std::as_bytes(std::span(kHelloMessage)));
  bufferevent_enable(bev_.get(), EV_READ | EV_WRITE);
}

// ---- sending

std::size_t Connection::unsent() const {
  return bev_ ? evbuffer_get_length(bufferevent_get_output(bev_.get())) : 0;
}

bool Connection::is_backed_up() const {
  return unsent() > kBackedUp;
}

void Connection::send(Bytes message) {
  if (phase_ == Phase::gone) return;
  ++traffic_.sent;
  bufferevent_write(bev_.get(), message.data(), message.size());
  if (!polled_) event_active(flush_.get(), 0, 0);  // after the callbacks of this turn that are already due
  if (unsent() > kOutputBound)
    abort("the peer does not read what it asks for");
  else if (events_.unsent_ > kAllOutputBound)
    events_.overfull();
}

void Connection::send_error(const Error &error, std::uint32_t xid, Bytes request) {
  ++traffic_.errors;
  std::byte head[kOfHeader + 8];
  const std::size_t size = sizeof head - (error.type == kExperimenterError ? 0 : sizeof error.experimenter);
  const std::size_t data = std::min(request.size(), kMaxMessage - size);
  const auto put16 = [&head](std::size_t at, std::size_t v) {
    head[at] = std::byte(v >> 8);
    head[at + 1] = std::byte(v);
  };
  head[0] = std::byte{kVersion};
  head[kOfType] = std::byte{kError};
  put16(kOfLength, size + data);
  put16(kOfXid, xid >> 16);
  put16(kOfXid + 2, xid & 0xffff);
  put16(kOfHeader, error.type);
  put16(kOfHeader + 2, error.code);
  put16(kOfHeader + 4, error.experimenter >> 16);
  put16(kOfHeader + 6, error.experimenter & 0xffff);
  if (phase_ == Phase::gone) return;
  bufferevent_write(bev_.get(), head, size);
  send(request.first(data));
}

// Writes short output without asking first whether the socket takes it: three system calls fewer for most answers.
void Connection::flush() {
  if (phase_ == Phase::gone || polled_) return;
  evbuffer *output = bufferevent_get_output(bev_.get());
  if (unsent() <= kWrittenAtOnce) {
    evbuffer_unfreeze(output, 1);
    evbuffer_write(output, fd());  // an error is left to libevent, which meets it again
    evbuffer_freeze(output, 1);
  }
  if (unsent() == 0) return written();
  poll_writes(true);
}

void Connection::poll_writes(bool poll) {
  polled_ = poll;
  (poll ? bufferevent_enable : bufferevent_disable)(bev_.get(), EV_WRITE);
}

bool Connection::is_encrypted() const {
  return bufferevent_openssl_get_ssl(bev_.get()) != nullptr;
}

void Connection::written() {
  if (polled_ && unsent() == 0 && !is_encrypted()) poll_writes(false);
  if (phase_ == Phase::closing && unsent() == 0) hang_up();
  if (phase_ == Phase::up) events_.drained(*this);
}

// Ends the connection after everything is sent. Closing a socket with unread input resets the connection, and the peer would lose
// our last message: so only our direction is shut, and input is discarded until the peer closes or the time is up.
void Connection::hang_up() {
  ::shutdown(bufferevent_getfd(bev_.get()), SHUT_WR);
  bufferevent_enable(bev_.get(), EV_READ);
}

// ---- receiving

void Connection::read() {
  if (phase_ == Phase::closing) {
    evbuffer *input = bufferevent_get_input(bev_.get());
    evbuffer_drain(input, evbuffer_get_length(input));
    return;
  }
  heard_ns_ = clock::now().count();
  probed_ns_.reset();
  read_ahead();
  // A waiting connection continues later, however much it sends.
  if (waiting_) return wait_with_input();
  take_messages();
}

// Fetches more of a busy peer's input at once: two system calls and a turn of the loop for every 4 KB cost as much as a flow. An
// error or the end of the input is left to libevent, which meets it again.
void Connection::read_ahead() {
  evbuffer *input = bufferevent_get_input(bev_.get());
  if (is_encrypted() || evbuffer_get_length(input) < kReadByLibevent) return;
  evbuffer_unfreeze(input, 0);
  evbuffer_iovec room;
  if (evbuffer_reserve_space(input, kReadAhead, &room, 1) == 1) {
    room.iov_len = static_cast<std::size_t>(std::max(::recv(fd(), room.iov_base, kReadAhead, MSG_DONTWAIT), ssize_t{0}));
    evbuffer_commit_space(input, &room, 1);
  }
  evbuffer_freeze(input, 0);
}

void Connection::resume() {
  if (waiting_ && !taking_) take_messages();
}

void Connection::take_messages() {
  evbuffer *input = bufferevent_get_input(bev_.get());
  taking_ = true;
  waiting_ = false;
  if (phase_ == Phase::up) events_.batch_begins(*this);
  while (phase_ < Phase::closing && !waiting_) {
    evbuffer_iovec first;
    if (evbuffer_peek(input, -1, nullptr, &first, 1) < 1) break;
    std::size_t taken = take_chunk(Bytes(static_cast<const std::byte *>(first.iov_base), first.iov_len));
    if (taken == 0 && !waiting_ && phase_ < Phase::closing) {
      // A message across two buffers is joined.
      const std::size_t there = evbuffer_get_length(input);
      if (there < kOfHeader) break;
      const auto *header = reinterpret_cast<const std::byte *>(evbuffer_pullup(input, kOfHeader));
      const std::size_t length = length_of(Bytes(header, kOfHeader));
      if (bad_header(Bytes(header, kOfHeader)) || there < length) break;
      taken =
          take_chunk(Bytes(reinterpret_cast<const std::byte *>(evbuffer_pullup(input, static_cast<ssize_t>(length))), length));
    }
    evbuffer_drain(input, taken);
    scanned_ -= std::min(scanned_, taken);
  }
  taking_ = false;
  if (phase_ == Phase::gone) return;
  wait_with_input();
  if (phase_ == Phase::up) events_.batch_done(*this);
}

void Connection::wait_with_input() {
  if (waiting_) answer_waiting_echoes();
  if (phase_ < Phase::closing) stop_reading(waiting_ && scanned_messages_ >= limits_.queue_bound);
}

void Connection::stop_reading(bool stop) {
  if (stop == read_stopped_) return;
  read_stopped_ = stop;
  (stop ? bufferevent_disable : bufferevent_enable)(bev_.get(), EV_READ);
}

// Takes whole messages from the front of `chunk`; returns the number of bytes taken.
std::size_t Connection::take_chunk(Bytes chunk) {
  std::size_t at = 0;
  while (chunk.size() - at >= kOfHeader) {
    const Bytes rest = chunk.subspan(at);
    if (bad_header(rest) || rest.size() < length_of(rest)) break;
    if (phase_ == Phase::up && !events_.may_take(*this, rest.first(length_of(rest)))) {
      waiting_ = true;
      break;
    }
    const bool scanned = at < scanned_;
    if (scanned && scanned_messages_) --scanned_messages_;
    at += length_of(rest);
    if (!take_one(rest.first(length_of(rest)), scanned)) break;
  }
  return at;
}

// False when no more messages may be taken after this one.
bool Connection::take_one(Bytes message, bool scanned) {
  ++traffic_.received;
  const std::uint8_t type = be8(message, kOfType);
  if (phase_ == Phase::hello) {
    take_hello(message);
  } else if (type == kHello) {
    // A second HELLO changes nothing.
  } else if (be8(message, 0) != kVersion) {
    send_error(err::kBadVersion, message);
  } else if (type == kEchoRequest || type == kEchoReply) {
    take_echo(message, scanned);
  } else {
    has_spoken_ = true;
    events_.message(*this, message);
  }
  return phase_ < Phase::closing;
}

// True, after ending the connection, for an invalid header: its length is impossible, so that the next header cannot be found, or
// the first message is not HELLO, so that the peer speaks another protocol and its "length" must not be trusted.
bool Connection::bad_header(Bytes header) {
  const bool too_short = length_of(header) < kOfHeader;
  if (phase_ == Phase::hello && (too_short || be8(header, kOfType) != kHello)) {
    refuse_version("the first message is not HELLO");
    return true;
  }
  if (!too_short) return false;
  send_error(err::kBadLen, header.first(kOfHeader));
  close("a message says that it is shorter than its header");
  return true;
}

void Connection::take_hello(Bytes message) {
  if (!offers_our_version(message)) return refuse_version("this switch speaks OpenFlow 1.3 (version 4) only");
  phase_ = Phase::up;
  events_.up(*this);
}

void Connection::refuse_version(const char *why) {
  send_error(err::kIncompatible, 0, std::as_bytes(std::span(why, strlen(why))));
  close(why);
}

void Connection::take_echo(Bytes message, bool scanned) {
  if (scanned || be8(message, kOfType) != kEchoRequest) return;
  std::byte head[kOfHeader];
  std::memcpy(head, message.data(), kOfHeader);
  head[kOfType] = std::byte{kEchoReply};
  bufferevent_write(bev_.get(), head, kOfHeader);
  send(message.subspan(kOfHeader));
}

// Answers the unanswered echo requests among the waiting messages.
void Connection::answer_waiting_echoes() {
  evbuffer *input = bufferevent_get_input(bev_.get());
  const std::size_t there = evbuffer_get_length(input);
  std::byte header[kOfHeader];
  evbuffer_ptr at;
  evbuffer_ptr_set(input, &at, scanned_, EVBUFFER_PTR_SET);
  while (there - scanned_ >= kOfHeader && phase_ != Phase::gone) {
    evbuffer_copyout_from(input, &at, header, kOfHeader);
    const std::size_t length = length_of(header);
    if (length < kOfHeader || there - scanned_ < length) return;
    if (be8(header, 0) == kVersion && be8(header, kOfType) == kEchoRequest) {
      std::vector<std::byte> echo(length);
      evbuffer_copyout_from(input, &at, echo.data(), length);
      take_echo(echo, false);
    }
    scanned_ += length;
    ++scanned_messages_;
    if (scanned_ < there) evbuffer_ptr_set(input, &at, length, EVBUFFER_PTR_ADD);
  }
}

// ---- the end

void Connection::event(short what) {
  if (what & BEV_EVENT_CONNECTED) return;
  abort(what & BEV_EVENT_ERROR ? failure_text(bev_.get()) : "closed by the peer");
}

void Connection::close(const std::string &why) {
  if (phase_ >= Phase::closing) return;
  phase_ = Phase::closing;
  why_ = why;
  closing_ns_ = clock::now().count();
  bufferevent_disable(bev_.get(), EV_READ);
  bufferevent_setwatermark(bev_.get(), EV_WRITE, 0, 0);
  if (unsent() == 0) hang_up();
}

void Connection::abort(const std::string &why) {
  if (phase_ == Phase::gone) return;
  phase_ = Phase::gone;
  why_ = why;
  bufferevent_disable(bev_.get(), EV_READ | EV_WRITE);
  bufferevent_setcb(bev_.get(), nullptr, nullptr, nullptr, nullptr);
  event_del(flush_.get());
  drop_output();
  events_.gone(*this);
}

// Frees the output at once, not with the object, which lives until the end of the turn: one turn can send gigabytes.
void Connection::drop_output() {
  evbuffer *output = bufferevent_get_output(bev_.get());
  evbuffer_unfreeze(output, 1);
  evbuffer_drain(output, evbuffer_get_length(output));
}

void Connection::check(std::int64_t now_ns) {
  if (phase_ == Phase::closing && now_ns - closing_ns_ > kClosingLimit) return abort(why_);
  if (phase_ == Phase::hello && now_ns - since_ns_ > kHelloLimit) return close("no HELLO from the peer");
  if (phase_ == Phase::up && !waiting_) probe(now_ns);
}

// Silence alone does not prove a dead peer, because its waiting messages are not read. So it has two intervals to answer, however
// long it was silent before.
void Connection::probe(std::int64_t now_ns) {
  const std::int64_t interval = limits_.echo_interval_ns;
  if (interval == 0 || now_ns - heard_ns_ < interval) return;
  if (probed_ns_ && now_ns - *probed_ns_ >= 2 * interval) return abort("the peer does not answer echo requests");
  if (probed_ns_) return;
  send(std::as_bytes(std::span(kProbe)));
  probed_ns_ = now_ns;
}

}  // namespace host::of_ss
