// The object store in a Redis server. Loop's thread.
//
// On the server, in database n (SELECT n):
//
//   key      "s_policy_kelim.flow:17:0"  string: tag (8 bytes, little-endian), packed record
//   index    "s_policy_kelim.flow"       set of the variable parts ("17:0") of the type's keys; for scans and whole types
//   channel  "n:s_policy_kelim.flow"     writes and deletions: one notification after another
//   channel  "n:s_policy_kelim.flow-"    deletions again, without the last records: for processes that write the type but do not
//                                        subscribe to it
//
// A notification is its kind, the variable part, a zero byte, the length of the rest (4 bytes, little-endian), the packed record.
// Kinds: W written, C / R written for the first time / again (hash-class types), D deleted (with the stored value, or nothing if
// the value was foreign), P published. Expiries come as Redis's own key-event notifications.
//
// Writes and deletions of one type within a turn of the loop form a batch, sent as one transaction: index, objects and
// notifications change together, and a server that is out of memory refuses all of it. So an object never lacks its member in the
// index, but a member may lack its object, which has expired. Batches are sent in the order in which they were begun. Commands
// that are not batched (meters, publishing, expiry, synchronous calls) keep their place: open batches are sent first.
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

namespace host::mom {

class RedisStore final : public Store {
 public:
  RedisStore(StoreEvents &events, TurnQueue &later, RedisEndpoint endpoint, const Config::Mom &config);
  ~RedisStore() override;

  // Checks that the server is usable, waiting briefly for it to start and longer for it to load its data. Returns "" or why it is
  // not.
  std::string probe();

  const char *kind() const override { return "redis"; }
  int connect_sync(Database &db) override;
  int connect(Database &db) override;
  int set(Slot &slot, const Key &key, PackedBytes packed, std::optional<std::int64_t> tag) override;
  int setnx_sync(Slot &slot, const Key &key, PackedBytes packed) override;
  int del(Slot &slot, const Key &key) override;
  int del_sync(Slot &slot, const Key &key) override;
  int publish(Slot &slot, PackedBytes packed) override;
  int pexpire(Slot &slot, const Key *key, std::uint32_t ms, qx_mom_done_cb done) override;
  int del_expire(Slot &slot, const Key *key) override;
  int del_expired(Slot &slot, std::int64_t tag) override;
  int get_sync(Slot &slot, const Key &key, std::vector<std::uint8_t> &packed) override;
  int scan_sync(Slot &slot, const Visitor &visit) override;
  int walk_sync(Slot &slot, Walk &walk, const Visitor &visit) override;
  int visit_sync(Slot &slot, std::span<const Key> keys, const Visitor &visit) override;
  bool subscribe(Slot &slot, std::function<void()> live) override;
  std::optional<Held> held(Slot &slot) override;

 private:
  struct Base;

  // Writes and deletions of one type that are sent together: the arguments of their commands, in wire format except for
  // `notifications`.
  struct Batch {
    std::size_t size = 0;
    std::size_t bytes = 0;  // of the records written
    std::size_t writes = 0;
    std::string members;  // of the index, for the objects written
    std::string objects;  // pairs of key and value
    std::vector<Key> deleted;
    std::string told;           // alternately notifications of writes and the member deleted after them
    std::string notifications;  // of the writes after the last deletion

    void clear();  // keeps the capacity
  };

  // One record type in one database.
  struct Table {
    Slot &slot;
    Base &base;
    std::string index;
    std::string prefix;  // of the objects' keys
    std::string channel;
    std::string gone;  // the channel with the keys of deleted objects
    bool channel_asked = false;
    bool channel_live = false;
    bool gone_asked = false;
    bool gone_live = false;
    bool expires = false;  // the whole type is under expiry
    // Objects that this process wrote and that cannot have been deleted unnoticed: they are deleted without a query.
    KeySet known{};
    Batch batch{};
    std::vector<std::function<void()>> waiting{};  // for the channel's confirmation
    std::vector<std::set<Key> *> scans{};          // the keys deleted during each running scan
    std::vector<std::string> expired{};            // members to be removed from the index
    // No object put under expiry by this process is due earlier: with the whole type, or on its own since then.
    std::chrono::steady_clock::time_point deadline{};
    std::chrono::steady_clock::time_point own_deadline = std::chrono::steady_clock::time_point::max();
  };

  // One database.
  struct Base {
    Database &db;
    SyncConnection sync;
    std::unique_ptr<RedisLink> link;
    std::vector<std::unique_ptr<Table>> tables;  // by RecordType::id()
    std::map<std::string, Table *, std::less<>> channels;
    std::vector<Table *> open;  // tables with a batch, in the order in which the batches were begun
    bool flush_planned = false;
  };

  Base &base(Database &db);
  Table &table(Slot &slot);
  RedisLink &link(Table &table) { return *table.base.link; }

  int write(Table &table, const Key &key, PackedBytes packed, std::int64_t tag);
  void add_write(Table &table, const Key &key, std::string_view member, std::string_view tag, PackedBytes packed);
  void add_deletion(Table &table, const Key &key);
  void joined(Table &table);
  void flush(Base &base);
  void send_batch(Table &table);
  void plan_flush(Base &base);
  void send(Table &table, Arguments arguments, Charge charge = {}, qx_mom_done_cb done = nullptr);
  enum class Where : bool { anywhere, where_writes_are_taken };
  void pass(Table &table, const RedisScript &script, Where where, std::vector<std::string> arguments,
            qx_mom_done_cb done = nullptr);
  static RedisLink::Formatted part(Table &table, const RedisScript &script, std::string_view cursor, std::string_view state,
                                   std::vector<std::string> arguments);
  void watch_deletions(Table &table);

  // Whether a reply must reflect all earlier writes; the more writes are in flight, the longer that takes.
  enum class Sees { all_writes, what_is_there };
  // Runs `ask` on the synchronous connection; null when that is not possible in time.
  RedisReply synchronously(Base &base, const std::function<RedisReply(SyncConnection &)> &ask, Sees sees = Sees::all_writes);
  // The integer that the server replies, 0 for nil.
  std::optional<std::size_t> number(Base &base, Arguments question);
  std::size_t estimated_bytes(Table &table, std::size_t objects);
  bool read_some_members(Table &table, std::string &cursor, std::size_t about, std::vector<Key> &keys,
                         Sees sees = Sees::all_writes);
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
  void deleted(Table &table, const Key &key, PackedBytes packed);
  void forget_expired(Table &table);

  StoreEvents &events_;
  TurnQueue &later_;
  RedisEndpoint endpoint_;
  std::chrono::milliseconds limit_;  // of a synchronous call
  std::chrono::milliseconds dead_after_;
  std::size_t scan_batch_;
  std::deque<Base> bases_;
};

}  // namespace host::mom
