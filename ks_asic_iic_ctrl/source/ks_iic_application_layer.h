// The camera control layer as the session sees it. The functions here are
// thin wrappers over the register and memory primitives of ks_iic_kernel,
// with the same results.
#ifndef KS_IIC_APPLICATION_LAYER_H
#define KS_IIC_APPLICATION_LAYER_H

#include <stdint.h>

#include "common/ks_export.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

KS_BEGIN_DECLS

// ---- control device ----
KS_API unsigned int ks_open_ctrl_device(_struct_ks_ctrl_device* handle, const char* path);
KS_API unsigned int ks_release_ctrl_device(_struct_ks_ctrl_device* handle);

// ---- register and EEPROM bytes ----
KS_API unsigned int ks_write_nuvex_register(_struct_ks_ctrl_device* handle, unsigned int reg,
                                            unsigned int value);
KS_API unsigned int ks_read_nuvex_register(_struct_ks_ctrl_device* handle, unsigned int reg,
                                           uint16_t* value);
KS_API unsigned int ks_write_nuvex_eeprom(_struct_ks_ctrl_device* handle, unsigned int addr,
                                          unsigned int value);
KS_API unsigned int ks_read_nuvex_eeprom(_struct_ks_ctrl_device* handle, unsigned int addr,
                                         uint16_t* value);
// The session's FPGA register access is not wired to any FPGA module: both
// print why and return -1 without touching the camera.
KS_API int ks_write_fpga_register(_struct_ks_ctrl_device* handle, unsigned int reg,
                                  unsigned int value);
KS_API int ks_read_fpga_register(_struct_ks_ctrl_device* handle, unsigned int reg, uint16_t* value);

// ---- USB controller ----
KS_API unsigned int ks_get_usb_version(_struct_ks_ctrl_device* handle, char* version);
KS_API unsigned int ks_get_usb_nuvex_reset_cnt(_struct_ks_ctrl_device* handle, uint32_t* count);

KS_END_DECLS

/* ======================================================================
 * The rest of the application layer, each part in its own header: the
 * EEPROM parameter store, ASIC and FPGA control, sensor control through the
 * ASIC's bridge, EPR and FPGA image transfer.
 * ====================================================================== */
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_cmos_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"

#endif
