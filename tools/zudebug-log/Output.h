// Where merged lines go: the text of the files, or one JSON object per line.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include "Merge.h"

namespace zulog {

// Buffered writes to a file descriptor. A closed pipe (the reader went away) ends the
// output quietly; any other failure is kept for the caller to report.
class Writer {
 public:
  explicit Writer(int fd) : mFd(fd) { mBuffer.reserve(kSize); }
  ~Writer() { flush(); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void put(std::string_view text) {
    if (mBuffer.size() + text.size() > kSize) flush();
    mBuffer.append(text.data(), text.size());
  }
  void put(char c) {
    if (mBuffer.size() + 1 > kSize) flush();
    mBuffer += c;
  }
  bool flush();
  bool ok() const { return !mClosed && mError == 0; }
  bool readerGone() const { return mClosed; }
  int error() const { return mError; }

 private:
  static constexpr size_t kSize = 1 << 20;
  int mFd;
  std::string mBuffer;
  bool mClosed = false;
  int mError = 0;
};

// "YYYY-MM-DDThh:mm:ss.nnnnnnnnn" of wall-clock nanoseconds.
std::string isoTime(int64_t wall);

// The lines as the files hold them; with the full date, stamped lines get "YYYY-" in front.
class TextSink : public LineSink {
 public:
  TextSink(Writer& out, bool fullDate) : mOut(out), mFullDate(fullDate) {}
  bool line(const MergedLine& line) override;

 private:
  Writer& mOut;
  bool mFullDate;
};

// One JSON object per stamped line: ts, pid, tid, level, tag, label, file, line, func,
// msg (null where the line has none). Lines without a stamp join the message of the
// line before them; those before a file's first stamped line make an object of their own.
class JsonlSink : public LineSink {
 public:
  explicit JsonlSink(Writer& out) : mOut(out) {}
  ~JsonlSink() override { finish(); }
  bool line(const MergedLine& line) override;
  void finish();

 private:
  Writer& mOut;
  std::string mPending;  // the object so far, without msg and the closing brace
  std::string mMsg;
  bool mHavePending = false, mMsgNull = false;
  const InputFile* mPendingFile = nullptr;
};

}  // namespace zulog
