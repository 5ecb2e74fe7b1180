// Captures one frame of the first camera: the colour image (colour.ppm), the
// depth in millimetres (depth.pgm, 16-bit) and the point cloud (cloud.ply).
//   capture [folder]   (default: the current folder)
#include <ksStereoCameraDriver.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

uint8_t clamp(double v) {
    return static_cast<uint8_t>(std::lround(std::min(255.0, std::max(0.0, v))));
}

// The colour image comes as I420: a Y plane, then U and V at quarter size.
std::vector<uint8_t> i420_to_rgb(const uint8_t* i420, int width, int height) {
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    const size_t plane = static_cast<size_t>(width) * height;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const size_t chroma = static_cast<size_t>(y / 2) * (width / 2) + x / 2;
            const double Y = i420[static_cast<size_t>(y) * width + x];
            const double U = i420[plane + chroma] - 128.0, V = i420[plane * 5 / 4 + chroma] - 128.0;
            uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
            p[0] = clamp(Y + 1.402 * V);
            p[1] = clamp(Y - 0.344136 * U - 0.714136 * V);
            p[2] = clamp(Y + 1.772 * U);
        }
    return rgb;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string dir = argc > 1 ? std::string(argv[1]) + "/" : "";

    _ks_camera_list* list = nullptr;
    if (ksQueryCameraList(&list) != 0 || list == nullptr || list->count == 0) {
        std::printf("no camera found\n");
        return 1;
    }
    KSCameraAbstract* camera = nullptr;
    const int r = ksOpenUVCCameraByPath(list->cameras[0].video_dev, &camera);
    ksReleaseCameraList(list);
    if (r != 0) return 1;
    unsigned short width = 0, height = 0;
    float bxf = 0, baseline = 0;
    ksGetVideoResolution(camera, &width, &height);
    ksGetBxfAndBase(camera, &bxf, &baseline);
    const size_t pixels = static_cast<size_t>(width) * height;

    unsigned long id = 0;
    unsigned char* frame = nullptr;
    unsigned char *disparity_data = nullptr, *image = nullptr;
    if (ksGetCurrentFrame(camera, &id, &frame) != 0 ||
        ksGetRGBDImage(camera, frame, &disparity_data, &image) != 0) {
        std::printf("no frame\n");
        ksCloseCamera(&camera);
        return 1;
    }
    // The library reuses its buffers at the next call: keep copies.
    const auto* d = reinterpret_cast<const uint16_t*>(disparity_data);
    const std::vector<uint16_t> disparity(d, d + pixels);
    const std::vector<uint8_t> rgb = i420_to_rgb(image, width, height);

    std::ofstream colour(dir + "colour.ppm", std::ios::binary);
    colour << "P6\n" << width << " " << height << "\n255\n";
    colour.write(reinterpret_cast<const char*>(rgb.data()),
                 static_cast<std::streamsize>(rgb.size()));

    // 16-bit PGM samples are big-endian.
    std::ofstream depth(dir + "depth.pgm", std::ios::binary);
    depth << "P5\n" << width << " " << height << "\n65535\n";
    for (uint16_t v : disparity) {
        const uint16_t value = v & 0x1FFF;  // value / 32 pixels, 0 unknown
        const double mm = value == 0 ? 0 : std::min(65535.0, std::round(32.0 * bxf / value));
        const auto m = static_cast<uint16_t>(mm);
        const char be[2] = {static_cast<char>(m >> 8), static_cast<char>(m & 0xFF)};
        depth.write(be, 2);
    }

    unsigned int count = 0;
    float *x = nullptr, *y = nullptr, *z = nullptr;
    if (ksConvertDisparity2PointCloud(camera, disparity.data(), &count, &x, &y, &z) != 0) {
        std::printf("no point cloud\n");
        ksCloseCamera(&camera);
        return 1;
    }
    std::ofstream cloud(dir + "cloud.ply", std::ios::binary);
    cloud << "ply\nformat binary_little_endian 1.0\nelement vertex " << count
          << "\nproperty float x\nproperty float y\nproperty float z\nend_header\n";
    for (unsigned int i = 0; i < count; ++i) {
        const float p[3] = {x[i], y[i], z[i]};
        cloud.write(reinterpret_cast<const char*>(p), sizeof p);
    }
    ksCloseCamera(&camera);

    if (!colour || !depth || !cloud) {
        std::printf("cannot write the files\n");
        return 1;
    }
    std::printf("frame %lu, %u x %u: wrote colour.ppm, depth.pgm and cloud.ply (%u points)\n", id,
                width, height, count);
    return 0;
}
