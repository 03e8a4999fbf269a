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
#include <cstdint>
#include <string>
#include <thread>

#include "TestSupport.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuDebugUtils.h"

using namespace zutest;

// ---- libc calls this program replaces, to make the library fail from outside ----

namespace {
// An address nothing is mapped at, hidden from the optimiser.
volatile int* volatile gBadAddress = reinterpret_cast<volatile int*>(16);
std::atomic<bool> gCrashInDebugFileWrite{false};
std::atomic<int> gFailSigactionFor{0};

bool isDebugLogFile(int fd) {
  char link[64];
  char target[512];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof(target) - 1);
  if (n <= 0) return false;
  target[n] = '\0';
  return strstr(target, "/offlinelog/ZuCam_") != nullptr && strstr(target, "ErrorInfo") == nullptr && n > 4 &&
         strcmp(target + n - 4, ".txt") == 0;
}
}  // namespace

// The offline logger writes its files with write(): crash inside it on demand.
extern "C" ssize_t write(int fd, const void* buf, size_t count) {
  if (gCrashInDebugFileWrite.load() && isDebugLogFile(fd)) *gBadAddress = 1;
  return syscall(SYS_write, fd, buf, count);
}

// Registration of one chosen signal fails as the kernel would refuse it.
extern "C" int sigaction(int sig, const struct sigaction* act, struct sigaction* old) {
  using Fn = int (*)(int, const struct sigaction*, struct sigaction*);
  static Fn next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "sigaction"));
  if (act != nullptr && sig == gFailSigactionFor.load()) {
    errno = EINVAL;
    return -1;
  }
  return next(sig, act, old);
}

namespace {

// ---- what the child does ----

__attribute__((noinline)) void crashBySegv() { *gBadAddress = 1; }
volatile int gDivisor = 0;
volatile int gQuotient = 0;
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
  auto* p = static_cast<volatile int*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
  gQuotient = p[0];  // beyond the end of the empty file
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

void appendTo(const char* path, const char* text) {
  int fd = open(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
  syscall(SYS_write, fd, text, strlen(text));
  close(fd);
}

void previousWithInfo(int sig, siginfo_t* info, void*) {
  char text[128];
  snprintf(text, sizeof(text), "siginfo sig=%d code=%d addr=%p\n", sig, info->si_code, info->si_addr);
  appendTo("previous.txt", text);
  _exit(42);
}

void previousPlain(int sig) {
  char text[64];
  snprintf(text, sizeof(text), "plain sig=%d\n", sig);
  appendTo("previous.txt", text);
  _exit(43);
}

bool installedIsCatcher(int sig) {
  struct sigaction sa;
  sigaction(sig, nullptr, &sa);
  return (sa.sa_flags & SA_SIGINFO) != 0 && sa.sa_sigaction == zudebug::SignalCatcher;
}

void startLoggers() {
  using zudebug::ZuDebugInterface;
  using zudebug::ZuOfflineLoggerType;
  ASSERT_EQ(0, ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->startOfflineLogger());
  ASSERT_EQ(0, ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->startOfflineLogger());
  const char marker[] = "binary-marker\n";
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->addLogInterface(marker, sizeof(marker) - 1);
}

}  // namespace

TEST(CrashChild, Run) {
  ZU_CHILD_ONLY();
  alarm(60);  // a hang ends as SIGALRM, which no case expects
  const std::string scenario = getenv("ZU_SCENARIO");
  const int sig = atoi(getenv("ZU_SIGNAL") ? getenv("ZU_SIGNAL") : "0");
  startLoggers();

  if (scenario == "fault") {
    zudebug::RegisterSignalHandlers();
    crashWith(sig);
  } else if (scenario == "fault-in-thread") {
    zudebug::RegisterSignalHandlers();
    std::thread([sig] {
      crashWith(sig);
      asm volatile("");  // keeps the lambda's frame, whose name holds a "#"
    }).join();
  } else if (scenario == "chain-siginfo" || scenario == "chain-plain") {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    if (scenario == "chain-siginfo") {
      sa.sa_sigaction = previousWithInfo;
      sa.sa_flags = SA_SIGINFO;
    } else {
      sa.sa_handler = previousPlain;
    }
    sigaction(sig, &sa, nullptr);
    zudebug::RegisterSignalHandlers();
    zudebug::RegisterSignalHandlers();  // a second call must not chain the catcher to itself
    crashWith(sig);
  } else if (scenario == "ignored") {
    signal(sig, SIG_IGN);
    zudebug::RegisterSignalHandlers();
    crashWith(sig);
    appendTo("survived.txt", "survived\n");
    return;
  } else if (scenario == "unmatched") {
    zudebug::RegisterSignalHandlers();
    siginfo_t info;
    memset(&info, 0, sizeof(info));
    info.si_signo = SIGUSR1;
    info.si_code = SI_USER;
    zudebug::SignalCatcher(SIGUSR1, &info, nullptr);
    return;
  } else if (scenario == "register-fails") {
    gFailSigactionFor = SIGBUS;
    zudebug::RegisterSignalHandlers();
    gFailSigactionFor = 0;
    for (int s : {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGSYS, SIGTRAP}) EXPECT_TRUE(installedIsCatcher(s)) << s;
    EXPECT_FALSE(installedIsCatcher(SIGBUS));
    return;
  } else if (scenario == "fault-in-flush") {
    zudebug::RegisterSignalHandlers();
    auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
    const char line[] = "line before the flush\n";
    debug->addLogInterface(line, sizeof(line) - 1);
    gCrashInDebugFileWrite = true;
    debug->flushLogToFileInterface(true);
  } else if (scenario == "lock-held") {
    zudebug::RegisterSignalHandlers();
    std::atomic<bool> held{false};
    std::thread([&held] {
      zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug)->controlMutex().lock();
      held = true;
      for (;;) pause();
    }).detach();
    while (!held) usleep(1000);
    crashWith(SIGSEGV);
  }
  FAIL() << "still running after scenario " << scenario;
}

