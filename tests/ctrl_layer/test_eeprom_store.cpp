// The EEPROM parameter store against the virtual camera: the bytes each
// setter leaves in the camera's EEPROM, the getters on what the camera holds
// (including empty and damaged areas), the two tables with their bitmaps,
// enumeration across gaps and the table result codes, erasers and dumps.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>

#include "ctrl_layer_fixture.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"

using namespace ctrltest;
using EepromStore = OpenCamera;

namespace {

_struct_rectify_cam_para_info para(uint8_t index, float cx, float cy, float fx, float fy) {
    return {index, 0x0123, 0x0456, cx, cy, fx, fy};
}

// A record's fields, to compare in one piece.
std::tuple<int, int, int, int, int> fields(const _struct_epr_info& i) {
    return std::make_tuple(i.index, i.height, i.width, i.reserved_a, i.reserved_b);
}
std::tuple<int, int, int, float, float, float, float> fields(
    const _struct_rectify_cam_para_info& p) {
    return std::make_tuple(p.index, p.roi_start_x, p.roi_start_y, p.opt_center_x, p.opt_center_y,
                           p.fov_x, p.fov_y);
}

}  // namespace

TEST_F(EepromStore, DisparityOffsetSearchRangeAndLineOffset) {
    // A fresh camera has none of them: success with 0.
    uint16_t got = 0x7777;
    uint8_t range = 0x55;
    float offset = 7.0f;
    EXPECT_EQ(0, ks_get_eeprom_disparity_offset(&ctrl_, &got));
    EXPECT_EQ(0, ks_get_eeprom_search_range(&ctrl_, &range));
    EXPECT_EQ(0, ks_get_eeprom_line_offset(&ctrl_, &offset));
    EXPECT_EQ(std::make_tuple(0, 0, 0.0f), std::make_tuple(int{got}, int{range}, offset));

    // The disparity offset is sign and magnitude with twelve bits.
    const struct {
        int offset;
        Bytes stored;
        uint16_t got;
    } cases[] = {{-5, {0xC1, 0x01, 0x00, 0x05}, 0xFFFB},
                 {0x2A5, {0xC1, 0x00, 0x02, 0xA5}, 0x2A5},
                 {4100, {0xC1, 0x00, 0x00, 0x04}, 4},         // bits above the twelfth dropped
                 {65531, {0xC1, 0x01, 0x00, 0x05}, 0xFFFB}};  // taken as 16 bits: -5
    for (const auto& c : cases) {
        ASSERT_EQ(0, ks_save_eeprom_disparity_offset(&ctrl_, c.offset));
        EXPECT_EQ(c.stored, eeprom(0x3C00, 4)) << c.offset;
        EXPECT_EQ(0, ks_get_eeprom_disparity_offset(&ctrl_, &got));
        EXPECT_EQ(c.got, got) << c.offset;
    }
    // A sign byte other than 0 or 1 is refused; the output stays 0.
    poke_eeprom(0x3C01, {0x02});
    got = 0x7777;
    EXPECT_EQ(-1, ks_get_eeprom_disparity_offset(&ctrl_, &got));
    EXPECT_EQ(0, got);
    // Any other magic means "nothing saved".
    poke_eeprom(0x3C00, {0xC2});
    EXPECT_EQ(0, ks_get_eeprom_disparity_offset(&ctrl_, &got));
    EXPECT_EQ(0, got);

    ASSERT_EQ(0, ks_save_eeprom_search_range(&ctrl_, 0x1A4));  // the low byte is kept
    EXPECT_EQ((Bytes{0xC2, 0xA4}), eeprom(0x3C08, 2));
    EXPECT_EQ(0, ks_get_eeprom_search_range(&ctrl_, &range));
    EXPECT_EQ(0xA4, range);

    const struct {
        float offset;
        Bytes stored;
        float got;
    } offsets[] = {{-1.5f, {0xC3, 0x01, 0x80, 0x01}, -1.5f},
                   {5.0f, {0xC3, 0x05, 0x00, 0x00}, 5.0f},
                   {0.3f, {0xC3, 0x00, 0x4C, 0x00}, 76.0f / 256.0f}};  // 76.8 / 256 truncated
    for (const auto& c : offsets) {
        ASSERT_EQ(0, ks_save_eeprom_line_offset(&ctrl_, c.offset));
        EXPECT_EQ(c.stored, eeprom(0x3C10, 4)) << c.offset;
        EXPECT_EQ(0, ks_get_eeprom_line_offset(&ctrl_, &offset));
        EXPECT_EQ(c.got, offset);
    }
    // Out of range or not a number: refused without a write.
    clear_traffic();
    for (float bad : {5.01f, -5.5f, std::nanf(""), INFINITY})
        EXPECT_EQ(-1, ks_save_eeprom_line_offset(&ctrl_, bad)) << bad;
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ((Bytes{0xC3, 0x00, 0x4C, 0x00}), eeprom(0x3C10, 4));
    // Whatever the EEPROM holds decodes to a number: a large raw value is
    // taken as a signed 16-bit count of 1/256.
    poke_eeprom(0x3C10, {0xC3, 0xFF, 0x00, 0x01});
    EXPECT_EQ(0, ks_get_eeprom_line_offset(&ctrl_, &offset));
    EXPECT_EQ(1.0f, offset);  // int16(0xFF00) / 256 = -1, sign byte flips it

    // A magic byte that never takes fails the save before anything else.
    fault(KSSIM_FAULT_EEPROM_NO_STICK, 0, KSSIM_EEPROM_ADDRESS(0x3C00));
    EXPECT_EQ(-1, ks_save_eeprom_disparity_offset(&ctrl_, 3));
    EXPECT_EQ(0xC2, eeprom_byte(0x3C00));
    clear(KSSIM_FAULT_EEPROM_NO_STICK);
    fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0, 1);  // writes refused
    EXPECT_EQ(-1, ks_save_eeprom_search_range(&ctrl_, 3));
    EXPECT_EQ(-1, ks_save_eeprom_line_offset(&ctrl_, 1.0f));
    fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0, 2);  // reads refused
    EXPECT_EQ(-1, ks_get_eeprom_disparity_offset(&ctrl_, &got));
}

