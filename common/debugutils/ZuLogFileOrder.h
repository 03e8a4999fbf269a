// The order in which the camera processes opened their offline log files, kept in the
// offline directory itself: the clock may jump (a device that boots with a reset
// clock), this order does not. Rotation deletes by it, and spares the files that hold
// a crash record or a recovery notice before older ones without.
//
// ".ZuCam_open_order" holds one line per event, appended with a single write:
//   "<file name>"   the file was opened (its first line is its place)
//   "!<file name>"  the file holds a crash record or a recovery notice
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <string>

namespace zudebug {
namespace logorder {

constexpr const char* kOrderFileName = ".ZuCam_open_order";

struct Entry {
  uint64_t place = 0;  // when it was opened, among the files listed
  bool evidence = false;
};

// Appends "<name>" (`evidence`: "!<name>") to the order file of the device directory
// `dir`. Allocates nothing and takes no lock: the crash catcher notes the files it
// writes itself.
void note(const char* dir, const char* name, bool evidence);
// The same for a directory given as the path this build opens (no device-path mapping).
void noteIn(const char* hostDir, const char* name, bool evidence);
// Every file the order file lists, by name. Past 64 KiB the order file is written
// again with only the names in `existing` (the directory's files now).
std::map<std::string, Entry> read(const char* dir, const std::set<std::string>& existing);

}  // namespace logorder
}  // namespace zudebug
