// Decoding of raw IMU samples: scales, the counter's wrap and skips.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "ks_imu_module/uvc-source/ks_uvc_imu_source.h"
#include "tests/v4l2/v4l2_test_util.h"

namespace {

// A type-3 record: acceleration and rate on x, temperature, counter.
std::array<uint8_t, 16> raw(int16_t acc_x, int16_t gyro_x, int8_t temperature, uint16_t counter) {
    std::array<uint8_t, 16> r{0x03};
    const auto put16 = [&r](int at, int v) {
        r[at] = static_cast<uint8_t>(v);
        r[at + 1] = static_cast<uint8_t>(v >> 8);
    };
    put16(1, acc_x);
    put16(7, gyro_x);
    put16(14, counter);
    r[13] = static_cast<uint8_t>(temperature);
    return r;
}

}  // namespace

TEST(ImuDecode, PhysicalUnitsFromRawCounts) {
    KsImuModule imu{};
    _ks_imu_data_s out{};
    processRawImuData(raw(8192, 164, 0, 10).data(), &out, &imu);
    EXPECT_DOUBLE_EQ(9.8, out.acc_x);
    EXPECT_NEAR(10.0 * M_PI / 180.0, out.gyro_x, 1e-12);
    EXPECT_DOUBLE_EQ(25.0, out.temperature);
    EXPECT_EQ(10u, out.timestamp);
    EXPECT_EQ(0u, out.sync_id);  // no frame id published (see the receiver test)

    processRawImuData(raw(-8192, -164, -21, 11).data(), &out, &imu);
    EXPECT_DOUBLE_EQ(-9.8, out.acc_x);
    EXPECT_NEAR(25.0 - 21 / 2.07, out.temperature, 1e-9);
}

// A jump of more than 8000 samples is reported; a wrap is not, and extends
// the timestamp by 65535.
TEST(ImuDecode, SkipsAreReportedAndWrapsExtendTheTimestamp) {
    KsImuModule imu{};
    _ks_imu_data_s out{};
    v4l2test::LogCapture log(LOG_WARN);
    const auto decode = [&](uint16_t counter) {
        processRawImuData(raw(0, 0, 0, counter).data(), &out, &imu);
        return out.timestamp;
    };
    decode(100);
    decode(8100);
    EXPECT_EQ(0, log.count("IMU SKIP DETECTED"));
    imu.prev_counter = 100;
    EXPECT_EQ(8101u, decode(8101));
    EXPECT_EQ(1, log.count("\tWARNING : IMU SKIP DETECTED\n"));
    EXPECT_EQ(1, log.count("\tPre 100,Current 8101. DIFF 8001\n"));

    EXPECT_EQ(65538u, decode(3));
    EXPECT_EQ(1u, imu.wrap_count);
    EXPECT_EQ(2u * 65535u + 2u, decode(2));
    EXPECT_EQ(1, log.count("IMU SKIP DETECTED"));
}
