// ASIC and FPGA control against the virtual camera: the register bytes each
// operation leaves (and their order on the bus), the refusals, the guard
// pair with its process-wide AE flag, the versions, both power sequences and
// the start-up health checks.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ctrl_layer_fixture.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"

using namespace ctrltest;
using AsicControl = OpenCamera;

TEST_F(AsicControl, TrimsAreWrittenEvenWithSignAndDifference) {
    uint16_t left = 3, right = 7;
    ASSERT_EQ(0, ks_set_camera_trim(&ctrl_, &left, &right));
    EXPECT_EQ(2, left);
    EXPECT_EQ(6, right);
    EXPECT_EQ((Writes{{0x28, 6}, {0x26, 2}, {0x65, 0x00}, {0x66, 0xFC}, {0x67, 1}, {0x68, 4}}),
              writes_to(kAsic));
    EXPECT_EQ(2, ctrl_.trim_left);
    EXPECT_EQ(6, ctrl_.trim_right);

    left = 7, right = 3;
    ASSERT_EQ(0, ks_set_camera_trim(&ctrl_, &left, &right));
    EXPECT_EQ((Bytes{6, 2, 0, 4}), regs(KSSIM_CHIP_ASIC, {0x26, 0x28, 0x67, 0x68}));
    uint16_t l = 0, r = 0;
    ASSERT_EQ(0, ks_get_camera_trim(&ctrl_, &l, &r));
    EXPECT_EQ(6, l);
    EXPECT_EQ(2, r);
    left = 9, right = 8;             // equal once even: no sign, no difference
    poke(KSSIM_CHIP_ASIC, 0x67, 1);  // as an unequal pair leaves it
    ASSERT_EQ(0, ks_set_camera_trim(&ctrl_, &left, &right));
    EXPECT_EQ((Bytes{8, 8, 0, 0}), regs(KSSIM_CHIP_ASIC, {0x26, 0x28, 0x67, 0x68}));

    // Each register takes one byte; sign and difference use the whole values.
    left = 301, right = 2;
    ASSERT_EQ(0, ks_set_camera_trim(&ctrl_, &left, &right));
    EXPECT_EQ(300, left);
    EXPECT_EQ((Bytes{300 & 0xFF, 0, 298 & 0xFF}), regs(KSSIM_CHIP_ASIC, {0x26, 0x67, 0x68}));

    // A refused write stops the sequence; the cache keeps the last good trims.
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 1);
    left = 10, right = 12;
    EXPECT_EQ(-1, ks_set_camera_trim(&ctrl_, &left, &right));
    EXPECT_EQ(300, ctrl_.trim_left);
    EXPECT_EQ(2, ctrl_.trim_right);
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 2);
    EXPECT_EQ(-1, ks_get_camera_trim(&ctrl_, &l, &r));
}

TEST_F(AsicControl, LineOffsetsOutsideZeroToFiveAreRefusedWithTheCacheCleared) {
    ASSERT_EQ(0, ks_set_line_offset(&ctrl_, 5.0f, 0.0f));
    EXPECT_EQ((Writes{{0x71, 5}, {0x72, 0}, {0x73, 0}, {0x74, 0}}), writes_to(kAsic));
    EXPECT_EQ(5.0f, ctrl_.line_offset_left);
    ASSERT_EQ(0, ks_set_line_offset(&ctrl_, 1.5f, 2.3f));
    // 0.3 x 256 = 76.8, truncated
    EXPECT_EQ((Bytes{1, 128, 2, 76}), regs(KSSIM_CHIP_ASIC, {0x71, 0x72, 0x73, 0x74}));
    EXPECT_EQ(1.5f, ctrl_.line_offset_left);
    EXPECT_EQ(2.3f, ctrl_.line_offset_right);

    for (const auto& bad : std::vector<std::pair<float, float>>{
             {5.01f, 1.0f}, {1.0f, -0.5f}, {std::nanf(""), 1.0f}, {1.0f, INFINITY}}) {
        ctrl_.line_offset_left = ctrl_.line_offset_right = 9.0f;
        clear_traffic();
        EXPECT_EQ(-1, ks_set_line_offset(&ctrl_, bad.first, bad.second));
        EXPECT_EQ(0.0f, ctrl_.line_offset_left);
        EXPECT_EQ(0.0f, ctrl_.line_offset_right);
        EXPECT_TRUE(requests().empty());
    }
    EXPECT_EQ(1, reg(KSSIM_CHIP_ASIC, 0x71));  // the camera keeps the last good offsets

    float l = 0, r = 0;
    ASSERT_EQ(0, ks_get_line_offset(&ctrl_, &l, &r));
    EXPECT_EQ(1.5f, l);
    EXPECT_EQ(2.0f + 76.0f / 256.0f, r);
    EXPECT_EQ(1.5f, ctrl_.line_offset_left);  // read back into the cache

    poke(KSSIM_CHIP_ASIC, 0x74, 0xFF);
    poke(KSSIM_CHIP_ASIC, 0x73, 0xFF);
    ASSERT_EQ(0, ks_get_line_offset(&ctrl_, &l, &r));
    EXPECT_EQ(255.0f + 255.0f / 256.0f, r);

    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 1);
    EXPECT_EQ(-1, ks_set_line_offset(&ctrl_, 1.0f, 1.0f));
    EXPECT_EQ(0.0f, ctrl_.line_offset_left);
}

