// USB Video Class camera: images, video modes, stream parameters, EPR slots.
#include <cstdlib>
#include <vector>

#include "driver/driver_cpp/source/KSUVCCamera.h"

namespace {

// Results of get_rgbd_image beyond the common ones.
constexpr int kNoStreamInfo = -3;
constexpr int kProcessingShift = 4;  // a processing failure r is reported as r - 4
constexpr int kModeWithoutDisparity = -14;
// Result of the session when no stream descriptor is stored.
constexpr int kNoCurrentStreamInfo = -13;
constexpr uint16_t kDefaultWidth = 1280;
constexpr uint16_t kDefaultHeight = 720;

bool is_empty(const char* text) {
    return text == nullptr || text[0] == '\0';
}

// The two records keep width and height in opposite order: field by field.
_struct_epr_info to_epr_info(const _ks_video_param_s& p) {
    _struct_epr_info info = {};
    info.index = static_cast<int8_t>(p.index);
    info.width = p.width;
    info.height = p.height;
    info.reserved_a = p.reserved_a;
    info.reserved_b = p.reserved_b;
    return info;
}

_ks_video_param_s to_video_param(const _struct_epr_info& info) {
    _ks_video_param_s p = {};
    p.index = static_cast<uint8_t>(info.index);
    p.width = info.width;
    p.height = info.height;
    p.reserved_a = info.reserved_a;
    p.reserved_b = info.reserved_b;
    return p;
}

}  // namespace

void KSUVCCamera::forget_stream() {
    m_src = nullptr;
    m_first_image = nullptr;
    m_second_image = nullptr;
    m_meta = nullptr;
    m_image_width = 0;
    m_image_height = 0;
    m_bxf = 0.0f;
    m_baseline = 0.0f;
    m_focal = 0.0f;
}

// ---- video modes ----

int KSUVCCamera::set_video_mode(_ks_video_mode_e mode) {
    Guard guard(m_mutex);
    int r;
    switch (mode) {
        case KS_VIDEO_MODE_STEREO_ORIGIN:
            r = m_session.SwitchToStereoOrigin();
            break;
        case KS_VIDEO_MODE_STEREO_RECTIFIED:
            r = m_session.SwitchToStereoRectified();
            break;
        case KS_VIDEO_MODE_RGBD:
            r = m_session.SwitchToRGBD();
            break;
        case KS_VIDEO_MODE_DENSE_DISPARITY:
        case KS_VIDEO_MODE_FILTERED_DISPARITY:
            r = m_session.SwitchToOriginDisparity();
            break;
        default:
            return -1;
    }
    if (r != 0) return -1;
    m_video_mode = mode;
    return 0;
}

// Modes 10 and 11 share the origin-disparity channel: the stored mode tells
// them apart, and that channel under another stored mode is reported as -3.
int KSUVCCamera::get_video_mode(_ks_video_mode_e* mode) {
    if (mode == nullptr) return -1;
    Guard guard(m_mutex);
    const int channel = m_session.getChannel();
    _ks_video_mode_e reported;
    switch (channel) {
        case KS_SESSION_CHANNEL_ORIGIN:
            reported = KS_VIDEO_MODE_STEREO_ORIGIN;
            break;
        case KS_SESSION_CHANNEL_RECTIFIED:
            reported = KS_VIDEO_MODE_STEREO_RECTIFIED;
            break;
        case KS_SESSION_CHANNEL_RGBD:
            reported = KS_VIDEO_MODE_RGBD;
            break;
        case KS_SESSION_CHANNEL_ORIGIN_DISPARITY:
            if (m_video_mode != KS_VIDEO_MODE_DENSE_DISPARITY &&
                m_video_mode != KS_VIDEO_MODE_FILTERED_DISPARITY)
                return -3;
            reported = m_video_mode;
            break;
        default:
            return -2;
    }
    *mode = reported;
    m_video_mode = reported;
    return 0;
}

int KSUVCCamera::switch_to_origin_disparity() {
    Guard guard(m_mutex);
    return m_session.SwitchToOriginDisparity() != 0 ? -1 : 0;
}

int KSUVCCamera::get_bxf_and_base(float* bxf, float* base) {
    if (bxf == nullptr || base == nullptr) return -1;
    Guard guard(m_mutex);
    return m_session.GetCameraBxfBase(bxf, base) != 0 ? -2 : 0;
}

// ---- images ----

