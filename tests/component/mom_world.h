// A process with the object database under test: runtime, store, recorders of notifications. One at a time.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/mom/testing.h"
#include "host/runtime/clock.h"
#include "host/runtime/loop.h"
#include "qx_mom.h"
#include "s_cluster.pb-c.h"
#include "s_policy_kelim.pb-c.h"
#include "support/redis_server.h"
#include "support/runtime_fixture.h"

namespace mom_test {

using namespace std::chrono_literals;

// What the store under test needs around it.
class Backend {
 public:
  virtual ~Backend() = default;
  virtual std::string url() const = 0;
  // Lets `ms` of the store's time pass: warps the host's clock, or does nothing where time passes by itself.
  virtual void pass(std::chrono::milliseconds ms) = 0;
  // Puts bytes under a canonical key, past the client.
  virtual void put_raw(int32_t db, const std::string &key, const std::string &bytes) = 0;
  // Cuts every connection and lets it come back to the same server.
  virtual void cut_connections(int32_t db) = 0;
};

class EmbeddedBackend final : public Backend {
 public:
  std::string url() const override { return "embedded:"; }
  void pass(std::chrono::milliseconds ms) override { host::clock::warp(ms); }
  void put_raw(int32_t db, const std::string &key, const std::string &bytes) override {
    ASSERT_TRUE(mom::testing::put_raw(db, key, {reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()}));
  }
  void cut_connections(int32_t db) override {
    for (int32_t type : {0, 3, 2}) mom::testing::provoke_reconnect(db, type);
  }
};

// What the channels of a type carry.
inline std::string notification(char kind, const std::string &member, const std::string &record) {
  std::string text = kind + member + '\0';
  for (int shift = 0; shift < 32; shift += 8) text.push_back(static_cast<char>(record.size() >> shift));
  return text + record;
}

class RedisBackend final : public Backend {
 public:
  explicit RedisBackend(std::vector<std::string> options = {}) : server_(std::move(options)) {}
  std::string url() const override { return server_.url(); }
  void pass(std::chrono::milliseconds) override {}
  void put_raw(int32_t db, const std::string &key, const std::string &bytes) override {
    const std::string type = key.substr(0, key.find(':'));
    const std::string member = key.substr(type.size() + 1);
    EXPECT_EQ(server_.command({"SELECT", std::to_string(db)}), "OK");
    EXPECT_NE(server_.command({"SADD", type, member}).substr(0, 1), "(");
    EXPECT_EQ(server_.command({"SET", key, std::string(8, '\0') + bytes}), "OK");
    server_.command({"PUBLISH", std::to_string(db) + ":" + type, notification('W', member, bytes)});
  }
  void cut_connections(int32_t) override {
    server_.command({"CLIENT", "KILL", "TYPE", "normal"});
    server_.command({"CLIENT", "KILL", "TYPE", "pubsub"});
  }
  support::RedisServer &server() { return server_; }

