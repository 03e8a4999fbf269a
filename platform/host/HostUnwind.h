// Unwinding and symbolisation behind the host CallStack. Private to platform/host.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

#pragma GCC visibility push(hidden)

namespace android {
namespace hostunwind {

// Deepest stack captured for one thread.
constexpr size_t kMaxFrames = 64;
// How long a dump waits for another thread to answer the unwind signal.
constexpr int kRemoteTimeoutMs = 1000;

struct Frame {
  uintptr_t pc;  // absolute address
  bool exact;    // pc is the interrupted instruction itself, not a return address
};

// Unwinds the calling thread. Frame 0 is the function that called captureCurrent;
// the `skip` innermost frames are dropped. Returns the number of frames stored.
size_t captureCurrent(size_t skip, Frame* out, size_t max);

enum class RemoteResult { Ok, NoThread, Blocked, NoHandler, TimedOut };

// Unwinds another thread of this process: it is sent a real-time signal whose
// handler unwinds from the interrupted instruction outwards. A thread that blocks
// the signal is not asked at all; one that does not answer within `timeoutMs`
// yields no frames.
RemoteResult captureThread(pid_t tid, size_t skip, Frame* out, size_t max, size_t* count, int timeoutMs);

// The signal used to interrupt another thread.
int remoteSignal();

// "#NN pc <module-relative pc, 16 hex digits>  <module> (<symbol>+<offset>)".
std::string formatFrame(size_t index, const Frame& frame);

// Thread name as the kernel knows it ("comm"), without its newline.
std::string threadName(pid_t tid);

}  // namespace hostunwind
}  // namespace android

#pragma GCC visibility pop
