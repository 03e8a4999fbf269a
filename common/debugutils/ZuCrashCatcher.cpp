// The crash signal catcher. From its first instruction until it passes the signal on
// it allocates nothing, waits for no lock another thread or the interrupted code may
// hold, and calls only async-signal-safe functions; everything it keeps is static.
// Whatever needs the allocator (symbol names, the forced flush) runs in a helper child
// process cloned from the crashing one, which the catcher waits for a bounded while
// and kills when it hangs (on a heap lock held at the crash, say).
//
// The record: the four header lines go into a crash slot of the Debug logger's pool
// first, then the frames, then what a tombstone adds, each line published whole, so
// that a process killed at any point leaves what it had for the next start.
// Lines of this file name the offline logger's, whose part the catcher is.
#define ZU_DIAG_FILE "ZuDebugOfflineLogger.cpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zudebug_platform/crash_support.h>

#include <atomic>

#include "ZuCrashProbe.h"
#include "ZuCrashRecord.h"
#include "ZuPoolFaultGuard.h"
#include "ZuCrashSignalStack.h"
#include "ZuDebugDiag.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuOfflinePool.h"

namespace zudebug {

namespace {

// The signals the catcher handles, in the order they are installed, with their names.
struct CaughtSignal {
  int number;
  const char* name;
};
constexpr CaughtSignal kCaughtSignals[] = {{SIGSEGV, "SIGSEGV"}, {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"},
                                           {SIGFPE, "SIGFPE"},   {SIGILL, "SIGILL"},   {SIGSYS, "SIGSYS"},
                                           {SIGTRAP, "SIGTRAP"}};
constexpr int kMaxSignal = 32;

// Previous action of each caught signal, by signal number.
struct sigaction sPreviousActions[kMaxSignal];
bool sPreviousSaved[kMaxSignal];

// How long the catcher waits for its helper children: symbol names, then the forced
// flush; and for the other threads' frames.
constexpr int kSymbolsBudgetMs = 700;
constexpr int kFlushBudgetMs = 400;
// A helper that is still writing (slowly: a loaded or emulated machine) has this much
// more after each piece it writes, up to twice its budget; one stuck on a lock writes
// nothing and is killed when its budget is up.
constexpr int kProgressGraceMs = 200;
// How long the catcher tries for the loggers' locks before it leaves the record to
// the next start.
constexpr int kFlushLockBudgetMs = 200;
constexpr int kThreadsBudgetMs = 100;
// A catcher that is done waits at most this long for catchers of other threads that
// are still writing their records before it passes its signal on.
constexpr int kOthersBudgetMs = 800;
// How long a finished catcher watches for others to start before it goes on.
constexpr int kQuietSpellMs = 20;

// Threads inside the catcher: a signal raised on one of them meanwhile is passed on
// at once.
constexpr int kMaxCatchers = 16;
std::atomic<int> sCatcherTids[kMaxCatchers];
std::atomic<int> sCatchersInFlight{0};
std::atomic<int> sCatchersStarted{0};

// The helper children run on stacks of their own, one per catcher: the C library's
// clone() puts the child's function and argument on that stack in the parent, so two
// catchers cloning at once must not share one.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kChildStackBytes = 8u << 20;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr size_t kChildStackBytes = 8u << 20;
#else
constexpr size_t kChildStackBytes = 1u << 20;
#endif
#else
constexpr size_t kChildStackBytes = 1u << 20;
#endif
char* sChildStacks = nullptr;  // kCatchers of them

// What one catcher keeps, for as many as run at once.
constexpr uint32_t kCatchers = 4;
struct Catcher {
  platform::CrashFrame frames[platform::kMaxCrashFrames];
  size_t frameCount;
  char symbols[48 * 1024];  // the helper's frame lines
  size_t symbolsLen;
  uint8_t ownRecord[pool::kCrashSlotBytes];  // when no crash slot could be had
  ZuDegbugOfflineLogger::CrashSlotLease lease;
  crash::RecordWriter writer;
  int pipeFd;  // the helper's end
  bool flushLocked[2];
};
Catcher sCatchers[kCatchers];
std::atomic<uint32_t> sCatchersTaken{0};

Catcher* takeCatcher() {
  for (uint32_t i = 0; i < kCatchers; ++i) {
    const uint32_t bit = 1u << i;
    if ((sCatchersTaken.fetch_or(bit, std::memory_order_acq_rel) & bit) == 0) return &sCatchers[i];
  }
  return nullptr;
}

void giveBackCatcher(Catcher* c) {
  const uint32_t i = static_cast<uint32_t>(c - sCatchers);
  sCatchersTaken.fetch_and(~(1u << i), std::memory_order_acq_rel);
}

int gettidRaw() { return static_cast<int>(syscall(SYS_gettid)); }

int64_t monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void pauseMs(long ms) {
  struct timespec pause = {0, ms * 1000000};
  nanosleep(&pause, nullptr);
}

// Whether `tid` is inside the catcher now.
bool inCatcher(int tid) {
  for (auto& entry : sCatcherTids)
    if (entry.load(std::memory_order_acquire) == tid) return true;
  return false;
}

// False when this thread is inside the catcher already.
bool enterCatcher(int tid, int* index) {
  *index = -1;
  if (inCatcher(tid)) return false;
  for (int i = 0; i < kMaxCatchers; ++i) {
    int free = 0;
    if (sCatcherTids[i].compare_exchange_strong(free, tid, std::memory_order_acq_rel)) {
      *index = i;
      return true;
    }
  }
  return true;  // too many at once: this one goes on unmarked
}

void leaveCatcher(int index) {
  if (index >= 0) sCatcherTids[index].store(0, std::memory_order_release);
}

bool isCaught(int signal) {
  for (const CaughtSignal& s : kCaughtSignals)
    if (s.number == signal) return true;
  return false;
}

// A fault raised by the kernel at the faulting instruction: returning re-executes
// it. Breakpoints and seccomp traps resume after the instruction instead.
bool refaultsOnReturn(int signal, const siginfo_t* info) {
  if (info == nullptr || info->si_code <= 0) return false;
  return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL;
}

// Raised by the kernel rather than sent by a process: the kernel itself does not let
// such a signal be ignored or blocked.
bool isHardwareSignal(const siginfo_t* info) { return info != nullptr && info->si_code > 0; }

// Dies of `signal` as if no handler had been installed. A fault is left to recur when
// the handler returns, so that a core dump shows the faulting instruction; anything
// else is raised again on this thread.
void dieOfDefaultAction(int signal, const siginfo_t* info) {
  struct sigaction dfl;
  memset(&dfl, 0, sizeof(dfl));
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(signal, &dfl, nullptr);
  if (refaultsOnReturn(signal, info)) return;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  syscall(SYS_tgkill, getpid(), static_cast<pid_t>(gettidRaw()), signal);
}

// ---- helper children ----

// In a helper child: a crash there ends the child, not in another record.
void childDefaults() {
  struct sigaction dfl;
  memset(&dfl, 0, sizeof(dfl));
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  for (const CaughtSignal& s : kCaughtSignals) sigaction(s.number, &dfl, nullptr);
  sigset_t all;
  sigemptyset(&all);
  for (const CaughtSignal& s : kCaughtSignals) sigaddset(&all, s.number);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
}

void childWrite(int fd, const char* data, size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    len -= static_cast<size_t>(n);
  }
}

// The last byte a helper child writes: what came before is all it had to say, even
// when another catcher's child still holds a copy of the pipe's end.
constexpr char kHelperDone = '\x04';

int symbolsChild(void* arg) {
  childDefaults();
  const Catcher* c = static_cast<const Catcher*>(arg);
  char line[1100];
  for (size_t i = 0; i < c->frameCount; ++i) {
    size_t n = platform::describeFrame(i + 1, c->frames[i], line, sizeof(line) - 1);
    line[n++] = '\n';
    childWrite(c->pipeFd, line, n);
  }
  childWrite(c->pipeFd, &kHelperDone, 1);
  syscall(SYS_exit_group, 0);
  return 0;
}

int flushChild(void* arg) {
  childDefaults();
  const Catcher* c = static_cast<const Catcher*>(arg);
  const ZuOfflineLoggerType types[2] = {ZuOfflineLoggerType::Debug, ZuOfflineLoggerType::Binary};
  for (int i = 0; i < 2; ++i) {
    if (!c->flushLocked[i]) continue;
    ZuDegbugOfflineLogger::existingInstance(types[i])->flushHeldForCrash();
    const char done = static_cast<char>('0' + i);
    childWrite(c->pipeFd, &done, 1);
  }
  childWrite(c->pipeFd, &kHelperDone, 1);
  syscall(SYS_exit_group, 0);
  return 0;
}

// Runs `fn` in a helper child and reads what it writes into `out` until it says it
// is done or `budgetMs` pass; a child still running then is killed. False when it
// did not finish.
bool runHelper(int (*fn)(void*), Catcher* c, char* out, size_t cap, size_t* len, int budgetMs) {
  *len = 0;
  int fds[2];
  if (sChildStacks == nullptr || pipe2(fds, O_CLOEXEC) != 0) return false;
  c->pipeFd = fds[1];
  char* stackTop = sChildStacks + (static_cast<size_t>(c - sCatchers) + 1) * kChildStackBytes - 64;
  const pid_t child = clone(fn, stackTop, SIGCHLD, static_cast<void*>(c));
  close(fds[1]);
  if (child < 0) {
    close(fds[0]);
    return false;
  }
  const int64_t started = monotonicMs();
  int64_t deadline = started + budgetMs;
  bool ended = false;
  for (;;) {
    const int64_t left = deadline - monotonicMs();
    if (left <= 0) break;
    struct pollfd p = {fds[0], POLLIN, 0};
    const int r = poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    char scratch[256];
    char* to = *len < cap ? out + *len : scratch;
    const size_t room = *len < cap ? cap - *len : sizeof(scratch);
    const ssize_t n = read(fds[0], to, room);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (to != scratch) *len += static_cast<size_t>(n);
    const int64_t grace = monotonicMs() + kProgressGraceMs;
    if (grace > deadline) deadline = grace < started + 2 * budgetMs ? grace : started + 2 * budgetMs;
    if (to[n - 1] == kHelperDone) {
      if (to != scratch) --*len;
      ended = true;
      break;
    }
  }
  close(fds[0]);
  if (!ended) kill(child, SIGKILL);
  // Reaped when it is gone; a child that takes longer stays a zombie of a dying process.
  for (int i = 0; i < 50; ++i) {
    int status = 0;
    if (waitpid(child, &status, WNOHANG | __WALL) != 0) break;
    pauseMs(1);
  }
  return ended;
}

// ---- the record ----

void addHeader(crash::RecordWriter& w, int pid, int tid, int signal, const siginfo_t* info) {
  char buf[160];
  w.line("*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***", 63);
  crash::Text a(buf, sizeof(buf));
  a.str("pid: ").dec(pid).str(", tid: ").dec(tid);
  w.line(a);
  crash::Text b(buf, sizeof(buf));
  b.str("signal ").dec(signal).str(", code ").dec(info != nullptr ? info->si_code : 0).str(", fault addr ");
  b.ptr(info != nullptr ? reinterpret_cast<uintptr_t>(info->si_addr) : 0);
  w.line(b);
  w.line("*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***", 63);
}

// The frame lines: the helper's, with symbol names, as far as it got; the rest
// without. False when the helper did not finish (it may be stuck on a lock of the
// allocator that the crash left held).
bool addFrames(Catcher* c, crash::Probe* probe) {
  size_t len = 0;
  const bool whole = runHelper(symbolsChild, c, c->symbols, sizeof(c->symbols), &len, kSymbolsBudgetMs);
  c->symbolsLen = len;
  const char* p = c->symbols;
  const char* end = c->symbols + len;
  for (size_t i = 0; i < c->frameCount; ++i) {
    const char* nl =
        p < end ? static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p))) : nullptr;
    if (nl != nullptr && nl > p && *p == '#') {
      c->writer.line(p, static_cast<size_t>(nl - p));
      p = nl + 1;
    } else {
      p = end;
      probe->addFrame(c->writer, i);
    }
  }
  return whole;
}

