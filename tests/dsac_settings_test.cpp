// The DSAC tunable table and the DSAC settings reader: every row read back, the
// sorting of file members into typed maps, and the reader's behaviour on bad files.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "PropertyControll.h"
#include "TestSupport.h"

using zudebug::PraxDsacSettings;
using zutest::inChild;
using zutest::TempRoot;

namespace {

const char* const kDsacFile = "odm/etc/camera/zorvex/DSACSettings.json";

struct Row {
  const char* name;
  const char* property;
  const char* type;
  const char* def;
};

#define P "persist.vendor.camera.dsac."
#define D "persist.vendor.camera.debug.dsac."
// The tunables as the camera's storage pipeline documents them.
const Row kRows[] = {
    {"enableDSACMoudle", P "enableDSACMoudle", "BOOL", "false"},
    {"enableDSACDebug", P "enableDSACDebug", "BOOL", "false"},
    {"enableTuningMeta", P "enableTuningMeta", "BOOL", "false"},
    {"forceEnableDSACStorage", D "forcestorage", "BOOL", "false"},
    {"enableGalleryComplete", D "enableGalleryComplete", "BOOL", "false"},
    {"enableMomoryStorage", D "enableMomoryStorage", "BOOL", "false"},
    {"noProcessWhenPreview", D "noProcessWhenPreview", "BOOL", "false"},
    {"forceLoadTimeout", D "forceLoadTimeout", "UINT32", "30000"},
    {"UsePropPriority", D "UsePropPriority", "BOOL", "false"},
    {"MFNRMask", P "mfnrmask", "UINT32", "0"},
    {"HDRMask", P "hdrmask", "UINT32", "0"},
    {"SRMask", P "srrmask", "UINT32", "0"},
    {"HDRSRMask", P "HDRSRMask", "UINT32", "0"},
    {"AINRZSLMask", P "ainrzslmask", "UINT32", "0"},
    {"HDSRMask", P "hdsrmask", "UINT32", "0"},
    {"SEMask", P "semask", "UINT32", "0"},
    {"SNSCZSLMask", P "snsczslmask", "UINT32", "0"},
    {"AIOAINRMask", P "aioainrmask", "UINT32", "0"},
    {"HDRBokehMask", P "hdrbokehmask", "UINT32", "0"},
    {"MFNRBokehMask", P "mfnrbokehmask", "UINT32", "0"},
    {"SEBokehMask", P "sebokehmask", "UINT32", "0"},
    {"SRBokehMask", P "srbokehmask", "UINT32", "0"},
    {"HDSRBokehMask", P "hdsrbokehmask", "UINT32", "0"},
    {"SNSCBokehMask", P "snscbokehmask", "UINT32", "0"},
    {"UltraRawMask", P "ultrarawmask", "UINT32", "0"},
    {"HDUltraRawMask", P "hdultrarawmask", "UINT32", "0"},
    {"MfnrBokehMultiNumber", P "mfnrbokeh.multinumber", "UINT32", "0"},
    {"HDRBeautyMask", P "HDRBeautyMask", "UINT32", "0"},
    {"SRBeautyMask", P "SRBeautyMask", "UINT32", "0"},
    {"HDRSRBeautyMask", P "HDRSRBeautyMask", "UINT32", "0"},
    {"MFNRBokehBeautyMask", P "MFNRBokehBeautyMask", "UINT32", "0"},
    {"HDRBokehBeautyMask", P "HDRBokehBeautyMask", "UINT32", "0"},
    {"enableLoadMeta", P "enableloadmeta", "BOOL", "false"},
    {"enableDumpMeta", P "enabledumpmeta", "BOOL", "false"},
    {"enableRealStreamBuffer", P "enableRealStreamBuffer", "BOOL", "false"},
    {"previewListenCnt", P "frameReuse.previewListenCnt", "UINT32", "30"},
    {"SDCardWriteType", P "SDCardWriteType", "UINT32", "2"},
    {"MaxStorageNum", P "MaxStorageNum", "UINT32", "50"},
    {"MinStorageThreshold", P "minstorage.threshold", "UINT32", "45"},
    {"MaxStorageNumForSDSR", P "MaxStorageNumForSDSR", "UINT32", "0"},
    {"MaxStorageNumForHDUltraRaw", P "MaxStorageNumForHDUltraRaw", "UINT32", "0"},
    {"MinUfsSpeed", P "MinUfsSpeed", "UINT32", "40"},
    {"WbAvailBufEmptyThMap", P "WbAvailBufEmptyThMap", "STRING", "256:5;512:1;1024:1"},
    {"WbAvailBufFile", P "WbAvailBufFile", "STRING",
     "/sys/devices/platform/soc/112b0000.ufshci/attributes/wb_avail_buf"},
    {"UfsCapacityFile", P "UfsCapacityFile", "STRING", "/proc/mv"},
    {"BufferStoragerLimitCnt", P "BufferStoragerLimitCnt", "UINT32", "8"},
    {"PSICheckerInterval", P "PSICheckerInterval", "UINT32", "5000"},
    {"PSIMonitorDelayTime", P "PSIMonitorDelayTime", "UINT32", "5000"},
    {"HighTempDelayTime", P "HighTempDelayTime", "UINT32", "15000"},
    {"NormalTempDelayTime", P "NormalTempDelayTime", "UINT32", "5000"},
    {"DelayTimeThermalLevel", P "DelayTimeThermalLevel", "UINT32", "1"},
    {"memoryPoolMaxBufferSize", P "memoryPoolMaxBufferSize", "UINT32", "0"},
    {"numStorageThread", P "numStorageThread", "UINT32", "0"},
};
#undef P
#undef D

// Console lines of the reader in the child's log: "<sev>/PraxDsacSettins: [HAL ] PropertyControll.cpp:<n>
// PraxDsacSettings()<text>", returned as "<sev> <text>".
std::vector<std::string> readerLines(const TempRoot& root) {
  static const std::regex re(
      "^([EWID])/PraxDsacSettins: \\[HAL \\] PropertyControll\\.cpp:[0-9]+ PraxDsacSettings\\(\\)(.*)$");
  std::vector<std::string> out;
  for (const auto& line : zutest::readLines(root.logcatFile())) {
    std::smatch m;
    if (std::regex_match(line, m, re)) out.push_back(m[1].str() + " " + m[2].str());
  }
  return out;
}

// Runs DsacFile.<test> in a child with `file` as the DSAC settings file (nullptr: no
// file, "/": a directory in its place) and returns the reader's log lines.
std::vector<std::string> runReaderChild(const char* test, const char* file) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.prax.loglevel", "0"}});
  if (file != nullptr)
    root.writeFile(std::string(kDsacFile) + (strcmp(file, "/") == 0 ? "/inner" : ""), file);
  auto r = zutest::runChild(std::string("DsacFile.") + test, root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
  return readerLines(root);
}

void expectEmpty(const PraxDsacSettings& s) {
  EXPECT_TRUE(s.getBoolMap().empty());
  EXPECT_TRUE(s.getIntMap().empty());
  EXPECT_TRUE(s.getUint32Map().empty());
  EXPECT_TRUE(s.getUint64Map().empty());
  EXPECT_TRUE(s.getStringMap().empty());
  EXPECT_TRUE(s.usePropPriority());
}

}  // namespace

