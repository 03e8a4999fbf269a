#include "ZuLogLine.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "ZuDebugDiag.h"
#include "ZuFormat.h"
#include "ZuThreadIds.h"

#include <pthread.h>
#include <stdlib.h>

namespace zudebug {

__thread ThreadRecord tZuThreadRecord;

namespace line {

namespace {

constexpr const char* kUnknown = "[UNKNOWN]";
constexpr int kDateLen = 15;  // "MM-DD hh:mm:ss:"

constexpr uint8_t lengthOf(const char* s) {
  uint8_t n = 0;
  while (s[n] != '\0') ++n;
  return n;
}

struct GroupEntry {
  unsigned int bit;
  const char* label;
  const char* tag;
  uint8_t labelLen;
  uint8_t tagLen;
};

#define ZU_GROUP(bit, label, tag) \
  { bit, label, tag, lengthOf(label), lengthOf(tag) }
// Labels keep their inner blanks so that they line up in the log.
constexpr GroupEntry kGroups[] = {
    ZU_GROUP(1, "[AlgoFwk]", "ZuAlgoEngine"),     ZU_GROUP(2, "[Plugin]", "ZuAlgoEngine"),
    ZU_GROUP(4, "[Meta]", "ZuAlgoEngine"),        ZU_GROUP(8, "[Service]", "ZuCamService"),
    ZU_GROUP(16, "[Debug]", "ZuCamDebug"),        ZU_GROUP(32, "[Core]", "ZuCamHAL"),
    ZU_GROUP(64, "[HAL ]", "ZuCamHAL"),           ZU_GROUP(128, "[RT  ]", "ZuCamHAL"),
    ZU_GROUP(256, "[Algorithm]", "ZuAlgoEngine"), ZU_GROUP(512, "[CallStack]", kUnknown),
    ZU_GROUP(1024, "[TBM ]", "ZuCamHAL"),         ZU_GROUP(2048, "[AlgoFwkRT]", kUnknown),
    ZU_GROUP(4096, "[OffCam]", "ZuAlgoEngine"),   ZU_GROUP(8192, "[Sdk ]", "EcoEngine"),
    ZU_GROUP(16384, "[Perf]", "ZuCamPerf"),       ZU_GROUP(32768, "[Perf]", "ZuAlgoPerf"),
};
#undef ZU_GROUP
constexpr GroupEntry kUnknownGroup = {0, kUnknown, kUnknown, lengthOf(kUnknown), lengthOf(kUnknown)};

// Exact-value lookup: a value with several bits set is unknown.
const GroupEntry* findGroup(unsigned int group) {
  if (group == 0 || (group & (group - 1)) != 0 || group > 32768) return nullptr;
  return &kGroups[__builtin_ctz(group)];
}

inline const char* orEmpty(const char* s) { return s ? s : ""; }

// ---- the per-thread parts of the line ----

// In a forked child the one thread left has new ids.
void forgetIdsInChild() { tZuThreadRecord.tid = 0; }
const int sAtForkRegistered = pthread_atfork(nullptr, nullptr, forgetIdsInChild);

void adoptThread(ThreadRecord& t) {
  t.tid = zuCurrentTid();
  const int n =
      snprintf(t.ids, sizeof(t.ids), "  %4d  %4d ", static_cast<int>(getpid()), static_cast<int>(t.tid));
  t.idsLen = n > 0 && static_cast<size_t>(n) < sizeof(t.ids) ? static_cast<uint32_t>(n) : 0;
}

std::atomic<long> sStampOffset{kUnknownOffset};

// "MM-DD hh:mm:ss:" of the second; false when the local-time conversion fails.
bool refreshDate(ThreadRecord& t, time_t second) {
  struct tm tm;
  t.second = second;
  t.dateValid = false;
  if (localtime_r(&second, &tm) == nullptr) return false;
  if (sStampOffset.load(std::memory_order_relaxed) != tm.tm_gmtoff)
    sStampOffset.store(tm.tm_gmtoff, std::memory_order_relaxed);
  char date[32];
  const int n = snprintf(date, sizeof(date), "%02d-%02d %02d:%02d:%02d:", tm.tm_mon + 1, tm.tm_mday,
                         tm.tm_hour, tm.tm_min, tm.tm_sec);
  // Fields out of their usual range would make it longer; such a line has no stamp.
  if (n != kDateLen) return false;
  memcpy(t.date, date, kDateLen);
  t.dateValid = true;
  return true;
}

// The recent call sites of one thread, direct-mapped: each entry holds
// "  <pid>  <tid> <level> <tag> <label> [<file>:<line> <func>() ]" and what it was
// made from. A hit is checked against the texts themselves, not only their
// addresses, so that a caller who passes the same buffer with new text gets it.
constexpr size_t kSiteEntries = 32;
constexpr size_t kSiteText = 176;
struct SiteEntry {
  const char* level;
  const char* file;  // null: the line names no site
  const char* func;
  unsigned int group;
  int line;
  uint32_t tid;  // the ids in the text are of this thread id; 0: empty entry
  uint16_t len;
  uint16_t originAt;  // where the tag starts
  uint16_t fileAt;
  uint16_t funcAt;
  uint8_t levelLen;
  uint8_t fileLen;
  uint8_t funcLen;
  char text[kSiteText];
};

}  // namespace

long stampUtcOffset() { return sStampOffset.load(std::memory_order_relaxed); }

struct SiteCache {
  SiteEntry entries[kSiteEntries];
};

namespace {

pthread_key_t makeSiteCacheKey() {
  pthread_key_t key;
  auto release = [](void* cache) {
    free(cache);
    tZuThreadRecord.sites = nullptr;
  };
  return pthread_key_create(&key, release) == 0 ? key : static_cast<pthread_key_t>(-1);
}

// The thread's cache, made at its first line and freed when it ends; null when there
// is none to be had (lines are then built in full).
SiteCache* siteCache(ThreadRecord& t) {
  if (t.sites != nullptr) return t.sites;
  static const pthread_key_t key = makeSiteCacheKey();
  if (key == static_cast<pthread_key_t>(-1)) return nullptr;
  auto* cache = static_cast<SiteCache*>(calloc(1, sizeof(SiteCache)));
  if (cache == nullptr) return nullptr;
  if (pthread_setspecific(key, cache) != 0) {
    free(cache);
    return nullptr;
  }
  t.sites = cache;
  return cache;
}

inline unsigned siteSlot(const char* level, unsigned int group, const Site* site) {
  uintptr_t h = reinterpret_cast<uintptr_t>(level) * 31u + group;
  if (site != nullptr) {
    h = h * 31u + reinterpret_cast<uintptr_t>(site->file);
    h = h * 31u + reinterpret_cast<uintptr_t>(site->func);
    h = h * 31u + static_cast<unsigned int>(site->line);
  }
  h ^= h >> 17;
  h *= 0x9e3779b1u;
  return static_cast<unsigned>((h >> 7) % kSiteEntries);
}

// `s` is exactly the n kept bytes at `kept`.
inline bool sameText(const char* s, const char* kept, size_t n) {
  return strncmp(s, kept, n) == 0 && s[n] == '\0';
}

bool entryFits(const SiteEntry& e, const ThreadRecord& t, const char* level, unsigned int group,
               const Site* site) {
  if (e.tid != t.tid || e.level != level || e.group != group) return false;
  if (!sameText(orEmpty(level), e.text + t.idsLen, e.levelLen)) return false;
  if (site == nullptr) return e.file == nullptr;
  return e.file == site->file && e.func == site->func && e.line == site->line &&
         sameText(orEmpty(site->file), e.text + e.fileAt, e.fileLen) &&
         sameText(orEmpty(site->func), e.text + e.funcAt, e.funcLen);
}

// Where the parts of an origin start, and how long the caller's texts in it are.
struct OriginParts {
  size_t levelLen = 0;
  size_t originAt = 0;  // the tag
  size_t fileAt = 0;
  size_t fileLen = 0;
  size_t funcAt = 0;
  size_t funcLen = 0;
};

// "<tag> <label> [<file>:<line> <func>() ]" behind what `out` holds.
void putOrigin(LineCursor& out, unsigned int group, const Site* site, OriginParts* parts) {
  const GroupEntry* g = findGroup(group);
  if (g == nullptr) g = &kUnknownGroup;
  parts->originAt = out.pos;
  out.put(g->tag, g->tagLen);
  out.put(" ", 1);
  out.put(g->label, g->labelLen);
  out.put(" ", 1);
  if (site == nullptr) return;
  parts->fileAt = out.pos;
  out.put(orEmpty(site->file));
  parts->fileLen = out.pos - parts->fileAt;
  out.put(":", 1);
  out.putInt(site->line);
  out.put(" ", 1);
  parts->funcAt = out.pos;
  out.put(orEmpty(site->func));
  parts->funcLen = out.pos - parts->funcAt;
  out.put("() ", 3);
}

// "  <pid>  <tid> <level> " and the origin behind what `out` holds.
void putThreadOrigin(LineCursor& out, const ThreadRecord& t, const char* level, unsigned int group,
                     const Site* site, OriginParts* parts) {
  out.put(t.ids, t.idsLen);
  const size_t levelAt = out.pos;
  out.put(orEmpty(level));
  parts->levelLen = out.pos - levelAt;
  out.put(" ", 1);
  putOrigin(out, group, site, parts);
}

// Fills `e` for the site; false when the text does not fit an entry.
bool fillEntry(SiteEntry& e, const ThreadRecord& t, const char* level, unsigned int group, const Site* site) {
  char text[kLineSize];
  LineCursor out{text, 0};
  OriginParts parts;
  putThreadOrigin(out, t, level, group, site, &parts);
  if (out.pos > kSiteText || parts.levelLen > 255 || parts.fileLen > 255 || parts.funcLen > 255) return false;
  memcpy(e.text, text, out.pos);
  e.len = static_cast<uint16_t>(out.pos);
  e.originAt = static_cast<uint16_t>(parts.originAt);
  e.fileAt = static_cast<uint16_t>(parts.fileAt);
  e.funcAt = static_cast<uint16_t>(parts.funcAt);
  e.levelLen = static_cast<uint8_t>(parts.levelLen);
  e.fileLen = static_cast<uint8_t>(parts.fileLen);
  e.funcLen = static_cast<uint8_t>(parts.funcLen);
  e.level = level;
  e.file = site ? site->file : nullptr;
  e.func = site ? site->func : nullptr;
  e.line = site ? site->line : 0;
  e.group = group;
  e.tid = t.tid;
  return true;
}

}  // namespace

const char* groupLabel(unsigned int group) {
  const GroupEntry* e = findGroup(group);
  return e ? e->label : kUnknown;
}

const char* groupTag(unsigned int group) {
  const GroupEntry* e = findGroup(group);
  return e ? e->tag : kUnknown;
}

size_t beginLine(ThreadRecord& t, char* buf, const char* level, unsigned int group, const Site* site,
                 size_t* stampLen) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  if (t.tid == 0) adoptThread(t);
  if ((!t.dateValid || t.second != ts.tv_sec) && !refreshDate(t, ts.tv_sec)) {
    // No stamp: the line starts with its origin.
    LineCursor out{buf, 0};
    OriginParts parts;
    putOrigin(out, group, site, &parts);
    *stampLen = 0;
    return out.pos;
  }
  memcpy(buf, t.date, kDateLen);
  fmt::putNineDigits(buf + kDateLen, static_cast<unsigned int>(ts.tv_nsec));
  constexpr size_t kTimeLen = kDateLen + 9;
  if (SiteCache* cache = siteCache(t)) {
    SiteEntry& e = cache->entries[siteSlot(level, group, site)];
    if (entryFits(e, t, level, group, site) || fillEntry(e, t, level, group, site)) {
      memcpy(buf + kTimeLen, e.text, e.len);
      *stampLen = kTimeLen + e.originAt;
      return kTimeLen + e.len;
    }
  }
  // Too long for the cache (or none to be had): in full.
  LineCursor out{buf, kTimeLen};
  OriginParts parts;
  putThreadOrigin(out, t, level, group, site, &parts);
  *stampLen = parts.originAt < kLineSize - 1 ? parts.originAt : kLineSize - 1;
  return out.pos;
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
  const line::Site site = {file, func, line};
  size_t stampLen;
  const size_t used = line::beginLine(threadRecord(), tmp, level, 16, &site, &stampLen);
  va_list ap;
  va_start(ap, fmt);
  const size_t n = line::finishLine(tmp, used, fmt, ap) + 1;
  va_end(ap);
  const size_t kept = n < size ? n : size - 1;
  memcpy(buf, tmp, kept);
  buf[kept] = '\0';
  return kept;
}

}  // namespace zudebug
