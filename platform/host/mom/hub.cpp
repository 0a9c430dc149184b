#include "host/mom/hub.h"

#include <algorithm>
#include <cstddef>

#include "host/base/services.h"
#include "host/log/log.h"
#include "host/mom/record/render.h"

namespace host::mom {

namespace {

constexpr std::size_t kKeyShown = 200;  // bytes of a key in a log line; foreign keys may be anything

// The command that QX_MOM_DECODED subscribers and scans get for a change, of a plain type and of a hash-class type.
struct Command {
  std::uint32_t plain;
  std::uint32_t hash_class;
};
constexpr Command kCommands[] = {
    {QX_MOM_CMD_SET, QX_MOM_CMD_HASH_NEW},     // Change::created
    {QX_MOM_CMD_SET, QX_MOM_CMD_HASH_SET},     // Change::rewritten
    {QX_MOM_CMD_DEL, QX_MOM_CMD_DEL},          // Change::deleted
    {QX_MOM_CMD_PUBLISH, QX_MOM_CMD_PUBLISH},  // Change::published
};

std::uint32_t command_of(Change change, bool hash_class) {
  const Command &command = kCommands[static_cast<std::size_t>(change)];
  return hash_class ? command.hash_class : command.plain;
}

bool needs_holder(std::uint32_t cmd) {
  return cmd == QX_MOM_CMD_HASH_NEW || cmd == QX_MOM_CMD_HASH_SET;
}

// A decoded object in the layout of its command.
struct Decoded {
  qx_obj object{};
  qx_mom_hash_value holder{};

