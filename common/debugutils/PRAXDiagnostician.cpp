#include "PRAXDiagnostician.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <utility>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <zudebug_platform/device_files.h>

#include "ZuDebugUtils.h"

namespace zudebug {

// ---- snapshot diagnostics ----

std::atomic<int32_t> snapshotEnable{0};
std::atomic<int32_t> snapshotDumpAll{0};
std::atomic<int32_t> snapshotLogPrint{0};
std::atomic<int32_t> moduleMemEnable{0};
std::atomic<int32_t> moduleDumpEnable{0};

namespace {

constexpr const char* kDiagTag = "Prax-Diagnostician";
constexpr const char* kDumpDir = "/data/vendor/camera/offlinelog/";
constexpr const char* kJsonPath = "/data/vendor/camera/praxErrorSnapdump.json";
// Deeper documents are cut here: nothing this file ever holds nests more than five levels.
constexpr size_t kMaxJsonDepth = 64;
// A failed capture adds about 1 KB: past 1 MiB the file is moved aside (the one before
// it is replaced) and a new one started, so that it never grows without end.
constexpr long long kMaxJsonFileBytes = 1048576;

std::string todayDumpPath() { return std::string(kDumpDir) + "PRAX_DumpInfo_" + getTodayDate() + ".txt"; }

// Stage names as strings, built once, so that updates of an existing entry allocate nothing.
const std::string& stageName(uint32_t stage) {
  static const std::vector<std::string> names(TimeStageToChar, TimeStageToChar + TIME_STAGE_COUNT);
  return names[stage];
}

std::shared_ptr<SnapshotRequestQueue> theQueue() { return SnapDiagnostician::getInstance()->getQueue(); }

// The queue locked, and the record of `key` in it (null when there is none).
struct LockedRecord {
  std::shared_ptr<SnapshotRequestQueue> q = theQueue();
  std::lock_guard<std::mutex> lock{q->mutex};
  SnapshotRecord* r;
  explicit LockedRecord(uint64_t key) : r(q->find(key)) {}
};

}  // namespace

const char* TimeStageToChar[TIME_STAGE_COUNT] = {
    "1request_to_zuhal",     "2request_to_vendor",      "3result_from_vendor",  "4result_to_fwk",
    "5request_to_post",      "6request_to_algo",        "7anchor_time",         "8getbuffer_from_fwk",
    "9mock_config_from_fwk", "10mock_request_from_fwk", "11mock_result_to_fwk", "12post_proc_time",
    "13shot_2_shot",         "14shot_2_gallery",        "15shot_2_view",
};
const char* NodeProcInfoToChar[NODE_PROC_INFO_COUNT] = {"OK", "GetInputError", "GetOutputError", "FlushTask",
                                                        "NodeProcessError"};
const char* ResultErrorCodeToChar[RESULT_ERROR_CODE_COUNT] = {"error_none", "error_device", "error_request",
                                                              "error_result", "error_buffer"};

std::string getTodayDate() {
  const time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  struct tm local {};
  localtime_r(&now, &local);
  return std::to_string(local.tm_year + 1900) + "-" + std::to_string(local.tm_mon + 1) + "-" +
         std::to_string(local.tm_mday);
}

std::string getCurrentTime() {
  const auto now = std::chrono::system_clock::now();
  const time_t secs = std::chrono::system_clock::to_time_t(now);
  struct tm local {};
  localtime_r(&secs, &local);
  std::ostringstream os;
  os << std::put_time(&local, "%m-%d %H:%M:%S");
  const long long ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  return os.str() + ":" + std::to_string(ms).substr(0, 3);
}

template <typename T>
std::string vecToString(const std::vector<T>& vec) {
  std::ostringstream os;
  for (const auto& e : vec) os << e << ", ";
  return os.str();
}

template <typename K, typename V>
std::string mapToString(const std::map<K, V>& map) {
  std::ostringstream os;
  for (const auto& kv : map) os << kv.first << ":" << kv.second << ", ";
  return os.str();
}

template ZUDEBUG_EXPORT std::string vecToString<int32_t>(const std::vector<int32_t>&);
template ZUDEBUG_EXPORT std::string vecToString<std::string>(const std::vector<std::string>&);
template ZUDEBUG_EXPORT std::string mapToString<std::string, long>(const std::map<std::string, long>&);
template ZUDEBUG_EXPORT std::string mapToString<int32_t, std::string>(const std::map<int32_t, std::string>&);
template ZUDEBUG_EXPORT std::string mapToString<std::string, double>(const std::map<std::string, double>&);
template ZUDEBUG_EXPORT std::string mapToString<std::string, std::string>(
    const std::map<std::string, std::string>&);

// ---- records and their renderings ----

SnapshotRecord::SnapshotRecord(std::string uuid, uint32_t session, uint32_t frame, std::string image,
                               int32_t arg, const timespec& regTime, std::function<void(uint32_t)> cb)
    : sessionUUID(std::move(uuid)),
      sessionId(session),
      fwkFrame(frame),
      fakeFrameNum(static_cast<uint64_t>(session) | (static_cast<uint64_t>(frame) << 32)),
      imageName(std::move(image)),
      registerArg(arg),
      registerTime(regTime),
      callback(std::move(cb)) {}

std::string SnapshotInfo::RequestInfo::toString(const std::vector<int32_t>& streamIds,
                                                const std::vector<int32_t>& frames) const {
  std::ostringstream os;
  os << ",\"RequestInfo\":{"
     << "\"oriPhgType\":" << oriPhgType << ",\"phgType\":" << phgType << ",\"anchorFrame\":" << anchorFrame
     << ",\"isQuickShot\":" << (isQuickShot ? 1 : 0) << ",\"quickshotDelayTime\":" << quickshotDelayTime
     << ",\"streamId\":\"" << vecToString(streamIds) << "\""
     << ",\"allFrames\":\"" << vecToString(frames) << "\""
     << "}";
  return os.str();
}

std::string SnapshotInfo::VendorResultInfo::toString() const {
  return ",\"VendorResultInfo\":\"" + mapToString<int32_t, std::string>(*this) + "\"";
}

std::string SnapshotInfo::ZuAlgoInfo::toString(const SnapshotInfo& info) {
  return ",\"ZuAlgoInfo\":{\"nodeProcTime\":\"" + mapToString(info.nodeProcTime) + "\"" +
         ",\"nodeProcState\":\"" + mapToString(info.nodeProcState) + "\"}";
}

std::string SnapshotInfo::timeToString() const {
  return ",\"SnapshotTime\":\"" + mapToString(timeInfo) + "\"";
}

std::string SnapshotInfo::toString() const {
  return requestInfo.toString(streamId, allFrames) + vendorResultInfo.toString() +
         ZuAlgoInfo::toString(*this) + timeToString();
}

void SnapshotInfo::logPrint() const {
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "[Diagnostician]%s", requestInfo.toString(streamId, allFrames).c_str());
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "[Diagnostician]%s", vendorResultInfo.toString().c_str());
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "[Diagnostician]%s", ZuAlgoInfo::toString(*this).c_str());
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "[Diagnostician]%s", timeToString().c_str());
}

