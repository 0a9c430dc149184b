#include "host/config/config.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "host/config/keys.h"
#include "host/config/text.h"
#include "host/config/toml.h"

extern char **environ;

namespace host {
namespace {

using keys::Row;

constexpr const char *kDefaultFile = "/etc/kelim/host.toml";

// ---- layers

// A load in progress: the values, and which of them were given.
struct Draft {
  Config config;
  std::map<const Row *, std::string> given;  // value: where it was given
};

// A value as it may be shown.
std::string shown(const Row &row, const std::string &value) {
  return keys::name(row) == "mom.password" && !value.empty() ? "***" : masked(value);
}

std::string bad_value(const std::string &where, const Row &row, const std::string &value) {
  return where + ": " + keys::name(row) + " = " + shown(row, value) + " is not allowed; allowed: " + keys::allowed(row);
}

std::string unknown_key(const std::string &where, std::string_view section, const std::string &given) {
  std::string known;
  for (const Row &row : keys::all()) {
    if (section == row.section) known += (known.empty() ? "" : ", ") + std::string(row.key);
  }
  if (section.empty()) {
    for (const Row &row : keys::all()) {
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
  const Row *row = keys::find(section, key);
  if (!row)
    return unknown_key(where, section, section.empty() ? std::string(key) : std::string(section) + "." + std::string(key));
  if (!keys::set_node(*row, node, draft.config)) {
    std::ostringstream given;
    given << toml::node_view(node);
    return bad_value(where, *row, given.str());
  }
  draft.given[row] = where;
  return "";
}

std::string apply_file(Draft &draft) {
  const char *named = getenv("KELIM_CONF");
  const std::string file = named ? named : kDefaultFile;
  if (!named && access(kDefaultFile, F_OK) != 0) return "";
  if (access(file.c_str(), R_OK) != 0)
    return file + ": cannot be read: " + strerror(errno) + (named ? " (named by KELIM_CONF)" : "");
  draft.config.file = file;
  const std::string text = (std::ostringstream() << std::ifstream(file).rdbuf()).str();
  if (const std::size_t bad = not_utf8(text); bad != std::string::npos)
    return file + ":" + std::to_string(1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(bad), '\n')) +
           ": a byte that is not UTF-8; the file must be UTF-8 text";
  const toml::parse_result parsed = toml::parse(text, file);
  if (!parsed) {
    const toml::parse_error &error = parsed.error();
    return file + ":" + std::to_string(error.source().begin.line) + ": " + std::string(error.description());
  }
  for (const auto &[name, node] : parsed.table()) {
    std::string error;
    if (const auto *section = node.as_table(); section && keys::is_section(name.str())) {
      for (const auto &[key, value] : *section) {
        if (error = apply_node(file, name.str(), key.str(), value, draft); !error.empty()) return error;
      }
    } else if (error = apply_node(file, "", name.str(), node, draft); !error.empty()) {
      return error;
    }
  }
  return "";
}

// A variable with the prefix of a section but no such key; other variables that begin with KELIM_ are not ours.
std::string misspelt_variable() {
  std::set<std::string> known;
  for (const Row &row : keys::all()) known.insert(keys::variable(row));
  for (char **entry = environ; *entry; ++entry) {
    const std::string name(*entry, strcspn(*entry, "="));
    for (const Row &row : keys::all()) {
      const std::string prefix = keys::variable(row).substr(0, strlen("KELIM_") + strlen(row.section) + 1);
      if (*row.section != '\0' && name.starts_with(prefix) && !known.contains(name))
        return unknown_key("environment", row.section, name);
    }
  }
  return "";
}

std::string apply_text(const std::string &where, const Row &row, const std::string &text, Draft &draft) {
  if (!keys::set_text(row, text, draft.config)) return bad_value(where, row, "\"" + text + "\"");
  draft.given[&row] = where;
  return "";
}

std::string apply_environment(Draft &draft) {
  for (const Row &row : keys::all()) {
    const std::string variable = keys::variable(row);
    const char *text = getenv(variable.c_str());
    if (!text) continue;
    if (std::string error = apply_text("environment variable " + variable, row, text, draft); !error.empty()) return error;
  }
  return misspelt_variable();
}

// ---- process-wide state

std::map<const Row *, std::string> g_set;  // by config_set
bool g_loaded = false;
std::vector<ConfigValue> g_values, g_read;  // effective; as last read

Draft defaults() {
  Draft draft;
  for (const Row &row : keys::all()) keys::set_text(row, row.fallback, draft.config);
  return draft;
}

Config &current() {
  static Config config = defaults().config;
  return config;
}

std::vector<ConfigValue> values_of(Draft &draft) {
  std::vector<ConfigValue> values;
  for (const Row &row : keys::all()) {
    const auto given = draft.given.find(&row);
    values.push_back(
        {keys::name(row), shown(row, keys::text(row, draft.config)), given == draft.given.end() ? "default" : given->second});
  }
  return values;
}

ConfigValue *find_value(std::vector<ConfigValue> &values, std::string_view key) {
  const auto found = std::ranges::find(values, key, &ConfigValue::key);
  return found == values.end() ? nullptr : &*found;
}

const Row *find_row(std::string_view key) {
  const auto dot = key.find('.');
  return keys::find(dot == std::string_view::npos ? "" : key.substr(0, dot), key.substr(dot + 1));
}

// Makes an error one line, because it may quote contents of a file or a variable with line ends.
std::string one_line(std::string error) {
  std::ranges::replace_if(
      error, [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
  return error;
}

void settle(Draft &draft) {
  if (!draft.given.contains(keys::find("programmer", "embedded")))
    draft.config.programmer.embedded = draft.config.mom.url == "embedded:";
  draft.config.run_dir_set = draft.given.contains(keys::find("", "run_dir"));
  if (const std::string own = users_run_dir(); !draft.config.run_dir_set && !own.empty()) {
    draft.config.run_dir = own;
    draft.config.run_dir_set = true;
  }
}

}  // namespace

const Config &config() {
  return current();
}

std::string config_reread(Config &fresh) {
  Draft draft = defaults();
  if (std::string error = apply_file(draft); !error.empty()) return one_line(std::move(error));
  if (std::string error = apply_environment(draft); !error.empty()) return one_line(std::move(error));
  for (const auto &[row, text] : g_set) {
    if (std::string error = apply_text("set by the program", *row, text, draft); !error.empty()) return error;
  }
  settle(draft);
  g_read = values_of(draft);
  fresh = std::move(draft.config);
  return "";
}

std::string config_load() {
  if (g_loaded) return "";
  std::string error = config_reread(current());
  g_loaded = error.empty();
  if (g_loaded) g_values = g_read;
  return error;
}

void config_unload() {
  g_loaded = false;
}

std::string config_set(std::string_view key, std::string_view value) {
  const auto dot = key.find('.');
  const std::string_view section = dot == std::string_view::npos ? "" : key.substr(0, dot);
  const Row *row = keys::find(section, dot == std::string_view::npos ? key : key.substr(dot + 1));
  if (!row) return unknown_key("set by the program", keys::is_section(section) ? section : "", std::string(key));
  Draft trial;
  if (std::string error = apply_text("set by the program", *row, std::string(value), trial); !error.empty()) return error;
  g_set[row] = value;
  if (g_loaded) keys::set_text(*row, std::string(value), current());
  if (g_loaded && key == "run_dir") current().run_dir_set = true;
  return "";
}

void config_reset() {
  g_set.clear();
  g_loaded = false;
  current() = defaults().config;
}

const std::vector<ConfigValue> &config_values() {
  return g_values;
}

void config_taken_over(std::span<const std::string_view> keys) {
  for (const std::string_view key : keys)
    if (ConfigValue *value = find_value(g_values, key)) *value = *find_value(g_read, key);
}

void config_noted(std::string_view key, const std::string &value, const std::string &source) {
  if (ConfigValue *found = find_value(g_values, key)) *found = {found->key, value, source};
}

std::string config_check(std::string_view key, const std::string &value) {
  Draft trial;
  const Row *row = find_row(key);
  return row ? apply_text("asked for", *row, value, trial) : "unknown key " + std::string(key);
}

std::vector<std::string> config_changes(Config a, Config b) {
  std::vector<std::string> changed;
  for (const Row &row : keys::all())
    if (!keys::same(row, a, b)) changed.push_back(keys::name(row));
  return changed;
}

std::vector<ConfigKey> config_keys() {
  std::vector<ConfigKey> keys;
  for (const Row &row : keys::all())
    keys.push_back({keys::name(row), keys::variable(row), row.fallback, keys::toml(row), keys::allowed(row), row.help});
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

std::string users_run_dir() {
  const char *session = getenv("XDG_RUNTIME_DIR");
  return geteuid() == 0 || !session || *session != '/' ? "" : std::string(session) + "/kelim";
}

std::string make_run_dir() {
  std::error_code error;
  std::filesystem::create_directories(config().run_dir, error);
  if (!error && access(config().run_dir.c_str(), W_OK | X_OK) == 0) return "";
  return "run directory " + config().run_dir + " cannot be used: " + (error ? error.message() : strerror(errno)) +
         "; set KELIM_RUN_DIR (or run_dir) to a directory that can be written";
}

}  // namespace host
