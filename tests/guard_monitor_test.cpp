// Guard monitor. Each scenario runs in a child with its own load-time properties (a
// 5 ms patrol), mostly on a fake clock, and checks the child's own Android log.
#include <log/log.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "GuardMonitor.h"
#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zudebug;
using zutest::countSubstr;

namespace {

using Props = std::map<std::string, std::string>;

Props fastProps(const Props& extra = {}) {
  Props p = {{"vendor.camera.debug.intms", "5"},
             {"persist.vendor.camera.prax.loglevel", "0"},
             {"persist.vendor.camera.debug.apiabortenable", "0"}};
  for (const auto& kv : extra) p[kv.first] = kv.second;
  return p;
}

struct ChildRun {
  zutest::ChildResult result;
  std::string logcat;
  std::string offline;  // all offline log files
};

ChildRun runScenario(const std::string& child, const Props& props) {
  zutest::TempRoot root;
  root.setProps(props);
  ChildRun run{zutest::runChild("GuardMonitorChild." + child, root), zutest::readFile(root.logcatFile()), ""};
  for (const auto& f : zutest::listDir(root.offlineDir()))
    run.offline += zutest::readFile(root.offlineDir() + "/" + f);
  return run;
}

// A child's own assertions decide its exit status.
void expectPassed(const ChildRun& run) {
  EXPECT_TRUE(run.result.exited() && run.result.exitCode() == 0) << run.result.output;
  EXPECT_NE(run.result.output.find("[  PASSED  ] 1 test"), std::string::npos) << run.result.output;
}

// ---- child side ----

std::atomic<int64_t> gFakeMs{0};
void fakeClock(timespec* now) {
  int64_t ms = gFakeMs.load();
  now->tv_sec = static_cast<time_t>(100000 + ms / 1000);
  now->tv_nsec = static_cast<long>(ms % 1000) * 1000000;
}

std::string logcat() { return zutest::readFile(getenv("ZUDEBUG_LOGCAT")); }

bool waitForLog(const std::string& needle, size_t count = 1) {
  for (int i = 0; i < 6000; ++i) {
    if (countSubstr(logcat(), needle) >= count) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

void note(const char* text) { __android_log_print(ANDROID_LOG_INFO, "GuardTest", "%s", text); }

GuardMonitor* fakeTimeMonitor() {
  GuardMonitor::setMonotonicClock(&fakeClock);
  return GuardMonitor::getSingleton();
}

}  // namespace

TEST(GuardMonitor, LoadTimeSettings) {
  ChildRun defaults = runScenario("Stop", {{"vendor.camera.debug.intms", "2"},
                                           {"persist.vendor.camera.debug.apiabortms", "12ms"},
                                           {"persist.vendor.camera.debug.reqabortms", "0"}});
  expectPassed(defaults);
  EXPECT_EQ(countSubstr(defaults.logcat, "Running: func=4500,4500; req=10000,35000; Patrol every 5 ms"), 1u)
      << defaults.logcat;
  EXPECT_EQ(countSubstr(defaults.logcat, "Stopped: 0 threads, 0 requests, 0 guards in monitor"), 1u);

  ChildRun custom = runScenario("Stop", {{"vendor.camera.debug.intms", "7"},
                                         {"persist.vendor.camera.debug.apiabortms", "300"},
                                         {"persist.vendor.camera.debug.reqabortms", "-4"},
                                         {"vendor.camera.debug.rwarnms", "250"}});
  expectPassed(custom);
  EXPECT_EQ(countSubstr(custom.logcat, "Running: func=4500,300; req=250,35000; Patrol every 7 ms"), 1u)
      << custom.logcat;
}

TEST(GuardMonitorChild, Stop) {
  ZU_CHILD_ONLY();
  GuardMonitor::getSingleton()->stop();
}

TEST(GuardMonitor, FunctionGuards) { expectPassed(runScenario("FunctionGuards", fastProps())); }

TEST(GuardMonitorChild, FunctionGuards) {
  ZU_CHILD_ONLY();
  GuardMonitor* gm = fakeTimeMonitor();
  int ids[4] = {};
  gm->registerFuncGuard(
      MODULE_ALGOFWK_COMMON, "processRequest", "frame 7", 100, 200, [] { note("callback frame 7"); },
      &ids[0]);
  // A limit below the warning threshold yields to it: not overdue at 250 ms.
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "wait", "warn-wins", 400, 100, nullptr, &ids[1]);
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "third", "third", 120, 100000, nullptr, &ids[2]);
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "fourth", "fourth", 10, 20, nullptr, &ids[3]);
  for (int d = 1; d <= 4; ++d) EXPECT_EQ(ids[d - 1], d | (static_cast<int>(gettid()) << 8));

  gFakeMs = 150;
  ASSERT_TRUE(waitForLog("processRequest executed 150ms(>100ms) TOO LONG M[AlgoFwk-Common:3:frame 7]"));
  ASSERT_TRUE(waitForLog("third executed 150ms(>120ms) TOO LONG M[ZuHAL-Session:1:third]"));
  gm->unregisterFuncGuard(ids[3]);  // logged with the outermost frame's message
  EXPECT_EQ(countSubstr(logcat(),
                        "message frame 7, guardId: 0x" + (std::stringstream() << std::hex << ids[3]).str()),
            1u);

  // Overdue: reported on every pass while it stays open, callback first.
  gFakeMs = 250;
  const std::string timeout =
      "TIMEOUT tid=" + std::to_string(gettid()) + " frame 7, executed 250 ms. M[AlgoFwk-Common:3]";
  ASSERT_TRUE(waitForLog(timeout, 2));
  std::string log = logcat();
  EXPECT_LT(log.find("callback frame 7"), log.find(timeout));
  EXPECT_GE(countSubstr(log, "callback frame 7"), 2u);
  EXPECT_NE(log.find("printLine()frame 7: "), std::string::npos);  // the process's stacks
  EXPECT_EQ(countSubstr(log, "fourth executed"), 0u);
  EXPECT_EQ(countSubstr(log, "warn-wins, executed"), 0u);

  for (int d = 3; d >= 1; --d) gm->unregisterFuncGuard(ids[d - 1]);
  gm->stop();
  EXPECT_EQ(countSubstr(logcat(), "Stopped: 1 threads, 0 requests, 0 guards in monitor"), 1u) << logcat();
}

