#include "host/mom/redis/link.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/log/log.h"
#include "host/mom/redis/scripts.h"

namespace host::mom {

namespace {

using std::chrono::microseconds;
using namespace std::chrono_literals;

constexpr auto kFirstBackoff = 20ms;
constexpr auto kLongestBackoff = 2000ms;
constexpr auto kFirstProbe = 100ms;  // of a server that refuses writes; the wait doubles each time
constexpr unsigned kLooks = 4;       // checks of the server within dead_after_: a dead one is noticed a quarter late at most
constexpr auto kStable = 5s;         // a link that was up this long starts over with the first backoff

// Bytes in the output buffer of the socket; further commands wait in the queue.
constexpr std::size_t kUnsentMax = 256U << 10;
constexpr std::size_t kPushAbove = 64U << 10;  // bytes; a burst above it is sent without waiting for the loop's next turn

// By default Redis disconnects subscribers that lag by 32 MB, less than one large burst of flows.
constexpr std::string_view kSubscriberBuffers = "pubsub 536870912 268435456 60";
constexpr long kSubscriberBufferMin = 268435456;

// The channel on which the server tells a client that tracks keys that all keys were deleted. No key has the tracked prefix, so
// that nothing else is reported.
constexpr const char *kFlushed = "__redis__:invalidate", *kNoKeys = "s_policy_kelim.none:";

// The errors of a server that temporarily refuses writes, on a healthy connection: out of memory, a replica, too long without a
// save. EXECABORT ends a transaction in which one of the others occurred.
constexpr std::string_view kRefusals[] = {"OOM ", "READONLY ", "MISCONF ", "NOREPLICAS ", "EXECABORT "};

bool is_refusal(std::string_view error) {
  return std::ranges::any_of(kRefusals, [error](std::string_view refusal) { return error.starts_with(refusal); });
}

// The arrows in the diagram of link.h.
[[maybe_unused]] bool can_follow(RedisLink::State from, RedisLink::State to) {
  using enum RedisLink::State;
  constexpr std::pair<RedisLink::State, RedisLink::State> kArrows[] = {
      {idle, searching},    {idle, greeting}, {waiting, searching}, {waiting, greeting}, {searching, greeting},
      {searching, waiting}, {greeting, up},   {greeting, waiting},  {up, waiting},
  };
  return to == closed || std::ranges::find(kArrows, std::pair(from, to)) != std::end(kArrows);
}

// "12" of "id=12" in a line of CLIENT LIST.
std::string_view word_in(std::string_view line, std::string_view key) {
  const std::size_t at = (" " + std::string(line)).find(" " + std::string(key) + "=");
  if (at == std::string_view::npos) return {};
  const std::string_view rest = line.substr(at + key.size() + 1);
  return rest.substr(0, rest.find(' '));
}

}  // namespace

RedisLink::RedisLink(StoreEvents &store_events, TurnQueue &later, Database &db, const RedisEndpoint &endpoint,
                     std::chrono::milliseconds dead_after, Events events)
    : store_events_(store_events),
      later_(later),
      db_(db),
      endpoint_(endpoint),
      dead_after_(dead_after),
      events_(std::move(events)),
      writer_(endpoint_, dead_after, [this](const std::string &why) { fail(why); }),
      subscriber_(endpoint_, dead_after, [this](const std::string &why) { fail(why); }),
      search_(endpoint_, [this](const std::string &why) { why.empty() ? open() : fail(why); }),
      retry_timer_([this] { begin(); }),
      backoff_(kFirstBackoff),
      jitter_(std::random_device{}()),
      probe_timer_([this] { probe(); }),
      watch_timer_([this] { look(); }) {
  channels_.push_back(kFlushed);
  channels_.push_back("__keyevent@" + std::to_string(db.number) + "__:expired");
  writer_.on_plain = [this](const redisReply *reply) { answer(reply); };
  subscriber_.message = [this](std::string_view channel, std::string_view payload) {
    if (channel == kFlushed)
      flushed();
    else
      events_.message(channel, payload);
  };
  subscriber_.confirmed = [this](std::string_view channel) {
    greeted();
    if (is_up()) events_.subscribed(channel);
  };
}

RedisLink::~RedisLink() {
  enter(State::closed);
  writer_.close();
  subscriber_.close();
  release_all();
}

void RedisLink::connect() {
  ++connects_;
  if (state_ == State::idle) {
    begin();
  } else if (is_up()) {
    later_.act([this] { report_connected(); });
  }
}

void RedisLink::enter(State state) {
  assert(can_follow(state_, state));
  state_ = state;
}

// ---- connecting

void RedisLink::begin() {
  if (endpoint_.sentinels.empty()) return open();
  enter(State::searching);
  search_.start();
}

void RedisLink::open() {
  enter(State::greeting);
  server_ = {};
  std::string why = writer_.open();
  if (why.empty()) why = subscriber_.open();
  if (!why.empty()) {
    fail(why);
    return;
  }
  answered_before_ = writer_.answered();
  silent_looks_ = 0;
  watch_timer_.arm(microseconds(dead_after_) / kLooks);
  greet_writer();
  greet_subscriber();
}

void RedisLink::greet_writer() {
  const auto need = [this](const char *what) {
    return [this, what](const redisReply *reply) {
      if (reply && is_error(reply)) fail(std::string(what) + ": " + std::string(text_of(reply)));
    };
  };
  writer_.send({"SELECT", std::to_string(db_.number)}, need("SELECT"));
  writer_.send({"CLIENT", "SETNAME", endpoint_.connection_name(db_.number, "write")}, nullptr);
  if (db_.exclusive) look_for_others();
  writer_.send({"INFO"}, [this](const redisReply *reply) { take_info(reply); });
  writer_.send({"CONFIG", "GET", "notify-keyspace-events"}, [this](const redisReply *reply) { use_keyspace_events(reply); });
  writer_.send({"CONFIG", "GET", "client-output-buffer-limit"},
               [this](const redisReply *reply) { widen_subscriber_buffers(reply); });
  writer_.send({"CONFIG", "GET", "maxmemory-policy"}, [this](const redisReply *reply) { warn_of_eviction(reply); });
  for (std::size_t i = 0; !script_text(i).empty(); ++i) writer_.send({"SCRIPT", "LOAD", script_text(i)}, need("SCRIPT LOAD"));
  writer_.send(kHarmlessWrite, [this](const redisReply *reply) {
    if (reply && is_error(reply)) note_refusal(text_of(reply));
  });
  // The reply to the first PING follows the replies above, that to the second the settings that those may have sent.
  writer_.send({"PING"}, [this](const redisReply *first) {
    if (!first) return;
    writer_.send({"PING"}, [this](const redisReply *second) {
      if (second && !is_error(second)) greeted();
    });
  });
}

// Of several processes with the same name the first works, and the others wait for it to end. All of them ping the server
// regularly: a client that has been idle for longer than dead_after_ is frozen or cut off and does not count, nor does a remnant
// of our own previous connection.
void RedisLink::look_for_others() {
  const auto number = [](std::string_view text) { return std::strtoull(std::string(text).c_str(), nullptr, 10); };
  writer_.send({"CLIENT", "ID"}, [this, number, before = number(client_id_)](const redisReply *id) {
    if (!id || id->type != REDIS_REPLY_INTEGER) return;
    client_id_ = std::to_string(id->integer);
    writer_.send({"CLIENT", "LIST"}, [this, number, before](const redisReply *list) {
      if (!list || is_error(list)) return;
      const std::string name = endpoint_.connection_name(db_.number, "write");
      for (std::string_view rest = text_of(list); !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        const auto other = number(word_in(line, "id"));
        if (word_in(line, "name") != name || other == before || other >= number(client_id_)) continue;
        if (std::chrono::seconds(number(word_in(line, "idle"))) > dead_after_ + 1s) continue;
        return fail("another " + endpoint_.client + " works on this database (client " + std::to_string(other) +
                    " of the server), " + "waiting for its end");
      }
    });
  });
}

void RedisLink::take_info(const redisReply *reply) {
  if (!reply) return;
  server_ = parse_info(text_of(reply));
  if (server_.loading) {
    fail("the server is loading its data");
  } else if (const std::string why = server_unfit(server_); !why.empty()) {
    fail(why);
  } else if (!endpoint_.sentinels.empty() && server_.role != "master") {
    fail("the server that the sentinels name is a " + server_.role);
  }
}

void RedisLink::use_keyspace_events(const redisReply *reply) {
  if (!reply) return;
  const bool known = reply->type == REDIS_REPLY_ARRAY && reply->elements == 2;
  std::string flags(known ? text_of(reply->element[1]) : "");
  const auto has = [&](char flag) { return flags.find(flag) != std::string::npos; };
  if (has('E') && (has('x') || has('A'))) return;
  if (!has('E')) flags += 'E';
  if (!has('x') && !has('A')) flags += 'x';
  writer_.send({"CONFIG", "SET", "notify-keyspace-events", flags}, [this](const redisReply *set) {
    if (set && is_error(set))
      fail("the server rejects the setting for notifications of expiries (notify-keyspace-events Ex): " +
           std::string(text_of(set)));
  });
}

void RedisLink::widen_subscriber_buffers(const redisReply *reply) {
  if (!reply || reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) return;
  const std::string limits(text_of(reply->element[1]));
  const std::size_t at = limits.find("pubsub ");
  const long hard = at == std::string::npos ? 0 : std::strtol(limits.c_str() + at + 7, nullptr, 10);
  if (at != std::string::npos && (hard == 0 || hard >= kSubscriberBufferMin)) return;
  writer_.send({"CONFIG", "SET", "client-output-buffer-limit", kSubscriberBuffers}, [](const redisReply *set) {
    if (set && is_error(set)) log::warn("database: the server keeps its small buffers for subscribers: {}", text_of(set));
  });
}

// Evicted objects would go missing unnoticed.
void RedisLink::warn_of_eviction(const redisReply *reply) {
  if (!reply || reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 || text_of(reply->element[1]) == "noeviction") return;
  log::error("database {}: {}: the server may drop objects when its memory is full: maxmemory-policy is {}, noeviction is needed",
             db_.number, endpoint_.url, text_of(reply->element[1]));
}

void RedisLink::greet_subscriber() {
  unconfirmed_ = channels_.size() + 1;
  subscriber_.send({"CLIENT", "SETNAME", endpoint_.connection_name(db_.number, "listen")}, nullptr);
  subscriber_.send({"CLIENT", "ID"}, [this](const redisReply *id) {
    if (!id || id->type != REDIS_REPLY_INTEGER) return;
    writer_.send({"CLIENT", "TRACKING", "ON", "REDIRECT", std::to_string(id->integer), "BCAST", "PREFIX", kNoKeys}, nullptr);
  });
  for (const std::string &channel : channels_) subscriber_.subscribe(channel);
}

void RedisLink::flushed() {
  if (!is_up()) return;
  log::error("database {}: {}: all data on the server were deleted (FLUSHALL, FLUSHDB)", db_.number, endpoint_.url);
  later_.act([this] {
    events_.unsure();
    store_events_.look_again(db_);
  });
}

// Counts one confirmation; the last one ends the greeting.
void RedisLink::greeted() {
  if (unconfirmed_ > 0 && --unconfirmed_ == 0 && state_ == State::greeting) come_up();
}

void RedisLink::come_up() {
  enter(State::up);
  came_up_ = std::chrono::steady_clock::now();
  last_failure_.clear();
  const bool again = ++generation_ > 1;
  const bool same = run_id_ == server_.run_id;
  const bool successor = !endpoint_.sentinels.empty() && server_.history.continues(had_);
  const std::int32_t type = again && (same || successor) ? 2 : 1;
  run_id_ = server_.run_id;
  had_ = server_.history;
  const unsigned generation = generation_;
  if (again)
    log::error("database {}: connected again, to {} server process", db_.number,
               same        ? "the same"
               : successor ? "a following"
                           : "another");
  later_.act([this, again, type, generation] {
    if (!is_up() || generation != generation_) return;
    events_.up();
    if (again) store_events_.reconnect(db_, type);
    report_connected();
  });
}

// If the link was lost again meanwhile, the calls are answered when it is up again.
void RedisLink::report_connected() {
  if (!is_up()) return;
  for (std::size_t waiting = std::exchange(connects_, 0); waiting > 0; --waiting) store_events_.connected(db_);
}

// ---- disconnecting

void RedisLink::fail(const std::string &why) {
  if (state_ == State::closed || state_ == State::waiting) return;
  const bool was_up = is_up();
  enter(State::waiting);
  writer_.close();
  subscriber_.close();
  search_.cancel();
  watch_timer_.cancel();
  probe_timer_.cancel();
  db_.refusing.clear();
  if (was_up) store_events_.disconnected(db_);
  release_all();
  if (why != last_failure_) log::error("database {}: {}: {}", db_.number, endpoint_.url, why);
  last_failure_ = why;
  if (generation_ > 0) {
    const std::int32_t type = was_up ? 0 : 3;
    later_.act([this, type] {
      if (!is_up()) store_events_.reconnect(db_, type);
    });
  }
  if (was_up && std::chrono::steady_clock::now() - came_up_ >= kStable) backoff_ = kFirstBackoff;
  retry();
}

void RedisLink::retry() {
  const auto most = static_cast<int>(backoff_.count());
  const std::chrono::milliseconds wait(std::uniform_int_distribution<int>(most / 2, most)(jitter_));
  backoff_ = std::min<std::chrono::milliseconds>(backoff_ * 2, kLongestBackoff);
  retry_timer_.arm(wait);
}

void RedisLink::release_all() {
  for (const Answer &answer : sent_) release(answer.charge);
  sent_.clear();
  for (const Formatted &commands : queue_) release(commands.charge);
  queue_.clear();
  more_ = nullptr;
  next_command_ = 0;
}

void RedisLink::release(const Charge &charge) {
  if (charge.slot) charge.slot->topic.release(charge.bytes, charge.writes);
}

// Detects a server that hangs, or a peer that vanished without closing the connection: several checks in a row find replies due
// and none received.
void RedisLink::look() {
  const bool answered = writer_.answered() != std::exchange(answered_before_, writer_.answered());
  silent_looks_ = answered || writer_.waiting() == 0 ? 0 : silent_looks_ + 1;
  if (silent_looks_ == kLooks) {
    fail("no answer for " + std::to_string(dead_after_.count()) + " ms");
    return;
  }
  if (db_.exclusive && is_up()) look_for_others();
  if (!endpoint_.sentinels.empty()) {
    writer_.send({"INFO", "replication"}, [this](const redisReply *reply) {
      if (reply && is_up()) had_ = parse_info(text_of(reply)).history;
    });
  } else if (writer_.waiting() == 0) {
    writer_.send({"PING"}, nullptr);
  }
  watch_timer_.arm(microseconds(dead_after_) / kLooks);
}

// ---- commands

void RedisLink::Formatted::add(std::span<const std::string_view> arguments) {
  append_command(bytes, arguments);
  ends.push_back(bytes.size());
}

void RedisLink::Formatted::add(Arguments first, std::string_view formatted, std::size_t count) {
  append_command_head(bytes, first.size() + count);
  for (const std::string_view argument : first) append_argument(bytes, {argument});
  bytes.append(formatted);
  ends.push_back(bytes.size());
}

void RedisLink::send(Formatted commands) {
  if (commands.ends.empty()) return;
  if (!is_up()) {
    release(commands.charge);
    return;
  }
  queue_.push_back(std::move(commands));
  feed();
  if (writer_.unsent() >= kPushAbove) writer_.push();
}

// Moves commands into the output buffer while it has room. Does not write them to the socket, which inside a reply's callback
// could end the connection.
void RedisLink::feed() {
  while (!more_ && !queue_.empty() && writer_.unsent() < kUnsentMax) {
    Formatted &batch = queue_.front();
    const std::size_t begin = next_command_ == 0 ? 0 : batch.ends[next_command_ - 1];
    Answer answer{{}, nullptr};
    const bool last = next_command_ + 1 == batch.ends.size();
    if (last) answer.charge = batch.charge;
    if (last && batch.more) {
      more_ = std::move(batch.more);
      more_done_ = batch.done;
    } else if (last) {
      answer.done = batch.done;
    }
    sent_.push_back(answer);
    writer_.send_plain(std::string_view(batch.bytes).substr(begin, batch.ends[next_command_] - begin));
    ++next_command_;
    if (last) {
      queue_.pop_front();
      next_command_ = 0;
    }
  }
}

void RedisLink::answer(const redisReply *reply) {
  if (sent_.empty()) return;  // the link has failed and its charges are released
  const Answer answer = sent_.front();
  sent_.pop_front();
  release(answer.charge);
  if (!reply) return;
  const redisReply *error = error_in(reply);
  if (error && answer.charge.slot) store_events_.count_refused(answer.charge.writes);
  if (error && !is_refusal(text_of(error))) {
    fail("the server refused a write: " + std::string(text_of(error)));
    return;
  }
  if (error) note_refusal(text_of(error));
  if (answer.done && !error) later_.act([done = answer.done] { done(); });
  if (more_ && sent_.empty()) go_on(reply);
  feed();
}

void RedisLink::go_on(const redisReply *reply) {
  const auto more = std::exchange(more_, nullptr);
  Formatted next = is_error(reply) ? Formatted{} : more(reply);
  if (!next.ends.empty()) {
    next.done = more_done_;
    queue_.push_front(std::move(next));
  } else if (more_done_) {
    later_.act([done = more_done_] { done(); });
  }
}

// ---- a server that refuses writes
//
// The link stays up: objects can be read and deleted, and notifications arrive. Once writes are accepted again, every
// subscription gets its data-fetch signal.

void RedisLink::note_refusal(std::string_view why) {
  if (!db_.refusing.empty()) return;
  db_.refusing = why;
  log::error("database {}: {}: the server refuses writes; what is stored stays: {}", db_.number, endpoint_.url, why);
  probe_wait_ = kFirstProbe;
  probe_timer_.arm(probe_wait_);
  later_.act([this] { events_.unsure(); });
}

void RedisLink::probe() {
  writer_.send(kHarmlessWrite, [this](const redisReply *reply) {
    if (!reply || db_.refusing.empty()) return;
    if (is_error(reply)) {
      probe_wait_ = std::min<std::chrono::milliseconds>(probe_wait_ * 2, kLongestBackoff);
      probe_timer_.arm(probe_wait_);
      return;
    }
    db_.refusing.clear();
    log::error("database {}: {}: the server takes writes again", db_.number, endpoint_.url);
    later_.act([this] { store_events_.look_again(db_); });
  });
}

bool RedisLink::passes() const {
  return more_ || std::ranges::any_of(queue_, [](const Formatted &given) { return static_cast<bool>(given.more); });
}

bool RedisLink::settle(std::chrono::steady_clock::time_point deadline) {
  return writer_.drive([this] { return idle() || !is_up(); }, deadline) && is_up();
}

void RedisLink::subscribe(const std::string &channel) {
  channels_.push_back(channel);
  ++unconfirmed_;
  subscriber_.subscribe(channel);
}

}  // namespace host::mom
