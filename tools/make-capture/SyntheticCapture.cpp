#include "tools/make-capture/SyntheticCapture.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

#include "image/Colour.h"
#include "image/Jpeg.h"
#include "image/OutputFile.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"

namespace {

constexpr double kRad = kPi / 180.0;

// Row-major 3x3 rotations in double precision, the lens conventions' Rx, Ry,
// Rz (angles in degrees).
using R3 = std::array<double, 9>;

R3 mul(const R3& p, const R3& q)
{
    R3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            r[3 * i + j] = p[3 * i] * q[j] + p[3 * i + 1] * q[3 + j] + p[3 * i + 2] * q[6 + j];
    return r;
}
R3 rx(double deg)
{
    const double c = std::cos(deg * kRad), s = std::sin(deg * kRad);
    return {1, 0, 0, 0, c, -s, 0, s, c};
}
R3 ry(double deg)
{
    const double c = std::cos(deg * kRad), s = std::sin(deg * kRad);
    return {c, 0, s, 0, 1, 0, -s, 0, c};
}
R3 rz(double deg)
{
    const double c = std::cos(deg * kRad), s = std::sin(deg * kRad);
    return {c, -s, 0, s, c, 0, 0, 0, 1};
}
std::array<double, 3> rotate(const R3& m, const std::array<double, 3>& v)
{
    return {m[0] * v[0] + m[1] * v[1] + m[2] * v[2], m[3] * v[0] + m[4] * v[1] + m[5] * v[2],
            m[6] * v[0] + m[7] * v[1] + m[8] * v[2]};
}

// World to camera of the lens conventions: Rz(roll) Rx(pitch) Ry(-yaw).
R3 worldToCamera(double yaw, double pitch, double roll) { return mul(mul(rz(roll), rx(pitch)), ry(-yaw)); }

// The angles of a world-to-camera rotation: the optical axis (third row)
// gives yaw and pitch, what remains is the roll about it.
void anglesOf(const R3& m, double& yaw, double& pitch, double& roll)
{
    pitch = std::asin(std::clamp(m[7], -1.0, 1.0)) / kRad;
    yaw = std::atan2(m[6], m[8]) / kRad;
    const R3 n = mul(mul(m, ry(yaw)), rx(-pitch));
    roll = std::atan2(n[3], n[0]) / kRad;
}

double wrap180(double deg)
{
    deg = std::fmod(deg, 360.0);
    if (deg > 180) deg -= 360;
    if (deg <= -180) deg += 360;
    return deg;
}

// A number as the script writes it: fixed notation (the script's number
// pattern has no "+" and no exponent sign other than "-"), no trailing zeros,
// enough digits for a float to read back what was meant.
std::string num(double v)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.7f", v);
    std::string s = buf;
    if (s.find('.') != std::string::npos) {
        s.erase(s.find_last_not_of('0') + 1);
        if (s.back() == '.') s.pop_back();
    }
    if (s == "-0") s = "0";
    return s;
}

// The value the import will hold for `v`.
float asRead(double v) { return std::stof(num(v)); }

double vignettingOf(const ImageEntry& e, double w, double h, double x, double y)
{
    const double dx = x - (w - 1) / 2, dy = y - (h - 1) / 2;
    const double r2 = (dx * dx + dy * dy) / (0.25 * (w * w + h * h));
    return e.va + r2 * (e.vb + r2 * (e.vc + r2 * e.vd));
}

R3 inverse(const R3& m)
{
    const double det = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                       m[2] * (m[3] * m[7] - m[4] * m[6]);
    if (det == 0) return R3{};
    const R3 adj = {m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                    m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                    m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
    R3 r;
    for (int i = 0; i < 9; ++i)
        r[i] = adj[i] / det;
    return r;
}

void writeText(const std::string& path, const std::string& text)
{
    AtomicOutputFile(path).write([&](std::ofstream& out) { out << text; });
}

}  // namespace

FloatImage readPanoramaExr(const std::string& path)
{
    try {
        Imf::InputFile file(path.c_str());
        const Imath::Box2i dw = file.header().dataWindow();
        const int64_t w = int64_t(dw.max.x) - dw.min.x + 1, h = int64_t(dw.max.y) - dw.min.y + 1;
        if (w <= 0 || h <= 0 || w * h > (int64_t(1) << 26))
            throw std::runtime_error("unsupported size " + std::to_string(w) + "x" + std::to_string(h));
        FloatImage img{int(w), int(h)};
        Imf::FrameBuffer fb;
        // Slot of pixel (0, 0) of the data window, which need not start at 0.
        char* base = reinterpret_cast<char*>(img.rgb.data()) -
                     (int64_t(dw.min.y) * w + dw.min.x) * int64_t(3 * sizeof(float));
        const char* names[3] = {"R", "G", "B"};
        for (int c = 0; c < 3; ++c)
            fb.insert(names[c], Imf::Slice(Imf::FLOAT, base + c * sizeof(float), 3 * sizeof(float),
                                           size_t(w) * 3 * sizeof(float), 1, 1, 0.0));
        file.setFrameBuffer(fb);
        file.readPixels(dw.min.y, dw.max.y);
        for (float& v : img.rgb)
            if (!(v >= 0) || !std::isfinite(v)) v = 0;  // negative, NaN and infinite texels
        return img;
    } catch (const std::exception& e) {
        throw std::runtime_error("Error reading panorama '" + path + "': " + e.what());
    }
}