TEST(GuardMonitor, WarningsAreThrottled) { expectPassed(runScenario("Throttle", fastProps())); }

TEST(GuardMonitorChild, Throttle) {
  ZU_CHILD_ONLY();
  GuardMonitor* gm = fakeTimeMonitor();
  int id;
  // At 1000 ms: remaining 99000 (outer), 49000 (middle), 199000 (inner).
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "outer", "o", 100, 100000, nullptr, &id);
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "middle", "m", 100, 50000, nullptr, &id);
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "inner", "i", 100, 200000, nullptr, &id);
  gFakeMs = 1000;
  ASSERT_TRUE(waitForLog("middle executed", 40));
  gm->stop();  // every pass begun is logged in full
  std::string log = logcat();
  size_t passes = countSubstr(log, "middle executed");
  size_t outer = countSubstr(log, "outer executed");
  // The middle frame is logged on every pass, the others on every fourth.
  EXPECT_TRUE(outer == passes / 4 || outer == (passes + 3) / 4) << passes << " passes, " << outer;
  EXPECT_EQ(countSubstr(log, "inner executed"), outer);
}

TEST(GuardMonitor, RequestGuards) {
  expectPassed(runScenario("Requests", fastProps({{"vendor.camera.debug.rwarnms", "200"},
                                                  {"persist.vendor.camera.debug.reqabortms", "300000"}})));
}

