// The capture node's buffer queue and the frame producer, driven with raw
// V4L2 requests through the platform seam.
#include <sys/mman.h>

#include <atomic>
#include <cmath>
#include <set>
#include <thread>

#include "frame_decoder.h"
#include "sim_fixture.h"

using simtest::Capture;
using simtest::ioctl_errno;
using simtest::SimTest;

namespace {

class SimCapture : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_warp(world_, 8.0));
        cam_ = add_camera();
        ASSERT_NE(cam_, nullptr);
    }
    const char* node() { return kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE); }
    kssim_camera_stats stats() {
        kssim_camera_stats s;
        EXPECT_EQ(0, kssim_camera_get_stats(cam_, &s));
        return s;
    }
    kssim_camera* cam_ = nullptr;
};

}  // namespace

TEST_F(SimCapture, FormatIsAdjustedToASupportedSize) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    v4l2_format f;
    ASSERT_EQ(0, c.set_format(1300, 700, &f));
    EXPECT_EQ(1280u, f.fmt.pix.width);
    EXPECT_EQ(720u, f.fmt.pix.height);
    EXPECT_EQ(V4L2_PIX_FMT_BGR24, f.fmt.pix.pixelformat);
    EXPECT_EQ(V4L2_FIELD_NONE, f.fmt.pix.field);
    EXPECT_EQ(1280u * 3, f.fmt.pix.bytesperline);
    EXPECT_EQ(2764800u, f.fmt.pix.sizeimage);
    ASSERT_EQ(0, c.set_format(1000, 600, &f));
    EXPECT_EQ(640u, f.fmt.pix.width);
    EXPECT_EQ(480u, f.fmt.pix.height);

    // Another pixel format is answered with the one the camera has.
    std::memset(&f, 0, sizeof(f));
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = 1280;
    f.fmt.pix.height = 720;
    f.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_TRY_FMT, &f));
    EXPECT_EQ(V4L2_PIX_FMT_BGR24, f.fmt.pix.pixelformat);
    std::memset(&f, 0, sizeof(f));
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_G_FMT, &f));
    EXPECT_EQ(640u, f.fmt.pix.width);  // TRY_FMT changed nothing
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_G_FMT, &f));
    f.type = 0;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_S_FMT, &f));
}

TEST_F(SimCapture, StreamsFramesWithIndexSequenceTimestampAndCounters) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    // Distinct offsets, one frame long.
    std::set<uint32_t> offsets;
    for (uint32_t i = 0; i < 8; ++i) {
        v4l2_buffer b;
        std::memset(&b, 0, sizeof(b));
        b.index = i;
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_QUERYBUF, &b));
        EXPECT_EQ(640u * 480 * 3, b.length);
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_MAPPED);
        offsets.insert(b.m.offset);
    }
    EXPECT_EQ(8u, offsets.size());
    ASSERT_EQ(0, c.queue_all());
    ASSERT_EQ(0, c.stream_on());

    std::vector<uint8_t> frame;
    std::vector<uint32_t> seqs;
    std::vector<int64_t> stamps;
    std::vector<uint64_t> ids;
    std::set<uint32_t> indices;
    for (int i = 0; i < 24; ++i) {
        v4l2_buffer b;
        ASSERT_EQ(0, c.next_frame(frame, &b)) << i;
        EXPECT_LT(b.index, 8u);
        EXPECT_EQ(640u * 480 * 3, b.bytesused);
        EXPECT_EQ(V4L2_FIELD_NONE, b.field);
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
        EXPECT_FALSE(b.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE));
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_MAPPED);
        indices.insert(b.index);
        seqs.push_back(b.sequence);
        stamps.push_back(static_cast<int64_t>(b.timestamp.tv_sec) * 1000000 + b.timestamp.tv_usec);
        frame_test::Frame f(frame.data(), 640, 480);
        ASSERT_TRUE(f.markers_ok());
        EXPECT_EQ(0xCE, frame[0]);
        ids.push_back(f.frame_id());
    }
    EXPECT_EQ(8u, indices.size());  // the ring of buffers is used in turn
    for (size_t i = 1; i < seqs.size(); ++i) {
        EXPECT_GT(seqs[i], seqs[i - 1]);
        EXPECT_GT(stamps[i], stamps[i - 1]);
        // The frame id counts every frame the camera sent, like the sequence.
        EXPECT_EQ(ids[i] - ids[i - 1], seqs[i] - seqs[i - 1]);
    }
    // Timestamps of the virtual clock, one period (1/30 s) per sequence step.
    const double per_frame =
        static_cast<double>(stamps.back() - stamps.front()) / (seqs.back() - seqs.front());
    EXPECT_NEAR(33333.0, per_frame, 50.0);
    EXPECT_LE(stamps.back(), simtest::virtual_now_us());

    const kssim_camera_stats s = stats();
    EXPECT_EQ(1u, s.streaming);
    EXPECT_GE(s.frames_delivered, 24u);
    EXPECT_EQ(s.frames_produced, s.frames_delivered + s.frames_dropped);
    ASSERT_EQ(0, c.stream_off());
    EXPECT_EQ(0u, stats().streaming);
    // After STREAMOFF every buffer is back with the application.
    v4l2_buffer b;
    EXPECT_EQ(EINVAL, c.dequeue(b));
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
    // Both buffers fill; then frames have nowhere to go.
    v4l2_buffer a, b;
    ASSERT_EQ(1, c.wait(1000));
    ASSERT_EQ(0, c.dequeue(a));
    ASSERT_EQ(1, c.wait(1000));
    ASSERT_EQ(0, c.dequeue(b));
    EXPECT_GT(b.sequence, a.sequence);
    EXPECT_EQ(EAGAIN, c.dequeue(b));
    ks_sys_usleep(300000);
    EXPECT_GT(stats().frames_dropped, 0u);
    ASSERT_EQ(0, c.queue(a.index));
    ASSERT_EQ(1, c.wait(1000));
    v4l2_buffer n;
    ASSERT_EQ(0, c.dequeue(n));
    EXPECT_GT(n.sequence, b.sequence + 1);  // the gap of the lost frames
    b = n;
    const uint32_t base = b.sequence;
    frame_test::Frame f(c.buffer(b.index), 640, 480);
    const uint64_t id = f.frame_id();
    ASSERT_EQ(0, c.queue(b.index));
    ASSERT_EQ(1, c.wait(1000));
    ASSERT_EQ(0, c.dequeue(b));
    frame_test::Frame g(c.buffer(b.index), 640, 480);
    EXPECT_EQ(g.frame_id() - id, b.sequence - base);
}