std::array<float, 3> samplePanorama(const FloatImage& pano, const std::array<double, 3>& dir)
{
    // Single precision is ample for locating a panorama pixel (1e-7 rad
    // against pixels of 1e-3 rad) and twice as fast as double.
    const float dx = float(dir[0]), dy = float(dir[1]), dz = float(dir[2]);
    const double lon = std::atan2(dx, dz) * (180 / kPi);
    const double lat = std::atan2(dy, std::sqrt(dx * dx + dz * dz)) * (180 / kPi);
    const int w = pano.width, h = pano.height;
    const double x = lon * w / 360.0 + (w - 1) / 2.0;
    const double y = std::clamp((h - 1) / 2.0 - lat * h / 180.0, 0.0, h - 1.0);
    const double fx0 = std::floor(x), fy0 = std::floor(y);
    const double fx = x - fx0, fy = y - fy0;
    const int x0 = ((int(fx0) % w) + w) % w, x1 = (x0 + 1) % w;
    const int y0 = int(fy0), y1 = std::min(y0 + 1, h - 1);
    const float *p00 = pano.pixel(x0, y0), *p10 = pano.pixel(x1, y0);
    const float *p01 = pano.pixel(x0, y1), *p11 = pano.pixel(x1, y1);
    std::array<float, 3> out;
    for (int c = 0; c < 3; ++c)
        out[c] = float((1 - fy) * ((1 - fx) * p00[c] + fx * p10[c]) + fy * ((1 - fx) * p01[c] + fx * p11[c]));
    return out;
}

double ldrGain(const FloatImage& pano, double percentile, double level)
{
    std::vector<float> maxima(size_t(pano.width) * pano.height);
    for (size_t i = 0; i < maxima.size(); ++i)
        maxima[i] = std::max({pano.rgb[3 * i], pano.rgb[3 * i + 1], pano.rgb[3 * i + 2]});
    if (maxima.empty()) return 1;
    const size_t k = std::min(maxima.size() - 1, size_t(percentile * (maxima.size() - 1)));
    std::nth_element(maxima.begin(), maxima.begin() + k, maxima.end());
    return maxima[k] > 0 ? level / maxima[k] : 1;
}

std::array<double, 9> colourMatrixFor(int width)
{
    const ColourMatrix* stored = cameraColourMatrix(width);
    if (!stored)
        return {};
    std::array<double, 9> m;
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k)
            m[3 * r + k] = (*stored)[3 * k + r];
    return m;
}

Project Capture::project() const
{
    Project p;
    for (const CaptureShot& s : shots)
        p.images.push_back(s.entry);
    if (hasOrientation) p.images.push_back(orientation);
    return p;
}

void placeCameras(Capture& cap);
Capture planRig(const CaptureOptions& o, Capture& cap);

static std::string shotName(const CaptureOptions& o, int index)
{
    char name[32];
    std::snprintf(name, sizeof name, "-%02d.%s", index, o.hdr ? "hdr" : "jpg");
    return o.stem + name;
}

// Exposure (when asked for) and the vignetting curve (when asked for) of a shot.
static void setPhotometry(ImageEntry& e, const CaptureOptions& o, double ev)
{
    e.exposure = o.exposure ? asRead(ev) : 0.0f;
    e.va = 1;
    e.vb = o.vignetting ? asRead(-0.2) : 0.0f;
    e.vc = o.vignetting ? asRead(-0.1) : 0.0f;
    e.vd = o.vignetting ? asRead(0.05) : 0.0f;
}

