// Frame parsers and the frame ring: the documented cases on hand-built
// frames, the fast parsers against the one-pixel-at-a-time reference on
// random frames, and frame ids and slots as the capture thread stores them.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "common/ks_platform.h"
#include "ks_v4l2_driver/source/ks_v4l2_driver.h"
#include "ks_v4l2_driver/source/ks_v4l2_simd.h"
#include "v4l2_test_util.h"

namespace {

// A source frame built pixel by pixel from (Y, N, V).
struct SourceFrame {
    SourceFrame(int w, int h) : width(w), height(h), bytes(static_cast<size_t>(w) * h * 3, 0) {}
    void set(int x, int line, uint8_t y, uint8_t n, uint16_t v) {
        uint8_t* p = &bytes[3 * (static_cast<size_t>(line) * width + x)];
        p[0] = v & 0xFF;
        p[1] = static_cast<uint8_t>((n << 4) | ((v >> 8) & 0x0F));
        p[2] = y;
    }
    void set_v(int x, int line, uint16_t v) { set(x, line, 0, 0, v); }
    int width, height;
    std::vector<uint8_t> bytes;
};

KsY4L2Cam* handle_for(int w, int h) {
    auto* cam = new KsY4L2Cam{};
    cam->width = int16_t(w), cam->height = int16_t(h), cam->pix_size = 3;
    cam->frm_size = uint32_t(w * h * 3);
    return cam;
}

// Output buffers of every parser, with guard bytes to catch overruns.
struct Outputs {
    Outputs(int w, int h)
        : n(size_t(w) * h),
          image(n * 3 / 2 + 64, 0xAA),
          plane8(n + 16, 0xDD),
          disparity(n + 16, 0xBBBB),
          meta(w + 16, 0xCCCC),
          plane16a(n + 16, 0xEEEE),
          plane16b(n + 16, 0xFFFF) {}
    bool operator==(const Outputs& o) const {
        return image == o.image && plane8 == o.plane8 && disparity == o.disparity &&
               meta == o.meta && plane16a == o.plane16a && plane16b == o.plane16b;
    }
    size_t n;
    std::vector<uint8_t> image, plane8;
    std::vector<uint16_t> disparity, meta, plane16a, plane16b;
};

}  // namespace

TEST(Parsers, RgbdFrameCarriesMetadataImageAndShiftedDisparity) {
    SourceFrame f(32, 8);
    f.set_v(0, 0, 0xACE);
    f.set_v(1, 0, 0xBED);
    f.set_v(16, 0, 0x010);  // base = (16 x 16 + 8) / 128
    f.set_v(17, 0, 0x800);
    // bf = 0x0123_4567 / 4096 spread over M18..M21
    for (int k = 0; k < 4; ++k) f.set_v(18 + k, 0, (0x000123456700 >> (36 - 12 * k)) & 0xFFF);
    for (int line = 1; line < 8; ++line)
        for (int x = 0; x < 32; ++x) f.set(x, line, static_cast<uint8_t>(line * 10 + x), 0, 0);
    f.set_v(5, 4, 100);  // source line 4 lands in output line 1
    f.set(0, 2, 7, 0xA, 0);
    f.set(1, 2, 8, 0x5, 0);  // chroma sample 0xA5 into U of line 2
    f.set(0, 1, 7, 0xB, 0);
    f.set(1, 1, 8, 0x6, 0);  // 0xB6 into V of line 1

    KsY4L2Cam* cam = handle_for(32, 8);
    Outputs o(32, 8);
    _cam_frame_rgbd_data out{o.image.data(), o.disparity.data(), 0, 0, 0};
    ASSERT_EQ(0, parseRgbDFrame(f.bytes.data(), cam, &out, o.meta.data()));

    EXPECT_EQ(2766, o.meta[0]);
    EXPECT_EQ(3053, o.meta[1]);
    EXPECT_FLOAT_EQ(2.0625f, out.base);
    EXPECT_FLOAT_EQ(static_cast<float>(0x01234567 / 4096.0), out.bf);
    EXPECT_EQ(0xCCCC, o.meta[32]);  // nothing past the line

    for (int x = 0; x < 32; ++x) EXPECT_EQ(0, o.disparity[x]);  // output line 0: zeros
    EXPECT_EQ(100, o.disparity[32 + 5]);
    EXPECT_EQ(0xBBBB, o.disparity[32 * 5]);  // the last three lines are left alone

    EXPECT_EQ(37, o.image[3 * 32 + 7]);        // luma of line 3
    EXPECT_EQ(0xA5, o.image[32 * 8 + 16]);     // U: line 0 gave 16 samples, line 2 starts here
    EXPECT_EQ(0xB6, o.image[32 * 8 * 5 / 4]);  // V: line 1 starts the plane
    delete cam;

    // A frame too narrow to hold the constants decodes none from beyond its line.
    SourceFrame narrow(8, 2);
    std::fill(narrow.bytes.begin(), narrow.bytes.end(), 0xFF);
    cam = handle_for(8, 2);
    out = {o.image.data(), o.disparity.data(), 0, 1, 1};
    parseRgbDFrame(narrow.bytes.data(), cam, &out, o.meta.data());
    EXPECT_EQ(0.0f, out.bf);
    EXPECT_EQ(0.0f, out.base);
    delete cam;
}

