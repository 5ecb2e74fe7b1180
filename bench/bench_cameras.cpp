// Several virtual cameras streaming 1280 x 720 at 30 fps in one process, in
// real time, each with a consumer thread taking RGBD images through the
// public interface as fast as they come:
//   Cameras/N   N cameras
// Counters:
//   lib_core_share_per_camera  the process's CPU time less the cameras' own
//                              frame producers (their thread CPU clocks),
//                              over the wall time, per camera
//   lib_ratio_to_memcpy        the same CPU time per delivered frame, as a
//                              ratio to a memcpy of one source frame
//   min_fps, max_fps           the slowest and fastest camera's delivered rate
//   fps_camK                   the delivered rate of camera K
// The producers' work stands for the camera and the USB transfer; what the
// capture threads spend in the simulated device calls stays in the library's
// share, as a kernel's would.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "include/ksStereoCameraDriver.h"
#include "sim/kssim.h"

namespace {

constexpr size_t kFrameBytes = size_t{1280} * 720 * 3;
constexpr double kWarmupSeconds = 1.0;
constexpr double kMeasureSeconds = 5.0;

double clock_seconds(clockid_t id) {
    struct timespec ts;
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double memcpy_seconds() {
    std::vector<uint8_t> src(kFrameBytes, 1), dst(kFrameBytes);
    double best = 1e9;
    for (int round = 0; round < 7; ++round) {
        const double t0 = clock_seconds(CLOCK_THREAD_CPUTIME_ID);
        for (int i = 0; i < 20; ++i) {
            std::memcpy(dst.data(), src.data(), kFrameBytes);
            benchmark::ClobberMemory();
        }
        best = std::min(best, (clock_seconds(CLOCK_THREAD_CPUTIME_ID) - t0) / 20);
    }
    return best;
}

struct Stream {
    kssim_camera* camera = nullptr;
    KSCameraAbstract* handle = nullptr;
    std::atomic<uint64_t> frames{0};
};

void consume(Stream* s, const std::atomic<bool>* stop) {
    while (!stop->load(std::memory_order_relaxed)) {
        unsigned long id = 0;
        unsigned char* frame = nullptr;
        if (ksGetCurrentFrame(s->handle, &id, &frame) != 0) continue;
        unsigned char* disparity = nullptr;
        unsigned char* image = nullptr;
        if (ksGetRGBDImage(s->handle, frame, &disparity, &image) == 0)
            s->frames.fetch_add(1, std::memory_order_relaxed);
    }
}

uint64_t producers_ns(const std::vector<Stream>& streams) {
    uint64_t total = 0;
    for (const Stream& s : streams) total += kssim_camera_producer_cpu_ns(s.camera);
    return total;
}

void sleep_seconds(double s) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(s);
    ts.tv_nsec = static_cast<long>((s - static_cast<double>(ts.tv_sec)) * 1e9);
    while (nanosleep(&ts, &ts) != 0) {
    }
}

void Cameras(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    const double memcpy_s = memcpy_seconds();
    kssim_world* world = kssim_world_create();
    kssim_world_install(world);
    kssim_world_set_warp(world, 8.0);  // the bring-up's waits, quickly
    std::vector<Stream> streams(count);
    bool opened = true;
    for (Stream& s : streams) {
        s.camera = kssim_world_add_camera(world, nullptr);  // 1280 x 720, 30 fps
        if (ksOpenUVCCameraByPath(kssim_camera_node_path(s.camera, KSSIM_NODE_CAPTURE),
                                  &s.handle) != 0) {
            state.SkipWithError("a virtual camera did not open");
            opened = false;
            break;
        }
    }
    kssim_world_set_warp(world, 1.0);

    std::atomic<bool> stop{false};
    std::vector<std::thread> consumers;
    if (opened)
        for (Stream& s : streams) consumers.emplace_back(consume, &s, &stop);
    for (auto _ : state) {
        sleep_seconds(kWarmupSeconds);
        std::vector<uint64_t> frames0;
        for (const Stream& s : streams) frames0.push_back(s.frames.load());
        const double wall0 = clock_seconds(CLOCK_MONOTONIC);
        const double cpu0 = clock_seconds(CLOCK_PROCESS_CPUTIME_ID);
        const uint64_t sim0 = producers_ns(streams);
        sleep_seconds(kMeasureSeconds);
        const double wall = clock_seconds(CLOCK_MONOTONIC) - wall0;
        const double cpu = clock_seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu0;
        const double sim = static_cast<double>(producers_ns(streams) - sim0) * 1e-9;
        uint64_t delivered = 0;
        double min_fps = 1e9, max_fps = 0;
        for (int k = 0; k < count; ++k) {
            const uint64_t n = streams[k].frames.load() - frames0[k];
            delivered += n;
            const double fps = static_cast<double>(n) / wall;
            min_fps = std::min(min_fps, fps);
            max_fps = std::max(max_fps, fps);
            state.counters["fps_cam" + std::to_string(k)] = fps;
        }
        const double library = cpu - sim;
        state.counters["lib_core_share_per_camera"] = library / wall / count;
        state.counters["lib_ratio_to_memcpy"] =
            delivered ? library / static_cast<double>(delivered) / memcpy_s : 0;
        state.counters["sim_core_share"] = sim / wall;
        state.counters["min_fps"] = min_fps;
        state.counters["max_fps"] = max_fps;
    }
    stop = true;
    for (std::thread& t : consumers) t.join();
    for (Stream& s : streams)
        if (s.handle != nullptr) ksCloseCamera(&s.handle);
    kssim_world_destroy(world);
}

}  // namespace

BENCHMARK(Cameras)->Arg(1)->Arg(2)->Arg(4)->Iterations(1)->UseRealTime()->Unit(
    benchmark::kMillisecond);
