#include "Merge.h"

#include <stdint.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

namespace zulog {

namespace {

constexpr size_t kScanBuffer = 1 << 20;
constexpr size_t kRunBuffer = 32 * 1024;

// One run being merged: its next line waits here until it is the earliest.
struct Cursor {
  Cursor(const InputFile& f, const Run& run)
      : file(&f), reader(f.fd, run.begin, run.end, kRunBuffer), key(run.firstKey) {}
  const InputFile* file;
  LineReader reader;
  ClassifiedLine head;
  uint64_t headOffset = 0;
  int64_t key;  // of the last stamped line, which a line without a stamp inherits

  // The next line kept; false at the end of the run.
  bool advance() {
    RawLine raw;
    while (reader.next(&raw)) {
      classifyLine(raw, *file, &head, nullptr);
      if (head.kind == LineKind::Skip) continue;
      headOffset = raw.offset;
      if (head.kind == LineKind::Stamped) key = head.key;
      return true;
    }
    return false;
  }
  MergedLine merged() const {
    return MergedLine{head.text, file, key, head.kind == LineKind::Stamped ? &head.stamp : nullptr};
  }
};

inline bool earlier(const Cursor* a, const Cursor* b) {
  if (a->key != b->key) return a->key < b->key;
  if (a->file->order != b->file->order) return a->file->order < b->file->order;
  return a->headOffset < b->headOffset;
}

// A binary min-heap of cursors.
class CursorHeap {
 public:
  void push(Cursor* c) {
    mItems.push_back(c);
    size_t i = mItems.size() - 1;
    while (i > 0) {
      size_t parent = (i - 1) / 2;
      if (!earlier(mItems[i], mItems[parent])) break;
      std::swap(mItems[i], mItems[parent]);
      i = parent;
    }
  }
  bool empty() const { return mItems.empty(); }
  Cursor* top() const { return mItems[0]; }
  // The top's key changed (it only grows): move it down.
  void siftTop() {
    const size_t n = mItems.size();
    size_t i = 0;
    Cursor* moving = mItems[0];
    for (;;) {
      size_t child = 2 * i + 1;
      if (child >= n) break;
      if (child + 1 < n && earlier(mItems[child + 1], mItems[child])) ++child;
      if (!earlier(mItems[child], moving)) break;
      mItems[i] = mItems[child];
      i = child;
    }
    mItems[i] = moving;
  }
  void popTop() {
    mItems[0] = mItems.back();
    mItems.pop_back();
    if (!mItems.empty()) siftTop();
  }

 private:
  std::vector<Cursor*> mItems;
};

// The error-information file repeats the error lines of the logs word for word; a
// repeat is left out when the log's own copy was printed at the same time.
class RepeatCheck {
 public:
  void printed(const MergedLine& l) {
    if (l.stamp == nullptr || l.file->errorInfo) return;
    if (l.key != mKey) {
      mKey = l.key;
      mCount = 0;
    }
    if (mCount == mTexts.size()) mTexts.emplace_back();
    mTexts[mCount++].assign(l.text.data(), l.text.size());
  }
  bool isRepeat(const MergedLine& l) const {
    if (l.key != mKey) return false;
    for (size_t i = 0; i < mCount; ++i)
      if (mTexts[i] == l.text) return true;
    return false;
  }

 private:
  int64_t mKey = INT64_MIN;
  std::vector<std::string> mTexts;
  size_t mCount = 0;
};

}  // namespace

std::vector<Run> findRuns(const InputFile& file, ReadStats* stats, uint64_t* stampedLines) {
  std::vector<Run> runs;
  LineReader reader(file.fd, 0, file.size, kScanBuffer);
  RawLine raw;
  ClassifiedLine line;
  int64_t last = 0;
  while (reader.next(&raw)) {
    classifyLine(raw, file, &line, stats);
    if (line.kind != LineKind::Stamped) continue;
    ++*stampedLines;
    if (runs.empty()) {
      runs.push_back(Run{0, file.size, line.key});  // from 0: lines before it go with it
    } else if (line.key < last) {
      runs.back().end = raw.offset;
      runs.push_back(Run{raw.offset, file.size, line.key});
    }
    last = line.key;
  }
  stats->readError = reader.error();
  return runs;
}

MergeReport mergeFiles(std::vector<InputFile>& files, LineSink& sink, LineFilter* filter) {
  MergeReport report;
  std::vector<std::unique_ptr<Cursor>> cursors;
  bool haveErrorInfo = false;
  // The first pass reads each file on its own: spread the files over the cores.
  std::vector<std::vector<Run>> runsOf(files.size());
  std::vector<ReadStats> statsOf(files.size());
  std::atomic<size_t> nextFile{0};
  auto scan = [&] {
    for (size_t i; (i = nextFile.fetch_add(1)) < files.size();) {
      uint64_t stamped = 0;
      runsOf[i] = findRuns(files[i], &statsOf[i], &stamped);
    }
  };
  const size_t workers =
      std::min<size_t>(std::min(4u, std::max(1u, std::thread::hardware_concurrency())), files.size());
  std::vector<std::thread> scanners;
  for (size_t w = 1; w < workers; ++w) scanners.emplace_back(scan);
  scan();
  for (std::thread& t : scanners) t.join();

  for (size_t i = 0; i < files.size(); ++i) {
    const InputFile& f = files[i];
    const std::vector<Run>& runs = runsOf[i];
    std::string problems = statsOf[i].describe();
    if (runs.empty() && f.size > 0) {
      report.messages.push_back(f.path + ": not an offline log (no line with a time stamp); skipped");
      continue;
    }
    if (!problems.empty()) report.messages.push_back(f.path + ": " + problems);
    haveErrorInfo = haveErrorInfo || f.errorInfo;
    for (const Run& r : runs) cursors.push_back(std::make_unique<Cursor>(f, r));
  }

  CursorHeap heap;
  for (auto& c : cursors)
    if (c->advance()) heap.push(c.get());
  if (filter != nullptr && !heap.empty()) filter->start(heap.top()->key);

  RepeatCheck repeats;
  while (!heap.empty()) {
    Cursor* c = heap.top();
    MergedLine line = c->merged();
    if (filter != nullptr && line.stamp != nullptr && filter->pastEnd(line.key)) break;
    bool keep = filter == nullptr || filter->keep(line);
    if (keep && haveErrorInfo) {
      if (line.file->errorInfo && repeats.isRepeat(line)) keep = false;
      if (keep) repeats.printed(line);
    }
    if (keep) {
      ++report.lines;
      if (!sink.line(line)) return report;
    }
    // The lines without a stamp behind it go with it, before any other run.
    bool more;
    while ((more = c->advance()) && c->head.kind == LineKind::Text) {
      if (!keep) continue;
      ++report.lines;
      if (!sink.line(c->merged())) return report;
    }
    if (more)
      heap.siftTop();
    else
      heap.popTop();
  }
  return report;
}

}  // namespace zulog
