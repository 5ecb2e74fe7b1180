/* The application layer's headers are usable from C. */
#include "ks_asic_iic_ctrl/source/ks_iic_application_layer.h"

int ctrl_headers_c99(void);
int ctrl_headers_c99(void) {
    _struct_epr_info info = {-1, 0, 0, 0xFF, 0xFF};
    _struct_rectify_cam_para_info para = {0, 0, 0, 0.0f, 0.0f, 0.0f, 0.0f};
    return info.index + para.index + (int)sizeof(_struct_epr_info) + (int)sizeof(ae_closed_flag);
}
