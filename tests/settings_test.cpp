// The settings reader as a camera process meets it: the file is read at library
// load in a fresh child, which answers queries; the parent checks answers and logcat.
#include <fstream>
#include <sstream>

#include "TestSupport.h"
#include "ZuDebugUtils.h"
#include "ZuPraseSettings.h"

using namespace zudebug;

namespace {

const std::string kLine = "/ZuPraseSettings: [AlgoFwk] ZuPraseSettings.cpp:";
const std::string kNotFind = " is not find in praxsettings.json";

// `file`: "-" none, "DIR" a directory in its place. `props`: "name=value" lines.
// `queries`: "load>expect;int <mask> <default> [prop]>expect;...". `logs`: substrings of
// the child's logcat ("!text": must be absent).
void runCase(const std::string& file, const std::string& props, const std::string& queries,
             const std::vector<std::string>& logs = {}) {
  zutest::TempRoot root;
  const char* rel = "odm/etc/camera/zorvex/praxsettings.json";
  if (file != "-") root.writeFile(file == "DIR" ? std::string(rel) + "/x" : rel, file == "DIR" ? "" : file);
  root.writeFile("props.txt", props);
  std::string query, expect, item;
  for (std::istringstream in(queries); std::getline(in, item, ';');)
    query += item.substr(0, item.find('>')) + ";", expect += item.substr(item.find('>') + 1) + ";";
  zutest::ChildResult r = zutest::runChild("Settings.Child", root, {{"ZU_QUERY", query}});
  ASSERT_EQ(r.exitCode(), 0) << r.output;
  EXPECT_EQ(zutest::readFile(root.path("result.txt")), expect) << file.substr(0, 200) << "\n" << props;
  std::string logcat = zutest::readFile(root.logcatFile());
  for (const std::string& l : logs)
    EXPECT_EQ(logcat.find(l[0] == '!' ? l.substr(1) : l) == std::string::npos, l[0] == '!') << l << "\n"
                                                                                            << logcat;
}

}  // namespace

// Child: answers "load" (group mask, debug mask, property priority) and
// "int|bool|str <mask> <default> [prop]" queries into result.txt.
ZU_CHILD_TEST(Settings, Child) {
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
  const std::string groupsProp = "persist.vendor.camera.prax.groupsEnable",
                    maskProp = "persist.vendor.camera.offlinedebug.mask";
  runCase("-", "", "load>54911 0 1",
          {"E" + kLine, " ZuPraseSettings()open failed! file: /odm/etc/camera/zorvex/praxsettings.json"});
  runCase("-", groupsProp + "=0x1", "load>1 0 1",
          {"I/ZuPraseSettings: Prop propName(" + groupsProp + ") prop(0x1) propNum(1)"});
  runCase(R"({"Prax3LogGroupsEnable": 255, "offlinedebugmask": 3})", groupsProp + "=5", "load>255 3 0",
          {"!open failed", "!Prop"});
  runCase(R"({"UsePropPriority": true, "offlinedebugmask": 3})", maskProp + "=5", "load>54911 5 1",
          {"I/ZuPraseSettings: Prop propName(" + maskProp + ") prop(5) propNum(5)", "I" + kLine,
           "operator()()Prax3LogGroupsEnable" + kNotFind});
  runCase(R"({"UsePropPriority": false, "offlinedebugmask": 3})", maskProp + "=5", "load>54911 3 0");
  runCase(R"({"UsePropPriority": 1})", "", "load>54911 0 0");
  runCase("", "", "load>54911 0 1",
          {"E" + kLine, "ZuPraseSettings()parse error: (1:0)The document is empty."});
  runCase(R"({"a": })", "", "load>54911 0 1", {"parse error: (3:6)Invalid value."});
  runCase(std::string("{\"offlinedebugmask\": 4}\0junk", 28), "", "load>54911 4 0");
  runCase(std::string("{\"offlinedebugmask\": 4\0}", 24), "", "load>54911 0 1",
          {"parse error: (6:22)Missing a comma or '}' after an object member."});
  runCase("[1, 2]", "", "load>54911 0 1", {"ZuPraseSettings()should be an object!"});
  runCase("DIR", "", "load>54911 0 1", {"E" + kLine});
  runCase(R"({"offlinedebugmask": 6, "offlinedebugmask": 7})", "", "load>54911 6 0");
  // Members of the wrong type count as absent, with a line naming the key.
  runCase(R"({"offlinedebugmask": "abc", "Prax3LogGroupsEnable": 1.5, "OpenLIFO": 4294967295, "Soc": 3,
              "CurrentTempFilePath": 12})",
          "", "load>54911 0 0;int 2 9>9;int 7 0>0;str 3 d>d",
          {"offlinedebugmask is not an int32", "Prax3LogGroupsEnable is not an int32",
           "OpenLIFO is not an int32", "Soc is not a string", "CurrentTempFilePath is not a string"});
}

