// The DSAC tunable table and the DSAC settings reader: every row read back, the
// sorting of members into typed maps, and the reader's behaviour on bad files.
#include <gtest/gtest.h>

#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "PropertyControll.h"
#include "TestSupport.h"

using zudebug::PraxDsacSettings;

namespace {

// The tunables as the camera's storage pipeline documents them: name, property, type,
// default. "P." and "D." stand for the product and debug property prefixes, "P=" and
// "D=" for the prefix followed by the name itself.
const char* const kRows = R"(
enableDSACMoudle P= BOOL false  enableDSACDebug P= BOOL false  enableTuningMeta P= BOOL false
forceEnableDSACStorage D.forcestorage BOOL false  enableGalleryComplete D= BOOL false  HDRSRMask P= UINT32 0
enableMomoryStorage D= BOOL false  noProcessWhenPreview D= BOOL false  forceLoadTimeout D= UINT32 30000
UsePropPriority D= BOOL false  MFNRMask P.mfnrmask UINT32 0  HDRMask P.hdrmask UINT32 0
SRMask P.srrmask UINT32 0  AINRZSLMask P.ainrzslmask UINT32 0  HDSRMask P.hdsrmask UINT32 0
SEMask P.semask UINT32 0  SNSCZSLMask P.snsczslmask UINT32 0  AIOAINRMask P.aioainrmask UINT32 0
HDRBokehMask P.hdrbokehmask UINT32 0  MFNRBokehMask P.mfnrbokehmask UINT32 0  HDRBeautyMask P= UINT32 0
SEBokehMask P.sebokehmask UINT32 0  SRBokehMask P.srbokehmask UINT32 0  UltraRawMask P.ultrarawmask UINT32 0
HDSRBokehMask P.hdsrbokehmask UINT32 0  SNSCBokehMask P.snscbokehmask UINT32 0  SRBeautyMask P= UINT32 0
HDUltraRawMask P.hdultrarawmask UINT32 0  MfnrBokehMultiNumber P.mfnrbokeh.multinumber UINT32 0
HDRSRBeautyMask P= UINT32 0  MFNRBokehBeautyMask P= UINT32 0  HDRBokehBeautyMask P= UINT32 0
enableLoadMeta P.enableloadmeta BOOL false  enableDumpMeta P.enabledumpmeta BOOL false
enableRealStreamBuffer P= BOOL false  previewListenCnt P.frameReuse.previewListenCnt UINT32 30
SDCardWriteType P= UINT32 2  MaxStorageNum P= UINT32 50  MaxStorageNumForSDSR P= UINT32 0
MinStorageThreshold P.minstorage.threshold UINT32 45  MaxStorageNumForHDUltraRaw P= UINT32 0
MinUfsSpeed P= UINT32 40  WbAvailBufEmptyThMap P= STRING 256:5;512:1;1024:1  numStorageThread P= UINT32 0
WbAvailBufFile P= STRING /sys/devices/platform/soc/112b0000.ufshci/attributes/wb_avail_buf
UfsCapacityFile P= STRING /proc/mv  BufferStoragerLimitCnt P= UINT32 8  PSICheckerInterval P= UINT32 5000
PSIMonitorDelayTime P= UINT32 5000  HighTempDelayTime P= UINT32 15000  NormalTempDelayTime P= UINT32 5000
DelayTimeThermalLevel P= UINT32 1  memoryPoolMaxBufferSize P= UINT32 0
)";

template <typename Map>
std::string items(const char* kind, const Map& map) {
  std::ostringstream o;
  for (const auto& kv : map) o << kind << kv.first << "=" << kv.second << " ";
  return o.str();
}

// The maps in order, then the flag: "b:<bool> i:<int> u:<uint32> U:<uint64> s:<string> prio=<0|1>".
std::string describe(const PraxDsacSettings& s) {
  return items("b:", s.mBoolMap) + items("i:", s.mIntMap) + items("u:", s.mUint32Map) +
         items("U:", s.mUint64Map) + items("s:", s.mStringMap) + "prio=" + (s.mUsePropPriority ? "1" : "0");
}

}  // namespace

TEST(PropertyTable, EveryRowReadsBack) {
  PraxDsacSettings* s = PraxDsacSettings::getInstance();
  std::istringstream in(kRows);
  std::string name, prop, type, def;
  int rows = 0;
  while (in >> name >> prop >> type >> def) {
    ++rows;
    prop = (prop[0] == 'D' ? "persist.vendor.camera.debug.dsac." : "persist.vendor.camera.dsac.") +
           (prop[1] == '=' ? name : prop.substr(2));
    EXPECT_EQ(s->getPropName(name, zudebug::PROP_NAME_INDEX), prop) << name;
    EXPECT_EQ(s->getPropName(name, zudebug::DEFAULT_VALUE_INDEX), def) << name;
    EXPECT_EQ(s->getPropName(name, zudebug::TYPE_INDEX), type) << name;
  }
  EXPECT_EQ(rows, 53);
  // Exact, case-sensitive names; indices out of range find nothing either.
  for (const char* unknown : {"srmask", "SRMASK", "SRMask ", "", "fooBar", "enableDSACModule",
                              "persist.vendor.camera.dsac.srrmask"})
    EXPECT_EQ(s->getPropName(unknown, zudebug::PROP_NAME_INDEX), "") << unknown;
  for (int index : {3, -1}) EXPECT_EQ(s->getPropName("SRMask", static_cast<zudebug::mapindex>(index)), "");
}

