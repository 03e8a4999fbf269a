// A camera-like process that crashes one way on demand, with the crash catcher
// installed after a handler of its own (as the platform's crash dumper is on a
// device), both offline loggers running and lines logged before the fault.
//
//   crash_scenario SCENARIO RESULT_FILE
//
// The handler installed first records what it was given in RESULT_FILE (a
// crashscenario::Result), and so does a thin wrapper around the catcher: when the
// catcher was entered, how many allocations the faulting thread made inside it and
// how much of its signal stack it used. SCENARIO "recover" only starts and stops the
// loggers, as the next camera process does after a crash.
#undef NDEBUG  // the assert scenario needs assert()

#include <assert.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "CrashScenario.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuOfflineLoggerState.h"
#include "ZuDebugUtils.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CS_SANITIZED 1
#endif
#endif

namespace {

crashscenario::Result* gResult = nullptr;

// Set on a thread from the catcher's entry until the hand-over.
__thread bool tInCatcher = false;
std::atomic<int64_t> gAllocationsInCatcher{0};

// What the wrapper painted of the stack it runs on, for the previous handler to read.
__thread char* tPaintLow = nullptr;
__thread char* tPaintHigh = nullptr;
__thread bool tOnOwnSignalStack = false;
// A thread that runs without a signal stack of its own tells where its stack ends.
__thread char* tThreadStackLow = nullptr;
// The signal stack a thread installed for itself.
__thread char* tOwnSignalStack = nullptr;

constexpr unsigned char kPaint = 0xa5;

int64_t nowNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

#ifndef CS_SANITIZED
// The program's own allocator entry points: each counts a call made inside the catcher.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

static inline void countAllocation() {
  if (tInCatcher) gAllocationsInCatcher.fetch_add(1, std::memory_order_relaxed);
}
void* malloc(size_t n) {
  countAllocation();
  return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
  countAllocation();
  return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
  countAllocation();
  return __libc_realloc(p, n);
}
void* memalign(size_t align, size_t n) {
  countAllocation();
  return __libc_memalign(align, n);
}
void* aligned_alloc(size_t align, size_t n) {
  countAllocation();
  return __libc_memalign(align, n);
}
int posix_memalign(void** out, size_t align, size_t n) {
  countAllocation();
  void* p = __libc_memalign(align, n);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}
void free(void* p) { __libc_free(p); }
}
#endif

namespace {

// ---- around the catcher ----

struct sigaction gCatcherActions[65];

// The stack this handler runs on: the signal stack when it is on one, else the
// thread's own down to where the thread said it ends (nothing known: not measured).
__attribute__((noinline)) void paintBelow(char* top) {
  stack_t ss;
  char* low = nullptr;
  if (sigaltstack(nullptr, &ss) == 0 && (ss.ss_flags & SS_ONSTACK) != 0) {
    low = static_cast<char*>(ss.ss_sp);
    tOnOwnSignalStack = tOwnSignalStack != nullptr && low == tOwnSignalStack;
  } else if (tThreadStackLow != nullptr) {
    low = tThreadStackLow;
  }
  if (low == nullptr || low >= top) return;
  char* high = top - 512;  // this function's own frame lies above
  for (volatile char* p = low; p < high; ++p) *p = static_cast<char>(kPaint);
  tPaintLow = low;
  tPaintHigh = top;
}

void catcherEntry(int sig, siginfo_t* info, void* context) {
  char here;
  tInCatcher = true;
  paintBelow(&here);
  gCatcherActions[sig].sa_sigaction(sig, info, context);
}

int gNoted = 0;

// The handler the catcher hands over to: notes what it got, then dies of the signal
// as the default action would.
void previousHandler(int sig, siginfo_t* info, void*) {
  const int64_t now = nowNs();
  tInCatcher = false;
  if (__atomic_fetch_add(&gResult->previousCalls, 1, __ATOMIC_ACQ_REL) == 0) {
    gResult->handOverNs = now;
    gResult->signo = info->si_signo;
    gResult->code = info->si_code;
    gResult->senderPid = info->si_code <= 0 ? info->si_pid : 0;
    gResult->addr = reinterpret_cast<uintptr_t>(info->si_addr);
#ifdef CS_SANITIZED
    gResult->allocationsInHandler = -1;
#else
    gResult->allocationsInHandler = gAllocationsInCatcher.load();
#endif
    if (tPaintLow != nullptr) {
      const char* p = tPaintLow;
      while (p < tPaintHigh && static_cast<unsigned char>(*p) == kPaint) ++p;
      gResult->stackUsed = static_cast<uint64_t>(tPaintHigh - p);
      gResult->stackPainted = static_cast<uint64_t>(tPaintHigh - tPaintLow);
      gResult->onOwnSignalStack = tOnOwnSignalStack;
    }
    __atomic_store_n(&gNoted, 1, __ATOMIC_RELEASE);
  } else {
    // The first thread here is still noting: dying now would cut it short.
    const struct timespec ms = {0, 1000000};
    for (int i = 0; i < 1000 && __atomic_load_n(&gNoted, __ATOMIC_ACQUIRE) == 0; ++i) nanosleep(&ms, nullptr);
  }
  struct sigaction dfl;
  memset(&dfl, 0, sizeof(dfl));
  dfl.sa_handler = SIG_DFL;
  sigaction(sig, &dfl, nullptr);
  // A fault raised by the hardware recurs on return; anything else is raised again.
  const bool refaults = info->si_code > 0 && sig != SIGTRAP &&
                        (sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL);
  if (refaults) return;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, sig);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  syscall(SYS_tgkill, getpid(), static_cast<pid_t>(syscall(SYS_gettid)), sig);
}

