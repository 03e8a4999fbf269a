// Crash records in the offline log, with the lines before them and every thread's
// frames symbolised.
//
// The catcher writes the header and the crashing thread's frames with one time stamp,
// pid and tid:
//   F DEBUG   : *** *** ... ***
//   F DEBUG   : pid: P, tid: T
//   F DEBUG   : signal S, code C, fault addr A        (A as %p prints it: "(nil)" or "0x0")
//   F DEBUG   : *** *** ... ***
//   F DEBUG   : #01 pc 000000000000b2c0  /path/of/module (symbol+offset)
//   ...
// then, with the same pid and tid but later stamps, each section only where it applies:
//   F DEBUG   : Cause: null pointer dereference
//   F DEBUG   : Abort message: '...'
//   F DEBUG   : Signal sent by pid 4321, uid 1000 (SI_TKILL)
//   F DEBUG   : registers:                      and lines of four "NAME HEX16"
//   F DEBUG   : memory near fault addr 0x...:   and 16 lines "    ADDR WORD WORD  CHARS"
//   F DEBUG   : memory near sp 0x...:           the same
//   F DEBUG   : modules:                        and lines "    BASE  PATH[ (BuildId: HEX)]"
//   F DEBUG   : --- --- ... ---                 then for each other thread:
//   F DEBUG   : thread: tid N, name NAME
//   F DEBUG   :       #00 pc 00000000000a1234  /path/of/module
//   F DEBUG   : threads: 5 of 6 answered within 100 ms
// In time order other threads' lines may fall between the frames and what follows,
// so a record is every crash line of its pid and tid from its first stars line on,
// until the next stars line or an ordinary line of that thread.
//
// Frame offsets are virtual addresses of the module's file. The crashing thread's
// first frames are the signal return trampoline and the faulting instruction; every
// other offset is a return address taken back into its call, as the platform's
// unwinder shows it. Another thread's #00 is the pc it was interrupted at, as it stands.
#pragma once

#include <stdint.h>

#include <deque>
#include <map>
#include <memory>
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

struct ModuleLine {
  uint64_t base = 0;
  std::string path;
  std::string buildId;  // lowercase hex; empty when the record gives none
};

// "    BASE  PATH[ (BuildId: HEX)]"; false for anything else, a line cut off included.
bool parseModuleLine(std::string_view text, ModuleLine* out);

// Another thread of the crashed process, as the record gives it.
struct ThreadFrames {
  int tid = 0;
  std::string name;
  std::vector<std::string> frameTexts;  // "#00 pc ...", without the indent
};

// What a line of a record is, for printing.
struct LineRole {
  enum Kind : uint8_t { Other, Frame, ThreadFrame };
  Kind kind = Other;
  int thread = -1;  // ThreadFrame: its index in `threads`
  int frame = -1;   // the index in `frameTexts`, or in the thread's
};

struct CrashRecord {
  std::vector<std::string> context;     // the lines before it, oldest first
  std::vector<std::string> lines;       // the record's own lines as written
  std::vector<LineRole> roles;          // one for each of `lines`
  std::vector<std::string> frameTexts;  // the crashing thread's frames ("#01 pc ...")
  int64_t key = 0;
  bool timed = false;  // false: written without a time stamp
  int pid = 0, tid = 0;
  int signal = -1, code = 0;
  std::string faultAddr;
  // What follows the frames; empty when the record has no such line.
  std::string cause;         // "null pointer dereference"
  std::string abortMessage;  // between the quotes
  std::string sender;        // "pid 4321, uid 1000 (SI_TKILL)"
  std::vector<ModuleLine> modules;
  std::vector<ThreadFrames> threads;
  std::string threadsAnswered;  // "5 of 6 answered within 100 ms"
  std::string cutShort;         // what the record lacks when it ends too early
};

// Whether a signal's fault address means anything: one a process sent (kill, tgkill,
// sigqueue: a code of 0 or below) carries none, and neither does an abort.
bool carriesFaultAddress(int signal, int code);

// Collects the crash records of the merged lines.
class CrashFinder : public LineSink {
 public:
  explicit CrashFinder(size_t contextLines);
  ~CrashFinder() override;
  bool line(const MergedLine& line) override;
  std::vector<CrashRecord> finish();

 private:
  struct Open;  // a record still taking lines
  Open* start(const MergedLine& line, bool timed, int pid, int tid);
  void close(std::unique_ptr<Open>& open);
  size_t mContextLines;
  std::deque<std::string> mRecent;
  std::map<std::pair<int, int>, std::unique_ptr<Open>> mOpen;  // by the pid and tid of their stamps
  std::unique_ptr<Open> mBare;                                 // one written without stamps
  std::vector<std::pair<size_t, CrashRecord>> mDone;           // with the order they started in
  size_t mStarted = 0;
};

// Writes a record: a heading with the cause, the abort message and the sender, a line
// for each module file passed over for its build ID, the lines before it, then its own
// lines with the functions and source lines of every thread's frames.
void printCrashRecord(Writer& out, const CrashRecord& record, size_t number, size_t total,
                      Symbolizer& symbols);

}  // namespace zulog
