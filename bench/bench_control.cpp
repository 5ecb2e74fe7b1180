// Message checksum cost, as ratios to references measured in the same run on
// the same bytes:
//   Checksum/<bytes>   get_data_checksum (summed 64 bytes at a time)
//   ratio_to_memcpy    against a memcpy of the bytes
//   ratio_to_plain     against a plain one-byte-at-a-time sum (not vectorised)
// 256 bytes is one full message; the larger sizes show the throughput.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "control_protocol/protocol_master.h"

namespace {

double cpu_seconds() {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}

__attribute__((noinline, optimize("no-tree-vectorize"))) uint32_t plain_sum(
    const unsigned char* data, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i < n; ++i) sum += data[i];
    return sum;
}

// Seconds per call of f, best of several rounds of enough calls to be timed.
template <typename F>
double best_seconds(size_t bytes, F&& f) {
    const int calls = static_cast<int>(std::max<size_t>(64, (size_t{16} << 20) / bytes));
    double best = 1e9;
    for (int round = 0; round < 7; ++round) {
        const double t0 = cpu_seconds();
        for (int i = 0; i < calls; ++i) f();
        best = std::min(best, (cpu_seconds() - t0) / calls);
    }
    return best;
}

void Checksum(benchmark::State& state) {
    const size_t bytes = static_cast<size_t>(state.range(0));
    std::vector<unsigned char> src(bytes), dst(bytes);
    for (size_t i = 0; i < bytes; ++i) src[i] = static_cast<unsigned char>(i * 131 + 7);

    const double memcpy_s = best_seconds(bytes, [&] {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::ClobberMemory();
    });
    const double plain_s =
        best_seconds(bytes, [&] { benchmark::DoNotOptimize(plain_sum(src.data(), bytes)); });
    if (plain_sum(src.data(), bytes) != get_data_checksum(src.data(), static_cast<uint32_t>(bytes)))
        state.SkipWithError("checksum differs from the byte sum");

    double total = 0;
    int64_t calls = 0;
    for (auto _ : state) {
        const double t0 = cpu_seconds();
        for (int i = 0; i < 64; ++i)
            benchmark::DoNotOptimize(get_data_checksum(src.data(), static_cast<uint32_t>(bytes)));
        total += cpu_seconds() - t0;
        calls += 64;
    }
    const double per_call = total / calls;
    state.counters["ns_per_call"] = per_call * 1e9;
    state.counters["ratio_to_memcpy"] = per_call / memcpy_s;
    state.counters["ratio_to_plain"] = per_call / plain_s;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 64 * bytes);
}

}  // namespace

BENCHMARK(Checksum)->ArgName("bytes")->Arg(256)->Arg(4096)->Arg(1 << 20);
