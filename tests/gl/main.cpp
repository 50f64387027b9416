// GL tests run under the same hidden context the program uses, brought up
// once per process.
#include <gtest/gtest.h>

#include <memory>

#include "libglutil/ContextSession.h"

namespace {
int g_argc = 1;
char g_arg0[] = "gl_tests";
char* g_argv[] = {g_arg0, nullptr};

class GLEnvironment : public ::testing::Environment {
public:
    void SetUp() override { session_ = std::make_unique<ContextSession>(g_argc, g_argv); }
    void TearDown() override { session_.reset(); }

private:
    std::unique_ptr<ContextSession> session_;
};
}  // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new GLEnvironment);
    return RUN_ALL_TESTS();
}
