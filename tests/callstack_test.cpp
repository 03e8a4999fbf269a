// Call stacks: host CallStack / ProcessCallStack capture and symbolisation, and the
// dump functions that turn stack lines into log lines.
#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utils/CallStack.h>
#include <utils/ProcessCallStack.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ZuCallStackUtils.h"
#include "ZuDebugUtils.h"

using namespace zutest;

namespace {

constexpr size_t npos = std::string::npos;

// The current thread's stack as lines, captured two frames of this program deep.
__attribute__((noinline)) std::vector<std::string> captureHere(int ignoreDepth, const char* prefix) {
  android::CallStack stack;
  stack.update(ignoreDepth);
  std::istringstream in(stack.toString(prefix).c_str());
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

__attribute__((noinline)) std::vector<std::string> middleFrame(int ignoreDepth, const char* prefix) {
  std::vector<std::string> lines = captureHere(ignoreDepth, prefix);
  asm volatile("");  // no tail call: this frame stays on the stack
  return lines;
}

// A named thread parked in a function of its own until told to stop; `beats` shows
// that it keeps running normally after being interrupted for a dump.
struct ParkedThread {
  explicit ParkedThread(const char* name, bool blockAllSignals = false) {
    thread = std::thread([this, blockAllSignals] {
      sigset_t all;
      sigfillset(&all);
      if (blockAllSignals) pthread_sigmask(SIG_BLOCK, &all, nullptr);
      tid = static_cast<pid_t>(syscall(SYS_gettid));
      parked();
    });
    pthread_setname_np(thread.native_handle(), name);
    while (tid.load() == 0) usleep(1000);
  }
  ~ParkedThread() {
    stop = true;
    thread.join();
  }
  __attribute__((noinline)) void parked() {
    for (; !stop.load(); ++beats) usleep(1000);
    asm volatile("");
  }
  std::atomic<pid_t> tid{0};
  std::atomic<bool> stop{false};
  std::atomic<int> beats{0};
  std::thread thread;
};

// Checks a frame line "<prefix>#NN pc <pc as 16 hex digits>  /module[ (symbol)]" by
// printing its head again from the pc it holds; returns that pc.
unsigned long long checkFrame(const std::string& line, size_t index, const std::string& prefix = "") {
  unsigned long long pc = strtoull(line.c_str() + std::min(line.size(), prefix.size() + 7), nullptr, 16);
  char head[64];
  snprintf(head, sizeof(head), "%s#%02zu pc %016llx  /", prefix.c_str(), index, pc);
  EXPECT_EQ(line.substr(0, strlen(head)), head) << line;
  const size_t symbol = line.find(" (", strlen(head));
  EXPECT_EQ(line.find(' ', strlen(head)), symbol) << "a module path without blanks: " << line;
  EXPECT_TRUE(symbol == npos || line.back() == ')') << line;
  return pc;
}

}  // namespace

// Whether the module-relative `pc` of the module at `bias` lies in a direct call
// instruction: the shown pc of a return address is taken back into its call.
bool inCallInstruction(uintptr_t bias, unsigned long long pc) {
  const auto* at = reinterpret_cast<const unsigned char*>(bias + pc);
#if defined(__x86_64__)
  return at[-4] == 0xe8;  // call rel32: the return address is 5 bytes on, pc 1 back from it
#elif defined(__aarch64__)
  uint32_t insn;
  memcpy(&insn, at, sizeof(insn));
  return (insn & 0xfc000000u) == 0x94000000u;  // bl
#else
#error "no call instruction check for this architecture"
#endif
}

TEST(CallStack, CurrentThreadFramesAreNumberedModuleRelativeAndNamed) {
  struct stat exe;
  ASSERT_EQ(0, stat("/proc/self/exe", &exe));
  std::vector<std::string> lines = middleFrame(2, "");
  ASSERT_GE(lines.size(), 4u);
  for (size_t i = 0; i < lines.size(); ++i) checkFrame(lines[i], i);
  // Hidden-visibility functions of this program are named from its symbol table,
  // at pcs relative to the program, not absolute addresses.
  EXPECT_LT(checkFrame(lines[0], 0), static_cast<unsigned long long>(exe.st_size));
  EXPECT_NE(lines[0].find(" ((anonymous namespace)::captureHere(int, char const*)+"), npos) << lines[0];
  EXPECT_NE(lines[1].find(" ((anonymous namespace)::middleFrame(int, char const*)+"), npos) << lines[1];
  EXPECT_NE(lines[2].find("_Test::TestBody()+"), npos) << lines[2];
  // Return addresses are shown in their call instructions.
  Dl_info info;
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&middleFrame), &info), 0);
  EXPECT_TRUE(inCallInstruction(reinterpret_cast<uintptr_t>(info.dli_fbase), checkFrame(lines[1], 1)))
      << lines[1];
  // Modules by their real paths.
  char exePath[PATH_MAX];
  ASSERT_NE(realpath("/proc/self/exe", exePath), nullptr);
  const std::string program = std::string(" ") + exePath;
  EXPECT_NE(lines[1].find(program + " ("), npos) << lines[1];

  // As the platform counts: frame 0 is inside the unwinder, frame 1 update() itself;
  // the prefix goes before every line.
  lines = middleFrame(0, nullptr);
  ASSERT_GE(lines.size(), 2u);
  checkFrame(lines[0], 0);
  EXPECT_EQ(lines[0].find(program), npos) << lines[0];
  EXPECT_EQ(lines[0].find("update"), npos) << lines[0];
  EXPECT_NE(lines[1].find(" (android::CallStack::update(int, int)+"), npos) << lines[1];
  lines = middleFrame(1, nullptr);
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines[0].find(" (android::CallStack::update(int, int)+"), npos) << lines[0];
  lines = middleFrame(3, ">> ");
  ASSERT_FALSE(lines.empty());
  for (size_t i = 0; i < lines.size(); ++i) checkFrame(lines[i], i, ">> ");
  EXPECT_NE(lines[0].find("::middleFrame("), npos) << lines[0];
}

