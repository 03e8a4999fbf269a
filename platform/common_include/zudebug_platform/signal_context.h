// What a signal handler reads from the context the kernel hands it (SA_SIGINFO), for
// the library's crash catcher and the host call stack alike.
#pragma once

#include <stdint.h>
#include <ucontext.h>

namespace zudebug {
namespace platform {

// The pc the signal interrupted; 0 when there is no context (a handler called
// directly) or on an architecture not listed here.
inline uintptr_t interruptedPc(const void* context) {
  const auto* uc = static_cast<const ucontext_t*>(context);
  if (uc == nullptr) return 0;
#if defined(__x86_64__)
  return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
  return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_EIP]);
#elif defined(__aarch64__)
  return static_cast<uintptr_t>(uc->uc_mcontext.pc);
#elif defined(__arm__)
  return static_cast<uintptr_t>(uc->uc_mcontext.arm_pc);
#else
  return 0;
#endif
}

}  // namespace platform
}  // namespace zudebug