TEST_F(EepromStore, SerialNumber) {
    // The camera leaves the factory with its serial number stored.
    char sn[17];
    std::memset(sn, 'x', sizeof(sn));
    ASSERT_EQ(0, ks_get_camera_sn(&ctrl_, sn));
    EXPECT_STREQ("KS0000000001", sn);

    const char* sixteen = "ABCDEFGHIJKLMNOP";
    ASSERT_EQ(0, ks_save_camera_sn(&ctrl_, sixteen, 16));
    Bytes expected{0xC4, 16};
    expected.insert(expected.end(), sixteen, sixteen + 16);
    EXPECT_EQ(expected, eeprom(0x3C18, 18));
    ASSERT_EQ(0, ks_get_camera_sn(&ctrl_, sn));
    EXPECT_STREQ(sixteen, sn);

    // 17 characters are refused before any write.
    clear_traffic();
    EXPECT_EQ(-1, ks_save_camera_sn(&ctrl_, "ABCDEFGHIJKLMNOPQ", 17));
    EXPECT_TRUE(requests().empty());
    // A length of 256 arrives as 0: an empty serial number.
    const std::string long_sn(256, 'Z');
    ASSERT_EQ(0, ks_save_camera_sn(&ctrl_, long_sn.c_str(), static_cast<uint8_t>(long_sn.size())));
    EXPECT_EQ((Bytes{0xC4, 0x00, 'A'}), eeprom(0x3C18, 3));
    ASSERT_EQ(0, ks_get_camera_sn(&ctrl_, sn));
    EXPECT_STREQ("", sn);

    // A stored length beyond 16 is refused, nothing is read past the area.
    poke_eeprom(0x3C19, {0xFF});
    EXPECT_EQ(-2, ks_get_camera_sn(&ctrl_, sn));
    EXPECT_STREQ("", sn);

    // Erased: 18 bytes of 0xFF, then no serial number (success, empty text).
    ASSERT_EQ(0, ks_erase_camera_sn(&ctrl_));
    EXPECT_EQ(Bytes(18, 0xFF), eeprom(0x3C18, 18));
    EXPECT_EQ(0xC5, eeprom_byte(0x3C2A));  // the neighbour is untouched
    std::memset(sn, 'x', sizeof(sn));
    EXPECT_EQ(0, ks_get_camera_sn(&ctrl_, sn));
    EXPECT_STREQ("", sn);

    fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0, 1);
    EXPECT_EQ(-1, ks_save_camera_sn(&ctrl_, "KS1", 3));
    // The verified write trusts the read-back: erasing erased bytes succeeds
    // even so, a byte that holds something else does not.
    EXPECT_EQ(0, ks_erase_camera_sn(&ctrl_));
    poke_eeprom(0x3C20, {0x41});
    EXPECT_EQ(-1, ks_erase_camera_sn(&ctrl_));
}

