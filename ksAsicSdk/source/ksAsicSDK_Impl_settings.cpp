// Session settings: stereo matcher, image sensors, fill light, identity and
// engineering access. Settings that persist are written to the EEPROM first
// and mirrored into the driver only once saved.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_cmos_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"

namespace {

// Sensor model codes as the sensor layer reports them.
enum : unsigned char {
    kCmosImx225 = 1,
    kCmosOv9281 = 2,
    kCmosSc132gs = 5,
};

// Result of a sensor request for a model that has no setter.
constexpr int kUnsupportedModel = -99;
// Disparity offsets travel in 1/32 pixel.
constexpr float kDisparityUnitsPerPixel = 32.0f;
constexpr float kPixelsPerDisparityUnit = 0.03125f;
// Trigger roles as the FPGA's trigger register takes them.
constexpr uint32_t kTriggerMaster = 16;
constexpr uint32_t kTriggerSlave = 1;
constexpr uint32_t kTriggerDefault = 0;
// Output-index samples of the sensor check, and the pause between them.
constexpr int kCmosStatusSamples = 5;
constexpr unsigned kCmosStatusPauseUs = 50000;
// Metadata words of the exposure statistics: M35..M41.
constexpr int kAeFirstWord = 35;
constexpr int kAeLastWord = 41;

// Runs body between ks_asic_control_prep and ks_asic_control_post.
template <typename Body>
int bracketed(_struct_ks_ctrl_device* ctrl, Body&& body) {
    ks_asic_control_prep(ctrl);
    int result = body();
    ks_asic_control_post(ctrl);
    return result;
}

// True when every sample of a sensor's output index is the same.
bool stalled(const uint16_t* samples, int count) {
    if (count < kCmosStatusSamples) return false;  // an unread sample proves nothing
    for (int k = 1; k < count; ++k)
        if (samples[k] != samples[0]) return false;
    return true;
}

}  // namespace

// ---- stereo matcher ----

int _KestraStereoCamSDK_Impl::SetDisparityOffset(float offset) {
    const float scaled = offset * kDisparityUnitsPerPixel;
    // Beyond what an integer holds the truncation has no meaning.
    if (!(std::fabs(scaled) < 2147483648.0f)) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Invalid disparity offset %f\n",
                     static_cast<double>(offset));
        return -1;
    }
    const int16_t value = static_cast<int16_t>(static_cast<int32_t>(scaled));
    int r = ks_save_eeprom_disparity_offset(m_ctrl, value);
    if (r != 0) return r;
    // Without a stream there is nothing to mirror: the next bring-up loads it.
    r = m_driver != nullptr ? ksV4l2SetDisparityOffset(m_driver, value) : 0;
    m_disp_offset = value * kPixelsPerDisparityUnit;
    return r;
}

int _KestraStereoCamSDK_Impl::GetDisparityOffset(float* offset) {
    if (offset == nullptr) return -1;
    uint16_t stored = 0;
    const int r = ks_get_eeprom_disparity_offset(m_ctrl, &stored);
    const uint16_t driven =
        m_driver != nullptr ? static_cast<uint16_t>(ksV4l2GetDisparityOffset(m_driver)) : 0;
    if (driven != stored) {
        KS_LOG_WARN(KS_SDK_IMPL_MODULE,
                    "Warning: V4l2-disparity offset has not been initialized or set properly "
                    "[%04x]--[%04x]\n",
                    driven, stored);
    }
    m_disp_offset = static_cast<int16_t>(stored) * kPixelsPerDisparityUnit;
    *offset = m_disp_offset;
    return r;
}

int _KestraStereoCamSDK_Impl::SetRangeOffset(unsigned char range) {
    return bracketed(m_ctrl, [&] {
        int r = ks_set_asic_search_range(m_ctrl, range);
        if (r != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "set search range failed\n");
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "save search range failed\n");
            return r;
        }
        r = ks_save_eeprom_search_range(m_ctrl, range);
        if (r != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "save search range failed\n");
            return r;
        }
        if (m_driver != nullptr) ksV4l2SetSearchRangeOffset(m_driver, range);
        m_search_range = range;
        return 0;
    });
}

