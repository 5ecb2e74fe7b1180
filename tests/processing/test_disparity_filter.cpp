// filter_disparity and its distance limits, on test-built maps (640 x 480:
// processed at full resolution).
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "disparity_maps.h"
#include "driver/driver_cpp/source/KSDisparityCommon.h"
#include "processing_camera.h"

namespace {

bool all_of_block(const DisparityMaps& m, int r0, int c0, int rows, int cols, uint16_t v) {
    for (int r = r0; r < r0 + rows; ++r)
        for (int c = c0; c < c0 + cols; ++c)
            if (m.out(r, c) != v) return false;
    return true;
}

int filter(ProcessingCamera& cam, DisparityMaps& m) {
    return cam.filter_disparity(m.width, m.height, m.input.data(), m.grey.data());
}

}  // namespace

TEST(DisparityFilter, RegionsOfAHundredSurviveNinetyNineAreCleared) {
    ProcessingCamera cam;
    DisparityMaps m(640, 480);
    m.block(20, 100, 10, 10, 1000);  // 100 samples
    m.block(50, 100, 10, 10, 1000);
    m.put(59, 109, 0);  // 99 samples
    m.block(80, 100, 10, 10, 1000);
    m.put(85, 105, 1019);  // still one region: neighbours differ by at most 19
    m.block(110, 100, 10, 10, 1000);
    m.put(115, 105, 1020);  // 99 + 1: both cleared
    ASSERT_EQ(0, filter(cam, m));
    EXPECT_TRUE(all_of_block(m, 20, 100, 10, 10, 1000));
    EXPECT_TRUE(all_of_block(m, 50, 100, 10, 10, 0));
    EXPECT_EQ(1019, m.out(85, 105));
    EXPECT_EQ(1000, m.out(80, 100));
    EXPECT_TRUE(all_of_block(m, 110, 100, 10, 10, 0));
    EXPECT_EQ(100u + 100u, m.count_nonzero());
}

TEST(DisparityFilter, RegionsOfAHundredCountAsSmallForTheBackLightDecision) {
    // Tiles of 10 x 10 over the inner area (values 1000 / 1020: separate
    // regions, same target column step) make up most of the grid.
    auto tiled = [](int tile) {
        DisparityMaps m(640, 480);
        m.make_back_lit();
        for (int r = 2; r + tile <= 472; r += tile)
            for (int c = 28; c + tile <= 610; c += tile)
                m.block(r, c, tile, tile, (((r / tile) + (c / tile)) & 1) ? 1000 : 1020);
        return m;
    };
    ProcessingCamera cam;
    DisparityMaps hundred = tiled(10);
    ASSERT_EQ(0, filter(cam, hundred));
    EXPECT_EQ(0u, hundred.count_nonzero());  // dropped as back-lit
    EXPECT_FLOAT_EQ(0.38f, cam.small_region_threshold());

    ProcessingCamera other;
    DisparityMaps larger = tiled(11);
    ASSERT_EQ(0, filter(other, larger));
    EXPECT_GT(larger.count_nonzero(), 200000u);
    EXPECT_FLOAT_EQ(0.4f, other.small_region_threshold());
}

TEST(DisparityFilter, BackLightThresholdHasHysteresisAcrossFrames) {
    // Share of samples in small regions: k rows of 583 isolated samples over
    // a grid of 640 x 480; a 20 x 20 region shows whether a frame is kept.
    auto frame = [](int speckle_rows, bool back_lit) {
        DisparityMaps m(640, 480);
        if (back_lit) m.make_back_lit();
        m.speckle_rows(2, speckle_rows);
        m.block(400, 100, 20, 20, 2000);
        return m;
    };
    const int share_389 = 205, share_450 = 237, share_300 = 158;
    ProcessingCamera cam;
    struct Step {
        int rows;
        bool back_lit;
        bool kept;
        float threshold_after;
    } steps[] = {
        {share_389, true, true, 0.4f},    // under 0.4: kept
        {share_450, false, true, 0.4f},   // many speckles, but not back-lit
        {share_450, true, false, 0.38f},  // dropped: the threshold drops too
        {share_389, true, false, 0.38f},  // now above the lowered threshold
        {share_300, true, true, 0.4f},    // kept again: back to 0.4
        {share_389, true, true, 0.4f},
    };
    int n = 0;
    for (const Step& s : steps) {
        DisparityMaps m = frame(s.rows, s.back_lit);
        ASSERT_EQ(0, filter(cam, m));
        if (s.kept) {
            EXPECT_TRUE(all_of_block(m, 400, 100, 20, 20, 2000)) << "frame " << n;
            EXPECT_EQ(400u, m.count_nonzero()) << "frame " << n;  // speckles cleared
        } else {
            EXPECT_EQ(0u, m.count_nonzero()) << "frame " << n;
        }
        EXPECT_FLOAT_EQ(s.threshold_after, cam.small_region_threshold()) << "frame " << n;
        ++n;
    }
}

