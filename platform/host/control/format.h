// Argument formats of debug commands: "index=%d, vsd_id=%d", "dbg_val=%x", "sw=%d(0/1)"; "" and "nil" for none. Pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host::control {

struct Argument {
  std::string name;
  char kind = 'd';                    // 'd' decimal, 'x' hexadecimal with or without 0x
  std::vector<std::int64_t> allowed;  // the values in parentheses; any when empty
};

// The arguments that a format names; std::nullopt for a malformed one (at most SSAT_MAX_ARGS, each name once).
std::optional<std::vector<Argument>> parse_format(std::string_view format);

// The value of `text` for the argument; std::nullopt if it is not a valid one. Hexadecimal values may use all 64 bits.
std::optional<std::int64_t> parse_value(const Argument &argument, std::string_view text);

// The allowed values in words: "a decimal number", "0 or 1".
std::string describe(const Argument &argument);

}  // namespace host::control
