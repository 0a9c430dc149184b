#include "host/control/format.h"

#include <algorithm>
#include <charconv>

#include "ssat.h"

namespace host::control {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(' ');
  return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

// Cuts `text` at the next `separator` and returns the part before it.
std::string_view next_part(std::string_view &text, char separator) {
  const auto at = text.find(separator);
  const std::string_view part = text.substr(0, at);
  text = at == std::string_view::npos ? "" : text.substr(at + 1);
  return part;
}

template <typename Integer>
std::optional<Integer> integer(std::string_view text, int base) {
  Integer value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool is_name(std::string_view text) {
  const auto fits = [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-'; };
  return !text.empty() && std::all_of(text.begin(), text.end(), fits);
}

// "name=%d" or "name=%d(0/1)".
std::optional<Argument> parse_argument(std::string_view text) {
  Argument argument;
  argument.name = trimmed(next_part(text, '='));
  if (!is_name(argument.name) || text.size() < 2 || text[0] != '%' || (text[1] != 'd' && text[1] != 'x')) return std::nullopt;
  argument.kind = text[1];
  text.remove_prefix(2);
  if (text.empty()) return argument;
  if (text.front() != '(' || text.back() != ')') return std::nullopt;
  for (std::string_view values = text.substr(1, text.size() - 2); !values.empty();) {
    const auto value = parse_value({argument.name, argument.kind, {}}, next_part(values, '/'));
    if (!value) return std::nullopt;
    argument.allowed.push_back(*value);
  }
  return argument;
}

}  // namespace

std::optional<std::vector<Argument>> parse_format(std::string_view format) {
  std::vector<Argument> arguments;
  std::string_view rest = trimmed(format);
  if (rest == "nil") return arguments;
  while (!rest.empty()) {
    auto argument = parse_argument(trimmed(next_part(rest, ',')));
    if (!argument || arguments.size() == SSAT_MAX_ARGS) return std::nullopt;
    if (std::any_of(arguments.begin(), arguments.end(), [&](const Argument &a) { return a.name == argument->name; }))
      return std::nullopt;
    arguments.push_back(std::move(*argument));
  }
  return arguments;
}

std::optional<std::int64_t> parse_value(const Argument &argument, std::string_view text) {
  std::optional<std::int64_t> value;
  if (argument.kind == 'x') {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    if (const auto bits = integer<std::uint64_t>(text, 16)) value = static_cast<std::int64_t>(*bits);
  } else {
    value = integer<std::int64_t>(text, 10);
  }
  const auto &allowed = argument.allowed;
  if (value && !allowed.empty() && std::find(allowed.begin(), allowed.end(), *value) == allowed.end()) return std::nullopt;
  return value;
}

std::string describe(const Argument &argument) {
  if (argument.allowed.empty()) return argument.kind == 'x' ? "a hexadecimal number" : "a decimal number";
  std::string text;
  for (const std::int64_t value : argument.allowed) text += (text.empty() ? "" : " or ") + std::to_string(value);
  return text;
}

}  // namespace host::control
