// The process's metrics, served over HTTP as /metrics in Prometheus' text format (0.0.4), with /healthz and /readyz (health.h)
// beside it. Off unless metrics.listen is set.
//
// A service keeps plain counters on the thread that does the work, and registers a source that writes them out on request. Loop's
// thread, except for sources that read counters of other threads.
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

// The name, kind and help of a family of samples. By convention names use base units, and those of counters end in _total.
struct Family {
  const char *name;
  Kind kind;
  const char *help;
};

struct Label {
  std::string_view name, value;
};
using Labels = std::initializer_list<Label>;

// The page under construction. Samples belong to the family begun last.
class Page {
 public:
  void begin(const Family &family);
  void sample(std::uint64_t value, Labels labels = {}) { put("", labels, std::to_string(value)); }
  void seconds(double value, Labels labels = {});
  // The buckets, the sum and the count of a histogram.
  void histogram(const Histogram &values, Labels labels = {});
  // The sum and the count of a summary.
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

// A family whose samples are members of `Counts`.
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

// The present output of all sources.
std::string page();

// The runtime's own call: serves the metrics as configured. A port in use is tried again every second.
void start(const Config &config);

// The address at which they are served, for the status: "127.0.0.1:9469", followed by the reason if that fails; "" for none.
std::string where();

}  // namespace host::metrics
