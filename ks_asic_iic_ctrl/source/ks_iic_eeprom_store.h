/*
 * The host's settings in the custom area of the camera's EEPROM (0x3C00 on):
 * disparity offset, search range, line offset, serial number, the table of
 * stored stream (EPR) descriptors with the current slot, the current frame
 * rate and the table of rectified camera parameters.
 *
 * Every area opens with a magic byte; any other value there (an erased
 * EEPROM reads 0xFF) means the area is empty. Multi-byte numbers are stored
 * most significant byte first. Every byte is written with the verified
 * EEPROM write. The layout is persistent: cameras in the field carry it.
 *
 * Results: 0 success, -1 a failed access or an invalid value, except where a
 * function says otherwise. The two tables use -10 (EEPROM read or write
 * failed), -11 (lookup failed), -12 (index invalid or record mismatch) and
 * -13 (no current slot).
 */
#ifndef KS_IIC_EEPROM_STORE_H
#define KS_IIC_EEPROM_STORE_H

#include <stdint.h>

#include "common/ks_export.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

/* ---- address map ---- */
#define KS_EEPROM_CUSTOM_BASE 0x3C00u
#define KS_EEPROM_CUSTOM_END 0x3CB7u /* last byte of the custom area */
#define KS_EEPROM_DISP_OFFSET_ADDR 0x3C00u
#define KS_EEPROM_SEARCH_RANGE_ADDR 0x3C08u
#define KS_EEPROM_LINE_OFFSET_ADDR 0x3C10u
#define KS_EEPROM_SN_ADDR 0x3C18u
#define KS_EEPROM_EPR_INFO_ADDR 0x3C2Au
#define KS_EEPROM_CURRENT_SLOT_ADDR 0x3C5Cu
#define KS_EEPROM_FPS_ADDR 0x3C5Eu
#define KS_EEPROM_RECTIFY_PARA_ADDR 0x3C66u

/* ---- magic codes ---- */
#define KS_MAGIC_DISP_OFFSET 0xC1
#define KS_MAGIC_SEARCH_RANGE 0xC2
#define KS_MAGIC_LINE_OFFSET 0xC3
#define KS_MAGIC_SN 0xC4
#define KS_MAGIC_EPR_INFO 0xC5
#define KS_MAGIC_FPS 0xC6
#define KS_MAGIC_RECTIFY_PARA 0xC7

#define KS_SN_MAX_LENGTH 16
#define KS_EPR_INFO_SLOTS 8
#define KS_EPR_INFO_RECORD_SIZE 6
#define KS_RECTIFY_PARA_SLOTS 4
#define KS_RECTIFY_PARA_RECORD_SIZE 20

/* Table results. */
#define KS_EEPROM_TABLE_IO_ERROR (-10)
#define KS_EEPROM_TABLE_LOOKUP_FAILED (-11)
#define KS_EEPROM_TABLE_INVALID_INDEX (-12)
#define KS_EEPROM_TABLE_NO_CURRENT_SLOT (-13)

/* Stream descriptor of an EPR slot (8 bytes, passed by value). */
typedef struct _struct_epr_info {
    int8_t index;       /* EPR slot 0-7; -1: no record */
    uint16_t height;    /* output image height */
    uint16_t width;     /* output image width */
    uint8_t reserved_a; /* stored and returned as is; 0xFF when no record */
    uint8_t reserved_b; /* stored and returned as is; 0xFF when no record */
} _struct_epr_info;

/* Rectified camera parameters of a parameter slot. */
typedef struct _struct_rectify_cam_para_info {
    uint8_t index; /* parameter slot 0-3 */
    uint16_t roi_start_x;
    uint16_t roi_start_y;
    float opt_center_x; /* rectified optical centre */
    float opt_center_y;
    float fov_x; /* field of view */
    float fov_y;
} _struct_rectify_cam_para_info;

KS_BEGIN_DECLS

/* 4-byte fixed point: 16-bit integer part, 16-bit fraction in 1/65536,
 * most significant byte first. The encoder takes values in [0, 65535]
 * (-1 otherwise, bytes untouched); the decoder always returns 0. */
KS_API int ks_positive_float_to_four_byte_storage(float value, uint8_t bytes[4]);
KS_API int ks_four_byte_storage_to_positive_float(const uint8_t bytes[4], float* value);

