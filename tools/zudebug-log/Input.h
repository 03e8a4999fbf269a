// The files a command reads: paths given on the command line, directories expanded to
// their offline text files, each file once, with the anchor that dates its lines.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "FileStamp.h"

namespace zulog {

struct InputFile {
  std::string path;
  int fd = -1;
  uint64_t size = 0;
  YearResolver years;
  bool errorInfo = false;  // the error-information file: its empty lines only separate records
  int order = 0;           // input order, which settles equal times
};

// What went wrong or was left out while reading, reported on stderr at the end.
struct InputProblems {
  std::vector<std::string> messages;
  bool failed = false;  // a path could not be read at all
};

class InputSet {
 public:
  InputSet() = default;
  ~InputSet();
  InputSet(const InputSet&) = delete;
  InputSet& operator=(const InputSet&) = delete;

  // Adds a file or a directory. Files named without a stamp are dated by their last
  // change (their lines were written before it); problems are noted in `problems`.
  void add(const std::string& path, InputProblems& problems);
  // Puts the error-information files last in input order: their lines repeat the logs'.
  void finish();

  std::vector<InputFile>& files() { return mFiles; }

 private:
  void addFile(const std::string& path, bool fromDirectory, InputProblems& problems);
  std::vector<InputFile> mFiles;
  std::vector<std::pair<uint64_t, uint64_t>> mSeen;  // device and inode
};

}  // namespace zulog
