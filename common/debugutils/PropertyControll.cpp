#include "PropertyControll.h"

namespace zudebug {}  // namespace zudebug
