// qx_mom.h and libcgstctrl.h in memory: one ordered map per database and record type, notifications through the loop. It never
// loses its connection, so the reconnect callbacks are never called.
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "libcgstctrl.h"
#include "platform.h"
#include "qx_mom.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Packed = std::shared_ptr<const std::vector<std::uint8_t>>;

struct Object {
  Packed packed;
  std::int64_t tag = 0;
  std::uint64_t born = 0;  // order of creation among all objects
  std::optional<Clock::time_point> due;
};

struct Subscription {
  qx_mom_notify_cb callback;
  std::uint32_t delivery;
};

struct Table {
  const ProtobufCMessageDescriptor *type;
  std::map<std::string, Object> objects;  // by the bytes of key_of
  std::vector<Subscription> subscriptions;
  bool has_topic = false;
  unsigned waiting = 0;  // writes not yet notified to the subscribers
};

struct Database {
  bool sync_up = false, up = false, congestion_control = false;
  std::map<const ProtobufCMessageDescriptor *, Table> tables;
};

struct Store {
  std::map<std::int32_t, Database> databases{{QX_MOM_ASIC_DB, {}}, {QX_MOM_APP_DB, {}}, {QX_MOM_UDP_DB, {}}};
  std::set<std::tuple<Clock::time_point, Table *, std::string>> expiries;
  std::uint64_t born = 0;
  qx_thread sweep_timer{};
};

Store *g_store = new Store;

// ---- records

constexpr char kIndex[] = "index";

template <typename T>
const T &member(const ProtobufCMessage *record, const ProtobufCFieldDescriptor &field) {
  return *reinterpret_cast<const T *>(reinterpret_cast<const char *>(record) + field.offset);
}

// The key's fields in order, encoded so that bytes compare as the fields do: numbers, and texts with a terminating zero.
std::string key_of(const ProtobufCMessage *key) {
  std::string bytes;
  for (unsigned i = 0; i < key->descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = key->descriptor->fields[i];
    if (field.type == PROTOBUF_C_TYPE_STRING) {
      const char *text = member<char *>(key, field);
      bytes.append(text, strlen(text) + 1);
    } else {
      const bool wide = field.type == PROTOBUF_C_TYPE_UINT64;
      const std::uint64_t number = wide ? member<std::uint64_t>(key, field) : member<std::uint32_t>(key, field);
      for (int shift = wide ? 56 : 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(number >> shift));
    }
  }
  return bytes;
}

// Null for a type without keys.
const ProtobufCMessageDescriptor *key_type(const ProtobufCMessageDescriptor *type) {
  const auto *field = protobuf_c_message_descriptor_get_field_by_name(type, kIndex);
  return field ? static_cast<const ProtobufCMessageDescriptor *>(field->descriptor) : nullptr;
}

const ProtobufCMessage *key_record(const ProtobufCMessage *record) {
  const auto *field = protobuf_c_message_descriptor_get_field_by_name(record->descriptor, kIndex);
  return field ? member<ProtobufCMessage *>(record, *field) : nullptr;
}

// True if the record can be packed: its pointers are valid, and every message in it has its field's type.
bool well_formed(const ProtobufCMessage *record) {
  if (!protobuf_c_message_check(record)) return false;
  const std::span fields(record->descriptor->fields, record->descriptor->n_fields);
  return std::ranges::all_of(fields, [&](const ProtobufCFieldDescriptor &field) {
    if (field.label == PROTOBUF_C_LABEL_REPEATED) return true;
    if (field.type == PROTOBUF_C_TYPE_BYTES) {
      const auto &bytes = member<ProtobufCBinaryData>(record, field);
      return bytes.data != nullptr || bytes.len == 0;
    }
    if (field.type != PROTOBUF_C_TYPE_MESSAGE) return true;
    const auto *part = member<ProtobufCMessage *>(record, field);
    return !part || (part->descriptor == field.descriptor && well_formed(part));
  });
}

// The command of a written object: `hash_cmd` if its type is of the hash class.
std::uint32_t cmd_of(const Table &table, std::uint32_t hash_cmd) {
  if (strcmp(table.type->name, "s_policy_kelim.meter") == 0) return hash_cmd;
  return QX_MOM_CMD_SET;
}

