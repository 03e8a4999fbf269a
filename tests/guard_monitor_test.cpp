// Guard monitor. Each scenario runs in a child with its own load-time properties (a
// 5 ms patrol, aborts off unless asked), mostly on a fake clock, and checks the
// child's own Android log.
#include <log/log.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "GuardMonitor.h"
#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zudebug;
using zutest::countSubstr;
using zutest::inChild;

namespace {

struct ChildRun {
  zutest::ChildResult result;
  std::string logcat, offline;  // the child's Android log; all its offline log files
};

// Runs GuardMonitor.<test> in a child; `props` are laid over the fast defaults.
ChildRun runScenario(const std::string& test, const std::map<std::string, std::string>& props) {
  zutest::TempRoot root;
  std::map<std::string, std::string> p = props;
  p.insert({{"vendor.camera.debug.intms", "5"},
            {"persist.vendor.camera.prax.loglevel", "0"},
            {"persist.vendor.camera.debug.apiabortenable", "0"}});
  root.setProps(p);
  ChildRun run{zutest::runChild("GuardMonitor." + test, root), zutest::readFile(root.logcatFile()), ""};
  for (const auto& f : zutest::listDir(root.offlineDir()))
    run.offline += zutest::readFile(root.offlineDir() + "/" + f);
  return run;
}

// The child's own assertions decide its exit status; `running` is the start-up line
// its load-time properties should give.
void expectPassed(const ChildRun& run, const std::string& running = "") {
  EXPECT_TRUE(run.result.exited() && run.result.exitCode() == 0 &&
              run.result.output.find("[  PASSED  ] 1 test") != std::string::npos)
      << run.result.output;
  EXPECT_EQ(running.empty() ? 1u : countSubstr(run.logcat, "Running: " + running), 1u) << run.logcat;
}

// ---- child side ----

std::atomic<int64_t> gFakeMs{0};
GuardMonitor* fakeTimeMonitor() {
  GuardMonitor::setMonotonicClock([](timespec* now) {
    int64_t ms = gFakeMs.load();
    now->tv_sec = static_cast<time_t>(100000 + ms / 1000);
    now->tv_nsec = static_cast<long>(ms % 1000) * 1000000;
  });
  return GuardMonitor::getSingleton();
}

std::string logcat() { return zutest::readFile(getenv("ZUDEBUG_LOGCAT")); }

bool waitForLog(const std::string& needle, size_t count = 1) {
  for (int i = 0; i < 6000 && countSubstr(logcat(), needle) < count; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return countSubstr(logcat(), needle) >= count;
}

void note(const std::string& text) { __android_log_print(ANDROID_LOG_INFO, "GuardTest", "%s", text.c_str()); }

}  // namespace

// Four nested guards (the fourth counted, not watched), then 65 request guards (the
// last dropped), closes from another thread and its exit. The patrol period is raised
// to 5 ms; an unparsable or negative timeout falls back to the default.
TEST(GuardMonitor, RegistryAndFunctionTimeouts) {
  if (!inChild())
    return expectPassed(
        runScenario("RegistryAndFunctionTimeouts", {{"vendor.camera.debug.intms", "2"},
                                                    {"persist.vendor.camera.debug.apiabortms", "-4"},
                                                    {"persist.vendor.camera.debug.reqabortms", "12ms"}}),
        "func=4500,4500; req=10000,35000; Patrol every 5 ms");
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
  char closed[64];
  snprintf(closed, sizeof closed, "message frame 7, guardId: 0x%x", ids[3]);
  EXPECT_EQ(countSubstr(logcat(), closed), 1u);

  // Overdue: reported on every pass while it stays open, callback first.
  gFakeMs = 250;
  const std::string timeout =
      "TIMEOUT tid=" + std::to_string(gettid()) + " frame 7, executed 250 ms. M[AlgoFwk-Common:3]";
  ASSERT_TRUE(waitForLog(timeout, 2));
  std::string log = logcat();
  EXPECT_LT(log.find("callback frame 7"), log.find(timeout));
  EXPECT_GE(countSubstr(log, "callback frame 7"), 2u);
  EXPECT_NE(log.find("printLine()frame 7: "), std::string::npos);  // the process's stacks
  EXPECT_EQ(countSubstr(log, "fourth executed") + countSubstr(log, "warn-wins, executed"), 0u);
  for (int d = 3; d >= 1; --d) gm->unregisterFuncGuard(ids[d - 1]);

  for (unsigned id = 100; id < 165; ++id)
    gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, id, 0, nullptr);
  std::thread([&] {
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, 164);  // was dropped
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, 100);  // closed on another thread
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, 101);     // type differs
    gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "f", "left open", 0, 0, nullptr, &ids[0]);
  }).join();
  gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_VENDOR, 165, 0, nullptr);
  gm->stop();
  // The exited thread's record is gone; the guard it left open still counts.
  EXPECT_EQ(countSubstr(logcat(), "Stopped: 1 threads, 64 requests, 65 guards in monitor"), 1u) << logcat();
}

