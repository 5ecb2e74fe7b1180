// dense_disparity, filter_disparity and back-light detection on test-built
// maps and images.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "disparity_maps.h"
#include "driver/driver_cpp/source/KSDisparityCommon.h"
#include "processing_camera.h"

TEST(DenseDisparity, Width640RunsAtFullResolution641AtHalf) {
    ProcessingCamera cam;
    for (uint16_t w : {640, 641}) {
        DisparityMaps m(w, 480);
        m.block(40, 100, 20, 20, 1000);
        m.put(45, 105, 1010);  // at half resolution: the lower right of its 2 x 2 block
        ASSERT_EQ(0, m.dense(cam));
        EXPECT_EQ(w == 640 ? 1010 : 1000, m.out(45, 105));
        EXPECT_EQ(1000, m.out(45, 104));
        if (w == 640) continue;
        for (int r = 0; r < 480; r += 2)
            for (int c = 0; c < 640; c += 2)
                ASSERT_TRUE(m.all(r, c, 2, 2, m.out(r, c))) << r << ", " << c;
    }
    // A block whose only non-zero sample is its lower right one takes it.
    DisparityMaps m(1280, 720);
    m.block(40, 100, 20, 20, 1000);
    m.block(44, 104, 2, 2, 0);
    m.put(45, 105, 1010);
    ASSERT_EQ(0, m.dense(cam));
    EXPECT_TRUE(m.all(44, 104, 2, 2, 1010));
}

TEST(DenseDisparity, HolesAreInterpolatedWithinTheDistanceTolerance) {
    // Regions above and below a 3-row gap, nothing beside it: only the
    // vertical pair decides. The tolerance is 30 at small disparities
    // (bxf 30000) and grows with the disparity (555 at 3000).
    // Gaps up to 18 rows (steps summing to 19) are bridged, 19 are not.
    struct Case {
        uint16_t above, below;
        int gap;
        bool filled;
    } cases[] = {{200, 229, 3, true},    {200, 231, 3, false}, {3000, 3500, 3, true},
                 {3000, 3600, 3, false}, {200, 200, 18, true}, {200, 200, 19, false}};
    for (const Case& k : cases) {
        ProcessingCamera cam;
        DisparityMaps m(640, 480);
        m.block(20, 100, 10, 30, k.above);
        m.block(30 + k.gap, 100, 10, 30, k.below);
        ASSERT_EQ(0, m.dense(cam));
        ASSERT_TRUE(m.all(20, 100, 10, 30, k.above));
        // Inverse-distance weights: row i of the gap is i + 1 rows from above.
        for (int i = 0; i < k.gap && k.filled; ++i)
            EXPECT_EQ((k.above * (k.gap - i) + k.below * (i + 1)) / (k.gap + 1), m.out(30 + i, 110))
                << k.above << " row " << i;
        EXPECT_EQ(!k.filled, m.all(30, 104, k.gap, 22, 0)) << k.above << "/" << k.below;
    }
}

// A hole framed by A above and below and B left and right: the vertical
// estimate is A, the horizontal one B. With step sums s_v and s_h, the hole
// takes (A + B) / 2 while s_v x s_h <= 999, else A while s_v <= 9, else B
// while s_h <= 9; nothing when A and B are the tolerance (30 here) apart.
TEST(DenseDisparity, FramedHolesAtTheSpanLimits) {
    struct Case {
        int rows, cols;
        uint16_t a, b, centre;
    } cases[] = {{26, 36, 200, 210, 205},  // 27 x 37 = 999
                 {24, 39, 200, 210, 0},    // 25 x 40 = 1000
                 {8, 111, 200, 210, 200},  // vertical steps 9
                 {9, 111, 200, 210, 0},    // 10
                 {26, 36, 200, 230, 0}};   // at the tolerance
    for (const Case& k : cases) {
        ProcessingCamera cam;
        DisparityMaps m(640, 480);
        m.block(100, 190, 10, k.cols + 20, k.a);
        m.block(110 + k.rows, 190, 10, k.cols + 20, k.a);
        m.block(110, 190, k.rows, 10, k.b);
        m.block(110, 200 + k.cols, k.rows, 10, k.b);
        ASSERT_EQ(0, m.dense(cam));
        EXPECT_EQ(k.centre, m.out(110 + k.rows / 2, 200 + k.cols / 2))
            << k.rows << " x " << k.cols << ", " << k.b;
    }
}

