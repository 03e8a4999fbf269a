// Preloaded into a test's child: the wall clock shifted by ZUDEBUG_CLOCK_SHIFT_S
// seconds (negative: back), as on a device that booted with a wrong clock. The
// monotonic clock is left alone.
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

namespace {

long shift() {
  static const long s = [] {
    const char* v = getenv("ZUDEBUG_CLOCK_SHIFT_S");
    return v != nullptr ? strtol(v, nullptr, 10) : 0L;
  }();
  return s;
}

using ClockGettime = int (*)(clockid_t, struct timespec*);

}  // namespace

extern "C" int clock_gettime(clockid_t id, struct timespec* ts) {
  static const auto next = reinterpret_cast<ClockGettime>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int r = next(id, ts);
  if (r == 0 && (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE)) ts->tv_sec += shift();
  return r;
}

extern "C" int gettimeofday(struct timeval* tv, void*) {
  struct timespec ts;
  const int r = clock_gettime(CLOCK_REALTIME, &ts);
  if (r == 0) {
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
  }
  return r;
}

extern "C" time_t time(time_t* out) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  if (out != nullptr) *out = ts.tv_sec;
  return ts.tv_sec;
}
