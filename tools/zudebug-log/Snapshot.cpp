#include "Snapshot.h"

#include <errno.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "Args.h"
#include "Commands.h"
#include "Output.h"

namespace zulog {

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::string formatNumber(double v) {
  std::ostringstream s;
  s << v;  // as the library prints it: six significant digits
  return s.str();
}

// "a, b, " (every item followed by ", ").
std::vector<std::string> splitItems(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(", ", start);
    if (end == std::string::npos) end = text.size();
    if (end > start) out.push_back(text.substr(start, end - start));
    start = end + 2;
  }
  return out;
}

// "key:value, key:value, ".
Pairs splitPairs(const std::string& text) {
  Pairs out;
  for (const std::string& item : splitItems(text)) {
    const size_t colon = item.find(':');
    if (colon == std::string::npos) continue;
    out.emplace_back(item.substr(0, colon), item.substr(colon + 1));
  }
  return out;
}

bool toInt(const std::string& text, int64_t* value) {
  char* end = nullptr;
  errno = 0;
  const long long v = strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0) return false;
  *value = v;
  return true;
}

bool toDouble(const std::string& text, double* value) {
  char* end = nullptr;
  const double v = strtod(text.c_str(), &end);
  // The library prints finite numbers only; "inf" or "nan" is not a time.
  if (text.empty() || *end != '\0' || !std::isfinite(v)) return false;
  *value = v;
  return true;
}

std::string stringOf(const rapidjson::Value& obj, const char* name) {
  if (!obj.IsObject()) return "";
  auto it = obj.FindMember(name);
  return it != obj.MemberEnd() && it->value.IsString()
             ? std::string(it->value.GetString(), it->value.GetStringLength())
             : "";
}

bool intOf(const rapidjson::Value& obj, const char* name, int64_t* value) {
  if (!obj.IsObject()) return false;
  auto it = obj.FindMember(name);
  if (it == obj.MemberEnd() || !it->value.IsNumber()) return false;
  *value = it->value.IsInt64() ? it->value.GetInt64() : static_cast<int64_t>(it->value.GetDouble());
  return true;
}

const rapidjson::Value* memberOf(const rapidjson::Value& obj, const char* name) {
  if (!obj.IsObject()) return nullptr;
  auto it = obj.FindMember(name);
  return it == obj.MemberEnd() ? nullptr : &it->value;
}

std::string scalarText(const rapidjson::Value& v) {
  if (v.IsString()) return std::string(v.GetString(), v.GetStringLength());
  if (v.IsBool()) return v.GetBool() ? "1" : "0";
  if (v.IsInt64()) return std::to_string(v.GetInt64());
  if (v.IsUint64()) return std::to_string(v.GetUint64());
  if (v.IsNumber()) return formatNumber(v.GetDouble());
  if (v.IsArray()) {
    std::string out;
    for (const auto& e : v.GetArray()) out += (out.empty() ? "" : " ") + scalarText(e);
    return out;
  }
  return "";
}

void sortStages(Capture& c) {
  std::stable_sort(c.stages.begin(), c.stages.end(), [](const auto& a, const auto& b) {
    const int na = stageNumber(a.first), nb = stageNumber(b.first);
    return na != nb ? na < nb : a.first < b.first;
  });
}

void addTables(Capture& c, const Pairs& times, const Pairs& nodeTimes, const Pairs& nodeStates) {
  for (const auto& [name, value] : times) {
    int64_t ms;
    double d;
    if (toInt(value, &ms))
      c.stages.emplace_back(name, ms);
    else if (toDouble(value, &d))
      c.stages.emplace_back(name, static_cast<int64_t>(d));
  }
  sortStages(c);
  for (const auto& [name, value] : nodeTimes) {
    double ms;
    if (toDouble(value, &ms)) c.nodeTimes.emplace_back(name, ms);
  }
  c.nodeStates = nodeStates;
}

// The errors a JSON record implies: the collection file does not keep the texts.
void errorsFromTables(Capture& c) {
  for (const auto& [frame, result] : c.vendorResults)
    if (result != "error_none" && result != "not_return") {
      c.errors.push_back("vendor result error");
      break;
    }
  for (const auto& [node, ms] : c.nodeTimes)
    if (ms == -1.0) c.errors.push_back("node process time out");
  for (const auto& [node, state] : c.nodeStates)
    if (state != "OK" && state != "none") c.errors.push_back("node process error");
}

Pairs objectPairs(const rapidjson::Value* v) {
  Pairs out;
  if (v == nullptr || !v->IsObject()) return out;
  for (const auto& m : v->GetObject())
    out.emplace_back(std::string(m.name.GetString(), m.name.GetStringLength()), scalarText(m.value));
  return out;
}