// Compelled delays of 999, 1500 and 200000 ms; only the oldest request times out; the
// warnings of three long runners are throttled.
TEST(GuardMonitor, RequestTimeoutsAndThrottledWarnings) {
  if (!inChild())
    return expectPassed(runScenario("RequestTimeoutsAndThrottledWarnings",
                                    {{"vendor.camera.debug.intms", "6"},
                                     {"persist.vendor.camera.debug.apiabortms", "300"},
                                     {"vendor.camera.debug.rwarnms", "200"},
                                     {"persist.vendor.camera.debug.reqabortms", "300000"}}),
                        "func=4500,300; req=200,300000; Patrol every 6 ms");
  GuardMonitor* gm = fakeTimeMonitor();
  auto open = [&](unsigned id) {
    gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, id, 0,
                         [](unsigned int rid) { note("req callback " + std::to_string(rid)); });
  };
  auto close = [&](unsigned id) { gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, id); };
  for (unsigned id : {10, 11}) open(id);
  gFakeMs = 999;  // the oldest leaving within a second grants nothing
  close(10);
  ASSERT_TRUE(waitForLog("R AppRequest:11 executed 999 ms(>200) TOO LONG; compelledDelay = 0 ms"));
  open(12);
  gFakeMs = 1500;
  close(11);
  gFakeMs = 999 + 1800;
  ASSERT_TRUE(waitForLog("R AppRequest:12 executed 1800 ms(>1700) TOO LONG; compelledDelay = 1500 ms"));
  for (unsigned id : {13, 14, 15}) open(id);
  gFakeMs = 3000;
  close(14);  // not the oldest: the delay stays
  gFakeMs = 999 + 200000;
  close(12);  // capped
  ASSERT_TRUE(waitForLog("R AppRequest:13 executed 198200 ms(>120200) TOO LONG; compelledDelay = 120000 ms"));
  gm->modifyReqGuard(MODULE_ADAPTER_SESSION, REQUEST_VENDOR, 13, 150000);  // matched on the id alone
  gFakeMs = 2799 + 280000;
  ASSERT_TRUE(waitForLog("R AppRequest:13 executed 280000 ms(>270000) TOO LONG"));

  // 15 is past its limit but not the oldest: it waits while the runners count passes.
  // Remaining at 240000 ms: outer 99000, middle 49000, inner 199000.
  gm->modifyReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, 13, 500000);
  int id;
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "outer", "o", 100, 339000, nullptr, &id);
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "middle", "m", 100, 289000, nullptr, &id);
  gm->registerFuncGuard(MODULE_ZUHAL_SESSION, "inner", "i", 100, 439000, nullptr, &id);
  gFakeMs = 2799 + 520000;
  ASSERT_TRUE(waitForLog("middle executed", 40));
  EXPECT_EQ(countSubstr(logcat(), "TIMEOUT"), 0u);
  close(13);
  const std::string summary = "TIMEOUT R AppRequest:15 NO EXIT, executed 520000 ms";
  ASSERT_TRUE(waitForLog(summary));
  std::string log = logcat();
  EXPECT_LT(log.find("R AppRequest:15 executed 520000 ms(>420000) TIMEOUT"), log.find("req callback 15"));
  EXPECT_LT(log.find("req callback 15"), log.find(summary));
  EXPECT_EQ(countSubstr(log, "req callback"), 1u);
  gFakeMs += 3000;  // the next summary shows the monitor has forgotten it
  ASSERT_TRUE(waitForLog("Monitoring: 1 threads, 0 requests, 4 guards."));
  close(15);   // finds nothing: the count of open guards stays raised
  gm->stop();  // every pass begun is logged in full
  log = logcat();
  EXPECT_EQ(countSubstr(log, "Stopped: 1 threads, 0 requests, 4 guards in monitor"), 1u) << log;
  // The middle frame is logged on every pass, the others on every fourth.
  size_t passes = countSubstr(log, "middle executed"), outer = countSubstr(log, "outer executed");
  EXPECT_TRUE(outer == passes / 4 || outer == (passes + 3) / 4) << passes << " passes, " << outer;
  EXPECT_EQ(countSubstr(log, "inner executed"), outer);
}

