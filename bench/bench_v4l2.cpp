// Stream driver costs at 1280 x 720, each as a ratio to a memcpy of the same
// source frame measured in the same run:
//   Parse<kind>/<path>   one parser call (reference or fast path)
//   CaptureThread        CPU time of the capture thread per delivered frame,
//                        streaming from the virtual camera at 30 fps; also
//                        as a ratio to a memcpy of a frame freshly written by
//                        another thread, the state a device's frame is in
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "ks_v4l2_driver/source/ks_v4l2_driver.h"
#include "sim/kssim.h"

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr size_t kFrameBytes = size_t{kWidth} * kHeight * 3;
constexpr size_t kPixels = size_t{kWidth} * kHeight;

double thread_cpu_seconds(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

double cpu_seconds() {
    return thread_cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
}

// Seconds of one memcpy of a source frame, best of several rounds.
double memcpy_seconds() {
    static double best = 0;
    if (best > 0) return best;
    std::vector<uint8_t> src(kFrameBytes, 1), dst(kFrameBytes);
    best = 1e9;
    for (int round = 0; round < 7; ++round) {
        double t0 = cpu_seconds();
        for (int i = 0; i < 20; ++i) {
            std::memcpy(dst.data(), src.data(), kFrameBytes);
            benchmark::ClobberMemory();
        }
        best = std::min(best, (cpu_seconds() - t0) / 20);
    }
    return best;
}

// Seconds of one memcpy of a frame that another thread has just written into
// one of eight buffers, as frames arrive from a device: unlike the reference
// above, the source is not in this core's caches. Mean over 120 frames.
double fresh_memcpy_seconds() {
    static double mean = 0;
    if (mean > 0) return mean;
    constexpr int kFrames = 120;
    std::vector<std::vector<uint8_t>> buffers(8, std::vector<uint8_t>(kFrameBytes, 1));
    std::vector<std::vector<uint8_t>> slots(8, std::vector<uint8_t>(kFrameBytes, 1));
    std::atomic<int> written{-1}, copied{-1};
    std::thread device([&] {
        for (int f = 0; f < kFrames; ++f) {
            while (copied.load() != f - 1) std::this_thread::yield();
            std::memset(buffers[f % 8].data(), f, kFrameBytes);
            written.store(f);
        }
    });
    double total = 0;
    for (int f = 0; f < kFrames; ++f) {
        while (written.load() != f) std::this_thread::yield();
        const double t0 = cpu_seconds();
        std::memcpy(slots[f % 8].data(), buffers[f % 8].data(), kFrameBytes);
        benchmark::ClobberMemory();
        total += cpu_seconds() - t0;
        copied.store(f);
    }
    device.join();
    mean = total / kFrames;
    return mean;
}

// A real source frame of the virtual camera on the given channel.
std::vector<uint8_t> camera_frame(uint8_t channel) {
    kssim_world* world = kssim_world_create();
    kssim_camera* camera = kssim_world_add_camera(world, nullptr);
    kssim_camera_set_output_channel(camera, channel);
    std::vector<uint8_t> frame(kFrameBytes);
    kssim_camera_produce_frame(camera, frame.data(), frame.size());
    kssim_world_destroy(world);
    return frame;
}

KsY4L2Cam* parser_handle() {
    auto* cam = new KsY4L2Cam{};
    cam->width = kWidth;
    cam->height = kHeight;
    cam->pix_size = 3;
    cam->frm_size = kFrameBytes;
    return cam;
}

template <typename Parse>
void run_parser(benchmark::State& state, uint8_t channel, Parse&& parse) {
    std::vector<uint8_t> frame = camera_frame(channel);
    KsY4L2Cam* cam = parser_handle();
    double total = 0;
    int64_t calls = 0;
    for (auto _ : state) {
        double t0 = cpu_seconds();
        parse(frame.data(), cam);
        total += cpu_seconds() - t0;
        ++calls;
    }
    state.counters["ms_per_frame"] = total / calls * 1e3;
    state.counters["ratio_to_memcpy"] = total / calls / memcpy_seconds();
    delete cam;
}

struct RgbdOut {
    std::vector<uint8_t> image = std::vector<uint8_t>(kPixels * 3 / 2);
    std::vector<uint16_t> disparity = std::vector<uint16_t>(kPixels);
    std::vector<uint16_t> meta = std::vector<uint16_t>(kWidth);
};

struct PairOut {
    std::vector<uint16_t> a = std::vector<uint16_t>(kPixels);
    std::vector<uint16_t> b = std::vector<uint16_t>(kPixels);
    std::vector<uint8_t> gray = std::vector<uint8_t>(kPixels);
    std::vector<uint8_t> image = std::vector<uint8_t>(kPixels * 3 / 2);
    std::vector<uint16_t> meta = std::vector<uint16_t>(kWidth);
};

void ParseRgbd(benchmark::State& state) {
    RgbdOut o;
    bool fast = state.range(0) == 1;
    run_parser(state, 0x7F, [&](unsigned char* src, KsY4L2Cam* cam) {
        _cam_frame_rgbd_data out{o.image.data(), o.disparity.data(), 0, 0, 0};
        if (fast)
            parseRgbDFrame(src, cam, &out, o.meta.data());
        else
            ks_reference::parseRgbDFrame(src, cam, &out, o.meta.data());
        benchmark::DoNotOptimize(out.bf);
    });
}

void ParseRectified(benchmark::State& state) {
    PairOut o;
    bool fast = state.range(0) == 1;
    run_parser(state, 0x76, [&](unsigned char* src, KsY4L2Cam* cam) {
        _cam_frame_raw_data out{o.gray.data(), o.image.data()};
        if (fast)
            parseRectifiedFrame(src, cam, &out, o.meta.data());
        else
            ks_reference::parseRectifiedFrame(src, cam, &out, o.meta.data());
        benchmark::ClobberMemory();
    });
}

void ParseRaw(benchmark::State& state) {
    PairOut o;
    bool fast = state.range(0) == 1;
    run_parser(state, 0x23, [&](unsigned char* src, KsY4L2Cam* cam) {
        _cam_frame_raw_data out{o.a.data(), o.b.data()};
        if (fast)
            parseRawFrame(src, cam, &out, o.meta.data());
        else
            ks_reference::parseRawFrame(src, cam, &out, o.meta.data());
        benchmark::ClobberMemory();
    });
}

// The capture thread's own CPU time per frame while streaming at 30 fps.
void CaptureThread(benchmark::State& state) {
    kssim_world* world = kssim_world_create();
    kssim_world_install(world);
    kssim_camera* camera = kssim_world_add_camera(world, nullptr);
    KsY4L2Cam* cam = initY4l2DriverHandle(kssim_camera_node_path(camera, KSSIM_NODE_CAPTURE));
    setV4l2StreamFPS(cam, 30.0f);
    initV4l2Stream(cam);
    clockid_t clock;
    pthread_getcpuclockid(cam->capture_thread, &clock);
    unsigned int last_id = 0;
    unsigned char* frame = nullptr;
    ksY4L2GetNextSourceData(&frame, &last_id, cam);
    double cpu0 = thread_cpu_seconds(clock);
    uint64_t frames0 = cam->frame_count.load();
    for (auto _ : state) ksY4L2GetNextSourceData(&frame, &last_id, cam);
    double cpu = thread_cpu_seconds(clock) - cpu0;
    uint64_t frames = cam->frame_count.load() - frames0;
    state.counters["ms_per_frame"] = frames ? cpu / frames * 1e3 : 0;
    state.counters["ratio_to_memcpy"] = frames ? cpu / frames / memcpy_seconds() : 0;
    state.counters["ratio_to_fresh_memcpy"] = frames ? cpu / frames / fresh_memcpy_seconds() : 0;
    releaseV4l2Stream(cam);
    DestoryY4l2DriverHandle(cam);
    kssim_world_destroy(world);
}

}  // namespace

BENCHMARK(ParseRgbd)->ArgName("fast")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ParseRectified)->ArgName("fast")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ParseRaw)->ArgName("fast")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(CaptureThread)->Iterations(150)->Unit(benchmark::kMillisecond)->UseRealTime();
