// The abort message the platform's own abort paths hand to the crash catcher, kept the
// same way on host and device builds.
#include <string.h>
#include <zudebug_platform/crash_support.h>

#include <atomic>

namespace zudebug {
namespace platform {

namespace {

char sOwnMessage[1024];
std::atomic<int> sOwnMessageState{0};  // 0 none, 1 being written, 2 set

}  // namespace

size_t copyCut(const char* text, size_t len, char* out, size_t size) {
  if (size == 0) return 0;
  const size_t n = len < size - 1 ? len : size - 1;
  memcpy(out, text, n);
  out[n] = '\0';
  return n;
}

void setAbortMessage(const char* message) {
  int expected = 0;
  if (message == nullptr || !sOwnMessageState.compare_exchange_strong(expected, 1)) return;
  copyCut(message, strnlen(message, sizeof(sOwnMessage) - 1), sOwnMessage, sizeof(sOwnMessage));
  sOwnMessageState.store(2, std::memory_order_release);
}

size_t ownAbortMessage(char* out, size_t size) {
  if (sOwnMessageState.load(std::memory_order_acquire) != 2) return 0;
  return copyCut(sOwnMessage, strnlen(sOwnMessage, sizeof(sOwnMessage)), out, size);
}

}  // namespace platform
}  // namespace zudebug
