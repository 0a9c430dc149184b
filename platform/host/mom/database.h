// The databases of a process, the record types in them and who listens to those: what the client (hub.h) and its store (store.h)
// both know. Plain state; loop's thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/cgst/cgst.h"
#include "host/mom/record/record_type.h"
#include "qx_mom.h"

namespace mom {

struct Database;
struct Slot;

// What became of an object.
enum class Change : uint8_t { created, rewritten, deleted, published };

struct Subscription {
  qx_mom_notify_cb callback;
  bool packed;
  bool live = false;
  bool asked = false;   // the store has taken it; before its database was connected it could not
  bool asking = false;  // and has not confirmed it yet
  // A repeated data-fetch signal that a reconnect owes; asking again for the subscription takes it over.
  bool owed = false;
  // The signal is due and waits until every database is up and heard.
  bool held = false;
};

// Looks on at the changes of a slot for an operator: gets their bytes as they are, broken ones too.
class Watcher {
 public:
  virtual ~Watcher() = default;
  // From here on changes are seen.
  virtual void live(Slot &slot) = 0;
  virtual void changed(Slot &slot, Change change, Bytes packed, const Key *key) = 0;
};

// One record type in one database.
struct Slot {
  Database &db;
  const RecordType &type;
  std::vector<std::unique_ptr<Subscription>> subscriptions;
  std::vector<std::weak_ptr<Watcher>> watchers;  // those that ended go with the next change
  cgst::Topic topic;
  // Told of each write and deletion of a record by this process, inside the call; null: nobody is.
  using Wrote = void (*)(const Slot &slot, const ProtobufCMessage &record, bool deletes, int result);
  Wrote wrote = nullptr;

  bool heard() const { return !subscriptions.empty() || !watchers.empty(); }
};

// Its address is the connection handle that callbacks get.
struct Database {
  struct Connect {
    qx_mom_connect_cb callback;
    const char *label;
  };
  int32_t number;
  bool sync_up = false;
  bool up = false;
  uint64_t reconnects = 0;  // times it came back
  bool wanted = false;      // connected asynchronously, or on the way to it
  std::string refusing;     // why the server refuses writes though it answers; empty while it takes them
  bool exclusive = false;   // only one process of this name may work on it
  bool congestion_control = false;
  std::vector<Connect> connecting;  // asked for, not yet called
  std::vector<qx_mom_reconnect_cb> reconnect;
  std::vector<std::unique_ptr<Slot>> slots;  // by RecordType::id()

  // The slot of a record type, made when it is first asked for.
  Slot &slot(const RecordType &type);
};

}  // namespace mom
