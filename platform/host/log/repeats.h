// Collapses the lines of source lines that log too much. Guarded by the log service's lock.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <utility>

#include "host/base/clock.h"
#include "host/log/log.h"

namespace host::log {

// A line waiting for the writer.
struct Line {
  explicit Line(const LineView &v)
      : level(v.level), category(v.category), file(v.file), function(v.function), line(v.line), text(v.text) {}

  Level level;
  std::chrono::system_clock::time_point time = std::chrono::system_clock::now();
  std::string category;
  std::string file;
  std::string function;
  long line;
  std::string text;
};

// The places (source line, function, category and level) that logged within the last second, the oldest first. A place writes
// kShare different texts in that second; further lines are counted. Places are counted separately.
class Repeats {
 public:
  static constexpr std::size_t kShare = 10;

  // True if the place of `view` has written its share; the line is then counted whatever its text is.
  bool is_full(const LineView &view);

  // True if the line is counted instead of written, because its place is full or has already written this text. Begins to watch
  // the place.
  bool hides(const LineView &view);

  // Passes to `emit` the counts of the places whose second is over, of the oldest beyond the limit, or of all, and removes those
  // places.
  template <typename Emit>
  void expire(bool all, Emit emit) {
    const clock::Time now = places_.empty() ? clock::Time{} : clock::now();
    while (!places_.empty() && (all || places_.front().until <= now || places_.size() > kPlaces)) {
      if (places_.front().hidden > 0) emit(count_line(std::move(places_.front())));
      by_key_.erase(places_.front().key);
      places_.pop_front();
    }
  }

  bool empty() const { return places_.empty(); }

 private:
  static constexpr std::size_t kPlaces = 256;  // watched at a time

  struct Place {
    Line first;
    clock::Time until;
    std::size_t key;
    std::array<std::size_t, kShare> texts{};  // hashes of the texts written
    std::size_t written = 0;
    std::uint64_t hidden = 0;
  };

  Place *find(const LineView &view);
  static Line count_line(Place &&place);

  std::list<Place> places_;
  std::unordered_map<std::size_t, std::list<Place>::iterator> by_key_;
};

}  // namespace host::log