/* Disparity offset: sign byte and 12-bit magnitude. The getter returns the
 * 16-bit two's complement of a negative offset; an empty area gives 0. */
KS_API int ks_save_eeprom_disparity_offset(_struct_ks_ctrl_device* handle, int offset);
KS_API int ks_get_eeprom_disparity_offset(_struct_ks_ctrl_device* handle, uint16_t* offset);

/* Search range: one byte (the low byte of range). An empty area gives 0. */
KS_API int ks_save_eeprom_search_range(_struct_ks_ctrl_device* handle, int range);
KS_API int ks_get_eeprom_search_range(_struct_ks_ctrl_device* handle, uint8_t* range);

/* Line offset in [-5, 5], stored as 256 x magnitude and a sign byte. An
 * empty area gives 0.0. */
KS_API int ks_save_eeprom_line_offset(_struct_ks_ctrl_device* handle, float offset);
KS_API int ks_get_eeprom_line_offset(_struct_ks_ctrl_device* handle, float* offset);

/* Camera serial number, at most 16 characters. The getter needs 17 bytes;
 * an empty area gives the empty text and 0; a stored length above 16 gives
 * -2. */
KS_API int ks_save_camera_sn(_struct_ks_ctrl_device* handle, const char* sn, uint8_t length);
KS_API int ks_get_camera_sn(_struct_ks_ctrl_device* handle, char* sn);
KS_API int ks_erase_camera_sn(_struct_ks_ctrl_device* handle);

/* EPR descriptor table (slots 0-7) and the current slot. Enumeration: start
 * with index 0 and init 1, then call with init 0 until the result is -1
 * (index then -1). */
KS_API int ks_save_epr_info(_struct_ks_ctrl_device* handle, _struct_epr_info info);
KS_API int ks_enum_epr_info(_struct_ks_ctrl_device* handle, _struct_epr_info* info, uint8_t init);
KS_API int ks_save_current_epr_slot_index(_struct_ks_ctrl_device* handle, int slot);
KS_API int ks_get_current_stream_info(_struct_ks_ctrl_device* handle, _struct_epr_info* info);

/* Current frame rate. Save: -2 negative, -3 above 65535; byte failures are
 * logged but not reported. Load: -3 when none is saved, -2 a failed byte. */
KS_API int ks_save_current_camera_fps_to_eeprom(_struct_ks_ctrl_device* handle, float fps);
KS_API int ks_load_current_camera_fps_from_eeprom(_struct_ks_ctrl_device* handle, float* fps);
KS_API int ks_erase_camera_fps_config(_struct_ks_ctrl_device* handle);

/* Rectified camera parameter table (slots 0-3). The current EPR slot also
 * selects the parameter slot. An exhausted enumeration leaves index at 4. */
KS_API int ks_save_rectify_camera_para(_struct_ks_ctrl_device* handle,
                                       _struct_rectify_cam_para_info para);
KS_API int ks_enum_rectify_camera_para(_struct_ks_ctrl_device* handle,
                                       _struct_rectify_cam_para_info* para, uint8_t init);
KS_API int ks_get_current_rectify_camera_para(_struct_ks_ctrl_device* handle,
                                              _struct_rectify_cam_para_info* para);

/* Erasers: disparity offset, search range and line offset areas; the whole
 * custom area. */
KS_API int ks_erase_light_calibdata_eeprom_saving(_struct_ks_ctrl_device* handle);
KS_API int ks_erase_all_custom_eeprom_data(_struct_ks_ctrl_device* handle);

/* Dumps of each area to standard output. */
KS_API int ks_show_disp_offset_eeprom_data(_struct_ks_ctrl_device* handle);
KS_API int ks_show_search_range_eeprom_data(_struct_ks_ctrl_device* handle);
KS_API int ks_show_line_offset_eeprom_data(_struct_ks_ctrl_device* handle);
KS_API int ks_show_camera_sn_eeprom_data(_struct_ks_ctrl_device* handle);
KS_API int ks_show_epr_stat_eeprom_data(_struct_ks_ctrl_device* handle);
KS_API int ks_show_fps_stat_eeprom_data(_struct_ks_ctrl_device* handle);
KS_API int ks_show_rectify_cam_para_eeprom_data(_struct_ks_ctrl_device* handle);

KS_END_DECLS

#endif
