// The expiries of single objects of one type: keys by deadline. Plain value, one thread.
#pragma once

#include <map>
#include <set>

#include "host/base/clock.h"
#include "host/mom/record/key.h"

namespace host::mom {

class Expiry {
 public:
  using Time = clock::Time;

  void set(const Key &key, Time due) {
    clear(key);
    by_key_.emplace(key, due);
    by_time_.emplace(due, key);
  }
  void clear(const Key &key) {
    const auto found = by_key_.find(key);
    if (found == by_key_.end()) return;
    by_time_.erase({found->second, key});
    by_key_.erase(found);
  }
  void clear() {
    by_key_.clear();
    by_time_.clear();
  }
  bool empty() const { return by_key_.empty(); }
  // The earliest expiry. Requires !empty().
  const std::pair<Time, Key> &first() const { return *by_time_.begin(); }
  const std::map<Key, Time> &keys() const { return by_key_; }

 private:
  std::map<Key, Time> by_key_;
  std::set<std::pair<Time, Key>> by_time_;
};

}  // namespace host::mom
