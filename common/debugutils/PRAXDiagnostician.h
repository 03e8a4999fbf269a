// Snapshot diagnostics: a record of every still capture in flight, its stage times,
// algorithm nodes and errors, dumped when it fails or the process crashes; and the
// module diagnostician, which reports memory and state of the camera modules.
#pragma once

#include <time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ThreadPool.h"
#include "ZuDebugExport.h"

namespace zudebug {

// ---- snapshot diagnostics ----

// Diagnostics switches, 0 until SnapDiagnostician::init sets them (in this order).
// snapshotEnable: non-zero lets registration and unregistration work.
extern ZUDEBUG_EXPORT std::atomic<int32_t> snapshotEnable;
// snapshotDumpAll: >= 1 dumps every unregistered record, 0 only failed ones, < 0 none.
extern ZUDEBUG_EXPORT std::atomic<int32_t> snapshotDumpAll;
// snapshotLogPrint: >= 1 also writes a dumped record to the log.
extern ZUDEBUG_EXPORT std::atomic<int32_t> snapshotLogPrint;
// moduleMemEnable: memory-information callbacks of the module diagnostician.
extern ZUDEBUG_EXPORT std::atomic<int32_t> moduleMemEnable;
// moduleDumpEnable: string and integer dump callbacks of the module diagnostician.
extern ZUDEBUG_EXPORT std::atomic<int32_t> moduleDumpEnable;

// Pipeline stages of a still capture; index into TimeStageToChar.
enum TimeStage : uint32_t {
  TIME_REQUEST_TO_ZUHAL = 0,
  TIME_REQUEST_TO_VENDOR = 1,
  TIME_RESULT_FROM_VENDOR = 2,
  TIME_RESULT_TO_FWK = 3,
  TIME_REQUEST_TO_POST = 4,
  TIME_REQUEST_TO_ALGO = 5,
  TIME_ANCHOR_TIME = 6,
  TIME_GETBUFFER_FROM_FWK = 7,
  TIME_MOCK_CONFIG_FROM_FWK = 8,
  TIME_MOCK_REQUEST_FROM_FWK = 9,
  TIME_MOCK_RESULT_TO_FWK = 10,
  TIME_POST_PROC_TIME = 11,
  TIME_SHOT_2_SHOT = 12,
  TIME_SHOT_2_GALLERY = 13,
  TIME_SHOT_2_VIEW = 14,
  TIME_STAGE_COUNT = 15,
};

// Outcome of one algorithm-engine node; index into NodeProcInfoToChar.
enum NodeProcInfo : int32_t {
  NODE_PROC_OK = 0,
  NODE_GET_INPUT_ERROR = 1,
  NODE_GET_OUTPUT_ERROR = 2,
  NODE_FLUSH_TASK = 3,
  NODE_PROCESS_ERROR = 4,
  NODE_PROC_INFO_COUNT = 5,
};

// Vendor result of one frame; index into ResultErrorCodeToChar.
enum ResultErrorCode : int32_t {
  RESULT_ERROR_NONE = 0,
  RESULT_ERROR_DEVICE = 1,
  RESULT_ERROR_REQUEST = 2,
  RESULT_ERROR_RESULT = 3,
  RESULT_ERROR_BUFFER = 4,
  RESULT_ERROR_CODE_COUNT = 5,
};

extern ZUDEBUG_EXPORT const char* TimeStageToChar[TIME_STAGE_COUNT];
extern ZUDEBUG_EXPORT const char* NodeProcInfoToChar[NODE_PROC_INFO_COUNT];
extern ZUDEBUG_EXPORT const char* ResultErrorCodeToChar[RESULT_ERROR_CODE_COUNT];

// Local date without leading zeros, e.g. "2024-3-7".
ZUDEBUG_EXPORT std::string getTodayDate();
// Local time "MM-DD hh:mm:ss:" followed by the milliseconds without leading zeros.
ZUDEBUG_EXPORT std::string getCurrentTime();

// Every element followed by ", " (the last one too); "" when empty.
// Provided for int32_t and std::string elements.
template <typename T>
ZUDEBUG_EXPORT std::string vecToString(const std::vector<T>& vec);
// Every entry as "key:value, "; "" when empty. Provided for (string, long),
// (int32_t, string), (string, double) and (string, string).
template <typename K, typename V>
ZUDEBUG_EXPORT std::string mapToString(const std::map<K, V>& map);

// What the pipeline knows about one still capture.
struct ZUDEBUG_EXPORT SnapshotInfo {
  struct ZUDEBUG_EXPORT RequestInfo {
    int32_t oriPhgType = 0;
    int32_t phgType = 0;
    int32_t anchorFrame = 0;
    bool isQuickShot = false;
    uint64_t quickshotDelayTime = 0;
    // The stream ids and frame list live beside the request fields but render with them.
    std::string toString(const std::vector<int32_t>& streamId, const std::vector<int32_t>& allFrames) const;
  };
  // Vendor frame number -> result code name, or "not_return" while outstanding.
  struct ZUDEBUG_EXPORT VendorResultInfo : std::map<int32_t, std::string> {
    std::string toString() const;
  };
  // Renders the algorithm-engine node tables (nodeProcTime, nodeProcState).
  struct ZUDEBUG_EXPORT ZuAlgoInfo {
    static std::string toString(const SnapshotInfo& info);
  };