std::string requestText(const rapidjson::Value* req) {
  std::string out;
  for (const auto& [name, value] : objectPairs(req)) {
    std::string v = value;
    // The text form keeps the lists as "a, b, ".
    if (v.find(", ") != std::string::npos) {
      std::string joined;
      for (const std::string& item : splitItems(v)) joined += (joined.empty() ? "" : " ") + item;
      v = joined;
    }
    out += (out.empty() ? "" : ", ") + name + " " + (v.empty() ? "-" : v);
  }
  return out;
}

// One {"SnapshotRecord":{...}} line of the text dump.
bool captureFromText(const rapidjson::Value& record, Capture* c) {
  if (!record.IsObject()) return false;
  c->fromText = true;
  c->errors = splitItems(stringOf(record, "errorInfo"));
  c->sessionUUID = stringOf(record, "sessionUUID");
  const std::string hexId = stringOf(record, "sessionId");
  if (!hexId.empty()) {
    char* end = nullptr;
    const unsigned long long id = strtoull(hexId.c_str(), &end, 16);
    if (*end == '\0') c->sessionId = static_cast<int64_t>(id);
  }
  intOf(record, "fwkFrame", &c->fwkFrame);
  c->imageName = stringOf(record, "imageName");
  c->requestInfo = requestText(memberOf(record, "RequestInfo"));
  c->vendorResults = splitPairs(stringOf(record, "VendorResultInfo"));
  const rapidjson::Value* algo = memberOf(record, "ZuAlgoInfo");
  const rapidjson::Value empty;
  addTables(*c, splitPairs(stringOf(record, "SnapshotTime")),
            splitPairs(stringOf(algo != nullptr ? *algo : empty, "nodeProcTime")),
            splitPairs(stringOf(algo != nullptr ? *algo : empty, "nodeProcState")));
  return true;
}

// One record object of the JSON collection file.
bool captureFromJson(const rapidjson::Value& record, const std::string& session, Capture* c) {
  if (!record.IsObject()) return false;
  c->sessionUUID = stringOf(record, "sessionUUID");
  if (c->sessionUUID.empty()) c->sessionUUID = session;
  intOf(record, "sessionId", &c->sessionId);
  intOf(record, "fwkFrame", &c->fwkFrame);
  c->imageName = stringOf(record, "imageName");
  c->requestInfo = requestText(memberOf(record, "RequestInfo"));
  c->vendorResults = objectPairs(memberOf(record, "VendorResultInfo"));
  const rapidjson::Value* algo = memberOf(record, "ZuAlgoInfo");
  addTables(*c, objectPairs(memberOf(record, "TimeInfo")),
            objectPairs(algo != nullptr ? memberOf(*algo, "nodeProcTime") : nullptr),
            objectPairs(algo != nullptr ? memberOf(*algo, "nodeProcState") : nullptr));
  errorsFromTables(*c);
  return true;
}

bool readWhole(const std::string& path, std::string* text, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = strerror(errno);
    return false;
  }
  std::ostringstream s;
  s << in.rdbuf();
  *text = s.str();
  return true;
}

bool looksLikeTextDump(const std::string& text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string::npos) return false;
  return text.compare(start, 18, "{\"SnapshotRecord\":") == 0 || text.compare(start, 5, "=====") == 0;
}

class CaptureTable {
 public:
  void add(Capture c) {
    const Key key{c.sessionUUID, c.fwkFrame, c.imageName};
    auto it = mIndex.find(key);
    if (it == mIndex.end()) {
      if (std::find(mSessions.begin(), mSessions.end(), c.sessionUUID) == mSessions.end())
        mSessions.push_back(c.sessionUUID);
      mIndex.emplace(key, mCaptures.size());
      mCaptures.push_back(std::move(c));
      return;
    }
    Capture& old = mCaptures[it->second];
    if (old.fromText && !c.fromText) return;  // the text form has the error texts
    old = std::move(c);
  }
  std::vector<Capture> take() {
    std::vector<Capture> out = std::move(mCaptures);
    std::stable_sort(out.begin(), out.end(), [this](const Capture& a, const Capture& b) {
      const auto sa = std::find(mSessions.begin(), mSessions.end(), a.sessionUUID) - mSessions.begin();
      const auto sb = std::find(mSessions.begin(), mSessions.end(), b.sessionUUID) - mSessions.begin();
      return sa != sb ? sa < sb : a.fwkFrame < b.fwkFrame;
    });
    return out;
  }

