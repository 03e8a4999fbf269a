// Host copy of libutils' Printer: a sink that receives text one line at a time.
#pragma once

#include <log/log.h>

namespace android {

class String8;

// Interface for printing to an arbitrary data stream.
class Printer {
 public:
  // Prints one line of text; the line carries no trailing newline.
  virtual void printLine(const char* string = "") = 0;
  // Formats one line and hands it to printLine.
  virtual void printFormatLine(const char* format, ...) __attribute__((format(printf, 2, 3)));

 protected:
  Printer();
  virtual ~Printer();
};

// Prints each line to the Android log under one tag and priority.
class LogPrinter : public Printer {
 public:
  LogPrinter(const char* logtag, android_LogPriority priority = ANDROID_LOG_DEBUG,
             const char* prefix = nullptr, bool ignoreBlankLines = false);
  void printLine(const char* string) override;

 private:
  void printRaw(const char* string);
  const char* mLogTag;
  android_LogPriority mPriority;
  const char* mPrefix;
  bool mIgnoreBlankLines;
};

// Prints each line to a file descriptor behind its prefix, left-aligned in a field
// `indent` characters wide.
class FdPrinter : public Printer {
 public:
  FdPrinter(int fd, unsigned int indent = 0, const char* prefix = nullptr);
  void printLine(const char* string) override;

 private:
  enum { MAX_FORMAT_STRING = 20 };
  int mFd;
  unsigned int mIndent;
  const char* mPrefix;
  char mFormatString[MAX_FORMAT_STRING];
};

// Appends each line, prefixed and newline-terminated, to a String8.
class String8Printer : public Printer {
 public:
  String8Printer(String8* target, const char* prefix = nullptr);
  void printLine(const char* string) override;

 private:
  String8* mTarget;
  const char* mPrefix;
};

// Adds a prefix to each line before passing it on to another printer.
class PrefixPrinter : public Printer {
 public:
  PrefixPrinter(Printer& printer, const char* prefix);
  void printLine(const char* string) override;

 private:
  Printer& mPrinter;
  const char* mPrefix;
};

}  // namespace android
