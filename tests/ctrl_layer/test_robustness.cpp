// The control layer on untrusted data: an EEPROM full of arbitrary bytes, a
// controller that answers every request with random (well-framed) data, and
// registers holding any value. Every call must come back with one of its
// documented results, never read or write out of bounds, never hang.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>

#include "ctrl_layer_fixture.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"

using namespace ctrltest;

namespace {

using testing::AnyOf;

class Robustness : public OpenCamera {
  protected:
    // Every getter, enumeration and dump of the EEPROM store once; results
    // checked against the codes each may give.
    void read_whole_store() {
        uint16_t disp = 0;
        EXPECT_THAT(ks_get_eeprom_disparity_offset(&ctrl_, &disp), AnyOf(0, -1));
        uint8_t range = 0;
        EXPECT_THAT(ks_get_eeprom_search_range(&ctrl_, &range), AnyOf(0, -1));
        float offset = 0;
        const int lo = ks_get_eeprom_line_offset(&ctrl_, &offset);
        EXPECT_THAT(lo, AnyOf(0, -1));
        if (lo == 0) {
            EXPECT_TRUE(std::isfinite(offset) && std::fabs(offset) <= 128.0f);
        }
        char sn[17];
        std::memset(sn, 'x', sizeof(sn));
        EXPECT_THAT(ks_get_camera_sn(&ctrl_, sn), AnyOf(0, -1, -2));
        EXPECT_LE(std::strlen(sn), 16u);  // always terminated within 17 bytes
        float fps = 0;
        EXPECT_THAT(ks_load_current_camera_fps_from_eeprom(&ctrl_, &fps), AnyOf(0, -1, -2, -3));

        _struct_epr_info info = {0, 0, 0, 0, 0};
        int n = 0, er = ks_enum_epr_info(&ctrl_, &info, 1);
        for (; er == 0 && n < 20; ++n, er = ks_enum_epr_info(&ctrl_, &info, 0)) {
            EXPECT_GE(info.index, 0);
            EXPECT_LE(info.index, 7);
        }
        EXPECT_LE(n, 8);
        EXPECT_THAT(er, AnyOf(-1, -10));
        EXPECT_THAT(ks_get_current_stream_info(&ctrl_, &info), AnyOf(0, -10, -11, -12, -13));

        _struct_rectify_cam_para_info para = {0, 0, 0, 0, 0, 0, 0};
        int m = 0, pr = ks_enum_rectify_camera_para(&ctrl_, &para, 1);
        for (; pr == 0 && m < 20; ++m, pr = ks_enum_rectify_camera_para(&ctrl_, &para, 0)) {
            EXPECT_LE(para.index, 3);
            EXPECT_TRUE(std::isfinite(para.fov_x) && para.fov_x >= 0.0f);
        }
        EXPECT_LE(m, 4);
        EXPECT_THAT(pr, AnyOf(-1, -10));
        EXPECT_THAT(ks_get_current_rectify_camera_para(&ctrl_, &para),
                    AnyOf(0, -10, -11, -12, -13));

        StdoutCapture out;
        ks_show_disp_offset_eeprom_data(&ctrl_);
        ks_show_search_range_eeprom_data(&ctrl_);
        ks_show_line_offset_eeprom_data(&ctrl_);
        ks_show_camera_sn_eeprom_data(&ctrl_);
        ks_show_epr_stat_eeprom_data(&ctrl_);
        ks_show_fps_stat_eeprom_data(&ctrl_);
        ks_show_rectify_cam_para_eeprom_data(&ctrl_);
    }
};

}  // namespace

TEST_F(Robustness, ArbitraryEepromBytesDecodeWithinBounds) {
    std::mt19937 rng(12345);
    for (int round = 0; round < 12; ++round) {
        Bytes area(0xB8);
        for (auto& b : area) b = static_cast<uint8_t>(rng());
        // Magic codes set half of the time, so the decoders run on garbage.
        const uint8_t magics[][2] = {{0x00, 0xC1}, {0x08, 0xC2}, {0x10, 0xC3}, {0x18, 0xC4},
                                     {0x2A, 0xC5}, {0x5E, 0xC6}, {0x66, 0xC7}};
        for (const auto& m : magics)
            if (rng() & 1) area[m[0]] = m[1];
        if (round == 0) area.assign(0xB8, 0xFF);
        if (round == 1) {
            area.assign(0xB8, 0x00);
            for (const auto& m : magics) area[m[0]] = m[1];
            area[0x19] = 0xFF;  // serial number length
            area[0x5C] = 0x07;  // current slot without a record
        }
        poke_eeprom(0x3C00, area);
        SCOPED_TRACE(round);
        read_whole_store();
    }
}

