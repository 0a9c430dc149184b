// Result codes of the contract and of the daemon's own functions: 0 for success, a small negative code for failure. Callers pass
// a result on unchanged. Functions that remove several things OR the codes of their steps together: of their results only zero or
// non-zero has a meaning.
#pragma once

enum {
  QX_OK = 0,
  QX_EXISTS = 1,        // qx_mom_setnx_sync: the object exists already; nothing was written
  QX_FAILED = -1,       // no handle, not connected, or a failure without a specific code
  QX_NO_MEMORY = -2,    // an allocation failed
  QX_INVALID = -4,      // a null or malformed argument, or inconsistent bytes
  QX_NO_NODE = -5,      // no node of the flow cache was given
  QX_NOT_FOUND = -7,    // no such object, flow, port, module or queue node
  QX_NOT_POSTED = -11,  // work could not be handed to the main thread, or a timer could not be armed
  QX_NO_ROOM = -14,     // out of hardware resources, or a pipeline or topic is over its limit; nothing was written
  QX_UNSUPPORTED = -20  // an unknown kind of message, interface or setting
};