// Empty samples beside a region are averaged along arms over the grey
// image. The region's columns step by 2 from 1000 at its right edge, so an
// arm of L steps into it averages 1000 + L - 1. An arm stops at a grey step
// of 20 from the centre (19 passes), from its fourth step on at one of 6 (5
// passes), after five steps, and the average needs non-zero samples on more
// than a third of the arms.
TEST(DenseDisparity, GuidedArmsStopAtTheirGreyLimits) {
    const auto probe = [](auto grey_at) {
        ProcessingCamera cam;
        DisparityMaps m(640, 480);
        for (int r = 100; r < 150; ++r)
            for (int c = 100; c < 110; ++c) {
                m.put(r, c, static_cast<uint16_t>(1000 + 2 * (109 - c)));
                for (int x = 90; x < 130; ++x) m.grey[size_t(r) * 640 + x] = grey_at(r, x);
            }
        EXPECT_EQ(0, m.dense(cam));
        return m.out(125, 110);
    };
    EXPECT_EQ(1002, probe([](int, int x) { return x <= 109 ? 147 : 128; }));
    EXPECT_EQ(0, probe([](int, int x) { return x <= 109 ? 148 : 128; }));
    EXPECT_EQ(1004, probe([](int, int x) { return x <= 106 ? 133 : 128; }));
    EXPECT_EQ(1002, probe([](int, int x) { return x <= 106 ? 134 : 128; }));
    // Two of six arm steps in the probe's row: not more than a third, though
    // the rows around it have two of three.
    EXPECT_EQ(
        0, probe([](int r, int x) { return x <= 107 || x >= (r == 125 ? 115 : 112) ? 168 : 128; }));
}

TEST(DenseDisparity, BackLitFrameIsClearedOnTheWholeGrid) {
    ProcessingCamera cam;
    DisparityMaps m(641, 481);  // half resolution, odd both ways
    m.make_back_lit();
    m.speckle_rows(2, 470, 2);
    m.block(400, 100, 20, 20, 2000);
    // The odd last column and row are not part of the grid: left as they were.
    for (int r = 0; r < 481; ++r) m.input[size_t(r) * 641 + 640] = 77;
    std::fill_n(m.input.begin() + 480 * 641, 640, 77);
    ASSERT_EQ(0, m.dense(cam));
    EXPECT_EQ(0, cam.dense_valid());
    EXPECT_FLOAT_EQ(0.38f, cam.small_region_threshold());
    EXPECT_TRUE(m.all(0, 0, 480, 640, 0) && m.all(0, 640, 481, 1, 77) && m.all(480, 0, 1, 640, 77));

    // The next clean frame is trusted again and the threshold recovers.
    DisparityMaps clean(641, 481);
    clean.block(400, 100, 20, 20, 2000);
    ASSERT_EQ(0, clean.dense(cam));
    EXPECT_EQ(1, cam.dense_valid());
    EXPECT_FLOAT_EQ(0.4f, cam.small_region_threshold());
    EXPECT_EQ(2000, clean.out(410, 110));
}

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
    for (int r = 140; r < 150; ++r) m.block(r, 100, 1, 10, r & 1 ? 4100 : 4090);  // 13 bits
    ASSERT_EQ(0, m.filter(cam));
    EXPECT_TRUE(m.all(20, 100, 10, 10, 1000));
    EXPECT_TRUE(m.all(50, 100, 10, 10, 0));
    EXPECT_EQ(1019, m.out(85, 105));
    EXPECT_EQ(1000, m.out(80, 100));
    EXPECT_TRUE(m.all(110, 100, 10, 10, 0));
    EXPECT_TRUE(m.all(141, 100, 1, 10, 4100));
    EXPECT_EQ(300u, m.count_nonzero());

    // Regions of 100 still count as small for the back-light decision: tiles
    // (1000 / 1020: separate regions) over the inner area of a back-lit frame.
    for (int tile : {10, 11}) {
        ProcessingCamera other;
        m = DisparityMaps(640, 480);
        m.make_back_lit();
        for (int r = 2; r + tile <= 472; r += tile)
            for (int c = 28; c + tile <= 610; c += tile)
                m.block(r, c, tile, tile, (((r / tile) + (c / tile)) & 1) ? 1000 : 1020);
        ASSERT_EQ(0, m.filter(other));
        EXPECT_TRUE(tile == 10 ? m.count_nonzero() == 0 : m.count_nonzero() > 200000u) << tile;
        EXPECT_FLOAT_EQ(tile == 10 ? 0.38f : 0.4f, other.small_region_threshold()) << tile;
    }
}