Capture planCapture(const CaptureOptions& o)
{
    if (!(o.scale > 0 && o.scale <= 4)) throw std::runtime_error("capture scale must be in (0, 4]");
    if (o.hdr && colourMatrixFor(o.colourKey) == std::array<double, 9>{})
        throw std::runtime_error("HDR captures need entry 0 as wide as a key of the colour matrix table (3666, "
                                 "3753, 3868, 4500, 5856), not " + std::to_string(o.colourKey));
    Capture cap;
    cap.options = o;
    cap.fisheye = o.layout == CaptureLayout::Fisheye;
    cap.general = o.layout != CaptureLayout::Fisheye && o.layout != CaptureLayout::TwoRing;
    if (cap.general) return planRig(o, cap);
    const int count = cap.fisheye ? 6 : 13;

    // Full size: 4000 x 6000 portrait frames (24 megapixels), shot with roll
    // -90. The fisheye is the reference camera of the lens conventions; the
    // two-ring camera a rectilinear lens with mild distortion.
    const int w = std::max(8, int(std::lround(4000 * o.scale)));
    const int h = int(std::lround(w * 1.5));
    const double v = cap.fisheye ? 169 : 90;
    const double a = cap.fisheye ? -0.055 : 0.002, b = cap.fisheye ? -0.03 : -0.011,
                 c = cap.fisheye ? -0.0085 : 0.006;
    const double d0 = cap.fisheye ? -32 : 15, e0 = cap.fisheye ? 113 : -10.8;  // at width 4000

    ImageEntry& link = cap.link;
    link.fov = asRead(v);
    link.projection = cap.fisheye ? Projection::CircularFisheye : Projection::Rectilinear;
    link.a = asRead(a);
    link.b = asRead(b);
    link.c = asRead(c);
    link.d = asRead(d0 * w / 4000.0);
    link.e = asRead(e0 * w / 4000.0);

    std::mt19937 rng(o.seed);
    std::uniform_real_distribution<double> jitter(-1, 1);
    const double ringPitch = cap.fisheye ? o.ringPitch : (o.ringPitch != 0 ? std::abs(o.ringPitch) : 25.0);
    // Per-image exposure values (EV) when asked for: a spread like that of an
    // auto-exposed series, within what 8 bits keep without much clipping.
    static const double kEv[] = {0.0, 0.4, -0.3, 0.7, -0.5, 0.2, -0.2};

    for (int i = 0; i < count; ++i) {
        double yaw = 0, pitch = o.zenith ? 90 : -90;
        if (i > 0) {
            if (cap.fisheye) {
                yaw = 72.0 * (i - 1);
                pitch = ringPitch;
            } else if (i <= 6) {
                yaw = 60.0 * (i - 1);
                pitch = ringPitch;
            } else {
                // Ring two sits half a slot left of ring one: the stitcher's
                // strip i (relative longitudes (i-1)*60 - 45 .. + 15) draws
                // ring-two entries i + 6 and i + 7, which must bracket it.
                yaw = 60.0 * (i - 7) - 30;
                pitch = -ringPitch;
            }
        }
        double roll = -90;
        if (o.jitter > 0) {
            yaw += o.jitter * jitter(rng);
            pitch = std::clamp(pitch + o.jitter * jitter(rng), -90.0, 90.0);
            roll += o.jitter * jitter(rng);
        }

        CaptureShot shot;
        ImageEntry& e = shot.entry;
        e.fileName = shotName(o, i);
        e.width = w;
        e.height = h;
        if (i == 0 && o.hdr) {
            // The renderer picks its colour matrix by the width of entry 0.
            e.width = o.colourKey;
            e.height = int(std::lround(o.colourKey * 1.5));
        }
        e.yaw = asRead(wrap180(yaw + o.ptsYawOffset));
        e.pitch = asRead(pitch);
        e.roll = asRead(roll);
        e.fov = link.fov;
        e.projection = cap.fisheye ? Projection::CircularFisheye : Projection::Rectilinear;
        e.a = link.a;
        e.b = link.b;
        e.c = link.c;
        e.d = e.width == w ? link.d : asRead(d0 * e.width / 4000.0);
        e.e = e.width == w ? link.e : asRead(e0 * e.width / 4000.0);
        setPhotometry(e, o, kEv[i % 7]);
        cap.shots.push_back(shot);
    }

    placeCameras(cap);
    return cap;
}