int KSUVCCamera::get_rgbd_image(unsigned char* src, unsigned char** disparity,
                                unsigned char** image) {
    if (src == nullptr || disparity == nullptr || image == nullptr) return -1;
    Guard guard(m_mutex);
    *disparity = nullptr;
    *image = nullptr;
    unsigned char* parsed_image = nullptr;
    unsigned short* parsed_disparity = nullptr;
    unsigned short* meta = nullptr;
    if (m_session.parseToRgbdImage(src, &parsed_image, &parsed_disparity, &meta) != 0) return -2;
    m_src = src;
    m_first_image = parsed_image;
    m_second_image = reinterpret_cast<unsigned char*>(parsed_disparity);
    m_meta = meta;

    if (m_video_mode == KS_VIDEO_MODE_DENSE_DISPARITY ||
        m_video_mode == KS_VIDEO_MODE_FILTERED_DISPARITY) {
        // The processing walks the stored size over the session's planes:
        // a size that is not theirs (none yet, or a descriptor amended since)
        // is read again and must then fit.
        const uint16_t width = m_session.imageBufferWidth();
        const uint16_t height = m_session.imageBufferHeight();
        if (m_image_width != width || m_image_height != height) {
            _struct_epr_info info = {};
            if (m_session.getCurrentStreamInfo(&info) != 0) return kNoStreamInfo;
            m_image_width = info.width;
            m_image_height = info.height;
            if (m_image_width != width || m_image_height != height) return kNoStreamInfo;
        }
        const int r =
            m_video_mode == KS_VIDEO_MODE_DENSE_DISPARITY
                ? dense_disparity(m_image_width, m_image_height, parsed_disparity, parsed_image)
                : filter_disparity(m_image_width, m_image_height, parsed_disparity, parsed_image);
        if (r != 0) return r - kProcessingShift;
    } else if (m_video_mode != KS_VIDEO_MODE_RGBD) {
        return kModeWithoutDisparity;
    }
    *disparity = reinterpret_cast<unsigned char*>(parsed_disparity);
    *image = parsed_image;
    return 0;
}

int KSUVCCamera::get_rgbd_disparity_data(unsigned char* src, unsigned char** disparity) {
    if (src == nullptr || disparity == nullptr) return -1;
    Guard guard(m_mutex);
    *disparity = nullptr;
    unsigned char* image = nullptr;
    return get_rgbd_image(src, disparity, &image) != 0 ? -2 : 0;
}

int KSUVCCamera::get_rgbd_yuvi420_image(unsigned char* src, unsigned char** image) {
    if (src == nullptr || image == nullptr) return -1;
    Guard guard(m_mutex);
    *image = nullptr;
    unsigned char* parsed_image = nullptr;
    unsigned short* parsed_disparity = nullptr;
    unsigned short* meta = nullptr;
    if (m_session.parseToRgbdImage(src, &parsed_image, &parsed_disparity, &meta) != 0) return -2;
    m_src = src;
    m_first_image = parsed_image;
    m_second_image = reinterpret_cast<unsigned char*>(parsed_disparity);
    m_meta = meta;
    *image = parsed_image;
    return 0;
}

int KSUVCCamera::get_raw_image(unsigned char* src, unsigned char** left, unsigned char** right) {
    if (src == nullptr || left == nullptr || right == nullptr) return -1;
    Guard guard(m_mutex);
    *left = nullptr;
    *right = nullptr;
    unsigned short* first = nullptr;
    unsigned short* second = nullptr;
    unsigned short* meta = nullptr;
    if (m_session.parseToRawImage(src, &first, &second, &meta) != 0) return -2;
    m_src = src;
    m_first_image = reinterpret_cast<unsigned char*>(first);
    m_second_image = reinterpret_cast<unsigned char*>(second);
    m_meta = meta;
    *left = m_first_image;
    *right = m_second_image;
    return 0;
}

int KSUVCCamera::get_raw_left_bayer_image(unsigned char* src, unsigned char** image) {
    if (src == nullptr || image == nullptr) return -1;
    Guard guard(m_mutex);
    unsigned char* right = nullptr;
    return get_raw_image(src, image, &right);
}

int KSUVCCamera::get_raw_right_bayer_image(unsigned char* src, unsigned char** image) {
    if (src == nullptr || image == nullptr) return -1;
    Guard guard(m_mutex);
    unsigned char* left = nullptr;
    return get_raw_image(src, &left, image);
}

