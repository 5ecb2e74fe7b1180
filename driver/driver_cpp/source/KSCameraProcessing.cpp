// Host-side disparity processing of KSCamera: the runtime environment (stereo
// geometry, resolution, reciprocal tables), the disparity parameter file, the
// point cloud and the rectangle statistics.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver/driver_cpp/source/KSCamera.h"

namespace {

constexpr int kTableEntries = 4096;
// Table entry 0: disparity 0 stands for infinitely far.
constexpr float kFarAway = 4294967296.0f;
// Rectangle statistics: histogram bins and the start values of the extremes.
constexpr uint32_t kHistogramBins = 12416;
constexpr size_t kHistogramLanes = 4;
constexpr uint16_t kMinDisparityStart = 4095;
constexpr uint16_t kMaxDisparityStart = 16;
// Line buffer of the parameter file reader.
constexpr int kParamLine = 50;

bool known(float v) {
    return v > 0.0f && std::isfinite(v);
}

}  // namespace

int KSCamera::initialize_runtime_environment() {
    if (!(m_bxf > 0.0f) || !(m_baseline > 0.0f)) {
        float bxf = 0.0f;
        float base = 0.0f;
        if (get_bxf_and_base(&bxf, &base) != 0 || !known(bxf) || !known(base)) return -1;
        m_bxf = bxf;
        m_baseline = base;
    }
    if (!(m_focal > 0.0f)) m_focal = m_bxf / m_baseline;
    if (m_image_width == 0 || m_image_height == 0) {
        uint16_t w = 0;
        uint16_t h = 0;
        if (get_video_resolution(&w, &h) != 0 || w == 0 || h == 0) return -2;
        m_image_width = w;
        m_image_height = h;
    }
    if (!m_depth_table.reserve(kTableEntries)) return -3;
    if (!m_lateral_table.reserve(kTableEntries)) return -4;

    float* depth = m_depth_table.data();
    float* lateral = m_lateral_table.data();
    depth[0] = kFarAway;
    lateral[0] = kFarAway;
    for (int d = 1; d < kTableEntries; ++d) {
        depth[d] = m_bxf * 32.0f / static_cast<float>(d);
        lateral[d] = m_baseline * 32.0f / static_cast<float>(d);
    }
    return 0;
}

float KSCamera::distance_of(uint32_t d) const {
    if (d < kTableEntries) return m_depth_table.data()[d];
    return 32.0f * m_bxf / static_cast<float>(d);
}

// ---- disparity parameter file ----

int KSCamera::save_disparity_param(const char* file) {
    if (file == nullptr || file[0] == '\0') return -1;
    float line = 0.0f;
    float disp = 0.0f;
    if (get_line_offset(&line) != 0) return -2;
    if (get_disp_offset(&disp) != 0) return -3;
    FILE* fp = fopen(file, "w");
    if (fp == nullptr) return -4;
    const bool written = fprintf(fp, "%f\n%f\n", line, disp) > 0 && fflush(fp) == 0;
    const bool closed = fclose(fp) == 0;
    return written && closed ? 0 : -4;
}

int KSCamera::set_disparity_param(const char* file) {
    if (file == nullptr || file[0] == '\0') return -1;
    FILE* fp = fopen(file, "r");
    if (fp == nullptr) return -2;
    char text[kParamLine];
    double values[2] = {0.0, 0.0};
    int result = 0;
    for (int k = 0; k < 2 && result == 0; ++k) {
        // A line without a number a float can hold counts as missing.
        if (fgets(text, sizeof text, fp) == nullptr) {
            result = -3 - k;
        } else {
            values[k] = strtod(text, nullptr);
            if (!(std::fabs(values[k]) <= FLT_MAX)) result = -3 - k;
        }
    }
    if (result == 0 && set_line_offset(static_cast<float>(values[0])) != 0) result = -5;
    if (result == 0 && set_disp_offset(static_cast<float>(values[1])) != 0) result = -6;
    fclose(fp);
    return result;
}

// ---- point cloud ----

