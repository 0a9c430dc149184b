// Translates a flow's entry into the plane's layout. Any thread.
#pragma once

#include "programmer/entry.h"
#include "programmer/linux/layout.h"

namespace programmer::dataplane {

struct KeyAndMask {
  dp_key key, mask;
};
KeyAndMask key_of(const Entry &entry);

// The step that carries out the action; of an output, the caller fills in where to.
dp_step step_of(const Action &action);

// The rewrites only; the caller fills in output and meter, whose places it knows.
dp_actions rewrites_of(const EntryActions &actions);

}  // namespace programmer::dataplane
