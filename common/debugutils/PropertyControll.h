// DSAC tunables: the property control table (one row per tunable: property name,
// default text and value type) and the reader of
// "/odm/etc/camera/zorvex/DSACSettings.json", which sorts the file's members into
// typed maps.
//
// The library does not merge file values and properties for these tunables. A host
// resolves a tunable itself: when mUsePropPriority is true a set property wins over
// the file, otherwise the file wins over the property; the table default comes last.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "ZuDebugExport.h"

namespace zudebug {

// Element of a row of the property control table.
enum mapindex : int32_t {
  PROP_NAME_INDEX = 0,      // full system property name
  DEFAULT_VALUE_INDEX = 1,  // default value as text
  TYPE_INDEX = 2,           // "BOOL", "UINT32" or "STRING"
};

// The parsed DSAC document; kept by the reader, opaque to hosts.
struct DsacDocument;

class ZUDEBUG_EXPORT PraxDsacSettings {
 public:
  // The one instance; the file is read and sorted at the first call.
  static PraxDsacSettings* getInstance();

  // Sorts a DSAC settings text exactly as the file would be sorted, into a new
  // reader independent of the process-wide one (tools, fuzzing, dry runs of a file).
  static std::unique_ptr<PraxDsacSettings> fromText(const std::string& text);

  // Row element `index` of tunable `name`; the empty string for a name not in the
  // table (names are compared exactly, case included). `index` must be 0, 1 or 2.
  std::string getPropName(const std::string& name, mapindex index);

  // Reads property `propName` into `value` (92 bytes) with default "false"; true
  // when it is set to something else. An empty name gives false and leaves `value`.
  bool getPropValue(const char* propName, char* value);

  ~PraxDsacSettings();
  PraxDsacSettings(const PraxDsacSettings&) = delete;
  PraxDsacSettings& operator=(const PraxDsacSettings&) = delete;

 private:
  // Declared before the maps, so that at exit the maps go first, then the document.
  std::unique_ptr<DsacDocument> mDocument;

 public:
  // The file's members by value type, filled by the constructor and never changed
  // afterwards: hosts read them, from any thread, without a lock.
  std::map<std::string, bool> mBoolMap;
  std::map<std::string, int32_t> mIntMap;
  std::map<std::string, uint32_t> mUint32Map;
  std::map<std::string, uint64_t> mUint64Map;
  std::map<std::string, std::string> mStringMap;
  // True unless the file holds "UsePropPriority" with a value other than true.
  bool mUsePropPriority = true;

 private:
  // Reads the settings file when `text` is null, otherwise sorts `text`.
  explicit PraxDsacSettings(const std::string* text);
};

}  // namespace zudebug
