#include "LogLine.h"

#include "Utf8.h"

#include <string.h>

namespace zulog {

namespace {

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline int twoDigits(const char* p) { return (p[0] - '0') * 10 + (p[1] - '0'); }

// Reads a run of digits at `p` (at most `maxDigits`); 0 digits read means none.
inline size_t readNumber(const char* p, const char* end, size_t maxDigits, int64_t* value) {
  size_t n = 0;
  int64_t v = 0;
  while (p + n < end && n < maxDigits && isDigit(p[n])) {
    v = v * 10 + (p[n] - '0');
    ++n;
  }
  *value = v;
  return n;
}

// "  %4d": at least one blank, then the number (ids are never negative in practice,
// but "%4d" would print a minus sign).
inline const char* readId(const char* p, const char* end, int* id) {
  if (p >= end || *p != ' ') return nullptr;
  while (p < end && *p == ' ') ++p;
  bool negative = p < end && *p == '-';
  if (negative) ++p;
  int64_t v = 0;
  size_t n = readNumber(p, end, 10, &v);
  if (n == 0 || v > 0x7fffffff) return nullptr;
  *id = static_cast<int>(negative ? -v : v);
  return p + n;
}

constexpr char kCrashTag[] = "DEBUG   : ";
constexpr size_t kCrashTagLen = sizeof(kCrashTag) - 1;

// "file:line func() " at the start of `rest`; the function token may itself end in
// "()" (a lambda's "operator()").
bool readCallSite(std::string_view rest, LogLine* out) {
  const size_t space = rest.find(' ');
  if (space == std::string_view::npos || space == 0) return false;
  const std::string_view site = rest.substr(0, space);
  const size_t colon = site.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon + 1 == site.size()) return false;
  int64_t line = 0;
  const size_t digits = readNumber(site.data() + colon + 1, site.data() + site.size(), 10, &line);
  if (digits != site.size() - colon - 1 || line > 0x7fffffff) return false;
  const std::string_view afterSite = rest.substr(space + 1);
  const size_t funcEnd = afterSite.find(' ');
  const std::string_view func = afterSite.substr(0, funcEnd);
  if (func.size() < 2 || func.compare(func.size() - 2, 2, "()") != 0) return false;
  out->file = site.substr(0, colon);
  out->line = static_cast<int>(line);
  out->func = func.substr(0, func.size() - 2);
  out->msg = funcEnd == std::string_view::npos ? std::string_view() : afterSite.substr(funcEnd + 1);
  out->hasCallSite = true;
  return true;
}

}  // namespace

bool parseStamp(const char* text, size_t len, Stamp* out) {
  // "MM-DD hh:mm:ss:" then at least one digit of nanoseconds.
  if (len < 16) return false;
  const char* p = text;
  if (!(isDigit(p[0]) && isDigit(p[1]) && p[2] == '-' && isDigit(p[3]) && isDigit(p[4]) && p[5] == ' ' &&
        isDigit(p[6]) && isDigit(p[7]) && p[8] == ':' && isDigit(p[9]) && isDigit(p[10]) && p[11] == ':' &&
        isDigit(p[12]) && isDigit(p[13]) && p[14] == ':'))
    return false;
  const int month = twoDigits(p), day = twoDigits(p + 3);
  const int hour = twoDigits(p + 6), minute = twoDigits(p + 9), second = twoDigits(p + 12);
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return false;
  const char* end = text + len;
  int64_t nanos = 0;
  const size_t digits = readNumber(p + 15, end, 9, &nanos);
  if (digits == 0) return false;
  p += 15 + digits;
  p = readId(p, end, &out->pid);
  if (p == nullptr) return false;
  p = readId(p, end, &out->tid);
  // " L " or " L" at the very end; the letter is a printable character.
  if (p == nullptr || end - p < 2 || p[0] != ' ' || p[1] <= ' ' || p[1] > '~') return false;
  if (end - p > 2 && p[2] != ' ') return false;
  out->month = month;
  out->day = day;
  out->secondOfDay = hour * 3600 + minute * 60 + second;
  out->nanos = nanos;
  out->level = p[1];
  out->restOffset = static_cast<size_t>(p - text) + (end - p > 2 ? 3 : 2);
  return true;
}

bool parseLine(std::string_view text, LogLine* out) {
  *out = LogLine();
  if (!parseStamp(text.data(), text.size(), &out->stamp)) return false;
  std::string_view rest = text.substr(out->stamp.restOffset);
  if (out->stamp.level == 'F' && rest.compare(0, kCrashTagLen, kCrashTag) == 0) {
    out->crash = true;
    out->tag = rest.substr(0, 5);  // "DEBUG"
    out->hasTag = true;
    out->msg = rest.substr(kCrashTagLen);
    return true;
  }
  // The tag never holds a blank; the label is bracketed and may ("[HAL ]").
  const size_t tagEnd = rest.find(' ');
  out->tag = rest.substr(0, tagEnd);
  out->hasTag = !out->tag.empty();
  if (tagEnd == std::string_view::npos) return true;
  rest = rest.substr(tagEnd + 1);
  if (!rest.empty() && rest[0] == '[') {
    const size_t close = rest.find(']');
    if (close != std::string_view::npos && (close + 1 == rest.size() || rest[close + 1] == ' ')) {
      out->label = rest.substr(0, close + 1);
      out->hasLabel = true;
      rest = close + 1 == rest.size() ? std::string_view() : rest.substr(close + 2);
    }
  }
  if (!out->hasLabel || !readCallSite(rest, out)) out->msg = rest;
  return true;
}

bool isTextLine(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char c = *p;
    if (c < 0x80) {
      if ((c < 0x20 && c != '\t' && c != '\r' && c != 0x1b) || c == 0x7f) return false;
      ++p;
      continue;
    }
    const size_t n = utf8Length(p, end);
    if (n == 0) return false;
    p += n;
  }
  return true;
}

bool isCrashStars(std::string_view msg) { return msg.compare(0, 8, "*** *** ") == 0; }

}  // namespace zulog