 private:
  using Key = std::tuple<std::string, int64_t, std::string>;
  std::map<Key, size_t> mIndex;
  std::vector<Capture> mCaptures;
  std::vector<std::string> mSessions;
};

void readTextDump(const std::string& path, const std::string& text, CaptureTable& table, SnapshotSet& set) {
  size_t bad = 0, other = 0, lineNo = 0, read = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++lineNo;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    if (line.compare(0, 18, "{\"SnapshotRecord\":") != 0) {
      if (line.find("PRAX Diag dump ") == std::string::npos) ++other;
      continue;
    }
    rapidjson::Document doc;
    doc.Parse(line.c_str(), line.size());
    Capture c;
    const rapidjson::Value* record = doc.HasParseError() ? nullptr : memberOf(doc, "SnapshotRecord");
    if (record == nullptr || !captureFromText(*record, &c)) {
      ++bad;  // torn, or a name with a quote in it (the dump does not escape)
      continue;
    }
    c.source = path + ":" + std::to_string(lineNo);
    table.add(std::move(c));
    ++read;
  }
  if (bad > 0)
    set.messages.push_back(path + ": " + std::to_string(bad) + " unreadable record line(s) skipped");
  if (other > 0)
    set.messages.push_back(path + ": " + std::to_string(other) + " line(s) that are no record skipped");
  if (read == 0 && bad == 0) set.messages.push_back(path + ": no capture records in it");
}

void readJsonFile(const std::string& path, const std::string& text, CaptureTable& table, SnapshotSet& set) {
  rapidjson::Document doc;
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) {
    set.messages.push_back(path + ": not a snapshot dump (JSON error at offset " +
                           std::to_string(doc.GetErrorOffset()) + ": " +
                           rapidjson::GetParseError_En(doc.GetParseError()) + "); skipped");
    return;
  }
  if (!doc.IsObject()) {
    set.messages.push_back(path + ": not a snapshot dump (no object of sessions); skipped");
    return;
  }
  size_t bad = 0, read = 0;
  for (const auto& session : doc.GetObject()) {
    const std::string name(session.name.GetString(), session.name.GetStringLength());
    if (!session.value.IsArray()) {
      ++bad;
      continue;
    }
    for (const auto& record : session.value.GetArray()) {
      Capture c;
      if (!captureFromJson(record, name, &c)) {
        ++bad;
        continue;
      }
      c.source = path + ": session " + name;
      table.add(std::move(c));
      ++read;
    }
  }
  if (bad > 0)
    set.messages.push_back(path + ": " + std::to_string(bad) + " entries that are no capture skipped");
  if (read == 0 && bad == 0) set.messages.push_back(path + ": no capture records in it");
}

}  // namespace

int stageNumber(const std::string& name) {
  int n = 0;
  size_t i = 0;
  while (i < name.size() && i < 3 && name[i] >= '0' && name[i] <= '9') n = n * 10 + (name[i++] - '0');
  return i == 0 ? 99 : n;
}

bool Capture::stage(const std::string& name, int64_t* ms) const {
  for (const auto& s : stages)
    if (s.first == name) {
      *ms = s.second;
      return true;
    }
  return false;
}

bool Capture::nodeFailed(const std::string& name) const {
  for (const auto& [node, ms] : nodeTimes)
    if (node == name && ms == -1.0) return true;
  for (const auto& [node, state] : nodeStates)
    if (node == name && state != "OK" && state != "none") return true;
  return false;
}

int64_t Capture::algorithmStart() const {
  int64_t ms;
  for (const char* s : {"6request_to_algo", "5request_to_post"})
    if (stage(s, &ms) && ms >= 0) return ms;
  return 0;
}

SnapshotSet readSnapshots(const std::vector<std::string>& paths) {
  SnapshotSet set;
  CaptureTable table;
  for (const std::string& path : paths) {
    std::string text, error;
    if (!readWhole(path, &text, &error)) {
      set.messages.push_back(path + ": " + error);
      set.failed = true;
      continue;
    }
    if (text.find('\0') != std::string::npos && !looksLikeTextDump(text)) {
      set.messages.push_back(path + ": not a snapshot dump (binary); skipped");
      continue;
    }
    if (looksLikeTextDump(text))
      readTextDump(path, text, table, set);
    else
      readJsonFile(path, text, table, set);
  }
  set.captures = table.take();
  return set;
}

