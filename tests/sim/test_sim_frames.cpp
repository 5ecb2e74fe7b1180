// Source frames, decoded by the test's own decoder and compared with the
// scene's ground truth.
#include <cmath>
#include <cstdlib>
#include <set>

#include "frame_decoder.h"
#include "sim_fixture.h"

using frame_test::Frame;
using simtest::SimTest;

namespace {

constexpr int kW = 640, kH = 480;

class SimFrames : public SimTest {
  protected:
    kssim_camera* camera(kssim_scene_kind scene, uint8_t channel, uint32_t seed = 1,
                         double distance = 0) {
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        cfg.initial_size = {kW, kH};
        cfg.scene.kind = scene;
        cfg.scene.distance_mm = distance;
        cfg.scene.seed = seed;
        cfg.output_channel = channel;
        return kssim_world_add_camera(world_, &cfg);
    }
    std::vector<uint8_t> produce(kssim_camera* c) {
        std::vector<uint8_t> buf(static_cast<size_t>(kW) * kH * 3);
        EXPECT_EQ(static_cast<long>(buf.size()),
                  kssim_camera_produce_frame(c, buf.data(), buf.size()));
        return buf;
    }
};

struct DisparityCheck {
    long valid = 0, total = 0, within1 = 0, within2 = 0, exact = 0, speckle = 0;
    std::set<int> distances;  // ground truth, in 100 mm bins
};

// Compares every disparity with round(32 x bxf / ground truth).
DisparityCheck check_disparity(kssim_camera* cam, const Frame& f, int stride) {
    DisparityCheck r;
    const double bf = f.bf();
    for (int row = 1; row < f.disparity_rows(); row += stride) {
        for (int x = 0; x < f.width(); x += stride) {
            double gt = 0;
            EXPECT_EQ(0, kssim_camera_true_distance(cam, x, row, &gt));
            ++r.total;
            r.distances.insert(static_cast<int>(gt / 100));
            const uint16_t v = f.disparity(x, row);
            if (v == 0) continue;
            ++r.valid;
            const double recovered = 32.0 * bf / v;  // distance from the disparity
            const double err = 32.0 * bf / recovered - 32.0 * bf / gt;  // in disparity units
            if (std::fabs(err) <= 1.0) ++r.within1;
            if (std::fabs(err) <= 2.5) ++r.within2;
            if (std::fabs(err) < 0.5) ++r.exact;
            if (std::fabs(err) > 32) ++r.speckle;
        }
    }
    return r;
}

}  // namespace

TEST_F(SimFrames, MetadataLineCarriesMarkersStereoConstantsChannelIdAndTime) {
    kssim_camera* cam = add_camera([](kssim_camera_config& c) {
        c.initial_size = {640, 480};
        c.bxf = 34567.875;
        c.baseline = 60.125;
        c.first_frame_id = 1000;
    });
    ASSERT_NE(cam, nullptr);
    uint64_t last_ts = 0;
    for (uint64_t i = 0; i < 3; ++i) {
        const std::vector<uint8_t> buf = produce(cam);
        Frame f(buf.data(), kW, kH);
        EXPECT_EQ(0xCE, f.first_byte());
        EXPECT_EQ(0xACE, f.word(0));
        EXPECT_EQ(0xBED, f.word(1));
        EXPECT_DOUBLE_EQ(60.125, f.base());
        EXPECT_DOUBLE_EQ(34567.875, f.bf());
        EXPECT_EQ(KSSIM_CHANNEL_RGBD, f.channel());
        EXPECT_EQ(0x7F, buf[102]);  // the channel byte where the host looks for it
        EXPECT_EQ(1000 + i, f.frame_id());
        EXPECT_GE(f.timestamp(), last_ts);
        last_ts = f.timestamp();
    }
    // The camera clock counts microseconds since it was plugged in.
    ks_sys_usleep(20000);
    const std::vector<uint8_t> buf = produce(cam);
    EXPECT_GE(Frame(buf.data(), kW, kH).timestamp(), last_ts + 20000);
    kssim_camera_stats st;
    ASSERT_EQ(0, kssim_camera_get_stats(cam, &st));
    EXPECT_EQ(1004u, st.next_frame_id);
}

TEST_F(SimFrames, FrameIdIs36BitsAndWraps) {
    kssim_camera* cam = add_camera([](kssim_camera_config& c) {
        c.initial_size = {640, 480};
        c.first_frame_id = (1ull << 36) - 2;
    });
    std::vector<uint64_t> ids;
    for (int i = 0; i < 4; ++i) {
        const std::vector<uint8_t> buf = produce(cam);
        ids.push_back(Frame(buf.data(), kW, kH).frame_id());
    }
    EXPECT_EQ((std::vector<uint64_t>{(1ull << 36) - 2, (1ull << 36) - 1, 0, 1}), ids);
}