TEST(Parsers, RgbdOffsetsAndTheirClamp) {
    SourceFrame f(4, 5);
    f.set_v(0, 4, 3);
    f.set_v(1, 4, 4095);
    f.set_v(2, 4, 0);
    f.set_v(3, 4, 100);
    KsY4L2Cam* cam = handle_for(4, 5);
    Outputs o(4, 5);
    _cam_frame_rgbd_data out{o.image.data(), o.disparity.data(), 0, 0, 0};

    {
        // A negative disparity offset drives 3 below zero: clamped, silently.
        v4l2test::LogCapture log(LOG_WARN);
        ksV4l2SetDisparityOffset(cam, -5);
        parseRgbDFrame(f.bytes.data(), cam, &out, o.meta.data());
        EXPECT_EQ(0, o.disparity[4]);
        EXPECT_EQ(4090, o.disparity[5]);
        EXPECT_EQ(0, o.disparity[6]);  // zero stays zero whatever the offsets
        EXPECT_EQ(95, o.disparity[7]);
        EXPECT_EQ(0, log.count("Unexpect Negative Disp Value"));
    }
    {
        // 30000 + 8160 alone passes 32767: every non-zero disparity reads as
        // negative in 16 bits, is clamped and warned about, pixel by pixel.
        v4l2test::LogCapture log(LOG_WARN);
        ksV4l2SetDisparityOffset(cam, 30000);
        ksV4l2SetSearchRangeOffset(cam, 255);
        parseRgbDFrame(f.bytes.data(), cam, &out, o.meta.data());
        for (int x = 0; x < 4; ++x) EXPECT_EQ(0, o.disparity[4 + x]);
        EXPECT_EQ(3, log.count("WARN  ks_v4l2_driver:"));
        EXPECT_EQ(3, log.count("Unexpect Negative Disp Value. set to 0\n"));
    }
    ksV4l2SetDisparityOffset(cam, 0);
    ksV4l2SetSearchRangeOffset(cam, 2);  // in pixels: 64 in disparity steps
    EXPECT_EQ(2, ksV4l2GetRangeOffset(cam));
    parseRgbDFrame(f.bytes.data(), cam, &out, o.meta.data());
    EXPECT_EQ(164, o.disparity[7]);
    delete cam;
}

TEST(Parsers, RectifiedAndRawSplitTheTwoImages) {
    SourceFrame f(4, 2);
    f.set_v(0, 0, 0xACE);
    // b0 = 0xF0, b1 = 0x3A: V = 0xAF0, the 8-bit value 0xAF; image A = Y:N.
    f.bytes[3 * 4 + 0] = 0xF0;
    f.bytes[3 * 4 + 1] = 0x3A;
    f.bytes[3 * 4 + 2] = 0x12;
    KsY4L2Cam* cam = handle_for(4, 2);
    Outputs o(4, 2);

    _cam_frame_raw_data rect{o.plane8.data(), o.image.data()};
    testing::internal::CaptureStdout();
    parseRectifiedFrame(f.bytes.data(), cam, &rect, o.meta.data());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, o.plane8[0]);
    EXPECT_EQ(0xAF, o.plane8[4]);
    EXPECT_EQ(0x12, o.image[4]);

    _cam_frame_raw_data raw{o.plane16a.data(), o.plane16b.data()};
    parseRawFrame(f.bytes.data(), cam, &raw, o.meta.data());
    EXPECT_EQ(0x1230, o.plane16a[4]);  // (0x12 x 16 + 3) x 16
    EXPECT_EQ(0xAF00, o.plane16b[4]);  // V x 16
    EXPECT_EQ(0, o.plane16b[0]);

    f.set_v(0, 0, 0x123);
    testing::internal::CaptureStdout();
    parseRawFrame(f.bytes.data(), cam, &raw, o.meta.data());
    EXPECT_EQ("Warning: Invalid meta data\n", testing::internal::GetCapturedStdout());
    delete cam;
}