// ---- calls

enum class Needs { key, key_or_all, record };
enum class Link { sync, async };

// A call's arguments; a non-zero `code` ends it. Without a key it concerns every object.
struct Call {
  int code = QX_INVALID;
  Table *table = nullptr;
  std::optional<std::string> key;
};

Database *database(qx_global *global, std::int32_t number) {
  const auto found = g_store->databases.find(number);
  return global && found != g_store->databases.end() ? &found->second : nullptr;
}

Table &table_of(Database &db, const ProtobufCMessageDescriptor *type) {
  return db.tables.try_emplace(type, Table{type, {}, {}}).first->second;
}

Call resolve(qx_global *global, std::int32_t number, const ProtobufCMessage *record, Needs needs, Link link) {
  Call call;
  Database *db = database(global, number);
  if (!db || !record || !record->descriptor || !qx_mom_short_name_len(record->descriptor) || !well_formed(record)) return call;
  if (const ProtobufCMessage *key = key_record(record); key && needs != Needs::record) {
    call.key = key_of(key);
    const bool all = call.key->find_first_not_of('\0') == std::string::npos;
    if (all && needs == Needs::key_or_all) call.key.reset();
  }
  if (!call.key && needs == Needs::key) return call;
  call.code = (link == Link::sync ? db->sync_up : db->up) ? QX_OK : QX_FAILED;
  if (call.code == 0) call.table = &table_of(*db, record->descriptor);
  return call;
}

// ---- notifications

bool in_holder(std::uint32_t cmd) {
  return cmd == QX_MOM_CMD_HASH_NEW || cmd == QX_MOM_CMD_HASH_SET;
}

// An object to deliver, with everything it points to.
struct Delivery {
  Delivery(const Table &table, std::uint32_t cmd, const Packed &packed) {
    holder.record = protobuf_c_message_unpack(table.type, nullptr, packed->size(), packed->data());
    object.cmd = cmd;
    object.value = in_holder(cmd) ? static_cast<void *>(&holder) : holder.record;
  }
  ~Delivery() { protobuf_c_message_free_unpacked(holder.record, nullptr); }
  Delivery(const Delivery &) = delete;

  qx_obj object{};  // first member, because qx_mom_qx_obj_free gets its address
  qx_mom_hash_value holder{};
};

void deliver(Table &table, std::uint32_t cmd, const Packed &packed) {
  if (table.subscriptions.empty()) return;
  const Delivery decoded(table, cmd, packed);
  qx_obj bytes{};
  bytes.cmd = cmd;
  if (in_holder(cmd)) bytes.cmd = QX_MOM_CMD_SET;
  bytes.packed = packed->data();
  bytes.packed_len = static_cast<std::uint32_t>(packed->size());
  const auto subscriptions = table.subscriptions;  // a callback may subscribe
  for (const auto &[callback, delivery] : subscriptions) callback(nullptr, delivery == QX_MOM_PACKED ? &bytes : &decoded.object);
}

// The loop takes notifications in the order in which they were posted, which is that of the writes.
void notify(Table &table, std::uint32_t cmd, Packed packed) {
  const bool counts = cmd != QX_MOM_CMD_DEL;
  if (counts) ++table.waiting;
  platform::post([&table, cmd, packed = std::move(packed), counts] {
    if (counts) --table.waiting;
    deliver(table, cmd, packed);
  });
}

bool admitted(const Table &table) {
  return !table.has_topic || table.waiting < platform::topic_limit;
}

Packed pack(const ProtobufCMessage *record) {
  auto bytes = std::make_shared<std::vector<std::uint8_t>>(protobuf_c_message_get_packed_size(record));
  protobuf_c_message_pack(record, bytes->data());
  return bytes;
}

// ---- objects

void forget_expiry(Table &table, const std::string &key, Object &object) {
  if (object.due) g_store->expiries.erase({*object.due, &table, key});
  object.due.reset();
}