// The orientation line and where the cameras really point, for planned shots.
void placeCameras(Capture& cap)
{
    const CaptureOptions& o = cap.options;
    const double yaw1 = cap.shots[size_t(cap.referenceShot())].entry.yaw;
    double levelPitch = 0, levelRoll = 0;
    if (o.orientation) {
        cap.hasOrientation = true;
        ImageEntry& oe = cap.orientation;
        oe.fileName = kOrientationName;
        // The line carries the absolute heading of the first ring image: the
        // renderer subtracts that image's script yaw and turns the result to
        // the centre, which puts world longitude 0 there.
        oe.yaw = asRead(o.heading + yaw1);
        oe.pitch = asRead(o.levelPitch);
        oe.roll = asRead(o.levelRoll);
        oe.fov = asRead(o.orientationTilt);
        levelPitch = oe.pitch;
        levelRoll = oe.roll;
    }

    // Where the cameras really point: the renderer computes
    //   C = Rz(r) Rx(p) Ry(-yaw) Ry(yaw1) [Rx(corrPitch) Rz(corrRoll)] D_rel,
    // and the capture makes C = M_world D_world with
    //   M_world = Rz(r) Rx(p) Ry(-yaw) Ry(yaw1) Rx(levelPitch) Rz(levelRoll) Ry(-heading),
    // so that with the correction applied D_rel is the world direction turned
    // by -heading.
    const R3 rigToWorld = mul(mul(mul(ry(yaw1), rx(levelPitch)), rz(levelRoll)), ry(-o.heading));
    for (CaptureShot& s : cap.shots) {
        const ImageEntry& e = s.entry;
        const R3 m = mul(worldToCamera(e.yaw, e.pitch, e.roll), rigToWorld);
        LensModel& lens = s.camera;
        lens = lensModelOf(e);
        anglesOf(m, lens.yaw, lens.pitch, lens.roll);
    }
    if (o.hdr) cap.colourMatrix = colourMatrixFor(cap.shots[0].entry.width);
    // The renderer keeps the colours of a camera of a general rig that its
    // table does not know.
    if (o.hdr && cap.general && cap.colourMatrix == std::array<double, 9>{})
        cap.colourMatrix = {1, 0, 0, 0, 1, 0, 0, 0, 1};
}

Capture planRig(const CaptureOptions& o, Capture& cap)
{
    static const double kEv[] = {0.0, 0.7, -0.5, 0.4, -0.3, 0.2, -0.2, 0.5};
    struct Shot {
        double yaw, pitch, roll;
    };
    std::vector<Shot> shots;
    Projection projection = Projection::CircularFisheye;
    int w = 0, h = 0;
    double v = 0, circle = 0;  // circle: diameter of a circular crop (pixels)
    if (o.layout == CaptureLayout::RectilinearRing) {
        projection = Projection::Rectilinear;
        w = std::max(8, int(std::lround(4000 * o.scale)));
        h = int(std::lround(w * 1.5));
        v = 90;
        for (int i = 0; i < 6; ++i)
            shots.push_back({60.0 * i, 0, -90});
        shots.push_back({0, 90, 0});
        shots.push_back({0, -90, 0});
    } else {
        // Landscape frames; the circle of 185 (three shots: 190) degrees
        // fills 95 % of the frame's height, so v, across the width, is larger.
        const bool four = o.layout == CaptureLayout::CircularFour;
        w = std::max(12, int(std::lround(6000 * o.scale)));
        h = int(std::lround(w / 1.5));
        circle = std::round(0.95 * h);
        v = (four ? 185.0 : 190.0) * w / circle;
        for (int i = 0; i < (four ? 4 : 3); ++i)
            shots.push_back({(four ? 90.0 : 120.0) * i, four ? 10.0 : 0.0, 0});
    }
    std::mt19937 rng(o.seed);
    std::uniform_real_distribution<double> jitter(-1, 1);
    for (size_t i = 0; i < shots.size(); ++i) {
        CaptureShot shot;
        ImageEntry& e = shot.entry;
        e.fileName = shotName(o, int(i));
        e.width = w;
        e.height = h;
        e.projection = projection;
        const double j = o.jitter;
        e.yaw = asRead(wrap180(shots[i].yaw + o.ptsYawOffset + j * jitter(rng)));
        e.pitch = asRead(std::clamp(shots[i].pitch + j * jitter(rng), -90.0, 90.0));
        e.roll = asRead(shots[i].roll + j * jitter(rng));
        e.fov = asRead(v);
        e.b = asRead(projection == Projection::Rectilinear ? -0.01 : -0.02);
        if (circle > 0) {
            const int left = int(std::lround((w - circle) / 2)), top = int(std::lround((h - circle) / 2));
            e.crop = {left, left + int(circle), top, top + int(circle)};
        }
        setPhotometry(e, o, kEv[i % 8]);
        cap.shots.push_back(shot);
    }
    cap.link = cap.shots[0].entry;
    placeCameras(cap);
    return cap;
}

bool insideCrop(const ImageEntry& e, double x, double y, double margin)
{
    if (x < margin - 0.5 || x > e.width - 0.5 - margin || y < margin - 0.5 || y > e.height - 0.5 - margin)
        return false;
    if (e.crop.empty()) return true;
    const double cx = (e.crop.left + e.crop.right) / 2.0 - 0.5, cy = (e.crop.top + e.crop.bottom) / 2.0 - 0.5;
    const double hx = (e.crop.right - e.crop.left) / 2.0 - margin, hy = (e.crop.bottom - e.crop.top) / 2.0 - margin;
    if (hx <= 0 || hy <= 0) return false;
    const double dx = (x - cx) / hx, dy = (y - cy) / hy;
    if (e.projection == Projection::CircularFisheye) return dx * dx + dy * dy <= 1;
    return std::abs(dx) <= 1 && std::abs(dy) <= 1;
}

