// The client: connections, subscriptions with their data-fetch signals, and decoding for subscribers and scans. One hub lives as
// long as the runtime. Loop's thread.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/mom/database.h"
#include "host/mom/record/arena.h"
#include "host/mom/store.h"
#include "host/mom/turn_queue.h"
#include "qx_mom.h"

namespace host::mom {

class Hub final : public StoreEvents {
 public:
  Hub();
  ~Hub();
  void adopt(std::unique_ptr<Store> store) { store_ = std::move(store); }

  Store &store() { return *store_; }
  TurnQueue &later() { return later_; }

  // Null for any number but QX_MOM_*_DB.
  Database *database(std::int32_t number);
  std::deque<Database> &databases() { return databases_; }
  const std::deque<Database> &databases() const { return databases_; }
  Slot &slot(Database &db, const RecordType &type) { return db.slot(type); }

  int connect(Database &db, qx_mom_connect_cb callback, const char *label);
  int set_reconnect(Database &db, qx_mom_reconnect_cb callback);
  // With `first`, called before the existing subscriptions.
  int subscribe(Slot &slot, bool packed, qx_mom_notify_cb callback, bool first = false);
  // Lasts as long as the watcher lives. False when the slot's changes do not reach this process.
  bool watch(Slot &slot, const std::shared_ptr<Watcher> &watcher);

  // True when every database that the process connects to asynchronously is up. A subscriber that replays or reads everything
  // needs them all: until then, and until every subscription is confirmed, data-fetch signals are held back. After an outage the
  // signals of all databases therefore come together.
  bool all_up() const;
  // True when, in addition, none refuses writes.
  bool takes_writes() const;

  // ---- what the store reports

  // Answers the connect that has waited longest.
  void connected(Database &db) override;
  void disconnected(Database &db) override { db.up = false; }
  void reconnect(Database &db, std::int32_t type) override;
  void look_again(Database &db) override;
  void deliver(Slot &slot, Change change, PackedBytes packed, const Key *key = nullptr) override;
  // Counts by kind and record type and logs the first of each with its key. Keys without a record type of the schema count as
  // type "foreign".
  void skip(const char *kind, const std::string &key) override;
  void count_refused(std::size_t writes) override { refused_ += writes; }

  // ---- decoding

  // Calls `cb` with the record, laid out like the notification of a write. Skips bytes that are not a record of the type with
  // that key.
  void present(Slot &slot, const Key &key, PackedBytes packed, qx_mom_scan_cb cb, void *arg);
  // As present(), but returns an object that the caller owns and releases with free_object(); null for skipped bytes.
  qx_obj *make_object(Slot &slot, const Key &key, PackedBytes packed);

  // Numbers skipped, by "type: kind".
  const std::unordered_map<std::string, std::uint64_t> &skipped() const { return skipped_; }

  std::uint64_t delivered() const { return delivered_; }
  // Writes that were accepted but then refused by the database.
  std::uint64_t refused() const { return refused_; }

 private:
  void listen(Slot &slot, Subscription &subscription);
  void listen_at_last(Database &db);
  bool listen(Slot &slot, const std::weak_ptr<Watcher> &watcher);
  void confirmed(Subscription &subscription);
  void data_fetch(Slot &slot, Subscription &subscription);
  void give_held_signals();
  bool all_heard() const;
  void tell_watchers(Slot &slot, Change change, PackedBytes packed, const Key *key);
  // Null, and counted as skipped, for bytes that are not a record of the type or, if `key` is given, for a record with another
  // key.
  ProtobufCMessage *unpack(const Slot &slot, PackedBytes packed, const Key *key, bool stored, ProtobufCAllocator *allocator);
  void skip_broken(const Slot &slot, const Key *key);

  std::deque<Database> databases_;
  Arena arena_;
  std::unordered_map<std::string, std::uint64_t> skipped_;
  std::uint64_t delivered_ = 0;
  std::uint64_t refused_ = 0;
  TurnQueue later_;
  std::unique_ptr<Store> store_;
};

void free_object(qx_obj *object);

// The process's hub; null while there is no runtime.
Hub *hub();

}  // namespace host::mom
