// Cameras of a virtual world opened through the public interface.
#ifndef KS_TEST_SESSION_FIXTURE_H
#define KS_TEST_SESSION_FIXTURE_H

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "common/ks_platform.h"
#include "ksStereoCameraDriver.h"
#include "sim/kssim.h"

namespace sessiontest {

// Time on the world's clock, in microseconds.
inline int64_t virtual_now_us() {
    struct timespec ts;
    ks_sys_clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Waits on the world's clock until done() holds; false when the bound ran out.
template <typename Done>
bool wait_for(Done done, int64_t bound_us) {
    const int64_t deadline = virtual_now_us() + bound_us;
    while (!done()) {
        if (virtual_now_us() >= deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

// A run length taken from the environment variable `name` when it holds a
// positive count (the soak script runs longer), else `fallback`.
inline uint64_t count_from_env(const char* name, uint64_t fallback) {
    const char* v = getenv(name);
    const unsigned long long n = v != nullptr ? strtoull(v, nullptr, 10) : 0;
    return n > 0 ? n : fallback;
}

// Open descriptors of this process.
inline int open_descriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

class SessionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        world_ = kssim_world_create();
        ASSERT_NE(nullptr, world_);
        ASSERT_EQ(0, kssim_world_set_warp(world_, warp()));
        ASSERT_EQ(0, kssim_world_install(world_));
    }
    void TearDown() override {
        if (handle_ != nullptr) {
            EXPECT_EQ(0, ksCloseCamera(&handle_));
        }
        kssim_world_destroy(world_);
    }
    virtual double warp() const { return 8.0; }
    void set_warp(double warp) { ASSERT_EQ(0, kssim_world_set_warp(world_, warp)); }

    kssim_camera* add_camera(void (*tweak)(kssim_camera_config&) = nullptr) {
        kssim_camera_config cfg;
        kssim_camera_config_init(&cfg);
        if (tweak != nullptr) tweak(cfg);
        return kssim_world_add_camera(world_, &cfg);
    }
    static const char* node(kssim_camera* camera) {
        return kssim_camera_node_path(camera, KSSIM_NODE_CAPTURE);
    }
    static int inject(kssim_camera* camera, kssim_fault_kind kind, uint32_t count,
                      int32_t value = 0, uint32_t duration_ms = 0) {
        const kssim_fault armed = {kind, count, duration_ms, value};
        return kssim_camera_inject_fault(camera, &armed);
    }

    // Frames until `count` new ids arrived or `virtual_seconds` passed; the
    // ids must grow. Returns how many arrived. The bound only matters when
    // frames stop: it is generous because a fast clock on a loaded machine
    // turns slow frame production into stream time-outs and reopens.
    static int take_frames(KSCameraAbstract* handle, int count, double virtual_seconds = 600) {
        const int64_t deadline = virtual_now_us() + static_cast<int64_t>(virtual_seconds * 1e6);
        unsigned long last = 0;
        int taken = 0;
        while (taken < count && virtual_now_us() < deadline) {
            unsigned long id = 0;
            unsigned char* frame = nullptr;
            if (ksGetCurrentFrame(handle, &id, &frame) != 0) continue;
            EXPECT_NE(nullptr, frame);
            if (taken > 0) {
                EXPECT_GT(id, last);
            }
            last = id;
            ++taken;
        }
        return taken;
    }

    kssim_world* world_ = nullptr;
    KSCameraAbstract* handle_ = nullptr;
};

}  // namespace sessiontest

#endif
