// The per-camera session: the one object that ties the video stream driver,
// the control channel and the IMU receiver of one physical camera together.
//
// One class, implemented by concern:
//   ksAsicSDK_Impl.cpp           bring-up, standby, resume and teardown
//   ksAsicSDK_Impl_frames.cpp    frame access, output channels, stereo constants
//   ksAsicSDK_Impl_settings.cpp  matcher, sensor, fill-light and identity settings
//   ksAsicSDK_Impl_epr.cpp       EPR slots, stream descriptors, calibration import
//
// The session takes no locks: the camera object that owns it serialises the
// calls made on it. Two other threads read its data: the capture thread
// (through the driver handle and the frame-sync block) and the IMU receiver
// (through its module and the frame-sync block).
#ifndef KS_ASIC_SDK_IMPL_H
#define KS_ASIC_SDK_IMPL_H

#include <cstdint>
#include <string>
#include <vector>

#include "ksStereoCameraDriver.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"
#include "ks_imu_module/uvc-source/ks_uvc_imu_source.h"
#include "ks_v4l2_driver/source/ks_v4l2_driver.h"

#define KS_SDK_IMPL_MODULE "ksAsicSdk/source/ksAsicSDK_Impl"

// Output channels as the session numbers them.
enum {
    KS_SESSION_CHANNEL_ORIGIN = 0,
    KS_SESSION_CHANNEL_RECTIFIED = 2,
    KS_SESSION_CHANNEL_RGBD = 5,
    KS_SESSION_CHANNEL_ORIGIN_DISPARITY = 8,
};

constexpr size_t kKsColorTableBytes = 24576;  // 8192 RGB entries

class _KestraStereoCamSDK_Impl {
  public:
    _KestraStereoCamSDK_Impl();
    ~_KestraStereoCamSDK_Impl();
    _KestraStereoCamSDK_Impl(const _KestraStereoCamSDK_Impl&) = delete;
    _KestraStereoCamSDK_Impl& operator=(const _KestraStereoCamSDK_Impl&) = delete;

    // ---- bring-up and teardown ----
    // 0; -1 no video device; -2 the stream did not start.
    int initKestCamera(const char* video, const char* ctrl);
    int initKestCamera(const char* path);
    // Without the device check and the IMU receiver.
    int initKestCameraSimple(const char* video, const char* ctrl);
    // The control channel alone.
    int initCamCtrl(const char* path);
    // The camera of the list whose serial number is sn; -1 when none is.
    int initKestCameraBySN(_ks_camera_list* list, const char* sn);
    void release();
    int CameraStandby();
    int CameraResume();
    int checkDeviceInitStatus();
    int initCameraParameter();
    bool isReady() const;
    int getVideoDevicefd() const;
    void openSDKImplLog(int level);
    void closeSDKImplLog();
    const char* getSDKImplVersion() const;

    // ---- frames and output channels ----
    int SwitchToRGBD();
    int SwitchToStereoOrigin();
    int SwitchToStereoRectified();
    int SwitchToOriginDisparity();
    int getChannel();
    int getCurrenFrame(unsigned int* id, unsigned char** frame);
    int getSafeCurrentFrame(unsigned int* id, unsigned char** frame);
    int parseToRgbdImage(unsigned char* src, unsigned char** image, unsigned short** disparity,
                         unsigned short** meta);
    int parseToRawImage(unsigned char* src, unsigned short** left, unsigned short** right,
                        unsigned short** meta);
    int parseToRectifiedImage(unsigned char* src, unsigned char** left, unsigned char** right,
                              unsigned short** meta);
    int GetNextFrame(unsigned int* id, unsigned char** image, unsigned short** disparity);
    int GetNextFrame(unsigned int* id, unsigned char** image, unsigned short** disparity,
                     unsigned long* timestamp);
    int GetNextRawFrame(unsigned int* id, unsigned short** left, unsigned short** right);
    int GetNextRectifiedFrame(unsigned int* id, unsigned char** left, unsigned char** right);
    int frameInfoProcess(unsigned short* meta, unsigned long* timestamp);
    int parseImageChannelFromMeta(unsigned short* meta, unsigned char* channel);
    int parseImageChannelFromSrc(unsigned char* src, unsigned char* code);
    int GetCameraBxfBase(float* bxf, float* base);
    unsigned char* getColorTable();
    int getRealTimeFPS(double* fps);

