// zudebug-log merge: the line layouts and file-name stamps it reads, time order over
// files, threads and a new year, damaged and foreign input, filters, JSON Lines, and
// the lnav format; on hand-made files and on files the library wrote in a child.
#include <rapidjson/document.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FileStamp.h"
#include "LogLine.h"
#include "LogTool.h"
#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zutest;

namespace {

using Lines = std::vector<std::string>;

Lines splitLines(const std::string& text) {
  Lines out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::string joinLines(const Lines& lines) {
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

// A line in the offline layout; `ns` is printed with nine digits.
std::string logLine(const char* monthDayTime, long ns, int pid, int tid, char level, const std::string& msg,
                    const char* tagLabel = "ZuCamHAL [HAL ]") {
  char head[128];
  snprintf(head, sizeof(head), "%s:%09ld  %4d  %4d %c %s t.cpp:1 f() ", monthDayTime, ns, pid, tid, level,
           tagLabel);
  return head + msg;
}

// A crash record line: the nanoseconds printed with at least six digits.
std::string crashLine(const char* monthDayTime, long ns, int pid, int tid, const std::string& msg) {
  char head[128];
  snprintf(head, sizeof(head), "%s:%06ld  %4d  %4d F DEBUG   : ", monthDayTime, ns, pid, tid);
  return head + msg;
}

}  // namespace

// Every layout the library writes, and what is not a line of it.
TEST(LogLineParser, ReadsEveryLayoutOfTheLibrary) {
  zulog::LogLine l;
  ASSERT_TRUE(zulog::parseLine(
      "11-23 12:16:28:055583512  5452  5460 D ZuCamHAL [HAL ] GuardMonitor.cpp:299 registerFuncGuard() a: b",
      &l));
  EXPECT_EQ(l.stamp.month, 11);
  EXPECT_EQ(l.stamp.day, 23);
  EXPECT_EQ(l.stamp.secondOfDay, 12 * 3600 + 16 * 60 + 28);
  EXPECT_EQ(l.stamp.nanos, 55583512);
  EXPECT_EQ(l.stamp.pid, 5452);
  EXPECT_EQ(l.stamp.tid, 5460);
  EXPECT_EQ(l.stamp.level, 'D');
  EXPECT_EQ(l.tag, "ZuCamHAL");
  EXPECT_EQ(l.label, "[HAL ]");
  EXPECT_EQ(l.file, "GuardMonitor.cpp");
  EXPECT_EQ(l.line, 299);
  EXPECT_EQ(l.func, "registerFuncGuard");
  EXPECT_EQ(l.msg, "a: b");

  // Ids wider than "%4d", the short form, unknown groups, a lambda, an empty message.
  ASSERT_TRUE(
      zulog::parseLine("01-02 00:00:00:000000001  123456  123457 I [UNKNOWN] [UNKNOWN] plain text", &l));
  EXPECT_EQ(l.stamp.pid, 123456);
  EXPECT_EQ(l.stamp.tid, 123457);
  EXPECT_EQ(l.label, "[UNKNOWN]");
  EXPECT_FALSE(l.hasCallSite);
  EXPECT_EQ(l.msg, "plain text");
  ASSERT_TRUE(zulog::parseLine(
      "01-02 00:00:00:000000001     1     2 W ZuAlgoEngine [RT  ] a.cpp:7 operator()() ", &l));
  EXPECT_EQ(l.label, "[RT  ]");
  EXPECT_EQ(l.func, "operator()");
  EXPECT_EQ(l.msg, "");

  // Crash records: six digits of nanoseconds are still nanoseconds.
  ASSERT_TRUE(
      zulog::parseLine("11-23 12:16:29:005000  5452  5465 F DEBUG   : #02 pc 00000000000b2c0  /x", &l));
  EXPECT_TRUE(l.crash);
  EXPECT_EQ(l.stamp.nanos, 5000);
  EXPECT_EQ(l.msg, "#02 pc 00000000000b2c0  /x");

  for (const char* bad :
       {"13-01 00:00:00:000000001  1  2 I t [l] m", "11-23 25:00:00:000000001  1  2 I t [l] m",
        "11-23 12:16:28:  1  2 I t [l] m", "11-23 12:16:28:000000001  1  2", "F DEBUG   : #01 pc 0",
        "11-23 12:16:28:0000000001  1  2 I t [l] m", "OfflineLogger detect file system has no space"})
    EXPECT_FALSE(zulog::parseLine(bad, &l)) << bad;
}

// Names as the logger makes them ("%03ld" microseconds, so 3 to 6 digits), and the
// year each month-day of a file's lines gets.
TEST(LogToolFileNames, StampsGiveTheYearAroundTheFileStart) {
  auto s = zulog::parseNameStamp("/d/ZuCam_Debug_2026-11-23--12-16-28-48877.txt");
  ASSERT_TRUE(s.has_value());
  EXPECT_EQ(s->year, 2026);
  EXPECT_EQ(s->micros, 48877);
  s = zulog::parseNameStamp("ZuCam_Binary_2024-03-07--09-05-02-045.bin");
  ASSERT_TRUE(s.has_value());
  EXPECT_EQ(s->micros, 45);
  for (const char* bad :
       {"ZuCam_Debug_PraxErrorInfoDump.txt", "ZuCam_Debug_ErrorMsg.txt", "PRAX_DumpInfo_2024-3-7.txt",
        "ZuCam_Debug_2026-13-23--12-16-28-1.txt", "ZuCam_Debug_2026-11-23--12-16-28-1"})
    EXPECT_FALSE(zulog::parseNameStamp(bad).has_value()) << bad;

  const zulog::YearResolver newYear(2025, 12, 31, zulog::YearResolver::kLogDaysBefore);
  EXPECT_EQ(newYear.yearOf(12, 31), 2025);
  EXPECT_EQ(newYear.yearOf(1, 1), 2026);   // after the start, past the new year
  EXPECT_EQ(newYear.yearOf(12, 5), 2025);  // logged before the file was opened
  EXPECT_EQ(newYear.yearOf(11, 29), 2026);
  const zulog::YearResolver justAfter(2026, 1, 1, zulog::YearResolver::kLogDaysBefore);
  EXPECT_EQ(justAfter.yearOf(12, 31), 2025);
  EXPECT_EQ(justAfter.yearOf(6, 1), 2026);
  EXPECT_EQ(newYear.dayOf(1, 1) - newYear.dayOf(12, 31), 1);
}

// Time order over files, a new year, equal times, six-digit nanoseconds and lines
// without a stamp, checked line by line.
TEST(LogToolMerge, HandMadeFilesComeOutInTimeOrder) {
  TempRoot root;
  const std::string dir = root.offlineDir();
  // A file opened just before the new year, and one just after with a line that
  // waited in memory from before midnight.
  const Lines late = {logLine("12-31 23:59:55", 1, 10, 11, 'I', "A old year"),
                      logLine("01-01 00:00:05", 0, 10, 11, 'I', "D new year"), "  a line the message wrapped",
                      logLine("01-01 00:00:03", 500000000, 10, 12, 'I', "C2 other run")};
  const Lines early = {"text before the first stamp", logLine("12-31 23:59:58", 0, 20, 21, 'W', "B waited"),
                       logLine("01-01 00:00:03", 500000000, 20, 21, 'I', "C1 equal time, earlier file")};
  root.writeFile("data/vendor/camera/offlinelog/ZuCam_Debug_2025-12-31--23-59-50-123.txt", joinLines(late));
  root.writeFile("data/vendor/camera/offlinelog/ZuCam_Debug_2026-01-01--00-00-01-5.txt", joinLines(early));

  ProgramOutput r = zlog({"merge", dir});
  EXPECT_EQ(r.exitCode(), 0) << r.err;
  EXPECT_EQ(r.err, "");
  // Equal times: the earlier file of the directory (by its stamp) first, then the
  // next run of the other file.
  const Lines expected = {late[0], early[0], early[1], late[3], early[2], late[1], late[2]};
  EXPECT_EQ(splitLines(r.out), expected);

  r = zlog({"merge", "--full-date", dir});
  Lines full = splitLines(r.out);
  ASSERT_EQ(full.size(), 7u);
  EXPECT_EQ(full[0].substr(0, 20), "2025-12-31 23:59:55:");
  EXPECT_EQ(full[1], "text before the first stamp");
  EXPECT_EQ(full[2].substr(0, 11), "2025-12-31 ");
  EXPECT_EQ(full[5].substr(0, 11), "2026-01-01 ");

  // Nanoseconds are a count: "005000" of a crash record lies between 4,000 and 6,000,
  // and an eight-digit count of 12,345,678 between 12 and 13 ms.
  const Lines crash = {crashLine("03-07 09:15:02", 5000, 30, 31, "*** ***"),
                       crashLine("03-07 09:15:02", 12345678, 30, 31, "pid: 30, tid: 31")};
  const Lines plain = {logLine("03-07 09:15:02", 4000, 40, 41, 'I', "x"),
                       logLine("03-07 09:15:02", 6000, 40, 41, 'I', "y"),
                       logLine("03-07 09:15:02", 12000000, 40, 41, 'I', "z"),
                       logLine("03-07 09:15:02", 13000000, 40, 41, 'I', "w")};
  root.writeFile("n/ZuCam_Debug_2024-03-07--09-15-00-1.txt", joinLines(crash));
  root.writeFile("n/ZuCam_Debug_2024-03-07--09-15-00-2.txt", joinLines(plain));
  r = zlog({"merge", root.path("n")});
  EXPECT_EQ(splitLines(r.out), (Lines{plain[0], crash[0], plain[1], plain[2], crash[1], plain[3]}));

  // JSON Lines: the year, nanoseconds, nulls, and a wrapped line inside its message.
  r = zlog({"merge", "--format", "jsonl", dir});
  Lines json = splitLines(r.out);
  ASSERT_EQ(json.size(), 6u);
  rapidjson::Document d;
  d.Parse(json[0].c_str());
  ASSERT_TRUE(d.IsObject());
  EXPECT_STREQ(d["ts"].GetString(), "2025-12-31T23:59:55.000000001");
  EXPECT_EQ(d["pid"].GetInt(), 10);
  EXPECT_STREQ(d["label"].GetString(), "[HAL ]");
  EXPECT_STREQ(d["file"].GetString(), "t.cpp");
  EXPECT_EQ(d["line"].GetInt(), 1);
  d.Parse(json[1].c_str());
  EXPECT_TRUE(d["ts"].IsNull() && d["pid"].IsNull() && d["func"].IsNull());
  EXPECT_STREQ(d["msg"].GetString(), "text before the first stamp");
  d.Parse(json[5].c_str());
  EXPECT_STREQ(d["ts"].GetString(), "2026-01-01T00:00:05.000000000");
  EXPECT_STREQ(d["msg"].GetString(), "D new year\n  a line the message wrapped");
  r = zlog({"merge", "--format", "jsonl", root.path("n")});
  d.Parse(splitLines(r.out)[1].c_str());
  EXPECT_STREQ(d["level"].GetString(), "F");
  EXPECT_TRUE(d["label"].IsNull());
  EXPECT_STREQ(d["ts"].GetString(), "2024-03-07T09:15:02.000005000");
}

// Damage is skipped and counted per file; every good line still comes out once.
TEST(LogToolMerge, DamagedAndForeignInputIsSkippedWithCounts) {
  TempRoot root;
  const Lines good = {
      logLine("05-01 10:00:00", 1, 1, 2, 'I', "one"), logLine("05-01 10:00:01", 1, 1, 2, 'I', "two"),
      logLine("05-01 10:00:02", 1, 1, 2, 'I', "three"), logLine("05-01 10:00:03", 1, 1, 2, 'I', "four")};
  std::string damaged = good[0] + "\n";
  damaged += std::string(4096, '\0') + good[1] + "\n";           // a block that never got its data
  damaged += "\x01\x02\xff\xfe binary\n";                        // garbage
  damaged += std::string(40000, 'x') + "\n";                     // longer than any line
  damaged += good[2] + "\n" + "\xc3\x28 not utf-8\n" + good[3];  // and a torn last line
  damaged += "\n" + good[3].substr(0, 30);
  root.writeFile("d/ZuCam_Debug_2024-05-01--10-00-00-1.txt", damaged);
  root.writeFile("foreign.txt", "just some text\nwithout any stamp\n");
  std::string binary;
  for (int i = 0; i < 20000; ++i) binary += static_cast<char>((i * 7919) % 251);
  root.writeFile("binary.bin", binary);
  root.writeFile("empty/ZuCam_Debug_2024-05-01--09-00-00-1.txt", "");

  ProgramOutput r = zlog({"merge", root.path("d"), root.path("foreign.txt"), root.path("binary.bin"),
                          root.path("empty"), root.path("missing")});
  EXPECT_EQ(r.exitCode(), 1) << "a path that does not exist";
  EXPECT_EQ(splitLines(r.out), good);
  EXPECT_NE(r.err.find("ZuCam_Debug_2024-05-01--10-00-00-1.txt: 3 garbage lines, 4096 zero bytes, 1 torn "
                       "last line skipped"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("foreign.txt: not an offline log"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("binary.bin: not an offline log"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("missing: No such file or directory"), std::string::npos) << r.err;

  // Bad arguments: a clear message and status 2, nothing read.
  const std::vector<std::pair<Lines, std::string>> bad = {
      {{"merge"}, "no files or directories"},
      {{"merge", "--level", "X", root.path("d")}, "unknown severity X"},
      {{"merge", "--since", "yesterday", root.path("d")}, "--since: not a time"},
      {{"merge", "--grep", "(", root.path("d")}, "--grep:"},
      {{"merge", "--format", "xml", root.path("d")}, "--format is text or jsonl"},
      {{"merge", "--pid", "12a", root.path("d")}, "--pid: not a number"},
      {{"merge", "--frobnicate", root.path("d")}, "unknown option --frobnicate"},
      {{"merge", "--since"}, "--since needs a value"},
      {{"crash", "--context", "-3", root.path("d")}, "--context: not a line count"},
      {{"snapshot"}, "no snapshot dump"},
      {{"frobnicate"}, "unknown command"},
  };
  for (const auto& [args, message] : bad) {
    r = zlog(args);
    EXPECT_EQ(r.exitCode(), 2) << args[0];
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

// Each filter alone and together; lines without a stamp share their line's fate.
TEST(LogToolMerge, FiltersSelectLines) {
  TempRoot root;
  const Lines lines = {logLine("07-01 08:00:00", 0, 100, 101, 'D', "boot", "ZuAlgoEngine [AlgoFwk]"),
                       logLine("07-01 08:30:00", 0, 100, 102, 'E', "sensor lost"),
                       "  wrapped part of the error",
                       logLine("07-01 09:00:00", 0, 200, 201, 'W', "slow frame", "ZuCamHAL [Core]"),
                       logLine("07-01 09:30:00", 0, 200, 202, 'I', "frame done"),
                       crashLine("07-01 10:00:00", 1, 200, 202, "*** *** ***")};
  root.writeFile("f/ZuCam_Debug_2024-07-01--08-00-00-1.txt", joinLines(lines));
  const std::string f = root.path("f");
  const std::vector<std::pair<Lines, Lines>> cases = {
      {{"--level", "E"}, {lines[1], lines[2]}},
      {{"--level", "W+"}, {lines[1], lines[2], lines[3], lines[5]}},
      {{"--level", "d,i"}, {lines[0], lines[4]}},
      {{"--group", "HAL"}, {lines[1], lines[2], lines[4]}},
      {{"--group", "[Core]"}, {lines[3]}},
      {{"--group", "ZuAlgoEngine"}, {lines[0]}},
      {{"--pid", "200"}, {lines[3], lines[4], lines[5]}},
      {{"--tid", "101,202"}, {lines[0], lines[4], lines[5]}},
      {{"--grep", "frame (done|lost)"}, {lines[4]}},
      {{"--since", "08:30", "--until", "09:00:00"}, {lines[1], lines[2], lines[3]}},
      {{"--since", "2024-07-01 09:15"}, {lines[4], lines[5]}},
      {{"--until", "07-01 08:29:59.999"}, {lines[0]}},
      {{"--since", "2025-01-01"}, {}},
      {{"--pid", "200", "--level", "I+", "--until", "2024-07-01T09:59:59"}, {lines[3], lines[4]}},
  };
  for (const auto& [args, expected] : cases) {
    Lines argv = {"merge"};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back(f);
    ProgramOutput r = zlog(argv);
    EXPECT_EQ(r.exitCode(), 0) << r.err;
    EXPECT_EQ(splitLines(r.out), expected) << args[0] << " " << args[1];
  }
}

namespace {

constexpr int kThreads = 4;
constexpr int kLinesPerThread = 27000;

// The files of the offline directory whose names carry a stamp, oldest first.
Lines stampedLogs(const std::string& dir) {
  std::vector<std::pair<int64_t, std::string>> found;
  for (const std::string& name : listDir(dir))
    if (auto s = zulog::parseNameStamp(name)) found.emplace_back(s->wall(), dir + "/" + name);
  std::sort(found.begin(), found.end());
  Lines out;
  for (auto& f : found) out.push_back(f.second);
  return out;
}

}  // namespace

// Threads log numbered lines through the offline logger until the files rotate.
ZU_CHILD_TEST(LogToolChild, ThreadsLogThroughTheOfflineLogger) {
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  ASSERT_EQ(0, debug->startOfflineLogger());
  const std::string pad(140, '.');
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &pad] {
      for (int i = 0; i < kLinesPerThread; ++i)
        zudebug::Log::logSystem(zudebug::ZU_GROUP_HAL, i % 1000 == 999 ? "W" : "D", "Worker.cpp", "work",
                                10 + t, "T%d #%d %s", t, i, pad.c_str());
    });
  for (auto& th : threads) th.join();
  debug->stopOfflineLogger();
}

// The library's own files: several threads, rotation into several files. The merge is
// every line once, in the order a stable sort by time stamp gives, and so is its JSON;
// lnav reads the merged file with its fields and in time order.
TEST(LogToolMerge, LibraryFilesOfSeveralThreadsAndFiles) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  ChildResult child =
      runChild("LogToolChild.ThreadsLogThroughTheOfflineLogger", root, {{"ZUDEBUG_FREE_MB", "100000"}});
  ASSERT_TRUE(child.exited() && child.exitCode() == 0) << child.output;
  const Lines files = stampedLogs(root.offlineDir());
  ASSERT_GE(files.size(), 2u) << "rotation at 10 MiB";

  // The oracle: all lines, file after file, sorted stably by "MM-DD hh:mm:ss:nnnnnnnnn".
  Lines all;
  size_t backwards = 0;
  for (const std::string& f : files) {
    Lines ls = readLines(f);
    for (size_t i = 1; i < ls.size(); ++i) backwards += ls[i].compare(0, 24, ls[i - 1], 0, 24) < 0 ? 1 : 0;
    all.insert(all.end(), ls.begin(), ls.end());
  }
  EXPECT_GT(backwards, files.size()) << "each thread's queue comes as a block";
  // Error lines also go to the error-information file: those the logs lack (logged
  // before the logger started) are merged in, the others are the same lines.
  const std::set<std::string> inLogs(all.begin(), all.end());
  for (const std::string& e : readLines(root.offlineDir() + "/ZuCam_Debug_PraxErrorInfoDump.txt"))
    if (!e.empty() && inLogs.count(e) == 0) all.push_back(e);
  std::stable_sort(all.begin(), all.end(),
                   [](const std::string& a, const std::string& b) { return a.compare(0, 24, b, 0, 24) < 0; });

  ProgramOutput r = zlog({"merge", root.offlineDir()});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  EXPECT_EQ(r.err, "");
  const Lines merged = splitLines(r.out);
  ASSERT_EQ(merged.size(), all.size());
  EXPECT_TRUE(merged == all) << "not the stable time order";
  std::vector<int> next(kThreads, 0);
  for (const std::string& l : merged) {
    int t = -1, i = -1;
    const size_t at = l.find("work() T");
    if (at == std::string::npos || sscanf(l.c_str() + at, "work() T%d #%d", &t, &i) != 2) continue;
    ASSERT_TRUE(t >= 0 && t < kThreads);
    EXPECT_EQ(i, next[t]) << "thread " << t;
    next[t] = i + 1;
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLinesPerThread));

  r = zlog({"merge", "--format", "jsonl", "--level", "W", root.offlineDir()});
  const Lines json = splitLines(r.out);
  EXPECT_EQ(json.size(), static_cast<size_t>(kThreads * (kLinesPerThread / 1000)));
  std::string lastTs;
  for (const std::string& j : json) {
    rapidjson::Document d;
    d.Parse(j.c_str());
    ASSERT_TRUE(d.IsObject()) << j;
    for (const char* key : {"ts", "level", "tag", "label", "file", "func", "msg"})
      ASSERT_TRUE(d[key].IsString()) << key;
    for (const char* key : {"pid", "tid", "line"}) ASSERT_TRUE(d[key].IsInt()) << key;
    EXPECT_STREQ(d["level"].GetString(), "W");
    EXPECT_STREQ(d["func"].GetString(), "work");
    EXPECT_GE(std::string(d["ts"].GetString()), lastTs);
    lastTs = d["ts"].GetString();
  }

  // lnav: the format installed into a scratch home, queried headless.
  if (access("/usr/bin/lnav", X_OK) != 0)
    FAIL() << "lnav is not installed: scripts/install-deps.sh installs it";
  const std::string home = root.path("home");
  mkdir(home.c_str(), 0755);
  ProgramOutput install = runCapture({"/usr/bin/lnav", "-i", ZUDEBUG_LNAV_FORMAT}, {{"HOME", home}});
  ASSERT_EQ(install.exitCode(), 0) << install.out << install.err;
  const std::string mergedFile = root.path("merged.log");
  root.writeFile("merged.log", zlog({"merge", "--full-date", root.offlineDir()}).out);
  const std::string csv = root.path("q.csv");
  ProgramOutput q =
      runCapture({"/usr/bin/lnav", "-n", "-c",
                  ";SELECT count(*), sum(log_time < prev), sum(log_level = 'warning'), "
                  "sum(function = 'work' AND file = 'Worker.cpp' AND label = '[HAL ]' AND tag = 'ZuCamHAL'), "
                  "count(DISTINCT CASE WHEN function = 'work' THEN tid END), min(CASE WHEN function = 'work' "
                  "THEN line END), "
                  "max(CASE WHEN function = 'work' THEN line END), substr(min(log_time), 1, 4) FROM (SELECT "
                  "*, lag(log_time) "
                  "OVER (ORDER BY log_line) AS prev FROM zudebug_offline_log)",
                  "-c", ":write-csv-to " + csv, mergedFile},
                 {{"HOME", home}});
  ASSERT_EQ(q.exitCode(), 0) << q.out << q.err;
  const Lines rows = readLines(csv);
  ASSERT_EQ(rows.size(), 2u) << q.out << q.err;
  const std::string n = std::to_string(merged.size());
  EXPECT_EQ(rows[1], n + ",0," + std::to_string(kThreads * (kLinesPerThread / 1000)) + "," +
                         std::to_string(kThreads * kLinesPerThread) + "," + std::to_string(kThreads) +
                         ",10," + std::to_string(10 + kThreads - 1) + "," +
                         readLines(mergedFile)[0].substr(0, 4));
}
