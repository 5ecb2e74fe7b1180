// The camera's V4L2 capture device: handle and set-up, the capture thread
// with its eight-slot frame ring, and the parsers that cut a packed source
// frame into host images.
//
// The capture thread and the consumer share the handle without a lock: the
// fields they both touch are atomics, the ring is published slot by slot
// (a slot's copy completes before `latest` points at it).
#ifndef KS_V4L2_DRIVER_H
#define KS_V4L2_DRIVER_H

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "common/ks_export.h"

// Stream states of nStatus.
enum {
    KS_STREAM_CLOSED = 0,
    KS_STREAM_OPENED = 100,
    KS_STREAM_STREAMING = 200,
    KS_STREAM_SHUTTING_DOWN = 300,
    KS_STREAM_LOST = 400,
};

// Codes of the frame consumers when no new frame can be handed out.
enum {
    KS_FRAME_RECONNECTING = 9,
    KS_FRAME_TIMEOUT = 10,
};

constexpr unsigned kKsV4l2BufferCount = 8;
constexpr unsigned kKsFrameRingSlots = 8;
constexpr unsigned kKsPixFmtBGR24 = 0x33524742;  // "BGR3"

struct _struct_ks_v4l2_buffer {
    void* start;
    size_t length;
};

struct _struct_ks_frame_slot {
    uint8_t* data;                   // host copy of one source frame
    std::atomic<uint32_t> frame_id;  // low 32 bits of the frame id
};

struct _struct_ks_frame_ring {
    _struct_ks_frame_slot* slots;
    std::atomic<int32_t> latest;       // newest complete slot, -1 before the first frame
    std::atomic<int32_t> write_index;  // slot written last, -1 at start
    // Bumped by every consumer call and read by the producer before it
    // rewrites a slot: whatever a consumer read before asking for its next
    // frame is ordered before the slot is reused.
    std::atomic<uint32_t> consumer_calls;
    // Bumped after every publish; consumers sleep on it as a futex word
    // instead of polling.
    std::atomic<uint32_t> generation;
    // Consumers inside a call: the producer wakes the word only when some.
    std::atomic<uint32_t> waiters;
};

typedef struct _struct_ks_Y4L2Cam {
    char dev_name[128];
    std::atomic<int32_t> nStatus;
    std::atomic<int32_t> fd;
    uint32_t buf_type;
    _struct_ks_v4l2_buffer* buffers;
    uint32_t n_buffers;
    _struct_ks_frame_ring* frame_ring;
    uint8_t* safe_frame;
    int16_t width;
    int16_t height;
    uint32_t pixel_fmt;
    uint32_t pix_size;
    uint32_t frm_size;
    std::atomic<uint64_t> frame_count;
    std::atomic<double> real_time_fps;
    std::atomic<float> fps;
    std::atomic<int32_t> wait_period;
    std::atomic<int32_t> timeout_sec;
    std::atomic<int32_t> timeout_usec;
    int32_t max_wait_count;
    std::atomic<int16_t> disp_offset;
    std::atomic<uint16_t> range_offset;
    std::atomic<int32_t> reconnecting;
    struct timeval fps_start;
    struct timeval fps_now;
    // May be set while streaming; the value behind it is written with atomic
    // stores because the IMU thread reads it.
    std::atomic<unsigned long*> sync_id_addr;

    // The capture thread, joined when the stream is released so that no
    // thread outlives the buffers it reads.
    pthread_t capture_thread;
    bool capture_thread_running;
    // Set by the release so that the thread leaves even when a reopen in
    // progress writes its own status.
    std::atomic<bool> stop_requested;
} KsY4L2Cam;

// Source frame records filled by the parsers; the buffers belong to the caller.
struct _cam_frame_rgbd_data {
    uint8_t* image;       // image A as I420
    uint16_t* disparity;  // width x height entries
    uint32_t reserved;    // carried beside bf and base, not written by the parser
    float bf;
    float base;
};

