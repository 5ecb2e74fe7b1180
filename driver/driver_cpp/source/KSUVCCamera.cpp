// USB Video Class camera: construction, open, suspend and resume, frame fetch.
#include "driver/driver_cpp/source/KSUVCCamera.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {
constexpr const char* kSourcePath = "driver/driver_cpp/source/KSUVCCamera";
}

// A new camera counts as suspended until its first resume or suspend: an
// open leaves the flag as it is.
KSUVCCamera::KSUVCCamera() {
    m_video_mode = KS_VIDEO_MODE_RGBD;
}

// The list first, then the session (whose destructor releases the camera),
// then the base class's processing buffers.
KSUVCCamera::~KSUVCCamera() {
    free(m_supported_params);
    m_supported_params = nullptr;
}

void KSUVCCamera::report(int line, const char* function, const char* format, ...) {
    printf("\nFile: %s : Line: %d ->Function: %s\n", kSourcePath, line, function);
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
}

int KSUVCCamera::open_camera(const char* path) {
    Guard guard(m_mutex);
    return m_session.initKestCamera(path) != 0 ? -1 : 0;
}

int KSUVCCamera::open_camera_initCamCtrl(const char* path) {
    Guard guard(m_mutex);
    int r = m_session.initCamCtrl(path);
    if (r != 0) {
        report(__LINE__, __func__, "initCamCtrl %s return %d\n\n", path, r);
        return -1;
    }
    return 0;
}

int KSUVCCamera::open_camera_initCamSimple(const char* path) {
    Guard guard(m_mutex);
    int r = m_session.initKestCameraSimple(path, path);
    if (r != 0) {
        report(__LINE__, __func__, "initKestCameraSimple %s return %d\n\n", path, r);
        return -1;
    }
    return 0;
}

int KSUVCCamera::open_camera_by_sn(_ks_camera_list* list, const char* sn) {
    Guard guard(m_mutex);
    return m_session.initKestCameraBySN(list, sn);
}

int KSUVCCamera::get_camera_type() {
    return 0;
}

bool KSUVCCamera::is_suspend() {
    Guard guard(m_mutex);
    return m_suspended;
}

int KSUVCCamera::suspend_camera() {
    Guard guard(m_mutex);
    forget_stream();
    if (m_session.CameraStandby() != 0) return -1;
    m_suspended = true;
    return 0;
}

int KSUVCCamera::resume_camera() {
    Guard guard(m_mutex);
    forget_stream();
    if (m_session.CameraResume() != 0) return -1;
    m_suspended = false;
    return 0;
}

int KSUVCCamera::get_current_frame(unsigned long* frame_id, unsigned char** frame) {
    if (frame_id == nullptr || frame == nullptr) return -1;
    Guard guard(m_mutex);
    *frame_id = 0;
    *frame = nullptr;
    if (m_session.getCurrenFrame(&m_last_frame_id, frame) != 0) {
        *frame = nullptr;
        return -2;
    }
    *frame_id = m_last_frame_id;
    return 0;
}

int KSUVCCamera::get_safe_current_frame(unsigned long* frame_id, unsigned char** frame) {
    if (frame_id == nullptr || frame == nullptr) return -1;
    Guard guard(m_mutex);
    *frame_id = 0;
    *frame = nullptr;
    if (m_session.getSafeCurrentFrame(&m_last_frame_id, frame) != 0) {
        *frame = nullptr;
        return -2;
    }
    *frame_id = m_last_frame_id;
    return 0;
}

int KSUVCCamera::get_imu_data(_ks_imu_data_set_s** data) {
    if (data == nullptr) return -1;
    Guard guard(m_mutex);
    int r = m_session.getLatestImuData(data);
    if (r != 0) {
        report(__LINE__, __func__, "getLatestImuData fails, return %d\n\n", r);
        return -2;
    }
    return 0;
}

const char* KSUVCCamera::get_impl_level_version() {
    return m_session.getSDKImplVersion();
}

int KSUVCCamera::calculate_rect_distance(_ks_rect_distance_info_s* info) {
    Guard guard(m_mutex);
    return KSCamera::calculate_rect_distance(info);
}

int KSUVCCamera::convert_disparity_to_point_cloud(const uint16_t* disparity, uint32_t* count,
                                                  float** x, float** y, float** z) {
    Guard guard(m_mutex);
    return KSCamera::convert_disparity_to_point_cloud(disparity, count, x, y, z);
}

int KSUVCCamera::save_disparity_param(const char* file) {
    Guard guard(m_mutex);
    return KSCamera::save_disparity_param(file);
}

int KSUVCCamera::set_disparity_param(const char* file) {
    Guard guard(m_mutex);
    return KSCamera::set_disparity_param(file);
}

int KSUVCCamera::set_disparity_filter_max_and_min_distance(float max_distance, float min_distance) {
    Guard guard(m_mutex);
    return KSCamera::set_disparity_filter_max_and_min_distance(max_distance, min_distance);
}
