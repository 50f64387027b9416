// The GLX vendor choice made for the private X server.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <string>

#include "libglutil/HeadlessDisplay.h"

TEST(HeadlessDisplay, GlxVendorIsChosenOnlyWhenLoadableAndUnset)
{
    const char* const var = "__GLX_VENDOR_LIBRARY_NAME";
    const char* old = std::getenv(var);
    const std::string saved = old ? old : "";
    const auto current = [&] { return std::getenv(var) ? std::string(std::getenv(var)) : "(unset)"; };

    unsetenv(var);
    EXPECT_FALSE(selectGlxVendor("libGLX_no_such_vendor.so.0", "nvidia"));
    EXPECT_EQ(current(), "(unset)");
    if (void* lib = dlopen("libGLX_nvidia.so.0", RTLD_LAZY | RTLD_LOCAL)) {
        dlclose(lib);
    } else {  // the program's own call leaves machines without the driver alone
        EXPECT_FALSE(selectGlxVendor("libGLX_nvidia.so.0", "nvidia"));
        EXPECT_EQ(current(), "(unset)");
    }
    EXPECT_TRUE(selectGlxVendor("libm.so.6", "nvidia"));  // any loadable library stands in
    EXPECT_EQ(current(), "nvidia");

    // The user's choice is kept, even an empty one.
    for (const char* choice : {"mesa", ""}) {
        setenv(var, choice, 1);
        EXPECT_FALSE(selectGlxVendor("libm.so.6", "nvidia"));
        EXPECT_EQ(current(), choice);
    }
    old ? setenv(var, saved.c_str(), 1) : unsetenv(var);
}