TEST_F(SimCapture, SelectFollowsTheQueueAndBlockingDequeueWaits) {
    Capture c;
    ASSERT_TRUE(c.open(node(), /*nonblock=*/false));
    // Not streaming: the node polls as an error, that is readable.
    EXPECT_EQ(1, c.wait(100));
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    ASSERT_EQ(0, c.stream_on());
    // Streaming with nothing queued: nothing arrives; the time-out is virtual.
    const int64_t t0 = simtest::virtual_now_us();
    EXPECT_EQ(0, c.wait(300));
    EXPECT_GE(simtest::virtual_now_us() - t0, 300000);
    // A blocking dequeue returns once a frame is there.
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
    Capture other;
    EXPECT_EQ(0, c.stream_off());
    t.join();
    EXPECT_EQ(EINVAL, result.load());
}

TEST_F(SimCapture, RequestsAreCheckedLikeTheKernelDriverDoes) {
    Capture c, d;
    ASSERT_TRUE(c.open(node()));
    ASSERT_TRUE(d.open(node()));
    ASSERT_EQ(0, c.set_format(640, 480));
    v4l2_requestbuffers req;
    std::memset(&req, 0, sizeof(req));
    req.count = 4;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_REQBUFS, &req));
    req.memory = V4L2_MEMORY_MMAP;
    req.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_REQBUFS, &req));
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_STREAMON, &type));  // no buffers

    // More than the driver has: it grants its maximum.
    ASSERT_EQ(8, c.map_buffers(100));
    v4l2_buffer b;
    std::memset(&b, 0, sizeof(b));
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b.memory = V4L2_MEMORY_MMAP;
    b.index = 8;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_QUERYBUF, &b));
    b.index = 0xFFFFFFFF;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_QBUF, &b));
    b.index = 0;
    b.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_QBUF, &b));
    EXPECT_EQ(0, c.queue(0));
    EXPECT_EQ(EINVAL, c.queue(0));  // already queued

    // The queue belongs to the descriptor that requested it.
    EXPECT_EQ(EBUSY, d.set_format(1280, 720));
    EXPECT_EQ(EBUSY, c.set_format(1280, 720));  // buffers allocated
    EXPECT_EQ(-EBUSY, d.map_buffers(2));
    EXPECT_EQ(EBUSY, d.queue(1));
    EXPECT_EQ(EBUSY, d.stream_on());
    type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_STREAMON, &type));

    // Mappings: only the buffers' offsets, shared, at most a buffer long.
    const size_t len = 640 * 480 * 3;
    EXPECT_EQ(MAP_FAILED, ks_sys_mmap(nullptr, len, PROT_READ, MAP_SHARED, c.fd(), 12345));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(MAP_FAILED, ks_sys_mmap(nullptr, len, PROT_READ, MAP_PRIVATE, c.fd(), 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(MAP_FAILED, ks_sys_mmap(nullptr, len * 2, PROT_READ, MAP_SHARED, c.fd(), 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(MAP_FAILED, ks_sys_mmap(nullptr, len, PROT_READ, MAP_SHARED, c.fd(), 1LL << 40));
    EXPECT_EQ(EINVAL, errno);
    // Another descriptor of the node may map the same buffer.
    void* p = ks_sys_mmap(nullptr, len, PROT_READ, MAP_SHARED, d.fd(), 0);
    ASSERT_NE(MAP_FAILED, p);
    EXPECT_EQ(0, ks_sys_munmap(p, len));

    // Freeing the buffers (count 0) makes the format settable again.
    c.unmap();
    std::memset(&req, 0, sizeof(req));
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(0, ioctl_errno(c.fd(), VIDIOC_REQBUFS, &req));
    EXPECT_EQ(0u, req.count);
    EXPECT_EQ(0, d.set_format(1280, 720));
}

TEST_F(SimCapture, ClosingTheOwnerFreesTheQueueButMappingsStayReadable) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    ASSERT_EQ(0, c.queue_all());
    ASSERT_EQ(0, c.stream_on());
    std::vector<uint8_t> frame;
    v4l2_buffer b;
    ASSERT_EQ(0, c.next_frame(frame, &b));
    uint8_t* mem = c.buffer(b.index);
    const int fd = c.fd();
    ASSERT_EQ(0, ks_sys_close(fd));  // without unmapping
    EXPECT_EQ(0u, stats().streaming);
    EXPECT_EQ(0xCE, mem[0]);  // the mapping still holds the frame
    Capture n;
    ASSERT_TRUE(n.open(node()));
    EXPECT_EQ(0, n.set_format(1280, 720));
    ASSERT_EQ(8, n.map_buffers(8));
    c.unmap();
}

TEST_F(SimCapture, MultiplanarCameraStreamsThroughPlaneArrays) {
    kssim_camera* mp = add_camera([](kssim_camera_config& c) {
        c.planes = KSSIM_PLANES_MULTI;
        c.sizes[0] = {640, 480};
        c.size_count = 1;
        c.initial_size = {640, 480};
    });
    ASSERT_NE(mp, nullptr);
    Capture c;
    ASSERT_TRUE(c.open(kssim_camera_node_path(mp, KSSIM_NODE_CAPTURE)));
    EXPECT_EQ(EINVAL, c.set_format(640, 480));  // single-planar type refused
    c.set_type(V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE);
    v4l2_format f;
    ASSERT_EQ(0, c.set_format(640, 480, &f));
    EXPECT_EQ(1, f.fmt.pix_mp.num_planes);
    EXPECT_EQ(640u * 480 * 3, f.fmt.pix_mp.plane_fmt[0].sizeimage);
    ASSERT_EQ(8, c.map_buffers(8));

    // The plane array is the caller's: a missing or empty one is refused.
    v4l2_buffer b;
    std::memset(&b, 0, sizeof(b));
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    b.memory = V4L2_MEMORY_MMAP;
    b.length = 1;
    EXPECT_EQ(EFAULT, ioctl_errno(c.fd(), VIDIOC_QUERYBUF, &b));
    v4l2_plane planes[1];
    b.m.planes = planes;
    b.length = 0;
    EXPECT_EQ(EINVAL, ioctl_errno(c.fd(), VIDIOC_QUERYBUF, &b));

    ASSERT_EQ(0, c.queue_all());
    ASSERT_EQ(0, c.stream_on());
    std::vector<uint8_t> frame;
    v4l2_buffer info;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, c.next_frame(frame, &info));
        EXPECT_EQ(640u * 480 * 3, info.bytesused);
        frame_test::Frame fr(frame.data(), 640, 480);
        EXPECT_TRUE(fr.markers_ok());
    }
}

