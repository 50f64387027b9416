// Command line: option hashes, the parsing loop and its failures, the usage
// text, the OpenEXR thread sizing and the top-level failure line.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "app/JobEntry.h"
#include "app/Options.h"
#include "libglutil/GLError.h"

namespace {

// Holds the argument texts and a null-terminated argv over them, as the
// process entry receives it.
class Args {
public:
    Args(std::initializer_list<std::string> args) : texts_(args)
    {
        for (auto& t : texts_)
            argv_.push_back(t.data());
        argv_.push_back(nullptr);
    }
    int argc() const { return int(texts_.size()); }
    char** argv() { return argv_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char*> argv_;
};

ParseAction parse(Args args, JobOptions& options) { return parseOptions(args.argc(), args.argv(), options); }

JobOptions parsed(Args args)
{
    JobOptions options;
    EXPECT_EQ(parse(std::move(args), options), ParseAction::RunJob);
    return options;
}

// Hash with the bytes taken as unsigned, to show that sign extension matters.
uint32_t unsignedByteHash(const std::string& s)
{
    uint32_t h = 5381;
    for (size_t i = s.size(); i > 0; --i)
        h = (h * 33u) ^ static_cast<unsigned char>(s[i - 1]);
    return h;
}

}  // namespace

TEST(OptionHash, MatchesTheOptionTable)
{
    const struct { const char* text; uint32_t hash; } table[] = {
        {"--output-prefix", 0xc19c3b47}, {"--er-width", 0x88cbd9},   {"--cf-width", 0x7dedcb},
        {"--er-exr", 0x194a71d0},        {"--er-hdr", 0x66835f61},   {"--er-jpg", 0x47802182},
        {"--cf-exr", 0x193f93c2},        {"--cf-jpg", 0x4786be90},   {"--no-auto-level", 0x32f09c1d},
        {"--logo", 0x655cb82e},          {"--exr-compression", 0xb3e1f509},
        {"-v", 0x59701e},                {"-V", 0x59747e},
    };
    for (const auto& row : table)
        EXPECT_EQ(optionHash(row.text), row.hash) << row.text;
    EXPECT_EQ(optionHash(""), 5381u);
}

TEST(OptionHash, NonAsciiBytesAreSignExtended)
{
    // 0xE9 XORs as 0xFFFFFFE9: the top 24 bits flip.
    EXPECT_EQ(optionHash("\xE9"), (5381u * 33u) ^ 0xFFFFFFE9u);
    EXPECT_NE(optionHash("\xE9"), unsignedByteHash("\xE9"));
}

TEST(ParseOptions, DefaultsFromTheInputPath)
{
    const JobOptions o = parsed({"tessara-render", "/data/pano/shot.tsp"});
    EXPECT_EQ(o.inputPath, "/data/pano/shot.tsp");
    EXPECT_EQ(o.outputPrefix, "/data/pano/shot");
    EXPECT_EQ(o.thumbnailPath, "/data/pano/shot thumbnail.jpg");
    EXPECT_TRUE(o.logoPath.empty());
    EXPECT_EQ(o.exrCompression, "dwa");
    EXPECT_EQ(o.erWidth, 0);
    EXPECT_EQ(o.cfWidth, 0);
    EXPECT_TRUE(o.autoLevel);
    EXPECT_FALSE(o.writeErExr || o.writeErHdr || o.writeErJpg || o.writeCfExr || o.writeCfJpg);

    // Only the last extension goes; a name without one is its own prefix.
    EXPECT_EQ(parsed({"r", "a.b.pts"}).outputPrefix, "a.b");
    EXPECT_EQ(parsed({"r", "capture"}).outputPrefix, "capture");
}

TEST(ParseOptions, EveryOptionTakesEffect)
{
    const JobOptions o = parsed({"r", "in.pts", "--output-prefix", "out/pano", "--er-width", "8000",
                                 "--cf-width", "2048", "--er-exr", "--er-hdr", "--er-jpg", "--cf-exr",
                                 "--cf-jpg", "--no-auto-level", "--logo", "logo.jpg", "--exr-compression",
                                 "piz"});
    EXPECT_EQ(o.inputPath, "in.pts");
    EXPECT_EQ(o.outputPrefix, "out/pano");
    EXPECT_EQ(o.thumbnailPath, "out/pano thumbnail.jpg");  // formed after all options
    EXPECT_EQ(o.erWidth, 8000);
    EXPECT_EQ(o.cfWidth, 2048);
    EXPECT_TRUE(o.writeErExr && o.writeErHdr && o.writeErJpg && o.writeCfExr && o.writeCfJpg);
    EXPECT_FALSE(o.autoLevel);
    EXPECT_EQ(o.logoPath, "logo.jpg");
    EXPECT_EQ(o.exrCompression, "piz");  // not checked here
}

TEST(ParseOptions, LaterOptionsOverrideEarlierOnes)
{
    const JobOptions o = parsed({"r", "in.tsp", "--er-width", "4000", "--output-prefix", "a", "--er-width",
                                 "2400", "--output-prefix", "b/"});
    EXPECT_EQ(o.erWidth, 2400);
    EXPECT_EQ(o.outputPrefix, "b/");
    EXPECT_EQ(o.thumbnailPath, "b/ thumbnail.jpg");
}

TEST(ParseOptions, WidthsUseTheStandardConversion)
{
    EXPECT_EQ(parsed({"r", "in.tsp", "--er-width", "8k"}).erWidth, 8);  // stops at the first non-digit
    EXPECT_EQ(parsed({"r", "in.tsp", "--cf-width", "-512"}).cfWidth, -512);
    JobOptions o;
    try {
        parse({"r", "in.tsp", "--er-width", "k8"}, o);
        FAIL() << "k8 was accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "stoi");
    }
    EXPECT_THROW(parse({"r", "in.tsp", "--cf-width", "99999999999"}, o), std::out_of_range);
}

TEST(ParseOptions, ValueOptionGivenLastFailsAsAnException)
{
    for (const char* option : {"--er-width", "--cf-width", "--output-prefix", "--logo", "--exr-compression"}) {
        JobOptions o;
        try {
            parse({"r", "in.tsp", option}, o);
            ADD_FAILURE() << option << " without a value was accepted";
        } catch (const UsageError&) {
            ADD_FAILURE() << option << " reported as a usage error";
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), "basic_string: construction from null is not valid") << option;
        }
    }
}

