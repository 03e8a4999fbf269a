// Faults on a mapped queue file (internal, not installed).
//
// A queue file cut short under the process (truncated by hand, by a tool of the same
// user) turns every touch of a page past its new end into SIGBUS. The pool registers
// the address ranges it maps from its files; a SIGBUS inside one replaces the pages
// from the faulting one to the end of its chunk with zeroed process memory, marks the
// range cut, and lets the faulting thread go on. The logger's flush then accounts
// for what was lost and keeps those queues in process memory.
#pragma once

#include <signal.h>
#include <stddef.h>
#include <stdint.h>

namespace zudebug {
namespace pool {

// A mapped range [base, base + bytes) laid out as the header area followed by chunks:
// a fault is repaired up to the end of the piece it falls in. Returns a handle for
// the calls below, or -1 when every place is taken (the range is then unguarded).
int guardRange(uint8_t* base, uint64_t headerBytes, uint64_t chunkBytes, uint64_t bytes);
// The range grew or shrank (chunks were added).
void resizeGuardedRange(int handle, uint64_t bytes);
void unguardRange(int handle);
// Whether a fault was repaired in the range since the last call; clears the mark.
bool takeCutMark(int handle);

// Installs the process's SIGBUS guard once (it passes every fault it does not repair
// on to the action that was there before).
void installFaultGuard();
// Whether `action` is the guard, and what the guard passes faults on to: a handler
// installed over the guard that repairs faults itself takes the guard's place.
bool isFaultGuard(const struct sigaction& action);
const struct sigaction& faultGuardPrevious();
// For a handler that comes before the guard (the crash catcher): true when `info`
// was a fault on a guarded range and is repaired, so the handler just returns.
// Async-signal-safe.
bool absorbQueueFileFault(int signal, const siginfo_t* info);

}  // namespace pool
}  // namespace zudebug
