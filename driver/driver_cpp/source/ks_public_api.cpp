// The exported C functions: argument checks, clearing of the caller's output
// pointers, narrowing, and mapping of the camera layer's results to the public
// codes (0 success, -1 invalid handle or argument, -2 the operation failed).
// No exception leaves this file.
#include <cstdio>
#include <cstring>

#include "common/ks_log.h"
#include "driver/driver_cpp/source/KSCamera.h"
#include "driver/driver_cpp/source/KSCameraFactory.h"
#include "driver/driver_cpp/source/KSUVCCameraFactory.h"
#include "ksAsicSdk/source/deviceDetectHelper.h"
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"
#include "ks_v4l2_driver/source/ks_v4l2_meta_shm.h"

namespace {

constexpr const char* kSdkVersion = "1.4.7.273";
constexpr unsigned short kMaxExposure = 800;
constexpr size_t kMaxSerialLength = 16;

// Runs a wrapper body; an escaping exception reports a failed operation.
template <typename F>
int guarded(F&& body) {
    try {
        return body();
    } catch (...) {
        return -2;
    }
}

int failed_if_nonzero(int result) {
    return result != 0 ? -2 : 0;
}

bool is_empty(const char* text) {
    return text == nullptr || text[0] == '\0';
}

template <typename... P>
bool any_null(const P*... pointers) {
    return ((pointers == nullptr) || ...);
}

template <typename... P>
void clear(P**... outputs) {
    ((*outputs = nullptr), ...);
}

// Open through a factory: the caller's handle is set only on success.
template <typename Open>
int open_with(KSCameraFactory* factory, KSCameraAbstract** out, Open&& open) {
    return guarded([&] {
        KSCameraAbstract* camera = nullptr;
        int result = factory != nullptr ? open(factory, out != nullptr ? &camera : nullptr) : -2;
        if (out != nullptr) *out = (result == 0 && camera != nullptr) ? camera : nullptr;
        return result;
    });
}

KSCameraFactory* factory_of_type(int type) {
    switch (type) {
        case 0:
            return g_pUVCCameraFactory;
        case 1:
            return g_pMIPICameraFactory;
        case 2:
            return g_pEthernetCameraFactory;
        default:
            return nullptr;
    }
}

}  // namespace

extern "C" {

// ---- open and close ----

int ksOpenUVCCameraByPath(const char* path, KSCameraAbstract** out) {
    return open_with(g_pUVCCameraFactory, out, [&](KSCameraFactory* f, KSCameraAbstract** cam) {
        return f->get_camera_by_path(path, cam);
    });
}

int ksOpenUVCCameraByNumber(int number, KSCameraAbstract** out) {
    return open_with(g_pUVCCameraFactory, out, [&](KSCameraFactory* f, KSCameraAbstract** cam) {
        return f->get_camera_by_number(static_cast<unsigned char>(number), cam);
    });
}

int ksOpenMIPICameraByPath(const char* path, KSCameraAbstract** out) {
    return open_with(g_pMIPICameraFactory, out, [&](KSCameraFactory* f, KSCameraAbstract** cam) {
        return f->get_camera_by_path(path, cam);
    });
}

int ksOpenMIPICameraByNumber(int number, KSCameraAbstract** out) {
    return open_with(g_pMIPICameraFactory, out, [&](KSCameraFactory* f, KSCameraAbstract** cam) {
        return f->get_camera_by_number(static_cast<unsigned char>(number), cam);
    });
}

int ksOpenEthernetCameraByPath(const char* path, KSCameraAbstract** out) {
    return open_with(g_pEthernetCameraFactory, out,
                     [&](KSCameraFactory* f, KSCameraAbstract** cam) {
                         return f->get_camera_by_path(path, cam);
                     });
}

int ksOpenEthernetCameraByIp(const char* ip, KSCameraAbstract** out) {
    return open_with(
        g_pEthernetCameraFactory, out,
        [&](KSCameraFactory* f, KSCameraAbstract** cam) { return f->get_camera_by_ip(ip, cam); });
}

int ksOpenUVCCameraByPathCallInitCamCtrl(const char* path, KSCameraAbstract** out) {
    return open_with(g_pUVCCameraFactory, out, [&](KSCameraFactory* f, KSCameraAbstract** cam) {
        return static_cast<KSUVCCameraFactory*>(f)->create_camera_by_path_initCamCtrl(path, cam);
    });
}

int ksOpenUVCCameraByPathCallInitKestCameraSimple(const char* path, KSCameraAbstract** out) {
    return open_with(g_pUVCCameraFactory, out, [&](KSCameraFactory* f, KSCameraAbstract** cam) {
        return static_cast<KSUVCCameraFactory*>(f)->create_camera_by_path_initCamSimple(path, cam);
    });
}

int ksOpenUVCCameraBySN(_ks_camera_list* list, const char* sn, KSCameraAbstract** out) {
    if (out == nullptr) return -1;
    *out = nullptr;
    return guarded([&] { return ks_open_uvc_camera_by_sn(list, sn, out); });
}

// Always 0 once the handle is valid: the caller's handle is gone either way.
int ksCloseCamera(KSCameraAbstract** handle) {
    if (handle == nullptr || *handle == nullptr) return -1;
    guarded([&] {
        KSCameraFactory* factory = factory_of_type((*handle)->get_camera_type());
        if (factory != nullptr) factory->close_camera(handle);
        return 0;
    });
    *handle = nullptr;
    return 0;
}

int ksSuspendCamera(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->suspend_camera()); });
}

