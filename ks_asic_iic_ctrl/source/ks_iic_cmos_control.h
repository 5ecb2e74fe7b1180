/*
 * Control of the two image sensors (CMOS) through the bridge in the stereo
 * ASIC: a verified write that both sensors must acknowledge by advancing
 * their command counters, a dual read that returns both sensors' values, the
 * sensor model, and the per-model frame rate, gain and exposure settings of
 * the OV9281, IMX225 and SC132GS, plus the white-balance gains.
 *
 * Every bridge access is a sequence of separate ASIC transfers with pauses
 * between them: callers serialise sensor access per camera.
 */
#ifndef KS_IIC_CMOS_CONTROL_H
#define KS_IIC_CMOS_CONTROL_H

#include <stdint.h>

#include "common/ks_export.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

/* Sensor model codes (low nibble of the FPGA's hardware-info register). */
#define KS_CMOS_MODEL_SONY_IMX225 1
#define KS_CMOS_MODEL_OV9281 2
#define KS_CMOS_MODEL_AR0144 3
#define KS_CMOS_MODEL_AR0132 4
#define KS_CMOS_MODEL_SC132GS 5

/* ASIC bridge registers. */
#define KS_CMOS_BRIDGE_CONFIG 0xF0
#define KS_CMOS_BRIDGE_REG_HIGH 0xF1 /* read: counter and status of sensor A */
#define KS_CMOS_BRIDGE_REG_LOW 0xF2
#define KS_CMOS_BRIDGE_DATA_HIGH 0xF3
#define KS_CMOS_BRIDGE_DATA_LOW 0xF4
#define KS_CMOS_BRIDGE_READ_HIGH 0xF5 /* read: value of sensor A */
#define KS_CMOS_BRIDGE_READ_LOW 0xF6  /* read: counter and status of sensor B */
#define KS_CMOS_BRIDGE_VALUE_B 0xFA
#define KS_CMOS_OUTPUT_IDX_A 0xE2
#define KS_CMOS_OUTPUT_IDX_B 0xE3

/* ASIC trigger timing registers. */
#define ASIC_TRIGER_FPSX_HIGH 0x61
#define ASIC_TRIGER_FPSX_LOW 0x62
#define ASIC_TRIGER_FPSY_HIGH 0x63
#define ASIC_TRIGER_FPSY_LOW 0x64

/* Attempts of a verified sensor write. */
#define KS_CMOS_WRITE_ATTEMPTS 6

/* Frame-rate results. */
#define KS_FPS_TOO_SMALL (-97)
#define KS_FPS_TOO_LARGE (-98)
#define KS_FPS_LINES_EXCEEDED (-99)

KS_BEGIN_DECLS

/* Names of the sensor models as the session reports them. */
KS_API extern const char cmosname_sony[];
KS_API extern const char cmosname_ov9281[];
KS_API extern const char cmosname_ar0144[];
KS_API extern const char cmosname_ar0132[];
KS_API extern const char cmosname_sc132gs[];
KS_API extern const char cmosname_undefined[];
/* The name of a model code ("None" for an unknown code). */
KS_API const char* ks_get_cmos_model_name(uint8_t code);

/* Opens the bridge (ASIC AE paused, CMOS access on): 0, -1 or -2; closes it
 * (always 0). */
KS_API int _ks_cmos_ctrl_prep(_struct_ks_ctrl_device* handle);
KS_API int _ks_cmos_ctrl_post(_struct_ks_ctrl_device* handle);

KS_API int ks_load_cmos_output_idx(_struct_ks_ctrl_device* handle, uint16_t* a, uint16_t* b);
KS_API int ks_load_cmos_bus_status(_struct_ks_ctrl_device* handle, uint8_t* counter_a,
                                   uint8_t* status_a, uint8_t* counter_b, uint8_t* status_b);

/* Verified write to both sensors, up to 6 attempts: 0, -1 (the counters
 * never both moved), -2 (a bridge write failed), -3 (a status read failed).
 * The bridge must be open. */
KS_API int ks_write_cmos_register_through_nuvex(_struct_ks_ctrl_device* handle, uint16_t reg,
                                                uint16_t value);
/* Reads a register of both sensors: 0 or -2. */
KS_API int ks_read_cmos_register(_struct_ks_ctrl_device* handle, uint16_t reg, uint16_t* a,
                                 uint16_t* b);

/* OV9281 streaming control and frame length. */
KS_API int _ks_set_ov9281_standby_mode(_struct_ks_ctrl_device* handle);
KS_API int _ks_set_ov9281_streaming_mode(_struct_ks_ctrl_device* handle);
KS_API int ks_set_ov9281_cmos_fps_line(_struct_ks_ctrl_device* handle, uint16_t lines);

/* Frame rates. OV9281: 1..30 fps and at most 4126 lines (-97, -98, -99).
 * SC132GS: 1..30 fps and at least 1838 lines (-97, -98). IMX225: no range
 * check. */
KS_API int ks_set_ov9281_fps(_struct_ks_ctrl_device* handle, float fps);
KS_API int ks_set_sony224_fps(_struct_ks_ctrl_device* handle, float fps);
KS_API int ks_set_sc132gs_fps(_struct_ks_ctrl_device* handle, float fps);

/* Gains (one byte; the IMX225 caps at 255). */
KS_API int ks_set_gain_ov9281(_struct_ks_ctrl_device* handle, uint16_t gain);
KS_API int ks_get_gain_ov9281(_struct_ks_ctrl_device* handle, uint16_t* a, uint16_t* b);
KS_API int ks_set_gain_sony_imx225(_struct_ks_ctrl_device* handle, uint16_t gain);
KS_API int ks_get_gain_sony_imx225(_struct_ks_ctrl_device* handle, uint16_t* a, uint16_t* b);

/* Manual exposure in lines (at most 1000); 0 starts automatic exposure. */
KS_API int ks_set_exposure_ov9281(_struct_ks_ctrl_device* handle, uint16_t exposure);
KS_API int ks_set_exposure_sony_imx225(_struct_ks_ctrl_device* handle, uint16_t exposure);

/* White balance: the middle gain serves both green sites. */
KS_API int ks_get_white_balance_param(_struct_ks_ctrl_device* handle, uint8_t* first,
                                      uint8_t* middle, uint8_t* last);
KS_API int ks_set_white_balance_param(_struct_ks_ctrl_device* handle, uint8_t first, uint8_t middle,
                                      uint8_t last);

/* Sensor model code. */
KS_API int ks_get_cmos_model(_struct_ks_ctrl_device* handle, uint8_t* code);

/* Not implemented: each prints where it is and returns -1. */
KS_API int ks_get_AE_status(void);
KS_API int ks_get_exposure_ov9281(void);
KS_API int ks_get_exposure_sony_imx225(void);

KS_END_DECLS

#endif