std::string SnapshotRecord::toString() const {
  std::ostringstream os;
  os << "{\"SnapshotRecord\":{"
     << "\"errorInfo\":\"" << vecToString(errorInfo) << "\","
     << "\"sessionUUID\":\"" << sessionUUID << "\","
     << "\"sessionId\":\"" << std::hex << sessionId << std::dec << "\","
     << "\"fwkFrame\":" << fwkFrame << ","
     << "\"imageName\":\"" << imageName << "\"" << snapshotInfo.toString() << "}}\n";
  return os.str();
}

void SnapshotRecord::logPrint() const {
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "----------------%s begin----------------", imageName.c_str());
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL,
          "[Diagnostician][sessionUUID:%s][sessionId:%d][%s][fwkFrame:%d]errorInfo:%s", sessionUUID.c_str(),
          static_cast<int>(sessionId), imageName.c_str(), static_cast<int>(fwkFrame),
          vecToString(errorInfo).c_str());
  snapshotInfo.logPrint();
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "---------------- %s end ----------------", imageName.c_str());
}

void SnapshotRecord::dumpToFile(const std::string& text) const {
  const std::string path = todayDumpPath();
  devfs::File f = devfs::openFileChecked(path.c_str(), "a", devfs::Owner::UserOrGroup);
  if (!f) {
    ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "[SnapDiagnostician]open file:%s failed", path.c_str());
    return;
  }
  fwrite(text.data(), 1, text.size(), f.get());
}

// ---- JSON collection file ----

namespace {

using rapidjson::SizeType;
using rapidjson::Value;
using JsonAlloc = rapidjson::Document::AllocatorType;

// Copies `in`, replacing every byte that does not start a well-formed UTF-8 sequence
// with U+FFFD, so that the writer never emits an invalid document.
std::string toValidUtf8(const std::string& in) {
  bool ascii = true;
  for (char c : in) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  if (ascii) return in;
  std::string out;
  out.reserve(in.size());
  const auto* s = reinterpret_cast<const unsigned char*>(in.data());
  const size_t n = in.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char c = s[i];
    size_t len = 0;
    uint32_t cp = 0;
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
      ++i;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      cp = c & 0x07;
    }
    bool ok = len != 0 && i + len <= n;
    for (size_t k = 1; ok && k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80)
        ok = false;
      else
        cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    // Overlong forms, surrogates and code points above U+10FFFF are not UTF-8.
    if (ok && ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
               (cp >= 0xD800 && cp <= 0xDFFF)))
      ok = false;
    if (ok) {
      out.append(in, i, len);
      i += len;
    } else {
      out.append("\xEF\xBF\xBD");
      ++i;
    }
  }
  return out;
}

Value jsonString(const std::string& s, JsonAlloc& alloc) {
  const std::string valid = toValidUtf8(s);
  return Value(valid.data(), static_cast<SizeType>(valid.size()), alloc);
}

