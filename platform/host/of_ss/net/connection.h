// One controller connection: framing, version negotiation, echo, and bounds on both directions.
//
// Messages are handed on directly from the input buffer, a batch at a time. While events.may_take forbids that, they stay there:
// echo requests among them are answered at once, and beyond a bound the connection is not read any more. Output is bounded too: a
// peer that does not read is not served any more messages, and is finally closed, because it alone holds too much unsent output,
// or the most when all connections together hold too much. A connection that stays open loses no message. Openflow thread only.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/base/event_owner.h"
#include "host/of_ss/net/transport.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

class Connection;

class ConnectionEvents {
 public:
  // The version is negotiated; messages follow.
  virtual void up(Connection &connection) = 0;
  // A whole message with a valid header, other than HELLO and ECHO. The bytes belong to the connection and live until the return.
  virtual void message(Connection &connection, Bytes message) = 0;
  // Messages may follow, until batch_done.
  virtual void batch_begins(Connection &connection) = 0;
  // True if this message would be accepted now. After false, Connection::resume asks again.
  virtual bool may_take(Connection &connection, Bytes message) = 0;
  // All messages received, or allowed, have been handed on.
  virtual void batch_done(Connection &connection) = 0;
  // The peer has read most of the output; more may be sent.
  virtual void drained(Connection &connection) = 0;
  // The connection has ended. It makes no more calls, and its owner must destroy it, but later: it may be on the stack.
  virtual void gone(Connection &connection) = 0;
  // All connections together hold too much unsent output, so one must be ended. Called from inside send.
  virtual void overfull() = 0;

 protected:
  ~ConnectionEvents() = default;

 private:
  friend class Connection;
  std::size_t unsent_ = 0;  // bytes of all connections that report here
};

struct Peer {
  std::string name;              // "tcp:127.0.0.1:40132"
  std::uint32_t address = 0;     // IPv4 in memory order, first octet first; 0 for other kinds of address
  std::string endpoint;          // its endpoint in the configuration: "ptcp:0.0.0.0:6653"
  std::uint16_t controller = 0;  // number of its address among those seen (Controllers::address); 0: none
};

struct ConnectionLimits {
  std::uint32_t queue_bound = 4096;                // waiting messages at which reading stops
  std::int64_t echo_interval_ns = 15'000'000'000;  // silence after which the peer is probed; 0: never
};

struct Traffic {
  std::uint64_t received = 0, sent = 0, errors = 0;  // messages

  Traffic &operator+=(const Traffic &more) {
    received += more.received;
    sent += more.sent;
    errors += more.errors;
    return *this;
  }
};

// The protocol's state of a connection (protocol.h), kept here.
struct Session;

class Connection {
 public:
  // `generation` is never reused; its low byte is the connection's number.
  Connection(ConnectionEvents &events, BuffereventOwner bev, Peer peer, std::uint64_t generation, const ConnectionLimits &limits,
             std::int64_t now_ns);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  // True for messages that the connection handles itself.
  static bool takes(std::uint8_t type) { return type == kHello || type == kEchoRequest || type == kEchoReply; }

  // Sends our HELLO and begins to read.
  void start();
  void send(Bytes message);
  // Sends OFPT_ERROR with the whole `request`, or its stored beginning, as data.
  void send_error(const Error &error, std::uint32_t xid, Bytes request);
  void send_error(const Error &error, Bytes request) { send_error(error, be32(request, kOfXid), request); }
  // Ends the connection once all output is sent, or after a few seconds.
  void close(const std::string &why);
  // Ends the connection now.
  void abort(const std::string &why);
  // Continues with the waiting messages.
  void resume();
  // To be called about every second: echo probes and time limits.
  void check(std::int64_t now_ns);

  std::uint64_t generation() const { return generation_; }
  std::uint8_t number() const { return static_cast<std::uint8_t>(generation_); }
  const Peer &peer() const { return peer_; }
  bool is_up() const { return phase_ == Phase::up; }
  bool is_waiting() const { return waiting_; }
  bool is_gone() const { return phase_ == Phase::gone; }
  // True while the peer is not connected, or has sent nothing but HELLO and ECHO: such a connection may be ended to make room for
  // another.
  bool is_expendable() const { return phase_ != Phase::up || !has_spoken_; }
  const std::string &why_closed() const { return why_; }
  std::int64_t since_ns() const { return since_ns_; }
  const Traffic &traffic() const { return traffic_; }
  // True while the peer has so much unread output that it should not be served more.
  bool is_backed_up() const;
  std::size_t unsent() const;
  evutil_socket_t fd() const { return bufferevent_getfd(bev_.get()); }
  Session &session() { return *session_; }
  const Session &session() const { return *session_; }

 private:
  enum class Phase { hello, up, closing, gone };

  void read();
  void read_ahead();
  void take_messages();
  std::size_t take_chunk(Bytes chunk);
  bool take_one(Bytes message, bool scanned);
  void take_hello(Bytes message);
  void take_echo(Bytes message, bool scanned);
  void wait_with_input();
  void answer_waiting_echoes();
  bool bad_header(Bytes header);
  void refuse_version(const char *why);
  void event(short what);
  void flush();
  void poll_writes(bool poll);
  bool is_encrypted() const;
  void written();
  void hang_up();
  void drop_output();
  void stop_reading(bool stop);
  void probe(std::int64_t now_ns);

  ConnectionEvents &events_;
  BuffereventOwner bev_;
  const Peer peer_;
  const std::uint64_t generation_;
  const ConnectionLimits limits_;
  Phase phase_ = Phase::hello;
  bool has_spoken_ = false;
  bool waiting_ = false;  // messages wait for may_take
  bool taking_ = false;   // take_messages is on the stack
  bool read_stopped_ = false;
  // Libevent writes the output when the socket takes it: at first, because the socket may be connecting, behind long output, and
  // if it is encrypted. Otherwise flush_ does, within the turn.
  bool polled_ = true;
  std::size_t scanned_ = 0;  // bytes at the front of the input whose echo requests have been answered
  std::size_t scanned_messages_ = 0;
  std::int64_t since_ns_, heard_ns_, closing_ns_ = 0;
  std::optional<std::int64_t> probed_ns_;  // time of the unanswered echo request
  Traffic traffic_;
  std::string why_;
  EventOwner flush_;  // active while there is output for it
  std::unique_ptr<Session> session_;
};

}  // namespace host::of_ss
