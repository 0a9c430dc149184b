#include "of_ss.h"

#include <atomic>
#include <mutex>

#include "host/of_ss/callbacks.h"
#include "host/of_ss/testing.h"
#include "southbound.h"

namespace host::of_ss {
namespace {

Callbacks registered;
std::atomic<bool> held{false};

// The taps; `tapped` spares untapped processes the lock.
std::atomic<bool> tapped{false};
std::mutex tap_mutex;
std::function<void(std::span<const std::byte>)> reply_tap;
std::function<void()> fetch_tap;

template <typename Tap, typename... Args>
void tell(Tap &tap, const Args &...args) {
  if (!tapped.load(std::memory_order_acquire)) return;
  const std::lock_guard lock(tap_mutex);
  if (tap) tap(args...);
}

template <typename Tap>
void set_tap(Tap &tap, Tap value) {
  const std::lock_guard lock(tap_mutex);
  tap = std::move(value);
  tapped.store(reply_tap || fetch_tap, std::memory_order_release);
}

template <typename Callback>
int put(Callback &slot, Callback cb) {
  if (!cb) return -4;
  slot = cb;
  return 0;
}

bool is_message(const void *msg, std::uint32_t len) {
  return msg && len >= southbound::kHeaderLen && southbound::get<std::uint16_t>(msg, southbound::kLen) == len;
}

}  // namespace

const Callbacks &callbacks() {
  return registered;
}

void hold_agent(bool hold) {
  held = hold;
}

void set_reply_tap(std::function<void(std::span<const std::byte>)> tap) {
  set_tap(reply_tap, std::move(tap));
}

void set_fetch_tap(std::function<void()> tap) {
  set_tap(fetch_tap, std::move(tap));
}

void of_ss_reset_for_tests() {
  set_reply_tap(nullptr);
  set_fetch_tap(nullptr);
  registered = {};
  held = false;
}

}  // namespace host::of_ss

using host::of_ss::put;
using host::of_ss::registered;

extern "C" {

int ss_of_init(qx_global *global) {
  return global ? 0 : -1;
}

int of_ss_regiter_flow_mod(of_ss_msg_cb cb) {
  return put(registered.flow_mod, cb);
}
int of_ss_regiter_send_openmsg(of_ss_msg_cb cb) {
  return put(registered.open, cb);
}
int of_ss_regiter_mgmt_ifx(of_ss_msg_cb cb) {
  return put(registered.mgmt_ifx, cb);
}
int of_ss_regiter_send_closemsg(of_ss_msg_cb cb) {
  return put(registered.close, cb);
}
int of_ss_regiter_del_all_flow(of_ss_signal_cb cb) {
  return put(registered.del_all_flow, cb);
}
int of_ss_regiter_start(of_ss_msg_cb cb) {
  return put(registered.ds_start, cb);
}
int of_ss_regiter_end(of_ss_msg_cb cb) {
  return put(registered.ds_end, cb);
}
int of_ss_regiter_flow_statistic_reply(of_ss_msg_cb cb) {
  return put(registered.statistic, cb);
}
int of_ss_regiter_meter_mod(of_ss_msg_cb cb) {
  return put(registered.meter_mod, cb);
}
int of_ss_socket_connected(of_ss_signal_cb cb) {
  return put(registered.connected, cb);
}
int of_ss_flowcount_config(of_ss_msg_cb cb) {
  return put(registered.flow_count, cb);
}
int of_ss_pkt_start(of_ss_msg_cb cb) {
  return put(registered.pkt_start, cb);
}
int of_ss_pkt_end(of_ss_msg_cb cb) {
  return put(registered.pkt_end, cb);
}
int of_ss_con_info(of_ss_msg_cb cb) {
  return put(registered.onc_info, cb);
}
int ofss_barrier_request(of_ss_msg_cb cb) {
  return put(registered.barrier, cb);
}
int of_ss_regiter_del_all(of_ss_signal_cb cb) {
  return put(registered.del_all, cb);
}

void ss_of_ds_fetch(void) {
  host::of_ss::tell(host::of_ss::fetch_tap);
}

int of_ss_send_msg(const void *msg, uint32_t len) {
  using namespace host::of_ss;
  if (!is_message(msg, len)) return -4;
  tell(reply_tap, std::span(static_cast<const std::byte *>(msg), len));
  return held || tapped ? 0 : -1;
}
}
