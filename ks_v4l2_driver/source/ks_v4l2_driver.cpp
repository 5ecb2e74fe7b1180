// V4L2 handle and stream set-up. Every device and clock access goes through
// the platform seam.
#include "ks_v4l2_driver/source/ks_v4l2_driver.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "ks_v4l2_driver/source/ks_v4l2_internal.h"

namespace {

constexpr int kDefaultWidth = 1280;
constexpr int kDefaultHeight = 720;
constexpr size_t kMaxPathLength = 127;

bool empty_handle(const KsY4L2Cam* cam) {
    if (cam != nullptr) return false;
    KS_LOG_WARN(KS_V4L2_MODULE, "Empty stream handle\n");
    return true;
}

void print_format_failure(int err) {
    fprintf(stderr, "Unable to set format\n");
    printf("%s\n", strerror(err));
}

}  // namespace

namespace ks_v4l2 {

int xioctl(int fd, unsigned long request, void* arg) {
    // A device that keeps interrupting is given up on rather than retried forever.
    int result = -1;
    for (int attempt = 0; attempt < kMaxEintrRetries; ++attempt) {
        result = ks_sys_ioctl(fd, request, arg);
        if (result != -1 || errno != EINTR) break;
    }
    return result;
}

void prepare_buffer(const KsY4L2Cam* cam, struct v4l2_buffer* buf, struct v4l2_plane* plane,
                    uint32_t index) {
    memset(buf, 0, sizeof *buf);
    memset(plane, 0, sizeof *plane);
    buf->type = cam->buf_type;
    buf->memory = V4L2_MEMORY_MMAP;
    buf->index = index;
    if (is_multiplanar(cam)) {
        buf->m.planes = plane;
        buf->length = 1;
    }
}

void compute_timing(KsY4L2Cam* cam, float fps) {
    int32_t wait_period = static_cast<int32_t>(900000.0 / fps);
    int32_t t = static_cast<int32_t>(1000000.0f / fps * 5.0f);
    int32_t sec = 0;
    int32_t usec = 300000;
    if (t >= 300000) {
        sec = t / 1000000;
        usec = t % 1000000;
    }
    cam->wait_period.store(wait_period, std::memory_order_relaxed);
    cam->timeout_sec.store(sec, std::memory_order_relaxed);
    cam->timeout_usec.store(usec, std::memory_order_relaxed);
    KS_LOG_DEBUG(KS_V4L2_MODULE, "Update FPS Config fps %f,wait period %d,timeout %d,%d\n",
                 static_cast<double>(fps), wait_period, sec, usec);
}

}  // namespace ks_v4l2

using ks_v4l2::xioctl;

