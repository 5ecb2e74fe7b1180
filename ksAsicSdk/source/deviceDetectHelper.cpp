#include "ksAsicSdk/source/deviceDetectHelper.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kEmptyListMessage = "Empty Camera list. Query camera list is required";

_ks_camera_info_s* find_by_sn(_ks_camera_list* list, const char* sn) {
    if (list == nullptr) {
        puts(kEmptyListMessage);
        return nullptr;
    }
    if (sn != nullptr && list->cameras != nullptr) {
        for (uint32_t i = 0; i < list->count; ++i) {
            _ks_camera_info_s& camera = list->cameras[i];
            if (strncmp(camera.camera_sn, sn, sizeof camera.camera_sn) == 0) return &camera;
        }
    }
    printf("Failed to locate camera of %s\n", sn != nullptr ? sn : "(null)");
    return nullptr;
}

}  // namespace

extern "C" {

// Enumeration of the host's video devices is not part of the library yet:
// the query reports what it reports on a host without cameras.
int ksQueryCameraList_impl(_ks_camera_list** list) {
    if (list == nullptr) return -1;
    *list = static_cast<_ks_camera_list*>(calloc(1, sizeof(_ks_camera_list)));
    puts("No ksCamera Device found");
    return -1;
}

int ksReleaseCameraList_impl(_ks_camera_list** list) {
    if (list == nullptr || *list == nullptr) return 0;
    free((*list)->cameras);
    free(*list);
    *list = nullptr;
    return 0;
}

int ksShowCameraList(_ks_camera_list* list) {
    if (list == nullptr) {
        puts(kEmptyListMessage);
        return -1;
    }
    for (uint32_t i = 0; list->cameras != nullptr && i < list->count; ++i) {
        const _ks_camera_info_s& camera = list->cameras[i];
        printf("Camera %d info:\n", static_cast<int>(i));
        printf("\tVideoDevice name: %.*s\n", static_cast<int>(sizeof camera.video_dev),
               camera.video_dev);
        printf("\tCameraSN: %.*s\n", static_cast<int>(sizeof camera.camera_sn), camera.camera_sn);
        printf("\tUsb Path Name: %.*s\n", static_cast<int>(sizeof camera.usb_path_name),
               camera.usb_path_name);
        printf("\tV4l id Name: %.*s\n", static_cast<int>(sizeof camera.v4l_id_name),
               camera.v4l_id_name);
    }
    return 0;
}

_ks_camera_info_s* getCameraDevBySn(_ks_camera_list* list, const char* sn) {
    return find_by_sn(list, sn);
}

char* getCameraUsbPathNameBySn(_ks_camera_list* list, const char* sn) {
    _ks_camera_info_s* camera = find_by_sn(list, sn);
    return camera != nullptr ? camera->usb_path_name : nullptr;
}

}  // extern "C"
