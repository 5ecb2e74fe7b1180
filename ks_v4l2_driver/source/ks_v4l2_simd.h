// Vector kernels for the frame parsers: whole groups of 16 or 32 pixels of
// one line, with AVX2 or SSSE3 as the processor has them (chosen at run
// time). Each returns how many pixels it handled (a multiple of 16, 0 without
// either instruction set or on other architectures); the caller finishes the
// line one pixel pair at a time.
#ifndef KS_V4L2_SIMD_H
#define KS_V4L2_SIMD_H

#include <cstddef>
#include <cstdint>

namespace ks_v4l2 {

// The widest instruction set the kernels may use, lowered by tests so that
// every path is compared with the reference on any machine.
enum class SimdLevel { Portable, Ssse3, Avx2 };
void set_simd_limit(SimdLevel limit);

// Luma into y, chroma samples (one per pixel pair) into chroma.
int simd_luma_chroma(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma);
// The 12-bit values of the pixels.
int simd_values(const unsigned char* line, int width, uint16_t* out);
// One pass over an RGBD line: luma and chroma as above, and the disparities
// with the offset applied and negative sums clamped to 0; adds the number of
// clamped pixels to *clamps.
int simd_rgbd_line(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma,
                   uint16_t sum_offset, uint16_t* disparity, int* clamps);
// One pass over a rectified line: luma and chroma, and the upper 8 of the 12
// bits as the grey image.
int simd_rectified_line(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma,
                        uint8_t* gray);
// Copies a whole frame into a ring slot with streaming stores where the
// processor has them: the slot's old contents are never read, so their cache
// lines need not be fetched first.
void copy_frame(uint8_t* dst, const uint8_t* src, size_t size);
// Image A (luma and chroma nibble) and image B (12-bit value), both shifted
// to the top of 16 bits.
int simd_raw(const unsigned char* line, int width, uint16_t* a, uint16_t* b);

}  // namespace ks_v4l2

#endif