int ksResumeCamera(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] {
        if (!h->is_suspend()) return 0;
        return failed_if_nonzero(h->resume_camera());
    });
}

// ---- frames and images ----

int ksGetCurrentFrame(KSCameraAbstract* h, unsigned long* frame_id, unsigned char** frame) {
    if (any_null(h, frame_id, frame)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_current_frame(frame_id, frame)); });
}

int ksGetSafeCurrentFrame(KSCameraAbstract* h, unsigned long* frame_id, unsigned char** frame) {
    if (any_null(h, frame_id, frame)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_safe_current_frame(frame_id, frame)); });
}

int ksGetRGBDImage(KSCameraAbstract* h, unsigned char* src, unsigned char** disparity,
                   unsigned char** image) {
    if (any_null(h, src, disparity, image)) return -1;
    clear(disparity, image);
    return guarded([&] { return failed_if_nonzero(h->get_rgbd_image(src, disparity, image)); });
}

int ksGetRGBDDisparityData(KSCameraAbstract* h, unsigned char* src, unsigned char** disparity) {
    if (any_null(h, src, disparity)) return -1;
    clear(disparity);
    return guarded([&] { return failed_if_nonzero(h->get_rgbd_disparity_data(src, disparity)); });
}

int ksGetRGBDYUVI420Image(KSCameraAbstract* h, unsigned char* src, unsigned char** image) {
    if (any_null(h, src, image)) return -1;
    clear(image);
    return guarded([&] { return failed_if_nonzero(h->get_rgbd_yuvi420_image(src, image)); });
}

int ksGetRawImage(KSCameraAbstract* h, unsigned char* src, unsigned char** left,
                  unsigned char** right) {
    if (any_null(h, src, left, right)) return -1;
    clear(left, right);
    return guarded([&] { return failed_if_nonzero(h->get_raw_image(src, left, right)); });
}

int ksGetRawLeftBayerImage(KSCameraAbstract* h, unsigned char* src, unsigned char** image) {
    if (any_null(h, src, image)) return -1;
    clear(image);
    return guarded([&] { return failed_if_nonzero(h->get_raw_left_bayer_image(src, image)); });
}

int ksGetRawRightBayerImage(KSCameraAbstract* h, unsigned char* src, unsigned char** image) {
    if (any_null(h, src, image)) return -1;
    clear(image);
    return guarded([&] { return failed_if_nonzero(h->get_raw_right_bayer_image(src, image)); });
}

