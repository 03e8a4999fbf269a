// Offline logger: queues, hand-over, flushing into rotating files, start-up checks and
// sessions, the facade and its bounded calls. Offline logging is switched on by the
// debug mask read at load, so each case runs in a child process.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ZuDebugUtils.h"
#include "ZuOfflineLoggerState.h"

using namespace zudebug;
using namespace zutest;

namespace {

const std::string kDir = "data/vendor/camera/offlinelog/";

// A time-stamped name ends in a microsecond count without leading zeros: order by it.
std::pair<std::string, long> stampKey(const std::string& name) {
  const size_t dash = name.rfind('-');
  return {name.substr(0, dash), atol(name.c_str() + dash + 1)};
}

// The time-stamped Debug files of `dir` made by this run (the year 2001 is planted),
// oldest first, and their text.
std::vector<std::string> logFiles(const std::string& dir = kDir) {
  std::vector<std::string> out;
  for (const std::string& name : listDir(dir))
    if (name.rfind("ZuCam_Debug_2", 0) == 0 && name.rfind("ZuCam_Debug_2001", 0) != 0) out.push_back(name);
  std::sort(out.begin(), out.end(),
            [](const std::string& a, const std::string& b) { return stampKey(a) < stampKey(b); });
  return out;
}

std::string allLogText(const std::string& dir = kDir) {
  std::string text;
  for (const std::string& name : logFiles(dir)) text += readFile(dir + name);
  return text;
}

ZuDebugInterface* facade() { return ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug); }
ZuDegbugOfflineLogger* debugLogger() {
  return ZuDegbugOfflineLogger::getInstance(ZuOfflineLoggerType::Debug);
}

void logNumbered(int thread, int number) {
  Log::logSystem(64, "I", "stress.cpp", "run", 1, "T%d %d", thread, number);
}

// Checks the numbered lines of `threads` threads: each thread's numbers strictly
// increasing (nothing twice, nothing out of order) and every line whole. Returns how
// many of the `perThread` numbers of each thread are missing in total.
size_t checkNumbered(const std::string& text, int threads, int perThread) {
  std::vector<int> last(threads, -1);
  size_t found = 0, start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
    const std::string line = text.substr(start, nl - start);
    const size_t at = line.find(" ZuCamHAL [HAL ] stress.cpp:1 run() T");
    int t = -1, n = -1, end = 0;
    const bool whole = at != std::string::npos && line[2] == '-' && line[14] == ':' &&
                       sscanf(line.c_str() + at + 37, "%d %d%n", &t, &n, &end) == 2 &&
                       at + 37 + end == line.size() && t >= 0 && t < threads;
    EXPECT_TRUE(whole) << "torn line: " << line;
    if (!whole) continue;
    EXPECT_GT(n, last[t]) << "thread " << t << " repeated or reordered";
    last[t] = n;
    ++found;
  }
  EXPECT_EQ(start, text.size()) << "unterminated last line";
  return static_cast<size_t>(threads * perThread) - found;
}

// Runs OfflineLogger.<test> in a child with the debug mask set in `root`; it must pass.
void runMasked(const std::string& test, const TempRoot& root,
               const std::map<std::string, std::string>& env = {}, const std::string& mask = "1") {
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", mask}});
  const ChildResult r = runChild("OfflineLogger." + test, root, env);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
}

}  // namespace

// ---- facade, lifecycle and bounded calls ----

