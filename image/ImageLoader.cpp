#include "image/ImageLoader.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "image/OptionHash.h"
#include "image/PathUtil.h"
#include "image/Picture.h"
#include "libglutil/StageTimer.h"
#include "image/ExponentStats.h"
#include "image/FormatText.h"
#include "image/Jpeg.h"
#include "image/Ppm.h"
#include "image/Radiance.h"
#include "image/Rgbe.h"
#include "libglutil/BesideExecutable.h"

extern char** environ;

namespace {

bool isExecutableFile(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}


[[noreturn]] void throwExecError(const std::string& command, int error)
{
    throw std::runtime_error("Error opening/executing '" + command + "': " + std::strerror(error));
}

// The two decoder processes and the read end of the pipe from the second one.
// Closing always reaps both children, so no failure path leaves a zombie or
// a process blocked on a pipe nobody reads (closing our end first makes a
// writer still running get EPIPE and end).
class RawPipeline {
public:
    RawPipeline(const std::string& path)
    {
        const std::string dcraw = toolPath("dcraw");
        const std::string djpeg = toolPath("djpeg");
        // Shown in messages only; it never reaches a shell.
        command_ = "\"" + dcraw + "\" -e -c \"" + path + "\" | \"" + djpeg + "\" -fast -ppm -scale 1/8";

        int between[2] = {-1, -1};
        int fromDjpeg[2] = {-1, -1};
        // Close-on-exec everywhere: each child keeps only the ends dup2'ed to
        // its standard streams, so end-of-file arrives when the writers exit.
        if (pipe2(between, O_CLOEXEC) != 0)
            throwExecError(command_, errno);
        if (pipe2(fromDjpeg, O_CLOEXEC) != 0) {
            const int e = errno;
            ::close(between[0]);
            ::close(between[1]);
            throwExecError(command_, e);
        }
        // dcraw takes any argument starting with '-' or '+' for an option, so
        // a relative name such as "-e.cr2" is passed as "./-e.cr2".
        std::string pathArg = !path.empty() && path[0] == '/' ? path : "./" + path;
        std::string dcrawArg = dcraw, djpegArg = djpeg;
        char e[] = "-e", c[] = "-c", fast[] = "-fast", ppm[] = "-ppm", scale[] = "-scale", eighth[] = "1/8";
        char* dcrawArgv[] = {dcrawArg.data(), e, c, pathArg.data(), nullptr};
        char* djpegArgv[] = {djpegArg.data(), fast, ppm, scale, eighth, nullptr};

        int error = spawn(&dcrawPid_, dcraw, dcrawArgv, -1, between[1]);
        if (error == 0)
            error = spawn(&djpegPid_, djpeg, djpegArgv, between[0], fromDjpeg[1]);
        ::close(between[0]);
        ::close(between[1]);
        ::close(fromDjpeg[1]);
        if (error == 0) {
            stream_ = fdopen(fromDjpeg[0], "rb");
            if (!stream_)
                error = errno;
        }
        if (error != 0) {
            if (!stream_)
                ::close(fromDjpeg[0]);
            close();
            throwExecError(command_, error);
        }
    }

    ~RawPipeline() { close(); }
    RawPipeline(const RawPipeline&) = delete;
    RawPipeline& operator=(const RawPipeline&) = delete;

    FILE* stream() const { return stream_; }

    void close()
    {
        if (stream_) {
            std::fclose(stream_);
            stream_ = nullptr;
        }
        reap(dcrawPid_);
        reap(djpegPid_);
    }

private:
    // Starts `program` with its standard input and output redirected (-1 keeps
    // ours). A program that does not exist or cannot be executed is not an
    // error: its end of the pipe simply stays empty, as when a command
    // interpreter fails to find it. Returns an errno for real set-up failures.
    static int spawn(pid_t* pid, const std::string& program, char* const argv[], int in, int out)
    {
        posix_spawn_file_actions_t actions;
        int rc = posix_spawn_file_actions_init(&actions);
        if (rc != 0)
            return rc;
        if (in >= 0)
            rc = posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
        if (rc == 0)
            rc = posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
        if (rc == 0)
            rc = posix_spawn(pid, program.c_str(), &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0)
            *pid = -1;
        switch (rc) {
        case ENOENT: case EACCES: case ENOEXEC: case ENOTDIR: case ELOOP: case ENAMETOOLONG: case EPERM:
            return 0;
        default:
            return rc;
        }
    }

    static void reap(pid_t& pid)
    {
        if (pid <= 0)
            return;
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        pid = -1;
    }

