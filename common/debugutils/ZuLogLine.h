// The offline line layout (internal, not installed), shared by the log emitter and
// the offline logger's own diagnostics, so that the logger needs nothing from the
// emitter above it:
//   "MM-DD hh:mm:ss:nnnnnnnnn  <pid>  <tid> <level> <tag> <label> [<file>:<line> <func>() ]<message>\n"
// and the table of log groups with their tags and labels.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <string.h>

#include "ZuThreadRecord.h"

namespace zudebug {
namespace line {

constexpr size_t kLineSize = 1024;  // line buffer
constexpr int kMaxLineText = 1021;  // text kept before the final "\n"

// Appends like snprintf into buf[0, kLineSize - 1) and counts what would have been written.
struct LineCursor {
  char* buf;
  size_t pos;  // would-be length so far
  void put(const char* s, size_t n) {
    if (pos < kLineSize - 1) {
      size_t room = kLineSize - 1 - pos;
      memcpy(buf + pos, s, n < room ? n : room);
    }
    pos += n;
  }
  void put(const char* s) { put(s, strlen(s)); }
  void putInt(int v) {
    char tmp[16];
    char* end = tmp + sizeof(tmp);
    char* p = end;
    unsigned int u = v < 0 ? 0u - static_cast<unsigned int>(v) : static_cast<unsigned int>(v);
    do {
      *--p = static_cast<char>('0' + u % 10);
      u /= 10;
    } while (u != 0);
    if (v < 0) *--p = '-';
    put(p, static_cast<size_t>(end - p));
  }
  void terminate() { buf[pos < kLineSize - 1 ? pos : kLineSize - 1] = '\0'; }
};

// Seconds east of UTC that the line stamps were last made with (each thread notes it
// when its cached second turns over), for stamps made where local time cannot be
// asked for (a signal handler); kUnknownOffset before the first stamp.
constexpr long kUnknownOffset = -1000000;
long stampUtcOffset();

// Where a line was logged from.
struct Site {
  const char* file;
  const char* func;
  int line;
};

// Starts a line of the calling thread (`thread` is its record) in buf[0, kLineSize):
// "MM-DD hh:mm:ss:nnnnnnnnn  <pid>  <tid> <level> " of now, then "<tag> <label> " of
// the group and, with a site, "<file>:<line> <func>() ". Returns where the message
// goes (counted as LineCursor does: it may pass the buffer); *stampLen is the length of
// the first part, 0 when the local-time conversion failed (the line then starts with its
// tag). All but the time is kept per call site in the thread's record and copied whole
// when the same site logs again.
size_t beginLine(ThreadRecord& thread, char* buf, const char* level, unsigned int group, const Site* site,
                 size_t* stampLen);
// Appends the caller's message behind `used` bytes and finishes the line: returns n,
// the text length before the "\n" (at most 1021).
size_t finishLine(char* buf, size_t used, const char* fmt, va_list ap);

// A group's label and tag; "[UNKNOWN]" for a value that is not exactly one group bit.
const char* groupLabel(unsigned int group);
const char* groupTag(unsigned int group);

}  // namespace line

// Formats one line in the offline layout, as the library's own diagnostics appear
// there (group Debug). Returns its length, "\n" included.
size_t formatDiagnosticLine(char* buf, size_t size, const char* level, const char* file, const char* func,
                            int line, const char* fmt, ...) __attribute__((format(printf, 7, 8)));

}  // namespace zudebug
