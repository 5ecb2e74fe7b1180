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
    }
    void start(kssim_camera* cam) {
        const char* node = kssim_camera_node_path(cam, KSSIM_NODE_CAPTURE);
        ASSERT_TRUE(cap_.open(node));
        ASSERT_TRUE(xu_.open(node));
        ASSERT_EQ(0, cap_.set_format(640, 480));
        ASSERT_EQ(8, cap_.map_buffers(8));
        ASSERT_EQ(0, cap_.queue_all());
        ASSERT_EQ(0, cap_.stream_on());
    }
    // Frames per second of virtual time, from the buffers' timestamps, after
    // letting the frames already queued at the old rate pass.
    double measure(int frames) {
        std::vector<uint8_t> f;
        v4l2_buffer first{}, last{};
        for (int i = 0; i < 9; ++i) EXPECT_EQ(0, cap_.next_frame(f));
        EXPECT_EQ(0, cap_.next_frame(f, &first));
        for (int i = 0; i < frames; ++i) EXPECT_EQ(0, cap_.next_frame(f, &last));
        const int64_t us = (last.timestamp.tv_sec - first.timestamp.tv_sec) * 1000000 +
                           (last.timestamp.tv_usec - first.timestamp.tv_usec);
        return (last.sequence - first.sequence) * 1e6 / static_cast<double>(us);
    }
    Capture cap_;
    Client xu_;
};

}  // namespace

TEST_F(SimPipeline, Ov9281FrameLengthChangesTheDeliveredRate) {
    kssim_camera* cam = add_camera([](kssim_camera_config& c) { c.initial_size = {640, 480}; });
    start(cam);
    EXPECT_NEAR(30.0, measure(15), 0.5);
    // The host's sequence: bridge open, standby, frame length 1874, streaming.
    ASSERT_EQ(0, xu_.asic_write(0x31, 0x10));
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 0));
    ASSERT_EQ(0, xu_.sensor_write(0x380E, 0x07));
    ASSERT_EQ(0, xu_.sensor_write(0x380F, 0x52));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 1));
    ASSERT_EQ(0, xu_.asic_write(0x31, 0));
    EXPECT_NEAR(28110.0 / 1874, measure(10), 0.3);
}

TEST_F(SimPipeline, FramesStopWhileTheAsicIsHeldOrTheSensorsStandBy) {
    kssim_camera* cam = add_camera([](kssim_camera_config& c) { c.initial_size = {640, 480}; });
    start(cam);
    std::vector<uint8_t> f;
    ASSERT_EQ(0, cap_.next_frame(f));
    ASSERT_EQ(0, xu_.set_asic(0));
    // Frames in the buffers may still come out; then nothing.
    while (cap_.next_frame(f, nullptr, 300) == 0) {
    }
    kssim_camera_stats before;
    ASSERT_EQ(0, kssim_camera_get_stats(cam, &before));
    EXPECT_EQ(ETIMEDOUT, cap_.next_frame(f, nullptr, 500));
    kssim_camera_stats after;
    ASSERT_EQ(0, kssim_camera_get_stats(cam, &after));
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
    kssim_camera* cam = add_camera([](kssim_camera_config& c) { c.initial_size = {640, 480}; });
    start(cam);
    std::vector<uint8_t> f;
    ASSERT_EQ(0, xu_.asic_write(0x51, KSSIM_CHANNEL_ORIGIN_PAIR));
    bool seen = false;
    for (int i = 0; i < 20 && !seen; ++i) {
        ASSERT_EQ(0, cap_.next_frame(f, nullptr, 30000));
        seen = frame_test::Frame(f.data(), 640, 480).channel() == KSSIM_CHANNEL_ORIGIN_PAIR;
    }
    EXPECT_TRUE(seen);

    // A new effective EPR takes effect at the next power-up: the metadata
    // line then carries its constants.
    std::vector<uint8_t> img(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_epr_build(img.data(), 640, 480, 20000.0, 60.0, 5));
    ASSERT_EQ(0, kssim_camera_eeprom_write(cam, 0, img.data(), img.size()));
    ASSERT_EQ(0, xu_.set_asic(0));
    ASSERT_EQ(0, xu_.set_asic(1));
    seen = false;
    for (int i = 0; i < 30 && !seen; ++i) {
        ASSERT_EQ(0, cap_.next_frame(f, nullptr, 30000));  // the new view is rendered first
        const frame_test::Frame fr(f.data(), 640, 480);
        seen = fr.bf() == 20000.0 && fr.base() == 60.0;
    }
    EXPECT_TRUE(seen);
}
