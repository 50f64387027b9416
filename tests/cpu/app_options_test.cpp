// Command line: option hashes, parsing and its failures, the usage text, the
// OpenEXR thread sizing and the top-level failure line.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "app/JobEntry.h"
#include "app/Options.h"
#include "app/RenderPlan.h"
#include "image/OptionHash.h"
#include "libglutil/GLError.h"

namespace {

ParseAction parse(std::vector<std::string> args, JobOptions& options)
{
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    return parseOptions(int(args.size()), argv.data(), options);
}

JobOptions parsed(std::vector<std::string> args)
{
    JobOptions options;
    EXPECT_EQ(parse(std::move(args), options), ParseAction::RunJob);
    return options;
}

std::string usageErrorOf(std::vector<std::string> args)
{
    JobOptions o;
    try {
        parse(std::move(args), o);
    } catch (const UsageError& e) {
        return e.what();
    }
    return "(no usage error)";
}

std::string logicErrorOf(const char* option)
{
    JobOptions o;
    try {
        parse({"r", "in.tsp", option}, o);
    } catch (const UsageError&) {
        return "usage error";
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "no error";
}

struct LocalError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace

TEST(OptionHash, MatchesTheOptionTableWithSignExtendedBytes)
{
    const struct { const char* text; uint32_t hash; } table[] = {
        {"--output-prefix", 0xc19c3b47}, {"--er-width", 0x88cbd9},   {"--cf-width", 0x7dedcb},
        {"--er-exr", 0x194a71d0},        {"--er-hdr", 0x66835f61},   {"--er-jpg", 0x47802182},
        {"--cf-exr", 0x193f93c2},        {"--cf-jpg", 0x4786be90},   {"--no-auto-level", 0x32f09c1d},
        {"--logo", 0x655cb82e},          {"--exr-compression", 0xb3e1f509},
        {"-v", 0x59701e},                {"-V", 0x59747e},
        {"\xE9", (5381u * 33u) ^ 0xFFFFFFE9u},  // 0xE9 enters as a sign-extended char
    };
    for (const auto& row : table)
        EXPECT_EQ(optionHash(row.text), row.hash) << row.text;

    // Only the hash decides: "kp" collides with "-v", the UTF-8 text U+04E8
    // with "-V" (through the sign extension).
    JobOptions o;
    EXPECT_EQ(parse({"r", "in.tsp", "kp"}, o), ParseAction::PrintVersion);
    EXPECT_EQ(parse({"r", "in.tsp", "\xD3\xA8"}, o), ParseAction::PrintVersionAndGL);
}

TEST(ParseOptions, DefaultsAndEveryOption)
{
    const JobOptions d = parsed({"tessara-render", "/data/pano/shot.tsp"});
    EXPECT_EQ(d.inputPath, "/data/pano/shot.tsp");
    EXPECT_EQ(d.outputPrefix, "/data/pano/shot");
    EXPECT_EQ(planInput(d).thumbnailPath, "/data/pano/shot thumbnail.jpg");
    EXPECT_TRUE(d.logoPath.empty());
    EXPECT_EQ(d.exrCompression, "dwa");
    EXPECT_EQ(d.erWidth, 0);
    EXPECT_EQ(d.cfWidth, 0);
    EXPECT_TRUE(d.autoLevel);
    EXPECT_FALSE(d.writeErExr || d.writeErHdr || d.writeErJpg || d.writeCfExr || d.writeCfJpg);
    EXPECT_EQ(parsed({"r", "a.b.pts"}).outputPrefix, "a.b");  // only the last extension goes

    const JobOptions o = parsed({"r", "in.pts", "--output-prefix", "x", "--er-width", "8000", "--cf-width", "2048",
                                 "--no-auto-level", "--logo", "logo.jpg", "--exr-compression", "piz",
                                 "--output-prefix", "out/pano"});
    EXPECT_EQ(o.outputPrefix, "out/pano");  // the later one wins
    EXPECT_EQ(planInput(o).thumbnailPath, "out/pano thumbnail.jpg");
    EXPECT_EQ(o.erWidth, 8000);
    EXPECT_EQ(o.cfWidth, 2048);
    EXPECT_FALSE(o.autoLevel);
    EXPECT_EQ(o.logoPath, "logo.jpg");
    EXPECT_EQ(o.exrCompression, "piz");

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

TEST(ParseOptions, Failures)
{
    EXPECT_EQ(usageErrorOf({"r"}), "at least one argument required");
    EXPECT_EQ(usageErrorOf({"r", "in.tsp", "--bogus"}), "unknown option '--bogus'");
    EXPECT_EQ(usageErrorOf({"r", "in.tsp", "--er-jpg", "second.tsp"}), "unknown option 'second.tsp'");
    EXPECT_EQ(usageErrorOf({"r", "in.tsp", ""}), "unknown option ''");

    // Widths go through std::stoi: its prefix rule and its exceptions.
    EXPECT_EQ(parsed({"r", "in.tsp", "--er-width", "8k"}).erWidth, 8);
    EXPECT_EQ(parsed({"r", "in.tsp", "--cf-width", "-512"}).cfWidth, -512);
    JobOptions o;
    EXPECT_THROW(parse({"r", "in.tsp", "--er-width", "k8"}, o), std::invalid_argument);
    EXPECT_THROW(parse({"r", "in.tsp", "--cf-width", "99999999999"}, o), std::out_of_range);

    // A value option given last fails like constructing a string from null.
    for (const char* option : {"--er-width", "--cf-width", "--output-prefix", "--logo", "--exr-compression"})
        EXPECT_EQ(logicErrorOf(option), "basic_string: construction from null is not valid") << option;

    // Version options stop parsing; options before them still fail first.
    EXPECT_EQ(parse({"r", "in.tsp", "-v", "--bogus"}, o), ParseAction::PrintVersion);
    EXPECT_EQ(parse({"r", "in.tsp", "-V", "--er-width"}, o), ParseAction::PrintVersionAndGL);
    EXPECT_THROW(parse({"r", "in.tsp", "--er-width", "x", "-v"}, o), std::invalid_argument);
}

TEST(JobEntry, UsageThreadsAndFailureReport)
{
    EXPECT_EQ(usageText("unknown option '--bogus'", "./tessara-render"),
              "Error: unknown option '--bogus'\n"
              "Usage: ./tessara-render <pts/tsp/hdr/exr file> [--output-prefix basename] [--er-width width] "
              "[--cf-width width] [--er-exr] [--er-hdr] [--er-jpg] [--cf-exr] [--cf-jpg] [--no-auto-level] "
              "[--logo jpg file] [--exr-compression b44|dwa|piz|zip]\n");
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
