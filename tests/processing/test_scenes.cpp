// The processing on the virtual camera's scenes, against their ground truth.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "processing_camera.h"
#include "scene_frame.h"

TEST(PointCloud, FlatWallMatchesTheSceneGroundTruth) {
    SceneFrame f;  // processed disparity of a wall 1.5 m away
    ASSERT_TRUE(f.render(KSSIM_SCENE_WALL, 1500.0, 640, 480, KSSIM_CHANNEL_RGBD));
    ProcessingCamera cam;
    cam.bxf = f.bxf, cam.base = f.baseline, cam.width = f.width, cam.height = f.height;
    uint32_t count = 0;
    float *x = nullptr, *y = nullptr, *z = nullptr;
    ASSERT_EQ(0, cam.convert_disparity_to_point_cloud(f.disparity.data(), &count, &x, &y, &z));
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
            // Metric position of the pixel on the wall, the principal point
            // (width / 2, height / 2) as origin: left of it is negative X,
            // above it positive Y.
            const double tx = (c - f.width / 2) * truth / focal;
            const double ty = (f.height / 2 - r) * truth / focal;
            worst_xy = std::max({worst_xy, std::fabs(x[k] - tx), std::fabs(y[k] - ty)});
            ++k;
        }
    }
    EXPECT_EQ(count, k);
    EXPECT_LT(worst_z, 0.002);                   // disparity steps of 1/32 pixel
    EXPECT_LT(worst_xy, 0.25 * 1500.0 / focal);  // within a quarter pixel on the wall
}

TEST(RoomScene, SpeckleRemovalBringsTheRawDisparityCloserToTheTruth) {
    SceneFrame f;
    ASSERT_TRUE(f.render(KSSIM_SCENE_ROOM, 0.0, 1280, 720, KSSIM_CHANNEL_ORIGIN_DISPARITY));
    ProcessingCamera cam;
    cam.bxf = f.bxf, cam.base = f.baseline, cam.width = f.width, cam.height = f.height;
    std::vector<uint16_t> densified = f.disparity, filtered = f.disparity;
    ASSERT_EQ(0, cam.dense_disparity(f.width, f.height, densified.data(), f.grey.data()));
    EXPECT_EQ(1, cam.dense_valid());
    ASSERT_EQ(0, cam.filter_disparity(f.width, f.height, filtered.data(), f.grey.data()));

    // Over the area both operations process (their border is always
    // cleared). Their outputs are registered to the grey image, the raw
    // plane is not: each is compared with the truth of the pixel it describes.
    const MapQuality raw = map_quality(f, f.disparity, kRawPlane, 40),
                     dense = map_quality(f, densified, kImageHalfGrid, 40),
                     filter = map_quality(f, filtered, kImageHalfGrid, 40);
    // The raw map's speckles are wrong matches: the filter removes them.
    EXPECT_GT(raw.outlier_share, 0.002);
    EXPECT_LT(filter.outlier_share, raw.outlier_share / 10);
    EXPECT_LT(filter.mean_error_mm, raw.mean_error_mm * 0.6);
    EXPECT_GT(filter.valid_share, 0.9);
    // Dense removes them too and fills in part of what it removed.
    EXPECT_LT(dense.mean_error_mm, raw.mean_error_mm * 0.8);
    EXPECT_GT(dense.valid_share, filter.valid_share);
}