constexpr int kSignals[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSYS, SIGTRAP};

void installAroundTheCatcher() {
  for (int sig : kSignals) {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_sigaction = previousHandler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaction(sig, &sa, nullptr);
  }
  zudebug::RegisterSignalHandlers();
  // Between the kernel and the catcher, as a signal-chaining library would be.
  for (int sig : kSignals) {
    sigaction(sig, nullptr, &gCatcherActions[sig]);
    struct sigaction sa = gCatcherActions[sig];
    sa.sa_sigaction = catcherEntry;
    sigaction(sig, &sa, nullptr);
  }
}

// ---- the faults ----

volatile int* volatile gBadAddress = reinterpret_cast<volatile int*>(16);
volatile int gDivisor = 0;
volatile int gQuotient = 0;

void aboutToFault() {
  gResult->ready = 1;
  gResult->faultNs = nowNs();
}

__attribute__((noinline)) void faultBySegv() {
  aboutToFault();
  *gBadAddress = 1;
  asm volatile("");
}
#if defined(__x86_64__)
__attribute__((noinline, no_sanitize("undefined"))) void faultByFpe() {
  aboutToFault();
  gQuotient = 100 / gDivisor;
}
__attribute__((noinline)) void faultByIll() {
  aboutToFault();
  asm volatile("ud2");
}
__attribute__((noinline)) void faultByTrap() {
  aboutToFault();
  asm volatile("int3");
}
#elif defined(__aarch64__)
// An integer division by zero gives 0 on arm64: no instruction traps with SIGFPE.
__attribute__((noinline)) void faultByFpe() {
  aboutToFault();
  raise(SIGFPE);
  asm volatile("");
}
__attribute__((noinline)) void faultByIll() {
  aboutToFault();
  asm volatile("udf #0");
}
__attribute__((noinline)) void faultByTrap() {
  aboutToFault();
  asm volatile("brk #0");
}
#else
#error "no way to raise SIGFPE, SIGILL and SIGTRAP chosen for this architecture"
#endif
__attribute__((noinline)) void faultByAbort() {
  aboutToFault();
  abort();
}
__attribute__((noinline)) void faultBySys() {
  aboutToFault();
  raise(SIGSYS);
  asm volatile("");
}
__attribute__((noinline)) void faultByBus() {
  const int fd = open("bus.bin", O_RDWR | O_CREAT | O_TRUNC, 0644);
  auto* past = static_cast<volatile int*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
  aboutToFault();
  gQuotient = past[0];  // past the end of an empty file
}

void faultWith(int sig) {
  switch (sig) {
    case SIGSEGV:
      faultBySegv();
      break;
    case SIGABRT:
      faultByAbort();
      break;
    case SIGBUS:
      faultByBus();
      break;
    case SIGFPE:
      faultByFpe();
      break;
    case SIGILL:
      faultByIll();
      break;
    case SIGSYS:
      faultBySys();
      break;
    case SIGTRAP:
      faultByTrap();
      break;
  }
}

volatile bool gDeeper = true;
__attribute__((noinline)) int overflowStack(int depth) {
  volatile char frame[4096];
  frame[0] = static_cast<char>(depth);
  if (depth == 0) aboutToFault();
  return gDeeper ? overflowStack(depth + 1) + frame[0] : frame[0];
}

zudebug::ZuDebugInterface* debugLog() {
  return zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
}

void logLine(const char* text) {
  char line[128];
  const int n = snprintf(line, sizeof(line), "%s\n", text);
  debugLog()->addLogInterface(line, static_cast<unsigned>(n));
}

