#include "ks_v4l2_driver/source/ks_v4l2_simd.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

#define KS_SSSE3 __attribute__((target("ssse3")))

namespace {

bool have_ssse3() {
    static const bool supported = __builtin_cpu_supports("ssse3");
    return supported;
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

}  // namespace

namespace ks_v4l2 {

int simd_luma_chroma(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma) {
    return have_ssse3() ? luma_chroma_ssse3(line, width, y, chroma) : 0;
}
int simd_values(const unsigned char* line, int width, uint16_t* out) {
    return have_ssse3() ? values_ssse3(line, width, out) : 0;
}
int simd_disparity(const unsigned char* line, int width, uint16_t sum_offset, uint16_t* out,
                   int* clamps) {
    return have_ssse3() ? disparity_ssse3(line, width, sum_offset, out, clamps) : 0;
}
int simd_gray(const unsigned char* line, int width, uint8_t* out) {
    return have_ssse3() ? gray_ssse3(line, width, out) : 0;
}
int simd_raw(const unsigned char* line, int width, uint16_t* a, uint16_t* b) {
    return have_ssse3() ? raw_ssse3(line, width, a, b) : 0;
}

}  // namespace ks_v4l2

#else

namespace ks_v4l2 {
int simd_luma_chroma(const unsigned char*, int, uint8_t*, uint8_t*) {
    return 0;
}
int simd_values(const unsigned char*, int, uint16_t*) {
    return 0;
}
int simd_disparity(const unsigned char*, int, uint16_t, uint16_t*, int*) {
    return 0;
}
int simd_gray(const unsigned char*, int, uint8_t*) {
    return 0;
}
int simd_raw(const unsigned char*, int, uint16_t*, uint16_t*) {
    return 0;
}
}  // namespace ks_v4l2

#endif
