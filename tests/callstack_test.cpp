// Call stacks: host CallStack / ProcessCallStack capture and symbolisation, and the
// dump functions that turn stack lines into log lines.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utils/CallStack.h>
#include <utils/ProcessCallStack.h>

#include <atomic>
#include <cctype>
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

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

__attribute__((noinline)) std::string captureHere(int ignoreDepth, const char* prefix) {
  android::CallStack stack;
  stack.update(ignoreDepth);
  std::string text = stack.toString(prefix).c_str();
  asm volatile("");
  return text;
}

__attribute__((noinline)) std::string middleFrame(int ignoreDepth, const char* prefix) {
  std::string text = captureHere(ignoreDepth, prefix);
  asm volatile("");
  return text;
}

// A thread parked in a function of its own until told to stop; `beats` shows that
// it keeps running normally after being interrupted for a dump.
struct ParkedThread {
  explicit ParkedThread(const char* name, bool blockAllSignals = false) {
    thread = std::thread([this, blockAllSignals] {
      if (blockAllSignals) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
      }
      tid = currentTid();
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
    while (!stop.load()) {
      ++beats;
      usleep(1000);
    }
    asm volatile("");
  }
  std::atomic<pid_t> tid{0};
  std::atomic<bool> stop{false};
  std::atomic<int> beats{0};
  std::thread thread;
};

// One frame line, "#NN pc <16 hex digits>  <module>[ (<symbol>)]".
struct FrameLine {
  bool ok = false;
  int index = -1;
  unsigned long long pc = 0;
  std::string module;
  std::string symbol;
};

FrameLine parseFrame(const std::string& line) {
  FrameLine f;
  if (line.size() < 27 || line[0] != '#' || !isdigit(line[1]) || !isdigit(line[2]) ||
      line.compare(3, 4, " pc ") != 0 || line.compare(23, 3, "  /") != 0)
    return f;
  for (size_t i = 7; i < 23; ++i)
    if (!isdigit(line[i]) && (line[i] < 'a' || line[i] > 'f')) return f;
  f.index = std::stoi(line.substr(1, 2));
  f.pc = std::stoull(line.substr(7, 16), nullptr, 16);
  size_t open = line.find(" (", 25);
  f.module = line.substr(25, open == std::string::npos ? std::string::npos : open - 25);
  if (open != std::string::npos) {
    if (line.back() != ')') return f;
    f.symbol = line.substr(open + 2, line.size() - open - 3);
  }
  f.ok = f.module.find(' ') == std::string::npos;
  return f;
}

}  // namespace

TEST(CallStack, CurrentThreadFramesAreNumberedModuleRelativeAndNamed) {
  struct stat exe;
  ASSERT_EQ(0, stat("/proc/self/exe", &exe));

  std::vector<std::string> lines = splitLines(middleFrame(1, ""));
  ASSERT_GE(lines.size(), 4u);
  for (size_t i = 0; i < lines.size(); ++i) {
    FrameLine f = parseFrame(lines[i]);
    ASSERT_TRUE(f.ok) << lines[i];
    EXPECT_EQ(f.index, static_cast<int>(i));
  }
  // Hidden-visibility functions of this program are named from its symbol table,
  // at pcs relative to the program, not absolute addresses.
  FrameLine first = parseFrame(lines[0]);
  EXPECT_EQ(first.symbol.rfind("(anonymous namespace)::captureHere(int, char const*)+", 0), 0u) << lines[0];
  EXPECT_LT(first.pc, static_cast<unsigned long long>(exe.st_size));
  EXPECT_NE(lines[1].find("(anonymous namespace)::middleFrame(int, char const*)+"), std::string::npos);
  EXPECT_NE(lines[2].find("CallStack_CurrentThreadFramesAreNumberedModuleRelativeAndNamed_Test::TestBody()+"),
            std::string::npos);

  // The depth counts from update() itself; the prefix goes before every line.
  std::vector<std::string> fromUpdate = splitLines(middleFrame(0, nullptr));
  EXPECT_NE(fromUpdate[0].find(" (android::CallStack::update(int, int)+"), std::string::npos)
      << fromUpdate[0];
  std::vector<std::string> skipped = splitLines(middleFrame(2, ">> "));
  ASSERT_FALSE(skipped.empty());
  EXPECT_EQ(skipped[0].rfind(">> #00 pc ", 0), 0u);
  EXPECT_NE(skipped[0].find("middleFrame"), std::string::npos);
  for (const std::string& line : skipped) EXPECT_EQ(line.rfind(">> #", 0), 0u);
}

TEST(CallStack, OtherThreadIsUnwoundInsideItsOwnCode) {
  ParkedThread worker("zu-parked");
  android::CallStack stack;
  stack.update(0, worker.tid);
  std::string text = stack.toString().c_str();
  EXPECT_NE(text.find("ParkedThread::parked()+"), std::string::npos) << text;
  EXPECT_EQ(text.find("CallStack::update"), std::string::npos) << "frames of the asking thread";
  int before = worker.beats.load();
  while (worker.beats.load() < before + 3) usleep(1000);  // unharmed by the interruption

  // A thread that blocks every signal, and one that does not exist, give no frames
  // instead of a hang.
  ParkedThread deaf("zu-deaf", true);
  stack.update(0, deaf.tid);
  EXPECT_EQ(stack.size(), 0u);
  stack.update(0, 0x3ffffff0);
  EXPECT_EQ(stack.size(), 0u);
}

