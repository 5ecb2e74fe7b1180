// Session bring-up, standby, resume and teardown.
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "ksAsicSdk/source/deviceDetectHelper.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"

namespace {

constexpr const char* kImplVersion = "1.7.6.303";
// Readiness of the controller: attempts and the pause between them.
constexpr int kDeviceCheckAttempts = 10;
constexpr unsigned kDeviceCheckPauseSeconds = 1;
// The metadata buffer holds at least the words the session reads (up to the
// exposure statistics), zeros beyond a narrow frame's line.
constexpr size_t kMetaMinWords = 64;

}  // namespace

_KestraStereoCamSDK_Impl::_KestraStereoCamSDK_Impl()
    : m_driver(nullptr),
      m_ctrl(nullptr),
      m_imu(nullptr),
      m_rgbd(nullptr),
      m_raw(nullptr),
      m_color_table(nullptr),
      m_meta(nullptr),
      m_buf_width(0),
      m_buf_height(0),
      m_sync_id(0),
      m_ready(false),
      m_channel(KS_SESSION_CHANNEL_RGBD),
      m_disp_offset(0.0f),
      m_search_range(0),
      m_ae_stats{} {}

// A session that never opened anything is left silently.
_KestraStereoCamSDK_Impl::~_KestraStereoCamSDK_Impl() {
    if (m_driver != nullptr || m_ctrl != nullptr || m_imu != nullptr) release();
    _private_free_image_buf();
}

int _KestraStereoCamSDK_Impl::initKestCamera(const char* path) {
    return initKestCamera(path, path);
}

int _KestraStereoCamSDK_Impl::initKestCamera(const char* video, const char* ctrl) {
    m_driver = initY4l2DriverHandle(video);
    if (m_driver == nullptr) {
        puts("video driver handle init failed");
        return -1;
    }
    if (initCamCtrl(ctrl) != 0) puts("Ctrl dev init failed");
    if (_private_check_device() != 0) puts("Warning: nuvex sensor init device check error!");
    int r = initCameraParameter();
    if (r != 0) printf("Warning: Init Camera Paramter err [%d]\n", r);
    if (_private_start_camera_stream() != 0) {
        puts("Start camera stream failed");
        return -2;
    }
    if (m_driver->nStatus.load() == KS_STREAM_STREAMING) {
        _private_alloc_image_buf();
    } else {
        m_ready = false;
    }
    if (_private_initKsImuModule(ctrl) != 0) puts("Warning: init imu module failed");
    return 0;
}

int _KestraStereoCamSDK_Impl::initKestCameraSimple(const char* video, const char* ctrl) {
    m_driver = initY4l2DriverHandle(video);
    if (m_driver == nullptr) {
        puts("video driver handle init failed");
        return -1;
    }
    if (initCamCtrl(ctrl) != 0) puts("Ctrl dev init failed");
    initCameraParameter();
    if (_private_start_camera_stream() != 0) {
        puts("Start camera stream failed");
        return -2;
    }
    if (m_driver->nStatus.load() == KS_STREAM_STREAMING) {
        _private_alloc_image_buf();
    } else {
        m_ready = false;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::initCamCtrl(const char* path) {
    if (m_ctrl != nullptr) {
        puts("ctrl module handle is not null");
        return 0;
    }
    m_ctrl = static_cast<_struct_ks_ctrl_device*>(calloc(1, sizeof(_struct_ks_ctrl_device)));
    if (m_ctrl == nullptr) return -1;
    // No descriptor until the open succeeds: the release of a handle whose
    // open failed must not close descriptor 0 of the process.
    m_ctrl->fd = -1;
    return static_cast<int>(ks_open_ctrl_device(m_ctrl, path));
}

void _KestraStereoCamSDK_Impl::release() {
    KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "Release SDK...\n");
    fflush(stdout);
    if (m_driver != nullptr) {
        _private_shutdown_camera_stream();
        _private_free_image_buf();
        DestoryY4l2DriverHandle(m_driver);
        m_driver = nullptr;
        m_ready = false;
    } else {
        KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "No cam driver initialized.Skip.\n");
    }
    if (m_imu != nullptr) {
        release_imu_module(m_imu);
        delete m_imu;
        m_imu = nullptr;
    }
    if (m_ctrl != nullptr) {
        ks_release_ctrl_device(m_ctrl);
        free(m_ctrl);
        m_ctrl = nullptr;
    }
    KS_LOG_INFO(KS_SDK_IMPL_MODULE, "Done sdk release\n");
}

