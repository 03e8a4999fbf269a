// Crash catcher: every case crashes (or signals) a child process and checks how it
// ended, the record in the offline files, and what the previous handler saw.
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ZuCrashSignalStack.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuOfflineLoggerState.h"
#include "ZuDebugUtils.h"

using namespace zutest;
static constexpr size_t npos = std::string::npos;

// ---- libc calls this program replaces, to make the library fail from outside ----

// An address nothing is mapped at, hidden from the optimiser.
static volatile int* volatile gBadAddress = reinterpret_cast<volatile int*>(16);
static std::atomic<bool> gCrashInDebugFileWrite{false};
namespace crashsite {
__attribute__((noinline)) void crashInDebugFileWrite() {
  *gBadAddress = 1;
  asm volatile("");
}
}  // namespace crashsite
static std::atomic<int> gFailSigactionFor{0};

// The offline logger writes its files with write(): crash inside it on demand.
extern "C" ssize_t write(int fd, const void* buf, size_t count) {
  char link[64], target[512] = {};
  if (gCrashInDebugFileWrite.load() && snprintf(link, sizeof(link), "/proc/self/fd/%d", fd) > 0 &&
      readlink(link, target, sizeof(target) - 1) > 0 &&
      strstr(target, "/offlinelog/ZuCam_Debug_") != nullptr && strstr(target, "ErrorInfo") == nullptr)
    crashsite::crashInDebugFileWrite();
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
// SIGFPE, SIGILL and SIGTRAP from the instruction that raises each on this
// architecture; raise() only where none does.
#if defined(__x86_64__)
// Left to the hardware, also in builds whose sanitizer would report it first.
__attribute__((noinline, no_sanitize("undefined"))) void crashByFpe() { gQuotient = 100 / gDivisor; }
__attribute__((noinline)) void crashByIll() { asm volatile("ud2"); }
__attribute__((noinline)) void crashByTrap() { asm volatile("int3"); }
#elif defined(__aarch64__)
// An integer division by zero gives 0 on arm64: no instruction traps with SIGFPE.
__attribute__((noinline)) void crashByFpe() {
  raise(SIGFPE);
  asm volatile("");  // no tail call: this frame stays on the stack
}
__attribute__((noinline)) void crashByIll() { asm volatile("udf #0"); }
__attribute__((noinline)) void crashByTrap() { asm volatile("brk #0"); }
#else
#error "no way to raise SIGFPE, SIGILL and SIGTRAP chosen for this architecture"
#endif
__attribute__((noinline)) void crashByAbort() { abort(); }
__attribute__((noinline)) void crashBySys() {
  raise(SIGSYS);
  asm volatile("");  // no tail call: this frame stays on the stack
}
__attribute__((noinline)) void crashByBus() {
  int fd = open("bus.bin", O_RDWR | O_CREAT | O_TRUNC, 0644);
  gQuotient = static_cast<volatile int*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0))[0];  // past EOF
}

// Deep enough to overflow any thread's stack; the array keeps every frame large and
// the addition after the call keeps it from becoming a loop.
volatile bool gDeeper = true;
__attribute__((noinline)) int overflowStack(int depth) {
  volatile char frame[4096];
  frame[0] = static_cast<char>(depth);
  return gDeeper ? overflowStack(depth + 1) + frame[0] : frame[0];
}

// A bad pointer handed to an append: the fault is inside the library, mid-append.
__attribute__((noinline)) void crashByBadAppend() {
  zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug)
      ->addLogInterface(reinterpret_cast<const char*>(const_cast<int*>(gBadAddress)), 100);
  asm volatile("");
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