namespace {

// ---- what the parent checks ----

struct CrashRun {
  ChildResult child;
  std::string debugLog;   // every ".txt" offline file
  std::string binaryLog;  // every ".bin" offline file
  std::string logcat;
  std::string previous;  // what the previous handler wrote
  bool survived = false;
};

std::string offlineFiles(const TempRoot& root, const std::string& ext) {
  std::string all;
  for (const std::string& name : listDir(root.offlineDir())) {
    if (name.rfind("ZuCam_", 0) != 0 || name.find("ErrorInfo") != std::string::npos) continue;
    if (name.size() > ext.size() && name.compare(name.size() - ext.size(), ext.size(), ext) == 0)
      all += readFile(root.offlineDir() + "/" + name);
  }
  return all;
}

CrashRun runCrash(const std::string& scenario, int sig = 0) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  // Sanitizers keep their own fault handlers out of the way, so that the catcher
  // chains to the default action as in a plain build. The catcher is not
  // async-signal-safe by design (a best-effort last write), which the thread
  // sanitizer would report for a signal sent by raise().
  const char* noHandlers = "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";
  CrashRun run;
  run.child = runChild("CrashChild.Run", root,
                       {{"ZU_SCENARIO", scenario},
                        {"ZU_SIGNAL", std::to_string(sig)},
                        {"ZUDEBUG_FREE_MB", "100000"},
                        {"ASAN_OPTIONS", noHandlers},
                        {"TSAN_OPTIONS", std::string(noHandlers) + ":report_signal_unsafe=0"}});
  run.debugLog = offlineFiles(root, ".txt");
  run.binaryLog = offlineFiles(root, ".bin");
  run.logcat = readFile(root.logcatFile());
  run.previous = readFile(root.path("previous.txt"));
  run.survived = readFile(root.path("survived.txt")) == "survived\n";
  return run;
}

const char kStars[] = " F DEBUG   : *** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***";

struct Record {
  bool found = false;
  std::string stamp;
  std::vector<std::string> lines;  // header and frames, as written
  int pid = 0;
  int tid = 0;
};