Value recordToJson(const SnapshotRecord& r, JsonAlloc& alloc) {
  const SnapshotInfo& info = r.snapshotInfo;
  Value obj(rapidjson::kObjectType);
  obj.AddMember("sessionUUID", jsonString(r.sessionUUID, alloc), alloc);
  obj.AddMember("sessionId", Value(r.sessionId), alloc);
  obj.AddMember("fwkFrame", Value(r.fwkFrame), alloc);
  obj.AddMember("imageName", jsonString(r.imageName, alloc), alloc);

  Value request(rapidjson::kObjectType);
  request.AddMember("oriPhgType", Value(info.requestInfo.oriPhgType), alloc);
  request.AddMember("phgType", Value(info.requestInfo.phgType), alloc);
  request.AddMember("anchorFrame", Value(info.requestInfo.anchorFrame), alloc);
  request.AddMember("isQuickshot", Value(info.requestInfo.isQuickShot), alloc);
  request.AddMember("quickshotDelayTime", Value(static_cast<uint64_t>(info.requestInfo.quickshotDelayTime)),
                    alloc);
  Value frames(rapidjson::kArrayType);
  for (int32_t f : info.allFrames) frames.PushBack(Value(f), alloc);
  request.AddMember("allFrames", frames, alloc);
  obj.AddMember("RequestInfo", request, alloc);

  Value vendor(rapidjson::kObjectType);
  for (const auto& kv : info.vendorResultInfo)
    vendor.AddMember(jsonString(std::to_string(kv.first), alloc), jsonString(kv.second, alloc), alloc);
  obj.AddMember("VendorResultInfo", vendor, alloc);

  Value algo(rapidjson::kObjectType);
  Value procTime(rapidjson::kObjectType);
  for (const auto& kv : info.nodeProcTime) {
    // JSON has no NaN or infinity; such a time is written as null.
    Value v;
    if (std::isfinite(kv.second)) v.SetDouble(kv.second);
    procTime.AddMember(jsonString(kv.first, alloc), v, alloc);
  }
  algo.AddMember("nodeProcTime", procTime, alloc);
  Value procState(rapidjson::kObjectType);
  for (const auto& kv : info.nodeProcState)
    procState.AddMember(jsonString(kv.first, alloc), jsonString(kv.second, alloc), alloc);
  algo.AddMember("nodeProcState", procState, alloc);
  obj.AddMember("ZuAlgoInfo", algo, alloc);

  Value times(rapidjson::kObjectType);
  for (const auto& kv : info.timeInfo)
    times.AddMember(jsonString(kv.first, alloc), Value(static_cast<int64_t>(kv.second)), alloc);
  obj.AddMember("TimeInfo", times, alloc);
  return obj;
}

// Builds the collection from the parser's events. When the input breaks off, what
// was complete is kept: the root's finished members and the finished elements of
// the member that was open (a session's records), never a half-read record.
// Strings are checked again: an escaped lone surrogate ("\udc00") decodes to bytes
// that are not UTF-8.
class CollectionBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, CollectionBuilder> {
 public:
  explicit CollectionBuilder(JsonAlloc& alloc) : mAlloc(alloc) {}

  bool Null() { return add(Value()); }
  bool Bool(bool b) { return add(Value(b)); }
  bool Int(int i) { return add(Value(i)); }
  bool Uint(unsigned u) { return add(Value(u)); }
  bool Int64(int64_t i) { return add(Value(i)); }
  bool Uint64(uint64_t u) { return add(Value(u)); }
  // A number too large for a double yet not refused by the reader (many digits before
  // a moderate exponent) arrives as infinity, which no JSON can hold: the parse stops
  // there and what came before is kept, as for a number the reader refuses.
  bool Double(double d) { return std::isfinite(d) && add(Value(d)); }
  bool String(const char* s, SizeType n, bool) { return add(jsonString(std::string(s, n), mAlloc)); }
  bool StartObject() { return open(rapidjson::kObjectType); }
  bool Key(const char* s, SizeType n, bool) {
    mFrames.back().key = jsonString(std::string(s, n), mAlloc);
    return true;
  }
  bool EndObject(SizeType) { return close(); }
  bool StartArray() { return open(rapidjson::kArrayType); }
  bool EndArray(SizeType) { return close(); }

  bool wrongRoot() const { return mWrongRoot; }
  bool tooDeep() const { return mTooDeep; }

  // The collection to extend: the parsed root object, or what could be salvaged of it.
  Value takeRoot() {
    if (mHaveRoot) return Value(std::move(mRoot));
    if (mWrongRoot || mFrames.empty()) return Value(rapidjson::kObjectType);
    if (mFrames.size() >= 2 && mFrames[0].key.IsString())
      mFrames[0].container.AddMember(mFrames[0].key, mFrames[1].container, mAlloc);
    return Value(std::move(mFrames[0].container));
  }

 private:
  struct Frame {
    Value container;
    Value key;
  };

  bool open(rapidjson::Type type) {
    if (mFrames.empty() && type != rapidjson::kObjectType) {
      mWrongRoot = true;
      return false;
    }
    if (mFrames.size() >= kMaxJsonDepth) {
      mTooDeep = true;
      return false;
    }
    mFrames.push_back(Frame{Value(type), Value()});
    return true;
  }

  bool close() {
    Value done(std::move(mFrames.back().container));
    mFrames.pop_back();
    return add(std::move(done));
  }

  bool add(Value&& v) {
    if (mFrames.empty()) {
      if (!v.IsObject()) {
        mWrongRoot = true;
        return false;
      }
      mRoot = std::move(v);
      mHaveRoot = true;
      return true;
    }
    Frame& top = mFrames.back();
    if (top.container.IsObject())
      top.container.AddMember(top.key, v, mAlloc);
    else
      top.container.PushBack(v, mAlloc);
    return true;
  }