ZU_CHILD_TEST(CrashChild, Run) {
  alarm(60);  // a hang ends as SIGALRM, which no case expects
  const std::string scenario = getenv("ZU_SCENARIO");
  const int sig = atoi(getenv("ZU_SIGNAL"));
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  auto* binary = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Binary);
  ASSERT_EQ(0, debug->startOfflineLogger());
  ASSERT_EQ(0, binary->startOfflineLogger());
  binary->addLogInterface("binary-marker\n", 14);

  if (scenario == "recover") {
    debug->stopOfflineLogger();
    binary->stopOfflineLogger();
    return;
  }
  // Lines logged before every crash: each must reach the files exactly once.
  for (int i = 0; i < 300; ++i) {
    char line[64];
    const int n = snprintf(line, sizeof(line), "line %d before the crash\n", i);
    debug->addLogInterface(line, static_cast<unsigned int>(n));
  }
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
  } else if (scenario == "overflow-main") {
    overflowStack(0);
  } else if (scenario == "overflow-worker") {
    std::thread([debug] {
      debug->addLogInterface("worker line before the overflow\n", 32);
      overflowStack(0);
    }).join();
  } else if (scenario == "bad-append") {
    crashByBadAppend();
  } else if (scenario.rfind("threads-", 0) == 0) {
    // Several threads fault at the same moment.
    const int n = atoi(scenario.c_str() + 8);
    pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, static_cast<unsigned>(n));
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
      threads.emplace_back([&barrier] {
        pthread_barrier_wait(&barrier);
        crashBySegv();
        asm volatile("");  // keeps the lambda's frame
      });
    for (std::thread& t : threads) t.join();
  } else if (scenario == "flush-loop") {
    // Another thread forces flushes without pause, logging between them.
    std::atomic<int> rounds{0};
    std::thread([debug, &rounds] {
      for (;;) {
        debug->addLogInterface("line of the flushing thread\n", 28);
        debug->flushLogToFileInterface(true);
        rounds.fetch_add(1);
      }
    }).detach();
    while (rounds.load() < 20) usleep(100);
    crashBySegv();
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
  std::string ending;       // "signal N" or "exit N"
  std::string output;       // the child's stdout and stderr
  std::string debugAtExit;  // every Debug ".txt" offline file as the crash left them
  std::string debugLog;     // the same after the next start recovered what was left
  std::string binaryLog;    // every ".bin" offline file
  std::vector<std::string> logcat;
};

std::string debugFiles(const TempRoot& root) {
  std::string log;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.rfind("ZuCam_Debug_", 0) == 0 && name.find("ErrorInfo") == npos)
      log += readFile(root.offlineDir() + "/" + name);
  return log;
}

// `poolInMemory`: the queue file cannot be made, so the queues and crash slots live
// in process memory.
CrashRun runCrash(const std::string& scenario, int sig, bool poolInMemory = false) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"},
                 {"persist.vendor.camera.offlinelog.pooldir", "/data/vendor/camera/no-pool/here"}});
  if (poolInMemory) root.writeFile("data/vendor/camera/no-pool", "a file where a directory should be");
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
  run.debugAtExit = debugFiles(root);
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.rfind("ZuCam_Binary_", 0) == 0) run.binaryLog += readFile(root.offlineDir() + "/" + name);
  run.logcat = readLines(root.logcatFile());
  // The next camera process to start writes whatever the crashed one left behind.
  ChildResult next =
      runChild("CrashChild.Run", root,
               {{"ZU_SCENARIO", "recover"}, {"ZU_SIGNAL", "0"}, {"ZUDEBUG_FREE_MB", "100000"}});
  EXPECT_EQ(next.exitCode(), 0) << next.output;
  run.debugLog = debugFiles(root);
  return run;
}