// The first crash record in `log`: four header lines and the frame lines behind them.
Record findRecord(const std::string& log) {
  Record rec;
  size_t at = log.find(kStars);
  if (at == std::string::npos) return rec;
  size_t start = log.rfind('\n', at);
  start = start == std::string::npos ? 0 : start + 1;
  rec.stamp = log.substr(start, at - start);
  for (size_t pos = start; pos < log.size();) {
    size_t end = log.find('\n', pos);
    if (end == std::string::npos) end = log.size();
    std::string line = log.substr(pos, end - pos);
    if (line.rfind(rec.stamp + " F DEBUG   : ", 0) != 0) break;
    rec.lines.push_back(line);
    pos = end + 1;
  }
  char month[3], rest[64];
  rec.found = sscanf(rec.stamp.c_str(), "%2s-%*d %*d:%*d:%*d:%s %d %d", month, rest, &rec.pid, &rec.tid) == 4;
  return rec;
}

// Header byte for byte, and the frame lines that follow it.
void expectRecord(const Record& rec, const std::string& signalLine, const std::string& function) {
  ASSERT_TRUE(rec.found);
  ASSERT_GE(rec.lines.size(), 6u);
  char ids[64];
  snprintf(ids, sizeof(ids), "  %4d  %4d", rec.pid, rec.tid);
  EXPECT_EQ(rec.stamp.substr(rec.stamp.size() - strlen(ids)), ids);
  EXPECT_EQ(rec.lines[0], rec.stamp + kStars);
  EXPECT_EQ(rec.lines[1],
            rec.stamp + " F DEBUG   : pid: " + std::to_string(rec.pid) + ", tid: " + std::to_string(rec.tid));
  EXPECT_EQ(rec.lines[2].rfind(rec.stamp + " F DEBUG   : " + signalLine, 0), 0u) << rec.lines[2];
  EXPECT_EQ(rec.lines[3], rec.stamp + kStars);
  // Frames start behind the catcher's own: #01 first, numbered on without gaps.
  bool named = false;
  for (size_t i = 4; i < rec.lines.size(); ++i) {
    char expect[32];
    snprintf(expect, sizeof(expect), "#%02zu pc ", i - 3);
    EXPECT_EQ(rec.lines[i].find(expect), rec.stamp.size() + 13) << rec.lines[i];
    EXPECT_EQ(rec.lines[i].find(rec.stamp, 1), std::string::npos) << "frame split: " << rec.lines[i];
    if (rec.lines[i].find("(" + function) != std::string::npos) named = true;
  }
  EXPECT_TRUE(named) << "no frame names " << function;
}

}  // namespace

TEST(CrashCatcher, EachSignalWritesRecordFlushesBothLoggersAndDiesOfIt) {
  struct Case {
    int sig;
    const char* signalLine;  // third header line up to the fault address
    const char* function;
  };
  const Case cases[] = {
      {SIGSEGV, "signal 11, code 1, fault addr 0x10", "(anonymous namespace)::crashBySegv()"},
      {SIGABRT, "signal 6, code -6, fault addr ", "(anonymous namespace)::crashByAbort()"},
      {SIGBUS, "signal 7, code 2, fault addr 0x", "(anonymous namespace)::crashByBus()"},
      {SIGFPE, "signal 8, code 1, fault addr 0x", "(anonymous namespace)::crashByFpe()"},
      {SIGILL, "signal 4, code 2, fault addr 0x", "(anonymous namespace)::crashByIll()"},
      {SIGSYS, "signal 31, code -6, fault addr ", "(anonymous namespace)::crashBySys()"},
      {SIGTRAP, "signal 5, code 128, fault addr ", "(anonymous namespace)::crashByTrap()"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.signalLine);
    CrashRun run = runCrash("fault", c.sig);
    EXPECT_TRUE(run.child.signaled()) << run.child.output;
    EXPECT_EQ(run.child.termSignal(), c.sig);
    expectRecord(findRecord(run.debugLog), c.signalLine, c.function);
    EXPECT_NE(run.binaryLog.find("binary-marker\n"), std::string::npos);
  }
}

