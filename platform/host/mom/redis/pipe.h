// An asynchronous connection to Redis on the process's loop: commands go out in order without waiting, each answer is seen once.
// The base of the connection for writes and of the one for subscriptions. Loop's thread.
#pragma once

#include <event2/event.h>

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "host/mom/redis/stream.h"

namespace mom {

class Pipe {
 public:
  // Called with the answer; with null when the connection ended first. Never from inside send().
  using Answer = std::function<void(const redisReply *)>;

  // `ended` is called once when the connection is gone, with the reason, unless close() was called. Over TCP a peer that is gone
  // without a word, whose machine went down for one, counts as gone after `dead_after` also where nothing is sent.
  Pipe(const Endpoint &endpoint, std::chrono::milliseconds dead_after, std::function<void(const std::string &)> ended)
      : endpoint_(endpoint), dead_after_(dead_after), ended_(std::move(ended)) {}
  ~Pipe() { close(); }
  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;

  // Begins to connect, with the password where there is one. "" or why not.
  std::string open();
  // Ends the connection at once; what waits for an answer gets null.
  void close();
  bool is_open() const { return stream_.is_open(); }

  void send(std::span<const std::string_view> arguments, Answer answer);
  void send(Arguments arguments, Answer answer) { send(std::span(arguments.begin(), arguments.size()), std::move(answer)); }
  // One formatted command. `plain` commands have no function of their own: their answers go to on_plain in order.
  void send_plain(std::string_view formatted);
  std::function<void(const redisReply *)> on_plain;

  // Answers not yet seen.
  size_t waiting() const { return pending_.size(); }
  uint64_t answered() const { return answered_; }
  // Bytes that the socket has not taken.
  size_t unsent() const { return stream_.unsent(); }
  void push();  // tries to hand them to the socket now

  // Works on this connection alone until `done` or the deadline; false when it passed or the connection ended.
  bool drive(const std::function<bool()> &done, std::chrono::steady_clock::time_point deadline);

  // Subscribes to channels, when every command is answered; `message` gets each message (channel, payload), `confirmed` each
  // channel's confirmation.
  void subscribe(const std::string &channel);
  std::function<void(std::string_view channel, std::string_view payload)> message;
  std::function<void(std::string_view channel)> confirmed;

 private:
  struct FreeEvent {
    void operator()(event *e) const { event_free(e); }
  };
  using EventOwner = std::unique_ptr<event, FreeEvent>;

  void ready(short what);
  void go_on(bool good);
  void take(const redisReply *reply);
  void take_message(const redisReply *reply);
  void watch_output();
  void finish(const std::string &why);

  const Endpoint &endpoint_;
  std::chrono::milliseconds dead_after_;
  std::function<void(const std::string &)> ended_;
  Stream stream_;
  EventOwner readable_, writable_;
  void time_last();

  std::deque<Answer> pending_;  // in the order of their commands; empty for a plain one
  uint64_t answered_ = 0;
  // The command that is timed, by its number among those answered; 0 while none is.
  uint64_t timed_ = 0;
  std::chrono::steady_clock::time_point timed_since_{};
  unsigned generation_ = 0;  // of the connection
};

}  // namespace mom
