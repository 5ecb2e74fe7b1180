/*
 * Moving ASIC parameter images (EPR) and the FPGA bitstream between files on
 * the host, the USB controller's flash, the EEPROM slots and the effective
 * EPR area the ASIC boots from, and switching the camera to another EPR
 * slot with a power cycle.
 *
 * An image read from a file lives in a zero-filled buffer padded to the next
 * multiple of 4096 bytes, always at least one byte more than the file:
 * ((size >> 12) + 1) << 12. The padded length is what goes to the camera.
 */
#ifndef KS_IIC_IMAGE_TRANSFER_H
#define KS_IIC_IMAGE_TRANSFER_H

#include <stdint.h>

#include "common/ks_export.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

/* EPR space of the EEPROM: the effective image at 0, slot n at 3072 x (n + 1).
 * Slots 0-3 only: slot 4 would fall on the custom settings area. */
#define KS_EEPROM_EPR_SIZE 3072u

KS_BEGIN_DECLS

/* Observer of the long transfers below, called on the transferring thread:
 * what names the transfer, done and total count its bytes (pages as they are
 * written to flash, bytes to and from the EEPROM), from done 0 to done ==
 * total when it completes. total 0 marks a step without a byte count (the
 * switch to a flash slot with its power cycle). One per process; null turns
 * it off. */
typedef void (*ks_transfer_progress_fn)(const char* what, uint64_t done, uint64_t total,
                                        void* user);
KS_API void ks_set_transfer_progress(ks_transfer_progress_fn fn, void* user);

/* Reads a whole file into a new padded buffer: 0, -2 (short read, or the
 * buffer cannot be had; a buffer already handed out stays with the caller)
 * or -3 (cannot open). Release the buffer with release_binary_data. */
KS_API int read_binary_file(const char* path, unsigned char** buffer, uint32_t* length);
/* Writes size bytes to a new file: 0 or -1. */
KS_API int write_binary_file(const char* path, const unsigned char* buffer, uint32_t size);
/* Frees *buffer (the pointer itself is left as it was): 0. */
KS_API int release_binary_data(unsigned char** buffer);

/* File to flash EPR slot / to the FPGA bitstream area. */
KS_API int ks_upload_epr_parameter(_struct_ks_ctrl_device* handle, const char* path, uint8_t slot);
KS_API int ks_send_FPGA_bit(_struct_ks_ctrl_device* handle, const char* path);

/* EEPROM EPR slots: upload at most 3072 bytes (-1 above, -2 a failed byte);
 * download 3072 bytes into a new buffer the caller releases (-2 on a failed
 * byte: nothing is handed out then, *buffer is null). */
KS_API int ks_upload_asic_epr_to_eeprom(_struct_ks_ctrl_device* handle, uint8_t slot,
                                        const unsigned char* data, uint32_t size);
KS_API int ks_download_asic_epr_from_eeprom(_struct_ks_ctrl_device* handle, uint8_t slot,
                                            unsigned char** buffer);

/* The effective EPR: download, erase (its first 10 bytes), upload from a
 * file with a power cycle; the upload's result is that of the EPR status
 * check after the bring-up (0, -1 or -2) or the file's error. */
KS_API int ks_download_effective_epr_data_from_eeprom(_struct_ks_ctrl_device* handle,
                                                      unsigned char** buffer);
KS_API int ks_erase_effective_epr_data_in_eeprom(_struct_ks_ctrl_device* handle);
KS_API int ks_upload_epr_to_effective_eeprom(_struct_ks_ctrl_device* handle, const char* path);

/* Switches to flash EPR slot: shutdown, copy into the effective area,
 * bring-up (11 s). Always 0: callers check the outcome with the health
 * checks. */
KS_API int ks_select_asic_epr_from_usb_flash(_struct_ks_ctrl_device* handle, uint8_t slot);
KS_API int ks_select_epr_parameter(_struct_ks_ctrl_device* handle, uint8_t slot);

KS_END_DECLS

#endif