TEST_F(EepromStore, EprInfoTableEnumeratesAcrossGaps) {
    // The camera's own table: slots 0 and 1 for its two sizes, slot 0 current.
    _struct_epr_info info = {};
    ASSERT_EQ(0, ks_enum_epr_info(&ctrl_, &info, 1));
    EXPECT_EQ(std::make_tuple(0, 720, 1280, 20, 25), fields(info));
    info = {};
    ASSERT_EQ(0, ks_get_current_stream_info(&ctrl_, &info));
    EXPECT_EQ(std::make_tuple(0, 720, 1280, 20, 25), fields(info));

    poke_eeprom(0x3C00, Bytes(0xB8, 0xFF));  // the custom area as an erased EEPROM has it
    info = {};
    EXPECT_EQ(-1, ks_enum_epr_info(&ctrl_, &info, 1));  // empty table
    EXPECT_EQ(-1, info.index);

    ASSERT_EQ(0, ks_save_epr_info(&ctrl_, {5, 480, 640, 20, 25}));
    EXPECT_EQ((Bytes{0xC5, 0x20}), eeprom(0x3C2A, 2));
    ASSERT_EQ(0, ks_save_epr_info(&ctrl_, {1, 0x02D0, 0x0500, 0xAB, 0xCD}));
    EXPECT_EQ((Bytes{0xC5, 0x22}), eeprom(0x3C2A, 2));
    EXPECT_EQ((Bytes{0x02, 0xD0, 0x05, 0x00, 0xAB, 0xCD}), eeprom(0x3C2C + 6, 6));
    EXPECT_EQ((Bytes{0x01, 0xE0, 0x02, 0x80, 20, 25}), eeprom(0x3C2C + 30, 6));
    EXPECT_EQ(Bytes(6, 0xFF), eeprom(0x3C2C, 6));  // slot 0 untouched

    info = {};
    ASSERT_EQ(0, ks_enum_epr_info(&ctrl_, &info, 1));
    EXPECT_EQ(std::make_tuple(1, 0x2D0, 0x500, 0xAB, 0xCD), fields(info));
    ASSERT_EQ(0, ks_enum_epr_info(&ctrl_, &info, 0));
    EXPECT_EQ(std::make_tuple(5, 480, 640, 20, 25), fields(info));
    EXPECT_EQ(-1, ks_enum_epr_info(&ctrl_, &info, 0));
    EXPECT_EQ(std::make_tuple(-1, 0, 0, 0xFF, 0xFF), fields(info));
    EXPECT_EQ(-12, ks_enum_epr_info(&ctrl_, &info, 0));  // "next" after the end
    // Fetching one slot: init starts at the index itself.
    info = {5, 0, 0, 0, 0};
    ASSERT_EQ(0, ks_enum_epr_info(&ctrl_, &info, 1));
    EXPECT_EQ(5, info.index);

    // Slot indices beyond 7 are refused before any EEPROM traffic.
    clear_traffic();
    EXPECT_EQ(-12, ks_save_epr_info(&ctrl_, {8, 1, 1, 1, 1}));
    EXPECT_EQ(-12, ks_save_epr_info(&ctrl_, {-1, 1, 1, 1, 1}));
    EXPECT_EQ(-12, ks_save_current_epr_slot_index(&ctrl_, 8));
    EXPECT_TRUE(requests().empty());

    // The current slot: none stored, stored with its record, stored with a
    // record missing but another one above it, stored with none above.
    EXPECT_EQ(-13, ks_get_current_stream_info(&ctrl_, &info));
    ASSERT_EQ(0, ks_save_current_epr_slot_index(&ctrl_, 5));
    EXPECT_EQ(5, eeprom_byte(0x3C5C));
    info = {};
    ASSERT_EQ(0, ks_get_current_stream_info(&ctrl_, &info));
    EXPECT_EQ(std::make_tuple(5, 480, 640, 20, 25), fields(info));
    ASSERT_EQ(0, ks_save_current_epr_slot_index(&ctrl_, 2));
    EXPECT_EQ(-12, ks_get_current_stream_info(&ctrl_, &info));  // finds 5, not 2
    ASSERT_EQ(0, ks_save_current_epr_slot_index(&ctrl_, 6));
    EXPECT_EQ(-11, ks_get_current_stream_info(&ctrl_, &info));  // nothing from 6 on

    // A save over an area whose magic is gone starts a fresh bitmap.
    poke_eeprom(0x3C2A, {0x00, 0xFF});
    ASSERT_EQ(0, ks_save_epr_info(&ctrl_, {3, 8, 16, 0, 0}));
    EXPECT_EQ((Bytes{0xC5, 0x08}), eeprom(0x3C2A, 2));

    // EEPROM failures give -10.
    fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0, 0);
    EXPECT_EQ(-10, ks_save_epr_info(&ctrl_, {3, 8, 16, 0, 0}));
    info = {};
    EXPECT_EQ(-10, ks_enum_epr_info(&ctrl_, &info, 1));
    EXPECT_EQ(-10, ks_get_current_stream_info(&ctrl_, &info));
    EXPECT_EQ(-10, ks_save_current_epr_slot_index(&ctrl_, 1));
}