ZU_CHILD_TEST(OfflineLogger, FacadeAndSessionsChild) {
  EXPECT_EQ(ownThreadCount(), 1u) << "loading the library starts nothing";
  ZuDebugInterface* debug = facade();
  EXPECT_TRUE(debug->isEnabled() && ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->isEnabled());
  EXPECT_EQ(debug->isExtended(), std::string(getenv("MASK")) == "5");
  EXPECT_EQ(ownThreadCount(), 3u) << "one flush thread per instance";
  EXPECT_FALSE(debugLogger()->setFlushTriggerLink(nullptr));

  logNumbered(0, 0);  // not started: dropped without taking memory
  EXPECT_EQ(debugLogger()->getStatus(), ZuDegbugOfflineLogger::kStatusStopped);
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  EXPECT_EQ(countSubstr(readFile("logcat.txt"), "mMemoryLogPool: 16"), 1u) << "started once";
  logNumbered(0, 1);
  std::thread([] { logNumbered(1, 1); }).join();
  debug->stopOfflineLogger();
  EXPECT_EQ(debugLogger()->getSessionCount(), 2u);
  logNumbered(0, 2);  // stopped: dropped again
  // A new session: the surviving thread takes a fresh queue in the new pool.
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  logNumbered(0, 3);
  debug->flushLogToFileInterface(true);
  EXPECT_TRUE(debugLogger()->isEnableOfflinelogger()) << "a forced flush through the facade re-activates";
  logNumbered(0, 4);
  debug->stopOfflineLogger();
  debug->stopOfflineLogger();

  const std::string text = allLogText();
  EXPECT_EQ(checkNumbered(text, 2, 5), 2u + 4u);  // thread 0 keeps 1, 3, 4 of 0-4; thread 1 keeps 1
  for (const char* line : {"T0 1\n", "T1 1\n", "T0 3\n", "T0 4\n"})
    EXPECT_EQ(countSubstr(text, line), 1u) << line;
  EXPECT_NE(readFile("logcat.txt").find("X mSessionCount 3"), std::string::npos);

  // Bounded flushes in a new session: refused at once while the caller holds the
  // control mutex; while another thread holds it they give up at the deadline.
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  EXPECT_FALSE(debugLogger()->isHeldByCurrentThread());
  const char line[] = "bounded line\n";
  const auto in = [](int ms) { return std::chrono::steady_clock::now() + std::chrono::milliseconds(ms); };
  debug->addLogInterface(line, sizeof(line) - 1);
  {
    std::lock_guard<ZuOwnedRecursiveMutex> control(debug->controlMutex());
    EXPECT_FALSE(debug->flushLogToFileInterfaceUntil(true, in(100)));
  }
  std::atomic<int> stage{0};
  std::thread holder([&] {
    std::lock_guard<ZuOwnedRecursiveMutex> control(debug->controlMutex());
    for (stage = 1; stage != 2;) usleep(1000);
  });
  while (stage != 1) usleep(1000);
  EXPECT_FALSE(debug->flushLogToFileInterfaceUntil(true, in(50)));
  stage = 2;
  holder.join();
  EXPECT_TRUE(debug->flushLogToFileInterfaceUntil(true, in(1000)));
  EXPECT_EQ(countSubstr(allLogText(), "bounded line\n"), 1u);
  EXPECT_TRUE(debugLogger()->isEnableOfflinelogger());
}

TEST(OfflineLogger, FacadeAndSessions) {
  for (const char* mask : {"1", "5"}) {
    SCOPED_TRACE(mask);
    runMasked("FacadeAndSessionsChild", TempRoot(), {{"MASK", mask}}, mask);
  }
}

TEST(OfflineLogger, StartFailures) {
  // 2999 MiB free: each of two attempts leaves the 50-byte notice. A failing query: no
  // notice. Both are logged on every attempt, and what is logged meanwhile is dropped.
  const std::string notice = "OfflineLogger detect file system has no space left";
  const struct {
    std::string text;
    size_t noSpace, failing;
  } logged[] = {{"E/ZuCamDebug: ZuDebugUtils.cpp startOfflineLogger():", 2, 2},
                {"OfflineLogger Initialize failed!", 2, 2},
                {"OfflineLogger get override setting failed", 2, 2},
                {notice + "!\n", 2, 0},
                {"Offlinelog failed to get file system information!", 0, 2},
                {"query system space failed!", 0, 2}};
  for (const std::string freeMb : {"2999", "fail"}) {
    SCOPED_TRACE(freeMb);
    const bool noSpace = freeMb == "2999";
    TempRoot root;
    runMasked("LinesChild", root, {{"ZUDEBUG_FREE_MB", freeMb}, {"START", "fails"}, {"LINES", "1"}});
    EXPECT_EQ(logFiles(root.path(kDir)).size(), 0u);
    EXPECT_EQ(readFile(root.path(kDir + "ZuCam_Debug_ErrorMsg.txt")), noSpace ? notice + notice : "");
    for (const auto& l : logged)
      EXPECT_EQ(countSubstr(readFile(root.logcatFile()), l.text), noSpace ? l.noSpace : l.failing) << l.text;
  }
  // The log directory is a plain file: nothing can be written, nothing crashes.
  TempRoot root;
  ASSERT_EQ(rmdir(root.offlineDir().c_str()), 0);
  root.writeFile("data/vendor/camera/offlinelog", "not a directory");
  runMasked("LinesChild", root, {{"ZUDEBUG_FREE_MB", "5000"}, {"LINES", "20000"}});
  EXPECT_GE(countSubstr(readFile(root.logcatFile()), "zu-debug TXT Offlinelog failed to open file and write"),
            1u);
  EXPECT_EQ(readFile(root.offlineDir()), "not a directory");
}

