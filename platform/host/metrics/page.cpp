// Writes the text format: https://prometheus.io/docs/instrumenting/exposition_formats/
#include <fmt/format.h>

#include <iterator>
#include <utility>
#include <vector>

#include "host/base/services.h"
#include "host/metrics/metrics.h"

namespace host::metrics {
namespace {

std::vector<Source> g_sources;

constexpr const char *kKinds[] = {"counter", "gauge", "histogram", "summary"};  // as enum Kind

void put_escaped(std::string &out, std::string_view text) {
  for (const char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n')
      out += "\\n";
    else
      out += c;
  }
}

}  // namespace

void Page::begin(const Family &family) {
  name_ = family.name;
  fmt::format_to(std::back_inserter(text_), "# HELP {0} {1}\n# TYPE {0} {2}\n", family.name, family.help,
                 kKinds[static_cast<std::size_t>(family.kind)]);
}

void Page::put(std::string_view suffix, Labels labels, const std::string &value, Label last) {
  text_.append(name_).append(suffix);
  char before = '{';
  const auto add = [this, &before](const Label &label) {
    if (label.name.empty()) return;
    text_ += std::exchange(before, ',');
    text_.append(label.name).append("=\"");
    put_escaped(text_, label.value);
    text_ += '"';
  };
  for (const Label &label : labels) add(label);
  add(last);
  text_.append(before == '{' ? " " : "} ").append(value) += '\n';
}

void Page::seconds(double value, Labels labels) {
  put("", labels, fmt::format("{}", value));
}

void Page::histogram(const Histogram &values, Labels labels) {
  std::uint64_t below = 0;
  for (std::size_t n = 0; n < values.counts().size(); ++n) {
    below += values.counts()[n];
    const bool last = n == Histogram::kBoundsUs.size();
    const std::string bound = last ? "+Inf" : fmt::format("{}", static_cast<double>(Histogram::kBoundsUs[n]) / 1e6);
    put("_bucket", labels, std::to_string(below), {"le", bound});
  }
  summary(static_cast<double>(values.sum_us()) / 1e6, below, labels);
}

void Page::summary(double sum_seconds, std::uint64_t count, Labels labels) {
  put("_sum", labels, fmt::format("{}", sum_seconds));
  put("_count", labels, std::to_string(count));
}

void add_source(Source source) {
  if (g_sources.empty()) at_finish([] { g_sources.clear(); });
  g_sources.push_back(std::move(source));
}

std::string page() {
  Page page;
  for (const Source &source : g_sources) source(page);
  return page.text();
}

}  // namespace host::metrics