TEST(PropertyTable, EveryRowReadsBack) {
  ASSERT_EQ(sizeof(kRows) / sizeof(kRows[0]), 53u);
  PraxDsacSettings* s = PraxDsacSettings::getInstance();
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(s->getPropName(row.name, zudebug::PROP_NAME_INDEX), row.property);
    EXPECT_EQ(s->getPropName(row.name, zudebug::DEFAULT_VALUE_INDEX), row.def);
    EXPECT_EQ(s->getPropName(row.name, zudebug::TYPE_INDEX), row.type);
  }
}

TEST(PropertyTable, UnknownNamesAndIndices) {
  PraxDsacSettings* s = PraxDsacSettings::getInstance();
  for (const char* name : {"srmask", "SRMASK", "SRMask ", "", "fooBar", "enableDSACModule",
                           "persist.vendor.camera.dsac.srrmask"})
    EXPECT_EQ(s->getPropName(name, zudebug::PROP_NAME_INDEX), "") << name;
  EXPECT_EQ(s->getPropName("SRMask", static_cast<zudebug::mapindex>(3)), "");
  EXPECT_EQ(s->getPropName("SRMask", static_cast<zudebug::mapindex>(-1)), "");
}

// Every JSON value type under a table name and an unknown name, the 32-bit bounds,
// and later members overwriting earlier ones.
TEST(DsacSort, TypedMaps) {
  auto s = PraxDsacSettings::fromText(R"({
    "MaxStorageNum": 60, "fooBar": 7, "enableDSACMoudle": 1, "WbAvailBufFile": 5,
    "enableTuningMeta": true, "fooFlag": false, "enableDSACDebug": "true", "fooText": "x",
    "HighTempDelayTime": 1.5, "MaxStorageNumForSDSR": 5.0, "MinUfsSpeed": 3000000000,
    "PSICheckerInterval": 2147483648, "previewListenCnt": 2147483647, "SRMask": -1,
    "numStorageThread": -2147483648, "HDRMask": -2147483649, "SEMask": 123456789012345678901234567890,
    "forceLoadTimeout": null, "fooNull": null, "MFNRMask": [1], "fooArr": [], "HDSRMask": {"a": 1}, "fooObj": {},
    "SDCardWriteType": 1, "SDCardWriteType": 3, "MaxStorageNum": 3000000000, "fooText": "y",
    "BufferStoragerLimitCnt": 8, "BufferStoragerLimitCnt": "nine"
  })");
  EXPECT_EQ(s->getBoolMap(), (std::map<std::string, bool>{{"enableTuningMeta", true}, {"fooFlag", false}}));
  EXPECT_EQ(s->getIntMap(), (std::map<std::string, int32_t>{{"enableDSACMoudle", 1}, {"WbAvailBufFile", 5}}));
  EXPECT_EQ(s->getUint32Map(), (std::map<std::string, uint32_t>{{"MaxStorageNum", 60},
                                                                {"previewListenCnt", 2147483647u},
                                                                {"SRMask", 4294967295u},
                                                                {"numStorageThread", 2147483648u},
                                                                {"SDCardWriteType", 3},
                                                                {"BufferStoragerLimitCnt", 8}}));
  EXPECT_TRUE(s->getUint64Map().empty());
  EXPECT_EQ(s->getStringMap(),
            (std::map<std::string, std::string>{
                {"enableDSACDebug", "true"}, {"fooText", "y"}, {"BufferStoragerLimitCnt", "nine"}}));
  EXPECT_TRUE(s->usePropPriority());
}

