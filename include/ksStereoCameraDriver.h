/*
 * libksStereoCameraDriver: host-side driver for the KS USB stereo depth camera.
 *
 * The whole public interface: flat C functions on an opaque camera handle.
 * Result codes: 0 success, -1 invalid handle or argument, -2 the camera
 * operation failed. Functions documented as "inner result" pass the camera
 * layer's own code through unchanged (which may be positive).
 *
 * Buffers handed out (images, frames, lists, IMU records) belong to the
 * library and stay valid until the next call of the same kind or until the
 * camera is closed; the caller never frees them, except the camera list
 * (ksReleaseCameraList).
 *
 * Threads: every operation on one camera holds that camera's own lock for its
 * whole duration, so one camera may be called from several threads (settings
 * from one, frames from another); the calls then run one after the other. A
 * frame wait blocks the camera's other calls until it returns. Calls on two
 * different cameras never wait on each other. Closing a camera while another
 * thread still calls it is the application's error.
 *
 * Opening: ksOpenUVCCameraByPath and ksOpenUVCCameraByNumber bring the camera
 * up completely (controller check, stored settings, stream, IMU receiver) and
 * return it streaming. A camera that does not answer its controller checks
 * still opens (warnings on standard output) so that it can be repaired; only a
 * missing video device or a stream that cannot start fail the open (-2). A
 * newly opened camera counts as suspended for ksResumeCamera, which then runs
 * a full power cycle; ksSuspendCamera powers the pipeline down.
 */
#ifndef KS_STEREO_CAMERA_DRIVER_H
#define KS_STEREO_CAMERA_DRIVER_H

#include <stddef.h>
#include <stdint.h>

#ifndef KS_API
#if defined(__GNUC__)
#define KS_API __attribute__((visibility("default")))
#else
#define KS_API
#endif
#endif

#define KS_SDK_VERSION_MAJOR 1
#define KS_SDK_VERSION_MINOR 4
#define KS_SDK_VERSION_PATCH 7

