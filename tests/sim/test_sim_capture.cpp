// The capture node's buffer queue and the frame producer, driven with raw
// V4L2 requests through the platform seam, and the control side seen on the
// stream.
#include <sys/mman.h>

#include <atomic>
#include <set>
#include <thread>

#include "frame_decoder.h"
#include "sim_fixture.h"
#include "xu_client.h"

using simtest::Capture;
using simtest::ioctl_errno;
using simtest::SimTest;

namespace {

class SimCapture : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, 8.0));
        cam_ = add_camera([](kssim_camera_config& c) { c.initial_size = {640, 480}; });
        ASSERT_NE(cam_, nullptr);
    }
    const char* node() { return kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE); }
    kssim_camera* cam_ = nullptr;
};

}  // namespace

TEST_F(SimCapture, RawPathNegotiatesMapsAndStreamsNumberedFrames) {
    Capture c;
    ASSERT_TRUE(c.open(kssim_camera_by_id_link(cam_, KSSIM_NODE_CAPTURE)));
    // The format is adjusted to the size of the ASIC's EPR, the only one
    // offered (though the camera's flash holds an EPR for 1280 x 720 too);
    // TRY_FMT answers the camera's format.
    v4l2_format f;
    ASSERT_EQ(0, c.set_format(1280, 720, &f));
    EXPECT_EQ(640u, f.fmt.pix.width);
    EXPECT_EQ(480u, f.fmt.pix.height);
    EXPECT_EQ(V4L2_FIELD_NONE, f.fmt.pix.field);
    EXPECT_EQ(640u * 3, f.fmt.pix.bytesperline);
    EXPECT_EQ(921600u, f.fmt.pix.sizeimage);
    f.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_TRY_FMT, &f));
    EXPECT_EQ(V4L2_PIX_FMT_BGR24, f.fmt.pix.pixelformat);
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_G_FMT, &f));
    ASSERT_EQ(0, c.set_format(1000, 600, &f));
    EXPECT_EQ(640u, f.fmt.pix.width);
    EXPECT_EQ(480u, f.fmt.pix.height);

    ASSERT_EQ(8, c.map_buffers(8));
    std::set<uint32_t> offsets;
    for (uint32_t i = 0; i < 8; ++i) {
        v4l2_buffer b = Capture::buffer_info(i);
        ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_QUERYBUF, &b));
        EXPECT_EQ(640u * 480 * 3, b.length);
        offsets.insert(b.m.offset);
    }
    EXPECT_EQ(8u, offsets.size());
    ASSERT_EQ(0, c.queue_all());
    ASSERT_EQ(0, c.stream_on());

    std::vector<uint8_t> frame;
    std::vector<v4l2_buffer> infos;
    std::set<uint32_t> indices;
    for (int i = 0; i < 24; ++i) {
        v4l2_buffer b;
        ASSERT_EQ(0, c.next_frame(frame, &b)) << i;
        EXPECT_EQ(640u * 480 * 3, b.bytesused);
        EXPECT_EQ(V4L2_FIELD_NONE, b.field);
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
        EXPECT_FALSE(b.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE));
        indices.insert(b.index);
        infos.push_back(b);
        const frame_test::Frame fr(frame.data(), 640, 480);
        ASSERT_TRUE(fr.markers_ok());
        EXPECT_EQ(0xCE, frame[0]);
        EXPECT_EQ(1u + b.sequence, fr.frame_id());
    }
    EXPECT_EQ(8u, indices.size());  // the ring of buffers is used in turn
    auto us = [](const v4l2_buffer& b) {
        return b.timestamp.tv_sec * 1000000 + b.timestamp.tv_usec;
    };
    for (size_t i = 1; i < infos.size(); ++i) {
        EXPECT_GT(infos[i].sequence, infos[i - 1].sequence);
        EXPECT_GT(us(infos[i]), us(infos[i - 1]));
    }
    // Timestamps of the virtual clock, one period (1/30 s) per sequence step.
    EXPECT_NEAR(33333.0,
                static_cast<double>(us(infos.back()) - us(infos[0])) /
                    (infos.back().sequence - infos[0].sequence),
                50.0);
    EXPECT_LE(us(infos.back()), simtest::virtual_now_us());

    kssim_camera_stats s = stats(cam_);
    EXPECT_EQ(1u, s.streaming);
    EXPECT_EQ(s.frames_produced, s.frames_delivered + s.frames_dropped);
    ASSERT_EQ(0, c.stream_off());
    EXPECT_EQ(0u, stats(cam_).streaming);
    v4l2_buffer b;
    EXPECT_EQ(EINVAL, c.dequeue(b));  // every buffer is back with the application
    EXPECT_EQ(0, c.queue(0));
}

