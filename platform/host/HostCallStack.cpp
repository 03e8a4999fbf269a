// Host libutilscallstack: CallStack and ProcessCallStack over the host unwinder.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "HostUnwind.h"
#include "utils/CallStack.h"
#include "utils/ProcessCallStack.h"

namespace android {

namespace {

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

std::string commandLine() {
  int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "<unknown>";
  char buf[512];
  ssize_t n = read(fd, buf, sizeof(buf) - 1);
  close(fd);
  if (n <= 0) return "<unknown>";
  buf[n] = '\0';
  return buf;  // the program name: arguments are separated by zeros
}

// Both stacks print through any printer: to the log, to a file descriptor with an
// indent, or into a string.
template <class Stack>
void logThrough(const Stack& stack, const char* logtag, android_LogPriority priority, const char* prefix) {
  LogPrinter printer(logtag, priority, prefix, false);
  stack.print(printer);
}

template <class Stack>
void dumpThrough(const Stack& stack, int fd, int indent, const char* prefix) {
  FdPrinter printer(fd, indent > 0 ? static_cast<unsigned int>(indent) : 0u, prefix);
  stack.print(printer);
}

template <class Stack>
String8 renderThrough(const Stack& stack, const char* prefix) {
  String8 s;
  String8Printer printer(&s, prefix);
  stack.print(printer);
  return s;
}

}  // namespace

// ---- CallStack ----

CallStack::CallStack() = default;

CallStack::CallStack(const char* logtag, int32_t ignoreDepth) {
  update(ignoreDepth + 1);
  log(logtag);
}

CallStack::~CallStack() = default;

void CallStack::clear() { mFrameLines.clear(); }

// As the platform's: frame 0 is inside the unwinder, frame 1 this function, frame 2
// its caller. Not inlined, and no tail calls out of it, so that the count holds.
__attribute__((noinline)) void CallStack::update(int32_t ignoreDepth, pid_t tid) {
  clear();
  size_t skip = ignoreDepth > 0 ? static_cast<size_t>(ignoreDepth) : 0;
  std::unique_ptr<hostunwind::Frame[]> frames(new hostunwind::Frame[hostunwind::kMaxFrames]);
  size_t count = 0;
  bool ok = true;
  if (tid < 0 || tid == currentTid()) {
    // This frame is the unwinder's frame 1.
    count = hostunwind::captureCurrent(skip, frames.get(), hostunwind::kMaxFrames);
  } else {
    ok = hostunwind::captureThread(tid, skip, frames.get(), hostunwind::kMaxFrames, &count,
                                   hostunwind::kRemoteTimeoutMs) == hostunwind::RemoteResult::Ok;
  }
  if (!ok) __android_log_print(ANDROID_LOG_WARN, "CallStack", "%s: Failed to unwind callstack.", "update");
  mFrameLines.reserve(count);
  for (size_t i = 0; i < count; ++i) mFrameLines.emplace_back(hostunwind::formatFrame(i, frames[i]).c_str());
  asm volatile("" ::: "memory");
}

void CallStack::log(const char* logtag, android_LogPriority priority, const char* prefix) const {
  logThrough(*this, logtag, priority, prefix);
}

void CallStack::dump(int fd, int indent, const char* prefix) const { dumpThrough(*this, fd, indent, prefix); }

String8 CallStack::toString(const char* prefix) const { return renderThrough(*this, prefix); }

void CallStack::print(Printer& printer) const {
  for (const String8& line : mFrameLines) printer.printLine(line.c_str());
}

__attribute__((noinline)) std::unique_ptr<CallStack> CallStack::getCurrent(int32_t ignoreDepth) {
  std::unique_ptr<CallStack> stack(new CallStack());
  stack->update(ignoreDepth + 1);
  asm volatile("" ::: "memory");
  return stack;
}

void CallStack::logStack(const char* logtag, CallStack* stack, android_LogPriority priority) {
  if (stack != nullptr) {
    stack->log(logtag, priority);
  } else {
    getCurrent(2)->log(logtag, priority);
  }
}

String8 CallStack::stackToString(const char* prefix, const CallStack* stack) {
  if (stack != nullptr) return stack->toString(prefix);
  return getCurrent(2)->toString(prefix);
}

// ---- ProcessCallStack ----

ProcessCallStack::ProcessCallStack() : mTimeUpdated() {}
ProcessCallStack::ProcessCallStack(const ProcessCallStack& rhs) = default;
ProcessCallStack::~ProcessCallStack() = default;

__attribute__((noinline)) void ProcessCallStack::update() {
  mThreadMap.clear();
  const long selfTid = static_cast<long>(currentTid());
  time_t now = time(nullptr);
  if (localtime_r(&now, &mTimeUpdated) == nullptr) mTimeUpdated = tm();
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return;
  while (struct dirent* ent = readdir(dir)) {
    char* end = nullptr;
    long tid = strtol(ent->d_name, &end, 10);
    if (end == ent->d_name || *end != '\0' || tid <= 0) continue;
    ThreadInfo& info = mThreadMap[static_cast<pid_t>(tid)];
    info.threadName = hostunwind::threadName(static_cast<pid_t>(tid)).c_str();
    // This thread's own stack starts at this function, the others' where they were.
    info.callStack.update(tid == selfTid ? 2 : 0, static_cast<pid_t>(tid));
  }
  closedir(dir);
  asm volatile("" ::: "memory");  // keeps this frame: no tail call
}

void ProcessCallStack::log(const char* logtag, android_LogPriority priority, const char* prefix) const {
  logThrough(*this, logtag, priority, prefix);
}

void ProcessCallStack::dump(int fd, int indent, const char* prefix) const {
  dumpThrough(*this, fd, indent, prefix);
}

String8 ProcessCallStack::toString(const char* prefix) const { return renderThrough(*this, prefix); }

void ProcessCallStack::print(Printer& printer) const {
  // Frames are indented under their thread's header.
  PrefixPrinter csPrinter(printer, "  ");
  printInternal(printer, csPrinter);
}

void ProcessCallStack::printInternal(Printer& printer, Printer& csPrinter) const {
  char timeText[64];
  if (strftime(timeText, sizeof(timeText), "%Y-%m-%d %H:%M:%S", &mTimeUpdated) == 0) {
    snprintf(timeText, sizeof(timeText), "<unknown>");
  }
  const int pid = static_cast<int>(getpid());
  printer.printLine("");
  printer.printLine("");
  printer.printFormatLine("----- pid %d at %s -----", pid, timeText);
  printer.printFormatLine("Cmd line: %s", commandLine().c_str());
  for (const auto& entry : mThreadMap) {
    printer.printLine("");
    printer.printFormatLine("\"%s\" sysTid=%d", entry.second.threadName.c_str(),
                            static_cast<int>(entry.first));
    entry.second.callStack.print(csPrinter);
  }
  printer.printLine("");
  printer.printFormatLine("----- end %d -----", pid);
  printer.printLine("");
}

}  // namespace android
