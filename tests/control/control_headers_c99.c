/* The control layer's headers are usable from C. */
#include "control_protocol/protocol_master.h"
#include "control_protocol/uvc_protocol_master.h"
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"
#include "ks_asic_iic_ctrl/source/ks_iic_kernel.h"

int control_headers_c99(void);
int control_headers_c99(void) {
    _struct_ks_ctrl_device ctrl = {-1, 0, 0, 0.0f, 0.0f, 0};
    _struct_protocol_functions funcs = {default_send_data, default_receive_data,
                                        default_get_current_timestamp};
    return ctrl.fd + (funcs.send != 0);
}
