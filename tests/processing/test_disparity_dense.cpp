// dense_disparity on test-built maps.
#include <gtest/gtest.h>

#include <random>

#include "disparity_maps.h"
#include "processing_camera.h"

namespace {

bool all_of_block(const DisparityMaps& m, int r0, int c0, int rows, int cols, uint16_t v) {
    for (int r = r0; r < r0 + rows; ++r)
        for (int c = c0; c < c0 + cols; ++c)
            if (m.out(r, c) != v) return false;
    return true;
}

int dense(ProcessingCamera& cam, DisparityMaps& m) {
    return cam.dense_disparity(m.width, m.height, m.input.data(), m.grey.data());
}

}  // namespace

TEST(DenseDisparity, Width640RunsAtFullResolution641AtHalf) {
    ProcessingCamera cam;
    DisparityMaps full(640, 480);
    full.block(40, 100, 20, 20, 1000);
    full.put(45, 105, 1010);
    ASSERT_EQ(0, dense(cam, full));
    EXPECT_EQ(1010, full.out(45, 105));
    EXPECT_EQ(1000, full.out(45, 104));
    EXPECT_EQ(1000, full.out(44, 105));

    DisparityMaps half(641, 480);
    half.block(40, 100, 20, 20, 1000);
    half.put(45, 105, 1010);  // the lower right sample of its 2 x 2 block
    for (int r = 0; r < 480; ++r) half.input[static_cast<size_t>(r) * 641 + 640] = 4321;
    ASSERT_EQ(0, dense(cam, half));
    EXPECT_EQ(1000, half.out(45, 105));
    for (int r = 0; r < 480; r += 2) {
        for (int c = 0; c < 640; c += 2) {
            const uint16_t v = half.out(r, c);
            ASSERT_TRUE(v == half.out(r, c + 1) && v == half.out(r + 1, c) &&
                        v == half.out(r + 1, c + 1))
                << r << ", " << c;
        }
    }
    // The odd last column is not part of the grid and is left as it was.
    for (int r = 0; r < 480; ++r) ASSERT_EQ(4321, half.out(r, 640));
}

TEST(DenseDisparity, RegionsOfAHundredSurviveNinetyNineAreCleared) {
    ProcessingCamera cam;
    DisparityMaps m(640, 480);
    m.block(20, 100, 10, 10, 1000);
    m.block(60, 100, 10, 10, 1000);
    m.put(69, 109, 0);
    ASSERT_EQ(0, dense(cam, m));
    EXPECT_TRUE(all_of_block(m, 20, 100, 10, 10, 1000));
    EXPECT_TRUE(all_of_block(m, 60, 100, 10, 10, 0));
    EXPECT_EQ(1, cam.dense_valid());
}

TEST(DenseDisparity, HolesAreInterpolatedWithinTheDistanceTolerance) {
    // Two regions above and below a 3-row gap; nothing left or right of the
    // gap, so only the vertical pair decides. The tolerance is 30 at small
    // disparities (bxf 30000) and grows with the disparity (555 at 3000).
    struct Case {
        uint16_t above, below;
        bool filled;
    } cases[] = {{200, 229, true}, {200, 231, false}, {3000, 3500, true}, {3000, 3600, false}};
    for (const Case& k : cases) {
        ProcessingCamera cam;
        DisparityMaps m(640, 480);
        m.block(20, 100, 10, 30, k.above);
        m.block(33, 100, 10, 30, k.below);
        ASSERT_EQ(0, dense(cam, m));
        ASSERT_TRUE(all_of_block(m, 20, 100, 10, 30, k.above));
        if (k.filled) {
            // Inverse-distance weights: one row from above, three from below.
            EXPECT_EQ((k.above * 3 + k.below) / 4, m.out(30, 110)) << k.above << "/" << k.below;
            EXPECT_EQ((k.above + k.below) / 2, m.out(31, 110)) << k.above << "/" << k.below;
            EXPECT_EQ((k.above + k.below * 3) / 4, m.out(32, 110)) << k.above << "/" << k.below;
        } else {
            EXPECT_TRUE(all_of_block(m, 30, 104, 3, 22, 0)) << k.above << "/" << k.below;
        }
    }

    // A hole inside one region: all four directions agree.
    ProcessingCamera cam;
    DisparityMaps m(640, 480);
    m.block(20, 100, 20, 20, 1500);
    for (int r = 28; r < 32; ++r)
        for (int c = 108; c < 112; ++c) m.put(r, c, 0);
    ASSERT_EQ(0, dense(cam, m));
    EXPECT_TRUE(all_of_block(m, 20, 100, 20, 20, 1500));
}

TEST(DenseDisparity, GreyEdgesStopTheGuidedAveraging) {
    // Beside a region, empty samples on the same grey surface take its value;
    // across a grey edge they stay empty.
    for (bool edge : {false, true}) {
        ProcessingCamera cam;
        DisparityMaps m(640, 480, 128);
        m.block(40, 100, 20, 20, 1000);
        if (edge)
            for (int r = 0; r < 480; ++r)
                for (int c = 120; c < 640; ++c) m.grey[static_cast<size_t>(r) * 640 + c] = 200;
        ASSERT_EQ(0, dense(cam, m));
        EXPECT_TRUE(all_of_block(m, 40, 100, 20, 20, 1000));
        if (edge) {
            EXPECT_TRUE(all_of_block(m, 40, 120, 20, 10, 0));
        } else {
            EXPECT_TRUE(all_of_block(m, 45, 120, 10, 2, 1000));
        }
        EXPECT_TRUE(all_of_block(m, 45, 125, 10, 5, 0));  // beyond the arms' reach
    }
}

