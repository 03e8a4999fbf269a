// A host source that includes the library's public headers first and the platform's
// own headers after them.
#define LOG_TAG "ZuPlatformCheck"

#include "zudebug_public_headers.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <log/log.h>
#include <utils/CallStack.h>
#include <utils/Errors.h>
#include <utils/Log.h>
#include <utils/Printer.h>
#include <utils/ProcessCallStack.h>
#include <utils/String8.h>
#include <utils/threads.h>

#include "PlatformCheck.h"

namespace {

class CountingPrinter : public android::Printer {
 public:
  void printLine(const char* line) override {
    if (line != nullptr && line[0] == '#') ++mFrames;
  }
  size_t frames() const { return mFrames; }

 private:
  size_t mFrames = 0;
};

}  // namespace

size_t platformStackLines() {
  android::CallStack stack;
  stack.update();
  CountingPrinter printer;
  stack.print(printer);
  ALOGI("platform call stack: %zu frames, %zu printed", stack.size(), printer.frames());
  return printer.frames() == stack.size() ? printer.frames() : 0;
}

void printStackThroughLibrary(const char* prefix) {
  android::CallStack stack;
  stack.update();
  zudebug::praxLogPrinter printer(prefix, ANDROID_LOG_INFO);
  stack.print(printer);
}
