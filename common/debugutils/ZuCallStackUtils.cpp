#include "ZuCallStackUtils.h"

namespace zudebug {}  // namespace zudebug