int ksGetRectifiedImage(KSCameraAbstract* h, unsigned char* src, unsigned char** left,
                        unsigned char** right) {
    if (any_null(h, src, left, right)) return -1;
    clear(left, right);
    return guarded([&] { return failed_if_nonzero(h->get_rectified_image(src, left, right)); });
}

int ksGetRectifiedLeftGrayImage(KSCameraAbstract* h, unsigned char* src, unsigned char** image) {
    if (any_null(h, src, image)) return -1;
    clear(image);
    return guarded([&] { return failed_if_nonzero(h->get_rectified_left_gray_image(src, image)); });
}

int ksGetRectifiedRightYUVI420Image(KSCameraAbstract* h, unsigned char* src,
                                    unsigned char** image) {
    if (any_null(h, src, image)) return -1;
    clear(image);
    return guarded(
        [&] { return failed_if_nonzero(h->get_rectified_right_yuvi420_image(src, image)); });
}

int ksGetRGBDImageWithTimestamp(KSCameraAbstract* h, unsigned char* src, unsigned char** disparity,
                                unsigned char** image, unsigned long* timestamp) {
    if (any_null(h, src, disparity, image)) return -1;
    return guarded(
        [&] { return h->get_rgbd_image_with_timestamp(src, disparity, image, timestamp); });
}

int ksGetRectifiedImageWithTimestamp(KSCameraAbstract* h, unsigned char* src, unsigned char** left,
                                     unsigned char** right, unsigned long* timestamp) {
    if (any_null(h, src, left, right)) return -1;
    return guarded(
        [&] { return h->get_rectified_image_with_timestamp(src, left, right, timestamp); });
}

int ksGetRawImageWithTimestamp(KSCameraAbstract* h, unsigned char* src, unsigned char** left,
                               unsigned char** right, unsigned long* timestamp) {
    if (any_null(h, src, left, right)) return -1;
    clear(left, right);
    return guarded([&] { return h->get_raw_image_with_timestamp(src, left, right, timestamp); });
}

int ksGetBxfAndBase(KSCameraAbstract* h, float* bxf, float* base) {
    if (any_null(h, bxf, base)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_bxf_and_base(bxf, base)); });
}

int ksGetIMUData(KSCameraAbstract* h, _ks_imu_data_set_s** data) {
    if (any_null(h, data)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_imu_data(data)); });
}

int ksGetImageChannelFromSrcData(KSCameraAbstract* h, unsigned char* src, unsigned char* channel) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->get_image_channel_from_src_data(src, channel); });
}

// ---- video mode and stream parameters ----

int ksSetVideoMode(KSCameraAbstract* h, _ks_video_mode_e mode) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_video_mode(mode)); });
}

int ksGetVideoMode(KSCameraAbstract* h, _ks_video_mode_e* mode) {
    if (any_null(h, mode)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_video_mode(mode)); });
}

int ksQuerySupportedVideoParam(KSCameraAbstract* h, _ks_video_param_s** list,
                               unsigned char* count) {
    if (any_null(h, list, count)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_supported_video_param(list, count)); });
}

int ksSetVideoParam(KSCameraAbstract* h, unsigned char index) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_video_param(index)); });
}

int ksGetVideoParam(KSCameraAbstract* h, unsigned char* index) {
    if (any_null(h, index)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_video_param(index)); });
}

int ksGetVideoResolution(KSCameraAbstract* h, unsigned short* width, unsigned short* height) {
    if (any_null(h, width, height)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_video_resolution(width, height)); });
}

int ksGetRealTimeFPS(KSCameraAbstract* h, double* fps) {
    if (any_null(h, fps)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_realtime_fps(fps)); });
}

int ksSwitchToOriginDisparity(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->switch_to_origin_disparity()); });
}

// ---- host-side disparity processing ----

int ksSaveDisparityParam(KSCameraAbstract* h, const char* file) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->save_disparity_param(file)); });
}

int ksSetDisparityParam(KSCameraAbstract* h, const char* file) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_disparity_param(file)); });
}

int ksAutoOptimizeDisparity(KSCameraAbstract* h, float value) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->auto_optimize_disparity(value)); });
}

