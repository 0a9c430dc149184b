#include "programmer/script.h"

#include <charconv>
#include <limits>
#include <utility>

namespace programmer {
namespace {

constexpr std::uint64_t kEvery = std::numeric_limits<std::uint64_t>::max();

constexpr std::pair<std::string_view, Script::Verb> kVerbs[] = {
    {"silent", Script::Verb::silent}, {"resource", Script::Verb::resource},     {"fail", Script::Verb::fail},
    {"delay", Script::Verb::delay},   {"meter-fail", Script::Verb::meter_fail},
};

// The text before the first separator; `rest` keeps what follows it.
std::string_view cut(std::string_view &rest, char separator) {
  const std::size_t end = rest.find(separator);
  const std::string_view head = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
  return head;
}

template <typename T>
bool number(std::string_view text, T &value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} && end == text.data() + text.size();
}

bool parse_verb(std::string_view text, Script::Verb &verb) {
  for (const auto &[name, value] : kVerbs) {
    if (name != text) continue;
    verb = value;
    return true;
  }
  return false;
}

// A well-mixed number for a request, reproducible for a given seed (splitmix64's finaliser).
std::uint64_t mix(std::uint64_t x) {
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
  return x ^ (x >> 31);
}

}  // namespace

bool Script::parse_item(std::string_view item, Rule &rule) {
  if (rule.verb == Verb::delay) {
    const std::string_view range = cut(item, ':');
    if (!number(item, rule.delay_ms)) return false;
    item = range;
  }
  if (item == "*") {
    rule.by = By::arrival, rule.first = 0, rule.last = kEvery;
    return true;
  }
  if (item.ends_with('%')) {
    rule.by = By::percent;
    item.remove_suffix(1);
    return rule.verb != Verb::meter_fail && number(item, rule.first) && rule.first <= 100;
  }
  rule.by = item.starts_with('@') ? By::index : By::arrival;
  if (rule.by == By::index) item.remove_prefix(1);
  const bool range = item.find('-') != std::string_view::npos;
  const std::string_view first = cut(item, '-');
  if (!number(first, rule.first)) return false;
  rule.last = rule.first;
  return !range || (number(item, rule.last) && rule.last >= rule.first);
}

bool Script::parse(std::string_view text, std::uint64_t seed, std::string &error) {
  std::vector<Rule> rules;
  bool delays = false;
  while (!text.empty()) {
    std::string_view clause = cut(text, ';');
    const std::string_view whole = clause;
    Rule rule{};
    if (!parse_verb(cut(clause, '='), rule.verb)) {
      error = "script clause \"" + std::string(whole) + "\": begin with fail=, resource=, silent=, delay= or meter-fail=";
      return false;
    }
    do {
      const std::string_view item = cut(clause, ',');
      if (!parse_item(item, rule)) {
        error = "script item \"" + std::string(item) + "\" in \"" + std::string(whole) +
                "\": allowed are N, N-M, @N, @N-M (flow index), P%, *; each followed by :MILLISECONDS in delay=";
        return false;
      }
      if (rule.by == By::percent) rule.last = rules.size() + 1;
      delays |= rule.verb == Verb::delay;
      rules.push_back(rule);
    } while (!clause.empty());
  }
  rules_ = std::move(rules);
  seed_ = seed;
  delays_differ_ = delays;
  return true;
}

bool Script::fits(const Rule &rule, std::uint64_t arrival, std::uint64_t index) const {
  if (rule.by == By::percent) return mix(mix(seed_ ^ rule.last) + arrival) % 100 < rule.first;
  const std::uint64_t number = rule.by == By::index ? index : arrival;
  return number >= rule.first && number <= rule.last;
}

const Script::Rule *Script::find(Verb verb, std::uint64_t arrival, std::uint64_t index) const {
  for (const Rule &rule : rules_) {
    if (rule.verb == verb && fits(rule, arrival, index)) return &rule;
  }
  return nullptr;
}

Script::Answer Script::answer(std::uint64_t arrival, std::uint64_t index) const {
  if (rules_.empty()) return Answer::normal;
  if (find(Verb::silent, arrival, index)) return Answer::silent;
  if (find(Verb::resource, arrival, index)) return Answer::resource;
  return find(Verb::fail, arrival, index) ? Answer::fail : Answer::normal;
}

std::uint32_t Script::delay_ms(std::uint64_t arrival, std::uint64_t index, std::uint32_t otherwise) const {
  const Rule *rule = delays_differ_ ? find(Verb::delay, arrival, index) : nullptr;
  return rule ? rule->delay_ms : otherwise;
}

bool Script::meter_fails(std::uint32_t id) const {
  return find(Verb::meter_fail, id, id) != nullptr;
}

}  // namespace programmer