// ---- files ----

// Child: THREADS threads (default 1) log LINES numbered lines each, then the logger
// stops; the parent checks the files. MODE "churn": meanwhile 40 short-lived threads
// log 2000 lines each; "forced": meanwhile another thread forces flushes. START
// "fails": two start attempts must fail.
ZU_CHILD_TEST(OfflineLogger, LinesChild) {
  const std::string mode = getenv("MODE") ? getenv("MODE") : "plain";
  const int lines = atoi(getenv("LINES")), count = getenv("THREADS") ? atoi(getenv("THREADS")) : 1;
  const bool fails = getenv("START") != nullptr;
  for (int i = 0; i <= fails; ++i) ASSERT_EQ(facade()->startOfflineLogger() != 0, fails);
  EXPECT_EQ(facade()->isStarted(), !fails);
  EXPECT_EQ(debugLogger()->getStatus() == ZuDegbugOfflineLogger::kStatusStopped, fails);
  std::atomic<bool> running{true};
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t)
    threads.emplace_back([t, lines] {
      for (int i = 0; i < lines; ++i) logNumbered(t, i);
    });
  std::thread helper([&] {
    for (int t = count; mode == "churn" && t < count + 40; ++t)
      std::thread([t] {
        for (int i = 0; i < 2000; ++i) logNumbered(t, i);
      }).join();
    for (; mode == "forced" && running; usleep(2000)) facade()->flushLogToFileInterface(true);
  });
  for (auto& t : threads) t.join();
  running = false;
  helper.join();
  facade()->stopOfflineLogger();
}

TEST(OfflineLogger, ScanAndRotation) {
  TempRoot root;
  root.writeFile("odm/etc/camera/zorvex/praxsettings.json", "{}");  // no error file from loading
  // Twelve old Debug files made out of order, two Binary files and a foreign one.
  std::vector<std::string> old;  // oldest first
  for (int i = 10; i < 22; ++i)
    old.push_back("ZuCam_Debug_2001-01-01--00-00-" + std::to_string(i) + "-000.txt");
  for (int i : {7, 2, 11, 0, 5, 9, 1, 3, 10, 4, 8, 6}) root.writeFile(kDir + old[i], "old");
  const std::vector<std::string> others = {"ZuCam_Binary_2001-01-01--00-00-00-000.bin",
                                           "ZuCam_Binary_2001-01-01--00-00-01-000.bin", "notes.txt"};
  for (const std::string& name : others) root.writeFile(kDir + name, "keep");
  // Lines of about 76 bytes: a little over 11 MiB in all.
  const int lines = 155000;
  runMasked("LinesChild", root, {{"LINES", std::to_string(lines)}});

  // The scan lists the old Debug files (their order shows in what rotation deletes).
  EXPECT_EQ(countSubstr(readFile(root.logcatFile()), "List local debug file: /" + kDir + "ZuCam_Debug_2001"),
            12u);

  // Two new files, the first past 10 MiB by less than one queue; every line once, in order.
  const std::vector<std::string> files = logFiles(root.path(kDir));
  ASSERT_EQ(files.size(), 2u);
  struct stat st;
  ASSERT_EQ(stat(root.path(kDir + files[0]).c_str(), &st), 0);
  EXPECT_GT(st.st_size, 10485760);
  EXPECT_LE(st.st_size, 10485760 + 1048576);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  EXPECT_EQ(checkNumbered(allLogText(root.path(kDir)), 1, lines), 0u);

  // Ten Debug files are kept, the four oldest went; the other files are untouched.
  std::set<std::string> expected(old.begin() + 4, old.end());
  expected.insert(files.begin(), files.end());
  expected.insert(others.begin(), others.end());
  std::set<std::string> remaining;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name != ".pool" && name != ".ZuCam_open_order") remaining.insert(name);  // the directory's own
  EXPECT_EQ(remaining, expected);
}

// ---- hand-over and the flush thread ----