  JsonAlloc& mAlloc;
  std::vector<Frame> mFrames;
  Value mRoot;
  bool mHaveRoot = false;
  bool mWrongRoot = false;
  bool mTooDeep = false;
};

std::mutex sJsonFileMutex;

}  // namespace

void writeSnapshotInfoToJsonFile(const std::shared_ptr<SnapshotRecord>& record) {
  if (!record) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "writeSnapshotInfoToJsonFile: no record given");
    return;
  }
  // Read, extend and rewrite as one step, so concurrent writers lose no record.
  std::lock_guard<std::mutex> fileLock(sJsonFileMutex);

  // Opened for writing too: a file that could not be rewritten is not taken in.
  devfs::FileText file;
  if (devfs::File in = devfs::openFileChecked(kJsonPath, "r+", devfs::Owner::UserOrGroup))
    file = devfs::readStream(in.get(), static_cast<size_t>(kMaxJsonFileBytes));
  else
    file.error = errno;
  std::string content;
  if (file.status == devfs::ReadStatus::Ok) {
    content = std::move(file.text);
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "JSON file content:%s", content.c_str());
  } else if (file.status == devfs::ReadStatus::TooLarge) {
    const std::string aside = std::string(kJsonPath) + ".old";
    if (devfs::renameFile(kJsonPath, aside.c_str()))
      ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "%s passed %lld bytes: moved to %s.old, a new one is started",
              kJsonPath, kMaxJsonFileBytes, kJsonPath);
    else
      ZU_LOGE(kDiagTag, ZU_GROUP_HAL, "%s passed %lld bytes and cannot be moved aside (%s): started over",
              kJsonPath, kMaxJsonFileBytes, strerror(errno));
  } else {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "%s file open error:%s", kJsonPath, strerror(file.error));
  }

  JsonAlloc alloc;
  CollectionBuilder builder(alloc);
  rapidjson::Reader reader;
  rapidjson::MemoryStream stream(content.data(), content.size());
  const rapidjson::ParseResult result =
      reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(stream, builder);
  if (builder.wrongRoot()) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "JSON root is not an object, the file starts over");
  } else if (builder.tooDeep()) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL,
            "JSON nested deeper than %d levels at offset %u, keeping what came before",
            static_cast<int>(kMaxJsonDepth), static_cast<unsigned>(result.Offset()));
  } else if (result.IsError()) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "JSON parse error: %s (%u)", rapidjson::GetParseError_En(result.Code()),
            static_cast<unsigned>(result.Offset()));
  }
  Value doc = builder.takeRoot();
  Value entry = recordToJson(*record, alloc);
  const std::string uuid = toValidUtf8(record->sessionUUID);
  auto member = doc.FindMember(Value(rapidjson::StringRef(uuid.data(), static_cast<SizeType>(uuid.size()))));
  if (member == doc.MemberEnd()) {
    Value list(rapidjson::kArrayType);
    list.PushBack(entry, alloc);
    doc.AddMember(jsonString(uuid, alloc), list, alloc);
  } else {
    if (!member->value.IsArray()) {
      // Someone else's value under this session: keep it as the first element.
      Value list(rapidjson::kArrayType);
      list.PushBack(member->value, alloc);
      member->value = list;
    }
    member->value.PushBack(entry, alloc);
  }

  rapidjson::StringBuffer out;
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  if (!doc.Accept(writer)) ZU_LOGE(kDiagTag, ZU_GROUP_HAL, "JSON write error");

  devfs::File outFile = devfs::openFileChecked(kJsonPath, "w", devfs::Owner::UserOrGroup);
  if (!outFile)
    ZU_LOGE(kDiagTag, ZU_GROUP_HAL, "JSON open error");
  else
    fwrite(out.GetString(), 1, out.GetSize(), outFile.get());
  // On the descriptor opened above: never on whatever the name points to now.
  const bool changed = outFile && fchmod(fileno(outFile.get()), 0666) == 0;
  outFile.reset();
  if (changed)
    ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "File permissions changed successfully.");
  else
    ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "Failed to change file permissions.");
}

// ---- request queue ----

bool SnapshotRequestQueue::update(uint64_t key, const std::string& uuid, uint32_t session, uint32_t frame,
                                  const std::string& image, int32_t arg, const timespec& regTime,
                                  std::function<void(uint32_t)>& cb) {
  auto it = records.find(key);
  if (it == records.end()) return false;
  SnapshotRecord& r = *it->second;
  if (r.imageName != image) {
    auto named = recordsByName.find(r.imageName);
    if (named != recordsByName.end()) {
      named->second.erase(key);
      if (named->second.empty()) recordsByName.erase(named);
    }
    recordsByName[image].emplace(key, it->second);
  }
  r.sessionUUID = uuid;
  r.sessionId = session;
  r.fwkFrame = frame;
  r.fakeFrameNum = key;
  r.imageName = image;
  r.registerArg = arg;
  r.registerTime = regTime;
  r.callback = std::move(cb);
  return true;
}

void SnapshotRequestQueue::emplace_back(const std::string& uuid, uint32_t session, uint32_t frame,
                                        const std::string& image, int32_t arg, const timespec& regTime,
                                        std::function<void(uint32_t)> cb) {
  auto record = std::make_shared<SnapshotRecord>(uuid, session, frame, image, arg, regTime, std::move(cb));
  auto inserted = records.emplace(record->fakeFrameNum, record);
  if (!inserted.second) return;
  recordsByKey.emplace(record->fakeFrameNum, record.get());
  recordsByName[record->imageName].emplace(record->fakeFrameNum, record);
}