int _KestraStereoCamSDK_Impl::GetRangeOffset(unsigned char* range) {
    if (range == nullptr) return -1;
    return bracketed(m_ctrl, [&] {
        const int r = ks_get_asic_search_range(m_ctrl, range);
        uint8_t stored = 0;
        ks_get_eeprom_search_range(m_ctrl, &stored);
        const unsigned driven = m_driver != nullptr ? ksV4l2GetRangeOffset(m_driver) : 0;
        printf("offset [a:%d,v:%d,e:%d]\n", *range, driven, stored);
        if (r == 0) m_search_range = *range;
        return r;
    });
}

// Splits an offset into two non-negative line offsets, left - right = x, whose
// sum is a whole number of lines.
void _KestraStereoCamSDK_Impl::autoAssignLineOffsetLR(float x, float* left, float* right) {
    float h = 0.0f;
    // Floats this large are whole anyway; the test keeps the cast defined.
    const bool whole = std::fabs(x) < 2147483648.0f &&
                       std::fabs(x) == static_cast<float>(static_cast<int32_t>(std::fabs(x)));
    if (std::isnan(x) || std::fabs(static_cast<double>(x)) < 1e-6) {
        *left = 0.0f;
        *right = 0.0f;
    } else if (x > 0) {
        if (whole || std::isinf(x)) {
            *left = x;
            *right = 0.0f;
        } else {
            float n = std::trunc(x) + 1.0f;
            h = (n - x) * 0.5f;
            *left = x + h;
            *right = h;
        }
    } else if (whole || std::isinf(x)) {
        *left = 0.0f;
        *right = -x;
    } else {
        float n = std::trunc(-x) + 1.0f;
        h = (n + x) * 0.5f;
        *left = h;
        *right = h - x;
    }
    KS_LOG_TRACE(
        KS_SDK_IMPL_MODULE, "autoAssignLR: [%0.6f]->[%0.6f %0.6f %0.6f]->[%0.6f %0.6f]->[%0.6f]\n",
        static_cast<double>(x), static_cast<double>(x > 0 ? x : 0.0f),
        static_cast<double>(x < 0 ? -x : 0.0f), static_cast<double>(h), static_cast<double>(*left),
        static_cast<double>(*right), static_cast<double>(*left - *right));
}

int _KestraStereoCamSDK_Impl::_private_setLineOffset(float offset, bool save) {
    float left = 0.0f, right = 0.0f;
    autoAssignLineOffsetLR(offset, &left, &right);
    int r = ks_set_line_offset(m_ctrl, left, right);
    if (r != 0 || !save) return r;
    return ks_save_eeprom_line_offset(m_ctrl, offset);
}

int _KestraStereoCamSDK_Impl::SetLineOffset(float offset) {
    return bracketed(m_ctrl, [&] { return _private_setLineOffset(offset, true); });
}

int _KestraStereoCamSDK_Impl::GetLineOffset(float* offset) {
    if (offset == nullptr) return -1;
    return bracketed(m_ctrl, [&] {
        *offset = 0.0f;
        ks_get_eeprom_line_offset(m_ctrl, offset);
        float left = 0.0f, right = 0.0f;
        const int r = ks_get_line_offset(m_ctrl, &left, &right);
        KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "EEPROM line offset %f\n", static_cast<double>(*offset));
        KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "ASIC line offset %f (%f,%f)\n",
                     static_cast<double>(left - right), static_cast<double>(left),
                     static_cast<double>(right));
        return r;
    });
}

int _KestraStereoCamSDK_Impl::SetLineTrim(unsigned short* left, unsigned short* right) {
    return bracketed(m_ctrl, [&] { return ks_set_camera_trim(m_ctrl, left, right); });
}

int _KestraStereoCamSDK_Impl::GetLineTrim(unsigned short* left, unsigned short* right) {
    return bracketed(m_ctrl, [&] { return ks_get_camera_trim(m_ctrl, left, right); });
}

// ---- image sensors ----

