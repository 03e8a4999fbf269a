#include "ThreadPool.h"

namespace zudebug {}  // namespace zudebug
