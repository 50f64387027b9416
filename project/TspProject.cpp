#include "project/TspProject.h"

#include "image/FormatText.h"
#include "image/JsonDocument.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <filesystem>

namespace pt = boost::property_tree;

Project loadTspProject(const std::string& path)
{
    pt::ptree doc;
    readJsonDocument(path, doc);

    // Only the wide lens is shot in two rings of six plus the zenith; every
    // other lens is the fisheye layout of five plus one.
    const bool wideLens = doc.get<std::string>("lens-focal-length") == "18.0 mm";
    const int slots = wideLens ? 13 : 6;
    const float fov = wideLens ? 90.0f : 140.0f;
    const std::string previewEv = doc.get<std::string>("preview-ev");
    const std::string stem = std::filesystem::path(path).stem().string();

    Project project;
    for (int i = 0; i < slots; ++i) {
        const std::string slot = "slots." + std::to_string(i);
        ImageEntry entry;
        entry.fileName = formatText("%s-%02d-%s.cr2", stem.c_str(), i, previewEv.c_str());
        entry.yaw = doc.get<float>(slot + ".y");
        entry.roll = -90.0f;  // the capture head always shoots portrait frames
        entry.pitch = doc.get<float>(slot + ".p");
        entry.fov = fov;
        entry.projection = wideLens ? Projection::Rectilinear : Projection::FullFrameFisheye;
        // One vignetting curve for every slot and lens.
        entry.va = 1.0f;
        entry.vb = -0.06f;
        entry.vc = -0.08f;
        entry.vd = -0.08f;
        project.images.push_back(entry);
    }

    if (const auto orientation = doc.get_child_optional("orientation")) {
        ImageEntry entry;
        entry.fileName = kOrientationName;
        // A missing angle is 0; one that is present must be a number (the
        // defaulting get<float>(key, 0) would silently turn junk into 0).
        auto angle = [&](const char* key) {
            const auto child = orientation->get_child_optional(key);
            return child ? child->get_value<float>() : 0.0f;
        };
        entry.yaw = angle("yaw");
        entry.pitch = angle("pitch");
        entry.roll = angle("roll");
        entry.fov = angle("tilt");
        project.images.push_back(entry);
    }
    project.layout = wideLens ? RigLayout::TwoRings : RigLayout::FisheyeRing;
    return project;
}
