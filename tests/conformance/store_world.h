// A process with the object database under test, and recorders of notifications. It uses only the contract, so that it runs on
// any platform.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "conformance/process.h"
#include "qx_mom.h"
#include "support/record_text.h"
#include "support/records.h"

namespace mom_test {

using namespace records;
using namespace std::chrono_literals;

// ---- records

inline std::string pack(const ProtobufCMessage *record) {
  std::string out(protobuf_c_message_get_packed_size(record), '\0');
  protobuf_c_message_pack(record, reinterpret_cast<std::uint8_t *>(out.data()));
  return out;
}

// ---- notifications

// One delivered object, copied.
struct Seen {
  std::uint32_t cmd = 0;
  std::uint64_t key = 0;  // first number of its key
  std::uint64_t status = 0;
  std::string type;  // of the decoded record; empty without one
  std::string text;  // the record as record_text writes it
  std::string packed;
};

// The member of that name or, without a name, the first one, as a number; 0 without such a member.
inline std::uint64_t number(const ProtobufCMessage *record, const char *name = nullptr) {
  const auto *field = record->descriptor->fields;
  if (name) field = protobuf_c_message_descriptor_get_field_by_name(record->descriptor, name);
  std::uint64_t value = 0;
  const bool wide = field && (field->type == PROTOBUF_C_TYPE_UINT64 || field->type == PROTOBUF_C_TYPE_MESSAGE);
  if (field) std::memcpy(&value, reinterpret_cast<const char *>(record) + field->offset, wide ? 8 : 4);
  return value;
}

inline Seen describe(const qx_obj *object) {
  Seen seen;
  seen.cmd = object->cmd;
  EXPECT_EQ(object->error_code, 0);
  if (object->packed) seen.packed.assign(reinterpret_cast<const char *>(object->packed), object->packed_len);
  const void *value = object->value;
  if (value && (object->cmd == 4 || object->cmd == 6)) {
    const auto *holder = static_cast<const qx_mom_hash_value *>(value);
    EXPECT_EQ(holder->error_code, 0);
    value = holder->record;
  }
  if (!value) return seen;
  const auto *record = static_cast<const ProtobufCMessage *>(value);
  seen.type = record->descriptor->name;
  seen.text = record_text::text(record);
  const auto *key = reinterpret_cast<const ProtobufCMessage *>(number(record, "index"));
  seen.key = key ? number(key) : 0;
  seen.status = number(record, "status");
  return seen;
}

// "cmd:key" of each, as one text that is easy to compare by eye.
inline std::string trace(const std::vector<Seen> &seen) {
  std::string out;
  for (const Seen &one : seen) out += (out.empty() ? "" : " ") + std::to_string(one.cmd) + ":" + std::to_string(one.key);
  return out;
}

// Numbered, because subscription callbacks carry no argument: each recorder has its own callback.
inline constexpr std::size_t kRecorders = 3;
struct Recorder {
  std::vector<Seen> seen;
  std::function<void(const qx_obj *)> hook;  // runs inside the callback
};
inline Recorder recorders[kRecorders];

template <std::size_t N>
int record_into(void *, const qx_obj *object) {
  recorders[N].seen.push_back(describe(object));
  if (recorders[N].hook) recorders[N].hook(object);
  return 0;
}

// Waits for that many notifications; false if they do not arrive in time.
inline bool arrive(std::size_t count, std::size_t recorder = 0) {
  return run_until([&] { return recorders[recorder].seen.size() >= count; });
}

inline std::size_t count(std::uint32_t cmd, std::size_t recorder = 0) {
  const auto &seen = recorders[recorder].seen;
  return static_cast<std::size_t>(std::count_if(seen.begin(), seen.end(), [&](const Seen &one) { return one.cmd == cmd; }));
}

inline unsigned connects;
inline int count_connect(void *, const char *) {
  ++connects;
  return 0;
}

inline std::vector<std::int32_t> reconnects;
inline std::function<void(std::int32_t)> on_reconnect;
inline int note_reconnect(void *, std::int32_t, std::int32_t type) {
  reconnects.push_back(type);
  if (on_reconnect) on_reconnect(type);
  return 0;
}

inline unsigned confirmed;  // expiry requests
inline int confirm() {
  ++confirmed;
  return 0;
}

// ---- calls

inline int get(qx_global *global, std::int32_t db, ProtobufCMessage *record, Seen *seen = nullptr) {
  auto *object = reinterpret_cast<qx_obj *>(1);
  const int rv = qx_mom_get_sync(global, db, record, 0, &object);
  EXPECT_EQ(object != nullptr, rv == 0);
  if (object && seen) *seen = describe(object);
  qx_mom_qx_obj_free(object);
  return rv;
}

inline int scan(qx_global *global, std::int32_t db, ProtobufCMessage *record, std::vector<Seen> *all = nullptr) {
  const auto collect = [](const qx_obj *object, void *into) {
    if (into) static_cast<std::vector<Seen> *>(into)->push_back(describe(object));
    return 0;
  };
  return qx_mom_scan_sync(global, db, record, 0, collect, all);
}

// The signature shared by all operations; the number is a tag or milliseconds, for those that take one.
using Op = int (*)(qx_global *, std::int32_t, ProtobufCMessage *, std::int64_t);
inline const std::map<std::string, Op> kOps = {
    {"set", [](auto g, auto db, auto r, auto) { return qx_mom_set(g, db, r, 0, 0); }},
    {"tag", [](auto g, auto db, auto r, auto tag) { return qx_mom_setow(g, db, r, 0, 0, tag); }},
    {"setnx", [](auto g, auto db, auto r, auto) { return qx_mom_setnx_sync(g, db, r, 0, 0); }},
    {"del", [](auto g, auto db, auto r, auto) { return qx_mom_del(g, db, r, 0, 0); }},
    {"del_sync", [](auto g, auto db, auto r, auto) { return qx_mom_del_sync(g, db, r, 0, 0); }},
    {"get", [](auto g, auto db, auto r, auto) { return get(g, db, r); }},
    {"scan", [](auto g, auto db, auto r, auto) { return scan(g, db, r); }},
    {"publish", [](auto g, auto db, auto r, auto) { return qx_mom_publish(g, db, r, 0, 0); }},
    {"expire",
     [](auto g, auto db, auto r, auto ms) { return qx_mom_pexpire(g, db, r, 0, std::uint32_t(ms), 0, confirm, nullptr); }},
    {"keep", [](auto g, auto db, auto r, auto) { return qx_mom_del_expire(g, db, r, 0, 0, nullptr); }},
    {"drop", [](auto g, auto db, auto r, auto tag) { return qx_mom_del_expire_ow(g, db, r, 0, 0, nullptr, tag); }},
};

template <typename Record>
int on(qx_global *global, Op op, std::uint64_t key, std::int64_t number) {
  Record record(key);
  record.record.status = static_cast<SPolicyKelim__StatusE>(number & 15);
  return op(global, 8, record, number);
}

// ---- the process

class StoreWorld {
 public:
  explicit StoreWorld(std::unique_ptr<Process> process) : process_(std::move(process)), global_(process_->global()) {
    for (auto &recorder : recorders) recorder = {};
    connects = confirmed = 0;
    reconnects.clear();
    on_reconnect = nullptr;
  }
  StoreWorld(const StoreWorld &) = delete;

