// The object-database client.
//
// An object is a record type plus the values of its key record, which is field 5, `index`, of every value record. Records are
// protobuf-c messages; the client reads type names and field layout from their descriptors. A template is a record whose key has
// only zero fields (or no key at all): it stands for every object of the type in scan, pexpire, del_expire and del_expire_ow.
//
// Two kinds of type. Most types are plain: a write is notified as cmd 1 with the record as value. Hash-class types, of which
// `s_policy_kelim.meter` is the only one, distinguish new objects (cmd 4) from existing ones (cmd 6), and the value is a
// qx_mom_hash_value that holds the record; scan and get return them as cmd 6. A deletion of either kind is cmd 3 with the record
// itself, and a packed subscription gets cmd 1 for both kinds.
//
// Tags. An object last written by qx_mom_setow has that call's overwrite tag, any other has 0. The tag names the object's owner,
// so that a finished data synchronisation cleans up the objects of one owner only: 1 flows from a flow-mod, 2 flows from a
// service-chain application. It is not part of the key and is never delivered.
//
// Expiry. An object, or every object that a type holds now, can be given a deadline. A write, tagged or not, clears the object's
// deadline; a later request for a deadline replaces an earlier one, whether of one object or of all. An object past its deadline
// is removed without further calls, with a cmd 3. So a replay, in however many pieces, keeps the objects that it writes, and the
// others expire.
//
// Threads: every call and every callback belongs to the loop's thread of qx_runtime.h. Ownership: a record handed in is
// serialised before the call returns and never kept; a callback's arguments live until it returns. Callbacks: a notification is
// never delivered from inside the call that caused it, always in a later turn of the loop and in the order of the writes and
// deletions of its type.
//
// Result codes (qx_result.h), the same for every call:
//     QX_OK         accepted (for *_sync calls: done)
//     QX_EXISTS     qx_mom_setnx_sync: the object exists already
//     QX_FAILED     not connected, or a general failure
//     QX_INVALID    null or malformed argument (no handle, no descriptor, unknown database, a value record without key)
//     QX_NOT_FOUND  no such object (get, del)
//     QX_NO_ROOM    the pipeline or the type's topic is over its limit; nothing was written
// A result of 0 from a pipelined write means accepted and in order. A write that the database refuses afterwards is logged and
// counted, and the connection is treated as failed: subscribers then see a resynchronisation, never a silent loss.
#pragma once

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

// Database numbers.
enum { QX_MOM_ASIC_DB = 0, QX_MOM_APP_DB = 4, QX_MOM_UDP_DB = 8 };

// Kinds of change.
enum {
  QX_MOM_CMD_SET = 1,          // written
  QX_MOM_CMD_DEL = 3,          // deleted by call or by expiry; carries the last record or at least its key
  QX_MOM_CMD_HASH_NEW = 4,     // hash-class type: written for the first time; `value` is a qx_mom_hash_value
  QX_MOM_CMD_HASH_SET = 6,     // hash-class type: written again; `value` is a qx_mom_hash_value
  QX_MOM_CMD_PUBLISH = 16,     // published without being stored
  QX_MOM_CMD_REFRESH = 24,     // a counter was refreshed; the Linux host sends QX_MOM_CMD_SET instead
  QX_MOM_CMD_DATA_FETCH = 29,  // this subscription is live and the database has loaded its data; no value
};

// The value of hash-class types (meter): record and error code in one holder.
typedef struct qx_mom_hash_value {
  ProtobufCMessage *record;
  uint64_t reserved[2];
  int32_t error_code;
} qx_mom_hash_value;

// One object as scan, get and subscriptions deliver it.
typedef struct qx_obj {
  uint32_t cmd;   // QX_MOM_CMD_*
  uint32_t flag;  // shown in messages only
  void *value;    // the decoded record (ProtobufCMessage*), for cmds 4 and 6 a qx_mom_hash_value*; null when packed or absent
  int32_t error_code;     // 0, or the store's error for this object
  const uint8_t *packed;  // the record's bytes, for subscriptions that asked for them; null otherwise
  uint32_t packed_len;
} qx_obj;

// A record type with its key type.
typedef struct qx_mom_type {
  const ProtobufCMessageDescriptor *value;
  const ProtobufCMessageDescriptor *key;
} qx_mom_type;

enum {
  QX_MOM_DECODED = 0,  // `value` holds the record
  QX_MOM_PACKED = 1,   // `packed` holds its bytes and nothing is unpacked; hash-class types come as plain cmd 1
};

typedef struct qx_mom_spec {
  qx_mom_type type;
  uint32_t delivery;  // QX_MOM_DECODED or QX_MOM_PACKED
} qx_mom_spec;

