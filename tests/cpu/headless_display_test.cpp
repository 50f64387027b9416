// The GLX vendor choice made for the private X server.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "libglutil/HeadlessDisplay.h"

namespace {
const char* const kVar = "__GLX_VENDOR_LIBRARY_NAME";

// Restores the variable as it was before the test.
class VendorVariable : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char* v = std::getenv(kVar))
            saved_ = v;
        unsetenv(kVar);
    }
    void TearDown() override
    {
        if (saved_)
            setenv(kVar, saved_->c_str(), 1);
        else
            unsetenv(kVar);
    }
    static std::string current()
    {
        const char* v = std::getenv(kVar);
        return v ? v : "(unset)";
    }

private:
    std::optional<std::string> saved_;
};
}  // namespace

TEST_F(VendorVariable, MissingVendorLibraryChangesNothing)
{
    EXPECT_FALSE(selectGlxVendor("libGLX_no_such_vendor.so.0", "nvidia"));
    EXPECT_EQ(current(), "(unset)");

    // The real NVIDIA library is absent on machines without its driver: the
    // program's own call leaves the environment alone there.
    if (void* lib = dlopen("libGLX_nvidia.so.0", RTLD_LAZY | RTLD_LOCAL)) {
        dlclose(lib);
        GTEST_SKIP() << "NVIDIA's GLX library is installed here";
    }
    EXPECT_FALSE(selectGlxVendor("libGLX_nvidia.so.0", "nvidia"));
    EXPECT_EQ(current(), "(unset)");
}

TEST_F(VendorVariable, LoadableVendorLibraryIsSelected)
{
    // Any library that loads stands in for the vendor's.
    EXPECT_TRUE(selectGlxVendor("libm.so.6", "nvidia"));
    EXPECT_EQ(current(), "nvidia");
}

TEST_F(VendorVariable, UserChoiceIsKept)
{
    setenv(kVar, "mesa", 1);
    EXPECT_FALSE(selectGlxVendor("libm.so.6", "nvidia"));
    EXPECT_EQ(current(), "mesa");
    // Set but empty is a choice too.
    setenv(kVar, "", 1);
    EXPECT_FALSE(selectGlxVendor("libm.so.6", "nvidia"));
    EXPECT_EQ(current(), "");
}
