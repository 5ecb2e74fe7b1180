// Turning the camera's images into files: colour conversion, the disparity
// colour table, depth in millimetres, PNG and PLY writers.
#ifndef KSCAM_IMAGES_H
#define KSCAM_IMAGES_H

#include <cstdint>
#include <string>
#include <vector>

namespace kscam {

// A disparity sample: value / 32 pixels in the low 13 bits, 0 invalid.
constexpr uint16_t kDisparityMask = 0x1FFF;

// Distance in millimetres along the optical axis of a disparity sample
// (32 x bxf / value), 0 for an invalid one.
double disparity_distance_mm(uint16_t disparity, double bxf);

// The camera's disparity colour table: 8192 entries of red, green, blue.
const std::vector<uint8_t>& disparity_colour_table();

// Image A as I420 (Y plane, then U and V at quarter size) to packed RGB.
std::vector<uint8_t> i420_to_rgb(const uint8_t* i420, int width, int height);
// One pixel of an I420 image as RGB.
void i420_pixel(const uint8_t* i420, int width, int height, int x, int y, uint8_t rgb[3]);

// Disparity through the colour table, packed RGB.
std::vector<uint8_t> colourise_disparity(const uint16_t* disparity, int width, int height);
// Depth in millimetres (0 invalid, capped at 65535).
std::vector<uint16_t> depth_image_mm(const uint16_t* disparity, int width, int height, double bxf);

// PNG files: 8-bit grey (channels 1) or RGB (channels 3), or 16-bit grey
// from host-order samples. Throw std::runtime_error when the file cannot be
// written.
void write_png8(const std::string& path, int width, int height, int channels,
                const uint8_t* pixels);
void write_png16(const std::string& path, int width, int height, const uint16_t* samples);

// Binary little-endian PLY of coloured points (rgb: 3 bytes per point).
void write_ply(const std::string& path, uint32_t count, const float* x, const float* y,
               const float* z, const uint8_t* rgb, const std::string& comment);

}  // namespace kscam

#endif
