// Offline line emission: the layout of a line, the error-information file, and the
// escalation of error lines to the error service. Masks are read at load, so every
// case runs in a child process with its own device root and properties.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zudebug;
using namespace zutest;

namespace {

const std::string kDir = "data/vendor/camera/offlinelog/";
const std::string kErrorInfo = kDir + "ZuCam_Debug_PraxErrorInfoDump.txt";

// The text log files of the Debug logger, relative to the working directory.
std::string debugLogText() {
  std::string text;
  for (const std::string& name : listDir(kDir))
    if (name.rfind("ZuCam_Debug_2", 0) == 0) text += readFile(kDir + name);
  return text;
}

// What follows the "MM-DD hh:mm:ss:nnnnnnnnn" stamp of a line; empty when it has none.
std::string afterStamp(const std::string& line) {
  const std::string shape = "dd-dd dd:dd:dd:ddddddddd";
  bool ok = line.size() > shape.size();
  for (size_t i = 0; ok && i < shape.size(); ++i)
    ok = shape[i] == 'd' ? line[i] >= '0' && line[i] <= '9' : line[i] == shape[i];
  return ok ? line.substr(shape.size()) : "";
}

ZuDebugInterface* debug() { return ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug); }

// Runs a child scenario in a fresh root with offline logging on; it must pass.
void expectMaskedChildPasses(const std::string& child) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  const ChildResult r = runChild(child, root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
}

}  // namespace

// Child: a thread keeps the origins of its call sites; whatever the cache holds, every
// line must carry the site it was logged from: sites that share a slot, more sites than
// the cache holds, a caller reusing one buffer for new names, names too long to keep,
// missing names, and another level at the same site.
ZU_CHILD_TEST(LogEmission, CallSiteOriginsChild) {
  ASSERT_EQ(debug()->startOfflineLogger(), 0);
  std::vector<std::string> want;
  char id[64];
  snprintf(id, sizeof(id), "  %4d  %4d ", static_cast<int>(getpid()), static_cast<int>(syscall(SYS_gettid)));
  static const char* const kFiles[] = {"a.cpp", "b.cpp", "c.cpp"};
  for (int round = 0; round < 3; ++round) {
    for (int site = 0; site < 50; ++site) {
      const char* file = kFiles[site % 3];
      Log::logSystem(64, "I", file, "run", site, "r%d", round);
      want.push_back(std::string(id) + "I ZuCamHAL [HAL ] " + file + ":" + std::to_string(site) + " run() r" +
                     std::to_string(round));
    }
  }
  char file[32];
  char func[32];
  for (int i = 0; i < 4; ++i) {
    snprintf(file, sizeof(file), i % 2 ? "odd_%d.cpp" : "even%d.cpp", i);
    snprintf(func, sizeof(func), "step%d", i * 11);
    Log::logSystem(32, i == 3 ? "E" : "D", file, func, 7, "same buffers");
    want.push_back(std::string(id) + (i == 3 ? "E" : "D") + " ZuCamHAL [Core] " + file + ":7 " + func +
                   "() same buffers");
  }
  const std::string longFunc(300, 'f');
  for (int i = 0; i < 2; ++i) {
    Log::logSystem(16, "W", "long.cpp", longFunc.c_str(), 9, "long %d", i);
    want.push_back(std::string(id) + "W ZuCamDebug [Debug] long.cpp:9 " + longFunc + "() long " +
                   std::to_string(i));
  }
  Log::logSystem(64, "I", nullptr, nullptr, 5, "no names");
  want.push_back(std::string(id) + "I ZuCamHAL [HAL ] :5 () no names");
  Log::logSystem(64, "I", "a.cpp", "run", 0, "level I");
  Log::logSystem(64, "D", "a.cpp", "run", 0, "level D");
  want.push_back(std::string(id) + "I ZuCamHAL [HAL ] a.cpp:0 run() level I");
  want.push_back(std::string(id) + "D ZuCamHAL [HAL ] a.cpp:0 run() level D");
  debug()->stopOfflineLogger();

  std::istringstream in(debugLogText());
  std::vector<std::string> got;
  for (std::string l; std::getline(in, l);) got.push_back(afterStamp(l));
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(got[i], want[i]) << "line " << i;
}

TEST(LogEmission, CallSiteOrigins) { expectMaskedChildPasses("LogEmission.CallSiteOriginsChild"); }

// Child: logs through both overloads and the macro, stops the logger so the lines
// reach the file, and checks them byte for byte.
ZU_CHILD_TEST(LogEmission, LineLayoutChild) {
  ASSERT_EQ(debug()->startOfflineLogger(), 0);
  Log::logSystem(64, "I", "cam.cpp", "open", 42, "value %d %s", 7, "seven");
  Log::logSystem(3, "W", "cam.cpp", "open", -1, "two bits");
  Log::logSystem(8192, "D", "short %d", 5);
  Log::logSystem(64, "D", "cam.cpp", "open", 43, "%s", std::string(2000, 'x').c_str());
  const int macroLine = __LINE__ + 1;
  ZU_GLOGI(ZU_GROUP_SERVICE, "macro %d", 9);
  debug()->stopOfflineLogger();

  const std::string text = debugLogText();
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  ASSERT_TRUE(lines.size() == 5 && text.back() == '\n') << text;
  char id[64];
  snprintf(id, sizeof(id), "  %4d  %4d ", static_cast<int>(getpid()), static_cast<int>(syscall(SYS_gettid)));
  EXPECT_EQ(afterStamp(lines[0]), std::string(id) + "I ZuCamHAL [HAL ] cam.cpp:42 open() value 7 seven");
  EXPECT_EQ(afterStamp(lines[1]), std::string(id) + "W [UNKNOWN] [UNKNOWN] cam.cpp:-1 open() two bits");
  EXPECT_EQ(afterStamp(lines[2]), std::string(id) + "D EcoEngine [Sdk ] short 5");
  // Cut at 1021 characters; the length handed on counts the newline only (no zero inside).
  EXPECT_EQ(lines[3].size(), 1021u);
  EXPECT_EQ(lines[3].find_first_not_of('x', lines[3].find(" open() ") + 8), std::string::npos);
  EXPECT_EQ(afterStamp(lines[4]), std::string(id) + "I ZuCamService [Service] log_emission_test.cpp:" +
                                      std::to_string(macroLine) + " TestBody() macro 9");
}

