// Host copy of libutilscallstack's CallStack: captures and symbolises the stack of
// one thread of the current process.
#pragma once

#include <log/log.h>
#include <sys/types.h>
#include <utils/Printer.h>
#include <utils/String8.h>

#include <cstdint>
#include <memory>
#include <vector>

// Thread id that stands for the calling thread.
#ifndef BACKTRACE_CURRENT_THREAD
#define BACKTRACE_CURRENT_THREAD (-1)
#endif

namespace android {

class CallStack {
 public:
  // Creates an empty call stack; nothing is captured.
  CallStack();
  // Captures the current thread's stack and logs it immediately.
  CallStack(const char* logtag, int32_t ignoreDepth = 1);
  ~CallStack();

  // Drops every captured frame.
  void clear();

  // Captures the stack of thread `tid` (the calling thread for -1 or its own id) and
  // drops its `ignoreDepth` innermost frames. As the platform counts, the calling
  // thread's frame 0 is inside the unwinder, 1 this function, 2 its caller; another
  // thread's frame 0 is where it was interrupted. Up to 256 frames; none for a thread
  // that does not answer within 5 s (one that blocks signals never does).
  void update(int32_t ignoreDepth = 1, pid_t tid = BACKTRACE_CURRENT_THREAD);

  // Writes the frames to the Android log, one record per frame.
  void log(const char* logtag, android_LogPriority priority = ANDROID_LOG_DEBUG,
           const char* prefix = nullptr) const;
  // Writes the frames to a file descriptor.
  void dump(int fd, int indent = 0, const char* prefix = nullptr) const;
  // The frames as one text, each line prefixed and ended by "\n".
  String8 toString(const char* prefix = "") const;
  // Hands each frame line to the printer.
  void print(Printer& printer) const;

  // Number of frames captured.
  size_t size() const { return mFrameLines.size(); }
  // One frame line, "#NN pc <pc>  <module> (<symbol>+<offset>)".
  const String8& frameLine(size_t i) const { return mFrameLines[i]; }

  static std::unique_ptr<CallStack> getCurrent(int32_t ignoreDepth = 1);
  static void logStack(const char* logtag, CallStack* stack = nullptr,
                       android_LogPriority priority = ANDROID_LOG_DEBUG);
  static String8 stackToString(const char* prefix = nullptr, const CallStack* stack = nullptr);

 private:
  std::vector<String8> mFrameLines;
};

}  // namespace android
