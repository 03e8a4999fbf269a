// Crash catcher: every case crashes (or signals) a child process and checks how it
// ended, the record in the offline files, and what the previous handler saw.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuDebugUtils.h"

using namespace zutest;
static constexpr size_t npos = std::string::npos;

// ---- libc calls this program replaces, to make the library fail from outside ----

// An address nothing is mapped at, hidden from the optimiser.
static volatile int* volatile gBadAddress = reinterpret_cast<volatile int*>(16);
static std::atomic<bool> gCrashInDebugFileWrite{false};
static std::atomic<int> gFailSigactionFor{0};

// The offline logger writes its files with write(): crash inside it on demand.
extern "C" ssize_t write(int fd, const void* buf, size_t count) {
  char link[64], target[512] = {};
  if (gCrashInDebugFileWrite.load() && snprintf(link, sizeof(link), "/proc/self/fd/%d", fd) > 0 &&
      readlink(link, target, sizeof(target) - 1) > 0 &&
      strstr(target, "/offlinelog/ZuCam_Debug_") != nullptr && strstr(target, "ErrorInfo") == nullptr)
    *gBadAddress = 1;
  return syscall(SYS_write, fd, buf, count);
}

// Registration of one chosen signal fails as the kernel would refuse it.
extern "C" int sigaction(int sig, const struct sigaction* act, struct sigaction* old) {
  using Fn = int (*)(int, const struct sigaction*, struct sigaction*);
  static Fn next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "sigaction"));
  if (act != nullptr && sig == gFailSigactionFor.load()) return errno = EINVAL, -1;
  return next(sig, act, old);
}

namespace {

// ---- what the child does ----

volatile int gDivisor = 0;
volatile int gQuotient = 0;
__attribute__((noinline)) void crashBySegv() { *gBadAddress = 1; }
// Left to the hardware, also in builds whose sanitizer would report it first.
__attribute__((noinline, no_sanitize("undefined"))) void crashByFpe() { gQuotient = 100 / gDivisor; }
__attribute__((noinline)) void crashByIll() { __builtin_trap(); }
__attribute__((noinline)) void crashByTrap() { asm volatile("int3"); }
__attribute__((noinline)) void crashByAbort() { abort(); }
__attribute__((noinline)) void crashBySys() {
  raise(SIGSYS);
  asm volatile("");  // no tail call: this frame stays on the stack
}
__attribute__((noinline)) void crashByBus() {
  int fd = open("bus.bin", O_RDWR | O_CREAT | O_TRUNC, 0644);
  gQuotient = static_cast<volatile int*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0))[0];  // past EOF
}

void crashWith(int signal) {
  const struct {
    int signal;
    void (*crash)();
  } kCrashes[] = {{SIGSEGV, crashBySegv},  {SIGFPE, crashByFpe}, {SIGILL, crashByIll}, {SIGTRAP, crashByTrap},
                  {SIGABRT, crashByAbort}, {SIGSYS, crashBySys}, {SIGBUS, crashByBus}};
  for (const auto& c : kCrashes)
    if (c.signal == signal) c.crash();
}

// Previous handlers, one of each form: the exit status shows what they were given.
void previousPlain(int sig) { _exit(100 + sig); }
void previousWithInfo(int sig, siginfo_t* info, void*) {
  _exit(info->si_code == SEGV_MAPERR && info->si_addr == gBadAddress ? 200 + sig : 1);
}

}  // namespace

TEST(CrashChild, Run) {
  ZU_CHILD_ONLY();
  alarm(60);  // a hang ends as SIGALRM, which no case expects
  const std::string scenario = getenv("ZU_SCENARIO");
  const int sig = atoi(getenv("ZU_SIGNAL"));
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  auto* binary = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Binary);
  ASSERT_EQ(0, debug->startOfflineLogger());
  ASSERT_EQ(0, binary->startOfflineLogger());
  binary->addLogInterface("binary-marker\n", 14);

  if (scenario == "register-fails") {
    gFailSigactionFor = SIGBUS;
    zudebug::RegisterSignalHandlers();
    for (int s : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP}) {
      struct sigaction sa;
      sigaction(s, nullptr, &sa);
      EXPECT_EQ((sa.sa_flags & SA_SIGINFO) != 0 && sa.sa_sigaction == zudebug::SignalCatcher, s != SIGBUS)
          << s;
    }
    return;
  }
  if (scenario == "chain-plain" || scenario == "ignored")
    signal(sig, scenario == "ignored" ? SIG_IGN : previousPlain);
  if (scenario == "chain-siginfo") {
    struct sigaction sa = {};
    sa.sa_sigaction = previousWithInfo;
    sa.sa_flags = SA_SIGINFO;
    sigaction(sig, &sa, nullptr);
  }
  zudebug::RegisterSignalHandlers();
  zudebug::RegisterSignalHandlers();  // a second call must not chain the catcher to itself

  if (scenario == "unmatched") {
    siginfo_t info = {};  // si_code 0: SI_USER
    zudebug::SignalCatcher(sig, &info, nullptr);
  } else if (scenario == "fault-in-flush") {
    debug->addLogInterface("line before the flush\n", 22);
    gCrashInDebugFileWrite = true;
    debug->flushLogToFileInterface(true);
  } else if (scenario == "fault-in-thread" || scenario == "lock-held") {
    if (scenario == "lock-held") debug->controlMutex().lock();  // and never let go
    std::thread([sig] {
      crashWith(sig);
      asm volatile("");  // keeps the lambda's frame, whose name holds a "#"
    }).join();
  } else {
    crashWith(sig);
  }
  EXPECT_TRUE(scenario == "ignored" || scenario == "unmatched") << "still running after the crash";
}

