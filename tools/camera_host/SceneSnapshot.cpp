// Still captures through the whole pipeline, as the camera HAL, the vendor result
// path, post-processing and the algorithm engine report them. Three captures fail (a
// vendor error, a node timeout, a node error) and are dumped when they leave; two are
// still in flight when the provider "crashes" and are dumped by the crash path. The
// failed ones also go to the JSON collection file, and the day's dump is printed the
// way the camera service's dump command shows it.
#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PRAXDiagnostician.h"
#include "Scenes.h"

using namespace zudebug;

namespace {

constexpr const char* kSessionUUID = "c0ffee00-5eed-4a11-9a3e-000000000001";
constexpr uint32_t kSessionId = 26;

enum class Fault { None, VendorError, NodeTimeout, NodeError };

struct Capture {
  uint32_t fwkFrame;
  Fault fault;
  bool leaves;  // unregistered before the crash
};

uint64_t keyOf(uint32_t fwkFrame) { return (static_cast<uint64_t>(fwkFrame) << 32) | kSessionId; }
std::string imageOf(uint32_t fwkFrame) { return "IMG_20240307_0915" + std::to_string(fwkFrame); }
void stage(uint32_t fwkFrame, TimeStage s, int afterMs) {
  std::this_thread::sleep_for(std::chrono::milliseconds(afterMs));
  updateSnapshotTimeInfo(keyOf(fwkFrame), s);
}

const char* describe(Fault f) {
  switch (f) {
    case Fault::VendorError:
      return "vendor error on its second frame";
    case Fault::NodeTimeout:
      return "SR node timed out";
    case Fault::NodeError:
      return "MFNR node failed";
    default:
      return "ok";
  }
}

// One capture from the framework's request to the picture in the gallery.
void runCapture(const Capture& c) {
  const uint64_t key = keyOf(c.fwkFrame);
  const std::string image = imageOf(c.fwkFrame);
  SnapDiagnostician::getInstance()->registerSnapshotRecord(kSessionUUID, kSessionId, c.fwkFrame, image, 0,
                                                           [](unsigned) {});
  stage(c.fwkFrame, TIME_REQUEST_TO_ZUHAL, 0);
  const int v = static_cast<int>(c.fwkFrame) * 10;
  updateSnapshotInfo(key, 2, 2, false, 0, {0, 3}, {v, v + 1, v + 2});
  stage(c.fwkFrame, TIME_REQUEST_TO_VENDOR, 3);
  for (int i = 0; i < 3; ++i) {
    const bool bad = c.fault == Fault::VendorError && i == 1;
    updateVndResultInfo(key, static_cast<uint32_t>(v + i), bad ? RESULT_ERROR_RESULT : RESULT_ERROR_NONE);
  }
  stage(c.fwkFrame, TIME_RESULT_FROM_VENDOR, 4);
  stage(c.fwkFrame, TIME_RESULT_TO_FWK, 1);
  stage(c.fwkFrame, TIME_GETBUFFER_FROM_FWK, 1);
  stage(c.fwkFrame, TIME_REQUEST_TO_POST, 2);
  updateAnchorFrame(key, v + 1);
  stage(c.fwkFrame, TIME_ANCHOR_TIME, 2);
  stage(c.fwkFrame, TIME_REQUEST_TO_ALGO, 1);
  updateZuAlgoInfo(image, {"MFNR:yuv", "SR:yuv", "Bokeh"});
  updateNodeProcTime(image, "MFNR", 38.5);
  updateNodeProcState(image, "MFNR", c.fault == Fault::NodeError ? NODE_PROCESS_ERROR : NODE_PROC_OK);
  updateNodeProcTime(image, "SR", c.fault == Fault::NodeTimeout ? -1.0 : 12.25);
  updateNodeProcState(image, "SR", NODE_PROC_OK);
  updateNodeProcTime(image, "Bokeh", 20);
  updateNodeProcState(image, "Bokeh", NODE_PROC_OK);
  stage(c.fwkFrame, TIME_POST_PROC_TIME, 5);
  stage(c.fwkFrame, TIME_SHOT_2_SHOT, 1);
  stage(c.fwkFrame, TIME_SHOT_2_GALLERY, 2);
  stage(c.fwkFrame, TIME_SHOT_2_VIEW, 1);
}

// The record of a capture in flight, as the HAL keeps it for the JSON file.
std::shared_ptr<SnapshotRecord> recordOf(uint32_t fwkFrame) {
  auto q = SnapDiagnostician::getInstance()->getQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  auto it = q->allRecords().find(keyOf(fwkFrame));
  return it == q->allRecords().end() ? nullptr : it->second;
}

size_t inFlight() {
  auto q = SnapDiagnostician::getInstance()->getQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  return q->allRecords().size();
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

}  // namespace

void runSnapshotScene(const HostOptions& opts) {
  sceneHeading("snapshot diagnostics");
  // Snapshots on, failed ones dumped, dumped ones also logged; module switches off here.
  SnapDiagnostician* diag = SnapDiagnostician::getInstance();
  diag->init(1, 0, 1, 0, 0);
  updatePostProcInfo({{"jpegQuality", 95}, {"heifEnable", 0}});

  const std::vector<Capture> captures = {
      {100, Fault::None, true},        {101, Fault::VendorError, true}, {102, Fault::None, true},
      {103, Fault::NodeTimeout, true}, {104, Fault::NodeError, true},   {105, Fault::None, false},
      {106, Fault::None, false},
  };
  printf("session %s (id %u), %zu still captures:\n", kSessionUUID, kSessionId, captures.size());
  for (const Capture& c : captures) {
    runCapture(c);
    if (c.fault != Fault::None) writeSnapshotInfoToJsonFile(recordOf(c.fwkFrame));
    if (c.leaves) diag->unregisterSnapshotRecord(kSessionId, c.fwkFrame);
    printf("  fwkFrame %u  %-24s %-32s %s\n", c.fwkFrame, imageOf(c.fwkFrame).c_str(), describe(c.fault),
           c.leaves ? "unregistered" : "still in flight");
  }
  // Unregistration runs on the diagnostician's worker; wait until it has caught up.
  for (int i = 0; i < 500 && inFlight() != 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));

  printf("provider crash: the %zu captures in flight are dumped\n", inFlight());
  diag->signalTrigger();

  const std::string json = readAll(opts.root + "/data/vendor/camera/praxErrorSnapdump.json");
  size_t records = 0;
  for (size_t pos = json.find("\"imageName\""); pos != std::string::npos;
       pos = json.find("\"imageName\"", pos + 1))
    ++records;
  printf("data/vendor/camera/praxErrorSnapdump.json: %zu bytes, %zu failed captures\n", json.size(), records);
  printf("camera service dump (dumpInfo):\n");
  fflush(stdout);
  diag->dumpInfo(STDOUT_FILENO);
}