TEST_F(EepromStore, FrameRate) {
    float fps = 1.0f;
    EXPECT_EQ(-3, ks_load_current_camera_fps_from_eeprom(&ctrl_, &fps));  // none saved

    ASSERT_EQ(0, ks_save_current_camera_fps_to_eeprom(&ctrl_, 29.97f));
    EXPECT_EQ((Bytes{0xC6, 0x00, 0x1D, 0xF8, 0x51}), eeprom(0x3C5E, 5));
    ASSERT_EQ(0, ks_load_current_camera_fps_from_eeprom(&ctrl_, &fps));
    EXPECT_FLOAT_EQ(29.969986f, fps);

    ASSERT_EQ(0, ks_save_current_camera_fps_to_eeprom(&ctrl_, 15.0f));
    EXPECT_EQ((Bytes{0xC6, 0x00, 0x0F, 0x00, 0x00}), eeprom(0x3C5E, 5));

    clear_traffic();
    EXPECT_EQ(-2, ks_save_current_camera_fps_to_eeprom(&ctrl_, -1.0f));
    EXPECT_EQ(-3, ks_save_current_camera_fps_to_eeprom(&ctrl_, 65535.5f));
    EXPECT_TRUE(requests().empty());

    // A byte that does not take is logged, the save still succeeds.
    fault(KSSIM_FAULT_EEPROM_NO_STICK, 0, KSSIM_EEPROM_ADDRESS(0x3C60));
    EXPECT_EQ(0, ks_save_current_camera_fps_to_eeprom(&ctrl_, 60.5f));
    EXPECT_EQ((Bytes{0xC6, 0x00, 0x0F, 0x80, 0x00}), eeprom(0x3C5E, 5));  // 0x3C kept out
    clear(KSSIM_FAULT_EEPROM_NO_STICK);
    ASSERT_EQ(0, ks_save_current_camera_fps_to_eeprom(&ctrl_, 65535.0f));  // the largest
    EXPECT_EQ((Bytes{0xC6, 0xFF, 0xFF, 0x00, 0x00}), eeprom(0x3C5E, 5));

    poke_eeprom(0x3C5E, Bytes(8, 0x5A));  // every byte the erase owns holds something
    ASSERT_EQ(0, ks_erase_camera_fps_config(&ctrl_));
    EXPECT_EQ(Bytes(8, 0xFF), eeprom(0x3C5E, 8));
    EXPECT_EQ(-3, ks_load_current_camera_fps_from_eeprom(&ctrl_, &fps));

    fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0, 0);
    EXPECT_EQ(-1, ks_load_current_camera_fps_from_eeprom(&ctrl_, &fps));
    EXPECT_EQ(-1, ks_save_current_camera_fps_to_eeprom(&ctrl_, 1.0f));
    EXPECT_EQ(0, ks_erase_camera_fps_config(&ctrl_));  // failures ignored
}

