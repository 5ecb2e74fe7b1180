#include "driver/driver_cpp/source/KSUVCCameraFactory.h"

#include <cstdio>
#include <memory>

#include "driver/driver_cpp/source/KSUVCCamera.h"

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

namespace {

// Creates a camera and runs one of its opens; a camera whose open failed is
// destroyed before the error is returned, so nothing half-built escapes.
template <typename Open>
int create_and_open(KSCameraAbstract** out, Open&& open) {
    if (out == nullptr) return -1;
    *out = nullptr;
    std::unique_ptr<KSUVCCamera> camera(new KSUVCCamera());
    if (open(camera.get()) != 0) return -2;
    *out = camera.release();
    return 0;
}

}  // namespace

int KSUVCCameraFactory::create_camera_by_path(const char* path, KSCameraAbstract** out) {
    return create_and_open(out, [&](KSUVCCamera* camera) { return camera->open_camera(path); });
}

int KSUVCCameraFactory::create_camera_by_path_initCamCtrl(const char* path,
                                                          KSCameraAbstract** out) {
    return create_and_open(
        out, [&](KSUVCCamera* camera) { return camera->open_camera_initCamCtrl(path); });
}

int KSUVCCameraFactory::create_camera_by_path_initCamSimple(const char* path,
                                                            KSCameraAbstract** out) {
    return create_and_open(
        out, [&](KSUVCCamera* camera) { return camera->open_camera_initCamSimple(path); });
}

// The session's own result is handed back, not a factory code.
int ks_open_uvc_camera_by_sn(_ks_camera_list* list, const char* sn, KSCameraAbstract** out) {
    if (out == nullptr) return -1;
    *out = nullptr;
    std::unique_ptr<KSUVCCamera> camera(new KSUVCCamera());
    const int result = camera->open_camera_by_sn(list, sn);
    if (result != 0) return result;
    *out = camera.release();
    return 0;
}

static KSUVCCameraFactory s_uvcCameraFactory;
