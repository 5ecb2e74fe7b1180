// The processing on the virtual camera's scenes, against their ground truth.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "processing_camera.h"
#include "sim/kssim.h"

namespace {

// A frame as the library's RGBD parser hands it to the processing: the grey
// plane and the disparity plane (row y from source line y + 3, row 0 and the
// last three rows empty), with the depth along the optical axis per pixel.
struct SceneFrame {
    uint16_t width = 0, height = 0;
    float bxf = 0.0f, baseline = 0.0f;
    std::vector<uint8_t> grey;
    std::vector<uint16_t> disparity;
    std::vector<double> truth_mm;  // 0: nothing

    // channel: KSSIM_CHANNEL_ORIGIN_DISPARITY (raw, with holes and speckles)
    // or KSSIM_CHANNEL_RGBD (processed).
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
        for (size_t i = 0; ok && i < pixels; ++i) {
            grey[i] = src[3 * i + 2];
            if (i >= 4u * w)
                disparity[i - 3u * w] = uint16_t(((src[3 * i + 1] & 0x0F) << 8) | src[3 * i]);
            kssim_camera_true_distance(cam, uint32_t(i % w), uint32_t(i / w), &truth_mm[i]);
        }
        if (world) kssim_world_destroy(world);
        return ok;
    }
};

std::unique_ptr<ProcessingCamera> camera_for(const SceneFrame& f) {
    std::unique_ptr<ProcessingCamera> cam(new ProcessingCamera);
    cam->bxf = f.bxf, cam->base = f.baseline, cam->width = f.width, cam->height = f.height;
    return cam;
}

}  // namespace

TEST(PointCloud, FlatWallMatchesTheSceneGroundTruth) {
    SceneFrame f;  // processed disparity of a wall 1.5 m away
    ASSERT_TRUE(f.render(KSSIM_SCENE_WALL, 1500.0, 640, 480, KSSIM_CHANNEL_RGBD));
    auto cam = camera_for(f);
    uint32_t count = 0;
    float *x = nullptr, *y = nullptr, *z = nullptr;
    ASSERT_EQ(0, cam->convert_disparity_to_point_cloud(f.disparity.data(), &count, &x, &y, &z));
    ASSERT_GT(count, 640u * 400u);

    const double focal = static_cast<double>(f.bxf) / f.baseline;
    uint32_t k = 0;
    double worst_z = 0.0, worst_xy = 0.0;
    for (int r = 0; r < f.height; ++r) {
        for (int c = 0; c < f.width; ++c) {
            if (f.disparity[r * f.width + c] == 0) continue;
            ASSERT_LT(k, count);
            const double truth = f.truth_mm[r * f.width + c];
            ASSERT_GT(truth, 0.0);
            worst_z = std::max(worst_z, std::fabs(z[k] - truth) / truth);
            // Metric position of the pixel on the wall, image centre as origin:
            // left of it is negative X, above it positive Y.
            const double tx = (c - (f.width - 1) / 2.0) * truth / focal;
            const double ty = ((f.height - 1) / 2.0 - r) * truth / focal;
            worst_xy = std::max({worst_xy, std::fabs(x[k] - tx), std::fabs(y[k] - ty)});
            ++k;
        }
    }
    EXPECT_EQ(count, k);
    EXPECT_LT(worst_z, 0.002);                        // disparity steps of 1/32 pixel
    EXPECT_LT(worst_xy, 1.0 * 1500.0 / focal + 2.0);  // within a pixel on the wall
}

TEST(RoomScene, SpeckleRemovalBringsTheRawDisparityCloserToTheTruth) {
    SceneFrame f;
    ASSERT_TRUE(f.render(KSSIM_SCENE_ROOM, 0.0, 1280, 720, KSSIM_CHANNEL_ORIGIN_DISPARITY));
    auto cam = camera_for(f);
    std::vector<uint16_t> densified = f.disparity, filtered = f.disparity;
    ASSERT_EQ(0, cam->dense_disparity(f.width, f.height, densified.data(), f.grey.data()));
    EXPECT_EQ(1, cam->dense_valid());
    ASSERT_EQ(0, cam->filter_disparity(f.width, f.height, filtered.data(), f.grey.data()));

    // Over the area both operations process (their border is always
    // cleared): the share of valid pixels, the share of those more than 10 %
    // off the truth and their mean error in mm. The outputs carry the disparity of the pixel 3 rows
    // down and 22 columns right, so that is where their truth is looked up.
    auto shares = [&f](const std::vector<uint16_t>& d, int dr, int dc) {
        size_t pixels = 0, valid = 0, wrong = 0;
        double error = 0.0;
        for (int r = 40; r < f.height - 40; ++r) {
            for (int c = 40; c < f.width - 40; ++c, ++pixels) {
                const uint16_t v = d[size_t(r) * f.width + c];
                const double t = f.truth_mm[size_t(r + dr) * f.width + size_t(c + dc)];
                valid += v != 0;
                const double e = v != 0 ? std::fabs(32.0 * f.bxf / v - t) : 0.0;
                wrong += e > 0.1 * t;
                error += e;
            }
        }
        return std::array<double, 3>{double(valid) / pixels, double(wrong) / valid, error / valid};
    };
    const auto raw = shares(f.disparity, 0, 0), dense = shares(densified, 3, 22),
               filter = shares(filtered, 3, 22);
    // The raw map's speckles are wrong matches: the filter removes them.
    EXPECT_GT(raw[1], 0.002);
    EXPECT_LT(filter[1], raw[1] / 10);
    EXPECT_LT(filter[2], raw[2] * 0.6);
    EXPECT_GT(filter[0], 0.9);
    // Dense removes them too and fills in part of what it removed.
    EXPECT_LT(dense[2], raw[2] * 0.8);
    EXPECT_GT(dense[0], filter[0]);
}
