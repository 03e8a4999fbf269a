// Device side of the crash catcher's platform needs. Frames come from the frame
// records (x29) the platform's arm64 code keeps, walked from the signal context within
// the thread's stack; a frame's text names its module and, where the dynamic symbol
// table has one, its symbol; the abort message is the one liblog's aborter passes on.
#include <dlfcn.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>
#include <zudebug_platform/crash_support.h>

#include <android/log.h>

extern "C" void __android_log_set_aborter(void (*aborter)(const char* abort_message)) __attribute__((weak));
extern "C" void __android_log_call_aborter(const char* abort_message) __attribute__((weak));
extern "C" void __android_log_default_aborter(const char* abort_message) __attribute__((weak));

namespace zudebug {
namespace platform {

namespace {

// Two words of memory that may not be mapped, without faulting.
bool readPair(uintptr_t at, uintptr_t out[2]) {
  struct iovec local = {out, 2 * sizeof(uintptr_t)};
  struct iovec remote = {reinterpret_cast<void*>(at), 2 * sizeof(uintptr_t)};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(2 * sizeof(uintptr_t));
}

void keepAbortMessage(const char* message) {
  setAbortMessage(message);
  if (__android_log_default_aborter != nullptr) __android_log_default_aborter(message);
  abort();
}

}  // namespace

void prepareCrashUnwind() {
  if (__android_log_set_aborter != nullptr) __android_log_set_aborter(keepAbortMessage);
}

size_t unwindInterrupted(const void* context, const void* handlerReturn, CrashFrame* out, size_t max) {
  (void)handlerReturn;
  const auto* uc = static_cast<const ucontext_t*>(context);
  if (uc == nullptr || max == 0) return 0;
#if defined(__aarch64__)
  size_t n = 0;
  out[n++] = CrashFrame{static_cast<uintptr_t>(uc->uc_mcontext.pc), 0, true, false};
  uintptr_t fp = static_cast<uintptr_t>(uc->uc_mcontext.regs[29]);
  const uintptr_t lr = static_cast<uintptr_t>(uc->uc_mcontext.regs[30]);
  uintptr_t record[2];
  // A leaf that has not stored its frame record yet returns through lr.
  if (readPair(fp, record) && record[1] != lr && lr != 0 && n < max)
    out[n++] = CrashFrame{lr, 0, false, false};
  // Frame records lie ever higher on the stack; a record that does not is the end.
  while (n < max && fp != 0 && fp % 16 == 0 && readPair(fp, record)) {
    const uintptr_t pc = record[1] & 0x00ffffffffffffffull;  // without a pointer tag
    if (pc == 0) break;
    out[n++] = CrashFrame{pc, fp + 16, false, false};
    if (record[0] <= fp) break;
    fp = record[0];
  }
  return n;
#else
  (void)readPair;
  (void)out;
  return 0;
#endif
}

size_t describeFrame(size_t index, const CrashFrame& frame, char* out, size_t size) {
  const uintptr_t pc = frame.exact || frame.pc < 4 ? frame.pc : frame.pc - 4;
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(pc), &info) == 0 || info.dli_fname == nullptr) {
    const int n = snprintf(out, size, "#%02zu pc %016" PRIxPTR "  <unknown>", index, pc);
    return n < 0 ? 0 : static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
  }
  const uintptr_t rel = pc - reinterpret_cast<uintptr_t>(info.dli_fbase);
  int n;
  if (info.dli_sname != nullptr)
    n = snprintf(out, size, "#%02zu pc %016" PRIxPTR "  %s (%s+%" PRIuPTR ")", index, rel, info.dli_fname,
                 info.dli_sname, pc - reinterpret_cast<uintptr_t>(info.dli_saddr));
  else
    n = snprintf(out, size, "#%02zu pc %016" PRIxPTR "  %s", index, rel, info.dli_fname);
  return n < 0 ? 0 : static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

size_t abortMessage(char* out, size_t size) { return ownAbortMessage(out, size); }

}  // namespace platform
}  // namespace zudebug
