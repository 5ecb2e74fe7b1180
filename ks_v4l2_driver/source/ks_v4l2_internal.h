// Shared between the set-up, capture and parser files of the stream driver.
#ifndef KS_V4L2_INTERNAL_H
#define KS_V4L2_INTERNAL_H

#include <linux/videodev2.h>

#include "ks_v4l2_driver/source/ks_v4l2_driver.h"

#define KS_V4L2_MODULE "ks_v4l2_driver/source/ks_v4l2_driver"

namespace ks_v4l2 {

// Requests interrupted more often than this are reported as failed.
constexpr int kMaxEintrRetries = 1000;

// ioctl through the platform seam, retried while interrupted.
int xioctl(int fd, unsigned long request, void* arg);

// Consumer polling period (nine tenths of a frame) and select time-out
// (five frames, at least 0.3 s) for a frame rate.
void compute_timing(KsY4L2Cam* cam, float fps);

// A buffer request of the handle's type on memory-mapped buffers; for the
// multiplanar type it describes one plane in `plane`.
void prepare_buffer(const KsY4L2Cam* cam, struct v4l2_buffer* buf, struct v4l2_plane* plane,
                    uint32_t index);
inline bool is_multiplanar(const KsY4L2Cam* cam) {
    return cam->buf_type == 9;
}

int start_capture_thread(KsY4L2Cam* cam);
void join_capture_thread(KsY4L2Cam* cam);

}  // namespace ks_v4l2

#endif
