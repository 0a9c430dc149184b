// The whole daemon in this process: its own main, the real runtime, loop and store. The test's thread plays the OpenFlow service
// library: it calls the registered callbacks and sees every reply that the daemon sends.
//
// The host clock stands still; tick() moves it by one timer period. Nothing sleeps: until() waits for a condition, with a limit.
// An ERROR line that the test has not announced with expect_error fails it, and so does an exit status other than 0.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/of_ss/desired/callbacks.h"
#include "qx_mom.h"
#include "southbound.h"
#include "support/runtime_fixture.h"

namespace harness {

using Bytes = std::vector<std::byte>;

// One object of the store, decoded as a message of the requested type.
struct Record {
  std::shared_ptr<ProtobufCMessage> message;
  template <typename T>
  const T *as() const {
    return reinterpret_cast<const T *>(message.get());
  }
};

// One notification, with a copy of its record, if it has one.
struct Change {
  std::uint32_t cmd;
  Record record;
};

class Daemon {
 public:
  Daemon();
  ~Daemon();

  // The daemon's sixteen callbacks, to be called from the test's thread.
  const host::of_ss::Callbacks &pi() const { return callbacks_; }

  // Moves the clock by one timer period and waits until the daemon has drained its handler list and the store has delivered the
  // resulting writes.
  void tick();
  // Moves the clock and lets the loop run what is due.
  void warp(std::chrono::milliseconds by);
  // Runs `work` on the main SDN thread and waits for it.
  void on_loop(const std::function<void()> &work) const;
  // True if `condition`, called on the main SDN thread, becomes true in time.
  bool until(const std::function<bool()> &condition) const;

  // Replies sent so far, in order: all, or those of one type.
  std::vector<Bytes> replies(std::optional<std::uint16_t> type = {}) const;
  void forget_replies();

  // Everything of one type in the store, in key order, and the number of objects.
  std::vector<Record> stored(std::int32_t db, const ProtobufCMessageDescriptor *type) const;
  std::size_t count(std::int32_t db, const ProtobufCMessageDescriptor *type) const { return stored(db, type).size(); }
  // Writes or deletes a record as another process would.
  int write(std::int32_t db, const ProtobufCMessage *record) const { return change(qx_mom_set, db, record); }
  int remove(std::int32_t db, const ProtobufCMessage *record) const { return change(qx_mom_del, db, record); }
  // Records every change of a type from now on.
  void watch(std::int32_t db, const qx_mom_type &type);
  std::vector<Change> changes() const;

  // Expects one or more ERROR lines that contain `text`.
  void expect_error(const std::string &text);
  // Log lines of class ERROR so far, each as "function: text".
  std::vector<std::string> errors() const;

 private:
  void settle() const;
  int change(decltype(&qx_mom_set) call, std::int32_t db, const ProtobufCMessage *record) const;

  TempDir run_dir_;
  host::of_ss::Callbacks callbacks_;
  mutable std::mutex mutex_;
  std::vector<Bytes> replies_;
  std::vector<std::string> errors_;
  std::map<std::string, bool> expected_;
  std::thread main_;
  int status_ = -1;
};

}  // namespace harness
