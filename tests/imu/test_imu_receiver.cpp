// The IMU receiver against the virtual camera's IMU, under the time warp.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>

#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "ks_imu_module/uvc-source/ks_uvc_imu_source.h"
#include "tests/sim/sim_fixture.h"
#include "tests/v4l2/v4l2_test_util.h"

namespace {

class ImuReceiver : public simtest::SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, 4.0));
        uvc_protocol_master_init();
        camera_ = add_camera();
        ASSERT_NE(nullptr, camera_);
        fd_ = ks_sys_open(kssim_camera_node_path(camera_, KSSIM_NODE_CAPTURE), O_RDWR, 0);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        if (imu_.ring != nullptr || imu_.has_thread) release_imu_module(&imu_);
        if (fd_ >= 0) ks_sys_close(fd_);
        SimTest::TearDown();
    }
    // The next sample, waiting while the receiver still drains (-3), for up to
    // 30 s of camera time: the receiver thread may be held up on a loaded host.
    _ks_imu_data_s* next_sample() {
        _ks_imu_data_s* sample = nullptr;
        int result = -3;
        const int64_t deadline = simtest::virtual_now_us() + 30'000'000;
        while (result == -3 && simtest::virtual_now_us() < deadline)
            if ((result = get_new_imu_data(&imu_, &sample)) == -3) ks_sys_usleep(5000);
        EXPECT_EQ(0, result) << "get_new_imu_data";
        return result == 0 ? sample : nullptr;
    }

    kssim_camera* camera_ = nullptr;
    int fd_ = -1;
    KsImuModule imu_{};
};

}  // namespace

// Samples run on across the counter's wrap with physical values and the
// video frame id of their time, while another thread's control exchanges
// share the channel: on the wire every request is followed by its own reply.
TEST_F(ImuReceiver, SamplesFlowAcrossACounterWrapWhileControlExchangesInterleave) {
    ASSERT_EQ(0, kssim_camera_imu_set_counter(camera_, 65400));
    testing::internal::CaptureStdout();  // "IMU data preparing..." while draining
    ASSERT_EQ(0, init_IMU_module(&imu_, &fd_));
    unsigned long frame_id = 0;
    setIMUSyncIdAddress(&imu_, &frame_id);
    ASSERT_NE(nullptr, next_sample());
    testing::internal::GetCapturedStdout();
    kssim_camera_config cfg;
    kssim_camera_get_config(camera_, &cfg);
    lock_uvc_protocol_mutex();  // no exchange cut in two by the clearing
    kssim_camera_traffic_clear(camera_);
    unlock_uvc_protocol_mutex();

    std::atomic<int> good_versions{0};
    std::thread control([&] {
        _struct_ks_ctrl_device ctrl = {};
        ctrl.fd = fd_;
        for (int i = 0; i < 100; ++i) {
            char version[32] = {};
            if (ks_get_usb_version(&ctrl, version) == 0 && std::strcmp(version, cfg.firmware) == 0)
                ++good_versions;
        }
    });
    uint64_t previous = 0;
    unsigned long previous_id = 0;
    bool wrapped = false;
    for (unsigned long i = 1; i <= 60; ++i) {
        __atomic_store_n(&frame_id, i, __ATOMIC_RELEASE);
        _ks_imu_data_s* s = next_sample();
        ASSERT_NE(nullptr, s);
        // The timestamp is wraps x 65535 + counter, so counter 65535 just before
        // a wrap and 0 just after it give the same value; anywhere else it grows.
        if (s->timestamp == previous)
            EXPECT_EQ(0u, previous % 65535) << "repeated timestamp away from a wrap";
        else
            EXPECT_GT(s->timestamp, previous);
        previous = s->timestamp;
        wrapped = wrapped || s->timestamp > 65535;
        // The newest sample may have been decoded before the last change, but
        // not before the one two samples back.
        EXPECT_GE(s->sync_id, previous_id);
        EXPECT_LE(s->sync_id, i);
        EXPECT_GE(s->sync_id + 2, i);
        previous_id = s->sync_id;
        double g = std::sqrt(s->acc_x * s->acc_x + s->acc_y * s->acc_y + s->acc_z * s->acc_z);
        EXPECT_NEAR(9.8, g, 0.6);
        EXPECT_LT(std::fabs(s->gyro_x) + std::fabs(s->gyro_y) + std::fabs(s->gyro_z), 1.0);
        EXPECT_GT(s->temperature, 0.0);
        EXPECT_LT(s->temperature, 70.0);
    }
    EXPECT_TRUE(wrapped);
    EXPECT_EQ(KS_IMU_RUNNING, imu_.mode.load());
    control.join();
    EXPECT_EQ(100, good_versions.load());

    lock_uvc_protocol_mutex();
    const size_t count = kssim_camera_traffic_count(camera_);
    unlock_uvc_protocol_mutex();
    int versions = 0, imu_fetches = 0;
    for (size_t i = 0; i + 1 < count; i += 2) {
        kssim_message request{}, reply{};
        ASSERT_EQ(0, kssim_camera_traffic_get(camera_, i, &request));
        ASSERT_EQ(0, kssim_camera_traffic_get(camera_, i + 1, &reply));
        ASSERT_EQ(KSSIM_REQUEST, request.direction) << i;
        ASSERT_EQ(KSSIM_REPLY, reply.direction) << i;
        EXPECT_EQ(request.id, reply.id);
        EXPECT_EQ(request.command | 0x80000000u, reply.command);
        versions += request.command == 1;
        imu_fetches += request.command == 13;
    }
    EXPECT_EQ(100, versions);
    EXPECT_GT(imu_fetches, 10);
}