TEST(DisparityFilter, BackLightThresholdHasHysteresisAcrossFrames) {
    // Share of samples in small regions: k rows of 583 isolated samples over
    // a 640 x 480 grid; a 20 x 20 region shows whether a frame is kept.
    const int share_389 = 205, share_450 = 237, share_300 = 158;  // rows of speckles
    struct Step {
        int rows;
        bool back_lit, kept;
        float threshold_after;
        int more = 0;  // speckles in the next row
    } steps[] = {
        {210, true, true, 0.4f, 450},     // 122880 of 307200: exactly 0.4, kept
        {share_389, true, true, 0.4f},    // under 0.4: kept
        {share_450, false, true, 0.4f},   // many speckles, but not back-lit
        {share_450, true, false, 0.38f},  // dropped: the threshold drops too
        {share_389, true, false, 0.38f},  // now above the lowered threshold
        {share_300, true, true, 0.4f},    // kept again: back to 0.4
        {share_389, true, true, 0.4f},
    };
    ProcessingCamera cam;
    int n = 0;
    for (const Step& s : steps) {
        DisparityMaps m(640, 480);
        if (s.back_lit) m.make_back_lit();
        m.speckle_rows(2, s.rows);
        for (int c = 28; c < 28 + s.more; ++c) m.put(2 + s.rows, c, (s.rows + c) & 1 ? 500 : 1000);
        m.block(400, 100, 20, 20, 2000);
        ASSERT_EQ(0, m.filter(cam));
        // Kept frames lose their speckles only.
        EXPECT_EQ(s.kept ? 400u : 0u, m.count_nonzero()) << "frame " << n;
        EXPECT_EQ(s.kept, m.all(400, 100, 20, 20, 2000)) << "frame " << n;
        EXPECT_FLOAT_EQ(s.threshold_after, cam.small_region_threshold()) << "frame " << n++;
    }
}

// A map without holes shows the border the operations leave empty: rows
// r <= 1/f and height/f - r <= 7/f, columns c <= 27/f and width/f - c <= 29/f
// of the down-sampled grid.
TEST(DisparityFilter, TheBorderAtBothScales) {
    struct Case {
        uint16_t width, height;
        int r0, c0, rows, cols;  // the non-zero output, full resolution
    } cases[] = {{640, 480, 2, 28, 471, 583}, {1280, 720, 2, 28, 712, 1224}};
    for (const Case& k : cases) {
        ProcessingCamera cam;
        DisparityMaps m(k.width, k.height);
        std::fill(m.input.begin(), m.input.end(), 32);
        ASSERT_EQ(0, m.filter(cam));
        EXPECT_TRUE(m.all(k.r0, k.c0, k.rows, k.cols, 32)) << k.width;
        EXPECT_EQ(size_t(k.rows) * k.cols, m.count_nonzero()) << k.width;
    }
}

TEST(DisparityFilter, OneMatchPerTargetColumnKeepsTheRightHandSample) {
    ProcessingCamera cam;
    DisparityMaps m(640, 480);
    // Left region: 10 px (320) lands on columns c + 10; right region: 5 px
    // (160) on c + 5. Columns 96..100 of the left one collide with 101..105.
    m.block(10, 60, 20, 41, 320);
    m.block(10, 101, 20, 40, 160);
    // A sample whose target column falls off the row is cleared: 60 px from
    // column 580 on.
    m.block(40, 570, 10, 20, 32 * 60);
    ASSERT_EQ(0, m.filter(cam));
    EXPECT_TRUE(m.all(10, 101, 20, 40, 160));
    EXPECT_TRUE(m.all(10, 96, 20, 5, 0));
    EXPECT_TRUE(m.all(10, 60, 20, 36, 320));
    EXPECT_TRUE(m.all(40, 570, 10, 10, 32 * 60));
    EXPECT_TRUE(m.all(40, 580, 10, 10, 0));
}

