/*
 * Control of the stereo ASIC and of the FPGA beside it: trim and line offset
 * of the two image lines, output channel, disparity search range, fill
 * light, trigger, auto exposure (AE) and the RTT switch, the guard pair
 * around register traffic, versions and hardware info, the power sequences
 * and the start-up health checks.
 *
 * Results: 0 on success, -1 on any failed access, unless a function says
 * otherwise.
 */
#ifndef KS_IIC_ASIC_CONTROL_H
#define KS_IIC_ASIC_CONTROL_H

#include <stdint.h>

#include "common/ks_export.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

/* ---- ASIC registers ---- */
#define KS_ASIC_REG_BASELINE_HIGH 0x08
#define KS_ASIC_REG_BASELINE_LOW 0x09
#define KS_ASIC_REG_BXF 0x0C /* 0x0C-0x0F, most significant first */
#define KS_ASIC_REG_IDLE 0x1F
#define KS_ASIC_REG_CMOS_PREPROCESS 0x20
#define KS_ASIC_REG_TRIM_LEFT 0x26
#define KS_ASIC_REG_TRIM_RIGHT 0x28
#define KS_ASIC_REG_AE_MODE 0x31
#define KS_ASIC_REG_SEARCH_RANGE 0x42
#define KS_ASIC_REG_SEARCH_RANGE_READ 0x4F
#define KS_ASIC_REG_WORKING_MODE 0x51
#define KS_ASIC_REG_TRIM_CTRL_A 0x65
#define KS_ASIC_REG_TRIM_CTRL_B 0x66
#define KS_ASIC_REG_TRIM_SYMBOL 0x67
#define KS_ASIC_REG_TRIM_DIFF 0x68
#define KS_ASIC_REG_LINE_OFFSET_LEFT_INT 0x71
#define KS_ASIC_REG_LINE_OFFSET_LEFT_FRAC 0x72
#define KS_ASIC_REG_LINE_OFFSET_RIGHT_INT 0x73
#define KS_ASIC_REG_LINE_OFFSET_RIGHT_FRAC 0x74
#define KS_ASIC_REG_EPR_STATUS 0xF0

#define KS_ASIC_IDLE_VALUE 0x34
#define KS_ASIC_EPR_LOADED 0xEA

/* Output channel values of the working-mode register. */
#define KS_CHANNEL_ORIGIN_STEREO 0x23
#define KS_CHANNEL_RGBD 0x7F
#define KS_CHANNEL_RECTIFIED_STEREO 0x76
#define KS_CHANNEL_ORIGIN_DISPARITY 0x7E

/* ---- FPGA registers ---- */
#define KS_FPGA_REG_HW_INFO 0x00
#define KS_FPGA_REG_VERSION 0x01      /* 0x01-0x02 */
#define KS_FPGA_REG_RELEASE_DATE 0x05 /* 0x05-0x07 */
#define KS_FPGA_REG_RTT 0x08
#define KS_FPGA_REG_TRIGGER 0x10
#define KS_FPGA_REG_IDLE 0x1F
#define KS_FPGA_REG_AE 0x20
#define KS_FPGA_REG_FPSY_HIGH 0x27
#define KS_FPGA_REG_FPSY_LOW 0x28
#define KS_FPGA_REG_FILL_LIGHT_MODE 0x30
#define KS_FPGA_REG_FILL_LIGHT_INTENSITY 0x31

#define KS_FPGA_IDLE_VALUE 0x56
#define KS_FPGA_AE_RUNNING 0x10

KS_BEGIN_DECLS

/* Process-wide (not per camera): 1 when ks_asic_control_prep found AE
 * already off, 0 when it stopped AE itself. Accessed atomically. */
KS_API extern int ae_closed_flag;

/* Trims are even: bit 0 of both values is cleared and written back to the
 * caller's variables. Each register takes one byte. */
KS_API int ks_set_camera_trim(_struct_ks_ctrl_device* handle, uint16_t* left, uint16_t* right);
KS_API int ks_get_camera_trim(_struct_ks_ctrl_device* handle, uint16_t* left, uint16_t* right);

