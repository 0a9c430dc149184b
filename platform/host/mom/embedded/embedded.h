// The object store in the process's own memory: one sorted index per type, one exact allocation per object. Loop's thread.
//
// The expiry of a whole type has no cost per object: the table keeps one deadline and a generation number, and the deadline holds
// for objects of an older generation than the table's. A rewrite sets the current generation, which takes the object out of the
// expiry. Objects expire when the loop runs its timers, not while a callback works: an object that a long callback rewrites is
// not deleted in between.
//
// Overwrite tags are not kept: expired objects are deleted anyway, so nothing here depends on a tag.
#pragma once

#include <deque>
#include <memory>

#include "host/base/timer.h"
#include "host/mom/embedded/expiry.h"
#include "host/mom/record/sorted_index.h"
#include "host/mom/store.h"
#include "host/mom/turn_queue.h"

namespace host::mom {

class Embedded final : public Store {
 public:
  Embedded(StoreEvents &events, TurnQueue &later);

  const char *kind() const override { return "embedded"; }
  int connect_sync(Database &db) override;
  int connect(Database &db) override;
  int set(Slot &slot, const Key &key, PackedBytes packed, std::optional<std::int64_t> tag) override;
  int setnx_sync(Slot &slot, const Key &key, PackedBytes packed) override;
  int del(Slot &slot, const Key &key) override;
  int del_sync(Slot &slot, const Key &key) override { return del(slot, key); }
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
  void provoke_reconnect(Database &db, std::int32_t type) override;

 private:
  using Time = clock::Time;
  struct Table {
    Slot &slot;
    SortedIndex index;
    std::size_t object_bytes = 0;
    std::uint32_t generation = 1;
    std::uint32_t scans = 0;
    std::optional<Time> deadline;  // for objects of an older generation
    std::optional<Key> swept;      // the last object that the sweep for that deadline has seen
    Expiry own;
  };

  Table &table(Slot &slot);
  void notify(Table &table, Change change, const ObjectRef &object);
  int write(Table &table, const SortedIndex::Place &place, const Key &key, PackedBytes packed);
  void remove(Table &table, const SortedIndex::Place &place, const Key &key);
  void drop_own(Table &table);
  void set_deadline(Table &table, std::optional<Time> deadline);
  void forget_expiry(Table &table, const Key &key, Object &object);

  void arm();
  void sweep();
  bool sweep_template(Table &table);
  void sweep_own(Table &table, Time now);

  StoreEvents &events_;
  TurnQueue &later_;
  std::deque<std::unique_ptr<Table>> tables_;
  std::vector<std::vector<Table *>> by_slot_;  // by database, by RecordType::id()
  Timer timer_;
};

}  // namespace host::mom