namespace {

// One random frame through the reference and the fast parsers: same bytes,
// same log lines and messages.
void compare_with_reference(std::mt19937& rng, int w, int h, bool marker) {
    SourceFrame f(w, h);
    for (auto& b : f.bytes) b = static_cast<uint8_t>(rng());
    if (marker) f.set_v(0, 0, 0xACE);
    KsY4L2Cam* cam = handle_for(w, h);
    ksV4l2SetDisparityOffset(
        cam, static_cast<short>(std::uniform_int_distribution<int>(-32768, 32767)(rng)));
    ksV4l2SetSearchRangeOffset(cam, static_cast<unsigned char>(rng()));

    Outputs ref(w, h), fast(w, h);
    _cam_frame_rgbd_data a{ref.image.data(), ref.disparity.data(), 0, 0, 0};
    _cam_frame_rgbd_data b{fast.image.data(), fast.disparity.data(), 0, 0, 0};
    {
        v4l2test::LogCapture log(LOG_WARN);
        ks_reference::parseRgbDFrame(f.bytes.data(), cam, &a, ref.meta.data());
        const std::string ref_log = log.text();
        parseRgbDFrame(f.bytes.data(), cam, &b, fast.meta.data());
        ASSERT_EQ(ref_log + ref_log, log.text()) << w << "x" << h;
    }
    EXPECT_EQ(a.bf, b.bf);
    EXPECT_EQ(a.base, b.base);
    ASSERT_TRUE(ref == fast) << w << "x" << h;

    testing::internal::CaptureStdout();
    _cam_frame_raw_data ra{ref.plane8.data(), ref.image.data()};
    ks_reference::parseRectifiedFrame(f.bytes.data(), cam, &ra, ref.meta.data());
    _cam_frame_raw_data rb{ref.plane16a.data(), ref.plane16b.data()};
    ks_reference::parseRawFrame(f.bytes.data(), cam, &rb, ref.meta.data());
    const std::string ref_out = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    _cam_frame_raw_data fa{fast.plane8.data(), fast.image.data()};
    parseRectifiedFrame(f.bytes.data(), cam, &fa, fast.meta.data());
    _cam_frame_raw_data fb{fast.plane16a.data(), fast.plane16b.data()};
    parseRawFrame(f.bytes.data(), cam, &fb, fast.meta.data());
    ASSERT_EQ(ref_out, testing::internal::GetCapturedStdout());
    ASSERT_TRUE(ref == fast) << w << "x" << h;
    delete cam;
}

}  // namespace

TEST(Parsers, FastParsersMatchTheReferenceOnRandomFrames) {
    std::mt19937 rng(20261122);
    const int sizes[][2] = {{1280, 720}, {33, 9}, {2, 1}, {7, 5}, {26, 4}, {640, 481}, {3, 3}};
    for (int round = 0; round < 40; ++round) {
        const int w = sizes[round % 7][0], h = sizes[round % 7][1];
        ASSERT_NO_FATAL_FAILURE(compare_with_reference(rng, w, h, round % 3 == 0));
    }
}

