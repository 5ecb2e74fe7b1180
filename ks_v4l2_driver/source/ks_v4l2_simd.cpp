#include "ks_v4l2_driver/source/ks_v4l2_simd.h"

#include <atomic>
#include <cstring>

namespace {

std::atomic<ks_v4l2::SimdLevel> g_simd_limit{ks_v4l2::SimdLevel::Avx2};

inline bool allowed(ks_v4l2::SimdLevel level) {
    return g_simd_limit.load(std::memory_order_relaxed) >= level;
}

}  // namespace

namespace ks_v4l2 {
void set_simd_limit(SimdLevel limit) {
    g_simd_limit.store(limit, std::memory_order_relaxed);
}
}  // namespace ks_v4l2

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

#define KS_SSSE3 __attribute__((target("ssse3")))

namespace {

bool have_ssse3() {
    static const bool supported = __builtin_cpu_supports("ssse3");
    return supported && allowed(ks_v4l2::SimdLevel::Ssse3);
}

// Shuffle control gathering byte k of 16 three-byte pixels from one of the
// three 16-byte loads (part 0, 1, 2); lanes from elsewhere are zeroed.
struct Gather {
    alignas(16) int8_t mask[3][3][16];
    constexpr Gather() : mask() {
        for (int k = 0; k < 3; ++k)
            for (int part = 0; part < 3; ++part)
                for (int j = 0; j < 16; ++j) {
                    int at = 3 * j + k - 16 * part;
                    mask[k][part][j] = (at >= 0 && at < 16) ? static_cast<int8_t>(at) : -128;
                }
    }
};
constexpr Gather kGather;

struct Bytes {
    __m128i b0, b1, b2;
};

KS_SSSE3 inline __m128i gather(const __m128i in[3], int k) {
    __m128i r = _mm_shuffle_epi8(
        in[0], _mm_load_si128(reinterpret_cast<const __m128i*>(kGather.mask[k][0])));
    r = _mm_or_si128(
        r, _mm_shuffle_epi8(in[1],
                            _mm_load_si128(reinterpret_cast<const __m128i*>(kGather.mask[k][1]))));
    return _mm_or_si128(
        r, _mm_shuffle_epi8(in[2],
                            _mm_load_si128(reinterpret_cast<const __m128i*>(kGather.mask[k][2]))));
}

KS_SSSE3 inline Bytes load16(const unsigned char* p) {
    __m128i in[3] = {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)),
                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32))};
    return {gather(in, 0), gather(in, 1), gather(in, 2)};
}

// The 12-bit values as two vectors of eight 16-bit lanes.
KS_SSSE3 inline void values16(const Bytes& px, __m128i* lo, __m128i* hi) {
    __m128i low_nibble = _mm_and_si128(px.b1, _mm_set1_epi8(0x0F));
    *lo = _mm_unpacklo_epi8(px.b0, low_nibble);
    *hi = _mm_unpackhi_epi8(px.b0, low_nibble);
}

KS_SSSE3 int luma_chroma_ssse3(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma) {
    int n = width & ~15;
    for (int x = 0; x < n; x += 16) {
        Bytes px = load16(line + 3 * x);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(y + x), px.b2);
        // Pixel pair (even, odd) as one 16-bit lane: even high nibble above
        // the odd pixel's high nibble.
        __m128i hi_even = _mm_and_si128(px.b1, _mm_set1_epi16(0x00F0));
        __m128i hi_odd = _mm_and_si128(_mm_srli_epi16(px.b1, 12), _mm_set1_epi16(0x000F));
        __m128i samples = _mm_packus_epi16(_mm_or_si128(hi_even, hi_odd), _mm_setzero_si128());
        _mm_storel_epi64(reinterpret_cast<__m128i*>(chroma + x / 2), samples);
    }
    return n;
}

KS_SSSE3 int values_ssse3(const unsigned char* line, int width, uint16_t* out) {
    int n = width & ~15;
    for (int x = 0; x < n; x += 16) {
        __m128i lo, hi;
        values16(load16(line + 3 * x), &lo, &hi);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x + 8), hi);
    }
    return n;
}