TEST_F(AsicControl, ChannelsSearchRangeFillLightAndTrigger) {
    struct {
        int (*fn)(_struct_ks_ctrl_device*);
        uint8_t channel;
    } const channels[] = {{ks_switch_origin_stereo_channel, KSSIM_CHANNEL_ORIGIN_PAIR},
                          {ks_switch_rectified_stereo_channel, KSSIM_CHANNEL_RECTIFIED_PAIR},
                          {ks_switch_origin_disparity_channel, KSSIM_CHANNEL_ORIGIN_DISPARITY},
                          {ks_switch_rgbd_channel, KSSIM_CHANNEL_RGBD}};
    for (const auto& c : channels) {
        ASSERT_EQ(0, c.fn(&ctrl_));
        EXPECT_EQ(c.channel, reg(KSSIM_CHIP_ASIC, 0x51));
        EXPECT_EQ(c.channel, kssim_camera_output_channel(camera_));
        uint16_t mode = 0;
        ASSERT_EQ(0, ks_get_camera_working_mode(&ctrl_, &mode));
        EXPECT_EQ(c.channel, mode);
    }

    clear_traffic();
    ASSERT_EQ(0, ks_set_asic_search_range(&ctrl_, 0x40));
    EXPECT_EQ((Writes{{0x42, 0x40}, {0x43, 0}, {0x44, 0}, {0x40, 0}}), writes_to(kAsic));
    EXPECT_EQ(0x40, ctrl_.search_range);
    uint8_t range = 0;
    ASSERT_EQ(0, ks_get_asic_search_range(&ctrl_, &range));
    EXPECT_EQ(0x40, range);
    EXPECT_EQ((std::vector<uint32_t>{0x4F}), reads_of(kAsicRead));

    ASSERT_EQ(0, ks_fill_light_mode_control(&ctrl_, 1));
    EXPECT_EQ(1, reg(KSSIM_CHIP_FPGA, 0x30));
    EXPECT_EQ(-1, ks_fill_light_mode_control(&ctrl_, 2));
    EXPECT_EQ(1, reg(KSSIM_CHIP_FPGA, 0x30));
    ASSERT_EQ(0, ks_fill_light_intensity_control(&ctrl_, 0x1AB));
    EXPECT_EQ(0xAB, reg(KSSIM_CHIP_FPGA, 0x31));
    uint16_t mode = 0;
    uint8_t intensity = 0;
    ASSERT_EQ(0, ks_get_fill_light_mode(&ctrl_, &mode));
    ASSERT_EQ(0, ks_get_fill_light_intensity(&ctrl_, &intensity));
    EXPECT_EQ(1, mode);
    EXPECT_EQ(0xAB, intensity);

    ASSERT_EQ(0, ks_cam_trigger_setting(&ctrl_, 0x1F));
    EXPECT_EQ(0x1F, reg(KSSIM_CHIP_FPGA, 0x10));
    EXPECT_EQ(-1, ks_cam_trigger_setting(&ctrl_, 0x20));
    EXPECT_EQ(0x1F, reg(KSSIM_CHIP_FPGA, 0x10));
    ASSERT_EQ(0, ks_cam_trigger_setting(&ctrl_, 0x01));
    EXPECT_EQ(0x01, reg(KSSIM_CHIP_FPGA, 0x10));

    fault(KSSIM_FAULT_I2C_REFUSE_FPGA, 0, 0);
    EXPECT_EQ(-1, ks_fill_light_mode_control(&ctrl_, 0));
    EXPECT_EQ(-1, ks_get_fill_light_intensity(&ctrl_, &intensity));
    EXPECT_EQ(-1, ks_cam_trigger_setting(&ctrl_, 0));
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 0);
    EXPECT_EQ(-1, ks_set_asic_search_range(&ctrl_, 0x20));
    EXPECT_EQ(0x40, ctrl_.search_range);
    EXPECT_NE(0, ks_switch_rgbd_channel(&ctrl_));
}

