// Loading the capture system's JSON project document.
#include <gtest/gtest.h>

#include <boost/property_tree/exceptions.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <string>

#include "project/TspProject.h"
#include "support/Support.h"

namespace {
// A document with `slots` slots (yaw i * 30 + 0.5, pitch i % 3 - 1) and `rest`.
std::string writeTsp(const std::string& name, const std::string& lens, int slots, const std::string& rest = "")
{
    static support::TempDir dir;
    std::string json = "{\"preview-ev\": \"" + std::string(name == "wide.tsp" ? "-2" : "0") + "\", " + lens + "\"slots\": {";
    for (int i = 0; i < slots; ++i)
        json += (i ? ", \"" : "\"") + std::to_string(i) + "\": {\"y\": " + std::to_string(i * 30) +
                ".5, \"p\": " + std::to_string(i % 3 - 1) + "}";
    support::writeFile(dir / name, json + "}" + rest + "}");
    return dir / name;
}
}  // namespace

TEST(TspProject, LayoutsEntriesAndOrientation)
{
    const Project p = loadTspProject(writeTsp("pano.tsp", "\"lens-focal-length\": \"8.0 mm\", ", 13,
                                              ", \"orientation\": {\"yaw\": 12.5, \"pitch\": -1.5, \"roll\": 0.25, \"tilt\": 3}"));
    ASSERT_EQ(p.images.size(), 7u);  // the fisheye layout reads six slots
    for (int i = 0; i < 6; ++i) {
        const ImageEntry& e = p.images[size_t(i)];
        EXPECT_EQ(e.fileName, "pano-0" + std::to_string(i) + "-0.cr2");
        EXPECT_EQ(e.width, 0);
        const float got[] = {e.yaw, e.pitch, e.roll, e.fov, e.a + e.b + e.c + e.d + e.e + e.exposure, e.va, e.vb, e.vc, e.vd};
        const float want[] = {i * 30 + 0.5f, float(i % 3 - 1), -90, 140, 0, 1, -0.06f, -0.08f, -0.08f};
        for (int k = 0; k < 9; ++k)
            EXPECT_FLOAT_EQ(got[k], want[k]) << "slot " << i << " field " << k;
    }
    const ImageEntry& o = p.images[6];
    EXPECT_TRUE(isOrientation(o));
    EXPECT_EQ(std::vector<float>({o.yaw, o.pitch, o.roll, o.fov, o.va}), std::vector<float>({12.5f, -1.5f, 0.25f, 3, 0}));

    // Exactly "18.0 mm" is the wide lens: 13 slots at fov 90, names with the
    // preview text as written ("-2" gives a double dash).
    const Project wide = loadTspProject(writeTsp("wide.tsp", "\"lens-focal-length\": \"18.0 mm\", ", 13));
    ASSERT_EQ(wide.images.size(), 13u);
    EXPECT_EQ(wide.images[12].fileName, "wide-12--2.cr2");
    EXPECT_FLOAT_EQ(wide.images[12].fov, 90);
    for (const char* lens : {"18.0mm", "18 mm"}) {  // near misses; an empty orientation has zero angles
        const Project p2 = loadTspProject(writeTsp("near.tsp", std::string("\"lens-focal-length\": \"") + lens + "\", ", 13,
                                                   ", \"orientation\": {}"));
        ASSERT_EQ(p2.images.size(), 7u) << lens;
        EXPECT_FLOAT_EQ(p2.images[0].fov, 140) << lens;
        EXPECT_TRUE(isOrientation(p2.images[6]));
        EXPECT_FLOAT_EQ(p2.images[6].yaw, 0);
    }
}

TEST(TspProject, ErrorsAreTheLibrarysOwn)
{
    namespace pt = boost::property_tree;
    EXPECT_THROW(loadTspProject(writeTsp("x.tsp", "", 0) + ".missing"), pt::json_parser::json_parser_error);
    EXPECT_THROW(loadTspProject(writeTsp("broken.tsp", "", 0, "{")), pt::json_parser::json_parser_error);
    EXPECT_EQ(support::errorOf([] { loadTspProject(writeTsp("short.tsp", "\"lens-focal-length\": \"x\", ", 5)); }),
              "No such node (slots.5.y)");
    EXPECT_THROW(loadTspProject(writeTsp("nolens.tsp", "", 6)), pt::ptree_bad_path);
    EXPECT_THROW(loadTspProject(writeTsp("nan.tsp", "\"lens-focal-length\": \"x\", ", 6, ", \"orientation\": {\"yaw\": \"x\"}")),
                 pt::ptree_bad_data);
    // Nested 100,000 deep: refused before the recursive parser overflows the
    // stack. Brackets inside strings do not count.
    try {
        loadTspProject(writeTsp("deep.tsp", "", 6, ", \"a\": " + std::string(100000, '[')));
        ADD_FAILURE() << "no exception";
    } catch (const pt::json_parser::json_parser_error& e) {
        EXPECT_EQ(e.message(), "nesting deeper than 128 levels");
    }
    EXPECT_NO_THROW(loadTspProject(
        writeTsp("brackets.tsp", "\"lens-focal-length\": \"x\", ", 6, ", \"a\": \"" + std::string(1000, '[') + "\\\"\"")));
}