#ifdef __cplusplus
class KSCameraAbstract;
extern "C" {
#else
typedef struct KSCameraAbstract KSCameraAbstract;
#endif

/* The camera handle: the camera object itself, opaque to applications. */
typedef KSCameraAbstract* KSCameraHandle;

/* The enumerations take any int in C++ as they do in C, so that a value a C
 * caller passes outside the enumerators is refused, not undefined. */
#ifdef __cplusplus
#define KS_ENUM_OF_INT : int
#else
#define KS_ENUM_OF_INT
#endif

/* Output mode of the camera. */
typedef enum _ks_video_mode_e KS_ENUM_OF_INT {
    KS_VIDEO_MODE_STEREO_ORIGIN = 0,      /* unrectified left/right pair */
    KS_VIDEO_MODE_STEREO_RECTIFIED = 2,   /* rectified pair */
    KS_VIDEO_MODE_RGBD = 5,               /* image plus on-camera disparity (default) */
    KS_VIDEO_MODE_DENSE_DISPARITY = 10,   /* origin disparity densified on the host */
    KS_VIDEO_MODE_FILTERED_DISPARITY = 11 /* origin disparity filtered on the host */
} _ks_video_mode_e;

/* Fill-light behaviour. */
typedef enum _ks_filllight_type_e KS_ENUM_OF_INT {
    KS_FILLLIGHT_TYPE_OFF = 0,         /* intensity forced to 0 */
    KS_FILLLIGHT_TYPE_CTRL_MODE_1 = 1, /* on at the current intensity, light-control mode 1 */
    KS_FILLLIGHT_TYPE_CTRL_MODE_0 = 2, /* on at the current intensity, light-control mode 0 */
    KS_FILLLIGHT_TYPE_ALTERNATE = 3    /* alternate on/off: not supported by the camera yet */
} _ks_filllight_type_e;

/* One stream configuration stored in the camera (8 bytes). */
typedef struct _ks_video_param_s {
    uint8_t index;      /* byte 0: EPR slot that selects this configuration */
    uint8_t reserved;   /* byte 1: not used */
    uint16_t width;     /* bytes 2-3 */
    uint16_t height;    /* bytes 4-5 */
    uint8_t reserved_a; /* byte 6: stream attribute, kept verbatim */
    uint8_t reserved_b; /* byte 7: stream attribute, kept verbatim */
} _ks_video_param_s;

/* One decoded IMU sample (72 bytes). */
typedef struct _ks_imu_data_set_s {
    uint64_t sync_id;   /* id of the last video frame when the sample was decoded */
    uint64_t timestamp; /* wrap count x 65535 + raw sample counter */
    double temperature; /* degrees Celsius */
    double acc_x;       /* m/s^2 */
    double acc_y;
    double acc_z;
    double gyro_x; /* rad/s */
    double gyro_y;
    double gyro_z;
} _ks_imu_data_set_s;

/* One camera found on the host. */
typedef struct _ks_camera_info_s {
    char video_dev[16];      /* real path of the video node, e.g. /dev/video0 */
    char camera_sn[20];      /* serial number read from the camera */
    char usb_path_name[512]; /* /dev/v4l/by-path link the camera was found through */
    char v4l_id_name[512];   /* /dev/v4l/by-id link to the same node, or empty */
} _ks_camera_info_s;

/* The cameras found on the host (ksQueryCameraList). */
typedef struct _ks_camera_list {
    _ks_camera_info_s* cameras;
    uint32_t count;
} _ks_camera_list;

/* Disparity and distance statistics over a rectangle (ksCalculateRectDistance).
 * The caller fills the first five fields, the library the rest. */
typedef struct _ks_rect_distance_info_s {
    uint16_t x;
    uint16_t y;
    uint16_t width;
    uint16_t height;
    uint16_t* disparity; /* the whole disparity image, row stride = image width */
    uint16_t min_disparity;
    uint16_t max_disparity;
    uint16_t mean_disparity;
    uint16_t median_disparity;
    float valid_ratio;
    float min_distance;
    float max_distance;
    float mean_distance;
    float median_distance;
    float mean_point_distance;
    float median_point_distance;
} _ks_rect_distance_info_s;

/* Layout checks: these records cross the library boundary, so any packing
 * setting of the including program must leave them exactly as designed. */
#define KS_LAYOUT_CHECK(name, cond) typedef char ks_layout_check_##name[(cond) ? 1 : -1]
KS_LAYOUT_CHECK(video_param_size, sizeof(_ks_video_param_s) == 8);
KS_LAYOUT_CHECK(video_param_width, offsetof(_ks_video_param_s, width) == 2);
KS_LAYOUT_CHECK(video_param_height, offsetof(_ks_video_param_s, height) == 4);
KS_LAYOUT_CHECK(video_param_reserved_a, offsetof(_ks_video_param_s, reserved_a) == 6);
KS_LAYOUT_CHECK(video_param_reserved_b, offsetof(_ks_video_param_s, reserved_b) == 7);
KS_LAYOUT_CHECK(imu_size, sizeof(_ks_imu_data_set_s) == 72);
KS_LAYOUT_CHECK(imu_timestamp, offsetof(_ks_imu_data_set_s, timestamp) == 8);
KS_LAYOUT_CHECK(imu_temperature, offsetof(_ks_imu_data_set_s, temperature) == 16);
KS_LAYOUT_CHECK(imu_acc_x, offsetof(_ks_imu_data_set_s, acc_x) == 24);
KS_LAYOUT_CHECK(imu_gyro_z, offsetof(_ks_imu_data_set_s, gyro_z) == 64);
KS_LAYOUT_CHECK(camera_info_size, sizeof(_ks_camera_info_s) == 1060);
KS_LAYOUT_CHECK(camera_info_sn, offsetof(_ks_camera_info_s, camera_sn) == 16);
KS_LAYOUT_CHECK(camera_info_usb, offsetof(_ks_camera_info_s, usb_path_name) == 36);
KS_LAYOUT_CHECK(camera_info_id, offsetof(_ks_camera_info_s, v4l_id_name) == 548);
KS_LAYOUT_CHECK(camera_list_count, offsetof(_ks_camera_list, count) == sizeof(void*));
KS_LAYOUT_CHECK(rect_disparity, offsetof(_ks_rect_distance_info_s, disparity) == 8);
KS_LAYOUT_CHECK(rect_min_disparity,
                offsetof(_ks_rect_distance_info_s, min_disparity) == 8 + sizeof(void*));
KS_LAYOUT_CHECK(rect_valid_ratio,
                offsetof(_ks_rect_distance_info_s, valid_ratio) == 16 + sizeof(void*));
KS_LAYOUT_CHECK(rect_size,
                sizeof(_ks_rect_distance_info_s) ==
                    ((48 + sizeof(void*) + sizeof(void*) - 1) / sizeof(void*)) * sizeof(void*));
#undef KS_LAYOUT_CHECK

/* ---- open and close ---- */
KS_API int ksOpenUVCCameraByPath(const char* path, KSCameraAbstract** out);
KS_API int ksOpenUVCCameraByNumber(int number, KSCameraAbstract** out);
KS_API int ksOpenMIPICameraByPath(const char* path, KSCameraAbstract** out);
KS_API int ksOpenMIPICameraByNumber(int number, KSCameraAbstract** out);
KS_API int ksOpenEthernetCameraByPath(const char* path, KSCameraAbstract** out);
KS_API int ksOpenEthernetCameraByIp(const char* ip, KSCameraAbstract** out);
KS_API int ksOpenUVCCameraByPathCallInitCamCtrl(const char* path, KSCameraAbstract** out);
KS_API int ksOpenUVCCameraByPathCallInitKestCameraSimple(const char* path, KSCameraAbstract** out);
KS_API int ksOpenUVCCameraBySN(_ks_camera_list* list, const char* sn, KSCameraAbstract** out);
KS_API int ksCloseCamera(KSCameraAbstract** handle);
KS_API int ksSuspendCamera(KSCameraAbstract* handle);
KS_API int ksResumeCamera(KSCameraAbstract* handle);

/* ---- frames and images ---- */
KS_API int ksGetCurrentFrame(KSCameraAbstract* handle, unsigned long* frame_id,
                             unsigned char** frame);
KS_API int ksGetSafeCurrentFrame(KSCameraAbstract* handle, unsigned long* frame_id,
                                 unsigned char** frame);
KS_API int ksGetRGBDImage(KSCameraAbstract* handle, unsigned char* src, unsigned char** disparity,
                          unsigned char** image);
KS_API int ksGetRGBDDisparityData(KSCameraAbstract* handle, unsigned char* src,
                                  unsigned char** disparity);
KS_API int ksGetRGBDYUVI420Image(KSCameraAbstract* handle, unsigned char* src,
                                 unsigned char** image);
KS_API int ksGetRawImage(KSCameraAbstract* handle, unsigned char* src, unsigned char** left,
                         unsigned char** right);
KS_API int ksGetRawLeftBayerImage(KSCameraAbstract* handle, unsigned char* src,
                                  unsigned char** image);
KS_API int ksGetRawRightBayerImage(KSCameraAbstract* handle, unsigned char* src,
                                   unsigned char** image);
KS_API int ksGetRectifiedImage(KSCameraAbstract* handle, unsigned char* src, unsigned char** left,
                               unsigned char** right);
KS_API int ksGetRectifiedLeftGrayImage(KSCameraAbstract* handle, unsigned char* src,
                                       unsigned char** image);
KS_API int ksGetRectifiedRightYUVI420Image(KSCameraAbstract* handle, unsigned char* src,
                                           unsigned char** image);
KS_API int ksGetRGBDImageWithTimestamp(KSCameraAbstract* handle, unsigned char* src,
                                       unsigned char** disparity, unsigned char** image,
                                       unsigned long* timestamp);
KS_API int ksGetRectifiedImageWithTimestamp(KSCameraAbstract* handle, unsigned char* src,
                                            unsigned char** left, unsigned char** right,
                                            unsigned long* timestamp);
KS_API int ksGetRawImageWithTimestamp(KSCameraAbstract* handle, unsigned char* src,
                                      unsigned char** left, unsigned char** right,
                                      unsigned long* timestamp);
KS_API int ksGetBxfAndBase(KSCameraAbstract* handle, float* bxf, float* base);
KS_API int ksGetIMUData(KSCameraAbstract* handle, _ks_imu_data_set_s** data);
KS_API int ksGetImageChannelFromSrcData(KSCameraAbstract* handle, unsigned char* src,
                                        unsigned char* channel);

/* ---- video mode and stream parameters ---- */
KS_API int ksSetVideoMode(KSCameraAbstract* handle, _ks_video_mode_e mode);
KS_API int ksGetVideoMode(KSCameraAbstract* handle, _ks_video_mode_e* mode);
KS_API int ksQuerySupportedVideoParam(KSCameraAbstract* handle, _ks_video_param_s** list,
                                      unsigned char* count);
KS_API int ksSetVideoParam(KSCameraAbstract* handle, unsigned char index);
KS_API int ksGetVideoParam(KSCameraAbstract* handle, unsigned char* index);
KS_API int ksGetVideoResolution(KSCameraAbstract* handle, unsigned short* width,
                                unsigned short* height);
KS_API int ksGetRealTimeFPS(KSCameraAbstract* handle, double* fps);
KS_API int ksSwitchToOriginDisparity(KSCameraAbstract* handle);

/* ---- host-side disparity processing ---- */
KS_API int ksSaveDisparityParam(KSCameraAbstract* handle, const char* file);
KS_API int ksSetDisparityParam(KSCameraAbstract* handle, const char* file);
KS_API int ksAutoOptimizeDisparity(KSCameraAbstract* handle, float value);
KS_API int ksSetDisparityFilterDistanceThreshold(KSCameraAbstract* handle, float max_distance,
                                                 float min_distance);
KS_API int ksCalculateRectDistance(KSCameraAbstract* handle, _ks_rect_distance_info_s* info);
KS_API int ksConvertDisparity2PointCloud(KSCameraAbstract* handle, const unsigned short* disparity,
                                         unsigned int* count, float** x, float** y, float** z);

/* ---- stereo-matching settings ---- */
KS_API int ksSetSearchRange(KSCameraAbstract* handle, unsigned char range);
KS_API int ksGetSearchRange(KSCameraAbstract* handle, unsigned char* range);
KS_API int ksSetLineOffset(KSCameraAbstract* handle, float offset);
KS_API int ksGetLineOffset(KSCameraAbstract* handle, float* offset);
KS_API int ksSetDispOffset(KSCameraAbstract* handle, float offset);
KS_API int ksGetDispOffset(KSCameraAbstract* handle, float* offset);
KS_API int ksSetLineTrim(KSCameraAbstract* handle, unsigned short left, unsigned short right);
KS_API int ksGetLineTrim(KSCameraAbstract* handle, unsigned short* left, unsigned short* right);

/* ---- image sensor settings ---- */
KS_API int ksSetExposure(KSCameraAbstract* handle, unsigned short value);
KS_API int ksGetExposure(KSCameraAbstract* handle, unsigned short* value);
KS_API int ksSetCameraGain(KSCameraAbstract* handle, unsigned short gain);
KS_API int ksSetCameraFps(KSCameraAbstract* handle, float fps);
KS_API int ksRestoreCameraFpsToDefault(KSCameraAbstract* handle);
KS_API int ksSetFilllightType(KSCameraAbstract* handle, _ks_filllight_type_e type);
KS_API int ksGetFilllightType(KSCameraAbstract* handle, _ks_filllight_type_e* type);
KS_API int ksSetFillLightIntensity(KSCameraAbstract* handle, unsigned char intensity);
KS_API int ksGetFillLightIntensity(KSCameraAbstract* handle, unsigned char* intensity);
KS_API int ksGetCmosType(KSCameraAbstract* handle, unsigned char* id, const char** name);
KS_API int ksGetLastestAeStatValues(KSCameraAbstract* handle, unsigned int** values);

/* ---- identity and versions ---- */
KS_API const char* ksGetSdkVersion(void);
KS_API const char* ksGetImplLevelVersion(KSCameraAbstract* handle);
KS_API int ksSetCameraSN(KSCameraAbstract* handle, const char* sn);
KS_API int ksEraseCameraSN(KSCameraAbstract* handle);
KS_API int ksGetCameraSN(KSCameraAbstract* handle, char* sn); /* at least 17 bytes */
KS_API int ksGetUsbVersion(KSCameraAbstract* handle, char* version);
KS_API int ksGetFpgaReleaseDate(KSCameraAbstract* handle, unsigned char* year, unsigned char* month,
                                unsigned char* day);
KS_API int ksGetFpgaVersion(KSCameraAbstract* handle, unsigned char* major, unsigned char* minor);
KS_API int ksGetCameraHardwareInfo(KSCameraAbstract* handle, unsigned char* pcb,
                                   unsigned char* sensor);
KS_API int ksGetCameraCMOSSwapMode(KSCameraAbstract* handle, unsigned char* mode);

/* ---- maintenance of the camera's stored parameters ---- */
KS_API int ksUploadFpgaBitFile(KSCameraAbstract* handle, const char* path);
KS_API int ksUploadEprFile(KSCameraAbstract* handle, const char* path,
                           const _ks_video_param_s* param);
KS_API int ksStoreEprFileWithVideoFrameParam(KSCameraAbstract* handle, const char* path,
                                             const _ks_video_param_s* param);
KS_API int ksStoreEprFile(KSCameraAbstract* handle, const char* path, unsigned char slot);
KS_API int ksAmendVideoFrameParam(KSCameraAbstract* handle, const _ks_video_param_s* param);
KS_API int ksSelectEprFile(KSCameraAbstract* handle, unsigned char slot);
KS_API int ksShowAllCustomEEPROM(KSCameraAbstract* handle);
KS_API int ksUploadCameraEprForAutoCalibration(KSCameraAbstract* handle, unsigned char slot,
                                               const char* dir);
KS_API int ksBackUpEffectiveEprFile(KSCameraAbstract* handle, const char* path);
KS_API int ksResetCameraToFactoryState(KSCameraAbstract* handle);
KS_API int ksCheckNuvexChipStatus(KSCameraAbstract* handle);
KS_API int ksCheckCMOSStatus(KSCameraAbstract* handle);
KS_API int ksGetRectifyOpticalCenter(KSCameraAbstract* handle, float* cx, float* cy);
KS_API int ksGetRectifyCamParam(KSCameraAbstract* handle, float* focal, float* cx, float* cy);

/* ---- register access (engineering use) ---- */
KS_API int ksWriteNuvexRegisterValue(KSCameraAbstract* handle, unsigned short reg,
                                     unsigned short value);
KS_API int ksReadNuvexRegisterValue(KSCameraAbstract* handle, unsigned short reg,
                                    unsigned short* value);
KS_API int ksWriteFpgaRegisterValue(KSCameraAbstract* handle, unsigned short address,
                                    unsigned short value);
KS_API int ksReadFpgaRegisterValue(KSCameraAbstract* handle, unsigned short address,
                                   unsigned short* value);
KS_API int ksWriteCmosRegisterValue(KSCameraAbstract* handle, unsigned short address,
                                    unsigned short value);
KS_API int ksReadCmosRegisterValue(KSCameraAbstract* handle, unsigned short address,
                                   unsigned short* value);
KS_API int ksWriteEEpromAddressValue(KSCameraAbstract* handle, unsigned short address,
                                     unsigned short value);
KS_API int ksReadEEpromAddressValue(KSCameraAbstract* handle, unsigned short address,
                                    unsigned short* value);

/* ---- camera list ---- */
KS_API int ksQueryCameraList(_ks_camera_list** list);
KS_API int ksReleaseCameraList(_ks_camera_list* list);
KS_API char* ksGetCameraDeviceNameBySn(_ks_camera_list* list, const char* sn);
KS_API char* ksGetCameraUsbPathNameBySn(_ks_camera_list* list, const char* sn);
KS_API int ksPrintCameraList(_ks_camera_list* list);

/* ---- logging: level 0 TRACE .. 5 FATAL ---- */
KS_API void ksOpenSDKLog(int level);
KS_API void ksCloseSDKLog(void);

/* ---- progress of long transfers ----
 * The callback is called on the calling thread while an EPR image or the
 * FPGA bitstream is written to the camera (ksUploadEprFile,
 * ksStoreEprFile..., ksUploadFpgaBitFile, ksUploadCameraEprForAutoCalibration)
 * or the effective EPR is read back (ksBackUpEffectiveEprFile): `what` names
 * the step (valid during the call only), `done` and `total` count its bytes,
 * from done 0 to done == total when the step completes. total 0 marks a step
 * without a byte count, such as the switch to another EPR slot with its power
 * cycle. One callback per process; null turns it off. Nothing else changes
 * in what those functions do. */
typedef void (*ks_progress_callback)(const char* what, uint64_t done, uint64_t total, void* user);
KS_API void ksSetProgressCallback(ks_progress_callback callback, void* user);

/* ---- frame metadata ---- */
KS_API int ksInitMetaDataSHM(void);
KS_API int ksReleaseMetaDataSHM(void);
KS_API int ksGetNextMetaData(unsigned short** meta, unsigned int* size);
KS_API int ksGetLastestMetaDataPointer(KSCameraAbstract* handle, unsigned short** meta);

#ifdef __cplusplus
}
#endif

#endif /* KS_STEREO_CAMERA_DRIVER_H */
