// Lines of one byte range of a file, read through a fixed buffer, and what each line
// is: a stamped log line, a line of text without a stamp, or something to skip.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <string_view>

#include "Input.h"
#include "LogLine.h"

namespace zulog {

// Longest line kept; the library's lines are at most 1022 bytes.
constexpr size_t kMaxLine = 16 * 1024;

struct RawLine {
  const char* data = nullptr;
  size_t len = 0;        // without the newline
  uint64_t offset = 0;   // of the first byte in the file
  bool torn = false;     // the range ended before a newline
  bool tooLong = false;  // longer than kMaxLine; data is empty
};

class LineReader {
 public:
  LineReader(int fd, uint64_t begin, uint64_t end, size_t capacity);
  // The next line; false at the end of the range. The line stays valid until the next call.
  bool next(RawLine* out);
  int error() const { return mError; }  // errno of a failed read, which ends the range

 private:
  bool refill();
  int mFd;
  uint64_t mBufferOffset;  // file offset of mBuffer[0]
  uint64_t mEnd;
  std::unique_ptr<char[]> mBuffer;
  size_t mCapacity, mStart = 0, mFill = 0;
  bool mEof = false;
  int mError = 0;
};

// What a file held that is not a line of text, counted once per file.
struct ReadStats {
  uint64_t garbageLines = 0;  // binary or over-long lines without a stamp
  uint64_t zeroBytes = 0;     // runs of zero bytes (a file cut short by a power loss)
  uint64_t tornLines = 0;     // a last line without its newline
  int readError = 0;
  std::string describe() const;  // "" when there is nothing to say
};

enum class LineKind { Stamped, Text, Skip };

struct ClassifiedLine {
  LineKind kind = LineKind::Skip;
  std::string_view text;  // the line as it will be printed
  Stamp stamp;            // for Stamped
  int64_t key = 0;        // wall-clock nanoseconds, for Stamped
};

// Classifies a raw line of `file`; counts what is skipped into `stats` when given.
void classifyLine(const RawLine& raw, const InputFile& file, ClassifiedLine* out, ReadStats* stats);

}  // namespace zulog
