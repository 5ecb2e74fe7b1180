// Source frames, decoded by the test's own decoder and compared with the
// scene's ground truth.
#include <cmath>
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
        cfg.scene = {scene, distance, seed};
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
};

// The ground truth of every image pixel, in mm.
std::vector<double> truth_of(kssim_camera* cam) {
    std::vector<double> t(size_t{kW} * kH);
    for (int row = 0; row < kH; ++row)
        for (int x = 0; x < kW; ++x)
            EXPECT_EQ(0, kssim_camera_true_distance(cam, x, row, &t[size_t(row) * kW + x]));
    return t;
}

// Compares every disparity with 32 x bxf / ground truth of its image pixel,
// in disparity units (raw: the raw channel's place in the frame).
DisparityCheck check_disparity(const std::vector<double>& truth, const Frame& f, bool raw = false) {
    DisparityCheck r;
    const int rows = raw ? kH - 6 : f.disparity_rows(), columns = raw ? kW - 22 : kW;
    for (int row = 1; row < rows; ++row) {
        for (int x = 0; x < columns; ++x, ++r.total) {
            const double gt = truth[size_t(row) * kW + x];
            const uint16_t v = raw ? f.raw_disparity(x, row) : f.disparity(x, row);
            if (v == 0) continue;
            ++r.valid;
            const double err = std::fabs(v - 32.0 * f.bf() / gt);
            r.within1 += err <= 1.0;
            r.within2 += err <= 2.5;
            r.exact += err < 0.5;
            r.speckle += err > 32;
        }
    }
    return r;
}

}  // namespace

TEST_F(SimFrames, MetadataLineCarriesMarkersConstantsChannelAWrapping36BitIdAndTime) {
    kssim_camera* cam = add_camera([](kssim_camera_config& c) {
        c.initial_size = {640, 480};
        c.bxf = 34567.875;
        c.baseline = 60.125;
        c.first_frame_id = (1ull << 36) - 2;
    });
    ASSERT_NE(cam, nullptr);
    uint64_t last_ts = 0;
    const uint64_t ids[] = {(1ull << 36) - 2, (1ull << 36) - 1, 0, 1};
    for (uint64_t id : ids) {
        const std::vector<uint8_t> buf = produce(cam);
        Frame f(buf.data(), kW, kH);
        EXPECT_EQ(0xCE, buf[0]);
        EXPECT_TRUE(f.markers_ok());
        EXPECT_DOUBLE_EQ(60.125, f.base());
        EXPECT_DOUBLE_EQ(34567.875, f.bf());
        EXPECT_EQ(KSSIM_CHANNEL_RGBD, f.channel());
        EXPECT_EQ(0x7F, buf[102]);  // the channel byte where the host looks for it
        EXPECT_EQ(id, f.frame_id());
        EXPECT_GE(f.timestamp(), last_ts);
        last_ts = f.timestamp();
    }
    // The camera clock counts microseconds since it was plugged in.
    ks_sys_usleep(20000);
    const std::vector<uint8_t> buf = produce(cam);
    EXPECT_GE(Frame(buf.data(), kW, kH).timestamp(), last_ts + 20000);
    EXPECT_EQ(3u, stats(cam).next_frame_id);

    // A webcam sends plain YUYV frames and checks the buffer it is given.
    kssim_camera* web = kssim_world_add_webcam(world_, "Integrated Webcam");
    std::vector<uint8_t> yuyv(640 * 480 * 2 + 16, 0);
    EXPECT_EQ(-1, kssim_camera_produce_frame(web, yuyv.data(), 100));
    EXPECT_EQ(-1, kssim_camera_produce_frame(web, nullptr, 1 << 20));
    EXPECT_EQ(640 * 480 * 2, kssim_camera_produce_frame(web, yuyv.data(), yuyv.size()));
    EXPECT_NE(0xCE, yuyv[0]);
}

