// Offline logger: queues, hand-over, flushing into rotating files, start-up checks and
// sessions, the facade and its bounded calls. Offline logging is switched on by the
// debug mask read at load, so each case runs in a child process.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zudebug;
using namespace zutest;

namespace {

const std::string kDir = "data/vendor/camera/offlinelog";

// The numbers of a time-stamped name: the last field is a microsecond count without
// leading zeros, so names only sort by their numbers.
std::vector<long> stampOf(const std::string& name) {
  std::vector<long> numbers;
  for (const char* p = name.c_str(); *p;) {
    char* end;
    long v = strtol(p, &end, 10);
    if (end != p && isdigit(static_cast<unsigned char>(*p))) {
      numbers.push_back(v);
      p = end;
    } else {
      ++p;
    }
  }
  return numbers;
}

void sortByStamp(std::vector<std::string>& names) {
  std::sort(names.begin(), names.end(),
            [](const std::string& a, const std::string& b) { return stampOf(a) < stampOf(b); });
}

// Time-stamped log files of one type, oldest first (relative to the working directory).
std::vector<std::string> logFiles(const char* type = "Debug") {
  std::vector<std::string> out;
  for (const std::string& name : listDir(kDir))
    if (name.rfind(std::string("ZuCam_") + type + "_2", 0) == 0) out.push_back(name);
  sortByStamp(out);
  return out;
}

std::string allLogText() {
  std::string text;
  for (const std::string& name : logFiles()) text += readFile(kDir + "/" + name);
  return text;
}

ZuDebugInterface* facade() { return ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug); }
ZuDegbugOfflineLogger* logger() { return ZuDegbugOfflineLogger::getInstance(ZuOfflineLoggerType::Debug); }

void logNumbered(int thread, int number) {
  Log::logSystem(64, "I", "stress.cpp", "run", 1, "T%d %d", thread, number);
}

// Checks the numbered lines of `threads` threads: each thread's numbers strictly
// increasing (nothing twice, nothing out of order) and every line whole. Returns how
// many of the `perThread` numbers of each thread are missing in total.
size_t checkNumbered(const std::string& text, int threads, int perThread) {
  std::vector<int> last(static_cast<size_t>(threads), -1);
  std::vector<int> seen(static_cast<size_t>(threads), 0);
  size_t start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
    const std::string line = text.substr(start, nl - start);
    const size_t at = line.find(" ZuCamHAL [HAL ] stress.cpp:1 run() T");
    int t = -1, n = -1;
    char tail = 0;
    EXPECT_TRUE(at != std::string::npos && line[2] == '-' && line[14] == ':' &&
                sscanf(line.c_str() + at + 37, "%d %d%c", &t, &n, &tail) == 2 && t >= 0 && t < threads)
        << "torn line: " << line;
    if (t < 0 || t >= threads) continue;
    EXPECT_GT(n, last[static_cast<size_t>(t)]) << "thread " << t << " repeated or reordered";
    last[static_cast<size_t>(t)] = n;
    ++seen[static_cast<size_t>(t)];
  }
  EXPECT_EQ(start, text.size()) << "unterminated last line";
  size_t missing = 0;
  for (int s : seen) missing += static_cast<size_t>(perThread - s);
  return missing;
}

void expectChildPassed(const ChildResult& r) { EXPECT_EQ(r.exitCode(), 0) << r.output; }

// Threads of the process, without the one ThreadSanitizer adds once threads exist.
size_t threadCount() {
  size_t n = listDir("/proc/self/task").size();
#ifdef __SANITIZE_THREAD__
  if (n > 1) --n;
#endif
  return n;
}

ChildResult runWithMask(const std::string& test, const std::string& mask = "1",
                        const std::map<std::string, std::string>& env = {}) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", mask}});
  return runChild(test, root, env);
}

}  // namespace

// ---- facade and lifecycle ----