FloatImage renderShot(const FloatImage& pano, const Capture& cap, int index)
{
    const CaptureShot& shot = cap.shots.at(index);
    const ImageEntry& e = shot.entry;
    const LensProjection proj(shot.camera);
    const CaptureOptions& o = cap.options;

    // At least 2 x 2 samples a pixel (or the fixed count asked for). Where a
    // source pixel covers more than a panorama pixel (small images, and the
    // fisheye near the fold of its distortion, where pixels stretch
    // radially) the count rises to about two samples per panorama pixel.
    const double panoPixel = 2 * kPi / std::max(1, pano.width);
    const int baseCount = o.supersample > 0 ? o.supersample : 2;
    const int maxCount = o.supersample > 0 ? o.supersample : 8;
    const double evFactor = std::exp2(o.panoEv - e.exposure) * o.sceneGain;
    const bool hdr = o.hdr;
    const R3 toCamera = hdr ? inverse(cap.colourMatrix) : R3{};

    FloatImage out(e.width, e.height);
    const int w = e.width, h = e.height;
#pragma omp parallel for schedule(dynamic, 8)
    for (int y = 0; y < h; ++y) {
        double rho = -1;
        std::vector<std::array<double, 3>> dirs;
        std::vector<char> ok;
        for (int x = 0; x < w; ++x) {
            double acc[3] = {0, 0, 0};
            int valid = 0;
            for (int n = baseCount;;) {
                dirs.resize(size_t(n) * n);
                ok.assign(size_t(n) * n, 0);
                for (int sy = 0; sy < n; ++sy)
                    for (int sx = 0; sx < n; ++sx) {
                        const double px = x + (sx + 0.5) / n - 0.5, py = y + (sy + 0.5) / n - 0.5;
                        ok[sy * n + sx] = proj.toDirection(px, py, dirs[sy * n + sx], &rho);
                        if (!ok[sy * n + sx]) rho = -1;
                    }
                // Footprint: the largest angle between neighbouring samples,
                // times the samples per pixel.
                double spacing = 0;
                for (int i = 0; i < n * n; ++i)
                    for (int j : {i + 1, i + n}) {
                        if ((j == i + 1 && (i + 1) % n == 0) || j >= n * n || !ok[i] || !ok[j]) continue;
                        const auto &a = dirs[i], &b = dirs[j];
                        const double dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2];
                        spacing = std::max(spacing, std::sqrt(dx * dx + dy * dy + dz * dz));
                    }
                const int wanted = int(std::ceil(2 * spacing * n / panoPixel));
                if (wanted > n && n < maxCount) {
                    n = std::min(maxCount, wanted);
                    continue;
                }
                for (int sy = 0; sy < n; ++sy)
                    for (int sx = 0; sx < n; ++sx) {
                        if (!ok[sy * n + sx]) continue;
                        const double px = x + (sx + 0.5) / n - 0.5, py = y + (sy + 0.5) / n - 0.5;
                        const std::array<float, 3> s = samplePanorama(pano, dirs[sy * n + sx]);
                        const double vig = vignettingOf(e, w, h, px, py);
                        for (int ch = 0; ch < 3; ++ch)
                            acc[ch] += s[ch] * vig;
                        ++valid;
                    }
                break;
            }
            // A pixel on the edge of the reachable disc averages only the
            // samples that have a direction, so the disc keeps a clean edge.
            float* p = out.pixel(x, y);
            const double k = valid ? evFactor / valid : 0;
            if (hdr) {
                const std::array<double, 3> cam = rotate(toCamera, {acc[0] * k, acc[1] * k, acc[2] * k});
                for (int ch = 0; ch < 3; ++ch)
                    p[ch] = float(std::max(0.0, cam[ch]));
            } else {
                for (int ch = 0; ch < 3; ++ch)
                    p[ch] = float(acc[ch] * k);
            }
        }
    }
    // Outside a crop the sensor sees nothing of the scene (black, or a test
    // colour that must not reach the panorama).
    if (!e.crop.empty())
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                if (!insideCrop(e, x, y, 0)) std::copy(o.outsideCrop.begin(), o.outsideCrop.end(), out.pixel(x, y));
    return out;
}

