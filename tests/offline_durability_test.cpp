// Offline log across the death of its process: queues in a mapped pool file, recovered
// by the next start of any process on the same directory, every accepted line on disk
// exactly once. Writers run in child processes that are killed, exit or abort; each
// thread records how many of its lines were accepted in a file mapping that outlives
// the kill.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ZuDebugUtils.h"
#include "ZuOfflinePool.h"

using namespace zudebug;
using namespace zutest;

namespace {

const std::string kDir = "data/vendor/camera/offlinelog/";
const std::string kPoolDir = kDir + ".pool/";
constexpr int kMaxThreads = 16;

ZuDebugInterface* facade() { return ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug); }

std::string env(const char* name, const char* fallback = "") {
  const char* v = getenv(name);
  return v != nullptr ? v : fallback;
}

void logNumbered(int thread, int number) {
  Log::logSystem(64, "I", "stress.cpp", "run", 1, "T%d %d", thread, number);
}

// Per-thread accepted counts, shared with the parent through a file.
uint32_t* mapCounts(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0644);
  if (fd < 0 || ftruncate(fd, kMaxThreads * sizeof(uint32_t)) != 0) return nullptr;
  void* p = mmap(nullptr, kMaxThreads * sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  return p == MAP_FAILED ? nullptr : static_cast<uint32_t*>(p);
}

std::vector<uint32_t> readCounts(const std::string& path) {
  const std::string bytes = readFile(path);
  std::vector<uint32_t> counts(kMaxThreads, 0);
  memcpy(counts.data(), bytes.data(), std::min(bytes.size(), counts.size() * sizeof(uint32_t)));
  return counts;
}

std::vector<std::string> poolFiles(const TempRoot& root) {
  std::vector<std::string> out;
  for (const std::string& name : listDir(root.path(kPoolDir)))
    if (name.find(".pool") != std::string::npos) out.push_back(name);
  return out;
}

std::vector<std::string> debugFiles(const TempRoot& root) {
  std::vector<std::string> out;
  for (const std::string& name : listDir(root.path(kDir)))
    if (name.rfind("ZuCam_Debug_2", 0) == 0 && name.rfind("ZuCam_Debug_2001", 0) != 0) out.push_back(name);
  return out;
}

std::string allLogText(const TempRoot& root) {
  std::string text;
  for (const std::string& name : debugFiles(root)) text += readFile(root.path(kDir + name));
  return text;
}

// What the log says was lost: lines given up (how many, whose kernel thread ids) and
// threads whose queued bytes went with a queue file cut short.
struct LossTold {
  uint64_t droppedLines = 0;
  std::set<int> droppedTids, cutTids;
};

std::set<int> tidList(const std::string& text, size_t at) {
  std::set<int> tids;
  const size_t end = text.find(' ', at);
  std::string list = text.substr(at, end - at);
  for (size_t from = 0; from < list.size();) {
    const size_t comma = list.find(',', from);
    tids.insert(atoi(list.substr(from, comma - from).c_str()));
    if (comma == std::string::npos) break;
    from = comma + 1;
  }
  return tids;
}

LossTold lossTold(const std::string& text) {
  LossTold told;
  const std::string dropped = "OfflineLogger dropped ", cut = " under the process: ";
  for (size_t at = 0; (at = text.find(dropped, at)) != std::string::npos; ++at) {
    unsigned n = 0;
    int end = 0;
    if (sscanf(text.c_str() + at + dropped.size(), "%u lines of threads %n", &n, &end) != 1 || end == 0)
      continue;
    told.droppedLines += n;
    for (int tid : tidList(text, at + dropped.size() + end)) told.droppedTids.insert(tid);
  }
  for (size_t at = 0; (at = text.find(cut, at)) != std::string::npos; ++at) {
    const size_t of = text.find("queued bytes of threads ", at);
    if (of == std::string::npos || text.compare(at - 6, 6, " bytes") != 0) continue;
    for (int tid : tidList(text, of + strlen("queued bytes of threads "))) told.cutTids.insert(tid);
  }
  return told;
}

// Every numbered line on disk is whole and there once; thread t has each of its
// numbers below accepted[t], and at most the one it was writing when it died. With
// `told`, lines may be missing where the log says so: the threads' lines given up add
// up to what the notices count, and a thread named in a cut queue file's notice may
// miss any.
void expectExactlyOnce(const std::string& text, const std::vector<uint32_t>& accepted, int firstThread,
                       int threads, const LossTold* told = nullptr) {
  std::map<int, int> tidOf;  // test thread -> kernel thread id
  std::map<std::pair<int, int>, int> seen;
  size_t start = 0, torn = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
    const std::string line = text.substr(start, nl - start);
    const size_t at = line.find(" ZuCamHAL [HAL ] stress.cpp:1 run() T");
    int t = -1, n = -1, end = 0;
    if (at != std::string::npos && line[2] == '-' && line[14] == ':' &&
        sscanf(line.c_str() + at + 37, "%d %d%n", &t, &n, &end) == 2 && at + 37 + end == line.size()) {
      ++seen[{t, n}];
      int pid = 0, tid = 0;
      if (sscanf(line.c_str(), "%*s %*s %d %d", &pid, &tid) == 2) tidOf[t] = tid;
    } else if (line.find(" ZuCamDebug [Debug] ") == std::string::npos &&
               line.find(" F DEBUG   : ") == std::string::npos) {
      ADD_FAILURE() << "torn line: " << line.substr(0, 200);
      if (++torn > 5) return;
    }
  }
  EXPECT_EQ(start, text.size()) << "unterminated last line";
  uint64_t givenUp = 0;
  for (int t = firstThread; t < firstThread + threads; ++t) {
    size_t missing = 0;
    for (uint32_t n = 0; n < accepted[t]; ++n) missing += seen.count({t, static_cast<int>(n)}) == 0;
    if (told != nullptr && missing > 0 && told->cutTids.count(tidOf[t]) == 0) {
      EXPECT_EQ(told->droppedTids.count(tidOf[t]), 1u) << "thread " << t << " lost lines no notice names";
      givenUp += missing;
    } else if (told == nullptr || told->cutTids.count(tidOf[t]) == 0) {
      EXPECT_EQ(missing, 0u) << "thread " << t << " lost accepted lines of " << accepted[t];
    }
    for (int extra = static_cast<int>(accepted[t]) + 1; seen.count({t, extra}) != 0; ++extra)
      ADD_FAILURE() << "thread " << t << " line " << extra << " was never accepted";
  }
  if (told != nullptr) {
    EXPECT_EQ(givenUp, told->droppedLines) << "lines missing against lines told as given up";
  }
  for (const auto& entry : seen)
    if (entry.second != 1)
      ADD_FAILURE() << "T" << entry.first.first << " " << entry.first.second << " written " << entry.second
                    << " times";
}

std::map<std::string, std::string> writerEnv(const TempRoot& root, const std::string& mode, int base = 0,
                                             const std::string& counts = "counts.bin") {
  return {{"MODE", mode}, {"BASE", std::to_string(base)}, {"COUNTS", root.path(counts)}};
}

