// Control of the image sensors through the stereo ASIC's bridge.
#include "ks_asic_iic_ctrl/source/ks_iic_cmos_control.h"

#include <cmath>
#include <cstdio>

#include "ks_asic_iic_ctrl/source/ks_iic_app_private.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"

using ks_app::asic_get;
using ks_app::asic_put;

extern "C" {
const char cmosname_sony[] = "SONY_IMX225";
const char cmosname_ov9281[] = "OV9281";
const char cmosname_ar0144[] = "AR0144";
const char cmosname_ar0132[] = "AR0132";
const char cmosname_sc132gs[] = "SC132GS";
const char cmosname_undefined[] = "None";
}

namespace {

// The bridge needs this pause after every access.
constexpr unsigned int kBridgePauseMs = 5;

// Sensor registers.
constexpr uint16_t kOv9281Mode = 0x0100;  // 0 standby, 1 streaming
constexpr uint16_t kOv9281FrameLengthHigh = 0x380E;
constexpr uint16_t kOv9281FrameLengthLow = 0x380F;
constexpr uint16_t kOv9281Gain = 0x3509;
constexpr uint16_t kImx225Gain = 0x3014;
constexpr uint16_t kSc132GroupHold = 0x3800;
constexpr uint16_t kSc132FrameLengthHigh = 0x320E;
constexpr uint16_t kSc132FrameLengthLow = 0x320F;
constexpr uint16_t kSc132TimingHigh = 0x3228;
constexpr uint16_t kSc132TimingLow = 0x3229;

// Frame-rate constants and limits.
constexpr float kOv9281LineRate = 28110.0f;
constexpr unsigned int kOv9281MaxLines = 0x101E;
constexpr float kSc132LineRate = 38400.0f;
constexpr unsigned int kSc132MinLines = 1838;
constexpr double kImx225Rate = 33000.0;
constexpr unsigned int kImx225ConstantA = 2424;
constexpr unsigned int kImx225ConstantB = 1818;

constexpr uint16_t kMaxExposure = 1000;

void bridge_pause() {
    ks_app::pause_ms(kBridgePauseMs);
}

bool bridge_write(_struct_ks_ctrl_device* h, unsigned int reg, unsigned int value) {
    const bool ok = asic_put(h, reg, value);
    bridge_pause();
    return ok;
}

bool bridge_read(_struct_ks_ctrl_device* h, unsigned int reg, uint8_t* value) {
    const bool ok = asic_get(h, reg, value);
    bridge_pause();
    return ok;
}

// The frame-rate range shared by the OV9281 and the SC132GS: 0 or its code.
int check_fps_range(float fps) {
    if (!(fps >= 1.0f)) {
        printf("Error: Invalid small or negative FPS value %f\n", static_cast<double>(fps));
        return KS_FPS_TOO_SMALL;
    }
    if (fps > 30.0f) {
        printf("Error: Setting FPS exceeds Maximun(30 fps)");
        return KS_FPS_TOO_LARGE;
    }
    return 0;
}

// Dual read of a gain register inside an open bridge, values cut to a byte.
int get_gain(_struct_ks_ctrl_device* handle, uint16_t reg, uint16_t* a, uint16_t* b) {
    if (handle == nullptr || a == nullptr || b == nullptr) return -1;
    *a = 0;
    *b = 0;
    int ret = _ks_cmos_ctrl_prep(handle);
    if (ret == 0) {
        if (ks_read_cmos_register(handle, reg, a, b) != 0) {
            KS_APP_ERROR("CamGain get failed\n");
            ret = -4;
        }
        *a &= 0xFF;
        *b &= 0xFF;
        const int post = _ks_cmos_ctrl_post(handle);
        if (post != 0) ret = post;
    }
    KS_APP_DEBUG("Done Get GainA %02x, Get GainB %02x", *a, *b);
    return ret;
}

// The manual-exposure bytes of the ASIC: 0x31 cleared, 0x33 high, 0x35 low.
void write_exposure_registers(_struct_ks_ctrl_device* handle, unsigned int high, unsigned int low) {
    asic_put(handle, KS_ASIC_REG_AE_MODE, 0);
    asic_put(handle, 0x32, 0);
    asic_put(handle, 0x33, high & 0xFF);
    asic_put(handle, 0x34, 0);
    asic_put(handle, 0x35, low & 0xFF);
}

int not_implemented(const char* function, int line) {
    printf("\n======\nTo Be Impl Func:\n%s()\nFile:\n%s\nLine:%d\n======\n\n", function,
           KS_APP_MODULE, line);
    return -1;
}

}  // namespace