  qx_global *global() { return global_; }
  void pass(std::chrono::milliseconds ms) { process_->pass(ms); }
  bool cut_connections(std::int32_t db) { return process_->cut_connections(db); }

  void connect_all() {
    ASSERT_NE(global_, nullptr);
    for (std::int32_t db : {0, 4, 8}) {
      ASSERT_EQ(qx_mom_client_connect_sync(global_, db), 0);
      ASSERT_EQ(qx_mom_client_connect(global_, db, count_connect, "test"), 0);
    }
    ASSERT_TRUE(run_until([&] { return connects == 3; }));
  }

  template <std::size_t N>
  int subscribe(const qx_mom_type &type, std::int32_t db = 8, std::uint32_t delivery = QX_MOM_DECODED) {
    const qx_mom_spec spec = {type, delivery};
    return qx_mom_subscribe(global_, db, &spec, record_into<N>);
  }

  template <std::size_t N>
  void watch(const qx_mom_type &type, std::int32_t db = 8, std::uint32_t delivery = QX_MOM_DECODED) {
    ASSERT_EQ(subscribe<N>(type, db, delivery), 0);
    ASSERT_TRUE(run_until([&] { return !recorders[N].seen.empty() && recorders[N].seen.back().cmd == 29; }));
    recorders[N].seen.clear();
  }