  RequestInfo requestInfo;
  std::vector<int32_t> streamId;
  std::vector<int32_t> allFrames;
  VendorResultInfo vendorResultInfo;
  // Node descriptors "name" or "name:details".
  std::vector<std::string> nodeList;
  // Node name -> processing time in ms; 0 until reported, -1 for a timeout.
  std::map<std::string, double> nodeProcTime;
  // Node name -> NodeProcInfo name; "none" until reported.
  std::map<std::string, std::string> nodeProcState;
  // Stage name -> ms since registration (-1 for the request stage).
  std::map<std::string, long> timeInfo;

  std::string toString() const;
  std::string timeToString() const;
  void logPrint() const;
};

// One still capture in flight, keyed by fakeFrameNum = (fwkFrame << 32) | sessionId.
// Records carry no lock: they are read and written under their queue's mutex.
class ZUDEBUG_EXPORT SnapshotRecord {
 public:
  SnapshotRecord(std::string sessionUUID, uint32_t sessionId, uint32_t fwkFrame, std::string imageName,
                 int32_t registerArg, const timespec& registerTime, std::function<void(uint32_t)> callback);

  // One line: {"SnapshotRecord":{...}} followed by a newline. Strings are not escaped.
  std::string toString() const;
  void logPrint() const;
  // Appends `text` to today's dump file.
  void dumpToFile(const std::string& text) const;

  std::vector<std::string> errorInfo;
  bool hasError = false;
  std::string sessionUUID;
  uint32_t sessionId = 0;
  uint32_t fwkFrame = 0;
  uint64_t fakeFrameNum = 0;
  std::string imageName;
  int32_t registerArg = 0;
  timespec registerTime{};
  timespec requestTime{};
  std::function<void(uint32_t)> callback;
  SnapshotInfo snapshotInfo;
};

// The records of all captures in flight. Every member expects `mutex` to be held.
class ZUDEBUG_EXPORT SnapshotRequestQueue {
 public:
  using RecordPtr = std::shared_ptr<SnapshotRecord>;

  // Re-registration of a known key: replaces the session fields, the registration time
  // and the callback, keeps errors, times and tables. False when the key is unknown.
  bool update(uint64_t fakeFrameNum, const std::string& sessionUUID, uint32_t sessionId, uint32_t fwkFrame,
              const std::string& imageName, int32_t registerArg, const timespec& registerTime,
              std::function<void(uint32_t)>& callback);
  // Adds a new record; a record already under the key stays as it is.
  void emplace_back(const std::string& sessionUUID, uint32_t sessionId, uint32_t fwkFrame,
                    const std::string& imageName, int32_t registerArg, const timespec& registerTime,
                    std::function<void(uint32_t)> callback);
  // Visits the records named `imageName` in ascending key order until `visitor` returns false.
  void findByImageName(const std::string& imageName,
                       const std::function<bool(std::shared_ptr<SnapshotRecord>)>& visitor);
  // Erases a record; warns and returns false when it is unknown.
  bool remove(uint64_t fakeFrameNum);