// The lines logged before the crash, each exactly once in `log`.
void expectEarlierLinesOnce(const std::string& log) {
  for (int i = 0; i < 300; i += 37) {
    const std::string line = "line " + std::to_string(i) + " before the crash\n";
    EXPECT_EQ(countSubstr(log, line), 1u) << line;
  }
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

// A return address is shown taken back into its call instruction, and so is the pc a
// signal interrupted: by this much.
#if defined(__aarch64__)
constexpr unsigned long long kPcTakenBack = 4;
#else
constexpr unsigned long long kPcTakenBack = 1;
#endif

// Where the crash functions lie in this program, relative to it as frames show them.
unsigned long long programOffset(const void* code) {
  Dl_info info;
  if (dladdr(code, &info) == 0) return 0;
  return reinterpret_cast<uintptr_t>(code) - reinterpret_cast<uintptr_t>(info.dli_fbase);
}
unsigned long long crashCodeAt(const std::string& function) {
  const struct {
    const char* name;
    const void* code;
  } kCode[] = {{"crashBySegv()", reinterpret_cast<const void*>(crashBySegv)},
               {"crashByFpe()", reinterpret_cast<const void*>(crashByFpe)},
               {"crashByIll()", reinterpret_cast<const void*>(crashByIll)},
               {"crashByTrap()", reinterpret_cast<const void*>(crashByTrap)},
               {"crashByBus()", reinterpret_cast<const void*>(crashByBus)},
               {"overflowStack(int)", reinterpret_cast<const void*>(overflowStack)},
               {"crashInDebugFileWrite()", reinterpret_cast<const void*>(crashsite::crashInDebugFileWrite)}};
  for (const auto& c : kCode)
    if (function == c.name) return programOffset(c.code);
  return 0;
}

// "#NN pc <pc>  <module> (...)": the pc and the module.
bool framePcAndModule(const std::string& line, unsigned long long* pc, std::string* module) {
  char path[512];
  if (sscanf(line.c_str(), "#%*d pc %llx %511s", pc, path) != 2) return false;
  *module = path;
  return true;
}

std::vector<int> expectRecords(const std::string& log, size_t count, const std::string& signalLine,
                               const std::string& function, bool otherThread, bool lambdaFrame) {
  std::vector<int> tids;
  EXPECT_EQ(countSubstr(log, kStars), 2 * count) << "records";
  for (size_t at = log.find(kStars); at != npos && tids.size() < count; at = log.find(kStars, at + 1)) {
    const size_t start = log.rfind('\n', at) + 1;  // 0 when none
    const std::string stamp = log.substr(start, at - start);
    int mon, day, h, m, s, pid, tid;
    long ns;
    if (sscanf(stamp.c_str(), "%d-%d %d:%d:%d:%ld %d %d", &mon, &day, &h, &m, &s, &ns, &pid, &tid) != 8) {
      ADD_FAILURE() << stamp;
      break;
    }
    char expect[128];
    snprintf(expect, sizeof(expect), "%02d-%02d %02d:%02d:%02d:%06ld  %4d  %4d", mon, day, h, m, s, ns, pid,
             tid);
    EXPECT_EQ(stamp, expect);
    const std::string head = stamp + " F DEBUG   : ";
    std::vector<std::string> lines;
    size_t pos = start;
    for (size_t end; pos < log.size() && log.compare(pos, head.size(), head) == 0; pos = end + 1) {
      end = log.find('\n', pos);
      lines.push_back(log.substr(pos + head.size(), end - pos - head.size()));
    }
    at = pos - 1;  // past this record's closing stars
    if (lines.size() < 6) {
      ADD_FAILURE() << "record of " << lines.size() << " lines";
      break;
    }
    tids.push_back(tid);
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
      // Never a frame of the catcher or of the call stack it asks.
      for (const char* own : {"SignalCatcher", "CallStack::", "hostunwind"})
        EXPECT_EQ(lines[i].find(own), npos) << lines[i];
    }
    // #01 is the signal frame, outside this program and the library; #02 the frame
    // the signal interrupted. When that is a crash function of this program, its pc,
    // taken back as a return address's is, lies in it (at its very first byte the pc
    // falls before it and the frame names the function before).
    unsigned long long pc1 = 0, pc2 = 0;
    std::string module1, module2;
    char self[PATH_MAX] = "";
    EXPECT_NE(realpath("/proc/self/exe", self), nullptr);
    if (function == "TestBody()") {
      // The catcher called straight, without a signal: its caller comes first.
    } else if (framePcAndModule(lines[4], &pc1, &module1) && framePcAndModule(lines[5], &pc2, &module2)) {
      EXPECT_NE(module1, self) << lines[4];
      EXPECT_EQ(module1.find("libzudebug"), npos) << lines[4];
      const unsigned long long code = crashCodeAt(function);
      if (module2 == self && code != 0) {
        EXPECT_GE(pc2 + kPcTakenBack, code) << lines[5];
        EXPECT_LT(pc2 + kPcTakenBack, code + 256) << lines[5];
        EXPECT_TRUE(lines[5].find("::" + function) != npos || pc2 + kPcTakenBack == code) << lines[5];
        named = true;
      }
    } else {
      ADD_FAILURE() << "no signal frame and frame after it: " << lines[4];
    }
    EXPECT_TRUE(named) << "no frame names " << function;
    EXPECT_EQ(pid != tid, otherThread);
    EXPECT_EQ(lambda, lambdaFrame);
  }
  EXPECT_EQ(tids.size(), count);
  return tids;
}

}  // namespace