std::string ptsScript(const Capture& cap, const std::string& sourceName)
{
    std::string s;
    s += "# pts stitching script of a synthetic capture";
    if (!sourceName.empty()) s += " of " + sourceName;
    s += "\n# written by tessara-make-capture\n";
    s += "p f2 w8000 h4000 v360  k0 E0 R0 n\"TIFF_m c:LZW r:CROP\"\n";
    s += "m i0\n\n";
    // The option block a stitcher writes before its image lines.
    static const char* kOptions[] = {
        "#-fileversion 1", "#-outputlinearimage false", "#-outputldrlayers false", "#-outputldrblended true",
        "#-outputhdrblended false", "#-outputhdrlayers false", "#-outputldrexposurelayers false",
        "#-outputldrexposureblended false", "#-outputldrstacks false", "#-outputhdrstacks false",
        "#-outputlayersexposure false", "#-outputimagetype tif", "#-outputimagetypecompression LZW",
        "#-outputjpegquality 90", "#-outputimagetypehdr exr", "#-outputimagetypehdrcompression LZW",
        "#-outputstacksminoverlap 0.7", "#-outputlayersexposurediff 0.5", "#-optimizeReferenceImage 1",
        "#-colorReferenceImage 1", "#-exposurefusionparams -m 0.95", "#-blender internal",
        "#-blendfusionparams -f", "#-verdandioptions ", "#-ldrfileversion 0", "#-edgedetection 1",
        "#-photometricrefine 0", "#-projectionmode equirectangular"};
    for (const char* line : kOptions)
        s += std::string(line) + "\n";
    s += "\n# image lines\n";
    const ImageEntry& l = cap.link;
    const auto lensType = [](Projection p) {
        return p == Projection::Rectilinear ? "f0" : p == Projection::CircularFisheye ? "f2" : "f3";
    };
    const char* f = lensType(l.projection);
    s += "o w1 h1 y0 r0 p0 v" + num(l.fov) + " a" + num(l.a) + " b" + num(l.b) + " c" + num(l.c) + " " + f +
         " d" + num(l.d) + " e" + num(l.e) + " g0 t0 Va1 Vb0 Vc0 Vd0 Vx0 Vy0  Vm5 u10 n\"dummy.jpg\"\n";
    for (const CaptureShot& shot : cap.shots) {
        const ImageEntry& e = shot.entry;
        s += "#-imgfile " + std::to_string(e.width) + " " + std::to_string(e.height) + " \"" + e.fileName + "\"\n";
        s += "#-exposureparams 0 0 0 " + num(e.exposure) + "\n";
        s += "#-libpano_vignettingparams Va" + num(e.va) + " Vb" + num(e.vb) + " Vc" + num(e.vc) + " Vd" +
             num(e.vd) + " Vx0 Vy0\n";
        auto linked = [&](float value, float linkValue) { return value == linkValue ? std::string("=0") : num(value); };
        const std::string crop = e.crop.empty() ? std::string()
                                                 : " C" + std::to_string(e.crop.left) + "," + std::to_string(e.crop.right) +
                                                       "," + std::to_string(e.crop.top) + "," +
                                                       std::to_string(e.crop.bottom);
        s += std::string("o ") + lensType(e.projection) + " y" + num(e.yaw) + " r" + num(e.roll) + " p" + num(e.pitch) + " v" +
             linked(e.fov, l.fov) + " a" + linked(e.a, l.a) + " b" + linked(e.b, l.b) + " c" + linked(e.c, l.c) +
             " d" + linked(e.d, l.d) + " e" + linked(e.e, l.e) + " g=0 t=0" + crop + "\n";
    }

    // Control points at directions both images of a neighbouring pair see,
    // at their ideal positions (numbered from 0, as stitchers number images).
    s += "\n# control points\n";
    const int n = int(cap.shots.size());
    std::vector<std::pair<int, int>> pairs;
    const int ring = cap.fisheye ? 5 : 6;
    for (int k = 1; k <= ring; ++k) {
        pairs.push_back({0, k});
        pairs.push_back({k, k % ring + 1});
        if (!cap.fisheye) {
            pairs.push_back({k, k + 6});
            pairs.push_back({k + 6, (k % 6) + 7});
        }
    }
    bool wroteLinePoint = false;
    for (const auto& [i, j] : pairs) {
        if (i >= n || j >= n) continue;
        const LensProjection pi(cap.shots[i].camera), pj(cap.shots[j].camera);
        const auto axis = [](const LensModel& m) { return directionOf(m.yaw, m.pitch); };
        const auto ai = axis(cap.shots[i].camera), aj = axis(cap.shots[j].camera);
        for (double t : {0.5, 0.4, 0.6}) {
            std::array<double, 3> dir = {ai[0] * (1 - t) + aj[0] * t, ai[1] * (1 - t) + aj[1] * t,
                                         ai[2] * (1 - t) + aj[2] * t};
            const double len = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
            if (len < 1e-9) continue;
            for (double& x : dir)
                x /= len;
            double x1, y1, x2, y2;
            if (pi.toPixel(dir, x1, y1) && pj.toPixel(dir, x2, y2))
                s += "c n" + std::to_string(i) + " N" + std::to_string(j) + " x" + num(x1) + " y" + num(y1) + " X" +
                     num(x2) + " Y" + num(y2) + " t0\n";
        }
        if (!wroteLinePoint && i > 0) {
            // A vertical-line point pair; the renderer has no use for it.
            s += "c n" + std::to_string(i) + " N" + std::to_string(i) + " x10 y20 X10 Y400 t1\n";
            wroteLinePoint = true;
        }
    }
    if (cap.hasOrientation) {
        const ImageEntry& oe = cap.orientation;
        s += "\n#orientation_abs_slot1 y" + num(oe.yaw) + " r" + num(oe.roll) + " p" + num(oe.pitch) + " t" +
             num(oe.fov) + "\n";
    }
    return s;
}

