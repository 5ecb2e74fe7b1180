// Session settings: stereo matcher, image sensors, fill light, identity and
// engineering access. Settings that persist are written to the EEPROM first
// and mirrored into the driver only once saved.
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "common/ks_log.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"
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

}  // namespace

// Splits an offset into two non-negative line offsets, left - right = x, whose
// sum is a whole number of lines.
void _KestraStereoCamSDK_Impl::autoAssignLineOffsetLR(float x, float* left, float* right) {
    float h = 0.0f;
    if (std::isnan(x) || std::fabs(static_cast<double>(x)) < 1e-6) {
        *left = 0.0f;
        *right = 0.0f;
    } else if (x > 0) {
        if (x == static_cast<float>(static_cast<int32_t>(x))) {
            *left = x;
            *right = 0.0f;
        } else {
            float n = std::trunc(x) + 1.0f;
            h = (n - x) * 0.5f;
            *left = x + h;
            *right = h;
        }
    } else if (-x == static_cast<float>(static_cast<int32_t>(-x))) {
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

int _KestraStereoCamSDK_Impl::setCameraFPS(float fps) {
    ks_asic_control_prep(m_ctrl);
    int result = 0;
    uint8_t model = 0;
    if (ks_get_cmos_model(m_ctrl, &model) != 0) {
        puts("Error: Failed to query CMOS model.Unable to set FPS");
        result = -1;
    } else {
        int r;
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