TEST(DsacSort, PropertyPriorityFlag) {
  EXPECT_TRUE(PraxDsacSettings::fromText(R"({"MaxStorageNum": 1})")->usePropPriority());
  EXPECT_TRUE(PraxDsacSettings::fromText(R"({"UsePropPriority": true})")->usePropPriority());
  EXPECT_TRUE(PraxDsacSettings::fromText("{}")->usePropPriority());
  for (const char* text : {R"({"UsePropPriority": false})", R"({"UsePropPriority": 1})",
                           R"({"UsePropPriority": "true"})", R"({"UsePropPriority": null})"})
    EXPECT_FALSE(PraxDsacSettings::fromText(text)->usePropPriority()) << text;
  // The flag is a tunable like the others and is sorted too.
  auto s = PraxDsacSettings::fromText(R"({"UsePropPriority": 1})");
  EXPECT_EQ(s->getIntMap().at("UsePropPriority"), 1);
}

TEST(DsacSort, BadTextsLeaveEmptyMaps) {
  for (const char* text : {"", "not json", "[1, 2]", "42", "\"text\"", "null", "{\"a\": 1,}", "{\"a\": 1} x",
                           "{\"MaxStorageNum\": 60", "\xff\xfe{", "{/*c*/}"}) {
    SCOPED_TRACE(text);
    expectEmpty(*PraxDsacSettings::fromText(text));
  }
  // A NUL ends the text.
  expectEmpty(*PraxDsacSettings::fromText(std::string("{\"SEMask\": 1", 12) + std::string(1, '\0') + "}"));
}

// The file is read at the first getInstance() only: each file gets its own process.
TEST(DsacFile, BadFilesLeaveEmptyMaps) {
  if (inChild()) return expectEmpty(*PraxDsacSettings::getInstance());
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, "W open failed! file: /odm/etc/camera/zorvex/DSACSettings.json"},
      {"{\"MaxStorageNum\": }", "W parse error: (3:18)Invalid value."},
      {"", "W parse error: (1:0)The document is empty."},
      {"/", "W parse error: (1:0)The document is empty."},  // a directory reads as nothing
      {"[{\"MaxStorageNum\": 60}]", "W should be an object!"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(runReaderChild("BadFilesLeaveEmptyMaps", c.first), std::vector<std::string>{c.second})
        << (c.first ? c.first : "(none)");
}

TEST(DsacFile, MembersSortedAndLogged) {
  if (inChild()) {
    PraxDsacSettings* s = PraxDsacSettings::getInstance();
    EXPECT_FALSE(s->usePropPriority());
    EXPECT_EQ(s->getBoolMap(), (std::map<std::string, bool>{{"UsePropPriority", false}}));
    EXPECT_EQ(s->getUint32Map(), (std::map<std::string, uint32_t>{{"MaxStorageNum", 60}}));
    EXPECT_EQ(s->getStringMap(), (std::map<std::string, std::string>{{"UfsCapacityFile", "/proc/ufs"}}));
    EXPECT_TRUE(s->getIntMap().empty());
    EXPECT_EQ(PraxDsacSettings::getInstance(), s);
    return;
  }
  EXPECT_EQ(runReaderChild("MembersSortedAndLogged",
                           R"({"UsePropPriority": false, "MaxStorageNum": 60, "fooBar": 7,
                               "UfsCapacityFile": "/proc/ufs", "HighTempDelayTime": 1.5, "fooNull": null})"),
            (std::vector<std::string>{
                "D [DSACSettings]parse json object name:UsePropPriority",
                "D [DSACSettings]insert bool map:UsePropPriority",
                "D [DSACSettings]parse json object name:MaxStorageNum",
                "D [DSACSettings]insert int map:MaxStorageNum",
                "D [DSACSettings]parse json object name:fooBar",
                "D [DSACSettings]parse json object name:UfsCapacityFile",
                "D [DSACSettings]insert string map:UfsCapacityFile",
                "D [DSACSettings]parse json object name:HighTempDelayTime",
                "D [DSACSettings]parse json object name:fooNull",
            }));
}