int KSCamera::convert_disparity_to_point_cloud(const uint16_t* disparity, uint32_t* count,
                                               float** x, float** y, float** z) {
    if (disparity == nullptr || count == nullptr || x == nullptr || y == nullptr || z == nullptr)
        return -1;
    *count = 0;
    *x = *y = *z = nullptr;
    if (!m_depth_table || !m_lateral_table) {
        if (initialize_runtime_environment() != 0) return -2;
    }
    const uint32_t width = m_image_width;
    const uint32_t height = m_image_height;
    const size_t pixels = static_cast<size_t>(width) * height;
    if (pixels == 0) return -2;

    // All three are (re)made together, and only when one is missing or too
    // small for the current resolution.
    if (!m_point_x || !m_point_y || !m_point_z || m_point_x.capacity() < pixels ||
        m_point_y.capacity() < pixels || m_point_z.capacity() < pixels) {
        m_point_x.release();
        m_point_y.release();
        m_point_z.release();
        KSWorkBuffer<float>* buffers[] = {&m_point_x, &m_point_y, &m_point_z};
        for (int k = 0; k < 3; ++k) {
            if (!buffers[k]->reserve(pixels)) {
                for (KSWorkBuffer<float>* b : buffers) b->release();
                return -3 - k;
            }
        }
    }

    float* px = m_point_x.data();
    float* py = m_point_y.data();
    float* pz = m_point_z.data();
    const float* depth = m_depth_table.data();
    const float* lateral = m_lateral_table.data();
    const int half_width = static_cast<int>(width / 2);
    const int half_height = static_cast<int>(height / 2);
    uint32_t n = 0;
    for (uint32_t r = 0; r < height; ++r) {
        const uint16_t* row = disparity + static_cast<size_t>(r) * width;
        // The image centre stands in for the optical centre; Y grows upwards.
        const float v = static_cast<float>(half_height - static_cast<int>(r));
        float u = static_cast<float>(-half_width);  // column - width / 2
        for (uint32_t c = 0; c < width; ++c, u += 1.0f) {
            // Every pixel writes at the next free slot; only a valid one
            // advances it, so the points end up packed without a branch.
            const uint32_t d = row[c];
            float zd;
            float s;
            if (d < kTableEntries) {
                zd = depth[d];
                s = lateral[d];
            } else {
                zd = 32.0f * m_bxf / static_cast<float>(d);
                s = 32.0f * m_baseline / static_cast<float>(d);
            }
            px[n] = u * s;
            py[n] = v * s;
            pz[n] = zd;
            n += d != 0;
        }
    }
    // Entries past the packed points are zero.
    const size_t rest = pixels - n;
    std::memset(px + n, 0, rest * sizeof(float));
    std::memset(py + n, 0, rest * sizeof(float));
    std::memset(pz + n, 0, rest * sizeof(float));

    *count = n;
    *x = px;
    *y = py;
    *z = pz;
    return 0;
}

// ---- rectangle statistics ----