int _KestraStereoCamSDK_Impl::setCameraGain(unsigned short gain) {
    return bracketed(m_ctrl, [&] {
        uint8_t model = 0;
        if (ks_get_cmos_model(m_ctrl, &model) != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Failed to get cmos model\n");
            return -1;
        }
        int r;
        switch (model) {
            case kCmosImx225:
                r = ks_set_gain_sony_imx225(m_ctrl, gain);
                break;
            case kCmosOv9281:
                r = ks_set_gain_ov9281(m_ctrl, gain);
                break;
            default:
                printf("Unsupport Cmos Model %02x\n", model);
                r = kUnsupportedModel;
                break;
        }
        if (r != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "SDK CMOS Failed %d\n", r);
            return -2;
        }
        return 0;
    });
}

int _KestraStereoCamSDK_Impl::getCameraGain(unsigned short* a, unsigned short* b) {
    return bracketed(m_ctrl, [&] {
        uint8_t model = 0;
        if (ks_get_cmos_model(m_ctrl, &model) != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Failed to get cmos model\n");
            return -1;
        }
        int r;
        switch (model) {
            case kCmosImx225:
                r = ks_get_gain_sony_imx225(m_ctrl, a, b);
                break;
            case kCmosOv9281:
                r = ks_get_gain_ov9281(m_ctrl, a, b);
                break;
            default:
                printf("Unsupport Cmos Model %02x\n", model);
                r = kUnsupportedModel;
                break;
        }
        if (r != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "SDK CMOS Failed %d\n", r);
            return -2;
        }
        return 0;
    });
}

// The exposure setters stop AE and run their own guard pair, so only the
// model query is bracketed here.
int _KestraStereoCamSDK_Impl::setCameraExposure(unsigned short exposure) {
    uint8_t model = 0;
    if (bracketed(m_ctrl, [&] { return ks_get_cmos_model(m_ctrl, &model); }) != 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Failed to get cmos model\n");
        return -1;
    }
    int r;
    switch (model) {
        case kCmosOv9281:
        case kCmosSc132gs:
            r = ks_set_exposure_ov9281(m_ctrl, exposure);
            break;
        case kCmosImx225:
            r = ks_set_exposure_sony_imx225(m_ctrl, exposure);
            break;
        default:
            printf("Unsupport Cmos Model %02x\n", model);
            r = kUnsupportedModel;
            break;
    }
    if (r != 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "SDK CMOS Failed %d\n", r);
        return -2;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::getCameraExposure(unsigned short* exposure) {
    printf("\n======\nTo Be Impl Func:\n%s()\nFile:\n%s\nLine:%d\n======\n\n", __func__,
           KS_SDK_IMPL_MODULE, __LINE__);
    return -1;
}

int _KestraStereoCamSDK_Impl::setCameraFPS(float fps) {
    ks_asic_control_prep(m_ctrl);
    int result = 0;
    uint8_t model = 0;
    if (ks_get_cmos_model(m_ctrl, &model) != 0) {
        puts("Error: Failed to query CMOS model.Unable to set FPS");
        result = -1;
    } else {
        int r;
        if (!std::isfinite(fps)) {
            // The IMX225 setter takes any number: refuse what no sensor can run at.
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Invalid fps value %f\n", static_cast<double>(fps));
            r = -2;
        } else {
            switch (model) {
                case kCmosOv9281:
                    r = ks_set_ov9281_fps(m_ctrl, fps);
                    break;
                case kCmosSc132gs:
                    r = ks_set_sc132gs_fps(m_ctrl, fps);
                    break;
                case kCmosImx225:
                    r = ks_set_sony224_fps(m_ctrl, fps);
                    break;
                default:
                    printf("Error: Unsupport Model %x\n", model);
                    r = -2;
                    break;
            }
        }
        if (r != 0) {
            printf("Set fps operation failed %d\n", r);
            result = -2;
        } else if (ks_save_current_camera_fps_to_eeprom(m_ctrl, fps) != 0) {
            puts("Save FPS to info failed");
            result = -3;
        } else if (m_driver != nullptr) {
            setV4l2StreamFPS(m_driver, fps);
        }
    }
    ks_asic_control_post(m_ctrl);
    return result;
}

// A failed erase returns with the guard pair still open; the bring-up that
// follows a good erase power-cycles the camera, which comes up at its own
// rate.
int _KestraStereoCamSDK_Impl::restoreCameraDefaultFPS() {
    ks_asic_control_prep(m_ctrl);
    int r = ks_erase_camera_fps_config(m_ctrl);
    if (r != 0) return r;
    ks_asic_control_post(m_ctrl);
    r = ks_camera_hardware_bringup(m_ctrl);
    return r != 0 ? r - 10 : 0;
}

int _KestraStereoCamSDK_Impl::getWhiteBalanceParam(unsigned short* first, unsigned short* middle,
                                                   unsigned short* last) {
    if (first == nullptr || middle == nullptr || last == nullptr) return -1;
    // The middle gain is reported only when both green sites agree.
    uint8_t a = 0, b = static_cast<uint8_t>(*middle), c = 0;
    const int r = bracketed(m_ctrl, [&] { return ks_get_white_balance_param(m_ctrl, &a, &b, &c); });
    if (r != 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "SDK CMOS Failed %d\n", r);
        return -1;
    }
    *first = a;
    *middle = b;
    *last = c;
    return 0;
}

