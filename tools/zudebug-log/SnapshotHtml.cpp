// The captures as one self-contained page: an inline SVG timeline with a row per
// capture on a common millisecond axis (0 = the capture's registration), its stages
// as marks, its algorithm nodes as bars from the moment the algorithm engine got it.
// Failed captures and failed nodes are red, stages recorded as -1 orange in a column
// left of the axis. Every mark has a tooltip; hovering a row shows all its details.
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <string>

#include "JsonText.h"
#include "Snapshot.h"

namespace zulog {

namespace {

constexpr double kLabelWidth = 300, kGutter = 44, kPlotWidth = 820, kRight = 190;
constexpr double kTop = 34, kStageLine = 12, kRowBase = 26, kLane = 11;

// Stages that are points in time; the other three are kept apart.
bool isPointStage(const std::string& name) {
  return name != "7anchor_time" && name != "8getbuffer_from_fwk" && name != "12post_proc_time";
}

const char* const kStageColours[] = {"#6b7280", "#2563eb", "#0891b2", "#059669", "#65a30d",
                                     "#ca8a04", "#ea580c", "#a855f7", "#7c3aed", "#db2777",
                                     "#0d9488", "#475569", "#1d4ed8", "#15803d", "#b45309"};

const char* stageColour(const std::string& name) {
  const int n = stageNumber(name);
  return n >= 1 && n <= 15 ? kStageColours[n - 1] : "#111827";
}

std::string num(double v) {
  char text[32];
  snprintf(text, sizeof(text), "%.2f", v);
  std::string s = text;
  while (!s.empty() && s.back() == '0') s.pop_back();
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s;
}

std::string msText(double ms) {
  char text[32];
  snprintf(text, sizeof(text), "%g", ms);
  return text;
}

std::string errorText(const Capture& c) {
  std::string e;
  for (const std::string& x : c.errors) e += (e.empty() ? "" : "; ") + x;
  return e;
}

std::string details(const Capture& c) {
  std::string d = "frame " + std::to_string(c.fwkFrame) + "  " + c.imageName + "\nsession " + c.sessionUUID;
  if (c.sessionId >= 0) d += " (id " + std::to_string(c.sessionId) + ")";
  d += "\n" + std::string(c.failed() ? "FAILED: " + errorText(c) : "no error recorded");
  d += "\nstages (ms after registration):";
  for (const auto& [name, ms] : c.stages) d += "\n  " + name + " " + std::to_string(ms);
  d += "\nalgorithm nodes:";
  for (const auto& [name, ms] : c.nodeTimes) {
    std::string state = "none";
    for (const auto& s : c.nodeStates)
      if (s.first == name) state = s.second;
    d += "\n  " + name + " " + (ms == -1.0 ? std::string("timed out") : msText(ms) + " ms") + ", " + state;
  }
  if (!c.vendorResults.empty()) {
    d += "\nvendor results:";
    for (const auto& [frame, result] : c.vendorResults) d += " " + frame + " " + result + ";";
  }
  if (!c.requestInfo.empty()) d += "\nrequest: " + c.requestInfo;
  d += "\nfrom " + c.source;
  return d;
}

// The axis end: a round number at or above every time drawn.
double axisEnd(const std::vector<Capture>& captures, double* step) {
  double top = 1;
  for (const Capture& c : captures) {
    for (const auto& [name, ms] : c.stages)
      if (isPointStage(name)) top = std::max(top, static_cast<double>(ms));
    int64_t post = 0, anchor = 0;
    if (c.stage("5request_to_post", &post) && c.stage("7anchor_time", &anchor))
      top = std::max(top, static_cast<double>(post + anchor));
    for (const auto& [name, ms] : c.nodeTimes)
      top = std::max(top, static_cast<double>(c.algorithmStart()) + ms);
  }
  const double raw = top / 8;
  const double magnitude = pow(10, floor(log10(raw)));
  *step = magnitude;
  for (double m : {1.0, 2.0, 5.0, 10.0}) {
    if (m * magnitude >= raw) {
      *step = m * magnitude;
      break;
    }
  }
  return ceil(top / *step) * *step;
}

}  // namespace

std::string snapshotHtml(const SnapshotSet& set) {
  const std::vector<Capture>& captures = set.captures;
  double step = 1;
  const double end = axisEnd(captures, &step);
  const double x0 = kLabelWidth + kGutter;
  auto x = [&](double ms) { return x0 + std::max(0.0, ms) / end * kPlotWidth; };

  size_t failed = 0;
  double height = kTop;
  for (const Capture& c : captures) {
    failed += c.failed() ? 1 : 0;
    height += kRowBase + kLane * static_cast<double>(c.nodeTimes.size()) + 6;
  }
  height += 12;
  const double width = x0 + kPlotWidth + kRight;

  std::string svg;
  svg += "<svg id=\"timeline\" xmlns=\"http://www.w3.org/2000/svg\" width=\"" + num(width) + "\" height=\"" +
         num(height) + "\" viewBox=\"0 0 " + num(width) + " " + num(height) + "\">\n";
  // Axis: ticks and grid lines.
  svg += "<g class=\"axis\">";
  for (double t = 0; t <= end + step / 2; t += step) {
    svg += "<line class=\"grid\" x1=\"" + num(x(t)) + "\" y1=\"" + num(kTop - 6) + "\" x2=\"" + num(x(t)) +
           "\" y2=\"" + num(height - 8) + "\"/>";
    svg +=
        "<text class=\"tick\" x=\"" + num(x(t)) + "\" y=\"" + num(kTop - 10) + "\">" + msText(t) + "</text>";
  }
  svg += "<text class=\"tick\" x=\"" + num(x0 - kGutter / 2) + "\" y=\"" + num(kTop - 10) + "\">-1</text>";
  svg += "<text class=\"tick unit\" x=\"" + num(kLabelWidth - 8) + "\" y=\"" + num(kTop - 10) +
         "\">ms after registration</text></g>\n";

  double y = kTop;
  for (size_t i = 0; i < captures.size(); ++i) {
    const Capture& c = captures[i];
    const double rowHeight = kRowBase + kLane * static_cast<double>(c.nodeTimes.size()) + 6;
    std::string title;
    appendHtml(title, details(c));
    svg += "<g class=\"capture" + std::string(c.failed() ? " failed" : "") + "\" data-index=\"" +
           std::to_string(i) + "\"><title>" + title + "</title>";
    svg += "<rect class=\"row\" x=\"0\" y=\"" + num(y) + "\" width=\"" + num(width) + "\" height=\"" +
           num(rowHeight - 2) + "\"/>";
    std::string label;
    appendHtml(label, std::to_string(c.fwkFrame) + "  " + c.imageName);
    svg += "<text class=\"label\" x=\"8\" y=\"" + num(y + 14) + "\">" + label + "</text>";
    if (c.failed()) {
      std::string err;
      appendHtml(err, errorText(c));
      svg += "<text class=\"error\" x=\"8\" y=\"" + num(y + 26) + "\">" + err + "</text>";
    }
    // The span from registration to the last stage reached.
    const double sy = y + kStageLine;
    double last = 0;
    for (const auto& [name, ms] : c.stages)
      if (isPointStage(name)) last = std::max(last, static_cast<double>(ms));
    svg += "<line class=\"span\" x1=\"" + num(x(0)) + "\" y1=\"" + num(sy) + "\" x2=\"" + num(x(last)) +
           "\" y2=\"" + num(sy) + "\"/>";
    for (const auto& [name, ms] : c.stages) {
      std::string tip;
      appendHtml(tip, name + ": " + std::to_string(ms) + " ms");
      if (ms == -1) {
        svg += "<g class=\"stage missing\"><title>" + tip + " (-1: no time recorded)</title><circle cx=\"" +
               num(x0 - kGutter / 2) + "\" cy=\"" + num(sy) + "\" r=\"5\"/></g>";
      } else if (isPointStage(name) && ms >= 0) {
        const double cx = x(static_cast<double>(ms));
        svg += "<g class=\"stage\"><title>" + tip + "</title><path d=\"M" + num(cx) + " " + num(sy - 6) +
               "l5 6l-5 6l-5 -6z\" fill=\"" + stageColour(name) + "\"/></g>";
      }
    }
    int64_t post = 0, anchor = 0;
    if (c.stage("5request_to_post", &post) && c.stage("7anchor_time", &anchor) && post >= 0) {
      const double ax = x(static_cast<double>(post + anchor));
      svg += "<g class=\"anchor\"><title>7anchor_time: " + std::to_string(anchor) +
             " ms after 5request_to_post</title><line x1=\"" + num(ax) + "\" y1=\"" + num(sy - 8) +
             "\" x2=\"" + num(ax) + "\" y2=\"" + num(sy + 8) + "\"/></g>";
    }
    // Algorithm nodes, one lane each, from when the engine got the capture.
    const double start = static_cast<double>(c.algorithmStart());
    double ly = y + kRowBase;
    for (const auto& [node, ms] : c.nodeTimes) {
      std::string state = "none";
      for (const auto& s : c.nodeStates)
        if (s.first == node) state = s.second;
      const bool bad = c.nodeFailed(node);
      std::string tip;
      appendHtml(tip, node + ": " + (ms == -1.0 ? std::string("timed out") : msText(ms) + " ms") + ", " +
                          state + " (from " + std::to_string(c.algorithmStart()) + " ms)");
      std::string name;
      appendHtml(name, node);
      if (ms == -1.0) {
        svg += "<g class=\"node failed\"><title>" + tip + "</title><rect x=\"" + num(x(start)) + "\" y=\"" +
               num(ly) + "\" width=\"" + num(x0 + kPlotWidth - x(start)) +
               "\" height=\"8\" class=\"timedout\"/><text x=\"" + num(x(start) + 4) + "\" y=\"" +
               num(ly + 7) + "\">" + name + " timed out</text></g>";
      } else {
        const double w = std::max(1.5, x(start + ms) - x(start));
        svg += "<g class=\"node" + std::string(bad ? " failed" : "") + "\"><title>" + tip +
               "</title><rect x=\"" + num(x(start)) + "\" y=\"" + num(ly) + "\" width=\"" + num(w) +
               "\" height=\"8\"/><text x=\"" + num(x(start) + w + 4) + "\" y=\"" + num(ly + 7) + "\">" +
               name + " " + msText(ms) + " ms" + (bad ? " " + state : "") + "</text></g>";
      }
      ly += kLane;
    }
    svg += "</g>\n";
    y += rowHeight;
  }
  svg += "</svg>\n";

  // Stage colours.
  std::vector<std::string> stageNames;
  for (const Capture& c : captures)
    for (const auto& s : c.stages)
      if (isPointStage(s.first) && s.second >= 0 &&
          std::find(stageNames.begin(), stageNames.end(), s.first) == stageNames.end())
        stageNames.push_back(s.first);
  std::sort(stageNames.begin(), stageNames.end(),
            [](const std::string& a, const std::string& b) { return stageNumber(a) < stageNumber(b); });
  std::string legend;
  for (const std::string& s : stageNames) {
    std::string name;
    appendHtml(name, s);
    legend += "<span class=\"key\"><i style=\"background:" + std::string(stageColour(s)) + "\"></i>" + name +
              "</span>";
  }

  std::string data = "[";
  for (size_t i = 0; i < captures.size(); ++i) {
    if (i > 0) data += ",";
    appendJsonString(data, details(captures[i]));
  }
  data += "]";
  // Nothing inside the script element may close it.
  for (size_t at = data.find("</"); at != std::string::npos; at = data.find("</", at + 3))
    data.replace(at, 2, "<\\/");

  std::string page;
  page +=
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>Still "
      "captures</title>\n";
  page += R"(<style>
body { font: 13px/1.4 system-ui, sans-serif; margin: 16px; color: #111827; }
h1 { font-size: 18px; margin: 0 0 4px; }
.sub { color: #4b5563; margin: 0 0 8px; }
.keys { margin: 0 0 8px; }
.key { display: inline-block; margin-right: 12px; white-space: nowrap; }
.key i { display: inline-block; width: 10px; height: 10px; transform: rotate(45deg); margin-right: 5px; }
.key.missing i { background: none; border: 2px solid #f97316; border-radius: 50%; transform: none; width: 7px; height: 7px; }
.key.failed i { background: #dc2626; transform: none; }
svg text { font: 11px system-ui, sans-serif; fill: #111827; }
.tick { fill: #6b7280; text-anchor: middle; }
.tick.unit { text-anchor: end; }
.grid { stroke: #e5e7eb; }
.row { fill: #f9fafb; }
.capture:nth-of-type(2n) .row { fill: #f3f4f6; }
.capture.failed .row { fill: #fee2e2; }
.capture.hover .row { fill: #dbeafe; }
.label { font-weight: 600; }
.error { fill: #b91c1c; font-size: 10px; }
.span { stroke: #9ca3af; stroke-width: 2; }
.stage.missing circle { fill: #fff; stroke: #f97316; stroke-width: 2.5; }
.anchor line { stroke: #111827; stroke-width: 2; stroke-dasharray: 2 2; }
.node rect { fill: #60a5fa; }
.node.failed rect { fill: #dc2626; }
.node rect.timedout { fill: #fecaca; stroke: #dc2626; stroke-dasharray: 4 2; }
.node text { font-size: 10px; fill: #374151; }
.node.failed text { fill: #b91c1c; font-weight: 600; }
#details { background: #f3f4f6; padding: 8px; min-height: 3em; white-space: pre-wrap; }
</style>
</head>
<body>
)";
  page += "<h1>Still captures: " + std::to_string(captures.size()) + ", " + std::to_string(failed) +
          " failed</h1>\n";
  page +=
      "<p class=\"sub\">Stage times in ms after each capture's registration; algorithm nodes as bars from "
      "6request_to_algo (their start is not recorded); 7anchor_time marked after 5request_to_post. Hover a "
      "row for its details.</p>\n";
  page += "<div class=\"keys\">" + legend +
          "<span class=\"key missing\"><i></i>-1 (no time)</span><span class=\"key "
          "failed\"><i></i>failed</span></div>\n";
  page += svg;
  page += "<pre id=\"details\">Hover a capture for its details.</pre>\n";
  page += "<script type=\"application/json\" id=\"capture-data\">" + data + "</script>\n";
  page += R"(<script>
(function () {
  var data = JSON.parse(document.getElementById('capture-data').textContent);
  var rows = document.querySelectorAll('#timeline g.capture');
  var details = document.getElementById('details');
  rows.forEach(function (row) {
    row.addEventListener('mouseenter', function () {
      row.classList.add('hover');
      details.textContent = data[Number(row.getAttribute('data-index'))];
    });
    row.addEventListener('mouseleave', function () { row.classList.remove('hover'); });
  });
  document.body.setAttribute('data-rows', String(rows.length));
  document.body.setAttribute('data-captures', String(data.length));
})();
</script>
</body>
</html>
)";
  return page;
}

}  // namespace zulog
