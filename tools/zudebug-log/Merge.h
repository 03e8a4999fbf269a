// Every line of every input, once, in time order.
//
// A file holds one 1 MiB queue of one thread after another, each already in time
// order, so a file falls into runs wherever time goes backwards. A first pass finds
// the runs; the merge then streams all runs of all files at once through a heap keyed
// by (time, input order, file offset), so equal times keep their input order and memory
// goes with the number of runs, a fixed buffer each, not with the bytes read. A line
// without a time stamp follows the line before it in its file; one before the first
// stamped line of its file goes just before that line.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "Input.h"
#include "LineReader.h"

namespace zulog {

struct MergedLine {
  std::string_view text;  // without the newline
  const InputFile* file;
  int64_t key;         // wall-clock nanoseconds (of the stamped line it follows)
  const Stamp* stamp;  // null for a line without a stamp
};

class LineSink {
 public:
  virtual ~LineSink() = default;
  // False stops the merge.
  virtual bool line(const MergedLine& line) = 0;
};

// Decides on stamped lines; the lines without a stamp after one share its fate.
class LineFilter {
 public:
  virtual ~LineFilter() = default;
  // Called once before the first line with the time of the earliest line read.
  virtual void start(int64_t earliest) { (void)earliest; }
  virtual bool keep(const MergedLine& line) = 0;
  // No stamped line at or after `key` can pass: the merge may stop.
  virtual bool pastEnd(int64_t key) const = 0;
};

struct MergeReport {
  uint64_t lines = 0;                 // handed to the sink
  std::vector<std::string> messages;  // per file: what was skipped, foreign files
};

struct Run {
  uint64_t begin, end;
  int64_t firstKey;
};

// The runs of one file, with what the first pass skipped.
std::vector<Run> findRuns(const InputFile& file, ReadStats* stats, uint64_t* stampedLines);

// Reads `files` and hands their lines to `sink` in time order.
MergeReport mergeFiles(std::vector<InputFile>& files, LineSink& sink, LineFilter* filter);

}  // namespace zulog
