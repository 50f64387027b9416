#include "passes/WebViewers.h"

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "image/FormatText.h"
#include "image/OutputFile.h"
#include "passes/CubeFaces.h"

namespace {

// Marzipano for index.html; the hash lets the browser refuse a changed copy.
const char* const kMarzipanoUrl = "https://cdn.jsdelivr.net/npm/marzipano@0.10.2/dist/marzipano.js";
const char* const kMarzipanoIntegrity = "sha384-DzG9/1qU4N16xJ12gRMAdNFu2z2wNiXF+7vTnM/ZQcRO1HcNXRlVWw/j4QVIx/9E";

struct Layout {
    bool pyramid;
    std::string folder;    // the pyramid's folder, with its separator (pyramid only)
    std::string name;      // file name part of the prefix (faces only)
    std::string extension; // of the faces and tiles
    std::string previewStrip, previewFront;  // relative to the configurations
    int faceSize;
    int tileSize;
    int levels;
};

Layout layoutOf(int faceSize, const std::string& prefix, const std::string& extension)
{
    Layout l;
    const CubeJpegNames names(prefix, extension.c_str());
    l.pyramid = names.pyramid();
    l.folder = l.pyramid ? names.folder() : "";
    const size_t slash = prefix.find_last_of("/\\");
    l.name = slash == std::string::npos ? prefix : prefix.substr(slash + 1);
    l.extension = extension;
    const size_t base = l.pyramid ? l.folder.size() : prefix.size() - l.name.size();
    l.previewStrip = names.previewStrip().substr(base);
    l.previewFront = names.previewFront().substr(base);
    l.faceSize = faceSize;
    l.tileSize = l.pyramid ? cubeTileSize(faceSize) : faceSize;
    l.levels = l.pyramid ? pyramidLevelCount(faceSize) : 1;
    return l;
}

std::string pannellum(const Layout& l)
{
    std::ostringstream o;
    if (l.pyramid) {
        o << "{\n  \"type\": \"multires\",\n  \"multiRes\": {\n    \"basePath\": \"" << kPannellumFolder
          << "\",\n    \"path\": \"/%l_%s_%y_%x\",\n    \"extension\": \"" << l.extension
          << "\",\n    \"tileResolution\": " << l.tileSize << ",\n    \"maxLevel\": " << l.levels + 1
          << ",\n    \"cubeResolution\": " << l.faceSize << "\n  },\n";
    } else {
        o << "{\n  \"type\": \"cubemap\",\n  \"cubeMap\": [";
        const char* order[] = {"f", "r", "b", "l", "u", "d"};
        for (int i = 0; i < 6; ++i)
            o << (i ? ", " : "") << '"' << l.name << "_" << order[i] << "." << l.extension << '"';
        o << "],\n";
    }
    o << "  \"preview\": \"" << l.previewFront << "\",\n"
      << "  \"autoLoad\": true,\n  \"yaw\": 0,\n  \"pitch\": 0,\n  \"hfov\": 90\n}\n";
    return o.str();
}

// JavaScript shared by both modules: the folder of the module, the URL of a
// tile (a whole face is the one tile of its level) and the preview strip.
std::string moduleHead(const Layout& l, const char* use)
{
    std::ostringstream o;
    o << "// " << use << "\n"
      << "const here = new URL('.', import.meta.url).href;\n";
    if (l.pyramid)
        o << "const pad = (n) => String(n).padStart(2, '0');\n"
          << "const tile = (level, face, row, col) => here + level + '_' + face + '_' + pad(row) + '_' + pad(col) + '."
          << l.extension << "';\n";
    else
        o << "const tile = (level, face) => here + '" << l.name << "_' + face + '." << l.extension << "';\n";
    o << "const preview = here + '" << l.previewStrip << "';\n";
    return o.str();
}

std::string marzipano(const Layout& l)
{
    std::ostringstream o;
    o << moduleHead(l, "Marzipano 0.10 scene of these cube faces. Use: import createScene from './<this file>';\n"
                       "//   createScene(Marzipano, new Marzipano.Viewer(element)).switchTo();");
    // Level 0 is the preview strip, shown only until tiles arrive. It is
    // declared at the size of the level above it (Marzipano wants each level
    // a multiple of the one below); one tile a face, it covers the face
    // whatever its pixel count.
    o << "export const levels = [{ tileSize: " << l.tileSize << ", size: " << l.tileSize << ", fallbackOnly: true }";
    for (int i = 0; i < l.levels; ++i)
        o << ", { tileSize: " << l.tileSize << ", size: " << (l.tileSize << i) << " }";
    o << "];\n"
      << "const strip = '" << kPreviewStripOrder << "';\n"
      << "export default function createScene(Marzipano, viewer) {\n"
      << "  const source = new Marzipano.ImageUrlSource((t) => t.z === 0\n"
      << "    ? { url: preview, rect: { x: strip.indexOf(t.face) / 6, y: 0, width: 1 / 6, height: 1 } }\n"
      << "    : { url: tile(t.z - 1, t.face, t.y, t.x) });\n"
      << "  const geometry = new Marzipano.CubeGeometry(levels);\n"
      << "  const limiter = Marzipano.RectilinearView.limit.resolution(" << 4 * l.faceSize << ");\n"
      << "  const view = new Marzipano.RectilinearView({ yaw: 0, pitch: 0, fov: Math.PI / 2 }, limiter);\n"
      << "  return viewer.createScene({ source, geometry, view });\n}\n";
    return o.str();
}

std::string photoSphereViewer(const Layout& l)
{
    std::ostringstream o;
    o << moduleHead(l, "Photo Sphere Viewer 5 panorama of these cube faces, for the cubemap-tiles adapter:\n"
                       "//   new Viewer({ container, adapter: CubemapTilesAdapter, panorama })");
    o << "const letters = { left: 'l', front: 'f', right: 'r', back: 'b', top: 'u', bottom: 'd' };\n"
      << "const faceOf = Object.fromEntries(Object.entries(letters).map(([k, v]) => [v, k]));\n";
    // Our u and d faces are upright as the common web viewers show them; the
    // adapters expect them turned by 180 degrees unless told. The adapter
    // takes at most 16 tiles a side.
    o << "export const panorama = {\n"
      << "  baseUrl: { type: 'stripe', path: preview, order: [...'" << kPreviewStripOrder
      << "'].map((v) => faceOf[v]), flipTopBottom: true },\n"
      << "  levels: [";
    for (int i = 0; i < l.levels && (1 << i) <= 16; ++i)
        o << (i ? ", " : "") << "{ faceSize: " << (l.tileSize << i) << ", nbTiles: " << (1 << i) << " }";
    o << "],\n  tileUrl: (face, col, row, level) => tile(level, letters[face], row, col),\n"
      << "  flipTopBottom: true,\n};\n"
      << "export default panorama;\n";
    return o.str();
}

std::string krpano(const Layout& l)
{
    std::string order = kPreviewStripOrder;
    for (char& c : order)
        c = char(std::toupper(static_cast<unsigned char>(c)));
    std::ostringstream o;
    o << "<krpano>\n  <view hlookat=\"0\" vlookat=\"0\" fov=\"90\" />\n"
      << "  <preview url=\"" << l.previewStrip << "\" type=\"CUBESTRIP\" striporder=\"" << order << "\" />\n";
    if (!l.pyramid) {
        o << "  <image>\n    <cube url=\"" << l.name << "_%s." << l.extension << "\" />\n  </image>\n";
    } else {
        o << "  <image type=\"CUBE\" multires=\"true\" tilesize=\"" << l.tileSize << "\" baseindex=\"0\">\n";
        for (int i = l.levels - 1; i >= 0; --i)
            o << "    <level tiledimagewidth=\"" << (l.tileSize << i) << "\" tiledimageheight=\"" << (l.tileSize << i)
              << "\">\n      <cube url=\"" << i << "_%s_%0v_%0h." << l.extension << "\" />\n    </level>\n";
        o << "  </image>\n";
    }
    o << "</krpano>\n";
    return o.str();
}

std::string indexPage()
{
    return formatText(R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Panorama</title>
<style>html, body, #pano { margin: 0; width: 100%%; height: 100%%; overflow: hidden; background: #000; }</style>
</head>
<body>
<div id="pano"></div>
<script type="module">
// Shows the tile pyramid of this folder in Marzipano. Serve the folder over
// HTTP (module scripts do not load from file: URLs). The viewer comes from
// jsDelivr; to use a local copy, open index.html?marzipano=<URL of marzipano.js>.
const local = new URLSearchParams(location.search).get('marzipano');
const script = document.createElement('script');
script.src = local || '%s';
if (!local) {
  script.integrity = '%s';
  script.crossOrigin = 'anonymous';
}
await new Promise((loaded, failed) => {
  script.onload = loaded;
  script.onerror = () => failed(new Error('cannot load ' + script.src));
  document.head.appendChild(script);
});
const { default: createScene } = await import('./marzipano.js');
const viewer = new Marzipano.Viewer(document.getElementById('pano'));
window.scene = createScene(Marzipano, viewer);
window.scene.switchTo();
</script>
</body>
</html>
)",
                      kMarzipanoUrl, kMarzipanoIntegrity);
}

}  // namespace

