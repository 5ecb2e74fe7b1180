// Parsers of the packed source frame. Each pixel carries three bytes:
// b2 = luma Y of image A, high nibble of b1 = half a chroma sample of image A
// (pixel pairs form one sample; even lines feed U, odd lines V), low nibble of
// b1 with b0 = a 12-bit value V (metadata words in line 0, disparity or image
// B below). The reference parsers walk one pixel at a time; the exported ones
// walk pixel pairs with the per-line decisions hoisted out of the loops and
// must produce the same bytes and the same messages.
#include <cstdio>
#include <cstring>

#include "common/ks_log.h"
#include "ks_v4l2_driver/source/ks_v4l2_driver.h"
#include "ks_v4l2_driver/source/ks_v4l2_internal.h"
#include "ks_v4l2_driver/source/ks_v4l2_simd.h"

namespace {

constexpr unsigned short kMarker0 = 0xACE;
constexpr int kBfBaseFirstWord = 16;
constexpr int kBfBaseWords = 6;
constexpr int kFirstDisparityLine = 4;

inline unsigned value12(const unsigned char* p) {
    return (p[1] & 0x0Fu) << 8 | p[0];
}

// One call site for the clamp warning, so every parser logs the same line.
void warn_negative_disparity() {
    KS_LOG_WARN(KS_V4L2_MODULE, "Unexpect Negative Disp Value. set to 0\n");
}

void warn_if_invalid_marker(const unsigned short* meta, int width) {
    if (width < 1 || meta[0] != kMarker0) printf("Warning: Invalid meta data\n");
}

// bf and base from M16..M21; a frame too narrow to carry them decodes as zeros.
void decode_constants(unsigned short* meta, int width, _cam_frame_rgbd_data* out) {
    unsigned short words[kBfBaseWords] = {};
    for (int i = 0; i < kBfBaseWords && kBfBaseFirstWord + i < width; ++i)
        words[i] = meta[kBfBaseFirstWord + i];
    decodeBfBase(words, &out->bf, &out->base);
}

// Disparity with the offsets applied; a sum that is negative as a signed
// 16-bit number is clamped to 0.
inline uint16_t corrected(unsigned d, uint16_t sum_offset, bool* clamped) {
    if (d == 0) return 0;
    auto value = static_cast<int16_t>(static_cast<uint16_t>(d + sum_offset));
    *clamped = value < 0;
    return value < 0 ? 0 : static_cast<uint16_t>(value);
}

struct I420Planes {
    uint8_t* y;
    uint8_t* u;
    uint8_t* v;
};

I420Planes i420_planes(uint8_t* image, int width, int height) {
    return {image, image + width * height, image + width * height * 5 / 4};
}

// Image A of one pixel: its luma, and half a chroma sample that the odd
// pixel of the pair completes into U (even lines) or V (odd lines).
inline void reference_luma_chroma(const unsigned char* p, int r, int c, I420Planes* planes,
                                  uint8_t* high_nibble) {
    *planes->y++ = p[2];
    if ((c & 1) == 0) {
        *high_nibble = p[1] & 0xF0;
        return;
    }
    uint8_t sample = *high_nibble | (p[1] >> 4);
    if ((r & 1) == 0)
        *planes->u++ = sample;
    else
        *planes->v++ = sample;
}

// Luma and chroma of one line of image A from pixel `done` (even) on, one
// pixel pair at a time; moves y and chroma past the line.
inline void finish_luma_chroma(const unsigned char* line, int width, int done, uint8_t*& y,
                               uint8_t*& chroma) {
    int pairs = width / 2;
    const unsigned char* p = line + 3 * done;
    for (int k = done / 2; k < pairs; ++k, p += 6) {
        y[2 * k] = p[2];
        y[2 * k + 1] = p[5];
        chroma[k] = static_cast<uint8_t>((p[1] & 0xF0) | (p[4] >> 4));
    }
    if (width & 1) y[width - 1] = p[2];
    y += width;
    chroma += pairs;
}

// Luma and chroma of one line of image A: vector groups, then pixel pairs.
inline void luma_chroma_line(const unsigned char* line, int width, uint8_t*& y, uint8_t*& chroma) {
    finish_luma_chroma(line, width, ks_v4l2::simd_luma_chroma(line, width, y, chroma), y, chroma);
}

// The 12-bit values of one line.
inline void values_line(const unsigned char* line, int width, uint16_t* out) {
    for (int c = ks_v4l2::simd_values(line, width, out); c < width; ++c)
        out[c] = static_cast<uint16_t>(value12(line + 3 * c));
}

}  // namespace