TEST_F(SimFrames, ProcessedDisparityOfAWallIsExactWithinTheSearchWindow) {
    kssim_camera* wall = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_RGBD, 1, 1500);
    const std::vector<uint8_t> wb = produce(wall);
    const DisparityCheck w = check_disparity(truth_of(wall), Frame(wb.data(), kW, kH));
    EXPECT_EQ(w.total, w.valid);
    EXPECT_EQ(w.valid, w.within1);
    double gt = 0;
    ASSERT_EQ(0, kssim_camera_true_distance(wall, 320, 240, &gt));
    EXPECT_NEAR(1500.0, gt, 1.0);
    uint16_t v = 0;
    ASSERT_EQ(0, kssim_camera_true_disparity(wall, 320, 240, &v));
    EXPECT_EQ(747, v);  // 32 x 35000 / 1500 = 746.7
    EXPECT_EQ(-1, kssim_camera_true_distance(wall, kW, 0, &gt));
    EXPECT_EQ(-1, kssim_camera_true_distance(wall, 0, kH, &gt));
    // A new scene is rendered at once.
    kssim_scene s = {KSSIM_SCENE_WALL, 2000, 1};
    ASSERT_EQ(0, kssim_camera_set_scene(wall, &s));
    auto at_100 = [&] { return Frame(produce(wall).data(), kW, kH).disparity(100, 100); };
    EXPECT_EQ(560, at_100());

    // The matcher's window starts at 32 x the search range (ASIC 0x42): the
    // frame carries the disparity minus that, 0 outside 1..4095. A wall at
    // 200 mm (5600) is out of reach without a range.
    const std::pair<uint8_t, uint16_t> ranges[] = {{10, 560 - 320}, {17, 560 - 544}, {18, 0}};
    for (auto [range, sent] : ranges) {
        ASSERT_EQ(0, kssim_camera_register_write(wall, KSSIM_CHIP_ASIC, 0x42, range));
        EXPECT_EQ(sent, at_100()) << int{range};
    }
    s.distance_mm = 200;
    ASSERT_EQ(0, kssim_camera_set_scene(wall, &s));
    ASSERT_EQ(0, kssim_camera_true_disparity(wall, 100, 100, &v));
    EXPECT_EQ(5600, v);
    ASSERT_EQ(0, kssim_camera_register_write(wall, KSSIM_CHIP_ASIC, 0x42, 0));
    EXPECT_EQ(0, at_100());
    ASSERT_EQ(0, kssim_camera_register_write(wall, KSSIM_CHIP_ASIC, 0x42, 60));
    EXPECT_EQ(5600 - 1920, at_100());

    // The principal point lies at (width / 2, height / 2): with f = 35000 /
    // 50 = 700 pixels the room's ceiling (1.2 m up) is 2.8 m away 300 rows
    // above it, its left wall (1.5 m aside) 2.1 m away 500 columns left of it.
    kssim_camera* room = add_camera([](kssim_camera_config& c) {
        c.scene = {KSSIM_SCENE_ROOM, 0, 1};
    });  // 1280 x 720
    ASSERT_EQ(0, kssim_camera_true_distance(room, 640, 60, &gt));
    EXPECT_NEAR(2800.0, gt, 1e-6);
    ASSERT_EQ(0, kssim_camera_true_distance(room, 140, 360, &gt));
    EXPECT_NEAR(2100.0, gt, 1e-6);
}