// Forces both loggers to disk in a helper child, when their locks are free; false
// when the Debug logger's could not be written.
bool flushBoth(Catcher* c, int tid) {
  const ZuOfflineLoggerType types[2] = {ZuOfflineLoggerType::Debug, ZuOfflineLoggerType::Binary};
  bool any = false;
  // The flush thread or a logging thread may hold them a moment; the gate's holder
  // may be a thread that crashed too, hence the bound.
  const int64_t deadline = monotonicMs() + kFlushLockBudgetMs;
  for (int i = 0; i < 2; ++i) {
    c->flushLocked[i] = false;
    ZuDegbugOfflineLogger* logger = ZuDegbugOfflineLogger::existingInstance(types[i]);
    if (logger == nullptr) continue;
    for (;;) {
      const auto got = logger->lockForCrashFlush(static_cast<uint32_t>(tid));
      if (got == ZuDegbugOfflineLogger::CrashFlushLock::Taken) c->flushLocked[i] = true;
      if (got != ZuDegbugOfflineLogger::CrashFlushLock::Busy || monotonicMs() >= deadline) break;
      sched_yield();
    }
    any = any || c->flushLocked[i];
  }
  if (!any) return false;
  char done[4];
  size_t len = 0;
  runHelper(flushChild, c, done, sizeof(done), &len, kFlushBudgetMs);
  const bool debugWritten = c->flushLocked[0] && memchr(done, '0', len) != nullptr;
  for (int i = 0; i < 2; ++i)
    if (c->flushLocked[i]) ZuDegbugOfflineLogger::existingInstance(types[i])->unlockAfterCrashFlush();
  return debugWritten;
}

