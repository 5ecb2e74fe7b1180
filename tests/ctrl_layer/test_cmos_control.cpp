// Sensor control through the ASIC's bridge against the virtual camera: the
// verified write and its counter check, the dual read, the frame-rate
// setters of each sensor model with their limits (and the rate the camera
// then delivers), gains, exposures, white balance and model names.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "ctrl_layer_fixture.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_cmos_control.h"

using namespace ctrltest;

namespace {

class CmosControl : public CtrlLayer {
  protected:
    // One sensor register of both sensors: {A, B}.
    Bytes sensors(uint32_t r) { return {reg(KSSIM_CHIP_SENSOR_A, r), reg(KSSIM_CHIP_SENSOR_B, r)}; }
    // A 16-bit value from two consecutive registers, most significant first.
    unsigned word(kssim_chip chip, uint32_t r) { return reg(chip, r) << 8 | reg(chip, r + 1); }
    // The bytes sent through the bridge (writes of 0xF4), in order.
    Bytes bridge_bytes() {
        Bytes out;
        for (const auto& w : writes_to(kAsic))
            if (w.first == 0xF4) out.push_back(w.second);
        return out;
    }
};

}  // namespace

TEST_F(CmosControl, VerifiedWriteReachesBothSensorsAndDualReadReturnsBoth) {
    open_camera(KSSIM_SENSOR_OV9281);
    ASSERT_EQ(0, _ks_cmos_ctrl_prep(&ctrl_));
    EXPECT_EQ(0x10, reg(KSSIM_CHIP_ASIC, 0x31));
    EXPECT_EQ((Writes{{0x31, 0x10}, {0xF0, 3}}), writes_to(kAsic));

    clear_traffic();
    ASSERT_EQ(0, ks_write_cmos_register_through_nuvex(&ctrl_, 0x3509, 0x0024));
    EXPECT_EQ((Writes{{0xF1, 0x35}, {0xF2, 0x09}, {0xF3, 0x00}, {0xF4, 0x24}}), writes_to(kAsic));
    EXPECT_EQ((Bytes{0x24, 0x24}), sensors(0x3509));

    // Counters wrap after 16 commands; every write still verifies. Sensor B
    // ignores one command, so the counters end up apart.
    fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN, 1, 2);
    for (int i = 0; i < 17; ++i)
        ASSERT_EQ(0, ks_write_cmos_register_through_nuvex(&ctrl_, 0x4000, i));
    EXPECT_EQ(16, reg(KSSIM_CHIP_SENSOR_A, 0x4000));

    // The bus status carries both sensors' command counters.
    const kssim_device_state after = state();
    ASSERT_NE(after.sensor_counter[0], after.sensor_counter[1]);
    uint8_t ca = 0, sa = 9, cb = 0, sb = 9;
    ASSERT_EQ(0, ks_load_cmos_bus_status(&ctrl_, &ca, &sa, &cb, &sb));
    EXPECT_EQ((Bytes{after.sensor_counter[0], 0, after.sensor_counter[1], 0}),
              (Bytes{ca, sa, cb, sb}));

    // Sensors that differ are told apart.
    poke(KSSIM_CHIP_SENSOR_B, 0x3509, 0x31);
    uint16_t a = 0, b = 0;
    ASSERT_EQ(0, ks_read_cmos_register(&ctrl_, 0x3509, &a, &b));
    EXPECT_EQ(0x24, a);
    EXPECT_EQ(0x31, b);

    ASSERT_EQ(0, _ks_cmos_ctrl_post(&ctrl_));
    EXPECT_EQ(0, reg(KSSIM_CHIP_ASIC, 0x31));

    uint16_t ia = 0x1234, ib = 0x1234;
    EXPECT_EQ(0, ks_load_cmos_output_idx(&ctrl_, &ia, &ib));
    EXPECT_LT(ia, 256);
    EXPECT_LT(ib, 256);

    // Refused ASIC transfers.
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 1);
    EXPECT_EQ(-1, _ks_cmos_ctrl_prep(&ctrl_));
    EXPECT_EQ(-2, ks_write_cmos_register_through_nuvex(&ctrl_, 0x3509, 1));
    EXPECT_EQ(-2, ks_read_cmos_register(&ctrl_, 0x3509, &a, &b));
    EXPECT_EQ(0, a);
    EXPECT_EQ(0, _ks_cmos_ctrl_post(&ctrl_));  // never fails
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 2);
    EXPECT_EQ(-1, ks_load_cmos_bus_status(&ctrl_, &ca, &sa, &cb, &sb));
    EXPECT_EQ(-3, ks_write_cmos_register_through_nuvex(&ctrl_, 0x3509, 1));
    EXPECT_EQ(-2, ks_read_cmos_register(&ctrl_, 0x3509, &a, &b));
}

