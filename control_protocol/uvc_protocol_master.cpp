// Extension-unit transport: the UVCIOC_CTRL_QUERY requests, the current
// descriptor and the exchange mutex. Device access goes through the platform
// seam.
#include "control_protocol/uvc_protocol_master.h"

#include <errno.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <pthread.h>
#include <sys/file.h>

#include <atomic>
#include <mutex>

#include "common/ks_platform.h"
#include "control_protocol/protocol_master.h"

namespace {

// Written by whichever thread selects a camera, read by the exchange that
// holds the mutex.
std::atomic<int> uvc_fd{-1};
pthread_mutex_t mutex_uvc_extension = PTHREAD_MUTEX_INITIALIZER;
std::once_flag init_once;
std::atomic<int> is_init{0};

// A signal may interrupt the wait for another process's exchange; a
// process that keeps being signalled still gets through, unlocked.
constexpr int kLockAttempts = 1000;

int xu_query(int fd, unsigned char query, unsigned char* buf, int len) {
    if (buf == nullptr || len < 0) return -1;
    struct uvc_xu_control_query q = {};
    q.unit = UVC_XU_UNIT_ID;
    q.selector = UVC_XU_SELECTOR;
    q.query = query;
    q.size = static_cast<__u16>(len & 0xFFFF);
    q.data = buf;
    if (ks_sys_ioctl(fd, UVCIOC_CTRL_QUERY, &q) < 0) return -1;
    return len & 0xFFFF;
}

}  // namespace

extern "C" {

int uvc_protocol_master_init(void) {
    std::call_once(init_once, [] {
        const _struct_protocol_functions funcs = {
            uvc_protocol_master_send_data,
            uvc_protocol_master_receive_data,
            uvc_protocol_get_current_timestamp,
        };
        protocol_master_init(&funcs);
        // The mutex is statically initialised, so an exchange that races a
        // first initialisation still finds a usable mutex.
        is_init.store(1, std::memory_order_release);
    });
    return 0;
}

int uvc_set_extension_data(int fd, unsigned char* buf, int len) {
    return xu_query(fd, UVC_SET_CUR, buf, len);
}

int uvc_get_extension_data(int fd, unsigned char* buf, int len) {
    return xu_query(fd, UVC_GET_CUR, buf, len);
}

int uvc_get_extension_data_len(int fd) {
    unsigned char len[2] = {0, 0};
    if (xu_query(fd, UVC_GET_LEN, len, 2) < 0) return -1;
    return len[0] + len[1] * 256;
}

int uvc_protocol_master_send_data(unsigned char* buf) {
    if (buf == nullptr) return -1;
    buf[UVC_XU_NEW_REQUEST_INDEX] = 1;
    return uvc_set_extension_data(uvc_fd.load(std::memory_order_relaxed), buf, UVC_XU_BLOCK_SIZE);
}

int uvc_protocol_master_receive_data(unsigned char* buf) {
    if (uvc_get_extension_data(uvc_fd.load(std::memory_order_relaxed), buf, UVC_XU_BLOCK_SIZE) < 0)
        return -1;
    return 0;
}

int uvc_protocol_get_current_timestamp(unsigned int* ts) {
    if (ts != nullptr) *ts = 0;
    return 0;
}

int set_cur_uvc_fd(int fd) {
    uvc_fd.store(fd, std::memory_order_relaxed);
    return 0;
}

int get_cur_uvc_fd(void) {
    return uvc_fd.load(std::memory_order_relaxed);
}

int lock_uvc_protocol_mutex(void) {
    return pthread_mutex_lock(&mutex_uvc_extension);
}

int unlock_uvc_protocol_mutex(void) {
    return pthread_mutex_unlock(&mutex_uvc_extension);
}

int trylock_uvc_protocol_mutex(void) {
    return pthread_mutex_trylock(&mutex_uvc_extension);
}

int lock_uvc_device(int fd) {
    if (fd < 0) return -1;
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        if (ks_sys_flock(fd, LOCK_EX) == 0) return 0;
        if (errno != EINTR) return -1;
    }
    return -1;
}

int unlock_uvc_device(int fd) {
    if (fd < 0) return -1;
    return ks_sys_flock(fd, LOCK_UN) == 0 ? 0 : -1;
}

int default_send_data(unsigned char*) {
    return 0;
}

int default_receive_data(unsigned char*) {
    return 0;
}

int default_get_current_timestamp(unsigned int*) {
    return 0;
}

}  // extern "C"