std::string tspDocument(const Capture& cap)
{
    std::string s = "{\n";
    s += "  \"timestamp\": \"2021-01-05T10:20:30\",\n";
    s += "  \"capture-time\": \"14.2 s\",\n";
    s += "  \"ui\": {\"aperture\": \"f/8\", \"max-iso\": \"400\", \"base-exp-time\": \"1/250\", \"hdr-mode\": \"";
    s += cap.options.hdr ? "5 EV" : "off";
    s += "\"},\n";
    s += "  \"preview-ev\": \"0\",\n";
    s += std::string("  \"lens-focal-length\": \"") + (cap.fisheye ? "8.0 mm" : "18.0 mm") + "\",\n";
    s += "  \"slots\": {";
    for (size_t i = 0; i < cap.shots.size(); ++i)
        s += std::string(i ? ",\n" : "\n") + "    \"" + std::to_string(i) + "\": {\"y\": " +
             num(cap.shots[i].entry.yaw) + ", \"p\": " + num(cap.shots[i].entry.pitch) + "}";
    s += "\n  },\n";
    s += "  \"gps\": {\"latitude\": 47.376886, \"longitude\": 8.541694, \"altitude\": 408.5}";
    if (cap.hasOrientation) {
        const ImageEntry& oe = cap.orientation;
        s += ",\n  \"orientation\": {\"yaw\": " + num(oe.yaw) + ", \"pitch\": " + num(oe.pitch) +
             ", \"roll\": " + num(oe.roll) + ", \"tilt\": " + num(oe.fov) + "}";
    }
    s += "\n}\n";
    return s;
}

namespace {

// A well-mixed 64-bit value of the inputs (the finaliser of splitmix64).
uint64_t mix(uint64_t a, uint64_t b, uint64_t c)
{
    uint64_t z = a * 0x9E3779B97F4A7C15ull ^ (b + 0x632BE59BD9B4E019ull) * 0xBF58476D1CE4E5B9ull ^
                 (c + 0x2545F4914F6CDD1Dull) * 0x94D049BB133111EBull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Uniform in [-1, 1) from 16 bits of h, starting at bit `shift`.
double signedUnit(uint64_t h, int shift)
{
    return double((h >> shift) & 0xFFFF) / 32768.0 - 1.0;
}

}  // namespace

void addDetail(FloatImage& img, double amount, unsigned seed, int index)
{
    if (amount <= 0)
        return;
    // Cells of 3 x 3 pixels, each of its own level, give edges every few
    // pixels; the grain varies per pixel and per channel.
    constexpr int kCell = 3;
    const uint64_t key = (uint64_t(seed) << 20) ^ uint64_t(index);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) {
            const uint64_t cell = mix(key, uint64_t(x / kCell), uint64_t(y / kCell));
            const uint64_t grain = mix(key + 1, uint64_t(x), uint64_t(y));
            // Mostly brightness, as most of a photograph's detail is.
            const double shared = 0.4 * signedUnit(cell, 0) + 0.45 * signedUnit(grain, 48);
            float* p = img.pixel(x, y);
            for (int c = 0; c < 3; ++c) {
                const double t = shared + 0.15 * signedUnit(grain, 16 * c);
                p[c] = float(p[c] * std::exp2(amount * t));
            }
        }
}

std::string writeShot(const FloatImage& pano, const Capture& cap, int index, const std::string& dir)
{
    FloatImage img = renderShot(pano, cap, index);
    addDetail(img, cap.options.detail, cap.options.seed, index);
    const std::string path = (std::filesystem::path(dir) / cap.shots.at(index).entry.fileName).string();
    if (cap.options.hdr) {
        Image rgbe(img.width, img.height, 4);
#pragma omp parallel for
        for (int y = 0; y < img.height; ++y)
            for (int x = 0; x < img.width; ++x) {
                const float* p = img.pixel(x, y);
                uint8_t* q = rgbe.pixel(x, y);
                // The encoder truncates; adding half a step of the pixel's
                // exponent makes it round to nearest.
                floatToRgbe(p[0], p[1], p[2], q);
                if (q[3]) {
                    const float half = 0.5f * std::ldexp(1.0f, int(q[3]) - 136);
                    floatToRgbe(p[0] + half, p[1] + half, p[2] + half, q);
                }
            }
        writeRadianceFile(rgbe, path);
    } else {
        Image rgb(img.width, img.height, 3);
#pragma omp parallel for
        for (int y = 0; y < img.height; ++y)
            for (int x = 0; x < img.width; ++x)
                for (int c = 0; c < 3; ++c)
                    rgb.pixel(x, y)[c] = uint8_t(std::lround(255 * srgbEncode(img.pixel(x, y)[c])));
        writeJpeg(rgb, path);
    }
    return path;
}