// A stuck function guard and a stuck request; the properties decide which one ends
// the process, after the offline log is written out.
TEST(GuardMonitor, TimeoutAborts) {
  if (inChild()) {
    ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->startOfflineLogger();
    GuardMonitor* gm = GuardMonitor::getSingleton();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the patrol goes idle
    int id;
    gm->registerFuncGuard(
        MODULE_ALGOFWK_COMMON, "capture", "stuck frame", 100, 200, [] { note("callback stuck"); }, &id);
    gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_S2V, 7, 0, nullptr);
    std::this_thread::sleep_for(std::chrono::seconds(20));
    FAIL() << "not aborted";
  }
  ChildRun func = runScenario("TimeoutAborts", {{"persist.vendor.camera.offlinedebug.mask", "1"},
                                                {"persist.vendor.camera.debug.apiabortenable", "1"}});
  ASSERT_TRUE(func.result.signaled()) << func.result.output;
  EXPECT_EQ(func.result.termSignal(), SIGABRT);
  size_t fatal = func.logcat.find("F/Prax-GuardMonitor: [onTimeout] tid:");
  ASSERT_NE(fatal, std::string::npos) << func.logcat;
  EXPECT_LT(func.logcat.find("callback stuck"), func.logcat.find(" stuck frame, executed "));
  EXPECT_LT(func.logcat.find(" stuck frame, executed "), fatal);
  EXPECT_NE(func.logcat.find(" ms. M[AlgoFwk-Common:3]", fatal), std::string::npos);
  EXPECT_GE(countSubstr(func.offline, "stuck frame, executed"), 1u);  // logged just before the abort

  ChildRun req = runScenario("TimeoutAborts", {{"persist.vendor.camera.debug.reqabortenable", "1"},
                                               {"persist.vendor.camera.debug.reqabortms", "100"}});
  EXPECT_EQ(req.result.termSignal(), SIGABRT) << req.result.output;
  EXPECT_NE(req.logcat.find("F/Prax-GuardMonitor: [onTimeout] Req S2VRequest:7 executed "), std::string::npos)
      << req.logcat;
}

TEST(GuardMonitor, BadInput) {
  if (!inChild())
    return expectPassed(runScenario("BadInput", {{"persist.vendor.camera.debug.apiabortms", "100"},
                                                 {"persist.vendor.camera.debug.reqabortms", "100"},
                                                 {"vendor.camera.debug.rwarnms", "50"}}));
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
  const std::string tid = std::to_string(gettid());
  for (const std::string& line : std::vector<std::string>{
           "message: (null), guardId", "(null) executed ", "TOO LONG M[(null):5:]",
           "callback of (null) threw a non-standard exception", "TIMEOUT tid=" + tid + " , executed "})
    EXPECT_TRUE(waitForLog(line)) << line;
  gm->unregisterFuncGuard(fid);
  for (const char* line : {"R (null):77 executed ", "TIMEOUT R (null):77 NO EXIT, executed ",
                           "callback of R (null):77 NO EXIT threw: boom", "TIMEOUT R AppRequest:79 NO EXIT"})
    EXPECT_TRUE(waitForLog(line)) << line;
  gm->stop();  // the patrol is still alive to be joined
}