// Each gain register takes one byte: higher bits are dropped.
int _KestraStereoCamSDK_Impl::setWhiteBalanceParam(unsigned short first, unsigned short middle,
                                                   unsigned short last) {
    const int r = bracketed(m_ctrl, [&] {
        return ks_set_white_balance_param(m_ctrl, static_cast<uint8_t>(first),
                                          static_cast<uint8_t>(middle), static_cast<uint8_t>(last));
    });
    if (r != 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "SDK CMOS Failed %d\n", r);
        return -1;
    }
    return 0;
}

// ---- fill light and trigger ----

int _KestraStereoCamSDK_Impl::setFillLightMode(int mode) {
    uint8_t intensity = 0;
    if (ks_get_fill_light_intensity(m_ctrl, &intensity) != 0) {
        puts("Get current fill intensity failed");
        puts("FPGA Status err");
        return -2;
    }
    if (intensity == 0) intensity = 48;  // the default brightness
    switch (mode) {
        case KS_FILLLIGHT_TYPE_OFF:
            return ks_fill_light_intensity_control(m_ctrl, 0);
        case KS_FILLLIGHT_TYPE_CTRL_MODE_1: {
            const int r = ks_fill_light_intensity_control(m_ctrl, intensity);
            return r != 0 ? r : ks_fill_light_mode_control(m_ctrl, 1);
        }
        case KS_FILLLIGHT_TYPE_CTRL_MODE_0: {
            const int r = ks_fill_light_intensity_control(m_ctrl, intensity);
            const int m = ks_fill_light_mode_control(m_ctrl, 0);
            return r != 0 ? r : m;
        }
        case KS_FILLLIGHT_TYPE_ALTERNATE:
            puts("Fill light alternate on/off mode not support yet!");
            return -1;
        default:
            printf("Invalid mode: [%d]\n", mode);
            return -1;
    }
}