namespace {

// The record's signal line, up to the fault address, of the faults whose code differs
// between architectures (and between a kernel and qemu's user-mode emulation of it).
struct FaultLines {
  std::string fpe, ill, trap, mainOverflow;
};
FaultLines faultLines() {
#if defined(__x86_64__)
  // FPE_INTDIV, ILL_ILLOPN (ud2), SI_KERNEL (int3: no address), SEGV_MAPERR (the
  // stack's guard gap is unmapped).
  return {"signal 8, code 1, fault addr 0x", "signal 4, code 2, fault addr 0x",
          "signal 5, code 128, fault addr ", "signal 11, code 1, fault addr 0x"};
#elif defined(__aarch64__)
  // SI_TKILL (raised), TRAP_BRKPT. An undefined instruction is ILL_ILLOPC to the
  // kernel, ILL_ILLOPN to qemu; qemu puts a guard page below the main thread's stack
  // (SEGV_ACCERR), the kernel an unmapped gap (SEGV_MAPERR).
  const bool qemu = !emulator().empty();
  return {"signal 8, code -6, fault addr ",
          qemu ? "signal 4, code 2, fault addr 0x" : "signal 4, code 1, fault addr 0x",
          "signal 5, code 1, fault addr 0x",
          qemu ? "signal 11, code 2, fault addr 0x" : "signal 11, code 1, fault addr 0x"};
#endif
}

}  // namespace

// Real faults where one can be made, raise() otherwise. With the default disposition
// the process dies of the same signal; a previous handler is called with the same
// information after the record is on disk; an ignored fault still ends the process.
// Every case leaves its whole record and the lines logged before it exactly once: on
// disk at once where the catcher can flush, else (the crash is inside the logger's
// own flush, or another thread sits on its lock) written by the next start.
TEST(CrashCatcher, EveryScenarioRecordsFlushesAndEndsAsBefore) {
  enum Thread { kMain, kWorker, kDeepWorker };  // kDeepWorker: its lambda is beyond the frames shown
  struct Case {
    const char* scenario;
    int sig;
    const char* ending;
    std::string signalLine;  // third header line up to the fault address
    const char* function;    // a frame of the record names it
    Thread thread;
    size_t records;
    bool onDiskAtCrash;  // false: only once the next start recovered it
  };
  const FaultLines arch = faultLines();
  const Case cases[] = {
      {"fault", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()", kMain, 1, true},
      {"fault", SIGABRT, "signal 6", "signal 6, code -6, fault addr ", "crashByAbort()", kMain, 1, true},
      {"fault", SIGBUS, "signal 7", "signal 7, code 2, fault addr 0x", "crashByBus()", kMain, 1, true},
      {"fault", SIGFPE, "signal 8", arch.fpe, "crashByFpe()", kMain, 1, true},
      {"fault", SIGILL, "signal 4", arch.ill, "crashByIll()", kMain, 1, true},
      {"fault", SIGSYS, "signal 31", "signal 31, code -6, fault addr ", "crashBySys()", kMain, 1, true},
      {"fault", SIGTRAP, "signal 5", arch.trap, "crashByTrap()", kMain, 1, true},
      {"fault-in-thread", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()",
       kWorker, 1, true},
      {"chain-siginfo", SIGSEGV, "exit 211", "signal 11, code 1, fault addr 0x10", "crashBySegv()", kMain, 1,
       true},
      {"chain-plain", SIGFPE, "exit 108", arch.fpe, "crashByFpe()", kMain, 1, true},
      {"ignored", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()", kMain, 1,
       true},
      {"ignored", SIGSYS, "exit 0", "signal 31, code -6, fault addr ", "crashBySys()", kMain, 1, true},
      {"unmatched", SIGUSR1, "exit 0", "signal 10, code 0, fault addr ", "TestBody()", kMain, 1, true},
      {"overflow-main", SIGSEGV, "signal 11", arch.mainOverflow, "overflowStack(int)", kMain, 1, true},
      {"overflow-worker", SIGSEGV, "signal 11", "signal 11, code 2, fault addr 0x", "overflowStack(int)",
       kDeepWorker, 1, true},
      {"bad-append", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashByBadAppend()", kMain,
       1, true},
      {"flush-loop", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()", kMain, 1,
       true},
      {"fault-in-flush", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10",
       "crashInDebugFileWrite()", kMain, 1, false},
      {"lock-held", SIGSEGV, "signal 11", "signal 11, code 1, fault addr 0x10", "crashBySegv()", kWorker, 1,
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.scenario) + " " + std::to_string(c.sig));
    CrashRun run = runCrash(c.scenario, c.sig);
    EXPECT_EQ(run.ending, c.ending) << run.output;
    EXPECT_NE(run.binaryLog.find("binary-marker\n"), npos);
    EXPECT_EQ(countSubstr(run.debugAtExit, kStars), c.onDiskAtCrash ? 2 * c.records : 0);
    expectRecords(run.debugLog, c.records, c.signalLine, c.function, c.thread != kMain, c.thread == kWorker);
    expectEarlierLinesOnce(run.debugLog);
    EXPECT_EQ(errorLines(run.logcat, "SignalCatcher"),
              c.sig == SIGUSR1 ? Lines{"Signal 10 received, No action matching"} : Lines{});
    EXPECT_EQ(errorLines(run.logcat, "RegisterSignalHandlers"), Lines{});
  }
}

