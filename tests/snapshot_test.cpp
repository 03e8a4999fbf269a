// Snapshot diagnostics seen from outside: the daily dump file, the JSON collection
// file, the dump output and the log lines. The service is process-wide, so every
// case that touches it runs in its own child process with its own device root.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <rapidjson/document.h>

#include "PRAXDiagnostician.h"
#include "TestSupport.h"

using namespace zudebug;
using namespace std::chrono_literals;
using zutest::countSubstr;
using zutest::readFile;

namespace {

uint64_t keyOf(uint32_t session, uint32_t frame) { return (static_cast<uint64_t>(frame) << 32) | session; }
SnapDiagnostician* diag() { return SnapDiagnostician::getInstance(); }
void reg(uint32_t session, uint32_t frame, const std::string& image, const std::string& uuid = "u-1") {
  diag()->registerSnapshotRecord(uuid, session, frame, image, 0, nullptr);
}
std::string logcat() { return readFile(getenv("ZUDEBUG_LOGCAT")); }

// Child side: returns once the worker has run every unregistration queued so far
// (tasks run in order, so a marker's "not found" line closes the batch).
void drainWorker() {
  static uint32_t marker = 900000;
  ++marker;
  diag()->unregisterSnapshotRecord(marker, 0);
  const std::string line = "can not find fakeFrameNum: " + std::to_string(marker) + "\n";
  for (int i = 0; i < 30000 && countSubstr(logcat(), line) == 0; ++i) std::this_thread::sleep_for(1ms);
  ASSERT_EQ(countSubstr(logcat(), line), 1u) << "worker did not drain";
}

// Parent side: runs the current test's child half with `root` as the device.
void runChildHalf(const zutest::TempRoot& root) {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  auto res = zutest::runChild(std::string(info->test_suite_name()) + "." + info->name(), root);
  ASSERT_TRUE(res.exited() && res.exitCode() == 0) << res.output;
}

std::string dumpPath(const zutest::TempRoot& root) {
  return root.offlineDir() + "/PRAX_DumpInfo_" + getTodayDate() + ".txt";
}

// Dump lines of the capture named `image`.
std::vector<std::string> linesOf(const zutest::TempRoot& root, const std::string& image) {
  std::vector<std::string> found;
  for (const auto& l : zutest::readLines(dumpPath(root)))
    if (l.find("\"imageName\":\"" + image + "\"") != std::string::npos) found.push_back(l);
  return found;
}

// The text between the quotes of "name":"..." in a dump line.
std::string field(const std::string& line, const std::string& name) {
  size_t start = line.find("\"" + name + "\":\"");
  if (start == std::string::npos) return "<missing>";
  start += name.size() + 4;
  return line.substr(start, line.find('"', start) - start);
}

std::map<std::string, long> stageTimes(const std::string& line) {
  std::map<std::string, long> times;
  std::string text = field(line, "SnapshotTime");
  std::regex entry("([0-9a-z_]+):(-?[0-9]+), ");
  for (std::sregex_iterator it(text.begin(), text.end(), entry), end; it != end; ++it)
    times[(*it)[1]] = std::stol((*it)[2]);
  return times;
}

}  // namespace

