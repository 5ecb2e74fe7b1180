// Vector kernels for the frame parsers: whole groups of 16 pixels of one
// line. Each returns how many pixels it handled (a multiple of 16, possibly
// 0 when the processor lacks the instructions); the caller finishes the line.
#ifndef KS_V4L2_SIMD_H
#define KS_V4L2_SIMD_H

#include <cstdint>

namespace ks_v4l2 {

// Luma into y, chroma samples (one per pixel pair) into chroma.
int simd_luma_chroma(const unsigned char* line, int width, uint8_t* y, uint8_t* chroma);
// The 12-bit values of the pixels.
int simd_values(const unsigned char* line, int width, uint16_t* out);
// Disparities with the offset applied and negative sums clamped to 0;
// adds the number of clamped pixels to *clamps.
int simd_disparity(const unsigned char* line, int width, uint16_t sum_offset, uint16_t* out,
                   int* clamps);
// The upper 8 of the 12 bits.
int simd_gray(const unsigned char* line, int width, uint8_t* out);
// Image A (luma and chroma nibble) and image B (12-bit value), both shifted
// to the top of 16 bits.
int simd_raw(const unsigned char* line, int width, uint16_t* a, uint16_t* b);

}  // namespace ks_v4l2

#endif
