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
        cam_ = add_camera([](kssim_camera_config& c) { c.initial_size = {640, 480}; });
        ASSERT_NE(cam_, nullptr);
    }
    const char* node() { return kssim_camera_node_path(cam_, KSSIM_NODE_CAPTURE); }
    int inject(kssim_fault_kind kind, uint32_t count, uint32_t duration_ms = 0, int32_t value = 0) {
        return SimTest::inject(cam_, kind, count, value, duration_ms);
    }
    // Frame ids, first bytes and sequence numbers of the next n frames.
    void frames(Capture& c, int n, std::vector<uint64_t>* ids, std::vector<int>* first,
                std::vector<uint32_t>* seqs = nullptr) {
        std::vector<uint8_t> f;
        for (int i = 0; i < n; ++i) {
            v4l2_buffer b;
            ASSERT_EQ(0, c.next_frame(f, &b));
            if (ids) ids->push_back(frame_test::Frame(f.data(), 640, 480).frame_id());
            if (first) first->push_back(f[0]);
            if (seqs) seqs->push_back(b.sequence);
        }
    }
    kssim_camera* cam_ = nullptr;
};

}  // namespace

TEST_F(SimFaults, UnplugFailsEveryRequestWakesSelectAndReplugComesBackFresh) {
    Capture c;
    c.start(node());
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
    EXPECT_EQ(ENODEV, c.stream_off());
    EXPECT_EQ(MAP_FAILED, ks_sys_mmap(nullptr, 4096, PROT_READ, MAP_SHARED, c.fd(), 0));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(1, idle.wait(0));  // a gone device polls readable
    EXPECT_EQ(1, kssim_camera_fault_active(cam_, KSSIM_FAULT_UNPLUG));

    ASSERT_EQ(0, kssim_camera_replug(cam_));
    EXPECT_EQ(ENODEV, ioctl_errno(c.fd(), VIDIOC_QUERYCAP, &cap));  // old descriptors stay dead
    c.close();
    idle.close();
    Capture n;
    n.start(node());
    std::vector<uint64_t> ids;
    std::vector<uint32_t> seqs;
    frames(n, 2, &ids, nullptr, &seqs);
    EXPECT_EQ(1u + seqs[0], ids[0]);  // a fresh camera counts from its first id again

    // Timed: it replugs on the virtual clock.
    n.close();
    ASSERT_EQ(0, inject(KSSIM_FAULT_UNPLUG, 0, 2000));
    struct stat st;
    EXPECT_EQ(-1, ks_sys_stat(node(), &st));
    ks_sys_usleep(1000000);
    EXPECT_EQ(-1, ks_sys_stat(node(), &st));
    ks_sys_usleep(1100000);
    EXPECT_EQ(0, ks_sys_stat(node(), &st));
    EXPECT_EQ(0, kssim_camera_fault_active(cam_, KSSIM_FAULT_UNPLUG));
}

