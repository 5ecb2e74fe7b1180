// Factories create, find and close camera objects; one static factory object
// per transport registers itself in a process-wide pointer while the library
// is loaded. The order of the virtual operations is part of the binary
// interface.
#ifndef KS_CAMERA_FACTORY_H
#define KS_CAMERA_FACTORY_H

#include "driver/driver_cpp/source/KSCameraAbstract.h"

class KSCameraFactoryAbstract {
  public:
    virtual ~KSCameraFactoryAbstract() = default;
    virtual int get_camera_by_path(const char* path, KSCameraAbstract** out) = 0;
    virtual int get_camera_by_number(unsigned char number, KSCameraAbstract** out) = 0;
    virtual int get_camera_by_sn(const char* sn, KSCameraAbstract** out) = 0;
    virtual int get_camera_by_ip(const char* ip, KSCameraAbstract** out) = 0;
    virtual int close_camera(KSCameraAbstract** camera) = 0;
    virtual int create_camera_by_path(const char* path, KSCameraAbstract** out) = 0;
    virtual int create_camera_by_number(unsigned char number, KSCameraAbstract** out) = 0;
    virtual int create_camera_by_ip(const char* ip, KSCameraAbstract** out) = 0;
    virtual int release_camera(KSCameraAbstract** camera) = 0;
};

// Generic get/close logic over the creation operations. The base creation
// operations create nothing (-1), which the get operations report as -2.
class KSCameraFactory : public KSCameraFactoryAbstract {
  public:
    int get_camera_by_path(const char* path, KSCameraAbstract** out) override;
    int get_camera_by_number(unsigned char number, KSCameraAbstract** out) override;
    int get_camera_by_sn(const char* sn, KSCameraAbstract** out) override;
    int get_camera_by_ip(const char* ip, KSCameraAbstract** out) override;
    int close_camera(KSCameraAbstract** camera) override;
    int create_camera_by_path(const char* path, KSCameraAbstract** out) override;
    int create_camera_by_number(unsigned char number, KSCameraAbstract** out) override;
    int create_camera_by_ip(const char* ip, KSCameraAbstract** out) override;
    int release_camera(KSCameraAbstract** camera) override;
};

// The registered factory of each transport; null while none is loaded.
extern KSCameraFactory* g_pUVCCameraFactory;
extern KSCameraFactory* g_pMIPICameraFactory;
extern KSCameraFactory* g_pEthernetCameraFactory;

#endif
