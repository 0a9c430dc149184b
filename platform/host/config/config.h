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

// What each key means stands in the table of config.cpp and is printed by config_help().
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

  std::string file;          // that was read; empty when there was none
  bool run_dir_set = false;  // by file, environment or program, or as the user's own; not by default
};

// One key as the operator sees it.
struct ConfigKey {
  std::string name;      // "openflow.listen", "run_dir"
  std::string variable;  // "KELIM_OPENFLOW_LISTEN"
  std::string fallback;  // the default as text
  std::string toml;      // the default as it stands in the file, behind "listen = "; empty for a table
  std::string allowed;   // "0 to 4294967295", "auto, journald, syslog, file or stderr"
  std::string help;
};

// The configuration in force: the loaded one, the defaults before.
const Config &config();

// Reads file and environment unless that was done already. "" or one line that names file or variable, key, what was given and
// what is allowed.
std::string config_load();

// Reads everything anew into `fresh`; the configuration in force stays as it is. "" or the line as of config_load. Loop's thread.
std::string config_reread(Config &fresh);

// The names of the keys, such as "mom.url", whose values differ.
std::vector<std::string> config_changes(Config a, Config b);

// A key's value in force, as the environment variable would have it (passwords masked), and where it comes from: "default", the
// file and line, the variable, or what else has set it.
struct ConfigValue {
  std::string key;
  std::string value;
  std::string source;
};

// Every key of the table, in its order. Loop's thread, as are the next two.
const std::vector<ConfigValue> &config_values();

// These keys are in force from now on as they were read anew last.
void config_taken_over(std::span<const std::string_view> keys);

// Somebody has changed what the key stands for while the process runs.
void config_noted(std::string_view key, const std::string &value, const std::string &source);

// "" or why the key cannot have the value; nothing is changed.
std::string config_check(std::string_view key, const std::string &value);

// Forgets what was loaded, so that the next load reads again. What config_set gave stays.
void config_unload();

// Sets a key from the program, over file and environment, now and at every later load; `value` as the environment variable would
// have it. "" or the error.
std::string config_set(std::string_view key, std::string_view value);

// Tests: forgets what was loaded and set.
void config_reset();

// Every key of the table, in its order.
std::vector<ConfigKey> config_keys();

// All of them as text for people, one key a paragraph.
std::string config_help();

// The run directory of the whole machine, and the default one of a user who is not root: "" outside of a login session.
constexpr const char *kSystemRunDir = "/run/kelim";
std::string users_run_dir();

// Creates the run directory (mode 0755) if it is missing. "" or the error.
std::string make_run_dir();

}  // namespace host
