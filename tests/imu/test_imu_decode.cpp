// Decoding of raw IMU samples: scales, the counter's wrap and skips.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ks_imu_module/uvc-source/ks_uvc_imu_source.h"
#include "tests/v4l2/v4l2_test_util.h"

namespace {

struct RawSample {
    uint8_t bytes[16] = {};
    RawSample(int16_t acc_x, int16_t gyro_x, int8_t temperature, uint16_t counter) {
        bytes[0] = 0x03;
        bytes[1] = acc_x & 0xFF;
        bytes[2] = (acc_x >> 8) & 0xFF;
        bytes[7] = gyro_x & 0xFF;
        bytes[8] = (gyro_x >> 8) & 0xFF;
        bytes[13] = static_cast<uint8_t>(temperature);
        bytes[14] = counter & 0xFF;
        bytes[15] = counter >> 8;
    }
};

}  // namespace

TEST(ImuDecode, PhysicalUnitsFromRawCounts) {
    KsImuModule imu{};
    _ks_imu_data_s out{};
    processRawImuData(RawSample(8192, 164, 0, 10).bytes, &out, &imu);
    EXPECT_DOUBLE_EQ(9.8, out.acc_x);
    EXPECT_NEAR(10.0 * M_PI / 180.0, out.gyro_x, 1e-12);
    EXPECT_DOUBLE_EQ(25.0, out.temperature);
    EXPECT_EQ(10u, out.timestamp);
    EXPECT_EQ(0u, out.sync_id);

    processRawImuData(RawSample(-8192, -164, -21, 11).bytes, &out, &imu);
    EXPECT_DOUBLE_EQ(-9.8, out.acc_x);
    EXPECT_NEAR(25.0 - 21 / 2.07, out.temperature, 1e-9);

    // The sync id is whatever the video side published last.
    unsigned long frame_id = 0x123456789ul;
    setIMUSyncIdAddress(&imu, &frame_id);
    processRawImuData(RawSample(0, 0, 0, 12).bytes, &out, &imu);
    EXPECT_EQ(0x123456789u, out.sync_id);
}

TEST(ImuDecode, CounterWrapsExtendTheTimestampBy65535) {
    KsImuModule imu{};
    _ks_imu_data_s out{};
    processRawImuData(RawSample(0, 0, 0, 65530).bytes, &out, &imu);
    EXPECT_EQ(65530u, out.timestamp);
    processRawImuData(RawSample(0, 0, 0, 3).bytes, &out, &imu);
    EXPECT_EQ(1u, imu.wrap_count);
    EXPECT_EQ(65538u, out.timestamp);
    processRawImuData(RawSample(0, 0, 0, 2).bytes, &out, &imu);
    EXPECT_EQ(2u * 65535u + 2u, out.timestamp);
}

TEST(ImuDecode, AJumpOfMoreThan8000SamplesIsReported) {
    KsImuModule imu{};
    _ks_imu_data_s out{};
    v4l2test::LogCapture log(LOG_WARN);
    processRawImuData(RawSample(0, 0, 0, 100).bytes, &out, &imu);
    processRawImuData(RawSample(0, 0, 0, 8100).bytes, &out, &imu);
    EXPECT_EQ(0, log.count("IMU SKIP DETECTED"));
    imu.prev_counter = 100;
    processRawImuData(RawSample(0, 0, 0, 8101).bytes, &out, &imu);
    EXPECT_EQ(1, log.count("\tWARNING : IMU SKIP DETECTED\n"));
    EXPECT_EQ(1, log.count("\tPre 100,Current 8101. DIFF 8001\n"));
}
