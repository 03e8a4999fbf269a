// Host system properties: an in-process store, seeded from the file named by
// ZUDEBUG_PROPS ("name=value" lines) at its first use.
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <mutex>
#include <string>
#include <unordered_map>

#include "cutils/properties.h"
#include "sys/system_properties.h"

namespace {

class PropertyStore {
 public:
  PropertyStore() {
    const char* path = getenv("ZUDEBUG_PROPS");
    if (path == nullptr || path[0] == '\0') return;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty() || line[0] == '#') continue;
      size_t eq = line.find('=');
      if (eq == std::string::npos || eq == 0) continue;
      setLocked(line.substr(0, eq), line.substr(eq + 1));
    }
  }

  // Copies the value (at most PROPERTY_VALUE_MAX - 1 bytes) into out; returns its length, 0 when unset.
  int get(const char* name, char* out) {
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mValues.find(name);
    if (it == mValues.end()) {
      out[0] = '\0';
      return 0;
    }
    size_t n = it->second.size();
    memcpy(out, it->second.c_str(), n + 1);
    return static_cast<int>(n);
  }

  int set(const char* name, const char* value) {
    if (name == nullptr || name[0] == '\0') return -1;
    std::string v = value ? value : "";
    if (v.size() >= PROPERTY_VALUE_MAX) return -1;
    std::lock_guard<std::mutex> lock(mMutex);
    setLocked(name, v);
    return 0;
  }

 private:
  void setLocked(const std::string& name, std::string value) {
    if (value.size() >= PROPERTY_VALUE_MAX) value.resize(PROPERTY_VALUE_MAX - 1);
    if (value.empty())
      mValues.erase(name);
    else
      mValues[name] = std::move(value);
  }

  std::mutex mMutex;
  std::unordered_map<std::string, std::string> mValues;
};

PropertyStore& store() {
  static PropertyStore s;
  return s;
}

int64_t getSigned(const char* key, int64_t def, int64_t lo, int64_t hi) {
  char buf[PROPERTY_VALUE_MAX];
  if (key == nullptr || store().get(key, buf) == 0) return def;
  errno = 0;
  char* end = nullptr;
  intmax_t v = strtoimax(buf, &end, 0);
  if (errno == ERANGE || end == buf || *end != '\0' || v < lo || v > hi) return def;
  return static_cast<int64_t>(v);
}

}  // namespace

extern "C" int __system_property_get(const char* name, char* value) {
  if (name == nullptr || value == nullptr) return 0;
  return store().get(name, value);
}

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  int len = __system_property_get(key, value);
  if (len > 0) return len;
  if (default_value != nullptr) {
    len = static_cast<int>(strnlen(default_value, PROPERTY_VALUE_MAX - 1));
    memcpy(value, default_value, static_cast<size_t>(len));
    value[len] = '\0';
    return len;
  }
  value[0] = '\0';
  return 0;
}

extern "C" int8_t property_get_bool(const char* key, int8_t default_value) {
  char buf[PROPERTY_VALUE_MAX];
  if (key == nullptr || store().get(key, buf) == 0) return default_value;
  if (strcmp(buf, "1") == 0 || strcmp(buf, "y") == 0 || strcmp(buf, "yes") == 0 || strcmp(buf, "on") == 0 ||
      strcmp(buf, "true") == 0)
    return 1;
  if (strcmp(buf, "0") == 0 || strcmp(buf, "n") == 0 || strcmp(buf, "no") == 0 || strcmp(buf, "off") == 0 ||
      strcmp(buf, "false") == 0)
    return 0;
  return default_value;
}

extern "C" int64_t property_get_int64(const char* key, int64_t default_value) {
  return getSigned(key, default_value, INT64_MIN, INT64_MAX);
}

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
  return static_cast<int32_t>(getSigned(key, default_value, INT32_MIN, INT32_MAX));
}

extern "C" int property_set(const char* key, const char* value) { return store().set(key, value); }
