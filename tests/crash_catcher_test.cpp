// The crash catcher against the faults that hurt most, one row each: each runs the
// crash scenario program (catcher installed after a handler of its own, loggers
// running) and checks the record, the hand-over, the way the process died, the
// allocations inside the catcher and the stack it used.
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>

#include <algorithm>
#include <map>
#include <string>
#include <string.h>
#include <vector>

#include "CrashScenario.h"
#include "TestSupport.h"

using namespace zutest;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

using crashscenario::Scenario;

constexpr uint64_t kStackLimit = 8 * 1024;

std::string debugFiles(const TempRoot& root) {
  std::string log;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.rfind("ZuCam_Debug_", 0) == 0 && name.find("ErrorInfo") == std::string::npos)
      log += readFile(root.offlineDir() + "/" + name);
  return log;
}

crashscenario::Result readResult(const TempRoot& root) {
  crashscenario::Result r{};
  const std::string bytes = readFile(root.path("result.bin"));
  if (bytes.size() == sizeof(r)) memcpy(&r, bytes.data(), sizeof(r));
  return r;
}

std::map<std::string, std::string> scenarioEnv() {
  const std::string noHandlers =
      "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";
  return {{"ZUDEBUG_FREE_MB", "100000"},
          {"ASAN_OPTIONS", noHandlers + ":detect_leaks=0"},
          {"TSAN_OPTIONS", noHandlers + ":report_signal_unsafe=0"}};
}

// The header lines of every record in `log`, by "pid: P, tid: T".
std::vector<std::string> recordHeads(const std::string& log) {
  std::vector<std::string> heads;
  const std::string key = " F DEBUG   : pid: ";
  for (size_t at = log.find(key); at != std::string::npos; at = log.find(key, at + 1))
    heads.push_back(log.substr(at + key.size() - 5, log.find('\n', at) - at - key.size() + 5));
  return heads;
}

void checkRun(const Scenario& row, int run) {
  SCOPED_TRACE(std::string(row.name) + ", run " + std::to_string(run + 1));
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  const ChildResult crashed = runProgram({CRASH_SCENARIO, row.name, "result.bin"}, root, scenarioEnv());
  const crashscenario::Result r = readResult(root);
  ASSERT_EQ(r.ready, 1) << crashed.output;

  // Death by its own signal, after the handler installed before the catcher ran with
  // what the kernel gave.
  ASSERT_TRUE(crashed.signaled()) << crashed.output;
  EXPECT_EQ(crashed.termSignal(), row.signal) << crashed.output;
  EXPECT_GE(r.previousCalls, 1);
  EXPECT_EQ(r.signo, row.signal);

  // The record, exactly once: written at the crash, or by the next start.
  const ChildResult next = runProgram({CRASH_SCENARIO, "recover", "recover.bin"}, root, scenarioEnv());
  EXPECT_EQ(next.exitCode(), 0) << next.output;
  const std::string log = debugFiles(root);
  std::vector<std::string> heads = recordHeads(log);
  EXPECT_EQ(heads.size(), static_cast<size_t>(row.faultingThreads))
      << log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
  std::sort(heads.begin(), heads.end());
  EXPECT_EQ(std::unique(heads.begin(), heads.end()), heads.end()) << "a record twice";
  EXPECT_EQ(countSubstr(log, " F DEBUG   : #02 pc "), static_cast<size_t>(row.faultingThreads))
      << "the frame the signal interrupted";
  // The header's signal line is what the previous handler was given.
  char signalLine[128];
  snprintf(signalLine, sizeof(signalLine), " F DEBUG   : signal %d, code %d, fault addr ", r.signo, r.code);
  EXPECT_EQ(countSubstr(log, signalLine), static_cast<size_t>(row.faultingThreads)) << signalLine;
  if (r.code > 0 && r.addr != 0) {
    char addr[40];
    snprintf(addr, sizeof(addr), "fault addr 0x%llx\n", static_cast<unsigned long long>(r.addr));
    EXPECT_GE(countSubstr(log, addr), 1u) << addr;
  }
  const std::string scenario = row.name;
  if (scenario == "assert") {
    EXPECT_EQ(countSubstr(log, "every frame has a buffer"), 1u) << "the abort message";
  }
  if (scenario == "double-free") {
    EXPECT_EQ(countSubstr(log, "Abort message: 'double free or corruption (!prev)"), 1u);
  }

  // Nothing allocated by the faulting thread inside the catcher, and a few KiB of stack.
  if (r.allocationsInHandler >= 0) {
    EXPECT_EQ(r.counterWorks, 1) << "the allocation counter counts nothing";
    EXPECT_EQ(r.allocationsInHandler, 0);
  }
  if (!kSanitized) {
    EXPECT_GT(r.stackPainted, 0u) << "the stack was not measured";
    EXPECT_LT(r.stackUsed, kStackLimit);
    EXPECT_LT(r.stackUsed, r.stackPainted) << "ran past the painted part";
  }
  if (scenario == "own-signal-stack") {
    EXPECT_EQ(r.onOwnSignalStack, 1);
  }
}

}  // namespace

TEST(CrashCatcherTable, EveryFaultLeavesARecordAndHandsOver) {
  const ::testing::TestResult* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
  for (const Scenario& row : crashscenario::kScenarios) {
    if (row.plainOnly && kSanitized) continue;
    // A row's first failing run tells enough of it.
    const int partsBefore = result->total_part_count();
    const int runs = row.racy ? 20 : 1;
    for (int run = 0; run < runs && result->total_part_count() == partsBefore; ++run) checkRun(row, run);
  }
}
