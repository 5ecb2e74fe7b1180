// Register and memory access primitives of the camera control layer: one
// byte of the stereo ASIC, the EEPROM or the FPGA; EPR images and the FPGA
// bitstream in the USB controller's flash; the ASIC power GPIO and reset
// state; the controller's version and reset count.
//
// Every call selects the camera's descriptor, holds the transport mutex for
// its protocol exchange(s) and releases it on every path. Results are 0 on
// success, otherwise the protocol's non-zero result (0xFFFFFFFF, -1),
// except where said otherwise.
#ifndef KS_IIC_KERNEL_H
#define KS_IIC_KERNEL_H

#include <stdint.h>

#include "common/ks_export.h"

// I2C device addresses (8-bit form: even to write, odd to read).
#define KS_NUVEX_WRITE_ADDR 0xCC
#define KS_NUVEX_READ_ADDR 0xCD
#define KS_EEPROM_WRITE_ADDR 0xA0
#define KS_EEPROM_READ_ADDR 0xA1
#define KS_FPGA_WRITE_ADDR 0xC0
#define KS_FPGA_READ_ADDR 0xC1

// Pause after every ASIC register access.
#define KS_NUVEX_ACCESS_PAUSE_US 1000
// Re-writes after the first verified EEPROM write read back wrong.
#define KS_EEPROM_WRITE_RETRIES 10

// USB-controller flash: EPR slot n at (n + 101) << 12, the FPGA bitstream.
#define KS_FLASH_EPR_SLOT_BASE 101
#define KS_FLASH_FPGA_BIT_ADDR 0x3D000u
// The ASIC power/reset line of the USB controller.
#define KS_ASIC_POWER_GPIO 17
// Status polling after an EEPROM update from flash.
#define KS_EEPROM_UPDATE_POLL_US 100000
#define KS_EEPROM_UPDATE_GIVE_UP_US 60000000LL

// The control handle of one camera, owned by its session.
typedef struct _struct_ks_ctrl_device {
    int fd;                   // the camera's video node, opened read-write
    uint16_t trim_left;       // last left trim written
    uint16_t trim_right;      // last right trim written
    float line_offset_left;   // last left line offset written or read back
    float line_offset_right;  // last right line offset written or read back
    uint8_t search_range;     // last search range written
} _struct_ks_ctrl_device;

KS_BEGIN_DECLS

// Opens path read-write, keeps the descriptor, initialises the transport and
// selects the descriptor: 0. A failed open prints the reason and returns -1.
KS_API int ks_iic_init_dev(_struct_ks_ctrl_device* handle, const char* path);
// Closes the descriptor; close's result.
KS_API int release_iic_ctrl(_struct_ks_ctrl_device* handle);

// ASIC register byte (each access followed by a 1 ms pause). The read stores
// the byte, 0 when the transfer failed.
KS_API unsigned int ks_iic_write(_struct_ks_ctrl_device* handle, unsigned int reg,
                                 unsigned int value);
KS_API unsigned int ks_iic_read(_struct_ks_ctrl_device* handle, unsigned int reg, uint16_t* value);
// Verified EEPROM byte write: written, read back and re-written up to 10
// times until the read-back matches; 0 or 0xFFFFFFFF.
KS_API unsigned int ks_eeprom_write(_struct_ks_ctrl_device* handle, unsigned int addr,
                                    unsigned int value);
KS_API unsigned int ks_eeprom_read(_struct_ks_ctrl_device* handle, unsigned int addr,
                                   uint16_t* value);
KS_API unsigned int ks_fpga_write(_struct_ks_ctrl_device* handle, unsigned int reg,
                                  unsigned int value);
KS_API unsigned int ks_fpga_read(_struct_ks_ctrl_device* handle, unsigned int reg, uint16_t* value);

// Flash transfers (size a multiple of 4096).
KS_API unsigned int ks_send_asic_epr_to_usb_flash(_struct_ks_ctrl_device* handle, uint8_t slot,
                                                  const unsigned char* buffer, unsigned int size);
KS_API unsigned int ks_receive_asic_epr(_struct_ks_ctrl_device* handle, uint8_t slot,
                                        unsigned char* buffer, unsigned int size);
KS_API unsigned int ks_kernel_send_fpga_bit(_struct_ks_ctrl_device* handle,
                                            const unsigned char* buffer, unsigned int size);
KS_API unsigned int ks_kernel_receive_fpga_bit(_struct_ks_ctrl_device* handle,
                                               unsigned char* buffer, unsigned int size);

// The controller's firmware version text into a 32-byte buffer (always
// terminated within it).
KS_API unsigned int ks_get_usb_version_kernel(_struct_ks_ctrl_device* handle, char* version);
// GPIO 17: the ASIC's power line on older controller firmware.
KS_API unsigned int ks_kernel_set_asic_gpio(_struct_ks_ctrl_device* handle, uint8_t level);
// 1 runs the ASIC, 0 holds it in reset.
KS_API unsigned int ks_reset_asic_status(_struct_ks_ctrl_device* handle, uint8_t state);
// Has the controller copy flash EPR slot into the EEPROM and waits until it
// answers a status request again (polled every 100 ms, given up after 60 s
// of the platform clock). Always 0.
KS_API unsigned int ks_select_eeprom_from_usb_flash(_struct_ks_ctrl_device* handle, uint8_t slot);
// How often the controller has reset the ASIC. Uses the descriptor selected
// last (handle is not used).
KS_API unsigned int ks_get_usb_nuvex_reset_cnt_kernel(_struct_ks_ctrl_device* handle,
                                                      uint32_t* count);

KS_END_DECLS

#endif
