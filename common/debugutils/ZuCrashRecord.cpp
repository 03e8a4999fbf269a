#include "ZuCrashRecord.h"

#include "ZuLogFileOrder.h"
#include "ZuLogLine.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zudebug_platform/fs.h>

#include <atomic>

namespace zudebug {
namespace crash {

namespace {

std::atomic<long> sLocalOffset{0};  // seconds east of UTC
bool sNilIsWord = true;             // "%p" of null prints "(nil)"

}  // namespace

Text& Text::str(const char* s) { return str(s, s != nullptr ? strlen(s) : 0); }

Text& Text::str(const char* s, size_t n) {
  if (mLen + n > mCap) {
    n = mCap - mLen;
    mCut = true;
  }
  memcpy(mBuf + mLen, s, n);
  mLen += n;
  return *this;
}

Text& Text::dec(long long v, int width, char pad) {
  char digits[24];
  int n = 0;
  const bool negative = v < 0;
  unsigned long long u =
      negative ? 0ull - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
  do {
    digits[n++] = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u != 0);
  if (negative) digits[n++] = '-';
  for (int i = n; i < width; ++i) ch(pad);
  while (n > 0) ch(digits[--n]);
  return *this;
}

Text& Text::hex(unsigned long long v, int width) {
  char digits[16];
  int n = 0;
  do {
    digits[n++] = "0123456789abcdef"[v & 15];
    v >>= 4;
  } while (v != 0);
  for (int i = n; i < width; ++i) ch('0');
  while (n > 0) ch(digits[--n]);
  return *this;
}

Text& Text::ptr(uintptr_t v) {
  if (v == 0 && sNilIsWord) return str("(nil)");
  return str("0x").hex(v);
}

void notePointerStyle() {
  char buf[16];
  snprintf(buf, sizeof(buf), "%p", static_cast<void*>(nullptr));
  sNilIsWord = strcmp(buf, "(nil)") == 0;
}

void refreshLocalTimeOffset() {
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) sLocalOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
}

CivilTime localTime(time_t t) {
  // The offset the log lines were stamped with, so that the record sorts among them;
  // the one of the catcher's registration before any line.
  long offset = line::stampUtcOffset();
  if (offset == line::kUnknownOffset) offset = sLocalOffset.load(std::memory_order_relaxed);
  const long long s = static_cast<long long>(t) + offset;
  long long days = s / 86400;
  long long rest = s % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  // Days since 1970-01-01 to a civil date (proleptic Gregorian calendar).
  const long long z = days + 719468;
  const long long era = (z >= 0 ? z : z - 146096) / 146097;
  const long long doe = z - era * 146097;
  const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const long long mp = (5 * doy + 2) / 153;
  const long long day = doy - (153 * mp + 2) / 5 + 1;
  const long long month = mp < 10 ? mp + 3 : mp - 9;
  const long long year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  return CivilTime{
      static_cast<int>(year),        static_cast<int>(month),          static_cast<int>(day),
      static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60)};
}

size_t formatStamp(char* out, size_t size, int pid, int tid) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const CivilTime c = localTime(now.tv_sec);
  Text t(out, size);
  t.dec(c.month, 2, '0').ch('-').dec(c.day, 2, '0').ch(' ');
  t.dec(c.hour, 2, '0').ch(':').dec(c.minute, 2, '0').ch(':').dec(c.second, 2, '0').ch(':');
  // The sub-second part is the nanosecond count, with at least six digits.
  t.dec(now.tv_nsec, 6, '0').str("  ").dec(pid, 4).str("  ").dec(tid, 4);
  return t.size();
}

void RecordWriter::begin(uint8_t* data, uint32_t cap, void (*publish)(void*, uint32_t), void* ctx, int pid,
                         int tid) {
  mData = data;
  mCap = cap;
  mUsed = 0;
  mPublish = publish;
  mCtx = ctx;
  mPid = pid;
  mTid = tid;
  mStampLen = formatStamp(mStamp, sizeof(mStamp), pid, tid);
}

void RecordWriter::restamp() {
  char next[sizeof(mStamp)];
  const size_t n = formatStamp(next, sizeof(next), mPid, mTid);
  if (n == mStampLen && memcmp(next, mStamp, n) == 0) {
    // Readers tell the header's lines by their stamp: the next one must differ. The
    // nanoseconds end at the first blank.
    char* end = static_cast<char*>(memchr(next, ' ', n));
    end = end != nullptr ? static_cast<char*>(memchr(end + 1, ' ', next + n - end - 1)) : nullptr;
    if (end != nullptr && end[-1] != '9') ++end[-1];
  }
  memcpy(mStamp, next, n);
  mStampLen = n;
}

bool RecordWriter::line(const char* text, size_t len) {
  static const char kMark[] = " F DEBUG   : ";
  const size_t need = mStampLen + sizeof(kMark) - 1 + len + 1;
  if (mData == nullptr || need > mCap - mUsed) return false;
  uint8_t* p = mData + mUsed;
  memcpy(p, mStamp, mStampLen);
  p += mStampLen;
  memcpy(p, kMark, sizeof(kMark) - 1);
  p += sizeof(kMark) - 1;
  memcpy(p, text, len);
  p[len] = '\n';
  mUsed += static_cast<uint32_t>(need);
  if (mPublish != nullptr) mPublish(mCtx, mUsed);
  return true;
}

namespace {
char sStraightDir[PLATFORM_PATH_MAX];
}  // namespace

void prepareStraightFiles(const char* deviceDir) {
  const char* resolved = platform_resolve_path(deviceDir, sStraightDir, sizeof(sStraightDir));
  if (resolved != sStraightDir) snprintf(sStraightDir, sizeof(sStraightDir), "%s", resolved);
}

bool writeStraight(const char* typeName, const uint8_t* data, uint32_t len) {
  if (sStraightDir[0] == '\0' || len == 0) return false;
  char name[PLATFORM_PATH_MAX + 64];
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const CivilTime c = localTime(now.tv_sec);
  Text t(name, sizeof(name) - 1);
  t.str(sStraightDir).str("/ZuCam_").str(typeName).ch('_');
  t.dec(c.year, 2).ch('-').dec(c.month, 2, '0').ch('-').dec(c.day, 2, '0').str("--");
  t.dec(c.hour, 2, '0').ch('-').dec(c.minute, 2, '0').ch('-').dec(c.second, 2, '0').ch('-');
  t.dec(now.tv_nsec / 1000, 3, '0').str(".txt");
  if (t.cut()) return false;
  name[t.size()] = '\0';
  // A name of its own: nothing there yet, and never through a link.
  const int fd = open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  fchmod(fd, 0666);
  bool ok = true;
  for (uint32_t done = 0; done < len;) {
    const ssize_t n = write(fd, data + done, len - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    done += static_cast<uint32_t>(n);
  }
  close(fd);
  // Listed among the log files as one opened now that holds a crash record.
  const char* base = strrchr(name, '/') + 1;
  logorder::noteIn(sStraightDir, base, false);
  logorder::noteIn(sStraightDir, base, true);
  return ok;
}

}  // namespace crash
}  // namespace zudebug
