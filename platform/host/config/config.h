// The host's configuration: one TOML file, every key of which can also be set as an environment variable.
//
// Order, later wins: defaults, the file (/etc/kelim/host.toml, or what KELIM_CONF names), the environment (KELIM_<SECTION>_<KEY>,
// such as KELIM_OPENFLOW_LISTEN; KELIM_RUN_DIR for the key outside any section), values set by the program itself. A missing
// default file is fine, a missing KELIM_CONF file is an error.
//
// Threads: loaded on the loop's thread; after qx_global_init any thread may read.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace host {

struct ConfigPort {
  std::uint32_t ifx = 0;
  std::string name;
  std::uint32_t phyid = 0;
  std::uint32_t type = 1;  // LSM_IF_TYPE_ETHERNET, LLCB_OVERLAY_*

  bool operator==(const ConfigPort &) const = default;
};

// The table in keys.cpp says what each key means; config_help() prints it.
struct Config {
  std::string run_dir;

  struct Log {
    std::string target;
    std::string file;
    std::string level;
    std::uint64_t max_bytes;
    std::uint32_t files;
  } log;

  struct Mom {
    std::string url;
    std::string password;
    std::string password_file;
    std::string tls_ca;
    std::string tls_cert;
    std::string tls_key;
    std::string tls_server_name;
    std::uint32_t sync_timeout_ms;
    std::uint32_t dead_after_ms;
    std::uint64_t high_water_writes;
    std::uint64_t high_water_bytes;
    std::uint32_t scan_batch;
  } mom;

  struct OpenFlow {
    std::vector<std::string> listen;
    std::vector<std::string> connect;
    std::string datapath_id;
    std::uint32_t capacity;
    std::uint32_t echo_interval_s;
    std::uint32_t decide_timeout_ms;
    bool prompt;
    std::uint32_t queue_bound;
    std::uint32_t report_cells;
    std::uint32_t audit_interval_s;
    bool audit_repair;
    std::string tls_cert;
    std::string tls_key;
    std::string tls_ca;
    bool tls_verify;
  } openflow;

  struct Programmer {
    bool embedded;
    std::string target;
    std::uint32_t size;
    std::uint32_t delay_ms;
    std::string script;
    std::uint64_t seed;
    std::uint32_t counter_interval_ms;
    std::uint32_t counter_rate;
    std::uint32_t packet_in_rate;
    std::uint32_t packet_in_burst;
    std::string pin_dir;
    bool service_chain;
  } programmer;

  struct Control {
    bool enabled;
    std::string group;
  } control;

  struct Metrics {
    std::string listen;
    std::string programmer_listen;
  } metrics;

  std::vector<ConfigPort> ports;

  std::string file;          // the file read; empty if there was none
  bool run_dir_set = false;  // set by file, environment or program, or the user's own directory; false for the system's default
};

// One key as the operator sees it.
struct ConfigKey {
  std::string name;      // "openflow.listen", "run_dir"
  std::string variable;  // "KELIM_OPENFLOW_LISTEN"
  std::string fallback;  // the default as text
  std::string toml;      // the default as written in the file after "listen = "; empty for a table
  std::string allowed;   // "0 to 4294967295", "auto, journald, syslog, file or stderr"
  std::string help;
};

// The effective configuration: the loaded one, or the defaults before the load.
const Config &config();

// Reads file and environment unless that was done already. Returns "" or one line that names file or variable, key, the given
// value and the allowed ones.
std::string config_load();

// Rereads everything into `fresh`; the effective configuration does not change. Returns "" or a line like config_load's. Loop's
// thread.
std::string config_reread(Config &fresh);

// The names of the keys, such as "mom.url", whose values differ.
std::vector<std::string> config_changes(Config a, Config b);

// A key's effective value in the form of the environment variable (passwords masked), and its source: "default", the file and
// line, the variable, or the call that set it.
struct ConfigValue {
  std::string key;
  std::string value;
  std::string source;
};

// The effective values of all keys in the order of the table. Loop's thread, as for the next two.
const std::vector<ConfigValue> &config_values();

// Makes the latest reread values of these keys effective.
void config_taken_over(std::span<const std::string_view> keys);

// Records that the key's setting was changed by other means while the process runs.
void config_noted(std::string_view key, const std::string &value, const std::string &source);

// Returns "" or why the key cannot have the value; changes nothing.
std::string config_check(std::string_view key, const std::string &value);

// Discards the loaded values, so that the next load reads again. Values from config_set stay.
void config_unload();

// Sets a key from the program, over file and environment, now and at every later load; `value` has the form of the environment
// variable. Returns "" or the error.
std::string config_set(std::string_view key, std::string_view value);

// Tests: discards everything loaded and set.
void config_reset();

// Every key of the table, in its order.
std::vector<ConfigKey> config_keys();

// All keys as readable text, one paragraph per key.
std::string config_help();

// The system's run directory, and the default one of a user other than root, which is "" outside a login session.
constexpr const char *kSystemRunDir = "/run/kelim";
std::string users_run_dir();

// Creates the run directory (mode 0755) if it is missing. Returns "" or the error.
std::string make_run_dir();

}  // namespace host
