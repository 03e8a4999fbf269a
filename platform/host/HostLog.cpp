// Host liblog: records go to the file named by ZUDEBUG_LOGCAT, or to stderr.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zudebug_platform/crash_support.h>

#include "log/log.h"

namespace {

constexpr size_t kMaxRecord = 4096;

int logFd() {
  static const int fd = [] {
    const char* path = getenv("ZUDEBUG_LOGCAT");
    if (path == nullptr || path[0] == '\0') return STDERR_FILENO;
    int f = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return f >= 0 ? f : STDERR_FILENO;
  }();
  return fd;
}

char priorityLetter(int prio) {
  static const char kLetters[] = "??VDIWEF";
  return (prio >= 0 && prio <= ANDROID_LOG_FATAL) ? kLetters[prio] : '?';
}

// One record, one write(): records of concurrent threads never interleave.
void writeRecord(int prio, const char* tag, const char* text) {
  char rec[kMaxRecord];
  int head = snprintf(rec, sizeof(rec), "%c/%s: ", priorityLetter(prio), tag ? tag : "");
  if (head < 0) return;
  size_t pos = static_cast<size_t>(head) < sizeof(rec) ? static_cast<size_t>(head) : sizeof(rec) - 1;
  size_t len = text ? strlen(text) : 0;
  if (len > 0 && text[len - 1] == '\n') --len;
  if (len > sizeof(rec) - 1 - pos) len = sizeof(rec) - 1 - pos;
  if (len > 0) memcpy(rec + pos, text, len);
  pos += len;
  rec[pos++] = '\n';
  const char* p = rec;
  while (pos > 0) {
    ssize_t w = write(logFd(), p, pos);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return;
    p += w;
    pos -= static_cast<size_t>(w);
  }
}

}  // namespace

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  writeRecord(prio, tag, text);
  return 1;
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
  char buf[kMaxRecord];
  vsnprintf(buf, sizeof(buf), fmt, ap);
  writeRecord(prio, tag, buf);
  return 1;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = __android_log_vprint(prio, tag, fmt, ap);
  va_end(ap);
  return r;
}

extern "C" void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...) {
  char buf[kMaxRecord];
  if (fmt != nullptr) {
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
  } else {
    snprintf(buf, sizeof(buf), "Assertion failed: %s", cond ? cond : "");
  }
  writeRecord(ANDROID_LOG_FATAL, tag, buf);
  // Kept for crash records, as the platform keeps it for its tombstones.
  zudebug::platform::setAbortMessage(buf);
  abort();
}