int ksSetDisparityFilterDistanceThreshold(KSCameraAbstract* h, float max_distance,
                                          float min_distance) {
    if (h == nullptr) return -1;
    return guarded(
        [&] { return h->set_disparity_filter_max_and_min_distance(max_distance, min_distance); });
}

int ksCalculateRectDistance(KSCameraAbstract* h, _ks_rect_distance_info_s* info) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->calculate_rect_distance(info)); });
}

int ksConvertDisparity2PointCloud(KSCameraAbstract* h, const unsigned short* disparity,
                                  unsigned int* count, float** x, float** y, float** z) {
    if (any_null(h, disparity, x, y, z)) return -1;
    return guarded([&] {
        return failed_if_nonzero(h->convert_disparity_to_point_cloud(disparity, count, x, y, z));
    });
}

// ---- stereo-matching settings ----

int ksSetSearchRange(KSCameraAbstract* h, unsigned char range) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_search_range(range)); });
}

int ksGetSearchRange(KSCameraAbstract* h, unsigned char* range) {
    if (any_null(h, range)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_search_range(range)); });
}

int ksSetLineOffset(KSCameraAbstract* h, float offset) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_line_offset(offset)); });
}

int ksGetLineOffset(KSCameraAbstract* h, float* offset) {
    if (any_null(h, offset)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_line_offset(offset)); });
}

int ksSetDispOffset(KSCameraAbstract* h, float offset) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_disp_offset(offset)); });
}

int ksGetDispOffset(KSCameraAbstract* h, float* offset) {
    if (any_null(h, offset)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_disp_offset(offset)); });
}

int ksSetLineTrim(KSCameraAbstract* h, unsigned short left, unsigned short right) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_line_trim(left, right)); });
}

int ksGetLineTrim(KSCameraAbstract* h, unsigned short* left, unsigned short* right) {
    if (any_null(h, left, right)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_line_trim(left, right)); });
}

// ---- image sensor settings ----

int ksSetExposure(KSCameraAbstract* h, unsigned short value) {
    if (value > kMaxExposure) return -1;
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_exposure(value)); });
}

int ksGetExposure(KSCameraAbstract* h, unsigned short* value) {
    if (any_null(h, value)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_exposure(value)); });
}

int ksSetCameraGain(KSCameraAbstract* h, unsigned short gain) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_camera_gain(gain)); });
}

int ksSetCameraFps(KSCameraAbstract* h, float fps) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->set_camera_fps(fps); });
}

int ksRestoreCameraFpsToDefault(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->restore_camera_fps_to_default(); });
}

int ksSetFilllightType(KSCameraAbstract* h, _ks_filllight_type_e type) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->set_filllight_type(type)); });
}

int ksGetFilllightType(KSCameraAbstract* h, _ks_filllight_type_e* type) {
    if (any_null(h, type)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_filllight_type(type)); });
}

int ksSetFillLightIntensity(KSCameraAbstract* h, unsigned char intensity) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->set_fill_light_intensity(intensity); });
}

int ksGetFillLightIntensity(KSCameraAbstract* h, unsigned char* intensity) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->get_fill_light_intensity(intensity); });
}

int ksGetCmosType(KSCameraAbstract* h, unsigned char* id, const char** name) {
    if (h == nullptr) {
        printf("Invalid handle\n");
        return -1;
    }
    return guarded([&] { return h->get_cmos_type(id, name); });
}

int ksGetLastestAeStatValues(KSCameraAbstract* h, unsigned int** values) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->get_ae_stats_values(values); });
}

// ---- identity and versions ----

const char* ksGetSdkVersion(void) {
    return kSdkVersion;
}

const char* ksGetImplLevelVersion(KSCameraAbstract* h) {
    if (h == nullptr) {
        printf("Invalid handle\n");
        return "";
    }
    try {
        const char* version = h->get_impl_level_version();
        return version != nullptr ? version : "";
    } catch (...) {
        return "";
    }
}