TEST(DisparityFilter, OneMatchPerTargetColumnKeepsTheRightHandSample) {
    ProcessingCamera cam;
    DisparityMaps m(640, 480);
    // Left region: 10 px (320) lands on columns c + 10; right region: 5 px
    // (160) on c + 5. Columns 96..100 of the left one collide with 101..105.
    m.block(10, 60, 20, 41, 320);
    m.block(10, 101, 20, 40, 160);
    ASSERT_EQ(0, filter(cam, m));
    EXPECT_TRUE(all_of_block(m, 10, 101, 20, 40, 160));
    EXPECT_TRUE(all_of_block(m, 10, 96, 20, 5, 0));
    EXPECT_TRUE(all_of_block(m, 10, 60, 20, 36, 320));

    // A sample whose target column falls off the row is cleared.
    DisparityMaps off(640, 480);
    off.block(10, 570, 10, 20, 32 * 60);  // columns 580.. land on 640 and beyond
    ASSERT_EQ(0, filter(cam, off));
    EXPECT_TRUE(all_of_block(off, 10, 570, 10, 10, 32 * 60));
    EXPECT_TRUE(all_of_block(off, 10, 580, 10, 10, 0));
}

TEST(DisparityFilter, ClashFlagRunsOnIntoTheRowAbove) {
    // Rows 40..59 end on a clash (their leftmost samples all collide); rows
    // 20..39 hold a narrow region C (160, columns 140..144 -> 145..149) and
    // D (320, columns 100..139 -> 110..149). In row 39 the carried clash
    // keeps C's first sample from claiming column 149, so D's sample at
    // column 139 survives there and nowhere else.
    ProcessingCamera cam;
    DisparityMaps m(640, 480);
    m.block(40, 101, 20, 40, 160);
    m.block(40, 96, 20, 5, 320);
    m.block(20, 140, 20, 5, 160);
    m.block(20, 100, 20, 40, 320);
    const std::vector<uint16_t> input = m.input;
    ASSERT_EQ(0, filter(cam, m));
    EXPECT_EQ(320, m.out(39, 139));
    EXPECT_EQ(0, m.out(38, 139));
    EXPECT_EQ(0, m.out(20, 139));
    for (int r : {20, 38, 39}) {
        EXPECT_TRUE(all_of_block(m, r, 135, 1, 4, 0)) << r;
        EXPECT_EQ(320, m.out(r, 134)) << r;
        EXPECT_TRUE(all_of_block(m, r, 140, 1, 5, 160)) << r;
    }
    EXPECT_TRUE(all_of_block(m, 40, 96, 20, 5, 0));

    // The flag starts afresh with every frame.
    DisparityMaps again(640, 480);
    again.input = input;
    ASSERT_EQ(0, filter(cam, again));
    EXPECT_EQ(m.input, again.input);
}