// A released buffer released again inside free(), which holds the heap's lock when
// it finds out: buffers larger than the per-thread caches and fast bins take.
__attribute__((noinline)) void doubleFree() {
  std::vector<unsigned char*> pool;
  for (int i = 0; i < 8; ++i) pool.push_back(static_cast<unsigned char*>(malloc(1100)));
  free(pool[3]);
  aboutToFault();
  free(pool[3]);
  asm volatile("");
}

// An overflow into the size of the heap's top chunk, found by the next allocation
// that the top chunk serves. On a new thread, whose fresh arena has nothing but its
// top chunk to cut a block from.
__attribute__((noinline)) void corruptTopSize() {
  constexpr size_t kBlock = 100000;  // below the mmap threshold
  auto* block = static_cast<unsigned char*>(malloc(kBlock));
  // The next chunk's size field follows the block's usable bytes.
  auto* topSize = reinterpret_cast<volatile size_t*>(block + malloc_usable_size(block));
  if ((*topSize & 1) == 0) fprintf(stderr, "the block was not cut from the top chunk\n");
  *topSize = ~static_cast<size_t>(0) & ~static_cast<size_t>(7);  // an overflow's bytes
  aboutToFault();
  void* more = malloc(kBlock + 10000);
  gQuotient = more != nullptr;
}

// Another thread holds every heap lock in turn while it writes the statistics to a
// pipe that is full and that nobody reads: malloc_stats() writes to `stderr`, here a
// stream on that pipe (file descriptor 2 stays as it was, for whoever else writes there).
void heapLockedByStats() {
  int fds[2];
  if (pipe(fds) != 0) return;
  fcntl(fds[1], F_SETFL, O_NONBLOCK);
  static char filler[4096];
  while (write(fds[1], filler, sizeof(filler)) > 0) {
  }
  fcntl(fds[1], F_SETFL, 0);
  FILE* full = fdopen(fds[1], "w");
  if (full == nullptr) return;
  setvbuf(full, nullptr, _IONBF, 0);
  stderr = full;
  std::thread([] { malloc_stats(); }).detach();
  usleep(50000);  // inside the write, the lock held
  faultBySegv();
}

// Another thread is stopped, by a signal handler that never returns, wherever it
// was: now and then inside malloc, holding its lock.
void stopForever(int) {
  for (;;) pause();
}
void heapLockedBySignal() {
  mallopt(M_ARENA_MAX, 1);  // one heap lock for every thread, the faulting one's too
  signal(SIGUSR2, stopForever);
  std::atomic<bool> started{false};
  std::thread worker([&started] {
    started = true;
    for (unsigned i = 0;; ++i) {
      void* p = malloc(16 + (i * 7919) % 4000);
      gQuotient = p != nullptr;
      free(p);
    }
  });
  while (!started) usleep(100);
  usleep(2000);
  pthread_kill(worker.native_handle(), SIGUSR2);
  usleep(5000);
  worker.detach();
  faultBySegv();
}

// Where a thread that runs its handlers on its own stack can be measured: the stack's
// last 256 KiB at most, above its lowest page.
void noteThreadStack() {
  pthread_attr_t own;
  void* low = nullptr;
  size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &own) != 0) return;
  pthread_attr_getstack(&own, &low, &size);
  pthread_attr_destroy(&own);
  char* from = static_cast<char*>(low) + 256;
  char* top = static_cast<char*>(low) + size;
  tThreadStackLow = top - from > (256 << 10) ? top - (256 << 10) : from;
}

// A thread with a 16 KiB stack that never logged: no signal stack of the library's.
void smallThreadStack() {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  size_t size = 16 * 1024;
  if (size < static_cast<size_t>(PTHREAD_STACK_MIN)) size = static_cast<size_t>(PTHREAD_STACK_MIN);
  pthread_attr_setstacksize(&attr, size);
  pthread_t thread;
  pthread_create(
      &thread, &attr,
      [](void*) -> void* {
        noteThreadStack();
        faultBySegv();
        return nullptr;
      },
      nullptr);
  pthread_join(thread, nullptr);
}

// A thread with a 16 KiB signal stack of its own, as the device's C library gives
// every thread, that logs: it keeps its own.
void ownSignalStack() {
  std::thread([] {
    constexpr size_t kBytes = 16 * 1024;
    static char stack[kBytes] __attribute__((aligned(64)));
    stack_t ss;
    memset(&ss, 0, sizeof(ss));
    ss.ss_sp = stack;
    ss.ss_size = kBytes;
    sigaltstack(&ss, nullptr);
    tOwnSignalStack = stack;
    logLine("a line from the thread with its own signal stack");
    faultBySegv();
  }).join();
}

// The offline logger writes its files with write(): fault inside it on demand.
std::atomic<bool> gFaultInDebugFileWrite{false};