typedef int (*qx_mom_connect_cb)(void *conn, const char *label);
typedef int (*qx_mom_reconnect_cb)(void *conn, int32_t db, int32_t type);
typedef int (*qx_mom_notify_cb)(void *conn, const qx_obj *msg);
typedef int (*qx_mom_scan_cb)(const qx_obj *reply, void *arg);
typedef int (*qx_mom_done_cb)(void);

// ---- connections

// Connects to database `db` for synchronous calls.
int qx_mom_client_connect_sync(qx_global *global, int32_t db);

// Connects to database `db` for pipelined writes and notifications; `cb` runs in a later turn of the loop, once the connection is
// up, with the connection handle and `label` (kept by pointer). A non-zero result of `cb` says that the process cannot work with
// the database: the host logs it and ends the process with status 1, so that its supervisor restarts it.
int qx_mom_client_connect(qx_global *global, int32_t db, qx_mom_connect_cb cb, const char *label);

// Has `cb` called when the connection to `db` changes. `arg` is reserved, null. Types: 0 lost; 1 back, but with another server
// process, whose data cannot be trusted; 2 back with the same server process or one that took over its data; 3 still trying. From
// 0 on calls give QX_FAILED. After 2 every subscription gets one more data-fetch signal, whether the callback subscribed again or
// not. A store that cannot lose its connection never calls this.
int qx_mom_client_set_reconnect_cb(qx_global *global, int32_t db, qx_mom_reconnect_cb cb, void *arg);

// ---- writes (pipelined). `flags` and `reserved` are 0.

// Writes the object; a pending expiry is cleared.
int qx_mom_set(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved);

// As qx_mom_set, and sets the object's overwrite tag.
int qx_mom_setow(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved, int64_t ow);

// Deletes the object; QX_NOT_FOUND when it does not exist.
int qx_mom_del(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved);

// Lets the object, or every object of a template's type, expire `ms` milliseconds from now; a later write cancels that. To the
// expiry of a whole type the host adds 100 microseconds for each object of the type. `cb` (may be null) runs once when the
// request has been accepted, in a later turn of the loop.
int qx_mom_pexpire(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t ms, uint32_t reserved,
                   qx_mom_done_cb cb, void *reserved_arg);

// Cancels a pending expiry of the object or of every object of the type. 0 also if none was pending.
int qx_mom_del_expire(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved,
                      void *reserved_arg);

// Removes the objects of the type with the tag `ow` that have expired. Nothing is removed ahead of its deadline: objects whose
// expiry is still pending stay, to be rewritten or to expire later. The Linux host's databases also remove expired objects
// without this call.
int qx_mom_del_expire_ow(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved,
                         void *reserved_arg, int64_t ow);

// Notifies the type's subscribers (cmd 16) without storing anything; the record needs no key.
int qx_mom_publish(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved);

// ---- synchronous calls

// Writes the object if it is absent; 1 when it exists.
int qx_mom_setnx_sync(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved);

// Deletes the object and waits; QX_NOT_FOUND when it does not exist.
int qx_mom_del_sync(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, uint32_t reserved);

// Reads the object with the key of `record`. On 0 *out is an object that the caller releases with qx_mom_qx_obj_free; otherwise
// *out is null.
int qx_mom_get_sync(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, qx_obj **out);

// Releases an object that qx_mom_get_sync returned; null is allowed.
void qx_mom_qx_obj_free(qx_obj *obj);

// Calls `cb` for every object of the template's type, in key order, laid out as a written notification of the type. The callback
// may write and delete the table being scanned; objects that it adds are not visited. Its result is ignored. Returns 0, or the
// code of the scan itself.
int qx_mom_scan_sync(qx_global *global, int32_t db, const ProtobufCMessage *record, uint32_t flags, qx_mom_scan_cb cb, void *arg);

// ---- notifications

// Delivers every change of the type in `db` to `cb`, beginning with one QX_MOM_CMD_DATA_FETCH. The same callback for the same
// type is subscribed once, however often this is called; each call yields its own data-fetch signal. `spec` is read during the
// call only; the descriptors that it names must live as long as the process.
int qx_mom_subscribe(qx_global *global, int32_t db, const qx_mom_spec *spec, qx_mom_notify_cb cb);

// ---- descriptors

// Length of the package name ("s_policy_kelim": 14) and of the short name as it stands in the schema ("flow_key": 8) in the
// descriptor's full name. The build puts both into spare members of the generated descriptors (proto/annotate_descriptors.awk).
static inline uint32_t qx_mom_package_name_len(const ProtobufCMessageDescriptor *d) {
  return (uint32_t)(uintptr_t)d->reserved1;
}
static inline uint32_t qx_mom_short_name_len(const ProtobufCMessageDescriptor *d) {
  return (uint32_t)(uintptr_t)d->reserved2;
}

#ifdef __cplusplus
}
#endif
