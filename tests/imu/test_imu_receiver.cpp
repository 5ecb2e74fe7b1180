// The IMU receiver against the virtual camera's IMU, under the time warp.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>

#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
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
    }
    void TearDown() override {
        if (imu_.ring != nullptr || imu_.has_thread) release_imu_module(&imu_);
        if (fd_ >= 0) ks_sys_close(fd_);
        SimTest::TearDown();
    }
    void open_camera(bool with_imu = true) {
        void (*without_imu)(kssim_camera_config&) = [](kssim_camera_config& c) { c.has_imu = 0; };
        camera_ = add_camera(with_imu ? nullptr : without_imu);
        ASSERT_NE(nullptr, camera_);
        fd_ = ks_sys_open(kssim_camera_node_path(camera_, KSSIM_NODE_CAPTURE), O_RDWR, 0);
        ASSERT_GE(fd_, 0);
    }
    // The next sample, waiting while the receiver still drains.
    _ks_imu_data_s* next_sample() {
        _ks_imu_data_s* sample = nullptr;
        for (int i = 0; i < 100; ++i) {
            int result = get_new_imu_data(&imu_, &sample);
            if (result == 0) return sample;
            if (result != -3) {
                ADD_FAILURE() << "get_new_imu_data returned " << result;
                return nullptr;
            }
            ks_sys_usleep(5000);
        }
        ADD_FAILURE() << "the receiver never left draining";
        return nullptr;
    }

    kssim_camera* camera_ = nullptr;
    int fd_ = -1;
    KsImuModule imu_{};
};

}  // namespace

TEST_F(ImuReceiver, SamplesFlowWithPhysicalValuesAcrossACounterWrap) {
    open_camera();
    ASSERT_EQ(0, kssim_camera_imu_set_counter(camera_, 65400));
    testing::internal::CaptureStdout();  // "IMU data preparing..." while draining
    ASSERT_EQ(0, init_IMU_module(&imu_, &fd_));
    uint64_t previous = 0;
    bool wrapped = false;
    for (int i = 0; i < 60; ++i) {
        _ks_imu_data_s* s = next_sample();
        ASSERT_NE(nullptr, s);
        if (i > 0) {
            EXPECT_GT(s->timestamp, previous);
        }
        previous = s->timestamp;
        wrapped = wrapped || s->timestamp > 65535;
        double g = std::sqrt(s->acc_x * s->acc_x + s->acc_y * s->acc_y + s->acc_z * s->acc_z);
        EXPECT_NEAR(9.8, g, 0.6);
        EXPECT_LT(std::fabs(s->gyro_x) + std::fabs(s->gyro_y) + std::fabs(s->gyro_z), 1.0);
        EXPECT_GT(s->temperature, 0.0);
        EXPECT_LT(s->temperature, 70.0);
    }
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(wrapped);
    EXPECT_EQ(KS_IMU_RUNNING, imu_.mode.load());
}

TEST_F(ImuReceiver, SamplesCarryTheVideoFrameIdOfTheirTime) {
    open_camera();
    unsigned long frame_id = 0;
    ASSERT_EQ(0, init_IMU_module(&imu_, &fd_));
    setIMUSyncIdAddress(&imu_, &frame_id);
    for (unsigned long id = 1; id <= 3; ++id) {
        __atomic_store_n(&frame_id, id * 1000, __ATOMIC_RELEASE);
        // Samples decoded before the change may still be the newest.
        _ks_imu_data_s* s = nullptr;
        for (int i = 0; i < 50; ++i) {
            s = next_sample();
            if (s == nullptr || s->sync_id == id * 1000) break;
        }
        ASSERT_NE(nullptr, s);
        EXPECT_EQ(id * 1000, s->sync_id);
    }
}