TEST(SnapshotRender, OneLineTextAndHelpers) {
  timespec t{};
  auto r = std::make_shared<SnapshotRecord>("u-1", 26, 7, "IMG_1", 0, t, nullptr);
  r->errorInfo.push_back("vendor result error");
  r->snapshotInfo.requestInfo.oriPhgType = 2;
  r->snapshotInfo.requestInfo.phgType = 2;
  r->snapshotInfo.allFrames = {10, 11};
  r->snapshotInfo.vendorResultInfo[10] = "error_result";
  r->snapshotInfo.vendorResultInfo[11] = "not_return";
  r->snapshotInfo.timeInfo["1request_to_zuhal"] = -1;
  r->snapshotInfo.timeInfo["2request_to_vendor"] = 35;
  EXPECT_EQ(
      r->toString(),
      "{\"SnapshotRecord\":{\"errorInfo\":\"vendor result error, \",\"sessionUUID\":\"u-1\",\"sessionId\":"
      "\"1a\",\"fwkFrame\":7,\"imageName\":\"IMG_1\",\"RequestInfo\":{\"oriPhgType\":2,\"phgType\":2,"
      "\"anchorFrame\":0,\"isQuickShot\":0,\"quickshotDelayTime\":0,\"streamId\":\"\",\"allFrames\":\"10, "
      "11, \"},\"VendorResultInfo\":\"10:error_result, 11:not_return, \",\"ZuAlgoInfo\":{\"nodeProcTime\":"
      "\"\",\"nodeProcState\":\"\"},\"SnapshotTime\":\"1request_to_zuhal:-1, 2request_to_vendor:35, \"}}\n");
  EXPECT_EQ(r->fakeFrameNum, 30064771098u);
  EXPECT_EQ(SnapshotRecord("u", 18, 7, "i", 0, t, nullptr).fakeFrameNum, 30064771090u);
  EXPECT_EQ(mapToString(std::map<std::string, double>{{"MFNR", 12.5}, {"SR", 3}, {"X", -1}}),
            "MFNR:12.5, SR:3, X:-1, ");
  EXPECT_TRUE(std::regex_match(getTodayDate(), std::regex("[0-9]{4}-[1-9][0-9]?-[1-9][0-9]?")));
  EXPECT_TRUE(std::regex_match(
      getCurrentTime(), std::regex("[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:(0|[1-9][0-9]{0,2})")));
}

TEST(SnapshotUpdates, StageTimes) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    auto a = stageTimes(linesOf(root, "A").at(0));
    EXPECT_EQ(a["1request_to_zuhal"], -1);
    EXPECT_GE(a["2request_to_vendor"], 60);
    EXPECT_EQ(a["8getbuffer_from_fwk"], 0);
    EXPECT_EQ(a["12post_proc_time"], 0);
    // Stage 13 rewrote the result time too.
    EXPECT_EQ(a["4result_to_fwk"], a["14shot_2_gallery"]);
    EXPECT_GE(a["4result_to_fwk"], a["2request_to_vendor"] + 60);
    EXPECT_EQ(a.count("15shot_2_view"), 0u);
    auto b = stageTimes(linesOf(root, "B").at(0));
    EXPECT_GE(b["5request_to_post"], 60);
    EXPECT_LT(b["7anchor_time"], 50) << "anchor time counts from the post request";
    auto c = stageTimes(linesOf(root, "C").at(0));
    EXPECT_EQ(c["5request_to_post"], 0) << "a missing post request time is created as 0";
    EXPECT_GE(c["7anchor_time"], 60);
    EXPECT_EQ(countSubstr(readFile(root.logcatFile()), "can not find fakeFrameNum: 30064771077, type:5"), 1u);
    return;
  }
  diag()->init(1, 1, 0, 0, 0);
  reg(1, 1, "A");
  reg(2, 1, "B");
  reg(3, 1, "C");
  std::this_thread::sleep_for(70ms);
  updateSnapshotTimeInfo(keyOf(1, 1), 0);
  updateSnapshotTimeInfo(keyOf(1, 1), 1);
  updateSnapshotTimeInfo(keyOf(1, 1), 7);
  updateSnapshotTimeInfo(keyOf(1, 1), 11);
  updateSnapshotTimeInfo(keyOf(1, 1), 3);
  updateSnapshotTimeInfo(keyOf(1, 1), 15);
  updateSnapshotTimeInfo(keyOf(2, 1), 4);
  updateSnapshotTimeInfo(keyOf(2, 1), 6);
  updateSnapshotTimeInfo(keyOf(3, 1), 6);
  updateSnapshotTimeInfo(keyOf(5, 7), 5);
  std::this_thread::sleep_for(70ms);
  updateSnapshotTimeInfo(keyOf(1, 1), 13);
  for (uint32_t s = 1; s <= 3; ++s) diag()->unregisterSnapshotRecord(s, 1);
  drainWorker();
}

