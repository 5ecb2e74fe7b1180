#include "driver/driver_cpp/source/KSUVCCameraFactory.h"

#include <cstdio>

KSUVCCameraFactory::KSUVCCameraFactory() {
    g_pUVCCameraFactory = this;
}
KSUVCCameraFactory::~KSUVCCameraFactory() {
    g_pUVCCameraFactory = nullptr;
}

int KSUVCCameraFactory::create_camera_by_number(unsigned char number, KSCameraAbstract** out) {
    if (number > kMaxDeviceNumber) return -1;
    char path[16];
    snprintf(path, sizeof path, "/dev/video%d", number);
    if (create_camera_by_path(path, out) != 0) return -2;
    return 0;
}

// The camera session that these bring-ups run is not part of the library
// yet: every UVC open fails as it would for an absent device.
int KSUVCCameraFactory::create_camera_by_path_initCamCtrl(const char* path,
                                                          KSCameraAbstract** out) {
    if (out != nullptr) *out = nullptr;
    return -2;
}

int KSUVCCameraFactory::create_camera_by_path_initCamSimple(const char* path,
                                                            KSCameraAbstract** out) {
    if (out != nullptr) *out = nullptr;
    return -2;
}

int ks_open_uvc_camera_by_sn(_ks_camera_list* list, const char* sn, KSCameraAbstract** out) {
    if (out != nullptr) *out = nullptr;
    return -1;
}

static KSUVCCameraFactory s_uvcCameraFactory;