int _KestraStereoCamSDK_Impl::getFillLightMode(int* mode) {
    if (mode == nullptr) return -1;
    uint8_t intensity = 0;
    int r = ks_get_fill_light_intensity(m_ctrl, &intensity);
    if (r != 0) {
        puts("Get fill light brightness failed");
        return r;
    }
    uint16_t hardware = 0;
    r = ks_get_fill_light_mode(m_ctrl, &hardware);
    if (r != 0) {
        puts("get fiil light mode failed");
        return r;
    }
    if (intensity == 0) {
        *mode = KS_FILLLIGHT_TYPE_OFF;
    } else if (hardware == 1) {
        *mode = KS_FILLLIGHT_TYPE_CTRL_MODE_1;
    } else if (hardware == 0) {
        *mode = KS_FILLLIGHT_TYPE_CTRL_MODE_0;
    } else {
        puts("Unexpected ctrl mode");
        return -1;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::setFillLightIntensity(unsigned char intensity) {
    return ks_fill_light_intensity_control(m_ctrl, intensity);
}

int _KestraStereoCamSDK_Impl::getFillLightIntensity(unsigned char* intensity) {
    return ks_get_fill_light_intensity(m_ctrl, intensity);
}

int _KestraStereoCamSDK_Impl::setCamTriggerMaster() {
    return ks_cam_trigger_setting(m_ctrl, kTriggerMaster);
}

int _KestraStereoCamSDK_Impl::setCamTriggerSlave() {
    return ks_cam_trigger_setting(m_ctrl, kTriggerSlave);
}

int _KestraStereoCamSDK_Impl::setCamTriggerDefault() {
    return ks_cam_trigger_setting(m_ctrl, kTriggerDefault);
}

// ---- identity ----

int _KestraStereoCamSDK_Impl::setCameraSN(const char* sn) {
    if (sn == nullptr) return -1;
    const int r = ks_erase_camera_sn(m_ctrl);
    if (r != 0) {
        puts("Erase SN error");
        return r;
    }
    return ks_save_camera_sn(m_ctrl, sn, static_cast<uint8_t>(strlen(sn) & 255));
}

int _KestraStereoCamSDK_Impl::getCameraSN(char* sn) {
    return ks_get_camera_sn(m_ctrl, sn);
}

int _KestraStereoCamSDK_Impl::eraseCameraSN() {
    return ks_erase_camera_sn(m_ctrl);
}

int _KestraStereoCamSDK_Impl::getCmosSensorModel(unsigned char* code) {
    return ks_get_cmos_model(m_ctrl, code);
}

// The name follows whatever the code holds, also after a failed read.
int _KestraStereoCamSDK_Impl::getCmosSensorModel(unsigned char* code, const char** name) {
    if (code == nullptr) return -1;
    const int r = ks_get_cmos_model(m_ctrl, code);
    if (name != nullptr) *name = ks_get_cmos_model_name(*code);
    return r;
}

// ---- sensor health and exposure statistics ----

int _KestraStereoCamSDK_Impl::checkCmosStatus() {
    uint16_t left[kCmosStatusSamples] = {};
    uint16_t right[kCmosStatusSamples] = {};
    int taken = 0;
    bracketed(m_ctrl, [&] {
        for (; taken < kCmosStatusSamples; ++taken) {
            const int r = ks_load_cmos_output_idx(m_ctrl, &left[taken], &right[taken]);
            if (r != 0) {
                KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Load Cmos IDX ERROR %d", r);
                break;
            }
            KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "[%lu]CMOS IDX [%d--%d]",
                         static_cast<unsigned long>(taken), left[taken], right[taken]);
            ks_sys_usleep(kCmosStatusPauseUs);
        }
        return 0;
    });
    const bool left_stalled = stalled(left, taken);
    const bool right_stalled = stalled(right, taken);
    if (left_stalled && right_stalled) return -3;
    if (left_stalled) return -1;
    if (right_stalled) return -2;
    return 0;
}

int _KestraStereoCamSDK_Impl::checkNuvexCmosIDX(unsigned short* left, unsigned short* right) {
    return bracketed(m_ctrl, [&] { return ks_load_cmos_output_idx(m_ctrl, left, right); });
}

// Read from the metadata line of the last frame the parsers cut; fails when
// there is no line holding the statistics words.
int _KestraStereoCamSDK_Impl::getLastestAeStatFromImage(unsigned int** stats) {
    if (stats == nullptr) return -1;
    if (m_meta == nullptr || m_driver == nullptr || m_driver->width <= kAeLastWord) return -1;
    unsigned int m[kAeLastWord - kAeFirstWord + 1];
    for (int k = kAeFirstWord; k <= kAeLastWord; ++k) m[k - kAeFirstWord] = m_meta[k];
    const unsigned int m35 = m[0], m36 = m[1], m37 = m[2], m38 = m[3], m39 = m[4], m40 = m[5],
                       m41 = m[6];
    m_ae_stats[0] = ((m35 << 4) + ((m36 & 0xF00) >> 8)) >> 1;
    m_ae_stats[1] = (((m36 << 8) & 0xFF00) + ((m37 & 0xFF0) >> 4)) * 2;
    m_ae_stats[2] = m38 + ((m37 << 12) & 0xF000);
    m_ae_stats[3] = (((m40 & 0xF00) >> 8) + (m39 << 4)) * 2;
    m_ae_stats[4] = ((m40 << 8) & 0xFF00) + ((m41 & 0xFF0) >> 4);
    *stats = m_ae_stats;
    return 0;
}

// ---- IMU ----

int _KestraStereoCamSDK_Impl::getLatestImuData(_ks_imu_data_s** data) {
    if (m_imu == nullptr) {
        puts("Imu module not initialized");
        return -100;
    }
    return get_new_imu_data(m_imu, data);
}

int _KestraStereoCamSDK_Impl::pauseImuModule() {
    if (m_imu == nullptr) {
        puts("IMU module not initialized");
        return -1;
    }
    return pause_Imu_Module(m_imu);
}

int _KestraStereoCamSDK_Impl::resumeImuModule() {
    if (m_imu == nullptr) {
        puts("IMU module not initialized");
        return -1;
    }
    return resume_Imu_Module(m_imu);
}

// ---- versions and hardware ----

int _KestraStereoCamSDK_Impl::getCameraHardwareInfo(unsigned char* pcb, unsigned char* sensor) {
    return ks_get_HW_info(m_ctrl, pcb, sensor);
}

int _KestraStereoCamSDK_Impl::getFpgaVersion(unsigned char* major, unsigned char* minor) {
    return ks_get_FPGA_version(m_ctrl, major, minor);
}

int _KestraStereoCamSDK_Impl::getFpgaReleaseDate(unsigned char* first, unsigned char* second,
                                                 unsigned char* third) {
    return ks_get_FPGA_release_date(m_ctrl, first, second, third);
}

int _KestraStereoCamSDK_Impl::getUsbVersion(char* version) {
    return static_cast<int>(ks_get_usb_version(m_ctrl, version));
}

int _KestraStereoCamSDK_Impl::getUsbResetNuvexCnt(unsigned int* count) {
    return static_cast<int>(ks_get_usb_nuvex_reset_cnt(m_ctrl, count));
}

int _KestraStereoCamSDK_Impl::getCameraCmosSwapMode(unsigned char* mode) {
    return bracketed(m_ctrl, [&] { return ks_get_cmos_swap_mode(m_ctrl, mode); });
}

// ---- engineering access ----

int _KestraStereoCamSDK_Impl::writeNuvexRegisterVal(unsigned short reg, unsigned short value) {
    return bracketed(m_ctrl,
                     [&] { return static_cast<int>(ks_write_nuvex_register(m_ctrl, reg, value)); });
}

int _KestraStereoCamSDK_Impl::readNuvexRegisterVal(unsigned short reg, unsigned short* value) {
    if (value == nullptr) return -1;
    return bracketed(m_ctrl,
                     [&] { return static_cast<int>(ks_read_nuvex_register(m_ctrl, reg, value)); });
}

int _KestraStereoCamSDK_Impl::writeEEpromAddressVal(unsigned short address, unsigned short value) {
    return bracketed(
        m_ctrl, [&] { return static_cast<int>(ks_write_nuvex_eeprom(m_ctrl, address, value)); });
}

int _KestraStereoCamSDK_Impl::readEEpromAddressVal(unsigned short address, unsigned short* value) {
    if (value == nullptr) return -1;
    return bracketed(
        m_ctrl, [&] { return static_cast<int>(ks_read_nuvex_eeprom(m_ctrl, address, value)); });
}

// The verified write needs the sensor bridge open, which nothing else keeps
// open across a power-up.
int _KestraStereoCamSDK_Impl::writeCmosRegisterVal(unsigned short reg, unsigned short value) {
    return bracketed(m_ctrl, [&] {
        int r = _ks_cmos_ctrl_prep(m_ctrl);
        if (r != 0) return r;
        r = ks_write_cmos_register_through_nuvex(m_ctrl, reg, value);
        _ks_cmos_ctrl_post(m_ctrl);
        return r;
    });
}

int _KestraStereoCamSDK_Impl::readCmosRegisterVal(unsigned short reg, unsigned short* value) {
    puts("Unsupport");
    return -1;
}

int _KestraStereoCamSDK_Impl::writeFpgaRegisterVal(unsigned short reg, unsigned short value) {
    return ks_write_fpga_register(m_ctrl, reg, value);
}

int _KestraStereoCamSDK_Impl::readFpgaRegisterVal(unsigned short reg, unsigned short* value) {
    return ks_read_fpga_register(m_ctrl, reg, value);
}