// The rectified parser never reports a failure: a frame it cannot cut leaves
// the previous frame's images in place. Before any image exists there is
// nothing to hand out.
int KSUVCCamera::get_rectified_image(unsigned char* src, unsigned char** left,
                                     unsigned char** right) {
    if (src == nullptr || left == nullptr || right == nullptr) return -1;
    Guard guard(m_mutex);
    *left = nullptr;
    *right = nullptr;
    unsigned char* grey = m_first_image;
    unsigned char* colour = m_second_image;
    unsigned short* meta = m_meta;
    if (m_session.parseToRectifiedImage(src, &grey, &colour, &meta) != 0) return -2;
    if (grey == nullptr || colour == nullptr) return -2;
    m_src = src;
    m_first_image = grey;
    m_second_image = colour;
    m_meta = meta;
    *left = grey;
    *right = colour;
    return 0;
}

int KSUVCCamera::get_rectified_left_gray_image(unsigned char* src, unsigned char** image) {
    if (src == nullptr || image == nullptr) return -1;
    Guard guard(m_mutex);
    unsigned char* right = nullptr;
    return get_rectified_image(src, image, &right);
}

int KSUVCCamera::get_rectified_right_yuvi420_image(unsigned char* src, unsigned char** image) {
    if (src == nullptr || image == nullptr) return -1;
    Guard guard(m_mutex);
    unsigned char* left = nullptr;
    return get_rectified_image(src, &left, image);
}

int KSUVCCamera::get_rgbd_image_with_timestamp(unsigned char* src, unsigned char** disparity,
                                               unsigned char** image, unsigned long* timestamp) {
    Guard guard(m_mutex);
    const int r = get_rgbd_image(src, disparity, image);
    if (r != 0) return r;
    return m_session.frameInfoProcess(m_meta, timestamp);
}

int KSUVCCamera::get_rectified_image_with_timestamp(unsigned char* src, unsigned char** left,
                                                    unsigned char** right,
                                                    unsigned long* timestamp) {
    Guard guard(m_mutex);
    const int r = get_rectified_image(src, left, right);
    if (r != 0) return r;
    return m_session.frameInfoProcess(m_meta, timestamp);
}

int KSUVCCamera::get_raw_image_with_timestamp(unsigned char* src, unsigned char** left,
                                              unsigned char** right, unsigned long* timestamp) {
    Guard guard(m_mutex);
    const int r = get_raw_image(src, left, right);
    if (r != 0) return r;
    return m_session.frameInfoProcess(m_meta, timestamp);
}

unsigned short* KSUVCCamera::get_mata_data_pointer() {
    Guard guard(m_mutex);
    return m_meta;
}

int KSUVCCamera::get_image_channel_from_src_data(unsigned char* src, unsigned char* channel) {
    Guard guard(m_mutex);
    return m_session.parseImageChannelFromSrc(src, channel);
}

int KSUVCCamera::get_realtime_fps(double* fps) {
    if (fps == nullptr) return -1;
    Guard guard(m_mutex);
    return m_session.getRealTimeFPS(fps) != 0 ? -2 : 0;
}

// ---- stream parameters ----

int KSUVCCamera::get_supported_video_param(_ks_video_param_s** list, uint8_t* count) {
    if (list == nullptr || count == nullptr) return -1;
    Guard guard(m_mutex);
    *list = nullptr;
    *count = 0;
    std::vector<_struct_epr_info> infos;
    if (m_session.querySupportedStreamInfo(infos) != 0) return -2;
    free(m_supported_params);
    m_supported_params = nullptr;
    m_supported_count = 0;
    if (infos.empty()) return -3;
    m_supported_params =
        static_cast<_ks_video_param_s*>(malloc(infos.size() * sizeof(_ks_video_param_s)));
    if (m_supported_params == nullptr) return -4;
    for (size_t i = 0; i < infos.size(); ++i) m_supported_params[i] = to_video_param(infos[i]);
    m_supported_count = static_cast<uint8_t>(infos.size());
    *list = m_supported_params;
    *count = m_supported_count;
    return 0;
}

