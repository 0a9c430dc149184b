#include "host/mom/embedded/embedded.h"

#include <algorithm>
#include <chrono>

namespace host::mom {

namespace {

// The longest that one turn of a sweep holds the loop.
constexpr auto kSweepTurn = std::chrono::milliseconds(10);
constexpr unsigned kLookAtClockEvery = 64;
constexpr std::size_t kWalkStep = 512;

}  // namespace

Embedded::Embedded(StoreEvents &events, TurnQueue &later) : events_(events), later_(later), timer_([this] { sweep(); }) {}

int Embedded::connect_sync(Database &db) {
  db.sync_up = true;
  return 0;
}

int Embedded::connect(Database &db) {
  later_.act([this, &db] { events_.connected(db); });
  return 0;
}

Embedded::Table &Embedded::table(Slot &slot) {
  const auto db = static_cast<std::size_t>(slot.db.number);
  const std::size_t type = slot.type.id();
  if (db >= by_slot_.size()) by_slot_.resize(db + 1);
  auto &tables = by_slot_[db];
  if (type >= tables.size()) tables.resize(type + 1);
  if (!tables[type]) {
    tables_.push_back(std::unique_ptr<Table>(new Table{slot, {}, 0, 1, 0, {}, {}, {}}));
    tables[type] = tables_.back().get();
  }
  return *tables[type];
}

// ---- expiry

// Cancels any expiry of the object.
void Embedded::forget_expiry(Table &table, const Key &key, Object &object) {
  if (object.own_expiry) table.own.clear(key);
  object.own_expiry = 0;
  object.generation = table.generation;
}

void Embedded::drop_own(Table &table) {
  for (const auto &[key, due] : table.own.keys()) {
    if (const auto place = table.index.find(key); place.found) table.index.at(place)->own_expiry = 0;
  }
  table.own.clear();
}

void Embedded::set_deadline(Table &table, std::optional<Time> deadline) {
  table.deadline = deadline;
  table.swept.reset();
}

void Embedded::arm() {
  std::optional<Time> next;
  const auto earlier = [&](Time due) { next = next ? std::min(*next, due) : due; };
  for (const auto &table : tables_) {
    if (table->deadline) earlier(*table->deadline);
    if (!table->own.empty()) earlier(table->own.first().first);
  }
  if (next) {
    timer_.arm(std::max(*next - clock::now(), Time::zero()));
  } else {
    timer_.cancel();
  }
}

void Embedded::sweep() {
  const Time now = clock::now();
  for (const auto &table : tables_) {
    sweep_own(*table, now);
    if (table->deadline && now >= *table->deadline && sweep_template(*table)) set_deadline(*table, std::nullopt);
  }
  arm();
}

void Embedded::sweep_own(Table &table, Time now) {
  while (!table.own.empty() && table.own.first().first <= now) {
    const Key key = table.own.first().second;
    remove(table, table.index.find(key), key);
  }
}

// True when the whole table has been swept; otherwise a later turn continues where this one stopped.
bool Embedded::sweep_template(Table &table) {
  const auto end = std::chrono::steady_clock::now() + kSweepTurn;
  unsigned looked_at = 0;
  for (auto place = table.swept ? table.index.after(*table.swept) : table.index.first(); place.found;) {
    const Key key = table.index.key_at(place);
    if (++looked_at % kLookAtClockEvery == 0 && std::chrono::steady_clock::now() >= end) return false;
    if (table.index.at(place)->generation != table.generation) {
      remove(table, place, key);
      place = table.index.after(key);
    } else {
      place = table.index.next(place);
    }
    table.swept = key;
  }
  return true;
}

int Embedded::pexpire(Slot &slot, const Key *key, std::uint32_t ms, qx_mom_done_cb done) {
  Table &table = this->table(slot);
  const Time due = clock::now() + std::chrono::milliseconds(ms);
  if (!key) {
    drop_own(table);
    ++table.generation;
    set_deadline(table, due + table.index.size() * kExpiryPerObject);
  } else if (const auto place = table.index.find(*key); place.found) {
    forget_expiry(table, *key, *table.index.at(place));
    table.index.at(place)->own_expiry = 1;
    table.own.set(*key, due);
  }
  arm();
  if (done) later_.act([done] { done(); });
  return 0;
}

int Embedded::del_expire(Slot &slot, const Key *key) {
  Table &table = this->table(slot);
  if (!key) {
    drop_own(table);
    set_deadline(table, std::nullopt);
  } else if (const auto place = table.index.find(*key); place.found) {
    forget_expiry(table, *key, *table.index.at(place));
  }
  arm();
  return 0;
}

// Nothing to do: the timer fires at each deadline, and the sweep deletes.
int Embedded::del_expired(Slot &, std::int64_t) {
  return 0;
}

// ---- objects

void Embedded::notify(Table &table, Change change, const ObjectRef &object) {
  if (table.slot.heard()) later_.notify(table.slot, change, object);
}

int Embedded::write(Table &table, const SortedIndex::Place &place, const Key &key, PackedBytes packed) {
  if (table.slot.heard() && !table.slot.topic.admit(packed.size())) return -14;
  const ObjectRef object = ObjectRef::make(packed, key.tail);
  if (!object) return -1;
  object->generation = table.generation;
  object->born = table.scans;
  table.object_bytes += object->bytes();
  if (!place.found) {
    table.index.insert(place, key, object);
    notify(table, Change::created, object);
    return 0;
  }
  const ObjectRef old = table.index.replace(place, object);
  object->born = old->born;
  table.object_bytes -= old->bytes();
  if (old->own_expiry) table.own.clear(key);
  notify(table, Change::rewritten, object);
  return 0;
}

void Embedded::remove(Table &table, const SortedIndex::Place &place, const Key &key) {
  const ObjectRef object = table.index.erase(place);
  table.object_bytes -= object->bytes();
  if (object->own_expiry) table.own.clear(key);
  notify(table, Change::deleted, object);
}

int Embedded::set(Slot &slot, const Key &key, PackedBytes packed, std::optional<std::int64_t>) {
  Table &table = this->table(slot);
  return write(table, table.index.find(key), key, packed);
}

int Embedded::setnx_sync(Slot &slot, const Key &key, PackedBytes packed) {
  Table &table = this->table(slot);
  const auto place = table.index.find(key);
  return place.found ? 1 : write(table, place, key, packed);
}

int Embedded::del(Slot &slot, const Key &key) {
  Table &table = this->table(slot);
  const auto place = table.index.find(key);
  if (!place.found) return -7;
  remove(table, place, key);
  return 0;
}

int Embedded::publish(Slot &slot, PackedBytes packed) {
  if (!slot.heard()) return 0;
  if (!slot.topic.admit(packed.size())) return -14;
  ObjectRef object = ObjectRef::make(packed, {});
  if (!object) return -1;
  later_.notify(slot, Change::published, std::move(object));
  return 0;
}

int Embedded::get_sync(Slot &slot, const Key &key, std::vector<std::uint8_t> &packed) {
  Table &table = this->table(slot);
  const auto place = table.index.find(key);
  if (!place.found) return -7;
  const PackedBytes bytes = table.index.at(place)->packed();
  packed.assign(bytes.begin(), bytes.end());
  return 0;
}

int Embedded::scan_sync(Slot &slot, const Visitor &visit) {
  Table &table = this->table(slot);
  // Objects first written from here on are newer than this scan.
  const std::uint32_t scan = ++table.scans;
  for (auto place = table.index.first(); place.found;) {
    const Key key = table.index.key_at(place);
    const ObjectRef object(table.index.at(place));
    const std::uint64_t version = table.index.version();
    if (object->born < scan && !visit(key, object->packed())) break;
    place = version == table.index.version() ? table.index.next(place) : table.index.after(key);
  }
  return 0;
}

int Embedded::walk_sync(Slot &slot, Walk &walk, const Visitor &visit) {
  const SortedIndex &index = table(slot).index;
  auto place = walk.after ? index.after(*walk.after) : index.first();
  for (std::size_t visited = 0; place.found; place = index.next(place)) {
    const Key key = index.key_at(place);
    if (visited++ == kWalkStep) return 1;
    if (!visit(key, index.at(place)->packed())) break;
    walk.after = key;
  }
  return 0;
}

int Embedded::visit_sync(Slot &slot, std::span<const Key> keys, const Visitor &visit) {
  const SortedIndex &index = table(slot).index;
  for (const Key &key : keys)
    if (const auto place = index.find(key); place.found && !visit(key, index.at(place)->packed())) break;
  return 0;
}

bool Embedded::subscribe(Slot &, std::function<void()> live) {
  later_.act(std::move(live));
  return true;
}

std::optional<Store::Held> Embedded::held(Slot &slot) {
  const Table &table = this->table(slot);
  return Held{table.index.size(), table.object_bytes + table.index.bytes(), slot.subscriptions.size()};
}

// There is no server to lose; this only mimics the effect on the process. Type 1 means another server, which is empty.
void Embedded::provoke_reconnect(Database &db, std::int32_t type) {
  if (type != 1) return;
  for (const auto &table : tables_) {
    if (&table->slot.db != &db) continue;
    table->index.clear();
    table->own.clear();
    set_deadline(*table, std::nullopt);
    table->object_bytes = 0;
  }
}

}  // namespace host::mom