    std::string command_;
    pid_t dcrawPid_ = -1;
    pid_t djpegPid_ = -1;
    FILE* stream_ = nullptr;
};

}  // namespace

std::string toolPath(const std::string& name)
{
    const std::string beside = besideExecutable(name);
    if (isExecutableFile(beside))
        return beside;
    if (const char* path = std::getenv("PATH")) {
        const std::string dirs = path;
        size_t begin = 0;
        for (;;) {
            const size_t end = dirs.find(':', begin);
            std::string dir = dirs.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
            if (dir.empty())
                dir = ".";
            const std::string candidate = dir + "/" + name;
            if (isExecutableFile(candidate))
                return candidate;
            if (end == std::string::npos)
                break;
            begin = end + 1;
        }
    }
    return beside;
}

Image readRawPreview(const std::string& path)
{
    RawPipeline pipeline(path);
    // Refuse what the GPU cannot hold before setting memory aside for it.
    Image rgb = readPpm(pipeline.stream(), Texture::checkFits);
    pipeline.close();
    return rgb;
}

namespace {

enum class SourceType { Jpeg, Raw, Radiance, Unsupported };

SourceType sourceType(const std::string& path)
{
    switch (optionHash(lowerTextAfterLastDot(path))) {
    case "jpg"_oh:
    case "jpeg"_oh:
        return SourceType::Jpeg;
    case "cr2"_oh:
        return SourceType::Raw;
    case "hdr"_oh:
        return SourceType::Radiance;
    default:
        return SourceType::Unsupported;
    }
}

PendingImage::Decoded decodeSource(SourceType type, const std::string& path, int eighths,
                                   const JpegRowChoice& rows, bool rgba)
{
    PendingImage::Decoded decoded;
    switch (type) {
    case SourceType::Jpeg: {
        JpegRows jpeg = readJpegRows(path, eighths, rows, rgba);
        decoded.pixels = std::move(jpeg.rows);
        decoded.firstRow = jpeg.firstRow;
        decoded.width = jpeg.width;
        decoded.height = jpeg.height;
        decoded.eighths = jpeg.eighths;
        return decoded;
    }
    case SourceType::Raw:
        decoded.pixels = readRawPreview(path);
        break;
    case SourceType::Radiance: {
        Image full = readRadiance(path);
        decoded.fileWidth = full.width();
        decoded.fileHeight = full.height();
        decoded.stats = exponentStats(full);
        int factor = 8 / std::clamp(eighths, 1, 8);
        while (factor > 1 && (full.width() % factor != 0 || full.height() % factor != 0))
            factor /= 2;
        if (factor > 1) {
            decoded.pixels = shrinkRgbe(full, factor);
            decoded.eighths = 8 / factor;
        } else {
            decoded.pixels = std::move(full);
        }
        break;
    }
    case SourceType::Unsupported:
        throw std::runtime_error("failed to open file '" + path + "': unsupported file type");
    }
    decoded.width = decoded.pixels.width();
    decoded.height = decoded.pixels.height();
    return decoded;
}

// `part` at column x, row y of a texture of width x height pixels and
// `internalFormat`: `reuse` when it has them, else a new texture.
Texture upload(const ImageView& part, int32_t x, int32_t y, int32_t width, int32_t height, GLenum internalFormat,
               GLenum pixelFormat, Texture reuse)
{
    if (reuse.width() == width && reuse.height() == height && reuse.internalFormat() == internalFormat &&
        !reuse.isMipMap()) {
        reuse.replacePart(x, y, part.width(), part.height(), pixelFormat, part.data(), part.stride());
        return reuse;
    }
    reuse.destroy();
    if (part.width() == width && part.height() == height)
        return Texture::upload(width, height, internalFormat, pixelFormat, part.data(), part.stride());
    Texture texture = Texture::renderTarget(width, height, internalFormat);
    texture.replacePart(x, y, part.width(), part.height(), pixelFormat, part.data(), part.stride());
    return texture;
}

}  // namespace

PendingImage::PendingImage(const std::string& path, int eighths, bool inBackground, JpegRowChoice rows,
                           Process process)
{
    const SourceType type = sourceType(path);
    radiance_ = type == SourceType::Radiance;
    if (type != SourceType::Jpeg)
        process = {};
    // Set once the file is decoded, before the Process step.
    auto signal = std::make_shared<std::promise<void>>();
    auto work = [signal, type, path, eighths, rows = std::move(rows), process = std::move(process)]() {
        Decoded decoded;
        try {
            decoded = decodeSource(type, path, eighths, rows, bool(process));
        } catch (...) {
            signal->set_exception(std::current_exception());
            throw;
        }
        signal->set_value();
        if (process)
            process(decoded);
        return decoded;
    };
    // The raw preview's size check asks the GL context for its limits, so it
    // runs where take() is called; so does the error for an unsupported type.
    if (inBackground && (type == SourceType::Jpeg || type == SourceType::Radiance)) {
        try {
            decoded_ = std::async(std::launch::async, work);
            decodedSignal_ = signal->get_future();
            return;
        } catch (const std::system_error&) {
            // no thread to be had: decode in take()
        }
    }
    decoded_ = std::async(std::launch::deferred, std::move(work));
}

