// Notifications and small actions that must wait for a later turn of the loop, in order. A turn works for a bounded time; the
// loop serves its sockets and timers before the next. Loop's thread.
#pragma once

#include <deque>
#include <functional>
#include <variant>

#include "host/base/event_owner.h"
#include "host/mom/record/object.h"
#include "host/mom/store.h"

namespace host::mom {

class TurnQueue {
 public:
  // Notifications are delivered to `events`.
  explicit TurnQueue(StoreEvents &events) : events_(events) {}

  // Until it is delivered, the notification counts as in flight in the slot's topic.
  void notify(Slot &slot, Change change, ObjectRef object);
  void act(std::function<void()> action);

  std::size_t size() const { return queue_.size(); }

 private:
  struct Delivery {
    Slot *slot;
    ObjectRef object;
    Change change;
  };
  using Item = std::variant<Delivery, std::function<void()>>;

  void wake();
  void run();
  void perform(Item &item);

  StoreEvents &events_;
  std::deque<Item> queue_;
  EventOwner turn_;
  bool awake_ = false;
};

}  // namespace host::mom
