// Small readers of text that the configuration shares.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// The parts between any of `separators`, without empty parts.
inline std::vector<std::string> split(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts;
  for (auto begin = text.find_first_not_of(separators); begin != std::string_view::npos;) {
    const auto end = std::min(text.find_first_of(separators, begin), text.size());
    parts.emplace_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(separators, end);
  }
  return parts;
}

// The whole of `text` as a number.
inline std::optional<std::uint64_t> number(std::string_view text, int base = 10) {
  std::uint64_t n = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n, base);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return n;
}

// As number(), for decimal and, after "0x", hexadecimal digits.
inline std::optional<std::uint64_t> any_number(std::string_view text) {
  const bool hex = text.starts_with("0x");
  return number(text.substr(hex ? 2 : 0), hex ? 16 : 10);
}

// A URL as it may be shown, without its password. Of a text without a scheme, a mistake, everything before the last "@" is
// hidden.
inline std::string masked(std::string_view url) {
  const auto scheme = url.find("://"), end = url.rfind('@');
  if (end == std::string_view::npos || url.find("redis+unix:/") != std::string_view::npos) return std::string(url);
  const auto begin = scheme == std::string_view::npos ? 0 : url.find(':', scheme + 3) + 1;
  if (begin > end || (begin == 0 && scheme != std::string_view::npos)) return std::string(url);
  return std::string(url.substr(0, begin)).append("***").append(url.substr(end));
}

// Where `text` ceases to be UTF-8 (RFC 3629: shortest form, no surrogates, up to U+10FFFF); npos if it is valid throughout.
inline std::size_t not_utf8(std::string_view text) {
  const auto byte = [text](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u; };
  for (std::size_t at = 0; at < text.size();) {
    const unsigned first = byte(at), second = byte(at + 1);
    const std::size_t more = first < 0x80 ? 0 : first < 0xc2 ? 4 : first < 0xe0 ? 1 : first < 0xf0 ? 2 : first < 0xf5 ? 3 : 4;
    const bool too_long = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool no_character = (first == 0xed && second > 0x9f) || (first == 0xf4 && second > 0x8f);
    if (more == 4 || too_long || no_character) return at;
    for (std::size_t i = 1; i <= more; ++i)
      if ((byte(at + i) & 0xc0) != 0x80) return at;
    at += more + 1;
  }
  return std::string_view::npos;
}

}  // namespace host