  // Runs the loop until everything written so far to `db` has been delivered: a record published now arrives last. Uses the last
  // recorder.
  void settle(std::int32_t db = 8) {
    constexpr std::size_t kLast = kRecorders - 1;
    if (!watching_[db]) watch<kLast>(kPktSig, db);
    watching_[db] = true;
    recorders[kLast].seen.clear();
    SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
    ASSERT_EQ(call("publish", &signal.base, 0, db), 0);
    ASSERT_TRUE(arrive(1, kLast));
  }

  // Settles and clears the recorders.
  void forget() {
    settle();
    for (auto &recorder : recorders) recorder.seen.clear();
  }

  // The result of an operation of kOps; the number is a tag or milliseconds.
  int call(const char *op, ProtobufCMessage *record, std::int64_t number = 0, std::int32_t db = 8) {
    return kOps.at(op)(global_, db, record, number);
  }
  int set(ProtobufCMessage *record, std::int32_t db = 8) { return call("set", record, 0, db); }
  int setow(ProtobufCMessage *record, std::int64_t tag) { return call("tag", record, tag); }
  int del(ProtobufCMessage *record, std::int32_t db = 8) { return call("del", record, 0, db); }

  // Carries out steps of the form "OP TYPE[:KEY] [NUMBER] [gives CODE]", separated by semicolons; without a key a step applies to
  // every object. The number is a tag or milliseconds, and the record's status.
  void run(const std::string &steps) {
    std::istringstream rest(steps);
    for (std::string step; std::getline(rest, step, ';');) {
      std::istringstream words(step);
      std::string op, type, gives;
      std::int64_t number = 0, code = 0;
      words >> op >> type >> number;
      words.clear();
      words >> gives >> code;
      const std::size_t colon = type.find(':');
      const std::uint64_t key = colon == std::string::npos ? 0 : std::stoull(type.substr(colon + 1));
      const auto perform = type.starts_with("flow_sta") ? on<FlowSta> : type.starts_with("flow") ? on<Flow> : on<Meter>;
      EXPECT_EQ(perform(global_, kOps.at(op), key, number), code) << step;
    }
  }

  // Writes every `step`th flow up to `last`, with tag 1.
  void fill(std::uint64_t last, std::uint64_t step = 1) {
    for (std::uint64_t index = step; index <= last; index += step) {
      Flow flow(index);
      ASSERT_EQ(setow(flow, 1), 0);
    }
  }

  // The object as qx_mom_get_sync returns it; cmd 0 if it does not exist.
  Seen get(ProtobufCMessage *record, std::int32_t db = 8) {
    Seen seen;
    const int rv = mom_test::get(global_, db, record, &seen);
    EXPECT_EQ(rv, seen.cmd ? 0 : -7);
    return seen;
  }

  std::vector<Seen> scan(ProtobufCMessage *record, std::int32_t db = 8) {
    std::vector<Seen> all;
    EXPECT_EQ(mom_test::scan(global_, db, record, &all), 0);
    return all;
  }

 private:
  std::unique_ptr<Process> process_;
  qx_global *global_;
  bool watching_[16] = {};
};

}  // namespace mom_test