    // ---- settings ----
    int SetDisparityOffset(float offset);
    int GetDisparityOffset(float* offset);
    int SetRangeOffset(unsigned char range);
    int GetRangeOffset(unsigned char* range);
    int SetLineOffset(float offset);
    int GetLineOffset(float* offset);
    void autoAssignLineOffsetLR(float offset, float* left, float* right);
    int SetLineTrim(unsigned short* left, unsigned short* right);
    int GetLineTrim(unsigned short* left, unsigned short* right);
    int setCameraGain(unsigned short gain);
    int getCameraGain(unsigned short* a, unsigned short* b);
    int setCameraExposure(unsigned short exposure);
    int getCameraExposure(unsigned short* exposure);
    int setCameraFPS(float fps);
    int restoreCameraDefaultFPS();
    int setFillLightMode(int mode);
    int getFillLightMode(int* mode);
    int setFillLightIntensity(unsigned char intensity);
    int getFillLightIntensity(unsigned char* intensity);
    int getWhiteBalanceParam(unsigned short* first, unsigned short* middle, unsigned short* last);
    int setWhiteBalanceParam(unsigned short first, unsigned short middle, unsigned short last);
    int setCamTriggerMaster();
    int setCamTriggerSlave();
    int setCamTriggerDefault();
    int setCameraSN(const char* sn);
    int getCameraSN(char* sn);
    int eraseCameraSN();
    int getCmosSensorModel(unsigned char* code);
    int getCmosSensorModel(unsigned char* code, const char** name);
    int checkCmosStatus();
    int checkNuvexCmosIDX(unsigned short* left, unsigned short* right);
    int getLastestAeStatFromImage(unsigned int** stats);
    int getLatestImuData(_ks_imu_data_s** data);
    int pauseImuModule();
    int resumeImuModule();
    int getCameraHardwareInfo(unsigned char* pcb, unsigned char* sensor);
    int getFpgaVersion(unsigned char* major, unsigned char* minor);
    int getFpgaReleaseDate(unsigned char* first, unsigned char* second, unsigned char* third);
    int getUsbVersion(char* version);
    int getUsbResetNuvexCnt(unsigned int* count);
    int getCameraCmosSwapMode(unsigned char* mode);
    int writeNuvexRegisterVal(unsigned short reg, unsigned short value);
    int readNuvexRegisterVal(unsigned short reg, unsigned short* value);
    int writeEEpromAddressVal(unsigned short address, unsigned short value);
    int readEEpromAddressVal(unsigned short address, unsigned short* value);
    int writeCmosRegisterVal(unsigned short reg, unsigned short value);
    int readCmosRegisterVal(unsigned short reg, unsigned short* value);
    int writeFpgaRegisterVal(unsigned short reg, unsigned short value);
    int readFpgaRegisterVal(unsigned short reg, unsigned short* value);

    // ---- EPR slots, stream descriptors, calibration import ----
    int selectEPRParameter(int slot);
    int setStreamMode(_struct_epr_info info);
    int uploadEPRtoSlots(const char* file, int slot);
    int uploadEPRtoEffectiveNuvexAreaDirect(const char* file);
    int uploadEPRWithStreamInfo(const char* file, _struct_epr_info* info);
    int uploadEPRtoCamera(const char* file, _struct_epr_info* info);
    int amendStreamInfo(_struct_epr_info* info);
    int getCurrentStreamInfo(_struct_epr_info* info);
    int querySupportedStreamInfo(std::vector<_struct_epr_info>& out);
    int queryAllSavedRectifyCamPara(std::vector<_struct_rectify_cam_para_info>& out);
    int amendRectifyCamPara(_struct_rectify_cam_para_info* info);
    int getCurrentRectifyCamPara(_struct_rectify_cam_para_info* info);
    int getCurrentRectifyCamOpticalCenter(float* cx, float* cy);
    int getCurrentRectifyCamFov(float* h, float* v);
    int downloadEffectiveEprParameter(const char* path);
    int eraseEffectiveEpr();
    int eraseAllCustomEEPROMData();
    int restoreCameraToInitialState();
    int showAllCustomEEPROM();
    int uploadFpgaBitFile(const char* file);
    int ksUploadEprWithAutoCalibrationDir(unsigned char slot, const char* dir);

    // ---- internal steps, public for the camera object and the tests ----
    int _private_start_camera_stream();
    int _private_shutdown_camera_stream();
    void _private_alloc_image_buf();
    void _private_free_image_buf();
    int _private_check_device();
    int _private_initKsImuModule(const char* ctrl);
    int _private_setLineOffset(float offset, bool save);
    int _private_parseEprLogFile(const char* file, _struct_epr_info* info,
                                 _struct_rectify_cam_para_info* para);

    // Read-only views for the camera object.
    KsY4L2Cam* driverHandle() const { return m_driver; }
    // Metadata line of the last parsed frame (one word per pixel of line 0).
    unsigned short* metadataLine() const { return m_meta; }
    _struct_ks_ctrl_device* ctrlHandle() const { return m_ctrl; }
    unsigned char currentChannel() const { return m_channel; }
    // Size of the image buffers; 0 x 0 while the session has none.
    uint16_t imageBufferWidth() const { return m_buf_width; }
    uint16_t imageBufferHeight() const { return m_buf_height; }

  private:
    int _private_loadInitialDispOffset();
    int _private_loadInitialLineOffset();
    int _private_loadInitialSearchRangeOffset();
    int _private_loadInitialCameraFPS();
    int _private_setup_stream(bool with_device_check, bool with_imu, const char* video,
                              const char* ctrl);
    // True when the image buffers exist and match the stream's frame size.
    bool _private_buffers_match_stream() const;

    KsY4L2Cam* m_driver;
    _struct_ks_ctrl_device* m_ctrl;
    KsImuModule* m_imu;
    _cam_frame_rgbd_data* m_rgbd;
    _cam_frame_raw_data* m_raw;
    unsigned char* m_color_table;
    unsigned short* m_meta;
    uint16_t m_buf_width;
    uint16_t m_buf_height;
    // Written by the capture thread, read by the IMU receiver.
    unsigned long m_sync_id;
    bool m_ready;
    unsigned char m_channel;
    float m_disp_offset;
    unsigned char m_search_range;
    unsigned int m_ae_stats[5];
};

#endif
