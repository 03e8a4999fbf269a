// The crash record's text (internal, not installed): numbers and text written into
// fixed buffers, the local time without the C library's time-zone lock, and the record
// itself, stored a line at a time into a crash slot or a buffer of its own. Everything
// here but refreshLocalTimeOffset() and notePointerStyle() is async-signal-safe and
// allocates nothing.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

namespace zudebug {
namespace crash {

// Appends to a fixed buffer; what does not fit is cut off and remembered.
class Text {
 public:
  Text(char* buf, size_t cap) : mBuf(buf), mCap(cap) {}
  Text& str(const char* s);
  Text& str(const char* s, size_t n);
  Text& ch(char c) { return str(&c, 1); }
  // Decimal, right-aligned in `width` columns filled with `pad`.
  Text& dec(long long v, int width = 0, char pad = ' ');
  // Lowercase hexadecimal, zero-padded to `width` digits.
  Text& hex(unsigned long long v, int width = 0);
  // A pointer as the C library's "%p" prints it.
  Text& ptr(uintptr_t v);
  size_t size() const { return mLen; }
  const char* data() const { return mBuf; }
  bool cut() const { return mCut; }

 private:
  char* mBuf;
  size_t mCap;
  size_t mLen = 0;
  bool mCut = false;
};

// How this C library prints a null "%p" ("(nil)" or "0x0"); found out once, outside
// any handler.
void notePointerStyle();

// The offset of local time from UTC, read with the C library outside any handler (at
// installation, and whenever the logger opens a file), used inside it.
void refreshLocalTimeOffset();

struct CivilTime {
  int year, month, day, hour, minute, second;
};
CivilTime localTime(time_t t);

// "MM-DD hh:mm:ss:<nanoseconds, at least six digits>  <pid>  <tid>" of now.
size_t formatStamp(char* out, size_t size, int pid, int tid);

// A record being written: each line gets the stamp and " F DEBUG   : " in front and is
// published whole, so that whatever stops the writer leaves whole lines.
class RecordWriter {
 public:
  // Lines go to `data` (`cap` bytes); `publish` (may be null) is told the byte count
  // after each line.
  void begin(uint8_t* data, uint32_t cap, void (*publish)(void* ctx, uint32_t used), void* ctx, int pid,
             int tid);
  // A new stamp for the lines that follow, never equal to the one before.
  void restamp();
  // One line; false (and nothing written) when it no longer fits.
  bool line(const char* text, size_t len);
  bool line(const Text& t) { return line(t.data(), t.size()); }
  uint32_t used() const { return mUsed; }
  const uint8_t* data() const { return mData; }

 private:
  uint8_t* mData = nullptr;
  uint32_t mCap = 0;
  uint32_t mUsed = 0;
  void (*mPublish)(void*, uint32_t) = nullptr;
  void* mCtx = nullptr;
  int mPid = 0;
  int mTid = 0;
  char mStamp[64];
  size_t mStampLen = 0;
};

// Writes `len` bytes into a new file of the offline directory named as the logger
// names its files ("ZuCam_<type>_<stamp>.txt"), for a record no flush could take.
// The directory is resolved once, outside any handler, by prepareStraightFiles().
void prepareStraightFiles(const char* deviceDir);
bool writeStraight(const char* typeName, const uint8_t* data, uint32_t len);

}  // namespace crash
}  // namespace zudebug
