// Frame latency through the public interface, on a virtual camera streaming
// 1280 x 720 at 30 fps in real time: from the moment the camera's frame is
// complete in a buffer (stamped by the camera on the host's clock) to the
// moment ksGetCurrentFrame returns it (get_*) and to the moment
// ksGetRGBDImage has parsed it (rgbd_*), in milliseconds: median, 99th
// percentile and maximum, for each hand-off of the stream driver:
//   Latency/polling:0   the consumer is woken by the capture thread's publish
//   Latency/polling:1   the consumer sleeps in steps of 0.9 frame periods
// The consumer asks for the next frame as soon as it has parsed one.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "include/ksStereoCameraDriver.h"
#include "ks_v4l2_driver/source/ks_v4l2_driver.h"
#include "sim/kssim.h"

namespace {

constexpr int kWarmupFrames = 10;
constexpr int kMeasuredFrames = 300;  // ten seconds of frames

int64_t host_now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double percentile_ms(std::vector<int64_t> ns, double p) {
    if (ns.empty()) return 0;
    std::sort(ns.begin(), ns.end());
    size_t at = static_cast<size_t>(p * static_cast<double>(ns.size() - 1) + 0.5);
    return static_cast<double>(ns[std::min(at, ns.size() - 1)]) * 1e-6;
}

void Latency(benchmark::State& state) {
    const bool polling = state.range(0) == 1;
    ks_v4l2::set_consumer_handoff(polling ? ks_v4l2::Handoff::Polling
                                          : ks_v4l2::Handoff::WakeOnPublish);
    kssim_world* world = kssim_world_create();
    kssim_world_install(world);
    kssim_camera* camera = kssim_world_add_camera(world, nullptr);  // 1280 x 720, 30 fps
    kssim_world_set_warp(world, 8.0);                               // the bring-up's waits, quickly
    KSCameraAbstract* handle = nullptr;
    if (ksOpenUVCCameraByPath(kssim_camera_node_path(camera, KSSIM_NODE_CAPTURE), &handle) != 0) {
        state.SkipWithError("the virtual camera did not open");
        kssim_world_destroy(world);
        return;
    }
    kssim_world_set_warp(world, 1.0);

    std::vector<int64_t> to_frame, to_rgbd;
    int missing = 0;
    for (auto _ : state) {
        for (int i = 0; i < kWarmupFrames + kMeasuredFrames; ++i) {
            unsigned long id = 0;
            unsigned char* frame = nullptr;
            if (ksGetCurrentFrame(handle, &id, &frame) != 0) continue;
            const int64_t got = host_now_ns();
            unsigned char* disparity = nullptr;
            unsigned char* image = nullptr;
            if (ksGetRGBDImage(handle, frame, &disparity, &image) != 0) continue;
            const int64_t parsed = host_now_ns();
            int64_t ready = 0;
            if (kssim_camera_frame_ready_ns(camera, static_cast<uint32_t>(id), &ready) != 0) {
                ++missing;
                continue;
            }
            if (i < kWarmupFrames) continue;
            to_frame.push_back(got - ready);
            to_rgbd.push_back(parsed - ready);
        }
    }
    state.counters["frames"] = static_cast<double>(to_frame.size());
    state.counters["unstamped"] = missing;
    state.counters["get_median_ms"] = percentile_ms(to_frame, 0.5);
    state.counters["get_p99_ms"] = percentile_ms(to_frame, 0.99);
    state.counters["get_max_ms"] = percentile_ms(to_frame, 1.0);
    state.counters["rgbd_median_ms"] = percentile_ms(to_rgbd, 0.5);
    state.counters["rgbd_p99_ms"] = percentile_ms(to_rgbd, 0.99);
    state.counters["rgbd_max_ms"] = percentile_ms(to_rgbd, 1.0);
    ksCloseCamera(&handle);
    kssim_world_destroy(world);
    ks_v4l2::set_consumer_handoff(ks_v4l2::Handoff::WakeOnPublish);
}

}  // namespace

BENCHMARK(Latency)->ArgName("polling")->Arg(0)->Arg(1)->Iterations(1)->UseRealTime()->Unit(
    benchmark::kMillisecond);
