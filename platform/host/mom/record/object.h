// One stored value: header, packed record and the rest of a long key in a single block of exact size. References are counted
// without atomics: loop's thread only. A value never changes; a rewrite creates a new one, so that queued notifications keep the
// value written.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "host/base/blocks.h"
#include "host/mom/record/record_type.h"

namespace host::mom {

struct Object {
  std::uint32_t size : 31;       // of the packed record
  std::uint32_t own_expiry : 1;  // has an individual expiry, in its table's list
  std::uint32_t generation;      // of the table when this was written; an older one is under the whole type's expiry
  std::uint32_t born;            // scan number of the table when the object was first written
  std::uint16_t refs;            // index, queued notifications, callers on the stack
  std::uint16_t tail_size;

  const std::uint8_t *data() const { return reinterpret_cast<const std::uint8_t *>(this + 1); }
  PackedBytes packed() const { return {data(), size}; }
  std::string_view tail() const { return {reinterpret_cast<const char *>(data() + size), tail_size}; }
  std::size_t bytes() const { return sizeof *this + size + tail_size; }
};
static_assert(sizeof(Object) == 16);

// Of all objects; never destroyed, because they may outlive static objects.
inline Blocks &object_blocks() {
  static auto *const blocks = new Blocks;
  return *blocks;
}

class ObjectRef {
 public:
  ObjectRef() = default;
  explicit ObjectRef(Object *object) : object_(object) { hold(); }
  ObjectRef(const ObjectRef &other) : object_(other.object_) { hold(); }
  ObjectRef(ObjectRef &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ObjectRef &operator=(ObjectRef other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~ObjectRef() {
    if (object_ && --object_->refs == 0) Blocks::release(object_, object_->bytes());
  }

  // Null when memory is exhausted.
  static ObjectRef make(PackedBytes packed, std::string_view tail) {
    void *memory = object_blocks().allocate(sizeof(Object) + packed.size() + tail.size());
    if (!memory) return {};
    auto *object = new (memory) Object{};
    object->size = static_cast<std::uint32_t>(packed.size()) & 0x7fffffffU;
    object->tail_size = static_cast<std::uint16_t>(tail.size());
    auto *data = const_cast<std::uint8_t *>(object->data());
    if (!packed.empty()) std::memcpy(data, packed.data(), packed.size());
    if (!tail.empty()) std::memcpy(data + packed.size(), tail.data(), tail.size());
    return ObjectRef(object);
  }

  // Pass the reference to an owner that keeps plain pointers, and take it back.
  Object *release() { return std::exchange(object_, nullptr); }
  static ObjectRef adopt(Object *object) {
    ObjectRef ref;
    ref.object_ = object;
    return ref;
  }

  Object *get() const { return object_; }
  Object *operator->() const { return object_; }
  Object &operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  void hold() {
    if (object_) ++object_->refs;
  }
  Object *object_ = nullptr;
};

}  // namespace host::mom
