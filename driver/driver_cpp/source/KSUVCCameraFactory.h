#ifndef KS_UVC_CAMERA_FACTORY_H
#define KS_UVC_CAMERA_FACTORY_H

#include "driver/driver_cpp/source/KSCameraFactory.h"

// Creates USB Video Class cameras.
class KSUVCCameraFactory : public KSCameraFactory {
  public:
    KSUVCCameraFactory();
    ~KSUVCCameraFactory() override;

    int create_camera_by_path(const char* path, KSCameraAbstract** out) override;
    int create_camera_by_number(unsigned char number, KSCameraAbstract** out) override;
    // Control-only and simple bring-up variants of create_camera_by_path.
    virtual int create_camera_by_path_initCamCtrl(const char* path, KSCameraAbstract** out);
    virtual int create_camera_by_path_initCamSimple(const char* path, KSCameraAbstract** out);

    // Highest device number that create_camera_by_number accepts.
    static constexpr unsigned char kMaxDeviceNumber = 126;
};

// Opens the camera of the list whose serial number is `sn`, without a factory.
int ks_open_uvc_camera_by_sn(_ks_camera_list* list, const char* sn, KSCameraAbstract** out);

#endif
