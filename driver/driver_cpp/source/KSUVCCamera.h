// A USB Video Class camera: the handle applications hold. It owns one
// session and maps the session's results onto the camera interface's codes.
//
// Every operation holds the camera's own mutex for its whole duration, so an
// application may call one camera from several threads (settings from one,
// frames from another) without a restart freeing buffers under a parser. The
// mutex is recursive because operations call each other through their slots.
// Two cameras never wait on each other.
//
// Implemented by concern:
//   KSUVCCamera.cpp           construction, open, suspend and resume, frame fetch
//   KSUVCCamera_frames.cpp    images, video modes, stream parameters, EPR slots
//   KSUVCCamera_settings.cpp  settings, identity, engineering access
#ifndef KS_UVC_CAMERA_H
#define KS_UVC_CAMERA_H

#include <mutex>

#include "driver/driver_cpp/source/KSCamera.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"

class KSUVCCamera : public KSCamera {
  public:
    KSUVCCamera();
    ~KSUVCCamera() override;

    // ---- open (KSUVCCamera.cpp) ----
    int open_camera(const char* path);
    int open_camera_initCamCtrl(const char* path);
    int open_camera_initCamSimple(const char* path);
    int open_camera_by_sn(_ks_camera_list* list, const char* sn);

    // ---- lifecycle and frame fetch (KSUVCCamera.cpp) ----
    int get_camera_type() override;
    bool is_suspend() override;
    int suspend_camera() override;
    int resume_camera() override;
    int get_current_frame(unsigned long* frame_id, unsigned char** frame) override;
    int get_safe_current_frame(unsigned long* frame_id, unsigned char** frame) override;
    int get_imu_data(_ks_imu_data_set_s** data) override;
    const char* get_impl_level_version() override;
    // Host processing of the base class, under the camera's mutex.
    int calculate_rect_distance(_ks_rect_distance_info_s* info) override;
    int convert_disparity_to_point_cloud(const uint16_t* disparity, uint32_t* count, float** x,
                                         float** y, float** z) override;
    int save_disparity_param(const char* file) override;
    int set_disparity_param(const char* file) override;
    int set_disparity_filter_max_and_min_distance(float max_distance, float min_distance) override;

    // ---- images, modes, stream parameters, EPR slots (KSUVCCamera_frames.cpp) ----
    int set_video_mode(_ks_video_mode_e mode) override;
    int get_video_mode(_ks_video_mode_e* mode) override;
    int get_bxf_and_base(float* bxf, float* base) override;
    int get_rgbd_image(unsigned char* src, unsigned char** disparity,
                       unsigned char** image) override;
    int get_rgbd_disparity_data(unsigned char* src, unsigned char** disparity) override;
    int get_rgbd_yuvi420_image(unsigned char* src, unsigned char** image) override;
    int get_raw_image(unsigned char* src, unsigned char** left, unsigned char** right) override;
    int get_raw_left_bayer_image(unsigned char* src, unsigned char** image) override;
    int get_raw_right_bayer_image(unsigned char* src, unsigned char** image) override;
    int get_rectified_image(unsigned char* src, unsigned char** left,
                            unsigned char** right) override;
    int get_rectified_left_gray_image(unsigned char* src, unsigned char** image) override;
    int get_rectified_right_yuvi420_image(unsigned char* src, unsigned char** image) override;
    int get_supported_video_param(_ks_video_param_s** list, uint8_t* count) override;
    int set_video_param(uint8_t index) override;
    int get_video_param(uint8_t* index) override;
    int get_video_resolution(uint16_t* width, uint16_t* height) override;
    int get_realtime_fps(double* fps) override;
    int switch_to_origin_disparity() override;
    int upload_fpga_bit_file(const char* path) override;
    int upload_epr_file(const char* path, const _ks_video_param_s* param) override;
    int amend_video_frame_param(const _ks_video_param_s* param) override;
    int store_epr_file(const char* path, uint8_t slot) override;
    int store_epr_file_with_video_frame_param(const char* path,
                                              const _ks_video_param_s* param) override;
    int select_epr_file(uint8_t slot) override;
    int show_all_custom_eeprom() override;
    int upload_camera_epr_for_auto_calibration(uint8_t slot, const char* dir) override;
    int back_up_effective_epr_file(const char* path) override;
    int reset_camera_to_factory_state() override;
    int get_rectify_optical_center(float* cx, float* cy) override;
    unsigned short* get_mata_data_pointer() override;
    int get_image_channel_from_src_data(unsigned char* src, unsigned char* channel) override;
    int get_rgbd_image_with_timestamp(unsigned char* src, unsigned char** disparity,
                                      unsigned char** image, unsigned long* timestamp) override;
    int get_rectified_image_with_timestamp(unsigned char* src, unsigned char** left,
                                           unsigned char** right,
                                           unsigned long* timestamp) override;
    int get_raw_image_with_timestamp(unsigned char* src, unsigned char** left,
                                     unsigned char** right, unsigned long* timestamp) override;

