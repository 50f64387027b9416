#include <gtest/gtest.h>
#include "app/StageTimer.h"
TEST(StageTimer, Placeholder) { StageTimer t; EXPECT_EQ(t.count, 0); }
