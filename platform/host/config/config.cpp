#include "host/config/config.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <variant>

#define TOML_EXCEPTIONS 0
#include <toml++/toml.h>

#include "lsm_if.h"

extern char **environ;

namespace host {
namespace {

constexpr const char *kDefaultFile = "/etc/kelim/host.toml";

// ---- values

using Text = std::string;
using List = std::vector<std::string>;
using Ports = std::vector<ConfigPort>;
using Value = std::variant<Text *, bool *, std::uint32_t *, std::uint64_t *, List *, Ports *>;

// What a text value must be like; null words mean anything.
struct Form {
  const char *words;  // what is allowed, for people
  bool (*fits)(const std::string &) = nullptr;
};

struct Row {
  const char *section;  // "" for keys outside any section
  const char *key;
  Value (*at)(Config &);
  const char *fallback;
  const char *help;
  Form form = {nullptr};
  std::uint64_t min = 0;
  std::uint64_t max = UINT32_MAX;
};

template <auto Section, auto Member>
Value in(Config &c) {
  return &((c.*Section).*Member);
}

template <auto Member>
Value top(Config &c) {
  return &(c.*Member);
}

template <char... Letters>
constexpr bool is_one_of(char c) {
  return ((c == Letters) || ...);
}

List split(std::string_view text, bool (*separates)(char)) {
  List parts;
  for (std::size_t begin = 0; begin < text.size();) {
    const auto from = std::find_if_not(text.begin() + begin, text.end(), separates);
    const auto to = std::find_if(from, text.end(), separates);
    if (from != to) parts.emplace_back(from, to);
    begin = static_cast<std::size_t>(to - text.begin());
  }
  return parts;
}

std::optional<std::uint64_t> number(std::string_view text, int base = 10) {
  std::uint64_t n = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n, base);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return n;
}

// "a, b or c" holds the words that a text may be.
bool is_word_of(const char *words, const std::string &text) {
  const List all = split(words, is_one_of<' ', ','>);
  return text != "or" && std::find(all.begin(), all.end(), text) != all.end();
}

// HOST:PORT, the host in brackets where it has colons itself.
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

constexpr Form kListen = {"ptcp:HOST:PORT or pssl:HOST:PORT",
                          [](const std::string &t) { return has_method(t, "ptcp:") || has_method(t, "pssl:"); }};
constexpr Form kConnect = {"tcp:HOST:PORT or ssl:HOST:PORT",
                           [](const std::string &t) { return has_method(t, "tcp:") || has_method(t, "ssl:"); }};
constexpr Form kUrl = {"embedded:, redis+unix:/PATH or redis://HOST:PORT", [](const std::string &t) {
                         return t == "embedded:" || t.starts_with("redis+unix:/") || has_method(t, "redis://");
                       }};
constexpr Form kDatapath = {"1 to 16 hexadecimal digits, or nothing",
                            [](const std::string &t) { return t.empty() || (t.size() <= 16 && number(t, 16)); }};
constexpr Form kPath = {"a path that begins with /", [](const std::string &t) { return t.starts_with('/'); }};

constexpr std::uint64_t kAny64 = UINT64_MAX;

// Every key, once: what reads, checks, prints and documents the configuration walks this table.
constexpr Row kRows[] = {
    {"", "run_dir", top<&Config::run_dir>, "/run/kelim",
     "Directory of the control sockets; set explicitly, the pid file lies there too.", kPath},

    {"log",
     "target",
     in<&Config::log, &Config::Log::target>,
     "auto",
     "Where log lines go; auto is journald under systemd and standard error otherwise.",
     {"auto, journald, syslog, file or stderr"}},
    {"log", "file", in<&Config::log, &Config::Log::file>, "/var/log/kelim.log", "The file of target \"file\".", kPath},
    {"log",
     "level",
     in<&Config::log, &Config::Log::level>,
     "debug",
     "The least severe level that is kept; verbose lines are debug.",
     {"debug, info, warning, error or off"}},
    {"log",
     "max_bytes",
     in<&Config::log, &Config::Log::max_bytes>,
     "10485760",
     "Size at which the file is rotated.",
     {},
     4096,
     kAny64},
    {"log", "files", in<&Config::log, &Config::Log::files>, "5", "Rotated files that are kept.", {}, 1, 1000},

    {"mom", "url", in<&Config::mom, &Config::Mom::url>, "embedded:", "The object database.", kUrl},
    {"mom", "password", in<&Config::mom, &Config::Mom::password>, "", "Password of a Redis server; none when empty."},
    {"mom",
     "sync_timeout_ms",
     in<&Config::mom, &Config::Mom::sync_timeout_ms>,
     "1000",
     "Longest wait of a synchronous call.",
     {},
     1,
     600'000},
    {"mom",
     "high_water_writes",
     in<&Config::mom, &Config::Mom::high_water_writes>,
     "1048576",
     "Writes of one record type in flight before further ones are refused.",
     {},
     1,
     kAny64},
    {"mom",
     "high_water_bytes",
     in<&Config::mom, &Config::Mom::high_water_bytes>,
     "536870912",
     "Bytes of one record type in flight before further writes are refused.",
     {},
     1,
     kAny64},
    {"mom",
     "scan_batch",
     in<&Config::mom, &Config::Mom::scan_batch>,
     "512",
     "Objects read at a time while scanning.",
     {},
     1,
     65536},

    {"openflow", "listen", in<&Config::openflow, &Config::OpenFlow::listen>, "ptcp:127.0.0.1:6653",
     "Where controllers connect to; empty for nowhere.", kListen},
    {"openflow", "connect", in<&Config::openflow, &Config::OpenFlow::connect>, "", "Controllers to connect to.", kConnect},
    {"openflow", "datapath_id", in<&Config::openflow, &Config::OpenFlow::datapath_id>, "",
     "The datapath id; when empty, one derived from the machine that stays the same.", kDatapath},
    {"openflow", "capacity", in<&Config::openflow, &Config::OpenFlow::capacity>, "0",
     "Flows the table holds; 0 for what the daemon notifies."},
    {"openflow",
     "echo_interval_s",
     in<&Config::openflow, &Config::OpenFlow::echo_interval_s>,
     "15",
     "Silence after which a controller is probed, in seconds; 0 for never.",
     {},
     0,
     86'400},
    {"openflow",
     "decide_timeout_ms",
     in<&Config::openflow, &Config::OpenFlow::decide_timeout_ms>,
     "2000",
     "Time after which an undecided flow counts as failed.",
     {},
     100,
     600'000},
    {"openflow",
     "queue_bound",
     in<&Config::openflow, &Config::OpenFlow::queue_bound>,
     "4096",
     "Messages queued a connection before reading from it stops.",
     {},
     1,
     1'000'000},
    {"openflow", "tls_cert", in<&Config::openflow, &Config::OpenFlow::tls_cert>, "", "Certificate file for pssl: and ssl:."},
    {"openflow", "tls_key", in<&Config::openflow, &Config::OpenFlow::tls_key>, "", "Private key file for pssl: and ssl:."},
    {"openflow", "tls_ca", in<&Config::openflow, &Config::OpenFlow::tls_ca>, "",
     "File of the authorities that peers are checked against."},

    {"programmer", "embedded", in<&Config::programmer, &Config::Programmer::embedded>, "true",
     "Whether the simulated programming service runs in the daemon; unless set, true for the embedded database only."},
    {"programmer", "size", in<&Config::programmer, &Config::Programmer::size>, "4096", "Flows the simulated hardware holds."},
    {"programmer",
     "delay_ms",
     in<&Config::programmer, &Config::Programmer::delay_ms>,
     "0",
     "Delay of the simulated answers.",
     {},
     0,
     600'000},
    {"programmer", "script", in<&Config::programmer, &Config::Programmer::script>, "",
     "Scripted answers of the simulated hardware."},
    {"programmer",
     "seed",
     in<&Config::programmer, &Config::Programmer::seed>,
     "1",
     "Seed of what is random in the simulation.",
     {},
     0,
     kAny64},
    {"programmer",
     "counter_interval_ms",
     in<&Config::programmer, &Config::Programmer::counter_interval_ms>,
     "1000",
     "Period of the counter records; 0 for none.",
     {},
     0,
     86'400'000},
    {"programmer", "counter_rate", in<&Config::programmer, &Config::Programmer::counter_rate>, "0",
     "Simulated packets a second of each installed flow."},
    {"programmer", "service_chain", in<&Config::programmer, &Config::Programmer::service_chain>, "true",
     "Whether the service-chain application runs with it."},

    {"control", "enabled", in<&Config::control, &Config::Control::enabled>, "true",
     "Whether debug commands and views are served on a unix socket in the run directory."},

    {"", "ports", top<&Config::ports>, "",
     "The port table: [[ports]] with ifx, name, phyid, type; as text IFX:NAME[:PHYID[:TYPE]], .... Without it, the machine's "
     "interfaces."},
};

const Row *find_row(std::string_view section, std::string_view key) {
  const auto row =
      std::find_if(std::begin(kRows), std::end(kRows), [&](const Row &r) { return section == r.section && key == r.key; });
  return row == std::end(kRows) ? nullptr : row;
}

std::string row_name(const Row &row) {
  return *row.section == '\0' ? row.key : std::string(row.section) + "." + row.key;
}

std::string row_variable(const Row &row) {
  std::string name = "KELIM_" + row_name(row);
  std::transform(name.begin(), name.end(), name.begin(), [](char c) { return c == '.' ? '_' : static_cast<char>(toupper(c)); });
  return name;
}

template <typename... F>
struct Overloaded : F... {
  using F::operator()...;
};

constexpr const char *kPortForm =
    "ports of ifx 1 to 4294967295, each once, name, phyid and type ethernet, tunnel, router (or 1, 45, 46)";

std::string allowed(const Row &row) {
  static Config scratch;
  const auto numbers = [&](auto *) { return std::to_string(row.min) + " to " + std::to_string(row.max); };
  const std::string words = row.form.words ? row.form.words : "any text";
  return std::visit(
      Overloaded{[&](Text *) { return words; }, [&](List *) { return "a list of " + words; },
                 [](bool *) { return std::string("true or false"); }, [](Ports *) { return std::string(kPortForm); }, numbers},
      row.at(scratch));
}

bool fits(const Row &row, const std::string &text) {
  if (row.form.fits != nullptr) return row.form.fits(text);
  return row.form.words == nullptr || is_word_of(row.form.words, text);
}

// ---- ports

std::optional<std::uint32_t> port_type(const std::string &text) {
  static const std::map<std::string, std::uint32_t> types = {{"ethernet", LSM_IF_TYPE_ETHERNET}, {"1", LSM_IF_TYPE_ETHERNET},
                                                             {"tunnel", LLCB_OVERLAY_TUNNEL},    {"45", LLCB_OVERLAY_TUNNEL},
                                                             {"router", LLCB_OVERLAY_ROUTER},    {"46", LLCB_OVERLAY_ROUTER}};
  const auto it = types.find(text);
  return it == types.end() ? std::nullopt : std::optional(it->second);
}

// The fields as texts, an empty one where it was not given.
bool add_port(Ports &ports, const std::string &ifx, const std::string &name, const std::string &phyid, const std::string &type) {
  const auto index = number(ifx);
  const auto physical = phyid.empty() ? index : number(phyid);
  const auto kind = port_type(type.empty() ? "ethernet" : type);
  if (!index || *index == 0 || *index > UINT32_MAX || name.empty() || !physical || *physical > UINT32_MAX || !kind) return false;
  if (std::any_of(ports.begin(), ports.end(), [&](const ConfigPort &p) { return p.ifx == *index; })) return false;
  ports.push_back({static_cast<std::uint32_t>(*index), name, static_cast<std::uint32_t>(*physical), *kind});
  return true;
}

bool parse_port(Ports &ports, const std::string &text) {
  List fields(1);
  for (const char c : text) {
    if (c == ':') {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  if (fields.size() < 2 || fields.size() > 4) return false;
  fields.resize(4);
  return add_port(ports, fields[0], fields[1], fields[2], fields[3]);
}

// ---- setting one key from text

bool set_number(const Row &row, std::uint64_t n, auto &to) {
  if (n < row.min || n > row.max) return false;
  to = static_cast<std::remove_reference_t<decltype(to)>>(n);
  return true;
}

bool set_list(const Row &row, List given, List &to) {
  if (!std::all_of(given.begin(), given.end(), [&](const std::string &one) { return fits(row, one); })) return false;
  to = std::move(given);
  return true;
}

bool set_ports(const List &given, Ports &to) {
  Ports ports;
  if (!std::all_of(given.begin(), given.end(), [&](const std::string &one) { return parse_port(ports, one); })) return false;
  to = std::move(ports);
  return true;
}

bool set_text(const Row &row, const std::string &text, Config &c) {
  const auto set_any_number = [&](auto *to) {
    const auto n = number(text);
    return n && set_number(row, *n, *to);
  };
  const auto set_bool = [&](bool *to) {
    *to = text == "true" || text == "1";
    return *to || text == "false" || text == "0";
  };
  const auto set_string = [&](Text *to) { return fits(row, text) ? (*to = text, true) : false; };
  return std::visit(
      Overloaded{set_string, set_bool, [&](List *to) { return set_list(row, split(text, is_one_of<' ', ',', '\t'>), *to); },
                 [&](Ports *to) { return set_ports(split(text, is_one_of<' ', ',', '\t'>), *to); }, set_any_number},
      row.at(c));
}

// ---- setting one key from TOML

std::optional<List> strings(const toml::node &node) {
  List list;
  if (const auto *text = node.as_string()) return List{text->get()};
  const auto *array = node.as_array();
  if (array == nullptr) return std::nullopt;
  for (const toml::node &one : *array) {
    if (!one.is_string()) return std::nullopt;
    list.push_back(one.as_string()->get());
  }
  return list;
}

// A field of a [[ports]] table as text; nothing for what is neither text nor number.
std::optional<std::string> field(const toml::table &table, const char *key) {
  const toml::node *node = table.get(key);
  if (node == nullptr) return "";
  if (const auto *text = node->as_string()) return text->get();
  if (const auto *n = node->as_integer()) return std::to_string(n->get());
  return std::nullopt;
}

bool set_port_tables(const toml::node &node, Ports &to) {
  Ports ports;
  const auto *array = node.as_array();
  if (array == nullptr) return false;
  for (const toml::node &one : *array) {
    const auto *table = one.as_table();
    if (table == nullptr) return false;
    const auto known = [](std::string_view key) { return key == "ifx" || key == "name" || key == "phyid" || key == "type"; };
    if (!std::all_of(table->begin(), table->end(), [&](const auto &item) { return known(item.first.str()); })) return false;
    const auto ifx = field(*table, "ifx"), name = field(*table, "name"), phyid = field(*table, "phyid"),
               type = field(*table, "type");
    if (!ifx || !name || !phyid || !type || !add_port(ports, *ifx, *name, *phyid, *type)) return false;
  }
  to = std::move(ports);
  return true;
}

bool set_node(const Row &row, const toml::node &node, Config &c) {
  const auto set_any_number = [&](auto *to) {
    const auto *n = node.as_integer();
    return n != nullptr && n->get() >= 0 && set_number(row, static_cast<std::uint64_t>(n->get()), *to);
  };
  const auto set_bool = [&](bool *to) { return node.is_boolean() && (*to = node.as_boolean()->get(), true); };
  const auto set_string = [&](Text *) { return node.is_string() && set_text(row, node.as_string()->get(), c); };
  const auto set_strings = [&](List *to) {
    auto list = strings(node);
    if (node.is_string()) return set_text(row, list->front(), c);
    return list && set_list(row, std::move(*list), *to);
  };
  return std::visit(
      Overloaded{set_string, set_bool, set_strings, [&](Ports *to) { return set_port_tables(node, *to); }, set_any_number},
      row.at(c));
}

// ---- layers

// One load in the making: the values and which of them somebody gave.
struct Draft {
  Config config;
  std::set<const Row *> given;
};

std::string bad_value(const std::string &where, const Row &row, const std::string &given) {
  return where + ": " + row_name(row) + " = " + given + " is not allowed; allowed: " + allowed(row);
}

std::string unknown_key(const std::string &where, std::string_view section, const std::string &given) {
  std::string known;
  for (const Row &row : kRows) {
    if (section == row.section) known += (known.empty() ? "" : ", ") + std::string(row.key);
  }
  if (section.empty()) {
    for (const Row &row : kRows) {
      const std::string word = std::string("[") + row.section + "]";
      if (*row.section != '\0' && known.find(word) == std::string::npos) known += ", " + word;
    }
  }
  return where + ": unknown key " + given + "; allowed" + (section.empty() ? "" : " in [" + std::string(section) + "]") + ": " +
         known;
}

std::string apply_node(const std::string &file, std::string_view section, std::string_view key, const toml::node &node,
                       Draft &draft) {
  const std::string where = file + ":" + std::to_string(node.source().begin.line);
  const Row *row = find_row(section, key);
  if (row == nullptr)
    return unknown_key(where, section, section.empty() ? std::string(key) : std::string(section) + "." + std::string(key));
  if (!set_node(*row, node, draft.config)) {
    std::ostringstream given;
    given << toml::node_view(node);
    return bad_value(where, *row, given.str());
  }
  draft.given.insert(row);
  return "";
}

bool is_section(std::string_view name) {
  return std::any_of(std::begin(kRows), std::end(kRows), [&](const Row &r) { return *r.section != '\0' && name == r.section; });
}

std::string apply_file(Draft &draft) {
  const char *named = getenv("KELIM_CONF");
  const std::string file = named != nullptr ? named : kDefaultFile;
  if (named == nullptr && access(kDefaultFile, F_OK) != 0) return "";
  if (access(file.c_str(), R_OK) != 0)
    return file + ": cannot be read: " + strerror(errno) + (named ? " (named by KELIM_CONF)" : "");
  const toml::parse_result parsed = toml::parse_file(file);
  if (!parsed) {
    const toml::parse_error &error = parsed.error();
    return file + ":" + std::to_string(error.source().begin.line) + ": " + std::string(error.description());
  }
  for (const auto &[name, node] : parsed.table()) {
    std::string error;
    if (const auto *section = node.as_table(); section != nullptr && is_section(name.str())) {
      for (const auto &[key, value] : *section) {
        if (error = apply_node(file, name.str(), key.str(), value, draft); !error.empty()) return error;
      }
    } else if (error = apply_node(file, "", name.str(), node, draft); !error.empty()) {
      return error;
    }
  }
  return "";
}

// A variable in the name space of a section that is no key of it; others that begin with KELIM_ are somebody else's.
std::string misspelt_variable() {
  std::set<std::string> known;
  for (const Row &row : kRows) known.insert(row_variable(row));
  for (char **entry = environ; *entry != nullptr; ++entry) {
    const std::string name(*entry, strcspn(*entry, "="));
    for (const Row &row : kRows) {
      const std::string prefix = row_variable(row).substr(0, strlen("KELIM_") + strlen(row.section) + 1);
      if (*row.section != '\0' && name.starts_with(prefix) && !known.contains(name))
        return unknown_key("environment", row.section, name);
    }
  }
  return "";
}

std::string apply_text(const std::string &where, const Row &row, const std::string &text, Draft &draft) {
  if (!set_text(row, text, draft.config)) return bad_value(where, row, "\"" + text + "\"");
  draft.given.insert(&row);
  return "";
}

std::string apply_environment(Draft &draft) {
  for (const Row &row : kRows) {
    const std::string variable = row_variable(row);
    const char *text = getenv(variable.c_str());
    if (text == nullptr) continue;
    if (std::string error = apply_text("environment variable " + variable, row, text, draft); !error.empty()) return error;
  }
  return misspelt_variable();
}

// ---- process-wide state

std::map<const Row *, std::string> g_set;  // by config_set
bool g_loaded = false;

Draft defaults() {
  Draft draft;
  for (const Row &row : kRows) set_text(row, row.fallback, draft.config);
  return draft;
}

Config &current() {
  static Config config = defaults().config;
  return config;
}

void settle(Draft &draft) {
  if (!draft.given.contains(find_row("programmer", "embedded")))
    draft.config.programmer.embedded = draft.config.mom.url == "embedded:";
  draft.config.run_dir_set = draft.given.contains(find_row("", "run_dir"));
}

}  // namespace

const Config &config() {
  return current();
}

std::string config_load() {
  if (g_loaded) return "";
  Draft draft = defaults();
  if (std::string error = apply_file(draft); !error.empty()) return error;
  if (std::string error = apply_environment(draft); !error.empty()) return error;
  for (const auto &[row, text] : g_set) {
    if (std::string error = apply_text("set by the program", *row, text, draft); !error.empty()) return error;
  }
  settle(draft);
  current() = std::move(draft.config);
  g_loaded = true;
  return "";
}

void config_unload() {
  g_loaded = false;
}

std::string config_set(std::string_view key, std::string_view value) {
  const auto dot = key.find('.');
  const std::string_view section = dot == std::string_view::npos ? "" : key.substr(0, dot);
  const Row *row = find_row(section, dot == std::string_view::npos ? key : key.substr(dot + 1));
  if (row == nullptr) return unknown_key("set by the program", is_section(section) ? section : "", std::string(key));
  Draft trial;
  if (std::string error = apply_text("set by the program", *row, std::string(value), trial); !error.empty()) return error;
  g_set[row] = value;
  if (g_loaded) set_text(*row, std::string(value), current());
  if (g_loaded && key == "run_dir") current().run_dir_set = true;
  return "";
}

void config_reset() {
  g_set.clear();
  g_loaded = false;
  current() = defaults().config;
}

std::vector<ConfigKey> config_keys() {
  std::vector<ConfigKey> keys;
  for (const Row &row : kRows) keys.push_back({row_name(row), row_variable(row), row.fallback, allowed(row), row.help});
  return keys;
}

std::string config_help() {
  std::string text;
  for (const ConfigKey &key : config_keys()) {
    text += key.name + "  (" + key.variable + ")\n    " + key.help + "\n    allowed: " + key.allowed + "; default: \"" +
            key.fallback + "\"\n";
  }
  return text;
}

std::string make_run_dir() {
  std::error_code error;
  std::filesystem::create_directories(config().run_dir, error);
  if (!error && access(config().run_dir.c_str(), W_OK | X_OK) == 0) return "";
  return "run directory " + config().run_dir + " cannot be used: " + (error ? error.message() : strerror(errno)) +
         "; set KELIM_RUN_DIR (or run_dir) to a directory that can be written";
}

}  // namespace host
