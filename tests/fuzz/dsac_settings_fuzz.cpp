// Feeds arbitrary texts to the DSAC settings reader and checks that every member it
// keeps landed in the map its value and the tunable table call for.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "PropertyControll.h"
#include "ZuDebugUtils.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zudebug::gZuCamLogGroup = 0;  // the reader logs every member; keep the run quiet
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto s = zudebug::PraxDsacSettings::fromText(std::string(reinterpret_cast<const char*>(data), size));
  for (const auto& kv : s->mUint32Map)
    if (s->getPropName(kv.first, zudebug::TYPE_INDEX) != "UINT32") abort();
  for (const auto& kv : s->mUint64Map)
    if (s->getPropName(kv.first, zudebug::TYPE_INDEX) != "UINT64") abort();
  for (const auto& kv : s->mIntMap) {
    std::string type = s->getPropName(kv.first, zudebug::TYPE_INDEX);
    if (type.empty() || type == "UINT32" || type == "UINT64") abort();
  }
  return 0;
}
