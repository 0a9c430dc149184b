// The members of records, by the offsets in their descriptors.
#pragma once

#include <protobuf-c/protobuf-c.h>

namespace host::mom {

template <typename T>
T &member(ProtobufCMessage &record, unsigned offset) {
  return *reinterpret_cast<T *>(reinterpret_cast<char *>(&record) + offset);
}

template <typename T>
const T &member(const ProtobufCMessage &record, unsigned offset) {
  return *reinterpret_cast<const T *>(reinterpret_cast<const char *>(&record) + offset);
}

}  // namespace host::mom
