#include "driver/driver_cpp/source/KSCameraFactory.h"

KSCameraFactory* g_pUVCCameraFactory = nullptr;
KSCameraFactory* g_pMIPICameraFactory = nullptr;
KSCameraFactory* g_pEthernetCameraFactory = nullptr;

int KSCameraFactory::get_camera_by_path(const char* path, KSCameraAbstract** out) {
    if (path == nullptr || path[0] == '\0' || out == nullptr) return -1;
    *out = nullptr;
    if (create_camera_by_path(path, out) != 0 || *out == nullptr) return -2;
    return 0;
}

int KSCameraFactory::get_camera_by_number(unsigned char number, KSCameraAbstract** out) {
    if (out == nullptr) return -1;
    if (create_camera_by_number(number, out) != 0 || *out == nullptr) return -2;
    return 0;
}

int KSCameraFactory::get_camera_by_sn(const char* sn, KSCameraAbstract** out) {
    return -1;
}

// Unlike the path variant, the caller's pointer is not cleared first.
int KSCameraFactory::get_camera_by_ip(const char* ip, KSCameraAbstract** out) {
    if (ip == nullptr || ip[0] == '\0' || out == nullptr) return -1;
    if (create_camera_by_ip(ip, out) != 0 || *out == nullptr) return -2;
    return 0;
}

int KSCameraFactory::close_camera(KSCameraAbstract** camera) {
    if (camera == nullptr || *camera == nullptr) return -1;
    if (release_camera(camera) != 0) return -2;
    *camera = nullptr;
    return 0;
}

int KSCameraFactory::create_camera_by_path(const char* path, KSCameraAbstract** out) {
    return -1;
}
int KSCameraFactory::create_camera_by_number(unsigned char number, KSCameraAbstract** out) {
    return -1;
}
int KSCameraFactory::create_camera_by_ip(const char* ip, KSCameraAbstract** out) {
    return -1;
}

int KSCameraFactory::release_camera(KSCameraAbstract** camera) {
    if (*camera != nullptr) {
        delete *camera;
        *camera = nullptr;
    }
    return 0;
}