TEST_F(EepromStore, RectifiedParameterTable) {
    // No table yet: -1 and the record untouched.
    _struct_rectify_cam_para_info p = para(0, 1, 2, 3, 4);
    EXPECT_EQ(-1, ks_enum_rectify_camera_para(&ctrl_, &p, 1));
    EXPECT_EQ(fields(para(0, 1, 2, 3, 4)), fields(p));

    // Four-byte fixed point in [0, 65535]: a value outside (or not a number)
    // is not encoded, its field carries the bytes of the value before it
    // (zeros for the first).
    ASSERT_EQ(0, ks_save_rectify_camera_para(&ctrl_, para(2, 640.5f, 360.25f, 90.0f, 65535.5f)));
    EXPECT_EQ((Bytes{0xC7, 0x04}), eeprom(0x3C66, 2));
    EXPECT_EQ((Bytes{0x01, 0x23, 0x04, 0x56, 0x02, 0x80, 0x80, 0x00, 0x01, 0x68,
                     0x40, 0x00, 0x00, 0x5A, 0x00, 0x00, 0x00, 0x5A, 0x00, 0x00}),
              eeprom(0x3C68 + 40, 20));
    ASSERT_EQ(0,
              ks_save_rectify_camera_para(&ctrl_, para(0, -3.0f, 65535.0f, std::nanf(""), 0.5f)));
    EXPECT_EQ((Bytes{0xC7, 0x05}), eeprom(0x3C66, 2));
    EXPECT_EQ((Bytes{0x01, 0x23, 0x04, 0x56, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF,
                     0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00}),
              eeprom(0x3C68, 20));
    EXPECT_EQ(Bytes(20, 0xFF), eeprom(0x3C68 + 20, 20));  // slot 1 untouched

    // Enumeration from 0: slot 0, then 2 across the gap, then the end with
    // index 4 and zeroed values.
    p = para(0, 0, 0, 0, 0);
    ASSERT_EQ(0, ks_enum_rectify_camera_para(&ctrl_, &p, 1));
    EXPECT_EQ(fields(para(0, 0.0f, 65535.0f, 65535.0f, 0.5f)), fields(p));
    ASSERT_EQ(0, ks_enum_rectify_camera_para(&ctrl_, &p, 0));
    EXPECT_EQ(fields(para(2, 640.5f, 360.25f, 90.0f, 90.0f)), fields(p));
    EXPECT_EQ(-1, ks_enum_rectify_camera_para(&ctrl_, &p, 0));
    EXPECT_EQ(std::make_tuple(4, 0, 0, 0.0f, 0.0f, 0.0f, 0.0f), fields(p));
    EXPECT_EQ(-1, ks_enum_rectify_camera_para(&ctrl_, &p, 0));  // 5: past the table
    p.index = 255;
    EXPECT_EQ(-1, ks_enum_rectify_camera_para(&ctrl_, &p, 0));
    EXPECT_EQ(4, p.index);

    clear_traffic();
    EXPECT_EQ(-12, ks_save_rectify_camera_para(&ctrl_, para(4, 1, 1, 1, 1)));
    EXPECT_TRUE(requests().empty());

    // The current EPR slot selects the parameter slot.
    ASSERT_EQ(0, ks_save_current_epr_slot_index(&ctrl_, 2));
    p = para(0, 0, 0, 0, 0);
    ASSERT_EQ(0, ks_get_current_rectify_camera_para(&ctrl_, &p));
    EXPECT_EQ(fields(para(2, 640.5f, 360.25f, 90.0f, 90.0f)), fields(p));
    ASSERT_EQ(0, ks_save_current_epr_slot_index(&ctrl_, 1));
    EXPECT_EQ(-12, ks_get_current_rectify_camera_para(&ctrl_, &p));  // finds 2
    ASSERT_EQ(0, ks_save_current_epr_slot_index(&ctrl_, 5));
    EXPECT_EQ(-11, ks_get_current_rectify_camera_para(&ctrl_, &p));
    poke_eeprom(0x3C5C, {8});  // one past the last slot
    EXPECT_EQ(-13, ks_get_current_rectify_camera_para(&ctrl_, &p));

    fault(KSSIM_FAULT_I2C_REFUSE_EEPROM, 0, 2);  // reads refused
    EXPECT_EQ(-10, ks_save_rectify_camera_para(&ctrl_, para(1, 1, 1, 1, 1)));
    EXPECT_EQ(-10, ks_enum_rectify_camera_para(&ctrl_, &p, 1));
    EXPECT_EQ(-10, ks_get_current_rectify_camera_para(&ctrl_, &p));
}

