#include "host/config/keys.h"

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>

#include "host/config/text.h"

namespace host::keys {
namespace {

template <auto Section, auto Member>
Value in(Config &c) {
  return &((c.*Section).*Member);
}

template <auto Member>
Value top(Config &c) {
  return &(c.*Member);
}

// HOST:PORT, with the host in brackets if it contains colons.
bool is_host_port(std::string_view text) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view host = text.substr(0, colon);
  if (host.find(':') != std::string_view::npos && (host.front() != '[' || host.back() != ']')) return false;
  const auto port = number(text.substr(colon + 1));
  return port && *port <= 65535;
}

bool has_method(const std::string &text, const char *method) {
  return text.starts_with(method) && is_host_port(std::string_view(text).substr(strlen(method)));
}

// ---- allowed values

constexpr Allowed words(const char *list) {
  return {.words = list};
}

constexpr Allowed between(std::uint64_t min, std::uint64_t max) {
  return {.words = nullptr, .fits = nullptr, .min = min, .max = max};
}

constexpr std::uint64_t kAny64 = UINT64_MAX;
constexpr Allowed kAnything;

constexpr Allowed kListen = {"ptcp:HOST:PORT or pssl:HOST:PORT",
                             [](const std::string &t) { return has_method(t, "ptcp:") || has_method(t, "pssl:"); }};
constexpr Allowed kConnect = {"tcp:HOST:PORT or ssl:HOST:PORT",
                              [](const std::string &t) { return has_method(t, "tcp:") || has_method(t, "ssl:"); }};
constexpr Allowed kUrl = {
    "embedded:, redis+unix:/PATH, redis://[USER@]HOST:PORT, redis+sentinel://[USER@]HOST:PORT,.../NAME, with TLS rediss://... or "
    "rediss+sentinel://...",
    [](const std::string &t) {
      const auto names_sentinels = [&t](const char *method) {
        return t.starts_with(method) && t.find('/', strlen(method)) != t.npos;
      };
      return t == "embedded:" || t.starts_with("redis+unix:/") || has_method(t, "redis://") || has_method(t, "rediss://") ||
             names_sentinels("redis+sentinel://") || names_sentinels("rediss+sentinel://");
    }};
constexpr Allowed kDatapath = {"1 to 16 hexadecimal digits, or nothing",
                               [](const std::string &t) { return t.empty() || (t.size() <= 16 && number(t, 16)); }};
// PORT, or ADDRESS:PORT.
bool is_numeric_endpoint(const std::string &text) {
  const auto colon = text.rfind(':');
  const auto port = number(colon == text.npos ? text : text.substr(colon + 1));
  if (!port || *port == 0 || *port > 65535) return false;
  if (colon == text.npos) return true;
  std::string host = text.substr(0, colon);
  in6_addr address;
  if (!host.starts_with('[')) return inet_pton(AF_INET, host.c_str(), &address) == 1;
  return host.ends_with(']') && inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &address) == 1;
}

constexpr Allowed kMetrics = {"PORT (of 127.0.0.1) or ADDRESS:PORT, or nothing",
                              [](const std::string &t) { return t.empty() || is_numeric_endpoint(t); }};
constexpr Allowed kPath = {"a path that begins with /", [](const std::string &t) { return t.starts_with('/'); }};

constexpr Allowed kPathOrNone = {"a path that begins with /, or none",
                                 [](const std::string &t) { return t == "none" || t.starts_with('/'); }};

