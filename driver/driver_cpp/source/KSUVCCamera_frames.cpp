// USB Video Class camera: images, video modes, stream parameters, EPR slots.
#include "driver/driver_cpp/source/KSUVCCamera.h"

// Not wired to the session yet: these answer as unsupported operations.
int KSUVCCamera::upload_camera_epr_for_auto_calibration(uint8_t slot, const char* dir) {
    return -1;
}
int KSUVCCamera::back_up_effective_epr_file(const char* path) {
    return -1;
}
int KSUVCCamera::reset_camera_to_factory_state() {
    return -1;
}
int KSUVCCamera::get_rectify_optical_center(float* cx, float* cy) {
    return -1;
}
unsigned short* KSUVCCamera::get_mata_data_pointer() {
    Guard guard(m_mutex);
    return m_meta;
}
int KSUVCCamera::get_image_channel_from_src_data(unsigned char* src, unsigned char* channel) {
    return -1;
}
int KSUVCCamera::get_rgbd_image_with_timestamp(unsigned char* src, unsigned char** disparity,
                                               unsigned char** image, unsigned long* timestamp) {
    return -1;
}
int KSUVCCamera::get_rectified_image_with_timestamp(unsigned char* src, unsigned char** left,
                                                    unsigned char** right,
                                                    unsigned long* timestamp) {
    return -1;
}
int KSUVCCamera::get_raw_image_with_timestamp(unsigned char* src, unsigned char** left,
                                              unsigned char** right, unsigned long* timestamp) {
    return -1;
}
