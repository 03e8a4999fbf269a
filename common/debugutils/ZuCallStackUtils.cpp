#include "ZuCallStackUtils.h"

#include <log/log.h>
#include <utils/CallStack.h>
#include <utils/ProcessCallStack.h>

#include "ZuDebugUtils.h"

namespace zudebug {

namespace {

// Every stack line is reported as coming from this place of the printer.
constexpr int kPrintLineLine = 26;
constexpr const char* kPrintLineFunc = "printLine";
constexpr const char* kCallStackTag = "ZuAlgoEngine";

// Severity letter of an Android priority: 0-3 "D", 4 "I", 5 "W", 6-8 "E".
const char* severityOfPriority(int32_t priority) {
  static const char* const kLetters[] = {"D", "D", "D", "D", "I", "W", "E", "E", "E"};
  if (priority < 0) return "D";
  if (priority > 8) return "E";
  return kLetters[priority];
}

}  // namespace

praxLogPrinter::praxLogPrinter(const char* prefix, int32_t priority)
    : mPrefix(prefix != nullptr ? prefix : ""), mPriority(priority) {}

void praxLogPrinter::printLine(const char* line) {
  if (line == nullptr) line = "";
  const char* file = Log::getFileName(__FILE__);
  __android_log_print(mPriority, kCallStackTag, "%s %s:%d %s()%s: %s",
                      Log::zuaGroupToString(ZU_GROUP_CALLSTACK), file, kPrintLineLine, kPrintLineFunc,
                      mPrefix, line);
  const char* letter = severityOfPriority(mPriority);
  if (zuDebugMask() == 0 && letter[0] != 'E') return;
  Log::logSystem(ZU_GROUP_CALLSTACK, letter, file, kPrintLineFunc, kPrintLineLine, "%s: %s", mPrefix, line);
}

void dumpThreadCallStack(int32_t tid, int32_t ignoreDepth, const char* prefix, int32_t priority) {
  praxLogPrinter printer(prefix, priority);
  if ((gZuCamLogGroup & ZU_GROUP_CALLSTACK) == 0) return;
  android::CallStack stack;
  stack.update(ignoreDepth, tid);
  stack.print(printer);
}

void dumpCurProcessCallStack(const char* prefix, int32_t priority) {
  praxLogPrinter printer(prefix, priority);
  if ((gZuCamLogGroup & ZU_GROUP_CALLSTACK) == 0) return;
  android::ProcessCallStack stack;
  stack.update();
  stack.print(printer);
}

}  // namespace zudebug