TEST(Settings, IntegerPropertyTexts) {
  runCase(
      "-",
      "a=ff\nb=1a\nc=10\nd=0x1F\ne=0xZZ\nf=-3\ng=false\nh=0x\ni=2147483647\nj=2147483648\nk=0X10\nl=" +
          std::string(90, '0') + "1\n",
      "int 0 7 a>255;int 0 7 b>26;int 0 7 c>10;int 0 7 d>31;int 0 7 e>7;int 0 7 f>7;int 0 7 g>7;int 0 7 h>7;"
      "int 0 7 i>2147483647;int 0 7 j>7;int 0 7 k>7;int 0 7 l>1;int 0 7 z>7",
      {"I/ZuPraseSettings: Prop propName(a) prop(ff) propNum(255)",
       "E/ZuPraseSettings: Error, Prop propName(e) Invalid prop(0xZZ)", "propName(f) Invalid prop(-3)",
       "propName(h) Invalid prop(0x)", "propName(j) Invalid prop(2147483648)",
       "propName(k) Invalid prop(0X10)", "!propName(g)", "!propName(z)"});
  // File priority: the file's value first, then the property, logged without "Prop ".
  runCase(R"({"OpenLIFO": 9})", "a=12\nb=0xZZ", "int 2 0 a>9;int 0 5 a>12;int 0 5 b>5;int 1 5 b>5",
          {"I/ZuPraseSettings: propName(a) prop(12) propNum(12)",
           "E/ZuPraseSettings: Error, propName(b) Invalid prop(0xZZ)", "!Prop propName"});
}

TEST(Settings, BoolSocStringAndRemap) {
  runCase("-", "a=true\nb=2\nc=0\nd=7",
          "bool 1 1 a>0;bool 1 0 b>1;bool 1 1 c>0;bool 9 0 d>1;bool 8 1>1;bool 2 1>1");
  runCase(R"({"OpenEngineImageDump": 1, "SupportMDBokeh": true, "WatermarkDown": false})", "a=1",
          "bool 1 1>0;bool 9 0>1;bool 11 0 a>0;bool 12 1 a>1;bool 2 1>1;str 3 /t>/t",
          {"I" + kLine, "operator()()SrNodeHaveTwoOutPort" + kNotFind,
           "getStrFromSettingInfo()CurrentTempFilePath" + kNotFind, "!OpenLIFO"});
  for (const char* soc : {"MT6985-MTK>1", "KELTA-O1>2", "SM8650>0", "MTKELTA>1", "MT>0"}) {
    std::string s = soc;
    runCase(R"({"Soc": ")" + s.substr(0, s.find('>')) + R"(", "CurrentTempFilePath": "/x/t"})", "",
            "int 7 5" + s.substr(s.find('>')) + ";str 3 d>/x/t");
  }
  runCase("{}", "", "int 7 5>5", {"E" + kLine, " operator()()Soc" + kNotFind});

  const std::string remap = R"({"JsonFileRemap": {"prop": "x.sel", "prop_brand": "x.brand", "map": )";
  const std::string rows = R"([["0","a.json"],["1","b.json"],["2","c.json"]]}})";
  runCase(remap + rows, "", "str 15 def>a.json;str 14 def>def");
  runCase(remap + rows, "x.sel=1\nx.brand=TOVA", "str 15 def>c.json");
  runCase(remap + rows, "x.sel=1\nx.brand=OTHER", "str 15 def>b.json");
  runCase(remap + rows, "x.sel=9", "str 15 def>def");
  runCase(remap + "[]}}", "", "str 15 def>def");
  // Malformed remapping objects give the default with a line, never a crash.
  for (const std::string& f : std::vector<std::string>{
           remap + R"([["1","b.json"]]}})", remap + R"({"1": "b"}}})", remap + R"([["1", 2], "x"]}})",
           R"({"JsonFileRemap": {"prop": "x.sel", "map": [["1","b"],["2","c"],["3","d"]]}})",
           R"({"JsonFileRemap": {"prop": ")" + std::string(92, 'p') +
               R"(", "prop_brand": "x.brand", "map": []}})"})
    runCase(f, "x.sel=1\nx.brand=TOVA", "str 15 def>def", {"E" + kLine, "JsonFileRemap"});
}

// Nesting no stack would hold recursively (200,000 levels fit in 1 MiB with empty
// keys), and files around the 1 MiB limit: the process lives, a file it can hold is
// read, any other ends in the defaults.
TEST(Settings, DeepNestingAndSizeLimit) {
  const int levels = 200000;
  const auto repeat = zutest::repeatText;
  // A file of exactly `size` bytes whose offlinedebugmask is 2.
  auto padded = [](size_t size) {
    const std::string head = R"({"offlinedebugmask": 2, "pad": ")", tail = "\"}";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
  };
  const std::string tooLarge =
      "file too large! file: /odm/etc/camera/zorvex/praxsettings.json size: 1048577, more "
      "than the 1048576 allowed: defaults used";
  const struct {
    std::string file, load;
    std::vector<std::string> logs;
  } cases[] = {
      {R"({"offlinedebugmask": 2, "x": )" + repeat("[", levels) + repeat("]", levels) + "}",
       "54911 2 0",
       {"!parse error"}},
      {R"({"offlinedebugmask": 2, "x": )" + repeat(R"({"":)", levels) + "1" + repeat("}", levels) + "}",
       "54911 2 0",
       {"!parse error"}},
      {repeat("[", levels), "54911 0 1", {"E" + kLine, "ZuPraseSettings()parse error: "}},
      {repeat(R"({"a":)", levels), "54911 0 1", {"ZuPraseSettings()parse error: "}},
      {R"({"offlinedebugmask": 2, "x": )" + repeat("[", levels),
       "54911 0 1",
       {"ZuPraseSettings()parse error: "}},
      {padded(1 << 20), "54911 2 0", {"!file too large", "!parse error"}},
      {padded((1 << 20) + 1), "54911 0 1", {"E" + kLine, " ZuPraseSettings()" + tooLarge, "!parse error"}},
  };
  for (const auto& c : cases) runCase(c.file, "", "load>" + c.load, c.logs);
}
