// Logo pass, CPU side: band and tile geometry (what a viewer sees is checked
// on the rendered band).
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "passes/Logo.h"

TEST(FinishLogoGeometry, TilesBandHeightAndFov)
{
    EXPECT_EQ(logoTileCount(21000), 5);
    EXPECT_EQ(logoTileCount(24606), 6);
    EXPECT_EQ(logoBandHeight(18.0f, 10500), 1050);
    EXPECT_EQ(logoBandHeight(36.0f, 10500), 2100);
    EXPECT_EQ(logoBandHeight(18.0f, 999), 99);  // truncated, not rounded (99.9)

    const char* old = std::getenv("LOGO_FOV");
    const std::string saved = old ? old : "";
    unsetenv("LOGO_FOV");
    EXPECT_FLOAT_EQ(logoFov(), 18.0f);
    setenv("LOGO_FOV", "36", 1);
    EXPECT_FLOAT_EQ(logoFov(), 36.0f);
    setenv("LOGO_FOV", "wide", 1);
    EXPECT_THROW(logoFov(), std::invalid_argument);
    old ? setenv("LOGO_FOV", saved.c_str(), 1) : unsetenv("LOGO_FOV");
}
