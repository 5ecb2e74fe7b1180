// The hand-off of frames from the capture thread to a waiting consumer, on
// a frame ring fed by hand and timed on the virtual clock.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ks_v4l2_driver/source/ks_v4l2_driver.h"
#include "tests/sim/sim_fixture.h"

namespace {

constexpr int kWidth = 26;  // just wide enough for the id words 23 to 25
constexpr int kHeight = 2;
constexpr double kWarp = 100.0;

class FrameHandoff : public simtest::SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, kWarp));
        cam_ = new KsY4L2Cam{};
        cam_->width = kWidth;
        cam_->height = kHeight;
        cam_->pix_size = 3;
        cam_->frm_size = kWidth * kHeight * 3;
        cam_->max_wait_count = 20;
        cam_->nStatus = KS_STREAM_STREAMING;
        ASSERT_EQ(0, initDriverHandleFrameBuf(cam_));
    }
    void TearDown() override {
        releaseDriverHandleFrameBuf(cam_);
        delete cam_;
        SimTest::TearDown();
    }
    // Stores a frame with the given id as the capture thread does.
    void publish(uint32_t id) {
        std::vector<unsigned char> frame(cam_->frm_size, 0);
        frame[0] = 0xCE;
        for (int w = 0; w < 3; ++w) {
            const uint32_t word = (id >> (24 - 12 * w)) & 0xFFF;
            frame[3 * (23 + w)] = static_cast<unsigned char>(word & 0xFF);
            frame[3 * (23 + w) + 1] = static_cast<unsigned char>(word >> 8);
        }
        ASSERT_EQ(0, process_image(frame.data(), cam_));
    }
    // Waits (bounded on the virtual clock) until a consumer is inside a call.
    bool consumer_waiting() {
        const int64_t give_up = simtest::virtual_now_us() + 300 * 1000000LL;
        while (cam_->frame_ring->waiters.load() == 0 && simtest::virtual_now_us() < give_up)
            ks_sys_usleep(1000);
        return cam_->frame_ring->waiters.load() != 0;
    }

    KsY4L2Cam* cam_ = nullptr;
};

struct Consumer {
    int result = -1;
    unsigned int last_id = 0;
    unsigned char* data = nullptr;
    int64_t called_us = 0;
    int64_t returned_us = 0;
    void run(KsY4L2Cam* cam) {
        called_us = simtest::virtual_now_us();
        result = ksY4L2GetNextSourceData(&data, &last_id, cam);
        returned_us = simtest::virtual_now_us();
    }
};

}  // namespace

// A consumer holding the newest id sleeps until the next publish and gets
// that frame long before one polling period (ten virtual minutes) is over,
// where a polling consumer would have slept the whole period first.
TEST_F(FrameHandoff, AWaitingConsumerIsWokenByThePublishOfANewFrame) {
    cam_->wait_period = 600 * 1000000;
    publish(7);
    Consumer consumer;
    consumer.last_id = 7;
    std::thread waiting([&] { consumer.run(cam_); });
    ASSERT_TRUE(consumer_waiting());
    publish(8);
    waiting.join();
    EXPECT_EQ(0, consumer.result);
    EXPECT_EQ(8u, consumer.last_id);
    EXPECT_EQ(cam_->frame_ring->slots[1].data, consumer.data);
    EXPECT_LT(consumer.returned_us - consumer.called_us, cam_->wait_period.load());

    // An older id gets the newest frame without any wait at all.
    consumer.last_id = 3;
    consumer.run(cam_);
    EXPECT_EQ(0, consumer.result);
    EXPECT_EQ(8u, consumer.last_id);
}

// Without a new id the consumer gives up with 10 and the usual message after
// max_wait_count + 1 polling periods; frames that repeat the id it holds wake
// it but neither end nor stretch the wait. A reconnect under way ends the
// wait with 9 after one period.
TEST_F(FrameHandoff, NoNewIdTimesOutAfterTheDesignedPeriodsAndAReconnectGivesNine) {
    cam_->wait_period = 1000000;  // 1 s: the message counts 20 of them
    publish(5);
    Consumer consumer;
    consumer.last_id = 5;
    testing::internal::CaptureStdout();
    std::thread waiting([&] { consumer.run(cam_); });
    ASSERT_TRUE(consumer_waiting());
    for (int i = 0; i < 3; ++i) publish(5);
    waiting.join();
    EXPECT_EQ("Wait Image TimeOut[20 s]\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(KS_FRAME_TIMEOUT, consumer.result);
    EXPECT_EQ(5u, consumer.last_id);
    // A millisecond for the rounding of the warped time-outs.
    EXPECT_GE(consumer.returned_us - consumer.called_us, 21 * cam_->wait_period.load() - 1000);

    cam_->reconnecting = 1;
    consumer.run(cam_);
    EXPECT_EQ(KS_FRAME_RECONNECTING, consumer.result);
    EXPECT_GE(consumer.returned_us - consumer.called_us, cam_->wait_period.load() - 1000);
}
