#include "app/harness.h"

#include <future>

#include "host/base/loop.h"
#include "host/log/log.h"
#include "host/of_ss/testing.h"
#include "libss_pthrd.h"
#include "s_policy_kelim.pb-c.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_sdn_main_list.h"
#include "support/reset.h"

int ssc_kelim_main();  // the daemon's main, renamed

namespace harness {
namespace {

using namespace std::chrono_literals;

constexpr std::int32_t kUdpDb = 8;

// Of no bytes: an empty record.
Record unpack(const ProtobufCMessageDescriptor *type, const std::vector<std::uint8_t> &packed) {
  return {{protobuf_c_message_unpack(type, nullptr, packed.size(), packed.data()),
           [](ProtobufCMessage *m) { protobuf_c_message_free_unpacked(m, nullptr); }}};
}

Record copy_of(const qx_obj &object) {
  auto *message = static_cast<ProtobufCMessage *>(object.value);
  if ((object.cmd == QX_MOM_CMD_HASH_NEW || object.cmd == QX_MOM_CMD_HASH_SET) && message != nullptr)
    message = static_cast<qx_mom_hash_value *>(object.value)->record;
  if (message == nullptr) return {};
  std::vector<std::uint8_t> packed(protobuf_c_message_get_packed_size(message));
  protobuf_c_message_pack(message, packed.data());
  return unpack(message->descriptor, packed);
}

// What `watch` and the settling marker receive. One daemon lives at a time in a process.
std::vector<Change> g_changes;  // main SDN thread
std::atomic<unsigned> g_markers{0};

int on_change(void *, const qx_obj *msg) {
  if (msg->cmd == QX_MOM_CMD_DATA_FETCH) return 0;
  g_changes.push_back({msg->cmd, copy_of(*msg)});
  return 0;
}

int on_marker(void *, const qx_obj *msg) {
  if (msg->value != nullptr) ++g_markers;
  return 0;
}

constexpr int kMarkerRounds = 4;  // flow -> flow_sta -> flow_to_ace_sta, and one to spare

}  // namespace

Daemon::Daemon() {
  setenv("KELIM_RUN_DIR", run_dir_.path().c_str(), 1);
  setenv("KELIM_PORTS", "1:p1:101:1,2:p2:102:1,3:p3:103:1,45:tunnel:145:45,46:router:146:46", 1);
  setenv("KELIM_PROGRAMMER_EMBEDDED", "false", 1);

  host::clock::stop();
  host::of_ss::hold_agent(true);
  host::of_ss::set_reply_tap([this](std::span<const std::byte> bytes) {
    const std::lock_guard lock(mutex_);
    replies_.emplace_back(bytes.begin(), bytes.end());
  });
  host::log::set_tap([this](const host::log::LineView &line) {
    if (line.level < host::log::Level::error) return;
    const std::lock_guard lock(mutex_);
    errors_.push_back(std::string(line.function) + ": " + std::string(line.text));
  });
  main_ = std::thread([this] { status_ = ssc_kelim_main(); });
  if (!until([] { return host::of_ss::callbacks().complete(); })) throw std::runtime_error("the daemon did not start");
  on_loop([this] {
    callbacks_ = host::of_ss::callbacks();
    const qx_mom_spec marker = {{&s_policy_kelim__port_phyid__descriptor, &s_policy_kelim__port_key__descriptor}, QX_MOM_DECODED};
    qx_mom_subscribe(g_ssc_kelim_global, kUdpDb, &marker, on_marker);
  });
  settle();
}

Daemon::~Daemon() {
  host::stop_loop();
  main_.join();
  EXPECT_EQ(status_, 0);
  reset_process();
  for (const std::string &line : errors_) {
    bool announced = false;
    for (auto &[text, seen] : expected_)
      if (line.find(text) != std::string::npos) announced = seen = true;
    EXPECT_TRUE(announced) << "unannounced ERROR line: " << line;
  }
  for (const auto &[text, seen] : expected_) EXPECT_TRUE(seen) << "this ERROR line did not come: " << text;
}

void Daemon::on_loop(const std::function<void()> &work) const {
  std::promise<void> done;
  host::post([&] {
    work();
    done.set_value();
  });
  if (done.get_future().wait_for(kPatience) != std::future_status::ready) throw std::runtime_error("the loop does not answer");
}

bool Daemon::until(const std::function<bool()> &condition) const {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  do {
    auto answer = std::make_shared<std::promise<bool>>();
    host::post([answer, &condition] { answer->set_value(condition()); });
    auto future = answer->get_future();
    // A runtime that is not there yet drops what is posted.
    if (future.wait_for(20ms) == std::future_status::ready) {
      if (future.get()) return true;
      std::this_thread::sleep_for(200us);
    }
  } while (std::chrono::steady_clock::now() < end);
  return false;
}

// Every notification is delivered in the order of the writes, so a marker that has come back tells that everything written before
// it was delivered; what was written in answer to that takes another round.
void Daemon::settle() const {
  for (int round = 0; round < kMarkerRounds; ++round) {
    const unsigned before = g_markers;
    on_loop([] {
      const SPolicyKelim__PortPhyid marker = S_POLICY_KELIM__PORT_PHYID__INIT;
      qx_mom_publish(g_ssc_kelim_global, kUdpDb, &marker.base, 0, 0);
    });
    ASSERT_TRUE(until([before] { return g_markers != before; })) << "the store does not deliver";
  }
}

void Daemon::tick() {
  warp(50ms);
  ASSERT_TRUE(until([] { return libss_pthrd_get_hdl_num(ssc_sdn_mst) == 0; })) << "the handler list was not drained";
  settle();
}

void Daemon::warp(std::chrono::milliseconds by) {
  host::clock::warp(by);
  settle();
}

std::vector<Bytes> Daemon::replies(std::optional<std::uint16_t> type) const {
  const std::lock_guard lock(mutex_);
  std::vector<Bytes> found;
  for (const Bytes &reply : replies_)
    if (!type || southbound::get<std::uint16_t>(reply.data(), southbound::kType) == *type) found.push_back(reply);
  return found;
}

void Daemon::forget_replies() {
  const std::lock_guard lock(mutex_);
  replies_.clear();
}

std::vector<Record> Daemon::stored(std::int32_t db, const ProtobufCMessageDescriptor *type) const {
  std::vector<Record> found;
  on_loop([&] {
    const auto collect = [](const qx_obj *object, void *arg) {
      static_cast<std::vector<Record> *>(arg)->push_back(copy_of(*object));
      return 0;
    };
    qx_mom_scan_sync(g_ssc_kelim_global, db, unpack(type, {}).message.get(), 0, collect, &found);
  });
  return found;
}

int Daemon::change(decltype(&qx_mom_set) call, std::int32_t db, const ProtobufCMessage *record) const {
  int rv = 0;
  on_loop([&] { rv = call(g_ssc_kelim_global, db, record, 0, 0); });
  settle();
  return rv;
}

void Daemon::watch(std::int32_t db, const qx_mom_type &type) {
  on_loop([&] {
    const qx_mom_spec spec = {type, QX_MOM_DECODED};
    qx_mom_subscribe(g_ssc_kelim_global, db, &spec, on_change);
    g_changes.clear();
  });
  settle();
}

std::vector<Change> Daemon::changes() const {
  std::vector<Change> copy;
  on_loop([&] { copy = g_changes; });
  return copy;
}

void Daemon::expect_error(const std::string &text) {
  const std::lock_guard lock(mutex_);
  expected_.emplace(text, false);
}

std::vector<std::string> Daemon::errors() const {
  const std::lock_guard lock(mutex_);
  return errors_;
}

}  // namespace harness