// Another thread is unwound in its own code and carries on; a thread that does not
// exist gives no frames. The process dump has every thread under its name, with a
// thread that blocks every signal given up on after the platform's wait, without
// frames; each failure is a warning of the platform's.
TEST(CallStack, OtherThreadsOneByOneAndAsAProcess) {
  ParkedThread alpha("zu-alpha"), deaf("zu-deaf", true);
  android::CallStack stack;
  stack.update(0, alpha.tid);
  std::string text = stack.toString().c_str();
  EXPECT_NE(text.find("ParkedThread::parked()+"), npos) << text;
  EXPECT_EQ(text.find("CallStack::update"), npos) << "frames of the asking thread";
  const int before = alpha.beats.load();
  while (alpha.beats.load() < before + 3) usleep(1000);
  stack.update(0, 0x3ffffff0);
  EXPECT_EQ(stack.size(), 0u);

  android::ProcessCallStack process;
  process.update();
  EXPECT_GE(process.size(), 3u);  // this thread and the two above
  text = process.toString().c_str();
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(text.rfind("\n\n----- pid " + pid + " at ", 0), 0u) << text.substr(0, 80);
  EXPECT_NE(text.find("\nCmd line: "), npos);
  const std::string end = "\n\n----- end " + pid + " -----\n\n";
  EXPECT_EQ(text.substr(text.size() - std::min(text.size(), end.size())), end);
  // This thread's own frames start at the process update.
  // Threads go by their kernel names (under an emulator the main thread keeps the
  // emulator's).
  std::string name = readFile("/proc/self/comm");
  if (!name.empty() && name.back() == '\n') name.pop_back();
  const std::string self = "\"" + name + "\" sysTid=" + pid;
  EXPECT_NE(text.find(self + "\n  #00 pc "), npos) << text;
  EXPECT_NE(text.find("(android::ProcessCallStack::update()+"), npos) << text;
  // Each thread under its name, with its frames; none for the one that blocks signals.
  const size_t at = text.find("\"zu-alpha\" sysTid=" + std::to_string(alpha.tid) + "\n  #00 pc ");
  ASSERT_NE(at, npos) << text;
  EXPECT_NE(text.substr(at, text.find("\n\n", at) - at).find("ParkedThread::parked()+"), npos);
  EXPECT_NE(text.find("\"zu-deaf\" sysTid=" + std::to_string(deaf.tid) + "\n\n"), npos);
}

