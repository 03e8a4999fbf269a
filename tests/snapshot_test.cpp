// Snapshot diagnostics seen from outside: the daily dump file, the JSON collection
// file, the dump output and the log lines. The service is process-wide, so every
// case that touches it runs (and checks) in its own child process, whose working
// directory is its own device root.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <rapidjson/document.h>

#include "PRAXDiagnostician.h"
#include "TestSupport.h"

using namespace zudebug;
using namespace std::chrono_literals;
using zutest::readFile;
using Strings = std::vector<std::string>;

namespace {

const char kJsonFile[] = "data/vendor/camera/praxErrorSnapdump.json";
const char kDumpBegin[] = "=============================PRAX Diag dump begin=============================\n";
const char kDumpEnd[] = "=============================PRAX Diag dump end===============================\n";

uint64_t keyOf(uint32_t session, uint32_t frame) { return (static_cast<uint64_t>(frame) << 32) | session; }
SnapDiagnostician* diag() { return SnapDiagnostician::getInstance(); }
void reg(uint32_t session, uint32_t frame, const std::string& image, const std::string& uuid = "u-1") {
  diag()->registerSnapshotRecord(uuid, session, frame, image, 0, nullptr);
}
std::shared_ptr<SnapshotRecord> record(const std::string& uuid, uint32_t frame, const std::string& image) {
  return std::make_shared<SnapshotRecord>(uuid, 26, frame, image, 0, timespec{}, nullptr);
}
size_t logged(const std::string& s) { return zutest::countSubstr(readFile(getenv("ZUDEBUG_LOGCAT")), s); }

// Returns once the worker has run every unregistration queued so far
// (tasks run in order, so a marker's "not found" line closes the batch).
void drainWorker() {
  static uint32_t marker = 900000;
  diag()->unregisterSnapshotRecord(++marker, 0);
  const std::string line = "can not find fakeFrameNum: " + std::to_string(marker) + "\n";
  for (int i = 0; i < 30000 && logged(line) == 0; ++i) std::this_thread::sleep_for(1ms);
  ASSERT_EQ(logged(line), 1u) << "worker did not drain";
}

std::string dumpPath() { return "data/vendor/camera/offlinelog/PRAX_DumpInfo_" + getTodayDate() + ".txt"; }

// What dumpInfo writes into a fresh file called `name`.
std::string dumpTo(const char* name, int expectedResult) {
  int fd = open(name, O_CREAT | O_WRONLY | O_TRUNC, 0644);
  EXPECT_EQ(diag()->dumpInfo(fd), expectedResult);
  close(fd);
  return readFile(name);
}

// The text between the quotes of "name":"..." in a dump line.
std::string field(const std::string& line, const std::string& name) {
  size_t start = line.find("\"" + name + "\":\"");
  if (start == std::string::npos) return "<missing>";
  start += name.size() + 4;
  return line.substr(start, line.find('"', start) - start);
}

// Field `name` of every dump line of the capture named `image`, in file order.
Strings fieldOf(const std::string& image, const std::string& name) {
  Strings found;
  for (const auto& l : zutest::readLines(dumpPath()))
    if (field(l, "imageName") == image) found.push_back(field(l, name));
  return found;
}

// Stage times of the first dump line of `image`.
std::map<std::string, long> stageTimes(const std::string& image) {
  std::map<std::string, long> times;
  std::istringstream in(fieldOf(image, "SnapshotTime").at(0));
  for (std::string name, ms; std::getline(in >> std::ws, name, ':') && std::getline(in, ms, ',');)
    times[name] = std::stol(ms);
  return times;
}

}  // namespace

