// The interface of an object store: objects by type and key, with expiry and tags. The two stores keep them in the process's
// memory (embedded/) and in Redis (redis/); the client (hub.h) drives one of them. Loop's thread.
//
// A store knows bytes and keys, not records. It reports events as StoreEvents, in a later turn of the loop than the call that
// caused it (turn_queue.h). Results are those of qx_mom.h.
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

namespace host::mom {

// Added to the expiry of a whole type for each of its objects: several times the cost of a rewrite, so that the expiry never
// overtakes a client that renews a large type object by object.
inline constexpr std::chrono::microseconds kExpiryPerObject(100);

// Sees one object of a scan; the bytes are valid until it returns. False ends the scan.
using Visitor = std::function<bool(const Key &key, PackedBytes packed)>;

// The events that a store reports to the client.
class StoreEvents {
 public:
  // The connection is up; once for each Store::connect().
  virtual void connected(Database &db) = 0;
  // The connection is lost: calls fail from here on, and a reconnect type follows in a later turn. The only event that may be
  // reported from inside a call.
  virtual void disconnected(Database &db) = 0;
  // The connection changed; types of qx_mom.h. After 1 and 2 every subscription gets its data-fetch signal again.
  virtual void reconnect(Database &db, std::int32_t type) = 0;
  // The connection held, but writes were refused or everything was deleted: every subscription gets its data-fetch signal again.
  virtual void look_again(Database &db) = 0;
  // An object changed. `key` is null if the store does not know it; the log shows it when the bytes are not a record.
  virtual void deliver(Slot &slot, Change change, PackedBytes packed, const Key *key) = 0;
  // A value in the database, or a notification, is unusable. `kind` is a literal that says why, `key` the object's name as found.
  virtual void skip(const char *kind, const std::string &key) = 0;
  // The server refused writes that the store had accepted.
  virtual void count_refused(std::size_t writes) = 0;

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

  // Without `tag` the object's tag is cleared.
  virtual int set(Slot &slot, const Key &key, PackedBytes packed, std::optional<std::int64_t> tag) = 0;
  virtual int setnx_sync(Slot &slot, const Key &key, PackedBytes packed) = 0;
  virtual int del(Slot &slot, const Key &key) = 0;
  virtual int del_sync(Slot &slot, const Key &key) = 0;
  virtual int publish(Slot &slot, PackedBytes packed) = 0;

  // A null key means every object of the type, with `kExpiryPerObject` added for each. `done` may be null.
  virtual int pexpire(Slot &slot, const Key *key, std::uint32_t ms, qx_mom_done_cb done) = 0;
  virtual int del_expire(Slot &slot, const Key *key) = 0;
  // Deletes objects past their deadline that the store has not noticed yet. Those that it notices it deletes anyway, whatever
  // their tag.
  virtual int del_expired(Slot &slot, std::int64_t tag) = 0;

  // -7 when the object does not exist, kForeign when the stored value was not written by this system.
  static constexpr int kForeign = -8;
  virtual int get_sync(Slot &slot, const Key &key, std::vector<std::uint8_t> &packed) = 0;
  // In key order. Objects that the visitor adds are not visited, nor those that it deletes before their turn.
  virtual int scan_sync(Slot &slot, const Visitor &visit) = 0;

  // The position in a walk over all objects of a slot, which may take many turns of the loop. Only the store reads it.
  struct Walk {
    std::optional<Key> after;
    std::string cursor = "0";
  };
  // Visits the next few hundred objects of a walk; 1 while there may be more, 0 at the end, -1 when the database does not answer.
  // Objects created or deleted between two calls may or may not be visited, likewise writes in flight, and an object may be
  // visited twice. The visitor must not write or delete.
  virtual int walk_sync(Slot &slot, Walk &walk, const Visitor &visit) = 0;
  // Visits those objects that exist among a few hundred keys, after all writes given so far; 0, or -1 when the database does not
  // answer. The visitor must not write or delete.
  virtual int visit_sync(Slot &slot, std::span<const Key> keys, const Visitor &visit) = 0;

  // Reports the slot's changes from now on. `live` runs in a later turn, once the subscription is confirmed, unless the
  // connection ends first. False when the process never connected to the database, so that no changes can reach it.
  virtual bool subscribe(Slot &slot, std::function<void()> live) = 0;

  // A slot's figures for the views: objects, their approximate size in bytes, subscribers. std::nullopt when the database does
  // not answer.
  struct Held {
    std::size_t objects;
    std::size_t bytes;
    std::size_t subscribers;
  };
  virtual std::optional<Held> held(Slot &slot) = 0;

  // For tests: has the same effect on the store itself as a reconnect of `type`.
  virtual void provoke_reconnect(Database &, std::int32_t) {}
};

}  // namespace host::mom
