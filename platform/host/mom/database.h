// The databases of a process, their record types and subscribers: the state that the client (hub.h) and its store (store.h)
// share. Plain data; loop's thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/cgst/cgst.h"
#include "host/mom/record/record_type.h"
#include "qx_mom.h"

namespace host::mom {

struct Database;
struct Slot;

// Kinds of change of an object.
enum class Change : std::uint8_t { created, rewritten, deleted, published };

// One callback for the changes of one record type.
struct Subscription {
  qx_mom_notify_cb callback;
  bool packed;
  bool live = false;    // receives notifications
  bool asked = false;   // the store has accepted it, which it cannot before the database is connected
  bool asking = false;  // accepted by the store, but not confirmed yet
  bool owed = false;    // due another data-fetch signal after a reconnect; subscribing again settles that
  bool held = false;    // its data-fetch signal is due and waits until all databases are up and all subscriptions confirmed
};

// Shows an operator the changes of a slot: receives the raw bytes, broken records included.
class Watcher {
 public:
  virtual ~Watcher() = default;
  // From now on changes are delivered.
  virtual void live(Slot &slot) = 0;
  virtual void changed(Slot &slot, Change change, PackedBytes packed, const Key *key) = 0;
};

// One record type in one database.
struct Slot {
  Database &db;
  const RecordType &type;
  std::vector<std::unique_ptr<Subscription>> subscriptions;
  std::vector<std::weak_ptr<Watcher>> watchers;  // expired ones are removed at the next change
  cgst::Topic topic;
  // Called for each write and deletion of a record by this process, from inside that call. May be null.
  using Wrote = void (*)(const Slot &slot, const ProtobufCMessage &record, bool deletes, int result);
  Wrote wrote = nullptr;

  bool heard() const { return !subscriptions.empty() || !watchers.empty(); }
};

// One database. Its address is the connection handle that callbacks get.
struct Database {
  struct Connect {
    qx_mom_connect_cb callback;
    const char *label;
  };
  std::int32_t number;
  bool sync_up = false;
  bool up = false;
  std::uint64_t reconnects = 0;  // number of reconnections after a loss
  bool wanted = false;           // an asynchronous connect was requested
  std::string refusing;          // why the server refuses writes although it answers; empty while it accepts them
  bool exclusive = false;        // only one process of this name may use it at a time
  bool congestion_control = false;
  std::vector<Connect> connecting;  // awaiting their callback, the oldest first
  std::vector<qx_mom_reconnect_cb> reconnect;
  std::vector<std::unique_ptr<Slot>> slots;  // by RecordType::id()

  // The slot of a record type, created at the first use.
  Slot &slot(const RecordType &type);
};

}  // namespace host::mom