// Every JSON value type under a table name and an unknown name, the 32-bit bounds,
// later members overwriting earlier ones; the flag, which only a literal true keeps
// on once present; texts that are no JSON object (a NUL ends the text).
TEST(DsacSort, TypedMapsFlagAndBadTexts) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({
    "MaxStorageNum": 60, "fooBar": 7, "enableDSACMoudle": 1, "WbAvailBufFile": 5,
    "enableTuningMeta": true, "fooFlag": false, "enableDSACDebug": "true", "fooText": "x",
    "HighTempDelayTime": 1.5, "MaxStorageNumForSDSR": 5.0, "MinUfsSpeed": 3000000000,
    "PSICheckerInterval": 2147483648, "previewListenCnt": 2147483647, "SRMask": -1,
    "numStorageThread": -2147483648, "HDRMask": -2147483649, "SEMask": 123456789012345678901234567890,
    "forceLoadTimeout": null, "fooNull": null, "MFNRMask": [1], "fooArr": [], "HDSRMask": {"a": 1}, "fooObj": {},
    "SDCardWriteType": 1, "SDCardWriteType": 3, "MaxStorageNum": 3000000000, "fooText": "y",
    "BufferStoragerLimitCnt": 8, "BufferStoragerLimitCnt": "nine"})",
       "b:enableTuningMeta=1 b:fooFlag=0 i:WbAvailBufFile=5 i:enableDSACMoudle=1 u:BufferStoragerLimitCnt=8 "
       "u:MaxStorageNum=60 u:SDCardWriteType=3 u:SRMask=4294967295 u:numStorageThread=2147483648 "
       "u:previewListenCnt=2147483647 s:BufferStoragerLimitCnt=nine s:enableDSACDebug=true s:fooText=y "
       "prio=1"},
      {R"({"UsePropPriority": true})", "b:UsePropPriority=1 prio=1"},
      {"{}", "prio=1"},
      {R"({"UsePropPriority": false})", "b:UsePropPriority=0 prio=0"},
      {R"({"UsePropPriority": 1})", "i:UsePropPriority=1 prio=0"},
      {R"({"UsePropPriority": "true"})", "s:UsePropPriority=true prio=0"},
      {R"({"UsePropPriority": null})", "prio=0"},
  };
  for (const auto& c : cases) EXPECT_EQ(describe(*PraxDsacSettings::fromText(c.first)), c.second) << c.first;
  for (const std::string text : {"", "not json", "[1, 2]", "42", "\"text\"", "null", "{\"a\": 1,}",
                                 "{\"a\": 1} x", "{\"MaxStorageNum\": 60", "\xff\xfe{", "{/*c*/}"})
    EXPECT_EQ(describe(*PraxDsacSettings::fromText(text)), "prio=1") << text;
  EXPECT_EQ(describe(*PraxDsacSettings::fromText(std::string("{\"SEMask\": 1\0}", 14))), "prio=1");
}