extern "C" unsigned int decodeBfBase(unsigned short* words, float* bf, float* base) {
    double base_value = (words[0] * 16.0 + ((words[1] >> 8) & 0x0F)) / 128.0;
    uint32_t bf_int =
        (static_cast<uint32_t>(words[2] & 0x0F) << 28) + (static_cast<uint32_t>(words[3]) << 16) +
        (static_cast<uint32_t>(words[4]) << 4) + (static_cast<uint32_t>(words[5]) >> 8);
    *bf = static_cast<float>(bf_int / 4096.0);
    *base = static_cast<float>(base_value);
    return bf_int;
}

namespace ks_reference {

int parseRgbDFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_rgbd_data* out,
                   unsigned short* meta) {
    const int width = cam->width;
    const int height = cam->height;
    const int16_t disp_offset = cam->disp_offset;
    const auto sum_offset = static_cast<uint16_t>(cam->range_offset + disp_offset);
    I420Planes planes = i420_planes(out->image, width, height);
    uint16_t* disparity = out->disparity;
    unsigned short* words = meta;
    const unsigned char* p = src;
    uint8_t high_nibble = 0;
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c, p += cam->pix_size) {
            reference_luma_chroma(p, r, c, &planes, &high_nibble);
            unsigned v = value12(p);
            if (r == 0) {
                *words++ = static_cast<unsigned short>(v);
                *disparity++ = 0;
            } else if (r >= kFirstDisparityLine) {
                bool clamped = false;
                *disparity++ = corrected(v, sum_offset, &clamped);
                if (clamped && disp_offset >= 0) warn_negative_disparity();
            }
        }
    }
    decode_constants(meta, width, out);
    return 0;
}

int parseRectifiedFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                        unsigned short* meta) {
    const int width = cam->width;
    const int height = cam->height;
    if (height >= 1) {
        auto* gray = static_cast<uint8_t*>(out->first);
        I420Planes planes = i420_planes(static_cast<uint8_t*>(out->second), width, height);
        unsigned short* words = meta;
        const unsigned char* p = src;
        uint8_t high_nibble = 0;
        for (int r = 0; r < height; ++r) {
            for (int c = 0; c < width; ++c, p += cam->pix_size) {
                reference_luma_chroma(p, r, c, &planes, &high_nibble);
                if (r == 0) {
                    *words++ = static_cast<unsigned short>(value12(p));
                    *gray++ = 0;
                } else {
                    *gray++ = static_cast<uint8_t>((p[0] >> 4) + (p[1] << 4));
                }
            }
        }
    }
    warn_if_invalid_marker(meta, width);
    return 0;
}

int parseRawFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                  unsigned short* meta) {
    const unsigned width = static_cast<uint16_t>(cam->width);
    const unsigned height = static_cast<uint16_t>(cam->height);
    if (height >= 1) {
        auto* image_a = static_cast<uint16_t*>(out->first);
        auto* image_b = static_cast<uint16_t*>(out->second);
        unsigned short* words = meta;
        const unsigned char* p = src;
        for (unsigned r = 0; r < height; ++r) {
            for (unsigned c = 0; c < width; ++c, p += cam->pix_size) {
                *image_a++ = static_cast<uint16_t>((p[2] * 16 + (p[1] >> 4)) * 16);
                if (r == 0) {
                    *words++ = static_cast<unsigned short>(value12(p));
                    *image_b++ = 0;
                } else {
                    *image_b++ = static_cast<uint16_t>(value12(p) * 16);
                }
            }
        }
    }
    warn_if_invalid_marker(meta, static_cast<int>(width));
    return 0;
}

}  // namespace ks_reference