int _KestraStereoCamSDK_Impl::CameraStandby() {
    if (m_driver != nullptr) {
        _private_shutdown_camera_stream();
        _private_free_image_buf();
    } else {
        KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "No Stream Initialized...Skip stream shutdown\n");
    }
    ks_asic_control_prep(m_ctrl);
    int r = ks_camera_hardware_shutdown(m_ctrl);
    ks_asic_control_post(m_ctrl);
    if (r != 0) {
        puts("Set CameraStandby Error.");
        puts("Please Release SDK and replug camera");
        return r;
    }
    puts("Set CameraStandby Success.");
    m_ready = false;
    return 0;
}

int _KestraStereoCamSDK_Impl::CameraResume() {
    ks_AE_shut_down(m_ctrl);
    ks_RTT_shut_down(m_ctrl);
    if (ks_camera_hardware_bringup(m_ctrl) != 0) {
        puts("Bring up camera failed");
        return -1;
    }
    puts("finish bringup");
    ks_AE_open_up(m_ctrl);
    if (_private_check_device() != 0) {
        puts("Warning: nuvex sensor init device check error!");
        return -2;
    }
    if (m_driver == nullptr) {
        KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "No Stream Initialized...Skip stream bringup\n");
        return 0;
    }
    if (initCameraParameter() != 0) {
        puts("Init Camera parameter failed");
        return -3;
    }
    if (_private_start_camera_stream() != 0) {
        puts("Start camera stream failed");
        return -4;
    }
    if (m_driver->nStatus.load() == KS_STREAM_STREAMING) {
        _private_alloc_image_buf();
    } else {
        m_ready = false;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::_private_start_camera_stream() {
    if (m_driver == nullptr || m_ctrl == nullptr) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Driver Handles have not been initialized properly\n");
        return -1;
    }
    if (m_driver->nStatus.load() == KS_STREAM_STREAMING) {
        KS_LOG_INFO(KS_SDK_IMPL_MODULE, "Stream already in process\n");
        return 0;
    }
    ks_asic_control_prep(m_ctrl);
    _struct_epr_info info = {};
    if (ks_get_current_stream_info(m_ctrl, &info) != 0) {
        KS_LOG_WARN(KS_SDK_IMPL_MODULE, "No Current Stream info. Skip V4L2 setting\n");
    } else {
        setV4l2StreamResolution(m_driver, static_cast<short>(info.width),
                                static_cast<short>(info.height));
    }
    int result = 0;
    if (initV4l2Stream(m_driver) != 0) {
        result = -1;
        KS_LOG_FATAL(KS_SDK_IMPL_MODULE, "start camera stream failed");
    }
    ks_asic_control_post(m_ctrl);
    return result;
}

int _KestraStereoCamSDK_Impl::_private_shutdown_camera_stream() {
    return releaseV4l2Stream(m_driver);
}

// Sized from the stream format in force; a failed allocation leaves the
// session without buffers (not ready) instead of handing out null planes.
void _KestraStereoCamSDK_Impl::_private_alloc_image_buf() {
    if (m_driver == nullptr) return;
    _private_free_image_buf();
    const size_t width = m_driver->width > 0 ? static_cast<size_t>(m_driver->width) : 0;
    const size_t height = m_driver->height > 0 ? static_cast<size_t>(m_driver->height) : 0;
    const size_t pixels = width * height;
    m_rgbd = static_cast<_cam_frame_rgbd_data*>(calloc(1, sizeof(_cam_frame_rgbd_data)));
    m_raw = static_cast<_cam_frame_raw_data*>(calloc(1, sizeof(_cam_frame_raw_data)));
    m_color_table = static_cast<unsigned char*>(malloc(kKsColorTableBytes));
    m_meta = static_cast<unsigned short*>(
        calloc(width > kMetaMinWords ? width : kMetaMinWords, sizeof(unsigned short)));
    bool complete = m_rgbd != nullptr && m_raw != nullptr && m_color_table != nullptr &&
                    m_meta != nullptr && pixels > 0;
    if (complete) {
        m_rgbd->image = static_cast<uint8_t*>(malloc(pixels * 3 / 2));
        m_rgbd->disparity = static_cast<uint16_t*>(malloc(pixels * 2));
        m_raw->first = malloc(pixels * 2);
        m_raw->second = malloc(pixels * 2);
        complete = m_rgbd->image != nullptr && m_rgbd->disparity != nullptr &&
                   m_raw->first != nullptr && m_raw->second != nullptr;
    }
    if (!complete) {
        _private_free_image_buf();
        m_ready = false;
        return;
    }
    m_buf_width = static_cast<uint16_t>(width);
    m_buf_height = static_cast<uint16_t>(height);
    m_ready = true;
}

