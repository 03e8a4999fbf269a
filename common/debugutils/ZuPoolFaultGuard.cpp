#include "ZuPoolFaultGuard.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "ZuDebugDiag.h"
#include "ZuDebugOfflineLogger.h"

namespace zudebug {
namespace pool {

namespace {

constexpr int kRanges = 8;

// Published by storing `base` last; read by the handler without locks.
struct GuardedRange {
  std::atomic<uintptr_t> base{0};
  std::atomic<uint64_t> bytes{0};
  std::atomic<uint64_t> headerBytes{0};
  std::atomic<uint64_t> chunkBytes{0};
  std::atomic<bool> cut{false};
};
GuardedRange sRanges[kRanges];
std::mutex sRangesLock;  // guardRange and unguardRange only
std::atomic<uintptr_t> sPageMask{0};

std::once_flag sInstallOnce;
struct sigaction sPrevious;  // written once, before the guard is installed

void passOn(int signal, siginfo_t* info, void* context) {
  if ((sPrevious.sa_flags & SA_SIGINFO) != 0) {
    if (sPrevious.sa_sigaction != nullptr) sPrevious.sa_sigaction(signal, info, context);
    return;
  }
  if (sPrevious.sa_handler == SIG_DFL || sPrevious.sa_handler == SIG_IGN) {
    // The fault happens again on return, now with the default action: the process
    // dies of it as it would have without the guard. One sent by kill() is sent again.
    struct sigaction dfl;
    memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    sigaction(signal, &dfl, nullptr);
    if (info == nullptr || info->si_code <= 0) raise(signal);
    return;
  }
  sPrevious.sa_handler(signal);
}

void guardHandler(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  if (!absorbQueueFileFault(signal, info)) passOn(signal, info, context);
  errno = savedErrno;
}

}  // namespace

int guardRange(uint8_t* base, uint64_t headerBytes, uint64_t chunkBytes, uint64_t bytes) {
  sPageMask.store(~static_cast<uintptr_t>(sysconf(_SC_PAGESIZE) - 1), std::memory_order_relaxed);
  std::lock_guard<std::mutex> lock(sRangesLock);
  for (int i = 0; i < kRanges; ++i) {
    GuardedRange& r = sRanges[i];
    if (r.base.load(std::memory_order_relaxed) != 0) continue;
    r.headerBytes.store(headerBytes, std::memory_order_relaxed);
    r.chunkBytes.store(chunkBytes, std::memory_order_relaxed);
    r.bytes.store(bytes, std::memory_order_relaxed);
    r.cut.store(false, std::memory_order_relaxed);
    r.base.store(reinterpret_cast<uintptr_t>(base), std::memory_order_release);
    return i;
  }
  ZU_DBG_LOGE("OfflineLogger more than %d queue files mapped: a fault in this one is not repaired", kRanges);
  return -1;
}

void resizeGuardedRange(int handle, uint64_t bytes) {
  if (handle >= 0 && handle < kRanges) sRanges[handle].bytes.store(bytes, std::memory_order_release);
}

void unguardRange(int handle) {
  if (handle < 0 || handle >= kRanges) return;
  std::lock_guard<std::mutex> lock(sRangesLock);
  sRanges[handle].base.store(0, std::memory_order_release);
}

bool takeCutMark(int handle) {
  return handle >= 0 && handle < kRanges && sRanges[handle].cut.exchange(false, std::memory_order_acq_rel);
}

void installFaultGuard() {
  std::call_once(sInstallOnce, [] {
    struct sigaction current;
    memset(&current, 0, sizeof(current));
    if (sigaction(SIGBUS, nullptr, &current) != 0) return;
    // The crash catcher repairs these faults itself before anything else.
    if ((current.sa_flags & SA_SIGINFO) != 0 && current.sa_sigaction == SignalCatcher) return;
    sPrevious = current;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    action.sa_sigaction = guardHandler;
    if (sigaction(SIGBUS, &action, nullptr) != 0)
      ZU_DBG_LOGE("OfflineLogger cannot guard its queue files against SIGBUS: %s", strerror(errno));
  });
}

bool isFaultGuard(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == guardHandler;
}

const struct sigaction& faultGuardPrevious() { return sPrevious; }

bool absorbQueueFileFault(int signal, const siginfo_t* info) {
  if (signal != SIGBUS || info == nullptr || info->si_code <= 0) return false;
  const uintptr_t addr = reinterpret_cast<uintptr_t>(info->si_addr);
  for (GuardedRange& r : sRanges) {
    const uintptr_t base = r.base.load(std::memory_order_acquire);
    const uint64_t bytes = r.bytes.load(std::memory_order_acquire);
    if (base == 0 || addr < base || addr - base >= bytes) continue;
    const uint64_t off = addr - base;
    const uint64_t header = r.headerBytes.load(std::memory_order_relaxed);
    const uint64_t chunk = r.chunkBytes.load(std::memory_order_relaxed);
    uint64_t end = off < header ? header : header + ((off - header) / chunk + 1) * chunk;
    if (end > bytes) end = bytes;
    const uintptr_t page = addr & sPageMask.load(std::memory_order_relaxed);
    void* m = mmap(reinterpret_cast<void*>(page), base + end - page, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (m == MAP_FAILED) return false;
    r.cut.store(true, std::memory_order_release);
    return true;
  }
  return false;
}

}  // namespace pool
}  // namespace zudebug