// Threads that fault together each leave a whole record of their own before the
// process dies. A race: repeated. Not built under ThreadSanitizer: there one of the
// threads enters its handler only about 250 ms after the others have finished theirs
// (seen in every run), which is no longer "together".
#ifndef __SANITIZE_THREAD__
TEST(CrashCatcher, ThreadsFaultingTogetherEachLeaveTheirRecord) {
  for (int threads : {2, 4}) {
    for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(std::to_string(threads) + " threads, round " + std::to_string(round));
      CrashRun run = runCrash("threads-" + std::to_string(threads), SIGSEGV);
      EXPECT_EQ(run.ending, "signal 11") << run.output;
      EXPECT_EQ(countSubstr(run.debugAtExit, kStars), 2u * threads);
      std::vector<int> tids = expectRecords(run.debugLog, threads, "signal 11, code 1, fault addr 0x10",
                                            "crashBySegv()", true, true);
      std::sort(tids.begin(), tids.end());
      EXPECT_EQ(std::unique(tids.begin(), tids.end()), tids.end()) << "one record per thread";
      expectEarlierLinesOnce(run.debugLog);
    }
  }
}
#endif

// Without a queue file, a record that the flush cannot write goes straight into a
// file of its own; the queued lines die with the process, as they must.
TEST(CrashCatcher, RecordWithoutQueueFileIsWrittenStraight) {
  CrashRun run = runCrash("lock-held", SIGSEGV, true);
  EXPECT_EQ(run.ending, "signal 11") << run.output;
  EXPECT_EQ(run.debugAtExit, run.debugLog) << "nothing left to recover";
  expectRecords(run.debugAtExit, 1, "signal 11, code 1, fault addr 0x10", "crashBySegv()", true, true);
  EXPECT_EQ(countSubstr(run.debugAtExit, "before the crash"), 0u);
}

// An injected failure for SIGBUS (checked in the child: the others are installed).
TEST(CrashCatcher, RegistrationFailureOfOneSignalKeepsTheOthers) {
  CrashRun run = runCrash("register-fails", 0);
  EXPECT_EQ(run.ending, "exit 0") << run.output;
  EXPECT_EQ(errorLines(run.logcat, "RegisterSignalHandlers"),
            Lines{"Failed to register signal handler for SIGBUS"});
}

// Every thread that uses the library gets an alternate signal stack of its own with its
// first use, given back when the thread ends; a thread that has one keeps it.
TEST(CrashSignalStack, GivenWithFirstUseKeptIfOwnedReleasedAtExit) {
  void* given = nullptr;
  size_t givenSize = 0;
  bool hadOne = false;  // a sanitizer runtime gives every thread one of its own
  std::thread([&] {
    stack_t before;
    ASSERT_EQ(sigaltstack(nullptr, &before), 0);
    hadOne = (before.ss_flags & SS_DISABLE) == 0;
    zudebug::zuCurrentTid();  // what every log line does first
    stack_t ss;
    ASSERT_EQ(sigaltstack(nullptr, &ss), 0);
    EXPECT_EQ(ss.ss_flags & SS_DISABLE, 0);
    if (hadOne) {
      EXPECT_EQ(ss.ss_sp, before.ss_sp);
    }
    given = ss.ss_sp;
    givenSize = ss.ss_size;
  }).join();
  ASSERT_NE(given, nullptr);
  if (!hadOne) {
    EXPECT_GE(givenSize, 64u * 1024);
    // Unmapped once the thread is gone.
    EXPECT_EQ(msync(given, static_cast<size_t>(sysconf(_SC_PAGESIZE)), MS_ASYNC), -1);
    EXPECT_EQ(errno, ENOMEM);
  }

  static char own[64 * 1024];
  std::thread([] {
    stack_t mine = {};
    mine.ss_sp = own;
    mine.ss_size = sizeof(own);
    ASSERT_EQ(sigaltstack(&mine, nullptr), 0);
    zudebug::PrepareCrashSignalStack();
    stack_t ss;
    ASSERT_EQ(sigaltstack(nullptr, &ss), 0);
    EXPECT_EQ(ss.ss_sp, static_cast<void*>(own));
    mine.ss_flags = SS_DISABLE;
    sigaltstack(&mine, nullptr);
  }).join();
}
