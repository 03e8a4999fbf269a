// Offline line emission: the layout of a line, the error-information file, and the
// escalation of error lines to the error service. Masks are read at load, so every
// case runs in a child process with its own device root and properties.
#include <cutils/properties.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <string>

#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zudebug;
using namespace zutest;

namespace {

const char* kErrorInfoRel = "data/vendor/camera/offlinelog/ZuCam_Debug_PraxErrorInfoDump.txt";

// The text log files of the Debug logger, oldest first, relative to the working directory.
std::string debugLogText() {
  std::string text;
  for (const std::string& name : listDir("data/vendor/camera/offlinelog"))
    if (name.rfind("ZuCam_Debug_2", 0) == 0) text += readFile("data/vendor/camera/offlinelog/" + name);
  return text;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
    lines.push_back(text.substr(start, nl - start));
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

// What follows the "MM-DD hh:mm:ss:nnnnnnnnn" stamp of a line; empty when it has none.
std::string afterStamp(const std::string& line) {
  const char* shape = "dd-dd dd:dd:dd:ddddddddd";
  const size_t n = strlen(shape);
  if (line.size() < n) return "";
  for (size_t i = 0; i < n; ++i)
    if (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(line[i])) : line[i] != shape[i]) return "";
  return line.substr(n);
}

void expectChildPassed(const ChildResult& r) { EXPECT_EQ(r.exitCode(), 0) << r.output; }

}  // namespace

// Child: logs through both overloads with offline logging on, then stops the logger so
// the lines reach the file, and checks them byte for byte.
TEST(LogEmission, LineLayoutChild) {
  ZU_CHILD_ONLY();
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  ASSERT_TRUE(debug->isEnabled());
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  Log::logSystem(64, "I", "cam.cpp", "open", 42, "value %d %s", 7, "seven");
  Log::logSystem(3, "W", "cam.cpp", "open", -1, "two bits");
  Log::logSystem(8192, "D", "short %d", 5);
  const std::string longText(2000, 'x');
  Log::logSystem(64, "D", "cam.cpp", "open", 43, "%s", longText.c_str());
  ZU_GLOGI(ZU_GROUP_SERVICE, "macro %d", 9);
  debug->stopOfflineLogger();

  const std::string text = debugLogText();
  const std::vector<std::string> lines = splitLines(text);
  ASSERT_EQ(lines.size(), 5u) << text;
  ASSERT_EQ(text.back(), '\n');
  char ids[64];
  snprintf(ids, sizeof(ids), "  %4d  %4d ", static_cast<int>(getpid()),
           static_cast<int>(syscall(SYS_gettid)));
  EXPECT_EQ(afterStamp(lines[0]), ids + std::string("I ZuCamHAL [HAL ] cam.cpp:42 open() value 7 seven"));
  EXPECT_EQ(afterStamp(lines[1]), ids + std::string("W [UNKNOWN] [UNKNOWN] cam.cpp:-1 open() two bits"));
  EXPECT_EQ(afterStamp(lines[2]), ids + std::string("D EcoEngine [Sdk ] short 5"));
  // Cut at 1021 characters; the length handed on counts the newline only.
  EXPECT_EQ(lines[3].size(), 1021u);
  EXPECT_EQ(lines[3].find('\0'), std::string::npos);
  EXPECT_EQ(lines[3].substr(lines[3].size() - 10), std::string(10, 'x'));
  const std::string macro = afterStamp(lines[4]);
  EXPECT_EQ(macro.find(ids + std::string("I ZuCamService [Service] log_emission_test.cpp:")), 0u) << macro;
  EXPECT_EQ(macro.substr(macro.size() - 19), " TestBody() macro 9");
  // Nothing of these reached the error-information file.
  struct stat st;
  EXPECT_TRUE(stat(kErrorInfoRel, &st) != 0 || readFile(kErrorInfoRel).find("cam.cpp") == std::string::npos);
}

TEST(LogEmission, LineLayout) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  expectChildPassed(runChild("LogEmission.LineLayoutChild", root));
}

// Child: an error line, an info line and a short-form error; what happened is checked
// by the parent through the files.
TEST(LogEmission, ErrorsChild) {
  ZU_CHILD_ONLY();
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  debug->startOfflineLogger();
  Log::logSystem(64, "I", "cam.cpp", "run", 10, "before the error");
  Log::logSystem(64, "E", "cam.cpp", "run", 11, "sensor %d lost", 2);
  // An escalated error forces the offline log to disk at once; leave it there.
  std::ofstream("after_error.txt") << debugLogText();
  Log::logSystem(16, "E", "short error %d", 3);
  Log::logSystem(64, "I", "cam.cpp", "run", 12, "after the error");
  debug->stopOfflineLogger();
  std::ofstream("after_stop.txt") << debugLogText();
}

