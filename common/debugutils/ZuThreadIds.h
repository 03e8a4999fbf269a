// The kernel id of the calling thread, which every module of the library needs.
#pragma once

#include <stdint.h>

#include "ZuDebugExport.h"

namespace zudebug {

// Kernel id of the calling thread, cached per thread (refreshed after fork). The first
// call on a thread also gives it its alternate signal stack. Safe to call from a
// signal handler.
ZUDEBUG_EXPORT uint32_t zuCurrentTid();

}  // namespace zudebug