 private:
  support::RedisServer server_;
};

class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/kelim_mom_XXXXXX";
    path_ = ::mkdtemp(name) ? name : "";
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// One delivered notification, copied.
struct Seen {
  uint32_t cmd = 0;
  std::string type;     // of the decoded record; empty without one
  uint64_t key = 0;     // first number of its key
  uint64_t second = 0;  // second number of its key
  int64_t status = -1;  // where the record has one
  int32_t error = 0;
  bool holder = false;
  std::string packed;  // empty when none came
};

inline std::string pack(const ProtobufCMessage *record) {
  std::string out(protobuf_c_message_get_packed_size(record), '\0');
  protobuf_c_message_pack(record, reinterpret_cast<uint8_t *>(out.data()));
  return out;
}

// ---- records

inline ProtobufCMessage *base(void *record) {
  return static_cast<ProtobufCMessage *>(record);
}

struct Flow {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
  explicit Flow(uint64_t index, uint32_t vsd = 0, SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_NONE) {
    key.flow_index = index;
    key.vsd_id = vsd;
    record.index = &key;
    record.status = status;
  }
  Flow(const Flow &) = delete;
  operator ProtobufCMessage *() { return base(&record); }
};

struct FlowSta {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  SPolicyKelim__FlowSta record = S_POLICY_KELIM__FLOW_STA__INIT;
  explicit FlowSta(uint64_t index, SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED) {
    key.flow_index = index;
    record.index = &key;
    record.status = status;
  }
  FlowSta(const FlowSta &) = delete;
  operator ProtobufCMessage *() { return base(&record); }
};

struct Meter {
  SPolicyKelim__MeterKey key = S_POLICY_KELIM__METER_KEY__INIT;
  SPolicyKelim__Meter record = S_POLICY_KELIM__METER__INIT;
  explicit Meter(uint32_t id, SPolicyKelim__StatusE status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING) {
    key.meter_id = id;
    record.index = &key;
    record.status = status;
  }
  Meter(const Meter &) = delete;
  operator ProtobufCMessage *() { return base(&record); }
};

struct Registration {
  SCluster__AppName key = S_CLUSTER__APP_NAME__INIT;
  SCluster__RegPktInfo record = S_CLUSTER__REG_PKT_INFO__INIT;
  std::string name;
  explicit Registration(std::string app) : name(std::move(app)) {
    key.name = name.data();
    record.index = &key;
  }
  Registration(const Registration &) = delete;
  operator ProtobufCMessage *() { return base(&record); }
};

inline constexpr qx_mom_type kFlow = {&s_policy_kelim__flow__descriptor, &s_policy_kelim__flow_key__descriptor};
inline constexpr qx_mom_type kFlowSta = {&s_policy_kelim__flow_sta__descriptor, &s_policy_kelim__flow_key__descriptor};
inline constexpr qx_mom_type kMeter = {&s_policy_kelim__meter__descriptor, &s_policy_kelim__meter_key__descriptor};
inline constexpr qx_mom_type kPktSig = {&s_policy_kelim__pkt_sig__descriptor, nullptr};
inline constexpr qx_mom_type kRegistration = {&s_cluster__reg_pkt_info__descriptor, &s_cluster__app_name__descriptor};

inline Seen describe(const qx_obj *object) {
  Seen seen;
  seen.cmd = object->cmd;
  seen.error = object->error_code;
  if (object->packed) seen.packed.assign(reinterpret_cast<const char *>(object->packed), object->packed_len);
  const void *value = object->value;
  if (value && (object->cmd == 4 || object->cmd == 6)) {
    const auto *holder = static_cast<const qx_mom_hash_value *>(value);
    seen.holder = true;
    seen.error = holder->error_code;
    value = holder->record;
  }
  if (!value) return seen;
  const auto *record = static_cast<const ProtobufCMessage *>(value);
  seen.type = record->descriptor->name;
  if (record->descriptor == kFlow.value) {
    const auto &flow = *reinterpret_cast<const SPolicyKelim__Flow *>(record);
    seen.key = flow.index->flow_index;
    seen.second = flow.index->vsd_id;
    seen.status = flow.status;
  } else if (record->descriptor == kFlowSta.value) {
    const auto &sta = *reinterpret_cast<const SPolicyKelim__FlowSta *>(record);
    seen.key = sta.index->flow_index;
    seen.status = sta.status;
  } else if (record->descriptor == kMeter.value) {
    const auto &meter = *reinterpret_cast<const SPolicyKelim__Meter *>(record);
    seen.key = meter.index->meter_id;
    seen.status = meter.status;
  } else if (record->descriptor == kPktSig.value) {
    seen.key = reinterpret_cast<const SPolicyKelim__PktSig *>(record)->is_pkt_start;
  }
  return seen;
}

// Subscription callbacks carry no argument, so each recorder is a numbered place of its own.
inline constexpr size_t kRecorders = 6;
struct Recorder {
  std::vector<Seen> seen;
  std::function<void(const qx_obj *)> hook;  // runs inside the callback
};
inline Recorder recorders[kRecorders];

template <size_t N>
int record_into(void *, const qx_obj *object) {
  recorders[N].seen.push_back(describe(object));
  if (recorders[N].hook) recorders[N].hook(object);
  return 0;
}

inline bool run_until(const std::function<bool()> &condition) {
  return host::run_until(condition, kPatience);
}

inline unsigned connects[3];  // by first, second, third callback
template <size_t N>
int count_connect(void *, const char *) {
  ++connects[N];
  return 0;
}

inline std::vector<int32_t> reconnects;
inline std::function<void(int32_t)> on_reconnect;
inline int note_reconnect(void *, int32_t, int32_t type) {
  reconnects.push_back(type);
  if (on_reconnect) on_reconnect(type);
  return 0;
}

class World {
 public:
  // `settings` are configuration keys and values set before the runtime starts.
  explicit World(std::unique_ptr<Backend> backend, const std::vector<std::pair<std::string, std::string>> &settings = {})
      : backend_(std::move(backend)) {
    for (auto &recorder : recorders) recorder = {};
    for (auto &count : connects) count = 0;
    reconnects.clear();
    on_reconnect = nullptr;
    host::config_reset();
    set("run_dir", dir_.path());
    set("log.target", "file");
    set("log.file", dir_.path() + "/log");
    set("control.enabled", "false");
    set("programmer.embedded", "false");
    set("mom.url", backend_->url());
    for (const auto &[key, value] : settings) set(key, value);
    global_ = qx_global_init("mom_test", nullptr);
  }
  ~World() {
    host::fault::clear();
    qx_global_finish(global_);
    host::config_reset();
  }
  World(const World &) = delete;

