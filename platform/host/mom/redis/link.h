// One database's link to Redis: a connection for writes and one for subscriptions that are up together or not at all, reconnected
// with backoff. Loop's thread.
//
// Commands are sent in the order in which they were given. Under backpressure from the socket they are queued here, not in its
// output buffer, so that a burst of writes costs no copying of unsent bytes.
#pragma once

#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "host/base/timer.h"
#include "host/mom/redis/pipe.h"
#include "host/mom/redis/sentinel.h"
#include "host/mom/store.h"
#include "host/mom/turn_queue.h"

namespace host::mom {

// A batch's share of the writes in flight of `slot`'s topic: released with the batch's last reply, or when the connection ends.
struct Charge {
  Slot *slot = nullptr;
  std::size_t bytes = 0;
  std::size_t writes = 1;
};

class RedisLink {
 public:
  // The states of the link. enter() asserts that only these transitions happen:
  //
  //    idle --> searching --> greeting --> up
  //               ^  |           |          |
  //        timer  |  +-----------+----------+  failure
  //               |              v
  //               +----------- waiting           from any of them: closed
  //
  // `searching` is skipped if the URL names the server itself.
  enum class State : std::uint8_t {
    idle,       // connect() has not been called
    searching,  // asks the sentinels for the master
    greeting,   // both connections are open; settings, scripts and subscriptions wait for their replies
    up,         // commands are accepted
    waiting,    // for the next attempt; both connections are closed
    closed,     // the destructor runs
  };

  // Callbacks to the owner. None is called from inside a call of the link.
  struct Events {
    std::function<void()> up;  // after the first connect and each reconnect
    std::function<void(std::string_view channel, std::string_view payload)> message;
    std::function<void(std::string_view channel)> subscribed;
    std::function<void()> unsure;  // the database may lack what was written: writes are refused, or everything was deleted
  };

  RedisLink(StoreEvents &store_events, TurnQueue &later, Database &db, const RedisEndpoint &endpoint,
            std::chrono::milliseconds dead_after, Events events);
  ~RedisLink();

  // The first call begins to connect. Each call is answered by StoreEvents::connected, in a later turn, once the link is up.
  void connect();
  bool is_up() const { return state_ == State::up; }
  // The run_id of the last server that the link was up with; empty before the first.
  const std::string &run_id() const { return run_id_; }
  // The number of times that the link came up.
  unsigned generation() const { return generation_; }

  // ---- commands for the write connection; dropped while the link is down

  // A batch of commands in wire format.
  struct Formatted {
    std::string bytes;
    std::vector<std::size_t> ends;  // of each command in `bytes`
    Charge charge;
    qx_mom_done_cb done = nullptr;  // called in a later turn once the last command has its reply
    // Creates the next part of a pass from the reply to the last command. The part is sent next; all batches behind it wait until
    // an empty part ends the pass.
    std::function<Formatted(const redisReply *)> more{};

    void add(std::span<const std::string_view> arguments);
    void add(Arguments arguments) { add(std::span(arguments.begin(), arguments.size())); }
    // A command whose last `count` arguments are already in wire format.
    void add(Arguments first, std::string_view formatted, std::size_t count);
  };
  void send(Formatted commands);

  // True while a pass over all objects of a type is running or queued, which may take seconds.
  bool passes() const;
  bool idle() const { return queue_.empty() && writer_.waiting() == 0; }
  // Waits until all commands given so far have their replies. False when the deadline passes or the link fails first.
  bool settle(std::chrono::steady_clock::time_point deadline);

  // A write that changes nothing and is refused whenever other writes are.
  static inline const Arguments kHarmlessWrite = {"SETRANGE", "s_policy_kelim", "0", ""};

  // Subscribes now and after every reconnect. Events::subscribed confirms it while the link is up.
  void subscribe(const std::string &channel);

 private:
  struct Answer {
    Charge charge;
    qx_mom_done_cb done;
  };
  void enter(State state);
  void begin();
  void open();
  void greet_writer();
  void greet_subscriber();
  void look_for_others();
  void take_info(const redisReply *reply);
  void use_keyspace_events(const redisReply *reply);
  void widen_subscriber_buffers(const redisReply *reply);
  void warn_of_eviction(const redisReply *reply);
  void greeted();
  void come_up();
  void report_connected();
  void fail(const std::string &why);
  void retry();
  void feed();
  void answer(const redisReply *reply);
  void note_refusal(std::string_view why);
  void probe();
  void flushed();
  void go_on(const redisReply *reply);
  static void release(const Charge &charge);
  void release_all();
  void look();

  StoreEvents &store_events_;
  TurnQueue &later_;
  Database &db_;
  RedisEndpoint endpoint_;
  std::chrono::milliseconds dead_after_;  // the longest silence of the server before the link fails
  Events events_;
  Pipe writer_;
  Pipe subscriber_;
  std::vector<std::string> channels_;
  // Confirmations that are due: one for each channel and, while greeting, one for the settings of the write connection.
  std::size_t unconfirmed_ = 0;

  std::deque<Formatted> queue_;
  std::size_t next_command_ = 0;  // of the first batch in queue_
  std::deque<Answer> sent_;
  // The rest of the pass that all other batches wait for; null without a pass.
  std::function<Formatted(const redisReply *)> more_;
  qx_mom_done_cb more_done_ = nullptr;

  State state_ = State::idle;
  std::size_t connects_ = 0;  // unanswered calls of connect()
  ServerInfo server_;
  std::string run_id_;
  History had_;            // of the last server, at the last query
  MasterSearch search_;    // used with sentinels
  std::string client_id_;  // of the write connection, the current or the last one
  unsigned generation_ = 0;
  std::string last_failure_;

  Timer retry_timer_;
  std::chrono::milliseconds backoff_;
  std::chrono::steady_clock::time_point came_up_{};
  std::minstd_rand jitter_;

  Timer probe_timer_;
  std::chrono::milliseconds probe_wait_{};

  Timer watch_timer_;
  std::uint64_t answered_before_ = 0;
  unsigned silent_looks_ = 0;  // consecutive checks that found replies due and none received
};

}  // namespace host::mom
