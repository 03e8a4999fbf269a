// Host libutilscallstack: CallStack and ProcessCallStack.
#include "utils/CallStack.h"
#include "utils/ProcessCallStack.h"

namespace android {

CallStack::CallStack() = default;
CallStack::CallStack(const char* logtag, int32_t ignoreDepth) {
  update(ignoreDepth + 1);
  log(logtag);
}
CallStack::~CallStack() = default;
void CallStack::clear() { mFrameLines.clear(); }
void CallStack::update(int32_t, pid_t) { clear(); }
void CallStack::log(const char* logtag, android_LogPriority priority, const char* prefix) const {
  LogPrinter printer(logtag, priority, prefix, false);
  print(printer);
}
void CallStack::dump(int fd, int indent, const char* prefix) const {
  FdPrinter printer(fd, static_cast<unsigned int>(indent), prefix);
  print(printer);
}
String8 CallStack::toString(const char* prefix) const {
  String8 s;
  String8Printer printer(&s, prefix);
  print(printer);
  return s;
}
void CallStack::print(Printer& printer) const {
  for (const String8& line : mFrameLines) printer.printLine(line.c_str());
}

ProcessCallStack::ProcessCallStack() : mTimeUpdated() {}
ProcessCallStack::ProcessCallStack(const ProcessCallStack& rhs) = default;
ProcessCallStack::~ProcessCallStack() = default;
void ProcessCallStack::update() { mThreadMap.clear(); }
void ProcessCallStack::print(Printer& printer) const { (void)printer; }

}  // namespace android