TEST_F(SimFrames, ProcessedDisparityGivesTheGroundTruthDistance) {
    kssim_camera* wall = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_RGBD, 1, 1500);
    const std::vector<uint8_t> wb = produce(wall);
    const DisparityCheck w = check_disparity(wall, Frame(wb.data(), kW, kH), 1);
    EXPECT_EQ(w.total, w.valid);  // a textured wall in range: valid everywhere
    EXPECT_EQ(w.valid, w.within1);
    double gt = 0;
    ASSERT_EQ(0, kssim_camera_true_distance(wall, 320, 240, &gt));
    EXPECT_NEAR(1500.0, gt, 1.0);
    uint16_t v = 0;
    ASSERT_EQ(0, kssim_camera_true_disparity(wall, 320, 240, &v));
    EXPECT_EQ(747, v);  // 32 x 35000 / 1500 = 746.7
    EXPECT_EQ(-1, kssim_camera_true_distance(wall, kW, 0, &gt));
    EXPECT_EQ(-1, kssim_camera_true_distance(wall, 0, kH, &gt));

    kssim_camera* room = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_RGBD);
    const std::vector<uint8_t> rb = produce(room);
    const DisparityCheck r = check_disparity(room, Frame(rb.data(), kW, kH), 2);
    EXPECT_EQ(r.valid, r.within1);
    EXPECT_GT(r.valid, r.total * 95 / 100);
    EXPECT_GE(r.distances.size(), 8u);    // boxes, floor, ceiling and wall at many depths
    EXPECT_LE(*r.distances.begin(), 13);  // the nearest box at 1.2 m

    // A new scene is rendered at once.
    kssim_scene s = {KSSIM_SCENE_WALL, 2000, 1};
    ASSERT_EQ(0, kssim_camera_set_scene(wall, &s));
    const std::vector<uint8_t> nb = produce(wall);
    EXPECT_EQ(560, Frame(nb.data(), kW, kH).disparity(100, 100));
}

TEST_F(SimFrames, RawDisparityHasNoiseHolesAndSpecklesFromAFixedSeed) {
    kssim_camera* proc = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_RGBD);
    kssim_camera* raw = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_ORIGIN_DISPARITY);
    kssim_camera* raw2 = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_ORIGIN_DISPARITY);
    kssim_camera* other = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_ORIGIN_DISPARITY, 7);
    const std::vector<uint8_t> pb = produce(proc), rb = produce(raw), rb2 = produce(raw2),
                               ob = produce(other);
    const Frame p(pb.data(), kW, kH), f(rb.data(), kW, kH);
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_DISPARITY, f.channel());
    const DisparityCheck r = check_disparity(raw, f, 1);
    const DisparityCheck q = check_disparity(proc, p, 1);
    EXPECT_LT(r.valid, q.valid * 95 / 100);    // holes
    EXPECT_GT(r.within2, r.valid * 90 / 100);  // most matches are close
    EXPECT_LT(r.exact, r.within1 * 80 / 100);  // but a unit or two of noise
    EXPECT_GT(r.speckle, 0);                   // and a few wrong patches
    EXPECT_LT(r.speckle, r.valid * 3 / 100);

    // Holes where the processed channel is valid: the plain box has none.
    long holes = 0;
    for (int row = 1; row < f.disparity_rows(); ++row)
        for (int x = 0; x < kW; ++x) holes += p.disparity(x, row) != 0 && f.disparity(x, row) == 0;
    EXPECT_GT(holes, static_cast<long>(kW) * kH / 100);

    // The same seed gives the same frame content; another seed another.
    auto disparity_equal = [](const Frame& a, const Frame& b) {
        for (int row = 1; row < a.disparity_rows(); ++row)
            for (int x = 0; x < a.width(); ++x)
                if (a.disparity(x, row) != b.disparity(x, row)) return false;
        return true;
    };
    EXPECT_TRUE(disparity_equal(f, Frame(rb2.data(), kW, kH)));
    EXPECT_FALSE(disparity_equal(f, Frame(ob.data(), kW, kH)));
}

