// The table of configuration keys, and the functions that read and set one of them. Used by this folder only.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "host/config/config.h"

namespace toml {
inline namespace v3 {
class node;
}
}  // namespace toml

namespace host::keys {

using Text = std::string;
using List = std::vector<std::string>;
using Ports = std::vector<ConfigPort>;

// The place of a key's value, which also gives its type.
using Value = std::variant<Text *, bool *, std::uint32_t *, std::uint64_t *, List *, Ports *>;

// Restrictions beyond the type.
struct Allowed {
  const char *words = nullptr;  // for operators; without `fits`, "a, b or c" lists the allowed words; null: any text
  bool (*fits)(const std::string &) = nullptr;  // true for a text, or one text of a list, that `words` describes
  std::uint64_t min = 0;
  std::uint64_t max = UINT32_MAX;
};

struct Row {
  const char *section;  // "" for keys outside any section
  const char *key;
  Value (*at)(Config &);
  const char *fallback;  // the default, in the form of the environment variable
  Allowed allowed;
  const char *help;
};

std::span<const Row> all();
const Row *find(std::string_view section, std::string_view key);
bool is_section(std::string_view name);

std::string name(const Row &row);      // "openflow.listen"
std::string variable(const Row &row);  // "KELIM_OPENFLOW_LISTEN"
std::string allowed(const Row &row);   // for operators
std::string toml(const Row &row);      // the default as a TOML value; "" for tables

// The key's value in the form of the environment variable.
std::string text(const Row &row, Config &config);

// True if the key has the same value in both.
bool same(const Row &row, Config &a, Config &b);

// True if a text, or one text of a list, is allowed.
bool fits(const Row &row, const std::string &text);

// Sets the key in `config`; false, and nothing is changed, when the value is not allowed.
bool set_text(const Row &row, const std::string &text, Config &config);
bool set_node(const Row &row, const toml::node &node, Config &config);

}  // namespace host::keys
