// Decoding of raw IMU samples: scales, the counter's wrap and skips.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "ks_imu_module/uvc-source/ks_uvc_imu_source.h"
#include "tests/v4l2/v4l2_test_util.h"

namespace {

// A raw sample: acceleration and rate on x, y, z, temperature, counter.
std::array<uint8_t, 16> raw(std::array<int16_t, 6> axes, int8_t temperature, uint16_t counter) {
    std::array<uint8_t, 16> r{0x03};
    const auto put16 = [&r](int at, int v) {
        r[at] = static_cast<uint8_t>(v);
        r[at + 1] = static_cast<uint8_t>(v >> 8);
    };
    for (int i = 0; i < 6; ++i) put16(1 + 2 * i, axes[i]);
    put16(14, counter);
    r[13] = static_cast<uint8_t>(temperature);
    return r;
}

}  // namespace

TEST(ImuDecode, PhysicalUnitsFromRawCounts) {
    KsImuModule imu{};
    _ks_imu_data_s out{};
    processRawImuData(raw({8192, -4096, 2048, 164, -328, 82}, 0, 10).data(), &out, &imu);
    EXPECT_DOUBLE_EQ(9.8, out.acc_x);
    EXPECT_DOUBLE_EQ(-4.9, out.acc_y);
    EXPECT_DOUBLE_EQ(2.45, out.acc_z);
    const double degree = M_PI / 180.0;
    EXPECT_NEAR(10.0 * degree, out.gyro_x, 1e-12);
    EXPECT_NEAR(-20.0 * degree, out.gyro_y, 1e-12);
    EXPECT_NEAR(5.0 * degree, out.gyro_z, 1e-12);
    EXPECT_DOUBLE_EQ(25.0, out.temperature);
    EXPECT_EQ(10u, out.timestamp);
    EXPECT_EQ(0u, out.sync_id);  // no frame id published (see the receiver test)

    processRawImuData(raw({-8192, 0, 0, 0, 0, 0}, -21, 11).data(), &out, &imu);
    EXPECT_DOUBLE_EQ(-9.8, out.acc_x);
    EXPECT_NEAR(25.0 - 21 / 2.07, out.temperature, 1e-9);
}

// A jump of more than 8000 samples is reported; a wrap is not, and extends
// the timestamp by 65535; a repeated counter is neither.
TEST(ImuDecode, SkipsAreReportedAndWrapsExtendTheTimestamp) {
    KsImuModule imu{};
    _ks_imu_data_s out{};
    v4l2test::LogCapture log(LOG_WARN);
    const auto decode = [&](uint16_t counter) {
        processRawImuData(raw({}, 0, counter).data(), &out, &imu);
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
    EXPECT_EQ(65538u, decode(3));
    EXPECT_EQ(1u, imu.wrap_count);
    EXPECT_EQ(2u * 65535u + 2u, decode(2));
    EXPECT_EQ(1, log.count("IMU SKIP DETECTED"));
}

TEST(ImuDecode, NoSampleIsHandedOutWhileDrainingOrStopped) {
    KsImuModule imu{};
    _ks_imu_data_s* sample = nullptr;
    imu.mode = KS_IMU_DRAINING;
    testing::internal::CaptureStdout();
    EXPECT_EQ(-3, get_new_imu_data(&imu, &sample));
    EXPECT_EQ("IMU data preparing...\n", testing::internal::GetCapturedStdout());
    imu.mode = KS_IMU_NEW;
    EXPECT_EQ(-1, get_new_imu_data(&imu, &sample));
    EXPECT_EQ(nullptr, sample);
}
