#include <gtest/gtest.h>

#include "app/PathUtil.h"

TEST(PathUtil, HasExtensionIn)
{
    EXPECT_TRUE(hasExtensionIn("pano.hdr", "hdr exr"));
    EXPECT_TRUE(hasExtensionIn("dir/pano.EXR", "hdr exr"));  // lower-cased first
    EXPECT_FALSE(hasExtensionIn("pano.tsp", "hdr exr"));
    EXPECT_TRUE(hasExtensionIn("pano.tsp", "tsp"));
    // A plain substring search: "dr" and "r e" are inside "hdr exr".
    EXPECT_TRUE(hasExtensionIn("pano.dr", "hdr exr"));
    EXPECT_TRUE(hasExtensionIn("pano.r e", "hdr exr"));
    // No extension never matches, not even the empty text inside the list.
    EXPECT_FALSE(hasExtensionIn("pano", "hdr exr"));
    EXPECT_FALSE(hasExtensionIn("pano.", "hdr exr"));
    EXPECT_FALSE(hasExtensionIn("dir.hdr/pano", "hdr exr"));  // the directory's dot is not an extension
    EXPECT_FALSE(hasExtensionIn("", "hdr exr"));
}

TEST(PathUtil, EndsWithSeparator)
{
    EXPECT_TRUE(endsWithSeparator("out/"));
    EXPECT_TRUE(endsWithSeparator("out\\"));
    EXPECT_FALSE(endsWithSeparator("out/pano"));
    EXPECT_FALSE(endsWithSeparator(""));
}