TEST_F(SimFrames, PairChannelsCarryImageBShiftedByTheDisparity) {
    kssim_camera* rect = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_RECTIFIED_PAIR, 3, 1500);
    kssim_camera* orig = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_ORIGIN_PAIR, 3, 1500);
    const std::vector<uint8_t> rb = produce(rect), ob = produce(orig);
    const Frame r(rb.data(), kW, kH), o(ob.data(), kW, kH);
    EXPECT_EQ(KSSIM_CHANNEL_RECTIFIED_PAIR, r.channel());
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, o.channel());
    // Sensor B sits one baseline to the right: what A sees at column x + d,
    // B sees at x, with d = bxf / z = 23.33 pixels.
    const double d = 35000.0 / 1500.0;
    const int di = static_cast<int>(d);
    const double frac = d - di;
    double shifted = 0, unshifted = 0, shifted12 = 0, low_nibbles = 0;
    long n = 0;
    std::set<int> nibbles;
    for (int line = 10; line < kH - 10; ++line) {
        for (int x = 40; x < kW - 40; ++x) {
            const double a = r.at(x + di, line).y * (1 - frac) + r.at(x + di + 1, line).y * frac;
            const double b = r.at(x, line).v / 16.0;  // the 8-bit image B
            shifted += std::fabs(a - b);
            unshifted += std::fabs(r.at(x, line).y - b);
            // Origin pair: image A is 12 bits in Y and N, image B 12 bits in V.
            const auto a12 = [&](int xx) { return o.at(xx, line).y * 16 + o.at(xx, line).n; };
            const double a12s = a12(x + di) * (1 - frac) + a12(x + di + 1) * frac;
            shifted12 += std::fabs(a12s - o.at(x, line).v);
            nibbles.insert(o.at(x, line).n);
            low_nibbles += o.at(x, line).n;
            ++n;
        }
    }
    EXPECT_LT(shifted / n, 4.0);
    EXPECT_GT(unshifted / n, 3 * shifted / n);
    EXPECT_LT(shifted12 / n, 64.0);
    EXPECT_EQ(16u, nibbles.size());  // the nibble is image data, not chroma
    // The colour image is the same in both pair channels.
    EXPECT_EQ(r.at(100, 100).y, o.at(100, 100).y);
}

TEST_F(SimFrames, ChromaNibblesFormTheI420PlanesOfImageA) {
    kssim_camera* wall = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_RGBD);
    kssim_camera* room = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_RGBD);
    const std::vector<uint8_t> wb = produce(wall), rb = produce(room);
    const Frame w(wb.data(), kW, kH), r(rb.data(), kW, kH);
    std::set<int> wu, wv, ru, rv;
    for (int line = 0; line < kH; ++line) {
        for (int k = 0; k < kW / 2; ++k) {
            (line % 2 == 0 ? wu : wv).insert(w.chroma(k, line));
            (line % 2 == 0 ? ru : rv).insert(r.chroma(k, line));
        }
    }
    // One surface, one colour; U and V differ (it is not grey).
    EXPECT_EQ(1u, wu.size());
    EXPECT_EQ(1u, wv.size());
    EXPECT_NE(*wu.begin(), *wv.begin());
    // The room has surfaces of several colours.
    EXPECT_GE(ru.size(), 4u);
    EXPECT_GE(rv.size(), 4u);
}

TEST_F(SimFrames, ExposureStatisticsFollowImageBrightness) {
    struct Case {
        kssim_scene_kind scene;
        uint32_t s[5];
        double mean;
        long bright;
    } cases[] = {{KSSIM_SCENE_WALL, {}, 0, 0},
                 {KSSIM_SCENE_ROOM, {}, 0, 0},
                 {KSSIM_SCENE_BACKLIT, {}, 0, 0}};
    for (Case& c : cases) {
        kssim_camera* cam = camera(c.scene, KSSIM_CHANNEL_RGBD);
        const std::vector<uint8_t> buf = produce(cam);
        const Frame f(buf.data(), kW, kH);
        f.ae(c.s);
        c.mean = f.mean_luma();
        for (int line = 0; line < kH; ++line)
            for (int x = 0; x < kW; ++x) c.bright += f.at(x, line).y >= 250;
        // S0 is the mean luma in 1/128 as the host reads it.
        EXPECT_NEAR(c.mean * 128, c.s[0], c.mean * 128 * 0.01) << c.scene;
        EXPECT_NEAR(c.bright / 8.0, c.s[1], 2.0) << c.scene;
    }
    EXPECT_EQ(0u, cases[0].s[1]);          // no saturated pixel on the wall
    EXPECT_GT(cases[2].s[1], 1000u);       // the window
    EXPECT_EQ(255u * 256, cases[2].s[4]);  // peak luma saturated
    EXPECT_LT(cases[2].s[4], 0x10000u);
    EXPECT_LT(cases[1].s[4], cases[2].s[4]);
}

TEST_F(SimFrames, WebcamSendsPlainYuyvFrames) {
    kssim_camera* web = kssim_world_add_webcam(world_, "Integrated Webcam");
    ASSERT_NE(web, nullptr);
    std::vector<uint8_t> small(100);
    EXPECT_EQ(-1, kssim_camera_produce_frame(web, small.data(), small.size()));
    EXPECT_EQ(-1, kssim_camera_produce_frame(web, nullptr, 1 << 20));
    std::vector<uint8_t> buf(640 * 480 * 2 + 16, 0);
    EXPECT_EQ(640 * 480 * 2, kssim_camera_produce_frame(web, buf.data(), buf.size()));
    EXPECT_NE(0xCE, buf[0]);
}