void setMask(const TempRoot& root, std::map<std::string, std::string> props = {}) {
  props["persist.vendor.camera.offlinedebug.mask"] = "1";
  root.setProps(props);
}

// A new process starts its logger on the same root, recovers what it finds and stops.
void restart(const TempRoot& root, const std::map<std::string, std::string>& vars = {}) {
  const ChildResult r = runChild("OfflineDurability.RestartChild", root, vars);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
}

// Waits until the writer's threads together accepted `lines`, or it died.
void waitForLines(const TempRoot& root, int pid, uint32_t lines, const std::string& counts = "counts.bin") {
  for (int i = 0; i < 30000; ++i) {
    uint32_t sum = 0;
    for (uint32_t c : readCounts(root.path(counts))) sum += c;
    if (sum >= lines || kill(pid, 0) != 0) return;
    usleep(1000);
  }
}

}  // namespace

// ---- children ----

// Four threads (numbered from BASE) log numbered lines; after each accepted line the
// thread's count goes to the COUNTS mapping. MODE:
//   busy    LINES lines per thread (default 40000) as fast as they go, then wait
//   forced  the same, while another thread forces a flush every millisecond
//   idle    500 lines per thread, then wait: everything still in memory
//   exit    500 lines per thread, then exit(0) without stopping the logger
//   abort   500 lines per thread, then abort() with no crash catcher installed
//   crash   busy, with the crash catcher installed; a fifth thread dies of SIGSEGV
//           while the others log
//   paced   LINES lines per thread, a short pause every 100, then stop the logger and
//           exit once the file STOP exists
// Waiting children are killed by the parent.
ZU_CHILD_TEST(OfflineDurability, WriterChild) {
  const std::string mode = env("MODE");
  const int base = atoi(env("BASE", "0").c_str());
  const bool fast = mode == "busy" || mode == "forced" || mode == "crash" || mode == "paced";
  if (mode == "crash") RegisterSignalHandlers();
  const int lines = fast ? atoi(env("LINES", "40000").c_str()) : 500;
  uint32_t* counts = mapCounts(env("COUNTS"));
  ASSERT_NE(counts, nullptr);
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  std::atomic<bool> writing{true};
  std::thread flusher([&] {
    while (mode == "forced" && writing) {
      facade()->flushLogToFileInterface(true);
      usleep(1000);
    }
  });
  std::vector<std::thread> threads;
  for (int t = base; t < base + 4; ++t)
    threads.emplace_back([=] {
      for (int i = 0; i < lines; ++i) {
        logNumbered(t, i);
        __atomic_store_n(&counts[t], static_cast<uint32_t>(i + 1), __ATOMIC_RELEASE);
        if (mode == "paced" && i % 100 == 99) usleep(200);
      }
    });
  if (mode == "crash")
    std::thread([=] {
      for (uint32_t sum = 0; sum < 20000; usleep(100)) {
        sum = 0;
        for (int t = base; t < base + 4; ++t) sum += __atomic_load_n(&counts[t], __ATOMIC_ACQUIRE);
      }
      raise(SIGSEGV);
    }).detach();
  for (auto& t : threads) t.join();
  writing = false;
  flusher.join();
  if (mode == "exit") exit(0);
  if (mode == "abort") abort();
  if (mode == "paced") {
    while (access(env("STOP").c_str(), F_OK) != 0) usleep(1000);
    facade()->stopOfflineLogger();
    exit(0);
  }
  for (;;) pause();
}

ZU_CHILD_TEST(OfflineDurability, RestartChild) {
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  facade()->stopOfflineLogger();
}

// ---- a process that dies keeps its lines ----

TEST(OfflineDurability, KilledAtVariedMoments) {
  // Idle (all in memory), then while threads append, hand queues over and the flush
  // thread writes, at several moments, and while another thread forces flushes.
  const struct {
    const char* mode;
    uint32_t killAfterLines;
  } cases[] = {{"idle", 2000},   {"busy", 1},       {"busy", 20000},  {"busy", 60000},
               {"busy", 120000}, {"forced", 10000}, {"forced", 80000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.mode) + " after " + std::to_string(c.killAfterLines) + " lines");
    TempRoot root;
    setMask(root);
    const int pid = spawnChild("OfflineDurability.WriterChild", root, writerEnv(root, c.mode));
    waitForLines(root, pid, c.killAfterLines);
    kill(pid, SIGKILL);
    const ChildResult killed = waitChild(pid, root);
    ASSERT_EQ(killed.termSignal(), SIGKILL) << killed.output;
    ASSERT_EQ(poolFiles(root).size(), 1u) << "the dead writer's pool stays for recovery";
    restart(root);
    EXPECT_EQ(poolFiles(root).size(), 0u);
    const std::string text = allLogText(root);
    expectExactlyOnce(text, readCounts(root.path("counts.bin")), 0, 4);
    EXPECT_LE(countSubstr(text, "OfflineLogger recovered "), 1u);
    if (std::string(c.mode) == "idle") {
      EXPECT_EQ(countSubstr(text, "OfflineLogger recovered "), 1u);
      EXPECT_NE(text.find("from /" + kPoolDir + "ZuCam_Debug_" + std::to_string(pid) + "_"),
                std::string::npos);
    }
  }
}

// The catcher's record and forced flushes, then the lines the other threads go on
// appending until the process is gone: all on disk after the next start.
TEST(OfflineDurability, LinesAfterTheCrashRecord) {
  TempRoot root;
  setMask(root);
  const std::string noHandlers =
      "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";
  std::map<std::string, std::string> vars = writerEnv(root, "crash");
  vars["ASAN_OPTIONS"] = noHandlers;
  vars["TSAN_OPTIONS"] = noHandlers + ":report_signal_unsafe=0";
  const ChildResult r = waitChild(spawnChild("OfflineDurability.WriterChild", root, vars), root);
  ASSERT_EQ(r.termSignal(), SIGSEGV) << r.output;
  const std::string beforeRestart = allLogText(root);
  EXPECT_EQ(countSubstr(beforeRestart, " F DEBUG   : pid: "), 1u)
      << "the record was flushed by the catcher" << r.output;
  restart(root);
  const std::string text = allLogText(root);
  EXPECT_EQ(countSubstr(text, " F DEBUG   : pid: "), 1u);
  EXPECT_EQ(countSubstr(text, " F DEBUG   : signal 11, code "), 1u);
  expectExactlyOnce(text, readCounts(root.path("counts.bin")), 0, 4);
}

TEST(OfflineDurability, ExitOrAbortWithoutStop) {
  for (const char* mode : {"exit", "abort"}) {
    SCOPED_TRACE(mode);
    TempRoot root;
    setMask(root);
    const ChildResult r =
        waitChild(spawnChild("OfflineDurability.WriterChild", root, writerEnv(root, mode)), root);
    EXPECT_EQ(std::string(mode) == "exit" ? r.exitCode() : r.termSignal(),
              std::string(mode) == "exit" ? 0 : SIGABRT)
        << r.output;
    restart(root);
    const std::vector<uint32_t> counts = readCounts(root.path("counts.bin"));
    for (int t = 0; t < 4; ++t) EXPECT_EQ(counts[t], 500u);
    expectExactlyOnce(allLogText(root), counts, 0, 4);
    EXPECT_EQ(poolFiles(root).size(), 0u);
  }
}