TEST(OfflineLogger, FacadeAndSessionsChild) {
  ZU_CHILD_ONLY();
  // Loading the library started nothing.
  EXPECT_EQ(threadCount(), 1u);
  ZuDebugInterface* debug = facade();
  ZuDebugInterface* binary = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary);
  EXPECT_TRUE(debug->isEnabled() && binary->isEnabled());
  EXPECT_EQ(debug->isExtended(), std::string(getenv("MASK")) == "5");
  EXPECT_EQ(threadCount(), 3u) << "one flush thread per instance";
  EXPECT_FALSE(logger()->setFlushTriggerLink(nullptr));

  // Not started: lines are dropped without taking memory.
  logNumbered(0, 0);
  EXPECT_EQ(logger()->getStatus(), ZuDegbugOfflineLogger::kStatusStopped);
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  EXPECT_EQ(countSubstr(readFile("logcat.txt"), "mMemoryLogPool: 16"), 1u) << "started once";
  logNumbered(0, 1);
  std::thread([] { logNumbered(1, 1); }).join();
  debug->stopOfflineLogger();
  EXPECT_EQ(logger()->getSessionCount(), 2u);
  // Stopped: dropped again.
  logNumbered(0, 2);
  // A new session: the surviving thread takes a fresh queue in the new pool.
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  logNumbered(0, 3);
  debug->flushLogToFileInterface(true);
  EXPECT_TRUE(logger()->isEnableOfflinelogger()) << "a forced flush through the facade re-activates";
  logNumbered(0, 4);
  debug->stopOfflineLogger();
  debug->stopOfflineLogger();

  const std::string text = allLogText();
  EXPECT_EQ(checkNumbered(text, 2, 5), 2u + 4u);  // thread 0 keeps 1, 3, 4 of 0-4; thread 1 keeps 1
  for (const char* line : {"T0 1\n", "T1 1\n", "T0 3\n", "T0 4\n"})
    EXPECT_EQ(countSubstr(text, line), 1u) << line;
  EXPECT_NE(readFile("logcat.txt").find("X mSessionCount 3"), std::string::npos);
}

TEST(OfflineLogger, FacadeAndSessions) {
  for (const char* mask : {"1", "5"}) {
    SCOPED_TRACE(mask);
    expectChildPassed(runWithMask("OfflineLogger.FacadeAndSessionsChild", mask, {{"MASK", mask}}));
  }
}

TEST(OfflineLogger, StartFailsChild) {
  ZU_CHILD_ONLY();
  EXPECT_NE(facade()->startOfflineLogger(), 0);
  EXPECT_NE(facade()->startOfflineLogger(), 0);
  EXPECT_FALSE(facade()->isStarted());
  EXPECT_EQ(logger()->getStatus(), ZuDegbugOfflineLogger::kStatusStopped);
  logNumbered(0, 0);
  facade()->stopOfflineLogger();
  EXPECT_EQ(logFiles().size(), 0u);
}

TEST(OfflineLogger, StartFailures) {
  // 2999 MiB free: each attempt leaves the 50-byte notice. A failing query: no notice.
  const std::string notice = "OfflineLogger detect file system has no space left";
  for (const char* freeMb : {"2999", "fail"}) {
    SCOPED_TRACE(freeMb);
    const bool noSpace = std::string(freeMb) == "2999";
    TempRoot root;
    root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
    expectChildPassed(runChild("OfflineLogger.StartFailsChild", root, {{"ZUDEBUG_FREE_MB", freeMb}}));
    EXPECT_EQ(readFile(root.path(kDir + "/ZuCam_Debug_ErrorMsg.txt")), noSpace ? notice + notice : "");
    const std::string logcat = readFile(root.logcatFile());
    EXPECT_EQ(countSubstr(logcat, "E/ZuCamDebug: ZuDebugUtils.cpp startOfflineLogger():"), 2u);
    EXPECT_EQ(countSubstr(logcat, "OfflineLogger Initialize failed!"), 2u);
    EXPECT_EQ(countSubstr(logcat, "OfflineLogger get override setting failed"), 2u);
    EXPECT_EQ(countSubstr(logcat, notice + "!\n"), noSpace ? 2u : 0u);
    for (const char* msg :
         {"Offlinelog failed to get file system information!", "query system space failed!"})
      EXPECT_EQ(countSubstr(logcat, msg), noSpace ? 0u : 2u) << msg;
  }
  {
    // The log directory is a plain file: nothing can be written, nothing crashes.
    TempRoot root;
    root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
    ASSERT_EQ(rmdir(root.offlineDir().c_str()), 0);
    root.writeFile(kDir, "not a directory");
    expectChildPassed(
        runChild("OfflineLogger.LogLinesChild", root, {{"ZUDEBUG_FREE_MB", "5000"}, {"LINES", "20000"}}));
    EXPECT_GE(
        countSubstr(readFile(root.logcatFile()), "zu-debug TXT Offlinelog failed to open file and write"),
        1u);
    EXPECT_EQ(readFile(root.path(kDir)), "not a directory");
  }
}

// ---- files ----

// Child: LINES numbered lines from one thread.
TEST(OfflineLogger, LogLinesChild) {
  ZU_CHILD_ONLY();
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  const int lines = atoi(getenv("LINES"));
  for (int i = 0; i < lines; ++i) logNumbered(0, i);
  facade()->stopOfflineLogger();
}

