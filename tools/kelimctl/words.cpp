#include "kelimctl/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <string_view>

#include "host/config/text.h"

namespace kelimctl {
namespace {

// Edit distance: the number of letters to add, remove or replace, or neighbours to swap, that turns one into the other.
std::size_t distance(const std::string &a, const std::string &b) {
  std::vector<std::size_t> before(b.size() + 1), above(b.size() + 1), row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    before = std::move(above);
    above = row;
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (a[i - 1] != b[j - 1])});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) row[j] = std::min(row[j], before[j - 2] + 1);
    }
  }
  return row.back();
}

struct Spelling {
  std::string_view typed;
  std::vector<std::string_view> shown;
};

const std::vector<Spelling> kNames = {
    {"nw_src", {"ipv4_src"}},
    {"nw_dst", {"ipv4_dst"}},
    {"ip_src", {"ipv4_src"}},
    {"ip_dst", {"ipv4_dst"}},
    {"dl_src", {"eth_src"}},
    {"dl_dst", {"eth_dst"}},
    {"dl_type", {"eth_type"}},
    {"dl_vlan", {"vlan_vid"}},
    {"dl_vlan_pcp", {"vlan_pcp"}},
    {"nw_proto", {"ip_proto"}},
    {"nw_ecn", {"ip_ecn"}},
    {"tp_src", {"tcp_src", "udp_src", "sctp_src"}},
    {"tp_dst", {"tcp_dst", "udp_dst", "sctp_dst"}},
};

const std::vector<Spelling> kProtocols = {
    {"ip", {"eth_type=0x0800"}}, {"ipv6", {"eth_type=0x86dd"}}, {"arp", {"eth_type=0x0806"}}, {"icmp", {"ip_proto=1"}},
    {"tcp", {"ip_proto=6"}},     {"udp", {"ip_proto=17"}},      {"sctp", {"ip_proto=132"}},   {"icmp6", {"ip_proto=58"}},
};

const std::vector<std::string_view> *find(const std::vector<Spelling> &spellings, std::string_view typed) {
  const auto found = std::ranges::find(spellings, typed, &Spelling::typed);
  return found == spellings.end() ? nullptr : &found->shown;
}

// The value as the views show it: an EtherType has four hexadecimal digits.
std::string value_of(std::string_view field, std::string_view value) {
  const auto type = field == "eth_type" ? host::any_number(value) : std::nullopt;
  return type ? fmt::format("0x{:04x}", *type) : std::string(value);
}

std::vector<std::string> fields_of(const std::string &term) {
  if (const auto *fields = find(kProtocols, term)) return {fields->begin(), fields->end()};
  const std::size_t equals = term.find('=');
  const std::string name = term.substr(0, equals);
  const auto *known = find(kNames, name);
  std::vector<std::string> fields;
  for (const std::string_view field : known ? *known : std::vector<std::string_view>{name})
    fields.push_back(std::string(field) +
                     (equals == term.npos ? "" : "=" + value_of(field, std::string_view(term).substr(equals + 1))));
  return fields;
}

}  // namespace

std::string nearest(const std::string &typed, const std::vector<std::string> &known) {
  std::string best;
  std::size_t least = 1 + std::max<std::size_t>(1, typed.size() / 3);
  for (const std::string &word : known)
    if (const std::size_t far = distance(typed, word); far < least) {
      least = far;
      best = word;
    }
  return best;
}

std::vector<std::vector<std::string>> match_terms(const std::string &match) {
  std::vector<std::vector<std::string>> terms;
  for (const std::string &term : host::split(match, ", ")) terms.push_back(fields_of(term));
  return terms;
}

}  // namespace kelimctl