int KSCamera::calculate_rect_distance(_ks_rect_distance_info_s* info) {
    if (info == nullptr || info->disparity == nullptr || info->width == 0 || info->height == 0)
        return -1;
    info->min_disparity = 0;
    info->max_disparity = 0;
    info->mean_disparity = 0;
    info->median_disparity = 0;
    info->valid_ratio = 0.0f;
    info->min_distance = 0.0f;
    info->max_distance = 0.0f;
    info->mean_distance = 0.0f;
    info->median_distance = 0.0f;
    info->mean_point_distance = 0.0f;
    info->median_point_distance = 0.0f;
    if (!m_depth_table || !m_lateral_table) {
        if (initialize_runtime_environment() != 0) return -2;
    }

    // Rows y .. y + height and columns x .. x + width, both inclusive (one
    // more than the rectangle's size), clipped to the image.
    const uint16_t last_row = static_cast<uint16_t>(info->y + info->height);
    const uint16_t last_col = static_cast<uint16_t>(info->x + info->width);
    // Four interleaved histograms (pixel k goes to lane k % 4) so that runs of
    // equal disparities do not wait on one counter; bin 0 takes the empty
    // pixels. Disparities past the histogram are counted, summed and compared
    // on their own.
    if (!m_rect_histogram.reserve(kHistogramLanes * kHistogramBins)) return -2;
    uint32_t* const lanes = m_rect_histogram.data();
    std::memset(lanes, 0, kHistogramLanes * kHistogramBins * sizeof(uint32_t));
    uint64_t visited = 0;
    uint64_t big_count = 0;
    uint64_t big_sum = 0;
    uint32_t big_max = 0;
    const auto add = [&](uint32_t* lane, uint32_t d) {
        if (d < kHistogramBins) {
            ++lane[d];
        } else {
            ++big_count;
            big_sum += d;
            big_max = std::max(big_max, d);
        }
    };
    const uint32_t image_width = m_image_width;
    const uint32_t image_height = m_image_height;
    if (last_row >= info->y && last_col >= info->x && info->y < image_height &&
        info->x < image_width) {
        const uint32_t r_end = std::min<uint32_t>(last_row, image_height - 1);
        const uint32_t c_end = std::min<uint32_t>(last_col, image_width - 1);
        const size_t columns = c_end - info->x + 1;
        for (uint32_t r = info->y; r <= r_end; ++r) {
            const uint16_t* row = info->disparity + static_cast<size_t>(r) * image_width + info->x;
            size_t c = 0;
            for (; c + kHistogramLanes <= columns; c += kHistogramLanes) {
                for (size_t k = 0; k < kHistogramLanes; ++k)
                    add(lanes + k * kHistogramBins, row[c + k]);
            }
            for (; c < columns; ++c) add(lanes, row[c]);
        }
        visited = static_cast<uint64_t>(r_end - info->y + 1) * columns;
    }

    // Merge the lanes into the first; count, sum and extremes follow from it.
    uint32_t* const hist = lanes;
    uint64_t valid = big_count;
    uint64_t sum = big_sum;
    uint32_t max_d = std::max<uint32_t>(kMaxDisparityStart, big_max);
    uint32_t min_d = kMinDisparityStart;
    for (uint32_t b = 1; b < kHistogramBins; ++b) {
        uint32_t n = hist[b];
        for (size_t k = 1; k < kHistogramLanes; ++k) n += lanes[k * kHistogramBins + b];
        hist[b] = n;
        if (n == 0) continue;
        valid += n;
        sum += static_cast<uint64_t>(n) * b;
        max_d = std::max(max_d, b);
        min_d = std::min(min_d, b);
    }
    info->min_disparity = static_cast<uint16_t>(min_d);
    info->max_disparity = static_cast<uint16_t>(max_d);
    if (valid == 0) return 0;

    info->mean_disparity = static_cast<uint16_t>(sum / valid);
    // The walk stops at the maximum's bin: when the median would lie there,
    // it stays 0.
    const uint64_t half = valid / 2;
    uint64_t seen = 0;
    const uint32_t walk_end = std::min<uint32_t>(max_d, kHistogramBins);
    for (uint32_t b = 1; b < walk_end; ++b) {
        seen += hist[b];
        if (seen > half) {
            info->median_disparity = static_cast<uint16_t>(b);
            break;
        }
    }
    info->valid_ratio = static_cast<float>(valid) / static_cast<float>(visited);
    info->min_distance = distance_of(info->max_disparity);
    info->max_distance = m_depth_table.data()[info->min_disparity];
    info->mean_distance = distance_of(info->mean_disparity);
    info->median_distance = distance_of(info->median_disparity);

    // Centre of the rectangle against the image centre (v grows downwards).
    const int u = (info->x + info->width / 2) - static_cast<int>(image_width / 2);
    const int v = (info->y + info->height / 2) - static_cast<int>(image_height / 2);
    const auto point_distance = [&](float depth) {
        const float px = static_cast<float>(u) * depth / m_focal;
        const float py = static_cast<float>(v) * depth / m_focal;
        return std::sqrt(px * px + py * py + depth * depth);
    };
    info->mean_point_distance = point_distance(info->mean_distance);
    info->median_point_distance = point_distance(info->median_distance);
    return 0;
}
