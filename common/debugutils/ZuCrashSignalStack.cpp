// Alternate signal stacks for the crash catcher, one per thread that uses the library.
#include "ZuCrashSignalStack.h"

#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zudebug {

namespace {

// Room for the catcher on every thread that uses the library, also when the thread's
// own stack has overflowed: the catcher itself needs under 8 KiB, what it hands the
// signal on to (the platform's dumper, a sanitizer) more. Sanitizer builds need more.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kAltStackBytes = 512 * 1024;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr size_t kAltStackBytes = 512 * 1024;
#else
constexpr size_t kAltStackBytes = 64 * 1024;
#endif
#else
constexpr size_t kAltStackBytes = 64 * 1024;
#endif

struct AltStackLayout {
  size_t page;
  size_t usable;
};

AltStackLayout altStackLayout() {
  static const AltStackLayout layout = [] {
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t usable = kAltStackBytes;
#ifdef _SC_SIGSTKSZ
    const long platformMin = sysconf(_SC_SIGSTKSZ);
    if (platformMin > 0 && static_cast<size_t>(platformMin) > usable)
      usable = static_cast<size_t>(platformMin);
#endif
    usable = (usable + page - 1) / page * page;
    return AltStackLayout{page, usable};
  }();
  return layout;
}

// At thread exit: the stack is turned off before it is unmapped.
void releaseAltStack(void* base) {
  const AltStackLayout layout = altStackLayout();
  char* usable = static_cast<char*>(base) + layout.page;
  stack_t current;
  if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == usable) {
    stack_t off;
    memset(&off, 0, sizeof(off));
    off.ss_flags = SS_DISABLE;
    sigaltstack(&off, nullptr);
  }
  munmap(base, layout.page + layout.usable);
}

pthread_key_t makeAltStackKey() {
  pthread_key_t key;
  return pthread_key_create(&key, releaseAltStack) == 0 ? key : static_cast<pthread_key_t>(-1);
}

}  // namespace

void PrepareCrashSignalStack() {
  static const pthread_key_t key = makeAltStackKey();
  stack_t current;
  if (key == static_cast<pthread_key_t>(-1) || sigaltstack(nullptr, &current) != 0) return;
  // A thread that has one keeps it (also ours, inherited by a forked child).
  if ((current.ss_flags & SS_DISABLE) == 0) return;
  const AltStackLayout layout = altStackLayout();
  void* base = mmap(nullptr, layout.page + layout.usable, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return;
  // A guard page below it: a catcher that runs out of room dies at once.
  mprotect(base, layout.page, PROT_NONE);
  stack_t ss;
  memset(&ss, 0, sizeof(ss));
  ss.ss_sp = static_cast<char*>(base) + layout.page;
  ss.ss_size = layout.usable;
  if (sigaltstack(&ss, nullptr) != 0 || pthread_setspecific(key, base) != 0) {
    releaseAltStack(base);
    return;
  }
}

}  // namespace zudebug
