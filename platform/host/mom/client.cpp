// qx_mom_* and libcgstctrl_*: argument checks and fault switches in front of the hub and its store.
#include <optional>

#include "host/base/loop.h"
#include "host/fault/fault.h"
#include "host/mom/hub.h"
#include "libcgstctrl.h"
#include "qx_mom.h"

namespace host::mom {

namespace {

using fault::Point;

constexpr int kNotConnected = -1;
constexpr int kMalformed = -4;

// The part of its record that a call requires.
enum class Needs { key, key_or_template, record };
enum class Link { sync, async };

// A call's arguments, resolved. When `code` is not 0 it is the call's result.
struct Call {
  int code = kMalformed;
  Database *db = nullptr;
  Slot *slot = nullptr;
  std::optional<Key> key;  // unset for a template

  const Key *key_or_all() const { return key ? &*key : nullptr; }
};

Database *database_of(qx_global *global, std::int32_t number) {
  return global && hub() ? hub()->database(number) : nullptr;
}

Call resolve(Point point, qx_global *global, std::int32_t number, const ProtobufCMessage *record, Needs needs, Link link) {
  Call call;
  if ((call.code = fault::check(point)) != 0) return call;
  call.code = kMalformed;
  call.db = database_of(global, number);
  if (!call.db || !record) return call;
  const RecordType *type = RecordType::of(record->descriptor);
  if (!type) return call;
  const bool all = needs == Needs::key_or_template && type->is_template(*record);
  if (needs != Needs::record && !all && !(call.key = type->key_of(*record))) return call;
  if (!(link == Link::sync ? call.db->sync_up : call.db->up)) {
    call.code = kNotConnected;
    return call;
  }
  call.slot = &hub()->slot(*call.db, *type);
  call.code = 0;
  return call;
}

// Runs `work` on the packed record.
template <typename Work>
int with_packed(const Call &call, const ProtobufCMessage *record, Work work) {
  if (call.code) return call.code;
  const auto packed = call.slot->type.pack(*record);
  return packed ? work(*packed) : kMalformed;
}

// Passes a write or deletion to the slot's `wrote`; returns `result`.
int told(const Call &call, const ProtobufCMessage *record, bool deletes, int result) {
  if (call.slot && call.slot->wrote) call.slot->wrote(*call.slot, *record, deletes, result);
  return result;
}

}  // namespace

}  // namespace host::mom

using namespace host::mom;

int qx_mom_client_connect_sync(qx_global *global, std::int32_t db) {
  if (const int rv = host::fault::check(Point::mom_connect_sync)) return rv;
  Database *database = database_of(global, db);
  return database ? hub()->store().connect_sync(*database) : kMalformed;
}

int qx_mom_client_connect(qx_global *global, std::int32_t db, qx_mom_connect_cb cb, const char *label) {
  if (const int rv = host::fault::check(Point::mom_connect)) return rv;
  Database *database = database_of(global, db);
  return database && cb ? hub()->connect(*database, cb, label) : kMalformed;
}

int qx_mom_client_set_reconnect_cb(qx_global *global, std::int32_t db, qx_mom_reconnect_cb cb, void *) {
  if (const int rv = host::fault::check(Point::mom_set_reconnect_cb)) return rv;
  Database *database = database_of(global, db);
  return database && cb ? hub()->set_reconnect(*database, cb) : kMalformed;
}

int qx_mom_set(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(Point::mom_set, global, db, record, Needs::key, Link::async);
  const auto write = [&](PackedBytes packed) { return hub()->store().set(*call.slot, *call.key, packed, std::nullopt); };
  return told(call, record, false, with_packed(call, record, write));
}

int qx_mom_setow(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t,
                 std::int64_t ow) {
  const Call call = resolve(Point::mom_setow, global, db, record, Needs::key, Link::async);
  const auto write = [&](PackedBytes packed) { return hub()->store().set(*call.slot, *call.key, packed, ow); };
  return told(call, record, false, with_packed(call, record, write));
}

int qx_mom_setnx_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(Point::mom_setnx, global, db, record, Needs::key, Link::sync);
  return with_packed(call, record, [&](PackedBytes packed) { return hub()->store().setnx_sync(*call.slot, *call.key, packed); });
}