TEST_F(AsicControl, GuardRestoresRunningAeAndLeavesAManuallyStoppedAeOff) {
    // AE running: prep stops it and opens RTT, post shuts RTT and restarts it.
    ASSERT_EQ(0, ks_AE_open_up(&ctrl_));
    ASSERT_EQ(0x10, reg(KSSIM_CHIP_FPGA, 0x20));
    ASSERT_EQ(0, ks_asic_control_prep(&ctrl_));
    EXPECT_EQ(0, ae_closed_flag);
    EXPECT_EQ((Bytes{0x00, 0}), regs(KSSIM_CHIP_FPGA, {0x20, 0x08}));
    ASSERT_EQ(0, ks_asic_control_post(&ctrl_));
    EXPECT_EQ((Bytes{0x10, 1}), regs(KSSIM_CHIP_FPGA, {0x20, 0x08}));

    // AE stopped by hand: it stays off across the guarded operation.
    ASSERT_EQ(0, ks_AE_shut_down(&ctrl_));
    ASSERT_EQ(0, ks_asic_control_prep(&ctrl_));
    EXPECT_EQ(1, ae_closed_flag);
    EXPECT_EQ(0, reg(KSSIM_CHIP_FPGA, 0x08));
    clear_traffic();
    EXPECT_EQ(0, ks_asic_control_post(&ctrl_));
    EXPECT_EQ((Bytes{0x00, 1}), regs(KSSIM_CHIP_FPGA, {0x20, 0x08}));
    EXPECT_EQ((Writes{{0x08, 1}}), writes_to(kFpga));

    uint16_t status = 0xFF;
    ASSERT_EQ(0, ks_get_FPGA_AE_status(&ctrl_, &status));
    EXPECT_EQ(0, status);
    ASSERT_EQ(0, ks_RTT_open_up(&ctrl_));
    EXPECT_EQ(0, reg(KSSIM_CHIP_FPGA, 0x08));
    ASSERT_EQ(0, ks_RTT_shut_down(&ctrl_));
    EXPECT_EQ(1, reg(KSSIM_CHIP_FPGA, 0x08));

    // An FPGA that does not answer fails both halves.
    fault(KSSIM_FAULT_I2C_REFUSE_FPGA, 0, 0);
    EXPECT_EQ(-1, ks_asic_control_prep(&ctrl_));
    EXPECT_EQ(-1, ks_asic_control_post(&ctrl_));
    EXPECT_EQ(-1, ks_get_FPGA_AE_status(&ctrl_, &status));
}