TEST_F(SimFrames, RawDisparityHasNoiseHolesSpecklesAndFalseMatchesFromAFixedSeed) {
    kssim_camera* proc = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_RGBD);
    kssim_camera* raw = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_ORIGIN_DISPARITY);
    kssim_camera* raw2 = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_ORIGIN_DISPARITY);
    kssim_camera* other = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_ORIGIN_DISPARITY, 7);
    const std::vector<uint8_t> pb = produce(proc), rb = produce(raw);
    const Frame p(pb.data(), kW, kH), f(rb.data(), kW, kH);
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_DISPARITY, f.channel());
    const std::vector<double> truth = truth_of(raw);
    const DisparityCheck r = check_disparity(truth, f, true);
    const DisparityCheck q = check_disparity(truth, p);
    EXPECT_EQ(q.valid, q.within1);
    EXPECT_GT(q.valid, q.total * 95 / 100);
    EXPECT_LT(r.valid, q.valid * 95 / 100);    // holes
    EXPECT_GT(r.within2, r.valid * 90 / 100);  // most matches are close
    EXPECT_LT(r.exact, r.within1 * 80 / 100);  // but a unit or two of noise
    EXPECT_GT(r.speckle, 0);                   // and a few wrong patches
    EXPECT_LT(r.speckle, r.valid * 3 / 100);
    // Where B cannot see a point of A (a nearer point of A lands on the same
    // column of B, which lies to the right: x + d), the matcher still finds
    // a match, a false one.
    long hidden = 0, matched = 0, wrong = 0;
    for (int row = 1; row < kH - 6; ++row) {
        std::vector<double> d(kW, 0.0);  // pixels
        for (int x = 0; x < kW; ++x) {
            const double gt = truth[size_t(row) * kW + x];
            d[x] = gt > 0 ? f.bf() / gt : 0.0;
        }
        for (int x = 0; x < kW - 22; ++x) {
            bool covered = false;
            for (int n = std::max(0, x - 128); n < x && !covered; ++n)
                covered = d[n] > d[x] * 1.03 && std::fabs(n + d[n] - (x + d[x])) < 0.5;
            if (!covered || x + d[x] >= kW) continue;
            ++hidden;
            const uint16_t v = f.raw_disparity(x, row);
            matched += v != 0;
            wrong += v != 0 && std::fabs(v - 32.0 * d[x]) > 32;
        }
    }
    EXPECT_GT(hidden, 1000);
    EXPECT_GT(matched, hidden * 95 / 100);
    EXPECT_GT(wrong, matched * 80 / 100);
    // The same seed gives the same disparities; another seed others.
    auto same = [&](kssim_camera* cam) {
        const std::vector<uint8_t> b = produce(cam);
        const Frame g(b.data(), kW, kH);
        for (int row = 1; row < f.disparity_rows(); ++row)
            for (int x = 0; x < kW; ++x)
                if (f.disparity(x, row) != g.disparity(x, row)) return false;
        return true;
    };
    EXPECT_TRUE(same(raw2));
    EXPECT_FALSE(same(other));
}

TEST_F(SimFrames, PairChannelsCarryImageBShiftedByTheDisparityAndTheReadoutWindows) {
    kssim_camera* rect = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_RECTIFIED_PAIR, 3, 1500);
    kssim_camera* orig = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_ORIGIN_PAIR, 3, 1500);
    const std::vector<uint8_t> rb = produce(rect), ob = produce(orig);
    const Frame r(rb.data(), kW, kH), o(ob.data(), kW, kH);
    EXPECT_EQ(KSSIM_CHANNEL_RECTIFIED_PAIR, r.channel());
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, o.channel());
    // Sensor B sits one baseline to the left: what A sees at column x, B sees
    // at x + d, with d = bxf / z = 23.33 pixels.
    const double d = 35000.0 / 1500.0;
    const int di = static_cast<int>(std::ceil(d));  // A's columns x - di and x - di + 1
    const double frac = di - d;
    double shifted = 0, unshifted = 0, shifted12 = 0;
    long n = 0;
    std::set<int> nibbles;
    for (int line = 10; line < kH - 10; ++line) {
        for (int x = 40; x < kW - 40; ++x, ++n) {
            const double a = r.at(x - di, line).y * (1 - frac) + r.at(x - di + 1, line).y * frac;
            const double b = r.at(x, line).v / 16.0;  // the 8-bit image B
            shifted += std::fabs(a - b);
            unshifted += std::fabs(r.at(x, line).y - b);
            // Origin pair: image A is 12 bits in Y and N, image B 12 bits in V.
            const auto a12 = [&](int xx) { return o.at(xx, line).y * 16 + o.at(xx, line).n; };
            shifted12 +=
                std::fabs(a12(x - di) * (1 - frac) + a12(x - di + 1) * frac - o.at(x, line).v);
            nibbles.insert(o.at(x, line).n);
        }
    }
    EXPECT_LT(shifted / n, 4.0);
    EXPECT_GT(unshifted / n, 3 * shifted / n);
    EXPECT_LT(shifted12 / n, 64.0);
    EXPECT_EQ(16u, nibbles.size());                 // the nibble is image data, not chroma
    EXPECT_EQ(r.at(100, 100).y, o.at(100, 100).y);  // the same colour image

    // The trims (0x28 right: image A, 0x26 left: image B) and line offsets
    // (0x73-0x74 right, 0x71-0x72 left) move where each sensor's image
    // starts; the trim difference adds to the disparity.
    kssim_camera* rgbd = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_RGBD, 3, 1500);
    const std::vector<uint8_t> before = produce(rgbd);
    const Frame p(before.data(), kW, kH);
    for (kssim_camera* cam : {rect, rgbd})
        for (auto [reg, value] : {std::pair<uint32_t, uint8_t>{0x28, 20}, {0x26, 6}, {0x73, 2}})
            ASSERT_EQ(0, kssim_camera_register_write(cam, KSSIM_CHIP_ASIC, reg, value));
    const std::vector<uint8_t> moved = produce(rect), moved_rgbd = produce(rgbd);
    const Frame m(moved.data(), kW, kH), md(moved_rgbd.data(), kW, kH);
    long same_a = 0, same_b = 0, pixels = 0;
    for (int line = 10; line < kH - 10; ++line) {
        for (int x = 40; x < kW - 40; ++x, ++pixels) {
            same_a += m.at(x, line).y == r.at(x + 20, line + 2).y;
            same_b += m.at(x, line).v == r.at(x + 6, line).v;
        }
    }
    EXPECT_EQ(pixels, same_a);
    EXPECT_EQ(pixels, same_b);
    EXPECT_EQ(747, p.disparity(200, 200));
    EXPECT_EQ(747 + 32 * (20 - 6), md.disparity(200, 200));
}

