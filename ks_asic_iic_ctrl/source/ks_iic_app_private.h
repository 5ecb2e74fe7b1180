// Internal helpers shared by the application-layer sources of the control
// layer (EEPROM store, ASIC control, sensor control, image transfer). Not
// installed, not exported.
#ifndef KS_IIC_APP_PRIVATE_H
#define KS_IIC_APP_PRIVATE_H

#include <stdint.h>

#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

// Source path the application layer logs under.
#define KS_APP_MODULE "ks_asic_iic_ctrl/source/ks_iic_application_layer"

#define KS_APP_TRACE(...) KS_LOG_TRACE(KS_APP_MODULE, __VA_ARGS__)
#define KS_APP_DEBUG(...) KS_LOG_DEBUG(KS_APP_MODULE, __VA_ARGS__)
#define KS_APP_INFO(...) KS_LOG_INFO(KS_APP_MODULE, __VA_ARGS__)
#define KS_APP_WARN(...) KS_LOG_WARN(KS_APP_MODULE, __VA_ARGS__)
#define KS_APP_ERROR(...) KS_LOG_ERROR(KS_APP_MODULE, __VA_ARGS__)
#define KS_APP_FATAL(...) KS_LOG_FATAL(KS_APP_MODULE, __VA_ARGS__)

namespace ks_app {

// Byte accessors with a plain success flag. The read helpers store the byte
// (0 when the transfer failed) in *out.
inline bool eeprom_put(_struct_ks_ctrl_device* h, unsigned int addr, unsigned int value) {
    return ks_eeprom_write(h, addr, value) == 0;
}
inline bool eeprom_get(_struct_ks_ctrl_device* h, unsigned int addr, uint8_t* out) {
    uint16_t v = 0;
    const bool ok = ks_eeprom_read(h, addr, &v) == 0;
    *out = static_cast<uint8_t>(v & 0xFF);
    return ok;
}
inline bool asic_put(_struct_ks_ctrl_device* h, unsigned int reg, unsigned int value) {
    return ks_iic_write(h, reg, value) == 0;
}
inline bool asic_get(_struct_ks_ctrl_device* h, unsigned int reg, uint8_t* out) {
    uint16_t v = 0;
    const bool ok = ks_iic_read(h, reg, &v) == 0;
    *out = static_cast<uint8_t>(v & 0xFF);
    return ok;
}
inline bool fpga_put(_struct_ks_ctrl_device* h, unsigned int reg, unsigned int value) {
    return ks_fpga_write(h, reg, value) == 0;
}
inline bool fpga_get(_struct_ks_ctrl_device* h, unsigned int reg, uint8_t* out) {
    uint16_t v = 0;
    const bool ok = ks_fpga_read(h, reg, &v) == 0;
    *out = static_cast<uint8_t>(v & 0xFF);
    return ok;
}

inline void pause_ms(unsigned int ms) {
    ks_sys_usleep(static_cast<useconds_t>(ms) * 1000u);
}

}  // namespace ks_app

#endif