void SnapshotRequestQueue::findByImageName(
    const std::string& image, const std::function<bool(std::shared_ptr<SnapshotRecord>)>& visitor) {
  auto named = recordsByName.find(image);
  if (named == recordsByName.end()) return;
  // Copy the keys first: a visitor may change the record set.
  std::vector<RecordPtr> matches;
  for (const auto& kv : named->second) matches.push_back(kv.second);
  for (const auto& r : matches) {
    if (!visitor(r)) return;
  }
}

bool SnapshotRequestQueue::remove(uint64_t key) {
  if (records.count(key) == 0) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "can't find fakeFrameNum %d", static_cast<int32_t>(key));
    return false;
  }
  erase(key);
  return true;
}

SnapshotRecord* SnapshotRequestQueue::find(uint64_t key) const {
  auto it = recordsByKey.find(key);
  return it == recordsByKey.end() ? nullptr : it->second;
}

SnapshotRecord* SnapshotRequestQueue::firstByImageName(const std::string& image) const {
  auto named = recordsByName.find(image);
  if (named == recordsByName.end() || named->second.empty()) return nullptr;
  return named->second.begin()->second.get();
}

void SnapshotRequestQueue::erase(uint64_t key) {
  auto it = records.find(key);
  if (it == records.end()) return;
  auto named = recordsByName.find(it->second->imageName);
  if (named != recordsByName.end()) {
    named->second.erase(key);
    if (named->second.empty()) recordsByName.erase(named);
  }
  recordsByKey.erase(key);
  records.erase(it);
}

void SnapshotRequestQueue::markFailed(SnapshotRecord& record, const char* reason) {
  record.hasError = true;
  errorFrames.push_back(record.fakeFrameNum);
  record.errorInfo.emplace_back(reason);
}

// ---- update API ----

void updateSnapshotInfo(uint64_t key, int oriPhgType, int phgType, bool isQuickShot,
                        uint64_t quickshotDelayTime, std::vector<int> streamId, std::vector<int> allFrames) {
  LockedRecord locked(key);
  SnapshotRecord* r = locked.r;
  if (!r) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "can not find fakeFrameNum: %d", static_cast<int32_t>(key));
    return;
  }
  SnapshotInfo& info = r->snapshotInfo;
  info.requestInfo.oriPhgType = oriPhgType;
  info.requestInfo.phgType = phgType;
  info.requestInfo.isQuickShot = isQuickShot;
  info.requestInfo.quickshotDelayTime = quickshotDelayTime;
  info.streamId = std::move(streamId);
  info.allFrames = std::move(allFrames);
}

void updateVndResultInfo(uint64_t key, uint32_t vendorFrame, int resultCode) {
  LockedRecord locked(key);
  SnapshotRecord* r = locked.r;
  if (!r) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "can not find fakeFrameNum: %d", static_cast<int32_t>(key));
    return;
  }
  if (resultCode < 0 || resultCode >= RESULT_ERROR_CODE_COUNT) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "fwkFrame:%u vendor frame %u: unknown result code %d, ignored",
            r->fwkFrame, vendorFrame, resultCode);
    return;
  }
  SnapshotInfo& info = r->snapshotInfo;
  // The first result of a capture lists every frame of it as outstanding.
  if (!info.allFrames.empty() && info.vendorResultInfo.size() < info.allFrames.size()) {
    for (int32_t frame : info.allFrames) info.vendorResultInfo[frame] = "not_return";
  }
  info.vendorResultInfo[static_cast<int32_t>(vendorFrame)] = ResultErrorCodeToChar[resultCode];
  if (resultCode != RESULT_ERROR_NONE) locked.q->markFailed(*r, "vendor result error");
}

void updatePostProcInfo(std::map<std::string, uint32_t> postProcInfo) {
  auto q = theQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  q->setPostProcInfo(postProcInfo);
}

void updateZuAlgoInfo(const std::string& imageName, const std::vector<std::string>& nodes) {
  auto q = theQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  SnapshotRecord* r = q->firstByImageName(imageName);
  if (r == nullptr) return;
  SnapshotInfo& info = r->snapshotInfo;
  info.nodeList = nodes;
  for (const std::string& descriptor : nodes) {
    const std::string node = descriptor.substr(0, descriptor.find(':'));
    info.nodeProcTime.emplace(node, 0.0);
    info.nodeProcState.emplace(node, "none");
  }
}

void updateNodeProcTime(const std::string& imageName, const std::string& nodeName, double ms) {
  auto q = theQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  SnapshotRecord* r = q->firstByImageName(imageName);
  if (r == nullptr) return;
  r->snapshotInfo.nodeProcTime[nodeName] = ms;
  if (ms == -1.0) q->markFailed(*r, "node process time out");
}

void updateNodeProcState(const std::string& imageName, const std::string& nodeName, int state) {
  auto q = theQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  SnapshotRecord* r = q->firstByImageName(imageName);
  if (r == nullptr) return;
  if (state < 0 || state >= NODE_PROC_INFO_COUNT) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "[%s] node %s: unknown state %d, ignored", imageName.c_str(),
            nodeName.c_str(), state);
    return;
  }
  r->snapshotInfo.nodeProcState[nodeName] = NodeProcInfoToChar[state];
  if (state != NODE_PROC_OK) q->markFailed(*r, "node process error");
}

