// The host's settings in the custom area of the camera's EEPROM.
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ks_asic_iic_ctrl/source/ks_iic_app_private.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"

using ks_app::eeprom_get;
using ks_app::eeprom_put;

namespace {

constexpr unsigned int kEprInfoBitmap = KS_EEPROM_EPR_INFO_ADDR + 1;
constexpr unsigned int kEprInfoRecords = KS_EEPROM_EPR_INFO_ADDR + 2;
constexpr unsigned int kRectifyBitmap = KS_EEPROM_RECTIFY_PARA_ADDR + 1;
constexpr unsigned int kRectifyRecords = KS_EEPROM_RECTIFY_PARA_ADDR + 2;
constexpr unsigned int kSnLength = KS_EEPROM_SN_ADDR + 1;
constexpr unsigned int kSnText = KS_EEPROM_SN_ADDR + 2;

unsigned int epr_info_record(unsigned int slot) {
    return kEprInfoRecords + KS_EPR_INFO_RECORD_SIZE * slot;
}
unsigned int rectify_record(unsigned int slot) {
    return kRectifyRecords + KS_RECTIFY_PARA_RECORD_SIZE * slot;
}

// Fills a range of the EEPROM with the erased value; the first failing
// address (or -1 when all went well).
long erase_range(_struct_ks_ctrl_device* handle, unsigned int first, unsigned int last) {
    for (unsigned int a = first; a <= last; ++a)
        if (!eeprom_put(handle, a, 0xFF)) return static_cast<long>(a);
    return -1;
}

// The current EPR slot byte: 0, -10 (read failed) or -13 (none stored).
int read_current_slot(_struct_ks_ctrl_device* handle, uint8_t* slot) {
    if (!eeprom_get(handle, KS_EEPROM_CURRENT_SLOT_ADDR, slot)) return KS_EEPROM_TABLE_IO_ERROR;
    if (*slot >= KS_EPR_INFO_SLOTS) {
        KS_APP_WARN("No current stream info saved\n");
        return KS_EEPROM_TABLE_NO_CURRENT_SLOT;
    }
    KS_APP_DEBUG("Readed SLOT %d", *slot);
    return 0;
}

void show_bytes(_struct_ks_ctrl_device* handle, unsigned int first, unsigned int count) {
    for (unsigned int i = 0; i < count; ++i) {
        uint8_t b = 0;
        eeprom_get(handle, first + i, &b);
        printf("%02x ", b);
    }
}

void show_header(const char* format, unsigned int address) {
    printf(format, static_cast<int>(address), static_cast<int>(address - KS_EEPROM_CUSTOM_BASE));
}

}  // namespace

