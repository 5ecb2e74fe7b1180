// Control of the stereo ASIC and the FPGA beside it.
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ks_asic_iic_ctrl/source/ks_iic_app_private.h"

using ks_app::asic_get;
using ks_app::asic_put;
using ks_app::fpga_get;
using ks_app::fpga_put;

extern "C" {
int ae_closed_flag = 0;
}

namespace {

// The flag is one process-wide int by design; it is read and written with
// relaxed atomics so that cameras driven from several threads do not race
// on the memory itself (their prep/post pairs may still interleave).
void set_ae_closed(int value) {
    __atomic_store_n(&ae_closed_flag, value, __ATOMIC_RELAXED);
}
int ae_closed() {
    return __atomic_load_n(&ae_closed_flag, __ATOMIC_RELAXED);
}

int result_of(unsigned int ret) {
    return ret == 0 ? 0 : -1;
}

int switch_channel(_struct_ks_ctrl_device* handle, unsigned int channel) {
    if (handle == nullptr) return -1;
    return static_cast<int>(ks_iic_write(handle, KS_ASIC_REG_WORKING_MODE, channel));
}

// Line offset as the ASIC takes it: integer and 1/256 fraction.
void split_line_offset(float value, unsigned int* integer, unsigned int* fraction) {
    *integer = static_cast<unsigned int>(value);
    *fraction = static_cast<unsigned int>(256.0f * (value - static_cast<float>(*integer)));
}

// True when the controller runs the older firmware that powers the ASIC
// through GPIO 17 (version text beginning with "1022").
bool older_firmware(_struct_ks_ctrl_device* handle) {
    char version[32];
    std::memset(version, 0, sizeof(version));
    ks_get_usb_version_kernel(handle, version);
    version[sizeof(version) - 1] = '\0';
    ks_app::pause_ms(20);
    KS_APP_DEBUG("Get USB version %s\n", version);
    return std::strncmp(version, "1022", 4) == 0;
}

}  // namespace

