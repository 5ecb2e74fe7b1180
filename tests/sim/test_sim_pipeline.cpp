// The control side seen on the video stream: frame-length registers set the
// rate the capture node really delivers, the ASIC's power and the sensors'
// standby start and stop the frames, and its channel register switches them.
#include "frame_decoder.h"
#include "sim_fixture.h"
#include "xu_client.h"

using simtest::Capture;
using simtest::SimTest;
using xutest::Client;

namespace {

class SimPipeline : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, 8.0));
        cam_ = add_camera([](kssim_camera_config& c) { c.initial_size = {640, 480}; });
        ASSERT_NE(cam_, nullptr);
        const char* node = kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE);
        ASSERT_TRUE(xu_.open(node));
        cap_.start(node);
    }
    // Reads frames (at most `tries`) until one satisfies `ok`.
    template <typename Pred>
    bool frame_where(Pred ok, int tries) {
        std::vector<uint8_t> f;
        for (int i = 0; i < tries; ++i) {
            EXPECT_EQ(0, cap_.next_frame(f, nullptr, 30000));
            if (ok(frame_test::Frame(f.data(), 640, 480))) return true;
        }
        return false;
    }
    kssim_camera* cam_ = nullptr;
    Capture cap_;
    Client xu_;
};

}  // namespace

TEST_F(SimPipeline, Ov9281FrameLengthChangesTheDeliveredRateOnTheVirtualClock) {
    const int64_t v0 = simtest::virtual_now_us();
    EXPECT_NEAR(30.0, cap_.measure_rate(30), 0.5);
    EXPECT_GE(simtest::virtual_now_us() - v0, 900000);  // a second of virtual time
    // The host's sequence: bridge open, standby, frame length 1874, streaming.
    ASSERT_EQ(0, xu_.asic_write(0x31, 0x10));
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 0));
    ASSERT_EQ(0, xu_.sensor_write(0x380E, 0x07));
    ASSERT_EQ(0, xu_.sensor_write(0x380F, 0x52));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 1));
    ASSERT_EQ(0, xu_.asic_write(0x31, 0));
    cap_.measure_rate(9);  // frames already in the buffers came at the old rate
    EXPECT_NEAR(28110.0 / 1874, cap_.measure_rate(10), 0.3);
}

TEST_F(SimPipeline, FramesStopWhileTheAsicIsHeldOrTheSensorsStandBy) {
    std::vector<uint8_t> f;
    ASSERT_EQ(0, cap_.next_frame(f));
    ASSERT_EQ(0, xu_.set_asic(0));
    // Frames in the buffers may still come out; then nothing.
    while (cap_.next_frame(f, nullptr, 300) == 0) {
    }
    const kssim_camera_stats before = stats(cam_);
    EXPECT_EQ(ETIMEDOUT, cap_.next_frame(f, nullptr, 500));
    const kssim_camera_stats after = stats(cam_);
    EXPECT_EQ(before.frames_produced, after.frames_produced);
    EXPECT_EQ(before.next_frame_id, after.next_frame_id);

    ASSERT_EQ(0, xu_.set_asic(1));
    ASSERT_EQ(0, cap_.next_frame(f));
    EXPECT_TRUE(frame_test::Frame(f.data(), 640, 480).markers_ok());

    ks_sys_usleep(50000);  // the ASIC answers once it has loaded its EPR
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 0));
    while (cap_.next_frame(f, nullptr, 300) == 0) {
    }
    EXPECT_EQ(ETIMEDOUT, cap_.next_frame(f, nullptr, 300));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 1));
    EXPECT_EQ(0, cap_.next_frame(f));
}

TEST_F(SimPipeline, ChannelRegisterSwitchesTheStreamAndTheConstantsFollowTheEpr) {
    ASSERT_EQ(0, xu_.asic_write(0x51, KSSIM_CHANNEL_ORIGIN_PAIR));
    EXPECT_TRUE(frame_where(
        [](const frame_test::Frame& f) { return f.channel() == KSSIM_CHANNEL_ORIGIN_PAIR; }, 20));
    // A new effective EPR takes effect at the next power-up: the metadata
    // line then carries its constants (the new view is rendered first).
    std::vector<uint8_t> img(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_epr_build(img.data(), 640, 480, 20000.0, 60.0, 5));
    ASSERT_EQ(0, kssim_camera_eeprom_write(cam_, 0, img.data(), img.size()));
    ASSERT_EQ(0, xu_.set_asic(0));
    ASSERT_EQ(0, xu_.set_asic(1));
    EXPECT_TRUE(frame_where(
        [](const frame_test::Frame& f) { return f.bf() == 20000.0 && f.base() == 60.0; }, 30));
}
