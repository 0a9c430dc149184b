#include "host/mom/database.h"

namespace host::mom {

Slot &Database::slot(const RecordType &type) {
  if (slots.size() <= type.id()) slots.resize(type.id() + 1);
  auto &slot = slots[type.id()];
  if (!slot) slot.reset(new Slot{*this, type, {}, {}, {}});
  return *slot;
}

}  // namespace host::mom
