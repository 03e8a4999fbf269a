// The settings reader as a camera process meets it: the file is read at library
// load in a fresh child, which answers queries; the parent checks answers and logcat.
#include <fstream>
#include <sstream>

#include "TestSupport.h"
#include "ZuDebugUtils.h"
#include "ZuPraseSettings.h"

using namespace zudebug;

namespace {

struct Case {
  std::string file;  // "-": no settings file; "DIR": a directory in its place
  std::map<std::string, std::string> props;
  std::vector<std::pair<std::string, std::string>> queries;  // "int 0 7 prop" -> "255"
  std::vector<std::string> logs = {};                        // in the child's logcat; "!text": absent
};

const std::string kOpen = "E/ZuPraseSettings: [AlgoFwk] ZuPraseSettings.cpp:";
const std::string kFile = "/odm/etc/camera/zorvex/praxsettings.json";
const std::string kNotFind = " is not find in praxsettings.json";
const std::string kRemap =
    R"({"JsonFileRemap": {"prop": "x.sel", "prop_brand": "x.brand", "map": [["0","a.json"],["1","b.json"],["2","c.json"]]}})";

void runCase(const Case& c) {
  zutest::TempRoot root;
  if (c.file == "DIR")
    root.writeFile("odm/etc/camera/zorvex/praxsettings.json/x", "");
  else if (c.file != "-")
    root.writeFile("odm/etc/camera/zorvex/praxsettings.json", c.file);
  root.setProps(c.props);
  std::string query, expect;
  for (const auto& q : c.queries) query += q.first + ";", expect += q.second + ";";
  zutest::ChildResult r = zutest::runChild("Settings.Child", root, {{"ZU_QUERY", query}});
  ASSERT_EQ(r.exitCode(), 0) << r.output;
  EXPECT_EQ(zutest::readFile(root.path("result.txt")), expect) << "file: " << c.file.substr(0, 200);
  std::string logcat = zutest::readFile(root.logcatFile());
  for (const std::string& l : c.logs) {
    if (l[0] == '!')
      EXPECT_EQ(logcat.find(l.substr(1)), std::string::npos) << l << "\n" << logcat;
    else
      EXPECT_NE(logcat.find(l), std::string::npos) << l << "\n" << logcat;
  }
}

}  // namespace

// Child: answers "load" (group mask, debug mask, property priority) and
// "int|bool|str <mask> <default> [prop]" queries into result.txt.
TEST(Settings, Child) {
  ZU_CHILD_ONLY();
  std::ofstream out("result.txt");
  std::istringstream queries(getenv("ZU_QUERY"));
  ZuPraseSettings* s = ZuPraseSettings::getInstance();
  for (std::string q; std::getline(queries, q, ';');) {
    std::istringstream in(q);
    std::string kind, def, prop;
    int mask = 0;
    in >> kind >> mask >> def >> prop;
    auto m = static_cast<SettingMask>(mask);
    if (kind == "load") out << gZuCamLogGroup << ' ' << gZuCamDebugMask << ' ' << s->usePropPriority();
    if (kind == "int") out << s->getIntFromSettingInfo(m, std::stoi(def), prop.c_str());
    if (kind == "bool") out << s->getBoolFromSettingInfo(m, def == "1", prop.c_str());
    if (kind == "str") out << s->getStrFromSettingInfo(m, def);
    out << ';';
  }
}