TEST(LogEmission, LineLayout) { expectMaskedChildPasses("LogEmission.LineLayoutChild"); }

// Child: an info line, a full-form and a short-form error, another info line; the
// parent checks the files. Without the debug mask or groups no flush thread may exist.
ZU_CHILD_TEST(LogEmission, ErrorsChild) {
  const bool enabled = std::string(getenv("ENABLED")) == "1";
  EXPECT_EQ(debug()->isEnabled(), enabled);
  EXPECT_EQ(ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->isEnabled(), enabled);
  debug()->startOfflineLogger();
  Log::logSystem(64, "I", "cam.cpp", "run", 10, "before the error");
  Log::logSystem(64, "E", "cam.cpp", "run", 11, "sensor %d lost", 2);
  // An escalated error forces the offline log to disk at once; keep what is there.
  std::ofstream("after_error.txt") << debugLogText();
  Log::logSystem(16, "E", "short error %d", 3);
  Log::logSystem(64, "I", "cam.cpp", "run", 12, "after the error");
  debug()->stopOfflineLogger();
  std::ofstream("after_stop.txt") << debugLogText();
  EXPECT_TRUE(enabled || ownThreadCount() == 1u) << "no flush thread without the debug mask";
}

TEST(LogEmission, ErrorFileAndEscalation) {
  // logsystem 1 and 3 escalate, 2 does not; mask 0 keeps the error file and the short
  // form's report only; group mask 0 does nothing at all. The error file is emptied
  // first when above 512 KiB, appended to at the limit.
  const struct {
    const char *logsystem, *mask, *groups;
    size_t before, kept;
    bool full, shortForm;  // which reports reach the error service
  } cases[] = {{"1", "1", "54911", 524288, 524288, true, true},
               {"3", "5", "54911", 524289, 0, true, true},
               {"2", "1", "54911", 100, 100, false, false},
               {"1", "0", "54911", 0, 0, false, true},
               {"1", "1", "0", 100, 100, false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("logsystem ") + c.logsystem + " mask " + c.mask + " groups " + c.groups);
    const bool logging = std::string(c.groups) != "0", offline = logging && std::string(c.mask) != "0";
    TempRoot root;
    root.setProps({{"persist.vendor.camera.offlinedebug.mask", c.mask},
                   {"vendor.camera.sensor.logsystem", c.logsystem},
                   {"persist.vendor.camera.prax.groupsEnable", c.groups}});
    root.writeFile("odm/etc/camera/zorvex/praxsettings.json", "{}");  // no load-time errors
    if (c.before) root.writeFile(kErrorInfo, std::string(c.before, 'o'));
    const ChildResult r = runChild("LogEmission.ErrorsChild", root, {{"ENABLED", offline ? "1" : "0"}});
    EXPECT_EQ(r.exitCode(), 0) << r.output;

    // Only the full-form error is recorded, stamped and followed by an empty line.
    const std::string errors = readFile(root.path(kErrorInfo));
    const std::string added = errors.substr(std::min(c.kept, errors.size()));
    EXPECT_EQ(errors.substr(0, c.kept), std::string(c.kept, 'o'));
    const std::string stamped = afterStamp(added);  // then "  pid   tid E "
    EXPECT_EQ(
        logging ? stamped.substr(std::min(stamped.find_first_not_of(" 0123456789"), stamped.size())) : added,
        logging ? "E ZuCamHAL [HAL ] cam.cpp:11 run() sensor 2 lost\n\n" : "");
    struct stat st;
    EXPECT_TRUE(c.before || (stat(root.path(kErrorInfo).c_str(), &st) == 0 && (st.st_mode & 0777) == 0666));

    // The full report names origin and line but not the message; the short one is the
    // line without its time stamp.
    EXPECT_EQ(readFile(root.zebqFile()), std::string(c.full ? "7 0 ZuCamHAL:[HAL ] cam.cpp:11 fail\n" : "") +
                                             (c.shortForm ? "7 0 ZuCamDebug [Debug] short error 3\n\n" : ""));
    for (const char* piece : {"I/ZuCamDebug: ZuDebugUtils.cpp logSystem():",
                              "[CAM_LOG_SYSTEM][PRAX] send error to ZEBQ CamErrorString: "})
      EXPECT_EQ(countSubstr(readFile(root.logcatFile()), piece), size_t{c.full} + c.shortForm) << piece;
    // An escalated full-form error forced what was logged so far, itself included, to disk.
    const std::string early = readFile(root.path("after_error.txt"));
    EXPECT_EQ(countSubstr(early, "before the error") + countSubstr(early, "sensor 2 lost"), c.full ? 2u : 0u);
    // Every line exactly once however many forced flushes ran.
    const std::string all = readFile(root.path("after_stop.txt"));
    for (const char* text : {"before the error", "sensor 2 lost", "short error 3", "after the error"})
      EXPECT_EQ(countSubstr(all, text), offline ? 1u : 0u) << text << "\n" << all;
  }
}
