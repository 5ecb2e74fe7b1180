// The chips behind the controller, reached through the control channel: the
// ASIC's registers and sensor bridge, the sensors' registers, the FPGA, the
// IMU FIFO, and the memories of a new camera.
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
    uint8_t peek(kssim_camera* cam, kssim_chip chip, uint32_t reg) {
        uint8_t v = 0;
        EXPECT_EQ(0, kssim_camera_register_read(cam, chip, reg, &v));
        return v;
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

TEST_F(SimChips, TrimLineOffsetWhiteBalanceAndTriggerRegistersHoldWhatIsWritten) {
    open();
    const std::vector<std::pair<uint16_t, uint8_t>> writes = {
        {0x26, 6},    {0x28, 2},    {0x65, 0},    {0x66, 0xFC}, {0x67, 1},    {0x68, 4},
        {0x71, 2},    {0x72, 0x80}, {0x73, 0},    {0x74, 0x40}, {0x21, 0x90}, {0x22, 0x70},
        {0x23, 0x70}, {0x24, 0x88}, {0x61, 0x07}, {0x62, 0x1A}, {0x63, 0x04}, {0x64, 0x4C},
        {0x40, 0},    {0x43, 0},    {0x44, 0},    {0x20, 0x10}, {0x31, 0x10}};
    for (const auto& w : writes) ASSERT_EQ(0, xu_.asic_write(w.first, w.second));
    for (const auto& w : writes) EXPECT_EQ(w.second, asic(w.first)) << w.first;
    // FPGA: RTT, trigger mode, AE, fill light, trigger rate copy.
    for (auto [r, v] : {std::pair<uint16_t, uint8_t>{0x08, 0},
                        {0x10, 0x1F},
                        {0x20, 0},
                        {0x27, 0x04},
                        {0x28, 0x4C},
                        {0x30, 1},
                        {0x31, 200}}) {
        ASSERT_EQ(0, xu_.fpga_write(r, v));
        uint8_t back = 0;
        ASSERT_EQ(0, xu_.fpga_read(r, &back));
        EXPECT_EQ(v, back) << r;
    }
    uint8_t v = 0;
    std::vector<uint8_t> info;
    ASSERT_EQ(0, xu_.i2c_read(0xC1, 0x00, 8, &info));
    EXPECT_EQ(0x22, info[0]);
    EXPECT_EQ((std::vector<uint8_t>{0x01, 0x05}),
              std::vector<uint8_t>(info.begin() + 1, info.begin() + 3));
    EXPECT_EQ((std::vector<uint8_t>{0x23, 0x11, 0x20}),
              std::vector<uint8_t>(info.begin() + 5, info.end()));
    ASSERT_EQ(0, xu_.fpga_read(0x1F, &v));
    EXPECT_EQ(0x56, v);

    // Direct presets: what the host then reads.
    kssim_camera* cam = kssim_world_camera(world_, 0);
    ASSERT_EQ(0, kssim_camera_register_write(cam, KSSIM_CHIP_ASIC, 0x1F, 0x00));
    EXPECT_EQ(0x00, asic(0x1F));
    ASSERT_EQ(0, kssim_camera_register_write(cam, KSSIM_CHIP_ASIC, 0xF0, 0x12));
    EXPECT_EQ(0x12, asic(0xF0));
    ASSERT_EQ(0, kssim_camera_register_write(cam, KSSIM_CHIP_FPGA, 0x00, 0x35));
    ASSERT_EQ(0, xu_.fpga_read(0x00, &v));
    EXPECT_EQ(0x35, v);
    EXPECT_EQ(-1, kssim_camera_register_write(cam, KSSIM_CHIP_ASIC, 0x100, 0));
    EXPECT_EQ(-1, kssim_camera_register_read(cam, KSSIM_CHIP_SENSOR_B, 0x10000, &v));
    EXPECT_EQ(-1, kssim_camera_register_read(cam, static_cast<kssim_chip>(7), 0, &v));
    EXPECT_EQ(-1, kssim_camera_register_read(cam, KSSIM_CHIP_FPGA, 0, nullptr));
}

TEST_F(SimChips, SensorBridgeSendsCommandsToBothSensorsAndReadsBothBack) {
    kssim_camera* cam = open();
    // Without access opened, a command goes nowhere.
    ASSERT_EQ(0, xu_.sensor_write(0x3509, 0x20));
    EXPECT_EQ(0x00, asic(0xF1));
    EXPECT_EQ(0x10, peek(cam, KSSIM_CHIP_SENSOR_A, 0x3509));

    ASSERT_EQ(0, xu_.asic_write(0x31, 0x10));
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    EXPECT_EQ(0xEA, asic(0xF0));  // reads stay the EPR status
    ASSERT_EQ(0, xu_.sensor_write(0x3509, 0x20));
    EXPECT_EQ(0x10, asic(0xF1));  // counter 1, status 0
    EXPECT_EQ(0x10, asic(0xF6));
    EXPECT_EQ(0x20, peek(cam, KSSIM_CHIP_SENSOR_A, 0x3509));
    EXPECT_EQ(0x20, peek(cam, KSSIM_CHIP_SENSOR_B, 0x3509));

    // The dual read: A at 0xF5, B at 0xFA.
    ASSERT_EQ(0, kssim_camera_register_write(cam, KSSIM_CHIP_SENSOR_B, 0x4000, 0x77));
    ASSERT_EQ(0, kssim_camera_register_write(cam, KSSIM_CHIP_SENSOR_A, 0x4000, 0x66));
    ASSERT_EQ(0, xu_.asic_write(0xF5, 0x40));
    ASSERT_EQ(0, xu_.asic_write(0xF6, 0x00));
    EXPECT_EQ(0x00, asic(0xF4));
    EXPECT_EQ(0x66, asic(0xF5));
    EXPECT_EQ(0x00, asic(0xF9));
    EXPECT_EQ(0x77, asic(0xFA));
    EXPECT_EQ(0x10, asic(0xF1));  // reads are no commands

    // The counters are four bits wide.
    for (int i = 0; i < 15; ++i) ASSERT_EQ(0, xu_.sensor_write(0x4001, static_cast<uint8_t>(i)));
    EXPECT_EQ(0x00, asic(0xF1));
    EXPECT_EQ(0x00, asic(0xF6));
    kssim_device_state s = state(cam);
    EXPECT_EQ(0, s.sensor_counter[0]);

    // Frozen counters of sensor A for two commands: A ignores them.
    ASSERT_EQ(0, inject(cam, KSSIM_FAULT_SENSOR_COUNTER_FROZEN, 2, 1));
    ASSERT_EQ(0, xu_.sensor_write(0x4002, 0xAB));
    ASSERT_EQ(0, xu_.sensor_write(0x4002, 0xAC));
    EXPECT_EQ(0x00, asic(0xF1));
    EXPECT_EQ(0x20, asic(0xF6));
    EXPECT_EQ(0x00, peek(cam, KSSIM_CHIP_SENSOR_A, 0x4002));
    EXPECT_EQ(0xAC, peek(cam, KSSIM_CHIP_SENSOR_B, 0x4002));
    ASSERT_EQ(0, xu_.sensor_write(0x4002, 0xAD));
    EXPECT_EQ(0x10, asic(0xF1));
    // Both frozen (value 0) until cleared.
    ASSERT_EQ(0, inject(cam, KSSIM_FAULT_SENSOR_COUNTER_FROZEN, 0));
    for (int i = 0; i < 6; ++i) ASSERT_EQ(0, xu_.sensor_write(0x4002, 1));
    EXPECT_EQ(0x10, asic(0xF1));
    EXPECT_EQ(0x30, asic(0xF6));
    ASSERT_EQ(0, kssim_camera_clear_fault(cam, KSSIM_FAULT_SENSOR_COUNTER_FROZEN));

    // Closing the access (the ASIC's power-up does too) stops the commands.
    ASSERT_EQ(0, xu_.asic_write(0xF0, 0));
    ASSERT_EQ(0, xu_.sensor_write(0x4002, 9));
    EXPECT_EQ(0x10, asic(0xF1));
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

TEST_F(SimChips, FrameLengthRegistersSetTheFrameRateOfEachModel) {
    // OV9281: fps = 28110 / lines.
    kssim_camera* ov = open();
    EXPECT_DOUBLE_EQ(30.0, kssim_camera_frame_rate(ov));
    EXPECT_EQ(0x03, peek(ov, KSSIM_CHIP_SENSOR_A, 0x380E));  // 937 lines
    EXPECT_EQ(0xA9, peek(ov, KSSIM_CHIP_SENSOR_A, 0x380F));
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x380E, 0x07));
    ASSERT_EQ(0, xu_.sensor_write(0x380F, 0x52));  // 1874 lines
    EXPECT_DOUBLE_EQ(28110.0 / 1874, kssim_camera_frame_rate(ov));
    EXPECT_DOUBLE_EQ(28110.0 / 1874, state(ov).sensor_frame_rate);
    // A power-up brings the configured rate back.
    ASSERT_EQ(0, xu_.set_asic(0));
    ASSERT_EQ(0, xu_.set_asic(1));
    EXPECT_DOUBLE_EQ(30.0, kssim_camera_frame_rate(ov));
    xu_.close();

    // IMX225: fps = 33000 / the ASIC's divisor at 0x63-0x64.
    kssim_camera* sony = open([](kssim_camera_config& c) {
        c.sensor = KSSIM_SENSOR_IMX225;
        std::strcpy(c.serial, "SONY0001");
    });
    EXPECT_EQ(0x04, asic(0x63));  // 1100
    EXPECT_EQ(0x4C, asic(0x64));
    EXPECT_EQ(2424, asic(0x61) << 8 | asic(0x62));
    EXPECT_EQ(0x21, peek(sony, KSSIM_CHIP_FPGA, 0x00));  // PCB 2, model code 1
    ASSERT_EQ(0, xu_.asic_write(0x63, 0x08));
    ASSERT_EQ(0, xu_.asic_write(0x64, 0x98));  // 2200
    EXPECT_DOUBLE_EQ(15.0, kssim_camera_frame_rate(sony));
    xu_.close();

    // SC132GS: fps = 38400 / lines, applied when the group hold launches.
    kssim_camera* sc = open([](kssim_camera_config& c) {
        c.sensor = KSSIM_SENSOR_SC132GS;
        c.fps = 20.0;
        std::strcpy(c.serial, "SC000001");
    });
    EXPECT_EQ(0x07, peek(sc, KSSIM_CHIP_SENSOR_A, 0x320E));  // 1920 lines
    EXPECT_EQ(0x80, peek(sc, KSSIM_CHIP_SENSOR_A, 0x320F));
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x3800, 0x00));
    ASSERT_EQ(0, xu_.sensor_write(0x320E, 0x0F));
    ASSERT_EQ(0, xu_.sensor_write(0x320F, 0x00));  // 3840 lines
    ASSERT_EQ(0, xu_.sensor_write(0x3228, 0x0E));
    ASSERT_EQ(0, xu_.sensor_write(0x3229, 0xFA));
    EXPECT_DOUBLE_EQ(20.0, kssim_camera_frame_rate(sc));
    EXPECT_EQ(0x07, peek(sc, KSSIM_CHIP_SENSOR_A, 0x320E));
    ASSERT_EQ(0, xu_.sensor_write(0x3800, 0x60));
    EXPECT_DOUBLE_EQ(10.0, kssim_camera_frame_rate(sc));
    EXPECT_EQ(0x0F, peek(sc, KSSIM_CHIP_SENSOR_B, 0x320E));
    EXPECT_EQ(0xFA, peek(sc, KSSIM_CHIP_SENSOR_B, 0x3229));
    xu_.close();

    // AR0144: no frame-length register of its own: the configured rate.
    kssim_camera* ar = open([](kssim_camera_config& c) {
        c.sensor = KSSIM_SENSOR_AR0144;
        c.fps = 25.0;
        std::strcpy(c.serial, "AR000001");
    });
    ASSERT_EQ(0, xu_.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu_.sensor_write(0x300A, 0x10));
    EXPECT_DOUBLE_EQ(25.0, kssim_camera_frame_rate(ar));
    uint8_t hw = 0;
    ASSERT_EQ(0, xu_.fpga_read(0x00, &hw));
    EXPECT_EQ(0x23, hw);
    // The simulator's setter rewrites the sensors' registers too.
    ASSERT_EQ(0, kssim_camera_set_frame_rate(ov, 15.0));
    EXPECT_EQ(0x07, peek(ov, KSSIM_CHIP_SENSOR_A, 0x380E));
    EXPECT_EQ(0x52, peek(ov, KSSIM_CHIP_SENSOR_B, 0x380F));
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