namespace {

// ---- what the parent checks ----

struct CrashRun {
  std::string ending;     // "signal N" or "exit N"
  std::string output;     // the child's stdout and stderr
  std::string debugLog;   // every Debug ".txt" offline file
  std::string binaryLog;  // every ".bin" offline file
  std::vector<std::string> logcat;
};

CrashRun runCrash(const std::string& scenario, int sig) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  // Sanitizers keep their own fault handlers out of the way, so that the catcher
  // chains to the default action as in a plain build. The catcher is not
  // async-signal-safe by design (a best-effort last write), which the thread
  // sanitizer would report for a signal sent by raise().
  const std::string noHandlers =
      "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";
  ChildResult child = runChild("CrashChild.Run", root,
                               {{"ZU_SCENARIO", scenario},
                                {"ZU_SIGNAL", std::to_string(sig)},
                                {"ZUDEBUG_FREE_MB", "100000"},
                                {"ASAN_OPTIONS", noHandlers},
                                {"TSAN_OPTIONS", noHandlers + ":report_signal_unsafe=0"}});
  CrashRun run;
  run.ending = child.signaled() ? "signal " + std::to_string(child.termSignal())
                                : "exit " + std::to_string(child.exitCode());
  run.output = child.output;
  for (const std::string& name : listDir(root.offlineDir())) {
    if (name.rfind("ZuCam_Debug_", 0) == 0 && name.find("ErrorInfo") == npos)
      run.debugLog += readFile(root.offlineDir() + "/" + name);
    if (name.rfind("ZuCam_Binary_", 0) == 0) run.binaryLog += readFile(root.offlineDir() + "/" + name);
  }
  run.logcat = readLines(root.logcatFile());
  return run;
}

using Lines = std::vector<std::string>;

// The messages of lines "E/ZuCamDebug: ZuDebugOfflineLogger.cpp <function>():<line> <message>".
Lines errorLines(const Lines& logcat, const std::string& function) {
  const std::string head = "E/ZuCamDebug: ZuDebugOfflineLogger.cpp " + function + "():";
  Lines messages;
  for (const std::string& line : logcat) {
    size_t text = line.find_first_not_of("0123456789", head.size());
    if (line.rfind(head, 0) == 0 && text > head.size() && line[text] == ' ')
      messages.push_back(line.substr(text + 1));
  }
  return messages;
}

const char kStars[] = " F DEBUG   : *** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***";