struct _cam_frame_raw_data {
    void* first;
    void* second;
};

KS_BEGIN_DECLS

// ---- handle and set-up ----
KS_API KsY4L2Cam* initY4l2DriverHandle(const char* path);
KS_API int DestoryY4l2DriverHandle(KsY4L2Cam* cam);
KS_API int setV4l2StreamPixFmt(KsY4L2Cam* cam, unsigned int fourcc);
KS_API int setV4l2StreamResolution(KsY4L2Cam* cam, short width, short height);
KS_API int open_device(KsY4L2Cam* cam);
KS_API int init_device(KsY4L2Cam* cam);
KS_API int init_mmap(KsY4L2Cam* cam);
KS_API int start_capturing(KsY4L2Cam* cam);
KS_API int stop_capturing(KsY4L2Cam* cam);
KS_API int uninit_device(KsY4L2Cam* cam);
KS_API int close_device(KsY4L2Cam* cam);
KS_API int initV4l2Stream(KsY4L2Cam* cam);
KS_API int releaseV4l2Stream(KsY4L2Cam* cam);
KS_API int setV4l2StreamFPS(KsY4L2Cam* cam, float fps);
KS_API float getv4l2StreamFPS(KsY4L2Cam* cam);
KS_API int setVideoSyncIdAddress(KsY4L2Cam* cam, unsigned long* addr);
KS_API int ksV4l2SetDisparityOffset(KsY4L2Cam* cam, short offset);
KS_API short ksV4l2GetDisparityOffset(KsY4L2Cam* cam);
KS_API int ksV4l2SetSearchRangeOffset(KsY4L2Cam* cam, unsigned char range);
KS_API unsigned char ksV4l2GetRangeOffset(KsY4L2Cam* cam);
KS_API int showKsY2L2cam(KsY4L2Cam* cam);

// ---- capture thread and frame hand-off ----
KS_API int initDriverHandleFrameBuf(KsY4L2Cam* cam);
KS_API int releaseDriverHandleFrameBuf(KsY4L2Cam* cam);
KS_API void* main_loop_func(void* cam);
KS_API int read_frame(KsY4L2Cam* cam);
KS_API int process_image(unsigned char* buf, KsY4L2Cam* cam);
KS_API int reopenDevice(KsY4L2Cam* cam);
KS_API int ksY4L2GetNextSourceData(unsigned char** data, unsigned int* last_id, KsY4L2Cam* cam);
KS_API int ksY4L2GetNextSafeSourceData(unsigned char** data, unsigned int* last_id, KsY4L2Cam* cam);
KS_API int ksV4l2GetRealTimeFPS(KsY4L2Cam* cam, double* fps);

// ---- frame parsers ----
KS_API int parseRgbDFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_rgbd_data* out,
                          unsigned short* meta);
KS_API int parseRectifiedFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                               unsigned short* meta);
KS_API int parseRawFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                         unsigned short* meta);
KS_API unsigned int decodeBfBase(unsigned short* words, float* bf, float* base);

KS_END_DECLS

// Plain one-pixel-at-a-time parsers: the definition the fast parsers above
// are checked against.
namespace ks_reference {
int parseRgbDFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_rgbd_data* out,
                   unsigned short* meta);
int parseRectifiedFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                        unsigned short* meta);
int parseRawFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                  unsigned short* meta);
}  // namespace ks_reference

// Frame id carried in words M23..M25 of a source frame's metadata line.
uint64_t ks_frame_id_of(const unsigned char* src);

namespace ks_v4l2 {
// How a consumer waits for a newer frame: woken by the capture thread's
// publish (the default), or by sleeping in steps of the polling period (the
// original design, kept selectable for comparisons). Process-wide.
enum class Handoff { WakeOnPublish, Polling };
void set_consumer_handoff(Handoff handoff);
Handoff consumer_handoff();
}  // namespace ks_v4l2

#endif
