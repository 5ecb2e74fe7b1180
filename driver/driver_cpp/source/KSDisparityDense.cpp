// Dense disparity: speckle removal, back-lit frames, then hole filling by
// directional interpolation and grey-guided averaging on the down-sampled
// grid, written back over the whole map.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "driver/driver_cpp/source/KSCamera.h"
#include "driver/driver_cpp/source/KSDisparityCommon.h"

namespace {

constexpr int kToleranceEntries = 4096;
// The tolerance is the disparity step of a 50-unit distance step, never
// below 30 (just under one pixel).
constexpr double kDistanceStep = 50.0;
constexpr uint16_t kMinTolerance = 30;
constexpr float kDefaultBxf = 30000.0f;

// Interpolation limits: sums of step counts.
constexpr uint32_t kCrossSpanMax = 999;
constexpr uint32_t kLineSpanMax = 9;
constexpr uint32_t kPairSpanLimit = 20;

// Guided averaging: arms of at most 5 steps over grey values that differ
// from the centre and from the previous arm pixel by less than 20, and from
// the fourth step on from the centre by at most 5.
constexpr int kArmSteps = 5;
constexpr int kGreyStep = 20;
constexpr int kFarStep = 4;
constexpr int kFarGreyStep = 5;

void build_tolerance_table(float bxf, uint16_t* table) {
    const double b = static_cast<double>(bxf) * 32.0;
    for (int d = 0; d < kToleranceEntries; ++d) {
        const double den = b - kDistanceStep * d;
        double t = den > 0.0 ? kDistanceStep * d * d / den : 65535.0;
        if (t > 65535.0) t = 65535.0;
        uint16_t v = static_cast<uint16_t>(t);
        if (v < kMinTolerance) v = kMinTolerance;
        table[d] = v;
    }
}

inline uint32_t absdiff(uint32_t a, uint32_t b) {
    return a > b ? a - b : b - a;
}

inline uint16_t tolerance(const uint16_t* table, uint32_t d) {
    return table[std::min<uint32_t>(d, kToleranceEntries - 1)];
}

// Nearest non-zero value above and to the left of every empty sample
// (forward scan), below and to the right (backward scan), with the distance
// in steps; value 0 means none within the area.
void nearest_values(const ks_disparity::Grid& g, const ks_disparity::Area& a, KSDisparityWork& w) {
    const uint16_t* grid = w.grid.data();
    uint16_t* uv = w.up_value.data();
    uint16_t* us = w.up_steps.data();
    uint16_t* lv = w.left_value.data();
    uint16_t* ls = w.left_steps.data();
    uint16_t* dv = w.down_value.data();
    uint16_t* ds = w.down_steps.data();
    uint16_t* rv = w.right_value.data();
    uint16_t* rs = w.right_steps.data();
    const size_t W = g.width;

    for (int r = a.r0; r <= a.r1; ++r) {
        const size_t row = static_cast<size_t>(r) * W;
        for (int c = a.c0; c <= a.c1; ++c) {
            const size_t i = row + static_cast<size_t>(c);
            if (grid[i] != 0) continue;
            if (r == a.r0) {
                uv[i] = 0;
                us[i] = 0;
            } else if (grid[i - W] != 0) {
                uv[i] = grid[i - W];
                us[i] = 1;
            } else {
                uv[i] = uv[i - W];
                us[i] = uv[i] != 0 ? static_cast<uint16_t>(us[i - W] + 1) : 0;
            }
            if (c == a.c0) {
                lv[i] = 0;
                ls[i] = 0;
            } else if (grid[i - 1] != 0) {
                lv[i] = grid[i - 1];
                ls[i] = 1;
            } else {
                lv[i] = lv[i - 1];
                ls[i] = lv[i] != 0 ? static_cast<uint16_t>(ls[i - 1] + 1) : 0;
            }
        }
    }
    for (int r = a.r1; r >= a.r0; --r) {
        const size_t row = static_cast<size_t>(r) * W;
        for (int c = a.c1; c >= a.c0; --c) {
            const size_t i = row + static_cast<size_t>(c);
            if (grid[i] != 0) continue;
            if (r == a.r1) {
                dv[i] = 0;
                ds[i] = 0;
            } else if (grid[i + W] != 0) {
                dv[i] = grid[i + W];
                ds[i] = 1;
            } else {
                dv[i] = dv[i + W];
                ds[i] = dv[i] != 0 ? static_cast<uint16_t>(ds[i + W] + 1) : 0;
            }
            if (c == a.c1) {
                rv[i] = 0;
                rs[i] = 0;
            } else if (grid[i + 1] != 0) {
                rv[i] = grid[i + 1];
                rs[i] = 1;
            } else {
                rv[i] = rv[i + 1];
                rs[i] = rv[i] != 0 ? static_cast<uint16_t>(rs[i + 1] + 1) : 0;
            }
        }
    }
}

// Fills empty samples from their four nearest values; the vertical estimate
// wins over the horizontal one.
void interpolate(const ks_disparity::Grid& g, const ks_disparity::Area& a, KSDisparityWork& w,
                 const uint16_t* tol) {
    uint16_t* grid = w.grid.data();
    const uint16_t* uv = w.up_value.data();
    const uint16_t* us = w.up_steps.data();
    const uint16_t* lv = w.left_value.data();
    const uint16_t* ls = w.left_steps.data();
    const uint16_t* dv = w.down_value.data();
    const uint16_t* ds = w.down_steps.data();
    const uint16_t* rv = w.right_value.data();
    const uint16_t* rs = w.right_steps.data();
    const size_t W = g.width;

    for (int r = a.r0; r <= a.r1; ++r) {
        const size_t row = static_cast<size_t>(r) * W;
        for (int c = a.c0; c <= a.c1; ++c) {
            const size_t i = row + static_cast<size_t>(c);
            if (grid[i] != 0) continue;
            const uint64_t u = uv[i], du = us[i], lo = dv[i], dd = ds[i];
            const uint64_t l = lv[i], dl = ls[i], ri = rv[i], dr = rs[i];
            const bool vertical = u != 0 && lo != 0;
            const bool horizontal = l != 0 && ri != 0;
            uint32_t value = 0;
            if (vertical && horizontal) {
                const uint32_t v = static_cast<uint32_t>((u * dd + lo * du) / (du + dd));
                const uint32_t h = static_cast<uint32_t>((l * dr + ri * dl) / (dl + dr));
                if (absdiff(v, h) < tolerance(tol, std::min(v, h))) {
                    if ((du + dd) * (dl + dr) <= kCrossSpanMax) {
                        value = (v + h) / 2;
                    } else if (du + dd <= kLineSpanMax) {
                        value = v;
                    } else if (dl + dr <= kLineSpanMax) {
                        value = h;
                    }
                }
            } else if (vertical) {
                if (du + dd < kPairSpanLimit &&
                    absdiff(static_cast<uint32_t>(u), static_cast<uint32_t>(lo)) <
                        tolerance(tol, static_cast<uint32_t>(std::min(u, lo))))
                    value = static_cast<uint32_t>((u * dd + lo * du) / (du + dd));
            } else if (horizontal) {
                if (dl + dr < kPairSpanLimit &&
                    absdiff(static_cast<uint32_t>(l), static_cast<uint32_t>(ri)) <
                        tolerance(tol, static_cast<uint32_t>(std::min(l, ri))))
                    value = static_cast<uint32_t>((l * dr + ri * dl) / (dl + dr));
            }
            grid[i] = static_cast<uint16_t>(value);
        }
    }
}

// May the arm take its s-th step onto grey value q?
inline bool arm_step(int s, int centre, int previous, int q) {
    const int to_centre = std::abs(q - centre);
    return to_centre < kGreyStep && std::abs(q - previous) < kGreyStep &&
           (s < kFarStep || to_centre <= kFarGreyStep);
}

constexpr uint16_t kNotMeasured = 0xFFFF;

// Horizontal support of sample i (row r, column c): arms to the left and to
// the right over the grey plane, count and sum of the non-zero disparities
// along them (centre included) and the arms' total length. Measured once per
// frame, on first use.
inline void measure_row_support(const ks_disparity::Area& a, const uint16_t* disparity,
                                const uint8_t* grey, size_t i, int c, KSDisparityWork& w) {
    if (w.row_count.data()[i] != kNotMeasured) return;
    const int centre = grey[i];
    uint32_t n = disparity[i] != 0 ? 1 : 0;
    uint32_t total = disparity[i];
    int arms = 0;
    int previous = centre;
    for (int s = 1; s <= kArmSteps && c - s >= a.c0; ++s) {
        const int q = grey[i - s];
        if (!arm_step(s, centre, previous, q)) break;
        const uint16_t d = disparity[i - s];
        n += d != 0;
        total += d;
        previous = q;
        ++arms;
    }
    previous = centre;
    for (int s = 1; s <= kArmSteps && c + s <= a.c1; ++s) {
        const int q = grey[i + s];
        if (!arm_step(s, centre, previous, q)) break;
        const uint16_t d = disparity[i + s];
        n += d != 0;
        total += d;
        previous = q;
        ++arms;
    }
    w.row_count.data()[i] = static_cast<uint16_t>(n);
    w.row_sum.data()[i] = total;
    w.row_support.data()[i] = static_cast<uint16_t>(arms);
}

// Cross-shaped support from the grey plane: an empty sample is filled with
// the mean of its horizontal average and its cross average (the horizontal
// results summed over the rows of its vertical arms), when both are non-zero
// and their non-zero samples make up more than a third of their support.
// Everything is measured on the map as interpolation left it.
void guided_average(const ks_disparity::Grid& g, const ks_disparity::Area& a, KSDisparityWork& w) {
    uint16_t* grid = w.grid.data();
    uint16_t* before = w.snapshot.data();
    const uint8_t* grey = w.grey.data();
    const uint16_t* count = w.row_count.data();
    const uint16_t* support = w.row_support.data();
    const uint32_t* sum = w.row_sum.data();
    const size_t W = g.width;
    std::memcpy(before, grid, static_cast<size_t>(g.pixels) * sizeof(uint16_t));
    std::memset(w.row_count.data(), 0xFF, static_cast<size_t>(g.pixels) * sizeof(uint16_t));

    for (int r = a.r0; r <= a.r1; ++r) {
        const size_t row = static_cast<size_t>(r) * W;
        for (int c = a.c0; c <= a.c1; ++c) {
            const size_t i = row + static_cast<size_t>(c);
            if (before[i] != 0) continue;
            measure_row_support(a, before, grey, i, c, w);
            const uint32_t hn = count[i];
            if (hn == 0 || hn * 3 <= support[i]) continue;
            const uint32_t horizontal = sum[i] / hn;
            if (horizontal == 0) continue;

            const int centre = grey[i];
            uint32_t n = hn;
            uint64_t total = sum[i];
            uint32_t area = support[i];
            int previous = centre;
            for (int s = 1; s <= kArmSteps && r - s >= a.r0; ++s) {
                const size_t j = i - static_cast<size_t>(s) * W;
                if (!arm_step(s, centre, previous, grey[j])) break;
                measure_row_support(a, before, grey, j, c, w);
                n += count[j];
                total += sum[j];
                area += support[j];
                previous = grey[j];
            }
            previous = centre;
            for (int s = 1; s <= kArmSteps && r + s <= a.r1; ++s) {
                const size_t j = i + static_cast<size_t>(s) * W;
                if (!arm_step(s, centre, previous, grey[j])) break;
                measure_row_support(a, before, grey, j, c, w);
                n += count[j];
                total += sum[j];
                area += support[j];
                previous = grey[j];
            }
            if (n * 3 <= area) continue;
            const uint32_t cross = static_cast<uint32_t>(total / n);
            if (cross == 0) continue;
            grid[i] = static_cast<uint16_t>((horizontal + cross) / 2);
        }
    }
}

}  // namespace

