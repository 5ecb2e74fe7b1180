#include "ksAsicSdk/source/deviceDetectHelper.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/videodev2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/ks_file_utils.h"
#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"

namespace {

constexpr const char* kEmptyListMessage = "Empty Camera list. Query camera list is required";
constexpr const char* kByPathDir = "/dev/v4l/by-path";
constexpr const char* kByIdDir = "/dev/v4l/by-id";
constexpr const char* kKeyWords = "KS&KESTRA";
constexpr char kKeyWordSeparator = '&';
constexpr uint32_t kRequiredWidth = 1280;
constexpr uint32_t kRequiredHeight = 720;
// Source line the size trace has always named.
constexpr int kSizeTraceLine = 163;
// A device that never ends its list of frame sizes is not believed further.
constexpr uint32_t kMaxFrameSizeQueries = 1024;
// Room for a serial number as the EEPROM keeps it, terminator included.
constexpr size_t kSerialBufferSize = 17;

// A text field of a device record, which need not be terminated.
template <size_t N>
std::string device_text(const __u8 (&field)[N]) {
    const char* text = reinterpret_cast<const char*>(field);
    return std::string(text, strnlen(text, N));
}

// Copies text into a fixed field, always terminated; false when it is cut.
template <size_t N>
bool copy_field(char (&field)[N], const char* text) {
    const int n = snprintf(field, N, "%s", text);
    return n >= 0 && static_cast<size_t>(n) < N;
}

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

// The serial number of the camera at video, read from its EEPROM over a
// control-only session; empty when any step fails. A camera gone since it was
// listed is not waited for: its readiness checks could only fail.
void read_serial_number(const char* video, char (&sn)[sizeof(_ks_camera_info_s::camera_sn)]) {
    try {
        _KestraStereoCamSDK_Impl session;
        if (session.initCamCtrl(video) == 0) {
            session.checkDeviceInitStatus();
            char text[kSerialBufferSize] = {};
            if (ks_get_camera_sn(session.ctrlHandle(), text) == 0) copy_field(sn, text);
        }
        session.release();
    } catch (...) {
        sn[0] = '\0';
    }
}

}  // namespace

extern "C" {

int ksQueryCameraList_impl(_ks_camera_list** list) {
    if (list == nullptr) return -1;
    std::vector<std::string> links;
    listAvaiableDeviceByV4lPath(links);
    *list = static_cast<_ks_camera_list*>(calloc(1, sizeof(_ks_camera_list)));
    if (*list == nullptr) return -1;
    _ks_camera_list* found = *list;
    if (!links.empty()) {
        found->cameras =
            static_cast<_ks_camera_info_s*>(calloc(links.size(), sizeof(_ks_camera_info_s)));
        if (found->cameras == nullptr) return -1;
    }
    uint32_t count = 0;
    for (const std::string& link : links) {
        _ks_camera_info_s& camera = found->cameras[count];
        char real[PATH_MAX] = {};
        getTrueLink(link.c_str(), real);
        KS_LOG_TRACE(KS_DETECT_MODULE, "Buf: %s\n", real);
        // A node name that does not fit the record would be cut into the name
        // of another node: the camera is left out rather than misnamed.
        if (!copy_field(camera.video_dev, real)) {
            printf("Device [%s] is %s, longer than a camera record holds: skipped\n", link.c_str(),
                   real);
            memset(&camera, 0, sizeof camera);
            continue;
        }
        copy_field(camera.usb_path_name, link.c_str());
        KS_LOG_TRACE(KS_DETECT_MODULE, "aliasByPath %s\n", link.c_str());
        ++count;
    }
    found->count = count;
    if (count == 0) {
        free(found->cameras);
        found->cameras = nullptr;
        puts("No ksCamera Device found");
        return -1;
    }
    ksV4LIDNameMatch(found);
    ksCameraSnMatch(found);
    return 0;
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

// Every camera on the node a link resolves to takes the link's name; a
// later link replaces an earlier one.
int ksV4LIDNameMatch(_ks_camera_list* list) {
    if (list == nullptr) return -1;
    std::vector<std::string> links;
    getFileNameList(kByIdDir, links, "");
    for (const std::string& link : links) {
        char real[PATH_MAX] = {};
        getTrueLink(link.c_str(), real);
        for (uint32_t i = 0; list->cameras != nullptr && i < list->count; ++i) {
            _ks_camera_info_s& camera = list->cameras[i];
            if (strncmp(camera.video_dev, real, sizeof camera.video_dev) == 0)
                copy_field(camera.v4l_id_name, link.c_str());
        }
    }
    return 0;
}

int ksCameraSnMatch(_ks_camera_list* list) {
    if (list == nullptr) {
        puts(kEmptyListMessage);
        return -1;
    }
    for (uint32_t i = 0; list->cameras != nullptr && i < list->count; ++i) {
        _ks_camera_info_s& camera = list->cameras[i];
        read_serial_number(camera.video_dev, camera.camera_sn);
    }
    return 0;
}

// Only the first format is looked at: the camera offers one.
int usbInterfaceVerify(int fd) {
    struct v4l2_fmtdesc format;
    memset(&format, 0, sizeof format);
    format.index = 0;
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ks_sys_ioctl(fd, VIDIOC_ENUM_FMT, &format);
    KS_LOG_TRACE(KS_DETECT_MODULE, "Format info[%d]: '%s' (%s)\n", format.index,
                 fcc2s(format.pixelformat).c_str(), device_text(format.description).c_str());
    for (uint32_t index = 0; index < kMaxFrameSizeQueries; ++index) {
        struct v4l2_frmsizeenum size;
        memset(&size, 0, sizeof size);
        size.index = index;
        size.pixel_format = format.pixelformat;
        if (ks_sys_ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) != 0) return -1;
        if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            if (size.discrete.width == kRequiredWidth && size.discrete.height == kRequiredHeight) {
                KS_LOG_TRACE(KS_DETECT_MODULE, "1280X720 Indentified\n");
                return 0;
            }
            KS_LOG_TRACE(KS_DETECT_MODULE, "line:%d %dx%d\n", kSizeTraceLine,
                         static_cast<int>(size.discrete.width),
                         static_cast<int>(size.discrete.height));
        } else {
            KS_LOG_WARN(KS_DETECT_MODULE, "other frm size type\n");
        }
    }
    return -1;
}

