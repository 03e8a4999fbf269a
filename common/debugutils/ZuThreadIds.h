// Per-thread facts every module of the library needs: the kernel id of the calling
// thread, and an alternate signal stack so that the crash catcher can run on it.
#pragma once

#include <stdint.h>

#include "ZuDebugExport.h"

namespace zudebug {

// Kernel id of the calling thread, cached per thread (refreshed after fork). The first
// call on a thread also gives it its alternate signal stack. Safe to call from a
// signal handler.
ZUDEBUG_EXPORT uint32_t zuCurrentTid();

// Gives the calling thread an alternate signal stack unless it has one, so that the
// crash catcher runs even on a thread whose own stack overflowed; released at thread
// exit. Every thread that logs gets one with its first line.
ZUDEBUG_EXPORT void PrepareCrashSignalStack();

}  // namespace zudebug