TEST(CrashCatcher, CrashOnOtherThreadNamesThatThread) {
  CrashRun run = runCrash("fault-in-thread", SIGSEGV);
  EXPECT_EQ(run.child.termSignal(), SIGSEGV);
  Record rec = findRecord(run.debugLog);
  expectRecord(rec, "signal 11, code 1, fault addr 0x10", "(anonymous namespace)::crashBySegv()");
  EXPECT_NE(rec.pid, rec.tid);
  EXPECT_NE(run.debugLog.find("{lambda()#1}"), std::string::npos);
}

TEST(CrashCatcher, ChainsToPreviousHandlerAfterFlushing) {
  CrashRun withInfo = runCrash("chain-siginfo", SIGSEGV);
  EXPECT_EQ(withInfo.child.exitCode(), 42) << withInfo.child.output;
  EXPECT_EQ(withInfo.previous, "siginfo sig=11 code=1 addr=0x10\n");
  EXPECT_EQ(countSubstr(withInfo.debugLog, kStars), 2u);  // one record, written before the chain

  CrashRun plain = runCrash("chain-plain", SIGFPE);
  EXPECT_EQ(plain.child.exitCode(), 43) << plain.child.output;
  EXPECT_EQ(plain.previous, "plain sig=8\n");
  expectRecord(findRecord(plain.debugLog), "signal 8, code 1, fault addr 0x",
               "(anonymous namespace)::crashByFpe()");
}

TEST(CrashCatcher, IgnoredDispositionStillEndsFaultsButIgnoresRaisedSignals) {
  CrashRun fault = runCrash("ignored", SIGSEGV);
  EXPECT_EQ(fault.child.termSignal(), SIGSEGV) << fault.child.output;
  EXPECT_FALSE(fault.survived);

  CrashRun raised = runCrash("ignored", SIGSYS);
  EXPECT_TRUE(raised.survived) << raised.child.output;
  EXPECT_EQ(raised.child.exitCode(), 0);
  expectRecord(findRecord(raised.debugLog), "signal 31, code -6, fault addr ",
               "(anonymous namespace)::crashBySys()");
}

TEST(CrashCatcher, OtherSignalNumberIsLoggedAsUnmatched) {
  CrashRun run = runCrash("unmatched");
  EXPECT_EQ(run.child.exitCode(), 0) << run.child.output;
  EXPECT_EQ(countSubstr(run.logcat, "E/ZuCamDebug: ZuDebugOfflineLogger.cpp SignalCatcher():"), 1u);
  EXPECT_NE(run.logcat.find(" Signal 10 received, No action matching\n"), std::string::npos);
  EXPECT_TRUE(findRecord(run.debugLog).found);
}

TEST(CrashCatcher, RegistrationFailureOfOneSignalKeepsTheOthers) {
  CrashRun run = runCrash("register-fails");
  EXPECT_EQ(run.child.exitCode(), 0) << run.child.output;
  EXPECT_NE(run.logcat.find("E/ZuCamDebug: ZuDebugOfflineLogger.cpp RegisterSignalHandlers():"),
            std::string::npos);
  EXPECT_EQ(countSubstr(run.logcat, "Failed to register signal handler for"), 1u);
  EXPECT_NE(run.logcat.find(" Failed to register signal handler for SIGBUS\n"), std::string::npos);
}

// The catcher must let the process die even when the logger cannot be used: the
// crash happens inside the Debug logger's own flush, or another thread sits on its
// lock. The Binary logger, untouched, is still flushed.
TEST(CrashCatcher, LockedLoggerIsSkippedAndProcessStillDies) {
  CrashRun inFlush = runCrash("fault-in-flush");
  EXPECT_EQ(inFlush.child.termSignal(), SIGSEGV) << inFlush.child.output;
  EXPECT_NE(inFlush.binaryLog.find("binary-marker\n"), std::string::npos);

  CrashRun held = runCrash("lock-held");
  EXPECT_EQ(held.child.termSignal(), SIGSEGV) << held.child.output;
  EXPECT_NE(held.binaryLog.find("binary-marker\n"), std::string::npos);
}
