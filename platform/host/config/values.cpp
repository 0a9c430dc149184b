// Reads and sets one key, from text and from TOML.
#include <algorithm>
#include <map>
#include <optional>

#include "host/config/keys.h"
#include "host/config/text.h"
#include "host/config/toml.h"
#include "lsm_if.h"

namespace host::keys {

namespace {

template <typename... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <typename... F>
Overloaded(F...) -> Overloaded<F...>;  // required by clang 14

constexpr const char *kPortForm =
    "ports of ifx 1 to 4294967295, each once, name, phyid and type ethernet, tunnel, router (or 1, 45, 46)";

// ---- ports

std::optional<std::uint32_t> port_type(const std::string &text) {
  static const std::map<std::string_view, std::uint32_t> types = {
      {"ethernet", LSM_IF_TYPE_ETHERNET}, {"1", LSM_IF_TYPE_ETHERNET},     {"tunnel", LLCB_OVERLAY_TUNNEL},
      {"45", LLCB_OVERLAY_TUNNEL},        {"router", LLCB_OVERLAY_ROUTER}, {"46", LLCB_OVERLAY_ROUTER}};
  const auto it = types.find(text);
  return it == types.end() ? std::nullopt : std::optional(it->second);
}

// The fields as texts, empty if not given.
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
  if (n < row.allowed.min || n > row.allowed.max) return false;
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

}  // namespace

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
  return std::visit(Overloaded{set_string, set_bool, [&](List *to) { return set_list(row, split(text, " ,\t"), *to); },
                               [&](Ports *to) { return set_ports(split(text, " ,\t"), *to); }, set_any_number},
                    row.at(c));
}

namespace {

// ---- setting one key from TOML

std::optional<List> strings(const toml::node &node) {
  List list;
  if (const auto *text = node.as_string()) return List{text->get()};
  const auto *array = node.as_array();
  if (!array) return std::nullopt;
  for (const toml::node &one : *array) {
    if (!one.is_string()) return std::nullopt;
    list.push_back(one.as_string()->get());
  }
  return list;
}

// A field of a [[ports]] table as text; std::nullopt if it is neither text nor number.
std::optional<std::string> field(const toml::table &table, const char *key) {
  const toml::node *node = table.get(key);
  if (!node) return "";
  if (const auto *text = node->as_string()) return text->get();
  if (const auto *n = node->as_integer()) return std::to_string(n->get());
  return std::nullopt;
}

bool set_port_tables(const toml::node &node, Ports &to) {
  Ports ports;
  const auto *array = node.as_array();
  if (!array) return false;
  for (const toml::node &one : *array) {
    const auto *table = one.as_table();
    if (!table) return false;
    const auto known = [](std::string_view key) { return key == "ifx" || key == "name" || key == "phyid" || key == "type"; };
    if (!std::all_of(table->begin(), table->end(), [&](const auto &item) { return known(item.first.str()); })) return false;
    const auto ifx = field(*table, "ifx"), name = field(*table, "name"), phyid = field(*table, "phyid"),
               type = field(*table, "type");
    if (!ifx || !name || !phyid || !type || !add_port(ports, *ifx, *name, *phyid, *type)) return false;
  }
  to = std::move(ports);
  return true;
}

}  // namespace

bool set_node(const Row &row, const toml::node &node, Config &c) {
  const auto set_any_number = [&](auto *to) {
    const auto *n = node.as_integer();
    return n && n->get() >= 0 && set_number(row, static_cast<std::uint64_t>(n->get()), *to);
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

namespace {

std::string joined(const List &parts) {
  std::string text;
  for (const std::string &part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

std::string ports_text(const Ports &ports) {
  List parts;
  for (const ConfigPort &p : ports)
    parts.push_back(std::to_string(p.ifx) + ":" + p.name + ":" + std::to_string(p.phyid) + ":" + std::to_string(p.type));
  return joined(parts);
}

}  // namespace

std::string text(const Row &row, Config &c) {
  return std::visit(
      Overloaded{[](Text *value) { return *value; }, [](List *value) { return joined(*value); },
                 [](bool *value) { return std::string(*value ? "true" : "false"); },
                 [](Ports *value) { return ports_text(*value); }, [](auto *value) { return std::to_string(*value); }},
      row.at(c));
}

bool same(const Row &row, Config &a, Config &b) {
  const Value in_b = row.at(b);
  return std::visit([&in_b](auto *value) { return *value == **std::get_if<decltype(value)>(&in_b); }, row.at(a));
}

// ---- for operators

std::string allowed(const Row &row) {
  static Config scratch;
  const Allowed &a = row.allowed;
  std::string words = a.words ? a.words : "any text";
  const auto numbers = [&](auto *) { return std::to_string(a.min) + " to " + std::to_string(a.max); };
  return std::visit(
      Overloaded{[&](Text *) { return words; }, [&](List *) { return "a list of " + words; },
                 [](bool *) { return std::string("true or false"); }, [](Ports *) { return std::string(kPortForm); }, numbers},
      row.at(scratch));
}

std::string toml(const Row &row) {
  static Config scratch;
  const std::string text = row.fallback;
  const auto quoted = [](const std::string &one) { return '"' + one + '"'; };
  const auto list = [&](List *) {
    std::string all;
    for (const std::string &one : split(text, " ,\t")) all += (all.empty() ? "" : ", ") + quoted(one);
    return '[' + all + ']';
  };
  return std::visit(Overloaded{[&](Text *) { return quoted(text); }, list, [](Ports *) { return std::string(); },
                               [&](auto *) { return std::string(row.fallback); }},
                    row.at(scratch));
}

}  // namespace host::keys
