// The protocol's state of one connection. Openflow thread only.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

enum class Role : std::uint32_t { no_change = 0, equal = 1, master = 2, slave = 3 };

// Masks of the asynchronous messages (7.3.10), in wire order: for each kind one for master and equal, one for slave.
enum class Async : std::size_t { packet_in = 0, port_status = 2, flow_removed = 4 };

// A multipart reply being sent piece by piece (multipart.h).
struct Dump;
struct FreeDump {
  void operator()(Dump *dump) const;
};

// The flow monitors of a connection (monitors.h).
struct Watcher;
struct FreeWatcher {
  void operator()(Watcher *watcher) const;
};

struct Session {
  Role role = Role::equal;
  std::array<std::uint32_t, 6> async{0x7, 0, 0x7, 0x7, 0xf, 0};
  std::uint16_t miss_send_len = 128;
  bool up = false;              // counted among the controllers
  std::uint32_t interface = 0;  // the machine's interface of the connection
  std::uint32_t barriers = 0;   // handed to the daemon and unanswered
  bool has_asked = false;       // its first request has been answered; no asynchronous messages before that
  // Of its current turn: messages that may still be taken, and bytes unsent at the beginning.
  std::uint32_t share = 0;
  std::size_t unsent_before = 0;
  // Calls handed over since the loop's last turn (Pace::granted).
  std::uint64_t granted = 0;
  std::uint32_t handed_over = 0;
  bool waits_for_counters = false;  // its statistics request waits for fresh counters, and later messages wait for that request
  std::unique_ptr<Dump, FreeDump> dump;
  std::unique_ptr<Watcher, FreeWatcher> watcher;
  // Sent to it; dropped because it does not read; received from it.
  std::uint64_t packets_in = 0, packets_lost = 0, packets_out = 0;
  bool owes_updates = false;  // its monitors are due the first flows, or changes during a pause; later messages wait
};

}  // namespace host::of_ss
