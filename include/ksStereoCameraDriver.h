#ifndef KS_STEREO_CAMERA_DRIVER_H
#define KS_STEREO_CAMERA_DRIVER_H
#ifdef __cplusplus
extern "C" {
#endif
const char *ksGetSdkVersion(void);
#ifdef __cplusplus
}
#endif
#endif
