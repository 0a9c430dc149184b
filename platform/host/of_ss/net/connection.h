// One controller connection: framing, version negotiation, echo, and bounds on both directions.
//
// Messages are handed on as they lie in the input buffer, a batch at a time. While they may not be (events.may_take), they stay
// there: echo requests among them are answered at once, and when enough has piled up the connection is not read any more. What is
// sent is bounded too: a peer that does not read is served no further messages, and in the end is closed: for what it holds
// alone, or because it holds most where all connections together hold too much. A connection that goes on loses no message.
// Openflow thread only.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/of_ss/net/transport.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

class Connection;

class ConnectionEvents {
 public:
  // The version is agreed on; messages follow.
  virtual void up(Connection &connection) = 0;
  // A whole message with a good header; not HELLO and not ECHO. The bytes are the connection's and live until the return.
  virtual void message(Connection &connection, Bytes message) = 0;
  // Messages may follow, until batch_done.
  virtual void batch_begins(Connection &connection) = 0;
  // Whether this message would be taken now. After false, Connection::resume makes it ask again.
  virtual bool may_take(Connection &connection, Bytes message) = 0;
  // All messages that are there, or may be taken, have been handed on.
  virtual void batch_done(Connection &connection) = 0;
  // The peer has read most of the output; more may be sent.
  virtual void drained(Connection &connection) = 0;
  // The connection has ended. It calls nobody any more and is the owner's to destroy, later: it may be on the stack.
  virtual void gone(Connection &connection) = 0;
  // All connections together hold too much unsent output; one has to end. Called from inside send.
  virtual void overfull() = 0;

 protected:
  ~ConnectionEvents() = default;

 private:
  friend class Connection;
  std::size_t unsent_ = 0;  // bytes, of all connections that report here
};

struct Peer {
  std::string name;              // "tcp:127.0.0.1:40132"
  std::uint32_t address = 0;     // IPv4 as it lies in memory, first octet first; 0 for another kind
  std::string endpoint;          // of the configuration, that it came by: "ptcp:0.0.0.0:6653"
  std::uint16_t controller = 0;  // number of its address among those that have been seen (Controllers::address); 0: none
};

struct ConnectionLimits {
  std::uint32_t queue_bound = 4096;                // messages that wait before reading stops
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

// The OpenFlow side's state of a connection, kept here for the protocol (protocol.h).
struct Session;

class Connection {
 public:
  // `generation` is never used again; its low byte is the connection's number.
  Connection(ConnectionEvents &events, BuffereventOwner bev, Peer peer, std::uint64_t generation, const ConnectionLimits &limits,
             std::int64_t now_ns);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  // Messages that the connection takes itself.
  static bool takes(std::uint8_t type) { return type == kHello || type == kEchoRequest || type == kEchoReply; }

  // Sends our HELLO and begins to read.
  void start();
  void send(Bytes message);
  // OFPT_ERROR with the whole `request` (or what is kept of it) as data.
  void send_error(const Error &error, std::uint32_t xid, Bytes request);
  void send_error(const Error &error, Bytes request) { send_error(error, be32(request, kOfXid), request); }
  // Ends the connection once what has been sent is gone, or after a few seconds.
  void close(const std::string &why);
  // Ends it now.
  void abort(const std::string &why);
  // Goes on with the messages that wait.
  void resume();
  // To be called about every second: echo probes and time limits.
  void check(std::int64_t now_ns);

  std::uint64_t generation() const { return generation_; }
  std::uint8_t number() const { return static_cast<std::uint8_t>(generation_); }
  const Peer &peer() const { return peer_; }
  bool is_up() const { return phase_ == Phase::up; }
  bool is_waiting() const { return waiting_; }
  bool is_gone() const { return phase_ == Phase::gone; }
  // True while the peer is not connected, or has sent nothing but HELLO and ECHO: it may be ended to make room for another.
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
  std::size_t scanned_ = 0;  // bytes at the front of the input whose echo requests are answered
  std::size_t scanned_messages_ = 0;
  std::int64_t since_ns_, heard_ns_, closing_ns_ = 0;
  std::optional<std::int64_t> probed_ns_;  // when the echo request was sent that nothing has answered yet
  Traffic traffic_;
  std::string why_;
  std::unique_ptr<Session> session_;
};

}  // namespace host::of_ss
