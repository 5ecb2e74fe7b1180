// Test helpers: a world installed for the duration of a test, and a raw
// V4L2 capture client that talks to a node through the platform seam.
#ifndef KSSIM_TEST_SIM_FIXTURE_H
#define KSSIM_TEST_SIM_FIXTURE_H

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/mman.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/ks_platform.h"
#include "sim/kssim.h"

namespace simtest {

// ioctl result as 0 or the errno it failed with.
inline int ioctl_errno(int fd, unsigned long request, void* arg) {
    return ks_sys_ioctl(fd, request, arg) == 0 ? 0 : errno;
}

inline int64_t virtual_now_us() {
    struct timespec ts;
    ks_sys_clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

class SimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        world_ = kssim_world_create();
        ASSERT_NE(world_, nullptr);
        ASSERT_EQ(0, kssim_world_install(world_));
    }
    void TearDown() override {
        if (world_ != nullptr) kssim_world_destroy(world_);
        world_ = nullptr;
        EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
    }
    kssim_camera* add_camera(void (*tweak)(kssim_camera_config&) = nullptr) {
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        if (tweak != nullptr) tweak(cfg);
        return kssim_world_add_camera(world_, &cfg);
    }
    static int inject(kssim_camera* cam, kssim_fault_kind kind, uint32_t count, int32_t value = 0,
                      uint32_t duration_ms = 0) {
        const kssim_fault armed = {kind, count, duration_ms, value};
        return kssim_camera_inject_fault(cam, &armed);
    }
    static kssim_device_state state(kssim_camera* cam) {
        kssim_device_state s;
        EXPECT_EQ(0, kssim_camera_device_state(cam, &s));
        return s;
    }
    static kssim_camera_stats stats(kssim_camera* cam) {
        kssim_camera_stats s;
        EXPECT_EQ(0, kssim_camera_get_stats(cam, &s));
        return s;
    }
    kssim_world* world_ = nullptr;
};

// A capture client doing what a V4L2 application does.
class Capture {
  public:
    ~Capture() { close(); }

    bool open(const char* path, bool nonblock = true) {
        fd_ = ks_sys_open(path, O_RDWR | (nonblock ? O_NONBLOCK : 0), 0);
        return fd_ >= 0;
    }
    // Open, 640x480, eight buffers mapped and queued, streaming.
    void start(const char* path) {
        ASSERT_TRUE(open(path));
        ASSERT_EQ(0, set_format(640, 480));
        ASSERT_EQ(8, map_buffers(8));
        ASSERT_EQ(0, queue_all());
        ASSERT_EQ(0, stream_on());
    }
    int fd() const { return fd_; }

    int set_format(uint32_t w, uint32_t h, v4l2_format* out = nullptr) {
        v4l2_format f{};
        f.type = type_;
        f.fmt.pix.width = w;
        f.fmt.pix.height = h;
        f.fmt.pix.pixelformat = V4L2_PIX_FMT_BGR24;
        f.fmt.pix.field = V4L2_FIELD_INTERLACED;
        const int r = ioctl_errno(fd_, VIDIOC_S_FMT, &f);
        if (out != nullptr) *out = f;
        return r;
    }

    // REQBUFS + QUERYBUF + mmap of every granted buffer: the count, or -errno.
    int map_buffers(uint32_t count) {
        v4l2_requestbuffers req{};
        req.count = count;
        req.type = type_;
        req.memory = V4L2_MEMORY_MMAP;
        if (ks_sys_ioctl(fd_, VIDIOC_REQBUFS, &req) != 0) return -errno;
        for (uint32_t i = 0; i < req.count; ++i) {
            v4l2_buffer b = buffer_info(i);
            if (ks_sys_ioctl(fd_, VIDIOC_QUERYBUF, &b) != 0) return -errno;
            void* p =
                ks_sys_mmap(nullptr, b.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, b.m.offset);
            if (p == MAP_FAILED) return -errno;
            maps_.push_back({static_cast<uint8_t*>(p), b.length});
        }
        return static_cast<int>(req.count);
    }

    int queue(uint32_t index) {
        v4l2_buffer b = buffer_info(index);
        return ioctl_errno(fd_, VIDIOC_QBUF, &b);
    }
    int queue_all() {
        for (uint32_t i = 0; i < maps_.size(); ++i)
            if (int r = queue(i)) return r;
        return 0;
    }
    int stream_on() { return ioctl_errno(fd_, VIDIOC_STREAMON, &type_); }
    int stream_off() { return ioctl_errno(fd_, VIDIOC_STREAMOFF, &type_); }
    int dequeue(v4l2_buffer& b) {
        b = buffer_info(0);
        return ioctl_errno(fd_, VIDIOC_DQBUF, &b);
    }
    // select until readable (virtual time-out): 1 readable, 0 time-out, -errno.
    int wait(long timeout_ms) {
        fd_set rd;
        FD_ZERO(&rd);
        FD_SET(fd_, &rd);
        struct timeval tv = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
        const int r = ks_sys_select(fd_ + 1, &rd, nullptr, nullptr, &tv);
        return r < 0 ? -errno : r;
    }
    // Waits (a generous minute of camera time by default, since a loaded host
    // can starve the camera's producer), dequeues, copies the frame, re-queues:
    // 0 or errno (ETIMEDOUT).
    int next_frame(std::vector<uint8_t>& out, v4l2_buffer* info = nullptr,
                   long timeout_ms = 60000) {
        const int w = wait(timeout_ms);
        if (w <= 0) return w == 0 ? ETIMEDOUT : -w;
        v4l2_buffer b;
        if (int r = dequeue(b)) return r;
        out.assign(maps_[b.index].first, maps_[b.index].first + b.bytesused);
        if (info != nullptr) *info = b;
        return queue(b.index);
    }
    void unmap() {
        for (auto& m : maps_) ks_sys_munmap(m.first, m.second);
        maps_.clear();
    }
    void close() {
        unmap();
        if (fd_ >= 0) ks_sys_close(fd_);
        fd_ = -1;
    }
    uint8_t* buffer(uint32_t i) { return maps_[i].first; }

    static v4l2_buffer buffer_info(uint32_t index) {
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        b.index = index;
        return b;
    }

  private:
    int fd_ = -1;
    uint32_t type_ = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    std::vector<std::pair<uint8_t*, size_t>> maps_;
};

}  // namespace simtest

#endif
