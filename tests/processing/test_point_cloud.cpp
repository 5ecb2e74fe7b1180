// Point cloud and rectangle statistics on test-built maps, and the
// argument checks of every processing operation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "processing_camera.h"

namespace {

_ks_rect_distance_info_s rect(uint16_t x, uint16_t y, uint16_t w, uint16_t h,
                              std::vector<uint16_t>& map) {
    _ks_rect_distance_info_s info;
    std::memset(&info, 0xA5, sizeof info);  // outputs must all be written
    info.x = x, info.y = y, info.width = w, info.height = h;
    info.disparity = map.data();
    return info;
}

// What a rectangle without any disparity reports: the start values.
void expect_empty(const _ks_rect_distance_info_s& info) {
    EXPECT_EQ(4095, info.min_disparity);
    EXPECT_EQ(16, info.max_disparity);
    EXPECT_EQ(0, info.mean_disparity);
    EXPECT_EQ(0, info.median_disparity);
    for (float v : {info.valid_ratio, info.min_distance, info.max_distance, info.mean_distance,
                    info.median_distance, info.mean_point_distance, info.median_point_distance})
        EXPECT_EQ(0.0f, v);
}

}  // namespace

TEST(PointCloud, PointsArePackedWithSignsAndBuffersFollowTheResolution) {
    ProcessingCamera cam;
    cam.width = 8, cam.height = 6, cam.bxf = 50000.0f, cam.base = 100.0f;
    std::vector<uint16_t> map(8 * 6, 0);
    map[1 * 8 + 2] = 32;    // above and left of the centre (4, 3)
    map[3 * 8 + 4] = 64;    // the centre
    map[5 * 8 + 7] = 5000;  // beyond the table: computed on the spot
    uint32_t count = 99;
    float *x = nullptr, *y = nullptr, *z = nullptr;
    ASSERT_EQ(0, cam.convert_disparity_to_point_cloud(map.data(), &count, &x, &y, &z));
    ASSERT_EQ(3u, count);
    // Row-major order; one pixel of disparity with bxf 50000 is 50000 away;
    // left of the centre is negative X, above it positive Y.
    const float expected[3][3] = {{-200.0f, 200.0f, 50000.0f},
                                  {0.0f, 0.0f, 25000.0f},
                                  {3.0f * 3200.0f / 5000.0f, -2.0f * 3200.0f / 5000.0f, 320.0f}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_FLOAT_EQ(expected[i][0], x[i]) << i;
        EXPECT_FLOAT_EQ(expected[i][1], y[i]) << i;
        EXPECT_FLOAT_EQ(expected[i][2], z[i]) << i;
    }
    for (int i = 3; i < 48; ++i) EXPECT_EQ(0.0f, std::fabs(x[i]) + std::fabs(y[i]) + z[i]) << i;

    // The buffers are reused, and an empty map leaves them all zero.
    std::vector<uint16_t> empty(8 * 6, 0);
    float *x2 = nullptr, *y2 = nullptr, *z2 = nullptr;
    ASSERT_EQ(0, cam.convert_disparity_to_point_cloud(empty.data(), &count, &x2, &y2, &z2));
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(x == x2 && y == y2 && z == z2);
    for (int i = 0; i < 48; ++i) EXPECT_EQ(0.0f, std::fabs(x2[i]) + std::fabs(y2[i]) + z2[i]);

    // The stream's size grew: the buffers must hold the larger image.
    cam.set_image_size(33, 17);
    std::vector<uint16_t> large(33 * 17, 64);
    large[0] = 0;
    ASSERT_EQ(0, cam.convert_disparity_to_point_cloud(large.data(), &count, &x, &y, &z));
    EXPECT_EQ(33u * 17u - 1u, count);
    EXPECT_FLOAT_EQ(25000.0f, z[count - 1]);
    EXPECT_FLOAT_EQ((32 - 16) * 50.0f, x[count - 1]);  // last column, 100 x 32 / 64 per pixel
    EXPECT_FLOAT_EQ((8 - 16) * 50.0f, y[count - 1]);
}

TEST(Processing, BadArgumentsAreRefused) {
    ProcessingCamera cam;
    std::vector<uint16_t> map(640 * 480, 0);
    std::vector<uint8_t> grey(640 * 480, 0);
    EXPECT_EQ(-1, cam.filter_disparity(640, 480, nullptr, grey.data()));
    EXPECT_EQ(-1, cam.dense_disparity(640, 480, nullptr, grey.data()));
    EXPECT_EQ(-1, cam.dense_disparity(640, 480, map.data(), nullptr));
    EXPECT_EQ(0, cam.dense_disparity(0, 480, map.data(), grey.data()));

    uint32_t count = 5;
    float *x = nullptr, *y = nullptr, *z = nullptr;
    EXPECT_EQ(-1, cam.convert_disparity_to_point_cloud(nullptr, &count, &x, &y, &z));
    EXPECT_EQ(-1, cam.convert_disparity_to_point_cloud(map.data(), nullptr, &x, &y, &z));
    EXPECT_EQ(-1, cam.convert_disparity_to_point_cloud(map.data(), &count, &x, &y, nullptr));

    _ks_rect_distance_info_s info = rect(0, 0, 2, 2, map);
    EXPECT_EQ(-1, cam.calculate_rect_distance(nullptr));
    info.width = 0;
    EXPECT_EQ(-1, cam.calculate_rect_distance(&info));
    info.width = 2, info.height = 0;
    EXPECT_EQ(-1, cam.calculate_rect_distance(&info));
    info.height = 2, info.disparity = nullptr;
    EXPECT_EQ(-1, cam.calculate_rect_distance(&info));
}