void faultInFileWrite() {
  logLine("a line before the flush");
  gFaultInDebugFileWrite = true;
  debugLog()->flushLogToFileInterface(true);
}

void loggerLocksHeld() {
  std::atomic<bool> held{false};
  std::thread([&held] {
    debugLog()->controlMutex().lock();  // and never let go
    held = true;
    for (;;) pause();
  }).detach();
  while (!held) usleep(100);
  faultBySegv();
}

void threadsTogether(int n) {
  pthread_barrier_t barrier;
  pthread_barrier_init(&barrier, nullptr, static_cast<unsigned>(n));
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i)
    threads.emplace_back([&barrier] {
      logLine("a line of a thread about to fault");
      pthread_barrier_wait(&barrier);
      faultBySegv();
    });
  for (std::thread& t : threads) t.join();
}

__attribute__((noinline)) void checkFrame(const void* buffer) {
  aboutToFault();
  assert(buffer != nullptr && "every frame has a buffer");
}

int run(const std::string& scenario) {
  if (scenario == "segv")
    faultWith(SIGSEGV);
  else if (scenario == "abort")
    faultWith(SIGABRT);
  else if (scenario == "bus")
    faultWith(SIGBUS);
  else if (scenario == "fpe")
    faultWith(SIGFPE);
  else if (scenario == "ill")
    faultWith(SIGILL);
  else if (scenario == "sys")
    faultWith(SIGSYS);
  else if (scenario == "trap")
    faultWith(SIGTRAP);
  else if (scenario == "double-free")
    doubleFree();
  else if (scenario == "top-size")
    std::thread([] {
      noteThreadStack();
      corruptTopSize();
    }).join();
  else if (scenario == "heap-lock-stats")
    heapLockedByStats();
  else if (scenario == "heap-lock-signal")
    heapLockedBySignal();
  else if (scenario == "overflow-main")
    overflowStack(0);
  else if (scenario == "overflow-worker")
    std::thread([] {
      logLine("a line of the thread about to overflow");
      overflowStack(0);
    }).join();
  else if (scenario == "small-thread-stack")
    smallThreadStack();
  else if (scenario == "own-signal-stack")
    ownSignalStack();
  else if (scenario == "fault-in-file-write")
    faultInFileWrite();
  else if (scenario == "logger-locks-held")
    loggerLocksHeld();
  else if (scenario == "threads-together")
    threadsTogether(4);
  else if (scenario == "assert")
    std::thread([] {
      noteThreadStack();
      checkFrame(nullptr);
    }).join();
  else {
    fprintf(stderr, "unknown scenario '%s'\n", scenario.c_str());
    return 2;
  }
  fprintf(stderr, "still running after scenario '%s'\n", scenario.c_str());
  return 3;
}

}  // namespace

extern "C" ssize_t write(int fd, const void* buf, size_t count) {
  if (gFaultInDebugFileWrite.load(std::memory_order_relaxed)) {
    char link[64], target[512] = {};
    if (snprintf(link, sizeof(link), "/proc/self/fd/%d", fd) > 0 &&
        readlink(link, target, sizeof(target) - 1) > 0 &&
        strstr(target, "/offlinelog/ZuCam_Debug_") != nullptr && strstr(target, "ErrorInfo") == nullptr)
      faultBySegv();
  }
  return syscall(SYS_write, fd, buf, count);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s SCENARIO RESULT_FILE\n", argv[0]);
    return 2;
  }
  alarm(60);  // a hang ends as SIGALRM, which no scenario expects
  const std::string scenario = argv[1];
  const int fd = open(argv[2], O_RDWR | O_CREAT, 0644);
  if (fd < 0 || ftruncate(fd, sizeof(crashscenario::Result)) != 0) return 2;
  void* shared = mmap(nullptr, sizeof(crashscenario::Result), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (shared == MAP_FAILED) return 2;
  gResult = static_cast<crashscenario::Result*>(shared);
  memset(gResult, 0, sizeof(*gResult));

  auto* debug = debugLog();
  auto* binary = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Binary);
  if (debug->startOfflineLogger() != 0 || binary->startOfflineLogger() != 0) return 4;
  if (scenario == "recover") {
    debug->stopOfflineLogger();
    binary->stopOfflineLogger();
    return 0;
  }
#ifndef CS_SANITIZED
  // The counter counts: one allocation made as if inside the catcher.
  tInCatcher = true;
  void* counted = malloc(24);
  tInCatcher = false;
  gResult->counterWorks = gAllocationsInCatcher.exchange(0) == 1;
  free(counted);
#endif
  installAroundTheCatcher();
  for (int i = 0; i < 200; ++i) {
    char line[64];
    snprintf(line, sizeof(line), "line %d before the crash", i);
    logLine(line);
  }
  return run(scenario);
}