int KSCamera::dense_disparity(uint16_t width, uint16_t height, uint16_t* disparity,
                              uint8_t* image) {
    // The tolerance table is process-wide and built once, under a lock.
    static uint16_t u16Threshold[kToleranceEntries];
    static std::atomic<uint8_t> u8flag{0};
    static std::mutex threshold_mutex;

    if (disparity == nullptr || image == nullptr) return -1;
    if (fetch_geometry() != 0) return -1;

    // The geometry is per call (not shared between cameras), so that cameras
    // processing on threads of their own never see each other's sizes.
    const ks_disparity::Grid g = ks_disparity::grid_for(width, height);
    if (g.pixels == 0) return 0;

    KSDisparityWork* work = disparity_work();
    if (work == nullptr) return -1;
    KSDisparityWork& w = *work;
    const size_t n = g.pixels;
    if (!w.grid.reserve(n) || !w.grey.reserve(n)) return -1;
    if (!w.label.reserve(n)) return -2;
    if (!w.region_size.reserve(n + 1)) return -3;
    if (!w.parent.reserve(n + 1)) return -4;
    KSWorkBuffer<uint16_t>* directional[] = {&w.up_value,    &w.up_steps,   &w.left_value,
                                             &w.left_steps,  &w.down_value, &w.down_steps,
                                             &w.right_value, &w.right_steps};
    int code = -5;
    for (KSWorkBuffer<uint16_t>* plane : directional) {
        if (!plane->reserve(n)) return code;
        --code;
    }
    if (!w.row_count.reserve(n) || !w.row_support.reserve(n) || !w.row_sum.reserve(n) ||
        !w.snapshot.reserve(n) || !w.claimed.reserve(g.width))
        return -1;

    if (resolve_start_offset(g.width) != 0) return -13;

    ks_disparity::downsample(g, disparity, width, height, m_dense_start_offset, w.grid.data());
    ks_disparity::downsample_grey(g, image, width, w.grey.data());

    const ks_disparity::Area inner = ks_disparity::inner_area(g);
    ks_disparity::Area scanned = inner;
    scanned.c0 = 27 / g.factor;  // the scan starts on the last border column
    const uint64_t small = ks_disparity::label_regions(g, scanned, w);

    const bool dropped = drop_back_lit_frame(small, g.pixels, width, height, image);
    if (dropped) {
        m_dense_valid_flag = 0;
        ks_disparity::clear_grid(g, w.grid.data());
    } else {
        m_dense_valid_flag = 1;
        ks_disparity::clear_small_regions(g, scanned, w);
        ks_disparity::keep_unique_matches(g, w);
    }

    if (u8flag.load(std::memory_order_acquire) == 0) {
        // Built once per process, from the first camera's geometry.
        std::lock_guard<std::mutex> lock(threshold_mutex);
        if (u8flag.load(std::memory_order_relaxed) == 0) {
            if (!(m_bxf > 0.0f) || !std::isfinite(m_bxf)) m_bxf = kDefaultBxf;
            build_tolerance_table(m_bxf, u16Threshold);
            u8flag.store(1, std::memory_order_release);
        }
    }

    if (!dropped && !inner.empty()) {
        nearest_values(g, inner, w);
        interpolate(g, inner, w, u16Threshold);
        guided_average(g, inner, w);
    }

    ks_disparity::upsample(g, w.grid.data(), m_min_disparity_limit, m_max_disparity_limit, width,
                           disparity);
    return 0;
}