  // The record under the key, or null.
  SnapshotRecord* find(uint64_t fakeFrameNum) const;
  // The lowest-keyed record named `imageName`, or null.
  SnapshotRecord* firstByImageName(const std::string& imageName) const;
  // Erases a record if present.
  void erase(uint64_t fakeFrameNum);
  // Marks the capture failed with `reason` and lists it among the failed frames.
  void markFailed(SnapshotRecord& record, const char* reason);
  void setPostProcInfo(const std::map<std::string, uint32_t>& info) { postProcInfo = info; }
  const std::map<uint64_t, RecordPtr>& allRecords() const { return records; }
  std::vector<uint64_t>& failedFrames() { return errorFrames; }

  std::mutex mutex;
  std::condition_variable condition;

 private:
  std::map<uint64_t, RecordPtr> records;
  // Key -> record: the update path's lookup, constant time however many are in flight.
  std::unordered_map<uint64_t, SnapshotRecord*> recordsByKey;
  // Image name -> its records by key, so lookups by name stay cheap.
  std::unordered_map<std::string, std::map<uint64_t, RecordPtr>> recordsByName;
  std::map<std::string, uint32_t> postProcInfo;
  std::vector<uint64_t> errorFrames;
};

// The process-wide snapshot diagnostics service.
class ZUDEBUG_EXPORT SnapDiagnostician {
 public:
  static SnapDiagnostician* getInstance();

  // Sets the five diagnostics switches; nothing else.
  void init(int snapshotEnable, int snapshotDumpAll, int snapshotLogPrint, int moduleMemEnable,
            int moduleDumpEnable);
  void registerSnapshotRecord(std::string sessionUUID, unsigned sessionId, unsigned fwkFrame,
                              std::string imageName, int registerArg, std::function<void(unsigned)> callback);
  // Returns at once; the record is reported, dumped and dropped on the worker thread.
  void unregisterSnapshotRecord(unsigned long sessionId, unsigned long fwkFrame);
  // Crash path: dumps every capture still in flight, keeping the records.
  void signalTrigger();
  // Copies today's dump file between banners into `fd`; 0 on success, -1 on failure.
  int dumpInfo(int fd);
  void stop();
  ~SnapDiagnostician();
  void snapshotHandle();

  std::shared_ptr<SnapshotRequestQueue> getQueue() const { return queue; }

 private:
  SnapDiagnostician();
  SnapDiagnostician(const SnapDiagnostician&) = delete;
  SnapDiagnostician& operator=(const SnapDiagnostician&) = delete;
  void finishRecord(uint64_t fakeFrameNum);

  std::atomic<bool> running;
  const std::shared_ptr<SnapshotRequestQueue> queue;
  std::unique_ptr<ThreadPool> workerPool;
  std::thread handlerThread;
  std::mutex stopMutex;
};

// Update API of the pipeline stages. A stage that finds no record warns and changes nothing.
ZUDEBUG_EXPORT void updateSnapshotInfo(uint64_t fakeFrameNum, int oriPhgType, int phgType, bool isQuickShot,
                                       uint64_t quickshotDelayTime, std::vector<int> streamId,
                                       std::vector<int> allFrames);
ZUDEBUG_EXPORT void updateVndResultInfo(uint64_t fakeFrameNum, uint32_t vendorFrame, int resultCode);
ZUDEBUG_EXPORT void updatePostProcInfo(std::map<std::string, uint32_t> postProcInfo);
ZUDEBUG_EXPORT void updateZuAlgoInfo(const std::string& imageName, const std::vector<std::string>& nodes);
ZUDEBUG_EXPORT void updateNodeProcTime(const std::string& imageName, const std::string& nodeName, double ms);
ZUDEBUG_EXPORT void updateNodeProcState(const std::string& imageName, const std::string& nodeName, int state);
ZUDEBUG_EXPORT void updateAnchorFrame(uint64_t fakeFrameNum, int anchorFrame);
ZUDEBUG_EXPORT void updateSnapshotErrorInfo(uint64_t fakeFrameNum, const char* errorInfo);
ZUDEBUG_EXPORT void updateSnapshotTimeInfo(uint64_t fakeFrameNum, uint32_t stage);

// Adds the record to "/data/vendor/camera/praxErrorSnapdump.json", grouped per session
// UUID in writing order. A missing or damaged file is rewritten as valid JSON.
ZUDEBUG_EXPORT void writeSnapshotInfoToJsonFile(const std::shared_ptr<SnapshotRecord>& record);

// ---- module diagnostician ----

// The module a callback belongs to.
enum ModuleItem : int32_t {
  MODULE_METADATA_MEM = 0,       // metadata pool memory
  MODULE_ZUHAL_MEM = 1,          // camera HAL memory
  MODULE_ZUALGOENGINE_MEM = 3,   // algorithm-engine memory
  MODULE_ZUHAL_DUMP = 4,         // camera HAL state (dumps and probes)
  MODULE_ZUALGOENGINE_DUMP = 5,  // algorithm-engine state (dumps)
};

// What a callback is used for; recorded by nobody, accepted for the callers' sake.
enum ModuleUsage : int32_t {
  MODULE_USAGE_MEMORY = 0,
  MODULE_USAGE_DUMP = 1,
  MODULE_USAGE_PROBE = 2,
};

// Returned by a memory callback. Modules may return a type derived from it.
struct MemInfo {
  uint64_t size = 0;  // bytes the module uses now
};

// Collects the camera modules' memory use and state through callbacks.
//
// Sharing: a camera process uses one instance, obtained with getInstance() (created
// at the first call, destroyed at process exit). Call SnapDiagnostician::init first:
// the memory thread only runs when moduleMemEnable was set before the instance was
// created. Separate instances may be constructed (each with its own threads), but they
// all write the same memory-information file.
//
// Registrations are queued on the instance's worker thread and take effect shortly
// after the call; syncRegistrations() waits until those already queued are in.
// Callbacks run with the instance's lock held and must not call back into it.
class ZUDEBUG_EXPORT ModuleDiagnostician {
 public:
  using MemCallback = std::function<std::shared_ptr<MemInfo>(int)>;
  using StringCallback = std::function<std::string(bool&)>;
  using IntCallback = std::function<int(bool&)>;
  using MemCallbackList = std::vector<MemCallback>;

