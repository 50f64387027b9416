// The camera uniforms one draw of the stitching receives, read back from the
// program.
#include <gtest/gtest.h>

#include <string>

#include "glutil_helpers.h"
#include "libglutil/Shader.h"
#include "libglutil/Texture.h"
#include "project/CameraMatrix.h"
#include "project/CameraUniforms.h"

namespace {

ImageEntry sampleEntry()
{
    ImageEntry e;
    e.yaw = 37;
    e.pitch = -21;
    e.roll = -88;
    e.fov = 169.25f;
    e.a = -0.055f;
    e.b = -0.03f;
    e.c = -0.0085f;
    e.d = -32;
    e.e = 113;
    e.exposure = 1.5f;
    e.va = 0.9f;
    e.vb = -0.06f;
    e.vc = -0.08f;
    e.vd = -0.07f;
    return e;
}

std::vector<float> uniform(const Shader& s, const char* name, int count)
{
    std::vector<float> v(16, -12345.0f);
    const GLint location = glGetUniformLocation(s.program(), name);
    EXPECT_NE(location, -1) << name;
    if (location != -1) glGetUniformfv(s.program(), location, v.data());
    v.resize(count);
    return v;
}

class CameraUniforms : public ::testing::Test {
protected:
    static void SetUpTestSuite() { installTestShaders(); }
    // A 3000 x 2000 source drawn into a 480 x 1200 strip.
    Texture in{3000, 2000, GL_RGBA8};
    Texture out{480, 1200, GL_RGBA8};
    const std::pair<float, float> correction{4.5f, -7.25f};
    const std::pair<float, float> strip{-108.0f, 0.0f};
};

TEST_F(CameraUniforms, EveryValueReachesItsUniform)
{
    Shader s("test_camera_uniforms", "");
    s.use();
    const ImageEntry e = sampleEntry();
    ::testing::internal::CaptureStderr();
    setCameraUniforms(s, e, in, out, correction, strip);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");

    // Column-major and untransposed: exactly the nine stored floats, with
    // the correction and the strip offset each in its own place.
    const Mat3 m = cameraMatrix(e.yaw, e.pitch, e.roll, correction, strip);
    const std::vector<float> got = uniform(s, "cameraMat", 9);
    for (int i = 0; i < 9; ++i)
        EXPECT_FLOAT_EQ(got[i], m[i]) << "element " << i;
    EXPECT_NE(m[1], m[3]);  // a transposed matrix would not pass the loop above

    EXPECT_FLOAT_EQ(uniform(s, "fov", 1)[0], 169.25f);
    EXPECT_FLOAT_EQ(uniform(s, "lens_a", 1)[0], -0.055f);
    EXPECT_FLOAT_EQ(uniform(s, "lens_b", 1)[0], -0.03f);
    EXPECT_FLOAT_EQ(uniform(s, "lens_c", 1)[0], -0.0085f);
    EXPECT_FLOAT_EQ(uniform(s, "lens_d", 1)[0], -32);
    EXPECT_FLOAT_EQ(uniform(s, "lens_e", 1)[0], 113);
    EXPECT_FLOAT_EQ(uniform(s, "exposureOffset", 1)[0], 1.5f);
    // va stays on the CPU: vign holds vb, vc, vd.
    EXPECT_EQ(uniform(s, "vign", 3), (std::vector<float>{-0.06f, -0.08f, -0.07f}));
    EXPECT_EQ(uniform(s, "inSize", 2), (std::vector<float>{3000, 2000}));
    EXPECT_EQ(uniform(s, "outSize", 2), (std::vector<float>{480, 1200}));
}

TEST_F(CameraUniforms, WithoutVignExposureIsLeftAlone)
{
    Shader s("test_camera_uniforms", "#define NO_VIGN\n");
    s.use();
    ::testing::internal::CaptureStderr();
    setCameraUniforms(s, sampleEntry(), in, out, correction, strip);
    // The vign probe is silent, and exposureOffset is switched with it.
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(uniform(s, "exposureOffset", 1)[0], 0.0f);
    EXPECT_FLOAT_EQ(uniform(s, "lens_e", 1)[0], 113);
    EXPECT_EQ(uniform(s, "outSize", 2), (std::vector<float>{480, 1200}));
}

TEST_F(CameraUniforms, MissingUniformIsReportedByTheNamedLookup)
{
    Shader s("test_camera_uniforms", "#define NO_LENS_E\n");
    s.use();
    ::testing::internal::CaptureStderr();
    setCameraUniforms(s, sampleEntry(), in, out, correction, strip);
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("No such uniform named 'lens_e'"), std::string::npos) << log;
    // The others still arrive.
    EXPECT_EQ(uniform(s, "inSize", 2), (std::vector<float>{3000, 2000}));
}

}  // namespace
