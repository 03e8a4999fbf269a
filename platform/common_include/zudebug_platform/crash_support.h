// What the crash catcher needs of the platform beyond POSIX: the interrupted thread's
// frames gathered without the allocator, the platform's own text for a frame, and the
// abort message the C library or the platform keeps.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zudebug {
namespace platform {

struct CrashFrame {
  uintptr_t pc;     // absolute address as unwound
  uintptr_t cfa;    // the frame's canonical frame address, 0 when unknown
  bool exact;       // pc is the interrupted instruction itself, not a return address
  bool trampoline;  // the signal return trampoline: the frame after it was interrupted
};

// Deepest stack gathered for one thread.
constexpr size_t kMaxCrashFrames = 256;

// Makes the unwinder ready, outside any signal handler: its one-time set-up may take
// locks and allocate. Called when the catcher is installed.
void prepareCrashUnwind();

// Called inside the handler of the signal that delivered `context`, on any stack: the
// frames from the signal return trampoline outwards (the trampoline, the interrupted
// frame, its callers), innermost first. Where the interrupted frame cannot be found
// on this stack (a sanitizer may run handlers later, from its own code; a handler may
// be called directly), the frames from `handlerReturn` on (the handler's
// __builtin_return_address(0)). Allocates nothing, takes no lock.
size_t unwindInterrupted(const void* context, const void* handlerReturn, CrashFrame* out, size_t max);

// The platform's call-stack line for a frame, "#NN pc <16 hex digits>  <module>
// (<symbol>+<offset>)", without a line end. Allocates: only for a process that may
// (the catcher's helper child), never in a signal handler. Returns the length.
size_t describeFrame(size_t index, const CrashFrame& frame, char* out, size_t size);

// The abort message of this process, if one was set (an assertion's text, the message
// of a platform abort), copied into `out` and cut to fit. Async-signal-safe. Returns
// the length, 0 when there is none.
size_t abortMessage(char* out, size_t size);

// Records `message` as the abort message, for platform aborts that do not keep one
// where abortMessage() looks. Async-signal-safe; the first message is kept.
void setAbortMessage(const char* message);
// The message setAbortMessage() kept, as abortMessage() gives it; 0 when none.
size_t ownAbortMessage(char* out, size_t size);
// `len` bytes of `text` into `out` with a terminating NUL, cut to fit; the length.
size_t copyCut(const char* text, size_t len, char* out, size_t size);

}  // namespace platform
}  // namespace zudebug
