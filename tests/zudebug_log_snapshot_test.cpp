// zudebug-log snapshot on the dumps the diagnostician wrote in a child: both forms,
// one row per capture, the timeline page in headless chromium, the trace JSON's
// structure; and damaged dumps.
#include <rapidjson/document.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PRAXDiagnostician.h"
#include "LogTool.h"
#include "TestSupport.h"
#include "ZuDebugUtils.h"

using namespace zutest;
using namespace zudebug;
static constexpr size_t npos = std::string::npos;

namespace {

struct Shot {
  const char* session;
  uint32_t sessionId, frame;
  enum Fault { None, Vendor, NodeTimeout, NodeError, Early, InFlight } fault;
};
const Shot kShots[] = {
    {"s-a", 26, 100, Shot::None},      {"s-a", 26, 101, Shot::Vendor}, {"s-a", 26, 102, Shot::NodeTimeout},
    {"s-a", 26, 103, Shot::NodeError}, {"s-a", 26, 104, Shot::Early},  {"s-b", 7, 200, Shot::None},
    {"s-b", 7, 201, Shot::InFlight},
};
constexpr size_t kCaptures = sizeof(kShots) / sizeof(kShots[0]);

uint64_t keyOf(const Shot& s) { return (static_cast<uint64_t>(s.frame) << 32) | s.sessionId; }
std::string imageOf(const Shot& s) { return "IMG_" + std::to_string(s.frame); }

size_t inFlight() {
  auto q = SnapDiagnostician::getInstance()->getQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  return q->allRecords().size();
}

}  // namespace

// Captures through the pipeline stages; every one dumped as it leaves, the failed
// ones also into the JSON file, the one still in flight by the crash path.
ZU_CHILD_TEST(LogToolSnapshotChild, CapturesAreDumped) {
  SnapDiagnostician* diag = SnapDiagnostician::getInstance();
  diag->init(1, 1, 0, 0, 0);
  for (const Shot& s : kShots) {
    const uint64_t key = keyOf(s);
    const std::string image = imageOf(s);
    diag->registerSnapshotRecord(s.session, s.sessionId, s.frame, image, 0, nullptr);
    updateSnapshotTimeInfo(key, TIME_REQUEST_TO_ZUHAL);
    updateSnapshotInfo(key, 2, 2, false, 0, {0}, {1, 2});
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    updateSnapshotTimeInfo(key, TIME_REQUEST_TO_VENDOR);
    updateVndResultInfo(key, 1, RESULT_ERROR_NONE);
    updateVndResultInfo(key, 2, s.fault == Shot::Vendor ? RESULT_ERROR_RESULT : RESULT_ERROR_NONE);
    if (s.fault != Shot::Early) {
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
      updateSnapshotTimeInfo(key, TIME_RESULT_FROM_VENDOR);
      updateSnapshotTimeInfo(key, TIME_REQUEST_TO_POST);
      updateSnapshotTimeInfo(key, TIME_ANCHOR_TIME);
      updateSnapshotTimeInfo(key, TIME_REQUEST_TO_ALGO);
      updateZuAlgoInfo(image, {"MFNR:yuv", "SR"});
      updateNodeProcTime(image, "MFNR", 7.5);
      updateNodeProcState(image, "MFNR", s.fault == Shot::NodeError ? NODE_PROCESS_ERROR : NODE_PROC_OK);
      updateNodeProcTime(image, "SR", s.fault == Shot::NodeTimeout ? -1.0 : 2.25);
      std::this_thread::sleep_for(std::chrono::milliseconds(4));
      updateSnapshotTimeInfo(key, TIME_SHOT_2_GALLERY);
    }
    if (s.fault == Shot::Vendor || s.fault == Shot::NodeTimeout || s.fault == Shot::NodeError) {
      auto q = diag->getQueue();
      std::shared_ptr<SnapshotRecord> record;
      {
        std::lock_guard<std::mutex> lock(q->mutex);
        record = q->allRecords().at(key);
      }
      writeSnapshotInfoToJsonFile(record);
    }
    if (s.fault != Shot::InFlight) diag->unregisterSnapshotRecord(s.sessionId, s.frame);
  }
  for (int i = 0; i < 1000 && inFlight() != 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(inFlight(), 1u);
  diag->signalTrigger();
}

namespace {

struct Dumps {
  std::string json, text;
};

Dumps dumpsOf(const TempRoot& root) {
  Dumps d;
  d.json = root.path("data/vendor/camera/praxErrorSnapdump.json");
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.rfind("PRAX_DumpInfo_", 0) == 0) d.text = root.offlineDir() + "/" + name;
  return d;
}

// The rows of the text table: frame number to the row.
std::map<int, std::string> rowsOf(const std::string& out) {
  std::map<int, std::string> rows;
  size_t start = 0;
  while (start < out.size()) {
    size_t end = out.find('\n', start);
    if (end == npos) end = out.size();
    const std::string line = out.substr(start, end - start);
    int frame = 0;
    if (line.compare(0, 2, "  ") == 0 && sscanf(line.c_str(), "%d", &frame) == 1) rows[frame] = line;
    start = end + 1;
  }
  return rows;
}

// Complete events of one track nest: none ends inside another that it started after.
bool nests(std::vector<std::pair<double, double>> spans) {
  std::sort(spans.begin(), spans.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first < b.first : a.second - a.first > b.second - b.first;
  });
  std::vector<double> open;  // ends of the enclosing events
  for (const auto& [begin, end] : spans) {
    while (!open.empty() && open.back() <= begin && !(open.back() == begin && end == begin)) open.pop_back();
    if (!open.empty() && end > open.back()) return false;
    open.push_back(end);
  }
  return true;
}

}  // namespace

