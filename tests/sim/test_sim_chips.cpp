// The chips behind the controller, reached through the control channel: the
// memories of a new camera, the ASIC's output channel and indices, the sensor
// bridge and its counters, the sensors' exposure and gain as seen in the
// frames, and the IMU's records.
#include <algorithm>
#include <cmath>

#include "frame_decoder.h"
#include "sim_fixture.h"
#include "xu_client.h"

using simtest::SimTest;
using xutest::Client;

namespace {

class SimChips : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, 50.0));
    }
    kssim_camera* open(void (*tweak)(kssim_camera_config&) = nullptr) {
        kssim_camera* cam = add_camera(tweak);
        EXPECT_NE(cam, nullptr);
        if (cam != nullptr) {
            EXPECT_TRUE(xu_.open(kssim_camera_node_path(cam, KSSIM_NODE_CAPTURE)));
        }
        return cam;
    }
    uint8_t asic(uint16_t reg) {
        uint8_t v = 0;
        EXPECT_EQ(0, xu_.asic_read(reg, &v)) << reg;
        return v;
    }
    // Mean-luma statistic (S0) of the camera's next frame.
    uint32_t mean_luma_stat(kssim_camera* cam) {
        std::vector<uint8_t> f(640 * 480 * 3);
        EXPECT_GT(kssim_camera_produce_frame(cam, f.data(), f.size()), 0);
        return frame_test::Frame(f.data(), 640, 480).ae(0);
    }
    Client xu_;
};

}  // namespace

TEST_F(SimChips, ANewCameraCarriesValidImagesDescriptorsAndItsSerialNumber) {
    kssim_camera* cam = open([](kssim_camera_config& c) {
        c.sizes[0] = {640, 480};
        c.sizes[1] = {1280, 720};
        c.sizes[2] = {320, 240};
        c.size_count = 3;
        c.initial_size = {1280, 720};
        std::strcpy(c.serial, "KS2024ABCDEF0001XYZ");  // 16 characters are kept
    });
    std::vector<uint8_t> e(KSSIM_EEPROM_SIZE);
    ASSERT_EQ(0, kssim_camera_eeprom_read(cam, 0, e.data(), e.size()));
    uint16_t w = 0, h = 0;
    ASSERT_EQ(0, kssim_epr_check(e.data(), KSSIM_EPR_SIZE, &w, &h, nullptr, nullptr));
    EXPECT_EQ(1280 * 720, w * h);
    // Custom area: stream descriptors of slots 0..2, current slot 1, serial;
    // nothing else, and no EEPROM slot images.
    const uint8_t recs[18] = {0x01, 0xE0, 0x02, 0x80, 20,   25,   0x02, 0xD0, 0x05,
                              0x00, 20,   25,   0x00, 0xF0, 0x01, 0x40, 20,   25};
    EXPECT_EQ(0, std::memcmp(&e[0x3C2C], recs, 18));
    EXPECT_EQ((std::vector<uint8_t>{0xC4, 16}), std::vector<uint8_t>(&e[0x3C18], &e[0x3C1A]));
    EXPECT_EQ(0, std::memcmp(&e[0x3C1A], "KS2024ABCDEF0001", 16));
    EXPECT_EQ((std::vector<uint8_t>{0xC5, 0x07}), std::vector<uint8_t>(&e[0x3C2A], &e[0x3C2C]));
    EXPECT_EQ(1, e[0x3C5C]);
    for (uint32_t a = 3072; a < 0x3CB8; ++a) {
        if ((a < 0x3C18 || a >= 0x3C3E) && a != 0x3C5C) {
            ASSERT_EQ(0xFF, e[a]) << std::hex << a;
        }
    }
    // Flash slots 0..2 hold the images of the three sizes, slot 3 none.
    const int pixels[4] = {640 * 480, 1280 * 720, 320 * 240, 0};
    std::vector<uint8_t> img(4096);
    for (uint32_t n = 0; n < 4; ++n) {
        ASSERT_EQ(0, kssim_camera_flash_read(cam, (n + 101) * 4096, img.data(), img.size()));
        w = h = 0;
        EXPECT_EQ(n < 3 ? 0 : -1,
                  kssim_epr_check(img.data(), img.size(), &w, &h, nullptr, nullptr));
        EXPECT_EQ(pixels[n], w * h);
    }
}

