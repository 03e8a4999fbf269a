#include "LineReader.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace zulog {

namespace {

// No more than the range needs, but room for the longest line and its neighbour.
size_t bufferSize(uint64_t begin, uint64_t end, size_t capacity) {
  const uint64_t range = end > begin ? end - begin : 0;
  const size_t least = 2 * kMaxLine + 2;
  if (range + 1 < capacity) capacity = static_cast<size_t>(range + 1);
  return capacity < least ? least : capacity;
}

}  // namespace

LineReader::LineReader(int fd, uint64_t begin, uint64_t end, size_t capacity)
    : mFd(fd), mBufferOffset(begin), mEnd(end), mCapacity(bufferSize(begin, end, capacity)) {
  mBuffer.reset(new char[mCapacity]);
}

bool LineReader::refill() {
  if (mStart > 0) {
    memmove(mBuffer.get(), mBuffer.get() + mStart, mFill - mStart);
    mBufferOffset += mStart;
    mFill -= mStart;
    mStart = 0;
  }
  bool got = false;
  while (mFill < mCapacity) {
    const uint64_t at = mBufferOffset + mFill;
    if (at >= mEnd) {
      mEof = true;
      break;
    }
    size_t want = mCapacity - mFill;
    if (want > mEnd - at) want = static_cast<size_t>(mEnd - at);
    const ssize_t n = pread(mFd, mBuffer.get() + mFill, want, static_cast<off_t>(at));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // An error, or the file shrank under us: the range ends here.
      if (n < 0) mError = errno;
      mEof = true;
      break;
    }
    mFill += static_cast<size_t>(n);
    got = true;
    if (static_cast<size_t>(n) < want) continue;
    break;
  }
  return got;
}

bool LineReader::next(RawLine* out) {
  bool skipping = false;  // inside a line too long to keep
  uint64_t skipOffset = 0;
  for (;;) {
    char* from = mBuffer.get() + mStart;
    char* nl = static_cast<char*>(memchr(from, '\n', mFill - mStart));
    if (nl != nullptr) {
      const uint64_t offset = mBufferOffset + mStart;
      const size_t len = static_cast<size_t>(nl - from);
      mStart += len + 1;
      if (skipping || len > kMaxLine) {
        *out = RawLine{nullptr, 0, skipping ? skipOffset : offset, false, true};
      } else {
        *out = RawLine{from, len, offset, false, false};
      }
      return true;
    }
    if (mEof) {
      if (mStart == mFill && !skipping) return false;
      const uint64_t offset = mBufferOffset + mStart;
      const size_t len = mFill - mStart;
      mStart = mFill;
      if (skipping || len > kMaxLine)
        *out = RawLine{nullptr, 0, skipping ? skipOffset : offset, true, true};
      else
        *out = RawLine{from, len, offset, true, false};
      return true;
    }
    if (mFill - mStart > kMaxLine) {
      // No newline within the longest line kept: drop what is here and go on looking.
      if (!skipping) skipOffset = mBufferOffset + mStart;
      skipping = true;
      mStart = mFill;
    }
    refill();
  }
}

std::string ReadStats::describe() const {
  std::string out;
  auto add = [&out](uint64_t n, const char* one, const char* many) {
    if (n == 0) return;
    if (!out.empty()) out += ", ";
    out += std::to_string(n) + " " + (n == 1 ? one : many);
  };
  add(garbageLines, "garbage line", "garbage lines");
  add(zeroBytes, "zero byte", "zero bytes");
  add(tornLines, "torn last line", "torn last lines");
  if (!out.empty()) out += " skipped";
  if (readError != 0) out += std::string(out.empty() ? "" : "; ") + "read error: " + strerror(readError);
  return out;
}

void classifyLine(const RawLine& raw, const InputFile& file, ClassifiedLine* out, ReadStats* stats) {
  out->kind = LineKind::Skip;
  if (raw.tooLong) {
    if (stats != nullptr) ++stats->garbageLines;
    return;
  }
  std::string_view text(raw.data, raw.len);
  // Zero bytes come in runs (blocks that never got their data); a line may start
  // behind one.
  const void* zero = text.empty() ? nullptr : memchr(text.data(), '\0', text.size());
  if (zero != nullptr) {
    const size_t lastZero =
        static_cast<size_t>(static_cast<const char*>(memrchr(text.data(), '\0', text.size())) - text.data());
    if (stats != nullptr) {
      size_t zeros = 0, other = 0;
      for (size_t i = 0; i <= lastZero; ++i) (text[i] == '\0' ? zeros : other)++;
      stats->zeroBytes += zeros;
      if (other > 0) ++stats->garbageLines;
    }
    text.remove_prefix(lastZero + 1);
    if (text.empty()) return;
  }
  if (raw.torn) {
    if (stats != nullptr) ++stats->tornLines;
    return;
  }
  if (parseStamp(text.data(), text.size(), &out->stamp)) {
    out->kind = LineKind::Stamped;
    out->text = text;
    out->key = wallNanos(file.years.dayOf(out->stamp.month, out->stamp.day), out->stamp.secondOfDay,
                         out->stamp.nanos);
    return;
  }
  if (file.errorInfo && text.empty()) return;  // the empty line after each record
  if (!isTextLine(text)) {
    if (stats != nullptr) ++stats->garbageLines;
    return;
  }
  out->kind = LineKind::Text;
  out->text = text;
}

}  // namespace zulog