extern "C" {

// ---- 4-byte fixed point ----

int ks_positive_float_to_four_byte_storage(float value, uint8_t bytes[4]) {
    if (bytes == nullptr || !(value >= 0.0f && value <= 65535.0f)) return -1;
    const unsigned int integer = static_cast<unsigned int>(value);
    const unsigned int fraction =
        static_cast<unsigned int>((value - static_cast<float>(integer)) * 65536.0f) & 0xFFFF;
    bytes[0] = static_cast<uint8_t>(integer >> 8);
    bytes[1] = static_cast<uint8_t>(integer);
    bytes[2] = static_cast<uint8_t>(fraction >> 8);
    bytes[3] = static_cast<uint8_t>(fraction);
    return 0;
}

int ks_four_byte_storage_to_positive_float(const uint8_t bytes[4], float* value) {
    if (bytes == nullptr || value == nullptr) return 0;
    KS_APP_DEBUG("%02x,%02x,%02x,%02x\n", bytes[0], bytes[1], bytes[2], bytes[3]);
    const float integer = static_cast<float>((bytes[0] << 8) + bytes[1]);
    const float fraction = static_cast<float>((bytes[2] << 8) + bytes[3]);
    *value = integer + fraction * 1.5258789e-5f;
    KS_APP_DEBUG("Restored float%f\n", static_cast<double>(*value));
    return 0;
}

// ---- disparity offset ----

int ks_save_eeprom_disparity_offset(_struct_ks_ctrl_device* handle, int offset) {
    if (handle == nullptr) return -1;
    const int16_t value = static_cast<int16_t>(offset);
    const unsigned int magnitude = static_cast<unsigned int>(std::abs(static_cast<int>(value)));
    KS_APP_DEBUG("disp:%d[%02x]--->tmp %d[%02x]", value, static_cast<uint16_t>(value), magnitude,
                 magnitude);
    const unsigned int a = KS_EEPROM_DISP_OFFSET_ADDR;
    if (!eeprom_put(handle, a, KS_MAGIC_DISP_OFFSET)) {
        KS_APP_ERROR("Save disp magic code failed\n");
        return -1;
    }
    if (!eeprom_put(handle, a + 1, value < 0 ? 1 : 0)) {
        KS_APP_ERROR("Save disp sign failed\n");
        return -1;
    }
    if (!eeprom_put(handle, a + 2, (magnitude & 0xF00) >> 8)) {
        KS_APP_ERROR("Save disp h failed\n");
        return -1;
    }
    if (!eeprom_put(handle, a + 3, magnitude & 0xFF)) {
        KS_APP_ERROR("Save disp l failed\n");
        return -1;
    }
    return 0;
}

int ks_get_eeprom_disparity_offset(_struct_ks_ctrl_device* handle, uint16_t* offset) {
    if (handle == nullptr || offset == nullptr) return -1;
    *offset = 0;
    const unsigned int a = KS_EEPROM_DISP_OFFSET_ADDR;
    uint8_t magic = 0, sign = 0, high = 0, low = 0;
    if (!eeprom_get(handle, a, &magic)) {
        KS_APP_ERROR("Get disp magic code failed\n");
        return -1;
    }
    if (magic != KS_MAGIC_DISP_OFFSET) {
        KS_APP_INFO("No Disparity Have Been Saved\n");
        return 0;
    }
    if (!eeprom_get(handle, a + 1, &sign)) {
        KS_APP_ERROR("Save disp sign failed\n");
        return -1;
    }
    if (!eeprom_get(handle, a + 2, &high)) {
        KS_APP_ERROR("Save disp h failed\n");
        return -1;
    }
    if (!eeprom_get(handle, a + 3, &low)) {
        KS_APP_ERROR("Save disp l failed\n");
        return -1;
    }
    KS_APP_DEBUG("%02x [%02x %02x]", sign, high, low);
    if (sign > 1) {
        KS_APP_ERROR("Unexpect Value %d [%x]", sign, sign);
        return -1;
    }
    uint16_t value = static_cast<uint16_t>((high << 8) + low);
    if (sign == 1) value = static_cast<uint16_t>(0u - value);
    *offset = value;
    KS_APP_DEBUG("Get Disparity from EEPROM 0x%04x", value);
    return 0;
}

// ---- search range ----

int ks_save_eeprom_search_range(_struct_ks_ctrl_device* handle, int range) {
    if (handle == nullptr) return -1;
    if (!eeprom_put(handle, KS_EEPROM_SEARCH_RANGE_ADDR, KS_MAGIC_SEARCH_RANGE)) {
        KS_APP_ERROR("Save eeprom range offset magic code failed\n");
        return -1;
    }
    if (!eeprom_put(handle, KS_EEPROM_SEARCH_RANGE_ADDR + 1,
                    static_cast<unsigned int>(range) & 0xFF)) {
        KS_APP_ERROR("Save eeprom range offset failed\n");
        return -1;
    }
    return 0;
}

int ks_get_eeprom_search_range(_struct_ks_ctrl_device* handle, uint8_t* range) {
    if (handle == nullptr || range == nullptr) return -1;
    uint8_t magic = 0;
    if (!eeprom_get(handle, KS_EEPROM_SEARCH_RANGE_ADDR, &magic)) {
        KS_APP_ERROR("Get search range magic code failed\n");
        return -1;
    }
    if (magic != KS_MAGIC_SEARCH_RANGE) {
        KS_APP_INFO("No Search Range Has Been Saved\n");
        *range = 0;
        return 0;
    }
    if (!eeprom_get(handle, KS_EEPROM_SEARCH_RANGE_ADDR + 1, range)) {
        KS_APP_ERROR("Get search range val failed\n");
        return -1;
    }
    return 0;
}

// ---- line offset ----

int ks_save_eeprom_line_offset(_struct_ks_ctrl_device* handle, float offset) {
    if (handle == nullptr) return -1;
    if (!(offset >= -5.0f && offset <= 5.0f)) {
        KS_APP_ERROR("Line offset overflow %f\n", static_cast<double>(offset));
        return -1;
    }
    const unsigned int m = static_cast<unsigned int>(256.0f * std::fabs(offset));
    const unsigned int sign = offset < 0.0f ? 1 : 0;
    KS_APP_DEBUG("%x,%f", m, static_cast<double>(offset));
    const unsigned int a = KS_EEPROM_LINE_OFFSET_ADDR;
    if (!eeprom_put(handle, a, KS_MAGIC_LINE_OFFSET)) {
        KS_APP_ERROR("Save line offset magic code error\n");
        return -1;
    }
    if (!eeprom_put(handle, a + 1, m >> 8)) {
        KS_APP_ERROR("Save line offset H error\n");
        return -1;
    }
    if (!eeprom_put(handle, a + 2, m & 0xFF)) {
        KS_APP_ERROR("Save line offset L error\n");
        return -1;
    }
    if (!eeprom_put(handle, a + 3, sign)) {
        KS_APP_ERROR("Save line offset sign error\n");
        return -1;
    }
    KS_APP_DEBUG("Save line offset [%02x %02x %02x]\n", m >> 8, m & 0xFF, sign);
    return 0;
}

int ks_get_eeprom_line_offset(_struct_ks_ctrl_device* handle, float* offset) {
    if (handle == nullptr || offset == nullptr) return -1;
    const unsigned int a = KS_EEPROM_LINE_OFFSET_ADDR;
    uint8_t magic = 0, high = 0, low = 0, sign = 0;
    if (!eeprom_get(handle, a, &magic)) {
        KS_APP_ERROR("Read line offset Magic Code error\n");
        return -1;
    }
    if (magic != KS_MAGIC_LINE_OFFSET) {
        KS_APP_INFO("No Line Offset Has Been Saved\n");
        *offset = 0.0f;
        return 0;
    }
    if (!eeprom_get(handle, a + 1, &high)) {
        KS_APP_ERROR("Read line offset H error\n");
        return -1;
    }
    if (!eeprom_get(handle, a + 2, &low)) {
        KS_APP_ERROR("Read line offset L error\n");
        return -1;
    }
    if (!eeprom_get(handle, a + 3, &sign)) {
        KS_APP_ERROR("Read line offset sign error\n");
        return -1;
    }
    const uint16_t raw = static_cast<uint16_t>((high << 8) + low);
    float value = static_cast<float>(static_cast<int16_t>(raw)) * 0.00390625f;
    if (sign == 1) value = -value;
    *offset = value;
    KS_APP_DEBUG("Load line offset %f[%04x]\n", static_cast<double>(value), raw);
    return 0;
}

// ---- serial number ----

int ks_save_camera_sn(_struct_ks_ctrl_device* handle, const char* sn, uint8_t length) {
    if (handle == nullptr) return -1;
    if (length > KS_SN_MAX_LENGTH) {
        KS_APP_ERROR("Input SN size (%d) overflow Max(%d)\n", length, KS_SN_MAX_LENGTH);
        return -1;
    }
    if (sn == nullptr && length > 0) return -1;
    KS_APP_DEBUG("CameraSN  add 0x%04x", KS_EEPROM_SN_ADDR);
    if (!eeprom_put(handle, KS_EEPROM_SN_ADDR, KS_MAGIC_SN)) {
        KS_APP_ERROR("Save camera SN magic code error\n");
        return -1;
    }
    if (!eeprom_put(handle, kSnLength, length)) {
        KS_APP_ERROR("Save camera SN size error\n");
        return -1;
    }
    KS_APP_DEBUG("eeprom save sn size %d\n", length);
    char text[KS_SN_MAX_LENGTH + 1] = {};
    for (unsigned int i = 0; i < length; ++i) {
        text[i] = sn[i];
        if (!eeprom_put(handle, kSnText + i, static_cast<unsigned char>(sn[i]))) {
            KS_APP_ERROR("Save SN idx [i] error\n");
            return -1;
        }
    }
    KS_APP_DEBUG("Done Sav Sn %s", text);
    return 0;
}

int ks_get_camera_sn(_struct_ks_ctrl_device* handle, char* sn) {
    if (handle == nullptr || sn == nullptr) return -1;
    sn[0] = '\0';
    uint8_t magic = 0, length = 0;
    if (!eeprom_get(handle, KS_EEPROM_SN_ADDR, &magic)) {
        KS_APP_ERROR("Read camera SN magic code error\n");
        return -1;
    }
    if (magic != KS_MAGIC_SN) {
        KS_APP_WARN("No Camera SN Saved");
        return 0;
    }
    if (!eeprom_get(handle, kSnLength, &length)) {
        KS_APP_ERROR("Read camera SN size error\n");
        return -1;
    }
    KS_APP_DEBUG("SN SIZE %d\n", length);
    if (length > KS_SN_MAX_LENGTH) {
        KS_APP_FATAL("Read SN size error\n");
        return -2;
    }
    for (unsigned int i = 0; i < length; ++i) {
        uint8_t c = 0;
        if (!eeprom_get(handle, kSnText + i, &c)) {
            KS_APP_ERROR("Read SN idx [i] error\n");
            sn[i] = '\0';
            return -1;
        }
        sn[i] = static_cast<char>(c);
    }
    sn[length] = '\0';
    return 0;
}

int ks_erase_camera_sn(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    KS_APP_DEBUG("CLEAN SN \n");
    for (unsigned int a = KS_EEPROM_SN_ADDR; a < kSnText + KS_SN_MAX_LENGTH; ++a) {
        const unsigned int ret = ks_eeprom_write(handle, a, 0xFF);
        ks_app::pause_ms(1);
        if (ret != 0) {
            KS_APP_ERROR("Save SN idx [i] error\n");
            return static_cast<int>(ret);
        }
    }
    return 0;
}

// ---- EPR descriptor table ----

int ks_save_epr_info(_struct_ks_ctrl_device* handle, _struct_epr_info info) {
    if (handle == nullptr) return -1;
    const uint8_t index = static_cast<uint8_t>(info.index);
    if (index >= KS_EPR_INFO_SLOTS) {
        KS_APP_FATAL("invalid erp slot input index %d.Max slot %d\n", info.index,
                     KS_EPR_INFO_SLOTS);
        return KS_EEPROM_TABLE_INVALID_INDEX;
    }
    const unsigned int record = epr_info_record(index);
    KS_APP_DEBUG("EPR INFO ADDR 0x%x-%d", record, index);
    bool ok = true;
    uint8_t magic = 0, bitmap = 0;
    ok = eeprom_get(handle, KS_EEPROM_EPR_INFO_ADDR, &magic);
    if (ok && magic != KS_MAGIC_EPR_INFO) {
        KS_APP_DEBUG("No epr info has been saved,current val %02x\n", magic);
        ok = eeprom_put(handle, KS_EEPROM_EPR_INFO_ADDR, KS_MAGIC_EPR_INFO);
        bitmap = 0;
    } else if (ok) {
        ok = eeprom_get(handle, kEprInfoBitmap, &bitmap);
    }
    if (ok) ok = eeprom_put(handle, kEprInfoBitmap, bitmap | (1u << index));
    const uint8_t bytes[KS_EPR_INFO_RECORD_SIZE] = {static_cast<uint8_t>(info.height >> 8),
                                                    static_cast<uint8_t>(info.height),
                                                    static_cast<uint8_t>(info.width >> 8),
                                                    static_cast<uint8_t>(info.width),
                                                    info.reserved_a,
                                                    info.reserved_b};
    for (unsigned int i = 0; ok && i < KS_EPR_INFO_RECORD_SIZE; ++i)
        ok = eeprom_put(handle, record + i, bytes[i]);
    if (!ok) {
        KS_APP_FATAL("eeprom W/R error\n");
        return KS_EEPROM_TABLE_IO_ERROR;
    }
    return 0;
}

int ks_enum_epr_info(_struct_ks_ctrl_device* handle, _struct_epr_info* info, uint8_t init) {
    if (handle == nullptr || info == nullptr) return -1;
    const uint8_t index = static_cast<uint8_t>(info->index);
    if (index >= KS_EPR_INFO_SLOTS) {
        KS_APP_FATAL("invalid erp slot input index %d", info->index);
        return KS_EEPROM_TABLE_INVALID_INDEX;
    }
    uint8_t magic = 0, bitmap = 0;
    if (!eeprom_get(handle, KS_EEPROM_EPR_INFO_ADDR, &magic)) {
        KS_APP_FATAL("eeprom W/R error\n");
        return KS_EEPROM_TABLE_IO_ERROR;
    }
    if (magic == KS_MAGIC_EPR_INFO) {
        if (!eeprom_get(handle, kEprInfoBitmap, &bitmap)) {
            KS_APP_FATAL("eeprom W/R error\n");
            return KS_EEPROM_TABLE_IO_ERROR;
        }
    } else {
        KS_APP_DEBUG("No epr info has been saved,current val %02x\n", magic);
    }
    unsigned int slot = index;
    if (init == 0) {
        ++slot;
    } else {
        KS_APP_DEBUG("Init");
    }
    while (slot < KS_EPR_INFO_SLOTS && (bitmap & (1u << slot)) == 0) ++slot;
    if (slot >= KS_EPR_INFO_SLOTS) {
        KS_APP_DEBUG("No next epr info");
        info->index = -1;
        info->height = 0;
        info->width = 0;
        info->reserved_a = 0xFF;
        info->reserved_b = 0xFF;
        return -1;
    }
    KS_APP_DEBUG("Enum: Get slot idx %d", slot);
    info->index = static_cast<int8_t>(slot);
    uint8_t bytes[KS_EPR_INFO_RECORD_SIZE] = {};
    const unsigned int record = epr_info_record(slot);
    for (unsigned int i = 0; i < KS_EPR_INFO_RECORD_SIZE; ++i) {
        if (!eeprom_get(handle, record + i, &bytes[i])) {
            KS_APP_FATAL("eeprom W/R error\n");
            return KS_EEPROM_TABLE_IO_ERROR;
        }
    }
    info->height = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
    info->width = static_cast<uint16_t>(bytes[2] << 8 | bytes[3]);
    info->reserved_a = bytes[4];
    info->reserved_b = bytes[5];
    return 0;
}

int ks_save_current_epr_slot_index(_struct_ks_ctrl_device* handle, int slot) {
    if (handle == nullptr) return -1;
    const uint8_t index = static_cast<uint8_t>(slot);
    if (index >= KS_EPR_INFO_SLOTS) {
        KS_APP_FATAL("invalid erp slot input index %d", slot);
        return KS_EEPROM_TABLE_INVALID_INDEX;
    }
    if (!eeprom_put(handle, KS_EEPROM_CURRENT_SLOT_ADDR, index)) return KS_EEPROM_TABLE_IO_ERROR;
    KS_APP_DEBUG("SAVED SLOT %d", index);
    return 0;
}

int ks_get_current_stream_info(_struct_ks_ctrl_device* handle, _struct_epr_info* info) {
    if (handle == nullptr || info == nullptr) return -1;
    uint8_t slot = 0;
    const int ret = read_current_slot(handle, &slot);
    if (ret != 0) return ret;
    info->index = static_cast<int8_t>(slot);
    if (ks_enum_epr_info(handle, info, 1) != 0) {
        KS_APP_FATAL("Load EPR info failed\n");
        return KS_EEPROM_TABLE_LOOKUP_FAILED;
    }
    if (info->index != static_cast<int8_t>(slot)) {
        KS_APP_FATAL("Epr info mismatch\n");
        return KS_EEPROM_TABLE_INVALID_INDEX;
    }
    return 0;
}

// ---- frame rate ----

int ks_save_current_camera_fps_to_eeprom(_struct_ks_ctrl_device* handle, float fps) {
    if (handle == nullptr) return -1;
    if (fps < 0.0f || std::isnan(fps)) {
        KS_APP_ERROR("Illegal Negative Fps Value %f\n", static_cast<double>(fps));
        return -2;
    }
    if (fps > 65535.0f) return -3;
    uint8_t bytes[4] = {};
    ks_positive_float_to_four_byte_storage(fps, bytes);
    KS_APP_DEBUG("Input_val float%f\n", static_cast<double>(fps));
    KS_APP_DEBUG("%02x,%02x,%02x,%02x\n", bytes[0], bytes[1], bytes[2], bytes[3]);
    if (!eeprom_put(handle, KS_EEPROM_FPS_ADDR, KS_MAGIC_FPS)) {
        KS_APP_ERROR("Save camera fps magic code failed\n");
        return -1;
    }
    // Deliberately lenient: a byte that does not take is logged only.
    for (int i = 0; i < 4; ++i)
        if (!eeprom_put(handle, KS_EEPROM_FPS_ADDR + 1 + i, bytes[i]))
            KS_APP_ERROR("Saving fps error. idx [%d]", i);
    return 0;
}

int ks_load_current_camera_fps_from_eeprom(_struct_ks_ctrl_device* handle, float* fps) {
    if (handle == nullptr || fps == nullptr) return -1;
    uint8_t magic = 0;
    if (!eeprom_get(handle, KS_EEPROM_FPS_ADDR, &magic)) {
        KS_APP_ERROR("Get camera fps magic code failed\n");
        return -1;
    }
    if (magic != KS_MAGIC_FPS) {
        KS_APP_INFO("No CameraFPS Has Been Saved\n");
        return -3;
    }
    uint8_t bytes[4] = {};
    for (int i = 0; i < 4; ++i) {
        if (!eeprom_get(handle, KS_EEPROM_FPS_ADDR + 1 + i, &bytes[i])) {
            KS_APP_ERROR("Get fps error. idx [%d]", i);
            return -2;
        }
    }
    ks_four_byte_storage_to_positive_float(bytes, fps);
    KS_APP_DEBUG("Get FPS success :%f\n", static_cast<double>(*fps));
    return 0;
}

int ks_erase_camera_fps_config(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    for (unsigned int a = KS_EEPROM_FPS_ADDR; a < KS_EEPROM_FPS_ADDR + 8; ++a)
        ks_write_nuvex_eeprom(handle, a, 0xFF);
    KS_APP_DEBUG("Done erase fps config\n");
    return 0;
}

// ---- rectified camera parameter table ----

int ks_save_rectify_camera_para(_struct_ks_ctrl_device* handle,
                                _struct_rectify_cam_para_info para) {
    if (handle == nullptr) return -1;
    if (para.index >= KS_RECTIFY_PARA_SLOTS) {
        KS_APP_FATAL("invalid erp slot input index %d.Max slot %d\n", para.index,
                     KS_RECTIFY_PARA_SLOTS);
        return KS_EEPROM_TABLE_INVALID_INDEX;
    }
    bool ok = true;
    uint8_t magic = 0, bitmap = 0;
    ok = eeprom_get(handle, KS_EEPROM_RECTIFY_PARA_ADDR, &magic);
    if (ok && magic != KS_MAGIC_RECTIFY_PARA) {
        KS_APP_DEBUG("No rectify cam para has been saved. read magic val %02x\n", magic);
        ok = eeprom_put(handle, KS_EEPROM_RECTIFY_PARA_ADDR, KS_MAGIC_RECTIFY_PARA);
        bitmap = 0;
    } else if (ok) {
        ok = eeprom_get(handle, kRectifyBitmap, &bitmap);
    }
    if (ok) ok = eeprom_put(handle, kRectifyBitmap, bitmap | (1u << para.index));
    const unsigned int record = rectify_record(para.index);
    const uint8_t roi[4] = {
        static_cast<uint8_t>(para.roi_start_x >> 8), static_cast<uint8_t>(para.roi_start_x),
        static_cast<uint8_t>(para.roi_start_y >> 8), static_cast<uint8_t>(para.roi_start_y)};
    for (unsigned int i = 0; ok && i < 4; ++i) ok = eeprom_put(handle, record + i, roi[i]);
    if (!ok) {
        KS_APP_FATAL("eeprom W/R error\n");
        return KS_EEPROM_TABLE_IO_ERROR;
    }
    // A float outside [0, 65535] is not encoded: its field gets the bytes of
    // the float before it (zeros for the first). Byte failures here are not
    // reported; a failing byte ends that float's bytes.
    const float values[4] = {para.opt_center_x, para.opt_center_y, para.fov_x, para.fov_y};
    uint8_t bytes[4] = {0, 0, 0, 0};
    for (unsigned int k = 0; k < 4; ++k) {
        ks_positive_float_to_four_byte_storage(values[k], bytes);
        KS_APP_DEBUG("Input_val float%f\n", static_cast<double>(values[k]));
        KS_APP_DEBUG("%02x,%02x,%02x,%02x\n", bytes[0], bytes[1], bytes[2], bytes[3]);
        const unsigned int field = record + 4 + 4 * k;
        for (unsigned int i = 0; i < 4; ++i)
            if (!eeprom_put(handle, field + i, bytes[i])) break;
    }
    return 0;
}

int ks_enum_rectify_camera_para(_struct_ks_ctrl_device* handle, _struct_rectify_cam_para_info* para,
                                uint8_t init) {
    if (handle == nullptr || para == nullptr) return -1;
    uint8_t magic = 0, bitmap = 0;
    if (!eeprom_get(handle, KS_EEPROM_RECTIFY_PARA_ADDR, &magic)) return KS_EEPROM_TABLE_IO_ERROR;
    if (magic != KS_MAGIC_RECTIFY_PARA) {
        KS_APP_DEBUG("No Rectify Cam Para Has been saved %02x\n", magic);
        return -1;
    }
    if (!eeprom_get(handle, kRectifyBitmap, &bitmap)) return KS_EEPROM_TABLE_IO_ERROR;
    unsigned int slot = para->index;
    if (init == 0) {
        KS_APP_DEBUG("Query Next Para\n");
        ++slot;
    }
    while (slot < KS_RECTIFY_PARA_SLOTS && (bitmap & (1u << slot)) == 0) ++slot;
    if (slot > KS_RECTIFY_PARA_SLOTS) slot = KS_RECTIFY_PARA_SLOTS;
    KS_APP_DEBUG("Enum: Get slot idx %d", slot);
    para->index = static_cast<uint8_t>(slot);
    if (slot >= KS_RECTIFY_PARA_SLOTS) {
        KS_APP_DEBUG("No Next Rectify Para\n");
        para->roi_start_x = 0;
        para->roi_start_y = 0;
        para->opt_center_x = 0.0f;
        para->opt_center_y = 0.0f;
        para->fov_x = 0.0f;
        para->fov_y = 0.0f;
        return -1;
    }
    const unsigned int record = rectify_record(slot);
    uint8_t roi[4] = {};
    for (unsigned int i = 0; i < 4; ++i)
        if (!eeprom_get(handle, record + i, &roi[i])) return KS_EEPROM_TABLE_IO_ERROR;
    para->roi_start_x = static_cast<uint16_t>(roi[0] << 8 | roi[1]);
    para->roi_start_y = static_cast<uint16_t>(roi[2] << 8 | roi[3]);
    float* const fields[4] = {&para->opt_center_x, &para->opt_center_y, &para->fov_x, &para->fov_y};
    for (unsigned int k = 0; k < 4; ++k) {
        // A byte that cannot be read ends this float's bytes; the rest stay 0.
        uint8_t bytes[4] = {0, 0, 0, 0};
        const unsigned int field = record + 4 + 4 * k;
        for (unsigned int i = 0; i < 4; ++i)
            if (!eeprom_get(handle, field + i, &bytes[i])) break;
        ks_four_byte_storage_to_positive_float(bytes, fields[k]);
    }
    return 0;
}

int ks_get_current_rectify_camera_para(_struct_ks_ctrl_device* handle,
                                       _struct_rectify_cam_para_info* para) {
    if (handle == nullptr || para == nullptr) return -1;
    uint8_t slot = 0;
    const int ret = read_current_slot(handle, &slot);
    if (ret != 0) return ret;
    para->index = slot;
    if (ks_enum_rectify_camera_para(handle, para, 1) != 0) {
        KS_APP_ERROR("Query Param Failed\n");
        return KS_EEPROM_TABLE_LOOKUP_FAILED;
    }
    if (para->index != slot) {
        KS_APP_FATAL("Para slot info mismatch[%d,%d]\n", para->index, slot);
        return KS_EEPROM_TABLE_INVALID_INDEX;
    }
    return 0;
}

// ---- erasers ----

int ks_erase_light_calibdata_eeprom_saving(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    for (unsigned int i = 0; i < 24; ++i) {
        const unsigned int ret = ks_eeprom_write(handle, KS_EEPROM_CUSTOM_BASE + i, 0xFF);
        if (ret != 0) {
            KS_APP_ERROR("eeprom wirte failed. loop-i [%d]\n", i);
            return static_cast<int>(ret);
        }
    }
    return 0;
}

int ks_erase_all_custom_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    printf("Start add %d\n", KS_EEPROM_CUSTOM_BASE);
    const long failed = erase_range(handle, KS_EEPROM_CUSTOM_BASE, KS_EEPROM_CUSTOM_END);
    if (failed >= 0) {
        KS_APP_ERROR("Erase custom eeprom data failed %d [%x] (%d)", static_cast<int>(failed),
                     static_cast<unsigned int>(failed),
                     static_cast<int>(failed - KS_EEPROM_CUSTOM_BASE));
        return -1;
    }
    return 0;
}

