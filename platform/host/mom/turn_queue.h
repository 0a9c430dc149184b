// Notifications and small actions that must wait for a later turn of the loop, in order. A turn works for a bounded time; the
// loop serves its sockets and timers before the next. Loop's thread.
#pragma once

#include <deque>
#include <functional>
#include <variant>

#include "host/base/event_owner.h"
#include "host/mom/record/object.h"
#include "host/mom/store.h"

namespace mom {

class TurnQueue {
 public:
  // Notifications are delivered to `events`.
  explicit TurnQueue(StoreEvents &events) : events_(events) {}

  // Until it is delivered, the notification counts as in flight in the slot's topic.
  void notify(Slot &slot, Change change, ObjectRef object);
  void act(std::function<void()> action);

  size_t size() const { return queue_.size(); }

 private:
  struct Notification {
    Slot *slot;
    ObjectRef object;
    Change change;
  };
  using Item = std::variant<Notification, std::function<void()>>;

  void wake();
  void run();
  void perform(Item &item);

  StoreEvents &events_;
  std::deque<Item> queue_;
  host::EventOwner turn_;
  bool awake_ = false;
};

}  // namespace mom