TEST_F(SimChips, OutputChannelRegisterDrivesTheCaptureNode) {
    kssim_camera* cam = open();
    EXPECT_EQ(KSSIM_CHANNEL_RGBD, asic(0x51));
    for (uint8_t ch : {0x23, 0x76, 0x7E, 0x7F}) {
        ASSERT_EQ(0, xu_.asic_write(0x51, ch));
        EXPECT_EQ(ch, kssim_camera_output_channel(cam));
        std::vector<uint8_t> f(1280 * 720 * 3);
        ASSERT_GT(kssim_camera_produce_frame(cam, f.data(), f.size()), 0);
        EXPECT_EQ(ch, frame_test::Frame(f.data(), 1280, 720).channel());
    }
    // Another value is kept by the register; the node keeps its channel.
    ASSERT_EQ(0, xu_.asic_write(0x51, 0x10));
    EXPECT_EQ(0x10, asic(0x51));
    EXPECT_EQ(KSSIM_CHANNEL_RGBD, kssim_camera_output_channel(cam));
    // The simulator's own setter reaches the register too, and is what the
    // ASIC comes up with after a power-up.
    ASSERT_EQ(0, kssim_camera_set_output_channel(cam, KSSIM_CHANNEL_ORIGIN_PAIR));
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, asic(0x51));
    ASSERT_EQ(0, xu_.asic_write(0x51, KSSIM_CHANNEL_RGBD));
    ASSERT_EQ(0, xu_.set_asic(0));
    ASSERT_EQ(0, xu_.set_asic(1));
    ks_sys_usleep(50000);
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, asic(0x51));
    EXPECT_EQ(KSSIM_CHANNEL_ORIGIN_PAIR, kssim_camera_output_channel(cam));
}

TEST_F(SimChips, OutputIndicesCountFramesAndCanFreeze) {
    kssim_camera* cam = open();
    // 30 frames a second of virtual time, bracketed by the clock around the reads.
    const int64_t b0 = simtest::virtual_now_us();
    const uint8_t a0 = asic(0xE2);
    const int64_t e0 = simtest::virtual_now_us();
    ks_sys_usleep(1000000);
    const int64_t b1 = simtest::virtual_now_us();
    const uint8_t a1 = asic(0xE2);
    const int64_t e1 = simtest::virtual_now_us();
    EXPECT_GE(static_cast<uint8_t>(a1 - a0), std::floor((b1 - e0) * 30e-6) - 1);
    EXPECT_LE(static_cast<uint8_t>(a1 - a0), std::ceil((e1 - b0) * 30e-6) + 1);
    std::vector<uint8_t> both;  // one transfer: both indices at the same instant
    ASSERT_EQ(0, xu_.i2c_read(0xCD, 0xE2, 2, &both));
    EXPECT_EQ(both[0], both[1]);

    ASSERT_EQ(0, inject(cam, KSSIM_FAULT_OUTPUT_INDEX_FROZEN, 3, 2));  // sensor B, three reads
    const uint8_t frozen = asic(0xE3);
    ks_sys_usleep(200000);
    EXPECT_EQ(frozen, asic(0xE3));
    EXPECT_NE(frozen, asic(0xE2));  // A goes on
    EXPECT_EQ(frozen, asic(0xE3));
    ks_sys_usleep(200000);
    EXPECT_NE(frozen, asic(0xE3));  // the count ran out

    // The indices stop while the sensors are in standby.
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 0));
    EXPECT_EQ(0, state(cam).sensors_streaming);
    const uint8_t idle = asic(0xE2);
    ks_sys_usleep(300000);
    EXPECT_EQ(idle, asic(0xE2));
    ASSERT_EQ(0, xu_.sensor_write(0x0100, 1));
    ks_sys_usleep(300000);
    EXPECT_NE(idle, asic(0xE2));
}

TEST_F(SimChips, ExposureAndGainChangeTheBrightnessAndItsStatistics) {
    kssim_camera* cam = open([](kssim_camera_config& c) { c.initial_size = {640, 480}; });
    const uint32_t automatic = mean_luma_stat(cam);
    ASSERT_GT(automatic, 1000u);
    // Stopping AE keeps the exposure it had.
    ASSERT_EQ(0, xu_.fpga_write(0x20, 0));
    EXPECT_EQ(automatic, mean_luma_stat(cam));
    // Manual exposure 250 lines (x16 = 0x0FA0): half the automatic level.
    ASSERT_EQ(0, xu_.asic_write(0x33, 0x0F));
    ASSERT_EQ(0, xu_.asic_write(0x35, 0xA0));
    const uint32_t half = mean_luma_stat(cam);
    EXPECT_NEAR(automatic / 2.0, half, automatic * 0.05);
    // Twice the gain brings it back.
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x3509, 0x20));
    EXPECT_NEAR(automatic, mean_luma_stat(cam), automatic * 0.05);
    // AE on again: the automatic level whatever the settings.
    ASSERT_EQ(0, xu_.fpga_write(0x20, 0x10));
    EXPECT_EQ(automatic, mean_luma_stat(cam));
}