int ksSetCameraSN(KSCameraAbstract* h, const char* sn) {
    if (h == nullptr || is_empty(sn) || strnlen(sn, kMaxSerialLength + 1) > kMaxSerialLength)
        return -1;
    return guarded([&] { return failed_if_nonzero(h->set_camera_sn(sn)); });
}

int ksEraseCameraSN(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->erase_camera_sn()); });
}

int ksGetCameraSN(KSCameraAbstract* h, char* sn) {
    if (any_null(h, sn)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_camera_sn(sn)); });
}

int ksGetUsbVersion(KSCameraAbstract* h, char* version) {
    if (any_null(h, version)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_usb_version(version)); });
}

int ksGetFpgaReleaseDate(KSCameraAbstract* h, unsigned char* year, unsigned char* month,
                         unsigned char* day) {
    if (any_null(h, year, month, day)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_fpga_release_date(year, month, day)); });
}

int ksGetFpgaVersion(KSCameraAbstract* h, unsigned char* major, unsigned char* minor) {
    if (any_null(h, major, minor)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_fpga_version(major, minor)); });
}

int ksGetCameraHardwareInfo(KSCameraAbstract* h, unsigned char* pcb, unsigned char* sensor) {
    if (any_null(h, pcb, sensor)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_camera_hardware_info(pcb, sensor)); });
}

int ksGetCameraCMOSSwapMode(KSCameraAbstract* h, unsigned char* mode) {
    if (any_null(h, mode)) return -1;
    return guarded([&] { return failed_if_nonzero(h->get_camera_cmos_swap_mode(mode)); });
}

// ---- maintenance of the camera's stored parameters ----

int ksUploadFpgaBitFile(KSCameraAbstract* h, const char* path) {
    if (h == nullptr || is_empty(path)) return -1;
    return guarded([&] { return failed_if_nonzero(h->upload_fpga_bit_file(path)); });
}

int ksUploadEprFile(KSCameraAbstract* h, const char* path, const _ks_video_param_s* param) {
    if (h == nullptr || param == nullptr || is_empty(path)) return -1;
    return guarded([&] { return failed_if_nonzero(h->upload_epr_file(path, param)); });
}

int ksStoreEprFileWithVideoFrameParam(KSCameraAbstract* h, const char* path,
                                      const _ks_video_param_s* param) {
    if (h == nullptr || param == nullptr || is_empty(path)) return -1;
    return guarded(
        [&] { return failed_if_nonzero(h->store_epr_file_with_video_frame_param(path, param)); });
}

int ksStoreEprFile(KSCameraAbstract* h, const char* path, unsigned char slot) {
    if (h == nullptr || is_empty(path)) return -1;
    return guarded([&] { return failed_if_nonzero(h->store_epr_file(path, slot)); });
}

int ksAmendVideoFrameParam(KSCameraAbstract* h, const _ks_video_param_s* param) {
    if (any_null(h, param)) return -1;
    return guarded([&] { return failed_if_nonzero(h->amend_video_frame_param(param)); });
}

int ksSelectEprFile(KSCameraAbstract* h, unsigned char slot) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->select_epr_file(slot)); });
}

int ksShowAllCustomEEPROM(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->show_all_custom_eeprom()); });
}

int ksUploadCameraEprForAutoCalibration(KSCameraAbstract* h, unsigned char slot, const char* dir) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->upload_camera_epr_for_auto_calibration(slot, dir); });
}

int ksBackUpEffectiveEprFile(KSCameraAbstract* h, const char* path) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->back_up_effective_epr_file(path); });
}

int ksResetCameraToFactoryState(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->reset_camera_to_factory_state(); });
}

int ksCheckNuvexChipStatus(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->check_nuvex_chip_status(); });
}

int ksCheckCMOSStatus(KSCameraAbstract* h) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->check_cmos_status(); });
}

int ksGetRectifyOpticalCenter(KSCameraAbstract* h, float* cx, float* cy) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->get_rectify_optical_center(cx, cy); });
}