void PendingImage::waitDecoded()
{
    if (decodedSignal_.valid())
        decodedSignal_.get();
}

Texture PendingImage::take(int* decodedEighths, Texture reuse)
{
    if (!radiance_) {
        Decoded decoded = decoded_.get();
        if (decodedEighths)
            *decodedEighths = decoded.eighths;
        const GLenum pixelFormat = decoded.pixels.channels() == 4 ? GL_RGBA : GL_RGB;
        if (decoded.ready)
            return upload(decoded.pixels.view().subView(decoded.x0, decoded.y0 - decoded.firstRow,
                                                        decoded.x1 - decoded.x0, decoded.y1 - decoded.y0),
                          decoded.x0, decoded.y0, decoded.width, decoded.height, GL_RGBA8, pixelFormat,
                          std::move(reuse));
        return upload(decoded.pixels, 0, decoded.firstRow, decoded.width, decoded.height, GL_RGB8, pixelFormat,
                      std::move(reuse));
    }
    // Reported whether or not stage timing is on: loading an HDR source is
    // the slow part of a render and always worth seeing.
    StageTimer timer("[T]");
    Decoded decoded = decoded_.get();
    if (decodedEighths)
        *decodedEighths = decoded.eighths;
    glFinish();
    timer.markStage("read");

    // The line gives the file's size, whatever size the pixels were decoded at.
    const ExponentStats& stats = decoded.stats;
    printExponentStats(decoded.fileWidth, decoded.fileHeight, stats.maxE, stats.minE, stats.mean());
    Texture texture = upload(decoded.pixels, 0, decoded.firstRow, decoded.width, decoded.height, GL_RGBA8, GL_RGBA,
                             std::move(reuse));
    texture.setExposureLevels(std::exp2(stats.mean()), std::exp2(double(stats.minE)), std::exp2(double(stats.maxE)));
    decoded.pixels = Image();
    glFinish();
    timer.markStage("cpu -> gpu");
    return texture;
}

Texture loadImage(const std::string& path, int eighths, int* decodedEighths)
{
    return PendingImage(path, eighths, false).take(decodedEighths);
}

void checkLoadable(const std::string& path)
{
    switch (optionHash(lowerTextAfterLastDot(path))) {
    case "jpg"_oh:
    case "jpeg"_oh:
        std::fclose(openFile(path, "rb"));
        return;
    case "cr2"_oh:
    case "hdr"_oh:
        return;  // their readers report their own failures when loading
    default:
        throw std::runtime_error("failed to open file '" + path + "': unsupported file type");
    }
}

Texture uploadRgb(const ImageView& rgb)
{
    const GLenum format = rgb.channels() == kRgb16Channels ? GL_RGB16 : GL_RGB8;
    return Texture::upload(rgb.width(), rgb.height(), format, GL_RGB, rgb.data(), rgb.stride());
}

Texture loadRgbJpeg(const std::string& path, int32_t width, int32_t height)
{
    Texture texture = Texture::upload(width, height, GL_RGB8, GL_RGB, nullptr);
    readJpegBands(path, [&](const ImageView& band, int32_t firstRow) {
        if (band.width() != width || firstRow + band.height() > height)
            throw std::runtime_error(formatText("Error reading JPEG file '%s': not %dx%d pixels", path.c_str(), width,
                                                height));
        texture.replacePart(0, firstRow, band.width(), band.height(), GL_RGB, band.data(), band.stride());
    });
    return texture;
}

Texture uploadRgbe(const ImageView& rgbe)
{
    const ExponentStats stats = exponentStats(rgbe);
    printExponentStats(rgbe.width(), rgbe.height(), stats.maxE, stats.minE, stats.mean());
    Texture texture = Texture::upload(rgbe.width(), rgbe.height(), GL_RGBA8, GL_RGBA, rgbe.data(), rgbe.stride());
    texture.setExposureLevels(std::exp2(stats.mean()), std::exp2(double(stats.minE)), std::exp2(double(stats.maxE)));
    return texture;
}
