#include "ZuLogLine.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "ZuDebugDiag.h"
#include "ZuFormat.h"
#include "ZuThreadIds.h"

namespace zudebug {
namespace line {

namespace {

constexpr const char* kUnknown = "[UNKNOWN]";

struct GroupEntry {
  unsigned int bit;
  const char* label;
  const char* tag;
};

// Labels keep their inner blanks so that they line up in the log.
constexpr GroupEntry kGroups[] = {
    {1, "[AlgoFwk]", "ZuAlgoEngine"},   {2, "[Plugin]", "ZuAlgoEngine"}, {4, "[Meta]", "ZuAlgoEngine"},
    {8, "[Service]", "ZuCamService"},   {16, "[Debug]", "ZuCamDebug"},   {32, "[Core]", "ZuCamHAL"},
    {64, "[HAL ]", "ZuCamHAL"},         {128, "[RT  ]", "ZuCamHAL"},     {256, "[Algorithm]", "ZuAlgoEngine"},
    {512, "[CallStack]", kUnknown},     {1024, "[TBM ]", "ZuCamHAL"},    {2048, "[AlgoFwkRT]", kUnknown},
    {4096, "[OffCam]", "ZuAlgoEngine"}, {8192, "[Sdk ]", "EcoEngine"},   {16384, "[Perf]", "ZuCamPerf"},
    {32768, "[Perf]", "ZuAlgoPerf"},
};

// Exact-value lookup: a value with several bits set is unknown.
const GroupEntry* findGroup(unsigned int group) {
  if (group == 0 || (group & (group - 1)) != 0 || group > 32768) return nullptr;
  return &kGroups[__builtin_ctz(group)];
}

// Per thread: the local time of the current second and the thread's ids, already
// formatted, so that a line costs one clock read and no time-zone lookup.
struct StampCache {
  time_t second;
  bool dateValid;
  uint32_t dateLen;
  char date[32];  // "MM-DD hh:mm:ss:"
  uint32_t tid;   // ids below were formatted for this thread id
  uint32_t idsLen;
  char ids[48];  // "  <pid>  <tid> "
};
thread_local StampCache sStampCache = {};

inline const char* orEmpty(const char* s) { return s ? s : ""; }

}  // namespace

const char* groupLabel(unsigned int group) {
  const GroupEntry* e = findGroup(group);
  return e ? e->label : kUnknown;
}

const char* groupTag(unsigned int group) {
  const GroupEntry* e = findGroup(group);
  return e ? e->tag : kUnknown;
}

size_t formatStamp(char* buf, const char* level) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  StampCache& c = sStampCache;
  if (!c.dateValid || c.second != ts.tv_sec) {
    struct tm tm;
    c.second = ts.tv_sec;
    c.dateValid = localtime_r(&ts.tv_sec, &tm) != nullptr;
    if (c.dateValid) {
      int n = snprintf(c.date, sizeof(c.date), "%02d-%02d %02d:%02d:%02d:", tm.tm_mon + 1, tm.tm_mday,
                       tm.tm_hour, tm.tm_min, tm.tm_sec);
      c.dateValid = n > 0 && static_cast<size_t>(n) < sizeof(c.date);
      c.dateLen = c.dateValid ? static_cast<uint32_t>(n) : 0;
    }
    if (!c.dateValid) return 0;
  }
  const uint32_t tid = zuCurrentTid();
  if (c.tid != tid || c.idsLen == 0) {
    // A new thread id also follows a fork, where the process id changed too.
    int n = snprintf(c.ids, sizeof(c.ids), "  %4d  %4d ", static_cast<int>(getpid()), static_cast<int>(tid));
    c.idsLen = n > 0 ? static_cast<uint32_t>(n) : 0;
    c.tid = tid;
  }
  LineCursor out{buf, 0};
  out.put(c.date, c.dateLen);
  char nanos[9];
  long ns = ts.tv_nsec;
  for (int i = 8; i >= 0; --i) {
    nanos[i] = static_cast<char>('0' + ns % 10);
    ns /= 10;
  }
  out.put(nanos, sizeof(nanos));
  out.put(c.ids, c.idsLen);
  out.put(orEmpty(level));
  out.put(" ", 1);
  out.terminate();
  return out.pos < kLineSize - 1 ? out.pos : kLineSize - 1;
}

LineCursor groupOrigin(char* buf, size_t stampLen, const char* tag, const char* label) {
  LineCursor origin{buf, stampLen};
  origin.put(tag);
  origin.put(" ", 1);
  origin.put(label);
  origin.put(" ", 1);
  return origin;
}

void putCallSite(LineCursor& origin, const char* file, int line, const char* func) {
  origin.put(orEmpty(file));
  origin.put(":", 1);
  origin.putInt(line);
  origin.put(" ", 1);
  origin.put(orEmpty(func));
  origin.put("() ", 3);
  origin.terminate();
}

size_t finishLine(char* buf, size_t used, const char* fmt, va_list ap) {
  long r = 0;
  if (fmt != nullptr) {
    size_t room = used < kLineSize ? kLineSize - used : 0;
    // The common conversions by hand, byte for byte what vsnprintf writes.
    r = fmt::zuVFormat(room > 0 ? buf + used : nullptr, room, fmt, ap);
    if (r < 0) r = 0;
  }
  size_t n = used + static_cast<size_t>(r);
  if (n > static_cast<size_t>(kMaxLineText)) n = kMaxLineText;
  buf[n] = '\n';
  buf[n + 1] = '\0';
  return n;
}

}  // namespace line

size_t formatDiagnosticLine(char* buf, size_t size, const char* level, const char* file, const char* func,
                            int line, const char* fmt, ...) {
  if (buf == nullptr || size == 0) return 0;
  char tmp[line::kLineSize];
  const size_t p = line::formatStamp(tmp, level);
  line::LineCursor origin = line::groupOrigin(tmp, p, line::groupTag(16), line::groupLabel(16));
  line::putCallSite(origin, file, line, func);
  va_list ap;
  va_start(ap, fmt);
  const size_t n = line::finishLine(tmp, origin.pos, fmt, ap) + 1;
  va_end(ap);
  const size_t kept = n < size ? n : size - 1;
  memcpy(buf, tmp, kept);
  buf[kept] = '\0';
  return kept;
}

}  // namespace zudebug