int write(const Call &call, const ProtobufCMessage *record, std::int64_t tag = 0) {
  Table &table = *call.table;
  if (!admitted(table)) return QX_NO_ROOM;
  const auto [place, created] = table.objects.try_emplace(*call.key);
  Object &object = place->second;
  if (created) object.born = ++g_store->born;
  forget_expiry(table, *call.key, object);
  object.packed = pack(record);
  object.tag = tag;
  notify(table, cmd_of(table, created ? QX_MOM_CMD_HASH_NEW : QX_MOM_CMD_HASH_SET), object.packed);
  return 0;
}

int remove(Table &table, const std::string &key) {
  const auto found = table.objects.find(key);
  if (found == table.objects.end()) return QX_NOT_FOUND;
  forget_expiry(table, key, found->second);
  notify(table, QX_MOM_CMD_DEL, std::move(found->second.packed));
  table.objects.erase(found);
  return 0;
}

// What `change` does to the object of the call, or to all of its type.
template <typename Change>
void for_each_object(const Call &call, Change change) {
  auto &objects = call.table->objects;
  auto object = call.key ? objects.find(*call.key) : objects.begin();
  const auto end = call.key && object != objects.end() ? std::next(object) : objects.end();
  for (; object != end; ++object) change(object->first, object->second);
}

// ---- expiry: a timer looks every 10 ms while anything is under expiry

int sweep(qx_thread *timer);

void arm_sweep(qx_global *global) {
  if (g_store->expiries.empty()) return;
  qx_thread_insert_timer_timeval(global->master, &g_store->sweep_timer, sweep, global, 0, 10'000, "store_expiry");
}

int sweep(qx_thread *timer) {
  const auto now = Clock::now();
  while (!g_store->expiries.empty() && std::get<0>(*g_store->expiries.begin()) <= now) {
    const auto [due, table, key] = *g_store->expiries.begin();
    remove(*table, key);
  }
  arm_sweep(static_cast<qx_global *>(timer->arg));
  return 0;
}

}  // namespace

void platform_store_finish() {
  delete g_store;
  g_store = new Store;
}

int qx_mom_client_connect_sync(qx_global *global, std::int32_t number) {
  Database *db = database(global, number);
  if (!db) return QX_INVALID;
  db->sync_up = true;
  return 0;
}

int qx_mom_client_connect(qx_global *global, std::int32_t number, qx_mom_connect_cb cb, const char *label) {
  Database *db = database(global, number);
  if (!db || !cb) return QX_INVALID;
  platform::post([=] {
    db->up = true;
    if (cb(global, label) == 0) return;
    fputs("The process cannot work with the database.\n", stderr);
    exit(EXIT_FAILURE);
  });
  return 0;
}

int qx_mom_client_set_reconnect_cb(qx_global *global, std::int32_t db, qx_mom_reconnect_cb cb, void *) {
  return database(global, db) && cb ? QX_OK : QX_INVALID;
}

int qx_mom_set(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(global, db, record, Needs::key, Link::async);
  return call.code ? call.code : write(call, record);
}

int qx_mom_setow(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t,
                 std::int64_t ow) {
  const Call call = resolve(global, db, record, Needs::key, Link::async);
  return call.code ? call.code : write(call, record, ow);
}

int qx_mom_setnx_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(global, db, record, Needs::key, Link::sync);
  if (call.code) return call.code;
  return call.table->objects.contains(*call.key) ? 1 : write(call, record);
}

int qx_mom_del(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(global, db, record, Needs::key, Link::async);
  return call.code ? call.code : remove(*call.table, *call.key);
}

int qx_mom_del_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(global, db, record, Needs::key, Link::sync);
  return call.code ? call.code : remove(*call.table, *call.key);
}

int qx_mom_pexpire(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t ms,
                   std::uint32_t, qx_mom_done_cb cb, void *) {
  const Call call = resolve(global, db, record, Needs::key_or_all, Link::async);
  if (call.code) return call.code;
  const auto due = Clock::now() + ms * 1ms + (call.key ? 0 : call.table->objects.size()) * 100us;
  for_each_object(call, [&](const std::string &key, Object &object) {
    forget_expiry(*call.table, key, object);
    object.due = due;
    g_store->expiries.emplace(due, call.table, key);
  });
  arm_sweep(global);  // does nothing where the timer is armed already
  if (cb) platform::post([cb] { cb(); });
  return 0;
}

