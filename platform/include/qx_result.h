// Result codes of the contract and of the daemon's own functions: 0 for success, a small negative code for failure. A result of a
// call is passed on unchanged. Several removals OR the codes of their steps together: there only zero or not means anything.
#pragma once

enum {
  QX_OK = 0,
  QX_EXISTS = 1,        // qx_mom_setnx_sync: the object is there already; nothing was written
  QX_FAILED = -1,       // no handle, not connected, or a failure without a code of its own
  QX_NO_MEMORY = -2,    // an allocation failed
  QX_INVALID = -4,      // a null or malformed argument, or bytes that do not hold together
  QX_NO_NODE = -5,      // no node of the flow cache was given
  QX_NOT_FOUND = -7,    // no such object, flow, port, module or queue node
  QX_NOT_POSTED = -11,  // work could not be handed to the main thread, or a timer not be armed
  QX_NO_ROOM = -14,     // out of hardware resources, or a pipeline or topic is over its limit; nothing was written
  QX_UNSUPPORTED = -20  // a kind of message, interface or setting that is not known here
};
