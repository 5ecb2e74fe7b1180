#include "driver/driver_cpp/source/KSCamera.h"

#include "driver/driver_cpp/source/KSDisparityCommon.h"

// Processing defaults are the member initialisers; every table, point buffer
// and work plane is owned and released with the camera.
KSCamera::KSCamera() = default;
KSCamera::~KSCamera() = default;

int KSCamera::get_camera_type() {
    return -1;
}
int KSCamera::set_video_mode(_ks_video_mode_e mode) {
    return -1;
}
int KSCamera::get_video_mode(_ks_video_mode_e* mode) {
    return -1;
}
bool KSCamera::is_suspend() {
    return false;
}
int KSCamera::suspend_camera() {
    return -1;
}
int KSCamera::resume_camera() {
    return -1;
}
int KSCamera::get_bxf_and_base(float* bxf, float* base) {
    return -1;
}
int KSCamera::get_imu_data(_ks_imu_data_set_s** data) {
    return -1;
}
int KSCamera::get_current_frame(unsigned long* frame_id, unsigned char** frame) {
    return -1;
}
int KSCamera::get_safe_current_frame(unsigned long* frame_id, unsigned char** frame) {
    return -1;
}
int KSCamera::get_rgbd_image(unsigned char* src, unsigned char** disparity, unsigned char** image) {
    return -1;
}
int KSCamera::get_rgbd_disparity_data(unsigned char* src, unsigned char** disparity) {
    return -1;
}
int KSCamera::get_rgbd_yuvi420_image(unsigned char* src, unsigned char** image) {
    return -1;
}
int KSCamera::get_raw_image(unsigned char* src, unsigned char** left, unsigned char** right) {
    return -1;
}
int KSCamera::get_raw_left_bayer_image(unsigned char* src, unsigned char** image) {
    return -1;
}
int KSCamera::get_raw_right_bayer_image(unsigned char* src, unsigned char** image) {
    return -1;
}
int KSCamera::get_rectified_image(unsigned char* src, unsigned char** left, unsigned char** right) {
    return -1;
}
int KSCamera::get_rectified_left_gray_image(unsigned char* src, unsigned char** image) {
    return -1;
}
int KSCamera::get_rectified_right_yuvi420_image(unsigned char* src, unsigned char** image) {
    return -1;
}
int KSCamera::get_supported_video_param(_ks_video_param_s** list, uint8_t* count) {
    return -1;
}
int KSCamera::set_video_param(uint8_t index) {
    return -1;
}
int KSCamera::get_video_param(uint8_t* index) {
    return -1;
}
int KSCamera::get_video_resolution(uint16_t* width, uint16_t* height) {
    return -1;
}
int KSCamera::get_realtime_fps(double* fps) {
    return -1;
}
int KSCamera::auto_optimize_disparity(float value) {
    return -1;
}
int KSCamera::set_filllight_type(_ks_filllight_type_e type) {
    return -1;
}
int KSCamera::get_filllight_type(_ks_filllight_type_e* type) {
    return -1;
}
int KSCamera::set_search_range(uint8_t range) {
    return -1;
}
int KSCamera::get_search_range(uint8_t* range) {
    return -1;
}
int KSCamera::set_line_offset(float offset) {
    return -1;
}
int KSCamera::get_line_offset(float* offset) {
    return -1;
}
int KSCamera::set_disp_offset(float offset) {
    return -1;
}
int KSCamera::get_disp_offset(float* offset) {
    return -1;
}
int KSCamera::set_line_trim(uint16_t left, uint16_t right) {
    return -1;
}
int KSCamera::get_line_trim(uint16_t* left, uint16_t* right) {
    return -1;
}
int KSCamera::set_exposure(uint16_t value) {
    return -1;
}
int KSCamera::get_exposure(uint16_t* value) {
    return -1;
}
int KSCamera::set_camera_sn(const char* sn) {
    return -1;
}
int KSCamera::erase_camera_sn() {
    return -1;
}
int KSCamera::get_camera_sn(char* sn) {
    return -1;
}
int KSCamera::get_usb_version(char* version) {
    return -1;
}
int KSCamera::get_fpga_release_date(uint8_t* year, uint8_t* month, uint8_t* day) {
    return -1;
}
int KSCamera::get_fpga_version(uint8_t* major, uint8_t* minor) {
    return -1;
}
int KSCamera::upload_fpga_bit_file(const char* path) {
    return -1;
}
int KSCamera::upload_epr_file(const char* path, const _ks_video_param_s* param) {
    return -1;
}
int KSCamera::amend_video_frame_param(const _ks_video_param_s* param) {
    return -1;
}
int KSCamera::store_epr_file(const char* path, uint8_t slot) {
    return -1;
}
int KSCamera::store_epr_file_with_video_frame_param(const char* path,
                                                    const _ks_video_param_s* param) {
    return -1;
}
int KSCamera::select_epr_file(uint8_t slot) {
    return -1;
}
int KSCamera::show_all_custom_eeprom() {
    return -1;
}
int KSCamera::set_camera_gain(uint16_t gain) {
    return -1;
}
int KSCamera::get_camera_hardware_info(uint8_t* pcb, uint8_t* sensor) {
    return -1;
}
int KSCamera::get_camera_cmos_swap_mode(uint8_t* mode) {
    return -1;
}
int KSCamera::switch_to_origin_disparity() {
    return -1;
}
int KSCamera::write_nuvex_register_value(uint16_t reg, uint16_t value) {
    return -1;
}
int KSCamera::read_nuvex_register_value(uint16_t reg, uint16_t* value) {
    return -1;
}