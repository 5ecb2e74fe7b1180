// USB Video Class camera: settings, identity, engineering access. Setters
// report a failed session call as -1, getters as -2; the health checks, frame
// rate, fill-light intensity, sensor model, statistics and engineering
// access pass the session's own result through.
#include <cstring>

#include "driver/driver_cpp/source/KSUVCCamera.h"

namespace {

constexpr uint16_t kMaxExposure = 800;
constexpr size_t kMaxSerialLength = 16;

int setter(int result) {
    return result != 0 ? -1 : 0;
}

int getter(int result) {
    return result != 0 ? -2 : 0;
}

}  // namespace

// ---- stereo matcher ----

int KSUVCCamera::set_search_range(uint8_t range) {
    Guard guard(m_mutex);
    return setter(m_session.SetRangeOffset(range));
}

int KSUVCCamera::get_search_range(uint8_t* range) {
    if (range == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.GetRangeOffset(range));
}

int KSUVCCamera::set_line_offset(float offset) {
    Guard guard(m_mutex);
    int r = m_session.SetLineOffset(offset);
    if (r != 0) {
        report(__LINE__, __func__, "SetLineOffset fails, return %d\n\n", r);
        return -1;
    }
    return 0;
}

int KSUVCCamera::get_line_offset(float* offset) {
    if (offset == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.GetLineOffset(offset));
}

int KSUVCCamera::set_disp_offset(float offset) {
    Guard guard(m_mutex);
    return setter(m_session.SetDisparityOffset(offset));
}

int KSUVCCamera::get_disp_offset(float* offset) {
    if (offset == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.GetDisparityOffset(offset));
}

int KSUVCCamera::set_line_trim(uint16_t left, uint16_t right) {
    Guard guard(m_mutex);
    return setter(m_session.SetLineTrim(&left, &right));
}

int KSUVCCamera::get_line_trim(uint16_t* left, uint16_t* right) {
    if (left == nullptr || right == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.GetLineTrim(left, right));
}

// ---- image sensors and fill light ----

int KSUVCCamera::set_exposure(uint16_t value) {
    if (value > kMaxExposure) return -1;
    Guard guard(m_mutex);
    return getter(m_session.setCameraExposure(value));
}

// The sensors cannot report their exposure: the camera is not asked.
int KSUVCCamera::get_exposure(uint16_t* value) {
    return value != nullptr ? -2 : -1;
}

int KSUVCCamera::set_camera_gain(uint16_t gain) {
    Guard guard(m_mutex);
    return setter(m_session.setCameraGain(gain));
}

int KSUVCCamera::set_camera_fps(float fps) {
    Guard guard(m_mutex);
    return m_session.setCameraFPS(fps);
}

int KSUVCCamera::restore_camera_fps_to_default() {
    Guard guard(m_mutex);
    return m_session.restoreCameraDefaultFPS();
}

int KSUVCCamera::get_cmos_type(uint8_t* id, const char** name) {
    Guard guard(m_mutex);
    return m_session.getCmosSensorModel(id, name);
}

int KSUVCCamera::set_filllight_type(_ks_filllight_type_e type) {
    Guard guard(m_mutex);
    return setter(m_session.setFillLightMode(type));
}

int KSUVCCamera::get_filllight_type(_ks_filllight_type_e* type) {
    if (type == nullptr) return -1;
    Guard guard(m_mutex);
    int mode = 0;
    if (m_session.getFillLightMode(&mode) != 0 || mode < KS_FILLLIGHT_TYPE_OFF ||
        mode > KS_FILLLIGHT_TYPE_ALTERNATE)
        return -2;
    *type = static_cast<_ks_filllight_type_e>(mode);
    return 0;
}

int KSUVCCamera::set_fill_light_intensity(uint8_t intensity) {
    Guard guard(m_mutex);
    return m_session.setFillLightIntensity(intensity);
}

int KSUVCCamera::get_fill_light_intensity(uint8_t* intensity) {
    Guard guard(m_mutex);
    return m_session.getFillLightIntensity(intensity);
}