// ---- dumps ----

int ks_show_disp_offset_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    show_header("DISP OFFSET AREA: Start Add %d. Offset %d\n", KS_EEPROM_DISP_OFFSET_ADDR);
    show_bytes(handle, KS_EEPROM_DISP_OFFSET_ADDR, 8);
    printf("\n");
    return 0;
}

int ks_show_search_range_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    show_header("\n\nSEARCH RANGE AREA: Start Add %d. Offset %d\n", KS_EEPROM_SEARCH_RANGE_ADDR);
    show_bytes(handle, KS_EEPROM_SEARCH_RANGE_ADDR, 8);
    return 0;
}

int ks_show_line_offset_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    show_header("\n\nLINE OFFSET AREA: Start Add %d. Offset %d\n", KS_EEPROM_LINE_OFFSET_ADDR);
    show_bytes(handle, KS_EEPROM_LINE_OFFSET_ADDR, 8);
    return 0;
}

int ks_show_camera_sn_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    show_header("\n\nSN AREA: Start Add %d. Offset %d\n", KS_EEPROM_SN_ADDR);
    uint8_t magic = 0, length = 0;
    eeprom_get(handle, KS_EEPROM_SN_ADDR, &magic);
    eeprom_get(handle, kSnLength, &length);
    printf("%02x: %02d\n", magic, length);
    uint8_t text[KS_SN_MAX_LENGTH] = {};
    for (unsigned int i = 0; i < KS_SN_MAX_LENGTH; ++i) {
        eeprom_get(handle, kSnText + i, &text[i]);
        printf("%u ", text[i]);
    }
    if (magic == KS_MAGIC_SN) {
        // As many characters as the stored length gives, never past the area.
        const int shown = length > KS_SN_MAX_LENGTH ? KS_SN_MAX_LENGTH : length;
        char sn[KS_SN_MAX_LENGTH + 1] = {};
        std::memcpy(sn, text, static_cast<size_t>(shown));
        printf("SN val %s\n", sn);
    }
    return 0;
}