void printSnapshotTable(Writer& out, const SnapshotSet& set) {
  if (set.captures.empty()) return;
  // Columns for the stages any capture reached, in stage order.
  std::vector<std::string> columns;
  for (const Capture& c : set.captures)
    for (const auto& s : c.stages)
      if (std::find(columns.begin(), columns.end(), s.first) == columns.end()) columns.push_back(s.first);
  std::stable_sort(columns.begin(), columns.end(), [](const std::string& a, const std::string& b) {
    const int na = stageNumber(a), nb = stageNumber(b);
    return na != nb ? na < nb : a < b;
  });
  size_t imageWidth = 5, errorWidth = 5;
  for (const Capture& c : set.captures) {
    imageWidth = std::max(imageWidth, c.imageName.size());
    std::string e;
    for (const std::string& x : c.errors) e += (e.empty() ? "" : "; ") + x;
    errorWidth = std::max(errorWidth, e.size());
  }
  errorWidth = std::min<size_t>(errorWidth, 48);
  std::string legend = "stages, ms after registration (- not reached):";
  for (const std::string& col : columns) legend += " " + std::to_string(stageNumber(col)) + "=" + col;
  out.put(legend + "\n");

  std::string session = "\x01";
  char cell[64];
  for (const Capture& c : set.captures) {
    if (c.sessionUUID != session) {
      session = c.sessionUUID;
      size_t count = 0, failed = 0;
      for (const Capture& x : set.captures)
        if (x.sessionUUID == session) ++count, failed += x.failed() ? 1 : 0;
      std::string head = "\nsession " + (session.empty() ? std::string("(no UUID)") : session);
      if (c.sessionId >= 0) head += " (id " + std::to_string(c.sessionId) + ")";
      head += ": " + std::to_string(count) + " capture" + (count == 1 ? "" : "s") + ", " +
              std::to_string(failed) + " failed\n";
      out.put(head);
      std::string h = "  FRAME  ";
      h += "IMAGE" + std::string(imageWidth - 5 + 2, ' ');
      h += "ERROR" + std::string(errorWidth - 5 + 2, ' ');
      for (const std::string& col : columns) {
        snprintf(cell, sizeof(cell), "%6d", stageNumber(col));
        h += cell;
      }
      h += "  SLOWEST NODE\n";
      out.put(h);
    }
    snprintf(cell, sizeof(cell), "  %-5lld  ", static_cast<long long>(c.fwkFrame));
    std::string row = cell;
    row += c.imageName + std::string(imageWidth - c.imageName.size() + 2, ' ');
    std::string e;
    for (const std::string& x : c.errors) e += (e.empty() ? "" : "; ") + x;
    if (e.empty()) e = "-";
    if (e.size() > errorWidth) e = e.substr(0, errorWidth - 3) + "...";
    row += e + std::string(errorWidth - e.size() + 2, ' ');
    for (const std::string& col : columns) {
      int64_t ms;
      if (c.stage(col, &ms))
        snprintf(cell, sizeof(cell), "%6lld", static_cast<long long>(ms));
      else
        snprintf(cell, sizeof(cell), "%6s", "-");
      row += cell;
    }
    // The slowest node; a node that timed out has no time and is named as such.
    std::string slowest = "-";
    double best = -2;
    for (const auto& [node, ms] : c.nodeTimes) {
      if (ms == -1.0) {
        slowest = node + " timed out";
        best = 1e300;
      } else if (ms > best) {
        best = ms;
        slowest = node + " " + formatNumber(ms) + " ms";
      }
    }
    row += "  " + slowest + "\n";
    out.put(row);
  }
}

int runSnapshot(const std::vector<std::string>& args) {
  ParsedArgs a = parseArgs(args, {{"html", true}, {"trace", true}});
  if (!a.error.empty()) return usageError(a.error);
  if (a.operands.empty()) return usageError("no snapshot dump to read");
  SnapshotSet set = readSnapshots(a.operands);
  int status = set.failed ? 1 : 0;
  auto writeFile = [&status](const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr || fwrite(text.data(), 1, text.size(), f) != text.size()) {
      note(path + ": cannot write: " + strerror(errno));
      status = 1;
    }
    if (f != nullptr && fclose(f) != 0) {
      note(path + ": cannot write: " + strerror(errno));
      status = 1;
    }
  };
  for (const std::string& path : a.values("html")) writeFile(path, snapshotHtml(set));
  for (const std::string& path : a.values("trace")) writeFile(path, snapshotTrace(set));
  Writer out(STDOUT_FILENO);
  printSnapshotTable(out, set);
  status = finishOutput(out, status);
  for (const std::string& m : set.messages) note(m);
  if (set.captures.empty()) note("no capture found");
  return status;
}

}  // namespace zulog