TEST_F(SimFrames, ChromaFormsTheI420PlanesAndExposureStatisticsFollowBrightness) {
    kssim_camera* wall = camera(KSSIM_SCENE_WALL, KSSIM_CHANNEL_RGBD);
    kssim_camera* room = camera(KSSIM_SCENE_ROOM, KSSIM_CHANNEL_RGBD);
    kssim_camera* backlit = camera(KSSIM_SCENE_BACKLIT, KSSIM_CHANNEL_RGBD);
    const std::vector<uint8_t> wb = produce(wall), rb = produce(room), bb = produce(backlit);
    const Frame w(wb.data(), kW, kH), r(rb.data(), kW, kH), b(bb.data(), kW, kH);
    std::set<int> wu, wv, ru, rv;
    for (int line = 0; line < kH; ++line) {
        for (int k = 0; k < kW / 2; ++k) {
            (line % 2 == 0 ? wu : wv).insert(w.chroma(k, line));
            (line % 2 == 0 ? ru : rv).insert(r.chroma(k, line));
        }
    }
    // One surface, one colour, not grey; the room has several colours.
    EXPECT_EQ(1u, wu.size());
    EXPECT_EQ(1u, wv.size());
    EXPECT_NE(*wu.begin(), *wv.begin());
    EXPECT_GE(ru.size(), 4u);
    EXPECT_GE(rv.size(), 4u);

    for (const Frame* f : {&w, &r, &b}) {
        double mean = 0;
        long bright = 0;
        for (int line = 0; line < kH; ++line) {
            for (int x = 0; x < kW; ++x) {
                mean += f->at(x, line).y;
                bright += f->at(x, line).y >= 250;
            }
        }
        mean /= kW * kH;
        EXPECT_NEAR(mean * 128, f->ae(0), mean * 128 * 0.01);
        EXPECT_NEAR(bright / 8.0, f->ae(1), 2.0);
    }
    EXPECT_EQ(0u, w.ae(1));          // no saturated pixel on the wall
    EXPECT_GT(b.ae(1), 1000u);       // the window
    EXPECT_EQ(255u * 256, b.ae(4));  // peak luma saturated
    EXPECT_LT(r.ae(4), b.ae(4));
}
