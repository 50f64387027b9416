#include "loader_helpers.h"

#include <jpeglib.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

void writeTestJpeg(const std::string& path, int width, int height, int components,
                   const std::vector<uint8_t>& pixels, int quality)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        throw std::runtime_error("cannot write " + path);
    jpeg_compress_struct cinfo;
    jpeg_error_mgr jerr;
    cinfo.err = jpeg_std_error(&jerr);
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
    cinfo.image_width = JDIMENSION(width);
    cinfo.image_height = JDIMENSION(height);
    cinfo.input_components = components;
    cinfo.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<uint8_t*>(&pixels[size_t(cinfo.next_scanline) * width * components]);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::fclose(f);
}

std::vector<uint8_t> decodeJpegEighth(const std::string& path, int& width, int& height)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        throw std::runtime_error("cannot read " + path);
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr jerr;
    cinfo.err = jpeg_std_error(&jerr);
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, f);
    jpeg_read_header(&cinfo, TRUE);
    cinfo.scale_num = 1;
    cinfo.scale_denom = 8;
    cinfo.dct_method = JDCT_IFAST;
    cinfo.do_fancy_upsampling = FALSE;
    cinfo.out_color_space = JCS_RGB;
    jpeg_start_decompress(&cinfo);
    width = int(cinfo.output_width);
    height = int(cinfo.output_height);
    std::vector<uint8_t> out(size_t(width) * height * 3);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = &out[size_t(cinfo.output_scanline) * width * 3];
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    std::fclose(f);
    return out;
}

std::vector<uint8_t> smoothPicture(int width, int height)
{
    std::vector<uint8_t> p(size_t(width) * height * 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t* q = &p[(size_t(y) * width + x) * 3];
            q[0] = uint8_t(x * 255 / (width - 1));
            q[1] = uint8_t(y * 255 / (height - 1));
            q[2] = uint8_t(((x / 40 + y / 40) % 2) ? 200 : 40);
        }
    return p;
}

std::string makeScratchDir(const std::string& tag)
{
    std::string pattern = (std::filesystem::temp_directory_path() / ("tessara-" + tag + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    return pattern;
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out << bytes;
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

std::string readFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}