std::vector<std::string> writeCaptureScripts(const Capture& cap, const std::string& dir, bool tsp,
                                             const std::string& sourceName)
{
    std::filesystem::create_directories(dir);
    const std::string stem = (std::filesystem::path(dir) / cap.options.stem).string();
    std::vector<std::string> written;
    writeText(stem + ".pts", ptsScript(cap, sourceName));
    written.push_back(stem + ".pts");
    if (tsp) {
        writeText(stem + ".tsp", tspDocument(cap));
        written.push_back(stem + ".tsp");
    }
    return written;
}

std::vector<std::string> writeCapture(const FloatImage& pano, const Capture& cap, const std::string& dir, bool tsp,
                                      const std::string& sourceName)
{
    std::filesystem::create_directories(dir);
    std::vector<std::string> written;
    for (size_t i = 0; i < cap.shots.size(); ++i)
        written.push_back(writeShot(pano, cap, int(i), dir));
    for (const std::string& path : writeCaptureScripts(cap, dir, tsp, sourceName))
        written.push_back(path);
    return written;
}

std::array<double, 9> truthFrame(const Capture& cap, bool useOrientation)
{
    const CaptureOptions& o = cap.options;
    const double levelPitch = cap.hasOrientation ? cap.orientation.pitch : 0.0;
    const double levelRoll = cap.hasOrientation ? cap.orientation.roll : 0.0;
    // World from the renderer's relative frame: Ry(heading) G^-1 Q, where G
    // is the capture's level error and Q the correction the renderer applies.
    R3 frame = mul(mul(ry(o.heading), rz(-levelRoll)), rx(-levelPitch));
    double centre = 0;
    if (useOrientation && cap.hasOrientation) {
        frame = mul(mul(frame, rx(levelPitch)), rz(levelRoll));
        // The renderer's heading, taken relative to its reference image as it does.
        centre = -(double(cap.orientation.yaw) - double(cap.shots[size_t(cap.referenceShot())].entry.yaw));
    }
    return mul(frame, ry(centre));
}

FloatImage renderTruth(const FloatImage& pano, const Capture& cap, int width, bool useOrientation,
                       std::vector<uint8_t>* coverage, double margin)
{
    const int height = width / 2;
    const R3 frame = truthFrame(cap, useOrientation);
    FloatImage out(width, height);
    std::vector<LensProjection> projections;
    for (const CaptureShot& s : cap.shots)
        projections.emplace_back(s.camera);
    if (coverage) coverage->assign(size_t(width) * height, 0);
    const float gain = float(cap.options.sceneGain);

    // One sample a pixel while the output is at least as fine as the
    // panorama (more would only blur it), more where it is coarser.
    const int n = std::max(1, int(std::ceil(double(pano.width) / width)));
#pragma omp parallel for schedule(dynamic, 4)
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            float acc[3] = {0, 0, 0};
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i) {
                    const double sx = x + (i + 0.5) / n - 0.5, sy = y + (j + 0.5) / n - 0.5;
                    const double lon = (sx - (width - 1) / 2.0) * 360.0 / width;
                    const double lat = ((height - 1) / 2.0 - sy) * 180.0 / height;
                    const std::array<float, 3> v = samplePanorama(pano, rotate(frame, directionOf(lon, lat)));
                    for (int c = 0; c < 3; ++c)
                        acc[c] += v[c] * gain / float(n * n);
                }
            std::copy(acc, acc + 3, out.pixel(x, y));
            if (coverage) {
                const double lon = (x - (width - 1) / 2.0) * 360.0 / width;
                const double lat = ((height - 1) / 2.0 - y) * 180.0 / height;
                const std::array<double, 3> dir = rotate(frame, directionOf(lon, lat));
                int seen = 0;
                for (const LensProjection& p : projections) {
                    double px, py;
                    if (p.toPixel(dir, px, py) && insideCrop(cap.shots[&p - projections.data()].entry, px, py, margin))
                        ++seen;
                }
                (*coverage)[size_t(y) * width + x] = uint8_t(seen);
            }
        }
    return out;
}
