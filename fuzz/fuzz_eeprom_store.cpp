// The settings kept in the EEPROM's custom area, read back from any content
// of that area: every getter, both table enumerations, the current slot's
// records and every dump. Texts come back terminated, enumerations end
// within their tables, and a serial number written is the one read.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "fake_camera.h"
#include "fuzz_check.h"
#include "fuzz_input.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::Input in(data, size);
    fuzzing::FakeCamera camera;
    const uint8_t writes = in.u8();
    in.bytes(camera.eeprom.data() + KS_EEPROM_CUSTOM_BASE,
             KS_EEPROM_CUSTOM_END - KS_EEPROM_CUSTOM_BASE + 1);
    _struct_ks_ctrl_device handle{};
    if (ks_iic_init_dev(&handle, fuzzing::FakeCamera::kNode) != 0) return 0;

    uint16_t disp = 0;
    uint8_t range = 0;
    float line = 0.0f, fps = 0.0f;
    ks_get_eeprom_disparity_offset(&handle, &disp);
    ks_get_eeprom_search_range(&handle, &range);
    if (ks_get_eeprom_line_offset(&handle, &line) == 0) FUZZ_CHECK(!std::isnan(line));
    ks_load_current_camera_fps_from_eeprom(&handle, &fps);

    char sn[KS_SN_MAX_LENGTH + 1];
    std::memset(sn, 'x', sizeof sn);
    if (ks_get_camera_sn(&handle, sn) == 0) FUZZ_CHECK(std::memchr(sn, '\0', sizeof sn) != nullptr);

    _struct_epr_info info{};
    int steps = 0;
    for (int r = ks_enum_epr_info(&handle, &info, 1); r == 0 && steps < 20;
         r = ks_enum_epr_info(&handle, &info, 0))
        ++steps;
    FUZZ_CHECK(steps <= KS_EPR_INFO_SLOTS);
    ks_get_current_stream_info(&handle, &info);

    _struct_rectify_cam_para_info para{};
    steps = 0;
    for (int r = ks_enum_rectify_camera_para(&handle, &para, 1); r == 0 && steps < 20;
         r = ks_enum_rectify_camera_para(&handle, &para, 0))
        ++steps;
    FUZZ_CHECK(steps <= KS_RECTIFY_PARA_SLOTS);
    ks_get_current_rectify_camera_para(&handle, &para);

    ks_show_disp_offset_eeprom_data(&handle);
    ks_show_search_range_eeprom_data(&handle);
    ks_show_line_offset_eeprom_data(&handle);
    ks_show_camera_sn_eeprom_data(&handle);
    ks_show_epr_stat_eeprom_data(&handle);
    ks_show_fps_stat_eeprom_data(&handle);
    ks_show_rectify_cam_para_eeprom_data(&handle);

    // Some inputs go on to write over whatever was there.
    if (writes & 1) {
        const std::string text = in.text(KS_SN_MAX_LENGTH);
        if (ks_save_camera_sn(&handle, text.c_str(), static_cast<uint8_t>(text.size())) == 0) {
            char back[KS_SN_MAX_LENGTH + 1] = {};
            FUZZ_CHECK(ks_get_camera_sn(&handle, back) == 0);
            FUZZ_CHECK(text == back);
        }
    }
    if (writes & 2) {
        _struct_epr_info saved{};
        saved.index = static_cast<int8_t>(in.u8());
        saved.width = in.u16();
        saved.height = in.u16();
        ks_save_epr_info(&handle, saved);
        ks_save_current_epr_slot_index(&handle, static_cast<int8_t>(in.u8()));
        ks_get_current_stream_info(&handle, &info);
    }
    if (writes & 4) {
        _struct_rectify_cam_para_info saved{};
        saved.index = in.u8();
        saved.fov_x = static_cast<float>(in.u16()) / 7.0f;
        ks_save_rectify_camera_para(&handle, saved);
        ks_get_current_rectify_camera_para(&handle, &para);
    }
    if (writes & 8) {
        ks_save_eeprom_line_offset(&handle,
                                   static_cast<float>(static_cast<int8_t>(in.u8())) / 20.0f);
        ks_save_current_camera_fps_to_eeprom(&handle, static_cast<float>(in.u16()) / 3.0f);
        ks_get_eeprom_line_offset(&handle, &line);
        ks_load_current_camera_fps_from_eeprom(&handle, &fps);
    }
    release_iic_ctrl(&handle);
    return 0;
}
