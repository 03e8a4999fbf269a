#include "ZuDebugUtils.h"
#include <gtest/gtest.h>
TEST(Smoke, GroupTable) { EXPECT_STREQ(zudebug::Log::zuaGroupToString(64), "[HAL ]"); }