// The test is on the caller's buffer, not on the resolution: a link that
// cannot be resolved yields the buffer as the caller left it (an empty name
// for the zeroed buffers discovery passes). The resolution goes through a
// buffer of its own so that no partial result reaches the caller.
int getTrueLink(const char* path, char* resolved) {
    if (resolved == nullptr) {
        printf("Get True Link Error %s\n", strerror(errno));
        return -1;
    }
    char real[PATH_MAX] = {};
    if (ks_sys_realpath(path, real) != nullptr) memcpy(resolved, real, strlen(real) + 1);
    return 0;
}

}  // extern "C"

int listAvaiableDeviceByV4lPath(std::vector<std::string>& out) {
    out.clear();
    std::vector<std::string> links;
    getFileNameList(kByPathDir, links, "");
    for (const std::string& link : links) {
        if (camDeviceVerify(link.c_str(), kKeyWords) != 0) {
            KS_LOG_DEBUG(KS_DETECT_MODULE, "Dev %s skiped", link.c_str());
            continue;
        }
        out.push_back(link);
    }
    return 0;
}

int camDeviceVerify(const char* path, std::string keywords) {
    const int fd = ks_sys_open(path, O_RDWR | O_NONBLOCK, 0);
    if (fd < 0) {
        puts("Open Dev Failed");
        return -1;
    }
    int result = deviceCapabilityVerify(fd, keywords);
    if (result == 0 && usbInterfaceVerify(fd) != 0) {
        printf("Device [%s] is possibly connected to or identified as USB 2.0\n", path);
        result = -5;
    }
    ks_sys_close(fd);
    return result;
}

// The key word may sit anywhere in the card name and case is ignored, so the
// two-letter word passes many names; the frame-size check narrows further.
int deviceCapabilityVerify(int fd, std::string keywords) {
    struct v4l2_capability caps;
    memset(&caps, 0, sizeof caps);
    if (ks_sys_ioctl(fd, VIDIOC_QUERYCAP, &caps) != 0) {
        KS_LOG_ERROR(KS_DETECT_MODULE, "VIDIOC_QUERYCAP Failed");
        return -2;
    }
    const std::string card = device_text(caps.card);
    std::vector<std::string> words;
    split_string(keywords, kKeyWordSeparator, words);
    const std::string* matched = nullptr;
    for (const std::string& word : words) {
        // An empty word would match every card.
        if (!word.empty() && strcasestr(card.c_str(), word.c_str()) != nullptr) {
            matched = &word;
            break;
        }
    }
    if (matched == nullptr) {
        KS_LOG_TRACE(KS_DETECT_MODULE, "Unmathed key word");
        return -3;
    }
    KS_LOG_TRACE(KS_DETECT_MODULE, "Found Matched key word %s\n", matched->c_str());
    if ((caps.device_caps & V4L2_CAP_VIDEO_CAPTURE) == 0) {
        KS_LOG_TRACE(KS_DETECT_MODULE, "None Video Cap Device\n");
        return -4;
    }
    return 0;
}

int getFileNameList(std::string dir, std::vector<std::string>& out, const char* prefix) {
    out.clear();
    struct dirent** entries = nullptr;
    const int n = ks_sys_scandir(dir.c_str(), &entries, nullptr, alphasort);
    if (n < 0) return -1;
    const size_t prefix_length = prefix != nullptr ? strlen(prefix) : 0;
    // From the last entry to the first: reverse alphabetical order.
    for (int i = n - 1; i >= 0; --i) {
        const struct dirent* entry = entries[i];
        const char* name = entry->d_name;
        if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
            strncmp(name, prefix != nullptr ? prefix : "", prefix_length) == 0) {
            KS_LOG_TRACE(KS_DETECT_MODULE, "%s,%d\n", name, static_cast<int>(entry->d_type));
            out.push_back(dir + "/" + name);
        }
    }
    for (int i = 0; i < n; ++i) free(entries[i]);
    free(entries);
    return 0;
}

std::string fcc2s(unsigned int fourcc) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) text += static_cast<char>((fourcc >> shift) & 0x7F);
    if ((fourcc & (1u << 31)) != 0) text += "-BE";
    return text;
}
