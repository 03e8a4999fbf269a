// A host that has the platform's own headers: they come first here, every public header
// of the library after them (LibraryFirst.cpp has the other order). The program runs
// the library against the platform's libraries once: properties through libcutils'
// declarations, log lines through liblog, call stacks of libutils printed through the
// library's printer. Exit status 0 when all of it arrived.
#define LOG_TAG "ZuPlatformCheck"

#include <android/log.h>
#include <camlog/camlog.h>
#include <cutils/properties.h>
#include <log/log.h>
#include <log/log_read.h>
#include <processgroup/processgroup.h>
#include <sys/system_properties.h>
#include <utils/CallStack.h>
#include <utils/Errors.h>
#include <utils/Log.h>
#include <utils/Printer.h>
#include <utils/ProcessCallStack.h>
#include <utils/String8.h>
#include <utils/threads.h>

#include "zudebug_public_headers.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "PlatformCheck.h"

namespace {

int gFailures = 0;

void check(bool ok, const char* what) {
  if (ok) return;
  fprintf(stdout, "FAILED: %s\n", what);
  ++gFailures;
}

// Runs `body` with the process's stderr, where the platform's liblog writes on a
// host, going into a file; returns what was written.
template <typename Body>
std::string captureStderr(Body body) {
  fflush(stderr);
  FILE* sink = tmpfile();
  if (sink == nullptr) return "";
  const int saved = dup(STDERR_FILENO);
  dup2(fileno(sink), STDERR_FILENO);
  body();
  fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::string text;
  rewind(sink);
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), sink)) > 0) text.append(buf, n);
  fclose(sink);
  return text;
}

bool hasLineWith(const std::string& text, const char* a, const char* b) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    if (line.find(a) != std::string::npos && line.find(b) != std::string::npos) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

int main() {
  // libcutils' property calls, answered by the library's property store.
  check(property_set("vendor.camera.zudebug.check", "42") == 0, "property_set");
  check(property_get_int32("vendor.camera.zudebug.check", -1) == 42,
        "property_get_int32 reads the value set");
  char value[PROPERTY_VALUE_MAX];
  check(property_get("vendor.camera.zudebug.unset", value, "fallback") == 8 && strcmp(value, "fallback") == 0,
        "property_get falls back to the default");

  size_t frames = 0;
  const std::string log = captureStderr([&] {
    ALOGW("the platform's macro beside the library's");
    ZU_GLOGE(zudebug::ZU_GROUP_HAL, "the library's macro beside the platform's: %d", 42);
    frames = platformStackLines();
    printStackThroughLibrary(" printer");
    zudebug::dumpThreadCallStack(-1, 0, " thread", ANDROID_LOG_INFO);
  });
  fputs(log.c_str(), stdout);

  check(hasLineWith(log, LOG_TAG, "the platform's macro beside the library's"), "ALOGW reaches liblog");
  check(hasLineWith(log, "[HAL ]", "the library's macro beside the platform's: 42"),
        "ZU_GLOGE reaches liblog");
  check(frames > 0, "the platform's CallStack prints every frame it captured through a host printer");
  check(hasLineWith(log, "[CallStack]", " printer: #00 pc "),
        "the library's printer receives the lines of the platform's CallStack");
  check(hasLineWith(log, "[CallStack]", " thread: #00 pc "),
        "dumpThreadCallStack logs the platform's CallStack of the calling thread");

  if (gFailures != 0) return 1;
  printf("platform headers check: %zu public headers beside the platform's, %zu frames: ok\n",
         static_cast<size_t>(ZUDEBUG_PUBLIC_HEADER_COUNT), frames);
  return 0;
}