void recordCrash(int signal, siginfo_t* info, void* context, int pid, int tid, const void* handlerReturn) {
  ZuDegbugOfflineLogger* logger = ZuDegbugOfflineLogger::existingInstance(ZuOfflineLoggerType::Debug);
  // No offline log, no record: the platform's own crash dumper still gets the signal.
  if (logger == nullptr || !logger->acceptsLines()) return;
  Catcher* c = takeCatcher();
  crash::Probe* probe = crash::takeProbe();
  if (c == nullptr || probe == nullptr) {
    if (c != nullptr) giveBackCatcher(c);
    if (probe != nullptr) crash::giveBackProbe(probe);
    return;
  }
  const bool inSlot = logger->openCrashSlot(static_cast<uint32_t>(tid), &c->lease);
  if (inSlot)
    c->writer.begin(c->lease.data, c->lease.capacity, &ZuDegbugOfflineLogger::publishCrashSlot, &c->lease,
                    pid, tid);
  else
    c->writer.begin(c->ownRecord, sizeof(c->ownRecord), nullptr, nullptr, pid, tid);
  addHeader(c->writer, pid, tid, signal, info);

  c->frameCount = platform::unwindInterrupted(context, handlerReturn, c->frames, platform::kMaxCrashFrames);
  probe->placeFrames(c->frames, c->frameCount);
  const bool helpersWork = addFrames(c, probe);

  c->writer.restamp();
  probe->addCause(c->writer, signal, info, context);
  probe->addAbortMessage(c->writer);
  probe->addSender(c->writer, info);
  probe->addRegisters(c->writer, context);
  probe->addMemory(c->writer, info, context);
  probe->gatherThreads(kThreadsBudgetMs, inCatcher);
  probe->addModules(c->writer);
  probe->addThreads(c->writer);
  if (inSlot) logger->closeCrashSlot(c->lease);

  // A helper that got stuck would get stuck again: the next start writes the record.
  const bool written = helpersWork && flushBoth(c, tid);
  logger->settleCrashRecordsInMemory(written);
  if (!inSlot) crash::writeStraight("Debug", c->writer.data(), c->writer.used());
  crash::giveBackProbe(probe);
  giveBackCatcher(c);
}