TEST(SnapshotUpdates, VendorResultsAndNodeLookups) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    // Crash dump after the first result, then the unregistration of the failed capture.
    auto v = linesOf(root, "V");
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(field(v[0], "VendorResultInfo"), "10:not_return, 11:error_none, 12:not_return, ");
    EXPECT_EQ(field(v[1], "VendorResultInfo"), "10:error_result, 11:error_none, 12:not_return, ");
    EXPECT_EQ(field(v[1], "errorInfo"), "provider_crashed, vendor result error, ");
    EXPECT_EQ(field(linesOf(root, "E").at(0), "VendorResultInfo"), "5:error_none, ");
    // Two captures named DUP: only the lower key is updated until it is gone.
    auto dup = linesOf(root, "DUP");
    ASSERT_EQ(dup.size(), 4u);  // crash dump of both, then each failed one as it leaves
    EXPECT_EQ(field(dup[1], "nodeProcTime"), "") << "the higher key is never looked up";
    EXPECT_EQ(field(dup[2], "nodeProcTime"), "MFNR:12.5, SR:-0.5, X:-1, ");
    EXPECT_EQ(field(dup[2], "nodeProcState"), "MFNR:NodeProcessError, SR:OK, ");
    EXPECT_EQ(field(dup[2], "errorInfo"), "provider_crashed, node process time out, node process error, ");
    EXPECT_EQ(field(dup[3], "nodeProcTime"), "Y:-1, ") << "the second DUP is found once the first is gone";
    EXPECT_EQ(field(linesOf(root, "NEW").at(0), "nodeProcTime"), "late:1, ");
    EXPECT_EQ(linesOf(root, "OLD").size(), 0u);
    return;
  }
  diag()->init(1, 0, 0, 0, 0);
  reg(1, 1, "V");
  updateSnapshotInfo(keyOf(1, 1), 2, 2, false, 0, {}, {10, 11, 12});
  updateVndResultInfo(keyOf(1, 1), 11, 0);
  reg(2, 1, "E");
  updateVndResultInfo(keyOf(2, 1), 5, 0);
  updateVndResultInfo(keyOf(2, 1), 6, 99);  // not a result code: warned about, not stored
  reg(3, 1, "DUP");
  reg(3, 2, "DUP");
  updateZuAlgoInfo("DUP", {"MFNR:yuv", "SR"});
  updateNodeProcTime("DUP", "MFNR", 12.5);
  updateNodeProcState("DUP", "SR", 0);
  updateZuAlgoInfo("DUP", {"MFNR:yuv", "SR"});
  updateNodeProcTime("DUP", "SR", -0.5);
  diag()->signalTrigger();
  updateVndResultInfo(keyOf(1, 1), 10, 3);
  updateNodeProcTime("DUP", "X", -1.0);
  updateNodeProcState("DUP", "MFNR", 4);
  diag()->unregisterSnapshotRecord(1, 1);
  diag()->unregisterSnapshotRecord(2, 1);
  diag()->unregisterSnapshotRecord(3, 1);
  drainWorker();
  // Re-registration under a new image name moves the name lookups with it.
  reg(4, 1, "OLD");
  reg(4, 1, "NEW");
  updateNodeProcTime("OLD", "stale", 1);
  updateNodeProcTime("NEW", "late", 1);
  updateNodeProcTime("DUP", "Y", -1.0);
  updateSnapshotErrorInfo(keyOf(4, 1), "fail");
  diag()->unregisterSnapshotRecord(4, 1);
  diag()->unregisterSnapshotRecord(3, 2);
  drainWorker();
  EXPECT_EQ(countSubstr(logcat(), "unknown result code 99"), 1u);
}

