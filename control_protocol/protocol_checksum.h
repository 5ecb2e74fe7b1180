// The summation kernels behind get_data_checksum, for its tests and
// benchmark. Each returns the sum of the bytes modulo 2^32.
#ifndef KS_PROTOCOL_CHECKSUM_H
#define KS_PROTOCOL_CHECKSUM_H

#include <stddef.h>
#include <stdint.h>

namespace ks_checksum {

uint32_t plain_sum(const unsigned char* data, size_t length);
#if defined(__x86_64__)
uint32_t sum_sse2(const unsigned char* data, size_t length);
// Only where have_avx2() is true.
uint32_t sum_avx2(const unsigned char* data, size_t length);
bool have_avx2();
#endif

}  // namespace ks_checksum

#endif
