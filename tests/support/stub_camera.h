// KSCamera with the operations a transport must supply answered by trivial
// stubs (0, or an empty version text), for tests of the layers around it.
#ifndef KS_TEST_STUB_CAMERA_H
#define KS_TEST_STUB_CAMERA_H

#include <cstdint>

#include "driver/driver_cpp/source/KSCamera.h"

class StubTransportCamera : public KSCamera {
  public:
    int upload_camera_epr_for_auto_calibration(uint8_t, const char*) override { return 0; }
    int back_up_effective_epr_file(const char*) override { return 0; }
    int reset_camera_to_factory_state() override { return 0; }
    int get_rectify_optical_center(float*, float*) override { return 0; }
    int check_nuvex_chip_status() override { return 0; }
    int check_cmos_status() override { return 0; }
    int set_camera_fps(float) override { return 0; }
    int restore_camera_fps_to_default() override { return 0; }
    const char* get_impl_level_version() override { return "test"; }
    unsigned short* get_mata_data_pointer() override { return nullptr; }
    int get_cmos_type(uint8_t*, const char**) override { return 0; }
    int set_fill_light_intensity(uint8_t) override { return 0; }
    int get_fill_light_intensity(uint8_t*) override { return 0; }
    int get_image_channel_from_src_data(unsigned char*, unsigned char*) override { return 0; }
    int write_fpga_register_value(uint16_t, uint16_t) override { return 0; }
    int read_fpga_register_value(uint16_t, uint16_t*) override { return 0; }
    int write_cmos_register_value(uint16_t, uint16_t) override { return 0; }
    int read_cmos_register_value(uint16_t, uint16_t*) override { return 0; }
    int write_eeprom_address_value(uint16_t, uint16_t) override { return 0; }
    int read_eeprom_address_value(uint16_t, uint16_t*) override { return 0; }
    int get_ae_stats_values(unsigned int**) override { return 0; }
    int get_rgbd_image_with_timestamp(unsigned char*, unsigned char**, unsigned char**,
                                      unsigned long*) override {
        return 0;
    }
    int get_rectified_image_with_timestamp(unsigned char*, unsigned char**, unsigned char**,
                                           unsigned long*) override {
        return 0;
    }
    int get_raw_image_with_timestamp(unsigned char*, unsigned char**, unsigned char**,
                                     unsigned long*) override {
        return 0;
    }
};

#endif