TEST(OfflineLogger, ScanAndRotation) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  // Twelve old Debug files made out of order, two Binary files and a foreign one.
  std::vector<std::string> old;
  for (int i : {7, 2, 11, 0, 5, 9, 1, 3, 10, 4, 8, 6}) {
    char name[80];
    snprintf(name, sizeof(name), "ZuCam_Debug_2001-01-01--00-00-%02d-000.txt", i);
    root.writeFile(kDir + "/" + name, "old");
    old.push_back(name);
  }
  std::sort(old.begin(), old.end());
  for (const char* name : {"ZuCam_Binary_2001-01-01--00-00-00-000.bin",
                           "ZuCam_Binary_2001-01-01--00-00-01-000.bin", "notes.txt"})
    root.writeFile(kDir + "/" + name, "keep");
  // Lines of about 76 bytes: a little over 11 MiB in all.
  const int lines = 155000;
  expectChildPassed(runChild("OfflineLogger.LogLinesChild", root, {{"LINES", std::to_string(lines)}}));

  // The scan lists only this type's names, oldest first.
  std::vector<std::string> listed;
  for (const std::string& l : readLines(root.logcatFile())) {
    size_t at = l.find("List local debug file: /data/vendor/camera/offlinelog/");
    if (at != std::string::npos) listed.push_back(l.substr(l.rfind('/') + 1));
  }
  ASSERT_GE(listed.size(), 12u);
  EXPECT_TRUE(std::equal(old.begin(), old.end(), listed.begin()));
  EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end()));
  for (const std::string& l : listed) EXPECT_EQ(l.find("Binary"), std::string::npos);

  // Two new files: the first passed 10 MiB by less than one queue.
  std::vector<std::string> files;
  std::string text;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.rfind("ZuCam_Debug_20", 0) == 0 && name.rfind("ZuCam_Debug_2001", 0) != 0) files.push_back(name);
  sortByStamp(files);
  for (const std::string& name : files) text += readFile(root.offlineDir() + "/" + name);
  ASSERT_EQ(files.size(), 2u);
  struct stat st;
  ASSERT_EQ(stat((root.offlineDir() + "/" + files[0]).c_str(), &st), 0);
  EXPECT_GT(st.st_size, 10485760);
  EXPECT_LE(st.st_size, 10485760 + 1048576);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  EXPECT_EQ(checkNumbered(text, 1, lines), 0u);

  // Ten Debug names are kept, the oldest went first; other files are untouched.
  std::vector<std::string> debugNames;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.find("Debug") != std::string::npos) debugNames.push_back(name);
  EXPECT_EQ(debugNames.size(), 10u);
  const std::vector<std::string> remaining = listDir(root.offlineDir());
  EXPECT_EQ(std::count(remaining.begin(), remaining.end(), old[0]), 0);
  EXPECT_EQ(std::count(remaining.begin(), remaining.end(), old[3]), 0);
  EXPECT_EQ(std::count(remaining.begin(), remaining.end(), old[11]), 1);
  for (const char* name : {"ZuCam_Binary_2001-01-01--00-00-00-000.bin", "notes.txt"})
    EXPECT_EQ(std::count(remaining.begin(), remaining.end(), name), 1) << name;
}

// ---- hand-over and the flush thread ----

// Child: threads that log one line and end hand their queues over; the eighth wakes the
// flush thread. Then the process exits in the middle of logging.
TEST(OfflineLogger, ThreadExitHandOverChild) {
  ZU_CHILD_ONLY();
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  for (int t = 0; t < 7; ++t) std::thread([t] { logNumbered(t, 0); }).join();
  // Seven waiting queues: a normal flush leaves them in memory.
  EXPECT_EQ(logger()->flushLogToFile(false), 0);
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

TEST(OfflineLogger, ThreadExitHandOver) {
  expectChildPassed(runWithMask("OfflineLogger.ThreadExitHandOverChild"));
}

// Child: the two ways repeated forced flushes could write a line twice or let two
// threads share a block. Every thread holds a block (the pool's 16 are all owned) when
// a flush is forced; then a newcomer needs a block and every thread goes on writing,
// with a forced flush after each round.
TEST(OfflineLogger, ForcedFlushesExactlyOnceChild) {
  ZU_CHILD_ONLY();
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  constexpr int kThreads = 17;
  constexpr int kRounds = 6;
  std::mutex m;
  std::condition_variable cv;
  int round = 0, done = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < kRounds; ++r) {
        {
          std::unique_lock<std::mutex> lock(m);
          cv.wait(lock, [&] { return round > r; });
        }
        // The last thread joins only after the first forced flush.
        if (t < kThreads - 1 || r > 0)
          for (int i = 0; i < 50; ++i) logNumbered(t, r * 50 + i);
        std::lock_guard<std::mutex> lock(m);
        ++done;
        cv.notify_all();
      }
    });
  }
  for (int r = 0; r < kRounds; ++r) {
    std::unique_lock<std::mutex> lock(m);
    ++round;
    cv.notify_all();
    cv.wait(lock, [&] { return done == kThreads * (r + 1); });
    facade()->flushLogToFileInterface(true);
  }
  for (auto& t : threads) t.join();
  facade()->stopOfflineLogger();
  EXPECT_EQ(checkNumbered(allLogText(), kThreads, kRounds * 50), 50u);  // the late thread's first round
}