TEST(SnapshotService, ReRegistrationAndFailedOnlyDumps) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    const std::string log = readFile(root.logcatFile());
    auto b = linesOf(root, "B");
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(field(b[0], "errorInfo"), "e1, ");
    EXPECT_EQ(field(b[0], "sessionUUID"), "u-2");
    auto t = stageTimes(b[0]);
    EXPECT_EQ(t["1request_to_zuhal"], -1);
    EXPECT_LT(t["2request_to_vendor"], 60) << "times count from the latest registration";
    EXPECT_EQ(countSubstr(log, "[session:1a][B][fwkFrame:7] snapshot fail!"), 1u);
    EXPECT_EQ(countSubstr(log, "updateSnapshotErrorInfo: fwkFrame: 7, errorInfo: e1"), 1u);
    EXPECT_EQ(countSubstr(log, "[sessionId:26][B][fwkFrame:7]register in Snapshot record"), 1u);
    EXPECT_EQ(linesOf(root, "CLEAN").size(), 0u) << "a clean capture leaves silently";
    return;
  }
  diag()->init(1, 0, 0, 0, 0);
  reg(26, 7, "A");
  updateSnapshotTimeInfo(keyOf(26, 7), 0);
  updateSnapshotErrorInfo(keyOf(26, 7), "e1");
  std::this_thread::sleep_for(100ms);
  reg(26, 7, "B", "u-2");
  updateSnapshotTimeInfo(keyOf(26, 7), 1);
  reg(27, 7, "CLEAN");
  diag()->unregisterSnapshotRecord(26, 7);
  diag()->unregisterSnapshotRecord(27, 7);
  drainWorker();
}

TEST(SnapshotService, SwitchesOfInit) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    const std::string log = readFile(root.logcatFile());
    EXPECT_EQ(countSubstr(log, "can not find fakeFrameNum: 1, type:1"), 1u)
        << "nothing registered before init";
    EXPECT_EQ(countSubstr(log, "can not find fakeFrameNum: 1\n"), 0u) << "nothing queued before init";
    // (1, 1, 1): each capture logged and dumped once, a failed one too.
    EXPECT_EQ(linesOf(root, "ALL").size(), 1u);
    EXPECT_EQ(linesOf(root, "FAILED").size(), 1u);
    EXPECT_EQ(countSubstr(log, "----------------ALL begin----------------"), 1u);
    EXPECT_EQ(countSubstr(log, "---------------- FAILED end ----------------"), 1u);
    EXPECT_EQ(countSubstr(log, "[Diagnostician][sessionUUID:u-1][sessionId:26][ALL][fwkFrame:3]errorInfo:"),
              1u);
    EXPECT_EQ(countSubstr(log, "snapshot fail!"), 0u);
    // (1, -1, 1): logged, never dumped.
    EXPECT_EQ(countSubstr(log, "----------------NONE begin----------------"), 1u);
    EXPECT_EQ(linesOf(root, "NONE").size(), 0u);
    return;
  }
  reg(1, 0, "EARLY");
  updateSnapshotTimeInfo(keyOf(1, 0), 1);
  diag()->unregisterSnapshotRecord(1, 0);
  diag()->init(1, 1, 1, 0, 0);
  drainWorker();
  reg(26, 3, "ALL");
  reg(27, 3, "FAILED");
  updateSnapshotErrorInfo(keyOf(27, 3), "broken");
  diag()->unregisterSnapshotRecord(26, 3);
  diag()->unregisterSnapshotRecord(27, 3);
  drainWorker();
  diag()->init(1, -1, 1, 0, 0);
  reg(28, 3, "NONE");
  updateSnapshotErrorInfo(keyOf(28, 3), "broken");
  diag()->unregisterSnapshotRecord(28, 3);
  drainWorker();
}

TEST(SnapshotService, CrashTriggerAndDumpOutput) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    EXPECT_EQ(readFile(root.path("before.txt")), "") << "no dump file yet: nothing written";
    auto lines = zutest::readLines(dumpPath(root));
    ASSERT_EQ(lines.size(), 3u);
    for (const auto& l : lines)
      EXPECT_NE(l.find("\"errorInfo\":\"x, provider_crashed, \""), std::string::npos) << l;
    const std::string begin =
        "=============================PRAX Diag dump begin=============================\n";
    const std::string end =
        "=============================PRAX Diag dump end===============================\n";
    EXPECT_EQ(readFile(root.path("after.txt")), begin + readFile(dumpPath(root)) + end);
    const std::string log = readFile(root.logcatFile());
    EXPECT_EQ(countSubstr(log, "dumpInfo: open file /data/vendor/camera/offlinelog/PRAX_DumpInfo_"), 1u);
    EXPECT_EQ(countSubstr(log, "crash signal triggered!"), 1u);
    EXPECT_EQ(countSubstr(log, "can not find fakeFrameNum"), 0u) << "records stay after a crash dump";
    return;
  }
  diag()->init(1, 0, 0, 0, 0);
  int before = open("before.txt", O_CREAT | O_WRONLY | O_TRUNC, 0644);
  EXPECT_LT(diag()->dumpInfo(before), 0);
  close(before);
  for (uint32_t s = 1; s <= 3; ++s) {
    reg(s, 9, "IMG" + std::to_string(s));
    updateSnapshotErrorInfo(keyOf(s, 9), "x");
  }
  diag()->signalTrigger();
  for (uint32_t s = 1; s <= 3; ++s) updateAnchorFrame(keyOf(s, 9), 1);
  int after = open("after.txt", O_CREAT | O_WRONLY | O_TRUNC, 0644);
  EXPECT_EQ(diag()->dumpInfo(after), 0);
  close(after);
}