/* Output channel; the working mode is the raw channel byte. */
KS_API int ks_switch_origin_stereo_channel(_struct_ks_ctrl_device* handle);
KS_API int ks_switch_rgbd_channel(_struct_ks_ctrl_device* handle);
KS_API int ks_switch_rectified_stereo_channel(_struct_ks_ctrl_device* handle);
KS_API int ks_switch_origin_disparity_channel(_struct_ks_ctrl_device* handle);
KS_API int ks_get_camera_working_mode(_struct_ks_ctrl_device* handle, uint16_t* mode);

/* Disparity search range. */
KS_API int ks_set_asic_search_range(_struct_ks_ctrl_device* handle, uint8_t range);
KS_API int ks_get_asic_search_range(_struct_ks_ctrl_device* handle, uint8_t* range);

/* Line offsets in [0, 5] (integer and 1/256 fraction). Setting clears the
 * cached offsets first: a refused call leaves them at 0. */
KS_API int ks_set_line_offset(_struct_ks_ctrl_device* handle, float left, float right);
KS_API int ks_get_line_offset(_struct_ks_ctrl_device* handle, float* left, float* right);

/* Fill light (mode 0 or 1, intensity one byte) and trigger mode. */
KS_API int ks_fill_light_mode_control(_struct_ks_ctrl_device* handle, uint32_t mode);
KS_API int ks_fill_light_intensity_control(_struct_ks_ctrl_device* handle, uint32_t intensity);
KS_API int ks_get_fill_light_mode(_struct_ks_ctrl_device* handle, uint16_t* mode);
KS_API int ks_get_fill_light_intensity(_struct_ks_ctrl_device* handle, uint8_t* intensity);
KS_API int ks_cam_trigger_setting(_struct_ks_ctrl_device* handle, uint32_t mode);

/* Auto exposure and the RTT switch. */
KS_API int ks_get_FPGA_AE_status(_struct_ks_ctrl_device* handle, uint16_t* status);
KS_API int ks_AE_shut_down(_struct_ks_ctrl_device* handle);
KS_API int ks_AE_open_up(_struct_ks_ctrl_device* handle);
KS_API int ks_RTT_shut_down(_struct_ks_ctrl_device* handle);
KS_API int ks_RTT_open_up(_struct_ks_ctrl_device* handle);

/* Guard pair around every operation that touches ASIC or FPGA registers:
 * prep stops a running AE and opens RTT; post shuts RTT and restarts AE
 * only when prep stopped it, so AE switched off by hand stays off. */
KS_API int ks_asic_control_prep(_struct_ks_ctrl_device* handle);
KS_API int ks_asic_control_post(_struct_ks_ctrl_device* handle);

/* Versions and hardware. Swap mode: 0 normal, 1 swapped, 0x63 unknown. */
KS_API int ks_get_FPGA_version(_struct_ks_ctrl_device* handle, uint8_t* high, uint8_t* low);
KS_API int ks_get_FPGA_release_date(_struct_ks_ctrl_device* handle, uint8_t* first, uint8_t* second,
                                    uint8_t* third);
KS_API int ks_get_HW_info(_struct_ks_ctrl_device* handle, uint8_t* pcb, uint8_t* cmos);
KS_API int ks_get_cmos_swap_mode(_struct_ks_ctrl_device* handle, uint8_t* mode);

/* Power sequences. A controller firmware whose version text begins with
 * "1022" powers the ASIC through GPIO 17; later firmware resets it with the
 * ASIC-state command. A bring-up takes 11 s; its failure codes are -1, -2,
 * -3 for the first, second, third step. */
KS_API int ks_camera_hardware_shutdown(_struct_ks_ctrl_device* handle);
KS_API int ks_camera_hardware_bringup(_struct_ks_ctrl_device* handle);

/* Health checks: -2 (or -3 for the EPR step of the whole check) when a value
 * is wrong, -1 when a read fails or the FPGA is not ready. */
KS_API int ks_load_epr_init_status(_struct_ks_ctrl_device* handle, uint16_t* status);
KS_API int ks_asic_default_val_check(_struct_ks_ctrl_device* handle);
KS_API int ks_nuvex_epr_status_check(_struct_ks_ctrl_device* handle);
KS_API int ks_device_init_status_check(_struct_ks_ctrl_device* handle);

/* Stereo constants of the loaded EPR: bxf and baseline. */
KS_API int ks_get_bxf_from_nuvex(_struct_ks_ctrl_device* handle, float* bxf, float* base);

KS_END_DECLS

#endif
