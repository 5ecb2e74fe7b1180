// The processing on the virtual camera's room scene, against its ground truth.
#include <gtest/gtest.h>

#include "processing_camera.h"
#include "scene_frames.h"
#include "scene_metrics.h"

namespace {

ProcessingCamera* camera_for(const SceneFrame& f) {
    auto* cam = new ProcessingCamera;
    cam->bxf = f.bxf;
    cam->base = f.baseline;
    cam->width = f.width;
    cam->height = f.height;
    return cam;
}

}  // namespace

TEST(RoomScene, SpeckleRemovalBringsTheRawDisparityCloserToTheTruth) {
    SceneFrame f;
    ASSERT_TRUE(render_scene_frame(KSSIM_SCENE_ROOM, 0.0, 1280, 720, KSSIM_CHANNEL_ORIGIN_DISPARITY,
                                   true, &f));
    std::unique_ptr<ProcessingCamera> cam(camera_for(f));
    std::vector<uint16_t> densified = f.disparity;
    ASSERT_EQ(0, cam->dense_disparity(f.width, f.height, densified.data(), f.grey.data()));
    EXPECT_EQ(1, cam->dense_valid());
    std::vector<uint16_t> filtered = f.disparity;
    ASSERT_EQ(0, cam->filter_disparity(f.width, f.height, filtered.data(), f.grey.data()));

    // Inside the area both operations process (their border is always
    // cleared). The outputs carry the disparity of the pixel 3 rows down and
    // 22 columns right, so that is where their truth is looked up.
    const int w = f.width, h = f.height, margin = 40;
    const MapQuality raw = map_quality(f.disparity, f.truth_mm, f.bxf, w, h, margin);
    const MapQuality dense = map_quality(densified, f.truth_mm, f.bxf, w, h, margin, 3, 22);
    const MapQuality filter = map_quality(filtered, f.truth_mm, f.bxf, w, h, margin, 3, 22);

    // The raw map's speckles are wrong matches: the filter removes them.
    EXPECT_GT(raw.outlier_share, 0.002);
    EXPECT_LT(filter.outlier_share, raw.outlier_share / 10);
    EXPECT_LT(filter.mean_error_mm, raw.mean_error_mm * 0.6);
    EXPECT_GT(filter.valid_share, 0.9);
    // Dense removes them too and fills in part of what it removed.
    EXPECT_LT(dense.mean_error_mm, raw.mean_error_mm * 0.8);
    EXPECT_GT(dense.valid_share, filter.valid_share);
}