extern "C" {

int parseRgbDFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_rgbd_data* out,
                   unsigned short* meta) {
    const int width = cam->width;
    const int height = cam->height;
    if (cam->pix_size != 3 || width < 2) return ks_reference::parseRgbDFrame(src, cam, out, meta);
    const int16_t disp_offset = cam->disp_offset;
    const auto sum_offset = static_cast<uint16_t>(cam->range_offset + disp_offset);
    I420Planes planes = i420_planes(out->image, width, height);
    uint16_t* disparity = out->disparity;
    const size_t line_bytes = static_cast<size_t>(width) * 3;
    for (int r = 0; r < height; ++r) {
        const unsigned char* line = src + r * line_bytes;
        uint8_t*& chroma = (r & 1) == 0 ? planes.u : planes.v;
        if (r < kFirstDisparityLine) {
            luma_chroma_line(line, width, planes.y, chroma);
            if (r == 0) {
                values_line(line, width, meta);
                std::memset(disparity, 0, sizeof(uint16_t) * width);
                disparity += width;
            }
        } else {
            int clamps = 0;
            int c = ks_v4l2::simd_rgbd_line(line, width, planes.y, chroma, sum_offset, disparity,
                                            &clamps);
            finish_luma_chroma(line, width, c, planes.y, chroma);
            for (; c < width; ++c) {
                bool clamped = false;
                disparity[c] = corrected(value12(line + 3 * c), sum_offset, &clamped);
                clamps += clamped;
            }
            disparity += width;
            // The reference warns pixel by pixel and logs nothing else.
            if (disp_offset >= 0)
                for (int i = 0; i < clamps; ++i) warn_negative_disparity();
        }
    }
    decode_constants(meta, width, out);
    return 0;
}

int parseRectifiedFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                        unsigned short* meta) {
    const int width = cam->width;
    const int height = cam->height;
    if (cam->pix_size != 3 || width < 2)
        return ks_reference::parseRectifiedFrame(src, cam, out, meta);
    auto* gray = static_cast<uint8_t*>(out->first);
    I420Planes planes = i420_planes(static_cast<uint8_t*>(out->second), width, height);
    const size_t line_bytes = static_cast<size_t>(width) * 3;
    for (int r = 0; r < height; ++r) {
        const unsigned char* line = src + r * line_bytes;
        uint8_t*& chroma = (r & 1) == 0 ? planes.u : planes.v;
        if (r == 0) {
            luma_chroma_line(line, width, planes.y, chroma);
            values_line(line, width, meta);
            std::memset(gray, 0, width);
        } else {
            int c = ks_v4l2::simd_rectified_line(line, width, planes.y, chroma, gray);
            finish_luma_chroma(line, width, c, planes.y, chroma);
            for (; c < width; ++c)
                gray[c] = static_cast<uint8_t>((line[3 * c] >> 4) + (line[3 * c + 1] << 4));
        }
        gray += width;
    }
    warn_if_invalid_marker(meta, width);
    return 0;
}

int parseRawFrame(unsigned char* src, KsY4L2Cam* cam, _cam_frame_raw_data* out,
                  unsigned short* meta) {
    const unsigned width = static_cast<uint16_t>(cam->width);
    const unsigned height = static_cast<uint16_t>(cam->height);
    if (cam->pix_size != 3) return ks_reference::parseRawFrame(src, cam, out, meta);
    auto* image_a = static_cast<uint16_t*>(out->first);
    auto* image_b = static_cast<uint16_t*>(out->second);
    for (unsigned r = 0; r < height; ++r) {
        const unsigned char* line = src + r * width * 3;
        for (unsigned c = ks_v4l2::simd_raw(line, static_cast<int>(width), image_a, image_b);
             c < width; ++c) {
            const unsigned char* p = line + 3 * c;
            image_a[c] = static_cast<uint16_t>((p[2] << 8) | ((p[1] & 0xF0) << 0));
            image_b[c] = static_cast<uint16_t>(value12(p) << 4);
        }
        if (r == 0) {
            for (unsigned c = 0; c < width; ++c) {
                meta[c] = static_cast<unsigned short>(image_b[c] >> 4);
                image_b[c] = 0;
            }
        }
        image_a += width;
        image_b += width;
    }
    warn_if_invalid_marker(meta, static_cast<int>(width));
    return 0;
}

}  // extern "C"
