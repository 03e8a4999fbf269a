#include "ZuThreadIds.h"

#include "ZuCrashSignalStack.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace zudebug {

namespace {

// Thread ids are cached per thread; a forked child must not see its parent's.
std::atomic<uint32_t> sForkEpoch{1};
void onForkChild() { sForkEpoch.fetch_add(1, std::memory_order_relaxed); }
const int sAtForkRegistered = pthread_atfork(nullptr, nullptr, onForkChild);

struct TidCache {
  uint32_t tid;
  uint32_t epoch;
};
thread_local TidCache sTidCache = {0, 0};

}  // namespace

uint32_t zuCurrentTid() {
  const uint32_t epoch = sForkEpoch.load(std::memory_order_relaxed);
  TidCache& c = sTidCache;
  if (c.epoch != epoch) {
    c.tid = static_cast<uint32_t>(syscall(SYS_gettid));
    c.epoch = epoch;
    // First use on this thread (or after a fork): room for the crash catcher.
    PrepareCrashSignalStack();
  }
  return c.tid;
}

}  // namespace zudebug