// Only a configuration of the last listing is selected; its slot's stream
// restarts at the new size.
int KSUVCCamera::set_video_param(uint8_t index) {
    Guard guard(m_mutex);
    if (m_supported_params == nullptr || m_supported_count == 0) return -1;
    const _ks_video_param_s* entry = nullptr;
    for (uint8_t i = 0; i < m_supported_count; ++i) {
        if (m_supported_params[i].index == index) {
            entry = &m_supported_params[i];
            break;
        }
    }
    if (entry == nullptr || entry->width == 0 || entry->height == 0) return -2;
    const _ks_video_param_s chosen = *entry;
    forget_stream();
    if (m_session.setStreamMode(to_epr_info(chosen)) != 0) return -3;
    m_image_width = chosen.width;
    m_image_height = chosen.height;
    return 0;
}

int KSUVCCamera::get_video_param(uint8_t* index) {
    if (index == nullptr) return -1;
    Guard guard(m_mutex);
    *index = 0;
    _struct_epr_info info = {};
    if (m_session.getCurrentStreamInfo(&info) != 0) return -2;
    *index = static_cast<uint8_t>(info.index);
    m_image_width = info.width;
    m_image_height = info.height;
    return 0;
}

// A camera without a stored descriptor streams at the driver's default size.
int KSUVCCamera::get_video_resolution(uint16_t* width, uint16_t* height) {
    if (width == nullptr || height == nullptr) return -1;
    Guard guard(m_mutex);
    *width = 0;
    *height = 0;
    _struct_epr_info info = {};
    const int r = m_session.getCurrentStreamInfo(&info);
    if (r == kNoCurrentStreamInfo) {
        info.width = kDefaultWidth;
        info.height = kDefaultHeight;
    } else if (r != 0) {
        report(__LINE__, __func__, "getCurrentStreamInfo fails, return %d\n\n", r);
        return -2;
    }
    m_image_width = info.width;
    m_image_height = info.height;
    *width = info.width;
    *height = info.height;
    return 0;
}

// ---- EPR slots ----

int KSUVCCamera::upload_epr_file(const char* path, const _ks_video_param_s* param) {
    if (param == nullptr || is_empty(path)) return -1;
    Guard guard(m_mutex);
    _struct_epr_info info = to_epr_info(*param);
    forget_stream();
    return m_session.uploadEPRtoCamera(path, &info) != 0 ? -2 : 0;
}

int KSUVCCamera::store_epr_file_with_video_frame_param(const char* path,
                                                       const _ks_video_param_s* param) {
    if (param == nullptr || is_empty(path)) return -1;
    Guard guard(m_mutex);
    _struct_epr_info info = to_epr_info(*param);
    return m_session.uploadEPRWithStreamInfo(path, &info) != 0 ? -2 : 0;
}

int KSUVCCamera::amend_video_frame_param(const _ks_video_param_s* param) {
    if (param == nullptr) return -1;
    Guard guard(m_mutex);
    _struct_epr_info info = to_epr_info(*param);
    return m_session.amendStreamInfo(&info) != 0 ? -1 : 0;
}

int KSUVCCamera::store_epr_file(const char* path, uint8_t slot) {
    if (is_empty(path)) return -1;
    Guard guard(m_mutex);
    return m_session.uploadEPRtoSlots(path, slot) != 0 ? -2 : 0;
}

int KSUVCCamera::select_epr_file(uint8_t slot) {
    Guard guard(m_mutex);
    forget_stream();
    return m_session.selectEPRParameter(slot) != 0 ? -1 : 0;
}

int KSUVCCamera::show_all_custom_eeprom() {
    Guard guard(m_mutex);
    return m_session.showAllCustomEEPROM() != 0 ? -1 : 0;
}

int KSUVCCamera::upload_fpga_bit_file(const char* path) {
    if (path == nullptr) return -1;
    Guard guard(m_mutex);
    return m_session.uploadFpgaBitFile(path) != 0 ? -2 : 0;
}

int KSUVCCamera::upload_camera_epr_for_auto_calibration(uint8_t slot, const char* dir) {
    Guard guard(m_mutex);
    return m_session.ksUploadEprWithAutoCalibrationDir(slot, dir);
}

int KSUVCCamera::back_up_effective_epr_file(const char* path) {
    Guard guard(m_mutex);
    return m_session.downloadEffectiveEprParameter(path);
}

int KSUVCCamera::reset_camera_to_factory_state() {
    Guard guard(m_mutex);
    return m_session.restoreCameraToInitialState();
}

int KSUVCCamera::get_rectify_optical_center(float* cx, float* cy) {
    Guard guard(m_mutex);
    return m_session.getCurrentRectifyCamOpticalCenter(cx, cy);
}
