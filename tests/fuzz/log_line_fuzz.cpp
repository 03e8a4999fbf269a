// Feeds arbitrary bytes as offline log files to the line parser and the merge: no
// crash, every stamped line and every line of text comes out exactly once, and the
// stamped lines in time order.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Crash.h"
#include "Filter.h"
#include "Guards.h"
#include "Input.h"
#include "LineReader.h"
#include "LogLine.h"
#include "Merge.h"
#include "Output.h"

namespace {

struct Collect : zulog::LineSink {
  std::vector<int64_t> keys;
  size_t stamped = 0, text = 0;
  bool line(const zulog::MergedLine& l) override {
    if (l.stamp != nullptr) {
      ++stamped;
      keys.push_back(l.key);
    } else {
      ++text;
    }
    return true;
  }
};

// Every reader of merged lines at once: the text and JSON writers, the crash record
// and guard timeout finders.
struct Readers : zulog::LineSink {
  explicit Readers(zulog::Writer& out) : text(out, true), json(out) {}
  zulog::TextSink text;
  zulog::JsonlSink json;
  zulog::CrashFinder crashes{3};
  zulog::GuardFinder guards;
  bool line(const zulog::MergedLine& l) override {
    text.line(l);
    json.line(l);
    crashes.line(l);
    guards.line(l);
    return true;
  }
};

zulog::Writer* gOut = nullptr;  // to /dev/null, made once: its buffer is large

zulog::InputFile fileOf(const uint8_t* data, size_t size, int order) {
  zulog::InputFile f;
  f.path = "fuzz" + std::to_string(order);
  f.fd = memfd_create(f.path.c_str(), MFD_CLOEXEC);
  if (f.fd < 0 || write(f.fd, data, size) != static_cast<ssize_t>(size)) abort();
  f.size = size;
  f.years = zulog::YearResolver(2024, 6, 15, zulog::YearResolver::kLogDaysBefore);
  f.order = order;
  return f;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Each line on its own: the views stay inside it and the values in their ranges.
  const char* text = reinterpret_cast<const char*>(data);
  for (size_t start = 0; start < size;) {
    const void* nl = memchr(text + start, '\n', size - start);
    const size_t end = nl != nullptr ? static_cast<size_t>(static_cast<const char*>(nl) - text) : size;
    const std::string_view line(text + start, end - start);
    zulog::LogLine parsed;
    if (zulog::parseLine(line, &parsed)) {
      const zulog::Stamp& s = parsed.stamp;
      if (s.month < 1 || s.month > 12 || s.day < 1 || s.day > 31 || s.secondOfDay > 86400 || s.nanos < 0 ||
          s.nanos > 999999999)
        abort();
      for (std::string_view v : {parsed.tag, parsed.label, parsed.file, parsed.func, parsed.msg})
        if (v.data() != nullptr &&
            (v.data() < line.data() || v.data() + v.size() > line.data() + line.size()))
          abort();
    }
    zulog::isTextLine(line);
    start = end + 1;
  }

  // The bytes as two files, split where the first byte says.
  const size_t split = size == 0 ? 0 : (data[0] * size) / 256;
  std::vector<zulog::InputFile> files = {fileOf(data, split, 0), fileOf(data + split, size - split, 1)};
  size_t stamped = 0, textLines = 0;
  for (const zulog::InputFile& f : files) {
    zulog::LineReader reader(f.fd, 0, f.size, 4096);
    zulog::RawLine raw;
    zulog::ClassifiedLine c;
    size_t fileStamped = 0, fileText = 0;
    while (reader.next(&raw)) {
      zulog::classifyLine(raw, f, &c, nullptr);
      if (c.kind == zulog::LineKind::Stamped) ++fileStamped;
      if (c.kind == zulog::LineKind::Text) ++fileText;
    }
    // A file without a stamped line is not a log: none of its lines are read.
    if (fileStamped > 0) {
      stamped += fileStamped;
      textLines += fileText;
    }
  }
  Collect sink;
  zulog::mergeFiles(files, sink, nullptr);
  if (sink.stamped != stamped || sink.text != textLines) abort();
  for (size_t i = 1; i < sink.keys.size(); ++i)
    if (sink.keys[i] < sink.keys[i - 1]) abort();

  // The same lines through the readers, and a filter that parses every line.
  if (gOut == nullptr) gOut = new zulog::Writer(open("/dev/null", O_WRONLY | O_CLOEXEC));
  {
    zulog::Writer& out = *gOut;
    Readers readers(out);
    zulog::Filter filter;
    filter.addGroup("HAL,ZuAlgoEngine");
    filter.setSince("00:00");
    zulog::mergeFiles(files, readers, size % 2 == 0 ? &filter : nullptr);
    readers.json.finish();
    for (const zulog::CrashRecord& r : readers.crashes.finish()) {
      if (r.lines.empty()) abort();
      for (const std::string& f : r.frameTexts) {
        zulog::FrameLine frame;
        zulog::parseFrameLine(f, &frame);
      }
    }
    zulog::printGuardStory(out, readers.guards.timeouts());
    out.flush();
  }
  for (zulog::InputFile& f : files) close(f.fd);
  return 0;
}
