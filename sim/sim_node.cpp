// The node layer: what the kernel's V4L2 core and the UVC driver add around
// the driver's requests of sim_camera.cpp, so that programs written for any
// video node (v4l2-ctl, v4l2-compliance, ffmpeg) meet a uvcvideo node:
//
// - access priorities (G/S_PRIORITY), shared by both nodes of a camera, and
//   EBUSY for changing requests from a descriptor below the highest priority;
// - the one input of a camera without a selector unit ("Camera 1");
// - the control ioctls of a camera whose video functions offer no standard
//   controls (its own controls are reached through extension unit 3 only),
//   and control events, which therefore find no control to watch;
// - the extended pixel-format marker in single-planar format replies;
// - ENOTTY for every request the node does not know.
#include <errno.h>
#include <linux/videodev2.h>

#include <cstddef>
#include <cstring>

#include "sim/sim_camera.h"

namespace kssim {

namespace {

constexpr uint32_t kMaxExtControls = 1024;  // the V4L2 core refuses larger arrays

bool priority_valid(uint32_t p) {
    return p == V4L2_PRIORITY_BACKGROUND || p == V4L2_PRIORITY_INTERACTIVE ||
           p == V4L2_PRIORITY_RECORD;
}

// Requests the V4L2 core refuses (EBUSY) to a descriptor below the highest priority.
bool priority_checked(unsigned long request) {
    switch (request) {
        case VIDIOC_S_FMT:
        case VIDIOC_REQBUFS:
        case VIDIOC_CREATE_BUFS:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
        case VIDIOC_S_PARM:
        case VIDIOC_S_INPUT:
        case VIDIOC_S_CTRL:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_S_PRIORITY:
            return true;
        default:
            return false;
    }
}

}  // namespace

uint32_t Camera::max_priority() const {
    uint32_t best = V4L2_PRIORITY_UNSET;
    for (const auto& f : files_)
        if (f->priority > best) best = f->priority;
    return best;
}

int Camera::node_ioctl(OpenFile& f, unsigned long request, void* arg) {
    if (priority_checked(request)) {
        std::lock_guard<std::mutex> lk(mu_);
        if (f.instance != instance_ || !plugged()) return -ENODEV;
        if (f.priority < max_priority()) return -EBUSY;
    }
    switch (request) {
        case VIDIOC_G_PRIORITY:
        case VIDIOC_S_PRIORITY:
            return priority_request(f, request, arg);
        case VIDIOC_ENUMINPUT:
        case VIDIOC_G_INPUT:
        case VIDIOC_S_INPUT:
            return input_request(f, request, arg);
        case VIDIOC_QUERYCTRL:
        case VIDIOC_QUERY_EXT_CTRL:
        case VIDIOC_QUERYMENU:
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS:
            return control_request(f, request, arg);
        case VIDIOC_SUBSCRIBE_EVENT:
        case VIDIOC_UNSUBSCRIBE_EVENT:
        case VIDIOC_DQEVENT:
            return event_request(f, request, arg);
        default:
            break;
    }
    if (request == VIDIOC_ENUM_FRAMEINTERVALS && arg != nullptr) {
        // The V4L2 core clears what follows the request's fields.
        auto* iv = static_cast<struct v4l2_frmivalenum*>(arg);
        std::memset(&iv->type, 0, sizeof(*iv) - offsetof(struct v4l2_frmivalenum, type));
    }
    if (request == VIDIOC_QUERYBUF && arg != nullptr) {
        // vb2 answers a query whatever memory field it carries; the reply names the queue's.
        static_cast<struct v4l2_buffer*>(arg)->memory = V4L2_MEMORY_MMAP;
    }
    const int r = ioctl(f, request, arg);
    if (r == 0 && request == VIDIOC_REQBUFS) {
        auto* rb = static_cast<struct v4l2_requestbuffers*>(arg);
        // Freed buffers stay valid while a program still maps them; there
        // are no cache hints, so no memory flag is taken.
        rb->capabilities |= V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
        rb->flags = 0;
        std::memset(rb->reserved, 0, sizeof(rb->reserved));
    }
    if (r == 0 && f.node == NodeKind::Capture &&
        (request == VIDIOC_G_FMT || request == VIDIOC_S_FMT || request == VIDIOC_TRY_FMT)) {
        auto* fmt = static_cast<struct v4l2_format*>(arg);
        if (fmt->type == V4L2_BUF_TYPE_VIDEO_CAPTURE) fmt->fmt.pix.priv = V4L2_PIX_FMT_PRIV_MAGIC;
    }
    return r;
}

int Camera::priority_request(OpenFile& f, unsigned long request, void* arg) {
    std::lock_guard<std::mutex> lk(mu_);
    if (f.instance != instance_ || !plugged()) return -ENODEV;
    if (arg == nullptr) return -EFAULT;
    auto* p = static_cast<uint32_t*>(arg);
    if (request == VIDIOC_G_PRIORITY) {
        *p = max_priority();
        return 0;
    }
    if (!priority_valid(*p)) return -EINVAL;
    f.priority = *p;
    return 0;
}

int Camera::input_request(OpenFile& f, unsigned long request, void* arg) {
    std::lock_guard<std::mutex> lk(mu_);
    if (f.instance != instance_ || !plugged()) return -ENODEV;
    if (f.node != NodeKind::Capture) return -ENOTTY;
    if (arg == nullptr) return -EFAULT;
    switch (request) {
        case VIDIOC_ENUMINPUT: {
            auto* in = static_cast<struct v4l2_input*>(arg);
            const uint32_t index = in->index;
            if (index != 0) return -EINVAL;
            std::memset(in, 0, sizeof(*in));
            in->index = index;
            std::memcpy(in->name, "Camera 1", sizeof("Camera 1"));
            in->type = V4L2_INPUT_TYPE_CAMERA;
            return 0;
        }
        case VIDIOC_G_INPUT:
            *static_cast<uint32_t*>(arg) = 0;
            return 0;
        default:  // VIDIOC_S_INPUT
            // Selecting needs the streaming privilege, which another
            // descriptor holds while it owns the buffers.
            if (owner_ != nullptr && owner_ != &f) return -EBUSY;
            return *static_cast<const uint32_t*>(arg) == 0 ? 0 : -EINVAL;
    }
}

int Camera::control_request(OpenFile& f, unsigned long request, void* arg) {
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (f.instance != instance_ || !plugged()) return -ENODEV;
    }
    if (f.node != NodeKind::Capture) return -ENOTTY;
    if (arg == nullptr) return -EFAULT;
    if (request != VIDIOC_G_EXT_CTRLS && request != VIDIOC_S_EXT_CTRLS &&
        request != VIDIOC_TRY_EXT_CTRLS)
        return -EINVAL;  // no control by that id
    auto* c = static_cast<struct v4l2_ext_controls*>(arg);
    if (c->count > kMaxExtControls) return -E2BIG;
    if (c->count > 0 && c->controls == nullptr) return -EFAULT;
    c->reserved[0] = 0;
    // The V4L2 core's checks of the control class, then the driver's look-up.
    switch (c->which) {
        case V4L2_CID_PRIVATE_BASE:
            break;
        case V4L2_CTRL_WHICH_DEF_VAL:
            if (request != VIDIOC_G_EXT_CTRLS) {
                c->error_idx = c->count;
                return -EINVAL;
            }
            break;
        case V4L2_CTRL_WHICH_CUR_VAL:
            break;
        case V4L2_CTRL_WHICH_REQUEST_VAL:
            c->error_idx = c->count;
            return -EINVAL;
        default:
            for (uint32_t i = 0; i < c->count; ++i) {
                if (V4L2_CTRL_ID2WHICH(c->controls[i].id) != c->which) {
                    c->error_idx = request == VIDIOC_TRY_EXT_CTRLS ? i : c->count;
                    return -EINVAL;
                }
            }
            break;
    }
    c->error_idx = request == VIDIOC_TRY_EXT_CTRLS ? 0 : c->count;
    return c->count == 0 ? 0 : -EINVAL;
}

int Camera::event_request(OpenFile& f, unsigned long request, void* arg) {
    {
        std::lock_guard<std::mutex> lk(mu_);
        if (f.instance != instance_ || !plugged()) return -ENODEV;
    }
    if (f.node != NodeKind::Capture) return -ENOTTY;
    if (arg == nullptr) return -EFAULT;
    switch (request) {
        case VIDIOC_SUBSCRIBE_EVENT:
            // Only control events exist, and there is no control to watch.
            return -EINVAL;
        case VIDIOC_UNSUBSCRIBE_EVENT:
            return 0;
        default:  // VIDIOC_DQEVENT: nothing is ever pending
            return -ENOENT;
    }
}

}  // namespace kssim
