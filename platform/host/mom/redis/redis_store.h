// The object store in a Redis server. Loop's thread.
//
// On the server, in database n (SELECT n):
//
//   key      "s_policy_kelim.flow:17:0"  string: tag (8 bytes, little-endian), packed record
//   index    "s_policy_kelim.flow"       set of the variable parts ("17:0") of the type's keys; for scans and whole types
//   channel  "n:s_policy_kelim.flow"     writes and deletions: one notification after another
//   channel  "n:s_policy_kelim.flow-"    deletions once more, without the last records: for who writes the type and does not
//   listen
//
// A notification is its kind, the variable part, a zero byte, the length of what follows (4 bytes, little-endian), the packed
// record. Kinds: W written, C / R written for the first time / again (hash-class types), D deleted (the value as it was stored,
// nothing when there was none of ours), P published. Expiries come as Redis's own key-event notifications.
//
// Writes and deletions of one type that are given within a turn of the loop leave together, as one transaction: index, objects
// and notifications change at once, and a server that is out of memory refuses all of it. An object therefore never stands
// without its member in the index; a member may stand without its object, which has expired. The batches of several types leave
// in the order in which they were begun. Whatever is not batched (meters, publishing, expiry, synchronous calls) keeps its place.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/mom/record/key_set.h"
#include "host/mom/redis/endpoint.h"
#include "host/mom/redis/layout.h"
#include "host/mom/redis/link.h"
#include "host/mom/redis/scripts.h"
#include "host/mom/redis/sync.h"
#include "host/mom/store.h"
#include "host/mom/turn_queue.h"

namespace mom {

class RedisStore final : public Store {
 public:
  RedisStore(StoreEvents &events, TurnQueue &later, Endpoint endpoint, const host::Config::Mom &config);
  ~RedisStore() override;

  // Looks whether the server can be used at all, waiting a little for it to start and longer for it to load. "" or why not.
  std::string probe();

  const char *kind() const override { return "redis"; }
  int connect_sync(Database &db) override;
  int connect(Database &db) override;
  int set(Slot &slot, const Key &key, Bytes packed, std::optional<int64_t> tag) override;
  int setnx_sync(Slot &slot, const Key &key, Bytes packed) override;
  int del(Slot &slot, const Key &key) override;
  int del_sync(Slot &slot, const Key &key) override;
  int publish(Slot &slot, Bytes packed) override;
  int pexpire(Slot &slot, const Key *key, uint32_t ms, qx_mom_done_cb done) override;
  int del_expire(Slot &slot, const Key *key) override;
  int del_expired(Slot &slot, int64_t tag) override;
  int get_sync(Slot &slot, const Key &key, std::vector<uint8_t> &packed) override;
  int scan_sync(Slot &slot, const Visitor &visit) override;
  int walk_sync(Slot &slot, Walk &walk, const Visitor &visit) override;
  int visit_sync(Slot &slot, std::span<const Key> keys, const Visitor &visit) override;
  bool subscribe(Slot &slot, std::function<void()> live) override;
  std::optional<Held> held(Slot &slot) override;

 private:
  struct Base;

  // Writes and deletions of one type that leave together: arguments of their commands, on the wire's form but for
  // `notifications`.
  struct Batch {
    size_t size = 0;
    size_t bytes = 0;  // of records
    size_t writes = 0;
    std::string members;  // of what is written
    std::string objects;  // each a key and a value
    std::vector<Key> deleted;
    std::string told;           // in turn, notifications of writes and the member deleted behind them
    std::string notifications;  // of the writes behind the last deletion

    void clear();  // keeps the memory
  };

  // One record type in one database.
  struct Table {
    Slot &slot;
    Base &base;
    std::string index;
    std::string prefix;  // of object keys
    std::string channel;
    std::string gone;  // channel of the keys of what was deleted
    bool channel_asked = false;
    bool channel_live = false;
    bool gone_asked = false;
    bool gone_live = false;
    bool expires = false;  // the whole type has been put under expiry
    // Objects that this process wrote and that nobody can have taken away without a word: their deletion need not ask.
    KeySet known{};
    Batch batch{};
    std::vector<std::function<void()>> waiting{};  // for the channel's confirmation
    std::vector<std::set<Key> *> scans{};          // of running scans: what was deleted meanwhile
    std::vector<std::string> expired{};            // members to take out of the index
    // Before this, nothing that the process put under expiry is past its deadline.
    std::chrono::steady_clock::time_point deadline{};
  };

  // One database.
  struct Base {
    Database &db;
    SyncConnection sync;
    std::unique_ptr<RedisLink> link;
    std::vector<std::unique_ptr<Table>> tables;  // by RecordType::id()
    std::map<std::string, Table *, std::less<>> channels;
    std::vector<Table *> open;  // those with a batch, in the order in which they were begun
    bool flush_planned = false;
  };

  Base &base(Database &db);
  Table &table(Slot &slot);
  RedisLink &link(Table &table) { return *table.base.link; }

  int write(Table &table, const Key &key, Bytes packed, int64_t tag);
  void add_write(Table &table, const Key &key, std::string_view member, std::string_view tag, Bytes packed);
  void add_deletion(Table &table, const Key &key);
  void joined(Table &table);
  void flush(Base &base);
  void send_batch(Table &table);
  void plan_flush(Base &base);
  void send(Table &table, Arguments arguments, Charge charge = {}, qx_mom_done_cb done = nullptr);
  enum class Where : bool { anywhere, where_writes_are_taken };
  void pass(Table &table, const Script &script, Where where, std::vector<std::string> arguments, qx_mom_done_cb done = nullptr);
  static RedisLink::Formatted part(const Table &table, const Script &script, std::string_view cursor, std::string_view state,
                                   std::vector<std::string> arguments);
  void watch_deletions(Table &table);

  // Runs `ask` on the synchronous connection after every write given before; null when that is not possible in time.
  // Whether an answer has to know of everything written so far; waiting for that takes as long as there are many writes.
  enum class Sees { all_writes, what_is_there };
  Reply synchronously(Base &base, const std::function<Reply(SyncConnection &)> &ask, Sees sees = Sees::all_writes);
  // The number that the server answers, 0 for nil.
  std::optional<size_t> number(Base &base, Arguments question);
  size_t estimated_bytes(Table &table, size_t objects);
  bool read_some_members(Table &table, std::string &cursor, size_t about, std::vector<Key> &keys, Sees sees = Sees::all_writes);
  bool read_members(Table &table, std::vector<Key> &keys);
  enum class Visited { all, ended, failed };
  Visited visit_batch(Table &table, std::span<const Key> keys, const std::set<Key> &deleted, const Visitor &visit,
                      Sees sees = Sees::all_writes);

  void up(Base &base);
  void unsure(Base &base);
  bool is_stored(Table &table, const Key &key);
  void subscribed(Base &base, std::string_view channel);
  void message(Base &base, std::string_view channel, std::string_view payload);
  using Take = void (RedisStore::*)(Table &table, const Key &key, const Notification &notification);
  void notifications(Table &table, std::string_view payload, Take take);
  void heard(Table &table, const Key &key, const Notification &notification);
  void gone(Table &table, const Key &key, const Notification &notification);
  void expired(Base &base, std::string_view object);
  void deleted(Table &table, const Key &key, Bytes packed);
  void forget_expired(Table &table);

  StoreEvents &events_;
  TurnQueue &later_;
  Endpoint endpoint_;
  std::chrono::milliseconds limit_;  // of a synchronous call
  std::chrono::milliseconds dead_after_;
  size_t scan_batch_;
  std::deque<Base> bases_;
};

}  // namespace mom