    // ---- settings, identity, engineering access (KSUVCCamera_settings.cpp) ----
    int set_filllight_type(_ks_filllight_type_e type) override;
    int get_filllight_type(_ks_filllight_type_e* type) override;
    int set_search_range(uint8_t range) override;
    int get_search_range(uint8_t* range) override;
    int set_line_offset(float offset) override;
    int get_line_offset(float* offset) override;
    int set_disp_offset(float offset) override;
    int get_disp_offset(float* offset) override;
    int set_line_trim(uint16_t left, uint16_t right) override;
    int get_line_trim(uint16_t* left, uint16_t* right) override;
    int set_exposure(uint16_t value) override;
    int get_exposure(uint16_t* value) override;
    int set_camera_gain(uint16_t gain) override;
    int set_camera_sn(const char* sn) override;
    int erase_camera_sn() override;
    int get_camera_sn(char* sn) override;
    int get_usb_version(char* version) override;
    int get_fpga_release_date(uint8_t* year, uint8_t* month, uint8_t* day) override;
    int get_fpga_version(uint8_t* major, uint8_t* minor) override;
    int get_camera_hardware_info(uint8_t* pcb, uint8_t* sensor) override;
    int get_camera_cmos_swap_mode(uint8_t* mode) override;
    int write_nuvex_register_value(uint16_t reg, uint16_t value) override;
    int read_nuvex_register_value(uint16_t reg, uint16_t* value) override;
    int check_nuvex_chip_status() override;
    int check_cmos_status() override;
    int set_camera_fps(float fps) override;
    int restore_camera_fps_to_default() override;
    int get_cmos_type(uint8_t* id, const char** name) override;
    int set_fill_light_intensity(uint8_t intensity) override;
    int get_fill_light_intensity(uint8_t* intensity) override;
    int write_fpga_register_value(uint16_t address, uint16_t value) override;
    int read_fpga_register_value(uint16_t address, uint16_t* value) override;
    int write_cmos_register_value(uint16_t address, uint16_t value) override;
    int read_cmos_register_value(uint16_t address, uint16_t* value) override;
    int write_eeprom_address_value(uint16_t address, uint16_t value) override;
    int read_eeprom_address_value(uint16_t address, uint16_t* value) override;
    int get_ae_stats_values(unsigned int** values) override;

    // The session, for tests and for the camera's own files.
    _KestraStereoCamSDK_Impl& session() { return m_session; }

  protected:
    using Guard = std::lock_guard<std::recursive_mutex>;
    // Prints the location block and a message to standard output.
    void report(int line, const char* function, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    // Before the session may restart its stream: the images handed out and
    // the size and geometry learnt belong to the old stream.
    void forget_stream();

    std::recursive_mutex m_mutex;
    _KestraStereoCamSDK_Impl m_session;
    bool m_suspended = true;
    uint32_t m_last_frame_id = 0;
    // Last source frame given to an image getter, its two outputs and its
    // metadata line; all point into the session's buffers.
    unsigned char* m_src = nullptr;
    unsigned char* m_first_image = nullptr;
    unsigned char* m_second_image = nullptr;
    unsigned short* m_meta = nullptr;
    // Stream configurations stored in the camera, as last listed.
    _ks_video_param_s* m_supported_params = nullptr;
    uint8_t m_supported_count = 0;
};

#endif