TEST_F(SimCapture, FrameRateFollowsTheVirtualClockAndTheCameraSetting) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    ASSERT_EQ(0, c.queue_all());
    ASSERT_EQ(0, c.stream_on());
    auto measure = [&](int frames) {
        std::vector<uint8_t> frame;
        v4l2_buffer first{}, last{};
        EXPECT_EQ(0, c.next_frame(frame, &first));
        for (int i = 0; i < frames; ++i) EXPECT_EQ(0, c.next_frame(frame, &last));
        const int64_t us = (last.timestamp.tv_sec - first.timestamp.tv_sec) * 1000000 +
                           (last.timestamp.tv_usec - first.timestamp.tv_usec);
        return (last.sequence - first.sequence) * 1e6 / static_cast<double>(us);
    };
    const int64_t v0 = simtest::virtual_now_us();
    EXPECT_NEAR(30.0, measure(30), 0.5);
    // The frames took about a second of virtual time to arrive.
    const int64_t elapsed = simtest::virtual_now_us() - v0;
    EXPECT_GE(elapsed, 900000);
    ASSERT_EQ(0, kssim_camera_set_frame_rate(cam_, 15.0));
    EXPECT_DOUBLE_EQ(15.0, kssim_camera_frame_rate(cam_));
    measure(9);  // frames already in the buffers came at the old rate
    EXPECT_NEAR(15.0, measure(10), 0.5);
    EXPECT_EQ(-1, kssim_camera_set_frame_rate(cam_, 0));
}