TEST(RectDistance, StatisticsOverTheInclusiveRectangle) {
    // Camera 16 x 12, focal 500. The rectangle (2, 2) 4 x 2 visits rows 2..4
    // and columns 2..6: 15 pixels.
    ProcessingCamera cam;
    cam.width = 16, cam.height = 12;
    std::vector<uint16_t> map(16 * 12, 0);
    const uint16_t values[] = {200, 200, 200, 300, 400};
    for (int c = 2; c <= 6; ++c) map[2 * 16 + c] = values[c - 2];
    map[4 * 16 + 6] = 400;   // last visited row and column
    map[5 * 16 + 7] = 4000;  // outside: not visited
    _ks_rect_distance_info_s info = rect(2, 2, 4, 2, map);
    ASSERT_EQ(0, cam.calculate_rect_distance(&info));
    EXPECT_EQ(200, info.min_disparity);
    EXPECT_EQ(400, info.max_disparity);
    EXPECT_EQ(283, info.mean_disparity);    // 1700 / 6
    EXPECT_EQ(300, info.median_disparity);  // count passes 3 at bin 300
    EXPECT_FLOAT_EQ(6.0f / 15.0f, info.valid_ratio);
    EXPECT_FLOAT_EQ(2400.0f, info.min_distance);
    EXPECT_FLOAT_EQ(4800.0f, info.max_distance);
    EXPECT_FLOAT_EQ(30000.0f * 32.0f / 283.0f, info.mean_distance);
    EXPECT_FLOAT_EQ(3200.0f, info.median_distance);
    // Centre (2 + 2, 2 + 1) against (8, 6): 4 and 3 pixels off the axis, so
    // the points lie 1.00005 times as far as their depth.
    EXPECT_NEAR(3200.16, info.median_point_distance, 0.005);
    EXPECT_NEAR(3392.396, info.mean_point_distance, 0.005);

    // Disparities past the histogram are counted but not binned.
    std::fill(map.begin(), map.end(), 0);
    map[0] = 12416;  // first value past the histogram
    map[1] = 65535;
    map[2] = map[16] = map[17] = 5000;
    info = rect(0, 0, 3, 1, map);  // rows 0..1, columns 0..3
    ASSERT_EQ(0, cam.calculate_rect_distance(&info));
    EXPECT_EQ(4095, info.min_disparity);  // the start value is never beaten
    EXPECT_EQ(65535, info.max_disparity);
    EXPECT_EQ((12416 + 65535 + 3 * 5000) / 5, info.mean_disparity);
    EXPECT_EQ(5000, info.median_disparity);  // 3 of 5 in the only bin used
    EXPECT_FLOAT_EQ(5.0f / 8.0f, info.valid_ratio);
    EXPECT_FLOAT_EQ(32.0f * 30000.0f / 65535.0f, info.min_distance);
    EXPECT_FLOAT_EQ(30000.0f * 32.0f / 4095.0f, info.max_distance);
    EXPECT_FLOAT_EQ(32.0f * 30000.0f / 5000.0f, info.median_distance);

    // A single value has no median: the histogram walk stops at the maximum
    // before it passes half.
    std::fill(map.begin(), map.end(), 100);
    info = rect(4, 3, 4, 4, map);
    ASSERT_EQ(0, cam.calculate_rect_distance(&info));
    EXPECT_TRUE(info.min_disparity == 100 && info.max_disparity == 100 &&
                info.mean_disparity == 100);
    EXPECT_EQ(0, info.median_disparity);
    EXPECT_FLOAT_EQ(4294967296.0f, info.median_distance);
    EXPECT_FLOAT_EQ(1.0f, info.valid_ratio);
    for (float d : {info.mean_distance, info.min_distance, info.max_distance})
        EXPECT_FLOAT_EQ(9600.0f, d);  // 32 x 30000 / 100
}

TEST(RectDistance, RectanglesAtAndPastTheImageEdgeReadOnlyTheImage) {
    // The map is exactly the image: any read past it is caught by ASan.
    ProcessingCamera cam;
    cam.width = 13, cam.height = 7;
    std::vector<uint16_t> map(13 * 7, 64);
    for (auto r : {rect(10, 5, 3, 2, map), rect(0, 0, 13, 7, map)}) {  // one more of each
        ASSERT_EQ(0, cam.calculate_rect_distance(&r));
        EXPECT_FLOAT_EQ(1.0f, r.valid_ratio);
        EXPECT_EQ(64, r.mean_disparity);
    }
    // Starting outside, or with y + height wrapping: nothing is visited. A
    // rectangle of zeros reports the same.
    std::vector<uint16_t> zeros(13 * 7, 0);
    for (auto r : {rect(60000, 3, 10, 1, map), rect(0, 65530, 2, 10, map),
                   rect(65535, 0, 65535, 65535, map), rect(2, 2, 5, 4, zeros)}) {
        ASSERT_EQ(0, cam.calculate_rect_distance(&r));
        expect_empty(r);
    }
}
