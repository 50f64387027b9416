#pragma once
// Equirectangular pictures as 360-degree cameras and other stitchers write
// them (JPEG, PNG, TIFF), beside the Radiance and OpenEXR panoramas: what
// kind a file is by its first bytes, what it declares before its pixels, and
// where a Photo Sphere XMP packet places it on the sphere.
#include <cstddef>
#include <cstdint>
#include <string>

#include "image/ImageView.h"

enum class PictureKind { Unknown, Jpeg, Png, Tiff, Radiance, OpenExr };

// The kind the first bytes of a file announce (JPEG FF D8 FF, PNG's eight-byte
// signature, TIFF "II*\0" or "MM\0*", Radiance "#?", OpenEXR 76 2F 31 01);
// Unknown for anything else, a shorter head included.
PictureKind pictureKindOf(const uint8_t* head, size_t size);

// The same for the file at `path`; Unknown when it cannot be read.
PictureKind sniffPictureKind(const std::string& path);

// "JPEG", "PNG", "TIFF", "Radiance", "OpenEXR", for messages.
const char* pictureKindName(PictureKind kind);

// What a JPEG, PNG or TIFF file declares before its pixels.
struct PictureInfo {
    int32_t width = 0, height = 0;
    bool hdr = false;  // floating-point samples: decoded to RGBE
    std::string xmp;   // the file's XMP packet, empty when it has none
    // EXIF orientation of a JPEG (1 to 8; 1 when absent or out of range).
    // width and height are the picture's as it is shown, after turning it.
    int orientation = 1;
};

// The picture shown as `orientation` (EXIF 1 to 8) asks: mirrored, turned
// or both; orientations 5 to 8 swap width and height.
Image orientPicture(Image stored, int orientation);

// Where the stored image lies in the whole sphere's equirectangular image
// (the GPano fields of Photo Sphere XMP): a full panorama of fullWidth x
// fullHeight pixels, the stored image's top-left pixel at (left, top).
struct PanoramaPlacement {
    int32_t fullWidth = 0, fullHeight = 0;
    int32_t left = 0, top = 0;
    bool present() const { return fullWidth > 0; }
};

// The placement an XMP packet declares: FullPanoWidthPixels,
// FullPanoHeightPixels, CroppedAreaLeftPixels and CroppedAreaTopPixels, as
// elements or as attributes; absent (fullWidth 0) unless both full sizes are
// positive integers. Offsets left out count as 0.
PanoramaPlacement photoSphereXmpPlacement(const std::string& xmp);

// Reads the header of a JPEG, PNG or TIFF file without its pixels. Throws
// what the full reader throws for a header it refuses.
PictureInfo readPictureInfo(const std::string& path, PictureKind kind);

// Bytes a pixel of 16-bit RGB: three unsigned shorts in native byte order.
constexpr int32_t kRgb16Channels = 6;

// Decodes a JPEG, PNG or TIFF file: packed 8-bit RGB, 16-bit RGB
// (kRgb16Channels) for PNG and TIFF files of 16-bit samples, or RGBE (4 bytes)
// for floating-point samples.
Image readPicture(const std::string& path, PictureKind kind);

// 16-bit RGB rounded to the nearest 8-bit values (v / 257), packed.
Image roundRgb16(const ImageView& rgb16);