TEST(ParseOptions, UsageErrors)
{
    JobOptions o;
    const auto messageOf = [&](Args args) {
        try {
            parse(std::move(args), o);
        } catch (const UsageError& e) {
            return std::string(e.what());
        }
        return std::string("(no usage error)");
    };
    EXPECT_EQ(messageOf({"r"}), "at least one argument required");
    EXPECT_EQ(messageOf({}), "at least one argument required");
    EXPECT_EQ(messageOf({"r", "in.tsp", "--bogus"}), "unknown option '--bogus'");
    EXPECT_EQ(messageOf({"r", "in.tsp", "--er-jpg", "second.tsp"}), "unknown option 'second.tsp'");
    // An empty argument is unknown, wherever it is.
    EXPECT_EQ(messageOf({"r", "in.tsp", ""}), "unknown option ''");
    EXPECT_EQ(parsed({"r", ""}).inputPath, "");
}

TEST(ParseOptions, FirstArgumentIsDispatchedToo)
{
    // An option's text as the only argument: the option acts and also names the input.
    const JobOptions flag = parsed({"r", "--er-exr"});
    EXPECT_TRUE(flag.writeErExr);
    EXPECT_EQ(flag.inputPath, "--er-exr");

    // A value option at index 1 consumes argument 2.
    const JobOptions value = parsed({"r", "--er-width", "1200", "--er-jpg"});
    EXPECT_EQ(value.inputPath, "--er-width");
    EXPECT_EQ(value.erWidth, 1200);
    EXPECT_TRUE(value.writeErJpg);
}

TEST(ParseOptions, VersionOptionsStopParsing)
{
    JobOptions o;
    EXPECT_EQ(parse({"r", "in.tsp", "-v", "--bogus"}, o), ParseAction::PrintVersion);
    EXPECT_EQ(parse({"r", "in.tsp", "-V", "--er-width"}, o), ParseAction::PrintVersionAndGL);
    EXPECT_EQ(parse({"r", "-v"}, o), ParseAction::PrintVersion);
    // Options before it are still read, and their failures come first.
    EXPECT_THROW(parse({"r", "in.tsp", "--er-width", "x", "-v"}, o), std::invalid_argument);
}

TEST(ParseOptions, OnlyTheHashDecides)
{
    // "kp" hashes like "-v"; the UTF-8 text "\xD3\xA8" (U+04E8) like "-V", but
    // only because its bytes are sign-extended.
    ASSERT_EQ(optionHash("kp"), optionHash("-v"));
    ASSERT_EQ(optionHash("\xD3\xA8"), optionHash("-V"));
    ASSERT_NE(unsignedByteHash("\xD3\xA8"), optionHash("-V"));
    JobOptions o;
    EXPECT_EQ(parse({"r", "in.tsp", "kp"}, o), ParseAction::PrintVersion);
    EXPECT_EQ(parse({"r", "in.tsp", "\xD3\xA8"}, o), ParseAction::PrintVersionAndGL);
}

TEST(UsageText, ExactText)
{
    EXPECT_EQ(usageText("unknown option '--bogus'", "./tessara-render"),
              "Error: unknown option '--bogus'\n"
              "Usage: ./tessara-render <pts/tsp/hdr/exr file> [--output-prefix basename] [--er-width width] "
              "[--cf-width width] [--er-exr] [--er-hdr] [--er-jpg] [--cf-exr] [--cf-jpg] [--no-auto-level] "
              "[--logo jpg file] [--exr-compression b44|dwa|piz|zip]\n");
    // Texts are inserted, never interpreted as a format.
    EXPECT_EQ(usageText("%s%n", "p").substr(0, 12), "Error: %s%n\n");
}

TEST(JobEntry, ExrThreadCountIsClampedToTwoToSixteen)
{
    EXPECT_EQ(exrThreadCount(0), 2u);  // unknown core count
    EXPECT_EQ(exrThreadCount(1), 2u);
    EXPECT_EQ(exrThreadCount(2), 2u);
    EXPECT_EQ(exrThreadCount(7), 7u);
    EXPECT_EQ(exrThreadCount(16), 16u);
    EXPECT_EQ(exrThreadCount(64), 16u);
}

namespace {
struct LocalError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
}  // namespace

TEST(JobEntry, FailureReportUsesTheRawTypeName)
{
    EXPECT_EQ(failureReport(opengl_error("shader failed")), "Error (12opengl_error): shader failed");
    EXPECT_EQ(failureReport(std::invalid_argument("stoi")), "Error (St16invalid_argument): stoi");
    // Reported through a base reference: the dynamic type counts.
    const std::exception& base = std::runtime_error("Error opening file 'x'");
    EXPECT_EQ(failureReport(base), "Error (St13runtime_error): Error opening file 'x'");
    // A type with internal linkage is marked with '*' in GCC's type data; the
    // report never shows that mark.
    EXPECT_EQ(failureReport(LocalError("m")), "Error (N12_GLOBAL__N_110LocalErrorE): m");
}