// ---- health checks and statistics ----

int KSUVCCamera::check_nuvex_chip_status() {
    Guard guard(m_mutex);
    return m_session.checkDeviceInitStatus();
}

int KSUVCCamera::check_cmos_status() {
    Guard guard(m_mutex);
    return m_session.checkCmosStatus();
}

int KSUVCCamera::get_ae_stats_values(unsigned int** values) {
    Guard guard(m_mutex);
    return m_session.getLastestAeStatFromImage(values);
}

// ---- identity and versions ----

int KSUVCCamera::set_camera_sn(const char* sn) {
    if (sn == nullptr || sn[0] == '\0' || strnlen(sn, kMaxSerialLength + 1) > kMaxSerialLength)
        return -1;
    Guard guard(m_mutex);
    int r = m_session.setCameraSN(sn);
    if (r != 0) {
        report(__LINE__, __func__, "setCameraSN(%s) return %d\n\n", sn, r);
        return -2;
    }
    return 0;
}

int KSUVCCamera::erase_camera_sn() {
    Guard guard(m_mutex);
    return setter(m_session.eraseCameraSN());
}

int KSUVCCamera::get_camera_sn(char* sn) {
    if (sn == nullptr) return -1;
    Guard guard(m_mutex);
    int r = m_session.getCameraSN(sn);
    if (r != 0) {
        report(__LINE__, __func__, "getCameraSN(%s) return %d\n\n", sn, r);
        return -2;
    }
    return 0;
}

int KSUVCCamera::get_usb_version(char* version) {
    if (version == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.getUsbVersion(version));
}

int KSUVCCamera::get_fpga_release_date(uint8_t* year, uint8_t* month, uint8_t* day) {
    if (year == nullptr || month == nullptr || day == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.getFpgaReleaseDate(year, month, day));
}

int KSUVCCamera::get_fpga_version(uint8_t* major, uint8_t* minor) {
    if (major == nullptr || minor == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.getFpgaVersion(major, minor));
}

int KSUVCCamera::get_camera_hardware_info(uint8_t* pcb, uint8_t* sensor) {
    if (pcb == nullptr || sensor == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.getCameraHardwareInfo(pcb, sensor));
}

int KSUVCCamera::get_camera_cmos_swap_mode(uint8_t* mode) {
    if (mode == nullptr) return -1;
    Guard guard(m_mutex);
    return getter(m_session.getCameraCmosSwapMode(mode));
}

// ---- engineering access ----

int KSUVCCamera::write_nuvex_register_value(uint16_t reg, uint16_t value) {
    Guard guard(m_mutex);
    return setter(m_session.writeNuvexRegisterVal(reg, value));
}

int KSUVCCamera::read_nuvex_register_value(uint16_t reg, uint16_t* value) {
    Guard guard(m_mutex);
    return setter(m_session.readNuvexRegisterVal(reg, value));
}

int KSUVCCamera::write_fpga_register_value(uint16_t address, uint16_t value) {
    Guard guard(m_mutex);
    return m_session.writeFpgaRegisterVal(address, value);
}

int KSUVCCamera::read_fpga_register_value(uint16_t address, uint16_t* value) {
    Guard guard(m_mutex);
    return m_session.readFpgaRegisterVal(address, value);
}

int KSUVCCamera::write_cmos_register_value(uint16_t address, uint16_t value) {
    Guard guard(m_mutex);
    return m_session.writeCmosRegisterVal(address, value);
}

int KSUVCCamera::read_cmos_register_value(uint16_t address, uint16_t* value) {
    Guard guard(m_mutex);
    return m_session.readCmosRegisterVal(address, value);
}

int KSUVCCamera::write_eeprom_address_value(uint16_t address, uint16_t value) {
    Guard guard(m_mutex);
    return m_session.writeEEpromAddressVal(address, value);
}

int KSUVCCamera::read_eeprom_address_value(uint16_t address, uint16_t* value) {
    Guard guard(m_mutex);
    return m_session.readEEpromAddressVal(address, value);
}