TEST(LogToolSnapshot, BothDumpFormsTheTimelineAndTheTrace) {
  TempRoot root;
  ChildResult child = runChild("LogToolSnapshotChild.CapturesAreDumped", root);
  ASSERT_TRUE(child.exited() && child.exitCode() == 0) << child.output;
  const Dumps d = dumpsOf(root);
  ASSERT_FALSE(d.text.empty());

  // The text dump has every capture; the JSON file the three that failed on their way.
  ProgramOutput r = zlog({"snapshot", d.text});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  std::map<int, std::string> rows = rowsOf(r.out);
  EXPECT_EQ(rows.size(), kCaptures) << r.out;
  EXPECT_NE(r.out.find("session s-a (id 26): 5 captures, 3 failed"), npos) << r.out;
  EXPECT_NE(r.out.find("session s-b (id 7): 2 captures, 1 failed"), npos) << r.out;
  EXPECT_NE(rows[101].find("vendor result error"), npos) << rows[101];
  EXPECT_NE(rows[102].find("SR timed out"), npos) << rows[102];
  EXPECT_NE(rows[103].find("node process error"), npos) << rows[103];
  EXPECT_NE(rows[104].find("     -     -"), npos) << "stages not reached: " << rows[104];
  EXPECT_NE(rows[201].find("provider_crashed"), npos) << rows[201];
  EXPECT_NE(rows[100].find("MFNR 7.5 ms"), npos) << rows[100];
  EXPECT_NE(rows[100].find("  -  "), npos) << "no error: " << rows[100];
  EXPECT_LT(r.out.find(" 2  "), r.out.find(" 14  ")) << "stages in stage order, not map order";

  r = zlog({"snapshot", d.json});
  rows = rowsOf(r.out);
  EXPECT_EQ(rows.size(), 3u) << r.out;
  EXPECT_NE(rows[101].find("vendor result error"), npos);
  EXPECT_NE(rows[102].find("node process time out"), npos);
  EXPECT_NE(rows[103].find("node process error"), npos);

  const std::string page = root.path("page.html"), trace = root.path("trace.json");
  r = zlog({"snapshot", d.json, d.text, "--html", page, "--trace", trace});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  EXPECT_EQ(rowsOf(r.out).size(), kCaptures) << "a capture in both files is one row";

  // The trace: Chrome trace events, one named track per capture, events that nest.
  rapidjson::Document t;
  t.Parse(readFile(trace).c_str());
  ASSERT_TRUE(t.IsObject() && t.HasMember("traceEvents") && t["traceEvents"].IsArray());
  std::map<std::pair<int, int>, std::vector<std::pair<double, double>>> tracks;
  std::map<std::pair<int, int>, std::string> names;
  size_t failedTracks = 0;
  for (const auto& e : t["traceEvents"].GetArray()) {
    ASSERT_TRUE(e.IsObject() && e["name"].IsString() && e["ph"].IsString() && e["pid"].IsInt());
    const std::string ph = e["ph"].GetString();
    if (ph == "M") continue;
    ASSERT_EQ(ph, "X");
    ASSERT_TRUE(e["tid"].IsInt() && e["ts"].IsNumber() && e["dur"].IsNumber());
    ASSERT_GE(e["ts"].GetDouble(), 0);
    ASSERT_GE(e["dur"].GetDouble(), 0);
    tracks[{e["pid"].GetInt(), e["tid"].GetInt()}].emplace_back(e["ts"].GetDouble(),
                                                                e["ts"].GetDouble() + e["dur"].GetDouble());
    if (std::string(e["cat"].GetString()) == "capture,failed") ++failedTracks;
  }
  for (const auto& e : t["traceEvents"].GetArray())
    if (std::string(e["ph"].GetString()) == "M" && std::string(e["name"].GetString()) == "thread_name")
      names[{e["pid"].GetInt(), e["tid"].GetInt()}] = e["args"]["name"].GetString();
  EXPECT_EQ(tracks.size(), kCaptures);
  EXPECT_EQ(names.size(), kCaptures);
  EXPECT_EQ(failedTracks, 4u);
  for (const auto& [track, spans] : tracks) {
    EXPECT_TRUE(names.count(track) == 1) << "every track is named";
    EXPECT_TRUE(nests(spans)) << names[track];
  }

  // The page, in a real browser: it loads, its script runs, one row per capture.
  if (access("/usr/bin/chromium", X_OK) != 0)
    FAIL() << "chromium is not installed: scripts/install-deps.sh installs it";
  const std::string html = readFile(page);
  EXPECT_EQ(html.find("http://"), html.find("http://www.w3.org/2000/svg")) << "nothing from the network";
  EXPECT_EQ(html.find("https://"), npos);
  const std::string home = root.path("browser");
  mkdir(home.c_str(), 0755);
  ProgramOutput b =
      runCapture({"/usr/bin/chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                  "--no-first-run", "--disable-background-networking", "--disable-component-update",
                  "--disable-sync", "--user-data-dir=" + home + "/profile", "--enable-logging=stderr",
                  "--v=0", "--dump-dom", "file://" + page},
                 {{"HOME", home}});
  ASSERT_EQ(b.exitCode(), 0) << b.err;
  EXPECT_EQ(b.err.find("Uncaught"), npos) << b.err;
  EXPECT_EQ(b.err.find(":CONSOLE"), npos) << b.err;
  const std::string n = std::to_string(kCaptures);
  EXPECT_NE(b.out.find("data-rows=\"" + n + "\" data-captures=\"" + n + "\""), npos) << "the script ran";
  EXPECT_EQ(countSubstr(b.out, "<g class=\"capture"), kCaptures);
  EXPECT_EQ(countSubstr(b.out, "<g class=\"capture failed\""), 4u);
  EXPECT_EQ(countSubstr(b.out, "<g class=\"node failed\""), 2u);
}