int ksGetRectifyCamParam(KSCameraAbstract* h, float* focal, float* cx, float* cy) {
    if (h == nullptr) return -1;
    return guarded([&] {
        if (h->get_rectify_optical_center(cx, cy) != 0) return -2;
        float bxf = 0.0f;
        float base = 0.0f;
        if (h->get_bxf_and_base(&bxf, &base) != 0) return -3;
        if (focal != nullptr) *focal = bxf / base;
        return 0;
    });
}

// ---- register access ----

int ksWriteNuvexRegisterValue(KSCameraAbstract* h, unsigned short reg, unsigned short value) {
    if (h == nullptr) return -1;
    return guarded([&] { return failed_if_nonzero(h->write_nuvex_register_value(reg, value)); });
}

int ksReadNuvexRegisterValue(KSCameraAbstract* h, unsigned short reg, unsigned short* value) {
    if (any_null(h, value)) return -1;
    return guarded([&] { return failed_if_nonzero(h->read_nuvex_register_value(reg, value)); });
}

int ksWriteFpgaRegisterValue(KSCameraAbstract* h, unsigned short address, unsigned short value) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->write_fpga_register_value(address, value); });
}

int ksReadFpgaRegisterValue(KSCameraAbstract* h, unsigned short address, unsigned short* value) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->read_fpga_register_value(address, value); });
}

int ksWriteCmosRegisterValue(KSCameraAbstract* h, unsigned short address, unsigned short value) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->write_cmos_register_value(address, value); });
}

int ksReadCmosRegisterValue(KSCameraAbstract* h, unsigned short address, unsigned short* value) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->read_cmos_register_value(address, value); });
}

int ksWriteEEpromAddressValue(KSCameraAbstract* h, unsigned short address, unsigned short value) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->write_eeprom_address_value(address, value); });
}

int ksReadEEpromAddressValue(KSCameraAbstract* h, unsigned short address, unsigned short* value) {
    if (h == nullptr) return -1;
    return guarded([&] { return h->read_eeprom_address_value(address, value); });
}

// ---- camera list ----

int ksQueryCameraList(_ks_camera_list** list) {
    return guarded([&] { return ksQueryCameraList_impl(list); });
}

int ksReleaseCameraList(_ks_camera_list* list) {
    return guarded([&] { return ksReleaseCameraList_impl(&list); });
}

char* ksGetCameraDeviceNameBySn(_ks_camera_list* list, const char* sn) {
    try {
        _ks_camera_info_s* camera = getCameraDevBySn(list, sn);
        return camera != nullptr ? camera->video_dev : nullptr;
    } catch (...) {
        return nullptr;
    }
}

char* ksGetCameraUsbPathNameBySn(_ks_camera_list* list, const char* sn) {
    try {
        return getCameraUsbPathNameBySn(list, sn);
    } catch (...) {
        return nullptr;
    }
}

int ksPrintCameraList(_ks_camera_list* list) {
    return guarded([&] { return ksShowCameraList(list); });
}

// ---- logging ----

void ksOpenSDKLog(int level) {
    log_set_level(level);
    log_set_quiet(0);
}

void ksCloseSDKLog(void) {
    log_set_quiet(1);
}

// ---- progress of long transfers ----

void ksSetProgressCallback(ks_progress_callback callback, void* user) {
    ks_set_transfer_progress(callback, user);
}

// ---- frame metadata ----

int ksInitMetaDataSHM(void) {
    return guarded([] { return initMetaDataShm(); });
}

int ksReleaseMetaDataSHM(void) {
    return guarded([] { return releaseMetaDataShm(); });
}

int ksGetNextMetaData(unsigned short** meta, unsigned int* size) {
    return guarded([&] { return getNextMetaData(meta, size); });
}

int ksGetLastestMetaDataPointer(KSCameraAbstract* h, unsigned short** meta) {
    if (h == nullptr) {
        printf("Invalid handle\n");
        return -1;
    }
    return guarded([&] {
        unsigned short* pointer = h->get_mata_data_pointer();
        if (meta != nullptr) *meta = pointer;
        return 0;
    });
}

}  // extern "C"