TEST_F(SimChips, SensorWritesThroughTheBridgeAdvanceBothCounters) {
    kssim_camera* cam = open();
    auto sensor = [&](kssim_chip chip, uint32_t reg) {
        uint8_t v = 0;
        EXPECT_EQ(0, kssim_camera_register_read(cam, chip, reg, &v));
        return v;
    };
    ASSERT_EQ(0, xu_.sensor_write(0x3509, 0x20));  // access not opened: goes nowhere
    EXPECT_EQ(0x10, sensor(KSSIM_CHIP_SENSOR_A, 0x3509));
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    EXPECT_EQ(0xEA, asic(0xF0));  // reads stay the EPR status
    ASSERT_EQ(0, xu_.sensor_write(0x3509, 0x20));
    EXPECT_EQ(0x10, asic(0xF1));  // counter of A 1, status 0
    EXPECT_EQ(0x10, asic(0xF6));  // counter of B
    EXPECT_EQ(0x20, sensor(KSSIM_CHIP_SENSOR_A, 0x3509));
    EXPECT_EQ(0x20, sensor(KSSIM_CHIP_SENSOR_B, 0x3509));
    for (int i = 0; i < 15; ++i) ASSERT_EQ(0, xu_.sensor_write(0x4001, static_cast<uint8_t>(i)));
    EXPECT_EQ(0x00, asic(0xF1));  // four bits wide
    EXPECT_EQ(0x00, asic(0xF6));
    // Frozen counter of sensor A for one command: A ignores it.
    ASSERT_EQ(0, inject(cam, KSSIM_FAULT_SENSOR_COUNTER_FROZEN, 1, 1));
    ASSERT_EQ(0, xu_.sensor_write(0x4002, 0xAB));
    EXPECT_EQ(0x00, asic(0xF1));
    EXPECT_EQ(0x10, asic(0xF6));
    EXPECT_EQ(0x00, sensor(KSSIM_CHIP_SENSOR_A, 0x4002));
    EXPECT_EQ(0xAB, sensor(KSSIM_CHIP_SENSOR_B, 0x4002));
}

TEST_F(SimChips, ImuDeliversRecordsWithAWrappingCounter) {
    kssim_camera* cam = open();
    std::vector<std::array<uint8_t, 16>> recs;
    auto drain = [&] {
        do ASSERT_EQ(0, xu_.imu(&recs));
        while (!recs.empty());
    };
    drain();
    ASSERT_EQ(0, kssim_camera_imu_set_counter(cam, 65530));
    ks_sys_usleep(50000);  // 20 samples at 400 Hz
    std::vector<uint16_t> counters;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(0, xu_.imu(&recs));
        ASSERT_LE(recs.size(), 10u);  // at most ten per reply
        for (const auto& r : recs) {
            EXPECT_EQ(0x03, r[0]);
            EXPECT_NEAR(8192, static_cast<int16_t>(r[3] | r[4] << 8), 6);  // 1 g on y
            counters.push_back(xutest::imu_counter(r));
        }
    }
    // Samples taken between the drain and the new counter value keep the old
    // numbering; the wrap is shown from the first one that has the new.
    const auto first = std::find_if(counters.begin(), counters.end(),
                                    [](uint16_t c) { return c >= 65530; });
    counters.erase(counters.begin(), first);
    ASSERT_GE(counters.size(), 8u);
    for (size_t i = 1; i < counters.size(); ++i)
        EXPECT_EQ(static_cast<uint16_t>(counters[i - 1] + 1), counters[i]);
    EXPECT_NE(counters.end(), std::find(counters.begin(), counters.end(), 0));
    // The FIFO keeps the newest 1024 samples.
    drain();
    ks_sys_usleep(5000000);
    EXPECT_EQ(1024u, state(cam).imu_fifo_level);
}
