// What the process counts, for monitoring: served over HTTP as /metrics in Prometheus' text format (0.0.4), with /healthz and
// /readyz beside it (health.h). Off unless metrics.listen says where.
//
// Who has something to count keeps plain counters on the thread that does the work, and a source that writes them out when they
// are asked for. Loop's thread, except where a source looks elsewhere.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include "host/base/histogram.h"

namespace host {
struct Config;
}

namespace host::metrics {

enum class Kind : std::uint8_t { counter, gauge, histogram, summary };

// What a family of samples is called: in base units, and with _total behind a counter, as is the custom.
struct Family {
  const char *name;
  Kind kind;
  const char *help;
};

struct Label {
  std::string_view name, value;
};
using Labels = std::initializer_list<Label>;

// The text in the making. Samples belong to the family that was begun last.
class Page {
 public:
  void begin(const Family &family);
  void sample(std::uint64_t value, Labels labels = {}) { put("", labels, std::to_string(value)); }
  void seconds(double value, Labels labels = {});
  // The buckets, the sum and the number of a histogram.
  void histogram(const Histogram &values, Labels labels = {});
  // The sum and the number of a summary.
  void summary(double sum_seconds, std::uint64_t count, Labels labels = {});
  // A family of a single sample.
  void single(const Family &family, std::uint64_t value) {
    begin(family);
    sample(value);
  }

  const std::string &text() const { return text_; }

 private:
  void put(std::string_view suffix, Labels labels, const std::string &value, Label last = {});

  std::string text_;
  std::string_view name_;
};

// A family of which each sample is a member of `Counts`.
template <typename Counts>
struct Row {
  Family family;
  std::uint64_t Counts::*count;
};

template <typename Rows, typename Counts>
void write_rows(Page &page, const Rows &rows, const Counts &counts) {
  for (const auto &[family, count] : rows) page.single(family, counts.*count);
}

using Source = std::function<void(Page &page)>;

// Registers one until the runtime is released.
void add_source(Source source);

// All that the sources have to say now.
std::string page();

// The runtime's own call: serves them where the configuration says so. A port that is taken is tried again every second.
void start(const Config &config);

// Where they are served, for the status: "127.0.0.1:9469", followed by why it fails where it does; "" for nowhere.
std::string where();

}  // namespace host::metrics
