// The crash catcher's alternate signal stacks.
#pragma once

#include "ZuDebugExport.h"

namespace zudebug {

// Gives the calling thread an alternate signal stack unless it has one, so that the
// crash catcher runs even on a thread whose own stack overflowed; released at thread
// exit. Every thread that logs gets one with its first line.
ZUDEBUG_EXPORT void PrepareCrashSignalStack();

}  // namespace zudebug