TEST_F(SimChips, ImuDeliversRecordsWithAWrappingCounter) {
    kssim_camera* cam = open();
    std::vector<std::array<uint8_t, 16>> recs;
    ASSERT_EQ(0, xu_.imu(&recs));  // drain what piled up since plug-in
    ks_sys_usleep(100000);         // 40 samples at 400 Hz
    ASSERT_EQ(0, xu_.imu(&recs));
    ASSERT_EQ(10u, recs.size());  // at most ten per reply
    uint16_t expect = xutest::imu_counter(recs[0]);
    size_t total = 0;
    for (int i = 0; i < 4 && !recs.empty(); ++i) {
        for (const auto& r : recs) {
            EXPECT_EQ(expect, xutest::imu_counter(r));
            ++expect;
            EXPECT_EQ(0x03, r[0]);
            EXPECT_NEAR(0, xutest::imu16(r, 1), 6);  // gravity on y: 8192 per g
            EXPECT_NEAR(8192, xutest::imu16(r, 3), 6);
            EXPECT_NEAR(0, xutest::imu16(r, 5), 6);
            EXPECT_NEAR(0, xutest::imu16(r, 7), 2);
            EXPECT_NEAR(0, xutest::imu16(r, 9), 35);         // slow sway about y
            EXPECT_NEAR(21, static_cast<int8_t>(r[13]), 1);  // about 35 degrees
        }
        total += recs.size();
        ASSERT_EQ(0, xu_.imu(&recs));
    }
    EXPECT_GE(total, 40u);

    // The rate, on the virtual clock.
    int64_t t0 = 0;
    do {
        t0 = simtest::virtual_now_us();
        ASSERT_EQ(0, xu_.imu(&recs));
    } while (!recs.empty());
    ks_sys_usleep(1000000);
    const kssim_device_state s = state(cam);
    const int64_t t1 = simtest::virtual_now_us();
    EXPECT_GE(s.imu_fifo_level, 399u);  // at least the second slept
    EXPECT_LE(s.imu_fifo_level, 400.0 * (t1 - t0) / 1e6 + 1);

    // The 16-bit counter wraps.
    do ASSERT_EQ(0, xu_.imu(&recs));
    while (!recs.empty());
    ASSERT_EQ(0, kssim_camera_imu_set_counter(cam, 65530));
    ks_sys_usleep(50000);
    std::vector<uint16_t> counters;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(0, xu_.imu(&recs));
        for (const auto& r : recs) counters.push_back(xutest::imu_counter(r));
    }
    const auto top = std::find(counters.begin(), counters.end(), 65535);
    ASSERT_NE(counters.end(), top);
    ASSERT_GE(counters.end() - top, 3);
    EXPECT_EQ(0, top[1]);
    EXPECT_EQ(1, top[2]);
    EXPECT_EQ(65534, top[-1]);

    // The FIFO keeps the newest 1024 samples; the counter shows the gap.
    while (!recs.empty()) ASSERT_EQ(0, xu_.imu(&recs));
    ASSERT_EQ(0, xu_.imu(&recs));
    ks_sys_usleep(50000);
    ASSERT_EQ(0, xu_.imu(&recs));
    ASSERT_FALSE(recs.empty());
    const uint16_t before = xutest::imu_counter(recs.back());
    while (!recs.empty()) ASSERT_EQ(0, xu_.imu(&recs));
    ks_sys_usleep(5000000);  // 2000 samples
    EXPECT_EQ(1024u, state(cam).imu_fifo_level);
    ASSERT_EQ(0, xu_.imu(&recs));
    EXPECT_GT(static_cast<uint16_t>(xutest::imu_counter(recs[0]) - before), 900);
}

