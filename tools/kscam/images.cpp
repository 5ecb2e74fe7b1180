#include "tools/kscam/images.h"

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace kscam {

// PLY records are written in the host's byte order, declared little-endian.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "PLY writer assumes a little-endian host");

namespace {

uint8_t clamp_byte(double v) {
    return static_cast<uint8_t>(std::lround(std::min(255.0, std::max(0.0, v))));
}

// Truncation toward zero of a double product, as the camera's table is built.
int t(double x) {
    return static_cast<int>(x);
}

std::vector<uint8_t> build_colour_table() {
    std::vector<uint8_t> table(8192 * 3, 0);
    auto set = [&](int entry, int r, int g, int b) {
        table[entry * 3 + 0] = static_cast<uint8_t>(r & 0xFF);
        table[entry * 3 + 1] = static_cast<uint8_t>(g & 0xFF);
        table[entry * 3 + 2] = static_cast<uint8_t>(b & 0xFF);
    };
    for (int e = 1; e <= 24; ++e) set(e, 255, 255, 255);
    for (int e = 25; e <= 39; ++e) {
        const int v = 247 - 8 * (e - 25);
        set(e, v, v, v);
    }
    set(40, 128, 128, 128);
    for (int k = 0; k <= 23; ++k) {
        const int v = t(k * 5.291668);
        set(41 + k, v - 128, -128 - v, v - 128);
    }
    for (int j = 1; j <= 56; ++j) set(64 + j, 255 - t(j * 4.553571), 0, 255);
    for (int j = 1; j <= 56; ++j) set(120 + j, 0, t(j * 4.553571), 255);
    for (int j = 1; j <= 144; ++j) set(176 + j, 0, 255, 255 - t(j * 1.770833));
    for (int j = 1; j <= 480; ++j) set(320 + j, t(j * 0.53125), 255, 0);
    for (int j = 1; j <= 1248; ++j) set(800 + j, 255, 255 - t(j * 0.204327), 0);
    for (int e = 2049; e <= 8191; ++e) set(e, 255, 0, 0);
    return table;
}

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

File open_for_writing(const std::string& path) {
    File f(std::fopen(path.c_str(), "wb"));
    if (!f) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    return f;
}

// Writes rows of bytes already in PNG order.
void write_png_rows(const std::string& path, int width, int height, int colour_type, int depth,
                    const std::vector<const uint8_t*>& rows) {
    File f = open_for_writing(path);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        throw std::runtime_error("cannot write " + path + ": out of memory");
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("cannot write " + path);
    }
    png_init_io(png, f.get());
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height),
                 depth, colour_type, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 3);
    png_write_info(png, info);
    for (const uint8_t* row : rows) png_write_row(png, row);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fflush(f.get()) != 0) throw std::runtime_error("cannot write " + path);
}

}  // namespace

double disparity_distance_mm(uint16_t disparity, double bxf) {
    const uint16_t value = disparity & kDisparityMask;
    return value == 0 ? 0.0 : 32.0 * bxf / value;
}

const std::vector<uint8_t>& disparity_colour_table() {
    static const std::vector<uint8_t> table = build_colour_table();
    return table;
}

void i420_pixel(const uint8_t* i420, int width, int height, int x, int y, uint8_t rgb[3]) {
    const size_t plane = static_cast<size_t>(width) * height;
    const size_t chroma = static_cast<size_t>(y / 2) * (width / 2) + x / 2;
    const double Y = i420[static_cast<size_t>(y) * width + x];
    const double U = i420[plane + chroma] - 128.0;
    const double V = i420[plane * 5 / 4 + chroma] - 128.0;
    rgb[0] = clamp_byte(Y + 1.402 * V);
    rgb[1] = clamp_byte(Y - 0.344136 * U - 0.714136 * V);
    rgb[2] = clamp_byte(Y + 1.772 * U);
}

std::vector<uint8_t> i420_to_rgb(const uint8_t* i420, int width, int height) {
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            i420_pixel(i420, width, height, x, y, &rgb[(static_cast<size_t>(y) * width + x) * 3]);
    return rgb;
}

std::vector<uint8_t> colourise_disparity(const uint16_t* disparity, int width, int height) {
    const std::vector<uint8_t>& table = disparity_colour_table();
    const size_t n = static_cast<size_t>(width) * height;
    std::vector<uint8_t> rgb(n * 3);
    for (size_t i = 0; i < n; ++i)
        std::memcpy(&rgb[i * 3], &table[(disparity[i] & kDisparityMask) * 3u], 3);
    return rgb;
}

std::vector<uint16_t> depth_image_mm(const uint16_t* disparity, int width, int height, double bxf) {
    const size_t n = static_cast<size_t>(width) * height;
    std::vector<uint16_t> depth(n);
    for (size_t i = 0; i < n; ++i) {
        const double mm = disparity_distance_mm(disparity[i], bxf);
        depth[i] = static_cast<uint16_t>(std::lround(std::min(mm, 65535.0)));
    }
    return depth;
}

void write_png8(const std::string& path, int width, int height, int channels,
                const uint8_t* pixels) {
    std::vector<const uint8_t*> rows(static_cast<size_t>(height));
    for (int y = 0; y < height; ++y) rows[y] = pixels + static_cast<size_t>(y) * width * channels;
    write_png_rows(path, width, height, channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, 8,
                   rows);
}

void write_png16(const std::string& path, int width, int height, const uint16_t* samples) {
    // PNG stores 16-bit samples most significant byte first.
    std::vector<uint8_t> bytes(static_cast<size_t>(width) * height * 2);
    for (size_t i = 0; i < bytes.size() / 2; ++i) {
        bytes[2 * i] = static_cast<uint8_t>(samples[i] >> 8);
        bytes[2 * i + 1] = static_cast<uint8_t>(samples[i] & 0xFF);
    }
    std::vector<const uint8_t*> rows(static_cast<size_t>(height));
    for (int y = 0; y < height; ++y) rows[y] = &bytes[static_cast<size_t>(y) * width * 2];
    write_png_rows(path, width, height, PNG_COLOR_TYPE_GRAY, 16, rows);
}

void write_ply(const std::string& path, uint32_t count, const float* x, const float* y,
               const float* z, const uint8_t* rgb, const std::string& comment) {
    File f = open_for_writing(path);
    std::fprintf(f.get(),
                 "ply\nformat binary_little_endian 1.0\ncomment %s\nelement vertex %u\n"
                 "property float x\nproperty float y\nproperty float z\n"
                 "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n",
                 comment.c_str(), count);
    std::vector<uint8_t> record(15 * 4096);
    for (uint32_t first = 0; first < count; first += 4096) {
        const uint32_t n = std::min<uint32_t>(4096, count - first);
        for (uint32_t i = 0; i < n; ++i) {
            uint8_t* r = &record[i * 15];
            const float p[3] = {x[first + i], y[first + i], z[first + i]};
            std::memcpy(r, p, 12);
            std::memcpy(r + 12, rgb + (static_cast<size_t>(first) + i) * 3, 3);
        }
        if (std::fwrite(record.data(), 15, n, f.get()) != n)
            throw std::runtime_error("cannot write " + path);
    }
    if (std::fflush(f.get()) != 0) throw std::runtime_error("cannot write " + path);
}

}  // namespace kscam