extern "C" {

KsY4L2Cam* initY4l2DriverHandle(const char* path) {
    if (path == nullptr || strlen(path) > kMaxPathLength) {
        printf("[ERROR] Init Device Path Length Exceeds Maximum Size\n");
        return nullptr;
    }
    KsY4L2Cam* cam = new (std::nothrow) KsY4L2Cam{};
    if (cam == nullptr) return nullptr;
    cam->fd = -1;
    cam->fps = 20.0f;
    cam->wait_period = 45000;
    cam->timeout_sec = 0;
    cam->timeout_usec = 300000;
    cam->max_wait_count = 20;
    memcpy(cam->dev_name, path, strlen(path) + 1);
    if (open_device(cam) != 0) {
        delete cam;
        return nullptr;
    }
    return cam;
}

// Also gives back what a lost stream left behind (its release keeps the
// node and the mappings as the failed capture thread left them).
int DestoryY4l2DriverHandle(KsY4L2Cam* cam) {
    if (cam == nullptr) return 0;
    ks_v4l2::join_capture_thread(cam);
    releaseDriverHandleFrameBuf(cam);
    uninit_device(cam);
    if (cam->fd >= 0) ks_sys_close(cam->fd);
    delete cam;
    return 0;
}

int setV4l2StreamPixFmt(KsY4L2Cam* cam, unsigned int fourcc) {
    if (cam == nullptr) return -1;
    cam->pixel_fmt = fourcc;
    return 0;
}

int setV4l2StreamResolution(KsY4L2Cam* cam, short width, short height) {
    if (cam == nullptr) return -1;
    cam->width = width;
    cam->height = height;
    return 0;
}

int open_device(KsY4L2Cam* cam) {
    if (cam->nStatus != KS_STREAM_CLOSED) {
        KS_LOG_DEBUG(KS_V4L2_MODULE, "nStatus: %d. Device opened fd val: %d\n", cam->nStatus.load(),
                     cam->fd.load());
        return 0;
    }
    struct stat st;
    if (ks_sys_stat(cam->dev_name, &st) == -1) {
        int err = errno;
        fprintf(stderr, "Cannot identify '%s': %d, %s\n", cam->dev_name, err, strerror(err));
        return -1;
    }
    if (!S_ISCHR(st.st_mode)) {
        fprintf(stderr, "%s is no device\n", cam->dev_name);
        return -2;
    }
    int fd = ks_sys_open(cam->dev_name, O_RDWR | O_NONBLOCK, 0);
    if (fd == -1) {
        int err = errno;
        fprintf(stderr, "Cannot open '%s': %d, %s\n", cam->dev_name, err, strerror(err));
        return -3;
    }
    cam->fd = fd;
    KS_LOG_DEBUG(KS_V4L2_MODULE, "Open Dev Success. FD %d", fd);
    cam->nStatus = KS_STREAM_OPENED;
    return 0;
}

int init_device(KsY4L2Cam* cam) {
    if (cam->pixel_fmt == 0) {
        KS_LOG_WARN(KS_V4L2_MODULE,
                    "No pixel_fmt has been set. Using V4L2_PIX_FMT_BGR24 by default\n");
        cam->pixel_fmt = V4L2_PIX_FMT_BGR24;
    }
    if (cam->width == 0 || cam->height == 0) {
        KS_LOG_WARN(KS_V4L2_MODULE, "No Resolution has been set. Using 1280*720 by default\n");
        cam->width = kDefaultWidth;
        cam->height = kDefaultHeight;
    }

    struct v4l2_capability cap;
    memset(&cap, 0, sizeof cap);
    if (ks_sys_ioctl(cam->fd, VIDIOC_QUERYCAP, &cap) == -1) {
        KS_LOG_ERROR(KS_V4L2_MODULE, "Errror opening device %s: unable to query device.\n",
                     cam->dev_name);
        return -1;
    }
    if (cap.capabilities & V4L2_CAP_VIDEO_CAPTURE_MPLANE) {
        cam->buf_type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        KS_LOG_DEBUG(KS_V4L2_MODULE, "Device-> [%s]: supports capture multiplanar buf type.\n",
                     cam->dev_name);
    } else if (cap.capabilities & V4L2_CAP_VIDEO_CAPTURE) {
        cam->buf_type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        KS_LOG_DEBUG(KS_V4L2_MODULE, "Device supports video capture buf type\n");
    }
    if (cap.capabilities & V4L2_CAP_STREAMING)
        KS_LOG_TRACE(KS_V4L2_MODULE, "Device-> [%s]: supports streaming.\n", cam->dev_name);

    struct v4l2_format fmt;
    memset(&fmt, 0, sizeof fmt);
    if (cam->buf_type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE) {
        KS_LOG_INFO(KS_V4L2_MODULE, "V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE\n");
    } else if (cam->buf_type == V4L2_BUF_TYPE_VIDEO_CAPTURE) {
        KS_LOG_INFO(KS_V4L2_MODULE, "V4L2_BUF_TYPE_VIDEO_CAPTURE\n");
    } else {
        KS_LOG_ERROR(KS_V4L2_MODULE, "ERROR: Unsupport v4l2buftye %x\n", cam->buf_type);
        return -6;
    }
    // Width, height, pixel format and field sit at the same offsets in the
    // single-planar and the multiplanar layout.
    fmt.type = cam->buf_type;
    fmt.fmt.pix.width = static_cast<uint16_t>(cam->width);
    fmt.fmt.pix.height = static_cast<uint16_t>(cam->height);
    fmt.fmt.pix.pixelformat = cam->pixel_fmt;
    fmt.fmt.pix.field = V4L2_FIELD_INTERLACED;
    if (xioctl(cam->fd, VIDIOC_S_FMT, &fmt) == -1) {
        print_format_failure(errno);
        close_device(cam);
        return -5;
    }
    uint32_t requested = cam->pixel_fmt;
    fmt.fmt.pix.pixelformat = 0;
    if (xioctl(cam->fd, VIDIOC_G_FMT, &fmt) == -1) {
        print_format_failure(errno);
        return -6;
    }
    if (fmt.fmt.pix.pixelformat != requested) {
        printf("Warning: pixelformat set is not effective\n");
        printf("Before %x\nAfter %x\n", requested, fmt.fmt.pix.pixelformat);
        return -7;
    }
    if (fmt.fmt.pix.pixelformat != V4L2_PIX_FMT_BGR24) {
        KS_LOG_ERROR(KS_V4L2_MODULE, "Unhandled pixel format %d [0x%x]\n", fmt.fmt.pix.pixelformat,
                     fmt.fmt.pix.pixelformat);
        return -8;
    }
    cam->pix_size = 3;
    cam->frm_size = static_cast<uint32_t>(static_cast<uint16_t>(cam->width)) *
                    static_cast<uint16_t>(cam->height) * 3u;
    return init_mmap(cam);
}

int init_mmap(KsY4L2Cam* cam) {
    struct v4l2_requestbuffers req;
    memset(&req, 0, sizeof req);
    req.count = kKsV4l2BufferCount;
    req.type = cam->buf_type;
    req.memory = V4L2_MEMORY_MMAP;
    if (xioctl(cam->fd, VIDIOC_REQBUFS, &req) == -1) {
        int err = errno;
        KS_LOG_ERROR(KS_V4L2_MODULE, "Request buffer error\n");
        if (err == EINVAL) {
            printf("%s does not support memory mapping\n", cam->dev_name);
            return -1;
        }
        return -2;
    }
    if (req.count < 2) {
        printf("Insufficient buffer memory on %s\n", cam->dev_name);
        return -3;
    }
    if (req.count != kKsV4l2BufferCount) {
        printf("REQBUF count unmatch: GetBufCnt %d--->Buffer Expected %d\n", req.count,
               kKsV4l2BufferCount);
        return -3;
    }
    cam->buffers = static_cast<_struct_ks_v4l2_buffer*>(
        calloc(kKsV4l2BufferCount, sizeof(_struct_ks_v4l2_buffer)));
    if (cam->buffers == nullptr) {
        printf("Out of memory\n");
        return -4;
    }
    cam->n_buffers = 0;
    if (cam->buf_type != V4L2_BUF_TYPE_VIDEO_CAPTURE &&
        cam->buf_type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE)
        return 0;
    const bool mplane = ks_v4l2::is_multiplanar(cam);
    for (uint32_t i = 0; i < req.count; ++i) {
        struct v4l2_buffer buf;
        struct v4l2_plane planes[1];
        ks_v4l2::prepare_buffer(cam, &buf, planes, i);
        if (xioctl(cam->fd, VIDIOC_QUERYBUF, &buf) == -1) {
            if (mplane) printf("Query buffer error\n");
            return -5;
        }
        size_t length = mplane ? planes[0].length : buf.length;
        off_t offset = mplane ? planes[0].m.mem_offset : buf.m.offset;
        void* start =
            ks_sys_mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, cam->fd, offset);
        if (start == MAP_FAILED) return -6;
        cam->buffers[i].start = start;
        cam->buffers[i].length = length;
        cam->n_buffers = i + 1;
    }
    return 0;
}