TEST_F(Robustness, AHostileControllerNeverHangsOrCorruptsTheHost) {
    // Exchanges that do not work at all would each wait out their time-out.
    uint16_t idle = 0;
    ASSERT_EQ(0u, ks_fpga_read(&ctrl_, 0x1F, &idle));
    ASSERT_EQ(0x56, idle);
    ASSERT_EQ(0, kssim_camera_set_hostile(camera_, 1, 77));
    testing::internal::CaptureStderr();
    read_whole_store();
    StdoutCapture out;

    ks_save_eeprom_disparity_offset(&ctrl_, -5);
    ks_save_eeprom_line_offset(&ctrl_, 1.25f);
    ks_save_camera_sn(&ctrl_, "KS1234", 6);
    ks_save_epr_info(&ctrl_, {2, 480, 640, 20, 25});
    ks_save_rectify_camera_para(&ctrl_, {1, 1, 2, 3.0f, 4.0f, 5.0f, 6.0f});
    ks_save_current_camera_fps_to_eeprom(&ctrl_, 30.0f);

    uint16_t l16 = 0, r16 = 0;
    ks_set_camera_trim(&ctrl_, &l16, &r16);
    ks_get_camera_trim(&ctrl_, &l16, &r16);
    float lf = 0, rf = 0;
    ks_set_line_offset(&ctrl_, 1.0f, 2.0f);
    ks_get_line_offset(&ctrl_, &lf, &rf);
    EXPECT_TRUE(lf >= 0.0f && lf < 256.0f);
    ks_asic_control_prep(&ctrl_);
    ks_asic_control_post(&ctrl_);
    uint8_t a = 0, b = 0, c = 0;
    ks_get_HW_info(&ctrl_, &a, &b);
    EXPECT_LT(a, 16);
    EXPECT_LT(b, 16);
    ks_get_cmos_swap_mode(&ctrl_, &a);
    float bxf = 0, base = 0;
    ks_get_bxf_from_nuvex(&ctrl_, &bxf, &base);
    EXPECT_TRUE(std::isfinite(bxf) && bxf >= 0.0f);
    EXPECT_THAT(ks_device_init_status_check(&ctrl_), AnyOf(0, -1, -2, -3));
    ks_get_FPGA_release_date(&ctrl_, &a, &b, &c);

    _ks_cmos_ctrl_prep(&ctrl_);
    ks_write_cmos_register_through_nuvex(&ctrl_, 0x3509, 0x10);
    uint16_t ga = 0, gb = 0;
    ks_read_cmos_register(&ctrl_, 0x3509, &ga, &gb);
    EXPECT_LT(ga, 256);
    ks_set_ov9281_fps(&ctrl_, 15.0f);
    ks_set_sc132gs_fps(&ctrl_, 15.0f);
    ks_set_sony224_fps(&ctrl_, 15.0f);
    ks_get_gain_ov9281(&ctrl_, &ga, &gb);
    ks_set_exposure_sony_imx225(&ctrl_, 300);
    ks_get_white_balance_param(&ctrl_, &a, &b, &c);

    unsigned char* data = nullptr;
    if (ks_download_effective_epr_data_from_eeprom(&ctrl_, &data) == 0) release_binary_data(&data);
    const Bytes image(100, 0x5A);
    ks_upload_asic_epr_to_eeprom(&ctrl_, 1, image.data(), 100);
    EXPECT_EQ(0, ks_select_asic_epr_from_usb_flash(&ctrl_, 1));
    ks_camera_hardware_shutdown(&ctrl_);
    ks_camera_hardware_bringup(&ctrl_);
    testing::internal::GetCapturedStderr();
    ASSERT_EQ(0, kssim_camera_set_hostile(camera_, 0, 0));

    // The camera answers normally again afterwards.
    uint8_t pcb = 0, cmos = 0;
    EXPECT_EQ(0, ks_get_HW_info(&ctrl_, &pcb, &cmos));
    EXPECT_EQ(KSSIM_SENSOR_OV9281, cmos);
}

TEST_F(Robustness, NullArgumentsAreRefused) {
    EXPECT_EQ(-1, ks_get_eeprom_disparity_offset(&ctrl_, nullptr));
    EXPECT_EQ(-1, ks_get_camera_sn(&ctrl_, nullptr));
    EXPECT_EQ(-1, ks_save_camera_sn(&ctrl_, nullptr, 3));
    EXPECT_EQ(-1, ks_enum_epr_info(&ctrl_, nullptr, 1));
    EXPECT_EQ(-1, ks_enum_rectify_camera_para(nullptr, nullptr, 1));
    EXPECT_EQ(-1, ks_set_camera_trim(&ctrl_, nullptr, nullptr));
    EXPECT_EQ(-1, ks_get_line_offset(&ctrl_, nullptr, nullptr));
    EXPECT_EQ(-1, ks_get_bxf_from_nuvex(nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, ks_asic_control_prep(nullptr));
    EXPECT_EQ(-1, ks_read_cmos_register(&ctrl_, 0, nullptr, nullptr));
    EXPECT_EQ(-1, ks_get_white_balance_param(&ctrl_, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, ks_upload_asic_epr_to_eeprom(&ctrl_, 0, nullptr, 10));
    EXPECT_EQ(-1, ks_download_asic_epr_from_eeprom(&ctrl_, 0, nullptr));
    EXPECT_EQ(0, release_binary_data(nullptr));
    testing::internal::CaptureStderr();
    unsigned char* data = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(-3, read_binary_file(nullptr, &data, &length));
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(requests().empty());
}