extern "C" {

// ---- trim ----

int ks_set_camera_trim(_struct_ks_ctrl_device* handle, uint16_t* left, uint16_t* right) {
    if (handle == nullptr || left == nullptr || right == nullptr) return -1;
    *left = static_cast<uint16_t>(*left & ~1u);
    *right = static_cast<uint16_t>(*right & ~1u);
    const unsigned int l = *left, r = *right;
    const unsigned int symbol = r > l ? 1 : 0;
    const unsigned int diff = r > l ? r - l : l - r;
    struct Step {
        unsigned int reg, value;
        const char* failure;
    };
    const Step steps[] = {
        {KS_ASIC_REG_TRIM_RIGHT, r, "set right failed\n"},
        {KS_ASIC_REG_TRIM_LEFT, l, "set left failed\n "},
        {KS_ASIC_REG_TRIM_CTRL_A, 0x00, "set 0x65 failed\n "},
        {KS_ASIC_REG_TRIM_CTRL_B, 0xFC, "set 0x66 failed\n "},
        {KS_ASIC_REG_TRIM_SYMBOL, symbol, "set symbol failed\n"},
        {KS_ASIC_REG_TRIM_DIFF, diff, "set diff_reg failed\n"},
    };
    for (const Step& s : steps) {
        if (!asic_put(handle, s.reg, s.value)) {
            KS_APP_ERROR("%s", s.failure);
            return -1;
        }
    }
    KS_APP_DEBUG("Set trim to [%d,%d]\n", l, r);
    handle->trim_left = static_cast<uint16_t>(l);
    handle->trim_right = static_cast<uint16_t>(r);
    return 0;
}

int ks_get_camera_trim(_struct_ks_ctrl_device* handle, uint16_t* left, uint16_t* right) {
    if (handle == nullptr || left == nullptr || right == nullptr) return -1;
    if (ks_iic_read(handle, KS_ASIC_REG_TRIM_RIGHT, right) != 0) {
        KS_APP_ERROR("get right failed\n");
        return -1;
    }
    if (ks_iic_read(handle, KS_ASIC_REG_TRIM_LEFT, left) != 0) {
        KS_APP_ERROR("get left failed\n ");
        return -1;
    }
    KS_APP_DEBUG("load trim[%d,%d]\n", *left, *right);
    return 0;
}

// ---- channels ----

int ks_switch_origin_stereo_channel(_struct_ks_ctrl_device* handle) {
    return switch_channel(handle, KS_CHANNEL_ORIGIN_STEREO);
}
int ks_switch_rgbd_channel(_struct_ks_ctrl_device* handle) {
    return switch_channel(handle, KS_CHANNEL_RGBD);
}
int ks_switch_rectified_stereo_channel(_struct_ks_ctrl_device* handle) {
    return switch_channel(handle, KS_CHANNEL_RECTIFIED_STEREO);
}
int ks_switch_origin_disparity_channel(_struct_ks_ctrl_device* handle) {
    return switch_channel(handle, KS_CHANNEL_ORIGIN_DISPARITY);
}

int ks_get_camera_working_mode(_struct_ks_ctrl_device* handle, uint16_t* mode) {
    if (handle == nullptr || mode == nullptr) return -1;
    return static_cast<int>(ks_iic_read(handle, KS_ASIC_REG_WORKING_MODE, mode));
}

// ---- search range ----

int ks_set_asic_search_range(_struct_ks_ctrl_device* handle, uint8_t range) {
    if (handle == nullptr) return -1;
    const unsigned int steps[4][2] = {
        {KS_ASIC_REG_SEARCH_RANGE, range}, {0x43, 0}, {0x44, 0}, {0x40, 0}};
    for (const auto& s : steps) {
        if (!asic_put(handle, s[0], s[1])) {
            KS_APP_ERROR("set search range failed\n");
            return -1;
        }
    }
    handle->search_range = range;
    return 0;
}

int ks_get_asic_search_range(_struct_ks_ctrl_device* handle, uint8_t* range) {
    if (handle == nullptr || range == nullptr) return -1;
    if (!asic_get(handle, KS_ASIC_REG_SEARCH_RANGE_READ, range)) {
        KS_APP_ERROR("Read asic search range failed\n");
        return -1;
    }
    return 0;
}

// ---- line offset ----

int ks_set_line_offset(_struct_ks_ctrl_device* handle, float left, float right) {
    if (handle == nullptr) return -1;
    // Cleared first: a refused call leaves both at 0.
    handle->line_offset_left = 0.0f;
    handle->line_offset_right = 0.0f;
    if (!(left >= 0.0f && left <= 5.0f) || !(right >= 0.0f && right <= 5.0f)) {
        KS_APP_ERROR("ks_set_line_offset: invalid offset val:(%f,%f)\n", static_cast<double>(left),
                     static_cast<double>(right));
        return -1;
    }
    unsigned int li = 0, lf = 0, ri = 0, rf = 0;
    split_line_offset(left, &li, &lf);
    split_line_offset(right, &ri, &rf);
    KS_APP_DEBUG("[%f]%d-%d;[%f]%d-%d\n", static_cast<double>(left), li, lf,
                 static_cast<double>(right), ri, rf);
    struct Step {
        unsigned int reg, value;
        const char* failure;
    };
    const Step steps[] = {
        {KS_ASIC_REG_LINE_OFFSET_LEFT_INT, li, "set left line offset integer failed"},
        {KS_ASIC_REG_LINE_OFFSET_LEFT_FRAC, lf, "set left line offset fraction failed"},
        {KS_ASIC_REG_LINE_OFFSET_RIGHT_INT, ri, "set right line offset integer failed"},
        {KS_ASIC_REG_LINE_OFFSET_RIGHT_FRAC, rf, "set right line offset fraction failed"},
    };
    for (const Step& s : steps) {
        if (!asic_put(handle, s.reg, s.value)) {
            KS_APP_ERROR("%s", s.failure);
            return -1;
        }
    }
    KS_APP_DEBUG("Done IIC setting");
    handle->line_offset_left = left;
    handle->line_offset_right = right;
    return 0;
}

int ks_get_line_offset(_struct_ks_ctrl_device* handle, float* left, float* right) {
    if (handle == nullptr || left == nullptr || right == nullptr) return -1;
    struct Step {
        unsigned int reg;
        const char* failure;
    };
    const Step steps[] = {
        {KS_ASIC_REG_LINE_OFFSET_LEFT_INT, "read left line offset integer failed"},
        {KS_ASIC_REG_LINE_OFFSET_LEFT_FRAC, "read left line offset fraction failed"},
        {KS_ASIC_REG_LINE_OFFSET_RIGHT_INT, "read right line offset integer failed"},
        {KS_ASIC_REG_LINE_OFFSET_RIGHT_FRAC, "read right line offset fraction failed"},
    };
    uint8_t v[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        if (!asic_get(handle, steps[i].reg, &v[i])) {
            KS_APP_ERROR("%s", steps[i].failure);
            return -1;
        }
    }
    *left = static_cast<float>(v[0]) + static_cast<float>(v[1]) / 256.0f;
    *right = static_cast<float>(v[2]) + static_cast<float>(v[3]) / 256.0f;
    handle->line_offset_left = *left;
    handle->line_offset_right = *right;
    KS_APP_DEBUG("Get line offset:[%f]%d-%d;[%f]%d-%d\n", static_cast<double>(*left), v[0], v[1],
                 static_cast<double>(*right), v[2], v[3]);
    return 0;
}

// ---- fill light and trigger ----

int ks_fill_light_mode_control(_struct_ks_ctrl_device* handle, uint32_t mode) {
    if (handle == nullptr) return -1;
    if (mode > 1) {
        KS_APP_WARN("Invalid fill light mode %d\n", mode);
        return -1;
    }
    return result_of(ks_fpga_write(handle, KS_FPGA_REG_FILL_LIGHT_MODE, mode));
}

int ks_fill_light_intensity_control(_struct_ks_ctrl_device* handle, uint32_t intensity) {
    if (handle == nullptr) return -1;
    return result_of(ks_fpga_write(handle, KS_FPGA_REG_FILL_LIGHT_INTENSITY, intensity & 0xFF));
}

int ks_get_fill_light_mode(_struct_ks_ctrl_device* handle, uint16_t* mode) {
    if (handle == nullptr || mode == nullptr) return -1;
    return result_of(ks_fpga_read(handle, KS_FPGA_REG_FILL_LIGHT_MODE, mode));
}

int ks_get_fill_light_intensity(_struct_ks_ctrl_device* handle, uint8_t* intensity) {
    if (handle == nullptr || intensity == nullptr) return -1;
    return fpga_get(handle, KS_FPGA_REG_FILL_LIGHT_INTENSITY, intensity) ? 0 : -1;
}

int ks_cam_trigger_setting(_struct_ks_ctrl_device* handle, uint32_t mode) {
    if (handle == nullptr) return -1;
    if ((mode & 0xF0) > 0x10) {
        KS_APP_WARN("Invalid Trigger Mode: %x", mode);
        return -1;
    }
    return result_of(ks_fpga_write(handle, KS_FPGA_REG_TRIGGER, mode));
}

// ---- AE and RTT ----

int ks_get_FPGA_AE_status(_struct_ks_ctrl_device* handle, uint16_t* status) {
    if (handle == nullptr || status == nullptr) return -1;
    if (ks_fpga_read(handle, KS_FPGA_REG_AE, status) != 0) {
        KS_APP_ERROR("Read FPGA AE status error");
        return -1;
    }
    return 0;
}

int ks_AE_shut_down(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    return result_of(ks_fpga_write(handle, KS_FPGA_REG_AE, 0x00));
}

int ks_AE_open_up(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    return result_of(ks_fpga_write(handle, KS_FPGA_REG_AE, KS_FPGA_AE_RUNNING));
}

int ks_RTT_shut_down(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    return result_of(ks_fpga_write(handle, KS_FPGA_REG_RTT, 1));
}

int ks_RTT_open_up(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    return result_of(ks_fpga_write(handle, KS_FPGA_REG_RTT, 0));
}

int ks_asic_control_prep(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    uint16_t ae = 0;
    if (ks_get_FPGA_AE_status(handle, &ae) != 0) return -1;
    if (ae == KS_FPGA_AE_RUNNING) {
        set_ae_closed(0);
        if (ks_AE_shut_down(handle) != 0) return -1;
    } else {
        set_ae_closed(1);
        KS_APP_DEBUG("AE already shut down\n");
    }
    return ks_RTT_open_up(handle);
}

int ks_asic_control_post(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    if (ks_RTT_shut_down(handle) != 0) return -1;
    if (ae_closed() != 0) {
        KS_APP_DEBUG("AE has been set to close manually. Will not resume AE\n");
        return 0;
    }
    return ks_AE_open_up(handle);
}

// ---- versions and hardware ----

int ks_get_FPGA_version(_struct_ks_ctrl_device* handle, uint8_t* high, uint8_t* low) {
    if (handle == nullptr || high == nullptr || low == nullptr) return -1;
    if (!fpga_get(handle, KS_FPGA_REG_VERSION, high)) return -1;
    if (!fpga_get(handle, KS_FPGA_REG_VERSION + 1, low)) return -1;
    KS_APP_DEBUG("FPGA Version %x %x", *high, *low);
    return 0;
}

int ks_get_FPGA_release_date(_struct_ks_ctrl_device* handle, uint8_t* first, uint8_t* second,
                             uint8_t* third) {
    if (handle == nullptr || first == nullptr || second == nullptr || third == nullptr) return -1;
    if (!fpga_get(handle, KS_FPGA_REG_RELEASE_DATE, first)) return -1;
    if (!fpga_get(handle, KS_FPGA_REG_RELEASE_DATE + 1, second)) return -1;
    if (!fpga_get(handle, KS_FPGA_REG_RELEASE_DATE + 2, third)) return -1;
    return 0;
}

int ks_get_HW_info(_struct_ks_ctrl_device* handle, uint8_t* pcb, uint8_t* cmos) {
    if (handle == nullptr || pcb == nullptr || cmos == nullptr) return -1;
    uint8_t info = 0;
    if (!fpga_get(handle, KS_FPGA_REG_HW_INFO, &info)) {
        KS_APP_ERROR("Get FPGA hardware info err\n");
        return -1;
    }
    *pcb = static_cast<uint8_t>(info >> 4);
    *cmos = static_cast<uint8_t>(info & 0x0F);
    KS_APP_DEBUG("PCB: %02x; CMOS: %02x", *pcb, *cmos);
    return 0;
}

int ks_get_cmos_swap_mode(_struct_ks_ctrl_device* handle, uint8_t* mode) {
    if (handle == nullptr || mode == nullptr) return -1;
    uint8_t value = 0;
    if (!asic_get(handle, KS_ASIC_REG_CMOS_PREPROCESS, &value)) {
        KS_APP_ERROR("Load CMOS pre-process mode failed\n");
        return -1;
    }
    const uint8_t m = value & 0x50;
    switch (m) {
        case 0x00:
        case 0x50:
            *mode = 0;
            return 0;
        case 0x10:
        case 0x40:
            *mode = 1;
            KS_APP_WARN("Local mode %02x", m);
            return 0;
        default:
            *mode = 0x63;
            KS_APP_ERROR("Unexpected local mode val %02x", m);
            return 0;
    }
}

// ---- power sequences ----

int ks_camera_hardware_shutdown(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    int ret = 0;
    if (older_firmware(handle)) {
        KS_APP_DEBUG("1022 Usb version shutdown\n");
        ret = static_cast<int>(ks_kernel_set_asic_gpio(handle, 0));
        KS_APP_DEBUG("ret %d\n", ret);
    } else {
        KS_APP_DEBUG("New reset version shutdown\n");
        ret = static_cast<int>(ks_reset_asic_status(handle, 0));
        KS_APP_DEBUG("FINISH %d\n", ret);
        KS_APP_DEBUG("ret %d\n", ret);
    }
    return ret;
}

int ks_camera_hardware_bringup(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    if (older_firmware(handle)) {
        printf("1022 Usb version bring up");
        ks_kernel_set_asic_gpio(handle, 1);
        ks_sys_sleep(4);
        ks_kernel_set_asic_gpio(handle, 0);
        ks_sys_sleep(1);
        ks_kernel_set_asic_gpio(handle, 1);
    } else {
        const uint8_t states[3] = {1, 0, 1};
        const unsigned int pauses[2] = {4, 1};
        for (int step = 0; step < 3; ++step) {
            const int ret = static_cast<int>(ks_reset_asic_status(handle, states[step]));
            if (ret != 0) {
                printf("ks_camera_hardware_bringup failed: %d(%d)\n", -(step + 1), ret);
                return -(step + 1);
            }
            if (step < 2) ks_sys_sleep(pauses[step]);
        }
    }
    ks_sys_sleep(6);
    printf("Finish bring up.");
    return 0;
}

// ---- health checks ----

int ks_load_epr_init_status(_struct_ks_ctrl_device* handle, uint16_t* status) {
    if (handle == nullptr || status == nullptr) return -1;
    return result_of(ks_iic_read(handle, KS_ASIC_REG_EPR_STATUS, status));
}

int ks_asic_default_val_check(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    uint8_t value = 0;
    if (!asic_get(handle, KS_ASIC_REG_IDLE, &value)) return -1;
    KS_APP_DEBUG("Load Asic idle reg 0x%02x, Val 0x%02x\n", KS_ASIC_REG_IDLE, value);
    if (value != KS_ASIC_IDLE_VALUE) {
        KS_APP_ERROR("Invalid asic default val\n");
        return -2;
    }
    KS_APP_DEBUG("asic default val check success\n");
    return 0;
}

int ks_nuvex_epr_status_check(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    uint8_t value = 0;
    if (!asic_get(handle, KS_ASIC_REG_EPR_STATUS, &value)) return -1;
    KS_APP_DEBUG("Load Asic EPR init status 0x%02x\n", value);
    if (value != KS_ASIC_EPR_LOADED) {
        KS_APP_ERROR("Failed EPR init status:0x%02x\n", value);
        return -2;
    }
    KS_APP_DEBUG("epr status ok\n");
    return 0;
}

int ks_device_init_status_check(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    uint8_t fpga = 0;
    fpga_get(handle, KS_FPGA_REG_IDLE, &fpga);  // a failed read leaves 0: not ready
    KS_APP_DEBUG("load fpga default val 0x%02x\n", fpga);
    if (fpga != KS_FPGA_IDLE_VALUE) {
        KS_APP_ERROR("FPGA Status Failure...\n");
        return -1;
    }
    KS_APP_DEBUG("FPGA Status check success\n");
    ks_asic_control_prep(handle);
    int ret = 0;
    if (ks_asic_default_val_check(handle) != 0) {
        KS_APP_ERROR("ASIC default val check failed\n");
        ret = -2;
    } else if (ks_nuvex_epr_status_check(handle) != 0) {
        KS_APP_ERROR("Nuvex epr status check failed\n");
        ret = -3;
    }
    ks_asic_control_post(handle);
    return ret;
}

// ---- stereo constants ----

int ks_get_bxf_from_nuvex(_struct_ks_ctrl_device* handle, float* bxf, float* base) {
    if (handle == nullptr || bxf == nullptr || base == nullptr) return -1;
    uint8_t b[2] = {0, 0};
    uint8_t f[4] = {0, 0, 0, 0};
    for (int i = 0; i < 2; ++i) {
        if (!asic_get(handle, KS_ASIC_REG_BASELINE_HIGH + i, &b[i])) {
            KS_APP_ERROR("Read Nuvex Register Err\n");
            return -1;
        }
    }
    for (int i = 0; i < 4; ++i) {
        if (!asic_get(handle, KS_ASIC_REG_BXF + i, &f[i])) {
            KS_APP_ERROR("Read Nuvex Register Err\n");
            return -1;
        }
    }
    const double baseline = static_cast<double>((b[0] << 8) + b[1]) * 0.0078125;
    const uint32_t raw =
        (uint32_t{f[0]} << 24) | (uint32_t{f[1]} << 16) | (uint32_t{f[2]} << 8) | uint32_t{f[3]};
    const double value = static_cast<double>(raw) * 0.000244140625;
    *base = static_cast<float>(baseline);
    *bxf = static_cast<float>(value);
    KS_APP_DEBUG("Decode bxf from nuvex register: %f,%f\n", value, baseline);
    return 0;
}

}  // extern "C"