// The same comparison on every instruction-set path this machine can run,
// with widths that end in a group of 16, in a few single pixels, or both.
TEST(Parsers, EveryVectorPathMatchesTheReference) {
    std::mt19937 rng(20261123);
    const int sizes[][2] = {{1280, 8}, {48, 6}, {1301, 5}, {63, 7}, {16, 4}, {97, 9}};
    for (ks_v4l2::SimdLevel level :
         {ks_v4l2::SimdLevel::Portable, ks_v4l2::SimdLevel::Ssse3, ks_v4l2::SimdLevel::Avx2}) {
        ks_v4l2::set_simd_limit(level);
        for (int round = 0; round < 12; ++round) {
            const int w = sizes[round % 6][0], h = sizes[round % 6][1];
            ASSERT_NO_FATAL_FAILURE(compare_with_reference(rng, w, h, round % 2 == 0))
                << "level " << static_cast<int>(level);
        }
    }
    ks_v4l2::set_simd_limit(ks_v4l2::SimdLevel::Avx2);
}

// Each frame's id comes from metadata words 23 to 25 (36 bits; the chroma
// nibbles beside them do not count): the slot keeps its low 32 bits, the
// sync address all of it. Slots follow in turn and the ninth frame reuses
// the first.
TEST(FrameRing, IdsFromTheMetadataLineAndSlotsInTurn) {
    const uint64_t ids[] = {1,           0xFFF,       0x1000,      0xFFFFFF,   0x1000000,
                            0xABC123456, 0xFFFFFFFFF, 0x800000001, 0x123456789};
    KsY4L2Cam* cam = handle_for(26, 2);  // just wide enough for word 25
    ASSERT_EQ(0, initDriverHandleFrameBuf(cam));
    unsigned long sync = 0;
    setVideoSyncIdAddress(cam, &sync);
    _struct_ks_frame_ring* ring = cam->frame_ring;
    for (int k = 0; k < 9; ++k) {
        SourceFrame f(26, 2);
        f.set_v(0, 0, 0xACE);
        for (int w = 0; w < 3; ++w) f.set(23 + w, 0, 0xFF, 0xF, (ids[k] >> (24 - 12 * w)) & 0xFFF);
        ASSERT_EQ(0, process_image(f.bytes.data(), cam));
        EXPECT_EQ(k % 8, ring->latest.load()) << k;
        EXPECT_EQ(static_cast<uint32_t>(ids[k]), ring->slots[k % 8].frame_id.load())
            << std::hex << ids[k];
        EXPECT_EQ(ids[k], sync) << std::hex << ids[k];
        EXPECT_EQ(0, std::memcmp(f.bytes.data(), ring->slots[k % 8].data, f.bytes.size()));
    }
    cam->width = 25;  // too narrow to carry an id: the newest frame, in slot 1, has id 0
    ASSERT_EQ(0, process_image(ring->slots[0].data, cam));
    EXPECT_EQ(0u, sync);

    // A consumer holding the newest id polls max_wait_count + 1 times, then
    // gives up with 10; a reconnect ends the wait after one poll; an older id
    // gets the newest frame without waiting. Polls are counted on the polling
    // hand-off; the wake-up hand-off has its own test.
    ks_v4l2::set_consumer_handoff(ks_v4l2::Handoff::Polling);
    static int polls;
    ks_platform_ops counting = *ks_platform_default_ops();
    counting.usleep = [](useconds_t) { return ++polls, 0; };
    ASSERT_EQ(0, ks_platform_install(&counting));
    cam->max_wait_count = 20;
    cam->wait_period = 45000;
    cam->nStatus = KS_STREAM_STREAMING;
    unsigned int last = 0;
    unsigned char* data = nullptr;
    polls = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(KS_FRAME_TIMEOUT, ksY4L2GetNextSourceData(&data, &last, cam));
    EXPECT_EQ("Wait Image TimeOut[0 s]\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(21, polls);
    polls = 0;
    cam->reconnecting = 1;
    EXPECT_EQ(KS_FRAME_RECONNECTING, ksY4L2GetNextSourceData(&data, &last, cam));
    EXPECT_EQ(1, polls);
    cam->reconnecting = 0;
    polls = 0;
    last = 5;
    EXPECT_EQ(0, ksY4L2GetNextSourceData(&data, &last, cam));
    EXPECT_EQ(0u, last);
    EXPECT_EQ(ring->slots[1].data, data);
    EXPECT_EQ(0, polls);
    ks_platform_reset();
    ks_v4l2::set_consumer_handoff(ks_v4l2::Handoff::WakeOnPublish);
    releaseDriverHandleFrameBuf(cam);
    delete cam;
}
