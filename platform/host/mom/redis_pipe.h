// An asynchronous connection to Redis on the process's loop: commands go out in order without waiting, each answer is seen once.
// The base of the connection for writes and of the one for subscriptions. Loop's thread.
#pragma once

#include <hiredis/async.h>

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "host/mom/redis_endpoint.h"

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
  bool is_open() const { return context_ != nullptr; }

  void send(Arguments arguments, Answer answer);
  // One formatted command. `plain` commands have no function of their own: their answers go to on_plain in order.
  void send_plain(std::string_view formatted);
  std::function<void(const redisReply *)> on_plain;

  // Answers not yet seen.
  size_t waiting() const { return waiting_; }
  uint64_t answered() const { return answered_; }
  // Bytes that the socket has not taken.
  size_t unsent() const;
  void push();  // tries to hand them to the socket now

  // Works on this connection alone until `done` or the deadline; false when it passed or the connection ended.
  bool drive(const std::function<bool()> &done, std::chrono::steady_clock::time_point deadline);

  // Subscribes to channels; `message` gets each message (channel, payload), `confirmed` each channel's confirmation.
  void subscribe(const std::string &channel);
  std::function<void(std::string_view channel, std::string_view payload)> message;
  std::function<void(std::string_view channel)> confirmed;

 private:
  static void on_answer(redisAsyncContext *context, void *reply, void *answer);
  static void on_plain_answer(redisAsyncContext *context, void *reply, void *);
  static void on_subscription(redisAsyncContext *context, void *reply, void *);
  static void on_connect(const redisAsyncContext *context, int status);
  static void on_disconnect(const redisAsyncContext *context, int status);
  static Pipe *of(const redisAsyncContext *context) { return static_cast<Pipe *>(context->data); }
  void count(const redisReply *reply);
  void finish(const redisAsyncContext *context, int status, const char *what);

  const Endpoint &endpoint_;
  std::chrono::milliseconds dead_after_;
  std::function<void(const std::string &)> ended_;
  redisAsyncContext *context_ = nullptr;
  size_t waiting_ = 0;
  uint64_t answered_ = 0;
};

}  // namespace mom