TEST_F(AsicControl, VersionsHardwareSwapModeAndStereoConstants) {
    uint8_t a = 0, b = 0, c = 0;
    ASSERT_EQ(0, ks_get_FPGA_version(&ctrl_, &a, &b));
    EXPECT_EQ(1, a);
    EXPECT_EQ(5, b);
    ASSERT_EQ(0, ks_get_FPGA_release_date(&ctrl_, &a, &b, &c));
    EXPECT_EQ((Bytes{0x23, 0x11, 0x20}), (Bytes{a, b, c}));
    ASSERT_EQ(0, ks_get_HW_info(&ctrl_, &a, &b));
    EXPECT_EQ(2, a);  // PCB revision
    EXPECT_EQ(KSSIM_SENSOR_OV9281, b);

    const std::pair<uint8_t, uint8_t> modes[] = {{0x00, 0}, {0x50, 0}, {0xAF, 0}, {0x10, 1},
                                                 {0x40, 1}, {0xFF, 0}, {0xBF, 1}};
    for (const auto& m : modes) {
        poke(KSSIM_CHIP_ASIC, 0x20, m.first);
        uint8_t mode = 0x77;
        ASSERT_EQ(0, ks_get_cmos_swap_mode(&ctrl_, &mode));
        EXPECT_EQ(m.second, mode) << std::hex << int{m.first};
    }

    float bxf = 0, base = 0;
    ASSERT_EQ(0, ks_get_bxf_from_nuvex(&ctrl_, &bxf, &base));
    EXPECT_FLOAT_EQ(35000.0f, bxf);
    EXPECT_FLOAT_EQ(50.0f, base);
    // Full-scale registers decode without overflow.
    for (uint32_t r = 0x08; r <= 0x0F; ++r) poke(KSSIM_CHIP_ASIC, r, 0xFF);
    ASSERT_EQ(0, ks_get_bxf_from_nuvex(&ctrl_, &bxf, &base));
    EXPECT_FLOAT_EQ(static_cast<float>(4294967295.0 / 4096.0), bxf);
    EXPECT_FLOAT_EQ(static_cast<float>(65535.0 / 128.0), base);

    fault(KSSIM_FAULT_I2C_REFUSE_FPGA, 0, 2);
    EXPECT_EQ(-1, ks_get_HW_info(&ctrl_, &a, &b));
    EXPECT_EQ(-1, ks_get_FPGA_version(&ctrl_, &a, &b));
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 2);
    EXPECT_EQ(-1, ks_get_bxf_from_nuvex(&ctrl_, &bxf, &base));
    EXPECT_EQ(-1, ks_get_cmos_swap_mode(&ctrl_, &a));
}

TEST_F(AsicControl, HealthChecks) {
    ASSERT_EQ(0, ks_AE_open_up(&ctrl_));
    EXPECT_EQ(0, ks_asic_default_val_check(&ctrl_));
    EXPECT_EQ(0, ks_nuvex_epr_status_check(&ctrl_));
    uint16_t status = 0;
    ASSERT_EQ(0, ks_load_epr_init_status(&ctrl_, &status));
    EXPECT_EQ(0xEA, status);
    EXPECT_EQ(0, ks_device_init_status_check(&ctrl_));
    // The guard restored AE and shut RTT.
    EXPECT_EQ((Bytes{0x10, 1}), regs(KSSIM_CHIP_FPGA, {0x20, 0x08}));

    // The FPGA is not ready: the check fails before touching the ASIC.
    fault(KSSIM_FAULT_CONTROLLER_NOT_READY);
    clear_traffic();
    EXPECT_EQ(-1, ks_device_init_status_check(&ctrl_));
    EXPECT_TRUE(reads_of(kAsicRead).empty());
    EXPECT_TRUE(writes_to(kAsic).empty());
    EXPECT_TRUE(writes_to(kFpga).empty());
    fault(KSSIM_FAULT_CONTROLLER_NOT_READY, 0, 0x55);
    EXPECT_EQ(-1, ks_device_init_status_check(&ctrl_));
    clear(KSSIM_FAULT_CONTROLLER_NOT_READY);
    fault(KSSIM_FAULT_I2C_REFUSE_FPGA, 0, 2);  // an unreadable FPGA is not ready either
    EXPECT_EQ(-1, ks_device_init_status_check(&ctrl_));
    clear(KSSIM_FAULT_I2C_REFUSE_FPGA);
    EXPECT_EQ(0, ks_device_init_status_check(&ctrl_));

    // The ASIC rejected its EPR.
    fault(KSSIM_FAULT_INVALID_EPR, 1);
    EXPECT_EQ(-2, ks_nuvex_epr_status_check(&ctrl_));
    EXPECT_EQ(-3, ks_device_init_status_check(&ctrl_));
    EXPECT_EQ(0x10, reg(KSSIM_CHIP_FPGA, 0x20));  // post ran all the same
    float bxf = 1, base = 1;
    ASSERT_EQ(0, ks_get_bxf_from_nuvex(&ctrl_, &bxf, &base));
    EXPECT_EQ(0.0f, bxf);
    EXPECT_EQ(0.0f, base);

    // The idle register is wrong: the EPR status is not even read.
    poke(KSSIM_CHIP_ASIC, 0x1F, 0x00);
    EXPECT_EQ(-2, ks_asic_default_val_check(&ctrl_));
    clear_traffic();
    EXPECT_EQ(-2, ks_device_init_status_check(&ctrl_));
    EXPECT_EQ((std::vector<uint32_t>{0x1F}), reads_of(kAsicRead));

    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 2);
    EXPECT_EQ(-1, ks_asic_default_val_check(&ctrl_));
    EXPECT_EQ(-1, ks_nuvex_epr_status_check(&ctrl_));
    EXPECT_EQ(-1, ks_load_epr_init_status(&ctrl_, &status));
}