// Catchers of other threads may still be writing their records: the process dies
// with the first signal passed on, so wait for them, a bounded while. A thread that
// faulted but has not been given a processor yet is not counted: once none is left,
// a short quiet spell in which no new one starts ends the wait.
void waitForOtherCatchers() {
  const int64_t deadline = monotonicMs() + kOthersBudgetMs;
  int64_t quietUntil = monotonicMs() + kQuietSpellMs;
  int started = sCatchersStarted.load(std::memory_order_acquire);
  for (;;) {
    const int64_t now = monotonicMs();
    if (now >= deadline) return;
    const int startedNow = sCatchersStarted.load(std::memory_order_acquire);
    if (startedNow != started || sCatchersInFlight.load(std::memory_order_acquire) > 0) {
      started = startedNow;
      quietUntil = now + kQuietSpellMs;
    } else if (now >= quietUntil) {
      return;
    }
    pauseMs(1);
  }
}

}  // namespace

void RegisterSignalHandlers() {
  PrepareCrashSignalStack();
  // Everything the handler needs that may allocate or lock is made ready here.
  platform::prepareCrashUnwind();
  crash::notePointerStyle();
  crash::refreshLocalTimeOffset();
  crash::prepareProbe();
  crash::prepareStraightFiles("/data/vendor/camera/offlinelog");
  if (sChildStacks == nullptr) {
    void* stacks = mmap(nullptr, kCatchers * kChildStackBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    sChildStacks = stacks == MAP_FAILED ? nullptr : static_cast<char*>(stacks);
  }

  struct sigaction current;
  memset(&current, 0, sizeof(current));
  bool gotSegv = sigaction(SIGSEGV, nullptr, &current) == 0;
  if (!gotSegv) ZU_DBG_LOGE("Failed to get signal handler for SIGSEGV");
  // Installing twice must not make the catcher its own predecessor.
  const bool alreadyOurs =
      gotSegv && (current.sa_flags & SA_SIGINFO) != 0 && current.sa_sigaction == SignalCatcher;
  if (!alreadyOurs) {
    sPreviousActions[SIGSEGV] = current;
    sPreviousSaved[SIGSEGV] = gotSegv;
  }

  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_mask = current.sa_mask;
  // On the thread's alternate stack, so that a stack overflow is caught too.
  action.sa_flags = current.sa_flags | SA_SIGINFO | SA_ONSTACK;
  // Another catcher's request for this thread's frames waits: the record has them,
  // and answering would nest on the catcher's stack.
  if (crash::peekSignal() != 0) sigaddset(&action.sa_mask, crash::peekSignal());
  action.sa_sigaction = SignalCatcher;

  for (const CaughtSignal& caught : kCaughtSignals) {
    const int signal = caught.number;
    bool ok;
    if (signal == SIGSEGV) {
      ok = sigaction(signal, &action, nullptr) == 0;
    } else {
      struct sigaction previous;
      memset(&previous, 0, sizeof(previous));
      ok = sigaction(signal, &action, &previous) == 0;
      // The catcher repairs queue-file faults itself: what the guard passed on to comes next.
      if (ok && pool::isFaultGuard(previous)) previous = pool::faultGuardPrevious();
      const bool prevOurs = (previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction == SignalCatcher;
      if (ok && !prevOurs) {
        sPreviousActions[signal] = previous;
        sPreviousSaved[signal] = true;
      }
    }
    if (!ok) ZU_DBG_LOGE("Failed to register signal handler for %s", caught.name);
  }
}

void SignalCatcher(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  // A queue file cut short under the process is no crash: the page is replaced and the
  // faulting store or load done again.
  if (pool::absorbQueueFileFault(signal, info)) {
    errno = savedErrno;
    return;
  }
  const int tid = gettidRaw();
  int index = -1;
  if (enterCatcher(tid, &index)) {
    sCatchersInFlight.fetch_add(1, std::memory_order_acq_rel);
    sCatchersStarted.fetch_add(1, std::memory_order_acq_rel);
    recordCrash(signal, info, context, getpid(), tid, __builtin_return_address(0));
    sCatchersInFlight.fetch_sub(1, std::memory_order_acq_rel);
    waitForOtherCatchers();
    leaveCatcher(index);
  }
  if (signal > 0 && signal < kMaxSignal && isCaught(signal) && sPreviousSaved[signal]) {
    InvokeDefaultHndlr(sPreviousActions[signal], signal, info, context);
  } else {
    ZU_DBG_LOGE("Signal %d received, No action matching", signal);
  }
  errno = savedErrno;
}

void InvokeDefaultHndlr(const struct sigaction& action, int signal, siginfo_t* info, void* context) {
  if (action.sa_handler == SIG_DFL) {
    dieOfDefaultAction(signal, info);
  } else if (action.sa_handler == SIG_IGN) {
    // The kernel does not let a fault be ignored: without the catcher the process
    // would have died of it.
    if (isHardwareSignal(info)) dieOfDefaultAction(signal, info);
  } else if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(signal, info, context);
  } else {
    action.sa_handler(signal);
  }
}

}  // namespace zudebug
