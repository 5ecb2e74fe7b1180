// Host-side processing on any map: densifying, filtering, back-light
// detection, the point cloud and the rectangle statistics, for any size,
// stereo geometry (zero, negative, infinite or not a number included), line
// offset, distance limits and rectangle.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "driver/driver_cpp/source/KSDisparityCommon.h"
#include "fuzz_camera.h"
#include "fuzz_check.h"
#include "fuzz_input.h"

namespace {

float any_float(fuzzing::Input& in) {
    const uint32_t bits = in.u32();
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::Input in(data, size);
    const uint8_t ops = in.u8();
    // Up to 1300 columns reach the down-sampled path above 640; the pixel
    // count stays small so that runs stay fast.
    const uint16_t w = static_cast<uint16_t>(1 + in.u16() % 1300);
    uint16_t h = static_cast<uint16_t>(1 + in.u8() % 64);
    if (static_cast<uint32_t>(w) * h > 40000) h = static_cast<uint16_t>(40000 / w);

    FuzzCamera camera;
    camera.width = w;
    camera.height = h;
    if (ops & 0x80) {
        camera.bxf = any_float(in);
        camera.base = any_float(in);
    } else {
        camera.bxf = 1000.0f + in.u16();
        camera.base = 10.0f + in.u8();
    }
    camera.line_offset = static_cast<float>(static_cast<int8_t>(in.u8())) / 8.0f;
    // The first call of the process applies the line offset: every input
    // is a first call.
    ks_disparity::line_offset_flag = 1;
    if (ops & 0x40) camera.set_disparity_filter_max_and_min_distance(any_float(in), any_float(in));

    _ks_rect_distance_info_s rect{};
    rect.x = in.u16();
    rect.y = in.u16();
    rect.width = in.u16();
    rect.height = in.u16();

    const size_t n = static_cast<size_t>(w) * h;
    std::vector<uint16_t> map(n);
    std::vector<uint8_t> image(n * 3 / 2 + 1);
    in.bytes(map.data(), n * sizeof(uint16_t));
    in.bytes(image.data(), image.size());
    // Short inputs repeat their map, so that regions of every size appear.
    const size_t given = size > 0 ? std::min(n, static_cast<size_t>(size) / 2) : 0;
    for (size_t i = given; given > 0 && i < n; ++i) map[i] = map[i % given];

    if (ops & 1) camera.dense_disparity(w, h, map.data(), image.data());
    if (ops & 2) camera.filter_disparity(w, h, map.data(), image.data());
    if (ops & 4) camera.KsBackLightingAdjust(w, h, image.data());
    if (ops & 8) {
        uint32_t count = 0;
        float *x = nullptr, *y = nullptr, *z = nullptr;
        if (camera.convert_disparity_to_point_cloud(map.data(), &count, &x, &y, &z) == 0)
            FUZZ_CHECK(count <= n);
    }
    if (ops & 16) {
        rect.disparity = map.data();
        camera.calculate_rect_distance(&rect);
    }
    return 0;
}