TEST(Settings, LoadTimeMasksAndFailures) {
  const std::string deep(2 << 20, '[');
  const Case cases[] = {
      {"-", {}, {{"load", "54911 0 1"}}, {kOpen, " ZuPraseSettings()open failed! file: " + kFile}},
      {"-",
       {{"persist.vendor.camera.prax.groupsEnable", "0x1"}},
       {{"load", "1 0 1"}},
       {"I/ZuPraseSettings: Prop propName(persist.vendor.camera.prax.groupsEnable) prop(0x1) propNum(1)"}},
      {R"({"Prax3LogGroupsEnable": 255, "offlinedebugmask": 3})",
       {{"persist.vendor.camera.prax.groupsEnable", "5"}},
       {{"load", "255 3 0"}},
       {"!open failed", "!Prop"}},
      {R"({"UsePropPriority": true, "offlinedebugmask": 3})",
       {{"persist.vendor.camera.offlinedebug.mask", "5"}},
       {{"load", "54911 5 1"}},
       {"I/ZuPraseSettings: Prop propName(persist.vendor.camera.offlinedebug.mask) prop(5) propNum(5)",
        "I/ZuPraseSettings: [AlgoFwk] ZuPraseSettings.cpp:", "operator()()Prax3LogGroupsEnable" + kNotFind}},
      {R"({"UsePropPriority": false, "offlinedebugmask": 3})",
       {{"persist.vendor.camera.offlinedebug.mask", "5"}},
       {{"load", "54911 3 0"}}},
      {R"({"UsePropPriority": 1})", {}, {{"load", "54911 0 0"}}},
      {R"({"UsePropPriority": "true"})", {}, {{"load", "54911 0 0"}}},
      {"", {}, {{"load", "54911 0 1"}}, {"ZuPraseSettings()parse error: (1:0)The document is empty."}},
      {R"({"a": })", {}, {{"load", "54911 0 1"}}, {"parse error: (3:6)Invalid value."}},
      {std::string("{\"offlinedebugmask\": 4}\0junk", 28), {}, {{"load", "54911 4 0"}}},
      {std::string("{\"offlinedebugmask\": 4\0}", 24),
       {},
       {{"load", "54911 0 1"}},
       {"parse error: (6:22)Missing a comma or '}' after an object member."}},
      {"[1, 2]", {}, {{"load", "54911 0 1"}}, {"ZuPraseSettings()should be an object!"}},
      {"DIR", {}, {{"load", "54911 0 1"}}, {kOpen}},
      {deep, {}, {{"load", "54911 0 1"}}, {"parse error: "}},
      {R"({"x": )" + deep + std::string(2 << 20, ']') + R"(, "offlinedebugmask": 2})",
       {},
       {{"load", "54911 2 0"}}},
      {R"({"pad": ")" + std::string(11 << 20, 'x') + R"(", "offlinedebugmask": 2})",
       {},
       {{"load", "54911 2 0"}}},
      {R"({"offlinedebugmask": 6, "offlinedebugmask": 7})", {}, {{"load", "54911 6 0"}}},
      // Wrong member types: treated as absent, with a line naming the key.
      {R"({"offlinedebugmask": "abc", "Prax3LogGroupsEnable": 1.5, "OpenLIFO": true, "Soc": 3})",
       {},
       {{"load", "54911 0 0"}, {"int 2 9", "9"}, {"int 7 0", "0"}, {"str 3 d", "d"}},
       {"offlinedebugmask is not an int32", "Prax3LogGroupsEnable is not an int32", "Soc is not a string"}},
      {R"({"offlinedebugmask": 4294967295, "CurrentTempFilePath": 12})",
       {},
       {{"load", "54911 0 0"}, {"str 3 d", "d"}}},
  };
  for (const Case& c : cases) runCase(c);
}

TEST(Settings, IntegerPropertyTexts) {
  std::map<std::string, std::string> props = {{"p.ff", "ff"},
                                              {"p.1a", "1a"},
                                              {"p.10", "10"},
                                              {"p.hex", "0x1F"},
                                              {"p.zz", "0xZZ"},
                                              {"p.neg", "-3"},
                                              {"p.false", "false"},
                                              {"p.bare", "0x"},
                                              {"p.max", "2147483647"},
                                              {"p.big", "2147483648"},
                                              {"p.bighex", "0x80000000"},
                                              {"p.X", "0X10"},
                                              {"p.long", std::string(90, '0') + "1"},
                                              {"p.long9", std::string(91, '9')}};
  std::vector<std::pair<std::string, std::string>> q = {
      {"int 0 7 p.ff", "255"},  {"int 0 7 p.1a", "26"},    {"int 0 7 p.10", "10"},
      {"int 0 7 p.hex", "31"},  {"int 0 7 p.zz", "7"},     {"int 0 7 p.neg", "7"},
      {"int 0 7 p.false", "7"}, {"int 0 7 p.bare", "7"},   {"int 0 7 p.max", "2147483647"},
      {"int 0 7 p.big", "7"},   {"int 0 7 p.bighex", "7"}, {"int 0 7 p.X", "7"},
      {"int 0 7 p.long", "1"},  {"int 0 7 p.long9", "7"},  {"int 0 7 p.unset", "7"}};
  std::vector<std::string> logs = {"Prop propName(p.ff) prop(ff) propNum(255)", "!propName(p.false)"};
  for (const char* bad : {"p.zz) Invalid prop(0xZZ)", "p.neg) Invalid prop(-3)", "p.bare) Invalid prop(0x)",
                          "p.big) Invalid prop(2147483648)", "p.X) Invalid prop(0X10)"})
    logs.push_back(std::string("E/ZuPraseSettings: Error, Prop propName(") + bad);
  runCase({"-", props, q, logs});
  // File priority: file value first, then the property with the other wording.
  runCase({R"({"OpenLIFO": 9})",
           {{"p.12", "12"}, {"p.zz", "0xZZ"}},
           {{"int 2 0 p.12", "9"}, {"int 0 5 p.12", "12"}, {"int 0 5 p.zz", "5"}, {"int 1 5 p.zz", "5"}},
           {"I/ZuPraseSettings: propName(p.12) prop(12) propNum(12)",
            "E/ZuPraseSettings: Error, propName(p.zz) Invalid prop(0xZZ)", "!Prop propName"}});
}