void updateAnchorFrame(uint64_t key, int anchorFrame) {
  LockedRecord locked(key);
  SnapshotRecord* r = locked.r;
  if (!r) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "can not find fakeFrameNum: %d", static_cast<int32_t>(key));
    return;
  }
  r->snapshotInfo.requestInfo.anchorFrame = anchorFrame;
}

void updateSnapshotErrorInfo(uint64_t key, const char* errorInfo) {
  const char* text = errorInfo != nullptr ? errorInfo : "";
  ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "updateSnapshotErrorInfo: fwkFrame: %ld, errorInfo: %s",
          static_cast<long>(key >> 32), text);
  LockedRecord locked(key);
  SnapshotRecord* r = locked.r;
  if (!r) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "can not find fakeFrameNum: %ld", static_cast<long>(key));
    return;
  }
  r->errorInfo.emplace_back(text);
  r->hasError = true;
}

void updateSnapshotTimeInfo(uint64_t key, uint32_t stage) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  LockedRecord locked(key);
  SnapshotRecord* r = locked.r;
  if (!r) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "can not find fakeFrameNum: %ld, type:%d", static_cast<long>(key),
            static_cast<int>(stage));
    return;
  }
  std::map<std::string, long>& times = r->snapshotInfo.timeInfo;
  if (stage == TIME_REQUEST_TO_ZUHAL) {
    times[stageName(TIME_REQUEST_TO_ZUHAL)] = -1;
    r->requestTime = now;
    return;
  }
  if (stage >= TIME_STAGE_COUNT) return;
  const int32_t elapsed = static_cast<int32_t>((now.tv_sec - r->registerTime.tv_sec) * 1000 +
                                               (now.tv_nsec - r->registerTime.tv_nsec) / 1000000);
  switch (stage) {
    case TIME_RESULT_TO_FWK:
    case TIME_SHOT_2_GALLERY:
      // The result reaching the framework and the shot reaching the gallery are one event.
      times[stageName(TIME_RESULT_TO_FWK)] = elapsed;
      times[stageName(TIME_SHOT_2_GALLERY)] = elapsed;
      break;
    case TIME_ANCHOR_TIME: {
      const long post = times[stageName(TIME_REQUEST_TO_POST)];
      times[stageName(TIME_ANCHOR_TIME)] =
          static_cast<long>(static_cast<double>(elapsed) - static_cast<double>(post));
      break;
    }
    case TIME_GETBUFFER_FROM_FWK:
    case TIME_POST_PROC_TIME:
      // Only marked as reached.
      times[stageName(stage)] = 0;
      break;
    default:
      times[stageName(stage)] = elapsed;
      break;
  }
}

// ---- service ----

SnapDiagnostician* SnapDiagnostician::getInstance() {
  static SnapDiagnostician* sSnapDiagnostician = new SnapDiagnostician();
  return sSnapDiagnostician;
}

SnapDiagnostician::SnapDiagnostician() : running(false), queue(std::make_shared<SnapshotRequestQueue>()) {
  handlerThread = std::thread(&SnapDiagnostician::snapshotHandle, this);
  // The handler ends as soon as it starts (nothing sets `running`); collect it now
  // rather than leave a finished thread unjoined for the life of the process.
  if (!running) handlerThread.join();
  workerPool.reset(new ThreadPool(1, 10));
}

SnapDiagnostician::~SnapDiagnostician() {
  stop();
  workerPool.reset();
}

void SnapDiagnostician::init(int enable, int dumpAll, int logPrint, int memEnable, int dumpEnable) {
  snapshotEnable = enable;
  snapshotDumpAll = dumpAll;
  snapshotLogPrint = logPrint;
  moduleMemEnable = memEnable;
  moduleDumpEnable = dumpEnable;
}

void SnapDiagnostician::registerSnapshotRecord(std::string sessionUUID, unsigned sessionId, unsigned fwkFrame,
                                               std::string imageName, int registerArg,
                                               std::function<void(unsigned)> callback) {
  if (snapshotEnable == 0) return;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::shared_ptr<SnapshotRequestQueue> q = queue;
  std::lock_guard<std::mutex> lock(q->mutex);
  const uint64_t key = (static_cast<uint64_t>(fwkFrame) << 32) | sessionId;
  if (!q->update(key, sessionUUID, sessionId, fwkFrame, imageName, registerArg, now, callback))
    q->emplace_back(sessionUUID, sessionId, fwkFrame, imageName, registerArg, now, std::move(callback));
  ZU_LOGD(kDiagTag, ZU_GROUP_HAL, "[sessionId:%d][%s][fwkFrame:%d]register in Snapshot record",
          static_cast<int>(sessionId), imageName.c_str(), static_cast<int>(fwkFrame));
}

void SnapDiagnostician::unregisterSnapshotRecord(unsigned long sessionId, unsigned long fwkFrame) {
  if (snapshotEnable == 0) return;
  const uint64_t key = static_cast<uint64_t>(sessionId) | (static_cast<uint64_t>(fwkFrame) << 32);
  workerPool->enqueue([this, key] { finishRecord(key); });
}

