#include "Output.h"

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include "FileStamp.h"
#include "JsonText.h"
#include "LogLine.h"

namespace zulog {

bool Writer::flush() {
  size_t done = 0;
  while (done < mBuffer.size() && ok()) {
    const ssize_t n = write(mFd, mBuffer.data() + done, mBuffer.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      if (errno == EPIPE)
        mClosed = true;
      else
        mError = errno;
      break;
    }
    done += static_cast<size_t>(n);
  }
  mBuffer.clear();
  return ok();
}

std::string isoTime(int64_t wall) {
  int64_t day = wall / kNanosPerDay;
  int64_t rest = wall % kNanosPerDay;
  if (rest < 0) {
    rest += kNanosPerDay;
    --day;
  }
  int y, m, d;
  civilFromDay(day, &y, &m, &d);
  const int64_t second = rest / kNanosPerSecond;
  char text[48];
  snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%09lld", y, m, d,
           static_cast<int>(second / 3600), static_cast<int>(second / 60 % 60), static_cast<int>(second % 60),
           static_cast<long long>(rest % kNanosPerSecond));
  return text;
}

bool TextSink::line(const MergedLine& line) {
  if (mFullDate && line.stamp != nullptr) {
    const int year = line.file->years.yearOf(line.stamp->month, line.stamp->day);
    char prefix[16];
    const int n = snprintf(prefix, sizeof(prefix), "%04d-", year);
    mOut.put(std::string_view(prefix, static_cast<size_t>(n)));
  }
  mOut.put(line.text);
  mOut.put('\n');
  return mOut.ok();
}

namespace {

void field(std::string& out, const char* name, bool present, std::string_view value) {
  out += ",\"";
  out += name;
  out += "\":";
  if (present)
    appendJsonString(out, value);
  else
    out += "null";
}

}  // namespace

void JsonlSink::finish() {
  if (!mHavePending) return;
  mOut.put(mPending);
  mOut.put(",\"msg\":");
  if (mMsgNull) {
    mOut.put("null");
  } else {
    std::string msg;
    appendJsonString(msg, mMsg);
    mOut.put(msg);
  }
  mOut.put("}\n");
  mHavePending = false;
}

bool JsonlSink::line(const MergedLine& line) {
  if (line.stamp == nullptr && mHavePending && mPendingFile == line.file) {
    if (mMsgNull) {
      mMsg.clear();
      mMsgNull = false;
    } else {
      mMsg += '\n';
    }
    mMsg.append(line.text.data(), line.text.size());
    return mOut.ok();
  }
  finish();
  mHavePending = true;
  mPendingFile = line.file;
  mPending.clear();
  if (line.stamp == nullptr) {
    mPending =
        "{\"ts\":null,\"pid\":null,\"tid\":null,\"level\":null,\"tag\":null,\"label\":null,"
        "\"file\":null,\"line\":null,\"func\":null";
    mMsg.assign(line.text.data(), line.text.size());
    mMsgNull = false;
    return mOut.ok();
  }
  LogLine parsed;
  parseLine(line.text, &parsed);
  mPending = "{\"ts\":\"" + isoTime(line.key) + "\",\"pid\":" + std::to_string(parsed.stamp.pid) +
             ",\"tid\":" + std::to_string(parsed.stamp.tid);
  field(mPending, "level", true, std::string_view(&parsed.stamp.level, 1));
  field(mPending, "tag", parsed.hasTag, parsed.tag);
  field(mPending, "label", parsed.hasLabel, parsed.label);
  field(mPending, "file", parsed.hasCallSite, parsed.file);
  mPending += ",\"line\":";
  mPending += parsed.hasCallSite ? std::to_string(parsed.line) : "null";
  field(mPending, "func", parsed.hasCallSite, parsed.func);
  mMsgNull = parsed.msg.data() == nullptr;
  mMsg.assign(parsed.msg.data() == nullptr ? "" : parsed.msg.data(), parsed.msg.size());
  return mOut.ok();
}

}  // namespace zulog
