// USB Video Class camera: settings, identity, engineering access.
#include "driver/driver_cpp/source/KSUVCCamera.h"

// Not wired to the session yet: these answer as unsupported operations.
int KSUVCCamera::check_nuvex_chip_status() {
    Guard guard(m_mutex);
    return m_session.checkDeviceInitStatus();
}
int KSUVCCamera::check_cmos_status() {
    return -1;
}
int KSUVCCamera::set_camera_fps(float fps) {
    Guard guard(m_mutex);
    return m_session.setCameraFPS(fps);
}
int KSUVCCamera::restore_camera_fps_to_default() {
    return -1;
}
int KSUVCCamera::get_cmos_type(uint8_t* id, const char** name) {
    return -1;
}
int KSUVCCamera::set_fill_light_intensity(uint8_t intensity) {
    return -1;
}
int KSUVCCamera::get_fill_light_intensity(uint8_t* intensity) {
    return -1;
}
int KSUVCCamera::write_fpga_register_value(uint16_t address, uint16_t value) {
    return -1;
}
int KSUVCCamera::read_fpga_register_value(uint16_t address, uint16_t* value) {
    return -1;
}
int KSUVCCamera::write_cmos_register_value(uint16_t address, uint16_t value) {
    return -1;
}
int KSUVCCamera::read_cmos_register_value(uint16_t address, uint16_t* value) {
    return -1;
}
int KSUVCCamera::write_eeprom_address_value(uint16_t address, uint16_t value) {
    return -1;
}
int KSUVCCamera::read_eeprom_address_value(uint16_t address, uint16_t* value) {
    return -1;
}
int KSUVCCamera::get_ae_stats_values(unsigned int** values) {
    return -1;
}