  qx_global *global() { return global_; }
  const std::string &run_dir() const { return dir_.path(); }
  Backend &backend() { return *backend_; }
  std::unique_ptr<Backend> take_backend() { return std::move(backend_); }

  void connect_all() {
    const unsigned before = connects[0];
    for (int32_t db : {0, 4, 8}) {
      ASSERT_EQ(qx_mom_client_connect_sync(global_, db), 0);
      ASSERT_EQ(qx_mom_client_connect(global_, db, count_connect<0>, "test"), 0);
    }
    ASSERT_TRUE(run_until([&] { return connects[0] == before + 3; }));
  }

  template <size_t N>
  void watch(const qx_mom_type &type, int32_t db = 8, uint32_t delivery = QX_MOM_DECODED) {
    const qx_mom_spec spec = {type, delivery};
    const size_t before = recorders[N].seen.size();
    ASSERT_EQ(qx_mom_subscribe(global_, db, &spec, record_into<N>), 0);
    ASSERT_TRUE(run_until([&] { return recorders[N].seen.size() > before && recorders[N].seen.back().cmd == 29; }));
    recorders[N].seen.clear();
  }

  // Runs the loop until everything written so far to `db` has been delivered: a published record comes last. Takes the last
  // recorder.
  void settle(int32_t db = 8) {
    constexpr size_t kLast = kRecorders - 1;
    if (!watching_[db]) watch<kLast>(kPktSig, db);
    watching_[db] = true;
    recorders[kLast].seen.clear();
    SPolicyKelim__PktSig signal = S_POLICY_KELIM__PKT_SIG__INIT;
    ASSERT_EQ(qx_mom_publish(global_, db, base(&signal), 0, 0), 0);
    ASSERT_TRUE(run_until([&] { return !recorders[kLast].seen.empty(); }));
  }

  int set(ProtobufCMessage *record, int32_t db = 8) { return qx_mom_set(global_, db, record, 0, 0); }
  int setow(ProtobufCMessage *record, int64_t tag) { return qx_mom_setow(global_, 8, record, 0, 0, tag); }
  int del(ProtobufCMessage *record, int32_t db = 8) { return qx_mom_del(global_, db, record, 0, 0); }
  int pexpire(ProtobufCMessage *record, uint32_t ms) { return qx_mom_pexpire(global_, 8, record, 0, ms, 0, nullptr, nullptr); }
  int del_expire(ProtobufCMessage *record) { return qx_mom_del_expire(global_, 8, record, 0, 0, nullptr); }
  int del_expire_ow(ProtobufCMessage *record, int64_t tag) {
    return qx_mom_del_expire_ow(global_, 8, record, 0, 0, nullptr, tag);
  }

  // The object as qx_mom_get_sync gives it; cmd 0 when there is none.
  Seen get(ProtobufCMessage *record, int32_t db = 8) {
    qx_obj *object = nullptr;
    const int rv = qx_mom_get_sync(global_, db, record, 0, &object);
    EXPECT_EQ(rv == 0, object != nullptr);
    EXPECT_TRUE(rv == 0 || rv == -7) << rv;
    const Seen seen = object ? describe(object) : Seen{};
    qx_mom_qx_obj_free(object);
    return seen;
  }

  std::vector<Seen> scan(ProtobufCMessage *record, int32_t db = 8) {
    std::vector<Seen> all;
    const auto collect = [](const qx_obj *object, void *arg) {
      static_cast<std::vector<Seen> *>(arg)->push_back(describe(object));
      return 0;
    };
    EXPECT_EQ(qx_mom_scan_sync(global_, db, record, 0, collect, &all), 0);
    return all;
  }

 private:
  static void set(const std::string &key, const std::string &value) {
    const std::string error = host::config_set(key, value);
    EXPECT_EQ(error, "");
  }

  TempDir dir_;
  std::unique_ptr<Backend> backend_;
  qx_global *global_ = nullptr;
  bool watching_[16] = {};
};

// "cmd:key" of each, as one text: easy to compare by eye.
inline std::string trace(const std::vector<Seen> &seen) {
  std::string out;
  for (const Seen &one : seen) out += (out.empty() ? "" : " ") + std::to_string(one.cmd) + ":" + std::to_string(one.key);
  return out;
}

}  // namespace mom_test
