// Cost of opening and closing guards, as a camera pipeline pays it on every call
// and every request: one register+unregister pair per iteration, with 1 and 2
// threads, offline logging off (mask 0) and on (mask 1, the guard's debug lines go
// to the offline log).
//
// The program re-runs itself inside a throw-away device root so that the offline
// logger has somewhere to write.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>

#include "GuardMonitor.h"
#include "ZuDebugUtils.h"

using namespace zudebug;

namespace {

void setOfflineLogging(const benchmark::State& state) {
  if (state.thread_index() == 0) gZuCamDebugMask = static_cast<uint32_t>(state.range(0));
}

void BM_FuncGuardPair(benchmark::State& state) {
  setOfflineLogging(state);
  GuardMonitor* gm = GuardMonitor::getSingleton();
  int id = 0;
  for (auto _ : state) {
    gm->registerFuncGuard(MODULE_ALGOFWK_COMMON, "processFrame", "frame 1024", 0, 0, nullptr, &id);
    gm->unregisterFuncGuard(id);
  }
  benchmark::DoNotOptimize(id);
}
BENCHMARK(BM_FuncGuardPair)->ArgName("offline")->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime();

// Typical host use: a nested guard inside an open outer one, with a callback.
void BM_FuncGuardNestedWithCallback(benchmark::State& state) {
  setOfflineLogging(state);
  GuardMonitor* gm = GuardMonitor::getSingleton();
  int outer = 0;
  int id = 0;
  gm->registerFuncGuard(MODULE_ALGOFWK_COMMON, "session", "session", 0, 0, nullptr, &outer);
  for (auto _ : state) {
    gm->registerFuncGuard(
        MODULE_ALGOFWK_COMMON, "processFrame", "frame 1024", 0, 0, [&id] { ++id; }, &id);
    gm->unregisterFuncGuard(id);
  }
  gm->unregisterFuncGuard(outer);
}
BENCHMARK(BM_FuncGuardNestedWithCallback)->ArgName("offline")->Arg(0)->Threads(1)->Threads(2)->UseRealTime();

void BM_ReqGuardPair(benchmark::State& state) {
  setOfflineLogging(state);
  GuardMonitor* gm = GuardMonitor::getSingleton();
  unsigned int id = static_cast<unsigned int>(state.thread_index()) << 24;
  for (auto _ : state) {
    gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, ++id, 0, nullptr);
    gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, id);
  }
}
BENCHMARK(BM_ReqGuardPair)->ArgName("offline")->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime();

// Re-runs the program with a fresh device root unless it already has one.
void enterDeviceRoot(char** argv) {
  if (getenv("ZUDEBUG_ROOT") != nullptr) return;
  char dir[] = "/tmp/zudebug-guard-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) return;
  std::string root = dir;
  mkdir((root + "/data").c_str(), 0755);
  mkdir((root + "/data/vendor").c_str(), 0755);
  mkdir((root + "/data/vendor/camera").c_str(), 0755);
  mkdir((root + "/data/vendor/camera/offlinelog").c_str(), 0755);
  std::ofstream(root + "/props.txt") << "persist.vendor.camera.offlinedebug.mask=1\n";
  setenv("ZUDEBUG_ROOT", root.c_str(), 1);
  setenv("ZUDEBUG_PROPS", (root + "/props.txt").c_str(), 1);
  setenv("ZUDEBUG_LOGCAT", (root + "/logcat.txt").c_str(), 1);
  fprintf(stderr, "device root: %s\n", root.c_str());
  if (chdir(dir) == 0) execv("/proc/self/exe", argv);
}

}  // namespace

int main(int argc, char** argv) {
  enterDeviceRoot(argv);
  Log::updateLogInfo();  // the device's console level: guard debug lines stay off the console
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->startOfflineLogger();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  GuardMonitor::getSingleton()->stop();
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->stopOfflineLogger();
  return 0;
}