TEST(DisparityFilter, LimitsComeFromDistancesAndAreExclusive) {
    ProcessingCamera cam;  // bxf 30000
    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(0.0f, 0.0f));
    EXPECT_EQ(0, cam.min_limit());
    EXPECT_EQ(16383, cam.max_limit());
    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(3000.0f, 50.0f));
    EXPECT_EQ(320, cam.min_limit());    // 32 x 30000 / 3000
    EXPECT_EQ(16383, cam.max_limit());  // 19200, capped
    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(0.0f, 1000.0f));
    EXPECT_EQ(0, cam.min_limit());
    EXPECT_EQ(960, cam.max_limit());
    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(7000.0f, 0.0f));
    EXPECT_EQ(137, cam.min_limit());  // 137.14 truncated
    EXPECT_EQ(16383, cam.max_limit());

    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(3000.0f, 1000.0f));
    DisparityMaps m(640, 480);
    const uint16_t values[] = {320, 321, 959, 960};
    for (int k = 0; k < 4; ++k) m.block(20 + 20 * k, 100, 10, 10, values[k]);
    ASSERT_EQ(0, filter(cam, m));
    EXPECT_TRUE(all_of_block(m, 20, 100, 10, 10, 0));  // at the minimum: dropped
    EXPECT_TRUE(all_of_block(m, 40, 100, 10, 10, 321));
    EXPECT_TRUE(all_of_block(m, 60, 100, 10, 10, 959));
    EXPECT_TRUE(all_of_block(m, 80, 100, 10, 10, 0));  // at the maximum: dropped

    // Default limits: everything below 16383 passes; 16383 itself does not.
    ProcessingCamera fresh;
    DisparityMaps d(640, 480);
    d.block(20, 100, 10, 10, 1);
    d.block(40, 30, 10, 10, 16383);  // 511 px: lands within the row from here
    d.block(60, 30, 10, 10, 16382);
    ASSERT_EQ(0, filter(fresh, d));
    EXPECT_TRUE(all_of_block(d, 20, 100, 10, 10, 1));
    EXPECT_TRUE(all_of_block(d, 40, 30, 10, 10, 0));
    EXPECT_TRUE(all_of_block(d, 60, 30, 10, 10, 16382));
}

TEST(DisparityFilter, BadLimitArgumentsAndMissingGeometryAreRefused) {
    ProcessingCamera cam;
    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(3000.0f, 1000.0f));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(1000.0f, 2000.0f));
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(-1.0f, 0.0f));
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(0.0f, -5.0f));
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(NAN, 0.0f));
    const std::string refused = ::testing::internal::GetCapturedStdout();
    const std::string line = "Negative number in parameters, which does not conform to rules\n";
    EXPECT_EQ(line + line + line + line, refused);
    EXPECT_EQ(320, cam.min_limit());  // unchanged
    EXPECT_EQ(960, cam.max_limit());

    BaseOnlyCamera bare;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(-1, bare.set_disparity_filter_max_and_min_distance(3000.0f, 1000.0f));
    EXPECT_EQ("Get bxf and baseline failed\n", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(16383, bare.max_limit());

    DisparityMaps m(640, 480);
    EXPECT_EQ(-1, bare.filter_disparity(m.width, m.height, m.input.data(), m.grey.data()));
    EXPECT_EQ(-1, cam.filter_disparity(m.width, m.height, nullptr, m.grey.data()));
}

TEST(DisparityFilter, UpwardLineOffsetsShiftByTheirMagnitudeRoundedUp) {
    EXPECT_EQ(0u, ks_disparity::line_offset_rows(0.0f));
    EXPECT_EQ(0u, ks_disparity::line_offset_rows(2.7f));         // downward: no shift
    EXPECT_EQ(0u, ks_disparity::line_offset_rows(-0.0000005f));  // below 0.000001
    EXPECT_EQ(1u, ks_disparity::line_offset_rows(-0.1f));
    EXPECT_EQ(1u, ks_disparity::line_offset_rows(-1.0f));
    EXPECT_EQ(2u, ks_disparity::line_offset_rows(-1.5f));
    EXPECT_EQ(3u, ks_disparity::line_offset_rows(-2.3f));
    EXPECT_EQ(65535u, ks_disparity::line_offset_rows(-1e30f));
    EXPECT_EQ(65535u, ks_disparity::line_offset_rows(-INFINITY));
    EXPECT_EQ(0u, ks_disparity::line_offset_rows(NAN));
}
