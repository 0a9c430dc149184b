// Interface types. Loop's thread.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  LSM_IF_TYPE_ETHERNET = 1,
  LLCB_OVERLAY_TUNNEL = 45,
  LLCB_OVERLAY_ROUTER = 46,
};

// The type of an interface index; LSM_IF_TYPE_ETHERNET for an index without a special type, known or not.
uint32_t lsm_if_get_type(uint32_t ifx);

#ifdef __cplusplus
}
#endif