TEST_F(SimCapture, OutputChannelCanChangeWhileStreaming) {
    Capture c;
    ASSERT_TRUE(c.open(node()));
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    ASSERT_EQ(0, c.queue_all());
    ASSERT_EQ(0, c.stream_on());
    std::vector<uint8_t> frame;
    ASSERT_EQ(0, c.next_frame(frame));
    EXPECT_EQ(KSSIM_CHANNEL_RGBD, frame_test::Frame(frame.data(), 640, 480).channel());
    ASSERT_EQ(0, kssim_camera_set_output_channel(cam_, KSSIM_CHANNEL_RECTIFIED_PAIR));
    EXPECT_EQ(KSSIM_CHANNEL_RECTIFIED_PAIR, kssim_camera_output_channel(cam_));
    // Frames already in the queue still carry the old channel; new ones the new.
    uint8_t seen = 0;
    for (int i = 0; i < 12 && seen != KSSIM_CHANNEL_RECTIFIED_PAIR; ++i) {
        ASSERT_EQ(0, c.next_frame(frame));
        seen = frame_test::Frame(frame.data(), 640, 480).channel();
    }
    EXPECT_EQ(KSSIM_CHANNEL_RECTIFIED_PAIR, seen);
    EXPECT_EQ(-1, kssim_camera_set_output_channel(cam_, 0x42));
}

TEST_F(SimCapture, StreamedFramesDecodeToTheSceneGroundTruth) {
    kssim_camera* room = add_camera([](kssim_camera_config& c) {
        c.scene.kind = KSSIM_SCENE_ROOM;
        c.scene.distance_mm = 0;
        c.first_frame_id = 500;
        strcpy(c.serial, "ROOM00001");
    });
    ASSERT_NE(room, nullptr);
    Capture c;
    ASSERT_TRUE(c.open(kssim_camera_by_id_link(room, KSSIM_NODE_CAPTURE)));
    ASSERT_EQ(0, c.set_format(640, 480));
    ASSERT_EQ(8, c.map_buffers(8));
    ASSERT_EQ(0, c.queue_all());
    ASSERT_EQ(0, c.stream_on());
    std::vector<uint8_t> frame;
    v4l2_buffer b;
    ASSERT_EQ(0, c.next_frame(frame, &b));
    const frame_test::Frame f(frame.data(), 640, 480);
    ASSERT_TRUE(f.markers_ok());
    EXPECT_EQ(KSSIM_CHANNEL_RGBD, f.channel());
    EXPECT_DOUBLE_EQ(35000.0, f.bf());
    EXPECT_DOUBLE_EQ(50.0, f.base());
    EXPECT_EQ(500u + b.sequence, f.frame_id());
    long checked = 0;
    for (int row = 1; row < f.disparity_rows(); row += 4) {
        for (int x = 0; x < 640; x += 4) {
            double truth = 0;
            ASSERT_EQ(0, kssim_camera_true_distance(room, x, row, &truth));
            const uint16_t v = f.disparity(x, row);
            ASSERT_NE(0, v) << x << "," << row;
            const double distance = 32.0 * f.bf() / v;
            EXPECT_LE(std::fabs(32.0 * f.bf() / distance - 32.0 * f.bf() / truth), 1.0)
                << x << "," << row << ": " << distance << " mm, truly " << truth << " mm";
            ++checked;
        }
    }
    EXPECT_GT(checked, 18000);
}