TEST_F(SimCapture, FramesWithoutAQueuedBufferAreDroppedAndShowInTheSequence) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    ASSERT_EQ(0, c.queue(0));
    ASSERT_EQ(0, c.queue(1));
    ASSERT_EQ(0, c.stream_on());
    v4l2_buffer a, b, n;
    ASSERT_EQ(1, c.wait(1000));
    ASSERT_EQ(0, c.dequeue(a));
    ASSERT_EQ(1, c.wait(1000));
    ASSERT_EQ(0, c.dequeue(b));
    EXPECT_EQ(EAGAIN, c.dequeue(n));
    ks_sys_usleep(300000);
    EXPECT_GT(stats(cam_).frames_dropped, 0u);
    ASSERT_EQ(0, c.queue(a.index));
    ASSERT_EQ(1, c.wait(1000));
    ASSERT_EQ(0, c.dequeue(n));
    EXPECT_GT(n.sequence, b.sequence + 1);  // the gap of the lost frames
    // The frame id counts every frame the camera sent, like the sequence.
    const uint64_t id = frame_test::Frame(c.buffer(n.index), 640, 480).frame_id();
    ASSERT_EQ(0, c.queue(n.index));
    ASSERT_EQ(1, c.wait(1000));
    ASSERT_EQ(0, c.dequeue(b));
    EXPECT_EQ(frame_test::Frame(c.buffer(b.index), 640, 480).frame_id() - id,
              b.sequence - n.sequence);
}

TEST_F(SimCapture, SelectFollowsTheQueueAndBlockingDequeueWaits) {
    Capture c;
    ASSERT_TRUE(c.open(node(), /*nonblock=*/false));
    EXPECT_EQ(1, c.wait(100));  // not streaming: polls as an error, that is readable
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    ASSERT_EQ(0, c.stream_on());
    // Streaming with nothing queued: nothing arrives; the time-out is virtual.
    const int64_t t0 = simtest::virtual_now_us();
    EXPECT_EQ(0, c.wait(300));
    EXPECT_GE(simtest::virtual_now_us() - t0, 300000);
    ASSERT_EQ(0, c.queue(3));
    v4l2_buffer b;
    ASSERT_EQ(0, c.dequeue(b));
    EXPECT_EQ(3u, b.index);
    // A blocked dequeue is released by STREAMOFF from another thread.
    std::atomic<int> result{-1};
    std::thread t([&] {
        v4l2_buffer x;
        result = c.dequeue(x);
    });
    ks_sys_usleep(100000);
    EXPECT_EQ(0, c.stream_off());
    t.join();
    EXPECT_EQ(EINVAL, result.load());
}

TEST_F(SimCapture, RequestsAreCheckedAndTheQueueBelongsToItsDescriptor) {
    Capture c, d;
    ASSERT_TRUE(c.open(node()));
    ASSERT_TRUE(d.open(node()));
    ASSERT_EQ(0, c.set_format(640, 480));
    v4l2_requestbuffers req{};
    req.count = 4;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_REQBUFS, &req));
    req.memory = V4L2_MEMORY_MMAP;
    req.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_REQBUFS, &req));
    EXPECT_EQ(EINVAL, c.stream_on());  // no buffers

    ASSERT_EQ(8, c.map_buffers(100));  // more than the driver has: its maximum
    v4l2_buffer b = Capture::buffer_info(8);
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_QUERYBUF, &b));
    b.index = 0xFFFFFFFF;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_QBUF, &b));
    b.index = 0;
    b.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_QBUF, &b));
    EXPECT_EQ(0, c.queue(0));
    EXPECT_EQ(EINVAL, c.queue(0));  // already queued

    EXPECT_EQ(EBUSY, d.set_format(1280, 720));
    EXPECT_EQ(EBUSY, c.set_format(1280, 720));  // buffers allocated
    EXPECT_EQ(-EBUSY, d.map_buffers(2));
    EXPECT_EQ(EBUSY, d.queue(1));
    EXPECT_EQ(EBUSY, d.stream_on());

    // Mappings: only the buffers' offsets, shared, at most a buffer long.
    const size_t len = 640 * 480 * 3;
    for (auto [size, flags, off] : {std::tuple<size_t, int, off_t>{len, MAP_SHARED, 12345},
                                    {len, MAP_PRIVATE, 0},
                                    {len * 2, MAP_SHARED, 0},
                                    {len, MAP_SHARED, off_t{1} << 40}}) {
        EXPECT_EQ(MAP_FAILED, ks_sys_mmap(nullptr, size, PROT_READ, flags, c.fd(), off));
        EXPECT_EQ(EINVAL, errno);
    }
    void* p = ks_sys_mmap(nullptr, len, PROT_READ, MAP_SHARED, d.fd(), 0);  // another descriptor
    ASSERT_NE(MAP_FAILED, p);
    EXPECT_EQ(0, ks_sys_munmap(p, len));

    // Freeing the buffers (count 0) makes the format settable again.
    c.unmap();
    req.count = 0;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_REQBUFS, &req));
    EXPECT_EQ(0, d.set_format(1280, 720));

    // Closing the owner while streaming frees the queue; its mappings stay readable.
    d.close();
    c.close();
    c.start(node());
    std::vector<uint8_t> frame;
    ASSERT_EQ(0, c.next_frame(frame, &b));
    const uint8_t* mem = c.buffer(b.index);
    ASSERT_EQ(0, ks_sys_close(c.fd()));
    EXPECT_EQ(0u, stats(cam_).streaming);
    EXPECT_EQ(0xCE, mem[0]);
    ASSERT_TRUE(d.open(node()));
    EXPECT_EQ(0, d.set_format(1280, 720));
    ASSERT_EQ(8, d.map_buffers(8));
    c.unmap();
}

