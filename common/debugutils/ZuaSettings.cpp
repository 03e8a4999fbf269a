#include "ZuaSettings.h"

namespace zudebug {}  // namespace zudebug