TEST_F(ImuReceiver, ACameraWithoutImuEndsSetUpWithoutAReceiver) {
    open_camera(false);
    v4l2test::LogCapture log(LOG_ERROR);
    EXPECT_EQ(-1, init_IMU_module(&imu_, &fd_));
    EXPECT_EQ(KS_IMU_ABSENT, imu_.mode.load());
    EXPECT_FALSE(imu_.has_thread);
    EXPECT_EQ(1, log.count("FATAL ks_uvc_imu_source:"));
    EXPECT_EQ(1, log.count("No IMU data rcv. Check firmware version.\n"));
    _ks_imu_data_s* s = nullptr;
    EXPECT_EQ(-1, get_new_imu_data(&imu_, &s));
    EXPECT_EQ(1, log.count("IMU mode err 1000\n"));
}

TEST_F(ImuReceiver, PauseResumeAndReleaseStopTheReceiverWhileDrainingOrRunning) {
    open_camera();
    // Draining: the thread is started by hand and released at once.
    imu_.fd = fd_;
    alloc_imu_data_buff(&imu_);
    create_imu_data_receive_thread(&imu_);
    EXPECT_TRUE(imu_.has_thread);
    EXPECT_EQ(0, release_imu_module(&imu_));
    EXPECT_FALSE(imu_.has_thread);
    EXPECT_EQ(nullptr, imu_.ring);
    EXPECT_EQ(-1, imu_.fd);

    // Running: a pause stops the receiver, a resume probes again.
    ASSERT_EQ(0, init_IMU_module(&imu_, &fd_));
    ASSERT_NE(nullptr, next_sample());
    ASSERT_EQ(0, pause_Imu_Module(&imu_));
    EXPECT_EQ(KS_IMU_STOPPED, imu_.mode.load());
    EXPECT_FALSE(imu_.has_thread);
    _ks_imu_data_s* s = nullptr;
    {
        v4l2test::LogCapture log(LOG_ERROR);
        EXPECT_EQ(-1, get_new_imu_data(&imu_, &s));
        EXPECT_EQ(1, log.count("IMU mode err 200\n"));
    }
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, resume_Imu_Module(&imu_));
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_GT(std::stoi(printed), 0);  // the probe's sample count
    ASSERT_NE(nullptr, next_sample());
    EXPECT_EQ(0, release_imu_module(&imu_));
    EXPECT_FALSE(imu_.has_thread);
    EXPECT_EQ(KS_IMU_STOPPED, imu_.mode.load());
}

TEST_F(ImuReceiver, ControlExchangesInterleaveWithImuPolling) {
    open_camera();
    ASSERT_EQ(0, init_IMU_module(&imu_, &fd_));
    ASSERT_NE(nullptr, next_sample());
    kssim_camera_traffic_clear(camera_);
    kssim_camera_config cfg;
    kssim_camera_get_config(camera_, &cfg);

    std::atomic<int> good_versions{0};
    std::thread control([&] {
        for (int i = 0; i < 100; ++i) {
            unsigned char version[257] = {};
            lock_uvc_protocol_mutex();
            set_cur_uvc_fd(fd_);
            int result = protocol_get_slaver_version(version);
            unlock_uvc_protocol_mutex();
            if (result == 0 && std::strcmp(reinterpret_cast<char*>(version), cfg.firmware) == 0)
                ++good_versions;
        }
    });
    uint64_t previous = 0;
    for (int i = 0; i < 30; ++i) {
        _ks_imu_data_s* s = next_sample();
        ASSERT_NE(nullptr, s);
        if (i > 0) {
            EXPECT_GT(s->timestamp, previous);
        }
        previous = s->timestamp;
    }
    control.join();
    EXPECT_EQ(100, good_versions.load());

    // On the wire every request is followed by its own reply: no exchange
    // was cut into by another.
    size_t count = kssim_camera_traffic_count(camera_);
    int versions = 0;
    int imu_fetches = 0;
    for (size_t i = 0; i + 1 < count; i += 2) {
        kssim_message request{};
        kssim_message reply{};
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
