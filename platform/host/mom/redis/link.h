// One database's life line to Redis: a connection for writes and one for subscriptions that are up together or not at all,
// reconnected with backoff. Loop's thread.
//
// Commands leave in the order they were given. They are kept here, not in hiredis, while the socket is behind: a burst of writes
// then costs no copying of what is still to be sent.
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

namespace mom {

// What commands have in flight: released in `slot`'s topic with the last answer, or when the connection ends.
struct Charge {
  Slot *slot = nullptr;
  size_t bytes = 0;
  size_t writes = 1;
};

class RedisLink {
 public:
  // How the link lives. Only the transitions of this picture happen (RedisLink::enter):
  //
  //    idle --> searching --> greeting --> up
  //               ^  |           |          |
  //        timer  |  +-----------+----------+  failure
  //               |              v
  //               +----------- waiting           from any of them: closed
  //
  // Where the URL names the server itself, `searching` is left out.
  enum class State : uint8_t {
    idle,       // connect() has not been called
    searching,  // asks the sentinels for the master
    greeting,   // opens both connections; settings, scripts and subscriptions wait for their answers
    up,         // commands are taken
    waiting,    // for the next attempt; nothing is open
    closed,     // the destructor runs
  };

  // What the owner does with what happens. None is called from inside a call of the link.
  struct Events {
    std::function<void()> up;  // for the first time, or again
    std::function<void(std::string_view channel, std::string_view payload)> message;
    std::function<void(std::string_view channel)> subscribed;
    std::function<void()>
        unsure;  // what is stored may be other than what was written: writes are refused, or all has been deleted
  };

  RedisLink(StoreEvents &store_events, TurnQueue &later, Database &db, const Endpoint &endpoint,
            std::chrono::milliseconds dead_after, Events events);
  ~RedisLink();

  // Begins to connect, the first time. Each call is answered by StoreEvents::connected, in a later turn, once the link is up.
  void connect();
  bool is_up() const { return state_ == State::up; }
  // Of the server that was last seen by this link; empty before.
  const std::string &run_id() const { return run_id_; }
  // Counts the times the link came up.
  unsigned generation() const { return generation_; }

  // ---- commands for the write connection; dropped while the link is down

  // A run of commands, ready for the wire.
  struct Formatted {
    std::string bytes;
    std::vector<size_t> ends;  // of each command in `bytes`
    Charge charge;
    qx_mom_done_cb done = nullptr;  // called, later, when the last command is answered
    // Gives what the answer to the last command calls for: it goes out next, and everything behind waits until nothing more
    // comes.
    std::function<Formatted(const redisReply *)> more{};

    void add(std::span<const std::string_view> arguments);
    void add(Arguments arguments) { add(std::span(arguments.begin(), arguments.size())); }
    // A command whose last `count` arguments are on the wire's form already.
    void add(Arguments first, std::string_view formatted, size_t count);
  };
  void send(Formatted commands);

  // Whether it goes over all objects of a type, now or behind what was given before: that may take seconds.
  bool passes() const;
  bool idle() const { return queue_.empty() && writer_.waiting() == 0; }
  // Waits until everything given so far is answered. False when that does not happen in time.
  bool settle(std::chrono::steady_clock::time_point deadline);

  // A write that changes nothing, refused where others are.
  static inline const Arguments kHarmlessWrite = {"SETRANGE", "s_policy_kelim", "0", ""};

  // Subscribes now, and again after every reconnect. Confirmed by Events::subscribed each time.
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
  Endpoint endpoint_;
  std::chrono::milliseconds dead_after_;  // without any answer
  Events events_;
  Pipe writer_;
  Pipe subscriber_;
  std::vector<std::string> channels_;
  // What the present connections have not confirmed: channels, and while greeting the settings on the write connection.
  size_t unconfirmed_ = 0;

  std::deque<Formatted> queue_;
  size_t next_command_ = 0;  // of the first batch
  std::deque<Answer> sent_;
  // The batch that the others wait for: sent, and its answer may call for more.
  std::function<Formatted(const redisReply *)> more_;
  qx_mom_done_cb more_done_ = nullptr;

  State state_ = State::idle;
  size_t connects_ = 0;  // not answered yet
  ServerInfo server_;
  std::string run_id_;
  History had_;            // of the last server, at the last look at it
  MasterSearch search_;    // where there are sentinels
  std::string client_id_;  // of the write connection, the present one or the last
  unsigned generation_ = 0;
  std::string last_failure_;

  host::Timer retry_timer_;
  std::chrono::milliseconds backoff_;
  std::chrono::steady_clock::time_point came_up_{};
  std::minstd_rand jitter_;

  host::Timer probe_timer_;
  std::chrono::milliseconds probe_wait_{};

  host::Timer watch_timer_;
  uint64_t answered_before_ = 0;
  unsigned silent_looks_ = 0;  // in a row, with answers owed and none come
};

}  // namespace mom
