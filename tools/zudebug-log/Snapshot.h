// Still captures from the snapshot dumps, in either form the diagnostician writes:
// - the JSON collection file (praxErrorSnapdump.json): one member per camera session,
//   holding the array of its failed captures;
// - the daily text dump (PRAX_DumpInfo_<date>.txt, also copied between banners into
//   the camera service's dump): one {"SnapshotRecord":{...}} line per capture, whose
//   tables are strings of "key:value, " pairs.
// Stage times are milliseconds after the capture's registration. "1request_to_zuhal"
// always holds -1; "7anchor_time" counts from "5request_to_post"; "8getbuffer_from_fwk"
// and "12post_proc_time" are 0 once reached.
#pragma once

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

namespace zulog {

class Writer;

struct Capture {
  std::string sessionUUID;
  int64_t sessionId = -1;  // -1 when not given
  int64_t fwkFrame = -1;
  std::string imageName;
  std::vector<std::string> errors;                        // as recorded, or (JSON form) read from the tables
  bool fromText = false;                                  // read from the text dump, which records the errors
  std::vector<std::pair<std::string, int64_t>> stages;    // in stage order
  std::vector<std::pair<std::string, double>> nodeTimes;  // by node name
  std::vector<std::pair<std::string, std::string>> nodeStates;  // by node name
  std::vector<std::pair<std::string, std::string>> vendorResults;
  std::string requestInfo;  // "phgType 2, anchorFrame 1011, ..." for the details
  std::string source;       // "file:line" or "file: session"

  bool failed() const { return !errors.empty(); }
  // The stage's value, or false when the capture did not reach it.
  bool stage(const std::string& name, int64_t* ms) const;
  bool nodeFailed(const std::string& name) const;
  // When the algorithm engine got the capture: the nodes' bars start there.
  int64_t algorithmStart() const;
};

// The number a stage name starts with ("12post_proc_time" is 12); 99 without one.
int stageNumber(const std::string& name);

struct SnapshotSet {
  std::vector<Capture> captures;  // by session (first seen), then frame
  std::vector<std::string> messages;
  bool failed = false;  // a file could not be read at all
};

// Reads every file; the same capture read twice (both forms, or dumped twice) is one
// row, its latest data kept (the text form, which holds the error texts, over JSON).
SnapshotSet readSnapshots(const std::vector<std::string>& paths);

void printSnapshotTable(Writer& out, const SnapshotSet& set);
std::string snapshotHtml(const SnapshotSet& set);
std::string snapshotTrace(const SnapshotSet& set);

}  // namespace zulog
