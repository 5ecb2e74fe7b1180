// Cameras opened, streamed, suspended and closed many times, side by side
// and from several threads, without leaks, data races or undocumented codes.
#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "common/ks_test_helpers.h"
#include "session_fixture.h"

using sessiontest::SessionTest;
using sessiontest::virtual_now_us;

namespace {

// ThreadSanitizer makes every frame copy many times slower: its run checks the
// same cycles for races, fewer of them, on a clock slow enough that a frame is
// copied well within the capture thread's 300 ms wait (a wait that runs out
// reopens the device, and a host slower than that never sees a frame again).
// The other builds run them all.
#if defined(__SANITIZE_THREAD__)
constexpr int kOpenCycles = 20;
constexpr int kStandbyCycles = 10;
constexpr int kPollCycles = 5;
constexpr double kWarp = 2.0;
#else
constexpr int kOpenCycles = 200;
constexpr int kStandbyCycles = 100;
constexpr int kPollCycles = 20;
constexpr double kWarp = 20.0;  // the 300 ms wait is 15 ms of real time
#endif

// Power cycles take 11 s of camera time: run the clock fast, yet slow enough
// for the virtual camera to render every frame period in time.
class LifecycleTest : public SessionTest {
  protected:
    double warp() const override { return kWarp; }
};

}  // namespace

TEST_F(LifecycleTest, OpenStreamCloseCyclesLeaveNothingBehind) {
    kssim_camera* camera = add_camera();
    // The first cycle allocates what the process keeps (the world's frame
    // cache, the logger); descriptors are counted from the second on.
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ASSERT_EQ(2, take_frames(handle_, 2));
    ASSERT_EQ(0, ksCloseCamera(&handle_));
    const int descriptors = sessiontest::open_descriptors();
    for (int cycle = 0; cycle < kOpenCycles; ++cycle) {
        ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_)) << cycle;
        ASSERT_EQ(2, take_frames(handle_, 2)) << cycle;
        ASSERT_EQ(0, ksCloseCamera(&handle_)) << cycle;
        ASSERT_EQ(descriptors, sessiontest::open_descriptors()) << cycle;
    }
}

TEST_F(LifecycleTest, StandbyResumeCyclesStreamAfterEachResume) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    ASSERT_EQ(2, take_frames(handle_, 2));
    const int descriptors = sessiontest::open_descriptors();
    for (int cycle = 0; cycle < kStandbyCycles; ++cycle) {
        ASSERT_EQ(0, ksSuspendCamera(handle_)) << cycle;
        kssim_device_state state{};
        ASSERT_EQ(0, kssim_camera_device_state(camera, &state));
        ASSERT_FALSE(state.sensors_streaming) << cycle;
        ASSERT_EQ(0, ksResumeCamera(handle_)) << cycle;
        ASSERT_EQ(2, take_frames(handle_, 2)) << cycle;
        ASSERT_EQ(descriptors, sessiontest::open_descriptors()) << cycle;
    }
}

// Each camera stamps its IMU samples with its own frame ids: two cameras whose
// frame counters start far apart never see each other's ids.
TEST_F(LifecycleTest, TwoCamerasStreamWithIndependentFrameSyncIds) {
    kssim_camera* near = add_camera([](kssim_camera_config& c) { c.first_frame_id = 1; });
    kssim_camera* far = add_camera([](kssim_camera_config& c) { c.first_frame_id = 5000000; });
    KSCameraAbstract* second = nullptr;
    // The receiver's 200-sample ring laps a reader that pauses for half a
    // second of camera time: a slow clock keeps that far beyond any pause.
    set_warp(std::min(4.0, kWarp));
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(near), &handle_));
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(far), &second));

    std::atomic<bool> failed{false};
    auto stream = [&](KSCameraAbstract* handle, unsigned long low, unsigned long high) {
        const int64_t deadline = virtual_now_us() + 600000000;
        int samples = 0;
        unsigned long last_sync = 0;
        while (samples < 20 && virtual_now_us() < deadline) {
            unsigned long id = 0;
            unsigned char* frame = nullptr;
            if (ksGetCurrentFrame(handle, &id, &frame) == 0 && (id < low || id >= high))
                failed = true;
            _ks_imu_data_set_s* sample = nullptr;
            if (ksGetIMUData(handle, &sample) != 0) continue;
            const unsigned long sync = sample->sync_id;
            // 0 until the camera's first frame has been published.
            if (sync != 0 && (sync < low || sync >= high)) failed = true;
            if (sync < last_sync) failed = true;
            last_sync = sync;
            ++samples;
        }
        if (samples < 20 || last_sync < low) failed = true;
    };
    {
        std::thread a(stream, handle_, 1, 1000000);
        std::thread b(stream, second, 5000000, 6000000);
        a.join();
        b.join();
    }
    EXPECT_FALSE(failed);
    EXPECT_EQ(0, ksCloseCamera(&second));
}

// The camera's mutex keeps a frame poller and a thread that suspends and
// resumes the same camera apart: every call answers one of its codes.
TEST_F(LifecycleTest, PollingWhileAnotherThreadSuspendsAndResumes) {
    kssim_camera* camera = add_camera();
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(camera), &handle_));
    std::atomic<bool> done{false};
    std::atomic<int> frames{0}, misses{0}, odd_codes{0};
    std::thread poller([&] {
        unsigned long last = 0;
        while (!done) {
            unsigned long id = 0;
            unsigned char* frame = nullptr;
            const int r = ksGetCurrentFrame(handle_, &id, &frame);
            if (r == 0 && frame != nullptr && id != last) {
                ++frames;
                last = id;
            } else if (r == -2 && frame == nullptr) {
                ++misses;
            } else {
                ++odd_codes;
            }
        }
    });
    for (int cycle = 0; cycle < kPollCycles; ++cycle) {
        EXPECT_EQ(0, ksSuspendCamera(handle_));
        EXPECT_EQ(0, ksResumeCamera(handle_));
        const int before = frames;
        const int64_t deadline = virtual_now_us() + 600000000;
        while (frames == before && virtual_now_us() < deadline) std::this_thread::yield();
        EXPECT_GT(frames, before) << cycle;
    }
    done = true;
    poller.join();
    EXPECT_EQ(0, odd_codes);
    EXPECT_GT(misses, 0);
}
