// Call-stack dumping: writes the stack of one thread, or of every thread of the
// process, into the log as lines of group 512 ("[CallStack]").
#pragma once

#include <utils/Printer.h>

#include <cstdint>

#include "ZuDebugExport.h"

namespace zudebug {

// Turns each line printed by android::CallStack / android::ProcessCallStack into a
// log line: always to the Android log at the printer's priority, and to the offline
// log for errors or while a debug mask is set.
class ZUDEBUG_EXPORT praxLogPrinter : public android::Printer {
 public:
  // `prefix` is not copied and must outlive the printer; null counts as "".
  praxLogPrinter(const char* prefix, int32_t priority);
  void printLine(const char* line) override;

 private:
  const char* mPrefix;
  int32_t mPriority;
};

// Logs the stack of thread `tid` (-1: the calling thread), leaving out its
// `ignoreDepth` innermost frames. Nothing happens while group 512 is off.
ZUDEBUG_EXPORT void dumpThreadCallStack(int32_t tid, int32_t ignoreDepth, const char* prefix,
                                        int32_t priority);
// Logs the stacks of every thread of the process, each under a header naming it.
ZUDEBUG_EXPORT void dumpCurProcessCallStack(const char* prefix, int32_t priority);

}  // namespace zudebug
