// zudebug-log crash and guards on records the library wrote in children: a crash on a
// pipeline thread symbolised to functions, inlined calls and source lines (also through
// a symbols tree for a stripped module), and the guard monitor's request and function
// timeouts with their stack dumps.
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "GuardMonitor.h"
#include "LogTool.h"
#include "TestSupport.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuDebugUtils.h"

using namespace zutest;
static constexpr size_t npos = std::string::npos;

namespace {

// The line of this file that holds `marker`.
int lineOf(const std::string& marker) {
  std::ifstream in(__FILE__);
  int n = 0;
  for (std::string line; std::getline(in, line);) {
    ++n;
    if (line.find(marker) != npos && line.find("lineOf(") == npos) return n;
  }
  return -1;
}

std::string selfExe() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : "";
}

// Sanitizers leave the fault to the catcher, as a device would.
const std::string kNoHandlers =
    "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";

volatile int* volatile gBadBuffer = reinterpret_cast<volatile int*>(16);
volatile int gSample = 3;

// Not instrumented, so that the fault is the store itself in every build.
__attribute__((always_inline, no_sanitize("address", "thread", "undefined"))) inline void storeSample(
    volatile int* buffer, int value) {
  buffer[0] = value;  // fault: the store
}

__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) void fillBuffer(int value) {
  storeSample(gBadBuffer, value);  // fault: inlined here
  asm volatile("");
}

}  // namespace

ZU_CHILD_TEST(LogToolCrashChild, CrashesOnAPipelineThread) {
  alarm(60);
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  ASSERT_EQ(0, debug->startOfflineLogger());
  zudebug::RegisterSignalHandlers();
  for (int i = 0; i < 5; ++i)
    zudebug::Log::logSystem(zudebug::ZU_GROUP_HAL, "I", "Main.cpp", "main", 1, "main thread line %d", i);
  std::thread([] {
    zudebug::Log::logSystem(zudebug::ZU_GROUP_HAL, "E", "Pipeline.cpp", "process", 2,
                            "frame 3 has no buffer");
    fillBuffer(gSample);  // fault: the call
    asm volatile("");     // no tail call: this frame stays on the stack
  }).join();
}

// The record of a real crash, symbolised: the faulting frame to the store (inlined),
// the frame that called it to the call; the lines before it from both threads.
TEST(LogToolCrash, RecordIsSymbolisedToFunctionsAndLines) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  ChildResult child = runChild("LogToolCrashChild.CrashesOnAPipelineThread", root,
                               {{"ZUDEBUG_FREE_MB", "100000"},
                                {"ASAN_OPTIONS", kNoHandlers},
                                {"TSAN_OPTIONS", kNoHandlers + ":report_signal_unsafe=0"}});
  ASSERT_TRUE(child.signaled() && child.termSignal() == SIGSEGV) << child.output;
  const std::string file = __FILE__;
  const std::string storeAt = file + ":" + std::to_string(lineOf("// fault: the store"));
  const std::string inlinedAt = file + ":" + std::to_string(lineOf("// fault: inlined here"));
  const std::string calledAt = file + ":" + std::to_string(lineOf("// fault: the call"));

  ProgramOutput r = zlog({"crash", "--context", "3", root.offlineDir()});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const std::string& out = r.out;
  EXPECT_NE(out.find("== crash 1 of 1: "), npos) << out;
  EXPECT_NE(out.find("signal 11 (SIGSEGV), code 1 (SEGV_MAPERR), fault addr 0x10 =="), npos) << out;
  // The three lines before it: two of the main thread, then the pipeline's error.
  const size_t context = out.find("-- 3 lines before it, from every thread --\n");
  ASSERT_NE(context, npos) << out;
  const size_t main3 = out.find("main thread line 3", context),
               main4 = out.find("main thread line 4", context);
  const size_t error = out.find("frame 3 has no buffer", context),
               record = out.find("-- the record", context);
  EXPECT_TRUE(main3 < main4 && main4 < error && error < record) << out;
  EXPECT_EQ(out.find("main thread line 2", context), npos);

  // The faulting frame: its own address, the store, inside the function it was inlined into.
  const size_t faulting = out.find("-- the record, faulting frame #");
  ASSERT_NE(faulting, npos) << out;
  const std::string frameNo = out.substr(faulting + 31, 2);
  const size_t frame = out.find("F DEBUG   : #" + frameNo + " pc ", faulting);
  ASSERT_NE(frame, npos);
  const size_t next = out.find("F DEBUG   : #", frame + 1);
  const std::string faultText = out.substr(frame, next - frame);
  EXPECT_NE(faultText.find("      storeSample at " + storeAt + ":"), npos) << faultText;
  EXPECT_NE(faultText.find("(inlined by) (anonymous namespace)::fillBuffer(int) at " + inlinedAt + ":"), npos)
      << faultText;
  // A calling frame is shown at its call instruction and looked up there: the call,
  // not what follows it.
  const size_t call = out.find(" at " + calledAt + ":");
  ASSERT_NE(call, npos) << out;
  EXPECT_NE(out.substr(out.rfind('\n', call), call - out.rfind('\n', call)).find("operator()"), npos) << out;
  EXPECT_NE(out.find("signal return trampoline"), npos) << out;

  // The same record from a device whose module is stripped on the device and whole in
  // a symbols tree that mirrors its path.
  const std::string stripped = root.path("device/vendor/bin/camera.provider");
  const std::string tree = root.path("symbols");
  root.writeFile("device/vendor/bin/camera.provider", readFile(selfExe()));
  root.writeFile("symbols" + stripped, readFile(selfExe()));
  ASSERT_EQ(runCapture({ZUDEBUG_OBJCOPY, "--strip-debug", stripped}).exitCode(), 0);
  std::string log;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.find("ZuCam_Debug_2") == 0) log += readFile(root.offlineDir() + "/" + name);
  for (size_t at = log.find(selfExe()); at != npos; at = log.find(selfExe(), at))
    log.replace(at, selfExe().size(), stripped);
  root.writeFile("device-log/ZuCam_Debug_2024-03-07--09-15-00-1.txt", log);
  r = zlog({"crash", "--context", "0", root.path("device-log")});
  EXPECT_EQ(r.out.find(storeAt), npos) << "no lines without the debug information";
  EXPECT_NE(r.out.find("fillBuffer(int)+0x"), npos) << r.out;
  r = zlog({"crash", "--context", "0", "--symbols", root.path("nowhere"), "--symbols", tree,
            root.path("device-log")});
  EXPECT_NE(r.out.find("(inlined by) (anonymous namespace)::fillBuffer(int) at " + inlinedAt + ":"), npos)
      << r.out;
  EXPECT_NE(r.out.find(" at " + storeAt + ":"), npos) << r.out;
  EXPECT_EQ(r.out.find("-- 0 lines before it"), r.out.find("-- ")) << r.out;
  // A module that is nowhere, and a log without a crash.
  root.writeFile("moved/ZuCam_Debug_2024-03-07--09-15-00-1.txt",
                 log.replace(log.find(stripped), stripped.size(), "/gone/lib.so"));
  r = zlog({"crash", root.path("moved")});
  EXPECT_NE(r.out.find("?? (module not found"), npos) << r.out;
  root.writeFile("calm/ZuCam_Debug_2024-03-07--09-15-00-1.txt",
                 "03-07 09:15:00:000000001  1  2 I t [l] quiet\n");
  r = zlog({"crash", root.path("calm")});
  EXPECT_EQ(r.exitCode(), 0);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("no crash record"), npos);
}

