// The camera interface behind the public handle. The order of the virtual
// operations is part of the binary interface: new operations go at the end.
#ifndef KS_CAMERA_ABSTRACT_H
#define KS_CAMERA_ABSTRACT_H

#include <cstdint>

#include "ksStereoCameraDriver.h"

class KSCameraAbstract {
  public:
    virtual ~KSCameraAbstract() = default;
    virtual int get_camera_type() = 0;

    virtual int set_video_mode(_ks_video_mode_e mode) = 0;
    virtual int get_video_mode(_ks_video_mode_e* mode) = 0;

    virtual bool is_suspend() = 0;
    virtual int suspend_camera() = 0;
    virtual int resume_camera() = 0;

    virtual int get_bxf_and_base(float* bxf, float* base) = 0;
    virtual int get_imu_data(_ks_imu_data_set_s** data) = 0;

    virtual int get_current_frame(unsigned long* frame_id, unsigned char** frame) = 0;
    virtual int get_safe_current_frame(unsigned long* frame_id, unsigned char** frame) = 0;

    virtual int get_rgbd_image(unsigned char* src, unsigned char** disparity,
                               unsigned char** image) = 0;
    virtual int get_rgbd_disparity_data(unsigned char* src, unsigned char** disparity) = 0;
    virtual int get_rgbd_yuvi420_image(unsigned char* src, unsigned char** image) = 0;

    virtual int get_raw_image(unsigned char* src, unsigned char** left, unsigned char** right) = 0;
    virtual int get_raw_left_bayer_image(unsigned char* src, unsigned char** image) = 0;
    virtual int get_raw_right_bayer_image(unsigned char* src, unsigned char** image) = 0;

    virtual int get_rectified_image(unsigned char* src, unsigned char** left,
                                    unsigned char** right) = 0;
    virtual int get_rectified_left_gray_image(unsigned char* src, unsigned char** image) = 0;
    virtual int get_rectified_right_yuvi420_image(unsigned char* src, unsigned char** image) = 0;

    virtual int calculate_rect_distance(_ks_rect_distance_info_s* info) = 0;
    virtual int convert_disparity_to_point_cloud(const uint16_t* disparity, uint32_t* count,
                                                 float** x, float** y, float** z) = 0;

    virtual int get_supported_video_param(_ks_video_param_s** list, uint8_t* count) = 0;
    virtual int set_video_param(uint8_t index) = 0;
    virtual int get_video_param(uint8_t* index) = 0;
    virtual int get_video_resolution(uint16_t* width, uint16_t* height) = 0;
    virtual int get_realtime_fps(double* fps) = 0;

    virtual int save_disparity_param(const char* file) = 0;
    virtual int auto_optimize_disparity(float value) = 0;
    virtual int set_disparity_param(const char* file) = 0;

    virtual int set_filllight_type(_ks_filllight_type_e type) = 0;
    virtual int get_filllight_type(_ks_filllight_type_e* type) = 0;

    virtual int set_search_range(uint8_t range) = 0;
    virtual int get_search_range(uint8_t* range) = 0;
    virtual int set_line_offset(float offset) = 0;
    virtual int get_line_offset(float* offset) = 0;
    virtual int set_disp_offset(float offset) = 0;
    virtual int get_disp_offset(float* offset) = 0;
    virtual int set_line_trim(uint16_t left, uint16_t right) = 0;
    virtual int get_line_trim(uint16_t* left, uint16_t* right) = 0;

    virtual int set_exposure(uint16_t value) = 0;
    virtual int get_exposure(uint16_t* value) = 0;

    virtual int set_camera_sn(const char* sn) = 0;
    virtual int erase_camera_sn() = 0;
    virtual int get_camera_sn(char* sn) = 0;

    virtual int get_usb_version(char* version) = 0;
    virtual int get_fpga_release_date(uint8_t* year, uint8_t* month, uint8_t* day) = 0;
    virtual int get_fpga_version(uint8_t* major, uint8_t* minor) = 0;
    virtual int upload_fpga_bit_file(const char* path) = 0;

    virtual int upload_epr_file(const char* path, const _ks_video_param_s* param) = 0;
    virtual int amend_video_frame_param(const _ks_video_param_s* param) = 0;
    virtual int store_epr_file(const char* path, uint8_t slot) = 0;
    virtual int store_epr_file_with_video_frame_param(const char* path,
                                                      const _ks_video_param_s* param) = 0;
    virtual int select_epr_file(uint8_t slot) = 0;
    virtual int show_all_custom_eeprom() = 0;

    virtual int set_camera_gain(uint16_t gain) = 0;
    virtual int get_camera_hardware_info(uint8_t* pcb, uint8_t* sensor) = 0;
    virtual int get_camera_cmos_swap_mode(uint8_t* mode) = 0;
    virtual int switch_to_origin_disparity() = 0;
    virtual int write_nuvex_register_value(uint16_t reg, uint16_t value) = 0;
    virtual int read_nuvex_register_value(uint16_t reg, uint16_t* value) = 0;

    virtual int upload_camera_epr_for_auto_calibration(uint8_t slot, const char* dir) = 0;
    virtual int back_up_effective_epr_file(const char* path) = 0;
    virtual int reset_camera_to_factory_state() = 0;
    virtual int get_rectify_optical_center(float* cx, float* cy) = 0;
    virtual int check_nuvex_chip_status() = 0;
    virtual int check_cmos_status() = 0;
    virtual int set_camera_fps(float fps) = 0;
    virtual int restore_camera_fps_to_default() = 0;
    virtual const char* get_impl_level_version() = 0;
    virtual unsigned short* get_mata_data_pointer() = 0;
    virtual int get_cmos_type(uint8_t* id, const char** name) = 0;
    virtual int set_fill_light_intensity(uint8_t intensity) = 0;
    virtual int get_fill_light_intensity(uint8_t* intensity) = 0;
    virtual int get_image_channel_from_src_data(unsigned char* src, unsigned char* channel) = 0;
    virtual int write_fpga_register_value(uint16_t address, uint16_t value) = 0;
    virtual int read_fpga_register_value(uint16_t address, uint16_t* value) = 0;
    virtual int write_cmos_register_value(uint16_t address, uint16_t value) = 0;
    virtual int read_cmos_register_value(uint16_t address, uint16_t* value) = 0;
    virtual int write_eeprom_address_value(uint16_t address, uint16_t value) = 0;
    virtual int read_eeprom_address_value(uint16_t address, uint16_t* value) = 0;
    virtual int get_ae_stats_values(unsigned int** values) = 0;
    virtual int get_rgbd_image_with_timestamp(unsigned char* src, unsigned char** disparity,
                                              unsigned char** image, unsigned long* timestamp) = 0;
    virtual int get_rectified_image_with_timestamp(unsigned char* src, unsigned char** left,
                                                   unsigned char** right,
                                                   unsigned long* timestamp) = 0;
    virtual int get_raw_image_with_timestamp(unsigned char* src, unsigned char** left,
                                             unsigned char** right, unsigned long* timestamp) = 0;

    virtual int set_disparity_filter_max_and_min_distance(float max_distance,
                                                          float min_distance) = 0;
};

#endif
