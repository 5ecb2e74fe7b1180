// Base camera: defaults for every operation a transport may not support, and
// the host-side disparity processing shared by all transports.
#ifndef KS_CAMERA_H
#define KS_CAMERA_H

#include <memory>

#include "driver/driver_cpp/source/KSCameraAbstract.h"
#include "driver/driver_cpp/source/KSWorkBuffer.h"

struct KSDisparityWork;

class KSCamera : public KSCameraAbstract {
  public:
    KSCamera();
    ~KSCamera() override;

    // Every operation below answers -1 (not supported) unless a transport
    // overrides it; is_suspend answers false.
    int get_camera_type() override;
    int set_video_mode(_ks_video_mode_e mode) override;
    int get_video_mode(_ks_video_mode_e* mode) override;
    bool is_suspend() override;
    int suspend_camera() override;
    int resume_camera() override;
    int get_bxf_and_base(float* bxf, float* base) override;
    int get_imu_data(_ks_imu_data_set_s** data) override;
    int get_current_frame(unsigned long* frame_id, unsigned char** frame) override;
    int get_safe_current_frame(unsigned long* frame_id, unsigned char** frame) override;
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
    int calculate_rect_distance(_ks_rect_distance_info_s* info) override;
    int convert_disparity_to_point_cloud(const uint16_t* disparity, uint32_t* count, float** x,
                                         float** y, float** z) override;
    int get_supported_video_param(_ks_video_param_s** list, uint8_t* count) override;
    int set_video_param(uint8_t index) override;
    int get_video_param(uint8_t* index) override;
    int get_video_resolution(uint16_t* width, uint16_t* height) override;
    int get_realtime_fps(double* fps) override;
    int save_disparity_param(const char* file) override;
    int auto_optimize_disparity(float value) override;
    int set_disparity_param(const char* file) override;
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
    int set_camera_sn(const char* sn) override;
    int erase_camera_sn() override;
    int get_camera_sn(char* sn) override;
    int get_usb_version(char* version) override;
    int get_fpga_release_date(uint8_t* year, uint8_t* month, uint8_t* day) override;
    int get_fpga_version(uint8_t* major, uint8_t* minor) override;
    int upload_fpga_bit_file(const char* path) override;
    int upload_epr_file(const char* path, const _ks_video_param_s* param) override;
    int amend_video_frame_param(const _ks_video_param_s* param) override;
    int store_epr_file(const char* path, uint8_t slot) override;
    int store_epr_file_with_video_frame_param(const char* path,
                                              const _ks_video_param_s* param) override;
    int select_epr_file(uint8_t slot) override;
    int show_all_custom_eeprom() override;
    int set_camera_gain(uint16_t gain) override;
    int get_camera_hardware_info(uint8_t* pcb, uint8_t* sensor) override;
    int get_camera_cmos_swap_mode(uint8_t* mode) override;
    int switch_to_origin_disparity() override;
    int write_nuvex_register_value(uint16_t reg, uint16_t value) override;
    int read_nuvex_register_value(uint16_t reg, uint16_t* value) override;
    int set_disparity_filter_max_and_min_distance(float max_distance, float min_distance) override;

    // ---- host-side disparity processing (not part of the camera interface) ----

    // Fetches the stereo geometry and the resolution when unknown and builds
    // the depth and lateral tables. 0; -1 geometry not available; -2
    // resolution not available; -3 / -4 a table could not be allocated.
    int initialize_runtime_environment();

    // Removes speckles, drops back-lit frames and fills holes of a disparity
    // map in place, guided by the matching 8-bit grey image. 0 or a negative
    // code (-1 geometry, -1..-12 work arrays, -13 line offset unreadable).
    int dense_disparity(uint16_t width, uint16_t height, uint16_t* disparity, uint8_t* image);
    // Removes speckles, drops back-lit frames, keeps one match per target
    // column and clamps to the distance limits, in place. 0; -1 geometry or
    // first work array; -2..-4 further work arrays; -13 line offset unreadable.
    int filter_disparity(uint16_t width, uint16_t height, uint16_t* disparity, uint8_t* image);
    // True when six or fewer of sixteen blocks carry more than half of the
    // image's brightness; false for images under 40 x 40 or without pixels.
    bool KsBackLightingAdjust(uint16_t width, uint16_t height, uint8_t* image);

  protected:
    _ks_video_mode_e m_video_mode = KS_VIDEO_MODE_RGBD;
    // Image size of the stream; also the size the point cloud and the
    // rectangle statistics work at.
    uint16_t m_image_width = 0;
    uint16_t m_image_height = 0;

    // Stereo geometry: baseline x focal length in pixels, baseline, focal
    // length in pixels. 0 or below: not known yet.
    float m_bxf = 0.0f;
    float m_baseline = 0.0f;
    float m_focal = 0.0f;
    // Entry d (disparity in 1/32 pixel) = 32 x bxf / d and 32 x baseline / d;
    // entry 0 stands for infinitely far.
    KSWorkBuffer<float> m_depth_table;
    KSWorkBuffer<float> m_lateral_table;
    // Packed point cloud handed out by convert_disparity_to_point_cloud.
    KSWorkBuffer<float> m_point_x;
    KSWorkBuffer<float> m_point_y;
    KSWorkBuffer<float> m_point_z;
    // Disparity histogram of calculate_rect_distance.
    KSWorkBuffer<uint32_t> m_rect_histogram;

    // Work planes of dense_disparity / filter_disparity (allocated on first use).
    std::unique_ptr<KSDisparityWork> m_disparity_work;
    // First disparity sample the down-sampling reads, in down-sampled samples.
    uint32_t m_dense_start_offset = 0;
    // 1 while the densified output is trusted; 0 after a back-lit frame.
    uint8_t m_dense_valid_flag = 1;
    // Disparity limits of the output, both exclusive.
    uint16_t m_max_disparity_limit = 16383;
    uint16_t m_min_disparity_limit = 0;
    float m_filter_ratio = 0.05f;
    // Share of pixels in small regions above which a back-lit frame is
    // dropped; 0.38 right after a dropped frame, 0.4 otherwise.
    float m_small_region_ratio_threshold = 0.4f;

  private:
    int fetch_geometry();
    // The camera's work arrays, created on first use; null when out of memory.
    KSDisparityWork* disparity_work();
    int resolve_start_offset(uint16_t grid_width);
    bool drop_back_lit_frame(uint64_t small_pixels, uint32_t grid_pixels, uint16_t width,
                             uint16_t height, uint8_t* image);
    float distance_of(uint32_t disparity) const;
};

#endif
