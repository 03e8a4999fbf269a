// One line of an offline text file, as the library writes it:
//
//   MM-DD hh:mm:ss:NNNNNNNNN  <pid>  <tid> L tag [label] file.cpp:123 func() message
//   MM-DD hh:mm:ss:NNNNNNNNN  <pid>  <tid> L tag [label] message           (short form)
//   MM-DD hh:mm:ss:NNNNNN  <pid>  <tid> F DEBUG   : *** *** ...           (crash record)
//
// The sub-second field is a count of nanoseconds: nine digits in ordinary lines, at
// least six in crash records. Ids are printed "%4d" behind two blanks. A line whose
// local time could not be had carries no stamp at all; so do lines a message wrapped.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

namespace zulog {

// The time stamp and ids that open a line.
struct Stamp {
  int month = 0, day = 0;  // 1-12, 1-31
  int secondOfDay = 0;     // 0 to 86400 (a leap second)
  int64_t nanos = 0;       // 0 to 999,999,999
  int pid = 0, tid = 0;
  char level = 0;         // 'E', 'W', 'I', 'D', 'F', ...
  size_t restOffset = 0;  // where the text behind "L " starts
};

// Everything of a stamped line. Views point into the line given to parseLine.
struct LogLine {
  Stamp stamp;
  bool crash = false;  // a line of a crash record ("F DEBUG   : ")
  std::string_view tag, label, file, func, msg;
  bool hasTag = false, hasLabel = false, hasCallSite = false;
  int line = 0;  // source line of the call site
};

// Reads the stamp at the start of `text` (no line end inside). False when the text
// does not open with one: then it is a line without a time stamp.
bool parseStamp(const char* text, size_t len, Stamp* out);

// The whole line; false when it has no stamp.
bool parseLine(std::string_view text, LogLine* out);

// Lines without a stamp are kept when they are text: no control characters other
// than tab, carriage return and escape, and valid UTF-8. Anything else is garbage.
bool isTextLine(std::string_view text);

// The crash record's header line ("*** *** ...") and frame lines ("#NN pc ...").
bool isCrashStars(std::string_view msg);

}  // namespace zulog