TEST_F(CmosControl, AWriteWhoseCountersNeverMoveIsTriedSixTimes) {
    open_camera(KSSIM_SENSOR_OV9281);
    ASSERT_EQ(0, _ks_cmos_ctrl_prep(&ctrl_));
    const uint8_t old = reg(KSSIM_CHIP_SENSOR_A, 0x3509);

    fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN);  // both sensors
    clear_traffic();
    EXPECT_EQ(-1, ks_write_cmos_register_through_nuvex(&ctrl_, 0x3509, 0x55));
    EXPECT_EQ(6u, bridge_bytes().size());
    EXPECT_EQ((Bytes{old, old}), sensors(0x3509));

    // One sensor that does not take the command is enough to fail.
    fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN, 0, 2);
    clear_traffic();
    EXPECT_EQ(-1, ks_write_cmos_register_through_nuvex(&ctrl_, 0x3509, 0x55));
    EXPECT_EQ(6u, bridge_bytes().size());
    EXPECT_EQ((Bytes{0x55, old}), sensors(0x3509));

    // Two ignored commands: the third attempt goes through.
    fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN, 2);
    clear_traffic();
    EXPECT_EQ(0, ks_write_cmos_register_through_nuvex(&ctrl_, 0x3509, 0x66));
    EXPECT_EQ(3u, bridge_bytes().size());
    EXPECT_EQ((Bytes{0x66, 0x66}), sensors(0x3509));
}

TEST_F(CmosControl, Ov9281FrameRateFormulaLimitsAndDeliveredRate) {
    open_camera(KSSIM_SENSOR_OV9281);
    ASSERT_EQ(0, ks_set_ov9281_fps(&ctrl_, 30.0f));
    EXPECT_EQ((Bytes{0x03, 0x03}), sensors(0x380E));  // 937 lines
    EXPECT_EQ((Bytes{0xA9, 0xA9}), sensors(0x380F));
    EXPECT_EQ(1, reg(KSSIM_CHIP_SENSOR_A, 0x0100));
    EXPECT_EQ(0, reg(KSSIM_CHIP_ASIC, 0x31));  // bridge closed
    EXPECT_NEAR(28110.0 / 937, state().sensor_frame_rate, 1e-6);

    clear_traffic();
    ASSERT_EQ(0, ks_set_ov9281_fps(&ctrl_, 10.0f));
    EXPECT_EQ(2811u, word(KSSIM_CHIP_SENSOR_A, 0x380E));
    EXPECT_NEAR(10.0, state().sensor_frame_rate, 1e-6);
    EXPECT_NEAR(10.0, kssim_camera_frame_rate(camera_), 1e-6);
    EXPECT_EQ(1, state().sensors_streaming);
    // Standby, the two frame-length bytes, streaming.
    EXPECT_EQ((Bytes{0, 0x0A, 0xFB, 1}), bridge_bytes());

    clear_traffic();
    {
        StdoutCapture out;
        EXPECT_EQ(-99, ks_set_ov9281_fps(&ctrl_, 6.811f));  // 4127 lines
        EXPECT_EQ(-97, ks_set_ov9281_fps(&ctrl_, 0.99f));
        EXPECT_EQ(-97, ks_set_ov9281_fps(&ctrl_, -5.0f));
        EXPECT_EQ(-97, ks_set_ov9281_fps(&ctrl_, std::nanf("")));
        EXPECT_EQ(-98, ks_set_ov9281_fps(&ctrl_, 30.5f));
        EXPECT_NE(std::string::npos, out.text().find("Error: Setting FPS exceeds Maximun(30 fps)"));
    }
    EXPECT_TRUE(requests().empty());
    ASSERT_EQ(0, ks_set_ov9281_fps(&ctrl_, 6.812f));  // 4126 lines: the limit itself
    EXPECT_EQ(4126u, word(KSSIM_CHIP_SENSOR_A, 0x380E));

    // A sensor that takes no command: standby fails, the bridge stays open.
    fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN);
    EXPECT_EQ(-9, ks_set_ov9281_fps(&ctrl_, 20.0f));
    EXPECT_EQ(0x10, reg(KSSIM_CHIP_ASIC, 0x31));
    EXPECT_EQ(-1, ks_set_ov9281_cmos_fps_line(&ctrl_, 1000));
}

