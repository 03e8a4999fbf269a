// Log groups, levels and masks: the group table, release detection, property
// reloads and the console half of the logging statements.
#include <cutils/properties.h>

#include <fstream>

#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zudebug;

TEST(Logging, GroupTableAndFileNames) {
  std::string table;
  for (unsigned int g : {1u,    2u,    4u,    8u,     16u,    32u, 64u, 128u,   256u,    512u, 1024u,
                         2048u, 4096u, 8192u, 16384u, 32768u, 0u,  3u,  65536u, 0xC000u, ~0u})
    table += std::string(Log::zuaGroupToString(g)) + Log::zuaGroupToTag(g) + "|";
  EXPECT_EQ(
      table,
      "[AlgoFwk]ZuAlgoEngine|[Plugin]ZuAlgoEngine|[Meta]ZuAlgoEngine|[Service]ZuCamService|[Debug]ZuCamDebug|"
      "[Core]ZuCamHAL|[HAL ]ZuCamHAL|[RT  ]ZuCamHAL|[Algorithm]ZuAlgoEngine|[CallStack][UNKNOWN]|"
      "[TBM ]ZuCamHAL|[AlgoFwkRT][UNKNOWN]|[OffCam]ZuAlgoEngine|[Sdk ]EcoEngine|[Perf]ZuCamPerf|"
      "[Perf]ZuAlgoPerf|[UNKNOWN][UNKNOWN]|[UNKNOWN][UNKNOWN]|[UNKNOWN][UNKNOWN]|[UNKNOWN][UNKNOWN]|"
      "[UNKNOWN][UNKNOWN]|");
  const char* bare = "name.x";
  EXPECT_STREQ(Log::getFileName("a/b/name.x"), "name.x");
  EXPECT_EQ(Log::getFileName(bare), bare);
  EXPECT_STREQ(Log::getFileName("/dir/"), "");
}

TEST(Logging, ReleaseBuildDetection) {
  const struct {
    const char *incremental, *type, *debuggable;
    bool release;
  } rows[] = {{"OS2.0.1", "userdebug", "1", true},  {"OS2.0.1.PRE", "userdebug", "1", false},
              {"V14.0.3", "userdebug", "1", false}, {"", "", "", false},
              {"OS2.0.1.PRE", "user", "0", true},   {"V1", "USER", "0", true},
              {"V1", "user", "1", false},           {"V1", "userdebug", "0", false}};
  for (const auto& r : rows) {
    property_set("ro.vendor.build.version.incremental", r.incremental);
    property_set("ro.build.type", r.type);
    property_set("ro.debuggable", r.debuggable);
    EXPECT_EQ(IsStandardReleaseVersion(), r.release) << r.incremental << " " << r.type << " " << r.debuggable;
  }
}

// Child: reloads the properties and writes "level mask traceGroups returned".
ZU_CHILD_TEST(Logging, ReloadChild) {
  int ret = Log::updateLogInfo();
  std::ofstream("result.txt") << gZuCamLogLevel << ' ' << gZuCamDebugMask << ' ' << g_traceInfo.traceGroups
                              << ' ' << g_traceInfo.reserved << ' ' << ret;
}

TEST(Logging, ReloadFollowsBuildKind) {
  const std::string user = "ro.build.type=user\nro.debuggable=0\n";
  const std::pair<std::string, const char*> rows[] = {
      {"persist.vendor.camera.zualgo.tracegroups=0x30", "3 4 48 0 48"},
      {user, "6 5 0 0 0"},
      {"persist.vendor.camera.logentry=1", "6 5 0 0 0"},
      {user + "persist.vendor.camera.logentry=0", "3 4 0 0 0"},
      {"ro.vendor.build.version.incremental=OS2.0.1\npersist.vendor.camera.prax.loglevel=2", "2 5 0 0 0"}};
  for (const auto& r : rows) {
    zutest::TempRoot root;
    // The load-time mask comes from the file (4); the property (5) wins only on reload in production.
    root.writeFile("odm/etc/camera/zorvex/praxsettings.json", R"({"offlinedebugmask": 4})");
    root.writeFile("props.txt", r.first + "\npersist.vendor.camera.offlinedebug.mask=5\n");
    zutest::ChildResult c = zutest::runChild("Logging.ReloadChild", root);
    ASSERT_EQ(c.exitCode(), 0) << c.output;
    EXPECT_EQ(zutest::readFile(root.path("result.txt")), r.second) << r.first;
    std::string logcat = zutest::readFile(root.logcatFile());
    EXPECT_NE(logcat.find("E/ZuCamDebug: ZuDebugUtils.cpp updateLogInfo():"), std::string::npos) << logcat;
    EXPECT_EQ(logcat.find("I/ZuCamDebug: ZuDebugUtils.cpp IsStandardReleaseVersion():") != std::string::npos,
              r.first.find("logentry") == std::string::npos);
  }
}

// Child: one statement of each kind after a reload; checks its own console lines.
ZU_CHILD_TEST(Logging, MacroChild) {
  Log::updateLogInfo();
  std::ofstream out("result.txt");
  int line = __LINE__ + 1;
  ZU_LOGE("T", ZU_GROUP_HAL, "e %d", 1);
  ZU_LOGW("T", ZU_GROUP_HAL, "w");
  ZU_LOGI("T", ZU_GROUP_HAL, "i");
  ZU_LOGD("T", ZU_GROUP_HAL, "d");
  ZU_LOGV("T", ZU_GROUP_HAL, "v");
  ZU_LOGE("T", ZU_GROUP_RT, "off by default");
  ZU_GLOGE(ZU_GROUP_SDK, "sdk");
  ZU_GLOGE(ZU_GROUP_CORE, "core");
  for (const std::string& l : zutest::readLines(getenv("ZUDEBUG_LOGCAT")))
    if (l.find(" logging_test.cpp:") != std::string::npos) out << l << '\n';
  out << "line " << line;
}

TEST(Logging, ConsoleLevelsAndGroups) {
  for (int level = 2; level <= 7; ++level) {
    for (const char* groups : {"", "0"}) {
      zutest::TempRoot root;
      root.writeFile("props.txt", "persist.vendor.camera.prax.loglevel=" + std::to_string(level) +
                                      (*groups ? "\npersist.vendor.camera.prax.groupsEnable=0" : ""));
      zutest::ChildResult c = zutest::runChild("Logging.MacroChild", root);
      ASSERT_EQ(c.exitCode(), 0) << c.output;
      std::vector<std::string> lines = zutest::readLines(root.path("result.txt"));
      ASSERT_FALSE(lines.empty());
      int n = std::stoi(lines.back().substr(5));
      std::vector<std::string> expect;
      auto at = [n](int k) { return std::to_string(n + k) + " TestBody()"; };
      if (*groups == '\0') {
        if (level < 7) expect.push_back("E/T: [HAL ] logging_test.cpp:" + at(0) + "e 1");
        if (level < 6) expect.push_back("W/T: [HAL ] logging_test.cpp:" + at(1) + "w");
        if (level < 5) expect.push_back("I/T: [HAL ] logging_test.cpp:" + at(2) + "i");
        if (level < 4) expect.push_back("D/T: [HAL ] logging_test.cpp:" + at(3) + "d");
        if (level < 3) expect.push_back("D/T: [HAL ] logging_test.cpp:" + at(4) + "v");
        if (level < 7) expect.push_back("E/ZuCamHAL: [Core] logging_test.cpp:" + at(7) + "core");
      }
      expect.push_back(lines.back());
      EXPECT_EQ(lines, expect) << "level " << level << " groups '" << groups << "'";
    }
  }
}
