// Command line: option hashes, parsing and its failures, the usage text, the
// OpenEXR thread sizing and the top-level failure line.
#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "app/CommandLine.h"
#include "app/Options.h"
#include "app/RenderPlan.h"
#include "image/OptionHash.h"
#include "libglutil/GLError.h"
#include "support/Support.h"

namespace {

JobOptions parsed(std::vector<std::string> args)
{
    JobOptions options;
    EXPECT_EQ(support::parseArgs(std::move(args), options), ParseAction::RunJob);
    return options;
}

// What parsing throws: "usage: " and the usage error, or a library
// exception's message.
std::string failureOf(std::vector<std::string> args)
{
    JobOptions o;
    try {
        support::parseArgs(std::move(args), o);
    } catch (const UsageError& e) {
        return std::string("usage: ") + e.what();
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "no error";
}

struct LocalError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace

// Only the hash decides: "kp" collides with "-v", the UTF-8 text U+04E8
// with "-V" (bytes enter as sign-extended chars).
TEST(OptionHash, SignExtendedBytesAndCollisions)
{
    EXPECT_EQ(optionHash("\xE9"), (5381u * 33u) ^ 0xFFFFFFE9u);
    JobOptions o;
    EXPECT_EQ(support::parseArgs({"r", "in.tsp", "kp"}, o), ParseAction::PrintVersion);
    EXPECT_EQ(support::parseArgs({"r", "in.tsp", "\xD3\xA8"}, o), ParseAction::PrintVersionAndGL);
}

TEST(ParseOptions, DefaultsAndEveryOption)
{
    // Input, output prefix, thumbnail, logo, compression, widths, levelling.
    const auto fields = [](const JobOptions& o) {
        return std::make_tuple(o.inputPath.string(), o.outputPrefix.string(), planInput(o).thumbnailPath,
                               o.logoPath.string(), o.exrCompression, o.erWidth, o.cfWidth, o.autoLevel);
    };
    const JobOptions d = parsed({"tessara-render", "/data/pano/shot.tsp"});
    EXPECT_EQ(fields(d), std::make_tuple("/data/pano/shot.tsp", "/data/pano/shot", "/data/pano/shot thumbnail.jpg", "",
                                         "dwa", 0, 0, true));
    EXPECT_FALSE(d.writeErExr || d.writeErHdr || d.writeErJpg || d.writeCfExr || d.writeCfJpg);
    EXPECT_EQ(parsed({"r", "a.b.pts"}).outputPrefix, "a.b");  // only the last extension goes
    // The later of two prefixes wins.
    EXPECT_EQ(fields(parsed({"r", "in.pts", "--output-prefix", "x", "--er-width", "8000", "--cf-width", "2048",
                             "--no-auto-level", "--logo", "logo.jpg", "--exr-compression", "piz", "--output-prefix",
                             "out/pano"})),
              std::make_tuple("in.pts", "out/pano", "out/pano thumbnail.jpg", "logo.jpg", "piz", 8000, 2048, false));

    // Each output flag sets its own output and no other.
    const struct { const char* flag; bool JobOptions::*field; } flags[] = {
        {"--er-exr", &JobOptions::writeErExr}, {"--er-hdr", &JobOptions::writeErHdr},
        {"--er-jpg", &JobOptions::writeErJpg}, {"--cf-exr", &JobOptions::writeCfExr},
        {"--cf-jpg", &JobOptions::writeCfJpg}};
    for (const auto& f : flags) {
        const JobOptions one = parsed({"r", "in.pts", f.flag});
        for (const auto& g : flags)
            EXPECT_EQ(one.*g.field, &g == &f) << f.flag << " set " << g.flag;
    }

    // An option's text as the first argument acts and also names the input;
    // a value option there consumes the next argument.
    const JobOptions first = parsed({"r", "--er-width", "1200", "--er-jpg"});
    EXPECT_EQ(first.inputPath, "--er-width");
    EXPECT_EQ(first.erWidth, 1200);
    EXPECT_TRUE(first.writeErJpg);
}

TEST(ParseOptions, HelpNamesEveryOption)
{
    // The help is the usage line, then a line for every option it names.
    const std::string help = helpText("p"), usage = usageText("e", "p");
    EXPECT_EQ(help.substr(0, usage.size() - 9), usage.substr(9));
    const std::regex option("\\[(--[a-z-]+)");
    int options = 0;
    for (std::sregex_iterator m(usage.begin(), usage.end(), option), end; m != end; ++m, ++options)
        EXPECT_NE(help.find("\n  " + (*m)[1].str() + " "), std::string::npos) << (*m)[1];
    EXPECT_EQ(options, 14);
    for (const char* line : {"\n  -v, --version ", "\n  -V ", "\n  -h, --help "})
        EXPECT_NE(help.find(line), std::string::npos) << line;
}

TEST(ParseOptions, Failures)
{
    const struct { std::vector<std::string> args; const char* failure; } cases[] = {
        {{"r"}, "usage: at least one argument required"},
        {{"r", "in.tsp", "--bogus"}, "usage: unknown option '--bogus'"},
        {{"r", "in.tsp", "--er-jpg", "second.tsp"}, "usage: unknown option 'second.tsp'"},
        {{"r", "in.tsp", ""}, "usage: unknown option ''"},
        // Widths go through std::stoi: its exceptions (and its prefix rule, below).
        {{"r", "in.tsp", "--er-width", "k8"}, "stoi"},
        {{"r", "in.tsp", "--cf-width", "99999999999"}, "stoi"},
        // Version options stop parsing; options before them still fail first.
        {{"r", "in.tsp", "--er-width", "x", "-v"}, "stoi"},
        {{"r", "in.tsp", "-v", "--bogus"}, "no error"},
        // Tile format and quality are checked while parsing, before any rendering.
        {{"r", "in.tsp", "--tile-format", "png"}, "usage: invalid tile format 'png' (jpg or webp)"},
        {{"r", "in.tsp", "--tile-format", "JPG"}, "usage: invalid tile format 'JPG' (jpg or webp)"},
        {{"r", "in.tsp", "--tile-quality", "0"}, "usage: invalid tile quality '0' (1 to 100)"},
        {{"r", "in.tsp", "--tile-quality", "101"}, "usage: invalid tile quality '101' (1 to 100)"},
        {{"r", "in.tsp", "--tile-quality", "80k"}, "usage: invalid tile quality '80k' (1 to 100)"},
        {{"r", "in.tsp", "--tile-quality", ""}, "usage: invalid tile quality '' (1 to 100)"},
        {{"r", "in.tsp", "--tile-quality", "99999999999"}, "usage: invalid tile quality '99999999999' (1 to 100)"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(failureOf(c.args), c.failure) << c.args.back();
    const struct { std::vector<std::string> args; TileFormat format; int quality; } tiles[] = {
        {{"r", "in.tsp"}, TileFormat::Jpeg, 90},
        {{"r", "in.tsp", "--tile-format", "webp", "--tile-quality", "1"}, TileFormat::Webp, 1},
        {{"r", "in.tsp", "--tile-quality", "100", "--tile-format", "webp", "--tile-format", "jpg"}, TileFormat::Jpeg,
         100},
    };
    for (const auto& t : tiles) {
        const JobOptions o = parsed(t.args);
        EXPECT_EQ(int(o.tiles.format), int(t.format)) << t.args.back();
        EXPECT_EQ(o.tiles.quality, t.quality) << t.args.back();
    }
    // A value option given last fails like constructing a string from null.
    for (const char* option :
         {"--er-width", "--cf-width", "--output-prefix", "--logo", "--exr-compression", "--tile-format", "--tile-quality"})
        EXPECT_EQ(failureOf({"r", "in.tsp", option}), "basic_string: construction from null is not valid") << option;
    EXPECT_EQ(parsed({"r", "in.tsp", "--er-width", "8k"}).erWidth, 8);
    EXPECT_EQ(parsed({"r", "in.tsp", "--cf-width", "-512"}).cfWidth, -512);
    JobOptions o;
    EXPECT_EQ(support::parseArgs({"r", "in.tsp", "-V", "--er-width"}, o), ParseAction::PrintVersionAndGL);
}

TEST(JobEntry, UsageThreadsAndFailureReport)
{
    EXPECT_EQ(usageText("unknown option '--bogus'", "./tessara-render"),
              "Error: unknown option '--bogus'\n"
              "Usage: ./tessara-render <pts/tsp/hdr/exr/jpg/png/tif file> [--output-prefix basename] "
              "[--er-width width] [--cf-width width] [--er-exr] [--er-hdr] [--er-jpg] [--cf-exr] [--cf-jpg] "
              "[--no-auto-level] [--logo jpg file] [--exr-compression b44|dwa|piz|zip] [--tile-format jpg|webp] "
              "[--tile-quality 1-100] [--reproject-any-size]\n");
    EXPECT_EQ(usageText("%s%n", "p").substr(0, 12), "Error: %s%n\n");  // inserted, never a format

    const unsigned threads[][2] = {{0, 2}, {1, 2}, {2, 2}, {7, 7}, {16, 16}, {64, 16}};
    for (const auto& t : threads)
        EXPECT_EQ(exrThreadCount(t[0]), t[1]) << t[0];

    EXPECT_EQ(failureReport(opengl_error("shader failed")), "Error (12opengl_error): shader failed");
    EXPECT_EQ(failureReport(std::invalid_argument("stoi")), "Error (St16invalid_argument): stoi");
    const std::exception& base = std::runtime_error("x");  // the dynamic type counts
    EXPECT_EQ(failureReport(base), "Error (St13runtime_error): x");
    // GCC marks types with internal linkage with '*'; the report drops it.
    EXPECT_EQ(failureReport(LocalError("m")), "Error (N12_GLOBAL__N_110LocalErrorE): m");
}