int ks_show_epr_stat_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    show_header("\n\nEPR Status SAVING Area: Start Add %d. Offset %d\n", KS_EEPROM_EPR_INFO_ADDR);
    uint8_t magic = 0, bitmap = 0, slot = 0;
    eeprom_get(handle, KS_EEPROM_EPR_INFO_ADDR, &magic);
    eeprom_get(handle, kEprInfoBitmap, &bitmap);
    printf("%02x ", magic);
    printf("%02x\n", bitmap);
    for (unsigned int n = 0; n < KS_EPR_INFO_SLOTS; ++n) {
        printf("index %d: ", n);
        show_bytes(handle, epr_info_record(n), KS_EPR_INFO_RECORD_SIZE);
        printf("\n");
    }
    eeprom_get(handle, KS_EEPROM_CURRENT_SLOT_ADDR, &slot);
    printf("Current Slot %d [%02x]\n", slot, slot);
    return 0;
}

int ks_show_fps_stat_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    show_header("\n\nCurrent FPS Saving Area: Start Add %d. Offset %d\n", KS_EEPROM_FPS_ADDR);
    show_bytes(handle, KS_EEPROM_FPS_ADDR, 8);
    return 0;
}

int ks_show_rectify_cam_para_eeprom_data(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    show_header("\n\nEPR Para SAVING Area: Start Add %d. Offset %d\n", KS_EEPROM_RECTIFY_PARA_ADDR);
    uint8_t magic = 0, bitmap = 0;
    eeprom_get(handle, KS_EEPROM_RECTIFY_PARA_ADDR, &magic);
    eeprom_get(handle, kRectifyBitmap, &bitmap);
    printf("%02x ", magic);
    printf("%02x\n", bitmap);
    for (unsigned int n = 0; n < KS_RECTIFY_PARA_SLOTS; ++n) {
        printf("index %d: ", n);
        show_bytes(handle, rectify_record(n), KS_RECTIFY_PARA_RECORD_SIZE);
        printf("\n");
    }
    return 0;
}

}  // extern "C"