TEST(SnapshotService, ConcurrentCapturesAreDumpedExactlyOnce) {
  constexpr int kThreads = 4, kPerThread = 250;
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    std::map<std::string, int> seen;
    for (const auto& l : zutest::readLines(dumpPath(root))) ++seen[field(l, "imageName")];
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kPerThread));
    for (const auto& kv : seen) EXPECT_EQ(kv.second, 1) << kv.first;
    return;
  }
  diag()->init(1, 1, 0, 0, 0);
  std::atomic<bool> done{false};
  std::thread dumper([&] {
    int fd = open("/dev/null", O_WRONLY);
    while (!done) diag()->dumpInfo(fd);
    close(fd);
  });
  std::vector<std::thread> cams;
  for (uint32_t t = 0; t < kThreads; ++t) {
    cams.emplace_back([t] {
      for (uint32_t i = 0; i < kPerThread; ++i) {
        const std::string image = "T" + std::to_string(t) + "_" + std::to_string(i);
        reg(t + 1, i, image);
        updateSnapshotTimeInfo(keyOf(t + 1, i), 1);
        updateVndResultInfo(keyOf(t + 1, i), i, i % 7 == 0 ? 3 : 0);
        updateNodeProcTime(image, "SR", 1.5);
        diag()->unregisterSnapshotRecord(t + 1, i);
      }
    });
  }
  for (auto& c : cams) c.join();
  drainWorker();
  done = true;
  dumper.join();
}

TEST(SnapshotJson, GroupsRecordsPerSessionInWritingOrder) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    const std::string path = root.path("data/vendor/camera/praxErrorSnapdump.json");
    rapidjson::Document doc;
    ASSERT_FALSE(doc.Parse(readFile(path).c_str()).HasParseError());
    ASSERT_EQ(doc.MemberCount(), 2u);
    const auto& s1 = doc["u-1"];
    ASSERT_EQ(s1.Size(), 2u);
    EXPECT_STREQ(s1[0]["imageName"].GetString(), "first");
    EXPECT_STREQ(s1[1]["imageName"].GetString(), "third");
    EXPECT_EQ(s1[0]["sessionId"].GetInt(), 26);
    EXPECT_TRUE(s1[0]["RequestInfo"]["isQuickshot"].GetBool());
    EXPECT_EQ(s1[0]["RequestInfo"]["allFrames"][1].GetInt(), 11);
    EXPECT_STREQ(s1[0]["VendorResultInfo"]["10"].GetString(), "error_result");
    EXPECT_EQ(s1[0]["ZuAlgoInfo"]["nodeProcTime"]["MFNR"].GetDouble(), 12.5);
    EXPECT_EQ(s1[0]["TimeInfo"]["1request_to_zuhal"].GetInt(), -1);
    const auto& odd = doc["q\"\n\x01"];
    EXPECT_STREQ(odd[0]["imageName"].GetString(), "a\"b\tc\xEF\xBF\xBD");
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    const std::string log = readFile(root.logcatFile());
    EXPECT_EQ(countSubstr(log, "/data/vendor/camera/praxErrorSnapdump.json file open error:No such file"),
              1u);
    EXPECT_EQ(countSubstr(log, "JSON parse error: The document is empty. (0)"), 1u);
    EXPECT_EQ(countSubstr(log, "File permissions changed successfully."), 3u);
    return;
  }
  timespec t{};
  auto r = std::make_shared<SnapshotRecord>("u-1", 26, 7, "first", 0, t, nullptr);
  r->snapshotInfo.requestInfo.isQuickShot = true;
  r->snapshotInfo.allFrames = {10, 11};
  r->snapshotInfo.vendorResultInfo[10] = "error_result";
  r->snapshotInfo.nodeProcTime["MFNR"] = 12.5;
  r->snapshotInfo.timeInfo["1request_to_zuhal"] = -1;
  writeSnapshotInfoToJsonFile(r);
  // Quotes, control characters and a stray byte: the text form keeps them raw.
  auto odd = std::make_shared<SnapshotRecord>("q\"\n\x01", 1, 1, "a\"b\tc\xff", 0, t, nullptr);
  EXPECT_NE(odd->toString().find("\"imageName\":\"a\"b\tc\xff\""), std::string::npos);
  writeSnapshotInfoToJsonFile(odd);
  writeSnapshotInfoToJsonFile(std::make_shared<SnapshotRecord>("u-1", 26, 8, "third", 0, t, nullptr));
}