// A request that outlives its limit (reported), then a function guard that does (the
// process aborts after its report, as on a device).
ZU_CHILD_TEST(LogToolGuardChild, RequestAndFunctionTimeouts) {
  alarm(60);
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  ASSERT_EQ(0, debug->startOfflineLogger());
  zudebug::GuardMonitor* gm = zudebug::GuardMonitor::getSingleton();
  gm->registerReqGuard(zudebug::MODULE_ZUHAL_SESSION, zudebug::REQUEST_APP, 7, 0, nullptr);
  // The request's report ends with the process's stacks; the function guard opens
  // after them, so that the patrol has time to warn before its limit.
  for (int i = 0; i < 3000 && readFile(getenv("ZUDEBUG_LOGCAT")).find("NO EXIT: ----- end ") == npos; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  gm->unregisterReqGuard(zudebug::MODULE_ZUHAL_SESSION, zudebug::REQUEST_APP, 7);
  std::thread([gm] {
    prctl(PR_SET_NAME, "Pipeline", 0, 0, 0);
    int guardId = 0;
    gm->registerFuncGuard(zudebug::MODULE_ALGOFWK_CAPTURE_NODE, "processFrame", "frame 9", 30, 600, nullptr,
                          &guardId);
    std::this_thread::sleep_for(std::chrono::seconds(20));  // the monitor aborts first
    gm->unregisterFuncGuard(guardId);
  }).join();
}

TEST(LogToolGuards, TimeoutsWithTheirStackDumps) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"},
                 {"vendor.camera.debug.intms", "10"},
                 {"vendor.camera.debug.rwarnms", "50"},
                 {"persist.vendor.camera.debug.reqabortms", "600"},
                 {"persist.vendor.camera.debug.reqabortenable", "0"},
                 {"persist.vendor.camera.debug.apiabortenable", "1"}});
  ChildResult child = runChild("LogToolGuardChild.RequestAndFunctionTimeouts", root,
                               {{"ZUDEBUG_FREE_MB", "100000"},
                                {"ASAN_OPTIONS", kNoHandlers},
                                {"TSAN_OPTIONS", kNoHandlers + ":report_signal_unsafe=0"}});
  ASSERT_TRUE(child.signaled() && child.termSignal() == SIGABRT) << child.output;

  ProgramOutput r = zlog({"guards", root.offlineDir()});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const std::string& out = r.out;
  const size_t request = out.find("== timeout 1 of 2: request AppRequest:7, ");
  const size_t function = out.find("== timeout 2 of 2: function processFrame (\"frame 9\"), ");
  ASSERT_NE(request, npos) << out;
  ASSERT_NE(function, npos) << out;
  const std::string first = out.substr(request, function - request), second = out.substr(function);
  int executed = 0;
  ASSERT_EQ(sscanf(first.c_str() + first.find("   executed "), "   executed %d ms (limit 600 ms)", &executed),
            1)
      << first;
  EXPECT_GT(executed, 600);
  EXPECT_NE(first.find(" TOO LONG warning"), npos) << first;
  EXPECT_NE(first.find("----- end "), npos) << "the whole dump";
  // The function's thread by its id and name, marked in the dump.
  EXPECT_NE(second.find("; thread "), npos) << second;
  EXPECT_NE(second.find(" \"Pipeline\", module "), npos) << second;
  EXPECT_NE(second.find("\"Pipeline\" sysTid="), npos) << second;
  EXPECT_NE(second.find("   <-- the guarded thread"), npos) << second;
  EXPECT_NE(second.find("\n== timeouts per name ==\n"), npos) << second;
  EXPECT_NE(second.find("       1  function  processFrame\n"), npos) << second;
  EXPECT_NE(second.find("       1  request   AppRequest\n"), npos) << second;
}