// The one-line text, the helpers, and the JSON file grouping records per session in
// writing order.
TEST(SnapshotRender, TextAndJsonFile) {
  if (zutest::ranInChild()) return;
  auto r = record("u-1", 7, "IMG_1");
  r->errorInfo.push_back("vendor result error");
  r->snapshotInfo.requestInfo.oriPhgType = 2;
  r->snapshotInfo.requestInfo.phgType = 2;
  r->snapshotInfo.allFrames = {10, 11};
  r->snapshotInfo.vendorResultInfo[10] = "error_result";
  r->snapshotInfo.vendorResultInfo[11] = "not_return";
  r->snapshotInfo.timeInfo = {{"1request_to_zuhal", -1}, {"2request_to_vendor", 35}};
  EXPECT_EQ(
      r->toString(),
      R"({"SnapshotRecord":{"errorInfo":"vendor result error, ","sessionUUID":"u-1","sessionId":"1a",)"
      R"("fwkFrame":7,"imageName":"IMG_1","RequestInfo":{"oriPhgType":2,"phgType":2,"anchorFrame":0,)"
      R"("isQuickShot":0,"quickshotDelayTime":0,"streamId":"","allFrames":"10, 11, "},"VendorResultInfo":)"
      R"("10:error_result, 11:not_return, ","ZuAlgoInfo":{"nodeProcTime":"","nodeProcState":""},)"
      R"("SnapshotTime":"1request_to_zuhal:-1, 2request_to_vendor:35, "}})"
      "\n");
  EXPECT_EQ(r->fakeFrameNum, 30064771098u);
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  EXPECT_EQ(getTodayDate(), std::to_string(local.tm_year + 1900) + "-" + std::to_string(local.tm_mon + 1) +
                                "-" + std::to_string(local.tm_mday));
  // "MM-DD hh:mm:ss:" and the milliseconds without leading zeros.
  int mo = 0, d = 0, h = 0, mi = 0, sec = 0, ms = -1;
  const std::string clock = getCurrentTime();
  ASSERT_EQ(sscanf(clock.c_str(), "%d-%d %d:%d:%d:%d", &mo, &d, &h, &mi, &sec, &ms), 6) << clock;
  char expected[32];
  snprintf(expected, sizeof(expected), "%02d-%02d %02d:%02d:%02d:%d", mo, d, h, mi, sec, ms);
  EXPECT_TRUE(clock == expected && ms < 1000) << clock;

  r->snapshotInfo.requestInfo.isQuickShot = true;
  r->snapshotInfo.nodeProcTime["MFNR"] = 12.5;
  writeSnapshotInfoToJsonFile(r);
  // Quotes, control characters and a stray byte: the text form keeps them raw.
  auto odd = record("q\"\n\x01", 1, "a\"b\tc\xff");
  EXPECT_NE(odd->toString().find("\"imageName\":\"a\"b\tc\xff\""), std::string::npos);
  writeSnapshotInfoToJsonFile(odd);
  writeSnapshotInfoToJsonFile(record("u-1", 8, "third"));
  const std::string rest =
      R"("RequestInfo":{"oriPhgType":0,"phgType":0,"anchorFrame":0,"isQuickshot":false,"quickshotDelayTime":0,)"
      R"("allFrames":[]},"VendorResultInfo":{},"ZuAlgoInfo":{"nodeProcTime":{},"nodeProcState":{}},"TimeInfo":{}})";
  EXPECT_EQ(
      readFile(kJsonFile),
      R"({"u-1":[{"sessionUUID":"u-1","sessionId":26,"fwkFrame":7,"imageName":"IMG_1","RequestInfo":)"
      R"({"oriPhgType":2,"phgType":2,"anchorFrame":0,"isQuickshot":true,"quickshotDelayTime":0,)"
      R"("allFrames":[10,11]},"VendorResultInfo":{"10":"error_result","11":"not_return"},"ZuAlgoInfo":)"
      R"({"nodeProcTime":{"MFNR":12.5},"nodeProcState":{}},"TimeInfo":{"1request_to_zuhal":-1,)"
      R"("2request_to_vendor":35}},{"sessionUUID":"u-1","sessionId":26,"fwkFrame":8,"imageName":"third",)" +
          rest +
          R"(],"q\"\n\u0001":[{"sessionUUID":"q\"\n\u0001","sessionId":26,"fwkFrame":1,)"
          R"("imageName":"a\"b\tc)"
          "\xEF\xBF\xBD\"," +
          rest + "]}");
  struct stat st {};
  ASSERT_EQ(stat(kJsonFile, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0666u);
  EXPECT_EQ(logged("/data/vendor/camera/praxErrorSnapdump.json file open error:No such file"), 1u);
  EXPECT_EQ(logged("JSON parse error: The document is empty. (0)"), 1u);
  EXPECT_EQ(logged("File permissions changed successfully."), 3u);
}

// Stage rules; a re-registration restarting the clock while keeping the times; the
// switches of init: nothing before it, (1, 1, 1) logs and dumps every capture once,
// (1, -1, 1) logs and never dumps.
TEST(SnapshotService, StageTimesAndInitSwitches) {
  if (zutest::ranInChild()) return;
  reg(9, 0, "EARLY");
  updateSnapshotTimeInfo(keyOf(9, 0), 1);
  diag()->unregisterSnapshotRecord(9, 0);
  diag()->init(1, 1, 1, 0, 0);
  const char* images[] = {"A", "B", "C", "R0"};
  for (uint32_t s = 26; s <= 29; ++s) reg(s, 1, images[s - 26]);
  updateSnapshotTimeInfo(keyOf(29, 1), 0);
  std::this_thread::sleep_for(70ms);
  reg(29, 1, "R", "u-2");
  // (session, stage); session 30 is not registered.
  const std::vector<std::pair<uint32_t, uint32_t>> updates = {
      {29, 1}, {26, 0}, {26, 1}, {26, 7}, {26, 11}, {26, 3}, {26, 15}, {27, 4}, {27, 6}, {28, 6}, {30, 5}};
  for (const auto& u : updates) updateSnapshotTimeInfo(keyOf(u.first, 1), u.second);
  updateSnapshotErrorInfo(keyOf(27, 1), "broken");
  std::this_thread::sleep_for(70ms);
  updateSnapshotTimeInfo(keyOf(26, 1), 13);
  for (uint32_t s = 26; s <= 29; ++s) diag()->unregisterSnapshotRecord(s, 1);
  drainWorker();
  diag()->init(1, -1, 1, 0, 0);
  reg(31, 1, "NONE");
  updateSnapshotErrorInfo(keyOf(31, 1), "broken");
  diag()->unregisterSnapshotRecord(31, 1);
  drainWorker();

  auto a = stageTimes("A"), b = stageTimes("B"), c = stageTimes("C"), r = stageTimes("R");
  EXPECT_EQ(a.size(), 6u) << "stage 15 does not exist";
  EXPECT_EQ(a.at("1request_to_zuhal"), -1);
  EXPECT_GE(a.at("2request_to_vendor"), 60);
  EXPECT_EQ(a.at("8getbuffer_from_fwk") + a.at("12post_proc_time"), 0);
  // Stage 13 rewrote the result time too.
  EXPECT_EQ(a.at("4result_to_fwk"), a.at("14shot_2_gallery"));
  EXPECT_GE(a.at("4result_to_fwk"), a.at("2request_to_vendor") + 60);
  EXPECT_GE(b.at("5request_to_post"), 60);
  // B and C were registered together and reached the anchor one after the other.
  EXPECT_LE(b.at("7anchor_time") + 60, c.at("7anchor_time")) << "anchor time counts from the post request";
  EXPECT_EQ(c.at("5request_to_post"), 0) << "a missing post request time is created as 0";
  EXPECT_GE(c.at("7anchor_time"), 60);
  EXPECT_EQ(r.at("1request_to_zuhal"), -1);
  EXPECT_LE(r.at("2request_to_vendor") + 60, a.at("2request_to_vendor"))
      << "counted from the latest registration";
  EXPECT_EQ(logged("can not find fakeFrameNum: 4294967326, type:5"), 1u);
  EXPECT_EQ(logged("[sessionId:29][R][fwkFrame:1]register in Snapshot record"), 1u);

  EXPECT_EQ(logged("can not find fakeFrameNum: 9, type:1"), 1u) << "nothing registered before init";
  EXPECT_EQ(logged("can not find fakeFrameNum: 9\n"), 0u) << "nothing queued before init";
  EXPECT_EQ(fieldOf("B", "errorInfo"), Strings{"broken, "});
  EXPECT_EQ(logged("[Diagnostician][sessionUUID:u-1][sessionId:26][A][fwkFrame:1]errorInfo:"), 1u);
  EXPECT_EQ(logged("---------------- B end ----------------"), 1u);
  EXPECT_EQ(logged("snapshot fail!"), 0u);
  EXPECT_EQ(logged("----------------NONE begin----------------"), 1u);
  EXPECT_EQ(fieldOf("NONE", "errorInfo"), Strings{});
}

// Failed-only dumps (init(1, 0, ...)): a crash dump of all in flight, then each failed
// capture as it leaves; the dump output around it all.
TEST(SnapshotService, FailedCapturesCrashDumpAndReRegistration) {
  if (zutest::ranInChild()) return;
  diag()->init(1, 0, 0, 0, 0);
  EXPECT_EQ(dumpTo("before.txt", -1), "") << "no dump file yet: nothing written";
  reg(26, 1, "V");
  updateSnapshotInfo(keyOf(26, 1), 2, 2, false, 0, {}, {10, 11, 12});
  updateVndResultInfo(keyOf(26, 1), 11, 0);
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
  // The records stay after a crash dump.
  updateVndResultInfo(keyOf(26, 1), 10, 3);
  updateNodeProcTime("DUP", "X", -1.0);
  updateNodeProcState("DUP", "MFNR", 4);
  for (uint32_t s : {26u, 2u, 3u}) diag()->unregisterSnapshotRecord(s, 1);
  drainWorker();
  // Re-registration under a new image name keeps errors and times, moves the name lookups.
  reg(4, 1, "OLD");
  updateSnapshotTimeInfo(keyOf(4, 1), 0);
  updateSnapshotErrorInfo(keyOf(4, 1), "e1");
  reg(4, 1, "NEW", "u-2");
  updateNodeProcTime("OLD", "stale", 1);
  updateNodeProcTime("NEW", "late", 1);
  updateNodeProcTime("DUP", "Y", -1.0);
  diag()->unregisterSnapshotRecord(4, 1);
  diag()->unregisterSnapshotRecord(3, 2);
  drainWorker();

  EXPECT_EQ(fieldOf("V", "VendorResultInfo"), (Strings{"10:not_return, 11:error_none, 12:not_return, ",
                                                       "10:error_result, 11:error_none, 12:not_return, "}));
  EXPECT_EQ(fieldOf("V", "errorInfo"),
            (Strings{"provider_crashed, ", "provider_crashed, vendor result error, "}));
  EXPECT_EQ(fieldOf("E", "VendorResultInfo"), Strings{"5:error_none, "}) << "a clean capture leaves silently";
  // Two captures named DUP, crash-dumped in key order, then each as it leaves:
  // only the lower key is updated until it is gone.
  EXPECT_EQ(fieldOf("DUP", "nodeProcTime"),
            (Strings{"MFNR:12.5, SR:-0.5, ", "", "MFNR:12.5, SR:-0.5, X:-1, ", "Y:-1, "}));
  EXPECT_EQ(fieldOf("DUP", "nodeProcState"),
            (Strings{"MFNR:none, SR:OK, ", "", "MFNR:NodeProcessError, SR:OK, ", ""}));
  EXPECT_EQ(fieldOf("DUP", "errorInfo"),
            (Strings{"provider_crashed, ", "provider_crashed, ",
                     "provider_crashed, node process time out, node process error, ",
                     "provider_crashed, node process time out, "}));
  EXPECT_EQ(fieldOf("NEW", "errorInfo"), Strings{"e1, "}) << "the failure survives re-registration";
  EXPECT_EQ(fieldOf("NEW", "sessionUUID"), Strings{"u-2"});
  EXPECT_EQ(fieldOf("NEW", "nodeProcTime"), Strings{"late:1, "});
  EXPECT_EQ(fieldOf("NEW", "SnapshotTime"), Strings{"1request_to_zuhal:-1, "});
  EXPECT_EQ(dumpTo("after.txt", 0), kDumpBegin + readFile(dumpPath()) + kDumpEnd);
  EXPECT_EQ(logged("[session:1a][V][fwkFrame:1] snapshot fail!"), 2u) << "crash dump and unregistration";
  for (const char* line :
       {"dumpInfo: open file /data/vendor/camera/offlinelog/PRAX_DumpInfo_", "crash signal triggered!",
        "unknown result code 99", "updateSnapshotErrorInfo: fwkFrame: 1, errorInfo: e1"})
    EXPECT_EQ(logged(line), 1u) << line;
}

// Several camera threads while dumps run: nothing lost or duplicated in the dump file.
TEST(SnapshotService, ConcurrentCapturesAreDumpedExactlyOnce) {
  if (zutest::ranInChild()) return;
  constexpr uint32_t kThreads = 4, kPerThread = 250;
  diag()->init(1, 1, 0, 0, 0);
  std::atomic<bool> done{false};
  const int devNull = open("/dev/null", O_WRONLY);
  std::thread dumper([&] {
    while (!done) diag()->dumpInfo(devNull);
  });
  std::vector<std::thread> cams;
  for (uint32_t t = 1; t <= kThreads; ++t) {
    cams.emplace_back([t] {
      for (uint32_t i = 0; i < kPerThread; ++i) {
        const std::string image = "T" + std::to_string(t) + "_" + std::to_string(i);
        reg(t, i, image);
        updateSnapshotTimeInfo(keyOf(t, i), 1);
        updateVndResultInfo(keyOf(t, i), i, i % 7 == 0 ? 3 : 0);
        updateNodeProcTime(image, "SR", 1.5);
        diag()->unregisterSnapshotRecord(t, i);
      }
    });
  }
  for (auto& c : cams) c.join();
  drainWorker();
  done = true;
  dumper.join();

  std::map<std::string, int> seen;
  for (const auto& l : zutest::readLines(dumpPath())) ++seen[field(l, "imageName")];
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kPerThread));
  for (const auto& kv : seen) EXPECT_EQ(kv.second, 1) << kv.first;
}