int start_capturing(KsY4L2Cam* cam) {
    for (uint32_t i = 0; i < kKsV4l2BufferCount; ++i) {
        struct v4l2_buffer buf;
        struct v4l2_plane planes[1];
        ks_v4l2::prepare_buffer(cam, &buf, planes, i);
        int result = xioctl(cam->fd, VIDIOC_QBUF, &buf);
        if (result != 0) return result;
    }
    int type = static_cast<int>(cam->buf_type);
    if (xioctl(cam->fd, VIDIOC_STREAMON, &type) == -1) return -2;
    return 0;
}

int stop_capturing(KsY4L2Cam* cam) {
    int type = static_cast<int>(cam->buf_type);
    int result = xioctl(cam->fd, VIDIOC_STREAMOFF, &type);
    return result != 0 ? result : 0;
}

int uninit_device(KsY4L2Cam* cam) {
    if (cam->buffers == nullptr) return 0;
    for (uint32_t i = 0; i < cam->n_buffers && i < kKsV4l2BufferCount; ++i)
        if (ks_sys_munmap(cam->buffers[i].start, cam->buffers[i].length) == -1) return -1;
    free(cam->buffers);
    cam->buffers = nullptr;
    return 0;
}

int close_device(KsY4L2Cam* cam) {
    if (cam->nStatus == KS_STREAM_CLOSED) {
        cam->fd = -1;
        KS_LOG_DEBUG(KS_V4L2_MODULE, "Device already closed\n");
        return 0;
    }
    cam->nStatus = KS_STREAM_CLOSED;
    if (ks_sys_close(cam->fd) == -1) return -1;
    cam->fd = -1;
    return 0;
}

