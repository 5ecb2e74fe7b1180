// Cost of the virtual camera's frame production, as a ratio to a memcpy of
// the same bytes measured in the same run.
//
//   SimProduceFrame   unthrottled: one 1280 x 720 source frame (copy of the
//                     cached rendering plus the per-frame metadata words)
//   SimStream30fps    the producer streaming 1280 x 720 at 30 fps, warp 1,
//                     with a consumer dequeuing through the seam: process
//                     CPU time per frame and the share of one core
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <time.h>

#include <cstring>
#include <vector>

#include "common/ks_platform.h"
#include "sim/kssim.h"

namespace {

constexpr size_t kFrameBytes = 1280 * 720 * 3;

double cpu_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

double wall_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

// CPU seconds of one memcpy of a frame, best of a few rounds.
double memcpy_seconds(std::vector<uint8_t>& src, std::vector<uint8_t>& dst) {
    double best = 1e9;
    for (int round = 0; round < 5; ++round) {
        const double t0 = cpu_seconds();
        for (int i = 0; i < 20; ++i) {
            std::memcpy(dst.data(), src.data(), kFrameBytes);
            benchmark::ClobberMemory();
        }
        best = std::min(best, (cpu_seconds() - t0) / 20);
    }
    return best;
}

void SimProduceFrame(benchmark::State& state) {
    kssim_world* w = kssim_world_create();
    kssim_camera* cam = kssim_world_add_camera(w, nullptr);
    std::vector<uint8_t> frame(kFrameBytes), src(kFrameBytes, 1), dst(kFrameBytes);
    kssim_camera_produce_frame(cam, frame.data(), frame.size());  // renders once
    double produce = 0;
    long frames = 0;
    for (auto _ : state) {
        const double t0 = cpu_seconds();
        kssim_camera_produce_frame(cam, frame.data(), frame.size());
        benchmark::ClobberMemory();
        produce += cpu_seconds() - t0;
        ++frames;
    }
    const double mc = memcpy_seconds(src, dst);
    state.SetBytesProcessed(static_cast<int64_t>(frames * kFrameBytes));
    state.counters["frames_per_cpu_s"] = frames / produce;
    state.counters["ratio_to_memcpy"] = (produce / frames) / mc;
    kssim_world_destroy(w);
}
BENCHMARK(SimProduceFrame)->Unit(benchmark::kMicrosecond);

void SimStream30fps(benchmark::State& state) {
    kssim_world* w = kssim_world_create();
    kssim_camera* cam = kssim_world_add_camera(w, nullptr);  // 1280 x 720, 30 fps
    kssim_world_install(w);
    const int fd =
        ks_sys_open(kssim_camera_node_path(cam, KSSIM_NODE_CAPTURE), O_RDWR | O_NONBLOCK, 0);
    v4l2_requestbuffers req{};
    req.count = 8;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    ks_sys_ioctl(fd, VIDIOC_REQBUFS, &req);
    std::vector<void*> maps;
    for (uint32_t i = 0; i < req.count; ++i) {
        v4l2_buffer b{};
        b.index = i;
        b.type = req.type;
        b.memory = V4L2_MEMORY_MMAP;
        ks_sys_ioctl(fd, VIDIOC_QUERYBUF, &b);
        maps.push_back(ks_sys_mmap(nullptr, b.length, PROT_READ, MAP_SHARED, fd, b.m.offset));
        ks_sys_ioctl(fd, VIDIOC_QBUF, &b);
    }
    uint32_t type = req.type;
    ks_sys_ioctl(fd, VIDIOC_STREAMON, &type);
    std::vector<uint8_t> src(kFrameBytes, 1), dst(kFrameBytes);
    double cpu = 0, wall = 0;
    long frames = 0;
    for (auto _ : state) {
        const double c0 = cpu_seconds(), w0 = wall_seconds();
        for (int i = 0; i < 30; ++i) {  // one second of frames
            fd_set rd;
            FD_ZERO(&rd);
            FD_SET(fd, &rd);
            struct timeval tv = {1, 0};
            if (ks_sys_select(fd + 1, &rd, nullptr, nullptr, &tv) <= 0) continue;
            v4l2_buffer b{};
            b.type = type;
            b.memory = V4L2_MEMORY_MMAP;
            if (ks_sys_ioctl(fd, VIDIOC_DQBUF, &b) != 0) continue;
            ++frames;
            ks_sys_ioctl(fd, VIDIOC_QBUF, &b);
        }
        cpu += cpu_seconds() - c0;
        wall += wall_seconds() - w0;
    }
    ks_sys_ioctl(fd, VIDIOC_STREAMOFF, &type);
    const double mc = memcpy_seconds(src, dst);
    state.counters["frames"] = static_cast<double>(frames);
    state.counters["frames_per_cpu_s"] = frames / cpu;
    state.counters["core_share"] = cpu / wall;
    state.counters["ratio_to_memcpy"] = (cpu / frames) / mc;
    for (void* m : maps) ks_sys_munmap(m, kFrameBytes);
    ks_sys_close(fd);
    kssim_world_destroy(w);
}
BENCHMARK(SimStream30fps)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
