// The chips behind the controller, reached through the control channel: the
// memories of a new camera, the ASIC's output channel and indices, and the
// sensors' exposure and gain as seen in the frames. Trims, the sensor bridge,
// frame-length formulas and the IMU FIFO are shown through the library's own
// control-layer and IMU tests against the same simulator.
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
    int inject(kssim_camera* cam, kssim_fault_kind kind, uint32_t count, int32_t value = 0) {
        const kssim_fault armed = {kind, count, 0, value};
        return kssim_camera_inject_fault(cam, &armed);
    }
    uint8_t asic(uint16_t reg) {
        uint8_t v = 0;
        EXPECT_EQ(0, xu_.asic_read(reg, &v)) << reg;
        return v;
    }
    kssim_device_state state(kssim_camera* cam) {
        kssim_device_state s;
        EXPECT_EQ(0, kssim_camera_device_state(cam, &s));
        return s;
    }
    // Mean-luma statistic (S0) of the camera's next frame.
    uint32_t mean_luma_stat(kssim_camera* cam) {
        std::vector<uint8_t> f(640 * 480 * 3);
        EXPECT_GT(kssim_camera_produce_frame(cam, f.data(), f.size()), 0);
        uint32_t s[5];
        frame_test::Frame(f.data(), 640, 480).ae(s);
        return s[0];
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
        std::strcpy(c.serial, "KS2024ABCDEF0001");
    });
    std::vector<uint8_t> e(KSSIM_EEPROM_SIZE);
    ASSERT_EQ(0, kssim_camera_eeprom_read(cam, 0, e.data(), e.size()));
    uint16_t w = 0, h = 0;
    double bxf = 0, base = 0;
    ASSERT_EQ(0, kssim_epr_check(e.data(), KSSIM_EPR_SIZE, &w, &h, &bxf, &base));
    EXPECT_EQ(1280, w);
    EXPECT_EQ(720, h);
    EXPECT_DOUBLE_EQ(35000.0, bxf);
    EXPECT_DOUBLE_EQ(50.0, base);

    // Custom area: stream descriptors of slots 0..2, current slot 1, serial.
    EXPECT_EQ(0xC5, e[0x3C2A]);
    EXPECT_EQ(0x07, e[0x3C2B]);
    const uint8_t rec0[6] = {0x01, 0xE0, 0x02, 0x80, 20, 25};
    const uint8_t rec1[6] = {0x02, 0xD0, 0x05, 0x00, 20, 25};
    const uint8_t rec2[6] = {0x00, 0xF0, 0x01, 0x40, 20, 25};
    EXPECT_EQ(0, std::memcmp(&e[0x3C2C], rec0, 6));
    EXPECT_EQ(0, std::memcmp(&e[0x3C32], rec1, 6));
    EXPECT_EQ(0, std::memcmp(&e[0x3C38], rec2, 6));
    EXPECT_EQ(1, e[0x3C5C]);
    EXPECT_EQ(0xC4, e[0x3C18]);
    EXPECT_EQ(16, e[0x3C19]);
    EXPECT_EQ(0, std::memcmp(&e[0x3C1A], "KS2024ABCDEF0001", 16));
    // Nothing else of the custom area, and no EEPROM slot images.
    for (uint32_t a = 0x3C00; a < 0x3CB8; ++a) {
        const bool set = (a >= 0x3C18 && a < 0x3C3E) || a == 0x3C5C;
        if (!set) {
            EXPECT_EQ(0xFF, e[a]) << std::hex << a;
        }
    }
    for (uint32_t a = 3072; a < 0x3C00; ++a) ASSERT_EQ(0xFF, e[a]) << a;

    // Flash slots 0..2 hold the images of the three sizes.
    std::vector<uint8_t> img(4096);
    const uint16_t sizes[3][2] = {{640, 480}, {1280, 720}, {320, 240}};
    for (uint32_t n = 0; n < 3; ++n) {
        ASSERT_EQ(0, kssim_camera_flash_read(cam, (n + 101) * 4096, img.data(), img.size()));
        ASSERT_EQ(0, kssim_epr_check(img.data(), img.size(), &w, &h, nullptr, nullptr));
        EXPECT_EQ(sizes[n][0], w);
        EXPECT_EQ(sizes[n][1], h);
    }
    ASSERT_EQ(0, kssim_camera_flash_read(cam, 104 * 4096, img.data(), img.size()));
    EXPECT_EQ(-1, kssim_epr_check(img.data(), img.size(), nullptr, nullptr, nullptr, nullptr));

    // Serial numbers longer than 16 characters keep their first 16.
    kssim_camera* other =
        add_camera([](kssim_camera_config& c) { std::strcpy(c.serial, "ABCDEFGHIJKLMNOPQRSTUV"); });
    uint8_t sn[18];
    ASSERT_EQ(0, kssim_camera_eeprom_read(other, 0x3C18, sn, sizeof(sn)));
    EXPECT_EQ(16, sn[1]);
    EXPECT_EQ(0, std::memcmp(sn + 2, "ABCDEFGHIJKLMNOP", 16));
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