TEST_F(SimChips, ImuFaultsAndCamerasWithoutImu) {
    kssim_camera* cam = open([](kssim_camera_config& c) {
        c.imu_records_per_reply = 16;
        c.imu_rate = 1000;
    });
    std::vector<std::array<uint8_t, 16>> recs;
    ks_sys_usleep(100000);
    ASSERT_EQ(0, xu_.imu(&recs));
    EXPECT_EQ(16u, recs.size());

    ASSERT_EQ(0, inject(cam, KSSIM_FAULT_NO_IMU, 2));
    ASSERT_EQ(0, xu_.imu(&recs));
    EXPECT_TRUE(recs.empty());
    ASSERT_EQ(0, xu_.imu(&recs));
    EXPECT_TRUE(recs.empty());
    ASSERT_EQ(0, xu_.imu(&recs));
    ASSERT_FALSE(recs.empty());

    // A skip of 9000 samples (the default) shows in the counter.
    while (!recs.empty()) ASSERT_EQ(0, xu_.imu(&recs));
    ks_sys_usleep(10000);
    state(cam);  // the samples of these 10 ms come before the jump
    ASSERT_EQ(0, inject(cam, KSSIM_FAULT_IMU_SKIP, 1));
    ks_sys_usleep(10000);
    std::vector<uint16_t> counters;
    for (int i = 0; i < 200; ++i) {  // until the FIFO has been emptied
        ASSERT_EQ(0, xu_.imu(&recs));
        for (const auto& r : recs) counters.push_back(xutest::imu_counter(r));
        if (recs.size() < 16) break;
    }
    ASSERT_GE(counters.size(), 10u);
    int jumps = 0;
    for (size_t i = 1; i < counters.size(); ++i) {
        const uint16_t d = static_cast<uint16_t>(counters[i] - counters[i - 1]);
        if (d != 1) {
            EXPECT_EQ(9001, d);
            ++jumps;
        }
    }
    EXPECT_EQ(1, jumps);
    EXPECT_EQ(-1, inject(cam, KSSIM_FAULT_IMU_SKIP, 1, 70000));
    xu_.close();

    kssim_camera* none = open([](kssim_camera_config& c) {
        c.has_imu = 0;
        std::strcpy(c.serial, "NOIMU001");
    });
    ks_sys_usleep(100000);
    ASSERT_EQ(0, xu_.imu(&recs));
    EXPECT_TRUE(recs.empty());
    EXPECT_EQ(0u, state(none).imu_fifo_level);
}