int initV4l2Stream(KsY4L2Cam* cam) {
    int result = open_device(cam);
    if (result != 0) {
        KS_LOG_ERROR(KS_V4L2_MODULE, "Open dev failed\n");
        return result;
    }
    result = init_device(cam);
    if (result != 0) {
        KS_LOG_ERROR(KS_V4L2_MODULE, "Init Device Failed\n");
        return result;
    }
    result = initDriverHandleFrameBuf(cam);
    if (result != 0) {
        KS_LOG_ERROR(KS_V4L2_MODULE, "Init Driver FrameBuf Err\n");
        return result;
    }
    result = start_capturing(cam);
    if (result != 0) {
        KS_LOG_ERROR(KS_V4L2_MODULE, "Start Capture Failed\n");
        return result;
    }
    cam->nStatus = KS_STREAM_STREAMING;
    return ks_v4l2::start_capture_thread(cam);
}

int releaseV4l2Stream(KsY4L2Cam* cam) {
    if (cam == nullptr) {
        KS_LOG_DEBUG(KS_V4L2_MODULE, "NULL driver handle\n");
        return 0;
    }
    int status = cam->nStatus;
    // A capture thread in the middle of a reopen writes its own states
    // (closed, opened, streaming): stop it before acting on the state, or its
    // descriptor would be closed under it.
    if (status != KS_STREAM_STREAMING && cam->capture_thread_running) {
        ks_v4l2::join_capture_thread(cam);
        status = cam->nStatus;
    }
    switch (status) {
        case KS_STREAM_LOST:
            ks_v4l2::join_capture_thread(cam);
            releaseDriverHandleFrameBuf(cam);
            printf("Unexpect connection interrupt detected...\n");
            return 0;
        case KS_STREAM_STREAMING:
            cam->nStatus = KS_STREAM_SHUTTING_DOWN;
            ks_sys_sleep(1);
            ks_v4l2::join_capture_thread(cam);
            stop_capturing(cam);
            releaseDriverHandleFrameBuf(cam);
            uninit_device(cam);
            KS_LOG_DEBUG(KS_V4L2_MODULE, "Finish device uninit\n");
            close_device(cam);
            return 0;
        case KS_STREAM_CLOSED:
        case KS_STREAM_OPENED:
        case KS_STREAM_SHUTTING_DOWN:
            KS_LOG_DEBUG(KS_V4L2_MODULE, "Stream already shutdown %d\n", status);
            close_device(cam);
            return 0;
        default:
            KS_LOG_WARN(KS_V4L2_MODULE, "Unexpected status %d\n", status);
            return -1;
    }
}

int setV4l2StreamFPS(KsY4L2Cam* cam, float fps) {
    if (empty_handle(cam)) return -1;
    cam->fps = fps;
    ks_v4l2::compute_timing(cam, fps);
    return 0;
}

float getv4l2StreamFPS(KsY4L2Cam* cam) {
    if (empty_handle(cam)) return 0.0f;
    return cam->fps;
}

int setVideoSyncIdAddress(KsY4L2Cam* cam, unsigned long* addr) {
    if (empty_handle(cam)) return -1;
    cam->sync_id_addr.store(addr, std::memory_order_release);
    return 0;
}

int ksV4l2SetDisparityOffset(KsY4L2Cam* cam, short offset) {
    if (empty_handle(cam)) return -1;
    cam->disp_offset = offset;
    return 0;
}

short ksV4l2GetDisparityOffset(KsY4L2Cam* cam) {
    if (empty_handle(cam)) return 0;
    return cam->disp_offset;
}

int ksV4l2SetSearchRangeOffset(KsY4L2Cam* cam, unsigned char range) {
    if (empty_handle(cam)) return -1;
    cam->range_offset = static_cast<uint16_t>(range * 32);
    return 0;
}

unsigned char ksV4l2GetRangeOffset(KsY4L2Cam* cam) {
    if (empty_handle(cam)) return 0;
    return static_cast<unsigned char>(cam->range_offset >> 5);
}

int showKsY2L2cam(KsY4L2Cam* cam) {
    if (cam == nullptr) return -1;
    printf("dev name %s\n", cam->dev_name);
    printf("fd : %d\n", cam->fd.load());
    printf("stat: %d\n", cam->nStatus.load());
    printf("w x h: %d x %d\n", cam->width, cam->height);
    printf("pix %d\n", cam->pixel_fmt);
    printf("pix size %d\n", cam->pix_size);
    printf("frm size %d\n", cam->frm_size);
    return 0;
}

}  // extern "C"
