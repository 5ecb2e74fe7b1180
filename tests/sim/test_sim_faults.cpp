// Injected faults and the errors they produce on the nodes.
#include <sys/mman.h>

#include <atomic>
#include <thread>

#include "frame_decoder.h"
#include "sim_fixture.h"

using simtest::Capture;
using simtest::ioctl_errno;
using simtest::SimTest;

namespace {

class SimFaults : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, 8.0));
        cam_ = add_camera([](kssim_camera_config &c) { c.initial_size = {640, 480}; });
        ASSERT_NE(cam_, nullptr);
    }
    const char *node() { return kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE); }
    int inject(kssim_fault_kind kind, uint32_t count, uint32_t duration_ms = 0, int32_t value = 0) {
        const kssim_fault_spec spec = {kind, count, duration_ms, value};
        return kssim_camera_inject_fault(cam_, &spec);
    }
    void start(Capture &c) {
        ASSERT_TRUE(c.open(node()));
        ASSERT_EQ(0, c.set_format(640, 480));
        ASSERT_EQ(8, c.map_buffers(8));
        ASSERT_EQ(0, c.queue_all());
        ASSERT_EQ(0, c.stream_on());
    }
    // Frame ids and first bytes of the next n frames.
    void frames(Capture &c, int n, std::vector<uint64_t> *ids, std::vector<int> *first) {
        std::vector<uint8_t> f;
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(0, c.next_frame(f));
            const frame_test::Frame fr(f.data(), 640, 480);
            if (ids) ids->push_back(fr.frame_id());
            if (first) first->push_back(fr.first_byte());
        }
    }
    kssim_camera *cam_ = nullptr;
};

}  // namespace

