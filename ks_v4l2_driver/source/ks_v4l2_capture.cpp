// The capture thread and the lock-free hand-off of frames to consumers.
#include <errno.h>
#include <linux/videodev2.h>
#include <sys/select.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/ks_log.h"
#include "common/ks_platform.h"
#include "ks_v4l2_driver/source/ks_v4l2_driver.h"
#include "ks_v4l2_driver/source/ks_v4l2_internal.h"
#include "ks_v4l2_driver/source/ks_v4l2_simd.h"

namespace {

constexpr uint8_t kMarkerLowByte = 0xCE;  // low byte of the metadata marker 0xACE
constexpr uint64_t kFramesPerSpan = 25;
constexpr uint64_t kFramesBeforeRateIsTrusted = 51;

// 12-bit metadata word k of line 0.
inline uint32_t meta_word(const unsigned char* src, unsigned k) {
    const unsigned char* p = src + 3 * k;
    return (p[1] & 0x0Fu) << 8 | p[0];
}

bool keep_running(const KsY4L2Cam* cam) {
    return cam->nStatus.load(std::memory_order_acquire) == KS_STREAM_STREAMING &&
           !cam->stop_requested.load(std::memory_order_acquire);
}

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "the generation counter doubles as a futex word");

std::atomic<ks_v4l2::Handoff> g_handoff{ks_v4l2::Handoff::WakeOnPublish};

const uint32_t* futex_word(const std::atomic<uint32_t>& a) {
    return reinterpret_cast<const uint32_t*>(&a);
}

// Tells waiting consumers that a frame was published. The counter is
// bumped before the waiters are read and consumers count themselves in
// before they read it (both sequentially consistent), so either a sleeping
// consumer is woken or it sees the new value and does not sleep.
void wake_consumers(_struct_ks_frame_ring* ring) {
    if (ring == nullptr) return;
    ring->generation.fetch_add(1, std::memory_order_seq_cst);
    if (ring->waiters.load(std::memory_order_seq_cst) != 0)
        ks_sys_futex_wake(futex_word(ring->generation), INT_MAX);
}