// Each damaged file is rewritten as valid JSON holding what could be kept plus the new record.
TEST(SnapshotJson, DamagedFilesAreRewrittenAsValidJson) {
  if (zutest::ranInChild()) return;
  auto r = record("u-1", 1, "new");
  std::string garbage(10 << 20, '\0');
  unsigned seed = 7;
  for (char& c : garbage) c = static_cast<char>(rand_r(&seed));
  // Content, and the records of session "u-1" that survive.
  const std::vector<std::pair<std::string, size_t>> cases = {
      {"", 0},
      {"{", 0},
      {"{\"u-1\":[{\"a\":1},{\"b\":2},{\"c\":", 2},
      {std::string("{\"u-1\":[{\"a\":1}]}\0{garbage", 26), 1},
      {"[1,2,3]", 0},
      {"\"just text\"", 0},
      {"{\"u-1\":7}", 1},
      {"{\"u-1\":[{\"a\":\"\xff\xfe\"}]}", 0},
      {"{\"u-1\":[{\"n\":1e999}]}", 0},
      {"{\"u-1\":[{\"a\":1},{\"n\":" + std::string(100, '9') + "e222}]}", 1},
      {"{\"u-1\":[{\"n\":123456789012345678901234567890}]}", 1},
      {"{\"u-1\":[{\"a\":1}," + std::string(200000, '[') + std::string(200000, ']') + "]}", 1},
      {garbage, 0}};
  for (size_t i = 0; i < cases.size(); ++i) {
    std::ofstream(kJsonFile, std::ios::binary) << cases[i].first;
    writeSnapshotInfoToJsonFile(r);
    rapidjson::Document doc;
    const std::string out = readFile(kJsonFile);
    ASSERT_FALSE(doc.Parse<rapidjson::kParseValidateEncodingFlag>(out.c_str()).HasParseError())
        << "case " << i;
    ASSERT_TRUE(doc.IsObject() && doc.HasMember("u-1") && doc["u-1"].IsArray() &&
                doc["u-1"].Size() == cases[i].second + 1)
        << "case " << i << ": " << out.substr(0, 200);
    EXPECT_STREQ(doc["u-1"][cases[i].second]["imageName"].GetString(), "new") << "case " << i;
  }
  EXPECT_EQ(logged("JSON parse error: Missing a name for object member. (1)"), 1u);
  EXPECT_EQ(logged("JSON parse error: Invalid encoding in string."), 1u);
  EXPECT_GE(logged("JSON root is not an object"), 2u);
  EXPECT_EQ(logged("JSON nested deeper than 64 levels"), 1u);
  // The 10 MB one was moved aside whole rather than read.
  EXPECT_EQ(logged("/data/vendor/camera/praxErrorSnapdump.json passed 1048576 bytes: moved to "
                   "/data/vendor/camera/praxErrorSnapdump.json.old, a new one is started"),
            1u);
  EXPECT_EQ(readFile(std::string(kJsonFile) + ".old"), garbage);
}
