// What a flow's entry becomes in the plane's layout.
#pragma once

#include "programmer/entry.h"
#include "programmer/linux/layout.h"

namespace programmer::dataplane {

struct KeyAndMask {
  dp_key key, mask;
};
KeyAndMask key_of(const Entry &entry);

// The rewrites; output and meter are the caller's, who knows their places.
dp_actions rewrites_of(const Actions &actions);

}  // namespace programmer::dataplane