TEST(SnapshotJson, DamagedFilesAreRewrittenAsValidJson) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    runChildHalf(root);
    const std::string log = readFile(root.logcatFile());
    EXPECT_EQ(countSubstr(log, "JSON parse error: Missing a name for object member. (1)"), 1u);
    EXPECT_EQ(countSubstr(log, "JSON parse error: Invalid encoding in string."), 1u);
    EXPECT_GE(countSubstr(log, "JSON root is not an object"), 3u);
    EXPECT_EQ(countSubstr(log, "JSON nested deeper than 64 levels"), 1u);
    return;
  }
  const std::string path = std::string(getenv("ZUDEBUG_ROOT")) + "/data/vendor/camera/praxErrorSnapdump.json";
  std::string garbage(10 << 20, '\0');
  unsigned seed = 7;
  for (char& c : garbage) c = static_cast<char>(rand_r(&seed));
  struct Case {
    std::string content;
    size_t keptRecords;  // records of session "u-1" that survive
  };
  const std::vector<Case> cases = {
      {"", 0},
      {"{", 0},
      {"{\"u-1\":[{\"a\":1},{\"b\":2},{\"c\":", 2},
      {"{\"u-1\":[{\"a\":1}]} trailing", 1},
      {std::string("{\"u-1\":[{\"a\":1}]}\0{garbage", 26), 1},
      {"[1,2,3]", 0},
      {"\"just text\"", 0},
      {"{\"u-1\":7}", 1},
      {"{\"u-1\":[{\"a\":\"\xff\xfe\"}]}", 0},
      {"{\"u-1\":[{\"n\":1e999}]}", 0},
      {"{\"u-1\":[{\"n\":123456789012345678901234567890}]}", 1},
      {"{\"u-1\":[{\"a\":1}," + std::string(200000, '[') + std::string(200000, ']') + "]}", 1},
      {std::string(300000, '['), 0},
      {garbage, 0},
  };
  timespec t{};
  auto r = std::make_shared<SnapshotRecord>("u-1", 1, 1, "new", 0, t, nullptr);
  for (size_t i = 0; i < cases.size(); ++i) {
    {
      FILE* f = fopen(path.c_str(), "w");
      ASSERT_NE(f, nullptr);
      fwrite(cases[i].content.data(), 1, cases[i].content.size(), f);
      fclose(f);
    }
    writeSnapshotInfoToJsonFile(r);
    rapidjson::Document doc;
    const std::string out = readFile(path);
    ASSERT_FALSE(doc.Parse<rapidjson::kParseValidateEncodingFlag>(out.c_str()).HasParseError())
        << "case " << i;
    ASSERT_TRUE(doc.IsObject() && doc.HasMember("u-1") && doc["u-1"].IsArray())
        << "case " << i << ": " << out;
    const auto& list = doc["u-1"];
    ASSERT_EQ(list.Size(), cases[i].keptRecords + 1) << "case " << i << ": " << out.substr(0, 200);
    EXPECT_STREQ(list[list.Size() - 1]["imageName"].GetString(), "new") << "case " << i;
  }
}