TEST_F(SimFaults, FrameAndBufferFaultsHaveTheirDocumentedEffects) {
    // Bad markers and frozen ids last their frame counts; the frame being
    // counted when the id froze got its own id, the next four repeat it.
    std::vector<uint8_t> buf(640 * 480 * 3);
    auto next = [&](uint64_t* id) {
        EXPECT_EQ(static_cast<long>(buf.size()),
                  kssim_camera_produce_frame(cam_, buf.data(), buf.size()));
        *id = frame_test::Frame(buf.data(), 640, 480).frame_id();
        return static_cast<int>(buf[0]);
    };
    uint64_t id = 0, prev = 0;
    EXPECT_EQ(0xCE, next(&prev));
    ASSERT_EQ(0, inject(KSSIM_FAULT_BAD_MARKER, 3, 0, 0x12));
    ASSERT_EQ(0, inject(KSSIM_FAULT_FROZEN_FRAME_ID, 4));
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(i < 3 ? 0x12 : 0xCE, next(&id)) << i;
        EXPECT_EQ(i >= 1 && i <= 4 ? prev : prev + 1, id) << i;
        prev = id;
    }
    EXPECT_EQ(0, kssim_camera_fault_active(cam_, KSSIM_FAULT_BAD_MARKER));
    // Frames two bytes late: zeros, then the frame (the host finds its
    // channel byte at 104 then), its last two bytes cut.
    ASSERT_EQ(0, inject(KSSIM_FAULT_LATE_FRAME, 1, 0, 2));
    EXPECT_EQ(0x00, next(&id));
    EXPECT_EQ(0x00, buf[1]);
    EXPECT_EQ(0xCE, buf[2]);
    EXPECT_EQ(KSSIM_CHANNEL_RGBD, buf[104]);
    EXPECT_EQ(prev + 1, frame_test::Frame(buf.data() + 2, 640, 1).frame_id());
    EXPECT_EQ(0xCE, next(&id));
    EXPECT_EQ(prev + 2, id);
    prev = id;
    EXPECT_EQ(-1, inject(KSSIM_FAULT_LATE_FRAME, 1, 0, 3));

    // Fewer buffers for one request; more than 32 cannot be armed.
    Capture c;
    ASSERT_TRUE(c.open(node()));
    ASSERT_EQ(0, inject(KSSIM_FAULT_FEWER_BUFFERS, 1, 0, 4));
    EXPECT_EQ(4, c.map_buffers(8));
    c.unmap();
    EXPECT_EQ(8, c.map_buffers(8));
    EXPECT_EQ(-1, inject(KSSIM_FAULT_FEWER_BUFFERS, 1, 0, 33));

    // Streamed frames carry a bad marker too; a stall stops them for its
    // virtual period and advances neither the ids nor the sequence.
    c.close();
    c.start(node());
    ASSERT_EQ(0, inject(KSSIM_FAULT_BAD_MARKER, 0, 0, 0));
    std::vector<int> first;
    std::vector<uint64_t> ids;
    std::vector<uint32_t> seqs;
    frames(c, 10, &ids, &first, &seqs);
    EXPECT_EQ(0x00, first.back());
    ASSERT_EQ(0, inject(KSSIM_FAULT_STALL, 0, 3000));
    int r = 0;
    for (int i = 0; i < 20 && (r = c.next_frame(buf, nullptr, 400)) == 0; ++i) {
    }
    EXPECT_EQ(ETIMEDOUT, r);
    ks_sys_usleep(3000000);
    frames(c, 3, &ids, nullptr, &seqs);
    for (size_t i = 1; i < ids.size(); ++i) EXPECT_EQ(ids[i] - ids[i - 1], seqs[i] - seqs[i - 1]);
    const kssim_fault bad = {static_cast<kssim_fault_kind>(KSSIM_FAULT_KIND_COUNT), 1, 0, 0};
    EXPECT_EQ(-1, kssim_camera_inject_fault(cam_, &bad));
    EXPECT_EQ(-1, kssim_camera_inject_fault(cam_, nullptr));
}

TEST_F(SimFaults, CamerasStreamOnTheirOwnThreadsWhileAnotherUnplugsAndReplugs) {
    kssim_camera* other = add_camera([](kssim_camera_config& c) {
        c.initial_size = {640, 480};
        strcpy(c.serial, "OTHER0001");
    });
    ASSERT_NE(other, nullptr);
    std::atomic<bool> done{false};
    std::atomic<int> frames_a{0}, frames_b{0}, gone{0};
    auto reader = [&](const char* path, std::atomic<int>& count) {
        while (!done) {
            Capture c;
            if (!c.open(path) || c.set_format(640, 480) != 0 || c.map_buffers(8) != 8 ||
                c.queue_all() != 0 || c.stream_on() != 0) {
                ks_sys_usleep(20000);  // unplugged: try again
                continue;
            }
            std::vector<uint8_t> f;
            for (int r = 0; !done && (r = c.next_frame(f, nullptr, 500)) != ENODEV;) {
                if (r == 0) ++count;
            }
            if (!done) ++gone;
        }
    };
    std::thread a(reader, node(), std::ref(frames_a));
    std::thread b(reader, kssim_camera_node_path(other, KSSIM_NODE_CAPTURE), std::ref(frames_b));
    // Waits (bounded) until a counter passes a value; the first frames of a
    // view are rendered first, which a sanitised build takes long for.
    auto passes = [](const std::atomic<int>& n, int value) {
        for (int i = 0; i < 400 && n.load() <= value; ++i) ks_sys_usleep(50000);
        return n.load() > value;
    };
    EXPECT_TRUE(passes(frames_a, 0) && passes(frames_b, 0));
    for (int i = 0; i < 3; ++i) {
        ks_sys_usleep(300000);
        ASSERT_EQ(0, kssim_camera_unplug(cam_));
        ks_sys_usleep(100000);
        ASSERT_EQ(0, kssim_camera_replug(cam_));
    }
    const int a_before = frames_a.load(), b_before = frames_b.load();
    EXPECT_TRUE(passes(frames_a, a_before));  // the replugged camera streams again
    EXPECT_TRUE(passes(frames_b, b_before));
    done = true;
    a.join();
    b.join();
    EXPECT_GE(gone.load(), 1);  // the reader of the unplugged camera saw ENODEV
    EXPECT_EQ(0u, stats(other).open_files);
}
