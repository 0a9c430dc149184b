#include "host/mom/turn_queue.h"

#include <event2/event.h>

#include <chrono>

#include "host/base/loop.h"

namespace host::mom {

namespace {

// Long enough to make the cost of the loop's own turn negligible, short enough for the 50 ms tick and for watchdogs.
constexpr auto kTurn = std::chrono::milliseconds(10);
constexpr unsigned kLookAtClockEvery = 16;

}  // namespace

void TurnQueue::notify(Slot &slot, Change change, ObjectRef object) {
  slot.topic.take(object->size);
  queue_.emplace_back(Delivery{&slot, std::move(object), change});
  wake();
}

void TurnQueue::act(std::function<void()> action) {
  queue_.emplace_back(std::move(action));
  wake();
}

// A timer of length 0 instead of event_active(): an event activated from a callback runs in the same turn and would starve
// sockets.
void TurnQueue::wake() {
  assert_loop_thread();
  if (awake_) return;
  if (!turn_) {
    event_base *base = loop_base();
    if (!base) return;
    turn_ = make_event<&TurnQueue::run>(base, *this);
  }
  const timeval now{};
  awake_ = turn_ && evtimer_add(turn_.get(), &now) == 0;
}

void TurnQueue::perform(Item &item) {
  if (auto *action = std::get_if<std::function<void()>>(&item)) {
    (*action)();
    return;
  }
  auto &notification = std::get<Delivery>(item);
  events_.deliver(*notification.slot, notification.change, notification.object->packed(), nullptr);
  notification.slot->topic.release(notification.object->size);
}

void TurnQueue::run() {
  awake_ = false;
  // Items that callbacks add wait for the next turn.
  std::size_t due = queue_.size();
  const auto end = std::chrono::steady_clock::now() + kTurn;
  for (unsigned n = 1; due > 0; --due, ++n) {
    Item item = std::move(queue_.front());
    queue_.pop_front();
    perform(item);
    if (n % kLookAtClockEvery == 0 && std::chrono::steady_clock::now() >= end) break;
  }
  if (!queue_.empty()) wake();
}

}  // namespace host::mom