extern "C" {

const char* ks_get_cmos_model_name(uint8_t code) {
    switch (code) {
        case KS_CMOS_MODEL_SONY_IMX225:
            return cmosname_sony;
        case KS_CMOS_MODEL_OV9281:
            return cmosname_ov9281;
        case KS_CMOS_MODEL_AR0144:
            return cmosname_ar0144;
        case KS_CMOS_MODEL_AR0132:
            return cmosname_ar0132;
        case KS_CMOS_MODEL_SC132GS:
            return cmosname_sc132gs;
        default:
            return cmosname_undefined;
    }
}

// ---- bridge ----

int _ks_cmos_ctrl_prep(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return -1;
    if (!asic_put(handle, KS_ASIC_REG_AE_MODE, 0x10)) {
        KS_APP_ERROR("Shut down nuvex AE Error\n");
        return -1;
    }
    if (!asic_put(handle, KS_CMOS_BRIDGE_CONFIG, 3)) {
        KS_APP_ERROR("CMOS Access config err\n");
        return -2;
    }
    return 0;
}

int _ks_cmos_ctrl_post(_struct_ks_ctrl_device* handle) {
    if (handle == nullptr) return 0;
    if (!asic_put(handle, KS_ASIC_REG_AE_MODE, 0)) KS_APP_ERROR("Restore nuvex AE Error\n");
    return 0;
}

int ks_load_cmos_output_idx(_struct_ks_ctrl_device* handle, uint16_t* a, uint16_t* b) {
    if (handle == nullptr || a == nullptr || b == nullptr) return -1;
    ks_iic_read(handle, KS_CMOS_OUTPUT_IDX_A, a);
    ks_iic_read(handle, KS_CMOS_OUTPUT_IDX_B, b);
    KS_APP_DEBUG("CMOS IDX %d %d", *a, *b);
    return 0;
}

int ks_load_cmos_bus_status(_struct_ks_ctrl_device* handle, uint8_t* counter_a, uint8_t* status_a,
                            uint8_t* counter_b, uint8_t* status_b) {
    if (handle == nullptr || counter_a == nullptr || status_a == nullptr || counter_b == nullptr ||
        status_b == nullptr)
        return -1;
    uint8_t a = 0, b = 0;
    const bool ok_a = bridge_read(handle, KS_CMOS_BRIDGE_REG_HIGH, &a);
    const bool ok_b = ok_a && bridge_read(handle, KS_CMOS_BRIDGE_READ_LOW, &b);
    *counter_a = static_cast<uint8_t>(a >> 4);
    *status_a = static_cast<uint8_t>(a & 0x0F);
    *counter_b = static_cast<uint8_t>(b >> 4);
    *status_b = static_cast<uint8_t>(b & 0x0F);
    if (!ok_b) return -1;
    KS_APP_DEBUG("CMD cnt %x %x", *counter_a, *counter_b);
    KS_APP_DEBUG("CMD stat %x %x\n", *status_a, *status_b);
    return 0;
}

int ks_write_cmos_register_through_nuvex(_struct_ks_ctrl_device* handle, uint16_t reg,
                                         uint16_t value) {
    if (handle == nullptr) return -1;
    int failure = -1;
    const unsigned int bytes[4][2] = {{KS_CMOS_BRIDGE_REG_HIGH, static_cast<unsigned>(reg >> 8)},
                                      {KS_CMOS_BRIDGE_REG_LOW, reg & 0xFFu},
                                      {KS_CMOS_BRIDGE_DATA_HIGH, static_cast<unsigned>(value >> 8)},
                                      {KS_CMOS_BRIDGE_DATA_LOW, value & 0xFFu}};
    for (int attempt = 0; attempt < KS_CMOS_WRITE_ATTEMPTS; ++attempt) {
        uint8_t pre_a = 0, pre_sa = 0, pre_b = 0, pre_sb = 0;
        if (ks_load_cmos_bus_status(handle, &pre_a, &pre_sa, &pre_b, &pre_sb) != 0) {
            KS_APP_ERROR("load cmos bus status failed\n");
            failure = -3;
        }
        for (const auto& b : bytes) {
            if (!bridge_write(handle, b[0], b[1])) {
                KS_APP_ERROR("iic write failed\n");
                return -2;
            }
        }
        uint8_t next_a = 0, next_sa = 0, next_b = 0, next_sb = 0;
        if (ks_load_cmos_bus_status(handle, &next_a, &next_sa, &next_b, &next_sb) != 0) {
            KS_APP_ERROR("load cmos bus status failed\n");
            return -3;
        }
        if (next_a != pre_a && next_b != pre_b) {
            KS_APP_DEBUG("Finish CMOS Write %04x %04x\n", reg, value);
            return 0;
        }
        KS_APP_ERROR("CMOS SET ERROR DETECTED,pre A %x- next A %x, pre B%x- next B %x\n", pre_a,
                     next_a, pre_b, next_b);
    }
    return failure;
}

int ks_read_cmos_register(_struct_ks_ctrl_device* handle, uint16_t reg, uint16_t* a, uint16_t* b) {
    if (handle == nullptr || a == nullptr || b == nullptr) return -1;
    *a = 0;
    *b = 0;
    if (!bridge_write(handle, KS_CMOS_BRIDGE_READ_HIGH, reg >> 8) ||
        !bridge_write(handle, KS_CMOS_BRIDGE_READ_LOW, reg & 0xFF)) {
        KS_APP_ERROR("iic write failed\n");
        return -2;
    }
    uint8_t discard = 0, va = 0, vb = 0;
    if (!bridge_read(handle, KS_CMOS_BRIDGE_DATA_LOW, &discard)) {
        KS_APP_ERROR("iic read failed\n");
        return -2;
    }
    const bool ok_a = bridge_read(handle, KS_CMOS_BRIDGE_READ_HIGH, &va);
    *a = va;
    if (!ok_a || !bridge_read(handle, 0xF9, &discard)) {
        KS_APP_ERROR("iic read failed\n");
        return -2;
    }
    const bool ok_b = bridge_read(handle, KS_CMOS_BRIDGE_VALUE_B, &vb);
    *b = vb;
    if (!ok_b) {
        KS_APP_ERROR("iic read failed\n");
        return -2;
    }
    return 0;
}

// ---- OV9281 ----

int _ks_set_ov9281_standby_mode(_struct_ks_ctrl_device* handle) {
    return ks_write_cmos_register_through_nuvex(handle, kOv9281Mode, 0);
}

int _ks_set_ov9281_streaming_mode(_struct_ks_ctrl_device* handle) {
    return ks_write_cmos_register_through_nuvex(handle, kOv9281Mode, 1);
}

int ks_set_ov9281_cmos_fps_line(_struct_ks_ctrl_device* handle, uint16_t lines) {
    if (ks_write_cmos_register_through_nuvex(handle, kOv9281FrameLengthHigh, lines >> 8) != 0) {
        KS_APP_ERROR("write cmos error\n");
        return -1;
    }
    if (ks_write_cmos_register_through_nuvex(handle, kOv9281FrameLengthLow, lines & 0xFF) != 0) {
        KS_APP_ERROR("write cmos error\n");
        return -2;
    }
    return 0;
}

int ks_set_ov9281_fps(_struct_ks_ctrl_device* handle, float fps) {
    if (handle == nullptr) return -1;
    const int range = check_fps_range(fps);
    if (range != 0) return range;
    const float estimate = kOv9281LineRate / fps;
    const unsigned int lines = static_cast<unsigned int>(estimate);
    KS_APP_DEBUG("dest fps %f,estimate val %f\n", static_cast<double>(fps),
                 static_cast<double>(estimate));
    KS_APP_DEBUG("[OV9281] setting val %d %x\n", lines, lines);
    if (lines > kOv9281MaxLines) {
        KS_APP_ERROR("[OV9281] Setting Val [0x%04x] Exceeding limits of 0x101E\n", lines);
        return KS_FPS_LINES_EXCEEDED;
    }
    const int prep = _ks_cmos_ctrl_prep(handle);
    if (prep != 0) return prep;
    if (_ks_set_ov9281_standby_mode(handle) != 0) {
        KS_APP_ERROR("Set cmos stand by failed\n");
        return -9;  // the bridge stays open
    }
    if (ks_set_ov9281_cmos_fps_line(handle, static_cast<uint16_t>(lines)) != 0)
        KS_APP_ERROR("Set OV9281 cmos fpsline failed\n");
    if (_ks_set_ov9281_streaming_mode(handle) != 0) KS_APP_ERROR("Set cmos stream failed\n");
    return _ks_cmos_ctrl_post(handle);
}

// ---- SC132GS ----

int ks_set_sc132gs_fps(_struct_ks_ctrl_device* handle, float fps) {
    if (handle == nullptr) return -1;
    const int range = check_fps_range(fps);
    if (range != 0) return range;
    const unsigned int lines = static_cast<unsigned int>(kSc132LineRate / fps);
    if (lines < kSc132MinLines) {
        KS_APP_ERROR("[SC132GS] Setting Val [%d] below limits of 1838\n", lines);
        return KS_FPS_TOO_LARGE;
    }
    KS_APP_DEBUG("[SC132GS] setting val %d %x\n", lines, lines);
    int ret = _ks_cmos_ctrl_prep(handle);
    if (ret == 0) {
        struct SensorStep {
            uint16_t reg;
            unsigned int value;
            int code;
            const char* failure;
        };
        const SensorStep sensor[] = {
            {kSc132GroupHold, 0x00, -5, "Set SC132GS group hold failed\n"},
            {kSc132FrameLengthHigh, lines >> 8, -6, "Set SC132GS 0x320E failed\n"},
            {kSc132FrameLengthLow, lines & 0xFF, -7, "Set SC132GS 0x320F failed\n"},
            {kSc132TimingHigh, (lines - 6) >> 8, -8, "Set SC132GS 0x3228 failed\n"},
            {kSc132TimingLow, (lines - 6) & 0xFF, -9, "Set SC132GS 0x3229 failed\n"},
            {kSc132GroupHold, 0x60, -10, "Set SC132GS group hold failed\n"},
        };
        for (const SensorStep& s : sensor) {
            if (ks_write_cmos_register_through_nuvex(handle, s.reg,
                                                     static_cast<uint16_t>(s.value)) != 0) {
                KS_APP_ERROR("%s", s.failure);
                ret = s.code;
                break;
            }
        }
        uint8_t fpsx_high = 0, fpsx_low = 0;
        if (ret == 0 && !asic_get(handle, ASIC_TRIGER_FPSX_HIGH, &fpsx_high)) {
            KS_APP_ERROR("Read ASIC_TRIGER_FPSX_HIGH (0x%02x) err", ASIC_TRIGER_FPSX_HIGH);
            ret = -11;
        }
        if (ret == 0 && !asic_get(handle, ASIC_TRIGER_FPSX_LOW, &fpsx_low)) {
            KS_APP_ERROR("Read ASIC_TRIGER_FPSX_LOW (0x%02x) err", ASIC_TRIGER_FPSX_LOW);
            ret = -12;
        }
        if (ret == 0) {
            struct AsicStep {
                unsigned int reg, value;
                int code;
                const char* name;
            };
            const AsicStep timing[] = {
                {ASIC_TRIGER_FPSX_HIGH, fpsx_high, -13, "ASIC_TRIGER_FPSX_HIGH"},
                {ASIC_TRIGER_FPSX_LOW, fpsx_low, -14, "ASIC_TRIGER_FPSX_LOW"},
                {ASIC_TRIGER_FPSY_HIGH, lines >> 8, -15, "ASIC_TRIGER_FPSY_HIGH"},
                {ASIC_TRIGER_FPSY_LOW, lines & 0xFF, -16, "ASIC_TRIGER_FPSY_LOW"},
            };
            for (const AsicStep& s : timing) {
                if (!asic_put(handle, s.reg, s.value)) {
                    KS_APP_ERROR("Write %s (0x%02x) err", s.name, s.reg);
                    ret = s.code;
                    break;
                }
            }
        }
        // After a failed step the bridge stays open.
        if (ret == 0) ret = _ks_cmos_ctrl_post(handle);
    }
    KS_APP_DEBUG("Done Setting SC132GS FPS %f [%d]\n", static_cast<double>(fps), ret);
    return ret;
}

// ---- IMX225 ----

int ks_set_sony224_fps(_struct_ks_ctrl_device* handle, float fps) {
    if (handle == nullptr) return -1;
    KS_APP_DEBUG("Setting Sony 224/5 FPS...\n");
    uint8_t high = 0, low = 0;
    asic_get(handle, ASIC_TRIGER_FPSX_HIGH, &high);
    asic_get(handle, ASIC_TRIGER_FPSX_LOW, &low);
    unsigned int constant = (static_cast<unsigned int>(high) << 8) + low;
    KS_APP_DEBUG("Read FPS constant %d [%04x]\n", constant, constant);
    if (constant != kImx225ConstantA && constant != kImx225ConstantB) {
        constant = kImx225ConstantA;
        KS_APP_DEBUG("Applying marco FPS constant %d [%d,%d]\n", constant, constant >> 8,
                     constant & 0xFF);
    }
    // The divisor is a 16-bit register: rates too slow for it (or not a
    // positive number) saturate at 65535, rates above 33000 fps at 1.
    const double y = fps > 0.0f ? kImx225Rate / static_cast<double>(fps) : 65535.0;
    unsigned int fps_y = 65535;
    if (y >= 1.0 && y < 65536.0) {
        fps_y = static_cast<unsigned int>(y);
    } else if (y > 0.0 && y < 1.0) {
        fps_y = 1;
    }
    KS_APP_DEBUG("FPS_Y setting %d [%d,%d]\n", fps_y, fps_y >> 8, fps_y & 0xFF);
    asic_put(handle, ASIC_TRIGER_FPSX_HIGH, constant >> 8);
    asic_put(handle, ASIC_TRIGER_FPSX_LOW, constant & 0xFF);
    asic_put(handle, ASIC_TRIGER_FPSY_HIGH, fps_y >> 8);
    asic_put(handle, ASIC_TRIGER_FPSY_LOW, fps_y & 0xFF);
    ks_fpga_write(handle, KS_FPGA_REG_FPSY_HIGH, fps_y >> 8);
    ks_fpga_write(handle, KS_FPGA_REG_FPSY_LOW, fps_y & 0xFF);
    return 0;
}

// ---- gains ----

int ks_set_gain_ov9281(_struct_ks_ctrl_device* handle, uint16_t gain) {
    if (handle == nullptr) return -1;
    // A direct bridge command without the counter check.
    struct Step {
        unsigned int reg, value;
        const char* failure;
    };
    const Step steps[] = {
        {KS_ASIC_REG_AE_MODE, 0x10, "CamGain set exp mode err\n"},
        {KS_CMOS_BRIDGE_CONFIG, 3, "CamGain set 0xf0 err\n"},
        {KS_CMOS_BRIDGE_REG_HIGH, kOv9281Gain >> 8, "CamGain set 0xf1 err\n"},
        {KS_CMOS_BRIDGE_REG_LOW, kOv9281Gain & 0xFF, "CamGain set 0xf2 err\n"},
        {KS_CMOS_BRIDGE_DATA_HIGH, 0, "CamGain set 0xf3 err\n"},
        {KS_CMOS_BRIDGE_DATA_LOW, gain & 0xFFu, "CamGain set 0xf4 err\n"},
        {KS_ASIC_REG_AE_MODE, 0, "CamGain restore exp mode err\n"},
    };
    for (const Step& s : steps) {
        if (!asic_put(handle, s.reg, s.value)) {
            KS_APP_ERROR("%s", s.failure);
            return -1;
        }
    }
    KS_APP_DEBUG("Done Set Gain %02x", gain);
    return 0;
}

int ks_get_gain_ov9281(_struct_ks_ctrl_device* handle, uint16_t* a, uint16_t* b) {
    return get_gain(handle, kOv9281Gain, a, b);
}

int ks_set_gain_sony_imx225(_struct_ks_ctrl_device* handle, uint16_t gain) {
    if (handle == nullptr) return -1;
    const uint16_t value = gain > 255 ? 255 : gain;
    int ret = _ks_cmos_ctrl_prep(handle);
    if (ret == 0) {
        if (ks_write_cmos_register_through_nuvex(handle, kImx225Gain, value) != 0) {
            KS_APP_ERROR("CamGain set failed\n");
            ret = -4;
        }
        _ks_cmos_ctrl_post(handle);
    }
    KS_APP_DEBUG("Done Set Gain %02x", value);
    return ret;
}

int ks_get_gain_sony_imx225(_struct_ks_ctrl_device* handle, uint16_t* a, uint16_t* b) {
    return get_gain(handle, kImx225Gain, a, b);
}

// ---- exposure ----

int ks_set_exposure_ov9281(_struct_ks_ctrl_device* handle, uint16_t exposure) {
    if (handle == nullptr) return -1;
    if (exposure == 0) {
        ks_AE_open_up(handle);
        return 0;
    }
    if (exposure > kMaxExposure) {
        printf("Exposure setting exceeding,setting to 1000");
        exposure = kMaxExposure;
    }
    const unsigned int e = static_cast<unsigned int>(exposure) * 16;  // 1/16 line units
    // AE is stopped before the guard: the guard then sees it off by hand and
    // leaves it off, so a manual exposure stays manual.
    ks_AE_shut_down(handle);
    ks_asic_control_prep(handle);
    write_exposure_registers(handle, (e >> 8) & 0xFF, e & 0xFF);
    ks_asic_control_post(handle);
    return 0;
}

int ks_set_exposure_sony_imx225(_struct_ks_ctrl_device* handle, uint16_t exposure) {
    if (handle == nullptr) return -1;
    if (exposure == 0) {
        ks_AE_open_up(handle);
        return 0;
    }
    ks_AE_shut_down(handle);
    ks_asic_control_prep(handle);
    if (exposure > kMaxExposure) {
        printf("Exposure setting exceeding,setting to 1000");
        exposure = kMaxExposure;
    }
    uint8_t high = 0, low = 0;
    asic_get(handle, ASIC_TRIGER_FPSY_HIGH, &high);
    asic_get(handle, ASIC_TRIGER_FPSY_LOW, &low);
    const unsigned int fps_y = (static_cast<unsigned int>(high) << 8) + low;
    if (exposure > fps_y) {
        KS_APP_FATAL("Exp setting  overflow issue\n");
        return -1;
    }
    // The IMX225 counts exposure from the end of the frame.
    const unsigned int setting = fps_y - exposure;
    KS_APP_DEBUG("fps_y: 0x%02x(%d),exp: %d,setting :%d", fps_y, fps_y, exposure, setting);
    write_exposure_registers(handle, setting >> 8, setting & 0xFF);
    ks_asic_control_post(handle);
    return 0;
}

// ---- white balance ----

int ks_get_white_balance_param(_struct_ks_ctrl_device* handle, uint8_t* first, uint8_t* middle,
                               uint8_t* last) {
    if (handle == nullptr || first == nullptr || middle == nullptr || last == nullptr) return -1;
    uint8_t v[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        if (!bridge_read(handle, 0x21 + i, &v[i])) {
            KS_APP_ERROR("iic read failed\n");
            return -2;
        }
    }
    *first = v[0];
    if (v[1] == v[2]) *middle = v[1];
    *last = v[3];
    KS_APP_DEBUG("Done Get White Balance Param %02x, %02x, %02x, %02x", v[0], v[1], v[2], v[3]);
    return 0;
}

int ks_set_white_balance_param(_struct_ks_ctrl_device* handle, uint8_t first, uint8_t middle,
                               uint8_t last) {
    if (handle == nullptr) return -1;
    const uint8_t v[4] = {first, middle, middle, last};
    for (int i = 0; i < 4; ++i) {
        if (!bridge_write(handle, 0x21 + i, v[i])) {
            KS_APP_ERROR("iic read failed\n");
            return -2;
        }
    }
    KS_APP_DEBUG("Done Set White Balance Param %02x, %02x, %02x", first, middle, last);
    return 0;
}

// ---- sensor model ----

int ks_get_cmos_model(_struct_ks_ctrl_device* handle, uint8_t* code) {
    uint8_t pcb = 0;
    return ks_get_HW_info(handle, &pcb, code);
}

// ---- not implemented ----

int ks_get_AE_status(void) {
    return not_implemented(__func__, __LINE__);
}

int ks_get_exposure_ov9281(void) {
    return not_implemented(__func__, __LINE__);
}

int ks_get_exposure_sony_imx225(void) {
    return not_implemented(__func__, __LINE__);
}

}  // extern "C"
