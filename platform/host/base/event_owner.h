// The owner of a libevent event. Destroyed on the thread of its event_base.
#pragma once

#include <event2/event.h>

#include <memory>

namespace host {

struct FreeEvent {
  void operator()(event *e) const { event_free(e); }
};
using EventOwner = std::unique_ptr<event, FreeEvent>;

// An event that calls `(object.*Handler)()`; `object` outlives it.
template <auto Handler, typename Object>
EventOwner make_event(event_base *base, Object &object, evutil_socket_t fd = -1, short what = 0) {
  const auto call = [](evutil_socket_t, short, void *self) { (static_cast<Object *>(self)->*Handler)(); };
  return EventOwner(event_new(base, fd, what, call, &object));
}

}  // namespace host
