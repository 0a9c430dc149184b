// The programming service: applies flow, meter and controller-address records to a target and writes the results back.
//
// It reads `flow`, `meter`, `onc_ip` and `pkt_sig` of database 8, and with service_chain also `parse_flow` of database 4; it
// writes `s_target.capabilities`, `flow_sta` (rep_uuid = the request's req_uuid), the status of meters and controller addresses,
// `flow_counter`, and with service_chain `flow_to_ace`. A rewrite of an unchanged installed flow is
// answered without touching the target. A deleted flow leaves the target together with its flow_sta and flow_counter records.
// Records that cannot be read are logged once per kind, counted and skipped. When a subscription goes live, at start and after
// every reconnect, the service reads all records: it installs them, answers unanswered requests and removes flows whose records
// are gone; counters continue from the stored sums.
//
// It is not part of the daemon: with the embedded store it runs in the daemon's process, started by the host platform; with a
// shared store it is the program kelim-programmer. Both use only the platform contract.
//
// Threads: every call and everything it does belongs to the loop's thread of qx_runtime.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qx_runtime.h"

namespace programmer {

// Name of the stand-alone service's process and runtime.
inline constexpr char kProcess[] = "kelim-programmer";
// Name of a process that runs no service and only removes what an earlier one has left in the kernel.
inline constexpr char kReleasing[] = "kelim-programmer-release";

// Options of the target and the service. Delay, script, seed and counter_rate belong to the simulated target.
struct Options {
  std::string target = "sim";                 // "sim", or "linux": the machine's own interfaces (docs/dataplane.md)
  std::uint32_t size = 4096;                  // flows that fit; one more is refused as out of resources
  std::uint32_t delay_ms = 0;                 // delay of answers to flows; 0: none
  std::string script;                         // exceptions, see below; empty: none
  std::uint64_t seed = 1;                     // seed of the script's random choices
  std::uint32_t counter_interval_ms = 1000;   // interval of reading and writing counters; 0: never, and no flow becomes idle
  std::uint32_t counter_rate = 0;             // packets per second by which every installed flow's counters grow; 0: not at all
  std::uint32_t packet_in_rate = 1000;        // packets per second that a port of linux sends to controllers; 1 to 1,000,000
  std::uint32_t packet_in_burst = 100;        // packets that it may send at once; 1 to 1,000,000
  std::string pin_dir = "/sys/fs/bpf/kelim";  // keeps the plane of linux while no service runs; "none": it is not kept
  bool service_chain = true;                  // translate parse_flow records into access-control entries
};

// A script is a list of clauses, separated by semicolons: VERB=ITEM[,ITEM...], for example "fail=3,17-19;resource=5;delay=7:200".
//
//   verb        what happens to the request
//   fail        answered as failed
//   resource    answered as out of resources
//   silent      never answered
//   delay       answered later; the item ends in :MILLISECONDS
//   meter-fail  a meter answered as failed; items are meter ids
//
//   item        which requests
//   N, N-M      by arrival: the Nth request for a flow that reaches the target since its start, the first being 1
//   @N, @N-M    by flow index
//   P%          P of a hundred, chosen at random from the seed
//   *           every one
//
// If several verbs fit one request, silent wins over resource and resource over fail; of several delays the first one counts.

// Empty if a service can be started with `options`, otherwise a text that says what is wrong and what is allowed.
std::string check(const Options &options);
// Like check(), for the script alone.
std::string check_script(const Options &options);

// Starts the service on `global`, whose databases this process has connected or will connect itself. 0; QX_INVALID for options
// that check() refuses or a null handle; QX_FAILED when it runs already or the first timer cannot be armed; QX_UNSUPPORTED when
// this machine cannot be the target: `why` then says in one line what is missing.
int start_embedded(qx_global *global, const Options &options, std::string *why = nullptr);

// Ends the service: nothing is answered afterwards. To be called once the loop has ended, before the runtime is released.
// Repeating it, or calling it without a start, is harmless.
void stop_embedded();

// The service's contents, and its work since the start.
struct Totals {
  std::uint64_t flows, size, meters, addresses;                   // in the target; size: the flows that fit
  std::uint64_t waiting, owed;                                    // answers waiting for their delay; for the database
  std::uint64_t installed, failed, resource, untouched, removed;  // flows; untouched: answered without asking the target
  std::uint64_t counters, translated;                             // counter records written, service-chain flows translated
  std::uint64_t skipped;                                          // records that cannot be read
};

// std::nullopt while no service runs.
std::optional<Totals> totals();

// The state of the target linux in the kernel.
struct PlaneState {
  struct Filter {
    bool ingress;
    std::uint32_t preference;
    std::string name;
  };
  struct Port {
    std::uint32_t number;
    std::string interface;
    bool present;
    bool forwards;               // the attached program is this plane's, not that of an earlier one
    std::vector<Filter> others;  // tc filters of other programs on the interface
  };
  std::string pins;                   // directory; empty: not pinned
  std::string unpinned;               // why it is not pinned
  bool in_step;                       // every stored flow and meter has been requested since the start
  std::uint64_t taken_over, dropped;  // flows found at the start: kept because they were requested unchanged, and removed
  std::uint64_t written;              // flows written since the start
  std::vector<Port> ports;
};

// std::nullopt while no service runs, or if it has another target.
std::optional<PlaneState> plane();

// Removes what a service with the target linux has left in the kernel: programs, qdiscs that nobody else uses, pins. For a
// process that runs no service; `global` is its runtime. 0, and `said` lists what was done, one line each; QX_FAILED, with the
// reason in `said`, while a service runs on these interfaces.
int release(qx_global *global, const Options &options, std::string &said);

}  // namespace programmer