// ---- dump functions: group and debug mask are read at load, so each case is a child ----

ZU_CHILD_TEST(DumpChild, Run) {
  alarm(60);
  const int priority = atoi(getenv("ZU_PRIORITY"));
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  debug->startOfflineLogger();
  ParkedThread worker("zu-dumped");
  zudebug::dumpThreadCallStack(-1, 0, "here", priority);
  zudebug::dumpThreadCallStack(worker.tid, 0, nullptr, priority);
  zudebug::dumpCurProcessCallStack("proc", priority);
  debug->stopOfflineLogger();
}

namespace {

// The lines of both dumps behind `head` in `text`, or no "[CallStack]" at all.
void expectDumped(const std::string& text, const std::string& head, bool present) {
  EXPECT_EQ(text.find("[CallStack]") != npos, present) << head << "\n" << text.substr(0, 400);
  if (!present) return;
  EXPECT_NE(text.find(head + "here: #00 pc "), npos);
  // A null prefix leaves nothing between "()" and ": "; the other thread's own frames
  // come before the process dump.
  const size_t other = text.find(head + ": #00 pc "), proc = text.find(head + "proc: \"zu-dumped\" sysTid=");
  ASSERT_NE(other, npos);
  EXPECT_LT(text.find("ParkedThread::parked()", other), proc);
  EXPECT_NE(proc, npos);
  EXPECT_NE(text.find(head + "proc:   #00 pc "), npos);
}

}  // namespace

TEST(DumpCallStack, PriorityAndDebugMaskRouteEveryLineAndGroupOffPrintsNothing) {
  const std::string mask = "persist.vendor.camera.offlinedebug.mask",
                    group = "persist.vendor.camera.prax.groupsEnable";
  struct Case {
    int priority;
    std::map<std::string, std::string> props;
    bool logcat, offline, errorInfo;
  };
  const Case cases[] = {
      {3, {{"persist.vendor.camera.prax.loglevel", "7"}}, true, false, false},  // Android log only
      {6, {}, true, false, true},             // errors reach the offline path without a debug mask
      {4, {{mask, "1"}}, true, true, false},  // a debug mask sends every priority offline
      {6, {{group, std::to_string(54911 & ~512)}, {mask, "1"}}, false, false, false},  // group 512 off
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.priority);
    TempRoot root;
    root.setProps(c.props);
    ChildResult child = runChild(
        "DumpChild.Run", root, {{"ZU_PRIORITY", std::to_string(c.priority)}, {"ZUDEBUG_FREE_MB", "100000"}});
    EXPECT_EQ(child.exitCode(), 0) << child.output;
    std::string offline, errorInfo;
    for (const std::string& name : listDir(root.offlineDir())) {
      std::string& into = name.find("ErrorInfo") != npos ? errorInfo : offline;
      if (name.rfind("ZuCam_Debug_", 0) == 0) into += readFile(root.offlineDir() + "/" + name);
    }
    const std::string letter(1, "DDDDIWEEE"[c.priority]),
        where = " [CallStack] ZuCallStackUtils.cpp:26 printLine()";
    expectDumped(readFile(root.logcatFile()), letter + "/ZuAlgoEngine:" + where, c.logcat);
    expectDumped(offline, " " + letter + " [UNKNOWN]" + where + " ", c.offline);
    expectDumped(errorInfo, " " + letter + " [UNKNOWN]" + where + " ", c.errorInfo);
  }
}
