// Disparity filtering: speckle regions, back-lit frames, one match per target
// column, and the distance limits of the output.
#include <cmath>
#include <cstdio>

#include "driver/driver_cpp/source/KSCamera.h"
#include "driver/driver_cpp/source/KSDisparityCommon.h"

namespace {

constexpr uint16_t kNoDisparityLimit = 16383;

// 32 x bxf / distance as a disparity limit; 0 stands for "no limit".
uint16_t disparity_limit(float bxf, float distance, uint16_t unlimited) {
    if (distance == 0.0f) return unlimited;
    const double v = 32.0 * static_cast<double>(bxf) / static_cast<double>(distance);
    if (v > kNoDisparityLimit) return kNoDisparityLimit;
    return static_cast<uint16_t>(v);
}

}  // namespace

int KSCamera::set_disparity_filter_max_and_min_distance(float max_distance, float min_distance) {
    // NaN is refused like a negative distance.
    if (!(max_distance >= 0.0f) || !(min_distance >= 0.0f) ||
        (max_distance != 0.0f && min_distance > max_distance)) {
        puts("Negative number in parameters, which does not conform to rules");
        return -1;
    }
    if (fetch_geometry() != 0 || !(m_bxf > 0.0f) || !std::isfinite(m_bxf)) {
        puts("Get bxf and baseline failed");
        return -1;
    }
    m_max_disparity_limit = disparity_limit(m_bxf, min_distance, kNoDisparityLimit);
    m_min_disparity_limit = disparity_limit(m_bxf, max_distance, 0);
    return 0;
}

int KSCamera::filter_disparity(uint16_t width, uint16_t height, uint16_t* disparity,
                               uint8_t* image) {
    if (disparity == nullptr) return -1;
    if (fetch_geometry() != 0) return -1;

    // The geometry is per call (not shared between cameras), so that cameras
    // processing on threads of their own never see each other's sizes.
    const ks_disparity::Grid g = ks_disparity::grid_for(width, height);
    if (g.pixels == 0) return 0;

    KSDisparityWork* work = disparity_work();
    if (work == nullptr) return -1;
    KSDisparityWork& w = *work;
    const size_t n = g.pixels;
    if (!w.grid.reserve(n)) return -1;
    if (!w.label.reserve(n)) return -2;
    if (!w.region_size.reserve(n + 1)) return -3;
    if (!w.parent.reserve(n + 1)) return -4;
    if (!w.claimed.reserve(g.width)) return -1;

    if (resolve_start_offset(g.width) != 0) return -13;

    ks_disparity::downsample(g, disparity, width, height, m_dense_start_offset, w.grid.data());

    const ks_disparity::Area whole{0, g.height - 1, 0, g.width - 1};
    const uint64_t small = ks_disparity::label_regions(g, whole, w);

    if (drop_back_lit_frame(small, g.pixels, width, height, image)) {
        ks_disparity::clear_grid(g, w.grid.data());
    } else {
        ks_disparity::clear_small_regions(g, whole, w);
        ks_disparity::keep_unique_matches(g, w);
    }

    ks_disparity::upsample(g, w.grid.data(), m_min_disparity_limit, m_max_disparity_limit, width,
                           disparity);
    return 0;
}