TEST_F(CmosControl, Sc132gsFrameRateFormulaLimitsAndDeliveredRate) {
    open_camera(KSSIM_SENSOR_SC132GS);
    const uint8_t fpsx_high = reg(KSSIM_CHIP_ASIC, 0x61);
    const uint8_t fpsx_low = reg(KSSIM_CHIP_ASIC, 0x62);
    ASSERT_EQ(0, ks_set_sc132gs_fps(&ctrl_, 20.0f));
    for (kssim_chip s : {KSSIM_CHIP_SENSOR_A, KSSIM_CHIP_SENSOR_B}) {
        EXPECT_EQ(1920u, word(s, 0x320E));
        EXPECT_EQ(1914u, word(s, 0x3228));
    }
    EXPECT_EQ(0, reg(KSSIM_CHIP_ASIC, 0x31));
    EXPECT_NEAR(20.0, state().sensor_frame_rate, 1e-6);
    // Group hold opened, four frame-length bytes, group launched; then the
    // trigger timing written back and set.
    EXPECT_EQ((Bytes{0x00, 0x07, 0x80, 0x07, 0x7A, 0x60}), bridge_bytes());
    Writes outside_bridge;
    for (const auto& w : writes_to(kAsic))
        if (w.first < 0xF0) outside_bridge.push_back(w);
    EXPECT_EQ((Writes{{0x31, 0x10},
                      {0x61, fpsx_high},
                      {0x62, fpsx_low},
                      {0x63, 0x07},
                      {0x64, 0x80},
                      {0x31, 0x00}}),
              outside_bridge);

    ASSERT_EQ(0, ks_set_sc132gs_fps(&ctrl_, 20.89f));  // 1838 lines: the limit itself
    EXPECT_EQ(1838u, word(KSSIM_CHIP_SENSOR_A, 0x320E));
    ASSERT_EQ(0, ks_set_sc132gs_fps(&ctrl_, 5.0f));
    EXPECT_NEAR(5.0, state().sensor_frame_rate, 1e-6);
    EXPECT_NEAR(5.0, kssim_camera_frame_rate(camera_), 1e-6);

    clear_traffic();
    {
        StdoutCapture out;
        EXPECT_EQ(-98, ks_set_sc132gs_fps(&ctrl_, 20.9f));  // 1837 lines
        EXPECT_EQ(-98, ks_set_sc132gs_fps(&ctrl_, 30.0f));
        EXPECT_EQ(-98, ks_set_sc132gs_fps(&ctrl_, 31.0f));
        EXPECT_EQ(-97, ks_set_sc132gs_fps(&ctrl_, 0.0f));
    }
    EXPECT_TRUE(requests().empty());

    // The first sensor step fails: -5, the bridge stays open.
    fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN);
    EXPECT_EQ(-5, ks_set_sc132gs_fps(&ctrl_, 10.0f));
    EXPECT_EQ(0x10, reg(KSSIM_CHIP_ASIC, 0x31));
    EXPECT_NEAR(5.0, state().sensor_frame_rate, 1e-6);
}