// Two writers die together; one start recovers both, each exactly once, while a third
// writer that is alive keeps its pool untouched until it dies too.
TEST(OfflineDurability, SeveralProcessesOnOneDirectory) {
  TempRoot root;
  setMask(root);
  int pids[3];
  for (int w = 0; w < 3; ++w) {
    pids[w] = spawnChild("OfflineDurability.WriterChild", root,
                         writerEnv(root, "idle", 4 * w, "counts" + std::to_string(w) + ".bin"));
  }
  for (int w = 0; w < 3; ++w) waitForLines(root, pids[w], 2000, "counts" + std::to_string(w) + ".bin");
  kill(pids[0], SIGKILL);
  kill(pids[1], SIGKILL);
  for (int w = 0; w < 2; ++w) waitChild(pids[w], root);
  ASSERT_EQ(poolFiles(root).size(), 3u);
  // Two restarts at the same moment: each dead pool is recovered by exactly one.
  const int a = spawnChild("OfflineDurability.RestartChild", root);
  const int b = spawnChild("OfflineDurability.RestartChild", root);
  EXPECT_EQ(waitChild(a, root).exitCode(), 0);
  EXPECT_EQ(waitChild(b, root).exitCode(), 0);
  const std::vector<std::string> left = poolFiles(root);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_NE(left[0].find("_" + std::to_string(pids[2]) + "_"), std::string::npos) << "the live writer's pool";
  std::string text = allLogText(root);
  EXPECT_EQ(countSubstr(text, "OfflineLogger recovered "), 2u);
  EXPECT_EQ(countSubstr(text, " T8 "), 0u) << "nothing taken from the live writer";
  for (int w = 0; w < 2; ++w)
    expectExactlyOnce(text, readCounts(root.path("counts" + std::to_string(w) + ".bin")), 4 * w, 4);

  kill(pids[2], SIGKILL);
  waitChild(pids[2], root);
  restart(root);
  text = allLogText(root);
  EXPECT_EQ(countSubstr(text, "OfflineLogger recovered "), 3u);
  expectExactlyOnce(text, readCounts(root.path("counts2.bin")), 8, 4);
}

// ---- a write cut short by the kill ----