TEST(LogEmission, ErrorFileAndEscalation) {
  // logsystem: 1 and 3 escalate, 2 does not; mask 0 keeps the error file only.
  const struct {
    const char* logsystem;
    const char* mask;
    bool escalates;
  } cases[] = {{"1", "1", true}, {"3", "5", true}, {"2", "1", false}, {"1", "0", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("logsystem ") + c.logsystem + " mask " + c.mask);
    TempRoot root;
    root.setProps({{"persist.vendor.camera.offlinedebug.mask", c.mask},
                   {"vendor.camera.sensor.logsystem", c.logsystem}});
    expectChildPassed(runChild("LogEmission.ErrorsChild", root));
    const bool offline = std::string(c.mask) != "0";

    // Only the full form writes the error file; each record is followed by an empty line.
    const std::string errors = readFile(root.path(kErrorInfoRel));
    const std::string record = " E ZuCamHAL [HAL ] cam.cpp:11 run() sensor 2 lost\n\n";
    const size_t at = errors.find(record);
    ASSERT_NE(at, std::string::npos) << errors;
    EXPECT_NE(afterStamp(errors.substr(errors.rfind('\n', at) + 1)), "") << errors;
    EXPECT_EQ(errors.find("short error"), std::string::npos);
    EXPECT_EQ(errors.find("before the error"), std::string::npos);
    struct stat st;
    ASSERT_EQ(stat(root.path(kErrorInfoRel).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);

    const std::string zebq = readFile(root.zebqFile());
    const std::string logcat = readFile(root.logcatFile());
    if (c.escalates) {
      // The report names origin and line but not the message; the short form reports the
      // line without its time stamp.
      EXPECT_EQ(zebq, "7 0 ZuCamHAL:[HAL ] cam.cpp:11 fail\n7 0 ZuCamDebug [Debug] short error 3\n\n");
      EXPECT_NE(logcat.find("I/ZuCamDebug: ZuDebugUtils.cpp logSystem():"), std::string::npos);
      EXPECT_NE(
          logcat.find(
              "[CAM_LOG_SYSTEM][PRAX] send error to ZEBQ CamErrorString: ZuCamHAL:[HAL ] cam.cpp:11 fail"),
          std::string::npos);
      // The forced flush wrote what was logged before the error, error included.
      const std::string early = readFile(root.path("after_error.txt"));
      EXPECT_NE(early.find("before the error"), std::string::npos);
      EXPECT_NE(early.find("sensor 2 lost"), std::string::npos);
    } else {
      // The short form escalates whatever the debug mask.
      EXPECT_EQ(zebq, std::string(c.logsystem) == "2" ? "" : "7 0 ZuCamDebug [Debug] short error 3\n\n");
      EXPECT_EQ(readFile(root.path("after_error.txt")), "");
    }
    const std::string all = readFile(root.path("after_stop.txt"));
    if (offline) {
      // Every line exactly once however many forced flushes ran.
      for (const char* text : {"before the error", "sensor 2 lost", "short error 3", "after the error"})
        EXPECT_EQ(countSubstr(all, text), 1u) << text << "\n" << all;
    } else {
      EXPECT_EQ(all, "");
    }
  }
}

// Child: logs with the group mask 0, then one error into an error file the parent
// prepared, and reports whether flush threads exist.
TEST(LogEmission, ErrorFileChild) {
  ZU_CHILD_ONLY();
  Log::logSystem(64, "E", "cam.cpp", "run", 1, "record");
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  EXPECT_FALSE(debug->isEnabled());
  EXPECT_FALSE(ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->isEnabled());
  EXPECT_EQ(listDir("/proc/self/task").size(), 1u) << "no flush thread without the debug mask";
}

TEST(LogEmission, ErrorFileLimitAndGroupMask) {
  const struct {
    size_t before;
    const char* groups;
    size_t after;
  } cases[] = {
      {524288, nullptr, 524288},  // at the limit: appended
      {524289, nullptr, 0},       // above it: emptied first
      {100, "0", 100},            // logging switched off: untouched
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.before);
    TempRoot root;
    if (c.groups) root.setProps({{"persist.vendor.camera.prax.groupsEnable", c.groups}});
    root.writeFile("odm/etc/camera/zorvex/praxsettings.json", "{}");  // no load-time errors
    root.writeFile(kErrorInfoRel, std::string(c.before, 'o'));
    expectChildPassed(runChild("LogEmission.ErrorFileChild", root));
    const std::string text = readFile(root.path(kErrorInfoRel));
    ASSERT_GE(text.size(), c.after);
    EXPECT_EQ(text.substr(0, c.after), std::string(c.after, 'o'));
    EXPECT_EQ(text.find("record") != std::string::npos, c.groups == nullptr);
    if (c.groups == nullptr) {
      EXPECT_EQ(text.substr(text.size() - 8), "record\n\n");
    }
  }
}
