// Host-side disparity processing at 1280 x 720 on the virtual camera's room
// scene (raw disparity channel), on one core. Each figure is the thread's CPU
// time per call (mean, and the best call: these machines are shared) and the
// ratio of the best call to the best of a reference measured in the same run:
//
//   DenseDisparity, FilterDisparity, PointCloud, RectDistanceWholeFrame
//                       ratio_to_memcpy: a memcpy of the disparity map
//   PointCloud          ratio_to_output_memcpy: a memcpy of as many bytes as
//                       the three point buffers hold (the cloud's own memory
//                       traffic); ratio_to_opencv: cv::reprojectImageTo3D on
//                       the same disparity (when built with OpenCV)
//   SpeckleRegions      the filter's speckle-region step (labelling and
//                       clearing regions of at most 99 samples, difference
//                       19) on the down-sampled 640 x 360 grid;
//                       ratio_to_opencv: cv::filterSpeckles with the same
//                       size and difference on the same grid
//   RoomSceneQuality    not a timing: share of valid pixels and mean
//                       distance error against the ground truth, before and
//                       after dense_disparity and filter_disparity
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "driver/driver_cpp/source/KSDisparityCommon.h"
#include "tests/processing/processing_camera.h"
#include "tests/processing/scene_frame.h"

#ifdef KS_BENCH_WITH_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#endif