TEST_F(CmosControl, Imx225FrameRateFromTheTriggerDivisor) {
    open_camera(KSSIM_SENSOR_IMX225);
    ASSERT_EQ(0, ks_set_sony224_fps(&ctrl_, 30.0f));
    EXPECT_EQ(1100u, word(KSSIM_CHIP_ASIC, 0x63));
    EXPECT_EQ(1100u, word(KSSIM_CHIP_FPGA, 0x27));
    EXPECT_EQ(2424u, word(KSSIM_CHIP_ASIC, 0x61));
    EXPECT_NEAR(30.0, state().sensor_frame_rate, 1e-6);
    // No bridge involved.
    for (const auto& w : writes_to(kAsic)) EXPECT_NE(0x31u, w.first);

    // The other known constant is kept, an unknown one replaced.
    poke(KSSIM_CHIP_ASIC, 0x61, 1818 >> 8);
    poke(KSSIM_CHIP_ASIC, 0x62, 1818 & 0xFF);
    ASSERT_EQ(0, ks_set_sony224_fps(&ctrl_, 12.5f));
    EXPECT_EQ(1818u, word(KSSIM_CHIP_ASIC, 0x61));
    EXPECT_EQ(2640u, word(KSSIM_CHIP_ASIC, 0x63));
    EXPECT_EQ(2640u, word(KSSIM_CHIP_FPGA, 0x27));
    EXPECT_NEAR(12.5, kssim_camera_frame_rate(camera_), 1e-6);
    poke(KSSIM_CHIP_ASIC, 0x61, 0x12);
    ASSERT_EQ(0, ks_set_sony224_fps(&ctrl_, 30.0f));
    EXPECT_EQ(2424u, word(KSSIM_CHIP_ASIC, 0x61));

    // No range check: the divisor saturates within its 16 bits.
    for (const auto& c :
         std::vector<std::pair<float, unsigned>>{{0.1f, 0xFFFF}, {0.0f, 0xFFFF}, {1e6f, 1}}) {
        ASSERT_EQ(0, ks_set_sony224_fps(&ctrl_, c.first));
        EXPECT_EQ(c.second, word(KSSIM_CHIP_ASIC, 0x63)) << c.first;
    }
    // Failures are ignored.
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 0);
    EXPECT_EQ(0, ks_set_sony224_fps(&ctrl_, 30.0f));
}

TEST_F(CmosControl, GainsOfBothSensorKinds) {
    // OV9281: the low byte, written through the bridge opened for it.
    open_camera(KSSIM_SENSOR_OV9281);
    ASSERT_EQ(0, ks_set_gain_ov9281(&ctrl_, 0x120));
    EXPECT_EQ((Bytes{0x20, 0x20}), sensors(0x3509));
    uint16_t a = 0, b = 0;
    ASSERT_EQ(0, ks_get_gain_ov9281(&ctrl_, &a, &b));
    EXPECT_EQ(0x20, a);
    EXPECT_EQ(0x20, b);
    EXPECT_EQ(0, reg(KSSIM_CHIP_ASIC, 0x31));
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 1);
    EXPECT_EQ(-1, ks_set_gain_ov9281(&ctrl_, 1));
    EXPECT_EQ(-1, ks_get_gain_ov9281(&ctrl_, &a, &b));  // the bridge does not open
    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 2);
    EXPECT_EQ(-4, ks_get_gain_ov9281(&ctrl_, &a, &b));
    release_iic_ctrl(&ctrl_);

    // IMX225: capped at one byte.
    open_camera(KSSIM_SENSOR_IMX225);
    ASSERT_EQ(0, ks_set_gain_sony_imx225(&ctrl_, 256));
    EXPECT_EQ((Bytes{255, 255}), sensors(0x3014));
    EXPECT_EQ(0, reg(KSSIM_CHIP_ASIC, 0x31));
    ASSERT_EQ(0, ks_set_gain_sony_imx225(&ctrl_, 40));
    ASSERT_EQ(0, ks_get_gain_sony_imx225(&ctrl_, &a, &b));
    EXPECT_EQ(40, a);
    EXPECT_EQ(40, b);
    fault(KSSIM_FAULT_SENSOR_COUNTER_FROZEN);
    EXPECT_EQ(-4, ks_set_gain_sony_imx225(&ctrl_, 50));
    EXPECT_EQ(0, reg(KSSIM_CHIP_ASIC, 0x31));  // closed all the same
    EXPECT_EQ(40, reg(KSSIM_CHIP_SENSOR_A, 0x3014));
}