TEST(ProcessCallStack, EveryThreadUnderItsNameWithItsFrames) {
  ParkedThread a("zu-alpha");
  ParkedThread b("zu-beta");
  ParkedThread deaf("zu-deaf", true);
  android::ProcessCallStack process;
  process.update();
  EXPECT_GE(process.size(), 4u);
  std::string text = process.toString().c_str();
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(text.rfind("\n----- pid " + pid + " at ", 0), 0u) << text.substr(0, 80);
  EXPECT_NE(text.find("\n\n----- end " + pid + " -----\n"), std::string::npos);

  for (const ParkedThread* t : {&a, &b}) {
    char header[64];
    snprintf(header, sizeof(header), "\"%s\" sysTid=%d\n", t == &a ? "zu-alpha" : "zu-beta", t->tid.load());
    size_t at = text.find(header);
    ASSERT_NE(at, std::string::npos) << header;
    std::string frames = text.substr(at, text.find("\n\n", at) - at);
    EXPECT_NE(frames.find("\n  #00 pc "), std::string::npos);
    EXPECT_NE(frames.find("ParkedThread::parked()+"), std::string::npos) << frames;
  }
  char deafHeader[64];
  snprintf(deafHeader, sizeof(deafHeader), "\"zu-deaf\" sysTid=%d\n\n", deaf.tid.load());
  EXPECT_NE(text.find(deafHeader), std::string::npos);
}

// ---- dump functions: group and debug mask are read at load, so each case is a child ----

TEST(DumpChild, Run) {
  ZU_CHILD_ONLY();
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

struct DumpRun {
  std::string logcat;
  std::string offline;    // the Debug logger's files
  std::string errorInfo;  // the error-information file
};

DumpRun runDump(int priority, const std::map<std::string, std::string>& props) {
  TempRoot root;
  root.setProps(props);
  ChildResult child = runChild("DumpChild.Run", root,
                               {{"ZU_PRIORITY", std::to_string(priority)}, {"ZUDEBUG_FREE_MB", "100000"}});
  EXPECT_EQ(child.exitCode(), 0) << child.output;
  DumpRun run;
  run.logcat = readFile(root.logcatFile());
  for (const std::string& name : listDir(root.offlineDir())) {
    if (name.find("ErrorInfo") != std::string::npos)
      run.errorInfo += readFile(root.offlineDir() + "/" + name);
    else if (name.rfind("ZuCam_Debug_", 0) == 0)
      run.offline += readFile(root.offlineDir() + "/" + name);
  }
  return run;
}

const char kLinePrefix[] = "[CallStack] ZuCallStackUtils.cpp:26 printLine()";

}  // namespace

TEST(DumpCallStack, DebugPriorityReachesAndroidLogOnlyWhateverTheLevel) {
  DumpRun run = runDump(3, {{"persist.vendor.camera.prax.loglevel", "7"}});
  const std::string line = std::string("D/ZuAlgoEngine: ") + kLinePrefix;
  EXPECT_NE(run.logcat.find(line + "here: #00 pc "), std::string::npos) << run.logcat;
  // A null prefix leaves nothing between "()" and ": ".
  size_t other = run.logcat.find(line + ": #00 pc ");
  ASSERT_NE(other, std::string::npos);
  EXPECT_NE(run.logcat.find("ParkedThread::parked()", other), std::string::npos);
  EXPECT_NE(run.logcat.find(line + "proc: \"zu-dumped\" sysTid="), std::string::npos);
  EXPECT_NE(run.logcat.find(line + "proc:   #00 pc "), std::string::npos);
  EXPECT_EQ(run.offline.find("[CallStack]"), std::string::npos);
  EXPECT_EQ(run.errorInfo.find("[CallStack]"), std::string::npos);
}

TEST(DumpCallStack, ErrorPriorityAlsoReachesOfflinePathWithoutDebugMask) {
  DumpRun run = runDump(6, {});
  EXPECT_NE(run.logcat.find(std::string("E/ZuAlgoEngine: ") + kLinePrefix + "here: #00 pc "),
            std::string::npos);
  EXPECT_NE(run.errorInfo.find(" E [UNKNOWN] [CallStack] ZuCallStackUtils.cpp:26 printLine() here: #00 pc "),
            std::string::npos)
      << run.errorInfo.substr(0, 400);
}

TEST(DumpCallStack, DebugMaskSendsEveryPriorityOffline) {
  DumpRun run = runDump(4, {{"persist.vendor.camera.offlinedebug.mask", "1"}});
  EXPECT_NE(run.offline.find(" I [UNKNOWN] [CallStack] ZuCallStackUtils.cpp:26 printLine() here: #00 pc "),
            std::string::npos);
  EXPECT_NE(run.offline.find(" printLine() proc: \"zu-dumped\" sysTid="), std::string::npos);
}

TEST(DumpCallStack, CallStackGroupOffPrintsNothing) {
  DumpRun run = runDump(6, {{"persist.vendor.camera.prax.groupsEnable", std::to_string(54911 & ~512)},
                            {"persist.vendor.camera.offlinedebug.mask", "1"}});
  EXPECT_EQ(run.logcat.find("[CallStack]"), std::string::npos);
  EXPECT_EQ(run.offline.find("[CallStack]"), std::string::npos);
  EXPECT_EQ(run.errorInfo.find("[CallStack]"), std::string::npos);
}