TEST(GuardMonitorChild, Requests) {
  ZU_CHILD_ONLY();
  GuardMonitor* gm = fakeTimeMonitor();
  auto open = [&](unsigned id, int timeoutMs = 0) {
    gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, id, timeoutMs,
                         [](unsigned int rid) { note(("req callback " + std::to_string(rid)).c_str()); });
  };
  auto close = [&](unsigned id) { gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, id); };
  open(10);
  open(11);
  gFakeMs = 999;  // the oldest leaving within a second grants nothing
  close(10);
  ASSERT_TRUE(waitForLog("R AppRequest:11 executed 999 ms(>200) TOO LONG; compelledDelay = 0 ms"));
  open(12);
  gFakeMs = 1500;
  close(11);
  gFakeMs = 999 + 1800;
  ASSERT_TRUE(waitForLog("R AppRequest:12 executed 1800 ms(>1700) TOO LONG; compelledDelay = 1500 ms"));
  open(13);
  open(14);
  open(15);
  gFakeMs = 3000;
  close(14);  // not the oldest: the delay stays
  gFakeMs = 999 + 200000;
  close(12);  // capped
  ASSERT_TRUE(waitForLog("R AppRequest:13 executed 198200 ms(>120200) TOO LONG; compelledDelay = 120000 ms"));
  // Matched on the id alone.
  gm->modifyReqGuard(MODULE_ADAPTER_SESSION, REQUEST_VENDOR, 13, 150000);
  gFakeMs = 2799 + 280000;
  ASSERT_TRUE(waitForLog("R AppRequest:13 executed 280000 ms(>270000) TOO LONG"));

  // 15 is past its limit but not the oldest: it waits. A function guard counts passes.
  gm->modifyReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, 13, 500000);
  int fid;
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "passCounter", "", 1, 300000, nullptr, &fid);
  gFakeMs = 2799 + 520000;
  ASSERT_TRUE(waitForLog("passCounter executed", 20));
  EXPECT_EQ(countSubstr(logcat(), "TIMEOUT"), 0u);
  gm->unregisterFuncGuard(fid);
  close(13);
  const std::string report = "R AppRequest:15 executed 520000 ms(>420000) TIMEOUT";
  const std::string summary = "TIMEOUT R AppRequest:15 NO EXIT, executed 520000 ms";
  ASSERT_TRUE(waitForLog(summary));
  std::string log = logcat();
  EXPECT_LT(log.find(report), log.find("req callback 15"));
  EXPECT_LT(log.find("req callback 15"), log.find(summary));
  EXPECT_EQ(countSubstr(log, "req callback"), 1u);
  EXPECT_EQ(countSubstr(log, "compelledDelay = 999 ms") + countSubstr(log, "compelledDelay = 200000 ms"), 0u);
  gFakeMs += 3000;  // the next summary shows the monitor has forgotten it
  ASSERT_TRUE(waitForLog("Monitoring: 1 threads, 0 requests, 1 guards."));
  close(15);  // finds nothing: the count of open guards stays raised
  gm->stop();
  EXPECT_EQ(countSubstr(logcat(), "Stopped: 1 threads, 0 requests, 1 guards in monitor"), 1u) << logcat();
}

TEST(GuardMonitor, CapacityAndThreads) { expectPassed(runScenario("Capacity", fastProps())); }

TEST(GuardMonitorChild, Capacity) {
  ZU_CHILD_ONLY();
  GuardMonitor* gm = GuardMonitor::getSingleton();
  for (unsigned id = 100; id < 165; ++id)
    gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, id, 0, nullptr);
  std::thread([&] {
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, 164);  // was dropped
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, 100);  // closed on another thread
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, 101);     // type differs
    int id;
    gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "f", "closed", 0, 0, nullptr, &id);
    gm->unregisterFuncGuard(id);
  }).join();
  std::thread([&] {
    int id;
    gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "f", "left open", 0, 0, nullptr, &id);
  }).join();
  gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, 165, 0, nullptr);
  gm->stop();
  // Both threads' records are gone; the guard left open still counts.
  EXPECT_EQ(countSubstr(logcat(), "Stopped: 0 threads, 64 requests, 65 guards in monitor"), 1u) << logcat();
}