TEST(OfflineLogger, ForcedFlushesExactlyOnce) {
  expectChildPassed(runWithMask("OfflineLogger.ForcedFlushesExactlyOnceChild"));
}

// Child: four threads log numbered lines while the flush thread runs; in the "churn"
// variant short-lived threads come and go, in the "forced" one another thread forces
// flushes (lines that arrive while a forced flush holds the logger are dropped).
TEST(OfflineLogger, NoLossChild) {
  ZU_CHILD_ONLY();
  const std::string mode = getenv("MODE");
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  constexpr int kLong = 4;
  constexpr int kShort = 40;
  const int perThread = mode == "churn" ? 100000 : 200000;
  std::atomic<bool> running{true};
  std::vector<std::thread> threads;
  for (int t = 0; t < kLong; ++t)
    threads.emplace_back([t, perThread] {
      for (int i = 0; i < perThread; ++i) logNumbered(t, i);
    });
  std::thread helper([&] {
    if (mode == "churn") {
      for (int t = kLong; t < kLong + kShort; ++t)
        std::thread([t] {
          for (int i = 0; i < 2000; ++i) logNumbered(t, i);
        }).join();
    } else if (mode == "forced") {
      while (running) {
        facade()->flushLogToFileInterface(true);
        usleep(2000);
      }
    }
  });
  for (auto& t : threads) t.join();
  running = false;
  helper.join();
  facade()->stopOfflineLogger();
  const std::string text = allLogText();
  if (mode == "churn") {
    // The short threads' lines are checked as lines of their own threads.
    const size_t missing = checkNumbered(text, kLong + kShort, perThread);
    EXPECT_EQ(missing, static_cast<size_t>(kShort) * (perThread - 2000));
  } else {
    const size_t missing = checkNumbered(text, kLong, perThread);
    if (mode == "plain") {
      EXPECT_EQ(missing, 0u);
    }
    printf("lines dropped while forced flushes ran: %zu of %d\n", missing, kLong * perThread);
  }
}

TEST(OfflineLogger, NoLossUnderLoad) {
  for (const char* mode : {"plain", "churn", "forced"}) {
    SCOPED_TRACE(mode);
    expectChildPassed(runWithMask("OfflineLogger.NoLossChild", "1", {{"MODE", mode}}));
  }
}

// ---- bounded calls and process exit ----

TEST(OfflineLogger, BoundedCallsChild) {
  ZU_CHILD_ONLY();
  ZuDebugInterface* debug = facade();
  ASSERT_EQ(debug->startOfflineLogger(), 0);
  EXPECT_FALSE(logger()->isHeldByCurrentThread());
  const char line[] = "bounded line\n";
  EXPECT_TRUE(debug->addLogInterfaceTimed(line, sizeof(line) - 1, 100));
  {
    // The calling thread holds the control mutex: refused at once.
    std::lock_guard<ZuOwnedRecursiveMutex> control(debug->controlMutex());
    EXPECT_FALSE(debug->addLogInterfaceTimed(line, sizeof(line) - 1, 100));
    EXPECT_FALSE(debug->flushLogToFileInterfaceTimed(true, 100));
  }
  // Another thread holds it: the flush gives up after its time.
  std::atomic<int> stage{0};
  std::thread holder([&] {
    std::lock_guard<ZuOwnedRecursiveMutex> control(debug->controlMutex());
    stage = 1;
    while (stage != 2) usleep(1000);
  });
  while (stage != 1) usleep(1000);
  EXPECT_FALSE(debug->flushLogToFileInterfaceTimed(true, 50));
  EXPECT_TRUE(debug->addLogInterfaceTimed(line, sizeof(line) - 1, 50)) << "appends need no control mutex";
  stage = 2;
  holder.join();
  EXPECT_TRUE(debug->flushLogToFileInterfaceTimed(true, 1000));
  EXPECT_EQ(countSubstr(allLogText(), "bounded line\n"), 2u);
  EXPECT_TRUE(logger()->isEnableOfflinelogger());
}

TEST(OfflineLogger, BoundedCalls) { expectChildPassed(runWithMask("OfflineLogger.BoundedCallsChild")); }
