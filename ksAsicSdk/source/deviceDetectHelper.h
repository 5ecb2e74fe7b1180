// Discovery of the cameras attached to the host, and look-ups in the list.
#ifndef KS_DEVICE_DETECT_HELPER_H
#define KS_DEVICE_DETECT_HELPER_H

#include "common/ks_export.h"
#include "ksStereoCameraDriver.h"

KS_BEGIN_DECLS

KS_API int ksQueryCameraList_impl(_ks_camera_list** list);
KS_API int ksReleaseCameraList_impl(_ks_camera_list** list);
KS_API int ksShowCameraList(_ks_camera_list* list);
KS_API _ks_camera_info_s* getCameraDevBySn(_ks_camera_list* list, const char* sn);
KS_API char* getCameraUsbPathNameBySn(_ks_camera_list* list, const char* sn);

KS_END_DECLS

#endif