// Released while draining; without samples set-up ends without a receiver;
// a resume probes again and starts one, a pause stops it; released while
// running.
TEST_F(ImuReceiver, SetUpPauseResumeAndReleaseWithAndWithoutSamples) {
    imu_.fd = fd_;
    alloc_imu_data_buff(&imu_);
    create_imu_data_receive_thread(&imu_);
    EXPECT_TRUE(imu_.has_thread);
    EXPECT_EQ(0, release_imu_module(&imu_));
    EXPECT_FALSE(imu_.has_thread);
    EXPECT_EQ(nullptr, imu_.ring);
    EXPECT_EQ(-1, imu_.fd);

    _ks_imu_data_s* s = nullptr;
    ASSERT_EQ(0, simtest::SimTest::inject(camera_, KSSIM_FAULT_NO_IMU, 0));
    {
        v4l2test::LogCapture log(LOG_ERROR);
        EXPECT_EQ(-1, init_IMU_module(&imu_, &fd_));
        EXPECT_EQ(KS_IMU_ABSENT, imu_.mode.load());
        EXPECT_FALSE(imu_.has_thread);
        EXPECT_EQ(1, log.count("FATAL ks_uvc_imu_source:"));
        EXPECT_EQ(1, log.count("No IMU data rcv. Check firmware version.\n"));
        EXPECT_EQ(-1, get_new_imu_data(&imu_, &s));
        EXPECT_EQ(1, log.count("IMU mode err 1000\n"));
    }
    ASSERT_EQ(0, kssim_camera_clear_fault(camera_, KSSIM_FAULT_NO_IMU));
    for (int round = 0;; ++round) {
        testing::internal::CaptureStdout();
        ASSERT_EQ(0, resume_Imu_Module(&imu_));
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_GT(std::stoi(printed), 0);  // the probe's sample count
        ASSERT_NE(nullptr, next_sample());
        if (round == 1) break;
        ASSERT_EQ(0, pause_Imu_Module(&imu_));
        EXPECT_EQ(KS_IMU_STOPPED, imu_.mode.load());
        EXPECT_FALSE(imu_.has_thread);
        v4l2test::LogCapture log(LOG_ERROR);
        EXPECT_EQ(-1, get_new_imu_data(&imu_, &s));
        EXPECT_EQ(1, log.count("IMU mode err 200\n"));
    }
    EXPECT_EQ(0, release_imu_module(&imu_));  // while running
    EXPECT_FALSE(imu_.has_thread);
    EXPECT_EQ(KS_IMU_STOPPED, imu_.mode.load());
}

namespace {

// A controller that hands out one sample a fetch while the receiver drains
// and sixteen once it runs, counting from 0.
std::atomic<KsImuModule*> g_imu{nullptr};
std::atomic<int> g_next{0}, g_draining_fetches{0}, g_first_decoded{-1};

int one_sample_then_sixteen(unsigned char* block) {
    const bool running = g_imu.load()->mode.load() == KS_IMU_RUNNING;
    const int n = running ? 16 : 1;
    if (!running) ++g_draining_fetches;
    if (running && g_first_decoded.load() < 0) g_first_decoded = g_next.load();
    std::memset(block, 0, 320);
    const uint32_t words[8] = {0x01020304u, 0, 0, 0, 0x8000000Du, 0, 16u * n, 0};
    for (int i = 0; i < 32; ++i)
        block[i] = static_cast<uint8_t>(words[i / 4] >> (24 - 8 * (i % 4)));
    for (int k = 0; k < n; ++k) {
        const int counter = g_next++;
        block[32 + 16 * k + 14] = static_cast<uint8_t>(counter);
        block[32 + 16 * k + 15] = static_cast<uint8_t>(counter >> 8);
    }
    return 0;
}

}  // namespace

// Draining ends at the first fetch of fewer than two samples, and decoded
// samples fill the ring slot after slot, wrapping after 200.
TEST(ImuReceiverRing, DrainingEndsOnASingleSampleAndTheRingWrapsAfter200) {
    static const _struct_protocol_functions uvc = {uvc_protocol_master_send_data,
                                                   uvc_protocol_master_receive_data,
                                                   uvc_protocol_get_current_timestamp};
    const _struct_protocol_functions fake = {nullptr, one_sample_then_sixteen, nullptr};
    protocol_master_init(&fake);
    KsImuModule imu{};
    imu.fd = -1;
    g_imu = &imu;
    alloc_imu_data_buff(&imu);
    create_imu_data_receive_thread(&imu);
    _ks_imu_data_s* s = nullptr;
    int result = -3;
    // Bounded generously on the real clock (no virtual camera here): the
    // receiver thread may be held up on a loaded host.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while ((result != 0 || s->timestamp < 250u) && std::chrono::steady_clock::now() < deadline) {
        result = get_new_imu_data(&imu, &s);
        if (result != 0 || s->timestamp < 250u) ks_sys_usleep(5000);
    }
    stop_imu_data_receive_thread(&imu);
    protocol_master_init(&uvc);
    ASSERT_EQ(0, result);
    EXPECT_LE(g_draining_fetches.load(), 2);
    // Sample n of the running receiver (counter first + n) lies in slot n % 200.
    for (int slot = 0; slot < 200; ++slot)
        EXPECT_EQ(slot, (imu.ring[slot].timestamp - g_first_decoded.load()) % 200) << slot;
    release_imu_module(&imu);
}