int qx_mom_del(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(Point::mom_del, global, db, record, Needs::key, Link::async);
  return told(call, record, true, call.code ? call.code : hub()->store().del(*call.slot, *call.key));
}

int qx_mom_del_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(Point::mom_del_sync, global, db, record, Needs::key, Link::sync);
  return call.code ? call.code : hub()->store().del_sync(*call.slot, *call.key);
}

int qx_mom_pexpire(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t ms,
                   std::uint32_t, qx_mom_done_cb cb, void *) {
  const Call call = resolve(Point::mom_pexpire, global, db, record, Needs::key_or_template, Link::async);
  return call.code ? call.code : hub()->store().pexpire(*call.slot, call.key_or_all(), ms, cb);
}

int qx_mom_del_expire(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t, void *) {
  const Call call = resolve(Point::mom_del_expire, global, db, record, Needs::key_or_template, Link::async);
  return call.code ? call.code : hub()->store().del_expire(*call.slot, call.key_or_all());
}

int qx_mom_del_expire_ow(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t, void *,
                         std::int64_t ow) {
  const Call call = resolve(Point::mom_del_expire_ow, global, db, record, Needs::record, Link::async);
  return call.code ? call.code : hub()->store().del_expired(*call.slot, ow);
}

int qx_mom_publish(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, std::uint32_t) {
  const Call call = resolve(Point::mom_publish, global, db, record, Needs::record, Link::async);
  return with_packed(call, record, [&](PackedBytes packed) { return hub()->store().publish(*call.slot, packed); });
}

int qx_mom_get_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, qx_obj **out) {
  if (out) *out = nullptr;
  const Call call = resolve(Point::mom_get, global, db, record, Needs::key, Link::sync);
  if (call.code) return call.code;
  if (!out) return kMalformed;
  std::vector<std::uint8_t> packed;
  if (const int rv = hub()->store().get_sync(*call.slot, *call.key, packed)) return rv == Store::kForeign ? -1 : rv;
  *out = hub()->make_object(*call.slot, *call.key, packed);
  return *out ? 0 : -1;
}

void qx_mom_qx_obj_free(qx_obj *obj) {
  host::assert_loop_thread();
  free_object(obj);
}

int qx_mom_scan_sync(qx_global *global, std::int32_t db, const ProtobufCMessage *record, std::uint32_t, qx_mom_scan_cb cb,
                     void *arg) {
  const Call call = resolve(Point::mom_scan, global, db, record, Needs::record, Link::sync);
  if (call.code) return call.code;
  if (!cb) return kMalformed;
  return hub()->store().scan_sync(*call.slot, [&](const Key &key, PackedBytes packed) {
    hub()->present(*call.slot, key, packed, cb, arg);
    return true;
  });
}

int qx_mom_subscribe(qx_global *global, std::int32_t db, const qx_mom_spec *spec, qx_mom_notify_cb cb) {
  if (const int rv = host::fault::check(Point::mom_subscribe)) return rv;
  Database *database = database_of(global, db);
  if (!database || !spec || !cb || spec->delivery > QX_MOM_PACKED) return kMalformed;
  const RecordType *type = RecordType::of(spec->type.value);
  if (!type || !type->key_matches(spec->type.key)) return kMalformed;
  if (!database->up) return kNotConnected;
  return hub()->subscribe(hub()->slot(*database, *type), spec->delivery == QX_MOM_PACKED, cb);
}

int libcgstctrl_gen_init(void *conn, std::int32_t db, const char *name) {
  if (const int rv = host::fault::check(Point::cgst_init)) return rv;
  Database *database = hub() ? hub()->database(db) : nullptr;
  if (!conn || !database || !name) return kMalformed;
  database->congestion_control = true;
  return 0;
}

int libcgstctrl_gen_topic_reg(void *conn, std::int32_t db, const char *name, const qx_mom_type *topic) {
  if (const int rv = host::fault::check(Point::cgst_topic)) return rv;
  Database *database = hub() ? hub()->database(db) : nullptr;
  if (!conn || !database || !name || !topic) return kMalformed;
  const RecordType *type = RecordType::of(topic->value);
  if (!type || !type->key_matches(topic->key)) return kMalformed;
  if (!database->congestion_control) return -1;
  hub()->slot(*database, *type).topic.enrol();
  return 0;
}
