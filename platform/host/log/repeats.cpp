#include "host/log/repeats.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

namespace host::log {
namespace {

constexpr clock::Time kWindow = std::chrono::seconds(1);

using TextHash = std::hash<std::string_view>;

std::size_t hash_of_place(const LineView &v) {
  const std::size_t number = static_cast<std::size_t>(v.line) * 4 + static_cast<std::size_t>(v.level);
  return TextHash()(v.file) ^ (TextHash()(v.function) * 31) ^ (TextHash()(v.category) * 37) ^ (number * 0x9e3779b97f4a7c15u);
}

bool same_place(const Line &a, const LineView &b) {
  return a.line == b.line && a.level == b.level && a.file == b.file && a.function == b.function && a.category == b.category;
}

}  // namespace

// Null for a place that is not watched, such as the later one of two with the same hash.
Repeats::Place *Repeats::find(const LineView &view) {
  const auto it = by_key_.find(hash_of_place(view));
  return it != by_key_.end() && same_place(it->second->first, view) ? &*it->second : nullptr;
}

bool Repeats::is_full(const LineView &view) {
  Place *place = find(view);
  if (!place || place->written < kShare) return false;
  ++place->hidden;
  return true;
}

bool Repeats::hides(const LineView &view) {
  const std::size_t text = TextHash()(view.text);
  if (Place *place = find(view)) {
    const auto end = place->texts.begin() + static_cast<std::ptrdiff_t>(place->written);
    if (end == place->texts.end() || std::find(place->texts.begin(), end, text) != end) {
      ++place->hidden;
      return true;
    }
    place->texts[place->written++] = text;
    return false;
  }
  const std::size_t key = hash_of_place(view);
  if (by_key_.contains(key)) return false;
  places_.push_back({.first = Line(view), .until = clock::now() + kWindow, .key = key, .texts = {text}, .written = 1});
  by_key_.emplace(key, std::prev(places_.end()));
  return false;
}

// A place's only text with its count; for several texts, the count with the place, also for targets that do not show places.
Line Repeats::count_line(Place &&place) {
  Line line = std::move(place.first);
  line.time = std::chrono::system_clock::now();
  if (place.written == 1)
    line.text += fmt::format(" (repeated {} time{})", place.hidden, place.hidden == 1 ? "" : "s");
  else
    line.text = fmt::format("... {} more line{} from {}:{} {}", place.hidden, place.hidden == 1 ? "" : "s", line.file, line.line,
                            line.function);
  return line;
}

}  // namespace host::log