TEST(GuardMonitor, TimeoutAborts) {
  Props offline = {{"persist.vendor.camera.offlinedebug.mask", "1"}, {"vendor.camera.debug.intms", "5"}};
  ChildRun func = runScenario("Abort", offline);
  ASSERT_TRUE(func.result.signaled()) << func.result.output;
  EXPECT_EQ(func.result.termSignal(), SIGABRT);
  size_t callback = func.logcat.find("callback stuck");
  size_t report = func.logcat.find(" stuck frame, executed ");
  size_t fatal = func.logcat.find("F/Prax-GuardMonitor: [onTimeout] tid:");
  ASSERT_NE(fatal, std::string::npos) << func.logcat;
  EXPECT_LT(callback, report);
  EXPECT_LT(report, fatal);
  EXPECT_NE(func.logcat.find(" ms. M[AlgoFwk-Common:3]", fatal), std::string::npos);
  // The line logged just before the abort reached the offline log's file.
  EXPECT_GE(countSubstr(func.offline, "stuck frame, executed"), 1u);

  offline["persist.vendor.camera.debug.apiabortenable"] = "0";
  offline["persist.vendor.camera.debug.reqabortenable"] = "1";
  offline["persist.vendor.camera.debug.reqabortms"] = "100";
  ChildRun req = runScenario("Abort", offline);
  EXPECT_EQ(req.result.termSignal(), SIGABRT) << req.result.output;
  EXPECT_NE(req.logcat.find("F/Prax-GuardMonitor: [onTimeout] Req S2VRequest:7 executed "), std::string::npos)
      << req.logcat;
}

// Opens a stuck function guard and a stuck request; the properties decide which one
// ends the process.
TEST(GuardMonitorChild, Abort) {
  ZU_CHILD_ONLY();
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->startOfflineLogger();
  GuardMonitor* gm = GuardMonitor::getSingleton();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the patrol goes idle
  int id;
  gm->registerFuncGuard(
      MODULE_ALGOFWK_COMMON, "capture", "stuck frame", 100, 200, [] { note("callback stuck"); }, &id);
  gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_S2V, 7, 0, nullptr);
  std::this_thread::sleep_for(std::chrono::seconds(20));
  ADD_FAILURE() << "not aborted";
}

TEST(GuardMonitor, BadInput) {
  expectPassed(runScenario("BadInput", fastProps({{"persist.vendor.camera.debug.apiabortms", "100"},
                                                  {"persist.vendor.camera.debug.reqabortms", "100"},
                                                  {"vendor.camera.debug.rwarnms", "50"}})));
}

TEST(GuardMonitorChild, BadInput) {
  ZU_CHILD_ONLY();
  alarm(120);  // a deadlocked patrol ends the child instead of hanging the suite
  GuardMonitor* gm = GuardMonitor::getSingleton();

  std::thread([&] {
    gm->unregisterFuncGuard(0x1234);  // never opened one
    int id;
    gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "once", "once", 0, 0, nullptr, &id);
    gm->unregisterFuncGuard(id);
    gm->unregisterFuncGuard(id);  // unbalanced: nothing below it
    gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "again", "again", 0, 0, nullptr, nullptr);
    gm->unregisterFuncGuard(id);
  }).join();

  // Unnamed everything (the end markers have no name), and callbacks that throw or
  // open and close guards.
  int fid;
  gm->registerFuncGuard(
      MODULE_END, nullptr, nullptr, 1, 0, [] { throw 42; }, &fid);
  gm->registerReqGuard(static_cast<ModuleId>(9), REQUEST_END, 77, 0,
                       [](unsigned int) { throw std::runtime_error("boom"); });
  gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, 78, 0, [gm](unsigned int) {
    gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, 79, 0, nullptr);
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, 78);
    int id;
    gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "nested", "from callback", 0, 0, nullptr, &id);
    gm->unregisterFuncGuard(id);
  });
  EXPECT_TRUE(waitForLog("message: (null), guardId"));
  EXPECT_TRUE(waitForLog("(null) executed ") && waitForLog("TOO LONG M[(null):5:]"));
  EXPECT_TRUE(waitForLog("callback of (null) threw a non-standard exception"));
  EXPECT_TRUE(waitForLog("TIMEOUT tid=" + std::to_string(gettid()) + " , executed "));
  gm->unregisterFuncGuard(fid);
  EXPECT_TRUE(waitForLog("R (null):77 executed "));
  EXPECT_TRUE(waitForLog("TIMEOUT R (null):77 NO EXIT, executed "));
  EXPECT_TRUE(waitForLog("callback of R (null):77 NO EXIT threw: boom"));
  EXPECT_TRUE(waitForLog("TIMEOUT R AppRequest:79 NO EXIT"));
  gm->stop();
  EXPECT_EQ(countSubstr(logcat(), "Stopped: "), 1u);
}