void _KestraStereoCamSDK_Impl::_private_free_image_buf() {
    if (m_rgbd != nullptr) {
        free(m_rgbd->image);
        free(m_rgbd->disparity);
        free(m_rgbd);
        m_rgbd = nullptr;
    }
    if (m_raw != nullptr) {
        free(m_raw->first);
        free(m_raw->second);
        free(m_raw);
        m_raw = nullptr;
    }
    free(m_color_table);
    m_color_table = nullptr;
    free(m_meta);
    m_meta = nullptr;
    m_buf_width = 0;
    m_buf_height = 0;
}

int _KestraStereoCamSDK_Impl::_private_check_device() {
    int result = -1;
    for (int attempt = 0; attempt < kDeviceCheckAttempts; ++attempt) {
        result = ks_device_init_status_check(m_ctrl);
        if (result == 0) return 0;
        if (result != -1) break;
        ks_sys_sleep(kDeviceCheckPauseSeconds);
    }
    KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Device init status failure %d\n", result);
    return result;
}

int _KestraStereoCamSDK_Impl::checkDeviceInitStatus() {
    return _private_check_device();
}

int _KestraStereoCamSDK_Impl::initCameraParameter() {
    ks_asic_control_prep(m_ctrl);
    int result = 0;
    if (_private_loadInitialDispOffset() != 0) {
        puts("load disparity offset failed");
        result = -1;
    } else if (_private_loadInitialLineOffset() != 0) {
        puts("load lineoffset failed");
        result = -2;
    } else if (_private_loadInitialSearchRangeOffset() != 0) {
        puts("load search range failed");
        result = -3;
    }
    ks_asic_control_post(m_ctrl);
    if (result != 0) return result;
    if (_private_loadInitialCameraFPS() != 0) {
        puts("Load initial fps failed");
        return -4;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::_private_loadInitialDispOffset() {
    uint16_t value = 0;
    int r = ks_get_eeprom_disparity_offset(m_ctrl, &value);
    if (r == 0 && m_driver != nullptr)
        ksV4l2SetDisparityOffset(m_driver, static_cast<short>(value));
    return r;
}

int _KestraStereoCamSDK_Impl::_private_loadInitialLineOffset() {
    float value = 0.0f;
    int r = ks_get_eeprom_line_offset(m_ctrl, &value);
    if (r != 0) return r;
    return _private_setLineOffset(value, false);
}

int _KestraStereoCamSDK_Impl::_private_loadInitialSearchRangeOffset() {
    uint8_t range = 0;
    int r = ks_get_eeprom_search_range(m_ctrl, &range);
    if (r != 0) return r;
    r = ks_set_asic_search_range(m_ctrl, range);
    if (r != 0) return r;
    if (m_driver != nullptr) r = ksV4l2SetSearchRangeOffset(m_driver, range);
    return r;
}

int _KestraStereoCamSDK_Impl::_private_loadInitialCameraFPS() {
    float fps = 0.0f;
    ks_asic_control_prep(m_ctrl);
    int r = ks_load_current_camera_fps_from_eeprom(m_ctrl, &fps);
    ks_asic_control_post(m_ctrl);
    if (r != 0) {
        KS_LOG_WARN(KS_SDK_IMPL_MODULE, "Warning: load initial fps failed\n");
        return 0;
    }
    if (setCameraFPS(fps) != 0) {
        puts("Error  initial fps setting failed");
        return -2;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::_private_initKsImuModule(const char* ctrl) {
    if (m_imu != nullptr) {
        puts("IMU module already initialized!");
        return 0;
    }
    m_imu = new (std::nothrow) KsImuModule();
    if (m_imu == nullptr || m_ctrl == nullptr) return -1;
    int r = init_IMU_module(m_imu, &m_ctrl->fd);
    setVideoSyncIdAddress(m_driver, &m_sync_id);
    setIMUSyncIdAddress(m_imu, &m_sync_id);
    return r;
}

bool _KestraStereoCamSDK_Impl::isReady() const {
    return m_ready;
}

int _KestraStereoCamSDK_Impl::getVideoDevicefd() const {
    return m_driver != nullptr ? m_driver->fd.load() : -1;
}

void _KestraStereoCamSDK_Impl::openSDKImplLog(int level) {
    log_set_level(level);
    log_set_quiet(0);
}

void _KestraStereoCamSDK_Impl::closeSDKImplLog() {
    log_set_quiet(1);
}

const char* _KestraStereoCamSDK_Impl::getSDKImplVersion() const {
    return kImplVersion;
}

int _KestraStereoCamSDK_Impl::initKestCameraBySN(_ks_camera_list* list, const char* sn) {
    _ks_camera_info_s* camera = getCameraDevBySn(list, sn);
    if (camera == nullptr) return -1;
    return initKestCamera(camera->video_dev, camera->video_dev);
}