TEST(DisparityFilter, ClashFlagRunsOnIntoTheRowAbove) {
    // Rows 40..59 end on a clash; rows 20..39 hold C (160, columns 140..144
    // -> 145..149) and D (320, columns 100..139 -> 110..149). In row 39 the
    // carried clash keeps C's first sample from claiming column 149, so D's
    // sample at column 139 survives there and nowhere else.
    ProcessingCamera cam;
    DisparityMaps m(640, 480);
    m.block(40, 101, 20, 40, 160);
    m.block(40, 96, 20, 5, 320);
    m.block(20, 140, 20, 5, 160);
    m.block(20, 100, 20, 40, 320);
    DisparityMaps again = m;
    ASSERT_EQ(0, m.filter(cam));
    EXPECT_EQ(320, m.out(39, 139));
    EXPECT_TRUE(m.all(20, 139, 19, 1, 0));
    for (int r : {20, 38, 39}) {
        EXPECT_TRUE(m.all(r, 135, 1, 4, 0)) << r;
        EXPECT_EQ(320, m.out(r, 134)) << r;
        EXPECT_TRUE(m.all(r, 140, 1, 5, 160)) << r;
    }
    EXPECT_TRUE(m.all(40, 96, 20, 5, 0));
    // The flag starts afresh with every frame.
    ASSERT_EQ(0, again.filter(cam));
    EXPECT_EQ(m.input, again.input);
}

TEST(DisparityFilter, DistanceLimitsAreExclusiveAndBadOnesAreRefused) {
    ProcessingCamera cam;  // bxf 30000: 3000 mm is disparity 320, 1000 mm 960
    // No far limit, and a near one past the largest disparity: capped.
    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(0.0f, 50.0f));
    EXPECT_EQ(0, cam.min_limit());
    EXPECT_EQ(16383, cam.max_limit());

    ASSERT_EQ(0, cam.set_disparity_filter_max_and_min_distance(3000.0f, 1000.0f));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(1000.0f, 2000.0f));
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(-1.0f, 0.0f));
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(0.0f, -5.0f));
    EXPECT_EQ(-1, cam.set_disparity_filter_max_and_min_distance(NAN, 0.0f));
    const std::string line = "Negative number in parameters, which does not conform to rules\n";
    EXPECT_EQ(line + line + line + line, ::testing::internal::GetCapturedStdout());
    EXPECT_EQ(320, cam.min_limit());  // the refused limits changed nothing
    EXPECT_EQ(960, cam.max_limit());
    ProcessingCamera capped;
    capped.bxf = 16383.0f;  // 32 x bxf / 32: exactly the cap
    ASSERT_EQ(0, capped.set_disparity_filter_max_and_min_distance(32.0f, 32.0f));
    EXPECT_EQ(16383, capped.min_limit());
    EXPECT_EQ(16383, capped.max_limit());

    DisparityMaps m(640, 480);
    const uint16_t values[] = {320, 321, 959, 960};
    for (int k = 0; k < 4; ++k) m.block(20 + 20 * k, 100, 10, 10, values[k]);
    ASSERT_EQ(0, m.filter(cam));
    EXPECT_TRUE(m.all(20, 100, 10, 10, 0));  // at the minimum: dropped
    EXPECT_TRUE(m.all(40, 100, 10, 10, 321));
    EXPECT_TRUE(m.all(60, 100, 10, 10, 959));
    EXPECT_TRUE(m.all(80, 100, 10, 10, 0));  // at the maximum: dropped
}

TEST(DisparityProcessing, UpwardLineOffsetsShiftByTheirMagnitudeRoundedUp) {
    const std::pair<float, uint32_t> cases[] = {
        {0.0f, 0},  {2.7f, 0},  {-0.0000005f, 0}, {-0.1f, 1},         {-1.0f, 1},
        {-1.5f, 2}, {-2.3f, 3}, {-1e30f, 65535},  {-INFINITY, 65535}, {NAN, 0}};
    for (const auto& k : cases)
        EXPECT_EQ(k.second, ks_disparity::line_offset_rows(k.first)) << k.first;
}