void SnapDiagnostician::finishRecord(uint64_t key) {
  std::shared_ptr<SnapshotRequestQueue> q = queue;
  std::lock_guard<std::mutex> lock(q->mutex);
  SnapshotRecord* r = q->find(key);
  if (r != nullptr) {
    if (snapshotLogPrint >= 1) r->logPrint();
    if (snapshotDumpAll >= 1) r->dumpToFile(r->toString());
    if (r->hasError && snapshotDumpAll == 0) {
      ZU_LOGE(kDiagTag, ZU_GROUP_HAL, "[session:%x][%s][fwkFrame:%d] snapshot fail!", r->sessionId,
              r->imageName.c_str(), static_cast<int>(r->fwkFrame));
      r->dumpToFile(r->toString());
    }
  } else {
    ZU_LOGE(kDiagTag, ZU_GROUP_HAL, "can not find fakeFrameNum: %d", static_cast<int32_t>(key));
  }
  q->erase(key);
}

void SnapDiagnostician::signalTrigger() {
  ZU_LOGI(kDiagTag, ZU_GROUP_HAL, "crash signal triggered!");
  std::shared_ptr<SnapshotRequestQueue> q = queue;
  std::lock_guard<std::mutex> lock(q->mutex);
  for (const auto& kv : q->allRecords()) {
    SnapshotRecord& r = *kv.second;
    ZU_LOGE(kDiagTag, ZU_GROUP_HAL, "[session:%x][%s][fwkFrame:%d] snapshot fail!", r.sessionId,
            r.imageName.c_str(), static_cast<int>(r.fwkFrame));
    r.errorInfo.emplace_back("provider_crashed");
    r.dumpToFile(r.toString());
  }
}

int SnapDiagnostician::dumpInfo(int fd) {
  const std::string path = todayDumpPath();
  devfs::FileText file = devfs::readFile(path.c_str(), devfs::kNoLimit);
  if (file.status != devfs::ReadStatus::Ok) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "dumpInfo: open file %s failed", path.c_str());
    return -1;
  }
  std::string text = "=============================PRAX Diag dump begin=============================\n";
  text += file.text;
  text += "=============================PRAX Diag dump end===============================\n";
  if (write(fd, text.data(), text.size()) == -1) {
    ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "dumpInfo: write to CameraService dumpsys file failed.");
    return -1;
  }
  return 0;
}

void SnapDiagnostician::stop() {
  std::lock_guard<std::mutex> stopLock(stopMutex);
  running = false;
  {
    std::lock_guard<std::mutex> lock(queue->mutex);
    queue->condition.notify_all();
  }
  if (handlerThread.joinable()) handlerThread.join();
}

void SnapDiagnostician::snapshotHandle() {
  prctl(PR_SET_NAME, "SnapDiagnostician", 0, 0, 0);
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10);
  std::shared_ptr<SnapshotRequestQueue> q = queue;
  std::unique_lock<std::mutex> lock(q->mutex);
  // Nothing sets `running`: the handler ends here, and failures reach the dump file
  // through unregistration and the crash path instead.
  while (running) {
    q->condition.wait(lock, [&] { return !q->failedFrames().empty() || !running; });
    for (uint64_t key : q->failedFrames()) {
      ZU_LOGW(kDiagTag, ZU_GROUP_HAL, "fwkFrame:%d error.", static_cast<int>(key >> 32));
      SnapshotRecord* r = q->find(key);
      if (r == nullptr) continue;
      if (snapshotLogPrint >= 1) r->logPrint();
      r->dumpToFile(r->toString());
      q->erase(key);
    }
    q->failedFrames().clear();
  }
}

// ---- module diagnostician ----

namespace {

constexpr const char* kMemInfoPath = "/data/vendor/camera/praxmeminfo.txt";
constexpr uint32_t kMiB = 1048576;

// Runs of dumpPraxInfo in this process.
std::atomic<int32_t> sDumpPraxInfoCount{0};

// Calls each state callback in order, appending its text and a newline; a callback
// that sets its flag is gone and leaves the list.
void collectStates(std::vector<ModuleDiagnostician::StringCallback>& list, std::string& out) {
  for (auto it = list.begin(); it != list.end();) {
    bool gone = false;
    out += (*it)(gone);
    out += "\n";
    it = gone ? list.erase(it) : it + 1;
  }
}

}  // namespace

ModuleDiagnostician* ModuleDiagnostician::getInstance() {
  static ModuleDiagnostician instance;
  return &instance;
}

ModuleDiagnostician::ModuleDiagnostician() : workerPool(new ThreadPool(1, 10)) {
  running = true;
  // Started last: the thread uses every member.
  memThread = std::thread(&ModuleDiagnostician::run, this);
}

ModuleDiagnostician::~ModuleDiagnostician() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    running = false;
  }
  condition.notify_all();
  if (memThread.joinable()) memThread.join();
  // Registrations still queued land in the tables before these go.
  workerPool.reset();
}

void ModuleDiagnostician::run() {
  std::unique_lock<std::mutex> lock(mutex);
  while (running && moduleMemEnable.load() != 0) {
    if (!mUpdateRequested)
      condition.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::seconds(10));
    mUpdateRequested = false;
    if (!running) break;
    if (memCallbacks.empty()) {
      // Nothing to sum until a first registration (or the destructor) wakes us.
      mIdle = true;
      condition.wait(lock);
      mIdle = false;
      continue;
    }
    zuMetadataSize = static_cast<uint32_t>(caculateMem(memCallbacks[MODULE_METADATA_MEM]));
    zualgoEngineDmaSize = static_cast<uint32_t>(caculateMem(memCallbacks[MODULE_ZUALGOENGINE_MEM]));
    zuhalDmaSize = static_cast<uint32_t>(caculateMem(memCallbacks[MODULE_ZUHAL_MEM]));
    writePraxMemInfoToFile();
  }
}

