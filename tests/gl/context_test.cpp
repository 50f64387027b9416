#include <gtest/gtest.h>
#include "libglutil/QtContext.h"
TEST(Context, VersionNumberIsSane) { EXPECT_GE(glVersionNumber(), 20); }
