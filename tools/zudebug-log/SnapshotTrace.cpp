// The captures as Chrome trace-event JSON (for the Perfetto UI): one process per
// camera session, one thread track per capture. On its track a capture is a complete
// event from its registration to its last stage or node; its stages are zero-length
// events at their times; its algorithm nodes start together when the engine got the
// capture, so they nest inside each other by length. Times are microseconds after the
// capture's registration.
#include <stdio.h>

#include <algorithm>
#include <map>
#include <string>

#include "JsonText.h"
#include "Snapshot.h"

namespace zulog {

namespace {

// Microseconds, as JSON can carry them exactly (at most 2^53 - 1).
std::string us(double ms) {
  constexpr double kLargest = 9007199254740991.0;
  double v = ms * 1000.0;
  if (!(v > -kLargest)) v = -kLargest;  // also NaN
  if (v > kLargest) v = kLargest;
  char text[32];
  snprintf(text, sizeof(text), "%.0f", v);
  return text;
}

std::string event(const std::string& name, const char* category, double startMs, double durMs, int pid,
                  int tid, const std::string& args) {
  std::string e = "{\"name\":";
  appendJsonString(e, name);
  e += ",\"cat\":\"" + std::string(category) + "\",\"ph\":\"X\",\"ts\":" + us(startMs) +
       ",\"dur\":" + us(durMs) + ",\"pid\":" + std::to_string(pid) + ",\"tid\":" + std::to_string(tid);
  if (!args.empty()) e += ",\"args\":{" + args + "}";
  return e + "}";
}

std::string metadata(const char* what, int pid, int tid, const std::string& name, int sortIndex) {
  std::string e = "{\"name\":\"" + std::string(what) + "\",\"ph\":\"M\",\"pid\":" + std::to_string(pid);
  if (tid >= 0) e += ",\"tid\":" + std::to_string(tid);
  e += ",\"args\":{\"name\":";
  appendJsonString(e, name);
  e += "}}";
  if (sortIndex >= 0) {
    e += ",{\"name\":\"" + std::string(tid >= 0 ? "thread_sort_index" : "process_sort_index") +
         "\",\"ph\":\"M\",\"pid\":" + std::to_string(pid) +
         (tid >= 0 ? ",\"tid\":" + std::to_string(tid) : "") +
         ",\"args\":{\"sort_index\":" + std::to_string(sortIndex) + "}}";
  }
  return e;
}

std::string arg(const std::string& key, const std::string& value) {
  std::string a;
  appendJsonString(a, key);
  a += ":";
  appendJsonString(a, value);
  return a;
}

}  // namespace

std::string snapshotTrace(const SnapshotSet& set) {
  std::vector<std::string> events;
  std::map<std::string, int> sessionPid;
  for (size_t i = 0; i < set.captures.size(); ++i) {
    const Capture& c = set.captures[i];
    auto found = sessionPid.find(c.sessionUUID);
    const int pid = found != sessionPid.end() ? found->second : static_cast<int>(sessionPid.size()) + 1;
    if (found == sessionPid.end()) {
      sessionPid.emplace(c.sessionUUID, pid);
      std::string name = "session " + (c.sessionUUID.empty() ? std::string("(no UUID)") : c.sessionUUID);
      if (c.sessionId >= 0) name += " (id " + std::to_string(c.sessionId) + ")";
      events.push_back(metadata("process_name", pid, -1, name, pid));
    }
    const int tid = static_cast<int>(i) + 1;
    events.push_back(metadata(
        "thread_name", pid, tid,
        "frame " + std::to_string(c.fwkFrame) + " " + c.imageName + (c.failed() ? " FAILED" : ""), tid));

    // The capture: from registration to the last moment anything of it is known.
    double last = 0;
    std::string stageArgs;
    for (const auto& [name, ms] : c.stages) {
      stageArgs += (stageArgs.empty() ? "" : ",") + arg(name, std::to_string(ms));
      if (name != "7anchor_time") last = std::max(last, static_cast<double>(ms));
    }
    const double algo = static_cast<double>(c.algorithmStart());
    for (const auto& [node, ms] : c.nodeTimes)
      if (ms > 0) last = std::max(last, algo + ms);
    std::string errors;
    for (const std::string& e : c.errors) errors += (errors.empty() ? "" : "; ") + e;
    std::string captureArgs = arg("fwkFrame", std::to_string(c.fwkFrame)) + "," +
                              arg("imageName", c.imageName) + "," +
                              arg("errors", errors.empty() ? "none" : errors) + "," +
                              arg("request", c.requestInfo) + "," + arg("source", c.source);
    for (const auto& [frame, result] : c.vendorResults)
      captureArgs += "," + arg("vendor frame " + frame, result);
    if (!stageArgs.empty()) captureArgs += ",\"stages\":{" + stageArgs + "}";
    events.push_back(event(c.imageName.empty() ? "capture" : c.imageName,
                           c.failed() ? "capture,failed" : "capture", 0, last, pid, tid, captureArgs));

    // Stages that are moments: the three others are not points on this axis.
    for (const auto& [name, ms] : c.stages) {
      if (ms < 0 || name == "7anchor_time" || name == "8getbuffer_from_fwk" || name == "12post_proc_time")
        continue;
      events.push_back(
          event(name, "stage", static_cast<double>(ms), 0, pid, tid, arg("ms", std::to_string(ms))));
    }
    // Longest first: events that start together nest in the order they are listed.
    std::vector<std::pair<std::string, double>> nodes = c.nodeTimes;
    std::stable_sort(nodes.begin(), nodes.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    for (const auto& [node, ms] : nodes) {
      std::string state = "none";
      for (const auto& s : c.nodeStates)
        if (s.first == node) state = s.second;
      const bool failed = c.nodeFailed(node);
      const std::string nodeArgs =
          arg("state", state) + "," + arg("ms", ms == -1.0 ? std::string("timed out") : std::to_string(ms));
      events.push_back(event(ms == -1.0 ? node + " timed out" : node, failed ? "node,failed" : "node", algo,
                             ms > 0 ? ms : 0, pid, tid, nodeArgs));
    }
  }
  std::string out = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
  for (size_t i = 0; i < events.size(); ++i) out += events[i] + (i + 1 < events.size() ? ",\n" : "\n");
  out += "]}\n";
  return out;
}

}  // namespace zulog