TEST_F(SimCapture, FramesStopWhileTheAsicIsHeldOrBootsOrTheSensorsStandBy) {
    Capture c;
    c.start(node());
    xutest::Client xu;
    ASSERT_TRUE(xu.open(node()));
    std::vector<uint8_t> f;
    ASSERT_EQ(0, c.next_frame(f, nullptr, 600000));  // ten minutes: a loaded machine renders slowly
    // A new effective EPR (another size and constants) takes effect at the
    // next power-up.
    std::vector<uint8_t> img(KSSIM_EPR_SIZE);
    ASSERT_EQ(0, kssim_epr_build(img.data(), 1280, 720, 20000.0, 60.0, 5));
    ASSERT_EQ(0, kssim_camera_eeprom_write(cam_, 0, img.data(), img.size()));
    ASSERT_EQ(0, xu.set_asic(0));
    // Frames in the buffers may still come out; then nothing.
    while (c.next_frame(f, nullptr, 300) == 0) {
    }
    const kssim_camera_stats before = stats(cam_);
    EXPECT_EQ(ETIMEDOUT, c.next_frame(f, nullptr, 500));
    const kssim_camera_stats after = stats(cam_);
    EXPECT_EQ(before.frames_produced, after.frames_produced);
    EXPECT_EQ(before.next_frame_id, after.next_frame_id);

    kssim_camera_traffic_clear(cam_);
    ASSERT_EQ(0, xu.set_asic(1));
    kssim_message release;
    ASSERT_EQ(0, kssim_camera_traffic_get(cam_, 0, &release));
    // The first frame comes once the ASIC has booted (2 s) and read its EPR
    // (276.48 ms); the view is rendered again first, which takes a real
    // quarter second under ThreadSanitizer. The ASIC now sends 1280 x 720
    // frames: into these buffers they arrive cut.
    v4l2_buffer b;
    ASSERT_EQ(0, c.next_frame(f, &b, 600000));
    EXPECT_GE(b.timestamp.tv_sec * 1000000 + b.timestamp.tv_usec,
              static_cast<int64_t>(release.time_us) + 2276480);
    EXPECT_EQ(640u * 480 * 3, b.bytesused);
    EXPECT_TRUE(frame_test::Frame(f.data(), 1280, 1).markers_ok());
    // The metadata line then carries its constants (the new view is rendered first).
    bool loaded = false;
    for (int i = 0; i < 30 && !loaded; ++i) {
        ASSERT_EQ(0, c.next_frame(f, nullptr, 600000));
        const frame_test::Frame fr(f.data(), 1280, 1);
        loaded = fr.bf() == 20000.0 && fr.base() == 60.0;
    }
    EXPECT_TRUE(loaded);

    ASSERT_EQ(0, xu.asic_write(0xF0, 3));
    ASSERT_EQ(0, xu.sensor_write(0x0100, 0));
    while (c.next_frame(f, nullptr, 300) == 0) {
    }
    EXPECT_EQ(ETIMEDOUT, c.next_frame(f, nullptr, 300));
    ASSERT_EQ(0, xu.sensor_write(0x0100, 1));
    EXPECT_EQ(0, c.next_frame(f, nullptr, 600000));

    // Without buffers the node offers the new EPR's size alone.
    c.close();
    Capture d;
    ASSERT_TRUE(d.open(node()));
    v4l2_format fmt;
    ASSERT_EQ(0, d.set_format(640, 480, &fmt));
    EXPECT_EQ(1280u, fmt.fmt.pix.width);
    EXPECT_EQ(720u, fmt.fmt.pix.height);
    v4l2_frmsizeenum size{};
    size.pixel_format = V4L2_PIX_FMT_BGR24;
    ASSERT_EQ(0, ioctl_errno(d.fd(), VIDIOC_ENUM_FRAMESIZES, &size));
    EXPECT_EQ(1280u, size.discrete.width);
    size.index = 1;
    EXPECT_EQ(EINVAL, ioctl_errno(d.fd(), VIDIOC_ENUM_FRAMESIZES, &size));
}