// Torn, unescaped, foreign and binary dumps: what can be read is, the rest is counted.
TEST(LogToolSnapshot, DamagedDumpsAreSkippedWithMessages) {
  TempRoot root;
  const std::string good =
      "{\"SnapshotRecord\":{\"errorInfo\":\"\",\"sessionUUID\":\"u\",\"sessionId\":\"1a\",\"fwkFrame\":5,"
      "\"imageName\":\"IMG_5\",\"RequestInfo\":{\"oriPhgType\":0,\"phgType\":0,\"anchorFrame\":0,"
      "\"isQuickShot\":0,"
      "\"quickshotDelayTime\":0,\"streamId\":\"\",\"allFrames\":\"\"},\"VendorResultInfo\":\"\","
      "\"ZuAlgoInfo\":{"
      "\"nodeProcTime\":\"\",\"nodeProcState\":\"\"},\"SnapshotTime\":\"2request_to_vendor:4, \"}}";
  std::string quoted = good;
  quoted.replace(quoted.find("IMG_5"), 5, "IMG_\"6\"");
  root.writeFile("dump.txt",
                 "=============================PRAX Diag dump begin=============================\n" + good +
                     "\n" + quoted + "\n" + good.substr(0, 80));
  root.writeFile("torn.json", "{\"u\":[{\"sessionUUID\":\"u\",\"fwkFrame\":9,");
  root.writeFile("other.json", "[1,2,3]");
  root.writeFile("binary.bin", std::string("\x7f"
                                           "ELF\0\0\1\2",
                                           8));
  ProgramOutput r = zlog({"snapshot", root.path("dump.txt"), root.path("torn.json"), root.path("other.json"),
                          root.path("binary.bin"), root.path("missing.json")});
  EXPECT_EQ(r.exitCode(), 1) << "a file that does not exist";
  EXPECT_EQ(rowsOf(r.out).size(), 1u) << r.out;
  EXPECT_NE(r.out.find("IMG_5"), npos);
  EXPECT_NE(r.err.find("dump.txt: 2 unreadable record line(s) skipped"), npos) << r.err;
  EXPECT_NE(r.err.find("torn.json: not a snapshot dump (JSON error at offset"), npos) << r.err;
  EXPECT_NE(r.err.find("other.json: not a snapshot dump (no object of sessions)"), npos) << r.err;
  EXPECT_NE(r.err.find("binary.bin: not a snapshot dump"), npos) << r.err;
  EXPECT_NE(r.err.find("missing.json: No such file or directory"), npos) << r.err;

  // Numbers no library writes: not a time, and no endless axis.
  std::string odd = good;
  odd.replace(odd.find("\"nodeProcTime\":\"\""), 17, "\"nodeProcTime\":\"MFNR:inf, SR:nan, NR:1e308, \"");
  odd.replace(odd.find("2request_to_vendor:4"), 20, "2request_to_vendor:9223372036854775807");
  root.writeFile("odd.txt", odd + "\n");
  r = zlog(
      {"snapshot", root.path("odd.txt"), "--html", root.path("odd.html"), "--trace", root.path("odd.json")});
  EXPECT_EQ(r.exitCode(), 0) << r.err;
  EXPECT_NE(r.out.find("NR 1e+308 ms"), npos) << r.out;
  rapidjson::Document t;
  t.Parse(readFile(root.path("odd.json")).c_str());
  EXPECT_TRUE(t.IsObject() && t["traceEvents"].IsArray());
}