// Clamped lanes are all ones: subtracting them counts them, per lane.
KS_SSSE3 inline __m128i corrected8(__m128i d, __m128i offset, __m128i* clamp_counts) {
    __m128i sum = _mm_add_epi16(d, offset);
    __m128i zero = _mm_cmpeq_epi16(d, _mm_setzero_si128());
    __m128i negative = _mm_cmplt_epi16(sum, _mm_setzero_si128());
    *clamp_counts = _mm_sub_epi16(*clamp_counts, _mm_andnot_si128(zero, negative));
    return _mm_andnot_si128(_mm_or_si128(zero, negative), sum);
}

KS_SSSE3 int disparity_ssse3(const unsigned char* line, int width, uint16_t sum_offset,
                             uint16_t* out, int* clamps) {
    int n = width & ~15;
    __m128i offset = _mm_set1_epi16(static_cast<int16_t>(sum_offset));
    // Per-lane counts stay below 2^15: a line has at most 32767 pixels.
    __m128i counts = _mm_setzero_si128();
    for (int x = 0; x < n; x += 16) {
        __m128i lo, hi;
        values16(load16(line + 3 * x), &lo, &hi);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), corrected8(lo, offset, &counts));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x + 8), corrected8(hi, offset, &counts));
    }
    alignas(16) uint16_t lanes[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), counts);
    for (uint16_t lane : lanes) *clamps += lane;
    return n;
}

KS_SSSE3 int gray_ssse3(const unsigned char* line, int width, uint8_t* out) {
    int n = width & ~15;
    for (int x = 0; x < n; x += 16) {
        __m128i lo, hi;
        values16(load16(line + 3 * x), &lo, &hi);
        __m128i gray = _mm_packus_epi16(_mm_srli_epi16(lo, 4), _mm_srli_epi16(hi, 4));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), gray);
    }
    return n;
}

KS_SSSE3 int raw_ssse3(const unsigned char* line, int width, uint16_t* a, uint16_t* b) {
    int n = width & ~15;
    for (int x = 0; x < n; x += 16) {
        Bytes px = load16(line + 3 * x);
        __m128i nibble = _mm_and_si128(px.b1, _mm_set1_epi8(static_cast<char>(0xF0)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(a + x), _mm_unpacklo_epi8(nibble, px.b2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(a + x + 8), _mm_unpackhi_epi8(nibble, px.b2));
        __m128i lo, hi;
        values16(px, &lo, &hi);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(b + x), _mm_slli_epi16(lo, 4));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(b + x + 8), _mm_slli_epi16(hi, 4));
    }
    return n;
}

// ---- AVX2: 32 pixels at a time, pixels 0-15 in the low 128-bit lane and
// 16-31 in the high one, so the byte shuffles (which stay within a lane)
// are the SSSE3 ones.

#define KS_AVX2 __attribute__((target("avx2")))

bool have_avx2() {
    static const bool supported = __builtin_cpu_supports("avx2");
    return supported && allowed(ks_v4l2::SimdLevel::Avx2);
}

struct Bytes32 {
    __m256i b0, b1, b2;
};

KS_AVX2 inline __m256i both_lanes(const int8_t* mask) {
    return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(mask)));
}

KS_AVX2 inline __m256i gather32(const __m256i in[3], int k) {
    __m256i r = _mm256_shuffle_epi8(in[0], both_lanes(kGather.mask[k][0]));
    r = _mm256_or_si256(r, _mm256_shuffle_epi8(in[1], both_lanes(kGather.mask[k][1])));
    return _mm256_or_si256(r, _mm256_shuffle_epi8(in[2], both_lanes(kGather.mask[k][2])));
}

KS_AVX2 inline __m256i two_loads(const unsigned char* lo, const unsigned char* hi) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lo))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi)), 1);
}

KS_AVX2 inline Bytes32 load32(const unsigned char* p) {
    __m256i in[3] = {two_loads(p, p + 48), two_loads(p + 16, p + 64), two_loads(p + 32, p + 80)};
    return {gather32(in, 0), gather32(in, 1), gather32(in, 2)};
}

