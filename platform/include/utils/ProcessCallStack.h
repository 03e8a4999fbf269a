// Host copy of libutilscallstack's ProcessCallStack: the call stacks of every thread
// of the current process.
#pragma once

#include <log/log.h>
#include <sys/types.h>
#include <time.h>
#include <utils/CallStack.h>
#include <utils/Printer.h>
#include <utils/String8.h>

#include <map>

namespace android {

class ProcessCallStack {
 public:
  ProcessCallStack();
  ProcessCallStack(const ProcessCallStack& rhs);
  ~ProcessCallStack();

  // Captures the stack of every thread of the process, named by its comm.
  void update();

  void log(const char* logtag, android_LogPriority priority = ANDROID_LOG_DEBUG,
           const char* prefix = nullptr) const;
  void dump(int fd, int indent = 0, const char* prefix = nullptr) const;
  String8 toString(const char* prefix = nullptr) const;
  // Prints a banner, then for each thread a header "\"name\" sysTid=N" and its frames.
  void print(Printer& printer) const;

  // Number of threads captured.
  size_t size() const { return mThreadMap.size(); }

 private:
  void printInternal(Printer& printer, Printer& csPrinter) const;

  struct ThreadInfo {
    CallStack callStack;
    String8 threadName;
  };
  std::map<pid_t, ThreadInfo> mThreadMap;
  struct tm mTimeUpdated;
};

}  // namespace android