TEST_F(CmosControl, ExposuresAreManualCappedAndZeroRestartsAe) {
    // OV9281: sixteenths of a line; IMX225: lines counted from the frame's end.
    const struct {
        kssim_sensor_model sensor;
        int (*set)(_struct_ks_ctrl_device*, uint16_t);
        Bytes capped, at_300;  // registers 0x31 to 0x35; 0x33 and 0x35
    } models[] = {
        {KSSIM_SENSOR_OV9281, ks_set_exposure_ov9281, {0, 0, 0x3E, 0, 0x80}, {0x12, 0xC0}},
        {KSSIM_SENSOR_IMX225, ks_set_exposure_sony_imx225, {0, 0, 0, 0, 100}, {0x03, 0x20}}};
    for (const auto& m : models) {
        SCOPED_TRACE(m.sensor);
        if (ctrl_.fd >= 0) release_iic_ctrl(&ctrl_);
        open_camera(m.sensor);
        if (m.sensor == KSSIM_SENSOR_IMX225) {
            ASSERT_EQ(0, ks_set_sony224_fps(&ctrl_, 30.0f));  // 1100 lines
        }
        ASSERT_EQ(0, ks_AE_open_up(&ctrl_));
        {
            StdoutCapture out;
            ASSERT_EQ(0, m.set(&ctrl_, 1200));
            EXPECT_EQ("Exposure setting exceeding,setting to 1000", out.text());
        }
        EXPECT_EQ(m.capped, regs(KSSIM_CHIP_ASIC, {0x31, 0x32, 0x33, 0x34, 0x35}));
        EXPECT_EQ((Bytes{0x00, 1}), regs(KSSIM_CHIP_FPGA, {0x20, 0x08}));  // manual stays manual
        EXPECT_EQ(1, ae_closed_flag);
        ASSERT_EQ(0, m.set(&ctrl_, 300));
        EXPECT_EQ(m.at_300, regs(KSSIM_CHIP_ASIC, {0x33, 0x35}));
        EXPECT_EQ(0x00, reg(KSSIM_CHIP_FPGA, 0x20));

        clear_traffic();
        ASSERT_EQ(0, m.set(&ctrl_, 0));  // automatic again
        EXPECT_EQ(0x10, reg(KSSIM_CHIP_FPGA, 0x20));
        EXPECT_TRUE(writes_to(kAsic).empty());
    }

    // IMX225, longer than the frame: refused, nothing written, the guard left open.
    ASSERT_EQ(0, ks_set_sony224_fps(&ctrl_, 500.0f));  // fps_y 66
    clear_traffic();
    EXPECT_EQ(-1, ks_set_exposure_sony_imx225(&ctrl_, 100));
    for (const auto& w : writes_to(kAsic)) EXPECT_NE(0x35u, w.first);
    EXPECT_EQ(0, reg(KSSIM_CHIP_FPGA, 0x08));
    EXPECT_EQ(0, ks_set_exposure_sony_imx225(&ctrl_, 66));  // exactly the frame: 0
    EXPECT_EQ(0, reg(KSSIM_CHIP_ASIC, 0x35));
}

TEST_F(CmosControl, WhiteBalance) {
    open_camera(KSSIM_SENSOR_OV9281);
    ASSERT_EQ(0, ks_set_white_balance_param(&ctrl_, 0x40, 0x50, 0x60));
    EXPECT_EQ((Writes{{0x21, 0x40}, {0x22, 0x50}, {0x23, 0x50}, {0x24, 0x60}}), writes_to(kAsic));
    uint8_t f = 0, m = 0, l = 0;
    ASSERT_EQ(0, ks_get_white_balance_param(&ctrl_, &f, &m, &l));
    EXPECT_EQ((Bytes{0x40, 0x50, 0x60}), (Bytes{f, m, l}));
    // Green sites that disagree leave the middle output alone.
    poke(KSSIM_CHIP_ASIC, 0x23, 0x51);
    m = 0x99;
    ASSERT_EQ(0, ks_get_white_balance_param(&ctrl_, &f, &m, &l));
    EXPECT_EQ(0x99, m);

    fault(KSSIM_FAULT_I2C_REFUSE_ASIC, 0, 0);
    EXPECT_EQ(-2, ks_set_white_balance_param(&ctrl_, 1, 2, 3));
    EXPECT_EQ(-2, ks_get_white_balance_param(&ctrl_, &f, &m, &l));
}

TEST_F(CmosControl, ModelNames) {
    const std::pair<kssim_sensor_model, const char*> models[] = {
        {KSSIM_SENSOR_IMX225, "SONY_IMX225"},
        {KSSIM_SENSOR_OV9281, "OV9281"},
        {KSSIM_SENSOR_AR0144, "AR0144"},
        {KSSIM_SENSOR_AR0132, "AR0132"},
        {KSSIM_SENSOR_SC132GS, "SC132GS"}};
    for (const auto& model : models) {
        open_camera(model.first);
        uint8_t code = 0;
        ASSERT_EQ(0, ks_get_cmos_model(&ctrl_, &code));
        EXPECT_EQ(model.first, code);
        EXPECT_STREQ(model.second, ks_get_cmos_model_name(code));
        release_iic_ctrl(&ctrl_);
    }
    EXPECT_STREQ("None", ks_get_cmos_model_name(0));
    EXPECT_STREQ("None", ks_get_cmos_model_name(6));
}