// Random maps of odd and growing sizes through both operations on one
// camera: the work arrays must follow the resolution, and nothing may be
// read or written outside width x height (checked under ASan), the
// back-light sampling of odd widths included.
TEST(DisparityProcessing, AnySizeStaysWithinTheMaps) {
    const std::pair<uint16_t, uint16_t> sizes[] = {
        {1, 1},     {2, 3},     {41, 41},   {57, 13},    {64, 9},     {100, 40},
        {320, 240}, {639, 479}, {641, 481}, {1279, 719}, {1280, 720}, {1281, 3},
        {643, 12},  {160, 120}, {4001, 23}, {65535, 2},  {2, 4000}};
    std::mt19937 rng(11);
    ProcessingCamera cam;
    for (const auto& s : sizes) {
        DisparityMaps m(s.first, s.second);
        for (int op = 0; op < 2; ++op) {
            for (size_t i = 0; i < m.input.size(); ++i) {
                // Mostly smooth values with holes and outliers, all 16 bits.
                const uint32_t r = rng();
                m.input[i] = (r & 7) == 0    ? 0
                             : (r & 63) == 1 ? static_cast<uint16_t>(r >> 16)
                                             : static_cast<uint16_t>(800 + (i % 7));
                m.grey[i] = static_cast<uint8_t>(r >> 8);
            }
            EXPECT_EQ(0, op == 0 ? m.dense(cam) : m.filter(cam))
                << s.first << " x " << s.second << " op " << op;
        }
    }
}