TEST(Settings, BoolSocStringAndRemap) {
  runCase({"-",
           {{"b.true", "true"}, {"b.2", "2"}, {"b.0", "0"}, {"b.7", "7"}},
           {{"bool 1 1 b.true", "0"},
            {"bool 1 0 b.2", "1"},
            {"bool 1 1 b.0", "0"},
            {"bool 9 0 b.7", "1"},
            {"bool 8 1", "1"},
            {"bool 2 1", "1"}}});
  runCase(
      {R"({"OpenEngineImageDump": 1, "SupportMDBokeh": true, "WatermarkDown": false})",
       {{"b.1", "1"}},
       {{"bool 1 1", "0"},
        {"bool 9 0", "1"},
        {"bool 11 0 b.1", "0"},
        {"bool 12 1 b.1", "1"},
        {"bool 2 1", "1"},
        {"bool 14 1", "1"},
        {"str 3 /t", "/t"}},
       {"I/ZuPraseSettings: [AlgoFwk] ZuPraseSettings.cpp:", "operator()()SrNodeHaveTwoOutPort" + kNotFind,
        "getStrFromSettingInfo()CurrentTempFilePath" + kNotFind, "!OpenLIFO"}});
  for (const auto& soc : std::vector<std::pair<std::string, std::string>>{
           {"MT6985-MTK", "1"}, {"KELTA-O1", "2"}, {"SM8650", "0"}, {"MTKELTA", "1"}, {"MT", "0"}})
    runCase({R"({"Soc": ")" + soc.first + R"(", "CurrentTempFilePath": "/x/t"})",
             {},
             {{"int 7 5", soc.second}, {"str 3 d", "/x/t"}}});
  runCase({"{}",
           {},
           {{"int 7 5", "5"}},
           {"E/ZuPraseSettings: [AlgoFwk] ZuPraseSettings.cpp:", " operator()()Soc" + kNotFind}});

  std::vector<std::pair<std::map<std::string, std::string>, std::string>> remaps = {
      {{}, "a.json"},
      {{{"x.sel", "1"}, {"x.brand", "TOVA"}}, "c.json"},
      {{{"x.sel", "1"}, {"x.brand", "OTHER"}}, "b.json"},
      {{{"x.sel", "2"}, {"x.brand", "TOVA"}}, "c.json"},
      {{{"x.sel", "9"}}, "def"}};
  for (const auto& r : remaps) runCase({kRemap, r.first, {{"str 15 def", r.second}, {"str 14 def", "def"}}});
  // Malformed remapping objects give the default with a line, never a crash.
  const std::map<std::string, std::string> tova = {{"x.sel", "1"}, {"x.brand", "TOVA"}};
  for (const std::string& f : std::vector<std::string>{
           R"({"JsonFileRemap": {"prop": "x.sel", "prop_brand": "x.brand", "map": [["1","b.json"]]}})",
           R"({"JsonFileRemap": {"prop": "x.sel", "map": [["1","b"],["2","c"],["3","d"]]}})",
           R"({"JsonFileRemap": {"prop": 5, "prop_brand": "x.brand", "map": []}})",
           R"({"JsonFileRemap": {"prop": ")" + std::string(92, 'p') +
               R"(", "prop_brand": "x.brand", "map": []}})",
           R"({"JsonFileRemap": {"prop": "x.sel", "prop_brand": "x.brand", "map": {"1": "b"}}})",
           R"({"JsonFileRemap": {"prop": "x.sel", "prop_brand": "x.brand", "map": [["1", 2], "x"]}})",
           R"({"JsonFileRemap": [1]})"})
    runCase({f,
             tova,
             {{"str 15 def", "def"}},
             {"E/ZuPraseSettings: [AlgoFwk] ZuPraseSettings.cpp:", "JsonFileRemap"}});
  runCase({R"({"JsonFileRemap": {"prop": "x.sel", "prop_brand": "x.brand", "map": []}})",
           tova,
           {{"str 15 def", "def"}}});
}