TEST_F(EepromStore, ErasersAndDumps) {
    ASSERT_EQ(0, ks_save_eeprom_disparity_offset(&ctrl_, -5));
    ASSERT_EQ(0, ks_save_eeprom_search_range(&ctrl_, 64));
    ASSERT_EQ(0, ks_save_eeprom_line_offset(&ctrl_, -1.5f));
    ASSERT_EQ(0, ks_save_current_camera_fps_to_eeprom(&ctrl_, 29.97f));
    ASSERT_EQ(0, ks_save_camera_sn(&ctrl_, "KS42", 4));

    {
        StdoutCapture out;
        ks_show_disp_offset_eeprom_data(&ctrl_);
        ks_show_search_range_eeprom_data(&ctrl_);
        ks_show_line_offset_eeprom_data(&ctrl_);
        ks_show_camera_sn_eeprom_data(&ctrl_);
        ks_show_fps_stat_eeprom_data(&ctrl_);
        EXPECT_EQ(
            "DISP OFFSET AREA: Start Add 15360. Offset 0\nc1 01 00 05 ff ff ff ff \n"
            "\n\nSEARCH RANGE AREA: Start Add 15368. Offset 8\nc2 40 ff ff ff ff ff ff "
            "\n\nLINE OFFSET AREA: Start Add 15376. Offset 16\nc3 01 80 01 ff ff ff ff "
            "\n\nSN AREA: Start Add 15384. Offset 24\nc4: 04\n"
            "75 83 52 50 48 48 48 48 48 48 48 49 255 255 255 255 SN val KS42\n"
            "\n\nCurrent FPS Saving Area: Start Add 15454. Offset 94\n"
            "c6 00 1d f8 51 ff ff ff ",
            out.text());
    }
    {
        StdoutCapture out;
        ks_show_epr_stat_eeprom_data(&ctrl_);
        const std::string text = out.text();
        EXPECT_EQ(0u, text.find("\n\nEPR Status SAVING Area: Start Add 15402. Offset 42\n"
                                "c5 03\nindex 0: 02 d0 05 00 14 19 \n"))
            << text;
        EXPECT_NE(std::string::npos,
                  text.find("index 7: ff ff ff ff ff ff \nCurrent Slot 0 [00]\n"))
            << text;
    }

    // The light calibration data: the first three areas only.
    ASSERT_EQ(0, ks_erase_light_calibdata_eeprom_saving(&ctrl_));
    EXPECT_EQ(Bytes(24, 0xFF), eeprom(0x3C00, 24));
    EXPECT_EQ(0xC4, eeprom_byte(0x3C18));
    EXPECT_EQ(0xC6, eeprom_byte(0x3C5E));

    // The whole custom area, and nothing around it.
    poke_eeprom(0x3BFF, {0x12});
    poke_eeprom(0x3CB8, {0x34});
    {
        StdoutCapture out;
        ASSERT_EQ(0, ks_erase_all_custom_eeprom_data(&ctrl_));
        EXPECT_EQ("Start add 15360\n", out.text());
    }
    EXPECT_EQ(Bytes(0xB8, 0xFF), eeprom(0x3C00, 0xB8));
    EXPECT_EQ(0x12, eeprom_byte(0x3BFF));
    EXPECT_EQ(0x34, eeprom_byte(0x3CB8));

    // A byte that never takes stops the erasers with their errors.
    fault(KSSIM_FAULT_EEPROM_NO_STICK, 0, KSSIM_EEPROM_ADDRESS(0x3C05));
    poke_eeprom(0x3C05, {0x00});
    EXPECT_EQ(-1, ks_erase_light_calibdata_eeprom_saving(&ctrl_));
    EXPECT_EQ(-1, quietly([&] { return ks_erase_all_custom_eeprom_data(&ctrl_); }));
    EXPECT_EQ(0x00, eeprom_byte(0x3C05));
    EXPECT_EQ(0xFF, eeprom_byte(0x3C06));  // the erase stopped at 0x3C05 ...
    poke_eeprom(0x3C06, {0x00});
    EXPECT_EQ(-1, quietly([&] { return ks_erase_all_custom_eeprom_data(&ctrl_); }));
    EXPECT_EQ(0x00, eeprom_byte(0x3C06));  // ... and never went past it
}