// Child: threads that log one line and end hand their queues over; the eighth wakes the
// flush thread. Then the process exits in the middle of logging.
ZU_CHILD_TEST(OfflineLogger, ThreadExitHandOverChild) {
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  for (int t = 0; t < 7; ++t) std::thread([t] { logNumbered(t, 0); }).join();
  // Seven waiting queues: a normal flush leaves them in memory.
  EXPECT_EQ(debugLogger()->flushLogToFile(false), 0);
  EXPECT_EQ(allLogText(), "");
  std::thread([] { logNumbered(7, 0); }).join();
  // The flush thread was woken; give it plenty of time.
  for (int i = 0; i < 1000 && countSubstr(allLogText(), "\n") < 8; ++i) usleep(10000);
  EXPECT_EQ(checkNumbered(allLogText(), 8, 1), 0u);
  EXPECT_NE(readFile("logcat.txt").find("OfflineLogger requestFlushLogQueue Signaled!!"), std::string::npos);
  // The process ends with exit() while threads log and the flush thread works: no hang.
  for (int t = 0; t < 3; ++t)
    std::thread([t] {
      for (int i = 0;; ++i) {
        logNumbered(t, i);
        if (i % 100 == 0) usleep(100);
      }
    }).detach();
  usleep(200000);
  exit(::testing::Test::HasFailure() ? 1 : 0);
}

TEST(OfflineLogger, ThreadExitHandOver) { runMasked("ThreadExitHandOverChild", TempRoot()); }

// Child: the two ways repeated forced flushes could write a line twice or let two
// threads share a block. Every thread holds a block (the pool's 16 are all owned) when
// a flush is forced; then a newcomer needs a block and every thread goes on writing,
// with a forced flush after each round.
ZU_CHILD_TEST(OfflineLogger, ForcedFlushesExactlyOnceChild) {
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  constexpr int kThreads = 17, kRounds = 6;
  std::atomic<int> round{0}, done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int r = 0; r < kRounds; ++r, ++done) {
        while (round <= r) usleep(100);
        // The last thread joins only after the first forced flush.
        for (int i = 0; i < 50 && (t < kThreads - 1 || r > 0); ++i) logNumbered(t, r * 50 + i);
      }
    });
  for (int r = 1; r <= kRounds; ++r) {
    round = r;
    while (done < kThreads * r) usleep(100);
    facade()->flushLogToFileInterface(true);
  }
  for (auto& t : threads) t.join();
  facade()->stopOfflineLogger();
  EXPECT_EQ(checkNumbered(allLogText(), kThreads, kRounds * 50), 50u);  // the late thread's first round
}

TEST(OfflineLogger, ForcedFlushesExactlyOnce) { runMasked("ForcedFlushesExactlyOnceChild", TempRoot()); }

// Appending threads each hold a stripe of the pool lock alone while there are stripes
// to hold; the rest share the last one, and a stripe given back is handed out again.
TEST(OfflineLogger, PoolLockStripes) {
  std::vector<unsigned> held;
  bool alone = true;
  for (unsigned i = 0; i < ZuPoolLock::kStripes && alone; ++i) {
    const unsigned stripe = ZuPoolLock::claimStripe(&alone);
    if (!alone) {
      EXPECT_EQ(stripe, ZuPoolLock::kSharedStripe);
      break;
    }
    EXPECT_LT(stripe, ZuPoolLock::kSharedStripe);
    EXPECT_EQ(std::count(held.begin(), held.end(), stripe), 0) << "stripe " << stripe << " handed out twice";
    held.push_back(stripe);
  }
  EXPECT_FALSE(alone);
  ASSERT_FALSE(held.empty());
  ZuPoolLock::releaseStripe(held.back());
  EXPECT_EQ(ZuPoolLock::claimStripe(&alone), held.back());
  EXPECT_TRUE(alone);
  for (unsigned stripe : held) ZuPoolLock::releaseStripe(stripe);
}

// Four threads log numbered lines while the flush thread runs; short-lived threads come
// and go ("churn"), or another thread forces flushes ("forced"). Every line arrives
// whole, once, in its thread's order.
TEST(OfflineLogger, NoLossUnderLoad) {
  for (const std::string mode : {"plain", "churn", "forced"}) {
    SCOPED_TRACE(mode);
    TempRoot root;
    const int perThread = mode == "churn" ? 100000 : 200000;
    runMasked("LinesChild", root, {{"MODE", mode}, {"THREADS", "4"}, {"LINES", std::to_string(perThread)}});
    // The short threads' lines are checked as lines of their own threads.
    const size_t missing = checkNumbered(allLogText(root.path(kDir)), mode == "churn" ? 44 : 4, perThread);
    EXPECT_EQ(missing, mode == "churn" ? 40u * (perThread - 2000) : 0u);
  }
}