// The file is read at the first getInstance() only: each file gets its own process,
// whose reader lines ("<severity> <text>") and maps are compared.
TEST(DsacFile, ReadOnceAtFirstUse) {
  if (zutest::inChild()) {
    PraxDsacSettings* s = PraxDsacSettings::getInstance();
    EXPECT_EQ(PraxDsacSettings::getInstance(), s);
    std::cout << "maps: " << describe(*s) << "\n";
    return;
  }
  const std::string parsed = "D [DSACSettings]parse json object name:", insert = "D [DSACSettings]insert ";
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {nullptr, {"W open failed! file: /odm/etc/camera/zorvex/DSACSettings.json", "maps: prio=1"}},
      {"{\"MaxStorageNum\": }", {"W parse error: (3:18)Invalid value.", "maps: prio=1"}},
      {"", {"W parse error: (1:0)The document is empty.", "maps: prio=1"}},
      {"/", {"W parse error: (1:0)The document is empty.", "maps: prio=1"}},  // a directory reads as nothing
      {"[{\"MaxStorageNum\": 60}]", {"W should be an object!", "maps: prio=1"}},
      {R"({"UsePropPriority": false, "MaxStorageNum": 60, "fooBar": 7, "UfsCapacityFile": "/proc/ufs",
           "HighTempDelayTime": 1.5, "fooNull": null})",
       {parsed + "UsePropPriority", insert + "bool map:UsePropPriority", parsed + "MaxStorageNum",
        insert + "int map:MaxStorageNum", parsed + "fooBar", parsed + "UfsCapacityFile",
        insert + "string map:UfsCapacityFile", parsed + "HighTempDelayTime", parsed + "fooNull",
        "maps: b:UsePropPriority=0 u:MaxStorageNum=60 s:UfsCapacityFile=/proc/ufs prio=0"}},
  };
  static const std::regex re(
      "^([EWID])/PraxDsacSettins: \\[HAL \\] PropertyControll\\.cpp:[0-9]+ PraxDsacSettings\\(\\)(.*)$");
  for (const auto& c : cases) {
    zutest::TempRoot root;
    root.setProps({{"persist.vendor.camera.prax.loglevel", "0"}});
    const std::string path = "odm/etc/camera/zorvex/DSACSettings.json";
    if (c.first != nullptr) root.writeFile(std::string(c.first) == "/" ? path + "/inner" : path, c.first);
    auto r = zutest::runChild("DsacFile.ReadOnceAtFirstUse", root);
    EXPECT_EQ(r.exitCode(), 0) << r.output;
    std::vector<std::string> seen;
    std::smatch m;
    for (const auto& line : zutest::readLines(root.logcatFile()))
      if (std::regex_match(line, m, re)) seen.push_back(m[1].str() + " " + m[2].str());
    std::istringstream out(r.output);
    for (std::string line; std::getline(out, line);)
      if (line.rfind("maps: ", 0) == 0) seen.push_back(line);
    EXPECT_EQ(seen, c.second) << (c.first ? c.first : "(none)");
  }
}

// Nesting no stack would hold recursively (200,000 levels fit in 1 MiB with empty
// keys), and files around the 1 MiB limit, each read by a fresh process: it lives, a
// file it can hold is read, any other ends in the defaults with one line.
TEST(DsacFile, DeepNestingAndSizeLimit) {
  if (zutest::inChild()) {
    std::cout << "maps: " << describe(*PraxDsacSettings::getInstance()) << "\n";
    return;
  }
  const int levels = 200000;
  const auto repeat = zutest::repeatText;
  // A file of exactly `size` bytes whose MaxStorageNum is 60.
  auto padded = [](size_t size) {
    const std::string head = R"({"MaxStorageNum": 60, "pad": ")", tail = "\"}";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
  };
  const std::string read = "maps: u:MaxStorageNum=60 s:pad=", defaults = "maps: prio=1";
  const struct {
    std::string file, maps, log;
  } cases[] = {
      {R"({"MaxStorageNum": 60, "x": )" + repeat("[", levels) + repeat("]", levels) + "}",
       "maps: u:MaxStorageNum=60 prio=1", "D [DSACSettings]insert int map:MaxStorageNum"},
      {R"({"MaxStorageNum": 60, "x": )" + repeat(R"({"":)", levels) + "1" + repeat("}", levels) + "}",
       "maps: u:MaxStorageNum=60 prio=1", "D [DSACSettings]insert int map:MaxStorageNum"},
      {repeat("[", levels), defaults, "W parse error: "},
      {repeat(R"({"a":)", levels), defaults, "W parse error: "},
      {R"({"MaxStorageNum": 60, "x": )" + repeat("[", levels), defaults, "W parse error: "},
      {padded(1 << 20), read, "D [DSACSettings]insert string map:pad"},
      {padded((1 << 20) + 1), defaults,
       "W file too large! file: /odm/etc/camera/zorvex/DSACSettings.json size: 1048577, more than the "
       "1048576 "
       "allowed: defaults used"},
  };
  static const std::regex re(
      "^([EWID])/PraxDsacSettins: \\[HAL \\] PropertyControll\\.cpp:[0-9]+ PraxDsacSettings\\(\\)(.*)$");
  for (const auto& c : cases) {
    zutest::TempRoot root;
    root.setProps({{"persist.vendor.camera.prax.loglevel", "0"}});
    root.writeFile("odm/etc/camera/zorvex/DSACSettings.json", c.file);
    auto r = zutest::runChild("DsacFile.DeepNestingAndSizeLimit", root);
    const std::string what = c.file.substr(0, 40) + "... (" + std::to_string(c.file.size()) + " bytes)";
    EXPECT_EQ(r.exitCode(), 0) << what << "\n" << r.output.substr(0, 2000);
    std::string maps;
    std::istringstream out(r.output);
    for (std::string line; std::getline(out, line);)
      if (line.rfind("maps: ", 0) == 0) maps = line;
    EXPECT_EQ(maps.substr(0, c.maps.size()), c.maps) << what;
    bool logged = false;
    std::smatch m;
    for (const auto& line : zutest::readLines(root.logcatFile()))
      if (std::regex_match(line, m, re) && (m[1].str() + " " + m[2].str()).rfind(c.log, 0) == 0)
        logged = true;
    EXPECT_TRUE(logged) << what << " wants the line " << c.log;
  }
}
