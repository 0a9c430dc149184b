// What an object store offers to the client (hub.h): objects by type and key, expiry, tags. Two stores implement it, in the
// process's own memory (embedded/) and in Redis (redis/). Loop's thread.
//
// A store knows bytes and keys, not records. What happens it reports as StoreEvents, in a later turn than the call that caused it
// (turn_queue.h). Results are those of qx_mom.h.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/mom/database.h"
#include "qx_mom.h"

namespace mom {

// What a whole type's expiry is longer by for each object that it holds, several times as long as it takes to write one anew: who
// renews a large type object by object is never overtaken by its expiry.
inline constexpr std::chrono::microseconds kExpiryPerObject(100);

// Looks at an object of a scan; the bytes live until it returns. False ends the scan.
using Visitor = std::function<bool(const Key &key, Bytes packed)>;

// What a store reports to the client.
class StoreEvents {
 public:
  // The connection is up; once for each Store::connect().
  virtual void connected(Database &db) = 0;
  // The connection is lost: calls fail from here on, and a reconnect type follows in a later turn. The only event that may come
  // from inside a call.
  virtual void disconnected(Database &db) = 0;
  // The connection changed; types of qx_mom.h. After 1 and 2 every subscription gets its data-fetch signal again.
  virtual void reconnect(Database &db, int32_t type) = 0;
  // Writes were lost, or what was there has gone, though the connection held: every subscription gets its data-fetch signal
  // again.
  virtual void look_again(Database &db) = 0;
  // An object changed. `key` where the store knows it: what the log shows of bytes that are no record.
  virtual void deliver(Slot &slot, Change change, Bytes packed, const Key *key) = 0;
  // Something in the database, or in a notification, cannot be used. `kind` is a literal, `key` names the object or what stands
  // in its place.
  virtual void skip(const char *kind, const std::string &key) = 0;
  // The database refused writes that had been accepted.
  virtual void count_refused(size_t writes) = 0;

 protected:
  ~StoreEvents() = default;
};

class Store {
 public:
  virtual ~Store() = default;

  virtual const char *kind() const = 0;

  virtual int connect_sync(Database &db) = 0;
  // Reports StoreEvents::connected when the connection is up.
  virtual int connect(Database &db) = 0;

  // Written without a tag, the object has none afterwards.
  virtual int set(Slot &slot, const Key &key, Bytes packed, std::optional<int64_t> tag) = 0;
  virtual int setnx_sync(Slot &slot, const Key &key, Bytes packed) = 0;
  virtual int del(Slot &slot, const Key &key) = 0;
  virtual int del_sync(Slot &slot, const Key &key) = 0;
  virtual int publish(Slot &slot, Bytes packed) = 0;

  // Null key: every object of the type, and `kExpiryPerObject` is added for each. `done` may be null.
  virtual int pexpire(Slot &slot, const Key *key, uint32_t ms, qx_mom_done_cb done) = 0;
  virtual int del_expire(Slot &slot, const Key *key) = 0;
  // Has what is past its deadline and not yet noticed by the store go now. What is noticed goes by itself, whatever its tag.
  virtual int del_expired(Slot &slot, int64_t tag) = 0;

  // -7 when there is none, kForeign when what is stored there is no value of ours.
  static constexpr int kForeign = -8;
  virtual int get_sync(Slot &slot, const Key &key, std::vector<uint8_t> &packed) = 0;
  // In key order. Objects that the visitor adds are not visited, those that it deletes first neither.
  virtual int scan_sync(Slot &slot, const Visitor &visit) = 0;

  // A place in a walk over all objects of a slot that may take many turns of the loop; the store's own.
  struct Walk {
    std::optional<Key> after;
    std::string cursor = "0";
  };
  // Visits the next few hundred objects of a walk; 1 while there may be more, 0 at the end, -1 when the database does not answer.
  // What comes or goes between two calls is visited or not, writes that are on their way may be seen or not, and an object may be
  // visited twice. The visitor neither writes nor deletes.
  virtual int walk_sync(Slot &slot, Walk &walk, const Visitor &visit) = 0;
  // Visits those of a few hundred objects that are there, behind all writes; 0, or -1 when the database does not answer. The same
  // holds for the visitor.
  virtual int visit_sync(Slot &slot, std::span<const Key> keys, const Visitor &visit) = 0;

  // Reports the slot's changes from now on; `live` runs in a later turn, once that is so, unless the connection ends before.
  // False for a database whose changes do not reach this process, because it never connected.
  virtual bool subscribe(Slot &slot, std::function<void()> live) = 0;

  // How many objects the slot holds, about how many bytes they take and how many subscribers listen, for the views; nothing when
  // that cannot be had now.
  struct Held {
    size_t objects;
    size_t bytes;
    size_t subscribers;
  };
  virtual std::optional<Held> held(Slot &slot) = 0;

  // Tests: what a reconnect of `type` does to the store itself.
  virtual void provoke_reconnect(Database &, int32_t) {}
};

}  // namespace mom
