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

// The parts between any of `separators`; empty parts are left out.
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

// A URL that may be shown: without the password, where one stands in it.
inline std::string masked(std::string_view url) {
  std::string shown(url);
  const auto begin = shown.find("://");
  const auto colon = begin == std::string::npos ? begin : shown.find(':', begin + 3);
  const auto end = shown.rfind('@');
  if (colon != std::string::npos && end != std::string::npos && colon < end) shown.replace(colon + 1, end - colon - 1, "***");
  return shown;
}

}  // namespace host