void ModuleDiagnostician::registerCallbackFuncs(ModuleItem item, ModuleUsage, MemCallback func) {
  if (moduleMemEnable.load() == 0 || !func) return;
  workerPool->enqueue([this, item, func = std::move(func)]() mutable {
    std::lock_guard<std::mutex> lock(mutex);
    memCallbacks[item].push_back(std::move(func));
    // A thread idling on an empty table starts its periods now.
    if (mIdle) condition.notify_all();
  });
}

void ModuleDiagnostician::registerCallbackFuncs(ModuleItem item, ModuleUsage, StringCallback func) {
  if (moduleDumpEnable.load() == 0 || !func) return;
  workerPool->enqueue([this, item, func = std::move(func)]() mutable {
    std::lock_guard<std::mutex> lock(mutex);
    stringCallbacks[item].push_back(std::move(func));
  });
}

void ModuleDiagnostician::registerCallbackFuncs(ModuleItem item, ModuleUsage, IntCallback func) {
  if (moduleDumpEnable.load() == 0 || !func) return;
  workerPool->enqueue([this, item, func = std::move(func)]() mutable {
    std::lock_guard<std::mutex> lock(mutex);
    intCallbacks[item].push_back(std::move(func));
  });
}

void ModuleDiagnostician::syncRegistrations() {
  std::mutex doneMutex;
  std::condition_variable doneCond;
  bool done = false;
  int rc = workerPool->enqueue([&]() {
    std::lock_guard<std::mutex> lock(doneMutex);
    done = true;
    doneCond.notify_all();
  });
  if (rc != 0) return;
  std::unique_lock<std::mutex> lock(doneMutex);
  doneCond.wait(lock, [&] { return done; });
}

void ModuleDiagnostician::clearCallbackFuncs() {
  std::lock_guard<std::mutex> lock(mutex);
  memCallbacks.clear();
  stringCallbacks.clear();
  intCallbacks.clear();
}

uint64_t ModuleDiagnostician::caculateMem(MemCallbackList& list) {
  uint64_t sum = 0;
  for (auto it = list.begin(); it != list.end();) {
    std::shared_ptr<MemInfo> info = (*it)(0);
    if (info == nullptr) {
      it = list.erase(it);  // the module is gone
      continue;
    }
    sum += info->size;
    ++it;
  }
  return sum;
}

void ModuleDiagnostician::writePraxMemInfoToFile() {
  devfs::File fp = devfs::openFileChecked(kMemInfoPath, "w", devfs::Owner::UserOrGroup);
  if (!fp) {
    ZU_LOGE("Prax-Diagnostician", ZU_GROUP_HAL, "open praxmeminfo.txt failed!");
    return;
  }
  // Two blanks between the time and the first label.
  std::string line = getCurrentTime() + " " + " zuhalDmaSize:" + std::to_string(zuhalDmaSize / kMiB) +
                     ", zualgoEngineDmaSize:" + std::to_string(zualgoEngineDmaSize / kMiB) +
                     ", zuMetadataSize:" + std::to_string(zuMetadataSize / kMiB);
  fwrite(line.data(), 1, line.size(), fp.get());
}

void ModuleDiagnostician::triggerMemInfoUpdate() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    mUpdateRequested = true;
  }
  condition.notify_all();
}

void ModuleDiagnostician::dumpPraxCore(int fd) {
  if (moduleDumpEnable.load() == 0) return;
  std::lock_guard<std::mutex> lock(mutex);
  std::string text;
  text += "================================PRAX dump begin================================\n";
  text += "================================Zuhal dump begin===============================\n";
  collectStates(stringCallbacks[MODULE_ZUHAL_DUMP], text);
  text += "================================Zuhal dump end=================================\n";
  text += "============================Zualgoengine dump begin============================\n";
  collectStates(stringCallbacks[MODULE_ZUALGOENGINE_DUMP], text);
  // One "=" shorter than the other banners.
  text += "============================Zualgoengine dump end=============================\n";
  text += "================================PRAX dump end==================================\n";
  size_t off = 0;
  while (off < text.size()) {
    ssize_t n = write(fd, text.data() + off, text.size() - off);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ZU_LOGW("Prax-Diagnostician", ZU_GROUP_HAL, "dumpInfo: write PRAX dump info to dumpsys file failed.");
      return;
    }
    off += static_cast<size_t>(n);
  }
}

void ModuleDiagnostician::dumpPraxInfo(bool force) {
  if (!force && sDumpPraxInfoCount.load() % 5 != 0) return;
  std::lock_guard<std::mutex> lock(mutex);
  auto& probes = intCallbacks[MODULE_ZUHAL_DUMP];
  for (auto it = probes.begin(); it != probes.end();) {
    bool gone = false;
    (*it)(gone);
    it = gone ? probes.erase(it) : it + 1;
  }
  sDumpPraxInfoCount.fetch_add(1);
}

}  // namespace zudebug