  static ModuleDiagnostician* getInstance();

  ModuleDiagnostician();
  // Wakes and joins the memory thread, then finishes queued registrations.
  ~ModuleDiagnostician();
  ModuleDiagnostician(const ModuleDiagnostician&) = delete;
  ModuleDiagnostician& operator=(const ModuleDiagnostician&) = delete;

  // Memory producer: called with 0 every period; returning null unregisters it.
  // Dropped unless moduleMemEnable is set.
  void registerCallbackFuncs(ModuleItem item, ModuleUsage usage, MemCallback func);
  // State text for dumpPraxCore (items 4 and 5); setting the flag unregisters it.
  // Dropped unless moduleDumpEnable is set.
  void registerCallbackFuncs(ModuleItem item, ModuleUsage usage, StringCallback func);
  // Probe for dumpPraxInfo (item 4); setting the flag unregisters it.
  // Dropped unless moduleDumpEnable is set.
  void registerCallbackFuncs(ModuleItem item, ModuleUsage usage, IntCallback func);
  // Waits until every registration queued before the call has been applied. Must not
  // be called from a callback.
  void syncRegistrations();
  void clearCallbackFuncs();

  // Sum of the byte counts `list` reports; callbacks that return null are removed.
  uint64_t caculateMem(MemCallbackList& list);
  // Rewrites "/data/vendor/camera/praxmeminfo.txt" from the last sums.
  void writePraxMemInfoToFile();
  // Asks the memory thread to sum and rewrite the file now rather than at the end
  // of its period (no effect while nothing is registered or the thread is not running).
  void triggerMemInfoUpdate();
  // Writes the HAL and algorithm-engine state texts to `fd` (a dump output).
  void dumpPraxCore(int fd);
  // Runs the HAL probes: always when `force`, otherwise on every fifth run only.
  void dumpPraxInfo(bool force);

 private:
  void run();

  uint32_t zuhalDmaSize = 0;
  [[maybe_unused]] uint32_t mReserved = 0;  // keeps the sizes' layout; never written
  uint32_t zualgoEngineDmaSize = 0;
  uint32_t zuMetadataSize = 0;
  std::condition_variable condition;
  bool running = false;
  std::thread memThread;
  std::unique_ptr<ThreadPool> workerPool;
  std::mutex mutex;
  std::map<ModuleItem, MemCallbackList> memCallbacks;
  std::map<ModuleItem, std::vector<StringCallback>> stringCallbacks;
  std::map<ModuleItem, std::vector<IntCallback>> intCallbacks;
  // The memory thread waits without a time limit (nothing registered yet).
  bool mIdle = false;
  // An update was asked for by triggerMemInfoUpdate().
  bool mUpdateRequested = false;
};

}  // namespace zudebug
