#include "app/Options.h"

#include "image/OptionHash.h"

namespace {
// The value of an option is read without checking that it exists; the entry
// after the last argument is the null terminator of argv. Building a string
// from it fails here with the standard library's own exception, never by
// reading through the null pointer.
std::string valueAfter(char** argv, int i)
{
    const char* value = argv[i + 1];
    if (!value)
        throw std::logic_error("basic_string: construction from null is not valid");
    return std::string(value);
}

int tileQuality(const std::string& text)
{
    size_t used = 0;
    int quality = 0;
    try {
        quality = std::stoi(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || quality < 1 || quality > 100)
        throw UsageError("invalid tile quality '" + text + "' (1 to 100)");
    return quality;
}

TileFormat tileFormat(const std::string& text)
{
    try {
        return parseTileFormat(text);
    } catch (const std::invalid_argument&) {
        throw UsageError("invalid tile format '" + text + "' (jpg or webp)");
    }
}
}  // namespace

ParseAction parseOptions(int argc, char** argv, JobOptions& options)
{
    if (argc < 2)
        throw UsageError("at least one argument required");

    options = JobOptions();
    options.inputPath = std::filesystem::path(std::string(argv[1]));
    options.outputPrefix = options.inputPath;
    options.outputPrefix.replace_extension();

    // Argument 1 goes through the same dispatch: if it is an option's text the
    // option takes effect, and the text still names the input file.
    int i = 1;
    while (i < argc) {
        const std::string arg(argv[i]);
        // Only the hash decides: an argument that collides with an option's
        // text is taken as that option. An empty argument is unknown; no
        // option hashes to 0.
        switch (arg.empty() ? 0u : optionHash(arg)) {
        case "--output-prefix"_oh:
            options.outputPrefix = std::filesystem::path(valueAfter(argv, i));
            i += 2;
            break;
        case "--er-width"_oh:
            options.erWidth = std::stoi(valueAfter(argv, i));
            i += 2;
            break;
        case "--cf-width"_oh:
            options.cfWidth = std::stoi(valueAfter(argv, i));
            i += 2;
            break;
        case "--logo"_oh:
            options.logoPath = std::filesystem::path(valueAfter(argv, i));
            i += 2;
            break;
        case "--exr-compression"_oh:
            options.exrCompression = valueAfter(argv, i);
            i += 2;
            break;
        case "--tile-format"_oh:
            options.tiles.format = tileFormat(valueAfter(argv, i));
            i += 2;
            break;
        case "--tile-quality"_oh:
            options.tiles.quality = tileQuality(valueAfter(argv, i));
            i += 2;
            break;
        case "--er-exr"_oh: options.writeErExr = true; ++i; break;
        case "--er-hdr"_oh: options.writeErHdr = true; ++i; break;
        case "--er-jpg"_oh: options.writeErJpg = true; ++i; break;
        case "--cf-exr"_oh: options.writeCfExr = true; ++i; break;
        case "--cf-jpg"_oh: options.writeCfJpg = true; ++i; break;
        case "--no-auto-level"_oh: options.autoLevel = false; ++i; break;
        case "--reproject-any-size"_oh: options.reprojectAnySize = true; ++i; break;
        case "-v"_oh:
        case "--version"_oh: return ParseAction::PrintVersion;
        case "-V"_oh: return ParseAction::PrintVersionAndGL;
        case "-h"_oh:
        case "--help"_oh: return ParseAction::PrintHelp;
        default:
            if (i != 1)
                throw UsageError("unknown option '" + arg + "'");
            i = 2;  // the input file
            break;
        }
    }
    return ParseAction::RunJob;
}

namespace {
std::string usageLine(const std::string& programName)
{
    return "Usage: " + programName +
           " <pts/tsp/hdr/exr/jpg/png/tif file> [--output-prefix basename] [--er-width width] [--cf-width width] "
           "[--er-exr] [--er-hdr] [--er-jpg] [--cf-exr] [--cf-jpg] [--no-auto-level] [--logo jpg file] "
           "[--exr-compression b44|dwa|piz|zip] [--tile-format jpg|webp] [--tile-quality 1-100] "
           "[--reproject-any-size]\n";
}
}  // namespace

std::string usageText(const std::string& error, const std::string& programName)
{
    return "Error: " + error + "\n" + usageLine(programName);
}

std::string helpText(const std::string& programName)
{
    return usageLine(programName) +
           "  <file>             a pts or tsp project, a .hdr/.exr panorama this program rendered, or a\n"
           "                     JPEG, PNG or TIFF equirect panorama (2:1, or placed by Photo Sphere XMP)\n"
           "  --output-prefix    name the outputs start with (default: the input without its extension);\n"
           "                     ending in '/': JPEG cube faces as a tile pyramid in that folder\n"
           "  --er-width         width of the equirect panorama of a project (default: from the first image)\n"
           "  --cf-width         width of a cube face (default: a quarter of the panorama)\n"
           "  --er-exr           write the panorama as OpenEXR (prefix.exr; HDR projects and images)\n"
           "  --er-hdr           write the panorama as Radiance HDR (prefix.hdr; HDR projects and images)\n"
           "  --er-jpg           write the panorama as JPEG (prefix.jpg)\n"
           "  --cf-exr           write the cube faces as a tiled OpenEXR cube map (prefix.exr; HDR only)\n"
           "  --cf-jpg           write the cube faces (see --tile-format), their previews and the web viewers' files\n"
           "  --no-auto-level    ignore the capture's orientation line (no levelling, no turn to its heading)\n"
           "  --logo             JPEG drawn into the nadir of every output\n"
           "  --exr-compression  OpenEXR compression (default: dwa)\n"
           "  --tile-format      file format of the cube faces and tiles: jpg (default) or webp\n"
           "  --tile-quality     quality of the cube faces and tiles, 1 to 100 (default: 90)\n"
           "  --reproject-any-size  a .hdr/.exr of any 2:1 size to every output (else tone-mapped only\n"
           "                     unless its width is a multiple of 20)\n"
           "  -v, --version      print the version\n"
           "  -V                 print the version and the OpenGL driver's report\n"
           "  -h, --help         print this help\n";
}
