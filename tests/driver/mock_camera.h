// A camera whose every operation is a mock, for testing the layers above the
// camera interface.
#ifndef KS_TEST_MOCK_CAMERA_H
#define KS_TEST_MOCK_CAMERA_H

#include <gmock/gmock.h>

#include <functional>

#include "driver/driver_cpp/source/KSCameraAbstract.h"

class MockCamera : public KSCameraAbstract {
  public:
    // Called from the destructor, so tests can see who destroyed the camera.
    std::function<void()> on_destroy;
    ~MockCamera() override {
        if (on_destroy) on_destroy();
    }

    MOCK_METHOD(int, get_camera_type, (), (override));
    MOCK_METHOD(int, set_video_mode, (_ks_video_mode_e), (override));
    MOCK_METHOD(int, get_video_mode, (_ks_video_mode_e*), (override));
    MOCK_METHOD(bool, is_suspend, (), (override));
    MOCK_METHOD(int, suspend_camera, (), (override));
    MOCK_METHOD(int, resume_camera, (), (override));
    MOCK_METHOD(int, get_bxf_and_base, (float*, float*), (override));
    MOCK_METHOD(int, get_imu_data, (_ks_imu_data_set_s**), (override));
    MOCK_METHOD(int, get_current_frame, (unsigned long*, unsigned char**), (override));
    MOCK_METHOD(int, get_safe_current_frame, (unsigned long*, unsigned char**), (override));
    MOCK_METHOD(int, get_rgbd_image, (unsigned char*, unsigned char**, unsigned char**),
                (override));
    MOCK_METHOD(int, get_rgbd_disparity_data, (unsigned char*, unsigned char**), (override));
    MOCK_METHOD(int, get_rgbd_yuvi420_image, (unsigned char*, unsigned char**), (override));
    MOCK_METHOD(int, get_raw_image, (unsigned char*, unsigned char**, unsigned char**), (override));
    MOCK_METHOD(int, get_raw_left_bayer_image, (unsigned char*, unsigned char**), (override));
    MOCK_METHOD(int, get_raw_right_bayer_image, (unsigned char*, unsigned char**), (override));
    MOCK_METHOD(int, get_rectified_image, (unsigned char*, unsigned char**, unsigned char**),
                (override));
    MOCK_METHOD(int, get_rectified_left_gray_image, (unsigned char*, unsigned char**), (override));
    MOCK_METHOD(int, get_rectified_right_yuvi420_image, (unsigned char*, unsigned char**),
                (override));
    MOCK_METHOD(int, calculate_rect_distance, (_ks_rect_distance_info_s*), (override));
    MOCK_METHOD(int, convert_disparity_to_point_cloud,
                (const uint16_t*, uint32_t*, float**, float**, float**), (override));
    MOCK_METHOD(int, get_supported_video_param, (_ks_video_param_s**, uint8_t*), (override));
    MOCK_METHOD(int, set_video_param, (uint8_t), (override));
    MOCK_METHOD(int, get_video_param, (uint8_t*), (override));
    MOCK_METHOD(int, get_video_resolution, (uint16_t*, uint16_t*), (override));
    MOCK_METHOD(int, get_realtime_fps, (double*), (override));
    MOCK_METHOD(int, save_disparity_param, (const char*), (override));
    MOCK_METHOD(int, auto_optimize_disparity, (float), (override));
    MOCK_METHOD(int, set_disparity_param, (const char*), (override));
    MOCK_METHOD(int, set_filllight_type, (_ks_filllight_type_e), (override));
    MOCK_METHOD(int, get_filllight_type, (_ks_filllight_type_e*), (override));
    MOCK_METHOD(int, set_search_range, (uint8_t), (override));
    MOCK_METHOD(int, get_search_range, (uint8_t*), (override));
    MOCK_METHOD(int, set_line_offset, (float), (override));
    MOCK_METHOD(int, get_line_offset, (float*), (override));
    MOCK_METHOD(int, set_disp_offset, (float), (override));
    MOCK_METHOD(int, get_disp_offset, (float*), (override));
    MOCK_METHOD(int, set_line_trim, (uint16_t, uint16_t), (override));
    MOCK_METHOD(int, get_line_trim, (uint16_t*, uint16_t*), (override));
    MOCK_METHOD(int, set_exposure, (uint16_t), (override));
    MOCK_METHOD(int, get_exposure, (uint16_t*), (override));
    MOCK_METHOD(int, set_camera_sn, (const char*), (override));
    MOCK_METHOD(int, erase_camera_sn, (), (override));
    MOCK_METHOD(int, get_camera_sn, (char*), (override));
    MOCK_METHOD(int, get_usb_version, (char*), (override));
    MOCK_METHOD(int, get_fpga_release_date, (uint8_t*, uint8_t*, uint8_t*), (override));
    MOCK_METHOD(int, get_fpga_version, (uint8_t*, uint8_t*), (override));
    MOCK_METHOD(int, upload_fpga_bit_file, (const char*), (override));
    MOCK_METHOD(int, upload_epr_file, (const char*, const _ks_video_param_s*), (override));
    MOCK_METHOD(int, amend_video_frame_param, (const _ks_video_param_s*), (override));
    MOCK_METHOD(int, store_epr_file, (const char*, uint8_t), (override));
    MOCK_METHOD(int, store_epr_file_with_video_frame_param, (const char*, const _ks_video_param_s*),
                (override));
    MOCK_METHOD(int, select_epr_file, (uint8_t), (override));
    MOCK_METHOD(int, show_all_custom_eeprom, (), (override));
    MOCK_METHOD(int, set_camera_gain, (uint16_t), (override));
    MOCK_METHOD(int, get_camera_hardware_info, (uint8_t*, uint8_t*), (override));
    MOCK_METHOD(int, get_camera_cmos_swap_mode, (uint8_t*), (override));
    MOCK_METHOD(int, switch_to_origin_disparity, (), (override));
    MOCK_METHOD(int, write_nuvex_register_value, (uint16_t, uint16_t), (override));
    MOCK_METHOD(int, read_nuvex_register_value, (uint16_t, uint16_t*), (override));
    MOCK_METHOD(int, upload_camera_epr_for_auto_calibration, (uint8_t, const char*), (override));
    MOCK_METHOD(int, back_up_effective_epr_file, (const char*), (override));
    MOCK_METHOD(int, reset_camera_to_factory_state, (), (override));
    MOCK_METHOD(int, get_rectify_optical_center, (float*, float*), (override));
    MOCK_METHOD(int, check_nuvex_chip_status, (), (override));
    MOCK_METHOD(int, check_cmos_status, (), (override));
    MOCK_METHOD(int, set_camera_fps, (float), (override));
    MOCK_METHOD(int, restore_camera_fps_to_default, (), (override));
    MOCK_METHOD(const char*, get_impl_level_version, (), (override));
    MOCK_METHOD(unsigned short*, get_mata_data_pointer, (), (override));
    MOCK_METHOD(int, get_cmos_type, (uint8_t*, const char**), (override));
    MOCK_METHOD(int, set_fill_light_intensity, (uint8_t), (override));
    MOCK_METHOD(int, get_fill_light_intensity, (uint8_t*), (override));
    MOCK_METHOD(int, get_image_channel_from_src_data, (unsigned char*, unsigned char*), (override));
    MOCK_METHOD(int, write_fpga_register_value, (uint16_t, uint16_t), (override));
    MOCK_METHOD(int, read_fpga_register_value, (uint16_t, uint16_t*), (override));
    MOCK_METHOD(int, write_cmos_register_value, (uint16_t, uint16_t), (override));
    MOCK_METHOD(int, read_cmos_register_value, (uint16_t, uint16_t*), (override));
    MOCK_METHOD(int, write_eeprom_address_value, (uint16_t, uint16_t), (override));
    MOCK_METHOD(int, read_eeprom_address_value, (uint16_t, uint16_t*), (override));
    MOCK_METHOD(int, get_ae_stats_values, (unsigned int**), (override));
    MOCK_METHOD(int, get_rgbd_image_with_timestamp,
                (unsigned char*, unsigned char**, unsigned char**, unsigned long*), (override));
    MOCK_METHOD(int, get_rectified_image_with_timestamp,
                (unsigned char*, unsigned char**, unsigned char**, unsigned long*), (override));
    MOCK_METHOD(int, get_raw_image_with_timestamp,
                (unsigned char*, unsigned char**, unsigned char**, unsigned long*), (override));
    MOCK_METHOD(int, set_disparity_filter_max_and_min_distance, (float, float), (override));
};

#endif
