// An asynchronous connection to Redis on the process's loop: pipelined commands, one callback for each reply, subscriptions. The
// link uses one for writes and one for subscriptions. Loop's thread.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "host/base/event_owner.h"
#include "host/mom/redis/stream.h"

namespace host::mom {

class Pipe {
 public:
  // Called with the reply, or with null when the connection ended first. Never from inside send().
  using Answer = std::function<void(const redisReply *)>;

  // `ended` is called once when the connection ends, with the reason, unless close() was called. Over TCP a peer that vanishes
  // without closing the connection, for example because its machine crashed, is given up after `dead_after` even on an idle
  // connection.
  Pipe(const RedisEndpoint &endpoint, std::chrono::milliseconds dead_after, std::function<void(const std::string &)> ended)
      : endpoint_(endpoint), dead_after_(dead_after), ended_(std::move(ended)) {}
  ~Pipe() { close(); }
  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  // Begins to connect, and logs in if there is a password. Returns "" or why it cannot.
  std::string open();
  // Ends the connection at once; callbacks awaiting a reply get null.
  void close();
  bool is_open() const { return stream_.is_open(); }

  void send(std::span<const std::string_view> arguments, Answer answer);
  void send(Arguments arguments, Answer answer) { send(std::span(arguments.begin(), arguments.size()), std::move(answer)); }
  // Sends one command in wire format without a separate callback: its reply goes to on_plain, in order.
  void send_plain(std::string_view formatted);
  std::function<void(const redisReply *)> on_plain;

  // Number of replies due.
  std::size_t waiting() const { return pending_.size(); }
  std::uint64_t answered() const { return answered_; }
  // Bytes that the socket has not accepted yet.
  std::size_t unsent() const { return stream_.unsent(); }
  void push();  // tries to send them now

  // Serves this connection alone, blocking, until `done` is true. False when the deadline passes or the connection ends first.
  bool drive(const std::function<bool()> &done, std::chrono::steady_clock::time_point deadline);

  // Subscribes to a channel. Replies count as messages once every command has its reply: `message` gets each message, `confirmed`
  // the confirmation of each channel.
  void subscribe(const std::string &channel);
  std::function<void(std::string_view channel, std::string_view payload)> message;
  std::function<void(std::string_view channel)> confirmed;

 private:
  void ready(short what);
  void go_on(bool good);
  void take(const redisReply *reply);
  void take_message(const redisReply *reply);
  void watch_output();
  void finish(const std::string &why);

  const RedisEndpoint &endpoint_;
  std::chrono::milliseconds dead_after_;
  std::function<void(const std::string &)> ended_;
  Stream stream_;
  EventOwner readable_, writable_;
  void time_last();

  std::deque<Answer> pending_;  // in the order of the commands; empty for a plain one
  std::uint64_t answered_ = 0;
  // The command whose round trip is being measured, by its number among all replies; 0 while there is none.
  std::uint64_t timed_ = 0;
  std::chrono::steady_clock::time_point timed_since_{};
  unsigned generation_ = 0;  // changes when the connection is opened or closed
};

}  // namespace host::mom