TEST(BackLight, BlackUniformAndBrightBlockImages) {
    BaseOnlyCamera cam;
    const int w = 640, h = 480;  // blocks of 160 x 120, four to a block row
    auto image = [&](int bright_blocks, uint8_t rest) {
        std::vector<uint8_t> v(w * h, rest);
        for (int b = 0; b < bright_blocks; ++b)
            std::fill_n(v.begin() + (b / 4) * 120 * w + (b % 4) * 160, 160, 255);
        return v;
    };
    EXPECT_FALSE(cam.KsBackLightingAdjust(w, h, image(0, 0).data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(w, h, image(0, 128).data()));  // half passed at block 9
    EXPECT_TRUE(cam.KsBackLightingAdjust(w, h, image(1, 0).data()));
    // 6 x 255 against 10 x 120: the fifth block is short of half, the sixth
    // passes it. 7 x 255 against 9 x 150: half is passed at the seventh.
    EXPECT_TRUE(cam.KsBackLightingAdjust(w, h, image(6, 120).data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(w, h, image(7, 150).data()));
    // Only each block's first row is sampled: a bright area below it is not seen.
    std::vector<uint8_t> below(w * h, 0);
    std::fill(below.begin() + w, below.begin() + 120 * w, 255);
    EXPECT_FALSE(cam.KsBackLightingAdjust(w, h, below.data()));

    // Images under 40 x 40 (or none) are never back-lit.
    std::vector<uint8_t> small(40 * 40, 0);
    std::fill_n(small.begin(), 10, 255);
    EXPECT_TRUE(cam.KsBackLightingAdjust(40, 40, small.data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(39, 40, small.data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(40, 39, small.data()));
    EXPECT_FALSE(cam.KsBackLightingAdjust(640, 480, nullptr));
}

// Region labelling against a flood fill: on random maps of touching
// patches, every sample's region size is the size of the flood-filled
// region it lies in (left, right, up and down neighbours joined when both
// are non-zero and their 13-bit values differ by at most 19), and the small
// count is the sum of the regions under 101 samples. Patches meet from
// above and from the left in every order, so merges of labels given out
// earlier are exercised, as is an area that starts at the grid's first row.
TEST(DisparityFilter, RegionSizesMatchAFloodFillOnRandomMaps) {
    {
        // A label merged away in its own row (3 into 1 at the top-right of
        // the left patch) is the up-neighbour of the next row's first sample,
        // whose run then meets a third region (2) from above: all three are
        // one region of 11 samples.
        ks_disparity::Grid g;
        g.width = 5, g.height = 3, g.pixels = 15;
        KSDisparityWork w;
        ASSERT_TRUE(w.grid.reserve(g.pixels) && w.label.reserve(g.pixels) &&
                    w.region_size.reserve(g.pixels + 1) && w.parent.reserve(g.pixels + 1));
        const uint16_t map[15] = {0,   0,   100, 0,   157,  //
                                  100, 100, 100, 0,   157,  //
                                  100, 119, 138, 157, 157};
        std::copy(map, map + 15, w.grid.data());
        const ks_disparity::Area whole{0, 2, 0, 4};
        EXPECT_EQ(11u, ks_disparity::label_regions(g, whole, w));
        for (int i = 0; i < 15; ++i)
            EXPECT_EQ(map[i] != 0 ? 11u : 0u, w.region_size.data()[w.label.data()[i]]) << i;
    }
    std::mt19937 rng(20261124);
    const uint16_t palette[] = {0, 0, 0, 100, 119, 140, 0x2000 | 100, 400};
    for (int round = 0; round < 120; ++round) {
        ks_disparity::Grid g;
        g.width = static_cast<uint16_t>(4 + rng() % 60);
        g.height = static_cast<uint16_t>(3 + rng() % 40);
        g.pixels = uint32_t{g.width} * g.height;
        ks_disparity::Area a;
        a.r0 = round % 3 == 0 ? 0 : static_cast<int>(rng() % 2);
        a.r1 = g.height - 1 - static_cast<int>(rng() % 2);
        a.c0 = static_cast<int>(rng() % 2);
        a.c1 = g.width - 1 - static_cast<int>(rng() % 2);
        KSDisparityWork w;
        ASSERT_TRUE(w.grid.reserve(g.pixels) && w.label.reserve(g.pixels) &&
                    w.region_size.reserve(g.pixels + 1) && w.parent.reserve(g.pixels + 1));
        uint16_t* grid = w.grid.data();
        // Patches of one value, so that regions grow to all sizes and shapes.
        for (uint32_t i = 0; i < g.pixels; ++i) grid[i] = 0;
        for (int patch = 0; patch < 40; ++patch) {
            const uint16_t v = palette[rng() % 8];
            const uint32_t r = rng() % g.height, c = rng() % g.width;
            const uint32_t h = 1 + rng() % 8, wd = 1 + rng() % 12;
            for (uint32_t y = r; y < std::min<uint32_t>(g.height, r + h); ++y)
                for (uint32_t x = c; x < std::min<uint32_t>(g.width, c + wd); ++x)
                    grid[y * g.width + x] = v;
        }
        const uint64_t small = ks_disparity::label_regions(g, a, w);

        auto joined = [&](uint32_t i, uint32_t j) {
            return grid[i] != 0 && grid[j] != 0 &&
                   std::abs(int(grid[i] & 0x1FFF) - int(grid[j] & 0x1FFF)) <= 19;
        };
        std::vector<int> region(g.pixels, -1);
        std::vector<uint32_t> sizes;
        uint64_t expected_small = 0;
        for (int r = a.r0; r <= a.r1; ++r) {
            for (int c = a.c0; c <= a.c1; ++c) {
                const uint32_t start = uint32_t(r) * g.width + uint32_t(c);
                if (grid[start] == 0 || region[start] >= 0) continue;
                const int id = static_cast<int>(sizes.size());
                std::vector<uint32_t> todo{start};
                region[start] = id;
                uint32_t n = 0;
                while (!todo.empty()) {
                    const uint32_t i = todo.back();
                    todo.pop_back();
                    ++n;
                    const int y = int(i / g.width), x = int(i % g.width);
                    const int ny[] = {y - 1, y + 1, y, y}, nx[] = {x, x, x - 1, x + 1};
                    for (int k = 0; k < 4; ++k) {
                        if (ny[k] < a.r0 || ny[k] > a.r1 || nx[k] < a.c0 || nx[k] > a.c1) continue;
                        const uint32_t j = uint32_t(ny[k]) * g.width + uint32_t(nx[k]);
                        if (region[j] < 0 && joined(i, j)) {
                            region[j] = id;
                            todo.push_back(j);
                        }
                    }
                }
                sizes.push_back(n);
                if (n < ks_disparity::kSmallRegionLimit) expected_small += n;
            }
        }
        EXPECT_EQ(expected_small, small) << "round " << round;
        for (int r = a.r0; r <= a.r1; ++r) {
            for (int c = a.c0; c <= a.c1; ++c) {
                const uint32_t i = uint32_t(r) * g.width + uint32_t(c);
                const uint32_t size = w.region_size.data()[w.label.data()[i]];
                ASSERT_EQ(grid[i] == 0 ? 0u : sizes[size_t(region[i])], size)
                    << "round " << round << " at (" << r << ", " << c << ")";
            }
        }
    }
}
