// Host libutils: String8 and the Printer family.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "log/log.h"
#include "utils/Printer.h"
#include "utils/String8.h"

namespace android {

// ---- String8 ----

String8::String8() = default;
String8::String8(const String8& o) = default;
String8::String8(const char* o) : mString(o != nullptr ? o : "") {}
String8::String8(const char* o, size_t numChars)
    : mString(o != nullptr ? std::string(o, strnlen(o, numChars)) : "") {}
String8::~String8() = default;

void String8::clear() { mString.clear(); }
void String8::setTo(const String8& other) { mString = other.mString; }
int String8::setTo(const char* other) {
  mString = other != nullptr ? other : "";
  return 0;
}
int String8::setTo(const char* other, size_t numChars) {
  mString = other != nullptr ? std::string(other, strnlen(other, numChars)) : "";
  return 0;
}
int String8::append(const String8& other) {
  mString += other.mString;
  return 0;
}
int String8::append(const char* other) {
  if (other != nullptr) mString += other;
  return 0;
}
int String8::append(const char* other, size_t numChars) {
  if (other != nullptr) mString.append(other, strnlen(other, numChars));
  return 0;
}

int String8::appendFormat(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int r = appendFormatV(fmt, args);
  va_end(args);
  return r;
}

int String8::appendFormatV(const char* fmt, va_list args) {
  char small[256];
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(small, sizeof(small), fmt, copy);
  va_end(copy);
  if (n < 0) return -1;
  if (static_cast<size_t>(n) < sizeof(small)) {
    mString.append(small, static_cast<size_t>(n));
    return 0;
  }
  size_t old = mString.size();
  mString.resize(old + static_cast<size_t>(n) + 1);
  vsnprintf(&mString[old], static_cast<size_t>(n) + 1, fmt, args);
  mString.resize(old + static_cast<size_t>(n));
  return 0;
}

String8 String8::format(const char* fmt, ...) {
  String8 s;
  va_list args;
  va_start(args, fmt);
  s.appendFormatV(fmt, args);
  va_end(args);
  return s;
}

String8 String8::formatV(const char* fmt, va_list args) {
  String8 s;
  s.appendFormatV(fmt, args);
  return s;
}

String8& String8::operator=(const String8& other) = default;
String8& String8::operator=(const char* other) {
  setTo(other);
  return *this;
}
String8& String8::operator+=(const String8& other) {
  append(other);
  return *this;
}
String8& String8::operator+=(const char* other) {
  append(other);
  return *this;
}

// ---- Printer ----

Printer::Printer() = default;
Printer::~Printer() = default;

void Printer::printFormatLine(const char* format, ...) {
  va_list args;
  va_start(args, format);
  String8 line = String8::formatV(format, args);
  va_end(args);
  printLine(line.c_str());
}

LogPrinter::LogPrinter(const char* logtag, android_LogPriority priority, const char* prefix,
                       bool ignoreBlankLines)
    : mLogTag(logtag),
      mPriority(priority),
      mPrefix(prefix != nullptr ? prefix : ""),
      mIgnoreBlankLines(ignoreBlankLines) {}

void LogPrinter::printLine(const char* string) {
  if (string == nullptr) string = "";
  if (string[0] == '\0' && mIgnoreBlankLines) return;
  // An embedded newline would split one record into two in a real log buffer;
  // print each piece as its own record instead.
  const char* start = string;
  for (;;) {
    const char* nl = strchr(start, '\n');
    if (nl == nullptr) break;
    std::string piece(start, static_cast<size_t>(nl - start));
    printRaw(piece.c_str());
    start = nl + 1;
  }
  if (*start != '\0' || start == string) printRaw(start);
}

void LogPrinter::printRaw(const char* string) {
  __android_log_print(mPriority, mLogTag, "%s%s", mPrefix, string[0] != '\0' ? string : " ");
}

FdPrinter::FdPrinter(int fd, unsigned int indent, const char* prefix)
    : mFd(fd), mIndent(indent), mPrefix(prefix != nullptr ? prefix : "") {
  // The prefix left-aligned in a field `indent` wide, then the line.
  snprintf(mFormatString, sizeof(mFormatString), "%%-%us%%s\n", mIndent);
}

void FdPrinter::printLine(const char* string) {
  if (string == nullptr) string = "";
  if (mFd < 0) return;
  dprintf(mFd, mFormatString, mPrefix, string);
}

String8Printer::String8Printer(String8* target, const char* prefix)
    : mTarget(target), mPrefix(prefix != nullptr ? prefix : "") {}

void String8Printer::printLine(const char* string) {
  if (mTarget == nullptr) return;
  mTarget->append(mPrefix);
  mTarget->append(string != nullptr ? string : "");
  mTarget->append("\n");
}

PrefixPrinter::PrefixPrinter(Printer& printer, const char* prefix)
    : mPrinter(printer), mPrefix(prefix != nullptr ? prefix : "") {}

void PrefixPrinter::printLine(const char* string) {
  mPrinter.printFormatLine("%s%s", mPrefix, string != nullptr ? string : "");
}

}  // namespace android
