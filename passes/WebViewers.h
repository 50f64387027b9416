#pragma once
// Configurations of the common web panorama viewers (Pannellum, Marzipano,
// Photo Sphere Viewer 5, krpano) written beside the JPEG cube faces, so that
// the faces and the tile pyramid open in them as they are: no renamed tiles,
// no edited files. Relative URLs in them are relative to their own folder.
//
// Beside the six faces prefix_<letter>.jpg: prefix + "_pannellum.json",
// "_marzipano.js", "_psv.js" and "_krpano.xml". Inside a tile pyramid's
// folder: "pannellum.json", "marzipano.js", "psv.js", "krpano.xml" and an
// "index.html" that shows the pyramid in Marzipano when the folder is served
// over HTTP.
//
// Each names the two previews written with the faces (see CubeJpegNames),
// shown until the faces or tiles arrive. Where a viewer's URL template cannot
// spell the tile names (zero-padded row and column, level 0 the smallest),
// its file addresses tiles through a function (the two JavaScript modules);
// for Pannellum 2.5, whose multires template can do neither, the pyramid's
// folder gets a folder "pannellum" of relative symbolic links to the tiles
// under names the template spells (see CubeJpegNames), below a level of the
// preview faces: Pannellum shows its `preview` image only until the viewer
// starts, which for a pyramid is at once, so the preview is its first level.
#include <string>
#include <vector>

struct TextOutput {
    std::string path;
    std::string text;
};

struct LinkOutput {
    std::string path;    // the link
    std::string target;  // relative to the link's folder
};

// The files for faces of faceSize pixels with the file name `extension`
// written under `outputPrefix` (a pyramid when it ends in "/" or "\").
std::vector<TextOutput> webViewerFiles(int faceSize, const std::string& outputPrefix, const std::string& extension);

// The links to the tiles of a pyramid; none for single faces.
std::vector<LinkOutput> webViewerLinks(int faceSize, const std::string& outputPrefix, const std::string& extension);

// Writes webViewerFiles() and webViewerLinks(), each atomically.
void writeWebViewerFiles(int faceSize, const std::string& outputPrefix, const std::string& extension);
