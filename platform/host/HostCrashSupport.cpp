// Host side of the crash catcher's platform needs: libgcc's unwinder for the frames
// (it finds unwind tables through glibc's lock-free _dl_find_object and keeps its
// state on the stack), the host call stack's own frame text, and glibc's abort message.
#include <dlfcn.h>
#include <string.h>
#include <unwind.h>
#include <zudebug_platform/crash_support.h>
#include <zudebug_platform/signal_context.h>

#include <atomic>

#include "HostUnwind.h"

namespace zudebug {
namespace platform {

namespace {

struct Collect {
  CrashFrame* out;
  size_t max;
  size_t count;
};

_Unwind_Reason_Code collect(struct _Unwind_Context* ctx, void* arg) {
  auto* st = static_cast<Collect*>(arg);
  int beforeInsn = 0;
  const uintptr_t pc = _Unwind_GetIPInfo(ctx, &beforeInsn);
  if (pc == 0) return _URC_END_OF_STACK;
  if (st->count >= st->max) return _URC_END_OF_STACK;
  st->out[st->count++] = CrashFrame{pc, static_cast<uintptr_t>(_Unwind_GetCFA(ctx)), beforeInsn != 0, false};
  return _URC_NO_REASON;
}

// glibc keeps the text of a failed assertion or a detected heap corruption here before
// it aborts: struct abort_msg_s { unsigned int size; char msg[]; }.
struct GlibcAbortMsg {
  unsigned int size;
  char msg[1];
};
GlibcAbortMsg** sGlibcAbortMsg = nullptr;

}  // namespace

void prepareCrashUnwind() {
  // The unwinder's one-time set-up (register size table, object lookup) runs here,
  // where it may take its locks, rather than in the first handler.
  CrashFrame warm[8];
  Collect st{warm, 8, 0};
  _Unwind_Backtrace(collect, &st);
  // The modules of the frames here (the program, this library, the C and C++ runtime)
  // have their symbols read now: the helper children that name a crash's frames start
  // from a copy of this process and need not read them again, each on its own.
  char line[512];
  for (size_t i = 0; i < st.count; ++i) describeFrame(i + 1, warm[i], line, sizeof(line));
  sGlibcAbortMsg = reinterpret_cast<GlibcAbortMsg**>(dlsym(RTLD_DEFAULT, "__abort_msg"));
}

__attribute__((noinline)) size_t unwindInterrupted(const void* context, const void* handlerReturn,
                                                   CrashFrame* out, size_t max) {
  Collect st{out, max, 0};
  _Unwind_Backtrace(collect, &st);
  asm volatile("" ::: "memory");  // keeps this frame: no tail call
  const size_t n = st.count;
  const uintptr_t pc = interruptedPc(context);
  size_t start = n;
  // The interrupted frame is the first exact one at the interrupted pc; the signal
  // trampoline is the frame before it.
  for (size_t i = 1; pc != 0 && i < n; ++i) {
    if (out[i].exact && out[i].pc == pc) {
      start = i - 1;
      out[start].trampoline = true;
      break;
    }
  }
  if (start == n) {
    // Everything outside the handler: from the frame it returns to.
    const uintptr_t back = reinterpret_cast<uintptr_t>(handlerReturn);
    start = n > 0 ? 1 : 0;
    for (size_t i = 0; i < n; ++i) {
      if (out[i].pc == back) {
        start = i;
        break;
      }
    }
  }
  size_t kept = 0;
  for (size_t i = start; i < n; ++i) out[kept++] = out[i];
  return kept;
}

size_t describeFrame(size_t index, const CrashFrame& frame, char* out, size_t size) {
  const android::hostunwind::Frame f{frame.pc, frame.exact, frame.trampoline, false};
  const std::string line = android::hostunwind::formatFrame(index, f);
  return copyCut(line.data(), line.size(), out, size);
}

size_t abortMessage(char* out, size_t size) {
  if (const size_t own = ownAbortMessage(out, size)) return own;
  if (sGlibcAbortMsg == nullptr) return 0;
  const GlibcAbortMsg* msg = __atomic_load_n(sGlibcAbortMsg, __ATOMIC_ACQUIRE);
  if (msg == nullptr || msg->size <= sizeof(unsigned int)) return 0;
  // The mapping holds the header and the text with its terminating NUL.
  const size_t room = msg->size - sizeof(unsigned int);
  size_t len = strnlen(msg->msg, room);
  while (len > 0 && msg->msg[len - 1] == '\n') --len;
  return copyCut(msg->msg, len, out, size);
}

}  // namespace platform
}  // namespace zudebug