namespace {

struct PoolImage {
  std::string path;
  std::string bytes;
  pool::PoolHeader* header() { return reinterpret_cast<pool::PoolHeader*>(&bytes[0]); }
  pool::BlockDesc* desc(uint32_t block) {
    return reinterpret_cast<pool::BlockDesc*>(&bytes[pool::kHeaderBytes + (block / 16) * pool::kChunkBytes +
                                                     (block % 16) * sizeof(pool::BlockDesc)]);
  }
  const char* data(uint32_t block) {
    return &bytes[pool::kHeaderBytes + (block / 16) * pool::kChunkBytes + pool::kAreaBytes +
                  static_cast<size_t>(block % 16) * pool::kBlockSize];
  }
  void save() const {
    FILE* f = fopen(path.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
  }
};

// Kills an idle writer and loads its pool file.
PoolImage killedWriterPool(const TempRoot& root) {
  setMask(root);
  const int pid = spawnChild("OfflineDurability.WriterChild", root, writerEnv(root, "idle"));
  waitForLines(root, pid, 2000);
  kill(pid, SIGKILL);
  waitChild(pid, root);
  PoolImage image;
  const std::vector<std::string> pools = poolFiles(root);
  if (pools.size() == 1) image.path = root.path(kPoolDir + pools[0]);
  image.bytes = readFile(image.path);
  return image;
}

}  // namespace

TEST(OfflineDurability, WriteCutShortByTheKill) {
  // The dead process was writing block b's bytes [from, to) into its file when it died:
  // (a) half of them reached the file, (b) all did but the block was not marked.
  for (const bool complete : {false, true}) {
    SCOPED_TRACE(complete ? "write completed" : "write torn");
    TempRoot root;
    PoolImage image = killedWriterPool(root);
    ASSERT_GT(image.bytes.size(), pool::kHeaderBytes + pool::kChunkBytes - 1);
    uint32_t block = 0;
    while (block < 16 && image.desc(block)->used == 0) ++block;
    ASSERT_LT(block, 16u);
    pool::BlockDesc* d = image.desc(block);
    const std::string target = "/" + kDir + "ZuCam_Debug_2001-01-01--00-00-00-000.txt";
    const std::string before = "an earlier line of the dead process\n";
    const uint32_t len = complete ? d->used - d->flushed : (d->used - d->flushed) / 2 + 3;
    root.writeFile(kDir + "ZuCam_Debug_2001-01-01--00-00-00-000.txt",
                   before + std::string(image.data(block), len));
    pool::WriteIntent& in = image.header()->intent;
    in.state = 1;
    in.block = block;
    in.from = d->flushed;
    in.to = d->used;
    in.fileOffset = before.size();
    snprintf(in.file, sizeof(in.file), "%s", target.c_str());
    image.save();

    restart(root);
    const std::string old = readFile(root.path(kDir + "ZuCam_Debug_2001-01-01--00-00-00-000.txt"));
    EXPECT_EQ(old.size(), complete ? before.size() + len : before.size()) << "a torn tail is cut off";
    expectExactlyOnce(old.substr(before.size()) + allLogText(root), readCounts(root.path("counts.bin")), 0,
                      4);
  }
}

// A dead process's pending write names a link, planted in the offline directory under
// a log file's name, to a file outside: that file is neither cut back nor written, and
// the block's bytes are written again into a file of ours.
TEST(OfflineDurability, PendingWriteThroughALink) {
  TempRoot root;
  PoolImage image = killedWriterPool(root);
  ASSERT_FALSE(image.path.empty());
  uint32_t block = 0;
  while (block < 16 && image.desc(block)->used == 0) ++block;
  ASSERT_LT(block, 16u);
  pool::BlockDesc* d = image.desc(block);
  const std::string victim(108894, 'v');
  root.writeFile("victim", victim);
  ASSERT_EQ(chmod(root.path("victim").c_str(), 0600), 0);
  const std::string name = kDir + "ZuCam_Debug_2001-01-01--00-00-00-000.txt";
  ASSERT_EQ(symlink(root.path("victim").c_str(), root.path(name).c_str()), 0);
  if (geteuid() == 0) {
    // Planted by another user.
    ASSERT_EQ(lchown(root.path(name).c_str(), 65534, 65534), 0);
  }
  pool::WriteIntent& in = image.header()->intent;
  in.state = 1;
  in.block = block;
  in.from = d->flushed;
  in.to = d->used;
  in.fileOffset = 100;
  snprintf(in.file, sizeof(in.file), "%s", ("/" + name).c_str());
  image.save();
  restart(root);
  EXPECT_EQ(readFile(root.path("victim")), victim);
  struct stat st;
  ASSERT_EQ(stat(root.path("victim").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(countSubstr(readFile(root.logcatFile()), "not a log file of ours: left alone"), 1u);
  expectExactlyOnce(allLogText(root), readCounts(root.path("counts.bin")), 0, 4);
}

// ---- pool files that cannot be trusted ----

TEST(OfflineDurability, DamagedPoolFiles) {
  TempRoot root;
  PoolImage image = killedWriterPool(root);
  ASSERT_FALSE(image.path.empty());
  const std::string cut = image.bytes.substr(0, pool::kHeaderBytes + 5000);
  // One block with impossible counters is skipped; the others are recovered.
  image.desc(0)->used = pool::kBlockSize + 1;
  // A pending write that names a file outside the log directory is ignored.
  pool::WriteIntent& in = image.header()->intent;
  in.state = 1;
  snprintf(in.file, sizeof(in.file), "/odm/etc/camera/zorvex/praxsettings.json");
  in.fileOffset = 0;
  image.save();
  root.writeFile("odm/etc/camera/zorvex/praxsettings.json", "{}");
  // Garbage under a pool file's name, an empty one, and a pool cut short.
  root.writeFile(kPoolDir + "ZuCam_Debug_1_1.pool", std::string(200000, '\xa5'));
  root.writeFile(kPoolDir + "ZuCam_Debug_2_2.pool", "");
  root.writeFile(kPoolDir + "ZuCam_Debug_3_3.pool", cut);

  restart(root);
  EXPECT_EQ(poolFiles(root).size(), 0u) << "every dead pool file is removed";
  EXPECT_EQ(readFile(root.path("odm/etc/camera/zorvex/praxsettings.json")), "{}");
  const std::string logcat = readFile(root.logcatFile());
  EXPECT_EQ(countSubstr(logcat, "cannot be trusted (not a pool file)"), 1u);
  EXPECT_EQ(countSubstr(logcat, "cannot be trusted (too short for a header)"), 1u);
  EXPECT_EQ(countSubstr(logcat, "is cut short: 0 of 1 chunks readable"), 1u);
  EXPECT_EQ(countSubstr(logcat, "1 blocks with impossible counters skipped"), 1u);
  EXPECT_EQ(countSubstr(logcat, "pending write record not trusted"), 1u);
  // What the damaged block held is gone, the rest is there once.
  const std::string text = allLogText(root);
  EXPECT_EQ(countSubstr(text, "OfflineLogger recovered "), 1u);
  std::map<int, int> perThread;
  for (int t = 0; t < 4; ++t)
    perThread[t] = static_cast<int>(countSubstr(text, "run() T" + std::to_string(t) + " "));
  int total = 0;
  for (const auto& e : perThread) total += e.second;
  EXPECT_EQ(total, 3 * 500) << "one thread's block skipped, three recovered";
}

// ---- the directory ----

// Child: logs LINES numbered lines on one thread and stops.
ZU_CHILD_TEST(OfflineDurability, LinesChild) {
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  const int lines = atoi(env("LINES", "1000").c_str());
  for (int i = 0; i < lines; ++i) logNumbered(0, i);
  if (!env("GO").empty()) {
    // Wait for the parent, then open a file with a forced flush.
    while (access(env("GO").c_str(), F_OK) != 0) usleep(1000);
    facade()->flushLogToFileInterface(true);
  }
  facade()->stopOfflineLogger();
}

TEST(OfflineDurability, MissingDirectoryAndPoolFallback) {
  {
    SCOPED_TRACE("missing directory");
    TempRoot root;
    setMask(root);
    ASSERT_EQ(system(("rm -rf " + root.path("data")).c_str()), 0);
    const ChildResult r = runChild("OfflineDurability.LinesChild", root);
    EXPECT_EQ(r.exitCode(), 0) << r.output;
    expectExactlyOnce(allLogText(root), std::vector<uint32_t>(kMaxThreads, 1000), 0, 1);
  }
  {
    SCOPED_TRACE("pool directory unusable");
    TempRoot root;
    root.writeFile("data/vendor/camera/blocker", "a file, not a directory");
    setMask(root, {{"persist.vendor.camera.offlinelog.pooldir", "/data/vendor/camera/blocker/pool"}});
    const ChildResult r = runChild("OfflineDurability.LinesChild", root, {{"LINES", "30000"}});
    EXPECT_EQ(r.exitCode(), 0) << r.output;
    expectExactlyOnce(allLogText(root), std::vector<uint32_t>(kMaxThreads, 30000), 0, 1);
    EXPECT_EQ(countSubstr(readFile(root.logcatFile()), "queues kept in process memory only"), 1u);
  }
}

TEST(OfflineDurability, RotationOverTheDirectory) {
  TempRoot root;
  setMask(root);
  root.writeFile("odm/etc/camera/zorvex/praxsettings.json", "{}");
  // Microseconds are not padded: as text "-24-276813" sorts before "-24-29096" and
  // "-24-5", though it is later than both.
  const std::vector<std::string> byTime = {"24-5", "24-40", "24-29096", "24-100000", "24-276813", "24-999999",
                                           "25-3", "25-21", "25-300",   "25-4000",   "25-123456", "26-7"};
  for (const std::string& t : byTime)
    root.writeFile(kDir + "ZuCam_Debug_2001-01-01--00-00-" + t + ".txt", "old\n");
  // Two processes: one opens its file after the other made its own.
  const std::string go = root.path("go");
  const int first = spawnChild("OfflineDurability.LinesChild", root, {{"LINES", "10"}, {"GO", go}});
  const ChildResult second = runChild("OfflineDurability.LinesChild", root, {{"LINES", "10"}});
  EXPECT_EQ(second.exitCode(), 0) << second.output;
  root.writeFile("go", "");
  EXPECT_EQ(waitChild(first, root).exitCode(), 0);

  std::vector<std::string> debug;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.find("Debug") != std::string::npos) debug.push_back(name);
  EXPECT_EQ(debug.size(), 10u) << "ten files for the directory, not ten per process";
  // The four oldest by time went; the newest old ones and both new files stayed.
  for (size_t i = 0; i < byTime.size(); ++i) {
    const bool kept = std::find(debug.begin(), debug.end(),
                                "ZuCam_Debug_2001-01-01--00-00-" + byTime[i] + ".txt") != debug.end();
    EXPECT_EQ(kept, i >= 4) << byTime[i];
  }
  EXPECT_EQ(countSubstr(allLogText(root), "run() T0 "), 20u);
}

// ---- forks and exhausted memory ----

// Child: a forked process logs into private copies of its queues, never into the
// blocks of its parent, and leaves the parent's pool file alone. The parent then dies
// with its lines in memory.
ZU_CHILD_TEST(OfflineDurability, ForkChild) {
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  for (int i = 0; i < 1000; ++i) logNumbered(0, i);
  const pid_t pid = fork();
  if (pid == 0) {
    for (int i = 0; i < 30000; ++i) logNumbered(1, i);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(listDir(kPoolDir).size(), 1u);
  raise(SIGKILL);
}

TEST(OfflineDurability, Fork) {
  TempRoot root;
  setMask(root);
  const ChildResult r = runChild("OfflineDurability.ForkChild", root);
  EXPECT_EQ(r.termSignal(), SIGKILL) << r.output;
  restart(root);
  std::vector<uint32_t> accepted(kMaxThreads, 0);
  accepted[0] = 1000;
  const std::string text = allLogText(root);
  expectExactlyOnce(text, accepted, 0, 1);
  EXPECT_EQ(countSubstr(text, "run() T1 "), 0u) << "the forked child's lines stayed its own";
}

// Child: the queues' bound is one chunk (16 queues) and every queue is owned, so the
// main thread's lines are given up and counted. Once a queue is free again the count
// reaches the file, ahead of the next line.
ZU_CHILD_TEST(OfflineDurability, DroppedLinesChild) {
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  std::atomic<int> holding{0};
  std::atomic<bool> release{false};
  std::vector<std::thread> owners;
  for (int t = 1; t <= 16; ++t)
    owners.emplace_back([&, t] {
      logNumbered(t, 0);
      ++holding;
      while (!release) usleep(1000);
    });
  while (holding < 16) usleep(1000);
  for (int i = 0; i < 10; ++i) logNumbered(0, i);
  release = true;
  owners[0].join();  // its queue is handed over at exit, and recycled by the flush
  facade()->flushLogToFileInterface(true);
  logNumbered(0, 10);
  for (size_t t = 1; t < owners.size(); ++t) owners[t].join();
  facade()->stopOfflineLogger();
}

TEST(OfflineDurability, DroppedLinesAreCounted) {
  TempRoot root;
  setMask(root, {{pool::kBoundProperty, "16"}});
  const ChildResult r = runChild("OfflineDurability.DroppedLinesChild", root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
  const std::string text = allLogText(root);
  const size_t notice = text.find("OfflineLogger dropped 10 lines of threads ");
  ASSERT_NE(notice, std::string::npos);
  // Whose (the one thread that logged them) and why.
  int tid = 0;
  char from[16], to[16];
  ASSERT_EQ(sscanf(text.c_str() + notice,
                   "OfflineLogger dropped 10 lines of threads %d between %15s and %15s", &tid, from, to),
            3)
      << text.substr(notice, 200);
  EXPECT_GT(tid, 0);
  EXPECT_LE(std::string(from), std::string(to));
  EXPECT_EQ(text.compare(text.find('\n', notice) - 28, 29, "no queue memory could be had\n"), 0);
  const size_t next = text.find('\n', notice) + 1;
  EXPECT_NE(text.substr(next, text.find('\n', next) - next).find("run() T0 10"), std::string::npos)
      << "the count comes right before the next line";
  EXPECT_EQ(countSubstr(text, "run() T0 "), 1u) << "lines 0-9 were dropped";
  // Said once, not once a line.
  EXPECT_EQ(countSubstr(readFile(root.logcatFile()), "OfflineLogger queues are at their bound of 16 MiB"),
            1u);
}

// ---- the file system around the offline log ----

namespace {

// A small tmpfs over a directory of the root, made and removed by the test; false when
// this process may not mount one.
class SmallDisk {
 public:
  SmallDisk(const std::string& dir, const char* size) : mDir(dir) {
    mkdir(dir.c_str(), 0777);
    mMounted = mount("tmpfs", dir.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) == 0;
    mWhy = mMounted ? "" : std::string("cannot mount a tmpfs here: ") + strerror(errno);
  }
  ~SmallDisk() {
    if (mMounted) umount2(mDir.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mMounted; }
  const std::string& why() const { return mWhy; }
  bool resize(const char* size) {
    return mount(nullptr, mDir.c_str(), nullptr, MS_REMOUNT, (std::string("size=") + size).c_str()) == 0;
  }

 private:
  std::string mDir;
  bool mMounted = false;
  std::string mWhy;
};

void waitForFile(const std::string& path, int pid) {
  for (int i = 0; i < 30000 && access(path.c_str(), F_OK) != 0 && kill(pid, 0) == 0; ++i) usleep(1000);
}

}  // namespace

// Four threads log LINES numbered lines each (counted as in WriterChild), then wait
// for "go" in the root; then LINES more each. MODE:
//   stop    a forced flush before the wait; after the second round, stop the logger
//           and exit
//   flush   then ask for a normal flush, say "done" and wait to be killed
ZU_CHILD_TEST(OfflineDurability, TwoRoundsChild) {
  const std::string mode = env("MODE");
  const int lines = atoi(env("LINES", "500").c_str());
  uint32_t* counts = mapCounts(env("COUNTS"));
  ASSERT_NE(counts, nullptr);
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  auto round = [&](int from) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([=] {
        for (int i = from; i < from + lines; ++i) {
          logNumbered(t, i);
          __atomic_store_n(&counts[t], static_cast<uint32_t>(i + 1), __ATOMIC_RELEASE);
        }
      });
    for (auto& t : threads) t.join();
  };
  round(0);
  if (mode == "stop") facade()->flushLogToFileInterface(true);
  while (access("go", F_OK) != 0) usleep(1000);
  round(lines);
  if (mode == "stop") {
    facade()->stopOfflineLogger();
    return;
  }
  facade()->flushLogToFileInterface(false);
  close(open("done", O_WRONLY | O_CREAT, 0644));
  for (;;) pause();
}

// The disk fills while the threads log: the flush keeps failing, nothing is counted as
// written, and once there is room again every line reaches the files, once.
TEST(OfflineDurability, DiskFillsThenFrees) {
  TempRoot root;
  setMask(root, {{"persist.vendor.camera.offlinelog.pooldir", "/data/vendor/camera/queues"}});
  SmallDisk disk(root.path(kDir), "256k");
  if (!disk.mounted()) GTEST_SKIP() << disk.why();
  std::map<std::string, std::string> vars = writerEnv(root, "stop");
  vars["LINES"] = "10000";             // about 3 MB in all
  vars["ZUDEBUG_FREE_MB"] = "100000";  // the start's own check of free space passes
  const int pid = spawnChild("OfflineDurability.TwoRoundsChild", root, vars);
  waitForLines(root, pid, 40000);
  usleep(300000);
  ASSERT_TRUE(disk.resize("64m"));
  close(open(root.path("go").c_str(), O_WRONLY | O_CREAT, 0644));
  const ChildResult r = waitChild(pid, root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
  const std::vector<uint32_t> counts = readCounts(root.path("counts.bin"));
  for (int t = 0; t < 4; ++t) EXPECT_EQ(counts[t], 20000u);
  expectExactlyOnce(allLogText(root), counts, 0, 4);
  EXPECT_GE(countSubstr(readFile(root.logcatFile()), "the lines wait in their queues"), 1u)
      << readFile(root.logcatFile()).substr(0, 3000);
}

// A start that recovers a dead process's queues into a full disk writes what fits and
// keeps the rest in the queue file; a later start with room writes the rest, once.
TEST(OfflineDurability, RecoveryIntoAFullDiskThenAFreedOne) {
  TempRoot root;
  setMask(root, {{"persist.vendor.camera.offlinelog.pooldir", "/data/vendor/camera/queues"}});
  SmallDisk disk(root.path(kDir), "64m");
  if (!disk.mounted()) GTEST_SKIP() << disk.why();
  const std::map<std::string, std::string> roomy = {{"ZUDEBUG_FREE_MB", "100000"}};
  std::map<std::string, std::string> vars = writerEnv(root, "idle");
  vars.insert(roomy.begin(), roomy.end());
  const int pid = spawnChild("OfflineDurability.WriterChild", root, vars);
  waitForLines(root, pid, 2000);
  kill(pid, SIGKILL);
  waitChild(pid, root);
  // Full: room for a few lines only.
  ASSERT_TRUE(disk.resize("64k"));
  {
    const int fd = open(root.path(kDir + "filler").c_str(), O_WRONLY | O_CREAT, 0644);
    std::string block(4096, 'x');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    ftruncate(fd, lseek(fd, 0, SEEK_CUR) - 2048);  // a little room
    close(fd);
  }
  restart(root, roomy);
  std::vector<std::string> queues;
  for (const std::string& name : listDir(root.path("data/vendor/camera/queues")))
    if (name.find(".pool") != std::string::npos) queues.push_back(name);
  // The dead process's, and the restart's own: its last lines did not fit either.
  EXPECT_EQ(queues.size(), 2u) << "the dead queue file is kept while its lines are not on disk";
  EXPECT_GE(countSubstr(readFile(root.logcatFile()), "kept there for the next start"), 1u);
  unlink(root.path(kDir + "filler").c_str());
  ASSERT_TRUE(disk.resize("64m"));
  restart(root, roomy);
  expectExactlyOnce(allLogText(root), readCounts(root.path("counts.bin")), 0, 4);
  EXPECT_TRUE(listDir(root.path("data/vendor/camera/queues")).empty());
}

// The offline directory, queue file included, is removed while a process logs (as
// engineers clear logs); its lines before and after reach the files once the process
// is killed and another starts.
TEST(OfflineDurability, DirectoryRemovedThenKilled) {
  TempRoot root;
  setMask(root);
  const int pid = spawnChild("OfflineDurability.TwoRoundsChild", root, writerEnv(root, "flush"));
  waitForLines(root, pid, 2000);
  ASSERT_EQ(system(("rm -rf " + root.path(kDir)).c_str()), 0);
  close(open(root.path("go").c_str(), O_WRONLY | O_CREAT, 0644));
  waitForFile(root.path("done"), pid);
  kill(pid, SIGKILL);
  waitChild(pid, root);
  EXPECT_EQ(poolFiles(root).size(), 1u) << "the queue file was made again";
  restart(root);
  const std::vector<uint32_t> counts = readCounts(root.path("counts.bin"));
  for (int t = 0; t < 4; ++t) EXPECT_EQ(counts[t], 1000u);
  expectExactlyOnce(allLogText(root), counts, 0, 4);
  EXPECT_GE(countSubstr(readFile(root.logcatFile()), "was removed under the process: made again"), 1u);
}

// A link planted in place of the current log file (the directory is shared): what it
// points to is neither written nor chmod'ed, and the lines go to a new file of ours.
ZU_CHILD_TEST(OfflineDurability, PlantedLinkChild) {
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  logNumbered(0, 0);
  facade()->flushLogToFileInterface(true);
  std::string current;
  for (const std::string& name : listDir(kDir))
    if (name.rfind("ZuCam_Debug_2", 0) == 0) current = kDir + name;
  ASSERT_FALSE(current.empty());
  ASSERT_EQ(unlink(current.c_str()), 0);
  if (env("PLANT") == "file") {
    // Another user's file, writable by all, under the current file's name.
    const int fd = open(current.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fchown(fd, 65534, 65534), 0);
    ASSERT_EQ(fchmod(fd, 0666), 0);
    close(fd);
  } else {
    ASSERT_EQ(symlink("../../../../victim", current.c_str()), 0);
    if (geteuid() == 0) {
      ASSERT_EQ(lchown(current.c_str(), 65534, 65534), 0);
    }
  }
  logNumbered(0, 1);
  facade()->flushLogToFileInterface(true);
  facade()->stopOfflineLogger();
}

TEST(OfflineDurability, PlantedLinkIsLeftAlone) {
  TempRoot root;
  setMask(root);
  root.writeFile("victim", "not a log\n");
  chmod(root.path("victim").c_str(), 0600);
  const ChildResult r = runChild("OfflineDurability.PlantedLinkChild", root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
  EXPECT_EQ(readFile(root.path("victim")), "not a log\n");
  struct stat st;
  ASSERT_EQ(stat(root.path("victim").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(countSubstr(allLogText(root), "stress.cpp:1 run() T0 1\n"), 1u) << "the line after the link";
  EXPECT_GE(countSubstr(readFile(root.logcatFile()), "is not a file of this process's user or group"), 1u);
  // A directory the library makes is the group's alone.
  ASSERT_EQ(stat(root.path(kPoolDir).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 02770u);
}

// The current log file replaced by another user's regular file, open to all: it is
// neither written nor chmod'ed, the line goes to a new file of ours.
TEST(OfflineDurability, PlantedForeignFileIsLeftAlone) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a file of another user";
  TempRoot root;
  setMask(root);
  const ChildResult r = runChild("OfflineDurability.PlantedLinkChild", root, {{"PLANT", "file"}});
  EXPECT_EQ(r.exitCode(), 0) << r.output;
  size_t foreign = 0;
  for (const std::string& name : debugFiles(root)) {
    struct stat st;
    ASSERT_EQ(stat(root.path(kDir + name).c_str(), &st), 0);
    if (st.st_uid != 65534) continue;
    ++foreign;
    EXPECT_EQ(st.st_size, 0) << "nothing written into another user's file";
    EXPECT_EQ(st.st_mode & 0777, 0666u);
  }
  EXPECT_EQ(foreign, 1u);
  EXPECT_EQ(countSubstr(allLogText(root), "stress.cpp:1 run() T0 1\n"), 1u) << "the line after the swap";
}

// A camera process that crashed, then restarted by init twelve times, each start
// logging a line into a file of its own (more files than the cap): the crash record
// is not rotated away.
TEST(OfflineDurability, CrashRecordOutlivesRestarts) {
  TempRoot root;
  setMask(root);
  std::map<std::string, std::string> vars = writerEnv(root, "crash");
  vars["ASAN_OPTIONS"] = "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";
  vars["TSAN_OPTIONS"] = vars["ASAN_OPTIONS"] + ":report_signal_unsafe=0";
  vars["LINES"] = "20000";  // more than one file
  const ChildResult r = waitChild(spawnChild("OfflineDurability.WriterChild", root, vars), root);
  ASSERT_EQ(r.termSignal(), SIGSEGV) << r.output;
  for (int i = 0; i < 12; ++i) {
    const ChildResult again = runChild("OfflineDurability.LinesChild", root, {{"LINES", "1"}});
    ASSERT_EQ(again.exitCode(), 0) << again.output;
  }
  EXPECT_EQ(countSubstr(allLogText(root), " F DEBUG   : pid: "), 1u) << "the crash record";
  size_t debug = 0;
  for (const std::string& name : listDir(root.offlineDir())) debug += name.find("Debug") != std::string::npos;
  EXPECT_EQ(debug, 10u);
}

// Files go in the order they were opened, whatever the clock says: a process whose
// clock is two hours behind names its file before the files of an earlier one, and
// rotation still takes the earliest opened first. The clock going back is said once.
TEST(OfflineDurability, RotationByOpeningOrderWhenTheClockJumps) {
  if (!emulator().empty()) GTEST_SKIP() << "the clock shim is preloaded into a native child only";
  // The first process's clock against the ten after it: they run two hours behind it
  // (a device booted with a reset clock), or it ran two hours ahead.
  for (const auto& shifts : {std::make_pair("0", "-7200"), std::make_pair("7200", "0")}) {
    SCOPED_TRACE(shifts.first);
    TempRoot root;
    setMask(root);
    const std::map<std::string, std::string> shim = {{"LD_PRELOAD", CLOCK_SHIM},
                                                     {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
    std::string first;
    for (int i = 0; i < 11; ++i) {
      std::map<std::string, std::string> vars = shim;
      vars["ZUDEBUG_CLOCK_SHIFT_S"] = i == 0 ? shifts.first : shifts.second;
      vars["LINES"] = "1";
      const ChildResult r = runChild("OfflineDurability.LinesChild", root, vars);
      ASSERT_EQ(r.exitCode(), 0) << r.output;
      if (i == 0) {
        ASSERT_EQ(debugFiles(root).size(), 1u);
        first = debugFiles(root)[0];
      }
    }
    // Eleven files opened, ten kept: the first one opened went, though its name is the
    // latest (the error-information file, older still, went before it).
    const std::vector<std::string> files = debugFiles(root);
    EXPECT_EQ(files.size(), 10u);
    EXPECT_EQ(std::count(files.begin(), files.end(), first), 0) << first;
    EXPECT_EQ(countSubstr(readFile(root.logcatFile()), "the clock went back"), 1u);
  }
}

// A queue file planted as 1 GiB, sparse, whose table claims 64 chunks and a full
// block that was never written: the start reads no more than the bound (4 chunks),
// skips the hole, recovers only what the dead process really wrote and rotates none of
// the files already there away.
TEST(OfflineDurability, PlantedSparseQueueFile) {
  TempRoot root;
  PoolImage image = killedWriterPool(root);
  ASSERT_FALSE(image.path.empty());
  image.header()->chunkCount = 64;
  image.save();
  ASSERT_EQ(truncate(image.path.c_str(), static_cast<off_t>(pool::kHeaderBytes + 64 * pool::kChunkBytes)), 0);
  const uint64_t last = pool::kHeaderBytes + 3 * pool::kChunkBytes;  // the last chunk the bound lets in
  pool::BlockDesc desc{};
  desc.state = pool::kBlockWaiting;
  desc.used = pool::kBlockSize;
  desc.seq = 1000000;
  const int fd = open(image.path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, &desc, sizeof(desc), static_cast<off_t>(last)), static_cast<ssize_t>(sizeof(desc)));
  close(fd);
  std::vector<std::string> older;
  for (int i = 0; i < 8; ++i) {
    older.push_back(kDir + "ZuCam_Debug_2001-01-01--00-00-0" + std::to_string(i) + "-000.txt");
    root.writeFile(older.back(), "older\n");
  }
  restart(root);
  const std::string text = allLogText(root);
  EXPECT_EQ(text.find('\0'), std::string::npos) << "no bytes of the hole";
  expectExactlyOnce(text, readCounts(root.path("counts.bin")), 0, 4);
  const std::string logcat = readFile(root.logcatFile());
  EXPECT_EQ(countSubstr(logcat, "1 blocks whose bytes were never written skipped"), 1u);
  EXPECT_EQ(countSubstr(logcat, "claims 64 chunks, more than the bound: only the first 4 read"), 1u);
  for (const std::string& name : older)
    EXPECT_EQ(access(root.path(name).c_str(), F_OK), 0) << name << " rotated away";
  EXPECT_EQ(poolFiles(root).size(), 0u);
}

// ---- a live queue file tampered with, the flush held up, a directory of junk ----

namespace {

std::string livePoolPath(const std::string& rootDir, int pid) {
  for (const std::string& name : listDir(rootDir + "/" + kPoolDir))
    if (name.find("_" + std::to_string(pid) + "_") != std::string::npos &&
        name.find(".tmp") == std::string::npos)
      return rootDir + "/" + kPoolDir + name;
  return "";
}

}  // namespace

// While four threads log, the live queue file is cut in the middle of its first chunk,
// or the counters of its first chunk's blocks are overwritten with impossible values.
// The process lives on; a cut is told with the threads whose queued bytes went with
// it; rewritten counters cost nothing.
TEST(OfflineDurability, LiveQueueFileTamperedWith) {
  for (const std::string how : {"cut", "rewritten"}) {
    SCOPED_TRACE(how);
    TempRoot root;
    setMask(root);
    std::map<std::string, std::string> vars = writerEnv(root, "paced");
    vars["LINES"] = "60000";
    vars["STOP"] = root.path("stop");
    const int pid = spawnChild("OfflineDurability.WriterChild", root, vars);
    waitForLines(root, pid, 60000);
    const std::string path = livePoolPath(root.path(""), pid);
    ASSERT_FALSE(path.empty());
    if (how == "cut") {
      ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(pool::kHeaderBytes + pool::kAreaBytes + 2500000)),
                0);
    } else {
      const int fd = open(path.c_str(), O_WRONLY);
      ASSERT_GE(fd, 0);
      pool::BlockDesc junk[pool::kBlocksPerChunk];
      for (pool::BlockDesc& d : junk) {
        memset(&d, 0xA5, sizeof(d));
        d.state = 7;
        d.used = 0xFFFFFFFFu;
        d.flushed = 0x7FFFFFFFu;
      }
      ASSERT_EQ(pwrite(fd, junk, sizeof(junk), static_cast<off_t>(pool::kHeaderBytes)),
                static_cast<ssize_t>(sizeof(junk)));
      close(fd);
    }
    root.writeFile("stop", "");
    const ChildResult r = waitChild(pid, root);
    ASSERT_EQ(r.exitCode(), 0) << "the writer died of signal " << r.termSignal() << r.output;
    const std::string text = allLogText(root);
    const LossTold told = lossTold(text);
    expectExactlyOnce(text, readCounts(root.path("counts.bin")), 0, 4, &told);
    EXPECT_EQ(told.droppedLines, 0u);
    EXPECT_EQ(countSubstr(text, " under the process: "), how == "cut" ? 1u : 0u);
    EXPECT_EQ(poolFiles(root).size(), 0u);
  }
}

namespace {

std::atomic<bool> gHoldFlush{false};
std::atomic<bool> gFlushHeld{false};

void holdHere(int) {
  gFlushHeld = true;
  while (gHoldFlush) usleep(1000);
}

}  // namespace

// Child: the queues' bound is one chunk. The flush thread is held inside a signal
// handler while four threads log 6 MiB each; the queue file stays within its bound and
// the lines that did not fit are given up. Once the flush goes on, each thread logs a
// few more lines, and the notices reach the files with them.
ZU_CHILD_TEST(OfflineDurability, HeldFlushChild) {
  uint32_t* counts = mapCounts(env("COUNTS"));
  ASSERT_NE(counts, nullptr);
  ASSERT_EQ(facade()->startOfflineLogger(), 0);
  pid_t flushTid = 0;
  for (int tries = 0; flushTid == 0 && tries < 5000; ++tries, usleep(1000))
    for (const std::string& task : listDir("/proc/self/task"))
      if (readFile("/proc/self/task/" + task + "/comm") == "ZuFlushDebug\n") flushTid = atoi(task.c_str());
  ASSERT_NE(flushTid, 0);
  struct sigaction hold;
  memset(&hold, 0, sizeof(hold));
  hold.sa_handler = holdHere;
  ASSERT_EQ(sigaction(SIGUSR2, &hold, nullptr), 0);
  gHoldFlush = true;
  ASSERT_EQ(syscall(SYS_tgkill, getpid(), flushTid, SIGUSR2), 0);
  while (!gFlushHeld) usleep(1000);
  const std::string pool = livePoolPath(env("ZUDEBUG_ROOT"), getpid());
  std::vector<std::thread> threads;
  std::atomic<int> done{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      int i = 0;
      for (; i < 80000; ++i) {
        logNumbered(t, i);
        __atomic_store_n(&counts[t], static_cast<uint32_t>(i + 1), __ATOMIC_RELEASE);
      }
      ++done;
      while (gHoldFlush) usleep(1000);
      for (int end = i + 100; i < end; ++i) {
        logNumbered(t, i);
        __atomic_store_n(&counts[t], static_cast<uint32_t>(i + 1), __ATOMIC_RELEASE);
        usleep(100);
      }
    });
  while (done < 4) usleep(1000);
  struct stat st;
  ASSERT_EQ(stat(pool.c_str(), &st), 0);
  EXPECT_LE(static_cast<uint64_t>(st.st_size), pool::kHeaderBytes + pool::kChunkBytes) << "the bound";
  gHoldFlush = false;
  for (auto& t : threads) t.join();
  facade()->stopOfflineLogger();
}

TEST(OfflineDurability, FlushHeldUntilTheBound) {
  TempRoot root;
  setMask(root, {{pool::kBoundProperty, "16"}});
  const ChildResult r =
      runChild("OfflineDurability.HeldFlushChild", root, {{"COUNTS", root.path("counts.bin")}});
  ASSERT_EQ(r.exitCode(), 0) << r.output;
  const std::string text = allLogText(root);
  const LossTold told = lossTold(text);
  EXPECT_GT(told.droppedLines, 0u) << "16 MiB of queues cannot hold 4 x 80000 lines";
  expectExactlyOnce(text, readCounts(root.path("counts.bin")), 0, 4, &told);
  EXPECT_EQ(countSubstr(readFile(root.logcatFile()), "OfflineLogger queues are at their bound of 16 MiB"),
            1u);
}

// Thousands of junk files where the queue files live, some of another user, one a link
// to a file outside: the start removes this user's junk, leaves the rest alone, says
// so in a few lines, and goes on.
TEST(OfflineDurability, ThousandsOfGarbageQueueFiles) {
  TempRoot root;
  setMask(root);
  root.writeFile("outside", "keep me\n");
  ASSERT_EQ(mkdir(root.path("data/vendor/camera/offlinelog").c_str(), 0770) == 0 || errno == EEXIST, true);
  ASSERT_EQ(mkdir(root.path(kPoolDir).c_str(), 0770) == 0 || errno == EEXIST, true);
  const bool canChown = geteuid() == 0;
  std::string junk(6000, '\0');
  for (int i = 0; i < 3000; ++i) {
    const std::string path = root.path(kPoolDir + "ZuCam_Debug_" + std::to_string(100000 + i) + "_1.pool");
    for (size_t b = 0; b < junk.size(); ++b) junk[b] = static_cast<char>((i * 131 + b * 7) & 0xff);
    if (i % 3 == 0) memcpy(&junk[0], pool::kMagic, sizeof(pool::kMagic));  // a header that does not fit
    root.writeFile(kPoolDir + "ZuCam_Debug_" + std::to_string(100000 + i) + "_1.pool",
                   junk.substr(0, static_cast<size_t>(i % 7) * 1000));
    if (canChown && i < 20) {
      ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    }
  }
  ASSERT_EQ(symlink(root.path("outside").c_str(), root.path(kPoolDir + "ZuCam_Debug_1_1.pool").c_str()), 0);
  restart(root);
  const std::vector<std::string> left = poolFiles(root);
  EXPECT_EQ(left.size(), canChown ? 21u : 1u) << "another user's files and the link stay";
  EXPECT_EQ(readFile(root.path("outside")), "keep me\n");
  const std::string logcat = readFile(root.logcatFile());
  EXPECT_EQ(countSubstr(logcat, "cannot be trusted"), 11u) << "ten lines and a sum";
  EXPECT_NE(logcat.find(canChown ? "2970 more pool files in " : "2990 more pool files in "),
            std::string::npos);
  EXPECT_LE(countSubstr(logcat, "is not a queue file of this process's user"), 11u);
}

// The directories the library makes are the group's alone unless a property says
// otherwise; a world-writable mode is refused, and a world-writable directory of ours
// left by an older build is closed.
TEST(OfflineDurability, DirectoryModes) {
  struct Row {
    const char* property;  // null: unset
    bool oldOpenDir;       // the offline directory exists as 0777
    mode_t expected;
    const char* said;
  };
  const Row rows[] = {{nullptr, false, 02770, nullptr},
                      {"2775", false, 02775, nullptr},
                      {"777", false, 0775, "a directory every user can write is not made"},
                      {"rw", false, 02770, "is not an octal mode the owner can use"},
                      {nullptr, true, 02770, nullptr}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.property != nullptr ? row.property : "unset");
    TempRoot root;
    std::map<std::string, std::string> props;
    if (row.property != nullptr) props[pool::kDirModeProperty] = row.property;
    setMask(root, props);
    if (row.oldOpenDir) {
      ASSERT_EQ(system(("mkdir -p " + root.path(kDir)).c_str()), 0);
      ASSERT_EQ(chmod(root.path(kDir).c_str(), 0777), 0);
    }
    restart(root);
    struct stat st;
    ASSERT_EQ(stat(root.path(kPoolDir).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, row.expected);
    ASSERT_EQ(stat(root.path(kDir).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0002, 0u) << "the offline directory is not world-writable";
    if (row.said != nullptr) {
      EXPECT_NE(readFile(root.logcatFile()).find(row.said), std::string::npos);
    }
  }
}