TEST_F(CtrlLayer, PowerCycleUsesTheResetStateOrOnThe1022FirmwareGpio17AndFailsWithItsStep) {
    using Requests = std::vector<std::vector<uint8_t>>;
    const struct {
        const char* firmware;  // only the first four characters count
        const char* text;
        Requests asic_state, gpio;  // requests 14 and 10: set pin 17 off, on, off, on
    } cases[] = {{"1023 is a current firmware whose version text is long",
                  "Finish bring up.",
                  {{0}, {1}, {0}, {1}},
                  {}},
                 {"10225 build 7",
                  "1022 Usb version bring upFinish bring up.",
                  {},
                  {{0, 17, 0}, {0, 17, 1}, {0, 17, 0}, {0, 17, 1}}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        open_camera(KSSIM_SENSOR_OV9281, c.firmware);
        const uint32_t resets = state().reset_count;
        ASSERT_EQ(0, ks_camera_hardware_shutdown(&ctrl_));
        EXPECT_EQ(0, state().asic_running);
        const bool older = c.gpio.size() > 0;
        EXPECT_EQ(!older, state().asic_powered);
        if (older) {
            EXPECT_EQ(0, state().gpio17);
        }

        const uint64_t start = kssim_world_now_us(world_);
        {
            StdoutCapture out;
            ASSERT_EQ(0, ks_camera_hardware_bringup(&ctrl_));
            EXPECT_EQ(c.text, out.text());
        }
        EXPECT_GE(kssim_world_now_us(world_) - start, 11000000u);
        const kssim_device_state s = state();
        EXPECT_EQ(1, s.asic_running);
        EXPECT_EQ(1, s.epr_loaded);
        EXPECT_EQ(1, s.gpio17);
        EXPECT_EQ(resets + 2, s.reset_count);  // released twice
        std::map<uint32_t, Requests> sent;     // data of each request, by command
        std::vector<uint64_t> at;              // times of the power line's switches
        for (const kssim_message& m : requests()) {
            sent[m.command].emplace_back(m.data, m.data + m.data_length);
            if (m.command == (older ? 10u : 14u)) at.push_back(m.time_us);
        }
        EXPECT_EQ(c.asic_state, sent[14]);
        EXPECT_EQ(c.gpio, sent[10]);
        EXPECT_EQ(2u, sent[1].size());  // the version, once per sequence
        ASSERT_EQ(4u, at.size());       // on for 4 s, off for 1 s, then on
        EXPECT_GE(at[2] - at[1], 4000000u);
        EXPECT_GE(at[3] - at[2], 1000000u);
        // A version text filling all 32 bytes comes back cut to 31 and ended.
        char version[40];
        std::memset(version, 'x', sizeof version);
        version[39] = '\0';
        ASSERT_EQ(0u, ks_get_usb_version(&ctrl_, version));
        EXPECT_EQ(std::string(c.firmware).substr(0, 31), version);
        EXPECT_EQ(0, ks_device_init_status_check(&ctrl_));
        release_iic_ctrl(&ctrl_);
    }

    // The ASIC-state command fails at the transport: the first step's code.
    open_camera();
    fault(KSSIM_FAULT_XU_FAIL);
    {
        StdoutCapture out;
        EXPECT_EQ(-1, ks_camera_hardware_bringup(&ctrl_));
        EXPECT_EQ(0u, out.text().find("ks_camera_hardware_bringup failed: -1("));
    }
    EXPECT_NE(0, ks_camera_hardware_shutdown(&ctrl_));
}
