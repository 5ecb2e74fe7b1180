// Control-device wrappers of the camera control layer.
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"

#include <cstdio>

extern "C" {

unsigned int ks_open_ctrl_device(_struct_ks_ctrl_device* handle, const char* path) {
    return static_cast<unsigned int>(ks_iic_init_dev(handle, path));
}

unsigned int ks_release_ctrl_device(_struct_ks_ctrl_device* handle) {
    return static_cast<unsigned int>(release_iic_ctrl(handle));
}

unsigned int ks_write_nuvex_register(_struct_ks_ctrl_device* handle, unsigned int reg,
                                     unsigned int value) {
    return ks_iic_write(handle, reg, value);
}

unsigned int ks_read_nuvex_register(_struct_ks_ctrl_device* handle, unsigned int reg,
                                    uint16_t* value) {
    return ks_iic_read(handle, reg, value);
}

unsigned int ks_write_nuvex_eeprom(_struct_ks_ctrl_device* handle, unsigned int addr,
                                   unsigned int value) {
    return ks_eeprom_write(handle, addr, value);
}

unsigned int ks_read_nuvex_eeprom(_struct_ks_ctrl_device* handle, unsigned int addr,
                                  uint16_t* value) {
    return ks_eeprom_read(handle, addr, value);
}

int ks_write_fpga_register(_struct_ks_ctrl_device*, unsigned int, unsigned int) {
    printf("None FPGA Module. Write Fpga Reg Failed");
    return -1;
}

int ks_read_fpga_register(_struct_ks_ctrl_device*, unsigned int, uint16_t*) {
    printf("None FPGA Module. Read Fpga Reg Failed");
    return -1;
}

unsigned int ks_get_usb_version(_struct_ks_ctrl_device* handle, char* version) {
    return ks_get_usb_version_kernel(handle, version);
}

unsigned int ks_get_usb_nuvex_reset_cnt(_struct_ks_ctrl_device* handle, uint32_t* count) {
    return ks_get_usb_nuvex_reset_cnt_kernel(handle, count);
}

}  // extern "C"
