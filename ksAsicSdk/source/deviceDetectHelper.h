// Discovery of the cameras attached to the host, and look-ups in the list.
//
// Candidates are the links of /dev/v4l/by-path, in reverse alphabetical
// order. A candidate is one of our cameras when its card name carries one of
// the product key words (case ignored), it is a capture device and its first
// format offers 1280 x 720 frames. Every device and directory access goes
// through the platform seam.
#ifndef KS_DEVICE_DETECT_HELPER_H
#define KS_DEVICE_DETECT_HELPER_H

#include <string>
#include <vector>

#include "common/ks_export.h"
#include "ksStereoCameraDriver.h"

#define KS_DETECT_MODULE "ksAsicSdk/source/deviceDetectHelper"

KS_BEGIN_DECLS

// A new list of the cameras found: 0, or -1 when there is none (the header is
// still handed out, with count 0 and no records).
KS_API int ksQueryCameraList_impl(_ks_camera_list** list);
// Frees the records and the header and sets *list to null; 0.
KS_API int ksReleaseCameraList_impl(_ks_camera_list** list);
KS_API int ksShowCameraList(_ks_camera_list* list);
// The first camera whose serial number is sn, or null (with a message).
KS_API _ks_camera_info_s* getCameraDevBySn(_ks_camera_list* list, const char* sn);
KS_API char* getCameraUsbPathNameBySn(_ks_camera_list* list, const char* sn);
// Fills v4l_id_name from the /dev/v4l/by-id links; 0, -1 for a null list.
KS_API int ksV4LIDNameMatch(_ks_camera_list* list);
// Reads each camera's serial number into camera_sn (empty when the read
// fails); 0, -1 for a null list.
KS_API int ksCameraSnMatch(_ks_camera_list* list);
// 1280 x 720 among the discrete sizes of the first capture format: 0, else -1.
KS_API int usbInterfaceVerify(int fd);
// realpath of path into resolved, which must hold PATH_MAX bytes. A path that
// cannot be resolved leaves resolved as it was and still returns 0; only a
// null resolved is an error (-1).
KS_API int getTrueLink(const char* path, char* resolved);

KS_END_DECLS

// Steps of the query, for the library's own C++ code (not exported).

// The accepted /dev/v4l/by-path links, in listing order; 0.
int listAvaiableDeviceByV4lPath(std::vector<std::string>& out);
// Opens one candidate and checks it: 0 accepted; -1 not openable, -2..-4 as
// deviceCapabilityVerify, -5 no 1280 x 720 frames (reported as USB 2.0).
int camDeviceVerify(const char* path, std::string keywords);
// keywords: key words joined by '&'. 0; -2 VIDIOC_QUERYCAP failed, -3 no key
// word in the card name, -4 no video capture.
int deviceCapabilityVerify(int fd, std::string keywords);
// dir + "/" + name of every entry whose name starts with prefix (null or
// empty: all), "." and ".." left out, in reverse alphabetical order; 0, or -1
// when the directory cannot be listed.
int getFileNameList(std::string dir, std::vector<std::string>& out, const char* prefix);
// The four characters of a fourcc, lowest byte first, 7 bits each; "-BE"
// appended when bit 31 is set.
std::string fcc2s(unsigned int fourcc);

#endif