int64_t monotonic_us() {
    struct timespec ts;
    ks_sys_clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Counts a consumer in for the length of one call.
class WaiterScope {
  public:
    explicit WaiterScope(_struct_ks_frame_ring* ring) : ring_(ring) {
        ring_->waiters.fetch_add(1, std::memory_order_seq_cst);
    }
    ~WaiterScope() { ring_->waiters.fetch_sub(1, std::memory_order_seq_cst); }
    WaiterScope(const WaiterScope&) = delete;
    WaiterScope& operator=(const WaiterScope&) = delete;

  private:
    _struct_ks_frame_ring* ring_;
};

// The slot `latest` points at when it holds a frame other than last_id.
const _struct_ks_frame_slot* newer_frame(const _struct_ks_frame_ring* ring, unsigned int last_id) {
    int32_t latest = ring->latest.load(std::memory_order_acquire);
    if (latest < 0) return nullptr;
    const _struct_ks_frame_slot& slot = ring->slots[latest];
    return slot.frame_id.load(std::memory_order_relaxed) != last_id ? &slot : nullptr;
}

// One polling period of the wake-up hand-off: sleeps until the period has
// passed or the newest frame is not last_id any more, and returns that frame
// (null without one). A wake for a frame with the same id sleeps on for the
// rest of the period, so the deadline stays the same number of periods
// whatever the camera sends.
const _struct_ks_frame_slot* wait_one_period(KsY4L2Cam* cam, _struct_ks_frame_ring* ring,
                                             unsigned int last_id) {
    const int64_t period = cam->wait_period.load() > 0 ? cam->wait_period.load() : 0;
    const int64_t end = monotonic_us() + period;
    for (;;) {
        uint32_t seen = ring->generation.load(std::memory_order_seq_cst);
        if (const _struct_ks_frame_slot* slot = newer_frame(ring, last_id)) return slot;
        int64_t left = end - monotonic_us();
        if (left <= 0) return nullptr;
        struct timespec timeout;
        timeout.tv_sec = static_cast<time_t>(left / 1000000);
        timeout.tv_nsec = static_cast<long>(left % 1000000) * 1000;
        if (ks_sys_futex_wait(futex_word(ring->generation), seen, &timeout) != 0 &&
            errno == ETIMEDOUT) {
            // The time-out ends the period even on a clock that did not move.
            return newer_frame(ring, last_id);
        }
    }
}

// Hands out the slot: the frame's id becomes the consumer's last id.
int hand_out(const _struct_ks_frame_slot* slot, unsigned char** data, unsigned int* last_id) {
    *last_id = slot->frame_id.load(std::memory_order_relaxed);
    *data = slot->data;
    return 0;
}

int timed_out(const KsY4L2Cam* cam) {
    printf("Wait Image TimeOut[%d s]\n", (cam->max_wait_count * cam->wait_period.load()) / 1000000);
    return KS_FRAME_TIMEOUT;
}

// After a consumer's n-th polling period without a new frame: it gives up
// (10), reports a reconnect (9), or waits on (0).
int after_period(const KsY4L2Cam* cam, int waits) {
    if (waits > cam->max_wait_count) return timed_out(cam);
    if (cam->reconnecting.load() == 1) return KS_FRAME_RECONNECTING;
    return 0;
}

bool stream_gone(const KsY4L2Cam* cam) {
    return cam->nStatus.load(std::memory_order_acquire) != KS_STREAM_STREAMING &&
           !cam->reconnecting.load();
}

// The original hand-off: sleep a polling period, look again.
int next_frame_polling(unsigned char** data, unsigned int* last_id, KsY4L2Cam* cam,
                       _struct_ks_frame_ring* ring) {
    // Waits for the first frame as long as the stream lives.
    while (ring->latest.load(std::memory_order_acquire) < 0) {
        if (stream_gone(cam)) return KS_FRAME_TIMEOUT;
        ks_sys_usleep(static_cast<useconds_t>(cam->wait_period.load()));
    }
    int waits = 0;
    for (;;) {
        if (const _struct_ks_frame_slot* slot = newer_frame(ring, *last_id))
            return hand_out(slot, data, last_id);
        ++waits;
        ks_sys_usleep(static_cast<useconds_t>(cam->wait_period.load()));
        if (int code = after_period(cam, waits)) return code;
    }
}

// The same periods, codes and deadline, but a publish ends the wait at once.
int next_frame_on_publish(unsigned char** data, unsigned int* last_id, KsY4L2Cam* cam,
                          _struct_ks_frame_ring* ring) {
    WaiterScope counted(ring);
    while (ring->latest.load(std::memory_order_acquire) < 0) {
        if (stream_gone(cam)) return KS_FRAME_TIMEOUT;
        // Any id is new before the first frame.
        if (wait_one_period(cam, ring, *last_id) != nullptr) break;
    }
    if (const _struct_ks_frame_slot* slot = newer_frame(ring, *last_id))
        return hand_out(slot, data, last_id);
    for (int waits = 1;; ++waits) {
        if (const _struct_ks_frame_slot* slot = wait_one_period(cam, ring, *last_id))
            return hand_out(slot, data, last_id);
        if (int code = after_period(cam, waits)) return code;
    }
}

void* leave_main_loop() {
    printf("Leaving Driver Main loop...\n");
    return nullptr;
}

// Rate over 24 frame intervals, from frame 1 to frame 25 of each span.
void measure_rate(KsY4L2Cam* cam) {
    uint64_t count = cam->frame_count.load(std::memory_order_relaxed);
    if (count % kFramesPerSpan == 1) {
        ks_sys_gettimeofday(&cam->fps_now);
        cam->fps_start = cam->fps_now;
    } else if (count % kFramesPerSpan == 0) {
        ks_sys_gettimeofday(&cam->fps_now);
        if (count > 24) {
            int64_t elapsed =
                (static_cast<int64_t>(cam->fps_now.tv_sec) - cam->fps_start.tv_sec) * 1000000 -
                cam->fps_start.tv_usec + cam->fps_now.tv_usec;
            if (elapsed > 0) cam->real_time_fps.store(24000000.0 / static_cast<double>(elapsed));
        }
    }
}

}  // namespace

uint64_t ks_frame_id_of(const unsigned char* src) {
    return static_cast<uint64_t>(meta_word(src, 23)) << 24 |
           static_cast<uint64_t>(meta_word(src, 24)) << 12 | meta_word(src, 25);
}

namespace ks_v4l2 {

void set_consumer_handoff(Handoff handoff) {
    g_handoff.store(handoff, std::memory_order_relaxed);
}

Handoff consumer_handoff() {
    return g_handoff.load(std::memory_order_relaxed);
}

int start_capture_thread(KsY4L2Cam* cam) {
    cam->stop_requested = false;
    if (pthread_create(&cam->capture_thread, nullptr, main_loop_func, cam) != 0) return -1;
    cam->capture_thread_running = true;
    return 0;
}

void join_capture_thread(KsY4L2Cam* cam) {
    cam->stop_requested = true;
    if (!cam->capture_thread_running) return;
    pthread_join(cam->capture_thread, nullptr);
    cam->capture_thread_running = false;
}

}  // namespace ks_v4l2

