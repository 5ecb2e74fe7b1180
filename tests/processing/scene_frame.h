// Frames of the virtual camera's scenes as the library's RGBD parser hands
// them to the processing, with the scene's ground truth per pixel, and how
// close a disparity map comes to that truth. Shared by the scene tests and
// the processing benchmark.
#ifndef KS_TEST_SCENE_FRAME_H
#define KS_TEST_SCENE_FRAME_H

#include <cmath>
#include <cstdint>
#include <vector>

#include "sim/kssim.h"
#include "tests/sim/frame_decoder.h"

// The grey plane and the disparity plane (row y from source line y + 3,
// row 0 and the last three rows empty), with the depth along the optical
// axis per pixel. On the processed channel the plane is registered to the
// grey image; on the raw channel it carries the disparity of the pixel 3 rows
// up and 22 columns left (the processing reads it there and writes its
// output registered to the image).
struct SceneFrame {
    uint16_t width = 0, height = 0;
    float bxf = 0.0f, baseline = 0.0f;
    std::vector<uint8_t> grey;
    std::vector<uint16_t> disparity;
    std::vector<double> truth_mm;  // 0: nothing

    // channel: KSSIM_CHANNEL_ORIGIN_DISPARITY (raw, with holes and speckles)
    // or KSSIM_CHANNEL_RGBD (processed). False when the camera cannot be made.
    bool render(kssim_scene_kind kind, double distance_mm, uint16_t w, uint16_t h,
                uint8_t channel) {
        kssim_world* world = kssim_world_create();
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        cfg.scene.kind = kind;
        cfg.scene.distance_mm = distance_mm;
        cfg.scene.seed = 7;
        cfg.initial_size = {w, h};
        cfg.output_channel = channel;
        cfg.has_imu = 0;
        kssim_camera* cam = world ? kssim_world_add_camera(world, &cfg) : nullptr;
        const size_t pixels = size_t{w} * h;
        std::vector<uint8_t> src(pixels * 3);
        const bool ok = cam != nullptr && kssim_camera_produce_frame(cam, src.data(), src.size()) ==
                                              static_cast<long>(src.size());
        width = w, height = h;
        bxf = static_cast<float>(cfg.bxf), baseline = static_cast<float>(cfg.baseline);
        grey.assign(pixels, 0);
        disparity.assign(pixels, 0);
        truth_mm.assign(pixels, 0.0);
        const frame_test::Frame frame(src.data(), w, h);
        for (int y = 0; ok && y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const size_t i = size_t(y) * w + x;
                grey[i] = frame.at(x, y).y;
                if (y >= 1 && y < frame.disparity_rows()) disparity[i] = frame.disparity(x, y);
                kssim_camera_true_distance(cam, uint32_t(x), uint32_t(y), &truth_mm[i]);
            }
        }
        if (world) kssim_world_destroy(world);
        return ok;
    }
};

// How a map lies on the image: the truth of its pixel (r, c) is that of
// image pixel (r + rows, c + cols); `grid` is the size of the blocks it was
// computed on (the processing works on 2 x 2 blocks above 640 columns), and a
// value true for some pixel of its block is no wrong match.
struct Registration {
    int rows, cols, grid;
};
constexpr Registration kRawPlane{-3, -22, 1};  // the raw channel's plane as parsed
constexpr Registration kImageHalfGrid{0, 0, 2};

struct MapQuality {
    double valid_share = 0.0;    // non-zero pixels / pixels looked at
    double outlier_share = 0.0;  // valid pixels more than 10 % off the truth of their block
    double mean_error_mm = 0.0;  // mean |32 x bxf / d - truth| over valid pixels with truth
};

// Over the pixels at least margin away from every edge.
inline MapQuality map_quality(const SceneFrame& f, const std::vector<uint16_t>& d, Registration reg,
                              int margin = 0) {
    auto truth = [&](int r, int c) {
        const int tr = r + reg.rows, tc = c + reg.cols;
        if (tr < 0 || tr >= f.height || tc < 0 || tc >= f.width) return 0.0;
        return f.truth_mm[size_t(tr) * f.width + size_t(tc)];
    };
    size_t pixels = 0, valid = 0, compared = 0, outliers = 0;
    double error = 0.0;
    for (int r = margin; r < f.height - margin; ++r) {
        for (int c = margin; c < f.width - margin; ++c, ++pixels) {
            const uint16_t v = d[size_t(r) * f.width + c];
            if (v == 0) continue;
            ++valid;
            const double t = truth(r, c);
            if (!(t > 0.0)) continue;
            const double z = 32.0 * f.bxf / v;
            error += std::fabs(z - t);
            ++compared;
            bool wrong = true;
            const int r0 = r - r % reg.grid, c0 = c - c % reg.grid;
            for (int br = r0; br < r0 + reg.grid; ++br) {
                for (int bc = c0; bc < c0 + reg.grid; ++bc) {
                    const double bt = truth(br, bc);
                    wrong = wrong && !(bt > 0.0 && std::fabs(z - bt) <= 0.1 * bt);
                }
            }
            outliers += wrong;
        }
    }
    MapQuality q;
    q.valid_share = pixels == 0 ? 0.0 : double(valid) / pixels;
    if (compared != 0) {
        q.outlier_share = double(outliers) / compared;
        q.mean_error_mm = error / compared;
    }
    return q;
}

#endif