  void fill(std::uint32_t cmd, ProtobufCMessage *record) {
    object.cmd = cmd;
    holder.record = record;
    object.value = needs_holder(cmd) ? static_cast<void *>(&holder) : record;
  }
};

}  // namespace

Hub::Hub() : later_(*this) {
  for (std::int32_t number : {QX_MOM_ASIC_DB, QX_MOM_APP_DB, QX_MOM_UDP_DB}) databases_.emplace_back().number = number;
}

Hub::~Hub() = default;

Database *Hub::database(std::int32_t number) {
  const auto found = std::find_if(databases_.begin(), databases_.end(), [&](const Database &db) { return db.number == number; });
  return found == databases_.end() ? nullptr : &*found;
}

int Hub::connect(Database &db, qx_mom_connect_cb callback, const char *label) {
  db.connecting.push_back({callback, label});
  const int rv = store_->connect(db);
  if (rv == 0)
    db.wanted = true;
  else
    db.connecting.pop_back();
  return rv;
}

void Hub::connected(Database &db) {
  db.up = true;
  listen_at_last(db);
  if (db.connecting.empty()) return;
  const Database::Connect connect = db.connecting.front();
  db.connecting.erase(db.connecting.begin());
  const int rv = connect.callback(&db, connect.label);
  if (rv != 0) give_up("the connect callback of database " + std::to_string(db.number) + " gave " + std::to_string(rv));
  give_held_signals();
}

bool Hub::all_up() const {
  return std::all_of(databases_.begin(), databases_.end(), [](const Database &db) { return db.up || !db.wanted; });
}

int Hub::set_reconnect(Database &db, qx_mom_reconnect_cb callback) {
  if (std::find(db.reconnect.begin(), db.reconnect.end(), callback) == db.reconnect.end()) db.reconnect.push_back(callback);
  return 0;
}

int Hub::subscribe(Slot &slot, bool packed, qx_mom_notify_cb callback, bool first) {
  const auto same = [&](const auto &known) { return known->callback == callback && known->packed == packed; };
  auto found = std::find_if(slot.subscriptions.begin(), slot.subscriptions.end(), same);
  if (found == slot.subscriptions.end()) {
    found = slot.subscriptions.insert(first ? slot.subscriptions.begin() : slot.subscriptions.end(),
                                      std::make_unique<Subscription>(Subscription{callback, packed}));
  }
  (*found)->owed = false;
  listen(slot, **found);
  return 0;
}

bool Hub::watch(Slot &slot, const std::shared_ptr<Watcher> &watcher) {
  if (!listen(slot, watcher)) return false;
  slot.watchers.push_back(watcher);
  return true;
}

void Hub::listen(Slot &slot, Subscription &subscription) {
  subscription.asked = store_->subscribe(slot, [this, &subscription] { confirmed(subscription); });
  subscription.asking = subscription.asked;
}

// The host's own services may have subscribed before the process connected to the database.
void Hub::listen_at_last(Database &db) {
  for (std::size_t i = 0; i < db.slots.size(); ++i)
    for (std::size_t n = 0; db.slots[i] && n < db.slots[i]->subscriptions.size(); ++n)
      if (Subscription &subscription = *db.slots[i]->subscriptions[n]; !subscription.asked) listen(*db.slots[i], subscription);
}

bool Hub::listen(Slot &slot, const std::weak_ptr<Watcher> &watcher) {
  return store_->subscribe(slot, [&slot, watcher] {
    if (const auto living = watcher.lock()) living->live(slot);
  });
}

void Hub::reconnect(Database &db, std::int32_t type) {
  const bool up = type == 1 || type == 2;
  db.up = up;
  db.reconnects += up;
  if (up) {
    for (auto &slot : db.slots) {
      if (!slot) continue;
      for (auto &subscription : slot->subscriptions) subscription->owed = true;
    }
  }
  for (std::size_t i = 0; i < db.reconnect.size(); ++i) {
    const int rv = db.reconnect[i](&db, db.number, type);
    if (rv != 0) log::error("the reconnect callback of database {} gave {}", db.number, rv);
  }
  if (!up) return;
  for (std::size_t i = 0; i < db.slots.size(); ++i) {
    if (!db.slots[i]) continue;
    Slot &slot = *db.slots[i];
    for (auto &subscription : slot.subscriptions) {
      if (std::exchange(subscription->owed, false)) listen(slot, *subscription);
    }
    for (const auto &watcher : slot.watchers) listen(slot, watcher);
  }
  give_held_signals();
}

bool Hub::takes_writes() const {
  return all_up() && std::all_of(databases_.begin(), databases_.end(), [](const Database &db) { return db.refusing.empty(); });
}

void Hub::look_again(Database &db) {
  if (!db.up) return;
  for (std::size_t i = 0; i < db.slots.size(); ++i)
    for (std::size_t n = 0; db.slots[i] && n < db.slots[i]->subscriptions.size(); ++n)
      listen(*db.slots[i], *db.slots[i]->subscriptions[n]);
}

// By index: a callback may add slots and subscriptions.
void Hub::give_held_signals() {
  for (Database &db : databases_)
    for (std::size_t i = 0; i < db.slots.size(); ++i)
      for (std::size_t n = 0; db.slots[i] && n < db.slots[i]->subscriptions.size(); ++n)
        if (Subscription &subscription = *db.slots[i]->subscriptions[n]; subscription.held && all_up() && all_heard())
          data_fetch(*db.slots[i], subscription);
}

bool Hub::all_heard() const {
  for (const Database &db : databases_)
    for (const auto &slot : db.slots)
      if (slot && std::ranges::any_of(slot->subscriptions, [](const auto &one) { return one->asking; })) return false;
  return true;
}

void Hub::confirmed(Subscription &subscription) {
  subscription.live = subscription.held = true;
  subscription.asking = false;
  give_held_signals();
}

void Hub::data_fetch(Slot &slot, Subscription &subscription) {
  subscription.held = false;
  qx_obj object{};
  object.cmd = QX_MOM_CMD_DATA_FETCH;
  subscription.callback(&slot.db, &object);
}

void Hub::deliver(Slot &slot, Change change, PackedBytes packed, const Key *key) {
  ++delivered_;
  if (!slot.watchers.empty()) tell_watchers(slot, change, packed, key);
  const Arena::Scope scope(arena_);
  Decoded decoded;
  qx_obj bytes{};
  bytes.cmd = command_of(change, false);
  bytes.packed = packed.data();
  bytes.packed_len = static_cast<std::uint32_t>(packed.size());

  enum { kUntried, kGood, kBad } state = kUntried;
  const std::size_t count = slot.subscriptions.size();  // a callback's additions start with the next change
  for (std::size_t i = 0; i < count; ++i) {
    const Subscription &subscription = *slot.subscriptions[i];
    if (!subscription.live) continue;
    if (subscription.packed) {
      subscription.callback(&slot.db, &bytes);
      continue;
    }
    if (state == kUntried) {
      ProtobufCMessage *record = unpack(slot, packed, key, change != Change::published, arena_.allocator());
      state = record ? kGood : kBad;
      decoded.fill(command_of(change, slot.type.hash_class()), record);
    }
    if (state == kGood) subscription.callback(&slot.db, &decoded.object);
  }
}

void Hub::tell_watchers(Slot &slot, Change change, PackedBytes packed, const Key *key) {
  std::erase_if(slot.watchers, [](const auto &watcher) { return watcher.expired(); });
  for (const auto &watcher : slot.watchers) watcher.lock()->changed(slot, change, packed, key);
}

ProtobufCMessage *Hub::unpack(const Slot &slot, PackedBytes packed, const Key *key, bool stored, ProtobufCAllocator *allocator) {
  ProtobufCMessage *record = protobuf_c_message_unpack(&slot.type.descriptor(), allocator, packed.size(), packed.data());
  if (record && (!stored || slot.type.belongs(*record, key))) return record;
  protobuf_c_message_free_unpacked(record, allocator);
  skip_broken(slot, key);
  return nullptr;
}

void Hub::present(Slot &slot, const Key &key, PackedBytes packed, qx_mom_scan_cb cb, void *arg) {
  const Arena::Scope scope(arena_);
  ProtobufCMessage *record = unpack(slot, packed, &key, true, arena_.allocator());
  if (!record) return;
  Decoded decoded;
  decoded.fill(command_of(Change::rewritten, slot.type.hash_class()), record);
  cb(&decoded.object, arg);
}

qx_obj *Hub::make_object(Slot &slot, const Key &key, PackedBytes packed) {
  ProtobufCMessage *record = unpack(slot, packed, &key, true, nullptr);
  if (!record) return nullptr;
  auto *decoded = new Decoded;
  decoded->fill(command_of(Change::rewritten, slot.type.hash_class()), record);
  return &decoded->object;
}

void free_object(qx_obj *object) {
  static_assert(std::is_standard_layout_v<Decoded> && offsetof(Decoded, object) == 0);
  if (!object) return;
  auto *decoded = reinterpret_cast<Decoded *>(object);
  protobuf_c_message_free_unpacked(decoded->holder.record, nullptr);
  delete decoded;
}

void Hub::skip(const char *kind, const std::string &key) {
  const RecordType *type = RecordType::named(std::string_view(key).substr(0, key.find(':')));
  if (skipped_[std::string(type ? type->name() : "foreign") + ": " + kind]++ == 0)
    log::error("database: skipped {}: {} (further ones are only counted)", printable(key, kKeyShown), kind);
}

void Hub::skip_broken(const Slot &slot, const Key *key) {
  skip("the value is no record of its type", key ? slot.type.text(*key) : std::string(slot.type.name()));
}

}  // namespace host::mom