namespace {

constexpr uint16_t kWidth = 1280;
constexpr uint16_t kHeight = 720;
constexpr size_t kPixels = size_t{kWidth} * kHeight;

double cpu_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

// Best of several rounds of `rounds x calls` calls of f, in seconds per call.
template <typename F>
double best_seconds(F&& f, int rounds = 7, int calls = 10) {
    double best = 1e9;
    for (int r = 0; r < rounds; ++r) {
        const double t0 = cpu_seconds();
        for (int i = 0; i < calls; ++i) f();
        best = std::min(best, (cpu_seconds() - t0) / calls);
    }
    return best;
}

const SceneFrame& room() {
    static SceneFrame frame;
    static bool made = false;
    if (!made) {
        made = frame.render(KSSIM_SCENE_ROOM, 0.0, kWidth, kHeight, KSSIM_CHANNEL_ORIGIN_DISPARITY);
    }
    return frame;
}

ProcessingCamera* room_camera() {
    auto* cam = new ProcessingCamera;
    cam->bxf = room().bxf;
    cam->base = room().baseline;
    cam->width = kWidth;
    cam->height = kHeight;
    return cam;
}

// A memcpy of the disparity map (the map's bytes, not a whole source frame).
double memcpy_seconds() {
    static double best = 0;
    if (best > 0) return best;
    std::vector<uint16_t> src(kPixels, 7), dst(kPixels);
    best = best_seconds(
        [&] {
            std::memcpy(dst.data(), src.data(), kPixels * sizeof(uint16_t));
            benchmark::ClobberMemory();
        },
        7, 50);
    return best;
}

// CPU time of the calls of one benchmark.
struct CallTimes {
    double total = 0;
    double best = 1e9;
    int64_t calls = 0;
    void add(double seconds) {
        total += seconds;
        best = std::min(best, seconds);
        ++calls;
    }
};

void report(benchmark::State& state, const CallTimes& t) {
    state.counters["ms_per_frame"] = t.total / t.calls * 1e3;
    state.counters["ms_best"] = t.best * 1e3;
    state.counters["ratio_to_memcpy"] = t.best / memcpy_seconds();
}

// dense_disparity / filter_disparity rewrite the map in place: every call
// gets a fresh copy of the raw map, outside the timed part.
template <typename Op>
void run_in_place(benchmark::State& state, Op&& op) {
    std::unique_ptr<ProcessingCamera> cam(room_camera());
    std::vector<uint16_t> work(room().disparity);
    std::vector<uint8_t> grey(room().grey);
    op(*cam, work.data(), grey.data());  // first call: work arrays, line offset
    CallTimes t;
    for (auto _ : state) {
        std::copy(room().disparity.begin(), room().disparity.end(), work.begin());
        const double t0 = cpu_seconds();
        op(*cam, work.data(), grey.data());
        t.add(cpu_seconds() - t0);
    }
    report(state, t);
}

void DenseDisparity(benchmark::State& state) {
    run_in_place(state, [](ProcessingCamera& cam, uint16_t* d, uint8_t* g) {
        benchmark::DoNotOptimize(cam.dense_disparity(kWidth, kHeight, d, g));
    });
}

void FilterDisparity(benchmark::State& state) {
    run_in_place(state, [](ProcessingCamera& cam, uint16_t* d, uint8_t* g) {
        benchmark::DoNotOptimize(cam.filter_disparity(kWidth, kHeight, d, g));
    });
}

void PointCloud(benchmark::State& state) {
    std::unique_ptr<ProcessingCamera> cam(room_camera());
    const uint16_t* disparity = room().disparity.data();
    uint32_t count = 0;
    float *x = nullptr, *y = nullptr, *z = nullptr;
    cam->convert_disparity_to_point_cloud(disparity, &count, &x, &y, &z);
    CallTimes t;
    for (auto _ : state) {
        const double t0 = cpu_seconds();
        benchmark::DoNotOptimize(
            cam->convert_disparity_to_point_cloud(disparity, &count, &x, &y, &z));
        t.add(cpu_seconds() - t0);
    }
    report(state, t);
    state.counters["points"] = count;
    std::vector<float> from(kPixels * 3, 1.0f), to(kPixels * 3);
    const double output_copy = best_seconds(
        [&] {
            std::memcpy(to.data(), from.data(), from.size() * sizeof(float));
            benchmark::ClobberMemory();
        },
        5, 5);
    state.counters["ratio_to_output_memcpy"] = t.best / output_copy;
#ifdef KS_BENCH_WITH_OPENCV
    // The same geometry as a reprojection matrix: disparity in 1/32 pixel,
    // image centre as principal point.
    cv::setNumThreads(1);
    const double focal = static_cast<double>(room().bxf) / room().baseline;
    cv::Mat q = (cv::Mat_<double>(4, 4) << 1, 0, 0, -kWidth / 2, 0, -1, 0, kHeight / 2, 0, 0, 0,
                 focal, 0, 0, 1.0 / (32.0 * room().baseline), 0);
    cv::Mat d16(kHeight, kWidth, CV_16SC1);
    for (size_t i = 0; i < kPixels; ++i)
        d16.ptr<int16_t>()[i] = static_cast<int16_t>(room().disparity[i]);
    cv::Mat xyz;
    cv::reprojectImageTo3D(d16, xyz, q, false, CV_32F);
    const double reference = best_seconds(
        [&] {
            cv::reprojectImageTo3D(d16, xyz, q, false, CV_32F);
            benchmark::ClobberMemory();
        },
        5, 5);
    state.counters["opencv_ms"] = reference * 1e3;
    state.counters["ratio_to_opencv"] = t.best / reference;
#endif
}

void RectDistanceWholeFrame(benchmark::State& state) {
    std::unique_ptr<ProcessingCamera> cam(room_camera());
    std::vector<uint16_t> disparity(room().disparity);
    _ks_rect_distance_info_s info{};
    info.width = kWidth - 1;  // the last row and column are visited too
    info.height = kHeight - 1;
    info.disparity = disparity.data();
    cam->calculate_rect_distance(&info);
    CallTimes t;
    for (auto _ : state) {
        const double t0 = cpu_seconds();
        benchmark::DoNotOptimize(cam->calculate_rect_distance(&info));
        t.add(cpu_seconds() - t0);
    }
    report(state, t);
    state.counters["valid_ratio"] = info.valid_ratio;
}

// The speckle-region step of filter_disparity on its down-sampled grid.
void SpeckleRegions(benchmark::State& state) {
    ks_disparity::Grid g;
    g.factor = 2;
    g.width = kWidth / 2;
    g.height = kHeight / 2;
    g.pixels = uint32_t{g.width} * g.height;
    KSDisparityWork work;
    work.grid.reserve(g.pixels);
    work.label.reserve(g.pixels);
    work.region_size.reserve(g.pixels + 1);
    work.parent.reserve(g.pixels + 1);
    std::vector<uint16_t> grid(g.pixels);
    ks_disparity::downsample(g, room().disparity.data(), kWidth, kHeight, 3u * g.width,
                             grid.data());
    const ks_disparity::Area whole{0, g.height - 1, 0, g.width - 1};
    CallTimes t;
    for (auto _ : state) {
        std::copy(grid.begin(), grid.end(), work.grid.data());
        const double t0 = cpu_seconds();
        ks_disparity::label_regions(g, whole, work);
        ks_disparity::clear_small_regions(g, whole, work);
        t.add(cpu_seconds() - t0);
        benchmark::ClobberMemory();
    }
    report(state, t);
    size_t kept = 0;
    for (size_t i = 0; i < g.pixels; ++i) kept += work.grid.data()[i] != 0;
    state.counters["kept"] = static_cast<double>(kept);
#ifdef KS_BENCH_WITH_OPENCV
    cv::setNumThreads(1);
    cv::Mat source(g.height, g.width, CV_16SC1);
    for (size_t i = 0; i < g.pixels; ++i) source.ptr<int16_t>()[i] = static_cast<int16_t>(grid[i]);
    cv::Mat img;
    cv::Mat buf;
    double reference = 1e9;
    for (int round = 0; round < 7; ++round) {
        double sum = 0;
        for (int i = 0; i < 10; ++i) {
            source.copyTo(img);
            const double t0 = cpu_seconds();
            cv::filterSpeckles(img, 0, 99, 19, buf);
            sum += cpu_seconds() - t0;
        }
        reference = std::min(reference, sum / 10);
    }
    size_t same = 0;
    for (size_t i = 0; i < g.pixels; ++i)
        same += static_cast<uint16_t>(img.ptr<int16_t>()[i]) == work.grid.data()[i];
    state.counters["opencv_ms"] = reference * 1e3;
    state.counters["ratio_to_opencv"] = t.best / reference;
    state.counters["same_as_opencv"] = static_cast<double>(same) / g.pixels;
#endif
}

void RoomSceneQuality(benchmark::State& state) {
    const SceneFrame& f = room();
    std::unique_ptr<ProcessingCamera> cam(room_camera());
    std::vector<uint16_t> dense(f.disparity), filtered(f.disparity);
    for (auto _ : state) {
        dense = f.disparity;
        filtered = f.disparity;
        cam->dense_disparity(kWidth, kHeight, dense.data(), const_cast<uint8_t*>(f.grey.data()));
        cam->filter_disparity(kWidth, kHeight, filtered.data(),
                              const_cast<uint8_t*>(f.grey.data()));
    }
    // Each map against the truth of the pixels it describes: the raw plane's
    // lies 3 rows up and 22 columns left, the outputs are registered.
    const MapQuality raw = map_quality(f, f.disparity, kRawPlane);
    const MapQuality d = map_quality(f, dense, kImageHalfGrid);
    const MapQuality fl = map_quality(f, filtered, kImageHalfGrid);
    state.counters["valid_raw"] = raw.valid_share;
    state.counters["valid_dense"] = d.valid_share;
    state.counters["valid_filter"] = fl.valid_share;
    state.counters["err_mm_raw"] = raw.mean_error_mm;
    state.counters["err_mm_dense"] = d.mean_error_mm;
    state.counters["err_mm_filter"] = fl.mean_error_mm;
}

}  // namespace

BENCHMARK(DenseDisparity)->Unit(benchmark::kMillisecond);
BENCHMARK(FilterDisparity)->Unit(benchmark::kMillisecond);
BENCHMARK(PointCloud)->Unit(benchmark::kMillisecond);
BENCHMARK(RectDistanceWholeFrame)->Unit(benchmark::kMillisecond);
BENCHMARK(SpeckleRegions)->Unit(benchmark::kMillisecond);
BENCHMARK(RoomSceneQuality)->Iterations(1)->Unit(benchmark::kMillisecond);