// Luma of 32 pixels and their 16 chroma samples.
KS_AVX2 inline void luma_chroma32(const Bytes32& px, uint8_t* y, uint8_t* chroma) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(y), px.b2);
    __m256i hi_even = _mm256_and_si256(px.b1, _mm256_set1_epi16(0x00F0));
    __m256i hi_odd = _mm256_and_si256(_mm256_srli_epi16(px.b1, 12), _mm256_set1_epi16(0x000F));
    __m256i samples = _mm256_packus_epi16(_mm256_or_si256(hi_even, hi_odd), _mm256_setzero_si256());
    // Eight samples at the bottom of each lane: bring them together.
    samples = _mm256_permute4x64_epi64(samples, 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(chroma), _mm256_castsi256_si128(samples));
}

// The 12-bit values of 32 pixels, per lane as pixels 0-7 | 16-23 (lo) and
// 8-15 | 24-31 (hi).
KS_AVX2 inline void values32(const Bytes32& px, __m256i* lo, __m256i* hi) {
    __m256i low_nibble = _mm256_and_si256(px.b1, _mm256_set1_epi8(0x0F));
    *lo = _mm256_unpacklo_epi8(px.b0, low_nibble);
    *hi = _mm256_unpackhi_epi8(px.b0, low_nibble);
}

// 16-bit lanes of pixels 0-15 and 16-31 stored in pixel order.
KS_AVX2 inline void store_words(uint16_t* out, __m256i lo, __m256i hi) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(lo, hi, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 16),
                        _mm256_permute2x128_si256(lo, hi, 0x31));
}

KS_AVX2 inline __m256i corrected16(__m256i d, __m256i offset, __m256i* clamp_counts) {
    __m256i sum = _mm256_add_epi16(d, offset);
    __m256i zero = _mm256_cmpeq_epi16(d, _mm256_setzero_si256());
    __m256i negative = _mm256_cmpgt_epi16(_mm256_setzero_si256(), sum);
    *clamp_counts = _mm256_sub_epi16(*clamp_counts, _mm256_andnot_si256(zero, negative));
    return _mm256_andnot_si256(_mm256_or_si256(zero, negative), sum);
}

KS_AVX2 int sum_counts(__m256i counts) {
    alignas(32) uint16_t lanes[16];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), counts);
    int total = 0;
    for (uint16_t lane : lanes) total += lane;
    return total;
}

KS_AVX2 int luma_chroma_avx2(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma) {
    int n = width & ~31;
    for (int x = 0; x < n; x += 32) luma_chroma32(load32(line + 3 * x), y + x, chroma + x / 2);
    return n;
}

KS_AVX2 int values_avx2(const unsigned char* line, int width, uint16_t* out) {
    int n = width & ~31;
    for (int x = 0; x < n; x += 32) {
        __m256i lo, hi;
        values32(load32(line + 3 * x), &lo, &hi);
        store_words(out + x, lo, hi);
    }
    return n;
}

KS_AVX2 int rgbd_line_avx2(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma,
                           uint16_t sum_offset, uint16_t* disparity, int* clamps) {
    int n = width & ~31;
    __m256i offset = _mm256_set1_epi16(static_cast<int16_t>(sum_offset));
    // Per-lane counts gain at most 2 a group: far below 2^16 for any line.
    __m256i counts = _mm256_setzero_si256();
    for (int x = 0; x < n; x += 32) {
        Bytes32 px = load32(line + 3 * x);
        luma_chroma32(px, y + x, chroma + x / 2);
        __m256i lo, hi;
        values32(px, &lo, &hi);
        store_words(disparity + x, corrected16(lo, offset, &counts),
                    corrected16(hi, offset, &counts));
    }
    *clamps += sum_counts(counts);
    return n;
}

KS_AVX2 int rectified_line_avx2(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma,
                                uint8_t* gray) {
    int n = width & ~31;
    for (int x = 0; x < n; x += 32) {
        Bytes32 px = load32(line + 3 * x);
        luma_chroma32(px, y + x, chroma + x / 2);
        __m256i lo, hi;
        values32(px, &lo, &hi);
        // Packing within lanes puts pixels 0-15 low and 16-31 high: in order.
        _mm256_storeu_si256(
            reinterpret_cast<__m256i*>(gray + x),
            _mm256_packus_epi16(_mm256_srli_epi16(lo, 4), _mm256_srli_epi16(hi, 4)));
    }
    return n;
}

