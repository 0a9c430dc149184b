// The exceptions that make the simulated target misbehave on purpose; the language is described in programmer.h. Plain value, any
// thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace programmer {

class Script {
 public:
  enum class Verb : std::uint8_t { silent, resource, fail, delay, meter_fail };
  enum class Answer : std::uint8_t { normal, silent, resource, fail };

  // Reads `text`. False when it is malformed: `error` then says where and what is allowed, and the script is unchanged.
  bool parse(std::string_view text, std::uint64_t seed, std::string &error);

  // The answer to the request for flow `index` that reached the target as number `arrival`.
  Answer answer(std::uint64_t arrival, std::uint64_t index) const;
  // The delay of that answer in milliseconds.
  std::uint32_t delay_ms(std::uint64_t arrival, std::uint64_t index, std::uint32_t otherwise) const;
  bool meter_fails(std::uint32_t id) const;

  // True if delays differ between requests, so that answers may overtake each other.
  bool delays_differ() const { return delays_differ_; }

 private:
  enum class By : std::uint8_t { arrival, index, percent };
  struct Rule {
    Verb verb;
    By by;
    std::uint64_t first, last;  // of kPercent: `first` is the share, `last` the rule's position, which varies its choices
    std::uint32_t delay_ms;
  };

  static bool parse_item(std::string_view item, Rule &rule);
  bool fits(const Rule &rule, std::uint64_t arrival, std::uint64_t index) const;
  const Rule *find(Verb verb, std::uint64_t arrival, std::uint64_t index) const;

  std::vector<Rule> rules_;
  std::uint64_t seed_ = 0;
  bool delays_differ_ = false;
};

}  // namespace programmer
