// What a crash scenario program leaves for whoever started it (the crash catcher's
// table test and its benchmark): a small file the program maps shared and fills in
// from its signal handlers.
#pragma once

#include <signal.h>
#include <stdint.h>

namespace crashscenario {

struct Result {
  int32_t previousCalls;  // how often the handler installed before the catcher ran
  int32_t signo;          // what that handler was given, the first time
  int32_t code;
  int32_t senderPid;   // si_pid, for a signal sent by a process
  uint64_t addr;       // si_addr
  int64_t faultNs;     // CLOCK_MONOTONIC just before the fault
  int64_t handOverNs;  // CLOCK_MONOTONIC when the previous handler ran
  // Allocations by the faulting thread between the catcher's entry and the hand-over;
  // -1 when this build cannot count them (a sanitizer replaces malloc).
  int64_t allocationsInHandler;
  // Bytes of the stack the catcher ran on that it used; 0 when not measured.
  uint64_t stackUsed;
  uint64_t stackPainted;     // how much of it was painted to measure that
  int32_t onOwnSignalStack;  // the thread's own signal stack was the one used
  int32_t ready;             // the scenario got as far as its fault
  int32_t counterWorks;      // an allocation made on purpose was counted
};

// The scenarios, as the program takes them, with the signal each dies of.
struct Scenario {
  const char* name;
  int signal;
  int faultingThreads;
  bool racy;  // the outcome depends on timing: run it many times
  // A fault of glibc's own heap, or stacks of a few KiB: the sanitizers bring an
  // allocator and frames of their own, so these run in plain builds only.
  bool plainOnly;
};

inline constexpr Scenario kScenarios[] = {
    // glibc finds a chunk freed twice inside free(), with the heap's lock held.
    {"double-free", SIGABRT, 1, false, true},
    // An overflow into the top chunk's size, found by the next malloc.
    {"top-size", SIGABRT, 1, false, true},
    // Another thread holds the heap's lock: in malloc_stats() writing to a full pipe,
    // or stopped by a signal handler wherever it was in a malloc/free loop.
    {"heap-lock-stats", SIGSEGV, 1, false, true},
    {"heap-lock-signal", SIGSEGV, 1, true, true},
    {"overflow-main", SIGSEGV, 1, false, false},
    {"overflow-worker", SIGSEGV, 1, false, false},
    // A 16 KiB thread stack that never logged; a 16 KiB signal stack of the thread's own.
    {"small-thread-stack", SIGSEGV, 1, false, true},
    {"own-signal-stack", SIGSEGV, 1, false, true},
    {"fault-in-file-write", SIGSEGV, 1, false, false},
    {"logger-locks-held", SIGSEGV, 1, false, false},
    {"threads-together", SIGSEGV, 4, true, false},
    {"assert", SIGABRT, 1, false, false},
    {"segv", SIGSEGV, 1, false, false},
    {"abort", SIGABRT, 1, false, false},
    {"bus", SIGBUS, 1, false, false},
    {"fpe", SIGFPE, 1, false, false},
    {"ill", SIGILL, 1, false, false},
    {"sys", SIGSYS, 1, false, false},
    {"trap", SIGTRAP, 1, false, false},
};

}  // namespace crashscenario
