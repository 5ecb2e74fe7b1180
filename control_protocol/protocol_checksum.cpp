// Checksum of a message's data: the plain sum of its bytes modulo 2^32.
// On x86-64 the bytes are summed 64 (128 with AVX2) at a time with the
// sum-of-absolute-differences instruction against zero, which adds groups of
// eight bytes into 64-bit lanes; the lanes cannot overflow for any 32-bit
// length, and the result is taken modulo 2^32 at the end, so it equals the
// byte sum.
#include "control_protocol/protocol_checksum.h"

#include <stddef.h>
#include <stdint.h>

#include "control_protocol/protocol_master.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace ks_checksum {

uint32_t plain_sum(const unsigned char* data, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i < length; ++i) sum += data[i];
    return sum;
}

#if defined(__x86_64__)

uint32_t sum_sse2(const unsigned char* data, size_t length) {
    const __m128i zero = _mm_setzero_si128();
    __m128i acc = _mm_setzero_si128();
    size_t i = 0;
    for (; i + 64 <= length; i += 64) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 32));
        const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 48));
        acc = _mm_add_epi64(
            acc, _mm_add_epi64(_mm_add_epi64(_mm_sad_epu8(a, zero), _mm_sad_epu8(b, zero)),
                               _mm_add_epi64(_mm_sad_epu8(c, zero), _mm_sad_epu8(d, zero))));
    }
    for (; i + 16 <= length; i += 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        acc = _mm_add_epi64(acc, _mm_sad_epu8(a, zero));
    }
    // Each lane sums at most 2^32 / 8 groups of 8 bytes of 255, far below
    // 2^64; modulo 2^32 only the low 32 bits of each lane matter.
    const uint32_t low = static_cast<uint32_t>(_mm_cvtsi128_si32(acc));
    const uint32_t high = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(acc, 8)));
    return low + high + plain_sum(data + i, length - i);
}

// Twice the width where the processor has AVX2.
__attribute__((target("avx2"))) uint32_t sum_avx2(const unsigned char* data, size_t length) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i acc0 = _mm256_setzero_si256();
    __m256i acc1 = _mm256_setzero_si256();
    size_t i = 0;
    for (; i + 128 <= length; i += 128) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 32));
        const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 64));
        const __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 96));
        acc0 = _mm256_add_epi64(
            acc0, _mm256_add_epi64(_mm256_sad_epu8(a, zero), _mm256_sad_epu8(b, zero)));
        acc1 = _mm256_add_epi64(
            acc1, _mm256_add_epi64(_mm256_sad_epu8(c, zero), _mm256_sad_epu8(d, zero)));
    }
    const __m256i acc = _mm256_add_epi64(acc0, acc1);
    __m128i half = _mm_add_epi64(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
    for (; i + 16 <= length; i += 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        half = _mm_add_epi64(half, _mm_sad_epu8(a, _mm_setzero_si128()));
    }
    const uint32_t low = static_cast<uint32_t>(_mm_cvtsi128_si32(half));
    const uint32_t high = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(half, 8)));
    // Leave no upper register halves dirty for the SSE code that follows.
    _mm256_zeroupper();
    return low + high + plain_sum(data + i, length - i);
}

bool have_avx2() {
    static const bool supported = __builtin_cpu_supports("avx2");
    return supported;
}

#endif

}  // namespace ks_checksum

extern "C" uint32_t get_data_checksum(const unsigned char* data, uint32_t length) {
    using namespace ks_checksum;
    if (data == nullptr || length == 0) return 0;
#if defined(__x86_64__)
    return have_avx2() ? sum_avx2(data, length) : sum_sse2(data, length);
#else
    return plain_sum(data, length);
#endif
}
