// Crash records in the offline log, with the lines before them and their frames
// symbolised.
//
// The catcher writes, all with one time stamp, pid and tid:
//   F DEBUG   : *** *** ... ***
//   F DEBUG   : pid: P, tid: T
//   F DEBUG   : signal S, code C, fault addr A
//   F DEBUG   : *** *** ... ***
//   F DEBUG   : #01 pc 000000000000b2c0  /path/of/module (symbol+offset)
//   ...
// Frame offsets are virtual addresses of the module's file. The first frames are
// the signal return trampoline and the faulting instruction; every other offset is a
// return address, which lies behind its call.
#pragma once

#include <stdint.h>

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "Merge.h"
#include "Output.h"
#include "Symbolizer.h"

namespace zulog {

struct FrameLine {
  int index = 0;
  uint64_t pc = 0;
  std::string module;
  std::string symbol;  // what the device printed in parentheses, if anything
};

// "#NN pc HEX  MODULE[ (SYMBOL)]..."; false for anything else.
bool parseFrameLine(std::string_view text, FrameLine* out);

struct CrashRecord {
  std::vector<std::string> context;     // the lines before it, oldest first
  std::vector<std::string> lines;       // the record's own lines as written
  std::vector<std::string> frameTexts;  // the frame parts ("#01 pc ...")
  int64_t key = 0;
  bool timed = false;  // false: written without a time stamp
  int pid = 0, tid = 0;
  int signal = -1, code = 0;
  std::string faultAddr;
};

// Collects the crash records of the merged lines.
class CrashFinder : public LineSink {
 public:
  explicit CrashFinder(size_t contextLines) : mContextLines(contextLines) {}
  bool line(const MergedLine& line) override;
  std::vector<CrashRecord> finish();

 private:
  void close();
  size_t mContextLines;
  std::deque<std::string> mRecent;
  bool mInRecord = false;
  int mHeaderLines = 0;
  CrashRecord mCurrent;
  std::string mStampText;  // the time stamp and ids the record's lines share
  std::vector<CrashRecord> mRecords;
};

// Writes a record: a heading, the lines before it, the header, and each frame with
// its functions and source lines.
void printCrashRecord(Writer& out, const CrashRecord& record, size_t number, size_t total,
                      Symbolizer& symbols);

}  // namespace zulog