TEST_F(SimFaults, UnplugFailsEveryRequestWakesSelectAndReplugComesBackFresh) {
    Capture c;
    start(c);
    Capture idle;  // a second descriptor, not streaming
    ASSERT_TRUE(idle.open(node()));
    std::vector<uint8_t> frame;
    ASSERT_EQ(0, c.next_frame(frame));

    // A select blocked on a queue that gets no buffers wakes on unplug.
    for (int i = 0; i < 8; ++i) {
        v4l2_buffer b;
        while (c.dequeue(b) == EAGAIN) c.wait(1000);
    }
    std::atomic<int> woke{-2};
    std::thread t([&] { woke = c.wait(60000); });
    ks_sys_usleep(100000);
    ASSERT_EQ(0, kssim_camera_unplug(cam_));
    t.join();
    EXPECT_EQ(1, woke.load());

    v4l2_buffer b;
    EXPECT_EQ(ENODEV, c.dequeue(b));
    v4l2_capability cap;
    EXPECT_EQ(ENODEV, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(ENODEV, ioctl_errno(idle.fd(), VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(ENODEV, ioctl_errno(idle.fd(), VIDIOC_G_INPUT, &cap));
    EXPECT_EQ(ENODEV, c.stream_off());
    EXPECT_EQ(MAP_FAILED, ks_sys_mmap(nullptr, 4096, PROT_READ, MAP_SHARED, c.fd(), 0));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(1, idle.wait(0));  // a gone device polls readable
    EXPECT_EQ(-1, ks_sys_open(node(), O_RDWR, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1, kssim_camera_fault_active(cam_, KSSIM_FAULT_UNPLUG));

    ASSERT_EQ(0, kssim_camera_replug(cam_));
    EXPECT_EQ(ENODEV, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));  // old descriptors stay dead
    c.close();
    idle.close();
    Capture n;
    start(n);
    std::vector<uint64_t> ids;
    frames(n, 2, &ids, nullptr);
    EXPECT_EQ(1u, ids[0]);  // a fresh camera counts from its first id again
}

TEST_F(SimFaults, TimedUnplugReplugsOnTheVirtualClock) {
    ASSERT_EQ(0, inject(KSSIM_FAULT_UNPLUG, 0, 2000));
    struct stat st;
    EXPECT_EQ(-1, ks_sys_stat(node(), &st));
    ks_sys_usleep(1000000);
    EXPECT_EQ(-1, ks_sys_stat(node(), &st));
    ks_sys_usleep(1100000);
    EXPECT_EQ(0, ks_sys_stat(node(), &st));
    EXPECT_EQ(0, kssim_camera_fault_active(cam_, KSSIM_FAULT_UNPLUG));
}

TEST_F(SimFaults, StallStopsFramesForItsPeriodsAndTheIdsResumeInOrder) {
    Capture c;
    start(c);
    std::vector<uint64_t> ids;
    frames(c, 2, &ids, nullptr);
    ASSERT_EQ(0, inject(KSSIM_FAULT_STALL, 0, 1000));  // a second without frames
    // Frames already queued may still arrive; then nothing for a while.
    std::vector<uint8_t> f;
    int r = 0;
    while ((r = c.next_frame(f, nullptr, 400)) == 0) {
    }
    EXPECT_EQ(ETIMEDOUT, r);
    ks_sys_usleep(800000);
    frames(c, 3, &ids, nullptr);
    for (size_t i = 3; i < ids.size(); ++i) EXPECT_EQ(ids[i - 1] + 1, ids[i]);

    // By count: that many frame periods.
    ASSERT_EQ(0, inject(KSSIM_FAULT_STALL, 5));
    ks_sys_usleep(500000);
    EXPECT_EQ(0, kssim_camera_fault_active(cam_, KSSIM_FAULT_STALL));
}

TEST_F(SimFaults, BadMarkerAndFrozenIdLastTheirFrameCount) {
    Capture c;
    start(c);
    std::vector<uint64_t> ids;
    std::vector<int> first;
    frames(c, 8, nullptr, nullptr);  // drain what was produced before the faults
    ASSERT_EQ(0, inject(KSSIM_FAULT_BAD_MARKER, 3, 0, 0x12));
    ASSERT_EQ(0, inject(KSSIM_FAULT_FROZEN_FRAME_ID, 4));
    frames(c, 24, &ids, &first);
    // The faults start with some frame among the first eight (those queued
    // before may already have been written) and last 3 and 4 frames.
    size_t bad_from = 0;
    while (bad_from < first.size() && first[bad_from] != 0x12) ++bad_from;
    ASSERT_LT(bad_from, 9u);
    for (size_t i = 0; i < first.size(); ++i)
        EXPECT_EQ(i >= bad_from && i < bad_from + 3 ? 0x12 : 0xCE, first[i]) << i;
    size_t repeats = 0;
    for (size_t i = 1; i < ids.size(); ++i) {
        if (ids[i] == ids[i - 1]) ++repeats;
        else EXPECT_EQ(ids[i - 1] + 1, ids[i]);
    }
    EXPECT_EQ(4u, repeats);  // four frames kept the id of the frame before
}

TEST_F(SimFaults, FewerBuffersAreGrantedWhileArmed) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    ASSERT_EQ(0, inject(KSSIM_FAULT_FEWER_BUFFERS, 1, 0, 4));
    EXPECT_EQ(4, c.map_buffers(8));
    c.unmap();
    EXPECT_EQ(8, c.map_buffers(8));
    c.unmap();
    ASSERT_EQ(0, inject(KSSIM_FAULT_FEWER_BUFFERS, 0, 0, 1));
    EXPECT_EQ(1, c.map_buffers(8));
    c.unmap();
    EXPECT_EQ(1, c.map_buffers(8));
    c.unmap();
    ASSERT_EQ(0, kssim_camera_clear_fault(cam_, KSSIM_FAULT_FEWER_BUFFERS));
    EXPECT_EQ(8, c.map_buffers(8));
    EXPECT_EQ(-1, inject(KSSIM_FAULT_FEWER_BUFFERS, 1, 0, 33));
}

TEST_F(SimFaults, FormatAndCapabilityRequestsFailOrAnswerAnotherFormat) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    v4l2_capability cap;
    ASSERT_EQ(0, inject(KSSIM_FAULT_QUERYCAP_FAIL, 2));
    EXPECT_EQ(EIO, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(EIO, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(0, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));

    ASSERT_EQ(0, inject(KSSIM_FAULT_S_FMT_FAIL, 1, 0, EINVAL));
    EXPECT_EQ(EINVAL, c.set_format(640, 480));
    EXPECT_EQ(0, c.set_format(640, 480));

    v4l2_format f;
    std::memset(&f, 0, sizeof(f));
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(0, inject(KSSIM_FAULT_G_FMT_FAIL, 1));
    EXPECT_EQ(EIO, ioctl_errno(c.fd(), VIDIOC_G_FMT, &f));
    EXPECT_EQ(0, ioctl_errno(c.fd(), VIDIOC_G_FMT, &f));
    EXPECT_EQ(V4L2_PIX_FMT_BGR24, f.fmt.pix.pixelformat);

    ASSERT_EQ(0, inject(KSSIM_FAULT_OTHER_PIXFMT, 2));
    ASSERT_EQ(0, c.set_format(640, 480, &f));
    EXPECT_EQ(V4L2_PIX_FMT_YUYV, f.fmt.pix.pixelformat);
    EXPECT_EQ(0, ioctl_errno(c.fd(), VIDIOC_G_FMT, &f));
    EXPECT_EQ(V4L2_PIX_FMT_YUYV, f.fmt.pix.pixelformat);
    EXPECT_EQ(0, ioctl_errno(c.fd(), VIDIOC_G_FMT, &f));
    EXPECT_EQ(V4L2_PIX_FMT_BGR24, f.fmt.pix.pixelformat);

    // By duration: the fault ends with virtual time.
    ASSERT_EQ(0, inject(KSSIM_FAULT_QUERYCAP_FAIL, 0, 500));
    EXPECT_EQ(EIO, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(EIO, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));
    ks_sys_usleep(600000);
    EXPECT_EQ(0, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));

    // Until cleared.
    ASSERT_EQ(0, inject(KSSIM_FAULT_QUERYCAP_FAIL, 0, 0, ENODEV));
    EXPECT_EQ(ENODEV, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(1, kssim_camera_fault_active(cam_, KSSIM_FAULT_QUERYCAP_FAIL));
    ASSERT_EQ(0, kssim_camera_clear_fault(cam_, KSSIM_FAULT_QUERYCAP_FAIL));
    EXPECT_EQ(0, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));

    const kssim_fault_spec bad = {static_cast<kssim_fault_kind>(42), 1, 0, 0};
    EXPECT_EQ(-1, kssim_camera_inject_fault(cam_, &bad));
    EXPECT_EQ(-1, kssim_camera_inject_fault(cam_, nullptr));
}