TEST(DenseDisparity, BackLitFrameIsClearedOnTheWholeGrid) {
    ProcessingCamera cam;
    DisparityMaps m(641, 481);  // half resolution, odd both ways
    m.make_back_lit();
    m.speckle_rows(2, 470, 2);
    m.block(400, 100, 20, 20, 2000);
    for (int r = 0; r < 481; ++r) m.input[static_cast<size_t>(r) * 641 + 640] = 77;
    for (int c = 0; c < 641; ++c) m.input[480u * 641 + c] = 77;
    ASSERT_EQ(0, dense(cam, m));
    EXPECT_EQ(0, cam.dense_valid());
    EXPECT_FLOAT_EQ(0.38f, cam.small_region_threshold());
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c) ASSERT_EQ(0, m.out(r, c)) << r << ", " << c;
    for (int r = 0; r < 481; ++r) EXPECT_EQ(77, m.out(r, 640));
    for (int c = 0; c < 640; ++c) EXPECT_EQ(77, m.out(480, c));

    // The next clean frame is trusted again and the threshold recovers.
    DisparityMaps clean(641, 481);
    clean.block(400, 100, 20, 20, 2000);
    ASSERT_EQ(0, dense(cam, clean));
    EXPECT_EQ(1, cam.dense_valid());
    EXPECT_FLOAT_EQ(0.4f, cam.small_region_threshold());
    EXPECT_EQ(2000, clean.out(410, 110));
}

TEST(DenseDisparity, OutputKeepsOnlyValuesStrictlyBetweenTheLimits) {
    ProcessingCamera cam;
    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(3000.0f, 1000.0f));  // 320, 960
    DisparityMaps m(640, 480);
    const uint16_t values[] = {320, 321, 959, 960};
    for (int k = 0; k < 4; ++k) m.block(20 + 20 * k, 100, 10, 10, values[k]);
    ASSERT_EQ(0, dense(cam, m));
    EXPECT_TRUE(all_of_block(m, 20, 100, 10, 10, 0));
    EXPECT_TRUE(all_of_block(m, 40, 100, 10, 10, 321));
    EXPECT_TRUE(all_of_block(m, 60, 100, 10, 10, 959));
    EXPECT_TRUE(all_of_block(m, 80, 100, 10, 10, 0));
}

TEST(DenseDisparity, MissingGeometryOrImagesAreRefused) {
    BaseOnlyCamera bare;
    DisparityMaps m(640, 480);
    EXPECT_EQ(-1, bare.dense_disparity(640, 480, m.input.data(), m.grey.data()));
    ProcessingCamera cam;
    EXPECT_EQ(-1, cam.dense_disparity(640, 480, nullptr, m.grey.data()));
    EXPECT_EQ(-1, cam.dense_disparity(640, 480, m.input.data(), nullptr));
    EXPECT_EQ(0, cam.dense_disparity(0, 480, m.input.data(), m.grey.data()));
    EXPECT_EQ(0, cam.dense_disparity(1, 1, m.input.data(), m.grey.data()));
}

// Random maps of odd and growing sizes through both operations on one
// camera: the work arrays must follow the resolution, and nothing may be
// read or written outside width x height (checked under ASan).
TEST(DisparityProcessing, AnySizeStaysWithinTheMaps) {
    const std::pair<uint16_t, uint16_t> sizes[] = {
        {1, 1},     {2, 3},     {41, 41},   {57, 13},    {64, 9},     {100, 40},
        {320, 240}, {639, 479}, {641, 481}, {1279, 719}, {1280, 720}, {1281, 3},
        {643, 12},  {160, 120}, {4001, 23}, {65535, 2},  {2, 4000}};
    std::mt19937 rng(11);
    ProcessingCamera cam;
    for (const auto& s : sizes) {
        const size_t n = static_cast<size_t>(s.first) * s.second;
        std::vector<uint16_t> disparity(n);
        std::vector<uint8_t> grey(n);
        for (int op = 0; op < 2; ++op) {
            for (size_t i = 0; i < n; ++i) {
                // Mostly smooth values with holes and outliers, all 16 bits.
                const uint32_t r = rng();
                disparity[i] = (r & 7) == 0    ? 0
                               : (r & 63) == 1 ? static_cast<uint16_t>(r >> 16)
                                               : static_cast<uint16_t>(800 + (i % 7));
                grey[i] = static_cast<uint8_t>(r >> 8);
            }
            const int rc =
                op == 0 ? cam.dense_disparity(s.first, s.second, disparity.data(), grey.data())
                        : cam.filter_disparity(s.first, s.second, disparity.data(), grey.data());
            EXPECT_EQ(0, rc) << s.first << " x " << s.second << " op " << op;
        }
    }
}