extern "C" {

int initDriverHandleFrameBuf(KsY4L2Cam* cam) {
    auto* ring = new _struct_ks_frame_ring{};
    ring->slots = new _struct_ks_frame_slot[kKsFrameRingSlots]{};
    for (unsigned i = 0; i < kKsFrameRingSlots; ++i) {
        ring->slots[i].data = static_cast<uint8_t*>(calloc(cam->frm_size, 1));
        // Writing the pages now takes their first-touch faults here rather
        // than on the capture thread during its first eight frames.
        if (ring->slots[i].data != nullptr) memset(ring->slots[i].data, 0, cam->frm_size);
        ring->slots[i].frame_id = 0;
    }
    ring->latest = -1;
    ring->write_index = -1;
    cam->safe_frame = static_cast<uint8_t*>(calloc(cam->frm_size, 1));
    cam->frame_ring = ring;
    return 0;
}

int releaseDriverHandleFrameBuf(KsY4L2Cam* cam) {
    _struct_ks_frame_ring* ring = cam->frame_ring;
    if (ring != nullptr) {
        for (unsigned i = 0; i < kKsFrameRingSlots; ++i) free(ring->slots[i].data);
        delete[] ring->slots;
        delete ring;
    }
    free(cam->safe_frame);
    cam->frame_ring = nullptr;
    cam->safe_frame = nullptr;
    return 0;
}

void* main_loop_func(void* arg) {
    auto* cam = static_cast<KsY4L2Cam*>(arg);
    cam->frame_count = 0;
    KS_LOG_TRACE(KS_V4L2_MODULE, "Start main loop %d\n", cam->nStatus.load());
    ks_v4l2::compute_timing(cam, cam->fps);
    KS_LOG_TRACE(KS_V4L2_MODULE, "Waiting new frame trace %d\n", cam->wait_period.load());

    while (keep_running(cam)) {
        int ready;
        for (;;) {
            int fd = cam->fd;
            fd_set fds;
            FD_ZERO(&fds);
            if (fd >= 0 && fd < FD_SETSIZE) FD_SET(fd, &fds);
            struct timeval tv;
            tv.tv_sec = cam->timeout_sec;
            tv.tv_usec = cam->timeout_usec;
            ready = ks_sys_select(fd + 1, &fds, nullptr, nullptr, &tv);
            if (ready != 0) break;
            fprintf(stderr, "select timeout\n");
            cam->reconnecting = 1;
            reopenDevice(cam);
            cam->reconnecting = 0;
            cam->frame_count = 0;
            if (!keep_running(cam)) return leave_main_loop();
        }
        if (ready == -1) {
            if (errno == EINTR) continue;
            fprintf(stderr, "select \n");
        }
        int result = read_frame(cam);
        if (result != 0) {
            fprintf(stderr, "read frame err [%d]\n", result);
            if (result == -2) {
                printf("Device Connection Error!");
                cam->nStatus.store(KS_STREAM_LOST, std::memory_order_release);
                return leave_main_loop();
            }
            continue;
        }
        cam->frame_count.fetch_add(1, std::memory_order_relaxed);
        measure_rate(cam);
    }
    return leave_main_loop();
}

int read_frame(KsY4L2Cam* cam) {
    const bool mplane = ks_v4l2::is_multiplanar(cam);
    struct v4l2_buffer buf;
    struct v4l2_plane planes[1];
    ks_v4l2::prepare_buffer(cam, &buf, planes, 0);
    if (ks_v4l2::xioctl(cam->fd, VIDIOC_DQBUF, &buf) == -1) {
        int err = errno;
        printf("DQBuf err %s\n", strerror(err));
        return err == EAGAIN ? -1 : -2;
    }
    // An index the driver never mapped means the buffer bookkeeping is broken
    // beyond repair: stop here, in every build type.
    if (buf.index >= cam->n_buffers || buf.index >= kKsV4l2BufferCount) {
        fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", KS_V4L2_MODULE, __LINE__,
                "int read_frame(KsY4L2Cam*)", "buf.index < pCam->n_buffers");
        abort();
    }
    const _struct_ks_v4l2_buffer& mapped = cam->buffers[buf.index];
    size_t used = mplane ? planes[0].bytesused : buf.bytesused;
    const auto* data = static_cast<const unsigned char*>(mapped.start);
    if (mapped.length < cam->frm_size || used < cam->frm_size || cam->frm_size < 2) {
        KS_LOG_WARN(KS_V4L2_MODULE, "Short frame buffer dropped: %zu of %u bytes\n",
                    used < mapped.length ? used : mapped.length, cam->frm_size);
    } else if (data[0] == kMarkerLowByte) {
        process_image(const_cast<unsigned char*>(data), cam);
    } else {
        KS_LOG_WARN(KS_V4L2_MODULE, "Rcved buf data %02x %02x\n", data[0], data[1]);
    }
    if (ks_v4l2::xioctl(cam->fd, VIDIOC_QBUF, &buf) == -1) return -3;
    return 0;
}