KS_AVX2 int raw_avx2(const unsigned char* line, int width, uint16_t* a, uint16_t* b) {
    int n = width & ~31;
    for (int x = 0; x < n; x += 32) {
        Bytes32 px = load32(line + 3 * x);
        __m256i nibble = _mm256_and_si256(px.b1, _mm256_set1_epi8(static_cast<char>(0xF0)));
        store_words(a + x, _mm256_unpacklo_epi8(nibble, px.b2),
                    _mm256_unpackhi_epi8(nibble, px.b2));
        __m256i lo, hi;
        values32(px, &lo, &hi);
        store_words(b + x, _mm256_slli_epi16(lo, 4), _mm256_slli_epi16(hi, 4));
    }
    return n;
}

KS_AVX2 void stream_copy_avx2(uint8_t* dst, const uint8_t* src, size_t size) {
    // Up to the first 32-byte boundary of dst the ordinary way.
    size_t head = (32 - (reinterpret_cast<uintptr_t>(dst) & 31)) & 31;
    if (head > size) head = size;
    std::memcpy(dst, src, head);
    size_t i = head;
    for (; i + 128 <= size; i += 128) {
        __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
        __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 32));
        __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 64));
        __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 96));
        _mm256_stream_si256(reinterpret_cast<__m256i*>(dst + i), a);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(dst + i + 32), b);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(dst + i + 64), c);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(dst + i + 96), d);
    }
    // Streaming stores are weakly ordered: complete them before the slot is published.
    _mm_sfence();
    std::memcpy(dst + i, src + i, size - i);
}

}  // namespace

namespace ks_v4l2 {

void copy_frame(uint8_t* dst, const uint8_t* src, size_t size) {
    if (have_avx2())
        stream_copy_avx2(dst, src, size);
    else
        std::memcpy(dst, src, size);
}
int simd_luma_chroma(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma) {
    if (have_avx2()) return luma_chroma_avx2(line, width, y, chroma);
    return have_ssse3() ? luma_chroma_ssse3(line, width, y, chroma) : 0;
}
int simd_values(const unsigned char* line, int width, uint16_t* out) {
    if (have_avx2()) return values_avx2(line, width, out);
    return have_ssse3() ? values_ssse3(line, width, out) : 0;
}
int simd_rgbd_line(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma,
                   uint16_t sum_offset, uint16_t* disparity, int* clamps) {
    if (have_avx2()) return rgbd_line_avx2(line, width, y, chroma, sum_offset, disparity, clamps);
    if (!have_ssse3()) return 0;
    luma_chroma_ssse3(line, width, y, chroma);
    return disparity_ssse3(line, width, sum_offset, disparity, clamps);
}
int simd_rectified_line(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma,
                        uint8_t* gray) {
    if (have_avx2()) return rectified_line_avx2(line, width, y, chroma, gray);
    if (!have_ssse3()) return 0;
    luma_chroma_ssse3(line, width, y, chroma);
    return gray_ssse3(line, width, gray);
}
int simd_raw(const unsigned char* line, int width, uint16_t* a, uint16_t* b) {
    if (have_avx2()) return raw_avx2(line, width, a, b);
    return have_ssse3() ? raw_ssse3(line, width, a, b) : 0;
}

}  // namespace ks_v4l2

#else

namespace ks_v4l2 {
void copy_frame(uint8_t* dst, const uint8_t* src, size_t size) {
    std::memcpy(dst, src, size);
}
int simd_luma_chroma(const unsigned char*, int, uint8_t*, uint8_t*) {
    return 0;
}
int simd_values(const unsigned char*, int, uint16_t*) {
    return 0;
}
int simd_rgbd_line(const unsigned char*, int, uint8_t*, uint8_t*, uint16_t, uint16_t*, int*) {
    return 0;
}
int simd_rectified_line(const unsigned char*, int, uint8_t*, uint8_t*, uint8_t*) {
    return 0;
}
int simd_raw(const unsigned char*, int, uint16_t*, uint16_t*) {
    return 0;
}
}  // namespace ks_v4l2

#endif
