// Unwinding and symbolisation behind the host CallStack. Private to platform/host.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

#pragma GCC visibility push(hidden)

namespace android {
namespace hostunwind {

// Deepest stack captured for one thread, as the platform's unwinder.
constexpr size_t kMaxFrames = 256;
// How long a dump waits for another thread to answer the unwind signal (a thread
// that blocks it never does), as the platform's unwinder.
constexpr int kRemoteTimeoutMs = 5000;

struct Frame {
  uintptr_t pc;     // absolute address as unwound
  bool exact;       // pc is the interrupted instruction itself, not a return address
  bool trampoline;  // the signal return trampoline: the next frame was interrupted
  bool first;       // where the unwind started (the interrupted pc of another thread)
};

// The pc a frame is shown and symbolised at. A return address is taken back into its
// call instruction (one byte on x86, one instruction on arm64), as the platform does
// for every frame but the one the unwind started from and the signal trampoline; the
// frame a signal interrupted counts as a return address there too.
uintptr_t shownPc(const Frame& frame);

// Unwinds the calling thread. Frame 0 is captureCurrent itself, frame 1 its caller;
// the `skip` innermost frames are dropped. Returns the number of frames stored.
size_t captureCurrent(size_t skip, Frame* out, size_t max);

enum class RemoteResult { Ok, NoThread, NoHandler, TimedOut };

// Unwinds another thread of this process: it is sent a real-time signal whose
// handler unwinds from the interrupted instruction outwards. A thread that does not
// answer within `timeoutMs` (one that blocks the signal never does) yields no frames.
RemoteResult captureThread(pid_t tid, size_t skip, Frame* out, size_t max, size_t* count, int timeoutMs);

// The signal used to interrupt another thread.
int remoteSignal();

// "#NN pc <module-relative pc, 16 hex digits>  <module> (<symbol>+<offset>)", the
// module by its real path ("[vdso:<start>]", "<anonymous:<start>>" for memory that is
// no file, "<unknown>" outside every mapping).
std::string formatFrame(size_t index, const Frame& frame);

// Thread name as the kernel knows it ("comm"), without its newline.
std::string threadName(pid_t tid);

}  // namespace hostunwind
}  // namespace android

#pragma GCC visibility pop