int process_image(unsigned char* buf, KsY4L2Cam* cam) {
    _struct_ks_frame_ring* ring = cam->frame_ring;
    if (ring == nullptr) return -1;
    int32_t index = (ring->write_index.load(std::memory_order_relaxed) + 1) %
                    static_cast<int32_t>(kKsFrameRingSlots);
    ring->write_index.store(index, std::memory_order_relaxed);
    _struct_ks_frame_slot& slot = ring->slots[index];
    (void)ring->consumer_calls.load(std::memory_order_acquire);
    ks_v4l2::copy_frame(slot.data, buf, cam->frm_size);
    // The id needs words up to M25: frames narrower than 26 pixels carry none.
    uint64_t id = cam->width >= 26 ? ks_frame_id_of(buf) : 0;
    slot.frame_id.store(static_cast<uint32_t>(id), std::memory_order_relaxed);
    ring->latest.store(index, std::memory_order_release);
    unsigned long* sync_id = cam->sync_id_addr.load(std::memory_order_acquire);
    if (sync_id != nullptr) __atomic_store_n(sync_id, id, __ATOMIC_RELEASE);
    wake_consumers(ring);
    return 0;
}

int reopenDevice(KsY4L2Cam* cam) {
    printf("\n=====\nDevice Reopen...fd [%d]\n", cam->fd.load());
    if (stop_capturing(cam) != 0) printf("stop_capturing failed\n");
    if (uninit_device(cam) != 0) printf("unmap failed\n");
    if (close_device(cam) != 0) printf("close device failed\n");
    if (open_device(cam) != 0) printf("Open Device Failed\n");
    if (init_device(cam) != 0) printf("Init Device Failed\n");
    if (start_capturing(cam) != 0) printf("start_capture failed\n");
    printf("Reopen Success...fd [%d]\n=====\n", cam->fd.load());
    cam->nStatus.store(KS_STREAM_STREAMING, std::memory_order_release);
    return 0;
}

int ksY4L2GetNextSourceData(unsigned char** data, unsigned int* last_id, KsY4L2Cam* cam) {
    _struct_ks_frame_ring* ring = cam->frame_ring;
    if (ring == nullptr) return KS_FRAME_TIMEOUT;
    ring->consumer_calls.fetch_add(1, std::memory_order_release);
    if (ks_v4l2::consumer_handoff() == ks_v4l2::Handoff::Polling)
        return next_frame_polling(data, last_id, cam, ring);
    return next_frame_on_publish(data, last_id, cam, ring);
}

int ksY4L2GetNextSafeSourceData(unsigned char** data, unsigned int* last_id, KsY4L2Cam* cam) {
    unsigned char* frame = nullptr;
    int result = ksY4L2GetNextSourceData(&frame, last_id, cam);
    if (result != 0) {
        *data = nullptr;
        return result;
    }
    memcpy(cam->safe_frame, frame, cam->frm_size);
    // The slot is no longer needed: let the producer reuse it after the copy.
    cam->frame_ring->consumer_calls.fetch_add(1, std::memory_order_release);
    *data = cam->safe_frame;
    return 0;
}

int ksV4l2GetRealTimeFPS(KsY4L2Cam* cam, double* fps) {
    if (cam == nullptr) {
        KS_LOG_WARN(KS_V4L2_MODULE, "Empty stream handle\n");
        return -2;
    }
    if (cam->frame_count.load(std::memory_order_relaxed) < kFramesBeforeRateIsTrusted) {
        *fps = 0.0;
        return -1;
    }
    *fps = cam->real_time_fps.load();
    return 0;
}

}  // extern "C"