// The one crash record in `log`: its time stamp byte for byte, the four header lines
// (the fault address a bare hexadecimal number or "(nil)"), then frame lines "#01" on
// without gaps, so that a frame split at a "#" in its name, or two frames run
// together, break the count; one of them names `function`. Only a crash on another
// thread has a tid other than the pid, and a lambda's frame ("#" in its name).
void expectRecord(const std::string& log, const std::string& signalLine, const std::string& function,
                  bool otherThread) {
  EXPECT_EQ(countSubstr(log, kStars), 2u) << "exactly one record";
  size_t at = log.find(kStars);
  ASSERT_NE(at, npos);
  const size_t start = log.rfind('\n', at) + 1;  // 0 when none
  const std::string stamp = log.substr(start, at - start);
  int mon, day, h, m, s, pid, tid;
  long ns;
  ASSERT_EQ(sscanf(stamp.c_str(), "%d-%d %d:%d:%d:%ld %d %d", &mon, &day, &h, &m, &s, &ns, &pid, &tid), 8)
      << stamp;
  char expect[128];
  snprintf(expect, sizeof(expect), "%02d-%02d %02d:%02d:%02d:%06ld  %4d  %4d", mon, day, h, m, s, ns, pid,
           tid);
  EXPECT_EQ(stamp, expect);
  const std::string head = stamp + " F DEBUG   : ";
  std::vector<std::string> lines;
  for (size_t pos = start, end; pos < log.size() && log.compare(pos, head.size(), head) == 0; pos = end + 1) {
    end = log.find('\n', pos);
    lines.push_back(log.substr(pos + head.size(), end - pos - head.size()));
  }
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(head + lines[0], stamp + kStars);
  EXPECT_EQ(lines[1], "pid: " + std::to_string(pid) + ", tid: " + std::to_string(tid));
  EXPECT_EQ(lines[2].rfind(signalLine, 0), 0u) << lines[2];
  EXPECT_EQ(lines[2].find_first_not_of("0123456789abcdefx(nil)", signalLine.size()), npos) << lines[2];
  EXPECT_EQ(head + lines[3], stamp + kStars);
  bool named = false, lambda = false;
  for (size_t i = 4; i < lines.size(); ++i) {
    snprintf(expect, sizeof(expect), "#%02zu pc ", i - 3);
    EXPECT_EQ(lines[i].rfind(expect, 0), 0u) << lines[i];
    named = named || lines[i].find("::" + function) != npos;
    lambda = lambda || lines[i].find("::{lambda()#") != npos;
  }
  EXPECT_TRUE(named) << "no frame names " << function;
  EXPECT_EQ(pid != tid, otherThread);
  EXPECT_EQ(lambda, otherThread);
}

}  // namespace

// Real faults where one can be made, raise() otherwise. With the default disposition
// the process dies of the same signal; a previous handler is called with the same
// information after the record is on disk; an ignored fault still ends the process.
// When the Debug logger cannot be used (the crash is inside its own flush, or another
// thread sits on its lock) the catcher skips it, still flushes Binary and dies.
TEST(CrashCatcher, EveryScenarioRecordsFlushesAndEndsAsBefore) {
  struct Case {
    const char* scenario;
    int sig;
    const char* ending;
    const char* signalLine;  // third header line up to the fault address; null: no record expected
    const char* function;    // a frame of the record names it
  };
  const Case cases[] = {
      {"fault", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()"},
      {"fault", SIGABRT, "signal 6", "signal 6, code -6, fault addr ", "crashByAbort()"},
      {"fault", SIGBUS, "signal 7", "signal 7, code 2, fault addr 0x", "crashByBus()"},
      {"fault", SIGFPE, "signal 8", "signal 8, code 1, fault addr 0x", "crashByFpe()"},
      {"fault", SIGILL, "signal 4", "signal 4, code 2, fault addr 0x", "crashByIll()"},
      {"fault", SIGSYS, "signal 31", "signal 31, code -6, fault addr ", "crashBySys()"},
      {"fault", SIGTRAP, "signal 5", "signal 5, code 128, fault addr ", "crashByTrap()"},
      {"fault-in-thread", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()"},
      {"chain-siginfo", SIGSEGV, "exit 211", "signal 11, code 1, fault addr 0x10", "crashBySegv()"},
      {"chain-plain", SIGFPE, "exit 108", "signal 8, code 1, fault addr 0x", "crashByFpe()"},
      {"ignored", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()"},
      {"ignored", SIGSYS, "exit 0", "signal 31, code -6, fault addr ", "crashBySys()"},
      {"unmatched", SIGUSR1, "exit 0", "signal 10, code 0, fault addr ", "TestBody()"},
      {"fault-in-flush", SIGSEGV, "signal 11", nullptr, ""},
      {"lock-held", SIGSEGV, "signal 11", nullptr, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.scenario) + " " + std::to_string(c.sig));
    CrashRun run = runCrash(c.scenario, c.sig);
    EXPECT_EQ(run.ending, c.ending) << run.output;
    EXPECT_NE(run.binaryLog.find("binary-marker\n"), npos);
    if (c.signalLine != nullptr)
      expectRecord(run.debugLog, c.signalLine, c.function, std::string(c.scenario) == "fault-in-thread");
    EXPECT_EQ(errorLines(run.logcat, "SignalCatcher"),
              c.sig == SIGUSR1 ? Lines{"Signal 10 received, No action matching"} : Lines{});
    EXPECT_EQ(errorLines(run.logcat, "RegisterSignalHandlers"), Lines{});
  }
}

// An injected failure for SIGBUS (checked in the child: the others are installed).
TEST(CrashCatcher, RegistrationFailureOfOneSignalKeepsTheOthers) {
  CrashRun run = runCrash("register-fails", 0);
  EXPECT_EQ(run.ending, "exit 0") << run.output;
  EXPECT_EQ(errorLines(run.logcat, "RegisterSignalHandlers"),
            Lines{"Failed to register signal handler for SIGBUS"});
}