int qx_mom_del_expire(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t, void *) {
  const Call call = resolve(global, db, record, Needs::key_or_all, Link::async);
  if (call.code) return call.code;
  for_each_object(call, [&](const std::string &key, Object &object) { forget_expiry(*call.table, key, object); });
  return 0;
}

int qx_mom_del_expire_ow(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t, void *,
                         std::int64_t ow) {
  const Call call = resolve(global, db, record, Needs::record, Link::async);
  if (call.code) return call.code;
  std::vector<std::string> gone;
  for (const auto &[key, object] : call.table->objects)
    if (object.tag == ow && object.due && *object.due <= Clock::now()) gone.push_back(key);
  for (const std::string &key : gone) remove(*call.table, key);
  return 0;
}

int qx_mom_publish(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(global, db, record, Needs::record, Link::async);
  if (call.code) return call.code;
  if (!admitted(*call.table)) return QX_NO_ROOM;
  notify(*call.table, QX_MOM_CMD_PUBLISH, pack(record));
  return 0;
}

// ---- reading

int qx_mom_get_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, qx_obj **out) {
  if (out) *out = nullptr;
  const Call call = resolve(global, db, record, Needs::key, Link::sync);
  if (call.code) return call.code;
  if (!out) return QX_INVALID;
  const auto found = call.table->objects.find(*call.key);
  if (found == call.table->objects.end()) return QX_NOT_FOUND;
  *out = &(new Delivery(*call.table, cmd_of(*call.table, QX_MOM_CMD_HASH_SET), found->second.packed))->object;
  return 0;
}

void qx_mom_qx_obj_free(qx_obj *obj) {
  static_assert(offsetof(Delivery, object) == 0);
  delete reinterpret_cast<Delivery *>(obj);
}

int qx_mom_scan_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, qx_mom_scan_cb cb,
                     void *arg) {
  const Call call = resolve(global, db, record, Needs::record, Link::sync);
  if (call.code) return call.code;
  if (!cb) return QX_INVALID;
  const std::uint64_t begun = g_store->born;
  auto &objects = call.table->objects;
  for (auto place = objects.begin(); place != objects.end();) {
    const std::string key = place->first;
    if (place->second.born <= begun) {
      const Delivery object(*call.table, cmd_of(*call.table, QX_MOM_CMD_HASH_SET), place->second.packed);
      cb(&object.object, arg);
    }
    place = objects.upper_bound(key);
  }
  return 0;
}

int qx_mom_subscribe(qx_global *global, std::int32_t number, const qx_mom_spec *spec, qx_mom_notify_cb cb) {
  Database *db = database(global, number);
  if (!db || !cb || !spec || !spec->type.value || spec->type.key != key_type(spec->type.value) || spec->delivery > QX_MOM_PACKED)
    return QX_INVALID;
  if (!db->up) return QX_FAILED;
  // Goes live in a later turn of the loop, so that earlier writes are not notified to it.
  platform::post([&table = table_of(*db, spec->type.value), subscription = Subscription{cb, spec->delivery}] {
    const auto same = [&](const Subscription &other) { return other.callback == subscription.callback; };
    if (std::ranges::none_of(table.subscriptions, same)) table.subscriptions.push_back(subscription);
    qx_obj live{};
    live.cmd = QX_MOM_CMD_DATA_FETCH;
    subscription.callback(nullptr, &live);
  });
  return 0;
}

// ---- libcgstctrl.h

int libcgstctrl_gen_init(void *conn, std::int32_t number, const char *name) {
  Database *db = database(static_cast<qx_global *>(conn), number);
  if (!db || !name) return QX_INVALID;
  db->congestion_control = true;
  return 0;
}

int libcgstctrl_gen_topic_reg(void *conn, std::int32_t number, const char *name, const qx_mom_type *topic) {
  Database *db = database(static_cast<qx_global *>(conn), number);
  if (!db || !name || !topic || !topic->value || topic->key != key_type(topic->value)) return QX_INVALID;
  if (!db->congestion_control) return QX_FAILED;
  table_of(*db, topic->value).has_topic = true;
  return 0;
}