std::vector<TextOutput> webViewerFiles(int faceSize, const std::string& outputPrefix, const std::string& extension)
{
    const Layout l = layoutOf(faceSize, outputPrefix, extension);
    const std::string base = l.pyramid ? l.folder : outputPrefix + "_";
    std::vector<TextOutput> files = {
        {base + "pannellum.json", pannellum(l)},
        {base + "marzipano.js", marzipano(l)},
        {base + "psv.js", photoSphereViewer(l)},
        {base + "krpano.xml", krpano(l)},
    };
    if (l.pyramid)
        files.push_back({base + "index.html", indexPage()});
    return files;
}

std::vector<LinkOutput> webViewerLinks(int faceSize, const std::string& outputPrefix, const std::string& extension)
{
    const Layout l = layoutOf(faceSize, outputPrefix, extension);
    std::vector<LinkOutput> links;
    if (!l.pyramid)
        return links;
    const CubeJpegNames names(outputPrefix, extension.c_str());
    for (int f = 0; f < int(kCubeFaces.size()); ++f)
        for (int level = 0; level < l.levels; ++level)
            for (int r = 0; r < (1 << level); ++r)
                for (int c = 0; c < (1 << level); ++c)
                    links.push_back({names.pannellumTile(level + 2, f, r, c),
                                     "../" + pyramidTileName(level, kCubeFaces[f].letter, r, c, extension)});
    return links;
}

void writeWebViewerFiles(int faceSize, const std::string& outputPrefix, const std::string& extension)
{
    for (const TextOutput& f : webViewerFiles(faceSize, outputPrefix, extension))
        AtomicOutputFile(f.path).write([&](std::ofstream& out) { out << f.text; });
    for (const LinkOutput& link : webViewerLinks(faceSize, outputPrefix, extension)) {
        AtomicOutputFile out(link.path);
        std::filesystem::remove(out.tempPath());
        std::filesystem::create_symlink(link.target, out.tempPath());
        out.commit();
    }
}
