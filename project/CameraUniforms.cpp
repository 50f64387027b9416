#include "project/CameraUniforms.h"

#include "project/CameraMatrix.h"

void setCameraUniforms(const Shader& program, const ImageEntry& entry, const Texture& in, const Texture& out,
                       std::pair<float, float> correction, std::pair<float, float> stripOffset)
{
    const Mat3 cameraMat = cameraMatrix(entry.yaw, entry.pitch, entry.roll, correction, stripOffset);
    program.setMatrix3("cameraMat", cameraMat.data());
    program.setUniform("fov", entry.fov);
    program.setUniform("lens_a", entry.a);
    program.setUniform("lens_b", entry.b);
    program.setUniform("lens_c", entry.c);
    program.setUniform("lens_d", entry.d);
    program.setUniform("lens_e", entry.e);
    // Plain query: an absent "vign" is a variant of the shader, not an error
    // worth the named lookup's warning.
    if (glGetUniformLocation(program.program(), "vign") != -1) {
        program.setUniform("exposureOffset", entry.exposure);
        program.setUniform("vign", entry.vb, entry.vc, entry.vd);
    }
    program.setUniform("inSize", float(in.width()), float(in.height()));
    program.setUniform("outSize", float(out.width()), float(out.height()));
}