// Every key once: reading, checking, printing and documenting the configuration all walk this table.
using C = Config;
constexpr Row kRows[] = {
    {"", "run_dir", top<&C::run_dir>, kSystemRunDir, kPath,
     "Directory of the control sockets; the default for users other than root is $XDG_RUNTIME_DIR/kelim. A directory that is "
     "set, or a user's own, also holds the pid file."},

    {"log", "target", in<&C::log, &C::Log::target>, "auto", words("auto, journald, syslog, file or stderr"),
     "Where log lines go; auto is journald under systemd and standard error otherwise."},
    {"log", "file", in<&C::log, &C::Log::file>, "/var/log/kelim/%p.log", kPath,
     "The file of target \"file\"; %p stands for the program's name, because two programs must not write to one file."},
    {"log", "level", in<&C::log, &C::Log::level>, "debug", words("debug, info, warning, error or off"),
     "The least severe level that is logged; verbose lines are debug."},
    {"log", "max_bytes", in<&C::log, &C::Log::max_bytes>, "10485760", between(4096, kAny64),
     "Size at which the file is rotated."},
    {"log", "files", in<&C::log, &C::Log::files>, "5", between(1, 1000), "Number of rotated files to keep."},

    {"mom", "url", in<&C::mom, &C::Mom::url>, "embedded:", kUrl, "The object database."},
    {"mom", "password", in<&C::mom, &C::Mom::password>, "", kAnything, "Password of a Redis server; none when empty."},
    {"mom", "password_file", in<&C::mom, &C::Mom::password_file>, "", kAnything,
     "File whose first line is the password; a name without / is that of a systemd credential."},
    {"mom", "tls_ca", in<&C::mom, &C::Mom::tls_ca>, "", kAnything,
     "File of the certificate authorities that the server of a rediss: URL is checked against."},
    {"mom", "tls_cert", in<&C::mom, &C::Mom::tls_cert>, "", kAnything,
     "Certificate file to present to the server, if it requires one."},
    {"mom", "tls_key", in<&C::mom, &C::Mom::tls_key>, "", kAnything, "Private key file of mom.tls_cert."},
    {"mom", "tls_server_name", in<&C::mom, &C::Mom::tls_server_name>, "", kAnything,
     "Name that the server's certificate must contain; when empty, the host of the URL."},
    {"mom", "sync_timeout_ms", in<&C::mom, &C::Mom::sync_timeout_ms>, "1000", between(1, 600'000),
     "Longest wait of a synchronous call."},
    {"mom", "dead_after_ms", in<&C::mom, &C::Mom::dead_after_ms>, "10000", between(100, 3'600'000),
     "Silence after which a connection to a server that owes answers is closed, at most a quarter of this time later."},
    {"mom", "high_water_writes", in<&C::mom, &C::Mom::high_water_writes>, "1048576", between(1, kAny64),
     "Writes of one record type in flight before further ones are refused."},
    {"mom", "high_water_bytes", in<&C::mom, &C::Mom::high_water_bytes>, "536870912", between(1, kAny64),
     "Bytes of one record type in flight before further writes are refused."},
    {"mom", "scan_batch", in<&C::mom, &C::Mom::scan_batch>, "512", between(1, 65'536), "Objects read at a time while scanning."},

    {"openflow", "listen", in<&C::openflow, &C::OpenFlow::listen>, "ptcp:127.0.0.1:6653", kListen,
     "Numeric addresses on which to listen for controllers; empty for none."},
    {"openflow", "connect", in<&C::openflow, &C::OpenFlow::connect>, "", kConnect,
     "Controllers to connect to; a name is looked up at each attempt."},
    {"openflow", "datapath_id", in<&C::openflow, &C::OpenFlow::datapath_id>, "", kDatapath,
     "The datapath id; when empty, a stable one derived from the machine."},
    {"openflow", "capacity", in<&C::openflow, &C::OpenFlow::capacity>, "0", kAnything,
     "Number of flows that the table holds; 0 for what the target announces or, if it does not, the daemon notifies."},
    {"openflow", "echo_interval_s", in<&C::openflow, &C::OpenFlow::echo_interval_s>, "15", between(0, 86'400),
     "Silence in seconds after which a controller is probed; 0 for never."},
    {"openflow", "decide_timeout_ms", in<&C::openflow, &C::OpenFlow::decide_timeout_ms>, "2000", between(100, 600'000),
     "Time after which an undecided flow counts as failed."},
    {"openflow", "prompt", in<&C::openflow, &C::OpenFlow::prompt>, "true", kAnything,
     "Whether the daemon processes requests as soon as they are handed over; otherwise only at its own period of 50 ms."},
    {"openflow", "queue_bound", in<&C::openflow, &C::OpenFlow::queue_bound>, "4096", between(1, 1'000'000),
     "Messages queued per connection, and barriers in flight, at which reading from it stops."},
    {"openflow", "report_cells", in<&C::openflow, &C::OpenFlow::report_cells>, "100", between(1, 2730),
     "Counter changes in one packed report of the daemon."},
    {"openflow", "audit_interval_s", in<&C::openflow, &C::OpenFlow::audit_interval_s>, "10", between(0, 86'400),
     "Seconds between comparisons of the requested state with the database; 0 for only by kelimctl audit."},
    {"openflow", "audit_repair", in<&C::openflow, &C::OpenFlow::audit_repair>, "false", kAnything,
     "Whether the differences that a comparison finds are repaired."},
    {"openflow", "tls_cert", in<&C::openflow, &C::OpenFlow::tls_cert>, "", kAnything, "Certificate file for pssl: and ssl:."},
    {"openflow", "tls_key", in<&C::openflow, &C::OpenFlow::tls_key>, "", kAnything, "Private key file for pssl: and ssl:."},
    {"openflow", "tls_ca", in<&C::openflow, &C::OpenFlow::tls_ca>, "", kAnything,
     "File of the certificate authorities that peers are checked against; without it TLS is not used."},
    {"openflow", "tls_verify", in<&C::openflow, &C::OpenFlow::tls_verify>, "true", kAnything,
     "Whether peers must present a certificate of these authorities; false lets anybody program flows."},

    {"programmer", "embedded", in<&C::programmer, &C::Programmer::embedded>, "true", kAnything,
     "Whether the programming service runs in the daemon; unless set, true for the embedded database only. Without effect in "
     "kelim-programmer."},
    {"programmer", "target", in<&C::programmer, &C::Programmer::target>, "sim", words("sim or linux"),
     "The target to program: simulated hardware, or the machine's own interfaces, which become the ports of a switch. "
     "kelim-programmer takes its option --target instead."},
    {"programmer", "size", in<&C::programmer, &C::Programmer::size>, "4096", kAnything,
     "Number of flows that the target holds; 1 to 1000000 for linux."},
    {"programmer", "delay_ms", in<&C::programmer, &C::Programmer::delay_ms>, "0", between(0, 600'000),
     "Delay of the simulated answers."},
    {"programmer", "script", in<&C::programmer, &C::Programmer::script>, "", kAnything,
     "Scripted answers of the simulated hardware, such as fail=3;resource=5-7."},
    {"programmer", "seed", in<&C::programmer, &C::Programmer::seed>, "1", between(0, kAny64),
     "Seed of the random choices in the simulation."},
    {"programmer", "counter_interval_ms", in<&C::programmer, &C::Programmer::counter_interval_ms>, "1000", between(0, 86'400'000),
     "Period of the counter records; 0 for none."},
    {"programmer", "counter_rate", in<&C::programmer, &C::Programmer::counter_rate>, "0", kAnything,
     "Simulated packets per second of each installed flow."},
    {"programmer", "packet_in_rate", in<&C::programmer, &C::Programmer::packet_in_rate>, "1000", between(1, 1'000'000),
     "Packets per second that each port of the target linux may send to the controllers; more are dropped."},
    {"programmer", "packet_in_burst", in<&C::programmer, &C::Programmer::packet_in_burst>, "100", between(1, 1'000'000),
     "How many of these may be sent at once."},
    {"programmer", "pin_dir", in<&C::programmer, &C::Programmer::pin_dir>, "/sys/fs/bpf/kelim", kPathOrNone,
     "Where the target linux keeps its tables while no service runs, in a BPF file system, or none."},
    {"programmer", "service_chain", in<&C::programmer, &C::Programmer::service_chain>, "true", kAnything,
     "Whether the programming service also runs the service-chain application."},

    {"control", "enabled", in<&C::control, &C::Control::enabled>, "true", kAnything,
     "Whether debug commands and views are served on a unix socket in the run directory."},
    {"control", "group", in<&C::control, &C::Control::group>, "", kAnything,
     "Group whose members may ask for views there; commands are for root and the process's user, who must be a member."},

    {"metrics", "listen", in<&C::metrics, &C::Metrics::listen>, "", kMetrics,
     "Address at which the daemon serves /metrics (Prometheus), /healthz and /readyz over HTTP; empty for none."},
    {"metrics", "programmer_listen", in<&C::metrics, &C::Metrics::programmer_listen>, "", kMetrics,
     "The same for kelim-programmer, if it runs as a separate process."},

    {"", "ports", top<&C::ports>, "", kAnything,
     "The port table: [[ports]] with ifx, name, phyid, type; as text IFX:NAME[:PHYID[:TYPE]], .... Without it, the machine's "
     "interfaces."},
};

// True if `text` is one of the words in a list such as "a, b or c".
bool is_word_of(const char *list, const std::string &text) {
  const List all_words = split(list, " ,");
  return text != "or" && std::find(all_words.begin(), all_words.end(), text) != all_words.end();
}

}  // namespace

std::span<const Row> all() {
  return kRows;
}

const Row *find(std::string_view section, std::string_view key) {
  const auto fits = [&](const Row &r) { return section == r.section && key == r.key; };
  const auto row = std::find_if(std::begin(kRows), std::end(kRows), fits);
  return row == std::end(kRows) ? nullptr : row;
}

bool is_section(std::string_view name) {
  return std::any_of(std::begin(kRows), std::end(kRows), [&](const Row &r) { return *r.section != '\0' && name == r.section; });
}

std::string name(const Row &row) {
  return *row.section == '\0' ? row.key : std::string(row.section) + "." + row.key;
}

std::string variable(const Row &row) {
  std::string text = "KELIM_" + name(row);
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return c == '.' ? '_' : static_cast<char>(toupper(c)); });
  return text;
}

bool fits(const Row &row, const std::string &text) {
  if (row.allowed.fits) return row.allowed.fits(text);
  return !row.allowed.words || is_word_of(row.allowed.words, text);
}

}  // namespace host::keys
