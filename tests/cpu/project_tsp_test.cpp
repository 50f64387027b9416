// Loading the capture system's JSON project document.
#include <gtest/gtest.h>

#include <boost/property_tree/exceptions.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <string>

#include "project/TspProject.h"
#include "support/Support.h"

namespace {

std::string writeTsp(const std::string& name, const std::string& json)
{
    static support::TempDir dir;
    support::writeFile(dir / name, json);
    return dir / name;
}

std::string slotsJson(int n)
{
    std::string s = "\"slots\": {";
    for (int i = 0; i < n; ++i)
        s += (i ? ", " : "") + std::string("\"") + std::to_string(i) + "\": {\"y\": " + std::to_string(i * 30) +
             ".5, \"p\": " + std::to_string(i % 3 - 1) + "}";
    return s + "}";
}

TEST(TspProject, FisheyeLayoutWithOrientation)
{
    const std::string path = writeTsp("pano.tsp", "{\"timestamp\": \"2021-01-05T10:20:30\", \"preview-ev\": \"0\",\n"
                                                  " \"lens-focal-length\": \"8.0 mm\", " +
                                                      slotsJson(6) +
                                                      ",\n \"orientation\": {\"yaw\": 12.5, \"pitch\": -1.5, "
                                                      "\"roll\": 0.25, \"tilt\": 3}}");
    const Project p = loadTspProject(path);
    ASSERT_EQ(p.images.size(), 7u);
    for (int i = 0; i < 6; ++i) {
        const ImageEntry& e = p.images[i];
        EXPECT_EQ(e.fileName, "pano-0" + std::to_string(i) + "-0.cr2");
        EXPECT_EQ(e.width, 0);
        EXPECT_EQ(e.height, 0);
        EXPECT_FLOAT_EQ(e.yaw, i * 30 + 0.5f);
        EXPECT_FLOAT_EQ(e.pitch, i % 3 - 1);
        EXPECT_FLOAT_EQ(e.roll, -90);
        EXPECT_FLOAT_EQ(e.fov, 140);
        EXPECT_FLOAT_EQ(e.a + e.b + e.c + e.d + e.e + e.exposure, 0);
        EXPECT_FLOAT_EQ(e.va, 1);
        EXPECT_FLOAT_EQ(e.vb, -0.06f);
        EXPECT_FLOAT_EQ(e.vc, -0.08f);
        EXPECT_FLOAT_EQ(e.vd, -0.08f);
    }
    const ImageEntry& o = p.images[6];
    EXPECT_TRUE(isOrientation(o));
    EXPECT_FLOAT_EQ(o.yaw, 12.5f);
    EXPECT_FLOAT_EQ(o.pitch, -1.5f);
    EXPECT_FLOAT_EQ(o.roll, 0.25f);
    EXPECT_FLOAT_EQ(o.fov, 3);
    EXPECT_FLOAT_EQ(o.va, 0);
    EXPECT_TRUE(p.controlPoints.empty());
}

TEST(TspProject, LensTextSelectsTheLayout)
{
    // Exactly "18.0 mm" is the wide lens: 13 slots, fov 90, and names with
    // the preview text as written ("-2" gives a double dash).
    const Project wide =
        loadTspProject(writeTsp("wide.tsp", "{\"preview-ev\": \"-2\", \"lens-focal-length\": \"18.0 mm\", " +
                                                slotsJson(13) + "}"));
    ASSERT_EQ(wide.images.size(), 13u);
    EXPECT_EQ(wide.images[12].fileName, "wide-12--2.cr2");
    EXPECT_FLOAT_EQ(wide.images[12].fov, 90);
    EXPECT_FALSE(isOrientation(wide.images.back()));

    // Near misses are the fisheye layout; extra slots are not read.
    for (const char* lens : {"18.0mm", "18 mm", "24.0 mm"}) {
        const Project p = loadTspProject(writeTsp("near.tsp", std::string("{\"preview-ev\": \"1\", "
                                                                          "\"lens-focal-length\": \"") +
                                                                  lens + "\", " + slotsJson(13) +
                                                                  ", \"orientation\": {}}"));
        ASSERT_EQ(p.images.size(), 7u) << lens;
        EXPECT_FLOAT_EQ(p.images[0].fov, 140) << lens;
        EXPECT_EQ(p.images[5].fileName, "near-05-1.cr2");
        // Empty orientation object: an orientation entry with zero angles.
        EXPECT_TRUE(isOrientation(p.images[6]));
        EXPECT_FLOAT_EQ(p.images[6].yaw, 0);
        EXPECT_FLOAT_EQ(p.images[6].fov, 0);
    }
}

TEST(TspProject, ErrorsAreTheLibrarysOwn)
{
    namespace pt = boost::property_tree;
    EXPECT_THROW(loadTspProject(writeTsp("x.tsp", "") + ".missing"), pt::json_parser::json_parser_error);
    EXPECT_THROW(loadTspProject(writeTsp("broken.tsp", "{\"preview-ev\": \"0\", ")), pt::json_parser::json_parser_error);
    EXPECT_THROW(loadTspProject(writeTsp("binary.tsp", std::string("\x00\xff\x7f{{", 5))), pt::json_parser::json_parser_error);
    // Slot 5 missing.
    try {
        loadTspProject(writeTsp("short.tsp", "{\"preview-ev\": \"0\", \"lens-focal-length\": \"x\", " + slotsJson(5) + "}"));
        FAIL() << "no exception";
    } catch (const pt::ptree_bad_path& e) {
        EXPECT_NE(std::string(e.what()).find("slots.5.y"), std::string::npos) << e.what();
    }
    EXPECT_THROW(loadTspProject(writeTsp("nolens.tsp", "{\"preview-ev\": \"0\", " + slotsJson(6) + "}")),
                 pt::ptree_bad_path);
    // Not a number, in a slot and in the orientation.
    EXPECT_THROW(loadTspProject(writeTsp("nan.tsp", "{\"preview-ev\": \"0\", \"lens-focal-length\": \"x\", "
                                                    "\"slots\": {\"0\": {\"y\": \"north\", \"p\": 0}}}")),
                 pt::ptree_bad_data);
    EXPECT_THROW(loadTspProject(writeTsp("nan2.tsp", "{\"preview-ev\": \"0\", \"lens-focal-length\": \"x\", " +
                                                         slotsJson(6) + ", \"orientation\": {\"yaw\": \"x\"}}")),
                 pt::ptree_bad_data);
}

}  // namespace
